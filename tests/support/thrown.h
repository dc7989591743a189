// The text of the error a call throws, for comparing fixed texts.
#pragma once

#include <stdexcept>
#include <string>

namespace lw_test {

template <typename Error = std::runtime_error, typename F>
std::string thrown_text(F call) {
    try {
        call();
    } catch (const Error& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

}  // namespace lw_test
