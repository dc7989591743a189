// The performance counter panel over the model's cores: the monitor's rates
// are the traffic profile's, the log has its form, the monitor stops when
// asked; and the statistics of one counter across a wrap.
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "discovery/port_mapping.h"
#include "gui/gui_resource_store.h"
#include "hardware/crn_factory.h"
#include "hardware/system_facts.h"
#include "panels/pcie_perf_counter_gui_interface.h"
#include "simulator/platform.h"

using nlohmann::json;

namespace {

class PerfCounterPanel : public ::testing::Test {
protected:
    void SetUp() override {
        platform = std::make_unique<sim::Platform>(sim::load_platform("", std::nullopt, 1e4));
        platform->install();
        CRNFactory::initalize(platform->read_pci(), platform->write_pci());
        store = std::make_unique<GUIResourceStore>(folder.string());
        auto devices = platform->model().present_functions();
        store->store_pcie_device_list(devices, platform->read_pci(), platform->write_pci());
        const auto dies = store->get_die_list();
        const PortMapData ports = get_all_port_data(dies, devices, platform->read_pci());
        std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>> by_die;
        for (const VEX_DIE_INFO& die : dies) by_die.emplace_back(die, ports.at(die));
        auto list = std::make_unique<CPC_PCIEList>();
        list->InitPCList(by_die, [](const VEX_DIE_INFO& die) { return CRNFactory::instance()->get_crn_accessor(die); });
        panel.Initialize(std::move(list), (folder / "count.txt").string(), [this](const json& message) {
            std::lock_guard<std::mutex> lock(mutex);
            pushes.push_back(message);
            changed.notify_all();
        });
    }
    void TearDown() override {
        reset_all_port_data();
        CRNFactory::reset();
        set_system_facts(nullptr);
        std::filesystem::remove_all(folder);
    }
    // Rows of the cores' counters on the port that leads to `port`.
    std::vector<int> rows_on(const std::string& port) {
        std::vector<int> rows;
        for (const json& row : panel.GetPCIEPerfCounterInfo())
            if (row["port"] == port) rows.push_back(row["key"]);
        return rows;
    }
    size_t pushes_with(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count_if(pushes.begin(), pushes.end(), [&](const json& m) { return m["key"] == key; });
    }

    std::filesystem::path folder = std::filesystem::temp_directory_path() / ("lw-perf-" + std::to_string(::getpid()));
    std::unique_ptr<sim::Platform> platform;
    std::unique_ptr<GUIResourceStore> store;
    PCIEPerfCounterGUIInterface panel;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<json> pushes;
};

TEST_F(PerfCounterPanel, MonitorRatesMatchTheTrafficProfileAndTheLogHasItsForm) {
    // The 400G NIC below 0:40:1.0 (profile: 40 NAKs/s, 12e9 TX bytes/s, 52e6 RX TLPs/s, 120 replays/s).
    const std::vector<int> rows = rows_on("0:40:1.0");
    ASSERT_EQ(rows.size(), 4u);
    const std::pair<int, double> chosen[] = {{-1, 40}, {2, 12e9}, {1, 52e6}, {4, 120}};  // event per row, rate
    for (size_t i = 0; i < rows.size(); ++i) {
        const json settings = panel.OnSelectPerfCounter(rows[i]);
        ASSERT_FALSE(settings.empty());
        if (chosen[i].first >= 0) panel.OnCounterSelectionCurrentIndexChanged(chosen[i].first);
        panel.OnEnableCounterClicked(true);
    }
    panel.OnLogToCountTxtClicked(true);
    panel.OnStopMonitorClicked();  // nothing runs: nothing happens
    EXPECT_FALSE(panel.is_running());

    std::thread monitor([this] { panel.OnStartMonitorClicked(); });
    {
        std::unique_lock<std::mutex> lock(mutex);
        const bool pushed = changed.wait_for(lock, std::chrono::seconds(60), [&] {
            return std::count_if(pushes.begin(), pushes.end(), [](const json& m) { return m["key"] == "perfInfo"; }) >= 3;
        });
        ASSERT_TRUE(pushed) << "the monitor pushed no table";
    }
    EXPECT_TRUE(panel.is_running());
    panel.OnStartMonitorClicked();  // a second monitor returns at once
    panel.OnStopMonitorClicked();
    monitor.join();
    EXPECT_FALSE(panel.is_running());
    EXPECT_EQ(pushes_with("counterStarted"), 1u);
    EXPECT_EQ(pushes_with("counterStopped"), 1u);

    const json table = panel.GetPCIEPerfCounterInfo();
    for (size_t i = 0; i < rows.size(); ++i) {
        const json& row = table.at(rows[i]);
        const double rate = std::stod(row["rate"].get<std::string>());
        EXPECT_NEAR(rate, chosen[i].second, chosen[i].second * 0.01) << row.dump();
        EXPECT_GT(std::stoull(row["value"].get<std::string>()), 0u) << row.dump();
    }

    std::ifstream in(folder / "count.txt");
    std::stringstream text;
    text << in.rdbuf();
    const std::string log = text.str();
    const std::string stamp = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4})";
    EXPECT_TRUE(std::regex_search(log, std::regex("^\n" + stamp + " \\(Start\\)\n"))) << log.substr(0, 200);
    EXPECT_TRUE(std::regex_search(log, std::regex("\n" + stamp + " \\(End\\)\n$"))) << log.substr(log.size() - 200);
    EXPECT_TRUE(std::regex_search(
        log, std::regex("\n" + stamp + "\nPCIE0_nbio1 EVENT1:  on 0:40:1\\.0: \\d+ Rate: 12000000000 Max Rate: \\d+\n")))
        << log.substr(0, 600);
}

// The base class's bookkeeping over a 48-bit count, without hardware.
class FixedCounter : public CPerformanceCounters {
public:
    FixedCounter() { CreateStatisticsStructure(1); }
    std::string GetName() const override { return "fixed"; }
    unsigned int GetNumberOfCounters() const override { return 1; }
    std::string GetSpaceName(unsigned int) const override { return "c"; }
    bool IsPortSelectionSupported(unsigned int) const override { return false; }
    std::vector<std::string> GetPortSelectionEntries(unsigned int) const override { return {}; }
    unsigned int GetNumberOfSelectionEntries(unsigned int) const override { return 1; }
    std::string GetSelectionEntry(unsigned int, unsigned int) const override { return "0. x"; }
    void InitCounter(unsigned int c) override { CleanupStatisticsInformation(c); }
    void GetCounter(unsigned int, uint32_t*, uint32_t*) override {}
    unsigned int GetCounterBits() const override { return 48; }
};

TEST(CounterStatistics, RatesPerSecondAcrossWrapsAndIdleSpans) {
    struct Case {
        const char* name;
        uint64_t previous, last;
        double seconds, rate;
        bool change;
    };
    const uint64_t top = (uint64_t{1} << 48) - 1;
    const Case cases[] = {
        {"steady", 1000, 3000, 2.0, 1000, true},
        {"wrap past 48 bits", top - 99, 400, 1.0, 500, true},
        {"silent", 77, 77, 1.0, 0, false},
        {"high word carries", 0xFFFFFFFFull, 0x100000000ull + 9, 0.5, 20, true},
    };
    for (const Case& c : cases) {
        FixedCounter counter;
        const auto t0 = std::chrono::system_clock::time_point(std::chrono::seconds(100));
        const auto t1 = t0 + std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(c.seconds));
        counter.SetStatisticsInformation(0, static_cast<uint32_t>(c.previous), static_cast<uint32_t>(c.previous >> 32), t0);
        EXPECT_EQ(counter.Statistics(0).rate, 0) << c.name << ": one read has no rate";
        counter.SetStatisticsInformation(0, static_cast<uint32_t>(c.last), static_cast<uint32_t>(c.last >> 32), t1);
        EXPECT_DOUBLE_EQ(counter.Statistics(0).rate, c.rate) << c.name;
        EXPECT_DOUBLE_EQ(counter.Statistics(0).max_rate, c.rate) << c.name;
        EXPECT_EQ(counter.IsChangeDetected(0), c.change) << c.name;
        EXPECT_EQ(counter.Statistics(0).samples, 2u) << c.name;
        counter.InitCounter(0);
        EXPECT_EQ(counter.Statistics(0).samples, 0u) << c.name;
    }
}

}  // namespace
