// Machine profiles of the simulator: text to a checked profile, through the
// checks of every field. Any other exception or a crash is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "simulator/profile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        sim::parse_profile_text(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const sim::ProfileError&) {
    }
    return 0;
}
