#include "hardware/json_limits.h"

#include <string>

nlohmann::json parse_json_limited(std::string_view text, std::size_t max_depth) {
    using json = nlohmann::json;
    // The callback sees each container as it opens, with the number of
    // containers already open around it.
    const json::parser_callback_t guard = [max_depth](int depth, json::parse_event_t event, json&) {
        if ((event == json::parse_event_t::object_start || event == json::parse_event_t::array_start) &&
            static_cast<std::size_t>(depth) >= max_depth) {
            throw JsonTooDeep("JSON nests deeper than " + std::to_string(max_depth) + " levels");
        }
        return true;
    };
    return json::parse(text.begin(), text.end(), guard);
}
