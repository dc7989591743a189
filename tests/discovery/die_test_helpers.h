// Small helpers shared by the die and lane tests.
#pragma once

#include <stdexcept>
#include <string>

#include "hardware/vex_die_info.h"
#include "support/thrown.h"

namespace die_test {

using lw_test::thrown_text;

// A die that has a name and nothing else: enough for code that picks by name.
inline VEX_DIE_INFO named_die(const std::string& name) {
    VEX_DIE_INFO die;
    die.is_gpu = true;
    die.gpu.name = name;
    return die;
}

// A processor die named, placed and given a full name: enough for code that
// matches dies by socket, die number or full name.
inline VEX_DIE_INFO cpu_die(const std::string& name, unsigned int socket, unsigned int die = 0) {
    VEX_DIE_INFO result;
    result.is_cpu = true;
    result.cpu.name = name;
    result.cpu.socket = socket;
    result.cpu.die = die;
    result.cpu.full_name = name + " Socket:" + std::to_string(socket) + " Die:" + std::to_string(die);
    return result;
}

}  // namespace die_test
