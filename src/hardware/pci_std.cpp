#include "hardware/pci_std.h"

#include <atomic>
#include <vector>

#include "hardware/resource_lock.h"

namespace {

// The process-wide PCI_lin of one direction. Objects are never freed while
// the process lives: accessors hold plain pointers to them.
class SharedPCI {
public:
    const PCI* get() {
        if (const PCI* pci = _current.load(std::memory_order_acquire)) return pci;
        NamedLockGuard guard("GlobalPCIInstanceLock");
        const PCI* pci = _current.load(std::memory_order_relaxed);
        if (!pci) {
            pci = new PCI_lin(_root);
            _current.store(pci, std::memory_order_release);
        }
        return pci;
    }

    void set_root(const std::string& root) {
        NamedLockGuard guard("GlobalPCIInstanceLock");
        _root = root;
        if (const PCI* old = _current.exchange(nullptr)) _retired.push_back(old);
    }

private:
    std::atomic<const PCI*> _current{nullptr};
    std::string _root = "/sys/bus/pci/devices";
    std::vector<const PCI*> _retired;
};

// Made on first use and never destroyed, so threads still running at exit
// never see a dead object.
SharedPCI& readers() {
    static SharedPCI* shared = new SharedPCI;
    return *shared;
}

SharedPCI& writers() {
    static SharedPCI* shared = new SharedPCI;
    return *shared;
}

unsigned char u8(unsigned int value) { return static_cast<unsigned char>(value); }
unsigned short u16(unsigned int value) { return static_cast<unsigned short>(value); }

}  // namespace

ReadPCIStd::ReadPCIStd() : _pci(readers().get()) {}

void ReadPCIStd::set_sysfs_root(const std::string& root) { readers().set_root(root); }

bool ReadPCIStd::read32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                        unsigned int offset, unsigned int& value) const {
    _pci->readDWordEx(u8(segment), u8(bus), u8(device), u8(function), u16(offset), value);
    return true;
}

bool ReadPCIStd::read16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                        unsigned int offset, unsigned int& value) const {
    unsigned short word = 0;
    _pci->readWordEx(u8(segment), u8(bus), u8(device), u8(function), u16(offset), word);
    value = word;
    return true;
}

bool ReadPCIStd::read8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                       unsigned int offset, unsigned int& value) const {
    unsigned char byte = 0;
    _pci->readByteEx(u8(segment), u8(bus), u8(device), u8(function), u16(offset), byte);
    value = byte;
    return true;
}

WritePCIStd::WritePCIStd() : _pci(writers().get()) {}

void WritePCIStd::set_sysfs_root(const std::string& root) { writers().set_root(root); }

bool WritePCIStd::write32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                          unsigned int offset, unsigned int value) const {
    _pci->writeDWordEx(u8(segment), u8(bus), u8(device), u8(function), u16(offset), value);
    return true;
}

bool WritePCIStd::write16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                          unsigned int offset, unsigned int value) const {
    _pci->writeWordEx(u8(segment), u8(bus), u8(device), u8(function), u16(offset), u16(value));
    return true;
}

bool WritePCIStd::write8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                         unsigned int offset, unsigned int value) const {
    _pci->writeByteEx(u8(segment), u8(bus), u8(device), u8(function), u16(offset), u8(value));
    return true;
}
