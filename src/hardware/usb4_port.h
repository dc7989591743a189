// One port of a USB4 router on a die: chip tables and register stores key
// their USB4 data by it.
#pragma once

#include <compare>

namespace USB {

struct USB4Port {
    unsigned int router = 0;  // router number on the die
    unsigned int port = 0;    // adapter number within the router

    auto operator<=>(const USB4Port&) const = default;
};

}  // namespace USB
