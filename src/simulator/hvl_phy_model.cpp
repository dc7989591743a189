#include "simulator/hvl_phy_model.h"

#include <array>
#include <cmath>

#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/e32_phy_firmware.h"
#include "hardware/chips/mcu_mailboxes.h"
#include "hardware/chips/server_registers.h"
#include "hardware/register_storage.h"
#include "simulator/eye_sampler_model.h"

namespace sim {

namespace {

using nlohmann::json;
namespace e32 = chips::e32;

constexpr int64_t kGrantDelayNs = 1'000'000, kBusyNs = 100'000, kRetrainNs = 1'000'000, kFlapNs = 10'000'000;
constexpr uint32_t kStateL0 = 0x81, kStateRecovery = 0x04;
constexpr uint32_t kCountEnableBit = 1u << 21, kCountClearBit = 1u << 23;
constexpr uint32_t kBerFlagBit = 1u << 6, kRecoveredBit = 1u << 17;
constexpr uint32_t kPerfRecoveries = 2;
constexpr uint32_t kPcieControllerEnabled = 1 | 1u << 1;  // enabled, protocol 1 (PCIe)
// Error control as the firmware leaves it after training; margin runs must
// give it back.
constexpr uint32_t kTrainedErrorControl = 0x00010000;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ProfileError("profile: " + path + ": " + reason);
}

struct LinkShared;

struct LaneState {
    bool requested = false, never_granted = false;
    unsigned grants_left = ~0u;  // requests granted before a never-granted fault bites
    ModelDeadline grant, busy;
    uint32_t response = 0;
    int phase = 0, voltage = 0;
    unsigned cdr_commands = 0;
    HvlLaneEdges edges;
    uint32_t phy_ovrd = 0, phy_parm0 = 0, phy_parm1 = 0;
    std::unique_ptr<EyeSampler> eye;

    bool granted(const ModelTime& now) { return requested && !never_granted && grant.active() && grant.expired(now); }
};

struct EndState {
    LinkShared* link = nullptr;  // null: no hVL PCS behaviour (not an hVL link of the profile)
    std::vector<LaneState> lanes;
    unsigned version = 3;
    double rate = 0;  // Gb/s, of an hVL link
    uint32_t control = kTrainedErrorControl, mask = 0, status = 0, status1 = 0;
    double count = 0;
    int64_t counted_to = 0;
    uint32_t perf_event = 0, recoveries = 0;
    unsigned drop_past_edge = 6;
    std::optional<unsigned> drop_offset;
    std::optional<unsigned> flap_offset;
    unsigned flap_visit = 1, flap_visits = 0;
    ModelDeadline flap;
    bool count_backwards = false;
};

struct LinkShared {
    bool up = true;
    bool held_down = false;  // a fault keeps it out of L0
    ModelDeadline retrain;
    std::array<EndState*, 2> ends{};
};

struct World {
    std::vector<std::unique_ptr<EndState>> ends;
    std::vector<std::unique_ptr<LinkShared>> links;
};

// Errors a second of one lane at its offsets.
double lane_rate(const LaneState& lane) {
    auto past = [](int offset, unsigned positive_edge, unsigned negative_edge) {
        const int edge = static_cast<int>(offset >= 0 ? positive_edge : negative_edge);
        return std::abs(offset) - edge;
    };
    double rate = 0;
    for (int d : {past(lane.phase, lane.edges.right, lane.edges.left), past(lane.voltage, lane.edges.top, lane.edges.bottom)})
        if (d > 0) rate += std::pow(10.0, 2.0 + 1.5 * std::min(d, 12));
    return rate;
}

void drop(LinkShared& link) {
    link.up = false;
    link.retrain.clear();
}

// Brings the error counter of an end up to `now`.
void advance(EndState& end, const ModelTime& now) {
    if (now.ns <= end.counted_to) return;
    const double seconds = (now.ns - end.counted_to) * 1e-9;
    end.counted_to = now.ns;
    if (!end.link || !end.link->up) return;
    double rate = 0;
    for (const LaneState& lane : end.lanes) rate += lane_rate(lane);
    if (rate >= kBerFlagRate) {
        end.status |= kBerFlagBit;
        if (!(end.mask & kBerFlagBit)) drop(*end.link);
    }
    if (end.control & kCountEnableBit) end.count = std::min(255.0, end.count + rate * seconds);
    if (end.flap.active() && end.flap.expired(now)) {
        end.flap.clear();
        if (end.control & kCountEnableBit) end.count = 255;
        drop(*end.link);
    }
}

bool at_trained_point(const LinkShared& link) {
    for (const EndState* end : link.ends)
        for (const LaneState& lane : end->lanes)
            if (lane.phase != 0 || lane.voltage != 0) return false;
    return true;
}

void update_link(LinkShared& link, const ModelTime& now) {
    if (link.up || link.held_down) return;
    if (!at_trained_point(link)) {
        link.retrain.clear();
        return;
    }
    if (!link.retrain.active()) link.retrain.start(now, kRetrainNs);
    if (!link.retrain.expired(now)) return;
    link.up = true;
    link.retrain.clear();
    for (EndState* end : link.ends) {
        end->status |= kRecoveredBit;
        if ((end->perf_event & 0xFF) == kPerfRecoveries) ++end->recoveries;
        end->counted_to = std::max(end->counted_to, now.ns);
    }
}

void touch(EndState& end, const ModelTime& now) {
    advance(end, now);
    if (end.link) update_link(*end.link, now);
}

uint32_t capability(const EndState& end, const LaneState& lane, unsigned index) {
    switch (index) {
    case e32::kCapRevision: return 1;
    case e32::kCapTimingSteps: return kHvlTimingSteps;
    case e32::kCapMaxTimingOffset: return kHvlMaxTimingOffset;
    case e32::kCapVoltSteps: return kHvlVoltSteps;
    case e32::kCapMaxVoltOffset: return kHvlMaxVoltOffset;
    case e32::kCapVersion: return end.version;
    case e32::kCapPhaseOffset: return static_cast<uint32_t>(lane.phase) & 0xFF;
    case e32::kCapVoltageOffset: return static_cast<uint32_t>(lane.voltage) & 0xFF;
    case e32::kCapCdrCount: return lane.cdr_commands & 0xFF;
    case e32::kCapEyeScanCount: return lane.eye ? lane.eye->scans() & 0xFF : 0;
    default: return 0;
    }
}

void run_command(EndState& end, LaneState& lane, uint32_t code, uint32_t parameter, const ModelTime& now) {
    switch (code & 0xFF) {
    case e32::kCmdRxMargin: {
        // A retrain that ran out before this command completes first.
        touch(end, now);
        lane.phase = static_cast<int8_t>(parameter & 0xFF);
        lane.voltage = static_cast<int8_t>((parameter >> 8) & 0xFF);
        if (end.link && end.link->up) {
            const int phase_edge = static_cast<int>(lane.phase >= 0 ? lane.edges.right : lane.edges.left);
            const int volt_edge = static_cast<int>(lane.voltage >= 0 ? lane.edges.top : lane.edges.bottom);
            const int past = std::max(std::abs(lane.phase) - phase_edge, std::abs(lane.voltage) - volt_edge);
            const unsigned reach = std::max(std::abs(lane.phase), std::abs(lane.voltage));
            if (past >= static_cast<int>(end.drop_past_edge) || (end.drop_offset && reach >= *end.drop_offset))
                drop(*end.link);
            if (end.flap_offset && reach == *end.flap_offset && ++end.flap_visits == end.flap_visit)
                end.flap.start(now, kFlapNs);
        }
        if (end.link) update_link(*end.link, now);
        break;
    }
    case e32::kCmdCdr: ++lane.cdr_commands; break;
    case e32::kCmdTxRxCap: lane.response = capability(end, lane, parameter & 0xFF) & 0xFF; break;
    default:
        if (lane.eye) lane.eye->command(code & 0xFF, parameter & 0xFFFFFF, now, lane.response);
        break;
    }
}

unsigned whole(const json& value, const std::string& path) {
    if (!value.is_number_integer() || value.get<int64_t>() < 0 || value.get<int64_t>() > 0xFFFF)
        fail(path, "expected an unsigned number, got " + value.dump());
    return value.get<unsigned>();
}

// Seeded receiver adaptation of a lane's record.
void fill_record(RegisterSpace& space, uint32_t address, unsigned layout, bool cache_valid, unsigned tap_mode,
                 unsigned lane, const Noise& noise, uint64_t key) {
    std::array<uint8_t, e32::kRecordBytes> bytes{};
    bytes[e32::kActiveCacheByte] = cache_valid ? 1 : 7;
    for (unsigned cache = 0; cache < e32::kCaches; ++cache) {
        uint8_t* entry = &bytes[e32::kRxAdaptFirst + cache * e32::kRxAdaptStride];
        entry[0] = static_cast<uint8_t>(8 + noise.bits({key, cache, 1}) % 8);    // ctleidx
        entry[1] = static_cast<uint8_t>(20 + noise.bits({key, cache, 2}) % 20);  // vga
        entry[2] = static_cast<uint8_t>(static_cast<int8_t>(static_cast<int>(noise.bits({key, cache, 3}) % 11) - 5));
        for (unsigned tap = 0; tap < e32::kRxAdaptTaps; ++tap) {
            const int first = -static_cast<int>(noise.bits({key, cache, 10 + tap}) % 40);
            const int second = first + 2 * static_cast<int>(40 - 8 * tap + noise.bits({key, cache, 20 + tap}) % 8);
            for (auto [at, value] : {std::pair{4 + 4 * tap, first}, std::pair{6 + 4 * tap, second}}) {
                entry[at] = static_cast<uint8_t>(value & 0xFF);
                entry[at + 1] = static_cast<uint8_t>((value >> 8) & 0xFF);
            }
        }
    }
    for (unsigned cache = 0; cache < e32::kCaches; ++cache)
        bytes[e32::kClockTrainFirst + e32::clock_train_stride(layout) * cache + e32::kClockTrainValidByte] = 1;
    // The eye sampler's last settings: seeded codes in plausible ranges.
    auto put16 = [&](unsigned at, int value) {
        bytes[at] = static_cast<uint8_t>(value & 0xFF);
        bytes[at + 1] = static_cast<uint8_t>((value >> 8) & 0xFF);
    };
    auto seeded = [&](unsigned field, unsigned range) { return static_cast<int>(noise.bits({key, 100, field}) % range); };
    for (unsigned tap = 0; tap < e32::kEyeTaps; ++tap) {
        bytes[e32::kEsDfeTapsByte + tap] = static_cast<uint8_t>(static_cast<int8_t>(seeded(tap, 41) - 20));
        put16(e32::kDacsByte + 2 * tap, 400 + seeded(10 + tap, 200));
        put16(e32::kOffsetDacsByte + 2 * tap, seeded(20 + tap, 31) - 15);
    }
    put16(e32::kPiByte, seeded(30, 128));
    bytes[e32::kAttByte] = static_cast<uint8_t>(seeded(31, 8));
    bytes[e32::kZeroByte] = static_cast<uint8_t>(seeded(32, 16));
    bytes[e32::kIndByte] = static_cast<uint8_t>(seeded(33, 4));
    bytes[e32::kDcByte] = static_cast<uint8_t>(seeded(34, 32));
    put16(e32::kEyeHeightByte, 60 + seeded(35, 80));
    put16(e32::kH1EstByte, seeded(36, 61) - 30);
    put16(e32::kFomByte, 100 + seeded(37, 900));
    put16(e32::kOffsetAfeByte, seeded(38, 21) - 10);
    bytes[e32::kRingOffsetByte] = e32::kRingOffsets[lane & 3] & 0xFF;
    bytes[e32::kRingOffsetByte + 1] = (e32::kRingOffsets[lane & 3] >> 8) & 0xFF;
    if (layout != 1) bytes[e32::kTapModeByte] = static_cast<uint8_t>(tap_mode);
    for (unsigned i = 0; i < e32::kRecordBytes; i += 4)
        space.poke(address + i, bytes[i] | bytes[i + 1] << 8 | bytes[i + 2] << 16 | static_cast<uint32_t>(bytes[i + 3]) << 24);
}

// Version words of layout 1, 2, 3: "1.4.2", "1.6.0", "2.1.4".
std::pair<uint32_t, uint32_t> version_words(unsigned layout) {
    const unsigned parts[3][3] = {{1, 4, 2}, {1, 6, 0}, {2, 1, 4}};
    const auto& p = parts[(layout >= 1 && layout <= 3 ? layout : 3) - 1];
    return {p[0] << 24, p[1] << 8 | p[2] << 16};
}

const HvlFault* find_fault(const std::vector<HvlFault>& faults, const char* type, unsigned socket,
                           const std::string& link, std::optional<unsigned> lane = std::nullopt) {
    for (const HvlFault& fault : faults)
        if (fault.type == type && fault.socket == socket && fault.link == link &&
            (!fault.lane || !lane || *fault.lane == *lane))
            return &fault;
    return nullptr;
}

void attach_mailboxes(RegisterSpace* space, const chips::McuMailboxes& boxes, unsigned socket,
                      const std::vector<HvlFault>& faults, std::shared_ptr<uint32_t> power) {
    const std::pair<const char*, const chips::C2PMsgConfig*> named[] = {
        {"BIOS", &boxes.bios}, {"Test", &boxes.test}, {"Host", &boxes.host}, {"PSP", &boxes.psp}};
    for (const auto& [name, box] : named) {
        bool silent = false;
        for (const HvlFault& fault : faults)
            silent = silent || (fault.type == "mailbox_silent" && fault.socket == socket && fault.mailbox == name);
        const chips::C2PMsgConfig config = *box;
        const std::string which = name;
        space->define(config.response, silent ? 0 : 1);
        space->on_write(config.message, [space, config, which, silent, power](uint32_t, uint32_t& message, uint32_t,
                                                                              const ModelTime&) {
            if (silent) return;
            const uint32_t arg = space->peek(config.arg_base);
            if (which == "Test") {
                if (message == 61) *power |= chips::kPowerDfPstateOff;
                if (message == 62) *power &= ~chips::kPowerDfPstateOff;
                if (message == 35) *power |= chips::kPowerDpmOff;
                if (message == 36) *power &= ~chips::kPowerDpmOff;
            }
            if (which == "BIOS" && (message == 4 || message == 3)) {
                uint32_t bits = 0;
                if (arg == 0x80000) bits = chips::kPowerDfCstateOff;
                if (arg == 0xC000000 || arg == 0x2000000 || arg == 0xC000200) bits = chips::kPowerDlwmOff;
                if (arg == 512) bits = chips::kPowerDfPstateOff;
                if (message == 4) *power |= bits;
                else *power &= ~bits;
            }
            space->poke(config.result_base, *power);
            space->poke(config.response, 1);
        });
    }
}

// Points a stalled ring streams before it stops producing.
constexpr unsigned kStallPoints = 5;

// A lane's eye sampler: an hVL lane sees its receiver's edges while its link
// is in L0, a lane a PCIe root port drives the port's receiver eye, any other
// lane no signal.
std::unique_ptr<EyeSampler> make_lane_sampler(RegisterSpace& space, uint32_t phy_base, const EndState* end,
                                              unsigned lane, unsigned socket, const std::string& link,
                                              const PcieLaneEyes& pcie_eyes, const Noise& noise, uint64_t key) {
    auto source = [end, lane, socket, link, pcie_eyes](const ModelTime& now) {
        if (end->link) {
            if (!end->link->up) return SamplerEye{false, 0, 0, 0, 0, end->rate};  // out of L0: no signal
            const HvlLaneEdges& edges = end->lanes[lane].edges;
            constexpr double kVoltStepMv = kHvlMaxVoltOffset * 10.0 / kHvlVoltSteps;
            return SamplerEye{true, edges.left / 64.0, edges.right / 64.0, edges.top * kVoltStepMv,
                              edges.bottom * kVoltStepMv, end->rate};
        }
        if (pcie_eyes)
            if (auto eye = pcie_eyes(socket, link, lane, now)) return *eye;
        return SamplerEye{};
    };
    const uint32_t ring = phy_base + e32::kRingOffsets[lane & 3] - 0x10000u;
    return std::make_unique<EyeSampler>(space, ring, key, noise, std::move(source));
}

}  // namespace

bool is_hvl_fault(const std::string& type) {
    return type == "hvl_override_never_granted" || type == "hvl_link_drop" || type == "hvl_link_down" ||
           type == "hvl_link_flap" || type == "hvl_error_count_backwards" || type == "hvl_firmware_version" ||
           type == "hvl_active_cache_invalid" || type == "eye_ring_stall" || type == "mailbox_silent";
}

std::vector<HvlFault> read_hvl_faults(const json& faults, const std::vector<SocketProfile>& sockets) {
    std::vector<HvlFault> result;
    if (!faults.is_array()) return result;
    for (size_t i = 0; i < faults.size(); ++i) {
        const std::string path = "faults[" + std::to_string(i) + "]";
        const json& entry = faults[i];
        if (!entry.is_object() || !entry.contains("type") || !entry.at("type").is_string()) continue;
        HvlFault fault;
        fault.type = entry.at("type").get<std::string>();
        if (!is_hvl_fault(fault.type)) continue;
        if (!entry.contains("socket")) fail(path, "missing field 'socket'");
        fault.socket = whole(entry.at("socket"), path + ".socket");
        if (fault.socket >= sockets.size()) fail(path + ".socket", "there is no socket " + std::to_string(fault.socket));
        if (fault.type == "mailbox_silent") {
            const json mailbox = entry.value("mailbox", json());
            const std::string name = mailbox.is_string() ? mailbox.get<std::string>() : "";
            if (name != "BIOS" && name != "Test" && name != "Host" && name != "PSP")
                fail(path + ".mailbox", "expected \"BIOS\", \"Test\", \"Host\" or \"PSP\"");
            fault.mailbox = name;
            result.push_back(fault);
            continue;
        }
        if (!entry.contains("link") || !entry.at("link").is_string()) fail(path, "missing field 'link'");
        fault.link = entry.at("link").get<std::string>();
        const chips::LinkLanes* link = chips::corvane_lanes().find(fault.link);
        if (!link || !link->pcs_base || link->phy != "E32")
            fail(path + ".link", "'" + fault.link + "' is not an E32 link with a PCS");
        if (entry.contains("lane")) {
            fault.lane = whole(entry.at("lane"), path + ".lane");
            if (*fault.lane >= link->lanes) fail(path + ".lane", "the link has " + std::to_string(link->lanes) + " lanes");
        } else if (fault.type == "hvl_active_cache_invalid" || fault.type == "eye_ring_stall") {
            fail(path, "missing field 'lane'");
        }
        if (fault.type == "hvl_override_never_granted" && entry.contains("grants"))
            fault.value = whole(entry.at("grants"), path + ".grants");
        if (fault.type == "hvl_link_drop" || fault.type == "hvl_link_flap") {
            if (!entry.contains("offset")) fail(path, "missing field 'offset'");
            fault.value = whole(entry.at("offset"), path + ".offset");
            if (fault.value == 0 || fault.value > 127) fail(path + ".offset", "expected 1 to 127");
        }
        if (fault.type == "hvl_link_flap" && entry.contains("visit")) {
            fault.visit = whole(entry.at("visit"), path + ".visit");
            if (fault.visit == 0) fail(path + ".visit", "expected 1 or more");
        }
        if (fault.type == "hvl_firmware_version") {
            if (!entry.contains("version")) fail(path, "missing field 'version'");
            fault.value = whole(entry.at("version"), path + ".version");
            if (fault.value > 255) fail(path + ".version", "expected 0 to 255");
        }
        result.push_back(fault);
    }
    return result;
}

HvlLaneEdges hvl_lane_edges(const HvlLinkProfile& link, unsigned socket, unsigned lane, const Noise& noise) {
    HvlEye eye = link.eye;
    if (auto it = link.lane_eyes.find(lane); it != link.lane_eyes.end()) eye = it->second;
    auto spread = [&](double value, unsigned side) {
        const double v = value * (1.0 + eye.noise * noise.normal({0x4856, socket, lane, side}));
        return static_cast<unsigned>(std::max(1.0, std::round(v)));
    };
    return {spread(eye.left, 0), spread(eye.right, 1), spread(eye.top, 2), spread(eye.bottom, 3)};
}

void attach_hvl_phys(const std::vector<HvlLinkProfile>& links, const std::vector<SocketProfile>& sockets,
                     const std::vector<HvlFault>& faults, const std::vector<PhySetting>& settings,
                     const PcieLaneEyes& pcie_eyes, const Noise& noise, const DieRegisterSpace& die_space) {
    auto world = std::make_shared<World>();
    std::map<std::pair<unsigned, std::string>, EndState*> by_end;
    for (unsigned s = 0; s < sockets.size(); ++s) {
        if (sockets[s].die_type != "Corvane") continue;
        RegisterSpace* space = die_space(s, 0);
        if (!space) continue;
        const auto store = make_register_store(sockets[s].die_type, nullptr);
        attach_mailboxes(space, chips::kMcu11, s, faults, std::make_shared<uint32_t>(0));
        for (const chips::LinkLanes& link : chips::corvane_lanes().links) {
            if (link.phy != "E32" || !link.pcs_base) continue;
            auto end = std::make_unique<EndState>();
            EndState* e = end.get();
            if (const HvlFault* f = find_fault(faults, "hvl_firmware_version", s, link.name)) e->version = f->value;
            if (const HvlFault* f = find_fault(faults, "hvl_link_drop", s, link.name)) e->drop_offset = f->value;
            if (const HvlFault* f = find_fault(faults, "hvl_link_flap", s, link.name)) {
                e->flap_offset = f->value;
                e->flap_visit = f->visit;
            }
            e->count_backwards = find_fault(faults, "hvl_error_count_backwards", s, link.name) != nullptr;
            const unsigned layout = e->version >= 1 && e->version <= 3 ? e->version : 3;
            const auto [word0, word1] = version_words(layout);
            const uint32_t firmware = e32::firmware_base(link.chiplet_base.at(0));
            space->define(firmware, word0, 0);
            space->define(firmware + 4, word1, 0);
            e->lanes.resize(link.lanes);
            const unsigned tap_mode = tap_mode_of(settings, s, link.name);
            for (unsigned lane = 0; lane < link.lanes; ++lane) {
                LaneState& l = e->lanes[lane];
                const uint64_t key = (uint64_t{s} << 40) ^ (std::hash<std::string>{}(link.name) << 8) ^ lane;
                if (const HvlFault* f = find_fault(faults, "hvl_override_never_granted", s, link.name, lane))
                    l.grants_left = f->value;
                const uint32_t phy_base = link.chiplet_base.at(lane / chips::kLanesPerChiplet);
                fill_record(*space, e32::record_address(phy_base, layout, lane), layout,
                            !find_fault(faults, "hvl_active_cache_invalid", s, link.name, lane), tap_mode, lane, noise,
                            key);
                l.eye = make_lane_sampler(*space, phy_base, e, lane, s, link.name, pcie_eyes, noise, key);
                if (find_fault(faults, "eye_ring_stall", s, link.name, lane)) l.eye->stall_after(kStallPoints);
                if (lane % chips::kLanesPerChiplet == chips::kLanesPerChiplet - 1 || lane + 1 == link.lanes) {
                    std::vector<EyeSampler*> quad;
                    for (unsigned q = lane - lane % chips::kLanesPerChiplet; q <= lane; ++q) quad.push_back(e->lanes[q].eye.get());
                    attach_ring_strobe(*space, phy_base, std::move(quad));
                }
                const uint32_t param = store->get_lane_register("UPI2_DECODE_32_LANE_InjectionParamCode", link.name,
                                                                static_cast<int>(lane))->get_offset();
                const uint32_t readback = store->get_lane_register("UPI2_DECODE_32_LANE_InjectionReadback", link.name,
                                                                   static_cast<int>(lane))->get_offset();
                space->define(param, 0);
                space->on_write(param, [e, &l, world](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                    l.busy.start(now, kBusyNs);
                    // Capability queries are answered without the override;
                    // commands that move the receiver need it.
                    if (l.granted(now) || (value & 0xFF) == e32::kCmdTxRxCap) run_command(*e, l, value & 0xFF, value >> 8, now);
                });
                space->define(readback, 0, 1u << e32::kOverrideRequestBit);
                space->on_write(readback, [&l](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                    const bool request = value & (1u << e32::kOverrideRequestBit);
                    if (request && !l.requested) {
                        if (l.grants_left == 0) l.never_granted = true;
                        else --l.grants_left;
                        l.grant.start(now, kGrantDelayNs);
                    }
                    if (!request) l.grant.clear();
                    if (!request && l.eye) l.eye->abort(now);
                    l.requested = request;
                });
                space->on_read(readback, [&l](uint32_t stored, const ModelTime& now) {
                    uint32_t value = stored & (1u << e32::kOverrideRequestBit);
                    if (l.granted(now)) value |= 1u << e32::kOverrideGrantBit;
                    if ((l.busy.active() && !l.busy.expired(now)) || (l.eye && l.eye->busy(now)))
                        value |= 1u << e32::kBusyBit;
                    return value | l.response;
                });
                // The PHY's own channel.
                auto reg = [&](const char* name) {
                    return store->get_lane_register(name, link.name, static_cast<int>(lane))->get_offset();
                };
                const uint32_t parm0 = reg("CMD_PARM0"), parm1 = reg("CMD_PARM1");
                space->define(parm0, 0);
                space->define(parm1, 0);
                space->on_write(reg("CMD_OVRD"), [e, &l, space, parm0, parm1](uint32_t, uint32_t& value, uint32_t,
                                                                              const ModelTime& now) {
                    if ((value & (1u << e32::kPhyRunBit)) && (value & (1u << e32::kOverrideRequestBit)))
                        run_command(*e, l, space->peek(parm1) & 0xFF, space->peek(parm0), now);
                    value &= ~(1u << e32::kPhyRunBit);
                    if (value & (1u << e32::kOverrideRequestBit)) value |= 1u << e32::kOverrideGrantBit;
                    else value &= ~(1u << e32::kOverrideGrantBit);
                });
                space->define(reg("CMD_STATUS"), 0, 0);
                // A lane the PCIe port map drives runs the PCIe controller.
                const uint32_t mapped = space->peek(reg(chips::server_io::kLaneMap.lane_register));
                const uint32_t controller = reg(chips::server_io::kLaneControllerRegister);
                if (chips::server_io::kLaneMap.valid.extract(mapped) && !space->defined(controller))
                    space->define(controller, kPcieControllerEnabled);
            }
            by_end[{s, link.name}] = e;
            world->ends.push_back(std::move(end));
        }
    }

    for (const HvlLinkProfile& profile : links) {
        auto shared = std::make_unique<LinkShared>();
        LinkShared* link = shared.get();
        unsigned index = 0;
        for (const HvlLinkEnd* side : {&profile.end, &profile.partner}) {
            auto found = by_end.find({side->socket, side->link});
            if (found == by_end.end()) break;
            EndState* e = found->second;
            e->link = link;
            e->drop_past_edge = profile.drop_past_edge;
            e->rate = profile.rate;
            if (find_fault(faults, "hvl_link_down", side->socket, side->link)) link->up = false, link->held_down = true;
            link->ends[index++] = e;
            for (unsigned lane = 0; lane < e->lanes.size(); ++lane)
                e->lanes[lane].edges = hvl_lane_edges(profile, side->socket, lane, noise);
            RegisterSpace* space = die_space(side->socket, side->die);
            const auto store = make_register_store(sockets.at(side->socket).die_type, nullptr);
            auto at = [&](const char* name) { return store->get_link_pcs_register(name, side->link, 0)->get_offset(); };
            space->define(at("PCS_HVL3X16_PCS_ERROR_CONTROL1"), kTrainedErrorControl);
            space->on_read(at("PCS_HVL3X16_PCS_ERROR_CONTROL1"), [e](uint32_t, const ModelTime&) { return e->control; });
            space->on_write(at("PCS_HVL3X16_PCS_ERROR_CONTROL1"),
                            [e](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                                advance(*e, now);
                                e->control = value;
                            });
            space->on_read(at("PCS_HVL3X16_PCS_ERROR_MASK"), [e](uint32_t, const ModelTime&) { return e->mask; });
            space->on_write(at("PCS_HVL3X16_PCS_ERROR_MASK"),
                            [e](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                                advance(*e, now);
                                e->mask = value;
                            });
            space->on_read(at("PCS_HVL3X16_PCS_ERROR_STATUS"), [e](uint32_t, const ModelTime& now) {
                touch(*e, now);
                return e->status;
            });
            space->on_write(at("PCS_HVL3X16_PCS_ERROR_STATUS"),
                            [e](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                                touch(*e, now);
                                e->status &= ~value;
                                value = e->status;
                            });
            space->on_read(at("PCS_HVL3X16_PCS_ERROR_STATUS1"), [e](uint32_t, const ModelTime& now) {
                touch(*e, now);
                const auto count = static_cast<uint32_t>(e->count);
                return (e->status1 & 0x00FFFFFFu) | (e->count_backwards ? 255 - count : count) << 24;
            });
            space->on_write(at("PCS_HVL3X16_PCS_ERROR_STATUS1"),
                            [e](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                                advance(*e, now);
                                if (value & kCountClearBit) e->count = 0;
                                e->status1 = value & 0x00FFFFFFu & ~kCountClearBit;
                            });
            space->on_read(at("PCS_HVL3X16_PCS_STATE_HIST1"), [e](uint32_t stored, const ModelTime& now) {
                touch(*e, now);
                return (stored & ~0xFFu) | (e->link->up ? kStateL0 : kStateRecovery);
            });
            space->on_read(at("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS2"),
                           [e](uint32_t, const ModelTime&) { return e->perf_event; });
            space->on_write(at("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS2"),
                            [e](uint32_t, uint32_t& value, uint32_t, const ModelTime&) {
                                e->perf_event = value;
                                e->recoveries = 0;
                            });
            space->on_read(at("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS0"), [e](uint32_t, const ModelTime& now) {
                touch(*e, now);
                return e->recoveries;
            });
            space->on_read(at("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS1"),
                           [](uint32_t, const ModelTime&) { return 0u; });
        }
        world->links.push_back(std::move(shared));
    }
}

}  // namespace sim
