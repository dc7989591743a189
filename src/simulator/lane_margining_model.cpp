#include "simulator/lane_margining_model.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <functional>

namespace sim {

namespace {

using nlohmann::json;

// Margin types, payloads and statuses of the lane control and status words.
constexpr unsigned kReport = 1, kManagement = 2, kStepTiming = 3, kStepVoltage = 4, kNoCommand = 7;
constexpr unsigned kNormalSettings = 0x0F, kClearErrorLog = 0x55, kSetErrorLimit = 0xC0;
constexpr unsigned kTooManyErrors = 0, kSettingUp = 1, kMargining = 2, kNak = 3;
constexpr unsigned kBroadcast = 0, kDownstreamReceiver = 1, kUpstreamReceiver = 6;
constexpr unsigned kMaxReportedErrors = 63;
constexpr unsigned kLaneStatusHalf = 2;

// Noise keys; fixed so a seed always gives the same eye.
constexpr uint64_t kEdgeKey = 0x4C4D45, kRateKey = 0x4C4D52;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ProfileError("profile: " + path + ": " + reason);
}

// Every receiver of the profile, with the path of the port or device that
// holds it. The path names the receiver in the noise keys, so adding a port
// elsewhere in a profile leaves every other lane's eye as it was.
struct ReceiverSite {
    const MarginingProfile* margining;
    const std::string& name;
    const std::string& path;
    bool port;
    unsigned lanes;
    bool reversed;
};
using SiteVisitor = std::function<void(const ReceiverSite&)>;

void visit_device(const DeviceProfile& device, const std::string& path, const SiteVisitor& visit);

void visit_port(const PortProfile& port, const std::string& path, const SiteVisitor& visit) {
    visit({&port.margining, port.name, path, true, port.max_width, port.lane_reversal});
    if (port.child) visit_device(*port.child, path + ".child", visit);
}

void visit_device(const DeviceProfile& device, const std::string& path, const SiteVisitor& visit) {
    visit({&device.margining, device.name, path, false, device.max_width, false});
    for (size_t i = 0; i < device.downstream_ports.size(); ++i)
        visit_port(device.downstream_ports[i], path + ".downstream_ports[" + std::to_string(i) + "]", visit);
}

void visit_receivers(const Profile& profile, const SiteVisitor& visit) {
    for (size_t s = 0; s < profile.sockets.size(); ++s) {
        const auto& complexes = profile.sockets[s].root_complexes;
        for (size_t r = 0; r < complexes.size(); ++r)
            for (size_t p = 0; p < complexes[r].root_ports.size(); ++p)
                visit_port(complexes[r].root_ports[p],
                           "sockets[" + std::to_string(s) + "].root_complexes[" + std::to_string(r) + "].root_ports[" +
                               std::to_string(p) + "]",
                           visit);
    }
}

uint64_t text_key(const std::string& text) {
    uint64_t hash = 0xCBF29CE484222325ull;  // FNV-1a
    for (unsigned char c : text) hash = (hash ^ c) * 0x100000001B3ull;
    return hash;
}

// Any JSON integer (text gives unsigned ones, C++ code signed ones) or a
// text such as "2"; anything past 16 bits is no lane.
unsigned lane_number(const json& value, const std::string& path) {
    if (value.is_number_integer() && (value.is_number_unsigned() || value.get<int64_t>() >= 0) &&
        value.get<uint64_t>() <= 0xFFFF)
        return static_cast<unsigned>(value.get<uint64_t>());
    if (value.is_string()) {
        const std::string text = value.get<std::string>();
        try {
            size_t used = 0;
            const unsigned long number = std::stoul(text, &used, 0);
            if (used == text.size() && !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])))
                return static_cast<unsigned>(std::min<unsigned long>(number, 1000));
        } catch (const std::exception&) {
        }
    }
    fail(path, "expected a lane number, got " + value.dump());
}

double bit_rate(unsigned speed_code) {
    static const double rates[] = {0, 2.5e9, 5e9, 8e9, 16e9, 32e9};
    return speed_code < 6 ? rates[speed_code] : 0;
}

}  // namespace

bool is_margining_fault(const std::string& type) {
    return type == "margining_nak" || type == "margining_setup_stuck" || type == "margining_silent_lane";
}

std::vector<MarginingFault> read_margining_faults(const Profile& profile) {
    std::vector<MarginingFault> faults;
    for_each_fault(profile, is_margining_fault, [&](const json& entry, const std::string& path, const std::string& type) {
        MarginingFault fault;
        fault.kind = type == "margining_nak"           ? MarginingFault::Kind::nak
                     : type == "margining_setup_stuck" ? MarginingFault::Kind::setup_stuck
                                                       : MarginingFault::Kind::silent_lane;
        const bool takes_lane = fault.kind == MarginingFault::Kind::silent_lane;
        for (const auto& item : entry.items()) {
            const std::string& key = item.key();
            if (key == "lane" && !takes_lane) fail(path + ".lane", "only margining_silent_lane takes a lane");
            if (key != "type" && key != "port" && key != "device" && key != "lane")
                fail(path, "unknown field '" + key + "'");
        }
        if (entry.contains("port") == entry.contains("device"))
            fail(path, "name the receiver with either 'port' or 'device'");
        const bool port = entry.contains("port");
        const std::string where = path + (port ? ".port" : ".device");
        const json& name_value = entry[port ? "port" : "device"];
        if (!name_value.is_string() || name_value.get<std::string>().empty())
            fail(where, "expected the name of a " + std::string(port ? "port" : "device"));
        const std::string name = name_value.get<std::string>();
        unsigned lanes = 0, found = 0;
        visit_receivers(profile, [&](const ReceiverSite& site) {
            if (site.port != port || site.name != name) return;
            ++found;
            fault.receiver = site.margining;
            lanes = site.lanes;
        });
        if (found == 0) fail(where, std::string("no ") + (port ? "port" : "device") + " is named '" + name + "'");
        if (found > 1) fail(where, std::string("more than one ") + (port ? "port" : "device") + " is named '" + name + "'");
        if (takes_lane) {
            if (!entry.contains("lane")) fail(path, "missing field 'lane'");
            fault.lane = lane_number(entry["lane"], path + ".lane");
            if (fault.lane >= lanes)
                fail(path + ".lane", "lane " + std::to_string(fault.lane) + " is beyond the " + std::to_string(lanes) +
                                         " lanes of '" + name + "'");
        }
        faults.push_back(fault);
    });
    return faults;
}

void LaneMarginingModel::Stopwatch::restart(const ModelTime& now) {
    owner = now.thread;
    start = now.ns;
    first_seen.clear();
}

int64_t LaneMarginingModel::Stopwatch::elapsed(const ModelTime& now) {
    int64_t result = now.ns - start;
    if (now.thread != owner) {
        auto it = std::find_if(first_seen.begin(), first_seen.end(),
                               [&](const auto& seen) { return seen.first == now.thread; });
        if (it == first_seen.end()) it = first_seen.insert(first_seen.end(), {now.thread, now.ns});
        result = std::max(result, now.ns - it->second);
    }
    return std::max<int64_t>(result, 0);
}

LaneMarginingModel::LaneMarginingModel(const Profile& profile, const Noise& noise) : _noise(noise) {
    visit_receivers(profile, [&](const ReceiverSite& site) {
        Receiver& rx = _receivers[site.margining];
        rx.profile = site.margining;
        rx.key = text_key(site.path);
        rx.reversed = site.reversed;
    });
    for (const MarginingFault& fault : read_margining_faults(profile)) {
        Receiver& rx = _receivers.at(fault.receiver);
        switch (fault.kind) {
            case MarginingFault::Kind::nak: rx.nak = true; break;
            case MarginingFault::Kind::setup_stuck: rx.setup_stuck = true; break;
            case MarginingFault::Kind::silent_lane: rx.silent_lanes.push_back(fault.lane); break;
        }
    }
}

void LaneMarginingModel::on_control_write(const MarginingPort& port, unsigned lane, const ModelTime& now) {
    const unsigned control_at = port.capability + cfg::kMarginLaneControl + 4 * lane;
    const unsigned control = port.space.get(control_at, 2);
    auto it = _receivers.find(port.receiver);
    if (it == _receivers.end()) {
        // A function the profile gives no receiver still echoes "no command".
        if (((control >> 3) & 7) == kNoCommand) port.space.set(control_at + kLaneStatusHalf, 2, control);
        return;
    }
    Receiver& rx = it->second;
    const auto& silent = rx.silent_lanes;
    if (std::find(silent.begin(), silent.end(), lane) != silent.end()) return;
    LaneState& state = _lanes[{port.receiver, lane}];
    state.live = false;
    _command(port, rx, state, lane, control, now);
}

void LaneMarginingModel::_command(const MarginingPort& port, Receiver& rx, LaneState& state, unsigned lane,
                                  unsigned control, const ModelTime& now) {
    const unsigned status_at = port.capability + cfg::kMarginLaneControl + 4 * lane + kLaneStatusHalf;
    const unsigned type = (control >> 3) & 7, receiver = control & 7, payload = control >> 8;
    auto respond = [&](unsigned response) { port.space.set(status_at, 2, (control & 0xFF) | (response & 0xFF) << 8); };
    if (type == kNoCommand) {
        port.space.set(status_at, 2, control);
        return;
    }
    // Margin commands need a link that margining can run on, a lane of it,
    // and the lane margining usage model.
    const bool ready = port.space.get(port.capability + cfg::kMarginPortStatus, 2) & 1;
    const uint32_t link_status = port.space.get(port.pcie + cfg::kLinkStatus, 2);
    const unsigned width = std::min((link_status >> 4) & 0x3F, port.lanes);
    const bool in_link = port.downstream_facing && rx.reversed ? lane >= port.lanes - width : lane < width;
    if (!ready || !in_link || (control & 0x40)) return;

    const unsigned own = port.downstream_facing ? kDownstreamReceiver : kUpstreamReceiver;
    const bool management = type == kManagement;
    if (receiver == kBroadcast) {
        if (!management || (payload != kNormalSettings && payload != kClearErrorLog)) return;
    } else if (receiver != own) {
        return;  // a retimer the model doesn't have, or a reserved number
    }
    const MarginingProfile& m = *rx.profile;
    if (type == kReport) {
        unsigned value = 0;
        switch (payload) {
            case 0x88:
                value = (m.voltage_supported ? 1u : 0) | (m.ind_up_down_voltage ? 2u : 0) |
                        (m.ind_left_right_timing ? 4u : 0) | (m.sample_reporting_method ? 8u : 0) |
                        (m.ind_error_sampler ? 16u : 0);
                break;
            case 0x89: value = m.num_voltage_steps & 0x7F; break;
            case 0x8A: value = m.num_timing_steps & 0x3F; break;
            case 0x8B: value = m.max_timing_offset & 0x7F; break;
            case 0x8C: value = m.max_voltage_offset & 0x7F; break;
            case 0x8D: value = m.sampling_rate_voltage & 0x3F; break;
            case 0x8E: value = m.sampling_rate_timing & 0x3F; break;
            case 0x8F: {
                const double bits = _observe(port, rx, state, lane, now).bits;
                value = bits >= 1 ? std::min(127u, static_cast<unsigned>(3 * std::log2(bits))) : 0;
                break;
            }
            case 0x90: value = m.max_lanes & 0x1F; break;
            default: return;  // reserved, or retimer register access
        }
        respond(value);
    } else if (management) {
        if (payload == kNormalSettings) {
            const Reading r = _observe(port, rx, state, lane, now);
            if (state.margining) {
                state.margining = false;
                state.stopped_at = r.elapsed;
            }
        } else if (payload == kClearErrorLog) {
            const Reading r = _observe(port, rx, state, lane, now);
            const int64_t setup = static_cast<int64_t>(m.setup_time_ms * 1e6);
            state.count_from = std::max(setup, state.stopped_at >= 0 ? state.stopped_at : r.elapsed);
            state.too_many = false;
        } else if ((payload & kSetErrorLimit) == kSetErrorLimit) {
            state.limit = payload & 0x3F;
        } else {
            return;
        }
        respond(payload);
    } else if (type == kStepTiming || type == kStepVoltage) {
        _step(port, rx, state, lane, control, now);
    }
}

void LaneMarginingModel::_step(const MarginingPort& port, const Receiver& rx, LaneState& state, unsigned lane,
                               unsigned control, const ModelTime& now) {
    const MarginingProfile& m = *rx.profile;
    const unsigned status_at = port.capability + cfg::kMarginLaneControl + 4 * lane + kLaneStatusHalf;
    const unsigned payload = control >> 8;
    const bool voltage = ((control >> 3) & 7) == kStepVoltage;
    const unsigned steps = voltage ? payload & 0x7F : payload & 0x3F;
    const bool other_side = voltage ? payload & 0x80 : payload & 0x40;
    const bool independent = voltage ? m.ind_up_down_voltage : m.ind_left_right_timing;
    const bool nak = rx.nak || (voltage && !m.voltage_supported) ||
                     steps > (voltage ? m.num_voltage_steps : m.num_timing_steps) || (other_side && !independent);
    if (nak) {
        port.space.set(status_at, 2, (control & 0xFF) | kNak << 14);
        return;
    }
    const unsigned side = independent ? (other_side ? 1 : 0) : 2;
    const unsigned kind = voltage ? kStepVoltage : kStepTiming;
    const bool same = state.margining && state.kind == kind && state.side == side && state.steps == steps;
    if (!same) {
        state.started = state.margining = true;
        state.too_many = false;
        state.kind = kind;
        state.side = side;
        state.steps = steps;
        state.since.restart(now);
        state.count_from = static_cast<int64_t>(m.setup_time_ms * 1e6);
        state.stopped_at = -1;
    }
    state.live = true;
    port.space.set(status_at, 2, (control & 0xFF) | _step_payload(port, rx, state, lane, now) << 8);
}

void LaneMarginingModel::before_read(const MarginingPort& port, unsigned offset, unsigned width,
                                     const ModelTime& now) {
    const unsigned first = port.capability + cfg::kMarginLaneControl;
    const unsigned end = first + 4 * port.lanes;
    if (offset + width <= first || offset >= end) return;
    const unsigned from = offset > first ? (offset - first) / 4 : 0;
    const unsigned to = std::min(port.lanes, (offset + width - first + 3) / 4);
    auto rx = _receivers.find(port.receiver);
    if (rx == _receivers.end()) return;
    for (unsigned lane = from; lane < to; ++lane) {
        auto it = _lanes.find({port.receiver, lane});
        if (it == _lanes.end() || !it->second.live) continue;
        const unsigned status_at = first + 4 * lane + kLaneStatusHalf;
        const uint32_t status = port.space.get(status_at, 2);
        port.space.set(status_at, 2, (status & 0xFF) | _step_payload(port, rx->second, it->second, lane, now) << 8);
    }
}

uint32_t LaneMarginingModel::_step_payload(const MarginingPort& port, const Receiver& rx, LaneState& state,
                                           unsigned lane, const ModelTime& now) {
    const Reading r = _observe(port, rx, state, lane, now);
    if (r.setting_up) return kSettingUp << 6;
    const unsigned errors = std::min(r.errors, kMaxReportedErrors);
    return (state.too_many ? kTooManyErrors : kMargining) << 6 | errors;
}

// Where the lane stands now. A count that has passed the limit since the
// last look stops margining at the moment it did, so what a reader sees
// does not depend on how often it looked.
LaneMarginingModel::Reading LaneMarginingModel::_observe(const MarginingPort& port, const Receiver& rx,
                                                        LaneState& state, unsigned lane, const ModelTime& now) {
    Reading r;
    if (!state.started) return r;
    r.elapsed = state.since.elapsed(now);
    r.setting_up = state.margining && (rx.setup_stuck || r.elapsed < static_cast<int64_t>(rx.profile->setup_time_ms * 1e6));
    if (rx.setup_stuck) return r;
    const double rate = _errors_per_ns(rx, state, lane);
    int64_t end = state.stopped_at >= 0 ? state.stopped_at : r.elapsed;
    if (state.margining && rate > 0 && rate * static_cast<double>(end - state.count_from) >= state.limit + 1.0) {
        end = state.count_from + static_cast<int64_t>(std::ceil((state.limit + 1.0) / rate));
        state.margining = false;
        state.too_many = true;
        state.stopped_at = end;
    }
    const double window = static_cast<double>(std::max<int64_t>(0, end - state.count_from));
    r.errors = state.too_many ? state.limit + 1 : static_cast<unsigned>(std::floor(rate * window));
    const MarginingProfile& m = *rx.profile;
    const unsigned sampling = state.kind == kStepVoltage ? m.sampling_rate_voltage : m.sampling_rate_timing;
    const unsigned speed = port.space.get(port.pcie + cfg::kLinkStatus, 2) & 0xF;
    r.bits = bit_rate(speed) * (sampling + 1) / 64.0 * window * 1e-9;
    return r;
}

double LaneMarginingModel::_errors_per_ns(const Receiver& rx, const LaneState& state, unsigned lane) const {
    const MarginingProfile& m = *rx.profile;
    const bool voltage = state.kind == kStepVoltage;
    const unsigned steps = voltage ? m.num_voltage_steps : m.num_timing_steps;
    if (steps == 0) return 0;
    // Timing in percent of a unit interval, voltage in mV, as the eye is given.
    const double step = voltage ? m.max_voltage_offset * 10.0 / steps : static_cast<double>(m.max_timing_offset) / steps;
    const double offset = state.steps * step;
    const double edge = state.side == 2 ? std::min(_edge(rx, lane, voltage, 0), _edge(rx, lane, voltage, 1))
                                        : _edge(rx, lane, voltage, state.side);
    if (offset <= edge || step <= 0) return 0;
    const double beyond = (offset - edge) / step;
    const double jitter = 0.8 + 0.4 * _noise.uniform({kRateKey, rx.key, lane, voltage, state.side, state.steps});
    const unsigned sampling = voltage ? m.sampling_rate_voltage : m.sampling_rate_timing;
    return (1 + 3 * beyond) * jitter * (sampling + 1) / 64.0 * 1e-6;
}

EyeMargins LaneMarginingModel::lane_eye(const MarginingProfile* receiver, unsigned lane) const {
    EyeMargins eye;
    auto it = _receivers.find(receiver);
    if (it == _receivers.end()) return eye;
    eye.timing_right = _edge(it->second, lane, false, 0);
    eye.timing_left = _edge(it->second, lane, false, 1);
    eye.voltage_up = _edge(it->second, lane, true, 0);
    eye.voltage_down = _edge(it->second, lane, true, 1);
    return eye;
}

double LaneMarginingModel::_edge(const Receiver& rx, unsigned lane, bool voltage, unsigned side) const {
    const EyeMargins& eye = rx.profile->eye_of_lane(lane);
    const double margin = voltage ? (side == 0 ? eye.voltage_up : eye.voltage_down)
                                  : (side == 0 ? eye.timing_right : eye.timing_left);
    const double spread = eye.noise * _noise.normal({kEdgeKey, rx.key, lane, voltage, side});
    return std::max(0.0, margin * (1 + spread));
}

}  // namespace sim
