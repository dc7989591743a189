#include "hardware/chips/corvane_registers.h"

#include "hardware/chips/corvane_lanes.h"

namespace chips {

const server_io::ServerRegisterMap& corvane_register_map() {
    static const server_io::ServerRegisterMap map =
        server_io::make_server_register_map(corvane_lanes(), corvane::kPcieCores, false);
    return map;
}

}  // namespace chips
