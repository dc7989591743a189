#include "simulator/hvl_link_model.h"

#include <map>
#include <tuple>

#include "hardware/chips/chip_identity.h"
#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/hvl_links.h"
#include "hardware/chips/pcie_cores.h"
#include "hardware/chips/server_registers.h"
#include "hardware/register_storage.h"

namespace sim {

namespace {

using nlohmann::json;

constexpr unsigned kTrainingPstate = 0, kRunningPstate = 1;
constexpr double kTrainingRate = 16;
constexpr uint32_t kStateL0 = 0x81;
constexpr uint32_t kHvlControllerEnabled = 1;  // bit 0 on, protocol bits 3:1 zero

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ProfileError("profile: " + path + ": " + reason);
}

void expect_keys(const json& value, const std::string& path, std::initializer_list<const char*> allowed) {
    if (!value.is_object()) fail(path, "expected an object");
    for (const auto& item : value.items()) {
        bool known = false;
        for (const char* key : allowed) known = known || item.key() == key;
        if (!known) fail(path, "unknown field '" + item.key() + "'");
    }
}

// A JSON integer or a text such as "1" or "0x1", as everywhere in profiles.
unsigned whole_number(const json& value, const std::string& path) {
    if (value.is_number_integer() && value.get<int64_t>() >= 0 && value.get<int64_t>() <= 0xFFFF)
        return value.get<unsigned>();
    if (value.is_string()) {
        const std::string text = value.get<std::string>();
        try {
            size_t used = 0;
            const unsigned long number = std::stoul(text, &used, 0);
            if (used == text.size() && !text.empty() && text[0] != '-' && number <= 0xFFFF)
                return static_cast<unsigned>(number);
        } catch (const std::exception&) {
        }
    }
    fail(path, "expected an unsigned number, got " + value.dump());
}

// The die types the model presents: Corvane only, one die a socket.
const chips::ChipLanes& chip_lanes(const std::string& die_type, const std::string& path) {
    if (die_type != "Corvane") fail(path, "the model has no hVL links for die type '" + die_type + "'");
    return chips::corvane_lanes();
}

std::string hvl_link_names(const chips::ChipLanes& lanes) {
    std::string names;
    for (const auto& link : lanes.links)
        if (link.protocol == chips::kProtocolHVL) names += (names.empty() ? "" : ", ") + link.name;
    return names;
}

// The "socket", "die" and "link" fields of `value`.
HvlLinkEnd read_end(const json& value, const std::string& path, const std::vector<SocketProfile>& sockets) {
    HvlLinkEnd end;
    if (!value.contains("socket")) fail(path, "missing field 'socket'");
    end.socket = whole_number(value.at("socket"), path + ".socket");
    if (end.socket >= sockets.size())
        fail(path + ".socket", "there is no socket " + std::to_string(end.socket) + " (the profile has " +
                                   std::to_string(sockets.size()) + ")");
    const SocketProfile& socket = sockets[end.socket];
    if (value.contains("die")) end.die = whole_number(value.at("die"), path + ".die");
    if (end.die >= chips::corvane::kIdentity.dies_per_socket)
        fail(path + ".die", "a " + socket.die_type + " socket holds die 0 only");
    if (!value.contains("link")) fail(path, "missing field 'link'");
    if (!value.at("link").is_string()) fail(path + ".link", "expected a text, got " + value.at("link").dump());
    end.link = value.at("link").get<std::string>();
    const chips::ChipLanes& lanes = chip_lanes(socket.die_type, path + ".link");
    const chips::LinkLanes* link = lanes.find(end.link);
    if (!link || link->protocol != chips::kProtocolHVL)
        fail(path + ".link", "'" + end.link + "' is not an hVL link of " + socket.die_type + " (" +
                                 hvl_link_names(lanes) + ")");
    for (const auto& complex : socket.root_complexes)
        for (const auto& port : complex.root_ports) {
            const chips::PcieCore* core = chips::find_core(chips::corvane::kPcieCores, port.core.c_str());
            if (core && end.link == core->serdes)
                fail(path + ".link", "link " + end.link + " of socket " + std::to_string(end.socket) +
                                         " carries PCIe for root port " + (port.name.empty() ? port.core : port.name) +
                                         " (core " + port.core + ")");
        }
    return end;
}

// "left", "right", "top", "bottom" (steps, 1 to 100) and "noise" (0 to 1)
// over `base`.
HvlEye read_eye(const json& value, const std::string& path, HvlEye base, bool with_lane) {
    if (with_lane) expect_keys(value, path, {"lane", "left", "right", "top", "bottom", "noise"});
    else expect_keys(value, path, {"left", "right", "top", "bottom", "noise"});
    for (auto [key, field] : {std::pair{"left", &base.left}, std::pair{"right", &base.right},
                              std::pair{"top", &base.top}, std::pair{"bottom", &base.bottom}}) {
        if (!value.contains(key)) continue;
        const json& v = value.at(key);
        if (!v.is_number() || v.get<double>() < 1 || v.get<double>() > 100)
            fail(path + "." + key, "expected steps from 1 to 100, got " + v.dump());
        *field = v.get<double>();
    }
    if (value.contains("noise")) {
        const json& v = value.at("noise");
        if (!v.is_number() || v.get<double>() < 0 || v.get<double>() > 1)
            fail(path + ".noise", "expected 0 to 1, got " + v.dump());
        base.noise = v.get<double>();
    }
    return base;
}

// Where a named register of a link's hVL PCS (or of one of its lanes) lies.
uint32_t pcs_address(const RegisterStorage& store, const char* name, const std::string& link) {
    return store.get_link_pcs_register(name, link, 0)->get_offset();
}

}  // namespace

std::vector<HvlLinkProfile> parse_hvl_links(const json& links, const std::vector<SocketProfile>& sockets) {
    if (!links.is_array()) fail("hvl_links", "expected an array");
    std::vector<HvlLinkProfile> result;
    std::map<std::tuple<unsigned, unsigned, std::string>, std::string> joined;  // end -> the entry that joins it
    for (size_t i = 0; i < links.size(); ++i) {
        const std::string path = "hvl_links[" + std::to_string(i) + "]";
        const json& entry = links[i];
        expect_keys(entry, path, {"socket", "die", "link", "partner", "rate", "lane_reversed", "eye", "lanes", "drop_past_edge"});
        HvlLinkProfile link;
        link.end = read_end(entry, path, sockets);
        if (!entry.contains("partner")) fail(path, "missing field 'partner'");
        expect_keys(entry.at("partner"), path + ".partner", {"socket", "die", "link"});
        link.partner = read_end(entry.at("partner"), path + ".partner", sockets);
        for (const auto& [end, where] : {std::pair{&link.end, path}, std::pair{&link.partner, path + ".partner"}}) {
            const auto [slot, fresh] = joined.emplace(std::tuple{end->socket, end->die, end->link}, path);
            if (!fresh)
                fail(where + ".link", "link " + end->link + " of socket " + std::to_string(end->socket) +
                                          (slot->second == path ? " cannot be joined to itself"
                                                                : " is already joined by " + slot->second));
        }
        if (entry.contains("rate")) {
            const json& rate = entry.at("rate");
            if (!rate.is_number() || !chips::hvl_pstate_context_byte(rate.get<double>()))
                fail(path + ".rate", "no PCS word size and clock run at " + rate.dump() +
                                         " Gb/s (16, 20, 25 and 32 do)");
            link.rate = rate.get<double>();
        }
        if (entry.contains("lane_reversed")) {
            if (!entry.at("lane_reversed").is_boolean())
                fail(path + ".lane_reversed", "expected true or false, got " + entry.at("lane_reversed").dump());
            link.lane_reversed = entry.at("lane_reversed").get<bool>();
        }
        if (entry.contains("eye")) link.eye = read_eye(entry.at("eye"), path + ".eye", link.eye, false);
        if (entry.contains("lanes")) {
            if (!entry.at("lanes").is_array()) fail(path + ".lanes", "expected an array");
            for (size_t l = 0; l < entry.at("lanes").size(); ++l) {
                const std::string at = path + ".lanes[" + std::to_string(l) + "]";
                const json& lane = entry.at("lanes")[l];
                if (!lane.is_object() || !lane.contains("lane")) fail(at, "missing field 'lane'");
                const unsigned number = whole_number(lane.at("lane"), at + ".lane");
                if (number >= 16) fail(at + ".lane", "an hVL link has lanes 0 to 15");
                link.lane_eyes[number] = read_eye(lane, at, link.eye, true);
            }
        }
        if (entry.contains("drop_past_edge")) {
            link.drop_past_edge = whole_number(entry.at("drop_past_edge"), path + ".drop_past_edge");
            if (link.drop_past_edge == 0) fail(path + ".drop_past_edge", "expected 1 or more");
        }
        result.push_back(std::move(link));
    }
    return result;
}

void place_hvl_links(const std::vector<HvlLinkProfile>& links, const std::vector<SocketProfile>& sockets,
                     const DieRegisterSpace& die_space) {
    for (const HvlLinkProfile& link : links) {
        const uint32_t context = *chips::hvl_pstate_context_byte(kTrainingRate) << (8 * kTrainingPstate) |
                                 *chips::hvl_pstate_context_byte(link.rate) << (8 * kRunningPstate);
        for (const HvlLinkEnd* end : {&link.end, &link.partner}) {
            RegisterSpace* space = die_space(end->socket, end->die);
            if (!space) continue;
            const std::string& die_type = sockets.at(end->socket).die_type;
            const auto store = make_register_store(die_type, nullptr);
            space->define(pcs_address(*store, "PCS_HVL3X16_PCS_STATUS1", end->link),
                          link.lane_reversed ? 1u << chips::kHvlLaneReversedBit : 0u, 0);
            space->define(pcs_address(*store, "PCS_HVL3X16_PCS_PSTATE_SELECT", end->link), kRunningPstate);
            space->define(pcs_address(*store, "PCS_HVL3X16_PCS_PSTATE_CONTEXT2", end->link), context);
            space->define(pcs_address(*store, "PCS_HVL3X16_PCS_STATE_HIST1", end->link), kStateL0);
            const unsigned lanes = chip_lanes(die_type, "hvl_links").find(end->link)->lanes;
            for (unsigned lane = 0; lane < lanes; ++lane)
                space->define(store->get_lane_register(chips::server_io::kLaneControllerRegister, end->link,
                                                       static_cast<int>(lane))
                                  ->get_offset(),
                              kHvlControllerEnabled);
        }
    }
}

}  // namespace sim
