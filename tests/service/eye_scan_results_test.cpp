// A result's files are served by plain name from its own folder only.
#include "service/eye_scan_results.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

TEST(ResultFile, ServesOnlyPlainNamesOfRegularFilesInTheFolder) {
    const fs::path root = fs::temp_directory_path() / ("result_file_" + std::to_string(::getpid()));
    fs::remove_all(root);
    std::string error;
    const auto folder = result_folder(root.string(), "2026_11_25-04_00_00/test_3", error);
    ASSERT_TRUE(folder) << error;
    fs::create_directories(*folder);
    std::ofstream(root / "secret.json") << "{}";
    for (const char* name : {"output.json", "a_0.png", "analysis.csv", "plot_eye.log", "notes"})
        std::ofstream(fs::path(*folder) / name) << "x";
    fs::create_symlink(root / "secret.json", fs::path(*folder) / "link.json");
    fs::create_directories(fs::path(*folder) / "sub");

    struct Case {
        const char* name;
        const char* type;  // nullptr: refused
    };
    for (const Case& c : {Case{"output.json", "application/json"}, Case{"a_0.png", "image/png"},
                          Case{"analysis.csv", "text/csv; charset=utf-8"}, Case{"plot_eye.log", "text/plain; charset=utf-8"},
                          Case{"notes", "application/octet-stream"}, Case{"../secret.json", nullptr},
                          Case{"..", nullptr}, Case{".", nullptr}, Case{"", nullptr}, Case{"sub", nullptr},
                          Case{"sub/../output.json", nullptr}, Case{"link.json", nullptr},
                          Case{"missing.png", nullptr}, Case{"..\\secret.json", nullptr}}) {
        SCOPED_TRACE(c.name);
        const auto file = result_file(*folder, c.name);
        ASSERT_EQ(file.has_value(), c.type != nullptr);
        if (file) EXPECT_EQ(file->content_type, c.type);
    }
    for (const char* id : {"../2026_11_25-04_00_00/test_3", "2026_11_25-04_00_00/../test_3", "2026_11_25-04_00_00",
                           "2026_11_25-04_00_00/test_3/..", "/etc/test_1"})
        EXPECT_FALSE(result_folder(root.string(), id, error)) << id;
    fs::remove_all(root);
}
