// The E32 PHYs and hVL PCS of the simulated dies, live: the firmware's
// injection channel and its commands, receiver eyes that answer margin
// offsets with bit errors, the PCS error counter and flags, the link state
// and its recoveries, the firmware's identity and lane training records.
//
// Every E32 link with a PCS gets the firmware (override grant, commands,
// capabilities, version words, training records), so receiver equalisation
// reads work on PCIe links as well. hVL links of the profile also get the
// PCS behaviour; both ends share one link state.
//
// Receiver model, per lane and direction: the edge of the eye is a whole
// number of steps (the profile's value spread by "noise" with the seed).
// Offsets up to the edge are error free; d steps past it the lane makes
// 10^(2 + 1.5 d) errors a second of model time, and from
// kBerFlagRate errors a second the PCS raises "BER exceeded" (error status
// bit 6). The link's drop_past_edge steps past the edge, or the offset of a
// "hvl_link_drop" fault, take the link out of L0; it retrains 1 ms of model
// time after every lane of both ends is back at its trained point.
//
// PCS registers of an hVL link (one set per link end):
//   ERROR_CONTROL1  plain storage; the error counter counts while bit 21 is set
//   ERROR_MASK      plain storage; bit 6 set masks the BER-exceeded reaction
//                   (unmasked, a raised flag drops the link)
//   ERROR_STATUS    write one to clear; bit 6 BER exceeded, bit 17 recovered
//   ERROR_STATUS1   bits 31:24 error count (saturates at 255); writing bit 23
//                   clears the count
//   STATE_HIST1     low byte 0x81 in L0, 0x04 while retraining
//   PERFORMANCE_COUNTER_REGISTERS2  bits 7:0 event (2: recoveries); a write
//                   restarts the count in REGISTERS0 (low) and REGISTERS1 (high)
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "simulator/eye_sampler_model.h"
#include "simulator/hvl_link_model.h"
#include "simulator/noise.h"

namespace sim {

// Injected faults of the hVL model ("faults" entries of the profile):
//   {"type": "hvl_override_never_granted", "socket", "link", "lane"?, "grants"?}
//       the override is granted for the first "grants" requests (default 0)
//   {"type": "hvl_link_drop", "socket", "link", "offset"}   any lane past offset
//   {"type": "hvl_link_flap", "socket", "link", "offset", "visit"?}   the
//       visit-th margin command to exactly offset (default the first) fills
//       the error counter and drops the link 10 ms later
//   {"type": "hvl_error_count_backwards", "socket", "link"}   the counter
//       counts down from 255, which a clear reloads
//   {"type": "hvl_link_down", "socket", "link"}   the link never reaches L0
//   {"type": "hvl_firmware_version", "socket", "link", "version"}
//   {"type": "hvl_active_cache_invalid", "socket", "link", "lane"}
//   {"type": "eye_ring_stall", "socket", "link", "lane"}   the lane's eye scans
//       stream a few points and never end (until the override is released)
//   {"type": "mailbox_silent", "socket", "mailbox": "BIOS"|"Test"|"Host"|"PSP"}
struct HvlFault {
    std::string type;
    unsigned socket = 0;
    std::string link;
    std::optional<unsigned> lane;
    unsigned value = 0;  // offset, version
    unsigned visit = 1;
    std::string mailbox;
};
bool is_hvl_fault(const std::string& type);
// Throws ProfileError naming the field.
std::vector<HvlFault> read_hvl_faults(const nlohmann::json& faults, const std::vector<SocketProfile>& sockets);

// The trained receiver of one lane, in steps.
struct HvlLaneEdges {
    unsigned left = 0, right = 0, top = 0, bottom = 0;
};
// The edges the model gives `lane` of the end (socket, link) of `link`.
HvlLaneEdges hvl_lane_edges(const HvlLinkProfile& link, unsigned socket, unsigned lane, const Noise& noise);

constexpr double kBerFlagRate = 1e6;  // errors a second
// Capabilities every E32 lane answers (command 14).
constexpr unsigned kHvlTimingSteps = 32, kHvlMaxTimingOffset = 50, kHvlVoltSteps = 64, kHvlMaxVoltOffset = 25;

// Attaches the PHY and PCS behaviour to the dies' register spaces, with
// every lane's eye sampler (eye_sampler_model.h). The model state lives in
// the hooks. `pcie_eyes` gives the eye of lanes that root ports drive.
void attach_hvl_phys(const std::vector<HvlLinkProfile>& links, const std::vector<SocketProfile>& sockets,
                     const std::vector<HvlFault>& faults, const std::vector<PhySetting>& settings,
                     const PcieLaneEyes& pcie_eyes, const Noise& noise, const DieRegisterSpace& die_space);

}  // namespace sim
