#include <stdexcept>

#include "hardware/register_storage.h"
#include "simulator/platform_model.h"

namespace sim {

// Registers are placed where the product's own register store looks for
// them: a store built without an accessor answers get_offset() from the
// chip's tables and touches nothing.
RegisterLocator chip_register_locator(const std::string& die_type) {
    std::shared_ptr<RegisterStorage> store;
    try {
        store = make_register_store(die_type, nullptr);
    } catch (const std::runtime_error&) {
        return nullptr;
    }
    return [store](const std::string& name, const std::string& core,
                   std::optional<unsigned> port) -> std::optional<uint32_t> {
        try {
            if (port) return store->get_pcie_core_func_register(name, core, *port)->get_offset();
            return store->get_pcie_core_register(name, core)->get_offset();
        } catch (const std::runtime_error&) {
            return std::nullopt;
        }
    };
}

}  // namespace sim
