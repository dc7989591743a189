// The multi-pass margin engine over the platform model, and the rules by
// which it picks where a pass starts and what a side's margin offset is.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

#include "discovery/pci_capability.h"
#include "margin_pcie/pcie_margin_multi_pass.h"
#include "support/model_profile.h"

using nlohmann::json;
using PCIE::PCIEMarginMultiPass;
using OffsetList = std::vector<PCIEMarginMultiPass::OffsetData>;

namespace {

// The default machine's 32 GT/s x16 NIC behind slot3, margined at its own
// receiver: 32 timing steps up to 40 % UI, 64 voltage steps up to 150 mV.
constexpr unsigned kBus = 0x41, kReceiver = 6, kLanes = 16;
constexpr double kTimingStepUI = 40.0 / 32 / 100, kVoltageStepV = 150.0 / 64 / 1000;

// Noise 0: edges exactly as the profile gives them.
lw_test::Profile nic_profile(unsigned max_lanes, bool ind_error_sampler) {
    return lw_test::Profile().margining("nic-400g", {{"max_lanes", max_lanes},
                                                     {"ind_error_sampler", ind_error_sampler},
                                                     {"eye", {{"noise", 0}}}});
}

// The profile's eye of one lane of the NIC: timing in UI, voltage in V.
struct Eye {
    double left, right, up, down;
};
Eye nic_eye(unsigned lane) {
    if (lane == 3) return {0.12, 0.13, 0.017, 0.030};
    return {0.19, 0.20, 0.029, 0.030};
}

TEST(MarginOffsetReduction, UsesOnlyFullDwellAndSkipsOffsetsThatAlsoFailed) {
    struct Case {
        const char* what;
        OffsetList list;
        unsigned expected;
    };
    const unsigned full = 1000, threshold = 2;
    const Case cases[] = {
        {"nothing measured", {}, 0},
        {"no good offset at full dwell", {{0, 9, full}, {1, 50, full}}, 0},
        {"50 ms passes don't count", {{0, 0, full}, {1, 0, full}, {2, 0, 50}, {3, 0, 50}, {4, 9, 50}}, 1},
        {"passed at 50 ms, failed at full dwell", {{5, 0, 50}, {3, 0, full}, {5, 7, full}}, 3},
        {"counts at the threshold pass", {{3, 2, full}, {4, 3, full}}, 3},
        {"good and bad at full dwell: the lower good one", {{2, 0, full}, {3, 0, full}, {4, 0, full}, {4, 8, full}}, 3},
        {"every good one also bad: the smallest", {{2, 0, full}, {3, 0, full}, {2, 9, full}, {3, 9, full}}, 2},
        {"cut short by its errors: failed at the full dwell", {{3, 0, full}, {4, 0, full}, {4, 9, 30, full}}, 3},
    };
    for (const Case& c : cases) EXPECT_EQ(PCIEMarginMultiPass::margin_offset_of(c.list, full, threshold), c.expected) << c.what;
}

TEST(StartOffset, IsTheLastCleanOffsetBelowTheFirstFailure) {
    struct Case {
        const char* what;
        OffsetList list;
        unsigned threshold, expected;
    };
    const Case cases[] = {
        {"empty list", {}, 0, 0},
        {"fails at 3 with threshold 5", {{3, 6, 50}, {0, 0, 50}, {1, 0, 50}, {2, 0, 50}}, 5, 2},
        {"errors within the threshold are clean", {{4, 9, 50}, {2, 0, 50}, {3, 5, 50}}, 5, 3},
        {"a clean offset above a failure doesn't count", {{1, 0, 50}, {2, 9, 50}, {3, 0, 1000}}, 0, 1},
        {"fails at once", {{0, 9, 50}}, 0, 0},
    };
    for (const Case& c : cases) EXPECT_EQ(PCIEMarginMultiPass::start_offset_of(c.list, c.threshold), c.expected) << c.what;
}

// Gives every NIC lane's step commands a sequence number, and holds a lane's
// first step until every lane of its expected batch has sent its own, so
// lanes meant to run together must really be running at once.
class StepRecorder : public WritePCI {
public:
    StepRecorder(std::shared_ptr<WritePCI> inner, unsigned capability, unsigned batch)
        : _inner(std::move(inner)), _capability(capability), _batch(batch) {}

    bool write32(unsigned s, unsigned b, unsigned d, unsigned f, unsigned offset, unsigned value) const override {
        const unsigned first = _capability + 8;
        const unsigned type = (value >> 3) & 7;
        if (b == kBus && offset >= first && offset < first + 4 * kLanes && (type == 3 || type == 4)) {
            const unsigned lane = (offset - first) / 4;
            std::unique_lock lock(_mutex);
            if (_steps.find(lane) == _steps.end()) {
                _started.insert(lane);
                _changed.notify_all();
                const unsigned from = lane / _batch * _batch;
                auto batch_started = [&] {
                    for (unsigned l = from; l < from + _batch && l < kLanes; ++l)
                        if (!_started.count(l)) return false;
                    return true;
                };
                // Bounded so a wrong batch fails the test instead of hanging it.
                if (!_changed.wait_for(lock, std::chrono::seconds(10), batch_started)) _gate_timeouts++;
            }
            _steps[lane].push_back(_sequence++);
        }
        return _inner->write32(s, b, d, f, offset, value);
    }
    bool write16(unsigned s, unsigned b, unsigned d, unsigned f, unsigned o, unsigned v) const override {
        return _inner->write16(s, b, d, f, o, v);
    }
    bool write8(unsigned s, unsigned b, unsigned d, unsigned f, unsigned o, unsigned v) const override {
        return _inner->write8(s, b, d, f, o, v);
    }

    // Lanes grouped by batches, each batch's steps all after the last one's.
    std::vector<std::set<unsigned>> batches_in_order() const {
        std::vector<std::pair<unsigned, unsigned>> spans;  // (first, last) step of each lane
        for (const auto& [lane, seq] : _steps) spans.push_back({seq.front(), seq.back()});
        std::vector<std::set<unsigned>> batches;
        std::vector<unsigned> order;
        for (const auto& [lane, seq] : _steps) order.push_back(lane);
        std::sort(order.begin(), order.end(), [&](unsigned a, unsigned b) { return _steps.at(a).front() < _steps.at(b).front(); });
        unsigned last = 0;
        for (const unsigned lane : order) {
            const auto& seq = _steps.at(lane);
            if (batches.empty() || seq.front() > last) batches.emplace_back();
            batches.back().insert(lane);
            last = std::max(last, seq.back());
        }
        return batches;
    }
    unsigned gate_timeouts() const { return _gate_timeouts; }

private:
    std::shared_ptr<WritePCI> _inner;
    unsigned _capability, _batch;
    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    mutable std::set<unsigned> _started;
    mutable std::map<unsigned, std::vector<unsigned>> _steps;
    mutable unsigned _sequence = 0, _gate_timeouts = 0;
};

class OverModel : public ::testing::Test {
protected:
    void load(const lw_test::Profile& profile) {
        model.reset();
        model.emplace(profile);
        access.read = model->read();
        access.write = model->write();
        std::string ignored;
        PCIE::DetectThisPCIEExtendedCapability(PCIE::Device_ID(0, kBus, 0, 0), *access.read)
            .detect(PCIE::LANE_MARGINING_AT_RECEIVER, capability, ignored);
    }
    PCIEMarginMultiPass::InitParams params(unsigned dwell = 1000) const {
        PCIEMarginMultiPass::InitParams p;
        p.bus = kBus;
        p.receiver = kReceiver;
        p.dwell_time = dwell;
        return p;
    }
    bool run(const PCIEMarginMultiPass::InitParams& p, json& results) {
        PCIE::DumpPCIEMarginDataToConsole console(false);
        return PCIEMarginMultiPass({}, {}, p, console, access).margin(results, 1);
    }
    // The receiver's SampleCount report: bits sampled at the lane's offset.
    unsigned sample_count(unsigned lane) const {
        PCIE::ExecuteLaneMarginCmd cmd(PCIE::Device_ID(0, kBus, 0, 0), lane, kReceiver, *access.read, *access.write);
        PCIE::ExecuteLaneMarginCmd::MarginLaneData out;
        std::string err;
        EXPECT_TRUE(cmd.send_cmd_and_read_response(1, 0x8F, out, err)) << err;
        return out._margin_payload;
    }

    std::optional<lw_test::BootedModel> model;
    PCIE::MarginEngineAccess access;
    unsigned capability = 0;
};

TEST_F(OverModel, MarginsMatchTheProfileEyeWithinOneStep) {
    for (const auto method : {PCIEMarginMultiPass::WALKBACK, PCIEMarginMultiPass::STEPTHROUGH}) {
        SCOPED_TRACE(method == PCIEMarginMultiPass::WALKBACK ? "walkback" : "stepthrough");
        load(nic_profile(31, true));
        auto p = params(0);
        p.BER = 12;
        p.margin_method = method;
        json results = json::array();
        ASSERT_TRUE(run(p, results)) << results.dump(2);
        ASSERT_EQ(results.size(), kLanes);
        EXPECT_EQ(results[0]["DwellTime"], 93687);
        EXPECT_EQ(results[0]["ErrorPresent"], false);
        EXPECT_EQ(results[0]["SpeedEnd"], "32 GT/s");
        for (unsigned position = 0; position < kLanes; ++position) {
            const json& lane = results[position];
            const Eye eye = nic_eye(lane["LanePCIeNo"].get<unsigned>());
            EXPECT_EQ(lane["LaneSerialID"], position);
            EXPECT_NEAR(lane["PhaseLeftMargin"].get<double>(), eye.left, kTimingStepUI) << position;
            EXPECT_NEAR(lane["PhaseRightMargin"].get<double>(), eye.right, kTimingStepUI) << position;
            EXPECT_NEAR(lane["VoltTopMargin"].get<double>(), eye.up, kVoltageStepV) << position;
            EXPECT_NEAR(lane["VoltBotomMargin"].get<double>(), eye.down, kVoltageStepV) << position;
            EXPECT_LE(lane["PhaseLeftMargin"].get<double>(), eye.left) << "a margin never passes the edge";
        }
    }
}

// Early exit ends a failing offset's dwell once its errors show. The margins
// must be those of the full dwell on every lane and side, the failing offset's
// entry must carry the time really spent there, and the offset that holds
// must still have sat out the full dwell.
TEST_F(OverModel, EarlyExitGivesTheFullDwellMarginsAndRecordsTheDwellSpent) {
    constexpr unsigned kDwell = 5000;
    const std::pair<const char*, const char*> sides[] = {{"PhaseLeftOffset", "PhaseLeftErrorMap"},
                                                         {"PhaseRightOffset", "PhaseRightErrorMap"},
                                                         {"VoltTopOffset", "VoltTopErrorMap"},
                                                         {"VoltBottomOffset", "VoltBottomErrorMap"}};
    json runs[2];
    for (const bool early : {false, true}) {
        load(nic_profile(31, true));
        auto p = params(kDwell);
        p.early_exit = early;
        runs[early] = json::array();
        ASSERT_TRUE(run(p, runs[early]));
        ASSERT_EQ(runs[early].size(), kLanes);
    }
    // The dwell spent at offset of a side's error map, and its count; 0, 0 when absent.
    auto entry = [](const json& map, unsigned offset, bool full) {
        for (const json& e : map)
            if (e["Offset"] == offset && (e["DwellTime"] == kDwell) == full)
                return std::pair{e["DwellTime"].get<unsigned>(), e["ErrCnt"].get<unsigned>()};
        return std::pair{0u, 0u};
    };
    for (unsigned lane = 0; lane < kLanes; ++lane)
        for (const auto& [offset_key, map_key] : sides) {
            SCOPED_TRACE(std::string(offset_key) + " lane " + std::to_string(lane));
            const json& full = runs[false][lane];
            const json& early = runs[true][lane];
            const unsigned margin = full[offset_key];
            EXPECT_EQ(early[offset_key], margin);
            EXPECT_EQ(entry(early[map_key], margin, true), std::pair(kDwell, 0u)) << "the holding offset's full dwell";
            EXPECT_GT(entry(full[map_key], margin + 1, true).second, 0u) << "full dwell: the failing offset";
            EXPECT_EQ(entry(early[map_key], margin + 1, true), std::pair(0u, 0u)) << "early: not at the full dwell";
            const auto [spent, count] = entry(early[map_key], margin + 1, false);
            EXPECT_GT(count, 0u);
            EXPECT_GT(spent, 0u);
            EXPECT_LE(spent, 100u) << "errors show within the setup time and a few ms";
        }
}

TEST_F(OverModel, LanesRunInBatchesOfMaxLanesPlusOne) {
    struct Case {
        const char* what;
        unsigned max_lanes;
        bool ind_error_sampler;
        PCIEMarginMultiPass::LaneMode mode;
        unsigned batch;
    };
    const Case cases[] = {
        {"MaxLanes 3, parallel", 3, true, PCIEMarginMultiPass::PARALLEL, 4},
        {"sequential", 3, true, PCIEMarginMultiPass::SEQUENTIAL, 1},
        {"no independent error sampler", 3, false, PCIEMarginMultiPass::PARALLEL, 1},
        {"MaxLanes 0", 0, true, PCIEMarginMultiPass::PARALLEL, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        load(nic_profile(c.max_lanes, c.ind_error_sampler));
        auto recorder = std::make_shared<StepRecorder>(access.write, capability, c.batch);
        access.write = recorder;
        std::mutex mutex;
        std::vector<PCIE::MarginProgress> reports;
        access.progress = [&](const PCIE::MarginProgress& progress) {
            std::lock_guard lock(mutex);
            reports.push_back(progress);
        };
        auto p = params(200);
        p.lane_mode = c.mode;
        json results = json::array();
        ASSERT_TRUE(run(p, results));

        EXPECT_EQ(recorder->gate_timeouts(), 0u) << "lanes of one batch didn't run at once";
        const auto batches = recorder->batches_in_order();
        ASSERT_EQ(batches.size(), kLanes / c.batch);
        for (unsigned b = 0; b < batches.size(); ++b) {
            std::set<unsigned> expected;
            for (unsigned lane = b * c.batch; lane < (b + 1) * c.batch; ++lane) expected.insert(lane);
            EXPECT_EQ(batches[b], expected) << "batch " << b;
        }
        ASSERT_EQ(reports.size(), kLanes * 4 * 2) << "one report as each side starts, one as it ends";
        EXPECT_EQ(reports.back().lanes_done, kLanes);
        EXPECT_EQ(reports.back().sides_done, kLanes * 4);
        EXPECT_EQ(reports.back().sides_total, kLanes * 4);
        // The time left comes from the plan and only ever counts down.
        for (std::size_t i = 1; i < reports.size(); ++i)
            ASSERT_LE(reports[i].remaining_seconds.value(), reports[i - 1].remaining_seconds.value()) << "report " << i;
        EXPECT_GT(reports.front().remaining_seconds.value(), 0.0);
        EXPECT_EQ(reports.back().remaining_seconds.value(), 0.0);
        access.progress = nullptr;
    }
}

TEST_F(OverModel, StopEndsTheRunWithEveryLaneAtNormalSettings) {
    load(nic_profile(3, true));
    access.progress = [this](const PCIE::MarginProgress&) { access.stop.request_stop(); };
    json results = json::array();
    EXPECT_FALSE(run(params(5000), results));
    ASSERT_EQ(results.size(), kLanes);
    EXPECT_EQ(results[0]["ErrorPresent"], true);
    EXPECT_EQ(results[0]["ErrorMsg"].get<std::string>().rfind("Margin stopped: the service is shutting down", 0), 0u);
    EXPECT_FALSE(results[kLanes - 1].contains("PhaseLeftMargin")) << "a later batch started after the stop";

    // A lane left margining keeps sampling; one at normal settings with its
    // log cleared has sampled nothing.
    for (unsigned lane = 0; lane < kLanes; ++lane) sample_count(lane);
    model->platform->model().clock().sleep_for(std::chrono::seconds(1));
    for (unsigned lane = 0; lane < kLanes; ++lane) EXPECT_EQ(sample_count(lane), 0u) << "lane " << lane;
}

TEST_F(OverModel, PreCheckFailuresEndTheRunWithTheirReason) {
    struct Case {
        const char* what;
        void (*change)(json& nic);
        std::string reason;
    };
    const Case cases[] = {
        {"link at 8 GT/s", [](json& nic) { nic["speed"] = 8; }, "PCIe device speed is lower than 16 GT/s"},
        {"no margining capability", [](json& nic) { nic["functions"][0]["capabilities"] = {{"lane_margining", false}}; },
         ". PCIe device lacking Lane Margining feature Capability."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        lw_test::Profile profile = nic_profile(31, true);
        c.change(profile.at("nic-400g"));
        load(profile);
        json results = json::array();
        EXPECT_FALSE(run(params(), results));
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0]["ErrorPresent"], true);
        const std::string message = results[0]["ErrorMsg"];
        EXPECT_EQ(message.rfind("  Device support for margin capability failed. Reason: ", 0), 0u) << message;
        EXPECT_NE(message.find(c.reason), std::string::npos) << message;
    }
}

TEST_F(OverModel, MappedPortTakesItsLanesFromThePortMapAndCarriesItsSilicon) {
    // slot3: the 32 GT/s x16 root port of socket 0 on SerDes link P2, whose
    // core lanes reach the link reversed.
    load(nic_profile(31, true).margining("slot3", {{"eye", {{"noise", 0}}}}));

    PCIEMarginMultiPass::InitParams p;
    p.bus = 0x40;
    p.device = 1;
    p.receiver = 1;
    p.dwell_time = 200;
    PCIE::DumpPCIEMarginDataToConsole console(false);
    json results = json::array();
    ASSERT_TRUE(PCIEMarginMultiPass(model->devices, model->dies, p, console, access).margin(results, 1)) << results.dump(2);
    ASSERT_EQ(results.size(), kLanes);
    for (unsigned position = 0; position < kLanes; ++position) {
        const json& lane = results[position];
        SCOPED_TRACE(position);
        EXPECT_EQ(lane["LanePCIeNo"], position);
        EXPECT_EQ(lane["VEXDevicePresent"], true);
        EXPECT_EQ(lane["SERDES"], "P2");
        EXPECT_EQ(lane["PCIeController"], "PCIE0_nbio1");
        EXPECT_EQ(lane["Socket"], 0);
        EXPECT_EQ(lane["LanePhysicalID"], kLanes - 1 - position);
        // The receiver's adaptation comes from the PHY's lane training record.
        EXPECT_EQ(lane["RxEqValid"], true);
        EXPECT_TRUE(lane.contains("ctleidx") && lane.contains("H0") && lane.contains("TxPresetGot"));
        EXPECT_NEAR(lane["PhaseLeftMargin"].get<double>(), 0.20, kTimingStepUI);
        EXPECT_NEAR(lane["VoltBotomMargin"].get<double>(), 0.028, kVoltageStepV);
    }
}

}  // namespace
