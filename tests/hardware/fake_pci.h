// An in-memory configuration space that records every access, with hooks
// so a test can script what a read answers or what a write does.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>
#include <vector>

#include "hardware/pci_access.h"

struct PciAccess {
    bool write = false;
    unsigned int width = 4;  // bytes
    unsigned int segment = 0, bus = 0, device = 0, function = 0, offset = 0;
    unsigned int value = 0;  // written, or answered

    bool operator==(const PciAccess& other) const {
        return std::tie(write, width, segment, bus, device, function, offset, value) ==
               std::tie(other.write, other.width, other.segment, other.bus, other.device, other.function,
                        other.offset, other.value);
    }
};

inline PciAccess pci_read(unsigned int width, unsigned int offset, unsigned int value) {
    return PciAccess{false, width, 0, 0, 0, 0, offset, value};
}
inline PciAccess pci_write(unsigned int width, unsigned int offset, unsigned int value) {
    return PciAccess{true, width, 0, 0, 0, 0, offset, value};
}

class FakePCI : public ReadPCI, public WritePCI {
public:
    // A read hook that answers replaces the stored bytes for that read.
    std::function<std::optional<unsigned int>(const PciAccess&)> read_hook;
    // A write hook that returns true consumes the write (bytes stay as they were).
    std::function<bool(const PciAccess&)> write_hook;

    void set(unsigned int seg, unsigned int bus, unsigned int dev, unsigned int fn, unsigned int offset,
             unsigned int value, unsigned int width = 4) {
        std::lock_guard<std::mutex> guard(_mutex);
        _store(seg, bus, dev, fn, offset, value, width);
    }
    unsigned int get(unsigned int seg, unsigned int bus, unsigned int dev, unsigned int fn, unsigned int offset,
                     unsigned int width = 4) const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _load(seg, bus, dev, fn, offset, width);
    }
    std::vector<PciAccess> log() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _log;
    }
    void clear_log() {
        std::lock_guard<std::mutex> guard(_mutex);
        _log.clear();
    }

    bool read32(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                unsigned int& v) const override {
        return _read(4, s, b, d, f, o, v);
    }
    bool read16(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                unsigned int& v) const override {
        return _read(2, s, b, d, f, o, v);
    }
    bool read8(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
               unsigned int& v) const override {
        return _read(1, s, b, d, f, o, v);
    }
    bool write32(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                 unsigned int v) const override {
        return _write(4, s, b, d, f, o, v);
    }
    bool write16(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                 unsigned int v) const override {
        return _write(2, s, b, d, f, o, v);
    }
    bool write8(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                unsigned int v) const override {
        return _write(1, s, b, d, f, o, v);
    }

private:
    using Key = std::tuple<unsigned int, unsigned int, unsigned int, unsigned int, unsigned int>;

    bool _read(unsigned int width, unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
               unsigned int& v) const {
        PciAccess access{false, width, s, b, d, f, o, 0};
        std::optional<unsigned int> scripted;
        if (read_hook) scripted = read_hook(access);
        std::lock_guard<std::mutex> guard(_mutex);
        access.value = scripted ? *scripted : _load(s, b, d, f, o, width);
        v = access.value;
        _log.push_back(access);
        return true;
    }
    bool _write(unsigned int width, unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                unsigned int v) const {
        const PciAccess access{true, width, s, b, d, f, o, v};
        const bool consumed = write_hook && write_hook(access);
        std::lock_guard<std::mutex> guard(_mutex);
        if (!consumed) _store(s, b, d, f, o, v, width);
        _log.push_back(access);
        return true;
    }
    void _store(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o, unsigned int v,
                unsigned int width) const {
        for (unsigned int i = 0; i < width; ++i) _bytes[Key{s, b, d, f, o + i}] = (v >> (8 * i)) & 0xFF;
    }
    unsigned int _load(unsigned int s, unsigned int b, unsigned int d, unsigned int f, unsigned int o,
                       unsigned int width) const {
        unsigned int v = 0;
        for (unsigned int i = 0; i < width; ++i) {
            auto found = _bytes.find(Key{s, b, d, f, o + i});
            if (found != _bytes.end()) v |= found->second << (8 * i);
        }
        return v;
    }

    mutable std::mutex _mutex;
    mutable std::map<Key, unsigned int> _bytes;
    mutable std::vector<PciAccess> _log;
};

// A register network behind the index/data pair of one function: data
// accesses reach `registers` at the dword that the last index selects.
class FakeCrnPair {
public:
    std::map<unsigned int, unsigned int> registers;

    FakeCrnPair(FakePCI& pci, unsigned int index_offset, unsigned int data_offset) : _pci(pci) {
        pci.read_hook = [this, data_offset](const PciAccess& a) -> std::optional<unsigned int> {
            if (a.offset != data_offset) return std::nullopt;
            std::lock_guard<std::mutex> guard(_mutex);
            return registers[_index & ~3u];
        };
        pci.write_hook = [this, index_offset, data_offset](const PciAccess& a) {
            std::lock_guard<std::mutex> guard(_mutex);
            if (a.offset == index_offset) _index = a.value;
            if (a.offset != data_offset) return false;
            registers[_index & ~3u] = a.value;
            return true;
        };
    }
    ~FakeCrnPair() {
        _pci.read_hook = nullptr;
        _pci.write_hook = nullptr;
    }

private:
    FakePCI& _pci;
    std::mutex _mutex;
    unsigned int _index = 0;
};
