#include "discovery/pci_names.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "discovery/fake_config_space.h"
#include "hardware/test_temp_folder.h"

namespace {

using namespace PCIE;

const Device_ID kDevice(0, 0, 1, 0);

class NamesTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::ofstream(temp.path() / "pci.ids") << "# comment\n"
                                                  "1234  Foo Systems, Inc. [FOO]\n"
                                                  "\t5678  Some device [Other bracket]\n"
                                                  "\t\t1234 0001  Subsystem\n"
                                                  "abcd  Plain Vendor\n"
                                                  "1234  Duplicate row\n"
                                                  "\n"
                                                  "C 06  Bridge\n"
                                                  "\t00  Host bridge\n"
                                                  "\t04  PCI bridge\n"
                                                  "\t\t00  Normal decode\n"
                                                  "\t\t01  Subtractive decode\n"
                                                  "C 0c  Serial bus controller\n"
                                                  "\t03  USB controller\n"
                                                  "\t\t30  XHCI\n";
        PCIIdDatabase::set_path((temp.path() / "pci.ids").string());
    }
    void TearDown() override { PCIIdDatabase::set_path("/usr/share/misc/pci.ids"); }

    std::string class_of(unsigned class_code) {
        FakeConfigSpace space;
        FakeConfigSpace::put(space.add(kDevice, 0x1234, 1), 8, (class_code << 8) | 0xC1);  // low byte: revision
        return GetClassName(kDevice, space)();
    }
    std::pair<std::string, std::string> vendor_of(unsigned vendor) {
        FakeConfigSpace space;
        space.add(kDevice, vendor, 0x5678);
        return GetVendorName(kDevice, space)();
    }

    TestTempFolder temp;
};

TEST_F(NamesTest, VendorNamesSplitTheShortFormAndFallBackToEmpty) {
    EXPECT_EQ(vendor_of(0x1234), std::make_pair(std::string("FOO"), std::string("Foo Systems, Inc.")));
    EXPECT_EQ(vendor_of(0xABCD), std::make_pair(std::string("Plain Vendor"), std::string("Plain Vendor")));
    EXPECT_EQ(vendor_of(0x5678), std::make_pair(std::string(), std::string()));  // a device row, not a vendor
    FakeConfigSpace empty;
    EXPECT_EQ(GetVendorName(kDevice, empty)(), std::make_pair(std::string(), std::string()));
}

TEST_F(NamesTest, ClassTextFromSubClassAndInterfaceOrUnknown) {
    struct Case {
        unsigned code;
        std::string text;
    };
    for (const Case& c : {Case{0x060400, "PCI bridge (Normal decode)"}, Case{0x060401, "PCI bridge (Subtractive decode)"},
                          Case{0x060000, "Host bridge"}, Case{0x060007, "Host bridge"},
                          Case{0x0C0330, "USB controller (XHCI)"}, Case{0x060500, "[Unknown Class:6:5.0]"},
                          Case{0xFFAB0C, "[Unknown Class:FF:AB.C]"}, Case{0x000000, "[Unknown Class:0:0.0]"}})
        EXPECT_EQ(class_of(c.code), c.text) << std::hex << c.code;
}

TEST_F(NamesTest, MissingDatabaseFallsBackEverywhere) {
    PCIIdDatabase::set_path((temp.path() / "missing").string());
    EXPECT_EQ(vendor_of(0x1234), std::make_pair(std::string(), std::string()));
    EXPECT_EQ(class_of(0x060400), "[Unknown Class:6:4.0]");
}

TEST(PCIIdDatabase, ReadsTheSystemDatabase) {
    const PCIIdDatabase database("/usr/share/misc/pci.ids");
    EXPECT_EQ(database.class_text(0x06, 0x04, 0x00), "PCI bridge (Normal decode)");
    EXPECT_EQ(database.class_text(0x01, 0x08, 0x02), "Non-Volatile memory controller (NVM Express)");
    EXPECT_FALSE(database.vendor_names(0x1002).first.empty());
    EXPECT_EQ(database.vendor_names(0xFFFF), std::make_pair(std::string(), std::string()));  // absent function
}

}  // namespace
