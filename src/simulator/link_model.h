// Link behaviour beyond plain training: the faults a profile can put on a
// link, and the root ports' link controller registers through which the
// platform changes a link's speed and width from the chip side.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "simulator/profile.h"
#include "simulator/register_space.h"

namespace sim {

// What can go wrong on one link. A link is named in "faults" by its port's
// or its device's name.
struct LinkFaults {
    unsigned fail_speed = 0;        // never trains at this speed code or above (0: no such fault)
    int64_t flap_period_ns = 0;     // drops and retrains from Detect this often while up
    int64_t return_ns = 0;          // after a reset or re-enable the device needs this long (0: as usual)
    unsigned aer_every = 0;         // every n-th training ends with these correctable errors logged
    uint32_t aer_correctable = 0;   // AER correctable status bits that are set
};

bool is_link_fault(const std::string& type);
// Keyed by the port whose link is meant; refuses a bad entry with the path of the field.
std::map<const PortProfile*, LinkFaults> read_link_faults(const Profile& profile);

// The link controller window of a root port's register block. Offsets in
// the window and in the core's block are the ones the link model uses.
namespace link_controller {
constexpr uint32_t kWidthControl = 0x288;        // 2:0 width code, 8 reconfigure (busy), 10 and 17 modes
constexpr uint32_t kSpeedControl = 0x290;        // 15:12 speed index, 11 override
constexpr uint32_t kState = 0x294;               // 5:0 current LC state (L0 = 0x10)
constexpr uint32_t kAdvertise = 0x2D4;           // 30 advertise the maximum speed (self-clearing)
constexpr uint32_t kSpeedChange = 0x414;         // 0, 3 enables; 6 starts the change (self-clearing)
constexpr uint32_t kCoreReconfigure = 0x100;     // in the core's block: 0 enables width reconfiguration

// Width codes of the width control: x1, x2, x4, x8, x12, x16, x32.
unsigned width_from_code(unsigned code);
unsigned code_from_width(unsigned width);
}  // namespace link_controller

// What the registers need from the link they control.
struct LinkControllerHooks {
    std::function<uint8_t(const ModelTime&)> state;       // current LTSSM code
    std::function<bool(const ModelTime&)> busy;           // a training is running
    std::function<void(unsigned width, const ModelTime&)> change_width;
    std::function<void(unsigned speed_code, const ModelTime&)> change_speed;
    unsigned width = 1;           // trained width at boot
    unsigned max_speed_code = 1;  // the port's best speed
};

// port_window: the port's block plus the window; core_block: the core's block.
void place_link_controller_registers(RegisterSpace& registers, uint32_t port_window, std::optional<uint32_t> core_block,
                                     LinkControllerHooks hooks);

}  // namespace sim
