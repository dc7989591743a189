#include "hardware/mmio_lin.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

namespace {

unsigned long page_size() {
    static const unsigned long size = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE));
    return size;
}

// The first of the two devices that opens with these flags, or -1.
int open_first(const std::string& preferred, const std::string& fallback, int flags) {
    const int handle = ::open(preferred.c_str(), flags | O_CLOEXEC);
    if (handle != -1) return handle;
    return ::open(fallback.c_str(), flags | O_CLOEXEC);
}

}  // namespace

MMIO_lin::MMIO_lin(std::string fmem_path, std::string mem_path)
    : _fmem_path(std::move(fmem_path)), _mem_path(std::move(mem_path)) {
    Init();
}

MMIO_lin::MMIO_lin(CPU const& cpu, std::string fmem_path, std::string mem_path)
    : _fmem_path(std::move(fmem_path)), _mem_path(std::move(mem_path)), _cpu(cpu) {
    Init();
}

MMIO_lin::~MMIO_lin() {
    ::close(_uncached);
    ::close(_cached);
}

void MMIO_lin::Init() {
    _uncached = open_first(_fmem_path, _mem_path, O_RDWR | O_SYNC);
    if (_uncached == -1) throw std::runtime_error("Failed to open /dev/mem with O_SYNC flag");
    _cached = open_first(_fmem_path, _mem_path, O_RDWR);
    if (_cached == -1) {
        ::close(_uncached);
        throw std::runtime_error("Failed to open /dev/mem");
    }
}

void MMIO_lin::setProc(CPU const& cpu) { _cpu = cpu; }

void MMIO_lin::mapMemory(unsigned long physical, unsigned int size, unsigned long& virtual_address,
                         unsigned int& mappedLength, CachePolicy policy) {
    if (policy != UNCACHED && policy != CACHED) return;
    const unsigned long page = page_size();
    const unsigned long start = physical & ~(page - 1);
    const unsigned int length = static_cast<unsigned int>(((physical + size + page - 1) & ~(page - 1)) - start);
    const int handle = policy == UNCACHED ? _uncached : _cached;
    void* mapped = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, handle, static_cast<off_t>(start));
    if (mapped == MAP_FAILED) {
        virtual_address = 0;
        return;
    }
    virtual_address = reinterpret_cast<unsigned long>(mapped) + (physical & (page - 1));
    mappedLength = length;
}

void MMIO_lin::unmapMemory(unsigned long virtual_address, unsigned int length) {
    ::munmap(reinterpret_cast<void*>(virtual_address & ~(page_size() - 1)), length);
}

template <typename Access>
bool MMIO_lin::_access(unsigned int high, unsigned int low, bool noAffinity, Access access) {
    const unsigned long physical = (static_cast<unsigned long>(high) << 32) | low;
    const bool bind = _cpu.has_value() && !noAffinity;
    CPUMask saved;
    if (bind) {
        saved = getAffinity();
        setAffinity(CPUMask(*_cpu));
    }
    bool result = false;
    unsigned long virtual_address = 0;
    unsigned int length = 0;
    mapMemory(physical, sizeof(unsigned int), virtual_address, length, UNCACHED);
    if (virtual_address != 0) {
        access(reinterpret_cast<volatile unsigned int*>(virtual_address));
        unmapMemory(virtual_address, length);
        result = true;
    }
    if (bind) setAffinity(saved);
    return result;
}

bool MMIO_lin::read(unsigned int high, unsigned int low, unsigned int& value, bool noAffinity) {
    return _access(high, low, noAffinity, [&value](volatile unsigned int* word) { value = *word; });
}

bool MMIO_lin::write(unsigned int high, unsigned int low, unsigned int value, bool noAffinity) {
    return _access(high, low, noAffinity, [value](volatile unsigned int* word) { *word = value; });
}

bool MMIO_lin::read(unsigned int, unsigned int, unsigned char*, unsigned short, bool) {
    throw std::runtime_error("MMIO_lin::read() Not implemented.");
}

bool MMIO_lin::write(unsigned int, unsigned int, unsigned char*, unsigned short, bool) {
    throw std::runtime_error("MMIO_lin::write() Not implemented.");
}
