#include "hardware/cpu_mask.h"

#include <pthread.h>
#include <sched.h>
#include <sys/types.h>

namespace {

static_assert(CPUMask::max_cpus <= CPU_SETSIZE, "cpu_set_t must hold every processor of a mask");

cpu_set_t to_cpu_set(const CPUMask& mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned cpu = 0; cpu < CPUMask::max_cpus; ++cpu)
        if (mask.isCPUSet(cpu)) CPU_SET(cpu, &set);
    return set;
}

}  // namespace

bool setAffinity(const CPUMask& mask) {
    const cpu_set_t set = to_cpu_set(mask);
    return pthread_setaffinity_np(pthread_self(), sizeof(set), &set) == 0;
}

CPUMask getAffinity() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPUMask mask;
    if (pthread_getaffinity_np(pthread_self(), sizeof(set), &set) != 0) return mask;
    for (unsigned cpu = 0; cpu < CPUMask::max_cpus; ++cpu)
        if (CPU_ISSET(cpu, &set)) mask.setCPU(cpu);
    return mask;
}

bool setProcessAffinity(int pid, const CPUMask& mask) {
    const cpu_set_t set = to_cpu_set(mask);
    return sched_setaffinity(static_cast<pid_t>(pid), sizeof(set), &set) == 0;
}
