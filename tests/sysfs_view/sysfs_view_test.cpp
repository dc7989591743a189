// The default machine seen through its sysfs view: what lspci and setpci
// make of it, and the product's own sysfs backend run end to end over it.
// Skipped where FUSE or pciutils are missing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "gui/gui_pcie_get_device.h"
#include "gui/gui_resource_store.h"
#include "hardware/crn_factory.h"
#include "hardware/pci_std.h"
#include "margin_pcie/pcie_margin_multi_pass.h"
#include "service/startup_inventory.h"
#include "simulator/config_space.h"
#include "simulator/platform.h"
#include "support/lspci.h"
#include "support/program.h"
#include "sysfs_view/sysfs_view.h"

using nlohmann::json;

namespace {

using lw_test::run_program;
using Output = lw_test::ProgramOutput;

class ModelSysfsView : public ::testing::Test {
protected:
    // The view makes its folder and removes it again.
    static void SetUpTestSuite() {
        platform = new sim::Platform(sim::load_platform("", std::nullopt, 1e5));
        try {
            view = new sim::SysfsView(platform->model_ptr(), "/tmp/lw-sysfs-view-" + std::to_string(::getpid()));
        } catch (const sim::SysfsViewError& error) {
            skip_reason = std::string("FUSE is not usable here: ") + error.what();
        }
        if (view && run_program({"lspci", "--version"}).status == 127) skip_reason = "lspci is not installed (package pciutils)";
    }
    static void TearDownTestSuite() {
        delete view;
        delete platform;
    }
    void SetUp() override {
        if (!skip_reason.empty()) GTEST_SKIP() << skip_reason;
        platform->install();
    }
    void TearDown() override {
        ReadPCIStd::set_sysfs_root("/sys/bus/pci/devices");
        WritePCIStd::set_sysfs_root("/sys/bus/pci/devices");
        GUIPCIEGetDevice::forget_cached_list();
        reset_all_port_data();
        CRNFactory::reset();
        set_system_facts(nullptr);
        set_gfx_accessor_maker(nullptr);
    }

    static Output tool(const std::string& name, std::vector<std::string> args) {
        args.insert(args.begin(), {name, "-A", "linux-sysfs", "-O", "sysfs.path=" + view->pci_path()});
        return run_program(args);
    }
    static unsigned model_read(const PCIDeviceDetails& f, unsigned offset, unsigned width) {
        unsigned value = 0;
        platform->model().config_read(f.segment, f.bus, f.device, f.function, offset, width, value);
        return value;
    }
    // The function's extended capability IDs, read in process.
    static std::set<unsigned> extended_caps(const PCIDeviceDetails& f) {
        std::set<unsigned> ids;
        for (unsigned at = 0x100, guard = 0; at >= 0x100 && guard < 64; ++guard) {
            const unsigned header = model_read(f, at, 4);
            if (header == 0 || header == 0xFFFFFFFF) break;
            ids.insert(header & 0xFFFF);
            at = header >> 20;
        }
        return ids;
    }

    static inline sim::Platform* platform = nullptr;
    static inline sim::SysfsView* view = nullptr;
    static inline std::string skip_reason;
};

// Every function's link, AER, margining and physical layer capabilities as
// lspci decodes them from the view agree with the model read in process.
TEST_F(ModelSysfsView, LspciDecodesLinksAndExtendedCapabilitiesAsTheModelHasThem) {
    const Output out = tool("lspci", {"-D", "-vvv"});
    ASSERT_EQ(out.status, 0);
    std::map<std::string, std::string> blocks;  // by address, from `lspci -D`'s blank-line separated records
    for (size_t at = 0, end; at < out.text.size(); at = end + 2) {
        end = std::min(out.text.find("\n\n", at), out.text.size());
        blocks[out.text.substr(at, 12)] = out.text.substr(at, end - at);
    }
    static const std::regex link_status(R"(LnkSta:\s+Speed ([0-9.]+)GT/s[^,]*, Width x([0-9]+))");
    static const char* const speeds[] = {"", "2.5", "5", "8", "16", "32"};
    const std::map<unsigned, std::regex> decoded = {
        {sim::cfg::kExtCapAer, std::regex("Advanced Error Reporting")},
        {sim::cfg::kExtCapLaneMargining, std::regex("Lane Margining at the Receiver")},
        {sim::cfg::kExtCapPhysicalLayer16, std::regex("Physical Layer 16.0 GT/s")},
        {sim::cfg::kExtCapPhysicalLayer32, std::regex("Physical Layer 32.0 GT/s|Extended Capability ID 0x2a")},
    };
    unsigned links = 0, margining = 0, at_32 = 0;
    for (const PCIDeviceDetails& f : platform->model().present_functions()) {
        const std::string name = lw_test::lspci_address(f);
        SCOPED_TRACE(name);
        ASSERT_TRUE(blocks.count(name));
        const std::string& block = blocks.at(name);
        const std::set<unsigned> caps = extended_caps(f);
        for (const auto& [id, text] : decoded)
            EXPECT_EQ(std::regex_search(block, text), caps.count(id) == 1) << "capability " << id << "\n" << block;
        const bool express = model_read(f, sim::cfg::kStatus, 2) & sim::cfg::kStatusCapabilityList &&
                             (model_read(f, sim::cfg::kPciExpressAt, 1) == sim::cfg::kCapPciExpress);
        std::smatch m;
        ASSERT_EQ(std::regex_search(block, m, link_status), express) << block;
        if (!express) continue;
        ++links;
        const unsigned status = model_read(f, sim::cfg::kPciExpressAt + sim::cfg::kLinkStatus, 2);
        EXPECT_EQ(m[1].str(), speeds[status & 0xF]);
        EXPECT_EQ(std::stoul(m[2].str()), (status >> 4) & 0x3F);
        EXPECT_NE(block.find("LnkCap:"), std::string::npos);
        // The physical layer capabilities sit on function 0 of everything that supports their rate.
        const unsigned max_speed = model_read(f, sim::cfg::kPciExpressAt + sim::cfg::kLinkCapabilities, 1) & 0xF;
        const bool port_wide = f.function == 0 || (model_read(f, sim::cfg::kHeaderType, 1) & 0x7F) == 1;
        EXPECT_EQ(caps.count(sim::cfg::kExtCapPhysicalLayer16) == 1, port_wide && max_speed >= sim::kSpeed16GT);
        EXPECT_EQ(caps.count(sim::cfg::kExtCapPhysicalLayer32) == 1, port_wide && max_speed >= sim::kSpeed32GT);
        margining += caps.count(sim::cfg::kExtCapLaneMargining);
        at_32 += caps.count(sim::cfg::kExtCapPhysicalLayer32);
    }
    EXPECT_EQ(links, 20u);
    EXPECT_EQ(margining, 16u);
    EXPECT_EQ(at_32, 10u);
}

// Writes of each width reach the model as written, and what the model
// holds is what setpci reads back.
TEST_F(ModelSysfsView, SetpciWritesReachTheModelAndReadsShowIt) {
    const PCIDeviceDetails port(0, 0x40, 1, 0);  // a root port: AER, PCI Express capability
    const unsigned aer = 0x100;
    struct Case {
        const char* what;
        std::string assignment;
        unsigned offset, width, expected;
    };
    const Case cases[] = {
        {"byte: interrupt line", "3c.b=5a", 0x3C, 1, 0x5A},
        {"word: device control", "CAP_EXP+8.w=2810", sim::cfg::kPciExpressAt + sim::cfg::kDeviceControl, 2, 0x2810},
        {"dword: AER correctable mask", "ECAP_AER+14.l=00000041", aer + 0x14, 4, 0x41},
    };
    ASSERT_EQ(model_read(port, aer, 2), sim::cfg::kExtCapAer);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(tool("setpci", {"-s", "0000:40:01.0", c.assignment}).status, 0);
        EXPECT_EQ(model_read(port, c.offset, c.width), c.expected);
        const std::string reg = c.assignment.substr(0, c.assignment.find('='));
        const Output back = tool("setpci", {"-s", "0000:40:01.0", reg});
        ASSERT_EQ(back.status, 0);
        EXPECT_EQ(std::stoul(back.text, nullptr, 16), c.expected);
    }
    platform->model().config_write(0, 0x40, 1, 0, 0x3C, 1, 0xA5);
    EXPECT_EQ(tool("setpci", {"-s", "0000:40:01.0", "3c.b"}).text, "a5\n");

    // A retrain started by one tool is over for the next: model time moves
    // with real time for outside clients (2 ms of training is 20 ns here).
    ASSERT_EQ(tool("setpci", {"-s", "0000:40:01.0", "CAP_EXP+10.w=0060"}).status, 0);
    const unsigned status = std::stoul(tool("setpci", {"-s", "0000:40:01.0", "CAP_EXP+12.w"}).text, nullptr, 16);
    EXPECT_EQ(status & sim::cfg::kLinkStatusTraining, 0u);
    EXPECT_NE(status & sim::cfg::kLinkStatusBandwidthChanged, 0u);
}

struct Snapshot {
    std::vector<PCIDeviceDetails> devices;
    std::vector<std::string> inventory;  // functions, dies, ports, port map, hVL links
    json device_list;
};

Snapshot take_snapshot(const std::shared_ptr<ReadPCI>& read, const std::shared_ptr<WritePCI>& write) {
    GUIPCIEGetDevice::forget_cached_list();
    reset_all_port_data();
    CRNFactory::reset();
    CRNFactory::initalize(read, write);
    Snapshot s;
    s.devices = DetectPCIDevices()(read);
    GUIResourceStore store("/nonexistent");
    store.store_pcie_device_list(s.devices, read, write);
    s.inventory = inventory_lines(s.devices, store.get_die_list(), read);
    s.device_list = GUIPCIEGetDevice(store).get_device_list(s.devices);
    return s;
}

// The sysfs backend the real service uses, pointed at the view, sees the
// machine exactly as the simulated service does, and margins it alike.
TEST_F(ModelSysfsView, RealBackendOverTheViewAgreesWithTheModelInProcess) {
    const Snapshot in_process = take_snapshot(platform->read_pci(), platform->write_pci());
    ReadPCIStd::set_sysfs_root(view->folder() + "/bus/pci/devices");
    WritePCIStd::set_sysfs_root(view->folder() + "/bus/pci/devices");
    const auto read = std::make_shared<ReadPCIStd>();
    const auto write = std::make_shared<WritePCIStd>();
    const Snapshot over_view = take_snapshot(read, write);
    EXPECT_EQ(over_view.devices, in_process.devices);
    EXPECT_EQ(over_view.inventory, in_process.inventory);
    EXPECT_EQ(over_view.device_list, in_process.device_list);
    ASSERT_GT(in_process.inventory.size(), in_process.devices.size());
    ASSERT_EQ(in_process.devices.size(), 26u);

    // Two lanes of the 32 GT/s NIC at its own receiver, walked back from a
    // quick scan.
    PCIE::MarginEngineAccess model_access, view_access;
    model_access.read = platform->read_pci();
    model_access.write = platform->write_pci();
    view_access.read = read;
    view_access.write = write;
    PCIE::PCIEMarginMultiPass::InitParams params;
    params.bus = 0x41;
    params.receiver = 6;
    params.dwell_time = 200;
    params.lanes = {0, 3};
    auto margins = [&](PCIE::MarginEngineAccess& access) {
        PCIE::DumpPCIEMarginDataToConsole console(false);
        json results = json::array();
        EXPECT_TRUE(PCIE::PCIEMarginMultiPass({}, {}, params, console, access).margin(results, 1)) << results.dump(1);
        json margins = json::array();
        for (const json& lane : results)
            margins.push_back({lane.value("LanePCIeNo", -1), lane.value("PhaseLeftMargin", -1.0),
                               lane.value("PhaseRightMargin", -1.0), lane.value("VoltTopMargin", -1.0),
                               lane.value("VoltBotomMargin", -1.0)});
        return margins;
    };
    const json expected = margins(model_access);
    ASSERT_EQ(expected.size(), 2u);
    EXPECT_GT(expected[0][1].get<double>(), 0.0);
    EXPECT_EQ(margins(view_access), expected);
}

// Whichever signal ends lanewright-sim, its view is unmounted and the
// folder it made is gone.
TEST(SysfsViewProcess, SignalsEndItWithTheViewUnmounted) {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable here";
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        const std::string folder = "/tmp/lw-sysfs-process-" + std::to_string(::getpid());
        const pid_t pid = lw_test::spawn_program({LANEWRIGHT_SIM_PATH, "--sysfs-view", folder, "--no-server"}, -1);
        ASSERT_NE(pid, 0);
        // Polls every 20 ms for up to 10 s; false when it ran out.
        auto until = [](auto done) {
            for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
                if (done()) return true;
            return false;
        };
        int status = 0;
        bool exited = false;
        const bool mounted = until([&] {
            exited = exited || ::waitpid(pid, &status, WNOHANG) == pid;
            return exited || std::filesystem::exists(folder + "/bus/pci/devices");
        }) && !exited;
        if (!mounted) {
            if (!exited) ::kill(pid, SIGKILL), ::waitpid(pid, &status, 0);
            GTEST_SKIP() << "lanewright-sim could not mount its view here";
        }
        ::kill(pid, signal);
        const bool ended = until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; });
        if (!ended) ::kill(pid, SIGKILL);
        ASSERT_TRUE(ended) << "still running 10 s after the signal";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(std::filesystem::exists(folder));
    }
}

}  // namespace
