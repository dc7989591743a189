#include "eye_scan/merge_eye_scan_csv_files.h"

#include <fstream>

#include "hardware/atomic_file.h"
#include "hardware/os_specific.h"

namespace {

// The n-th line (0-based) without its line end; empty when there is none.
bool line_of(const std::string& path, unsigned int n, std::string& line) {
    std::ifstream in(path);
    for (unsigned int i = 0; i <= n; ++i)
        if (!std::getline(in, line)) return false;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

}  // namespace

MergeEyeScanCSVFiles::MergeEyeScanCSVFiles(std::string folder) : _folder(std::move(folder)) {}

bool MergeEyeScanCSVFiles::merge(const std::string& path, std::string& error_text) const {
    std::string text;
    bool header = false;
    for (const std::string& file : OSSpecific().get_all_files(_folder)) {
        if (OSSpecific().get_file_name_from_path(file).find("summary.csv") == std::string::npos) continue;
        std::string line;
        if (!header && line_of(file, 0, line)) {
            text += line + "\n";
            header = true;
        }
        if (line_of(file, 1, line)) text += line + "\n";
    }
    if (!header) return true;
    return write_file_atomically(path, text, error_text);
}

bool MergeEyeScanCSVFiles::merge(const std::string& path) const {
    std::string ignored;
    return merge(path, ignored);
}
