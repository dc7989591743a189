// The fuse-derived 64-bit chip ID of a KX900 die, which margin reports carry.
#pragma once

#include <cstdint>
#include <memory>

#include "hardware/crn_accessor.h"
#include "hardware/vex_die_info.h"

class ReadFuse {
public:
    // True for dies whose name contains "KX900".
    static bool supports_asic_id_extraction(const VEX_DIE_INFO& die);

    // Reads the three fuse words through `accessor`, or through the die's own
    // accessor from CRNFactory when none is given. On a die without the fuses
    // it prints "Error: get_asic_id called on <name>" and gives 0.
    static uint64_t get_asic_id(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor = nullptr);
};
