// The text of the runtime error a call throws, for comparing fixed texts.
#pragma once

#include <stdexcept>
#include <string>

namespace die_test {

template <typename F>
std::string thrown_text(F call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

}  // namespace die_test
