// The performance counter panel over the model's cores: slot names, events
// and ports; the monitor's rates are the traffic profile's, the log has its
// form, the monitor stops when asked; and the statistics of one counter
// across wraps.
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <regex>
#include <thread>

#include "discovery/port_mapping.h"
#include "discovery/die_test_helpers.h"
#include "discovery/fake_die_machine.h"
#include "gui/model_machine.h"
#include "hardware/crn_factory.h"
#include "panels/pcie_perf_counter_gui_interface.h"
#include "support/text_file.h"

using nlohmann::json;

namespace {

class PerfCounterPanel : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(folder);
        auto list = counters();
        family = list->GetListEntry(0u);
        panel.Initialize(std::move(list), folder.string(), [this](const json& message) {
            std::lock_guard<std::mutex> lock(mutex);
            pushes.push_back(message);
            changed.notify_all();
        });
    }
    void TearDown() override { std::filesystem::remove_all(folder); }
    std::unique_ptr<CPC_PCIEList> counters() {
        const auto dies = machine.store.get_die_list();
        const PortMapData ports = get_all_port_data(dies, machine.devices, machine.read);
        std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>> by_die;
        for (const VEX_DIE_INFO& die : dies) by_die.emplace_back(die, ports.at(die));
        auto list = std::make_unique<CPC_PCIEList>();
        list->InitPCList(by_die, [](const VEX_DIE_INFO& die) { return CRNFactory::instance()->get_crn_accessor(die); });
        return list;
    }
    // The first row (slot 0) of the core space whose NAK row watches `port`.
    int space_on(const std::string& port) {
        for (const json& row : panel.GetPCIEPerfCounterInfo())
            if (row["port"] == port && row["name"].get<std::string>().ends_with(" NAK")) return row["key"];
        return -1;
    }
    size_t pushes_with(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count_if(pushes.begin(), pushes.end(), [&](const json& m) { return m["key"] == key; });
    }

    std::filesystem::path folder = std::filesystem::temp_directory_path() / ("lw-perf-" + std::to_string(::getpid()));
    gui_test::ModelMachine machine{{}, 1e4};
    PCIEPerfCounterGUIInterface panel;
    CPerformanceCounters* family = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<json> pushes;
};

TEST_F(PerfCounterPanel, SlotsAreNamedAndOfferTheirEventsAndPorts) {
    // Die 0's first space is PCIE0_nbio0 (one port, 0:0:1.0), its second PCIE4_nbio0.
    struct Case {
        unsigned int counter;
        const char* name;
        unsigned int entries;
        bool port;
    };
    const Case cases[] = {
        {0, "PCIE0_nbio0 NAK", 1, true},          {1, "PCIE0_nbio0 LC TXCLK", 1, false},
        {2, "PCIE0_nbio0 RX TXCLK", 4, true},     {5, "PCIE0_nbio0 RX TXCLK", 4, true},
        {6, "PCIE0_nbio0 TX TXCLK", 4, true},     {13, "PCIE0_nbio0 TX TXCLK", 4, true},
        {14, "PCIE0_nbio0 RX SCLK", 4, true},     {21, "PCIE0_nbio0 RX SCLK", 4, true},
        {22, "PCIE0_nbio0 TX SCLK", 4, true},     {29, "PCIE0_nbio0 TX SCLK", 4, true},
        {30, "PCIE0_nbio0 LINK SCLK", 5, true},   {37, "PCIE0_nbio0 LINK SCLK", 5, true},
        {38, "PCIE4_nbio0 NAK", 1, true},
    };
    ASSERT_NE(family, nullptr);
    for (const Case& c : cases) {
        EXPECT_EQ(family->GetSpaceName(c.counter), c.name) << c.counter;
        EXPECT_EQ(family->GetNumberOfSelectionEntries(c.counter), c.entries) << c.counter;
        EXPECT_EQ(family->IsPortSelectionSupported(c.counter), c.port) << c.counter;
    }
    const unsigned int past = family->GetNumberOfCounters();
    EXPECT_EQ(past % 38, 0u);
    EXPECT_EQ(family->GetSpaceName(past), "NA" + std::to_string(past / 38));
    EXPECT_EQ(family->GetNumberOfSelectionEntries(past), 0u);
    std::string port;
    EXPECT_TRUE(family->GetPortSelectionEntry(0, 0, &port));
    EXPECT_EQ(port, "0:0:1.0");
    EXPECT_FALSE(family->GetPortSelectionEntry(0, 1, &port));
    EXPECT_EQ(family->GetSelectionEntry(6, 2), "2. TX Bytes");
    EXPECT_EQ(family->EventIDToNameIndex(30, 4), 4);
    // An external release hides the debug events and renumbers nothing.
    family->SetExternalReleaseVersion(true);
    EXPECT_EQ(family->GetNumberOfSelectionEntries(30), 3u);
    EXPECT_EQ(family->EventIDToNameIndex(30, 4), -1);
    EXPECT_EQ(family->GetSelectionEntry(30, 2), "2. NAKs");
}

TEST_F(PerfCounterPanel, MonitorRatesMatchTheTrafficProfileAndTheLogHasItsForm) {
    // The 400G NIC below 0:40:1.0 (profile: 40 NAKs/s, 48e6 TX TLPs/s, 12e9 TX bytes/s,
    // 52e6 RX TLPs/s, 120 replays/s); the die's TX clock runs at 1 GHz.
    const int base = space_on("0:40:1.0");
    ASSERT_GE(base, 0);
    struct Choice {
        int slot, entry;
        double rate;
    };
    // Slots 6 and 7 share one select: 7, enabled while the monitor runs,
    // resets 6, whose rates must not take the reset for a wrap.
    const Choice chosen[] = {{0, 0, 40}, {1, 0, 1e9}, {6, 2, 12e9}, {14, 1, 52e6}, {30, 1, 120}, {7, 1, 48e6}};
    const auto enable = [&](const Choice& c) {
        ASSERT_FALSE(panel.OnSelectPerfCounter(base + c.slot).empty());
        panel.OnCounterSelectionCurrentIndexChanged(c.entry);
        panel.OnEnableCounterClicked(true);
    };
    for (const Choice& c : chosen)
        if (c.slot != 7) enable(c);
    panel.OnLogToCountTxtClicked(true);
    panel.OnStopMonitorClicked();  // nothing runs: nothing happens
    EXPECT_FALSE(panel.is_running());

    std::thread monitor([this] { panel.OnStartMonitorClicked(); });
    const auto wait_for_tables = [&](size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), [&] {
            return std::count_if(pushes.begin(), pushes.end(), [](const json& m) { return m["key"] == "perfInfo"; }) >= n;
        });
    };
    EXPECT_TRUE(wait_for_tables(1)) << "the monitor pushed no table";
    enable(chosen[5]);
    EXPECT_TRUE(wait_for_tables(4)) << "the monitor pushed no table";
    EXPECT_TRUE(panel.is_running());
    panel.OnStartMonitorClicked();  // a second monitor returns at once
    panel.OnStopMonitorClicked();
    monitor.join();
    EXPECT_FALSE(panel.is_running());
    EXPECT_EQ(pushes_with("counterStarted"), 1u);
    EXPECT_EQ(pushes_with("counterStopped"), 1u);
    panel.Shutdown();
    panel.OnStartMonitorClicked();  // a start that comes after shutdown returns at once
    EXPECT_EQ(pushes_with("counterStarted"), 1u);

    const json table = panel.GetPCIEPerfCounterInfo();
    for (const Choice& c : chosen) {
        const json& row = table.at(base + c.slot);
        const double rate = std::stod(row["rate"].get<std::string>());
        EXPECT_NEAR(rate, c.rate, c.rate * 0.01) << row.dump();
        EXPECT_NEAR(std::stod(row["maxRate"].get<std::string>()), c.rate, c.rate * 0.01) << row.dump();
        EXPECT_GT(std::stoull(row["value"].get<std::string>()), 0u) << row.dump();
    }

    const std::string log = lw_test::read_text(folder / "count.txt");
    const std::string stamp = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4})";
    EXPECT_TRUE(std::regex_search(log, std::regex("^\n" + stamp + " \\(Start\\)\n"))) << log.substr(0, 200);
    EXPECT_TRUE(std::regex_search(log, std::regex("\n" + stamp + " \\(End\\)\n$"))) << log.substr(log.size() - 200);
    EXPECT_TRUE(std::regex_search(
        log, std::regex("\n" + stamp + "\nPCIE0_nbio1 TX TXCLK:  on 0:40:1\\.0: \\d+ Rate: 12000000000 Max Rate: \\d+\n")))
        << log.substr(0, 600);
}

// Statistics of one counter, without hardware, for a 48-bit and a 32-bit count.
class BareCounters : public CPC_PCIE_Cores {
public:
    explicit BareCounters(const chips::perf::CounterLayout& layout)
        : CPC_PCIE_Cores("bare", layout, chips::corvane::kPcieCores, nullptr, {port()}) {}
    static PortMap port() {
        PortMap p;
        p.core = "PCIE0_nbio0";
        return p;
    }
};

TEST(CounterStatistics, RatesPerSecondAcrossWrapsAndIdleSpans) {
    struct Case {
        const char* name;
        unsigned int bits;
        uint64_t previous, last;
        double seconds;
        uint64_t rate;
        bool change;
    };
    const uint64_t top48 = (uint64_t{1} << 48) - 1;
    const Case cases[] = {
        {"steady", 48, 1000, 3000, 2.0, 1000, true},
        {"low word carries into the high", 48, 0xFFFFFFF0ull, 0x100000000ull + 9, 0.5, 50, true},
        {"wrap past 48 bits", 48, top48 - 99, 400, 1.0, 500, true},
        {"wrap past 32 bits", 32, 0xFFFFFF00ull, 0x100, 1.0, 0x200, true},
        {"silent", 48, 77, 77, 1.0, 0, false},
    };
    for (const Case& c : cases) {
        BareCounters counter(c.bits == 32 ? chips::perf::kKX900Layout : chips::perf::kCorvaneLayout);
        const auto t0 = std::chrono::system_clock::time_point(std::chrono::seconds(100));
        const auto t1 = t0 + std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(c.seconds));
        counter.SetStatisticsInformation(0, static_cast<uint32_t>(c.previous), static_cast<uint32_t>(c.previous >> 32), t0);
        uint64_t rate = 1;
        counter.GetCounterRate(0, &rate);
        EXPECT_EQ(rate, 0u) << c.name << ": one read has no rate";
        counter.SetStatisticsInformation(0, static_cast<uint32_t>(c.last), static_cast<uint32_t>(c.last >> 32), t1);
        EXPECT_EQ(counter.Statistics(0).rate, c.rate) << c.name;
        EXPECT_EQ(counter.IsChangeDetected(0), c.change) << c.name;
        counter.SetStatisticsInformation(0, static_cast<uint32_t>(c.last), static_cast<uint32_t>(c.last >> 32), t1 + (t1 - t0));
        uint64_t max_rate = 0;
        counter.GetCounterMaxRate(0, &max_rate);
        EXPECT_EQ(max_rate, c.rate) << c.name << ": the largest rate stays";
        EXPECT_FALSE(counter.IsChangeDetected(0)) << c.name << ": the last two reads are equal";
        EXPECT_EQ(counter.Statistics(0).samples, 3u) << c.name;
        counter.CleanupStatisticsInformation(0);
        EXPECT_EQ(counter.Statistics(0).samples, 0u) << c.name;
    }
}

PortMap port_on(const std::string& core, unsigned int index) {
    PortMap p;
    p.core = core;
    p.function_index = index;
    p.device = {0, 0x40, 1, index};
    return p;
}

TEST(CounterFamilies, DieNamesPickTheirFamilyAndCoresResetThroughTheirRegisters) {
    struct Family {
        const char* die;
        const char* core;
        unsigned int counters;
        const char* name;
    };
    const Family families[] = {
        {"Corvane", "PCIE0_nbio0", 38, "Corvane Socket:0 Die:1"}, {"Dellmar", "PCIE5_nbio0", 38, "Dellmar Socket:0 Die:1"},
        {"KX900C", "PCIE1", 38, "KX900C Socket:0 Die:1-Die:1"}, {"Sabrel Crown", "PCIE0", 0, "Sabrel Crown Socket:0 Die:1"},
        {"Rusk", "PCIE0", 0, "Rusk Socket:0 Die:1"},
    };
    CPC_PCIEList list;
    auto core = std::make_shared<die_test::FakeCRN>();
    for (const Family& f : families)
        list.AddToPCList({die_test::cpu_die(f.die, 0, 1), {port_on(f.core, 2)}}, [&](const VEX_DIE_INFO&) { return core; });
    list.AddToPCList({die_test::cpu_die("Foo", 0), {}}, [&](const VEX_DIE_INFO&) { return core; });
    ASSERT_EQ(list.GetListSize(), std::size(families)) << "an unknown die has no family";
    for (unsigned int i = 0; i < list.GetListSize(); ++i) {
        EXPECT_EQ(list.GetListEntry(i)->GetNumberOfCounters(), families[i].counters) << families[i].die;
        EXPECT_EQ(list.GetListEntry(i)->GetName(), families[i].name);
    }

    // Corvane's PCIE0_nbio0, its port at function index 2.
    CPerformanceCounters& corvane = *list.GetListEntry(0u);
    const unsigned int base = chips::corvane::kPcieCores[0].core_base;
    struct Reset {
        unsigned int slot, entry;
        std::vector<std::pair<unsigned int, unsigned int>> writes;  // offset, value
    };
    core->registers[base + 72] = 0x40;  // bits the reset must keep
    const Reset resets[] = {
        {0, 0, {{72, 0x241}, {72, 0x240}}},  // bit 0 toggled, port 2 in bits 11:8
        {1, 0, {{72, 0x242}, {72, 0x240}}},
        {2, 2, {{516, 0}, {516, 0x20002}}},  // event 2 in bits 7:0, port in 19:16
        {5, 1, {{528, 0}, {528, 0x200100}}},  // odd slot: bits 15:8 and 23:20
        {16, 3, {{2196, 0}, {2196, 0x20003}}},
        {37, 4, {{2316, 0}, {2316, 0x200400}}},
    };
    for (const Reset& r : resets) {
        core->writes.clear();
        ASSERT_TRUE(corvane.SetEntry(r.slot, r.entry)) << r.slot;
        corvane.InitCounter(r.slot);
        std::vector<std::pair<unsigned int, unsigned int>> offsets;
        for (const auto& [address, value] : core->writes) offsets.emplace_back(address - base, value);
        EXPECT_EQ(offsets, r.writes) << "slot " << r.slot;
    }
    core->registers[base + 56] = 7;
    core->registers[base + 0xC00] = 1;
    uint32_t low = 0, high = 0;
    EXPECT_EQ(corvane.GetCounter(0, &low, &high), 1);
    EXPECT_EQ(corvane.LastValue(0), 0x100000007u);
    EXPECT_EQ(corvane.GetCounter(corvane.GetNumberOfCounters(), &low, &high), 0);
}


// What an operator set up comes back after a restart; a line that no longer
// fits the machine is dropped rather than pointing a row elsewhere. A read
// leaves the table and the commands behind it in their files.
TEST(CounterPanelFiles, SetUpSurvivesARestartAndReadsLeaveTheirFiles) {
    const auto folder = std::filesystem::temp_directory_path() / ("lw-perf-files-" + std::to_string(::getpid()));
    auto core = std::make_shared<die_test::FakeCRN>();
    const auto counters = [&] {  // one core with two ports
        auto list = std::make_unique<CPC_PCIEList>();
        list->AddToPCList({die_test::cpu_die("Corvane", 0, 1), {port_on("PCIE0_nbio0", 1), port_on("PCIE0_nbio0", 2)}},
                          [&](const VEX_DIE_INFO&) { return core; });
        return list;
    };
    PCIEPerfCounterGUIInterface panel;
    panel.Initialize(counters(), folder.string(), nullptr);
    panel.OnSelectPerfCounter(6);
    panel.OnPortSelectionCurrentIndexChanged(1);
    panel.OnCounterSelectionCurrentIndexChanged(2);
    panel.OnEnableCounterClicked(true);
    panel.OnSelectPerfCounter(30);
    panel.OnCounterSelectionCurrentIndexChanged(1);  // chosen, left off
    panel.OnSelectPerfCounter(0);
    panel.OnEnableCounterClicked(true);
    panel.OnEnableCounterClicked(false);  // on, then off again: stays off
    panel.OnLogToCountTxtClicked(true);
    panel.OnDecimalDisplayClicked(false);
    const json before = panel.GetPCIEPerfCounterInfo();
    // Lines to skip: a port and an event no longer offered, another machine's
    // row names, a row past the table, noise.
    std::ofstream(folder / "PCIePerfCounterPortSel.txt", std::ios::app)
        << "8\tPCIE0_nbio0 TX TXCLK\t9:9:9.9\n" << "7\tOther TX TXCLK\t0:40:1.2\n";
    std::ofstream(folder / "PCIePerfCounterSelections.txt", std::ios::app)
        << "14\tPCIE0_nbio0 RX SCLK\t1\t9. Gone\n" << "1\tWrong name\t1\t0. x\n" << "99999\tx\t1\t0. x\nnot\ta line\n";

    PCIEPerfCounterGUIInterface restarted;
    restarted.Initialize(counters(), folder.string(), nullptr);
    EXPECT_EQ(restarted.GetPCIEPerfCounterInfo(), before);
    EXPECT_EQ(restarted.GetOptions(),
              (json{{"decimalDisplay", false}, {"logToCountTxt", true}, {"changesOnly", false}, {"running", false}}));
    struct Kept {
        int row;
        unsigned int port, event;
        bool enabled;
    };
    for (const Kept& k : {Kept{6, 1, 2, true}, Kept{30, 0, 1, false}, Kept{8, 0, 0, false}, Kept{7, 0, 0, false},
                          Kept{14, 0, 0, false}, Kept{1, 0, 0, false}, Kept{0, 0, 0, false}}) {
        const json s = restarted.OnSelectPerfCounter(k.row);
        EXPECT_EQ(s["selectedPort"], k.port) << k.row;
        EXPECT_EQ(s["selectedCounter"], k.event) << k.row;
        EXPECT_EQ(s["enabled"], k.enabled) << k.row;
    }

    core->registers[chips::corvane::kPcieCores[0].core_base + 0x20] = 5;  // any register: the read must show a number
    restarted.OnReadCountersClicked();
    const json row = restarted.GetPCIEPerfCounterInfo()[6];
    EXPECT_EQ(row["port"], "0:40:1.2");
    EXPECT_TRUE(row["value"].get<std::string>().starts_with("0x")) << "hexadecimal display restored";
    const std::string numbers = lw_test::read_text(folder / "perfcnt.int"),
                      commands = lw_test::read_text(folder / "perfCommand.txt");
    EXPECT_EQ(lw_test::read_text(folder / "perfcnt.txt"), "Space\tName\tPort(S:B:D.F)\tValue\tRate (/s)\tMax Rate (/s)\tEnabled\n" +
                               row["space"].get<std::string>() + "\tPCIE0_nbio0 TX TXCLK\t0:40:1.2\t" +
                               row["value"].get<std::string>() + "\t" + row["rate"].get<std::string>() + "\t" +
                               row["maxRate"].get<std::string>() + "\tYes\n");
    EXPECT_TRUE(std::regex_match(numbers, std::regex("6\t\\d+\t0\t0\t1\n"))) << numbers;
    for (const char* command : {"\tEnable row 6 (PCIE0_nbio0 TX TXCLK)\n", "\tDisable row 0 (PCIE0_nbio0 NAK)\n",
                                "\tEvent of row 30 (PCIE0_nbio0 LINK SCLK): 1. ", "\tPort of row 6 (PCIE0_nbio0 TX TXCLK): 0:40:1.2\n",
                                "\tLogToCountTxt on\n", "\tRead counters\n"})
        EXPECT_NE(commands.find(command), std::string::npos) << command << " in\n" << commands;
    std::filesystem::remove_all(folder);
}

}  // namespace
