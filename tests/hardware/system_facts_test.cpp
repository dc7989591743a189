#include "hardware/system_facts.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "hardware/test_temp_folder.h"

namespace fs = std::filesystem;

namespace {

void write_file(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

}  // namespace

TEST(ProcessorSignature, DecodesFamilyModelStepping) {
    const struct {
        uint32_t eax;
        unsigned family, model, stepping;
    } cases[] = {{0x00800F12, 23, 0x01, 2}, {0x00A20F10, 25, 0x21, 0}, {0x000906EA, 6, 0x9E, 10},
                 {0x0FF00F00, 15 + 255, 0, 0}};
    for (const auto& c : cases) {
        const ProcessorIdentity id = decode_processor_signature(c.eax);
        EXPECT_EQ(std::tie(id.family, id.model, id.stepping), std::tie(c.family, c.model, c.stepping)) << std::hex
                                                                                                         << c.eax;
    }
}

TEST(RealSystemFacts, OsNameIsPrettyNameWithoutQuotes) {
    TestTempFolder temp;
    struct Case {
        const char* content;
        const char* expected;
    } cases[] = {
        {"NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nID=debian\n",
         "Debian GNU/Linux 12 (bookworm)"},
        {"X_PRETTY_NAME=wrong\nPRETTY_NAME=Plain Name\r\n", "Plain Name"},
        {"PRETTY_NAME='Single Quoted'\n", "Single Quoted"},
        {"NAME=Nothing\n", ""},
    };
    const fs::path file = temp.path() / "os-release";
    for (const auto& c : cases) {
        write_file(file, c.content);
        EXPECT_EQ(RealSystemFacts(file.string()).os_name(), c.expected) << c.content;
    }
    EXPECT_EQ(RealSystemFacts((temp.path() / "missing").string()).os_name(), "");
}

TEST(RealSystemFacts, DmiAndNumaFromSysfsFolders) {
    TestTempFolder temp;
    const fs::path dmi = temp.path() / "dmi", nodes = temp.path() / "node";
    write_file(dmi / "bios_version", "  1.2.3 \n");
    for (const char* node : {"node0", "node1", "node12"}) fs::create_directories(nodes / node);
    write_file(nodes / "possible", "0-12\n");
    fs::create_directories(nodes / "nodeX");

    RealSystemFacts facts("/nonexistent/os-release", dmi.string(), nodes.string());
    EXPECT_EQ(facts.bios_version(), "1.2.3");
    EXPECT_EQ(facts.product_name(), "") << "missing DMI file";
    EXPECT_EQ(facts.numa_mode(), "3");

    RealSystemFacts without_numa("/nonexistent/os-release", dmi.string(), (temp.path() / "none").string());
    EXPECT_EQ(without_numa.numa_mode(), "1");
}
