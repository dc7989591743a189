// The PCI viewer over live functions: what it lists and dumps agrees with
// lspci on the model (through its sysfs view) and on this machine's own
// functions; tables decode what the dump holds; writes respect access.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "discovery/pci_detection.h"
#include "hardware/pci_std.h"
#include "panels/pci_device.h"
#include "panels/pci_viewer.h"
#include "simulator/platform.h"
#include "support/case_name.h"
#include "support/lspci.h"
#include "support/program.h"
#include "sysfs_view/sysfs_view.h"

using nlohmann::json;

namespace {

struct LspciFunction {
    std::vector<unsigned> bytes;        // from -xxxx
    std::vector<unsigned> cap_offsets;  // from -vvv: "Capabilities: [off]" and "[off vN]"
};

// `lspci -D -xxxx` and `lspci -D -vvv`, by address "0000:41:00.0".
std::map<std::string, LspciFunction> lspci(const std::vector<std::string>& access) {
    auto with = [&](std::vector<std::string> args) {
        std::vector<std::string> all = {"lspci"};
        all.insert(all.end(), access.begin(), access.end());
        all.insert(all.end(), args.begin(), args.end());
        const lw_test::ProgramOutput out = lw_test::run_program(all);
        return out.status == 0 ? out.text : std::string();
    };
    static const std::regex header(R"(^([0-9a-f]{4,}:[0-9a-f]{2}:[0-9a-f]{2}\.[0-7]) )");
    static const std::regex dump(R"(^([0-9a-f]{2,3}):((?: [0-9a-f]{2}){16})$)");
    static const std::regex cap(R"(Capabilities: \[([0-9a-f]+)(?: v[0-9]+)?\])");
    std::map<std::string, LspciFunction> functions;
    LspciFunction* current = nullptr;
    std::istringstream hex_text(with({"-D", "-xxxx"}));
    for (std::string row; std::getline(hex_text, row);) {
        std::smatch m;
        if (std::regex_search(row, m, header)) current = &functions[m[1].str()];
        else if (current && std::regex_match(row, m, dump)) {
            std::istringstream bytes(m[2].str());
            for (std::string b; bytes >> b;) current->bytes.push_back(std::stoul(b, nullptr, 16));
        }
    }
    std::istringstream verbose(with({"-D", "-vvv"}));
    for (std::string row; std::getline(verbose, row);) {
        std::smatch m;
        if (std::regex_search(row, m, header)) current = &functions[m[1].str()];
        else if (current && std::regex_search(row, m, cap)) current->cap_offsets.push_back(std::stoul(m[1].str(), nullptr, 16));
    }
    return functions;
}

// Every function the viewer lists has the capabilities (both lists, in
// order) and the configuration bytes that lspci shows for it.
void expect_viewer_matches_lspci(const PCIViewer& viewer, const std::vector<PCIDeviceDetails>& devices,
                                 std::shared_ptr<ReadPCI> read, const std::map<std::string, LspciFunction>& reference) {
    ASSERT_FALSE(devices.empty());
    const json list = viewer.device_list();
    ASSERT_EQ(list.size(), devices.size());
    for (const PCIDeviceDetails& d : devices) {
        const std::string address = lw_test::lspci_address(d);
        const auto it = reference.find(address);
        ASSERT_NE(it, reference.end()) << address << " is not listed by lspci";
        const std::string sbdf = sbdf_string(PCIE::Device_ID(d));
        const CPCIDevice device(PCIE::Device_ID(d), read, nullptr);
        std::vector<unsigned> offsets;
        for (const auto& c : device.capabilities()) offsets.push_back(c.GetCapsOffset());
        for (const auto& c : device.extended_capabilities()) offsets.push_back(c.GetCapsOffset());
        EXPECT_EQ(offsets, it->second.cap_offsets) << address;
        EXPECT_EQ(viewer.cap_struct_list(sbdf).size() + viewer.ext_cap_struct_list(sbdf).size(), offsets.size()) << address;

        const json raw = viewer.raw_view(sbdf)["register"];
        const std::vector<unsigned>& bytes = it->second.bytes;
        ASSERT_GE(bytes.size(), 64u) << address;
        ASSERT_GE(raw.size() * 4, bytes.size()) << address << ": the dump is shorter than lspci's";
        for (size_t at = 0; at + 4 <= bytes.size(); at += 4) {
            const unsigned expected = bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | bytes[at + 3] << 24;
            ASSERT_EQ(std::stoul(raw[at / 4]["value"].get<std::string>(), nullptr, 16), expected)
                << address << " at 0x" << std::hex << at;
        }
    }
}

class ModelViewer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        platform = new sim::Platform(sim::load_platform("", std::nullopt, 1e5));
        devices = platform->model().present_functions();
    }
    static void TearDownTestSuite() {
        delete platform;
        platform = nullptr;
    }
    static PCIViewer viewer() { return PCIViewer(devices, platform->read_pci(), platform->write_pci()); }
    static inline sim::Platform* platform = nullptr;
    static inline std::vector<PCIDeviceDetails> devices;
};

TEST_F(ModelViewer, ListsAndDumpsAgreeWithLspciThroughTheSysfsView) {
    std::unique_ptr<sim::SysfsView> view;
    try {
        view = std::make_unique<sim::SysfsView>(platform->model_ptr(), "/tmp/lw-viewer-" + std::to_string(::getpid()));
    } catch (const sim::SysfsViewError& error) {
        GTEST_SKIP() << "FUSE is not usable here: " << error.what();
    }
    const auto reference = lspci({"-A", "linux-sysfs", "-O", "sysfs.path=" + view->pci_path()});
    if (reference.empty()) GTEST_SKIP() << "lspci is not installed or can't read the view";
    EXPECT_EQ(reference.size(), devices.size()) << "lspci lists the model's functions and no others";
    expect_viewer_matches_lspci(viewer(), devices, platform->read_pci(), reference);
}

TEST(RealMachineViewer, ListsAndDumpsAgreeWithLspci) {
    if (!std::filesystem::is_directory("/sys/bus/pci/devices")) GTEST_SKIP() << "/sys/bus/pci/devices is missing";
    if (geteuid() != 0) GTEST_SKIP() << "configuration space past 64 bytes needs root";
    const auto reference = lspci({});
    if (reference.empty()) GTEST_SKIP() << "lspci is not installed (package pciutils)";
    auto read = std::make_shared<ReadPCIStd>();
    const auto devices = DetectPCIDevices()(read);
    expect_viewer_matches_lspci(PCIViewer(devices, read, nullptr), devices, read, reference);
}

// Every table of every structure of every function: registers lie inside
// the structure, and each field's value is its bits of the raw dump.
TEST_F(ModelViewer, TablesDecodeTheRawDumpAndTheTreeHangsTogether) {
    const PCIViewer v = viewer();
    std::set<std::string> seen_tables;
    for (const json& entry : v.device_list()) {
        const std::string sbdf = entry["SBDF"];
        const std::string parent = entry["ParentSBDF"];
        if (!parent.empty()) {
            const auto up = parse_sbdf_string(parent);
            ASSERT_TRUE(up && CPCIDevice(*up, platform->read_pci(), nullptr).present()) << sbdf << " <- " << parent;
        }
        EXPECT_FALSE(entry["DeviceDescription"].get<std::string>().empty()) << sbdf;
        const json raw = v.raw_view(sbdf)["register"];
        auto byte_at = [&](unsigned at) { return (std::stoul(raw[at / 4]["value"].get<std::string>(), nullptr, 16) >> (8 * (at % 4))) & 0xFF; };
        json names = v.cap_struct_list(sbdf);
        for (const json& n : v.ext_cap_struct_list(sbdf)) names.push_back(n);
        names.push_back("PCIE_HEADER");
        for (const json& name : names) {
            const json table = v.table_info(sbdf, name);
            ASSERT_TRUE(table.contains("register")) << sbdf << " " << name << ": " << table.dump();
            seen_tables.insert(table["name"]);
            const unsigned base = std::stoul(table["absoluteOffset"].get<std::string>(), nullptr, 16);
            for (const json& r : table["register"]) {
                const unsigned at = base + std::stoul(r["offset"].get<std::string>(), nullptr, 16);
                const unsigned bits = std::stoul(r["size"].get<std::string>());
                unsigned long value = 0;
                for (unsigned i = 0; i < bits / 8; ++i) value |= byte_at(at + i) << (8 * i);
                for (const json& f : r["field"]) {
                    const unsigned lo = std::stoul(f["startBit"].get<std::string>()), hi = std::stoul(f["endBit"].get<std::string>());
                    ASSERT_LT(hi, bits) << sbdf << " " << r["name"] << "." << f["name"];
                    const unsigned long expected = (value >> lo) & ((1ull << (hi - lo + 1)) - 1);
                    // Margining status follows the link and lane commands; everything else is static.
                    EXPECT_EQ(std::stoul(f["value"].get<std::string>(), nullptr, 16), expected)
                        << sbdf << " " << table["name"] << " " << r["name"] << "." << f["name"];
                }
            }
        }
    }
    for (const char* expected : {"PCIE_HEADER_TYPE0", "PCIE_HEADER_TYPE1", "PMI_CAP", "PCIE_CAP", "PCIE_ADV_ERR_RPT_ENH_CAP",
                                 "PCIE_SECONDARY_PCIE_ENH_CAP", "PCIE_PHY_16GT_ENH_CAP", "PCIE_PHY_32GT_ENH_CAP",
                                 "PCIE_MARGINING_ENH_CAP", "PCIE_ACS_ENH_CAP", "PCIE_DEV_SERIAL_NUM_ENH_CAP",
                                 "PCIE_L1_PM_SUBSTATES_ENH_CAP"})
        EXPECT_TRUE(seen_tables.count(expected)) << expected << " was never decoded";
}

struct WriteCase {
    const char* name;
    const char* table;
    const char* reg;
    const char* field;
    const char* value;
    const char* answer_starts;  // "success" or the beginning of the refusal
    bool changes;
};
LW_PRINT_BY_NAME(WriteCase)

class ModelViewerWrite : public ModelViewer, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(ModelViewerWrite, OnlyRwFieldsChangeTheDevice) {
    const WriteCase& c = GetParam();
    const PCIViewer v = viewer();
    const std::string sbdf = "0:41:0.0";  // the 400G NIC below slot3
    ASSERT_TRUE(parse_sbdf_string(sbdf) && CPCIDevice(*parse_sbdf_string(sbdf), platform->read_pci(), nullptr).present());
    const json before = v.raw_view(sbdf);
    const json table = v.table_info(sbdf, c.table);
    const std::string answer = v.table_write({{"SBDF", sbdf}, {"tableName", c.table}, {"absoluteOffset", table.value("absoluteOffset", "")},
                                             {"register", c.reg}, {"field", c.field}, {"value", c.value}});
    EXPECT_EQ(answer.rfind(c.answer_starts, 0), 0u) << answer;
    if (!c.changes) {
        EXPECT_EQ(v.raw_view(sbdf), before) << "a refused write changed the device";
        return;
    }
    std::string now;
    const json after = v.table_info(sbdf, c.table);
    for (const json& r : after.at("register"))
        if (r.at("name") == c.reg)
            for (const json& f : r.at("field"))
                if (f.at("name") == c.field) now = f.at("value");
    EXPECT_EQ(now, c.value);
}

INSTANTIATE_TEST_SUITE_P(
    Access, ModelViewerWrite,
    ::testing::Values(
        WriteCase{"RwMaskOfAer", "PCIE_ADV_ERR_RPT_ENH_CAP", "CORR_ERR_MASK", "BAD_TLP_MASK", "0x1", "success", true},
        WriteCase{"RwPowerManagementEnable", "PMI_CAP", "PMI_STATUS_CNTL", "PME_EN", "0x1", "success", true},
        WriteCase{"RoVendorId", "PCIE_HEADER", "VENDORID", "VENDOR_ID", "0x1234", "Field VENDOR_ID of VENDORID is RO", false},
        WriteCase{"Rw1cStatus", "PCIE_CAP", "DEVICE_STATUS", "CORR_ERR", "0x1", "Field CORR_ERR of DEVICE_STATUS is RW1C", false},
        WriteCase{"TooWide", "PCIE_CAP", "DEVICE_CNTL", "MAX_PAYLOAD_SIZE", "0x8", "Not written: MAX_PAYLOAD_SIZE of DEVICE_CNTL takes a number from 0x0 to 0x7 (3 bits)", false},
        WriteCase{"UnknownRegister", "PMI_CAP", "NOPE", "X", "0x1", "\"PMI_CAP\" has no register", false},
        WriteCase{"StructureAbsent", "MSI_CAP", "MSI_MSG_CNTL", "MSI_EN", "0x1", "Function 0:41:0.0 has no structure", false}),
    lw_test::by_name);

}  // namespace
