// Detection and the link readers over this machine's own configuration
// space, checked against what lspci reports for the same functions.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "discovery/pci_capability.h"
#include "discovery/pci_detection.h"
#include "discovery/pci_readers.h"
#include "hardware/pci_std.h"
#include "support/lspci.h"
#include "support/program.h"

namespace {

// Segments the scan covers; lspci may list more (e.g. volume management domains).
constexpr unsigned int kLastScannedSegment = 7;

using FunctionIds = lw_test::LspciIds;

// lspci's standard output; nothing when it could not run or failed.
std::optional<std::string> lspci(const char* option) {
    const lw_test::ProgramOutput out = lw_test::run_program({"lspci", option});
    return out.status == 0 ? std::optional(out.text) : std::nullopt;
}

struct LspciLink {
    bool express = false;       // a PCI Express capability is listed
    unsigned express_version = 0;
    std::string speed;          // "16 GT/s"; empty when LnkSta is absent or unknown
    std::optional<unsigned> width;
};

// `lspci -Dvv` split into one record per function, keyed by address text.
std::map<std::string, LspciLink> parse_verbose_listing(const std::string& text) {
    static const std::regex header(R"(^([0-9a-f]+:[0-9a-f]{2}:[0-9a-f]{2}\.[0-7]) )");
    static const std::regex express(R"(Capabilities: \[[0-9a-f]+\] Express \(v([0-9]+)\))");
    static const std::regex link_status(R"(LnkSta:\s+Speed ([0-9.]+)GT/s[^,]*, Width x([0-9]+))");
    std::map<std::string, LspciLink> links;
    LspciLink* current = nullptr;
    std::istringstream in(text);
    for (std::string row; std::getline(in, row);) {
        std::smatch m;
        if (std::regex_search(row, m, header)) {
            current = &links[m[1].str()];
        } else if (current && std::regex_search(row, m, express)) {
            current->express = true;
            current->express_version = static_cast<unsigned>(std::stoul(m[1].str()));
        } else if (current && std::regex_search(row, m, link_status)) {
            current->speed = m[1].str() + " GT/s";
            current->width = static_cast<unsigned>(std::stoul(m[2].str()));
        }
    }
    return links;
}

class RealSysfs : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::filesystem::is_directory("/sys/bus/pci/devices"))
            GTEST_SKIP() << "/sys/bus/pci/devices is missing";
        if (geteuid() != 0) GTEST_SKIP() << "configuration space past 64 bytes needs root";
        if (lw_test::run_program({"lspci", "--version"}).status == 127) GTEST_SKIP() << "lspci is not installed (package pciutils)";
        read = std::make_shared<ReadPCIStd>();
        devices = DetectPCIDevices()(read);
    }

    std::shared_ptr<ReadPCI> read;
    std::vector<PCIDeviceDetails> devices;
};

TEST_F(RealSysfs, DetectionFindsTheFunctionsLspciLists) {
    const auto listing = lspci("-Dn");
    ASSERT_TRUE(listing.has_value()) << "lspci -Dn failed";
    std::vector<FunctionIds> expected;
    for (const auto& function : lw_test::lspci_ids(*listing))
        if (std::get<0>(function) <= kLastScannedSegment) expected.push_back(function);
    ASSERT_FALSE(expected.empty()) << "lspci listed no function in the scanned segments:\n" << *listing;

    std::vector<FunctionIds> found;
    for (const auto& d : devices) found.emplace_back(d.segment, d.bus, d.device, d.function, d.vendor_id, d.device_id);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(found, expected);
}

TEST_F(RealSysfs, LinkSpeedAndWidthAgreeWithLspci) {
    const auto listing = lspci("-Dvv");
    ASSERT_TRUE(listing.has_value()) << "lspci -Dvv failed";
    const auto links = parse_verbose_listing(*listing);
    ASSERT_FALSE(links.empty());

    int checked = 0;
    for (const auto& device : devices) {
        const auto entry = links.find(lw_test::lspci_address(device));
        if (entry == links.end()) continue;  // the first test reports listing mismatches
        const LspciLink& lspci = entry->second;
        SCOPED_TRACE(entry->first);
        const PCIE::Device_ID id(device);
        PCIE::DetectThisPCIECapability capability(id, *read);
        std::string speed, width, error;
        const bool speed_read = PCIE::GetCurrentLinkSpeed(id, *read, capability).get(speed, error);
        const bool width_read = PCIE::GetCurrentLinkWidth(id, *read, capability).get(width, error);
        ++checked;
        if (!lspci.express) {
            EXPECT_FALSE(speed_read) << "a link speed on a function without a PCI Express capability: " << speed;
            EXPECT_FALSE(width_read) << "a link width on a function without a PCI Express capability: " << width;
            continue;
        }
        if (!lspci.width) continue;  // no link (integrated endpoints and the like)
        if (*lspci.width == 0) {
            EXPECT_FALSE(width_read) << "a width on a link that is down: " << width;
        } else {
            EXPECT_TRUE(width_read) << error;
            EXPECT_EQ(width, "x" + std::to_string(*lspci.width));
        }
        // Version 1 capabilities have no supported-speeds vector, which our reader requires.
        static const std::vector<std::string> known = {"2.5 GT/s", "5 GT/s", "8 GT/s", "16 GT/s", "32 GT/s"};
        if (lspci.express_version < 2 || std::find(known.begin(), known.end(), lspci.speed) == known.end()) continue;
        EXPECT_TRUE(speed_read) << error;
        EXPECT_EQ(speed, lspci.speed);
    }
    EXPECT_GT(checked, 0) << "no detected function appears in lspci -Dvv";
}

}  // namespace
