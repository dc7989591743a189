// Sets of logical processors, and binding threads or processes to them.
#pragma once

#include <bitset>
#include <cstddef>

// One logical processor, by its number as the kernel counts them.
class CPU {
public:
    explicit CPU(unsigned id) : _id(id) {}
    unsigned id() const { return _id; }

private:
    unsigned _id;
};

class CPUMask {
public:
    static constexpr std::size_t max_cpus = 512;

    CPUMask() = default;
    explicit CPUMask(const CPU& cpu) { setCPU(cpu); }
    explicit CPUMask(unsigned cpu) { setCPU(cpu); }

    // Throws std::out_of_range for a processor beyond max_cpus.
    void setCPU(const CPU& cpu) { setCPU(cpu.id()); }
    void setCPU(unsigned cpu) { _mask.set(cpu); }
    bool isCPUSet(unsigned cpu) const { return cpu < max_cpus && _mask.test(cpu); }
    const std::bitset<max_cpus>& getMask() const { return _mask; }

    bool operator==(const CPUMask&) const = default;

private:
    std::bitset<max_cpus> _mask;
};

// Binds the calling thread.
bool setAffinity(const CPUMask& mask);
// The processors the calling thread may run on.
CPUMask getAffinity();
// Binds a whole process (its main thread; threads it starts later inherit).
bool setProcessAffinity(int pid, const CPUMask& mask);
