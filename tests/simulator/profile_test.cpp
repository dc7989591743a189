#include <gtest/gtest.h>

#include <functional>

#include "simulator/platform.h"
#include "simulator/profile.h"
#include "support/case_name.h"
#include "support/thrown.h"

using nlohmann::json;

namespace {

json base_profile() {
    return json::parse(R"({
      "processor": {"family": 26, "model": 1},
      "sockets": [
        {"die": "Corvane", "root_complexes": [
          {"segment": 0, "bus": 0, "bus_limit": 15, "root_ports": [
            {"device": 1, "core": "PCIE0_nbio0", "function_index": 0,
             "child": {"type": "endpoint", "vendor_id": "0x144D", "device_id": "0xA80A", "class_code": "0x010802",
                       "max_speed": 16, "max_width": 4}}
          ]}
        ]},
        {"die": "Corvane", "root_complexes": [{"segment": 0, "bus": 128, "bus_limit": 200}]}
      ]
    })");
}

json& port0(json& p) { return p["sockets"][0]["root_complexes"][0]["root_ports"][0]; }

json hvl_link(unsigned socket, const char* link, unsigned partner_socket, const char* partner_link,
              double rate = 32) {
    return json::array({{{"socket", socket}, {"link", link}, {"rate", rate},
                         {"partner", {{"socket", partner_socket}, {"link", partner_link}}}}});
}

struct BadProfile {
    const char* name;
    std::function<void(json&)> change;
    std::string error;
};
LW_PRINT_BY_NAME(BadProfile)

const BadProfile kBadProfiles[] = {
    {"unknown die type", [](json& p) { p["sockets"][1]["die"] = "Foo"; },
     "profile: sockets[1].die: unknown die type 'Foo'"},
    {"missing processor", [](json& p) { p.erase("processor"); }, "profile: (top): missing field 'processor'"},
    {"misspelt field", [](json& p) { port0(p)["buss"] = 3; },
     "profile: sockets[0].root_complexes[0].root_ports[0]: unknown field 'buss'"},
    {"speed that doesn't exist", [](json& p) { port0(p)["child"]["max_speed"] = 12; },
     "profile: sockets[0].root_complexes[0].root_ports[0].child.max_speed: unsupported link speed 12"},
    {"model outside the die's range", [](json& p) { p["processor"]["model"] = "0x40"; },
     "profile: processor.model: model 0x40 is outside the Corvane models"},
    {"address used twice",
     [](json& p) { p["sockets"][0]["root_complexes"][0]["root_ports"].push_back(port0(p)); },
     "profile: sockets[0].root_complexes[0].root_ports[1]: address 0000:00:01.0 is already used"},
    {"function without function 0", [](json& p) { port0(p)["function"] = 2; },
     "profile: sockets[0].root_complexes[0].root_ports[0]: device 0000:00:01 has no function 0"},
    {"lane beyond the link",
     [](json& p) { port0(p)["child"]["margining"] = json::parse(R"({"lanes": [{"lane": 4}]})"); },
     "profile: sockets[0].root_complexes[0].root_ports[0].child.margining.lanes[0].lane: lane 4 is beyond the link's 4 lanes"},
    {"link faster than its ends",
     [](json& p) { port0(p)["child"]["speed"] = 32; },
     "profile: sockets[0].root_complexes[0].root_ports[0].child.speed: the link cannot run faster"},
    {"number that isn't one", [](json& p) { port0(p)["child"]["vendor_id"] = "0xZZ"; },
     "profile: sockets[0].root_complexes[0].root_ports[0].child.vendor_id: '0xZZ' is not a number"},
    {"bus ranges overlap", [](json& p) { p["sockets"][1]["root_complexes"][0]["bus"] = 10; },
     "profile: sockets[1].root_complexes[0].bus: bus 0x0A of segment 0 already belongs to sockets[0]"},
    {"no room below a root port", [](json& p) { port0(p)["secondary_bus"] = 16; },
     "profile: sockets[0].root_complexes[0].root_ports[0]: no room for 1 buses from 0x10 up to 0x0F"},
    {"switch without ports",
     [](json& p) { port0(p)["child"] = json::parse(R"({"type": "switch", "vendor_id": 4096, "device_id": 1,
                                                        "max_speed": 16, "max_width": 8, "downstream_ports": []})"); },
     "profile: sockets[0].root_complexes[0].root_ports[0].child.downstream_ports: a switch has 1 to 32 downstream ports"},
    {"eye margin out of range",
     [](json& p) { port0(p)["child"]["margining"] = json::parse(R"({"eye": {"timing_left": 70}})"); },
     "profile: sockets[0].root_complexes[0].root_ports[0].child.margining.eye.timing_left: value 70 is outside 0 to 50"},
    {"hVL link the die hasn't got", [](json& p) { p["hvl_links"] = hvl_link(0, "P4", 1, "G3"); },
     "profile: hvl_links[0].link: 'P4' is not an hVL link of Corvane"},
    {"hVL on a link a root port uses", [](json& p) { p["hvl_links"] = hvl_link(1, "G3", 0, "P0"); },
     "profile: hvl_links[0].partner.link: link P0 of socket 0 carries PCIe for root port PCIE0_nbio0"},
    {"hVL partner socket missing", [](json& p) { p["hvl_links"] = hvl_link(0, "G1", 2, "G3"); },
     "profile: hvl_links[0].partner.socket: there is no socket 2"},
    {"hVL link joined twice",
     [](json& p) { p["hvl_links"] = {hvl_link(0, "G1", 1, "G3")[0], hvl_link(1, "P3", 0, "G1")[0]}; },
     "profile: hvl_links[1].partner.link: link G1 of socket 0 is already joined by hvl_links[0]"},
    {"hVL link joined to itself", [](json& p) { p["hvl_links"] = hvl_link(0, "G1", 0, "G1"); },
     "profile: hvl_links[0].partner.link: link G1 of socket 0 cannot be joined to itself"},
    {"hVL rate the PCS cannot run", [](json& p) { p["hvl_links"] = hvl_link(0, "G1", 1, "G3", 33.5); },
     "profile: hvl_links[0].rate: no PCS word size and clock run at 33.5 Gb/s"},
};

class ProfileErrors : public ::testing::TestWithParam<BadProfile> {};

TEST_P(ProfileErrors, NameTheField) {
    json profile = base_profile();
    GetParam().change(profile);
    const std::string error = lw_test::thrown_text<sim::ProfileError>([&] { sim::parse_profile(profile); });
    EXPECT_EQ(error.rfind(GetParam().error, 0), 0u) << error;
}

INSTANTIATE_TEST_SUITE_P(Table, ProfileErrors, ::testing::ValuesIn(kBadProfiles), lw_test::by_name);

TEST(Profile, TextThatIsNotJsonAMissingFileAndAZeroTimeScaleAreRefused) {
    EXPECT_THROW(sim::parse_profile_text("{\"sockets\": ["), sim::ProfileError);
    EXPECT_THROW(sim::load_profile_file("/nonexistent/profile.json"), sim::ProfileError);
    EXPECT_THROW(sim::load_platform("", std::nullopt, 0), std::invalid_argument);
}

// Buses are handed out depth first, as firmware would: the switch takes its
// own bus, its internal bus and one per downstream port, and the next root
// port continues after them.
TEST(Profile, BusesAreAssignedDepthFirst) {
    json p = base_profile();
    port0(p)["child"] = json::parse(R"({"type": "switch", "vendor_id": 4096, "device_id": 1, "max_speed": 16,
        "max_width": 8, "downstream_ports": [{}, {"child": {"type": "endpoint", "vendor_id": 1, "device_id": 2,
        "class_code": 0, "max_speed": 8, "max_width": 1}}]})");
    json second = {{"device", 2}, {"core", "PCIE1_nbio0"}, {"function_index", 0}};
    p["sockets"][0]["root_complexes"][0]["root_ports"].push_back(second);
    const sim::Profile profile = sim::parse_profile(p);
    const auto& ports = profile.sockets[0].root_complexes[0].root_ports;
    EXPECT_EQ(*ports[0].secondary_bus, 1u);
    EXPECT_EQ(*ports[0].subordinate_bus, 4u);
    EXPECT_EQ(ports[0].child->internal_bus, 2u);
    EXPECT_EQ(*ports[0].child->downstream_ports[1].secondary_bus, 4u);
    EXPECT_EQ(*ports[1].secondary_bus, 5u);
}

}  // namespace
