// What the browser reads of eye scans: the targets it may scan, the data of
// a finished scan (counts, axes, figures, plots) and the files of a result.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

class GUIResourceStore;

// Every element of the PCIe device list (each says in "EyeScanSupported"
// whether it can be scanned), then every element of the hVL list.
nlohmann::json eye_scan_device_list(GUIResourceStore& store);

// The folder of a result id ("<run stamp>/test_<n>") under root, or nothing
// (with error) when the id is malformed. The folder may not exist.
std::optional<std::string> result_folder(const std::string& root, const std::string& id, std::string& error);

// {"OperationStatus": true, "Nbits", "Taps", "BerFloor", "PhaseUI",
// "VoltageMV", "Lanes", "Analysis", "AnalysisCsv"} of the eye scan in
// folder (see GetEyeScanData), or {"OperationStatus": false, "ErrMsg"}.
nlohmann::json eye_scan_data(const std::string& folder, const std::string& id);

// A file of a result as the browser may fetch it: name is a plain file name
// (no separators, not "." or "..") of a regular file in folder. Its path and
// content type, or nothing.
struct ResultFile {
    std::string path;
    std::string content_type;
};
std::optional<ResultFile> result_file(const std::string& folder, const std::string& name);
