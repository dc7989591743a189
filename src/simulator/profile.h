// A simulated machine as the user describes it: a JSON profile read into
// plain values. The loader checks everything that the model relies on and
// names the offending field in its error, so a bad profile is refused before
// anything is built. The format is told in profile_format.md.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {

// A profile that cannot be used. The text reads "profile: <field>: <reason>".
class ProfileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Link speeds are kept as the PCI Express speed code: 1 = 2.5 GT/s, 2 = 5,
// 3 = 8, 4 = 16, 5 = 32.
constexpr unsigned kSpeed8GT = 3;
constexpr unsigned kSpeed16GT = 4;
constexpr unsigned kSpeed32GT = 5;

struct MachineFacts {
    std::string host_name = "lanewright-sim";
    std::string bios_version = "SIM-1.0";
    std::string product_name = "Lanewright Simulated Platform";
    std::string os_name = "Debian GNU/Linux 12 (bookworm)";
    std::string kernel_version = "6.1.0-sim";
    unsigned numa_nodes = 1;
};

struct ProcessorProfile {
    unsigned family = 0, model = 0, stepping = 0;
};

// One receiver's eye: timing in percent of a unit interval, voltage in mV,
// noise as the spread of each edge relative to its margin (0.05 = 5 %).
struct EyeMargins {
    double timing_left = 0, timing_right = 0, voltage_up = 0, voltage_down = 0, noise = 0;
};

// What a receiver reports through Lane Margining at the Receiver, and its
// eye per lane (lane_eyes overrides eye for the lanes it names).
struct MarginingProfile {
    bool voltage_supported = true;
    bool ind_up_down_voltage = true;
    bool ind_left_right_timing = true;
    bool sample_reporting_method = false;
    bool ind_error_sampler = true;
    unsigned num_voltage_steps = 64;   // 7 bits
    unsigned num_timing_steps = 32;    // 6 bits
    unsigned max_timing_offset = 50;   // 7 bits, percent of a unit interval
    unsigned max_voltage_offset = 50;  // 7 bits, in 10 mV
    unsigned sampling_rate_voltage = 63;
    unsigned sampling_rate_timing = 63;
    unsigned max_lanes = 31;           // 5 bits: lanes that can be margined at once, less one
    double setup_time_ms = 15;         // model time a step reports "set up in progress"
    EyeMargins eye{30, 30, 120, 120, 0.05};
    std::map<unsigned, EyeMargins> lane_eyes;

    const EyeMargins& eye_of_lane(unsigned lane) const {
        auto it = lane_eyes.find(lane);
        return it == lane_eyes.end() ? eye : it->second;
    }
};

// Which optional capabilities a function carries. Unset entries follow the
// function's speed: Secondary PCI Express from 8 GT/s, Lane Margining from 16.
struct CapabilityProfile {
    bool power_management = true;
    bool aer = true;
    std::optional<bool> secondary_pcie;
    std::optional<bool> lane_margining;
    bool l1_pm_substates = true;  // port-wide: function 0 and ports only
};

struct FunctionProfile {
    unsigned vendor_id = 0, device_id = 0, class_code = 0, revision = 0;
    unsigned subsystem_vendor_id = 0, subsystem_id = 0;
    CapabilityProfile capabilities;
};

struct PortProfile;

// Whatever sits on the far end of a port's link: an endpoint (one or more
// functions) or a switch (an upstream port and its downstream ports).
struct DeviceProfile {
    enum class Kind { endpoint, pcie_switch };
    Kind kind = Kind::endpoint;
    std::string name;
    unsigned max_speed = 1, max_width = 1;
    // The trained link; defaults to the best both ends support.
    std::optional<unsigned> speed, width;
    MarginingProfile margining;          // this device's own receiver
    std::vector<FunctionProfile> functions;  // endpoint: function n at index n; switch: the upstream port
    std::vector<PortProfile> downstream_ports;  // switch only
    unsigned internal_bus = 0;  // switch only: the bus its downstream ports sit on (assigned by the loader)
    // Events per second on its link, by chips::perf::Event (profile "traffic"); unset: none given.
    std::optional<std::array<double, 6>> traffic;
};

// A downstream-facing port: a root port of a die or a downstream port of a switch.
struct PortProfile {
    std::string name;
    unsigned device = 0, function = 0;
    unsigned vendor_id = 0, device_id = 0;
    unsigned max_speed = 1, max_width = 1;
    // Root ports only: the core and its function index that stand for the port
    // on the chip, and the port number the link capabilities carry.
    std::string core;
    unsigned function_index = 0;
    std::optional<unsigned> port_number;
    // Root ports only: the port's lanes run reversed on its core, and its
    // core lanes reach the SerDes in reverse order.
    bool lane_reversal = false;
    bool serdes_lane_reversal = false;
    // Optional in the profile; the loader assigns what is left open, as
    // firmware would, depth first.
    std::optional<unsigned> secondary_bus, subordinate_bus;
    CapabilityProfile capabilities;
    MarginingProfile margining;
    std::shared_ptr<DeviceProfile> child;  // null: nothing attached, the link is down
};

struct RootComplexProfile {
    unsigned segment = 0, bus = 0, bus_limit = 0;
    std::vector<PortProfile> root_ports;
};

// One socket. The die type decides how many dies it holds; a Corvane socket
// holds one, described by the socket's own fields.
struct SocketProfile {
    std::string die_type;
    unsigned revision = 0;  // the dies' revision ID in configuration space and their silicon revision register
    bool secure = false;
    std::vector<uint32_t> fuses;  // the three fuse words, from 0x5D6E4 up
    std::vector<RootComplexProfile> root_complexes;
};

struct Profile {
    unsigned format = 1;
    uint64_t seed = 1;
    std::optional<int64_t> start_time;  // Unix seconds; the model clock starts there
    MachineFacts machine;
    ProcessorProfile processor;
    std::vector<SocketProfile> sockets;
    nlohmann::json hvl_links = nlohmann::json::array();
    nlohmann::json faults = nlohmann::json::array();
    nlohmann::json phy_settings = nlohmann::json::array();
};

// Die types the model can present.
bool is_known_die_type(const std::string& name);

// Parses and checks a profile. Throws ProfileError naming the field.
Profile parse_profile(const nlohmann::json& document);
Profile parse_profile_text(const std::string& text);
Profile load_profile_file(const std::string& path);

// Calls `read` for each entry of the profile's faults that is an object with
// a text "type" `is_kind` accepts, with the entry's path ("faults[i]") for
// messages. Entries of other kinds belong to other models and are passed over.
void for_each_fault(const Profile& profile, const std::function<bool(const std::string&)>& is_kind,
                    const std::function<void(const nlohmann::json& entry, const std::string& path,
                                             const std::string& type)>& read);

// The machine the simulated service starts when no profile is given.
const std::string& default_profile_text();

}  // namespace sim
