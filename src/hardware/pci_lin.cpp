#include "hardware/pci_lin.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

std::uint32_t handle_key(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function) {
    return (std::uint32_t{segment} << 24) | (std::uint32_t{bus} << 16) | (std::uint32_t{device} << 8) | function;
}

}  // namespace

PCI_lin::PCI_lin(std::string sysfs_root, std::chrono::milliseconds listing_ttl)
    : _root(std::move(sysfs_root)), _listing_ttl(listing_ttl) {}

bool PCI_lin::_listed_absent(std::uint32_t key) const {
    std::lock_guard<std::mutex> lock(_listing_mutex);
    const auto now = std::chrono::steady_clock::now();
    if (!_listing_valid || _listing_ttl.count() == 0 || now - _listed_at >= _listing_ttl) {
        _listing.clear();
        _listing_valid = false;
        DIR* folder = ::opendir(_root.c_str());
        // Without a listing every access goes to the file itself.
        if (!folder) return false;
        while (const dirent* entry = ::readdir(folder)) {
            unsigned segment = 0, bus = 0, device = 0, function = 0;
            if (std::sscanf(entry->d_name, "%4x:%2x:%2x.%1u", &segment, &bus, &device, &function) == 4 &&
                segment <= 0xFF && bus <= 0xFF && device <= 0xFF && function <= 0xFF) {
                _listing.insert(handle_key(static_cast<unsigned char>(segment), static_cast<unsigned char>(bus),
                                           static_cast<unsigned char>(device), static_cast<unsigned char>(function)));
            }
        }
        ::closedir(folder);
        _listing_valid = true;
        _listed_at = now;
    }
    return _listing.count(key) == 0;
}

PCI_lin::~PCI_lin() { closeAll(); }

void PCI_lin::closeAll() {
    std::unique_lock lock(_handles_mutex);
    for (const auto& [key, handle] : _handles) ::close(handle);
    _handles.clear();
}

int PCI_lin::openSysFile(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                         int flags) const {
    const std::uint32_t key = handle_key(segment, bus, device, function);
    {
        std::shared_lock lock(_handles_mutex);
        const auto found = _handles.find(key);
        if (found != _handles.end()) return found->second;
    }

    if (_listed_absent(key)) return -1;

    char path[1024];
    const int length = std::snprintf(path, sizeof(path), "%s/%04x:%02x:%02x.%d/%s", _root.c_str(),
                                     unsigned{segment}, unsigned{bus}, unsigned{device}, int{function}, "config");
    if (length <= 0 || length >= static_cast<int>(sizeof(path))) return -1;

    // Reads open read-write too: the service runs as root and keeps one handle per function.
    const int handle = ::open(path, flags | O_RDWR | O_CLOEXEC);
    if (handle == -1) return -1;

    // Opened outside the lock; a thread that lost the race gives its handle back.
    std::unique_lock lock(_handles_mutex);
    const auto [entry, inserted] = _handles.emplace(key, handle);
    if (!inserted) ::close(handle);
    return entry->second;
}

bool PCI_lin::_read(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                    unsigned short offset, void* value, unsigned size) const {
    const int handle = openSysFile(segment, bus, device, function, 0);
    if (handle == -1) return false;
    unsigned char buffer[4];
    const ssize_t got = ::pread(handle, buffer, size, offset);
    if (got == -1) return false;
    if (got == static_cast<ssize_t>(size)) std::memcpy(value, buffer, size);
    return true;
}

bool PCI_lin::_write(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                     unsigned short offset, const void* value, unsigned size) const {
    const int handle = openSysFile(segment, bus, device, function, O_RDWR);
    if (handle == -1) return false;
    return ::pwrite(handle, value, size, offset) != -1;
}

bool PCI_lin::read(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                   unsigned int& value) const {
    return _read(0, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::write(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                    unsigned int value) const {
    return _write(0, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::readByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                       unsigned char& value) const {
    return _read(0, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::writeByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                        unsigned char value) const {
    return _write(0, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::readWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                       unsigned short& value) const {
    return _read(0, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::writeWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                        unsigned short value) const {
    return _write(0, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::readDWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                        unsigned int& value, bool byBytes) const {
    if (!byBytes) return read(bus, device, function, offset, value);
    unsigned char bytes[4] = {};
    for (unsigned i = 0; i < 4; ++i)
        if (!readByte(bus, device, function, static_cast<unsigned char>(offset + i), bytes[i])) return false;
    unsigned int word;
    std::memcpy(&word, bytes, sizeof(word));
    value = word;
    return true;
}

bool PCI_lin::writeDWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                         unsigned int value) const {
    return write(bus, device, function, offset, value);
}

bool PCI_lin::readByteEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                         unsigned short offset, unsigned char& value) const {
    return _read(segment, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::writeByteEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                          unsigned short offset, unsigned char value) const {
    return _write(segment, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::readWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                         unsigned short offset, unsigned short& value) const {
    return _read(segment, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::writeWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                          unsigned short offset, unsigned short value) const {
    return _write(segment, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::readDWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                          unsigned short offset, unsigned int& value) const {
    return _read(segment, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::writeDWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                           unsigned short offset, unsigned int value) const {
    return _write(segment, bus, device, function, offset, &value, sizeof(value));
}

bool PCI_lin::readPCIStatus(unsigned char bus, unsigned char device, unsigned char function) const {
    return openSysFile(0, bus, device, function, 0) != -1;
}

bool PCI_lin::readPCIExStatus(unsigned char segment, unsigned char bus, unsigned char device,
                              unsigned char function) const {
    return openSysFile(segment, bus, device, function, 0) != -1;
}
