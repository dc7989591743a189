// An in-memory machine for die detection: configuration space per function,
// and behind each function's CRN index/data pair (offsets 224/228) a map of
// register network addresses, so the product's own accessor runs over it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <tuple>
#include <vector>

#include "hardware/chips/chip_identity.h"
#include "hardware/crn_accessor.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace die_test {

using FunctionKey = std::tuple<unsigned, unsigned, unsigned, unsigned>;

class FakePCI : public ReadPCI, public WritePCI {
public:
    // The interfaces' writes are const; the fake's state is what they change.
    mutable std::map<FunctionKey, std::map<unsigned, unsigned>> config;  // dword offset -> value
    mutable std::map<FunctionKey, std::map<unsigned, unsigned>> crn;     // CRN address -> value
    mutable int accesses = 0;

    bool read32(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned& value) const override {
        ++accesses;
        const FunctionKey key{s, b, d, f};
        auto function = config.find(key);
        if (function == config.end()) {
            value = 0xFFFFFFFF;  // absent functions read all ones
            return true;
        }
        if (offset == chips::kCrnDataOffset) {
            value = crn_value(key);
            return true;
        }
        auto it = function->second.find(offset & ~3u);
        value = it == function->second.end() ? 0 : it->second;
        value >>= 8 * (offset & 3);
        return true;
    }
    bool read16(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned& value) const override {
        read32(s, b, d, f, offset, value);
        value &= 0xFFFF;
        return true;
    }
    bool read8(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned& value) const override {
        read32(s, b, d, f, offset, value);
        value &= 0xFF;
        return true;
    }
    bool write32(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned value) const override {
        ++accesses;
        const FunctionKey key{s, b, d, f};
        auto& space = config[key];
        if (offset == chips::kCrnDataOffset)
            crn[key][space[chips::kCrnIndexOffset]] = value;
        else
            space[offset] = value;
        return true;
    }
    bool write16(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned value) const override {
        return write32(s, b, d, f, offset, value & 0xFFFF);
    }
    bool write8(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned value) const override {
        return write32(s, b, d, f, offset, value & 0xFF);
    }

private:
    unsigned crn_value(const FunctionKey& key) const {
        auto registers = crn.find(key);
        if (registers == crn.end()) return 0;
        const unsigned index = config.at(key).count(chips::kCrnIndexOffset) ? config.at(key).at(chips::kCrnIndexOffset) : 0;
        auto it = registers->second.find(index);
        return it == registers->second.end() ? 0 : it->second;
    }
};

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
    std::shared_ptr<FakePCI> pci = std::make_shared<FakePCI>();
    std::vector<PCIDeviceDetails> devices;

    PCIDeviceDetails add(unsigned seg, unsigned bus, unsigned dev, unsigned fn, unsigned vendor, unsigned device_id,
                         unsigned class_code = 6) {
        PCIDeviceDetails details(seg, bus, dev, fn);
        details.vendor_id = vendor;
        details.device_id = device_id;
        pci->config[{seg, bus, dev, fn}][0] = vendor | (device_id << 16);
        pci->config[{seg, bus, dev, fn}][8] = class_code << 24;
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
