// Configuration space in memory for detection tests: 4 KiB per function,
// little-endian at any offset; absent functions and bytes past the end read
// all ones. Reads report success, as ReadPCIStd does, unless an offset is
// set to fail. A function given a register network in `crn` answers data
// accesses of its index/data pair from it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "hardware/chips/chip_identity.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

class FakeConfigSpace : public ReadPCI, public WritePCI {
public:
    using Address = std::tuple<unsigned, unsigned, unsigned, unsigned>;
    using Space = std::array<std::uint8_t, 4096>;

    // A function with its IDs and header type; the capability list bit stays clear.
    Space& add(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned vendor_id,
               unsigned device_id, unsigned header_type = 0) {
        Space& space = _functions[{segment, bus, device, function}];
        space.fill(0);
        put(space, 0, vendor_id | (device_id << 16), 4);
        space[14] = static_cast<std::uint8_t>(header_type);
        return space;
    }
    Space& add(const PCIE::Device_ID& id, unsigned vendor_id, unsigned device_id, unsigned header_type = 0) {
        return add(id.segment, id.bus, id.device, id.function, vendor_id, device_id, header_type);
    }

    static void put(Space& space, unsigned offset, unsigned value, unsigned size = 4) {
        for (unsigned i = 0; i < size && offset + i < space.size(); ++i)
            space[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    static unsigned get(const Space& space, unsigned offset, unsigned size = 4) {
        unsigned value = 0;
        for (unsigned i = 0; i < size; ++i)
            value |= unsigned(offset + i < space.size() ? space[offset + i] : 0xFF) << (8 * i);
        return value;
    }

    // Capability list of (ID, position) in order; sets the list bit and pointer.
    static void capabilities(Space& space, const std::vector<std::pair<unsigned, unsigned>>& list) {
        put(space, 4, get(space, 4) | (1u << 20));
        put(space, 52, list.empty() ? 0 : list.front().second, 1);
        for (std::size_t i = 0; i < list.size(); ++i) {
            const unsigned next = i + 1 < list.size() ? list[i + 1].second : 0;
            put(space, list[i].second, list[i].first | (next << 8), 2);
        }
    }
    // Extended capability list of (ID, position) in order, from 256.
    static void extended_capabilities(Space& space, const std::vector<std::pair<unsigned, unsigned>>& list) {
        for (std::size_t i = 0; i < list.size(); ++i) {
            const unsigned next = i + 1 < list.size() ? list[i + 1].second : 0;
            put(space, list[i].second, list[i].first | (1u << 16) | (next << 20));
        }
    }

    // A PCI Express capability at 0x40 with port type, link status speed code and width,
    // link capabilities' max speed code and the supported speeds vector (bit 0 = 2.5 GT/s).
    static void express(Space& space, unsigned port_type, unsigned speed_code = 0, unsigned width = 0,
                        unsigned max_speed_code = 0, unsigned supported = 0) {
        capabilities(space, {{0x01, 0x80}, {0x10, 0x40}});  // power management first, then PCI Express
        put(space, 0x40, get(space, 0x40, 2) | (port_type << 20) | (2u << 16));
        put(space, 0x40 + 12, max_speed_code);
        put(space, 0x40 + 16, (speed_code | (width << 4)) << 16);
        put(space, 0x40 + 44, supported << 1);
    }

    void fail_reads_at(unsigned offset) { _failing.insert(offset); }

    bool read32(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                unsigned& value) const override {
        return read(segment, bus, device, function, offset, value, 4);
    }
    bool read16(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                unsigned& value) const override {
        return read(segment, bus, device, function, offset, value, 2);
    }
    bool read8(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
               unsigned& value) const override {
        return read(segment, bus, device, function, offset, value, 1);
    }
    bool write32(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                 unsigned value) const override {
        writes.push_back({{segment, bus, device, function}, offset, value});
        const auto found = _functions.find({segment, bus, device, function});
        const auto network = crn.find({segment, bus, device, function});
        if (network != crn.end() && offset == chips::kCrnDataOffset)
            network->second[get(found->second, chips::kCrnIndexOffset)] = value;
        else if (found != _functions.end())
            put(found->second, offset, value);
        return true;
    }
    bool write16(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned) const override { return true; }
    bool write8(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned) const override { return true; }

    Space& space(unsigned segment, unsigned bus, unsigned device, unsigned function) {
        return _functions.at({segment, bus, device, function});
    }

    struct Write {
        Address address;
        unsigned offset;
        unsigned value;
    };
    mutable std::vector<Write> writes;
    mutable std::map<Address, std::map<unsigned, unsigned>> crn;  // register address -> value

private:
    bool read(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset, unsigned& value,
              unsigned size) const {
        if (_failing.count(offset)) return false;
        const auto found = _functions.find({segment, bus, device, function});
        const auto network = crn.find({segment, bus, device, function});
        if (network != crn.end() && offset == chips::kCrnDataOffset) {
            value = network->second[get(found->second, chips::kCrnIndexOffset)];
            return true;
        }
        value = found == _functions.end() ? (size == 4 ? 0xFFFFFFFFu : (1u << (8 * size)) - 1)
                                          : get(found->second, offset, size);
        return true;
    }

    mutable std::map<Address, Space> _functions;
    std::set<unsigned> _failing;
};
