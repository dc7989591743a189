#include <gtest/gtest.h>

#include "gui/test_record_checks.h"
#include "gui/test_runner.h"

#include "running_service.h"
#include "service/web_back_end.h"
#include "service/wire_server.h"
#include "support/case_name.h"
#include "wire_client.h"

using nlohmann::json;
using PortHall::HttpMethod;
using wire_test::request;
using wire_test::running_service;

namespace {

// Every API route, in the order a front end and the router expect them.
const std::vector<std::pair<std::string, HttpMethod>> kApiRoutes = {
    {"/api/GetLANEWRIGHTVersion", HttpMethod::Get},          {"/api/1.0/GetAllPCIELCStates", HttpMethod::Get},
    {"/api/1.0/GetPCIEDeviceListForMargin", HttpMethod::Get}, {"/api/1.0/GetCurrentPCIeResults", HttpMethod::Get},
    {"/api/1.0/GetHVLDeviceListForMargin", HttpMethod::Get},  {"/api/1.0/GetCurrentHVLResults", HttpMethod::Get},
    {"/api/1.0/GetDeviceListForEyeScan", HttpMethod::Get},    {"/api/1.0/GetAllCurrentResults", HttpMethod::Get},
    {"/api/1.0/AddTestToQueue", HttpMethod::Post},           {"/api/1.0/EstimateTestDuration", HttpMethod::Post},
    {"/api/1.0/CancelTest", HttpMethod::Post},
    {"/api/1.0/GetResultsDateRange", HttpMethod::Get},
    {"/api/1.0/GetResultsByDate", HttpMethod::Post},         {"/api/1.0/DownloadToCSV", HttpMethod::Post},
    {"/api/1.0/GetASPMInfo", HttpMethod::Get},               {"/api/1.0/SetL0Enabled", HttpMethod::Post},
    {"/api/1.0/SetL1Enabled", HttpMethod::Post},             {"/api/1.0/SetL11Enabled", HttpMethod::Post},
    {"/api/1.0/SetL12Enabled", HttpMethod::Post},            {"/api/1.0/SetL0Timer", HttpMethod::Post},
    {"/api/1.0/SetL1Timer", HttpMethod::Post},               {"/api/1.0/GetPerfCounterInfo", HttpMethod::Get},
    {"/api/1.0/GetPerfCounterSettings", HttpMethod::Post},   {"/api/1.0/SetPerfCounterPort", HttpMethod::Post},
    {"/api/1.0/SetPerfCounterCounter", HttpMethod::Post},    {"/api/1.0/SetEnableCounter", HttpMethod::Post},
    {"/api/1.0/SetInitCounters", HttpMethod::Get},           {"/api/1.0/SetReadCounters", HttpMethod::Get},
    {"/api/1.0/StartPerfCountersMonitor", HttpMethod::Get},  {"/api/1.0/StopPerfCountersMonitor", HttpMethod::Get},
    {"/api/1.0/SetCountersDecimalDisplay", HttpMethod::Post}, {"/api/1.0/SetCountersLogging", HttpMethod::Post},
    {"/api/1.0/SetCountersChangesOnly", HttpMethod::Post},   {"/api/1.0/GetPortSelectionInfo", HttpMethod::Get},
    {"/api/1.0/GetPortStatusRegistersInfo", HttpMethod::Get}, {"/api/1.0/GetPortStatusInfo", HttpMethod::Post},
    {"/api/1.0/SetAdvErrorEnabled", HttpMethod::Post},       {"/api/1.0/SetPortLinkDisabled", HttpMethod::Post},
    {"/api/1.0/SetSecBusReset", HttpMethod::Post},           {"/api/1.0/ClearAdvErrorRegisters", HttpMethod::Get},
    {"/api/1.0/StartPortStatusContinuousRun", HttpMethod::Post}, {"/api/1.0/StopPortStatusContinuousRun", HttpMethod::Get},
    {"/api/1.0/SetLogPortStatus", HttpMethod::Post},         {"/api/1.0/GetLinkInfo", HttpMethod::Get},
    {"/api/1.0/GetLinkPortInfo", HttpMethod::Post},          {"/api/1.0/SetLinkWidth", HttpMethod::Post},
    {"/api/1.0/SetLinkSpeed", HttpMethod::Post},             {"/api/1.0/StartContinuousRun", HttpMethod::Post},
    {"/api/1.0/StopContinuousRun", HttpMethod::Get},         {"/api/1.0/SetPortOption", HttpMethod::Post},
    {"/api/1.0/SetLogLinkStatus", HttpMethod::Post},         {"/api/1.0/SetLogLinkErrors", HttpMethod::Post},
    {"/api/1.0/ClearLinkErrorReport", HttpMethod::Get},      {"/api/1.0/GetPCIDeviceList", HttpMethod::Get},
    {"/api/1.0/GetPCICapStructList", HttpMethod::Post},      {"/api/1.0/GetPCIExtCapStructList", HttpMethod::Post},
    {"/api/1.0/GetPCIRawView", HttpMethod::Post},            {"/api/1.0/PCIRawViewWrite", HttpMethod::Post},
    {"/api/1.0/GetPCITableInfo", HttpMethod::Post},          {"/api/1.0/PCITableWrite", HttpMethod::Post},
    {"/api/1.0/ExportResultsCSV", HttpMethod::Get},          {"/api/1.0/GetResultsSummary", HttpMethod::Get},
    {"/api/1.0/GetResult", HttpMethod::Get},                 {"/api/1.0/GetEyeScanData", HttpMethod::Get},
    {"/api/1.0/GetResultFile", HttpMethod::Get},             {"/api/1.0/GetPerfCounterOptions", HttpMethod::Get},
};

}  // namespace

TEST(WebBackEndRoutes, AllRoutesRegisteredInOrderWithTheirMethods) {
    GUIResourceStore store("/nonexistent");
    TestStorage storage;
    WebBackEnd backend(store, storage);
    PortHall::WireApp app;
    EXPECT_EQ(backend.RegisterServices(app), 1);
    ASSERT_EQ(app.routes().size(), kApiRoutes.size());
    for (std::size_t i = 0; i < kApiRoutes.size(); ++i) {
        EXPECT_EQ(app.routes()[i].path, kApiRoutes[i].first) << "position " << i;
        EXPECT_EQ(app.routes()[i].method, kApiRoutes[i].second) << kApiRoutes[i].first;
    }
}

struct AnswerCase {
    std::string method, path, body, expected;
};
LW_PRINT_BY_FIELD(AnswerCase, path)

class WebBackEndAnswers : public ::testing::TestWithParam<AnswerCase> {};

TEST_P(WebBackEndAnswers, AnswerIsExact) {
    const auto& c = GetParam();
    const auto response = request(running_service().port, c.method, c.path, c.body);
    EXPECT_EQ(response.status, 200) << response.body;
    EXPECT_EQ(response.body, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Words, WebBackEndAnswers,
    ::testing::Values(
        AnswerCase{"GET", "/api/GetLANEWRIGHTVersion", "", R"({"Tool_Version":"5.1.56"})"},
        AnswerCase{"GET", "/api/1.0/StopContinuousRun", "", "Continuos Run Stopped"},
        AnswerCase{"POST", "/api/1.0/StartContinuousRun", R"({"loops":1})", "webbackend stopped"},
        AnswerCase{"GET", "/api/1.0/SetInitCounters", "", "success"},
        AnswerCase{"GET", "/api/1.0/StartPerfCountersMonitor", "", "success"},
        AnswerCase{"POST", "/api/1.0/SetPerfCounterPort", R"({"index":2,"z":1})", R"({"index":2,"z":1})"},
        AnswerCase{"POST", "/api/1.0/SetCountersLogging", R"({"status":true})", R"({"status":true})"},
        AnswerCase{"POST", "/api/1.0/SetLogLinkErrors", R"({"checked":false})", R"({"checked":false})"},
        // No port exists at index 5, so the panel refuses.
        AnswerCase{"POST", "/api/1.0/SetL1Enabled", R"({"index":5,"value":true})", "Error"},
        AnswerCase{"POST", "/api/1.0/SetL0Timer", R"({"index":0,"timerIndex":1,"value":"2us"})", "Error"},
        AnswerCase{"POST", "/api/1.0/SetAdvErrorEnabled", R"({"checked":true})", "success"},
        AnswerCase{"POST", "/api/1.0/PCIRawViewWrite", R"({"SBDF":"0:4:0.0","absoluteOffset":"0x4","value":"0x7"})",
                   "success"},
        AnswerCase{"GET", "/api/1.0/GetResultsDateRange", "", R"({"DateList":[],"key":"PastResultsDateRange"})"}),
    lw_test::by_field(&AnswerCase::path));

// Accepts what the PCIe margin check accepts and runs nothing.
class CheckOnlyRunner : public TestRunner {
public:
    std::optional<std::string> check_record(const json& test, GUIResourceStore& store) const override {
        return check_pcie_margin_record(test, store);
    }
    void start(const json&, GUIResourceStore&, TestStorage&, Scheduler&) const override {}
};

// A record for 0:3:0.0 (x4, receiver 6) unless told otherwise; changes
// replace parts of "TestParams".
json margin_record(const std::string& sbdf, const json& lanes, const json& changes = json::object()) {
    json record = {{"Operation", "PCIe Margin"},
                   {"PCIeInfo", {{"SBDF", sbdf}}},
                   {"TestParams", {{"BER", "12"}, {"ErrCnt", 4}, {"Receiver", 6}, {"Lanes", lanes}}},
                   {"TestID", 99},
                   {"key", "x"}};
    record["TestParams"].update(changes);
    return record;
}

TEST(WebBackEndQueue, AddTestToQueueAnswersAndQueuesWithId) {
    auto& service = running_service();
    TestRunnerRegistry::get().add("PCIe Margin", std::make_shared<CheckOnlyRunner>());
    const std::size_t before = snapshot_test_lists(*service.storage).queued.size();
    const auto response = request(service.port, "POST", "/api/1.0/AddTestToQueue",
                                  margin_record("0:3:0.0", json::array({0, "1,2"})).dump());
    TestRunnerRegistry::get().clear();
    const auto queued = snapshot_test_lists(*service.storage).queued;
    ASSERT_EQ(queued.size(), before + 1);
    EXPECT_EQ(response.body, json({{"ErrMsg", ""}, {"OperationStatus", true}, {"TestID", queued.back()["TestID"]}}).dump());
    EXPECT_NE(queued.back()["TestID"], 99);
    EXPECT_EQ(queued.back()["Operation"], "PCIe Margin");
}

struct RefusalCase {
    const char* name;
    json record;
    std::string reason_part;
};

LW_PRINT_BY_NAME(RefusalCase)

class WebBackEndRefusals : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(WebBackEndRefusals, AnswerWhyAndLeaveTheQueueAlone) {
    auto& service = running_service();
    TestRunnerRegistry::get().add("PCIe Margin", std::make_shared<CheckOnlyRunner>());
    const std::size_t before = snapshot_test_lists(*service.storage).queued.size();
    const auto response = request(service.port, "POST", "/api/1.0/AddTestToQueue", GetParam().record.dump());
    TestRunnerRegistry::get().clear();
    const json answer = json::parse(response.body);
    EXPECT_EQ(answer["OperationStatus"], false);
    EXPECT_NE(answer["ErrMsg"].get<std::string>().find(GetParam().reason_part), std::string::npos) << answer;
    EXPECT_EQ(snapshot_test_lists(*service.storage).queued.size(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, WebBackEndRefusals,
    ::testing::Values(RefusalCase{"UnknownOperation", {{"Operation", "Destructive HVL Margin"}}, "unknown \"Operation\""},
                      RefusalCase{"EyeScanOperation", {{"Operation", "EyeScan"}}, "can't run in this version"},
                      RefusalCase{"AddressWithoutFunction", margin_record("0:3:0", json::array({0})), "is not of the form"},
                      RefusalCase{"DeviceBeyond31", margin_record("0:3:20.0", json::array({0})), "is not of the form"},
                      RefusalCase{"UnknownFunction", margin_record("0:9:0.0", json::array({0})), "no PCI function 0:9:0.0"},
                      RefusalCase{"TextLane", margin_record("0:3:0.0", json::array({"4,x"})), "\"x\" is not a lane number"},
                      RefusalCase{"NegativeLane", margin_record("0:3:0.0", json::array({-1})), "not a lane number"},
                      // Records that would run wrong or for ever: only what the device list offers.
                      RefusalCase{"SlowDevice", margin_record("0:4:0.0", json::array({0})),
                                  "0:4:0.0 doesn't support margining: PCIe device speed is lower than 16 GT/s"},
                      RefusalCase{"UnofferedBer", margin_record("0:3:0.0", json::array({0}), {{"BER", "99"}}),
                                  "\"BER\" \"99\" is not offered for 0:3:0.0"},
                      RefusalCase{"BerBeyond32Bits", margin_record("0:3:0.0", json::array({0}), {{"BER", "4294967296"}}),
                                  "is not offered"},
                      RefusalCase{"BerOfAnotherSpeed", margin_record("0:3:0.0", json::array({0}), {{"BER", "16"}}), "is not offered"},
                      RefusalCase{"ErrCntZero", margin_record("0:3:0.0", json::array({0}), {{"ErrCnt", 0}}), "outside 1 to 63"},
                      RefusalCase{"ErrCnt64", margin_record("0:3:0.0", json::array({0}), {{"ErrCnt", 64}}), "outside 1 to 63"},
                      RefusalCase{"ReceiverBeyond32Bits", margin_record("0:3:0.0", json::array({0}), {{"Receiver", 4294967302ULL}}),
                                  "Receiver 4294967302 is not offered for 0:3:0.0 (offered: 6)"},
                      RefusalCase{"UnofferedReceiver", margin_record("0:3:0.0", json::array({0}), {{"Receiver", 7}}), "Receiver 7 is not"},
                      RefusalCase{"FractionalReceiver", margin_record("0:3:0.0", json::array({0}), {{"Receiver", 6.0}}), "whole number"},
                      RefusalCase{"RepeatedLane", margin_record("0:3:0.0", json::array({0, 0, 0})), "lane 0 is named more than once"},
                      RefusalCase{"NoLanes", margin_record("0:3:0.0", json::array()), "\"Lanes\" names no lane"},
                      RefusalCase{"NullLane", margin_record("0:3:0.0", json::array({nullptr})), "lane null is not a lane number"},
                      RefusalCase{"ObjectLane", margin_record("0:3:0.0", json::array({json::object()})), "lane {} is not a lane"},
                      RefusalCase{"LanesBeyondTheTrainedWidth", margin_record("0:3:0.0", json::array({4, 5, 6, 7})),
                                  "lanes 4, 5, 6, 7 are not lanes of the trained link of 0:3:0.0 (offered: 0, 1, 2, "
                                  "3)"},
                      RefusalCase{"OneLaneBeyondTheTrainedWidth", margin_record("0:80:2.0", json::array({0, 8}), {{"Receiver", 1}}),
                                  "lane 8 is not a lane of the trained link of 0:80:2.0 (offered: 0, 1, 2, 3, 4, 5, "
                                  "6, 7)"}),
    lw_test::by_name);

struct BadBodyCase {
    std::string name, path, body;
};
LW_PRINT_BY_NAME(BadBodyCase)

class WebBackEndBadBodies : public ::testing::TestWithParam<BadBodyCase> {};

TEST_P(WebBackEndBadBodies, AreRefusedWith400AndChangeNothing) {
    auto& service = running_service();
    const std::size_t before = snapshot_test_lists(*service.storage).queued.size();
    const auto response = request(service.port, "POST", GetParam().path, GetParam().body);
    EXPECT_EQ(response.status, 400);
    EXPECT_FALSE(response.body.empty());
    EXPECT_EQ(response.body.find('\n'), std::string::npos) << "reason is one line";
    EXPECT_EQ(snapshot_test_lists(*service.storage).queued.size(), before);
}

INSTANTIATE_TEST_SUITE_P(Malformed, WebBackEndBadBodies,
                         ::testing::Values(BadBodyCase{"QueueBodyNotJson", "/api/1.0/AddTestToQueue", "{not json"},
                                           BadBodyCase{"QueueBodyArray", "/api/1.0/AddTestToQueue", "[1,2]"},
                                           BadBodyCase{"L0WithoutValue", "/api/1.0/SetL0Enabled", R"({"index":0})"},
                                           BadBodyCase{"L0ValueText", "/api/1.0/SetL0Enabled", R"({"index":0,"value":"yes"})"},
                                           BadBodyCase{"RawViewWithoutOffset", "/api/1.0/GetPCIRawView", R"({"sbdf":"0:4:0.0"})"},
                                           BadBodyCase{"ResultsByDateEmpty", "/api/1.0/GetResultsByDate", ""}),
                         lw_test::by_name);

TEST(WebBackEndStatus, UnknownPathIs404AndWrongMethodIs405) {
    const unsigned port = running_service().port;
    EXPECT_EQ(request(port, "GET", "/api/1.0/NoSuchRoute").status, 404);
    EXPECT_EQ(request(port, "POST", "/api/GetLANEWRIGHTVersion", "{}").status, 405);
    EXPECT_EQ(request(port, "GET", "/api/1.0/AddTestToQueue").status, 405);
}
