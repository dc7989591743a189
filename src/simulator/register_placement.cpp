#include "simulator/platform_model.h"

namespace sim {

RegisterLocator chip_register_locator(const std::string&) { return nullptr; }

}  // namespace sim
