// A folder laid out like the sysfs PCI device folder, with "config" files
// of chosen bytes.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "hardware/test_temp_folder.h"

class FakeSysfs {
public:
    std::string root() const { return _temp.path().string(); }

    std::filesystem::path config_path(unsigned segment, unsigned bus, unsigned device, unsigned function) const {
        char name[32];
        std::snprintf(name, sizeof(name), "%04x:%02x:%02x.%u", segment, bus, device, function);
        return _temp.path() / name / "config";
    }

    // A function whose configuration space holds bytes 0, 1, 2... (mod 256) of the given size.
    void add_function(unsigned segment, unsigned bus, unsigned device, unsigned function, std::size_t size = 4096) {
        std::vector<char> bytes(size);
        for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i);
        write_config(segment, bus, device, function, bytes);
    }

    void write_config(unsigned segment, unsigned bus, unsigned device, unsigned function,
                      const std::vector<char>& bytes) {
        const auto path = config_path(segment, bus, device, function);
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    std::vector<unsigned char> read_config(unsigned segment, unsigned bus, unsigned device, unsigned function) const {
        std::ifstream in(config_path(segment, bus, device, function), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    void remove_function(unsigned segment, unsigned bus, unsigned device, unsigned function) {
        std::filesystem::remove_all(config_path(segment, bus, device, function).parent_path());
    }

private:
    TestTempFolder _temp;
};
