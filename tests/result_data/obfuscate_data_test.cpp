#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "result_data/obfuscate_data.h"
#include "support/case_name.h"

namespace {

struct RoundTrip {
    std::string plain;
    std::string back;  // what extraction gives
};

LW_PRINT_BY_FIELD(RoundTrip, plain)

class ObfuscateRoundTrip : public ::testing::TestWithParam<RoundTrip> {};

TEST_P(ObfuscateRoundTrip, HideThenExtract) {
    const ObfuscateData obfuscate;
    std::string hidden;
    obfuscate.hide_data(GetParam().plain, hidden);
    ASSERT_EQ(hidden.size(), GetParam().plain.size());
    EXPECT_EQ(obfuscate.extract_data(hidden), GetParam().back);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ObfuscateRoundTrip,
    ::testing::Values(RoundTrip{"", ""}, RoundTrip{"Segment, Bus,Device", "segment, bus,device"},
                      RoundTrip{"0123456789.-:/ ", "0123456789.-:/ "}, RoundTrip{"aeiou AEIOU", "aeiou aeiou"},
                      RoundTrip{"a\r\nb", "a\n\nb"}, RoundTrip{"Not Available,0x1F7E,", "not available,0x1f7e,"}),
    lw_test::by_field(&RoundTrip::plain));

TEST(Obfuscate, SameTextHidesDifferentlyTwice) {
    const ObfuscateData obfuscate;
    const std::string plain(64, 'e');
    std::string first, second;
    obfuscate.hide_data(plain, first);
    obfuscate.hide_data(plain, second);
    EXPECT_NE(first, second);
}

class DeobfuscateFile : public ::testing::Test {
protected:
    void SetUp() override {
        folder = std::filesystem::temp_directory_path() /
                 ("lanewright_obfuscate_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(folder);
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    int run(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        return deobfuscate_the_file(static_cast<int>(argv.size()), argv.data());
    }

    std::filesystem::path folder;
};

TEST_F(DeobfuscateFile, HiddenLinesComeBack) {
    const std::vector<std::string> lines = {"segment, bus,device,", "0,0x41,0,0,not available,", ""};
    const ObfuscateData obfuscate;
    {
        std::ofstream out(folder / "report.bin", std::ios::binary);
        for (const auto& line : lines) {
            std::string hidden;
            obfuscate.hide_data(line, hidden);
            out << hidden << '\n';
        }
    }
    ASSERT_EQ(run({"tool", "-deobfuscate", "-input=" + (folder / "report.bin").string(),
                   "-output=" + (folder / "report.csv").string()}),
              0);
    std::ifstream in(folder / "report.csv");
    std::vector<std::string> back;
    for (std::string line; std::getline(in, line);) back.push_back(line);
    EXPECT_EQ(back, lines);
}

TEST_F(DeobfuscateFile, MissingArgumentsOrFilesFail) {
    const std::string input = "-input=" + (folder / "absent.bin").string();
    const std::string output = "-output=" + (folder / "out.csv").string();
    EXPECT_EQ(run({"tool", output}), 1);
    EXPECT_EQ(run({"tool", input}), 1);
    EXPECT_EQ(run({"tool", input, output}), 1);
    EXPECT_FALSE(std::filesystem::exists(folder / "out.csv"));
}

}  // namespace
