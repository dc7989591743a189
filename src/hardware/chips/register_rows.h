// One row of a chip's register map: which lookup of a register store
// answers it, under which keys, and where the register lies on the die's
// register network. Register stores are built from these rows and the
// platform model places its registers by the same rows, so the two can't
// disagree.
#pragma once

#include <string>
#include <vector>

namespace chips {

// Which RegisterStorage lookup a row belongs to, and what its keys mean.
enum class RegisterTable {
    lane,                 // get_lane_register(name, key = link, instance = lane)
    chiplet,              // get_chiplet_register(name, key = link, instance = chiplet)
    link,                 // get_link_register(name, key = link), instance 0
    link_pcs,             // get_link_pcs_register(name, key = link, instance = lane)
    pcie_core,            // get_pcie_core_register(name, key = core), instance 0
    pcie_core_func,       // get_pcie_core_func_register(name, key = core, instance = port)
    pcie_core_func_lane,  // get_pcie_core_func_lane_register(name, key = core, instance = port, lane)
    cxl,                  // get_cxl_register(name, key = core, instance = port)
    iohc,                 // get_iohc_register(name, key = core), instance 0
    sata,                 // get_sata_register(name, index = instance), key "SATA"
    mpio,                 // get_mpio_register(name), key "MPIO", instance 0
    usr,                  // get_usr_register(name, key = link, instance)
    usb4_port,            // get_usb4_port_register(name, port): key = router in decimal, instance = port
};

struct RegisterRow {
    RegisterTable table;
    std::string name;
    std::string key;
    unsigned int instance = 0;
    unsigned int lane = 0;  // pcie_core_func_lane only
    unsigned int address = 0;
    unsigned int size = 4;  // bytes
};

using RegisterRows = std::vector<RegisterRow>;

constexpr const char* kSataKey = "SATA";
constexpr const char* kMpioKey = "MPIO";

}  // namespace chips
