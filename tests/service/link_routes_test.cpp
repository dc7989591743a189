// The port status and link control routes over the model machine: the
// documents a browser builds its screens from.
#include <gtest/gtest.h>

#include <sstream>

#include "gui/model_machine.h"
#include "running_service.h"
#include "service/web_back_end.h"
#include "wire_client.h"

using nlohmann::json;

namespace {

class LinkRoutes : public ::testing::Test {
protected:
    gui_test::ModelMachine machine;
    GUIResourceStore& store = machine.store;
    TestStorage storage;
};

int index_named(const json& values, const std::string& prefix) {
    for (size_t i = 0; i < values.size(); ++i)
        if (values[i].get<std::string>().rfind(prefix, 0) == 0) return static_cast<int>(i);
    return -1;
}

TEST_F(LinkRoutes, PortStatusDocumentDecodesTheSelectedPort) {
    WebBackEnd backend(store, storage);
    const json legend = json::parse(backend.GetAllPCIELCStates());
    EXPECT_EQ(legend.front(), "Detect(0x0)");
    EXPECT_EQ(legend.back(), "N/A(0x3f)");

    const json first = json::parse(backend.GetPortSelectionInfo());
    const int port = index_named(first["portSelection"]["values"], "0:40:01.0");
    ASSERT_GE(port, 0) << first["portSelection"].dump();
    const json document = json::parse(backend.GetPortStatusInfo(json{{"index", port}}.dump()));
    EXPECT_EQ(document["selectedIndex"], port);
    const json& registers = document["portStatusRegister"];
    ASSERT_EQ(registers.size(), 8u);
    const json& link = registers["linkStatus"];
    EXPECT_EQ(link["label"], "LINK_STATUS (0x" + [&] {
        std::ostringstream hex;
        hex << std::hex << link["value"].get<unsigned>();
        return hex.str();
    }() + ")");
    EXPECT_EQ(link["rows"][0]["field"], "Current Link Speed") << document.dump();
    EXPECT_EQ(link["rows"][0]["text"], "32 GT/s");
    EXPECT_EQ(link["rows"][1]["text"], "x16");
    EXPECT_EQ(registers["pcieCorrErrStatus"]["label"], "PCIE_CORR_ERR_STATUS (0x0)");
    EXPECT_EQ(document["allLCStates"].size(), 48u);
    EXPECT_EQ(document["allLCStates"][0], "State 0: L0 (0x10)");
    for (const char* key : {"advErrorEnabled", "linkDisable", "secBusReset", "contLoopSettings", "logPortStatus",
                            "autoRefresh", "TestRunning", "portSelection"})
        EXPECT_TRUE(document.contains(key)) << key;
    EXPECT_EQ(document["contLoopSettings"]["retrainSpeed"]["values"].back(), "32 Gt/s");

    EXPECT_EQ(backend.SetAdvErrorEnabled(R"({"checked":true})"), "success");
    EXPECT_EQ(json::parse(backend.GetPortSelectionInfo())["advErrorEnabled"]["checked"], true);
    EXPECT_EQ(json::parse(backend.GetPortStatusRegistersInfo())["deviceStatus"]["label"], "DEVICE_STATUS (0x0)");

    // The link disable action shows in the decoded registers and the LTSSM push.
    EXPECT_EQ(backend.SetPortLinkDisabled(R"({"checked":true})"), "success");
    const json disabled = json::parse(backend.GetPortStatusRegistersInfo());
    EXPECT_EQ(disabled["linkStatus"]["rows"][4]["value"], 0) << "data link layer down";
    EXPECT_EQ(backend.get_ltssm_states()[0], "State 0: Disabled (0x27)");
    backend.SetPortLinkDisabled(R"({"checked":false})");
}

TEST_F(LinkRoutes, LinkControlChangesASpeedAndShowsIt) {
    WebBackEnd backend(store, storage);
    const json info = json::parse(backend.GetLinkInfo());
    int row = -1;
    for (const json& r : info["ports"])
        if (r["SBDF"] == "0:40:1.0") row = r["key"];
    ASSERT_GE(row, 0) << info.dump();
    EXPECT_EQ(info["columns"].size(), 16u);
    const json port = json::parse(backend.GetLinkPortInfo(json{{"index", row}}.dump()));
    EXPECT_EQ(port["oplRC"]["linkSpeedSelection"]["selectedIndex"], 4);
    EXPECT_EQ(port["linkControlInfo"]["linkSpeedUpper"]["selectedValue"], "32 Gt/s");

    struct Step {
        int speed;
        const char* shown;
    };
    for (const Step& step : {Step{3, "16 GT/s"}, Step{4, "32 GT/s"}}) {
        const json answer = json::parse(backend.SetLinkSpeed(json{{"index", step.speed}}.dump()));
        EXPECT_TRUE(answer["OperationStatus"]) << answer.dump();
        EXPECT_EQ(answer["port"]["Link Speed"], step.shown);
        EXPECT_EQ(answer["port"]["LTSSM"], "L0(0x10)");
    }
    const json width = json::parse(backend.SetLinkWidth(R"({"index":4})"));
    EXPECT_FALSE(width["OperationStatus"]) << "x12 is not a width this port takes";
    EXPECT_NE(width["ErrMsg"], "");
}

// The browser greys its controls, hears the run's counts and log, and is
// told the run ended, in this order. The test service's machine has one root
// port (0:80:2.0) with nothing below it, so three retrains run on it. Its
// model time never moves (nothing is installed), so a link taken down there
// would stay down for every later test: retrains keep it up.
TEST(LinkRoutePushes, PortRunPushesGreyLogAndReleaseInOrder) {
    auto& service = wire_test::running_service();
    wire_test::WsClient browser(service.port);
    ASSERT_EQ(browser.status, 101);
    ASSERT_TRUE(wire_test::wait_for_connections(1));
    const auto answer = wire_test::request(service.port, "POST", "/api/1.0/StartPortStatusContinuousRun",
                                           R"({"settingsSelection":{"selectedIndex":2},"loopCount":{"value":3},)"
                                           R"("retrainSpeed":{"selectedIndex":0,"values":["32 Gt/s"]},)"
                                           R"("continuousRun":{"selectedIndex":8}})");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "");
    std::vector<json> seen;
    while (auto text = browser.next_text()) {
        seen.push_back(json::parse(*text));
        if (seen.back()["key"] == "PortStatusUpdatePartial" && seen.back()["port_status_data"]["TestRunning"] == false)
            break;
    }
    ASSERT_GE(seen.size(), 3u);
    EXPECT_EQ(seen.front()["key"], "PortStatusUpdatePartial");
    EXPECT_EQ(seen.front()["port_status_data"]["TestRunning"], true);
    EXPECT_EQ(seen.front()["port_status_data"]["clearlogs"], true);
    EXPECT_EQ(seen.front()["port_status_data"]["contLoopSettings"]["enabled"], false);
    for (std::size_t i = 1; i + 1 < seen.size(); ++i) EXPECT_EQ(seen[i]["key"], "contRunPortStatusUpdates");
    const json& last_counts = seen[seen.size() - 2]["contRunPortStatusUpdates"];
    EXPECT_EQ(last_counts["counts"]["loopCount"], 3) << last_counts.dump();
    EXPECT_NE(last_counts["logs"].get<std::string>().find("Summary: LoopCount=3"), std::string::npos) << last_counts.dump();
    EXPECT_EQ(seen.back()["port_status_data"]["clearlogs"], false);
}

}  // namespace
