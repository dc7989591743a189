// An in-memory machine for die detection: configuration space per function,
// and behind a root function's index/data pair a register network, so the
// product's own accessor runs over it.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "discovery/fake_config_space.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/crn_accessor.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace die_test {

// A register network of its own, for graphics dies and direct accessor use;
// it keeps what is written and logs the accesses.
class FakeCRN : public CRNAccessor {
public:
    mutable std::map<unsigned, unsigned> registers;
    mutable std::vector<unsigned> reads;
    mutable std::vector<std::pair<unsigned, unsigned>> writes;  // address, value

    unsigned read32(unsigned address) const override {
        reads.push_back(address);
        auto it = registers.find(address);
        return it == registers.end() ? 0 : it->second;
    }
    void write32(unsigned address, unsigned value) const override {
        writes.emplace_back(address, value);
        registers[address] = value;
    }
    unsigned read16(unsigned address) const override { return read32(address) & 0xFFFF; }
    void write16(unsigned address, unsigned value) const override { write32(address, value); }
    unsigned read8(unsigned address) const override { return read32(address) & 0xFF; }
    void write8(unsigned address, unsigned value) const override { write32(address, value); }
};

// A machine built function by function; `devices` is what PCI detection
// would have found.
struct FakeMachine {
    std::shared_ptr<FakeConfigSpace> pci = std::make_shared<FakeConfigSpace>();
    std::vector<PCIDeviceDetails> devices;

    PCIDeviceDetails add(unsigned seg, unsigned bus, unsigned dev, unsigned fn, unsigned vendor, unsigned device_id,
                         unsigned class_code = 6) {
        PCIDeviceDetails details(seg, bus, dev, fn);
        details.vendor_id = vendor;
        details.device_id = device_id;
        FakeConfigSpace::put(pci->add(seg, bus, dev, fn, vendor, device_id), 8, class_code << 24);
        devices.push_back(details);
        return details;
    }
    // The data fabric function of a socket: bus 0, device 24 + socket.
    void add_socket(unsigned socket, unsigned df_device_id) {
        add(0, 0, 24 + socket, 0, chips::kProcessorVendorId, df_device_id);
    }
    // A root function whose identity register answers `identity`.
    PCIDeviceDetails add_root(unsigned seg, unsigned bus, unsigned device_id, unsigned identity) {
        auto root = add(seg, bus, 0, 0, chips::kProcessorVendorId, device_id);
        pci->crn[{seg, bus, 0, 0}][chips::kDieIdentityRegister] = identity;
        return root;
    }
};

}  // namespace die_test
