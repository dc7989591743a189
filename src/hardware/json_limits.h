// JSON from outside the process (request bodies, socket messages, machine
// profiles) is parsed with a nesting limit. Dumping, copying and comparing a
// document recurse once per level, so an unlimited document of a few hundred
// kilobytes of "[[[[..." would end the process on stack overflow long after
// the parse itself succeeded.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

// Deep enough for every document the service and its tools exchange (the
// deepest, an archived test record, nests about eight levels).
constexpr std::size_t kMaxJsonDepth = 64;

class JsonTooDeep : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parses text as JSON, refusing documents that nest arrays or objects deeper
// than max_depth (the outermost counts as one). Throws JsonTooDeep for those
// before the deeper levels are built, nlohmann::json::parse_error for text
// that isn't JSON.
nlohmann::json parse_json_limited(std::string_view text, std::size_t max_depth = kMaxJsonDepth);
