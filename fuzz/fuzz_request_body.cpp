// Request bodies and socket messages: the nesting-limited parse, then what
// handlers do with a parsed document (dump, copy, compare), which recurses.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "hardware/json_limits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const nlohmann::json document = parse_json_limited(text);
        const nlohmann::json copy = document;
        if (copy != document) __builtin_trap();
        // The service answers with dumps of what it parsed; a round trip must
        // give the same document (NaN can't be parsed, so equality holds).
        if (nlohmann::json::parse(document.dump()) != document) __builtin_trap();
    } catch (const JsonTooDeep&) {
    } catch (const nlohmann::json::exception&) {
    }
    return 0;
}
