#include "hardware/tool_version.h"

const std::string tool_version = "5.1.56";
