// The fixed documents the front end is served: shapes, counts and selection.
#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "service/pci_viewer_samples.h"
#include "service/result_samples.h"

using nlohmann::json;
using Keys = std::set<std::string>;

namespace {

Keys keys(const json& object) {
    Keys names;
    for (const auto& item : object.items()) names.insert(item.key());
    return names;
}

bool all_strings(const json& object) {
    return std::all_of(object.begin(), object.end(), [](const json& value) { return value.is_string(); });
}

unsigned long hex_value(const json& text) { return std::stoul(text.get<std::string>(), nullptr, 16); }
unsigned long dec_value(const json& text) { return std::stoul(text.get<std::string>()); }

}  // namespace

TEST(PciViewerSample, DeviceListIsATreeOfTwentyFunctions) {
    json list = pci_device_list_sample();
    ASSERT_EQ(list.size(), 20u);
    Keys bridges_so_far;
    for (json& device : list) {
        EXPECT_EQ(keys(device), (Keys{"SBDF", "DeviceID", "VendorID", "ClassCode", "DeviceDescription", "ParentSBDF"}));
        EXPECT_TRUE(all_strings(device)) << device;
        const std::string parent = device["ParentSBDF"];
        EXPECT_TRUE(parent == "0:0:0.0" || bridges_so_far.count(parent)) << device["SBDF"];
        if (device["ClassCode"] == "PCI/PCIBridge") bridges_so_far.insert(device["SBDF"].get<std::string>());
    }
    EXPECT_TRUE(bridges_so_far.count("0:4:0.0"));
    EXPECT_EQ(pci_cap_struct_list_sample(), json({"PMI_CAP", "PCIE_CAP", "MSI_CAP"}));
    EXPECT_EQ(pci_ext_cap_struct_list_sample(), json({"PCIE_ADV_ERR_RPT_ENH_CAP", "PCIE_MARGINING_ENH_CAP"}));
}

TEST(PciViewerSample, RawViewIsSelectedBySbdfAndContiguous) {
    const struct { const char* sbdf; size_t count; const char* last; } cases[] = {
        {"0:4:0.0", 274, "0x444"}, {"0:3:0.0", 64, "0xFC"}, {"", 64, "0xFC"}};
    const std::regex hex_text("0x[0-9A-F]+");
    for (const auto& c : cases) {
        json view = pci_raw_view_sample(c.sbdf);
        EXPECT_EQ(view["name"], "PCIE_CONFIG_RAW");
        EXPECT_EQ(view["absoluteOffset"], "0x0");
        json& regs = view["register"];
        ASSERT_EQ(regs.size(), c.count) << c.sbdf;
        EXPECT_EQ(regs.back()["offset"], c.last);
        for (size_t n = 0; n < regs.size(); ++n) {
            ASSERT_EQ(keys(regs[n]), (Keys{"offset", "value"}));
            EXPECT_TRUE(std::regex_match(regs[n]["offset"].get<std::string>(), hex_text) &&
                        std::regex_match(regs[n]["value"].get<std::string>(), hex_text)) << regs[n];
            EXPECT_EQ(hex_value(regs[n]["offset"]), 4 * n) << c.sbdf;
            EXPECT_TRUE(c.count != 64 || hex_value(regs[n]["value"]) == n) << "word n holds n: " << regs[n];
        }
    }
}

TEST(PciViewerSample, DetailedRawViewWalksLikeABridge) {
    const json regs = pci_raw_view_sample("0:4:0.0")["register"];
    auto dword = [&](unsigned long offset) { return hex_value(regs.at(offset / 4).at("value")); };
    json device = pci_device_list_sample()[7];
    ASSERT_EQ(device["SBDF"], "0:4:0.0");
    EXPECT_EQ(dword(0), hex_value(device["DeviceID"]) << 16 | hex_value(device["VendorID"]));
    EXPECT_EQ(dword(0xC) >> 16 & 0x7F, 1u);  // type-1 header
    std::vector<unsigned long> caps, ext_caps;
    for (unsigned long at = dword(0x34) & 0xFF; at != 0 && caps.size() < 8; at = dword(at) >> 8 & 0xFF)
        caps.push_back(dword(at) & 0xFF);
    EXPECT_EQ(caps, (std::vector<unsigned long>{0x1, 0x10, 0x5}));  // PM, PCI Express, MSI
    for (unsigned long at = 0x100; at != 0 && ext_caps.size() < 16; at = dword(at) >> 20)
        ext_caps.push_back(dword(at) & 0xFFFF);
    // AER, Secondary PCIe, 16 and 32 GT/s physical layer, margining, Data Link Feature, vendor-specific.
    EXPECT_EQ(ext_caps, (std::vector<unsigned long>{0x1, 0x19, 0x26, 0x2A, 0x27, 0x25, 0xB}));
}

TEST(PciViewerSample, TablesAreSelectedByNameAndSbdfAndFieldsTileTheirRegisters) {
    auto head = [](const char* name, const char* cap_id, const char* offset) {
        return json{{"name", name}, {"capId", cap_id}, {"absoluteOffset", offset}};
    };
    const struct { const char* sbdf; const char* table; json head; std::vector<size_t> fields; size_t registers; }
    cases[] = {{"0:4:0.0", "PCIE_HEADER", head("PCIE_HEADER_TYPE1", "NA", "0x10"), {}, 27},
               {"0:3:0.0", "PCIE_HEADER", head("PCIE_HEADER_TYPE0", "NA", "0x0"), {}, 12},
               {"0:4:0.0", "PMI_CAP", head("PMI_CAP", "0x1", "0x80"), {2, 8, 12}, 3},
               {"0:1:0.0", "MSI_CAP", head("PMI_CAP", "0x1", "0x80"), {2, 8, 12}, 3}};
    const json raw = pci_raw_view_sample("0:4:0.0")["register"];
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.sbdf) + " " + c.table);
        json table = pci_table_info_sample(c.sbdf, c.table);
        json regs = table["register"];
        table.erase("register");
        EXPECT_EQ(table, c.head);
        ASSERT_EQ(regs.size(), c.registers);
        long previous_offset = -1;
        for (size_t r = 0; r < c.registers; ++r) {
            json& reg = regs[r];
            EXPECT_EQ(keys(reg), (Keys{"name", "offset", "size", "field"}));
            const long offset = static_cast<long>(hex_value(reg["offset"]));
            EXPECT_GT(offset, std::exchange(previous_offset, offset)) << reg["name"];
            EXPECT_TRUE(c.fields.empty() || reg["field"].size() == c.fields[r]) << reg["name"];
            unsigned long next_bit = 0;
            for (json& field : reg["field"]) {
                EXPECT_EQ(keys(field), (Keys{"name", "startBit", "endBit", "value", "access", "text", "addDesc"}));
                EXPECT_TRUE(all_strings(field)) << field;
                const unsigned long start = dec_value(field["startBit"]), end = dec_value(field["endBit"]);
                EXPECT_EQ(start, next_bit) << reg["name"] << "." << field["name"];  // no gap, no overlap
                next_bit = end + 1;
                const unsigned long width = end - start + 1, value = hex_value(field["value"]);
                EXPECT_EQ(width < 32 ? value >> width : 0, 0u) << field["name"];
                if (std::string(c.sbdf) == "0:4:0.0") {  // the detailed device agrees with its raw view
                    const unsigned long at = offset + (c.head["name"] == "PMI_CAP" ? 0x80 : 0);
                    const unsigned long bits = hex_value(raw.at(at / 4).at("value")) >> (at % 4 * 8 + start);
                    EXPECT_EQ(value, width < 32 ? bits & ((1ul << width) - 1) : bits) << field["name"];
                }
            }
            EXPECT_EQ(next_bit, dec_value(reg["size"])) << reg["name"];
        }
    }
}

TEST(ResultSample, EachListHoldsThreeRecordsOfTheRightKinds) {
    const struct { const char* name; json list; std::vector<std::string> operations; } cases[] = {
        {"pcie", current_pcie_results_sample(), {"EyeScan", "PCIe Margin", "PCIe Margin"}},
        {"hvl", current_hvl_results_sample(), {"EyeScan", "Destructive HVL Margin", "Destructive HVL Margin"}},
        {"all", all_current_results_sample(), {"PCIe Margin", "Destructive HVL Margin", "PCIe Margin"}}};
    const std::vector<std::string> statuses = {"complete", "complete", "Failed"};
    const std::regex readable_time(R"(\d{1,2} (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sept|Oct|Nov|Dec) \d{1,2}:\d\d(AM|PM))");
    const std::vector<std::string> figures = {"PhaseRight (UI)", "PhaseLeft (UI)", "VrefTop (mv)", "VrefBot (mv)"};
    for (const auto& c : cases) {
        ASSERT_EQ(keys(c.list), Keys{"TestList"}) << c.name;
        json tests = c.list.at("TestList");
        ASSERT_EQ(tests.size(), 3u) << c.name;
        for (size_t i = 0; i < 3; ++i) {
            SCOPED_TRACE(std::string(c.name) + " record " + std::to_string(i));
            json& test = tests[i];
            const std::string op = test["Operation"];
            EXPECT_EQ(op, c.operations[i]);
            EXPECT_EQ(test["TestID"], i);
            const bool pcie = test.contains("PCIeInfo");
            EXPECT_NE(pcie, test.contains("HVLCtrlInfo"));
            EXPECT_TRUE(!pcie || (test["PCIeInfo"]["SBDF"].is_string() && test.contains("PCIeCtrlInfo")));
            EXPECT_TRUE(op != "EyeScan" || test["SERDES"]["DeviceName"].is_string());
            json& params = test["TestParams"];
            EXPECT_TRUE(params["BER"].is_string() && params["Lanes"].is_array());
            EXPECT_EQ(params.contains("ErrCnt"), op != "EyeScan");
            EXPECT_EQ(params.contains("Receiver"), op == "PCIe Margin");
            json& out = test["TestOutput"];
            EXPECT_EQ(out["Status"], statuses[i]);
            EXPECT_TRUE(std::regex_match(out["Time"].get<std::string>(), readable_time)) << out["Time"];
            const std::regex folder(R"(/lanewright_gui/\d{4}(_\d\d){2}-\d\d(_\d\d){2}/test_)" + std::to_string(i));
            EXPECT_TRUE(std::regex_match(out["ResultsFolder"].get<std::string>(), folder)) << out["ResultsFolder"];
            const bool failed = out["Status"] == "Failed";
            for (const std::string& figure : figures)
                EXPECT_TRUE(out[figure].is_number() && (!failed || out[figure] == 0)) << figure;
            EXPECT_TRUE(!failed || out["FailureReason"] == "Incorrect params.");
            const bool with_report = op != "EyeScan" && !failed;
            EXPECT_EQ(out.contains("FullMarginData"), with_report);
            EXPECT_TRUE(!with_report || !out["FullMarginData"].empty());
        }
    }
}
