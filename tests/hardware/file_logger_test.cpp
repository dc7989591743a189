#include "hardware/file_logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "hardware/test_temp_folder.h"

TEST(FileLogger, ConcurrentWritersProduceWholeLines) {
    TestTempFolder temp;
    const std::string folder = (temp.path() / "logs").string();
    constexpr int threads = 8, lines_each = 200;
    std::string file_name;
    {
        FileLogger logger(folder);
        file_name = logger.file_name();
        std::vector<std::thread> writers;
        for (int t = 0; t < threads; ++t)
            writers.emplace_back([&logger, t] {
                for (int i = 0; i < lines_each; ++i)
                    logger.dump("msg-" + std::to_string(t) + "-" + std::to_string(i));
            });
        for (auto& writer : writers) writer.join();
    }

    const std::regex name_shape(folder + "/lanewright_\\d{4}_\\d{2}_\\d{2}-\\d{2}_\\d{2}_\\d{2}_" +
                                std::to_string(getpid()) + "\\.log");
    EXPECT_TRUE(std::regex_match(file_name, name_shape)) << file_name;

    std::ifstream in(file_name);
    const std::regex line_shape(R"(^.+ : .+ : (msg-\d+-\d+)$)");
    std::set<std::string> messages;
    int count = 0;
    for (std::string line; std::getline(in, line); ++count) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, line_shape)) << line;
        messages.insert(match[1]);
    }
    EXPECT_EQ(count, threads * lines_each);
    EXPECT_EQ(messages.size(), static_cast<size_t>(threads * lines_each));
}

TEST(FileLogger, UnopenableFileIsReportedAndIgnored) {
    TestTempFolder temp;
    // A regular file where the folder should be: neither folder nor log can be made.
    const std::string blocker = (temp.path() / "blocker").string();
    std::ofstream(blocker) << "x";

    testing::internal::CaptureStdout();
    FileLogger logger(blocker);
    logger.dump("dropped");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: Unable to create log file\n");
}
