// Joins the plot tool's per-lane summaries of a scan folder into one table.
#pragma once

#include <string>

class MergeEyeScanCSVFiles {
public:
    explicit MergeEyeScanCSVFiles(std::string folder);

    // The files of the folder whose names hold "summary.csv", by name: the
    // first line of the first as the header, then the second line of each
    // (a file without one adds nothing). Written whole to `path`; with no
    // summary file nothing is written. False with a text when writing fails.
    bool merge(const std::string& path, std::string& error_text) const;
    bool merge(const std::string& path) const;

private:
    std::string _folder;
};
