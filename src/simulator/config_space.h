// The stored part of one function's configuration space: 4 KiB of bytes,
// and for every bit whether software may write it, and whether a write of
// one clears it. Behaviour beyond that (link training, index/data pairs,
// margining) sits in the function model on top.
#pragma once

#include <array>
#include <cstdint>

namespace sim {

class ConfigSpace {
public:
    static constexpr unsigned kSize = 4096;

    ConfigSpace() {
        _value.fill(0);
        _writable.fill(0);
        _w1c.fill(0);
    }

    // Setting up: the value and the behaviour of each bit of a register.
    void define(unsigned offset, unsigned width, uint32_t value, uint32_t writable = 0, uint32_t w1c = 0) {
        for (unsigned i = 0; i < width; ++i) {
            _value[offset + i] = static_cast<uint8_t>(value >> (8 * i));
            _writable[offset + i] = static_cast<uint8_t>(writable >> (8 * i));
            _w1c[offset + i] = static_cast<uint8_t>(w1c >> (8 * i));
        }
    }
    // Changes stored bits regardless of their write behaviour (the device itself).
    void set(unsigned offset, unsigned width, uint32_t value) {
        for (unsigned i = 0; i < width; ++i) _value[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
    uint32_t get(unsigned offset, unsigned width) const {
        uint32_t value = 0;
        for (unsigned i = 0; i < width; ++i) value |= static_cast<uint32_t>(_value[offset + i]) << (8 * i);
        return value;
    }
    // A write as software makes it, one byte lane at a time: writable bits
    // take the new value, write-one-to-clear bits clear where a one is written,
    // everything else stays.
    void write_byte(unsigned offset, uint8_t data) {
        uint8_t v = _value[offset];
        v = static_cast<uint8_t>((v & ~_writable[offset]) | (data & _writable[offset]));
        v = static_cast<uint8_t>(v & ~(data & _w1c[offset]));
        _value[offset] = v;
    }
    uint8_t byte(unsigned offset) const { return _value[offset]; }

private:
    std::array<uint8_t, kSize> _value;
    std::array<uint8_t, kSize> _writable;
    std::array<uint8_t, kSize> _w1c;
};

// Register offsets the model and its tests share.
namespace cfg {
constexpr unsigned kVendorId = 0x00, kCommand = 0x04, kStatus = 0x06, kRevisionClass = 0x08;
constexpr unsigned kHeaderType = 0x0E, kBusNumbers = 0x18, kSecondaryStatus = 0x1E;
constexpr unsigned kCapabilityPointer = 0x34, kBridgeControl = 0x3E;
constexpr unsigned kStatusCapabilityList = 1u << 4;

constexpr unsigned kCapPowerManagement = 0x01, kCapPciExpress = 0x10;
constexpr unsigned kExtCapAer = 0x0001, kExtCapSerialNumber = 0x0003, kExtCapAcs = 0x000D;
constexpr unsigned kExtCapSecondaryPcie = 0x0019, kExtCapLaneMargining = 0x0027;
constexpr unsigned kExtCapPhysicalLayer16 = 0x0026, kExtCapPhysicalLayer32 = 0x002A;

// Where the model puts its standard capabilities. The PCI Express one sits
// where the chip's own port registers mirror it (link capabilities at 0x64).
constexpr unsigned kPowerManagementAt = 0x50, kPciExpressAt = 0x58;

// Inside the PCI Express capability.
constexpr unsigned kPcieCapabilities = 0x02, kDeviceCapabilities = 0x04, kDeviceControl = 0x08, kDeviceStatus = 0x0A;
constexpr unsigned kLinkCapabilities = 0x0C, kLinkControl = 0x10, kLinkStatus = 0x12;
constexpr unsigned kRootControl = 0x1C, kRootStatus = 0x20;
constexpr unsigned kDeviceCapabilities2 = 0x24, kDeviceControl2 = 0x28;
constexpr unsigned kLinkCapabilities2 = 0x2C, kLinkControl2 = 0x30, kLinkStatus2 = 0x32;
constexpr unsigned kPcieCapabilitySize = 0x3C;

constexpr unsigned kLinkControlAspmL0s = 1u << 0, kLinkControlAspmL1 = 1u << 1;
constexpr unsigned kLinkControlDisable = 1u << 4, kLinkControlRetrain = 1u << 5;
constexpr unsigned kLinkStatusTraining = 1u << 11, kLinkStatusDllActive = 1u << 13;
constexpr unsigned kLinkStatusBandwidthChanged = 1u << 14, kLinkStatusAutonomousChange = 1u << 15;

// Port types in the PCI Express capabilities register.
constexpr unsigned kPortEndpoint = 0, kPortRoot = 4, kPortUpstream = 5, kPortDownstream = 6;

// Inside Lane Margining at the Receiver.
constexpr unsigned kMarginPortCapabilities = 0x04, kMarginPortStatus = 0x06, kMarginLaneControl = 0x08;
// Inside Physical Layer 16.0 GT/s and 32.0 GT/s: the status register (low
// four bits: equalisation complete, phases 1 to 3 successful) and the first
// lane's equalisation control byte.
constexpr unsigned kPhysicalLayerStatus = 0x0C, kPhysicalLayerLaneControl = 0x20;
constexpr unsigned kEqualisationDone = 0x0F;
// A lane's control and status at rest: receiver 0, "no command", payload 0x9C.
constexpr unsigned kMarginNoCommand = 0x9C38;
}  // namespace cfg

}  // namespace sim
