// Physical memory through the operating system: 32-bit loads and stores at
// physical addresses, one mapping per access. Only the hardware service
// reaches this; the platform model never opens physical memory.
#pragma once

#include <optional>
#include <string>

#include "hardware/cpu_mask.h"

class MMIO {
public:
    // Which physical-memory handle a mapping goes through.
    enum CachePolicy { UNCACHED = 0, CACHED = 1, UNSUPPORTED = 2 };

    virtual ~MMIO() = default;

    // Binds later accesses to one processor.
    virtual void setProc(CPU const& cpu) = 0;
    // Reports nothing: on failure (or for UNSUPPORTED) virtual_address is 0
    // or left as it was, and callers test it.
    virtual void mapMemory(unsigned long physical, unsigned int size, unsigned long& virtual_address,
                           unsigned int& mappedLength, CachePolicy policy) = 0;
    virtual void unmapMemory(unsigned long virtual_address, unsigned int length) = 0;
    virtual bool read(unsigned int high, unsigned int low, unsigned int& value, bool noAffinity) = 0;
    virtual bool read(unsigned int high, unsigned int low, unsigned char* buffer, unsigned short length,
                      bool noAffinity) = 0;
    virtual bool write(unsigned int high, unsigned int low, unsigned int value, bool noAffinity) = 0;
    virtual bool write(unsigned int high, unsigned int low, unsigned char* buffer, unsigned short length,
                       bool noAffinity) = 0;
};

// Two handles on physical memory, each from "/dev/fmem" where that opens,
// else "/dev/mem": one opened with synchronous access (uncached mappings),
// one without (cached mappings). The device paths are parameters so tests
// can stand ordinary files in for them.
class MMIO_lin : public MMIO {
public:
    // Throws std::runtime_error when neither device opens.
    explicit MMIO_lin(std::string fmem_path = "/dev/fmem", std::string mem_path = "/dev/mem");
    explicit MMIO_lin(CPU const& cpu, std::string fmem_path = "/dev/fmem", std::string mem_path = "/dev/mem");
    ~MMIO_lin() override;
    MMIO_lin(const MMIO_lin&) = delete;
    MMIO_lin& operator=(const MMIO_lin&) = delete;

    void setProc(CPU const& cpu) override;
    void mapMemory(unsigned long physical, unsigned int size, unsigned long& virtual_address,
                   unsigned int& mappedLength, CachePolicy policy) override;
    void unmapMemory(unsigned long virtual_address, unsigned int length) override;
    // One map, one 32-bit access, one unmap. With a processor set and
    // noAffinity false, the calling thread runs on that processor meanwhile.
    bool read(unsigned int high, unsigned int low, unsigned int& value, bool noAffinity) override;
    bool write(unsigned int high, unsigned int low, unsigned int value, bool noAffinity) override;
    // Block forms throw std::runtime_error: nothing needs them.
    bool read(unsigned int high, unsigned int low, unsigned char* buffer, unsigned short length,
              bool noAffinity) override;
    bool write(unsigned int high, unsigned int low, unsigned char* buffer, unsigned short length,
               bool noAffinity) override;

    const std::string& fmem_path() const { return _fmem_path; }
    const std::string& mem_path() const { return _mem_path; }

private:
    void Init();
    // Runs access on the mapped word, bound to the set processor if asked.
    template <typename Access>
    bool _access(unsigned int high, unsigned int low, bool noAffinity, Access access);

    std::string _fmem_path;
    std::string _mem_path;
    int _uncached = -1;
    int _cached = -1;
    // A copy, so the caller's object needn't outlive us.
    std::optional<CPU> _cpu;
};
