#include "simulator/profile.h"

#include "simulator/eye_sampler_model.h"

#include "simulator/link_model.h"

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include "hardware/chips/chip_identity.h"
#include "hardware/json_limits.h"
#include "simulator/lane_margining_model.h"
#include "simulator/hvl_link_model.h"
#include "simulator/hvl_phy_model.h"

namespace sim {

namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ProfileError("profile: " + (path.empty() ? std::string("(top)") : path) + ": " + reason);
}

std::string hex(unsigned value, int digits = 0) {
    std::ostringstream out;
    out << "0x" << std::hex << std::uppercase;
    if (digits) {
        out.fill('0');
        out.width(digits);
    }
    out << value;
    return out.str();
}

std::string address_text(unsigned segment, unsigned bus, unsigned device, unsigned function) {
    char text[32];
    std::snprintf(text, sizeof(text), "%04x:%02x:%02x.%u", segment, bus, device, function);
    return text;
}

// A value in the document together with where it stands, so every error can
// name its field.
class Field {
public:
    Field(const json& value, std::string path) : _value(value), _path(std::move(path)) {}

    const std::string& path() const { return _path; }
    const json& value() const { return _value; }

    void expect_object(std::initializer_list<const char*> allowed) const {
        if (!_value.is_object()) fail(_path, "expected an object");
        for (const auto& item : _value.items()) {
            bool known = false;
            for (const char* key : allowed) known = known || item.key() == key;
            if (!known) fail(_path, "unknown field '" + item.key() + "'");
        }
    }
    bool has(const char* key) const { return _value.contains(key); }
    Field at(const char* key) const {
        if (!_value.contains(key)) fail(_path, "missing field '" + std::string(key) + "'");
        return child(key);
    }
    Field child(const char* key) const {
        return Field(_value.at(key), _path.empty() ? std::string(key) : _path + "." + key);
    }
    std::vector<Field> array() const {
        if (!_value.is_array()) fail(_path, "expected an array");
        std::vector<Field> items;
        for (size_t i = 0; i < _value.size(); ++i)
            items.emplace_back(_value[i], _path + "[" + std::to_string(i) + "]");
        return items;
    }

    // Numbers may be written as JSON integers or as text ("0x1F7E", "42"),
    // since IDs read best in hexadecimal.
    uint64_t as_u64(uint64_t max) const {
        uint64_t result = 0;
        if (_value.is_number_unsigned()) {
            result = _value.get<uint64_t>();
        } else if (_value.is_number_integer()) {
            if (_value.get<int64_t>() < 0) fail(_path, "expected an unsigned number, got " + _value.dump());
            result = static_cast<uint64_t>(_value.get<int64_t>());
        } else if (_value.is_string()) {
            const std::string text = _value.get<std::string>();
            size_t used = 0;
            try {
                if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') throw std::invalid_argument(text);
                result = std::stoull(text, &used, 0);
            } catch (const std::exception&) {
                fail(_path, "'" + text + "' is not a number");
            }
            if (used != text.size()) fail(_path, "'" + text + "' is not a number");
        } else {
            fail(_path, "expected an unsigned number, got " + _value.dump());
        }
        if (result > max) fail(_path, "value " + std::to_string(result) + " is above " + std::to_string(max));
        return result;
    }
    unsigned as_uint(unsigned max) const { return static_cast<unsigned>(as_u64(max)); }
    double as_number(double min, double max) const {
        if (!_value.is_number()) fail(_path, "expected a number, got " + _value.dump());
        const double result = _value.get<double>();
        if (!std::isfinite(result) || result < min || result > max) {
            std::ostringstream out;
            out << "value " << result << " is outside " << min << " to " << max;
            fail(_path, out.str());
        }
        return result;
    }
    bool as_bool() const {
        if (!_value.is_boolean()) fail(_path, "expected true or false, got " + _value.dump());
        return _value.get<bool>();
    }
    std::string as_string() const {
        if (!_value.is_string()) fail(_path, "expected a text, got " + _value.dump());
        return _value.get<std::string>();
    }

private:
    const json& _value;
    std::string _path;
};

unsigned speed_code(const Field& field) {
    if (!field.value().is_number()) fail(field.path(), "expected a link speed in GT/s (2.5, 5, 8, 16 or 32)");
    const double gts = field.value().get<double>();
    const double speeds[] = {2.5, 5, 8, 16, 32};
    for (unsigned code = 1; code <= 5; ++code)
        if (gts == speeds[code - 1]) return code;
    fail(field.path(), "unsupported link speed " + field.value().dump() + " (2.5, 5, 8, 16 or 32 GT/s)");
}

unsigned link_width(const Field& field) {
    const unsigned width = field.as_uint(64);
    for (unsigned allowed : {1u, 2u, 4u, 8u, 12u, 16u, 32u})
        if (width == allowed) return width;
    fail(field.path(), "unsupported link width " + std::to_string(width) + " (1, 2, 4, 8, 12, 16 or 32)");
}

void read_eye_fields(const Field& field, EyeMargins& eye) {
    if (field.has("timing_left")) eye.timing_left = field.child("timing_left").as_number(0, 50);
    if (field.has("timing_right")) eye.timing_right = field.child("timing_right").as_number(0, 50);
    if (field.has("voltage_up")) eye.voltage_up = field.child("voltage_up").as_number(0, 1270);
    if (field.has("voltage_down")) eye.voltage_down = field.child("voltage_down").as_number(0, 1270);
    if (field.has("noise")) eye.noise = field.child("noise").as_number(0, 1);
}

MarginingProfile read_margining(const Field& field, unsigned max_width) {
    field.expect_object({"voltage_supported", "ind_up_down_voltage", "ind_left_right_timing",
                         "sample_reporting_method", "ind_error_sampler", "num_voltage_steps", "num_timing_steps",
                         "max_timing_offset", "max_voltage_offset", "sampling_rate_voltage", "sampling_rate_timing",
                         "max_lanes", "setup_time_ms", "eye", "lanes"});
    MarginingProfile m;
    auto flag = [&](const char* key, bool& target) {
        if (field.has(key)) target = field.child(key).as_bool();
    };
    auto bits = [&](const char* key, unsigned& target, unsigned max) {
        if (field.has(key)) target = field.child(key).as_uint(max);
    };
    flag("voltage_supported", m.voltage_supported);
    flag("ind_up_down_voltage", m.ind_up_down_voltage);
    flag("ind_left_right_timing", m.ind_left_right_timing);
    flag("sample_reporting_method", m.sample_reporting_method);
    flag("ind_error_sampler", m.ind_error_sampler);
    bits("num_voltage_steps", m.num_voltage_steps, 127);
    bits("num_timing_steps", m.num_timing_steps, 63);
    bits("max_timing_offset", m.max_timing_offset, 127);
    bits("max_voltage_offset", m.max_voltage_offset, 127);
    bits("sampling_rate_voltage", m.sampling_rate_voltage, 63);
    bits("sampling_rate_timing", m.sampling_rate_timing, 63);
    bits("max_lanes", m.max_lanes, 31);
    if (field.has("setup_time_ms")) m.setup_time_ms = field.child("setup_time_ms").as_number(0, 1000);
    if (field.has("eye")) {
        const Field eye = field.child("eye");
        eye.expect_object({"timing_left", "timing_right", "voltage_up", "voltage_down", "noise"});
        read_eye_fields(eye, m.eye);
    }
    if (field.has("lanes")) {
        for (const Field& lane : field.child("lanes").array()) {
            lane.expect_object({"lane", "timing_left", "timing_right", "voltage_up", "voltage_down", "noise"});
            const Field number = lane.at("lane");
            const unsigned index = number.as_uint(31);
            if (index >= max_width)
                fail(number.path(), "lane " + std::to_string(index) + " is beyond the link's " +
                                        std::to_string(max_width) + " lanes");
            if (m.lane_eyes.count(index)) fail(number.path(), "lane " + std::to_string(index) + " is given twice");
            EyeMargins eye = m.eye;
            read_eye_fields(lane, eye);
            m.lane_eyes[index] = eye;
        }
    }
    return m;
}

CapabilityProfile read_capabilities(const Field& field) {
    field.expect_object({"power_management", "aer", "secondary_pcie", "lane_margining", "l1_pm_substates"});
    CapabilityProfile caps;
    if (field.has("power_management")) caps.power_management = field.child("power_management").as_bool();
    if (field.has("aer")) caps.aer = field.child("aer").as_bool();
    if (field.has("secondary_pcie")) caps.secondary_pcie = field.child("secondary_pcie").as_bool();
    if (field.has("lane_margining")) caps.lane_margining = field.child("lane_margining").as_bool();
    if (field.has("l1_pm_substates")) caps.l1_pm_substates = field.child("l1_pm_substates").as_bool();
    return caps;
}

FunctionProfile read_function(const Field& field) {
    FunctionProfile f;
    f.vendor_id = field.at("vendor_id").as_uint(0xFFFE);
    f.device_id = field.at("device_id").as_uint(0xFFFF);
    f.class_code = field.at("class_code").as_uint(0xFFFFFF);
    if (field.has("revision")) f.revision = field.child("revision").as_uint(0xFF);
    if (field.has("subsystem_vendor_id")) f.subsystem_vendor_id = field.child("subsystem_vendor_id").as_uint(0xFFFF);
    if (field.has("subsystem_id")) f.subsystem_id = field.child("subsystem_id").as_uint(0xFFFF);
    if (field.has("capabilities")) f.capabilities = read_capabilities(field.child("capabilities"));
    if (f.vendor_id == 0) fail(field.child("vendor_id").path(), "vendor ID 0 reads as an absent function");
    return f;
}

std::shared_ptr<DeviceProfile> read_device(const Field& field);

void read_link_ends(const Field& field, unsigned& max_speed, unsigned& max_width, unsigned default_speed,
                    unsigned default_width) {
    max_speed = field.has("max_speed") ? speed_code(field.child("max_speed")) : default_speed;
    max_width = field.has("max_width") ? link_width(field.child("max_width")) : default_width;
}

PortProfile read_port(const Field& field, bool root_port) {
    if (root_port)
        field.expect_object({"name", "device", "function", "vendor_id", "device_id", "max_speed", "max_width", "core",
                             "function_index", "port_number", "lane_reversal", "serdes_lane_reversal",
                             "secondary_bus", "subordinate_bus", "capabilities", "margining", "child"});
    else
        field.expect_object({"name", "device", "device_id", "max_speed", "max_width", "secondary_bus",
                             "subordinate_bus", "capabilities", "margining", "child"});
    PortProfile port;
    if (field.has("name")) port.name = field.child("name").as_string();
    if (root_port) {
        port.device = field.at("device").as_uint(31);
        if (field.has("function")) port.function = field.child("function").as_uint(7);
        port.vendor_id = field.has("vendor_id") ? field.child("vendor_id").as_uint(0xFFFE) : chips::kProcessorVendorId;
        port.device_id =
            field.has("device_id") ? field.child("device_id").as_uint(0xFFFF) : chips::corvane::kRootPortDeviceId;
        port.core = field.at("core").as_string();
        if (port.core.empty()) fail(field.child("core").path(), "empty core name");
        port.function_index = field.at("function_index").as_uint(8);
        if (field.has("port_number")) port.port_number = field.child("port_number").as_uint(255);
        if (field.has("lane_reversal")) port.lane_reversal = field.child("lane_reversal").as_bool();
        if (field.has("serdes_lane_reversal"))
            port.serdes_lane_reversal = field.child("serdes_lane_reversal").as_bool();
    } else {
        if (field.has("device")) port.device = field.child("device").as_uint(31);
        if (field.has("device_id")) port.device_id = field.child("device_id").as_uint(0xFFFF);
    }
    read_link_ends(field, port.max_speed, port.max_width, 5, 16);
    if (field.has("secondary_bus")) port.secondary_bus = field.child("secondary_bus").as_uint(255);
    if (field.has("subordinate_bus")) port.subordinate_bus = field.child("subordinate_bus").as_uint(255);
    if (field.has("capabilities")) port.capabilities = read_capabilities(field.child("capabilities"));
    if (field.has("margining")) port.margining = read_margining(field.child("margining"), port.max_width);
    if (field.has("child")) port.child = read_device(field.child("child"));
    if (port.child) {
        const DeviceProfile& child = *port.child;
        const unsigned best_speed = std::min(port.max_speed, child.max_speed);
        const unsigned best_width = std::min(port.max_width, child.max_width);
        if (child.speed && *child.speed > best_speed)
            fail(field.child("child").path() + ".speed", "the link cannot run faster than both its ends support");
        if (child.width && *child.width > best_width)
            fail(field.child("child").path() + ".width", "the link cannot be wider than both its ends support");
        port.child->speed = child.speed.value_or(best_speed);
        port.child->width = child.width.value_or(best_width);
    }
    return port;
}

std::shared_ptr<DeviceProfile> read_device(const Field& field) {
    if (!field.value().is_object()) fail(field.path(), "expected an object");
    auto device = std::make_shared<DeviceProfile>();
    const std::string type = field.at("type").as_string();
    if (type == "endpoint") {
        device->kind = DeviceProfile::Kind::endpoint;
        const bool several = field.has("functions");
        if (several)
            field.expect_object({"type", "name", "max_speed", "max_width", "speed", "width", "margining", "functions",
                                 "traffic"});
        else
            field.expect_object({"type", "name", "max_speed", "max_width", "speed", "width", "margining", "vendor_id",
                                 "device_id", "class_code", "revision", "subsystem_vendor_id", "subsystem_id",
                                 "capabilities", "traffic"});
        if (several) {
            const auto items = field.child("functions").array();
            if (items.empty() || items.size() > 8)
                fail(field.child("functions").path(), "an endpoint has 1 to 8 functions");
            for (const Field& item : items) {
                item.expect_object({"vendor_id", "device_id", "class_code", "revision", "subsystem_vendor_id",
                                    "subsystem_id", "capabilities"});
                device->functions.push_back(read_function(item));
            }
        } else {
            device->functions.push_back(read_function(field));
        }
    } else if (type == "switch") {
        device->kind = DeviceProfile::Kind::pcie_switch;
        field.expect_object({"type", "name", "max_speed", "max_width", "speed", "width", "margining", "vendor_id",
                             "device_id", "revision", "capabilities", "downstream_ports", "traffic"});
        FunctionProfile upstream;
        upstream.vendor_id = field.at("vendor_id").as_uint(0xFFFE);
        upstream.device_id = field.at("device_id").as_uint(0xFFFF);
        upstream.class_code = 0x060400;
        if (field.has("revision")) upstream.revision = field.child("revision").as_uint(0xFF);
        if (field.has("capabilities")) upstream.capabilities = read_capabilities(field.child("capabilities"));
        device->functions.push_back(upstream);
    } else {
        fail(field.child("type").path(), "unknown device type '" + type + "' (endpoint or switch)");
    }
    if (field.has("name")) device->name = field.child("name").as_string();
    device->max_speed = speed_code(field.at("max_speed"));
    device->max_width = link_width(field.at("max_width"));
    if (field.has("speed")) device->speed = speed_code(field.child("speed"));
    if (field.has("width")) device->width = link_width(field.child("width"));
    if (field.has("margining")) device->margining = read_margining(field.child("margining"), device->max_width);
    if (field.has("traffic")) {
        // Per second; the limits keep a 48-bit count from wrapping within a minute.
        const Field traffic = field.child("traffic");
        traffic.expect_object({"tx_tlps", "rx_tlps", "tx_bytes", "rx_bytes", "replays", "naks"});
        std::array<double, 6> rates{};
        const char* keys[] = {"tx_tlps", "rx_tlps", "tx_bytes", "rx_bytes", "replays", "naks"};
        for (size_t i = 0; i < 6; ++i)
            if (traffic.has(keys[i])) rates[i] = traffic.child(keys[i]).as_number(0, 1e12);
        device->traffic = rates;
    }
    if (device->kind == DeviceProfile::Kind::pcie_switch) {
        const auto ports = field.at("downstream_ports").array();
        if (ports.empty() || ports.size() > 32) fail(field.child("downstream_ports").path(), "a switch has 1 to 32 downstream ports");
        std::set<unsigned> numbers;
        for (size_t i = 0; i < ports.size(); ++i) {
            PortProfile port = read_port(ports[i], false);
            if (!ports[i].has("device")) port.device = static_cast<unsigned>(i);
            if (!numbers.insert(port.device).second)
                fail(ports[i].path() + ".device", "device number " + std::to_string(port.device) + " is used twice");
            port.vendor_id = device->functions[0].vendor_id;
            if (!ports[i].has("device_id")) port.device_id = device->functions[0].device_id;
            device->downstream_ports.push_back(std::move(port));
        }
    }
    return device;
}

// Buses a port needs below it: its own secondary bus and whatever hangs there.
unsigned buses_needed(const PortProfile& port) {
    if (!port.child || port.child->kind != DeviceProfile::Kind::pcie_switch) return 1;
    unsigned count = 2;  // the switch's upstream bus and its internal bus
    for (const auto& below : port.child->downstream_ports) count += buses_needed(below);
    return count;
}

// Gives the port its bus range (keeping what the profile fixed) and numbers
// everything below it, depth first. Returns the port's subordinate bus.
unsigned assign_buses(PortProfile& port, unsigned next, unsigned limit, const std::string& path) {
    const unsigned needed = buses_needed(port);
    if (port.secondary_bus) {
        if (*port.secondary_bus < next)
            fail(path + ".secondary_bus", "bus " + hex(*port.secondary_bus, 2) + " lies outside the free range " +
                                              hex(next, 2) + " to " + hex(limit, 2));
    } else {
        port.secondary_bus = next;
    }
    const unsigned secondary = *port.secondary_bus;
    if (secondary + needed - 1 > limit)
        fail(path, "no room for " + std::to_string(needed) + " buses from " + hex(secondary, 2) + " up to " + hex(limit, 2));
    if (port.subordinate_bus) {
        if (*port.subordinate_bus < secondary + needed - 1 || *port.subordinate_bus > limit)
            fail(path + ".subordinate_bus", "bus " + hex(*port.subordinate_bus, 2) + " must lie between " +
                                                hex(secondary + needed - 1, 2) + " and " + hex(limit, 2));
    } else {
        port.subordinate_bus = secondary + needed - 1;
    }
    if (port.child && port.child->kind == DeviceProfile::Kind::pcie_switch) {
        DeviceProfile& sw = *port.child;
        sw.internal_bus = secondary + 1;
        unsigned below = sw.internal_bus + 1;
        for (size_t i = 0; i < sw.downstream_ports.size(); ++i) {
            const std::string here = path + ".child.downstream_ports[" + std::to_string(i) + "]";
            below = assign_buses(sw.downstream_ports[i], below, *port.subordinate_bus, here) + 1;
        }
    }
    return *port.subordinate_bus;
}

RootComplexProfile read_root_complex(const Field& field) {
    field.expect_object({"segment", "bus", "bus_limit", "root_ports"});
    RootComplexProfile rc;
    rc.segment = field.at("segment").as_uint(254);
    rc.bus = field.at("bus").as_uint(255);
    rc.bus_limit = field.has("bus_limit") ? field.child("bus_limit").as_uint(255) : rc.bus;
    if (rc.bus_limit < rc.bus) fail(field.child("bus_limit").path(), "bus limit lies below the root bus");
    if (field.has("root_ports")) {
        const auto ports = field.child("root_ports").array();
        unsigned next = rc.bus + 1;
        for (const Field& item : ports) {
            PortProfile port = read_port(item, true);
            if (port.device == 0 && port.function == 0)
                fail(item.path() + ".device", "device 0 function 0 is the root function");
            next = assign_buses(port, next, rc.bus_limit, item.path()) + 1;
            rc.root_ports.push_back(std::move(port));
        }
    }
    return rc;
}

SocketProfile read_socket(const Field& field) {
    field.expect_object({"die", "revision", "secure", "fuses", "root_complexes"});
    SocketProfile socket;
    const Field die = field.at("die");
    socket.die_type = die.as_string();
    if (!is_known_die_type(socket.die_type)) fail(die.path(), "unknown die type '" + socket.die_type + "'");
    if (field.has("revision")) socket.revision = field.child("revision").as_uint(0xFF);
    if (field.has("secure")) socket.secure = field.child("secure").as_bool();
    if (field.has("fuses")) {
        const auto words = field.child("fuses").array();
        if (words.size() != 3) fail(field.child("fuses").path(), "expected three fuse words");
        for (const Field& word : words) socket.fuses.push_back(static_cast<uint32_t>(word.as_u64(0xFFFFFFFF)));
    }
    const auto complexes = field.at("root_complexes").array();
    if (complexes.empty()) fail(field.child("root_complexes").path(), "a die needs at least one root complex");
    for (const Field& item : complexes) socket.root_complexes.push_back(read_root_complex(item));
    return socket;
}

// Addresses that the loader itself places must not collide, and every
// device that shows functions must show function 0, or no scan finds it.
void check_fixed_addresses(const Profile& profile) {
    using Address = std::tuple<unsigned, unsigned, unsigned, unsigned>;
    std::map<Address, std::string> taken;
    auto take = [&](Address a, const std::string& path) {
        auto [it, fresh] = taken.emplace(a, path);
        if (!fresh) {
            const auto [s, b, d, f] = a;
            fail(path, "address " + address_text(s, b, d, f) + " is already used by " + it->second);
        }
    };
    for (size_t s = 0; s < profile.sockets.size(); ++s)
        take({0, 0, 24 + static_cast<unsigned>(s), 0}, "sockets[" + std::to_string(s) + "] (data fabric function)");
    std::map<std::tuple<unsigned, unsigned>, std::string> ranges;  // (segment, bus) -> owner
    for (size_t s = 0; s < profile.sockets.size(); ++s) {
        const auto& socket = profile.sockets[s];
        std::set<std::tuple<std::string, unsigned>> core_ports;
        for (size_t r = 0; r < socket.root_complexes.size(); ++r) {
            const auto& rc = socket.root_complexes[r];
            const std::string path = "sockets[" + std::to_string(s) + "].root_complexes[" + std::to_string(r) + "]";
            for (unsigned bus = rc.bus; bus <= rc.bus_limit; ++bus) {
                auto [it, fresh] = ranges.emplace(std::make_tuple(rc.segment, bus), path);
                if (!fresh) fail(path + ".bus", "bus " + hex(bus, 2) + " of segment " + std::to_string(rc.segment) +
                                                    " already belongs to " + it->second);
            }
            take({rc.segment, rc.bus, 0, 0}, path + " (root function)");
            for (size_t p = 0; p < rc.root_ports.size(); ++p) {
                const auto& port = rc.root_ports[p];
                const std::string here = path + ".root_ports[" + std::to_string(p) + "]";
                take({rc.segment, rc.bus, port.device, port.function}, here);
                if (!core_ports.emplace(port.core, port.function_index).second)
                    fail(here + ".function_index", "core " + port.core + " function index " +
                                                       std::to_string(port.function_index) + " is used twice");
            }
        }
    }
    for (const auto& [address, path] : taken) {
        const auto [s, b, d, f] = address;
        if (f != 0 && !taken.count({s, b, d, 0}))
            fail(path, "device " + address_text(s, b, d, f).substr(0, 10) + " has no function 0");
    }
}

}  // namespace

bool is_known_die_type(const std::string& name) { return name == "Corvane"; }

Profile parse_profile(const json& document) {
    const Field top(document, "");
    top.expect_object({"format", "seed", "start_time", "machine", "processor", "sockets", "hvl_links", "faults",
                      "phy_settings"});
    Profile profile;
    if (top.has("format")) {
        profile.format = top.child("format").as_uint(1000);
        if (profile.format != 1) fail("format", "unsupported format " + std::to_string(profile.format) + " (1)");
    }
    if (top.has("seed")) profile.seed = top.child("seed").as_u64(UINT64_MAX);
    if (top.has("start_time")) profile.start_time = static_cast<int64_t>(top.child("start_time").as_u64(INT64_MAX / 1000000000));
    if (top.has("machine")) {
        const Field m = top.child("machine");
        m.expect_object({"host_name", "bios_version", "product_name", "os_name", "kernel_version", "numa_nodes"});
        auto text = [&](const char* key, std::string& target) {
            if (m.has(key)) target = m.child(key).as_string();
        };
        text("host_name", profile.machine.host_name);
        text("bios_version", profile.machine.bios_version);
        text("product_name", profile.machine.product_name);
        text("os_name", profile.machine.os_name);
        text("kernel_version", profile.machine.kernel_version);
        if (m.has("numa_nodes")) {
            profile.machine.numa_nodes = m.child("numa_nodes").as_uint(64);
            if (profile.machine.numa_nodes == 0) fail("machine.numa_nodes", "a machine has at least one NUMA node");
        }
    }
    const Field processor = top.at("processor");
    processor.expect_object({"family", "model", "stepping"});
    profile.processor.family = processor.at("family").as_uint(0xFFF);
    profile.processor.model = processor.at("model").as_uint(0xFF);
    if (processor.has("stepping")) profile.processor.stepping = processor.child("stepping").as_uint(0xF);

    const auto sockets = top.at("sockets").array();
    if (sockets.size() > 8) fail("sockets", "at most 8 sockets");
    for (const Field& item : sockets) profile.sockets.push_back(read_socket(item));
    for (size_t s = 1; s < profile.sockets.size(); ++s)
        if (profile.sockets[s].die_type != profile.sockets[0].die_type)
            fail("sockets[" + std::to_string(s) + "].die", "all sockets hold the same die type as sockets[0]");
    if (!profile.sockets.empty() && profile.sockets[0].die_type == "Corvane") {
        if (profile.processor.family != chips::corvane::kFamily)
            fail("processor.family", "family " + hex(profile.processor.family) + " is not the Corvane family " +
                                         hex(chips::corvane::kFamily));
        if (profile.processor.model < chips::corvane::kModelFirst || profile.processor.model > chips::corvane::kModelLast)
            fail("processor.model", "model " + hex(profile.processor.model) + " is outside the Corvane models " +
                                        hex(chips::corvane::kModelFirst) + " to " + hex(chips::corvane::kModelLast));
    }
    check_fixed_addresses(profile);

    if (top.has("hvl_links")) {
        top.child("hvl_links").array();
        profile.hvl_links = document.at("hvl_links");
        parse_hvl_links(profile.hvl_links, profile.sockets);
    }
    if (top.has("faults")) {
        for (const Field& fault : top.child("faults").array()) {
            if (!fault.value().is_object()) fail(fault.path(), "expected an object");
            const Field type = fault.at("type");
            if (!is_margining_fault(type.as_string()) && !is_hvl_fault(type.as_string()) &&
                !is_link_fault(type.as_string()))
                fail(type.path(), "unknown fault type '" + type.as_string() + "'");
        }
        profile.faults = document.at("faults");
        read_margining_faults(profile);
        read_hvl_faults(profile.faults, profile.sockets);
        read_link_faults(profile);
    }
    if (top.has("phy_settings")) {
        profile.phy_settings = document.at("phy_settings");
        read_phy_settings(profile.phy_settings, profile.sockets);
    }
    return profile;
}

Profile parse_profile_text(const std::string& text) {
    json document;
    try {
        document = parse_json_limited(text);
    } catch (const JsonTooDeep& e) {
        throw ProfileError(std::string("profile: ") + e.what());
    } catch (const json::parse_error& e) {
        throw ProfileError(std::string("profile: not valid JSON: ") + e.what());
    }
    return parse_profile(document);
}

Profile load_profile_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ProfileError("profile: cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return parse_profile_text(text.str());
}

void for_each_fault(const Profile& profile, const std::function<bool(const std::string&)>& is_kind,
                    const std::function<void(const nlohmann::json& entry, const std::string& path,
                                             const std::string& type)>& read) {
    if (!profile.faults.is_array()) return;
    for (size_t i = 0; i < profile.faults.size(); ++i) {
        const nlohmann::json& entry = profile.faults[i];
        if (!entry.is_object() || !entry.contains("type") || !entry["type"].is_string()) continue;
        const std::string type = entry["type"].get<std::string>();
        if (is_kind(type)) read(entry, "faults[" + std::to_string(i) + "]", type);
    }
}

}  // namespace sim
