#include "simulator/link_model.h"

#include <algorithm>
#include <functional>

namespace sim {

using nlohmann::json;

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& message) {
    throw ProfileError("profile: " + path + ": " + message);
}

void visit_ports(const PortProfile& port, const std::function<void(const PortProfile&)>& visit) {
    visit(port);
    if (port.child)
        for (const PortProfile& below : port.child->downstream_ports) visit_ports(below, visit);
}

constexpr uint64_t kMaxFaultMs = 1'000'000'000;  // 11.5 days

// Any JSON integer type: text gives unsigned ones, C++ code signed ones.
// The bound keeps a period in nanoseconds from overflowing.
uint64_t positive(const json& entry, const char* key, const std::string& path, uint64_t max) {
    const json& value = entry[key];
    if (!value.is_number_integer() || (!value.is_number_unsigned() && value.get<int64_t>() <= 0) ||
        value.get<uint64_t>() == 0 || value.get<uint64_t>() > max)
        fail(path + "." + key, "expected a whole number from 1 to " + std::to_string(max) + ", got " + value.dump());
    return value.get<uint64_t>();
}

unsigned speed_code_of(const json& value, const std::string& path) {
    if (value.is_number()) {
        const double gt = value.get<double>();
        const double rates[] = {2.5, 5, 8, 16, 32};
        for (unsigned i = 0; i < 5; ++i)
            if (gt == rates[i]) return i + 1;
    }
    fail(path, "unsupported link speed " + value.dump() + " (2.5, 5, 8, 16 or 32 GT/s)");
}

}  // namespace

bool is_link_fault(const std::string& type) {
    return type == "link_speed_fail" || type == "link_flap" || type == "link_no_return" || type == "link_aer_errors";
}

std::map<const PortProfile*, LinkFaults> read_link_faults(const Profile& profile) {
    std::map<const PortProfile*, LinkFaults> faults;
    for_each_fault(profile, is_link_fault, [&](const json& entry, const std::string& path, const std::string& type) {
        const std::map<std::string, std::vector<std::string>> fields = {
            {"link_speed_fail", {"speed"}},
            {"link_flap", {"period_ms"}},
            {"link_no_return", {"return_ms"}},
            {"link_aer_errors", {"every", "error"}}};
        for (const auto& item : entry.items()) {
            const auto& allowed = fields.at(type);
            if (item.key() != "type" && item.key() != "port" && item.key() != "device" &&
                std::find(allowed.begin(), allowed.end(), item.key()) == allowed.end())
                fail(path, "unknown field '" + item.key() + "'");
        }
        for (const std::string& key : fields.at(type))
            if (!entry.contains(key)) fail(path, "missing field '" + key + "'");
        if (entry.contains("port") == entry.contains("device"))
            fail(path, "name the link with either 'port' or 'device'");
        const bool by_port = entry.contains("port");
        const json& name_value = entry[by_port ? "port" : "device"];
        const std::string where = path + (by_port ? ".port" : ".device");
        if (!name_value.is_string() || name_value.get<std::string>().empty()) fail(where, "expected a name");
        const std::string name = name_value.get<std::string>();
        const PortProfile* found = nullptr;
        unsigned matches = 0;
        for (const SocketProfile& socket : profile.sockets)
            for (const RootComplexProfile& rc : socket.root_complexes)
                for (const PortProfile& root : rc.root_ports)
                    visit_ports(root, [&](const PortProfile& port) {
                        const bool hit = by_port ? port.name == name : (port.child && port.child->name == name);
                        if (hit) {
                            found = &port;
                            ++matches;
                        }
                    });
        if (matches == 0) fail(where, "no link has a " + std::string(by_port ? "port" : "device") + " named '" + name + "'");
        if (matches > 1) fail(where, "more than one link has a " + std::string(by_port ? "port" : "device") + " named '" + name + "'");

        LinkFaults& f = faults[found];
        if (type == "link_speed_fail") {
            f.fail_speed = speed_code_of(entry["speed"], path + ".speed");
            if (f.fail_speed == 1) fail(path + ".speed", "a link always trains at 2.5 GT/s");
        } else if (type == "link_flap") {
            f.flap_period_ns = static_cast<int64_t>(positive(entry, "period_ms", path, kMaxFaultMs)) * 1'000'000;
        } else if (type == "link_no_return") {
            f.return_ns = static_cast<int64_t>(positive(entry, "return_ms", path, kMaxFaultMs)) * 1'000'000;
        } else {
            f.aer_every = static_cast<unsigned>(positive(entry, "every", path, 0xFFFFFFFF));
            const json& error = entry["error"];
            // Correctable status: receiver error (bit 0) or a burst of bad TLPs (bit 6) with replays (bit 12).
            if (error == "receiver") f.aer_correctable = 1u << 0;
            else if (error == "bad_tlp") f.aer_correctable = 1u << 6 | 1u << 12;
            else fail(path + ".error", "expected \"receiver\" or \"bad_tlp\", got " + error.dump());
        }
    });
    return faults;
}

namespace link_controller {

unsigned width_from_code(unsigned code) {
    static const unsigned widths[] = {0, 1, 2, 4, 8, 12, 16, 32};
    return code < 8 ? widths[code] : 0;
}

unsigned code_from_width(unsigned width) {
    for (unsigned code = 1; code < 8; ++code)
        if (width_from_code(code) == width) return code;
    return 0;
}

}  // namespace link_controller

void place_link_controller_registers(RegisterSpace& r, uint32_t window, std::optional<uint32_t> core_block,
                                     LinkControllerHooks hooks) {
    using namespace link_controller;
    auto shared = std::make_shared<LinkControllerHooks>(std::move(hooks));
    const uint32_t width_at = window + kWidthControl;
    r.define(width_at, code_from_width(shared->width));
    // Bit 8 reads set only while the reconfiguration runs.
    r.on_read(width_at, [shared](uint32_t stored, const ModelTime& now) {
        return shared->busy(now) ? stored : stored & ~0x100u;
    });
    r.on_write(width_at, [shared, &r, core_block](uint32_t old_value, uint32_t& value, uint32_t, const ModelTime& now) {
        const bool running = (old_value & 0x100) && shared->busy(now);
        if (!(value & 0x100) || running) return;
        const bool enabled = core_block && (r.peek(*core_block + kCoreReconfigure) & 1);
        const unsigned width = width_from_code(value & 7);
        if (!enabled || width == 0) {
            value &= ~0x100u;  // nothing starts without the core's enable
            return;
        }
        shared->change_width(width, now);
    });
    r.define(window + kSpeedControl, (shared->max_speed_code - 1) << 12);
    r.define(window + kState, 0, 0);
    r.on_read(window + kState, [shared](uint32_t, const ModelTime& now) { return uint32_t{shared->state(now)} & 0x3F; });
    r.define(window + kAdvertise, 0);
    r.on_write(window + kAdvertise, [](uint32_t, uint32_t& value, uint32_t, const ModelTime&) {
        value &= ~(1u << 30);  // the advertisement takes effect at once
    });
    const uint32_t speed_at = window + kSpeedControl;
    r.define(window + kSpeedChange, 0);
    r.on_write(window + kSpeedChange, [shared, &r, speed_at](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
        if (!(value & 0x40)) return;
        value &= ~0x40u;
        const uint32_t control = r.peek(speed_at);
        const unsigned target = control & (1u << 11) ? ((control >> 12) & 0xF) + 1 : shared->max_speed_code;
        shared->change_speed(std::min(target, shared->max_speed_code), now);
    });
    if (core_block) r.define(*core_block + kCoreReconfigure, 0);
}

}  // namespace sim
