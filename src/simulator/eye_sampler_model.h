// The eye sampler of an E32 lane: the firmware commands that set a scan up
// (209 debug, 210 tap selection and tap mode, 221 voltage window, 222 phase
// window) and run it (223), and the ring in PHY memory the counts stream
// into (layout: hardware/chips/e32_phy_firmware.h).
//
// A scan of the selected tap walks phase p = 0..P-1, voltage v = 0..V-1 and
// writes two int32 counts per point (the pairs), cumulative in voltage.
// Point k is ready 2 us + 2^nbits / rate after point k-1 (from the command),
// and the command stays busy until the last point. Production is lazy: the
// ring is filled up to the reader's "now" whenever it reads the head word or
// the busy bit. Bytes the reader has not acknowledged (word 4, latched by a
// write of 0 to the strobe) and that the firmware writes over are counted in
// word 3, and word 2 bit 0 says it happened; both are cleared by the next
// scan command. A window of more than 50 values on an axis, an empty one or
// nbits outside 10..23 makes the scan command answer 0xEE and stream nothing.
//
// The counts. Cell (x UI, y mV at the voltage bin's centre) lies inside the
// eye when (x/(x<0?L:R))^2 + (y/(y>=0?T:B))^2 < 1. Inside, a rare seeded
// count of 1 on one tap and pair; outside, every tap and pair counts at
// least 2 and the count grows with the distance past the edge to half the
// 2^nbits compared bits. So the sum over pairs of any read tap is >= 3 for
// every cell outside, and <= 2 inside, per run.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "simulator/noise.h"
#include "simulator/profile.h"
#include "simulator/register_space.h"

namespace sim {

// The eye a lane's sampler sees, and the lane's bit rate. A lane that
// carries no signal has no eye: every cell counts as outside.
struct SamplerEye {
    bool open = false;
    double left_ui = 0, right_ui = 0, top_mv = 0, bottom_mv = 0;
    double rate_gbps = 16;
};
// The eye of a lane at the moment a scan starts.
using SamplerEyeSource = std::function<SamplerEye(const ModelTime& now)>;
// The eye of a lane that a PCIe root port drives, from the root port's
// receiver; nullopt for a lane no port drives.
using PcieLaneEyes =
    std::function<std::optional<SamplerEye>(unsigned socket, const std::string& link, unsigned lane, const ModelTime& now)>;

class EyeSampler {
public:
    // ring: the ring's address (lane PHY base + offset - 0x10000). Defines
    // the ring's config words in `space`.
    EyeSampler(RegisterSpace& space, uint32_t ring, uint64_t key, const Noise& noise, SamplerEyeSource eye);

    // Commands 209, 210, 221, 222, 223. False for any other code. `response`
    // gets the firmware's answer byte.
    bool command(uint32_t code, uint32_t parameter, const ModelTime& now, uint32_t& response);
    // Produces up to now; true while a scan runs.
    bool busy(const ModelTime& now);
    // The override was released: a running scan stops where it is.
    void abort(const ModelTime& now);
    // The reader's acknowledged position (word 4) counts from now on.
    void latch_ack();
    // From the next scan on, stream only this many points and never end.
    void stall_after(unsigned points) { _stall = points; }
    unsigned scans() const { return _scans; }

private:
    void _produce(const ModelTime& now);
    int32_t _count(unsigned p, unsigned v, unsigned pair) const;
    double _density(unsigned p, unsigned bin, unsigned pair) const;
    int64_t _elapsed(const ModelTime& now);
    void _write(uint32_t value);

    RegisterSpace& _space;
    uint32_t _ring;
    uint64_t _key;
    Noise _noise;
    SamplerEyeSource _eye_source;
    std::optional<unsigned> _stall;

    // Settings as the commands left them.
    unsigned _debug = 0, _tap = 0, _tap_mode_word = 0;
    int _phase_start = -32, _phase_end = 32, _phase_step = 4;
    int _volt_start = -200, _volt_end = 200, _volt_step = 10;  // 0.5 mV

    // The running (or last) scan.
    bool _running = false;
    unsigned _scans = 0, _points = 0, _produced = 0, _P = 0, _V = 0, _nbits = 23;
    SamplerEye _eye;
    unsigned _tap_scans[8] = {};
    double _point_ns = 0;
    uint64_t _owner = 0;
    int64_t _start = 0;
    std::vector<std::pair<uint64_t, int64_t>> _first_seen;
    uint64_t _written = 0, _acked = 0, _lost = 0;
    bool _overrun = false;
    std::vector<int32_t> _cumulative;  // per (p, pair) running sum over v
};

// Every lane of one PHY block (chiplet) at phy_base: defines the ring
// acknowledge strobe, whose write of 0 latches each lane's word 4.
void attach_ring_strobe(RegisterSpace& space, uint32_t phy_base, std::vector<EyeSampler*> lanes);

// Per-link PHY settings of the profile ("phy_settings"):
//   {"socket": n, "link": "G1", "tap_mode": 0|2|3}
struct PhySetting {
    unsigned socket = 0;
    std::string link;
    unsigned tap_mode = 3;
};
// Throws ProfileError naming the field.
std::vector<PhySetting> read_phy_settings(const nlohmann::json& settings, const std::vector<SocketProfile>& sockets);
// The tap mode of (socket, link): the setting's, else 3.
unsigned tap_mode_of(const std::vector<PhySetting>& settings, unsigned socket, const std::string& link);

}  // namespace sim
