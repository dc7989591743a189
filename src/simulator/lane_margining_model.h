// Lane Margining at the Receiver as the model's receivers answer it.
//
// Each function's capability reaches its own receiver only, as on real
// links: a downstream-facing port (root port, switch downstream port) is
// receiver 1, an upstream-facing one (endpoint function 0, switch upstream
// port) receiver 6. Receivers 2 to 5 would be retimers, of which the model
// has none, and 7 is reserved: commands to them get no response, so the
// lane status keeps what it held. Receiver 0 is the broadcast number: it
// carries "no command", "go to normal settings" and "clear error log", and
// nothing else.
//
// A command is answered at once by writing the response into the lane's
// status half (the caller still waits its handshake). Unanswered commands
// leave the status as it was: a lane outside the trained link, a port
// whose Margining Ready bit is clear (link not up at 16 GT/s or more), a
// usage model other than lane margining, reserved payloads, and any lane a
// fault silences.
//
// Step commands (timing type 3, voltage type 4) put the receiver into
// margining at that offset. The status then follows model time whenever it
// is read: "set up in progress" for the receiver's setup time, then
// "margining in progress" with the error count, and "too many errors" once
// the count passes the error count limit, at which point the receiver has
// gone back to its normal settings. Requests the receiver cannot carry out
// are NAKed: voltage on a receiver without voltage margining, more steps
// than it reports, and a left or down direction on a receiver that cannot
// step the two sides independently.
//
// The eye. Each lane's edge on each side is the profile's margin, spread by
// the profile's noise with a draw keyed by seed, the receiver's place in
// the profile (its field path), lane and side, so that a lane keeps its eye for a given seed whatever thread asks and in
// whatever order. Inside the edge there are no errors at any dwell. Beyond
// it errors come at one per millisecond of margining, and three more for
// every step further out, jittered per offset by up to 20 % and scaled by
// the sampling rate; the count is the rate times the model time spent
// margining since setup ended or the log was last cleared. A receiver that
// cannot step the sides independently fails at the nearer edge.
//
// Decided here, where the protocol leaves room:
// - The error count limit starts at 4, and is kept across "go to normal
//   settings"; only a new limit changes it.
// - The error count field saturates at 63; "too many errors" reports the
//   count that crossed the limit (limit + 1, at most 63).
// - A step to the offset the receiver is already margining at carries on;
//   any other step starts a new setup with a fresh count.
// - SampleCount is 3 × log2 of the bits sampled since margining at the
//   offset began or the log was cleared (0 when nothing was sampled).
// - "No command" is echoed whatever the link does, as the port's own logic
//   answers it; only a silenced lane keeps it unanswered.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "simulator/config_space.h"
#include "simulator/model_clock.h"
#include "simulator/noise.h"
#include "simulator/profile.h"

namespace sim {

// A receiver fault from the profile's "faults" array.
struct MarginingFault {
    enum class Kind { nak, setup_stuck, silent_lane };
    Kind kind = Kind::nak;
    const MarginingProfile* receiver = nullptr;  // inside the profile it was read from
    unsigned lane = 0;                            // silent_lane only
};

// True for the fault types this model answers ("margining_nak",
// "margining_setup_stuck", "margining_silent_lane").
bool is_margining_fault(const std::string& type);

// Reads and checks the margining entries of profile.faults; entries of other
// types are left alone. Throws ProfileError naming the field.
std::vector<MarginingFault> read_margining_faults(const Profile& profile);

// One function's Lane Margining capability, as the platform model hands it
// over. Its port status and the link status must be current (synced).
struct MarginingPort {
    ConfigSpace& space;
    unsigned capability;       // offset of the extended capability
    unsigned lanes;            // lane control/status pairs it has
    unsigned pcie;             // offset of the PCI Express capability
    bool downstream_facing;
    const MarginingProfile* receiver;  // the function's own receiver
};

class LaneMarginingModel {
public:
    // profile must be the one the functions' receivers point into; it must
    // outlive the model. Throws ProfileError for a bad fault entry.
    LaneMarginingModel(const Profile& profile, const Noise& noise);

    // The lane's control half was written.
    void on_control_write(const MarginingPort& port, unsigned lane, const ModelTime& now);
    // Brings the status of running steps up to now for the lanes that a
    // read of width bytes at offset touches.
    void before_read(const MarginingPort& port, unsigned offset, unsigned width, const ModelTime& now);
    // The eye the receiver's lane has, as its margins find it: timing in
    // percent of a unit interval, voltage in mV (noise is 0 in the result).
    EyeMargins lane_eye(const MarginingProfile* receiver, unsigned lane) const;

private:
    struct Receiver {
        const MarginingProfile* profile = nullptr;
        uint64_t key = 0;           // from its place in the profile, for the noise
        bool reversed = false;      // a port whose link is lane-reversed: the link sits on its top lanes
        bool nak = false, setup_stuck = false;
        std::vector<unsigned> silent_lanes;
    };
    // Model time since a moment one thread saw; other threads count from
    // the moment they first look, as with ModelDeadline, so a lagging clock
    // never sees time run backwards.
    struct Stopwatch {
        uint64_t owner = 0;
        int64_t start = 0;
        std::vector<std::pair<uint64_t, int64_t>> first_seen;
        void restart(const ModelTime& now);
        int64_t elapsed(const ModelTime& now);
    };
    struct LaneState {
        unsigned limit = 4;
        bool started = false;       // has margined since the model began
        bool margining = false;     // at an offset: setting up or counting
        bool too_many = false;      // stopped by the limit
        bool live = false;          // the lane's command is an accepted step, so its status follows time
        unsigned kind = 0, side = 0, steps = 0;  // type 3 or 4; 0 right/up, 1 left/down, 2 both
        Stopwatch since;            // the step command
        int64_t count_from = 0;     // elapsed ns from which errors count
        int64_t stopped_at = -1;    // elapsed ns at which margining ended; -1 while it runs
    };
    struct Reading {
        int64_t elapsed = 0;
        bool setting_up = false;
        unsigned errors = 0;
        double bits = 0;
    };

    void _command(const MarginingPort& port, Receiver& rx, LaneState& state, unsigned lane, unsigned control,
                  const ModelTime& now);
    void _step(const MarginingPort& port, const Receiver& rx, LaneState& state, unsigned lane, unsigned control,
               const ModelTime& now);
    uint32_t _step_payload(const MarginingPort& port, const Receiver& rx, LaneState& state, unsigned lane,
                           const ModelTime& now);
    Reading _observe(const MarginingPort& port, const Receiver& rx, LaneState& state, unsigned lane,
                     const ModelTime& now);
    double _errors_per_ns(const Receiver& rx, const LaneState& state, unsigned lane) const;
    double _edge(const Receiver& rx, unsigned lane, bool voltage, unsigned side) const;

    Noise _noise;
    std::map<const MarginingProfile*, Receiver> _receivers;
    std::map<std::pair<const MarginingProfile*, unsigned>, LaneState> _lanes;
};

}  // namespace sim
