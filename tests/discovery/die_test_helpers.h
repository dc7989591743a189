// Small helpers shared by the die and lane tests.
#pragma once

#include <stdexcept>
#include <string>

#include "hardware/vex_die_info.h"

namespace die_test {

// The text of the runtime error a call throws, for comparing fixed texts.
template <typename F>
std::string thrown_text(F call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

// A die that has a name and nothing else: enough for code that picks by name.
inline VEX_DIE_INFO named_die(const std::string& name) {
    VEX_DIE_INFO die;
    die.is_gpu = true;
    die.gpu.name = name;
    return die;
}

}  // namespace die_test
