#include "simulator/aspm_model.h"

namespace sim {

void define_l1_pm_substates(ConfigSpace& c, unsigned at) {
    // PCI-PM and ASPM L1.1/L1.2, substates supported; common mode restore
    // 10 us; T_POWER_ON 5 x 10 us.
    c.define(at + cfg::kL1SubCapabilities, 4, 0x1F | 10u << 8 | 1u << 16 | 5u << 19);
    // Enables, common mode restore time, LTR L1.2 threshold value and scale.
    c.define(at + cfg::kL1SubControl1, 4, 0, 0xE3FFFF0F);
    c.define(at + cfg::kL1SubControl2, 4, 0x28 | 1, 0xFB);  // T_POWER_ON as offered
    c.define(at + cfg::kL1SubStatus, 4, 0, 0, 0x1);        // link activation status
}

}  // namespace sim
