#include "hardware/atomic_file.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <unistd.h>

bool write_file_atomically(const std::string& path, const std::string& content, std::string& err) {
    // The process id keeps two writers of the same file from sharing a temporary.
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out) {
            err = "cannot open " + temporary + " for writing";
            return false;
        }
        out << content;
        out.flush();
        if (!out) {
            err = "cannot write " + temporary;
            out.close();
            std::remove(temporary.c_str());
            return false;
        }
    }
    std::error_code ec;
    std::filesystem::rename(temporary, path, ec);
    if (ec) {
        err = "cannot rename " + temporary + " to " + path + ": " + ec.message();
        std::filesystem::remove(temporary, ec);
        return false;
    }
    return true;
}
