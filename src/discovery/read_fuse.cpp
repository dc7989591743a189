#include "discovery/read_fuse.h"

#include <iostream>

#include "hardware/crn_factory.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/phy_accessor.h"

bool ReadFuse::supports_asic_id_extraction(const VEX_DIE_INFO& die) {
    return die.name().find("KX900") != std::string::npos;
}

uint64_t ReadFuse::get_asic_id(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor) {
    if (!supports_asic_id_extraction(die)) {
        std::cerr << "Error: get_asic_id called on " << die.name() << std::endl;
        return 0;
    }
    const PhyAccessor phy(accessor ? accessor : CRNFactory::instance()->get_crn_accessor(die));
    const uint64_t first = phy.read(0, chips::kAsicIdFuseRegisters[0], 4);
    const uint64_t second = phy.read(0, chips::kAsicIdFuseRegisters[1], 4);
    const uint64_t third = phy.read(0, chips::kAsicIdFuseRegisters[2], 4);
    return (third << 42) | (second << 10) | (first >> 22);
}
