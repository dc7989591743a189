#include "hardware/chips/dellmar_registers.h"

#include "hardware/chips/corvane_lanes.h"

namespace chips {

const server_io::ServerRegisterMap& dellmar_register_map() {
    static const server_io::ServerRegisterMap map =
        server_io::make_server_register_map(corvane_lanes(), dellmar::kPcieCores, true);
    return map;
}

}  // namespace chips
