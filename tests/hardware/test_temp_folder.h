// A fresh folder under the system's temporary folder, removed with the object.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

class TestTempFolder {
public:
    TestTempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "lanewright_test_XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        _path = pattern;
    }
    ~TestTempFolder() {
        std::error_code ec;
        std::filesystem::remove_all(_path, ec);
    }
    TestTempFolder(const TestTempFolder&) = delete;
    TestTempFolder& operator=(const TestTempFolder&) = delete;

    const std::filesystem::path& path() const { return _path; }

private:
    std::filesystem::path _path;
};
