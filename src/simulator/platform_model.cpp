#include "simulator/platform_model.h"

#include <algorithm>
#include <set>
#include <utility>

#include "hardware/chips/aspm_timers.h"
#include "hardware/chips/chip_identity.h"
#include "simulator/aspm_model.h"
#include "simulator/equalisation_model.h"
#include "simulator/port_mapping_model.h"
#include "simulator/lane_margining_model.h"
#include "simulator/hvl_link_model.h"
#include "simulator/hvl_phy_model.h"
#include "simulator/link_model.h"
#include "hardware/chips/server_registers.h"
#include "simulator/traffic_model.h"

namespace sim {

namespace {

constexpr int64_t kRetrainNs = 2'000'000;    // Recovery and back to L0
constexpr int64_t kLinkUpNs = 20'000'000;    // Detect through Configuration
constexpr size_t kHistoryDepth = 48;         // twelve registers of four states

// LTSSM state codes the history records.
constexpr uint8_t kDetect = 0x01, kPolling = 0x05, kPollingConfig = 0x07, kConfig = 0x09, kConfigIdle = 0x0F;
constexpr uint8_t kL0 = 0x10, kRecoveryLock = 0x20, kRecoverySpeed = 0x21, kRecoveryConfig = 0x22;
constexpr uint8_t kRecoveryIdle = 0x23, kHotReset = 0x26, kDisabled = 0x27;
constexpr uint8_t kL1 = 0x18;

uint32_t lane_mask(unsigned bytes) { return bytes >= 4 ? 0xFFFFFFFFu : ((1u << (8 * bytes)) - 1); }

}  // namespace

struct PlatformModel::Link {
    Function* port = nullptr;
    std::vector<Function*> below;  // the functions of the device on the far end; empty: nothing attached
    unsigned speed_limit = 1;      // the best speed this link trains to
    unsigned width = 0;            // the width it trains to
    unsigned speed = 1;            // current speed code
    unsigned pending_speed = 1;
    unsigned boot_width = 0;       // what it trains to from Detect
    unsigned max_width = 0;        // the widest both ends allow (width reconfiguration)
    unsigned pending_width = 0;
    bool disabled = false;
    bool reset = false;            // the port holds a secondary bus reset
    LinkFaults faults;
    unsigned trainings = 0;
    ModelDeadline flap;
    bool from_down = false;        // the running training brings the link up from down
    bool software_retrain = false;
    ModelDeadline training;
    std::vector<uint8_t> history;  // newest first
    // ASPM L1: a device with steady traffic is never idle long enough; the
    // root port's timer register, where the port has one.
    bool busy = false;
    bool in_l1 = false;
    int64_t idle_since_ns = 0;
    RegisterSpace* port_timers = nullptr;
    uint32_t port_timers_address = 0;

    void enter(uint8_t state) {
        history.insert(history.begin(), state);
        if (history.size() > kHistoryDepth) history.resize(kHistoryDepth);
    }
    bool up() const { return !below.empty() && !disabled && !reset && !(training.active() && from_down); }
};

struct PlatformModel::Function {
    Role role = Role::endpoint;
    unsigned segment = 0, bus = 0, device = 0, function = 0;  // where it was built
    ConfigSpace space;
    unsigned pm = 0, pcie = 0, aer = 0, secondary = 0, margining = 0, margining_lanes = 0;
    unsigned physical16 = 0, physical32 = 0;  // Physical Layer 16.0 / 32.0 GT/s capabilities
    unsigned aspm_timers = 0;                 // a platform endpoint's timer capability
    Link* link = nullptr;        // ports: the link below; endpoints and upstream ports: the link above
    Die* die = nullptr;          // root functions: the die behind the index/data pair
    const MarginingProfile* receiver = nullptr;
    std::vector<Function*> downstream_ports;  // upstream port of a switch

    bool downstream_facing() const { return role == Role::root_port || role == Role::switch_downstream; }
};

struct PlatformModel::Die {
    unsigned socket = 0, die = 0;
    std::string type;
    RegisterSpace registers;
};

struct PlatformModel::PlacedPort {
    Function* function;
    const PortProfile* profile;
    unsigned segment, root_bus;
};

namespace {

// Everything a function's configuration image is made from.
struct Shape {
    unsigned vendor_id = 0, device_id = 0, class_code = 0, revision = 0, subsystem = 0;
    bool bridge = false;
    bool interrupt_pin = false;
    bool pcie = false;
    unsigned port_type = 0;
    unsigned max_speed = 1, max_width = 1, port_number = 0;
    bool power_management = false, aer = false, secondary = false, margining = false;
    bool physical16 = false, physical32 = false;
    bool acs = false;         // downstream ports
    bool l1_substates = false;
    bool aspm_timers = false; // the platform's own endpoints: entry timers of their link controller
    uint64_t serial = 0;      // endpoints and upstream ports: device serial number (0: none)
    unsigned buses = 0;  // bridges: primary | secondary << 8 | subordinate << 16
};

}  // namespace

// Builds the header and the capability lists. Values are what firmware and
// the operating system leave behind at boot; masks follow the register
// definitions (RW, RO, RW1C).
static void build_config(PlatformModel::Function& f, const Shape& s);

void build_config(PlatformModel::Function& f, const Shape& s) {
    ConfigSpace& c = f.space;
    const bool ds = s.port_type == cfg::kPortRoot || s.port_type == cfg::kPortDownstream;
    const bool has_caps = s.pcie || s.power_management;
    c.define(cfg::kVendorId, 4, s.vendor_id | s.device_id << 16);
    c.define(cfg::kCommand, 2, 0x0006, 0x0547);
    c.define(cfg::kStatus, 2, has_caps ? cfg::kStatusCapabilityList : 0, 0, 0xF900);
    c.define(cfg::kRevisionClass, 4, (s.revision & 0xFF) | s.class_code << 8);
    c.define(0x0C, 1, 0x10, 0xFF);
    c.define(cfg::kHeaderType, 1, s.bridge ? 1 : 0);
    if (s.bridge) {
        c.define(cfg::kBusNumbers, 4, s.buses, 0x00FFFFFF);
        c.define(0x1C, 2, 0x01F1, 0xF0F0);              // I/O window closed
        c.define(cfg::kSecondaryStatus, 2, 0, 0, 0xF900);
        c.define(0x20, 4, 0x0000FFF0, 0xFFF0FFF0);      // memory window closed
        c.define(0x24, 4, 0x0001FFF1, 0xFFF0FFF0);      // 64-bit prefetchable window closed
        c.define(0x28, 4, 0, 0xFFFFFFFF);
        c.define(0x2C, 4, 0, 0xFFFFFFFF);
        c.define(0x30, 4, 0, 0xFFFFFFFF);
        c.define(cfg::kBridgeControl, 2, 0, 0x007F);
    } else {
        c.define(0x2C, 4, s.subsystem);
    }
    c.define(0x3C, 1, 0xFF, 0xFF);
    c.define(0x3D, 1, s.interrupt_pin ? 1 : 0);

    unsigned link_at = cfg::kCapabilityPointer;
    auto add_cap = [&](unsigned at, unsigned id) {
        c.set(link_at, 1, at);
        c.define(at, 1, id);
        link_at = at + 1;
    };
    if (s.power_management) {
        f.pm = cfg::kPowerManagementAt;
        add_cap(f.pm, cfg::kCapPowerManagement);
        c.define(f.pm + 2, 2, 0xC803);                       // version 3, PME from D0, D3hot, D3cold
        c.define(f.pm + 4, 2, 0x0008, 0x0103, 0x8000);       // D0, no soft reset; PME status RW1C
    }
    if (s.pcie) {
        const unsigned p = f.pcie = cfg::kPciExpressAt;
        add_cap(p, cfg::kCapPciExpress);
        c.define(p + cfg::kPcieCapabilities, 2, 0x0002 | s.port_type << 4);
        const uint32_t devcap = s.port_type == cfg::kPortEndpoint ? 0x10008FE2u : 0x00008022u;
        c.define(p + cfg::kDeviceCapabilities, 4, devcap);
        c.define(p + cfg::kDeviceControl, 2, 0x2930, 0x7FFF);
        c.define(p + cfg::kDeviceStatus, 2, 0, 0, 0x000F);
        uint32_t linkcap = s.max_speed | s.max_width << 4 | 3u << 10 | 6u << 12 | 6u << 15 | 1u << 22 |
                           (s.port_number & 0xFF) << 24;
        if (ds) linkcap |= 1u << 19 | 1u << 20 | 1u << 21;
        c.define(p + cfg::kLinkCapabilities, 4, linkcap);
        c.define(p + cfg::kLinkControl, 2, 0x0040, ds ? 0x0EF3 : 0x02CB);
        c.define(p + cfg::kLinkStatus, 2, 0, 0, ds ? 0xC000 : 0);
        if (s.port_type == cfg::kPortRoot) {
            c.define(p + cfg::kRootControl, 2, 0, 0x001F);
            c.define(p + cfg::kRootStatus, 4, 0, 0, 0x00010000);
        }
        // From 16 GT/s a function must complete 10-bit tags.
        c.define(p + cfg::kDeviceCapabilities2, 4, (ds ? 0x83F : 0x81F) | (s.max_speed >= kSpeed16GT ? 1u << 16 : 0));
        c.define(p + cfg::kDeviceControl2, 2, 0, ds ? 0x043F : 0x041F);
        c.define(p + cfg::kLinkCapabilities2, 4, ((1u << s.max_speed) - 1) << 1);
        c.define(p + cfg::kLinkControl2, 2, s.max_speed, ds ? 0xFFFF : 0xFFBF);
        c.define(p + cfg::kLinkStatus2, 2, 0, 0, 0x0020);
    }
    if (!s.pcie) return;

    // Extended capabilities start at 0x100; each header's next pointer is
    // filled in when the following one is placed.
    unsigned at = 0x100, previous = 0;
    auto add_ext = [&](unsigned id, unsigned version, unsigned size) {
        if (previous) c.set(previous, 4, (c.get(previous, 4) & 0x000FFFFFu) | at << 20);
        c.define(at, 4, id | version << 16);
        previous = at;
        const unsigned here = at;
        at = (at + size + 15) & ~15u;
        return here;
    };
    if (s.aer) {
        const unsigned a = f.aer = add_ext(cfg::kExtCapAer, 2, 0x48);
        c.define(a + 0x04, 4, 0, 0, 0x07FFF030);            // uncorrectable status
        c.define(a + 0x08, 4, 0, 0x07FFF030);               // uncorrectable mask
        c.define(a + 0x0C, 4, 0x00062030, 0x07FFF030);      // uncorrectable severity
        c.define(a + 0x10, 4, 0, 0, 0x0000F1C1);            // correctable status
        c.define(a + 0x14, 4, 0x00002000, 0x0000F1C1);      // correctable mask
        c.define(a + 0x18, 4, 0x000000A0, 0x00000140);      // ECRC capable; enables writable
        if (s.port_type == cfg::kPortRoot) {
            c.define(a + 0x2C, 4, 0, 0x7);                   // root error command
            c.define(a + 0x30, 4, 0, 0, 0x7F);               // root error status
        }
    }
    if (s.acs) {
        const unsigned a = add_ext(cfg::kExtCapAcs, 1, 0x08);
        c.define(a + 0x04, 2, 0x001F);               // validation, blocking, redirects, upstream forwarding
        c.define(a + 0x06, 2, 0, 0x001F);
    }
    if (s.serial) {
        const unsigned d = add_ext(cfg::kExtCapSerialNumber, 1, 0x0C);
        c.define(d + 0x04, 4, static_cast<uint32_t>(s.serial));
        c.define(d + 0x08, 4, static_cast<uint32_t>(s.serial >> 32));
    }
    if (s.secondary) {
        const unsigned lanes = s.max_width;
        const unsigned x = f.secondary = add_ext(cfg::kExtCapSecondaryPcie, 1, 0x0C + 2 * lanes);
        c.define(x + 0x04, 4, 0, 0x3);                                          // link control 3
        c.define(x + 0x08, 4, 0, 0, lanes >= 32 ? 0xFFFFFFFFu : (1u << lanes) - 1);  // lane error status
        for (unsigned lane = 0; lane < lanes; ++lane) c.define(x + 0x0C + 2 * lane, 2, 0x4747);
    }
    if (s.margining) {
        const unsigned lanes = f.margining_lanes = s.max_width;
        const unsigned m = f.margining = add_ext(cfg::kExtCapLaneMargining, 1, 8 + 4 * lanes);
        c.define(m + cfg::kMarginPortCapabilities, 2, 0);
        c.define(m + cfg::kMarginPortStatus, 2, 0);
        for (unsigned lane = 0; lane < lanes; ++lane) {
            c.define(m + cfg::kMarginLaneControl + 4 * lane, 2, cfg::kMarginNoCommand, 0xFF7F);
            c.define(m + cfg::kMarginLaneControl + 4 * lane + 2, 2, cfg::kMarginNoCommand);
        }
    }
    // Physical Layer 16.0 and 32.0 GT/s: the status follows the link (see
    // _sync); parity mismatch status per lane is write-one-to-clear; each
    // lane's equalisation control byte holds the transmitter presets that
    // firmware chose for both ends (preset 7, as for 8 GT/s).
    const uint32_t lane_bits = s.max_width >= 32 ? 0xFFFFFFFFu : (1u << s.max_width) - 1;
    auto physical_layer = [&](unsigned id) {
        const unsigned p = add_ext(id, 1, cfg::kPhysicalLayerLaneControl + s.max_width);
        c.define(p + cfg::kPhysicalLayerStatus, 4, 0, 0, 0x10);       // link equalisation request RW1C
        if (id == cfg::kExtCapPhysicalLayer16)
            for (unsigned r = 0x10; r <= 0x18; r += 4) c.define(p + r, 4, 0, 0, lane_bits);
        else
            c.define(p + 0x08, 4, 0, 0x3);                             // bypass / no-equalisation disables
        for (unsigned lane = 0; lane < s.max_width; ++lane) c.define(p + cfg::kPhysicalLayerLaneControl + lane, 1, 0x77);
        return p;
    };
    if (s.physical16) f.physical16 = physical_layer(cfg::kExtCapPhysicalLayer16);
    if (s.physical32) f.physical32 = physical_layer(cfg::kExtCapPhysicalLayer32);
    if (s.l1_substates) define_l1_pm_substates(c, add_ext(cfg::kExtCapL1PmSubstates, 1, cfg::kL1PmSubstatesSize));
    if (s.aspm_timers) {
        f.aspm_timers = add_ext(chips::aspm::kExtCapVendorSpecific, 1, chips::aspm::kEndpointVsecLength);
        define_endpoint_aspm_timers(c, f.aspm_timers);
    }
}

namespace {

Shape port_shape(const PortProfile& port, unsigned port_type, unsigned primary_bus, unsigned port_number) {
    Shape s;
    s.vendor_id = port.vendor_id;
    s.device_id = port.device_id;
    s.class_code = 0x060400;
    s.bridge = true;
    s.interrupt_pin = true;
    s.pcie = true;
    s.port_type = port_type;
    s.max_speed = port.max_speed;
    s.max_width = port.max_width;
    s.port_number = port_number;
    s.power_management = port.capabilities.power_management;
    s.aer = port.capabilities.aer;
    s.secondary = port.capabilities.secondary_pcie.value_or(port.max_speed >= kSpeed8GT);
    s.margining = port.capabilities.lane_margining.value_or(port.max_speed >= kSpeed16GT);
    s.physical16 = port.max_speed >= kSpeed16GT;
    s.physical32 = port.max_speed >= kSpeed32GT;
    s.buses = primary_bus | port.secondary_bus.value_or(0) << 8 | port.subordinate_bus.value_or(0) << 16;
    s.acs = true;
    s.l1_substates = port.capabilities.l1_pm_substates;
    return s;
}

Shape device_shape(const DeviceProfile& device, const FunctionProfile& fn, bool function_zero) {
    Shape s;
    s.vendor_id = fn.vendor_id;
    s.device_id = fn.device_id;
    s.class_code = fn.class_code;
    s.revision = fn.revision;
    s.subsystem = fn.subsystem_vendor_id | fn.subsystem_id << 16;
    s.interrupt_pin = true;
    s.pcie = true;
    s.max_speed = device.max_speed;
    s.max_width = device.max_width;
    s.power_management = fn.capabilities.power_management;
    s.aer = fn.capabilities.aer;
    // Port-wide capabilities live in function 0 only.
    s.secondary = function_zero && fn.capabilities.secondary_pcie.value_or(device.max_speed >= kSpeed8GT);
    s.margining = function_zero && fn.capabilities.lane_margining.value_or(device.max_speed >= kSpeed16GT);
    s.physical16 = function_zero && device.max_speed >= kSpeed16GT;
    s.physical32 = function_zero && device.max_speed >= kSpeed32GT;
    s.l1_substates = function_zero && fn.capabilities.l1_pm_substates;
    s.aspm_timers = function_zero && fn.vendor_id == chips::kGraphicsVendorId;
    return s;
}

// A link that came up at boot: detect, polling, configuration, L0, and the
// equalisation pass through recovery at 8 GT/s and above.
void boot_history(std::vector<uint8_t>& history, unsigned speed) {
    std::vector<uint8_t> states = {kDetect, kPolling, kPollingConfig, kConfig, kConfigIdle, kL0};
    if (speed >= kSpeed8GT)
        for (uint8_t s : {kRecoveryLock, kRecoverySpeed, kRecoveryConfig, kRecoveryIdle, kL0}) states.push_back(s);
    history.assign(states.rbegin(), states.rend());
}

}  // namespace

// A CRNAccessor onto one register space of the model: 32-bit registers,
// narrow accesses pick their byte lanes by the address's low bits.
class SpaceAccessor : public CRNAccessor {
public:
    SpaceAccessor(std::shared_ptr<PlatformModel> keep, PlatformModel& model, std::mutex& mutex, RegisterSpace& space)
        : _keep(std::move(keep)), _model(model), _mutex(mutex), _space(space) {}

    unsigned int read32(unsigned int address) const override { return _read(address); }
    void write32(unsigned int address, unsigned int value) const override { _write(address, value, 0xFFFFFFFFu); }
    unsigned int read16(unsigned int address) const override { return (_read(address) >> (8 * (address & 2))) & 0xFFFF; }
    void write16(unsigned int address, unsigned int value) const override {
        const unsigned shift = 8 * (address & 2);
        _write(address, (value & 0xFFFF) << shift, 0xFFFFu << shift);
    }
    unsigned int read8(unsigned int address) const override { return (_read(address) >> (8 * (address & 3))) & 0xFF; }
    void write8(unsigned int address, unsigned int value) const override {
        const unsigned shift = 8 * (address & 3);
        _write(address, (value & 0xFF) << shift, 0xFFu << shift);
    }

private:
    unsigned int _read(unsigned int address) const {
        const ModelTime now = _model.clock().now();
        std::lock_guard<std::mutex> guard(_mutex);
        return _space.read32(address & ~3u, now);
    }
    void _write(unsigned int address, unsigned int value, uint32_t byte_mask) const {
        const ModelTime now = _model.clock().now();
        std::lock_guard<std::mutex> guard(_mutex);
        _space.write(address & ~3u, value, byte_mask, now);
    }

    std::shared_ptr<PlatformModel> _keep;
    PlatformModel& _model;
    std::mutex& _mutex;
    RegisterSpace& _space;
};

PlatformModel::PlatformModel(const Profile& profile, double time_scale, std::optional<uint64_t> seed,
                             RegisterLocator locator)
    : _profile(profile), _noise(seed.value_or(profile.seed)),
      _margining(std::make_unique<LaneMarginingModel>(_profile, _noise)) {
    const auto start = _profile.start_time ? std::chrono::system_clock::time_point(std::chrono::seconds(*_profile.start_time))
                                           : std::chrono::system_clock::now();
    _clock = std::make_unique<ModelClock>(start, time_scale);
    _link_faults = read_link_faults(_profile);
    for (size_t s = 0; s < _profile.sockets.size(); ++s) {
        const SocketProfile& socket = _profile.sockets[s];
        _build_socket(socket, static_cast<unsigned>(s), locator ? locator : chip_register_locator(socket.die_type));
    }
    const DieRegisterSpace die_space = [this](unsigned socket, unsigned die) -> RegisterSpace* {
        for (auto& d : _dies)
            if (d->socket == socket && d->die == die) return &d->registers;
        return nullptr;
    };
    const auto hvl_links = parse_hvl_links(_profile.hvl_links, _profile.sockets);
    place_hvl_links(hvl_links, _profile.sockets, die_space);
    attach_hvl_phys(hvl_links, _profile.sockets, read_hvl_faults(_profile.faults, _profile.sockets),
                    read_phy_settings(_profile.phy_settings, _profile.sockets), _pcie_lane_eyes(), _noise, die_space);
    // Every function of a device with several announces it in its header type.
    std::map<std::tuple<unsigned, unsigned, unsigned>, std::vector<Function*>> devices;
    for (const auto& [address, f] : _fixed) {
        const auto [segment, bus, device, function] = address;
        devices[{segment, bus, device}].push_back(f);
    }
    for (auto& [address, functions] : devices)
        if (functions.size() > 1)
            for (Function* f : functions) f->space.set(cfg::kHeaderType, 1, f->space.get(cfg::kHeaderType, 1) | 0x80);
}

PlatformModel::~PlatformModel() = default;

// A SerDes lane that a root port drives shows the eye of the port's own
// receiver on the logical lane it carries, at the link's current speed.
PcieLaneEyes PlatformModel::_pcie_lane_eyes() {
    std::map<std::pair<unsigned, std::string>, std::map<unsigned, std::pair<Function*, unsigned>>> driven;
    for (unsigned s = 0; s < _profile.sockets.size(); ++s) {
        std::vector<const PortProfile*> ports;
        for (const RootComplexProfile& rc : _profile.sockets[s].root_complexes)
            for (const PortProfile& port : rc.root_ports) ports.push_back(&port);
        for (const PortSerdesLanes& lanes : root_port_serdes_lanes(_profile.sockets[s].die_type, ports)) {
            auto f = std::find_if(_root_ports.begin(), _root_ports.end(),
                                  [&](Function* rp) { return rp->receiver == &lanes.port->margining; });
            if (f == _root_ports.end()) continue;
            for (auto [serdes, logical] : lanes.serdes_to_logical) driven[{s, lanes.link}][serdes] = {*f, logical};
        }
    }
    return [this, driven = std::move(driven)](unsigned socket, const std::string& link, unsigned lane,
                                              const ModelTime&) -> std::optional<SamplerEye> {
        auto on_link = driven.find({socket, link});
        if (on_link == driven.end()) return std::nullopt;
        auto it = on_link->second.find(lane);
        if (it == on_link->second.end()) return std::nullopt;
        const auto [port, logical] = it->second;
        static const double kGigaTransfers[] = {2.5, 2.5, 5, 8, 16, 32};
        SamplerEye eye;
        eye.rate_gbps = kGigaTransfers[std::min(port->link ? port->link->speed : 1u, 5u)];
        if (!port->link || !port->link->up() || logical >= port->link->width) return eye;
        const EyeMargins m = _margining->lane_eye(port->receiver, logical);
        eye.open = true;
        eye.left_ui = m.timing_left / 100;
        eye.right_ui = m.timing_right / 100;
        eye.top_mv = m.voltage_up;
        eye.bottom_mv = m.voltage_down;
        return eye;
    };
}

PlatformModel::Function& PlatformModel::_add_function(Role role, unsigned segment, unsigned bus, unsigned device,
                                                      unsigned function) {
    auto f = std::make_unique<Function>();
    f->role = role;
    f->segment = segment;
    f->bus = bus;
    f->device = device;
    f->function = function;
    Function& result = *f;
    _functions.push_back(std::move(f));
    if (role == Role::root_function || role == Role::data_fabric || role == Role::root_port)
        _fixed[{segment, bus, device, function}] = &result;
    return result;
}

void PlatformModel::_build_socket(const SocketProfile& socket, unsigned socket_number, const RegisterLocator& locator) {
    auto die = std::make_unique<Die>();
    die->socket = socket_number;
    die->die = 0;
    die->type = socket.die_type;

    Function& df = _add_function(Role::data_fabric, 0, 0, 24 + socket_number, 0);
    Shape shape;
    shape.vendor_id = chips::kProcessorVendorId;
    shape.device_id = chips::corvane::kDataFabricDeviceId;
    shape.class_code = 0x060000;
    shape.revision = socket.revision;
    build_config(df, shape);

    std::vector<PlacedPort> placed;
    for (const RootComplexProfile& rc : socket.root_complexes) {
        Function& root = _add_function(Role::root_function, rc.segment, rc.bus, 0, 0);
        Shape rs = shape;
        rs.device_id = chips::corvane::kRootFunctionDeviceId;
        build_config(root, rs);
        root.die = die.get();
        root.space.define(chips::kCrnExtensionOffset, 4, 0, 0xFFFFFFFF);
        root.space.define(chips::kCrnIndexOffset, 4, 0, 0xFFFFFFFF);
        for (const PortProfile& port : rc.root_ports) {
            Function& rp = _build_port(port, Role::root_port, rc.segment, rc.bus);
            placed.push_back({&rp, &port, rc.segment, rc.bus});
        }
    }
    _place_registers(*die, socket, placed, locator);
    _dies.push_back(std::move(die));
}

PlatformModel::Function& PlatformModel::_build_port(const PortProfile& port, Role role, unsigned segment, unsigned bus) {
    Function& f = _add_function(role, segment, bus, port.device, port.function);
    const bool root = role == Role::root_port;
    if (root) _root_ports.push_back(&f);
    const unsigned number = root ? port.port_number.value_or(port.function_index) : port.device;
    build_config(f, port_shape(port, root ? cfg::kPortRoot : cfg::kPortDownstream, bus, number));
    f.receiver = &port.margining;
    _links.push_back(std::make_unique<Link>());
    Link& link = *_links.back();
    link.port = &f;
    f.link = &link;
    if (const auto found = _link_faults.find(&port); found != _link_faults.end()) link.faults = found->second;
    const TrafficRates traffic = port_traffic(port);
    link.busy = std::any_of(traffic.begin(), traffic.end(), [](double rate) { return rate > 0; });
    if (port.child) {
        _build_device(*port.child, f, segment);
        if (link.faults.fail_speed && link.speed >= link.faults.fail_speed)
            link.speed = link.pending_speed = link.faults.fail_speed - 1;
    } else {
        link.history = {kDetect};
    }
    return f;
}

void PlatformModel::_build_device(const DeviceProfile& device, Function& port, unsigned segment) {
    Link& link = *port.link;
    link.speed_limit = link.speed = link.pending_speed = device.speed.value_or(1);
    link.width = link.pending_width = link.boot_width = device.width.value_or(1);
    const unsigned port_width = (port.space.get(port.pcie + cfg::kLinkCapabilities, 4) >> 4) & 0x3F;
    link.max_width = std::max(link.width, std::min(port_width, device.max_width));
    boot_history(link.history, link.speed);
    const unsigned secondary = port.space.get(cfg::kBusNumbers + 1, 1);
    if (device.kind == DeviceProfile::Kind::endpoint) {
        const bool several = device.functions.size() > 1;
        for (size_t i = 0; i < device.functions.size(); ++i) {
            Function& f = _add_function(Role::endpoint, segment, secondary, 0, static_cast<unsigned>(i));
            Shape shape = device_shape(device, device.functions[i], i == 0);
            shape.serial = _serial_number(i);
            build_config(f, shape);
            if (several) f.space.set(cfg::kHeaderType, 1, 0x80);
            f.link = &link;
            f.receiver = &device.margining;
            link.below.push_back(&f);
        }
        return;
    }
    Function& up = _add_function(Role::switch_upstream, segment, secondary, 0, 0);
    Shape s = device_shape(device, device.functions[0], true);
    s.bridge = true;
    s.port_type = cfg::kPortUpstream;
    s.class_code = 0x060400;
    s.buses = secondary | device.internal_bus << 8 | port.space.get(cfg::kBusNumbers + 2, 1) << 16;
    s.serial = _serial_number(0);
    build_config(up, s);
    up.link = &link;
    up.receiver = &device.margining;
    link.below.push_back(&up);
    for (const PortProfile& below : device.downstream_ports)
        up.downstream_ports.push_back(&_build_port(below, Role::switch_downstream, segment, device.internal_bus));
}

// Serial numbers follow the seed and the order devices are built in, so a
// profile and seed always give the same ones; all functions of a device
// share the device's number, as the serial number belongs to the device.
uint64_t PlatformModel::_serial_number(size_t function) {
    if (function == 0) ++_devices_built;
    return _noise.bits({0x5E71A1, _devices_built}) | 1;
}

void PlatformModel::_place_registers(Die& die, const SocketProfile& socket, const std::vector<PlacedPort>& ports,
                                     const RegisterLocator& locator) {
    RegisterSpace& r = die.registers;
    const auto& layout = chips::corvane::kIdentity;
    r.define(chips::kDieIdentityRegister, layout.socket.place(die.socket) | layout.die.place(die.die), 0);
    r.define(chips::kSecureStatusRegister, socket.secure ? 1u << chips::kSecureStatusBit : 0, 0);
    r.define(chips::kSiliconRevisionRegister, socket.revision, 0);
    for (unsigned i = 0; i < 3; ++i) {
        const uint32_t word = socket.fuses.size() == 3 ? socket.fuses[i]
                                                       : static_cast<uint32_t>(_noise.bits({0xF05E, die.socket, i}));
        r.define(chips::kAsicIdFuseRegisters[i], word, 0);
    }
    if (!locator) return;

    std::set<std::string> cores;
    for (const PlacedPort& placed : ports) {
        Function* rp = placed.function;
        const PortProfile& port = *placed.profile;
        const unsigned index = port.function_index;
        // Bus numbers and link capabilities are the root port's own
        // registers seen from the chip side, so both views always agree.
        const auto buses = locator("SUB_BUS_NUMBER_LATENCY", port.core, index);
        if (!buses)
            throw ProfileError("profile: root port " + port.core + " function index " + std::to_string(index) +
                               ": the " + die.type + " register tables have no such port");
        r.define(*buses, 0, 0xFFFFFFFF);
        r.on_read(*buses, [this, rp](uint32_t, const ModelTime& now) { return _read(*rp, cfg::kBusNumbers, 4, now); });
        r.on_write(*buses, [this, rp](uint32_t, uint32_t& value, uint32_t byte_mask, const ModelTime& now) {
            _write_lanes(*rp, cfg::kBusNumbers, value, byte_mask, now);
        });
        if (const auto cap = locator("LINK_CAP", port.core, index)) {
            r.define(*cap, 0, 0);
            r.on_read(*cap, [this, rp](uint32_t, const ModelTime& now) {
                return _read(*rp, rp->pcie + cfg::kLinkCapabilities, 4, now);
            });
        }
        Link* link = rp->link;
        for (unsigned n = 0; n < 12; ++n) {
            const auto state = locator("PCIE_LC_STATE" + std::to_string(n), port.core, index);
            if (!state) continue;
            r.define(*state, 0, 0);
            r.on_read(*state, [this, link, n](uint32_t, const ModelTime& now) {
                _update_link(*link, now);
                uint32_t value = 0;
                for (unsigned k = 0; k < 4; ++k) {
                    const size_t at = 4 * n + k;
                    if (at < link->history.size()) value |= static_cast<uint32_t>(link->history[at] & 0x3F) << (8 * k);
                }
                return value;
            });
        }
        const auto core_control = locator("NB_BUS_NUM_CNTL", port.core, std::nullopt);
        LinkControllerHooks hooks;
        hooks.state = [this, link](const ModelTime& now) {
            _update_link(*link, now);
            return link->history.empty() ? uint8_t{0} : link->history.front();
        };
        hooks.busy = [this, link](const ModelTime& now) {
            _update_link(*link, now);
            return link->training.active();
        };
        hooks.change_width = [this, link](unsigned width, const ModelTime& now) {
            _update_link(*link, now);
            if (!link->up() || link->training.active()) return;
            link->pending_width = std::min(width, link->max_width);
            _train_to(*link, now, link->speed, false);
        };
        hooks.change_speed = [this, link](unsigned speed, const ModelTime& now) {
            _update_link(*link, now);
            if (!link->up() || link->training.active()) return;
            _train_to(*link, now, std::min(speed, link->speed_limit), false);
        };
        hooks.width = link->width;
        hooks.max_speed_code = port.max_speed;
        std::optional<uint32_t> core_block;
        if (core_control) core_block = *core_control - chips::server_io::kCoreRegisters[0].offset;
        place_link_controller_registers(r, *buses - chips::server_io::kPortRegisters[0].offset + chips::server_io::kPortLinkControlWindow, core_block,
                                        std::move(hooks));
        if (const auto timers = locator(chips::aspm::kRootPortRegister, port.core, index)) {
            place_root_port_aspm_timers(r, *timers);
            rp->link->port_timers = &r;
            rp->link->port_timers_address = *timers;
        }
        for (const char* name : {"PCIE_CCIX_ESM_CNTL", "PCIE_CCIX_ESM_STATUS"})
            if (const auto esm = locator(name, port.core, index)) r.define(*esm, 0);
        if (cores.insert(port.core).second)
            if (const auto control = locator("NB_BUS_NUM_CNTL", port.core, std::nullopt))
                r.define(*control, placed.segment << 16 | placed.root_bus, 0);
    }
    std::vector<const PortProfile*> root_ports;
    for (const PlacedPort& placed : ports) root_ports.push_back(placed.profile);
    place_lane_map_registers(r, die.type, root_ports, locator);
    place_equalisation_registers(r, die.type, die.socket, root_ports, locator, _noise);
    place_perf_counters(r, die.type, root_ports);
}

PlatformModel::Function* PlatformModel::_route(unsigned segment, unsigned bus, unsigned device, unsigned function,
                                               const ModelTime& now) {
    if (bus > 255 || device > 31 || function > 7) return nullptr;
    auto it = _fixed.find({segment, bus, device, function});
    if (it != _fixed.end()) return it->second;
    for (Function* port : _root_ports)
        if (port->segment == segment)
            if (Function* f = _route_below(*port, bus, device, function, now)) return f;
    return nullptr;
}

// Type 1 forwarding: a bridge passes a request for a bus in its
// secondary..subordinate range down its link; on the secondary bus itself
// only device 0 exists, as on any PCI Express link.
PlatformModel::Function* PlatformModel::_route_below(Function& port, unsigned bus, unsigned device, unsigned function,
                                                     const ModelTime& now) {
    const unsigned primary = port.space.byte(cfg::kBusNumbers);
    const unsigned secondary = port.space.byte(cfg::kBusNumbers + 1);
    const unsigned subordinate = port.space.byte(cfg::kBusNumbers + 2);
    if (secondary <= primary || bus < secondary || bus > subordinate) return nullptr;
    Link& link = *port.link;
    _update_link(link, now);
    if (!link.up()) return nullptr;
    if (bus == secondary) {
        if (device != 0 || function >= link.below.size()) return nullptr;
        _wake(link, now);
        return link.below[function];
    }
    Function* up = link.below[0];
    if (up->role != Role::switch_upstream) return nullptr;
    const unsigned internal = up->space.byte(cfg::kBusNumbers + 1);
    const unsigned last = up->space.byte(cfg::kBusNumbers + 2);
    if (internal <= secondary || bus < internal || bus > last) return nullptr;
    if (bus == internal) {
        if (function != 0) return nullptr;
        for (Function* down : up->downstream_ports)
            if (down->device == device) {
                _wake(link, now);
                return down;
            }
        return nullptr;
    }
    for (Function* down : up->downstream_ports)
        if (Function* f = _route_below(*down, bus, device, function, now)) {
            _wake(link, now);
            return f;
        }
    return nullptr;
}

void PlatformModel::_update_link(Link& link, const ModelTime& now) {
    if (link.faults.flap_period_ns && link.up() && !link.training.active()) {
        if (!link.flap.active()) {
            link.flap.start(now, link.faults.flap_period_ns);
        } else if (link.flap.expired(now)) {
            link.flap.clear();
            _retrain(link, now, true);  // the link drops and comes back from Detect
            return;
        }
    }
    if (!link.training.active() || !link.training.expired(now)) {
        _update_aspm(link, now);
        return;
    }
    link.training.clear();
    link.idle_since_ns = now.ns;
    link.speed = link.pending_speed;
    link.width = link.pending_width;
    link.enter(kL0);
    if (link.faults.aer_every && ++link.trainings % link.faults.aer_every == 0) _log_correctable(link);
    if (link.software_retrain && link.port->pcie) {
        const unsigned at = link.port->pcie + cfg::kLinkStatus;
        link.port->space.set(at, 2, link.port->space.get(at, 2) | cfg::kLinkStatusBandwidthChanged);
    }
    link.software_retrain = false;
}

// Correctable errors of a training: logged by both ends of the link that
// report them, and as a received correctable message at a root port.
void PlatformModel::_log_correctable(Link& link) {
    auto log = [&](Function* f) {
        if (!f || !f->pcie) return;
        if (f->aer) f->space.set(f->aer + 0x10, 4, f->space.get(f->aer + 0x10, 4) | link.faults.aer_correctable);
        f->space.set(f->pcie + cfg::kDeviceStatus, 2, f->space.get(f->pcie + cfg::kDeviceStatus, 2) | 1u);
        if (f->role == Role::root_port && f->aer)
            f->space.set(f->aer + 0x30, 4, f->space.get(f->aer + 0x30, 4) | 1u);
    };
    log(link.port);
    if (!link.below.empty()) log(link.below[0]);
}

void PlatformModel::_retrain(Link& link, const ModelTime& now, bool from_down) {
    auto target = [](const Function* f) {
        const unsigned t = f->pcie ? f->space.get(f->pcie + cfg::kLinkControl2, 2) & 0xF : 5;
        return t == 0 ? 1u : t;
    };
    _train_to(link, now, std::min({link.speed_limit, target(link.port), target(link.below[0])}), from_down);
}

// ASPM L1: an idle link goes to L1 once both ends have L1 enabled and the
// entry timers of its ends have run out (aspm_model.h); any request across
// the link brings it back through Recovery.
void PlatformModel::_update_aspm(Link& link, const ModelTime& now) {
    if (link.in_l1 || link.busy || !link.up() || link.training.active()) return;
    const auto l1_enabled = [](const Function* f) {
        return f->pcie && (f->space.get(f->pcie + cfg::kLinkControl, 2) & cfg::kLinkControlAspmL1);
    };
    if (!l1_enabled(link.port) || !l1_enabled(link.below[0])) return;
    std::optional<uint32_t> port_control, device_control;
    if (link.port_timers) port_control = link.port_timers->peek(link.port_timers_address);
    if (const Function* d = link.below[0]; d->aspm_timers)
        device_control = d->space.get(d->aspm_timers + chips::aspm::kEndpointControl, 4);
    const auto delay = l1_entry_delay_ns(port_control, device_control);
    if (!delay || now.ns - link.idle_since_ns < *delay) return;
    link.in_l1 = true;
    link.enter(kL1);
}

void PlatformModel::_wake(Link& link, const ModelTime& now) {
    link.idle_since_ns = now.ns;
    if (!link.in_l1) return;
    link.in_l1 = false;
    for (uint8_t s : {kRecoveryLock, kRecoveryConfig, kRecoveryIdle, kL0}) link.enter(s);
}

void PlatformModel::_train_to(Link& link, const ModelTime& now, unsigned speed, bool from_down) {
    link.in_l1 = false;
    if (link.faults.fail_speed && speed >= link.faults.fail_speed) speed = link.faults.fail_speed - 1;
    link.pending_speed = std::max(1u, speed);
    if (from_down) link.pending_width = link.boot_width;
    link.from_down = from_down;
    link.software_retrain = !from_down;
    link.training.start(now, from_down ? (link.faults.return_ns ? link.faults.return_ns : kLinkUpNs) : kRetrainNs);
    if (from_down) {
        for (uint8_t s : {kDetect, kPolling, kPollingConfig, kConfig}) link.enter(s);
    } else {
        for (uint8_t s : {kRecoveryLock, kRecoverySpeed, kRecoveryConfig}) link.enter(s);
    }
}

// Registers whose value is the live state of the link, refreshed before
// any access so every reader sees the same link.
void PlatformModel::_sync(Function& f, const ModelTime& now) {
    if (!f.link || !f.pcie) return;
    Link& link = *f.link;
    _update_link(link, now);
    const bool up = link.up();
    const bool training = link.training.active();
    uint32_t status = (link.speed & 0xF) | (up ? link.width : 0) << 4 | 1u << 12;
    if (f.downstream_facing()) {
        if (training) status |= cfg::kLinkStatusTraining;
        if (up) status |= cfg::kLinkStatusDllActive;
    }
    const unsigned ls = f.pcie + cfg::kLinkStatus;
    f.space.set(ls, 2, status | (f.space.get(ls, 2) & 0xC000));
    const unsigned ls2 = f.pcie + cfg::kLinkStatus2;
    const uint32_t equalised = up && link.speed >= kSpeed8GT ? 0x1E : 0;
    f.space.set(ls2, 2, equalised | (f.space.get(ls2, 2) & 0x0020));
    if (f.margining)
        f.space.set(f.margining + cfg::kMarginPortStatus, 2, up && !training && link.speed >= kSpeed16GT ? 1 : 0);
    // Equalisation at a rate is complete while the link runs at or above it.
    for (const auto& [at, rate] : {std::pair{f.physical16, kSpeed16GT}, std::pair{f.physical32, kSpeed32GT}}) {
        if (!at) continue;
        const unsigned status = at + cfg::kPhysicalLayerStatus;
        const uint32_t done = up && link.speed >= rate ? cfg::kEqualisationDone : 0;
        f.space.set(status, 4, done | (f.space.get(status, 4) & ~cfg::kEqualisationDone));
    }
}

namespace {
MarginingPort margining_port(PlatformModel::Function& f) {
    return {f.space, f.margining, f.margining_lanes, f.pcie, f.downstream_facing(), f.receiver};
}
}  // namespace

uint32_t PlatformModel::_read(Function& f, unsigned offset, unsigned width, const ModelTime& now) {
    _sync(f, now);
    if (f.margining) _margining->before_read(margining_port(f), offset, width, now);
    uint32_t result = 0;
    for (unsigned i = 0; i < width;) {
        const unsigned at = offset + i, dword = at & ~3u, lane = at & 3u;
        const unsigned count = std::min(4 - lane, width - i);
        uint32_t word;
        if (f.die && dword == chips::kCrnDataOffset) {
            // The data register is a window onto the die's network at the index.
            word = f.space.get(chips::kCrnExtensionOffset, 4) != 0
                       ? 0
                       : f.die->registers.read32(f.space.get(chips::kCrnIndexOffset, 4) & ~3u, now);
        } else {
            word = f.space.get(dword, 4);
        }
        result |= ((word >> (8 * lane)) & lane_mask(count)) << (8 * i);
        i += count;
    }
    return result;
}

void PlatformModel::_write(Function& f, unsigned offset, unsigned width, uint32_t value, const ModelTime& now) {
    for (unsigned i = 0; i < width;) {
        const unsigned at = offset + i, dword = at & ~3u, lane = at & 3u;
        const unsigned count = std::min(4 - lane, width - i);
        const uint32_t part = (value >> (8 * i)) & lane_mask(count);
        _write_lanes(f, dword, part << (8 * lane), lane_mask(count) << (8 * lane), now);
        i += count;
    }
}

void PlatformModel::_write_lanes(Function& f, unsigned dword, uint32_t value, uint32_t byte_mask, const ModelTime& now) {
    _sync(f, now);
    if (f.die && dword == chips::kCrnDataOffset) {
        if (f.space.get(chips::kCrnExtensionOffset, 4) == 0)
            f.die->registers.write(f.space.get(chips::kCrnIndexOffset, 4) & ~3u, value, byte_mask, now);
        return;
    }
    const uint32_t old_value = f.space.get(dword, 4);
    for (unsigned lane = 0; lane < 4; ++lane)
        if (byte_mask & (0xFFu << (8 * lane))) f.space.write_byte(dword + lane, static_cast<uint8_t>(value >> (8 * lane)));
    _after_write(f, dword, old_value, byte_mask, now);
}

void PlatformModel::_after_write(Function& f, unsigned dword, uint32_t old_value, uint32_t byte_mask,
                                 const ModelTime& now) {
    if (f.pcie && f.downstream_facing() && dword == f.pcie + cfg::kLinkControl && (byte_mask & 0xFF)) {
        Link& link = *f.link;
        const unsigned at = f.pcie + cfg::kLinkControl;
        uint32_t control = f.space.get(at, 2);
        const bool retrain = control & cfg::kLinkControlRetrain;
        if (retrain) f.space.set(at, 2, control &= ~cfg::kLinkControlRetrain);  // always reads 0
        const bool was_disabled = old_value & cfg::kLinkControlDisable;
        const bool disabled = control & cfg::kLinkControlDisable;
        if (disabled && !was_disabled) {
            link.disabled = true;
            link.training.clear();
            link.enter(kDisabled);
        } else if (!disabled && was_disabled) {
            link.disabled = false;
            if (!link.below.empty() && !link.reset) _retrain(link, now, true);
            else link.enter(kDetect);
        } else if (retrain && link.up() && !link.training.active()) {
            _retrain(link, now, false);
        }
    }
    // Bridge control bit 6: the secondary bus reset. Everything below goes
    // while it is held and trains again from Detect once it is released.
    if (f.link && f.downstream_facing() && dword == (cfg::kBridgeControl & ~3u) && (byte_mask & 0x00FF0000)) {
        Link& link = *f.link;
        const uint32_t bit = 1u << (8 * (cfg::kBridgeControl & 3u) + 6);
        const bool was_held = old_value & bit, held = f.space.get(dword, 4) & bit;
        if (held && !was_held) {
            link.reset = true;
            link.training.clear();
            link.flap.clear();
            link.enter(kHotReset);
        } else if (!held && was_held) {
            link.reset = false;
            if (link.disabled) {
            } else if (!link.below.empty()) {
                _retrain(link, now, true);
            } else {
                link.enter(kDetect);
            }
        }
    }
    if (f.margining && dword >= f.margining + cfg::kMarginLaneControl &&
        dword < f.margining + cfg::kMarginLaneControl + 4 * f.margining_lanes && (byte_mask & 0xFFFF))
        _on_margin_control(f, (dword - f.margining - cfg::kMarginLaneControl) / 4, now);
}

void PlatformModel::_on_margin_control(Function& f, unsigned lane, const ModelTime& now) {
    _margining->on_control_write(margining_port(f), lane, now);
}

void PlatformModel::config_read(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                                unsigned width, unsigned& value) {
    const ModelTime now = _clock->now();
    std::lock_guard<std::mutex> guard(_mutex);
    Function* f = _route(segment, bus, device, function, now);
    if (!f) {
        value = lane_mask(width);
        return;
    }
    if (offset >= ConfigSpace::kSize || offset + width > ConfigSpace::kSize) {
        if (width != 4) value = 0;
        return;
    }
    value = _read(*f, offset, width, now);
}

void PlatformModel::config_write(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                                 unsigned width, unsigned value) {
    const ModelTime now = _clock->now();
    std::lock_guard<std::mutex> guard(_mutex);
    Function* f = _route(segment, bus, device, function, now);
    if (!f || offset >= ConfigSpace::kSize || offset + width > ConfigSpace::kSize) return;
    _write(*f, offset, width, value, now);
}

std::shared_ptr<CRNAccessor> PlatformModel::_accessor(RegisterSpace& space) {
    return std::make_shared<SpaceAccessor>(weak_from_this().lock(), *this, _mutex, space);
}

std::shared_ptr<CRNAccessor> PlatformModel::die_accessor(unsigned socket, unsigned die) {
    for (auto& d : _dies)
        if (d->socket == socket && d->die == die) return _accessor(d->registers);
    return nullptr;
}

std::shared_ptr<CRNAccessor> PlatformModel::gfx_accessor(const PCIDeviceDetails& function, unsigned die_selector) {
    RegisterSpace* space = nullptr;
    {
        std::lock_guard<std::mutex> guard(_mutex);
        auto& slot = _gfx_spaces[{function.segment, function.bus, function.device, function.function, die_selector}];
        if (!slot) slot = std::make_unique<RegisterSpace>();
        space = slot.get();
    }
    return _accessor(*space);
}

std::vector<PCIDeviceDetails> PlatformModel::present_functions() {
    const ModelTime now = _clock->now();
    std::lock_guard<std::mutex> guard(_mutex);
    std::set<unsigned> segments;
    for (const auto& [address, f] : _fixed) segments.insert(std::get<0>(address));
    std::vector<PCIDeviceDetails> found;
    for (unsigned segment : segments)
        for (unsigned bus = 0; bus < 256; ++bus)
            for (unsigned device = 0; device < 32; ++device)
                for (unsigned function = 0; function < 8; ++function) {
                    Function* f = _route(segment, bus, device, function, now);
                    if (!f) {
                        if (function == 0) break;
                        continue;
                    }
                    PCIDeviceDetails details(segment, bus, device, function);
                    const uint32_t ids = f->space.get(0, 4);
                    details.vendor_id = ids & 0xFFFF;
                    details.device_id = ids >> 16;
                    found.push_back(details);
                }
    return found;
}

}  // namespace sim
