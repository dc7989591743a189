#include "simulator/eye_sampler_model.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/e32_phy_firmware.h"

namespace sim {

namespace {

namespace e32 = chips::e32;
using nlohmann::json;

constexpr uint32_t kAccepted = 1, kRefused = 0xEE;
constexpr uint64_t kInsideKey = 0x455949, kOutsideKey = 0x45594F;
// Chance that a cell inside the eye shows one stray count in a run.
constexpr double kStrayChance = 0.05;

// Values of a window; 0 when it is empty or reversed.
unsigned axis_values(int start, int end, int step) {
    if (step <= 0 || end < start) return 0;
    return static_cast<unsigned>((end - start) / step + 1);
}

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ProfileError("profile: " + path + ": " + reason);
}

}  // namespace

EyeSampler::EyeSampler(RegisterSpace& space, uint32_t ring, uint64_t key, const Noise& noise, SamplerEyeSource eye)
    : _space(space), _ring(ring), _key(key), _noise(noise), _eye_source(std::move(eye)) {
    // define() on a register that exists would take over its value and keep
    // its hooks: a misplaced ring must fail loudly instead.
    for (uint32_t word : {e32::kRingHead, e32::kRingLength, e32::kRingOverrun, e32::kRingLost, e32::kRingAck})
        if (_space.defined(_ring + word)) throw std::logic_error("eye ring word at " + std::to_string(_ring + word) + " is taken");
    _space.define(_ring + e32::kRingHead, 0, 0);
    _space.on_read(_ring + e32::kRingHead, [this](uint32_t, const ModelTime& now) {
        _produce(now);
        return static_cast<uint32_t>(_written % e32::kRingBytes);
    });
    _space.define(_ring + e32::kRingLength, e32::kRingBytes, 0);
    _space.define(_ring + e32::kRingOverrun, 0, 0);
    _space.on_read(_ring + e32::kRingOverrun, [this](uint32_t, const ModelTime& now) {
        _produce(now);
        return _overrun ? 1u : 0u;
    });
    _space.define(_ring + e32::kRingLost, 0, 0);
    _space.on_read(_ring + e32::kRingLost, [this](uint32_t, const ModelTime& now) {
        _produce(now);
        return static_cast<uint32_t>(_lost);
    });
    _space.define(_ring + e32::kRingAck, 0);
}

bool EyeSampler::command(uint32_t code, uint32_t parameter, const ModelTime& now, uint32_t& response) {
    response = kAccepted;
    switch (code) {
    case e32::kCmdDebugConfig: _debug = parameter; return true;
    case e32::kCmdExtConfig:
        if (parameter & 1u << 23) _tap_mode_word = parameter & 0x1FF;
        else if ((parameter & 0xF) < e32::kEyeTaps) _tap = parameter & 0xF;
        else response = kRefused;
        return true;
    case e32::kCmdRxEyePhase:
        _phase_start = static_cast<int8_t>(parameter & 0xFF);
        _phase_end = static_cast<int8_t>((parameter >> 8) & 0xFF);
        _phase_step = static_cast<int>((parameter >> 16) & 0xFF);
        return true;
    case e32::kCmdRxEyeVoltage: {
        const int value = static_cast<int16_t>(parameter & 0xFFFF);
        switch ((parameter >> 22) & 3) {
        case 0:  // the older form: three fields in 1 mV
            _volt_start = 2 * static_cast<int8_t>(parameter & 0xFF);
            _volt_end = 2 * static_cast<int8_t>((parameter >> 8) & 0xFF);
            _volt_step = 2 * static_cast<int>((parameter >> 16) & 0x3F);
            break;
        case e32::kEyeVoltageStart: _volt_start = value; break;
        case e32::kEyeVoltageEnd: _volt_end = value; break;
        default: _volt_step = value; break;
        }
        return true;
    }
    case e32::kCmdRxEyeScan: break;
    default: return false;
    }
    ++_scans;
    _running = false;
    _written = _acked = _lost = 0;
    _overrun = false;
    _space.poke(_ring + e32::kRingAck, 0);
    _nbits = parameter & 0xFF;
    _P = axis_values(_phase_start, _phase_end, _phase_step);
    _V = axis_values(_volt_start, _volt_end, _volt_step);
    if (_nbits < e32::kMinScanBits || _nbits > e32::kMaxScanBits || _P == 0 || _V == 0 ||
        _P > e32::kMaxEyeAxisValues || _V > e32::kMaxEyeAxisValues) {
        response = kRefused;
        return true;
    }
    ++_tap_scans[_tap];
    _eye = _eye_source(now);
    _point_ns = e32::kEyePointMoveNs + std::ldexp(1.0, static_cast<int>(_nbits)) / std::max(0.1, _eye.rate_gbps);
    _points = _P * _V;
    _produced = 0;
    _cumulative.assign(2, 0);
    _owner = now.thread;
    _start = now.ns;
    _first_seen.clear();
    _running = true;
    return true;
}

bool EyeSampler::busy(const ModelTime& now) {
    _produce(now);
    return _running;
}

void EyeSampler::abort(const ModelTime& now) {
    _produce(now);
    _running = false;
}

void EyeSampler::latch_ack() {
    const uint64_t position = _space.peek(_ring + e32::kRingAck) & (e32::kRingBytes - 1);
    const uint64_t behind = (_written - position) & (e32::kRingBytes - 1);
    if (behind <= _written) _acked = std::max(_acked, _written - behind);
}

// Model time since the scan command, for the thread that gave it; any other
// thread counts from when it first looked, so a lagging clock never stalls it.
int64_t EyeSampler::_elapsed(const ModelTime& now) {
    int64_t result = now.ns - _start;
    if (now.thread != _owner) {
        auto it = std::find_if(_first_seen.begin(), _first_seen.end(), [&](const auto& s) { return s.first == now.thread; });
        if (it == _first_seen.end()) it = _first_seen.insert(_first_seen.end(), {now.thread, now.ns});
        result = std::max(result, now.ns - it->second);
    }
    return std::max<int64_t>(result, 0);
}

void EyeSampler::_produce(const ModelTime& now) {
    if (!_running) return;
    unsigned ready = static_cast<unsigned>(std::min<double>(_points, std::floor(_elapsed(now) / _point_ns)));
    if (_stall) ready = std::min(ready, *_stall);
    for (; _produced < ready; ++_produced) {
        const unsigned p = _produced / _V, v = _produced % _V;
        for (unsigned pair = 0; pair < 2; ++pair) {
            _cumulative[pair] = v == 0 ? 0 : _cumulative[pair] + static_cast<int32_t>(_density(p, v - 1, pair));
            _write(static_cast<uint32_t>(_cumulative[pair]));
        }
    }
    if (_produced == _points) _running = false;
}

void EyeSampler::_write(uint32_t value) {
    const uint64_t unacknowledged = _written - _acked;
    if (unacknowledged + 4 > e32::kRingBytes) {
        const uint64_t lost = unacknowledged + 4 - e32::kRingBytes;
        _lost += lost;
        _acked += lost;
        _overrun = true;
    }
    _space.poke(_ring + e32::kRingData + static_cast<uint32_t>(_written % e32::kRingBytes), value);
    _written += 4;
}

double EyeSampler::_density(unsigned p, unsigned bin, unsigned pair) const {
    const double x = (_phase_start + static_cast<int>(p) * _phase_step) / 64.0;
    const double y = (_volt_start + static_cast<int>(bin) * _volt_step + _volt_step / 2.0) * 0.5;
    double past = 1;  // no signal: far outside everywhere
    if (_eye.open) {
        const double half_width = x < 0 ? _eye.left_ui : _eye.right_ui;
        const double half_height = y >= 0 ? _eye.top_mv : _eye.bottom_mv;
        if (half_width > 0 && half_height > 0)
            past = std::hypot(x / half_width, y / half_height) - 1;
    }
    if (past < 0) {
        // One tap and pair of the cell may show a stray count, at most one a run.
        const uint64_t cell = _noise.bits({kInsideKey, _key, p, bin});
        if (cell % e32::kEyeTaps != _tap || (cell >> 3) % 2 != pair) return 0;
        return _noise.uniform({kInsideKey, _key, p, bin, _tap_scans[_tap]}) < kStrayChance ? 1 : 0;
    }
    // Errors grow steeply past the edge, up to half the compared bits.
    const double bits = std::ldexp(1.0, static_cast<int>(_nbits));
    const double ber = std::min(0.5, 1e-5 * std::exp(25 * past));
    const double jitter = 0.8 + 0.4 * _noise.uniform({kOutsideKey, _key, _scans, _tap, p, bin, pair});
    return std::max(2.0, std::round(bits * ber * jitter));
}

void attach_ring_strobe(RegisterSpace& space, uint32_t phy_base, std::vector<EyeSampler*> lanes) {
    const uint32_t strobe = phy_base + e32::kRingAckStrobe;
    if (space.defined(strobe)) throw std::logic_error("eye ring strobe at " + std::to_string(strobe) + " is taken");
    space.define(strobe, 0);
    space.on_write(strobe, [lanes = std::move(lanes), strobe](uint32_t, uint32_t& value, uint32_t, const ModelTime&) {
        const uint32_t half = (value >> (8 * (strobe & 2))) & 0xFFFF;
        if (half == 0)
            for (EyeSampler* lane : lanes) lane->latch_ack();
    });
}

std::vector<PhySetting> read_phy_settings(const json& settings, const std::vector<SocketProfile>& sockets) {
    std::vector<PhySetting> result;
    if (settings.is_null()) return result;
    if (!settings.is_array()) fail("phy_settings", "expected an array");
    for (size_t i = 0; i < settings.size(); ++i) {
        const std::string path = "phy_settings[" + std::to_string(i) + "]";
        const json& entry = settings[i];
        if (!entry.is_object()) fail(path, "expected an object");
        for (const auto& item : entry.items())
            if (item.key() != "socket" && item.key() != "link" && item.key() != "tap_mode")
                fail(path, "unknown field '" + item.key() + "'");
        PhySetting setting;
        const json socket = entry.value("socket", json());
        if (!socket.is_number_integer() || socket.get<int64_t>() < 0 || socket.get<uint64_t>() >= sockets.size())
            fail(path + ".socket", "expected a socket of the profile, got " + socket.dump());
        setting.socket = socket.get<unsigned>();
        const json link = entry.value("link", json());
        const chips::LinkLanes* lanes = link.is_string() ? chips::corvane_lanes().find(link.get<std::string>()) : nullptr;
        if (!lanes || lanes->phy != "E32" || !lanes->pcs_base)
            fail(path + ".link", "expected an E32 link with a PCS, got " + link.dump());
        setting.link = link.get<std::string>();
        const json mode = entry.value("tap_mode", json(3));
        if (!mode.is_number_integer() || (mode.get<int64_t>() != 0 && mode.get<int64_t>() != 2 && mode.get<int64_t>() != 3))
            fail(path + ".tap_mode", "expected 0, 2 or 3, got " + mode.dump());
        setting.tap_mode = mode.get<unsigned>();
        result.push_back(setting);
    }
    return result;
}

unsigned tap_mode_of(const std::vector<PhySetting>& settings, unsigned socket, const std::string& link) {
    for (const PhySetting& setting : settings)
        if (setting.socket == socket && setting.link == link) return setting.tap_mode;
    return 3;
}

}  // namespace sim
