// Readable names for parameterised cases. A case struct carries a `name`;
// `by_name` makes it the test's name (CTest and --gtest_filter see it) and
// LW_PRINT_BY_NAME lets a failure message show it instead of the bytes.
#pragma once

#include <cctype>
#include <ostream>
#include <string>
#include <string_view>

namespace lw_test {

// gtest accepts [A-Za-z0-9_] only: every other run of characters becomes one
// '_', none at either end.
inline std::string case_name(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c))) out += c;
        else if (!out.empty() && out.back() != '_') out += '_';
    }
    if (!out.empty() && out.back() == '_') out.pop_back();
    return out.empty() ? "empty" : out;
}

inline constexpr auto by_name = [](const auto& info) { return case_name(info.param.name); };
// For cases that are a text themselves.
inline constexpr auto by_value = [](const auto& info) { return case_name(info.param); };

// For cases whose text field is their name: lw_test::by_field(&Case::plain).
template <class Member>
auto by_field(Member field) {
    return [field](const auto& info) { return case_name(info.param.*field); };
}

}  // namespace lw_test

#define LW_PRINT_BY_NAME(Case) LW_PRINT_BY_FIELD(Case, name)
#define LW_PRINT_BY_FIELD(Case, field) \
    [[maybe_unused]] inline void PrintTo(const Case& c, std::ostream* os) { *os << c.field; }
