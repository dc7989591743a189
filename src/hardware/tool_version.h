// The service's version as reports and the version route show it. Kept in
// the lowest library so every report writer can stamp it.
#pragma once

#include <string>

extern const std::string tool_version;
