#include "service/eye_scan_results.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "gui/gui_eye_scan_handle_test.h"
#include "gui/gui_hvl_get_device.h"
#include "gui/gui_pcie_get_device.h"
#include "hardware/os_specific.h"
#include "service/archive_index.h"

using nlohmann::json;

namespace {

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> parts;
    std::stringstream stream(line);
    std::string part;
    while (std::getline(stream, part, ',')) parts.push_back(part);
    return parts;
}

std::vector<std::string> lines_of(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

// A cell as a number when it is one, else its text.
json cell(const std::string& text) {
    std::istringstream stream(text);
    double value = 0;
    if (stream >> value && (stream >> std::ws).eof()) {
        if (std::floor(value) == value && std::fabs(value) < 9e15) return static_cast<long long>(value);
        return value;
    }
    return text;
}

// The file of `key` in the metadata, taken inside folder whatever path it
// was written with: a result is read where it lies now.
std::string file_in(const std::string& folder, const json& metadata, const char* key) {
    const auto it = metadata.find(key);
    if (it == metadata.end() || !it->is_string()) return "";
    return OSSpecific().get_file_name_from_path(it->get<std::string>());
}

bool is_file(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string file_url(const std::string& id, const std::string& name) {
    return "/api/1.0/GetResultFile?id=" + id + "&name=" + name;
}

double number(const json& object, const char* key, double fallback) {
    const auto it = object.find(key);
    return it != object.end() && it->is_number() ? it->get<double>() : fallback;
}

// The four figures and the width and height from a lane's summary (header
// line, then its row); null when it is missing or too short.
json figures_of(const std::string& path) {
    const auto lines = lines_of(path);
    if (lines.size() < 2) return nullptr;
    const auto columns = split(lines[1]);
    if (columns.size() < 9) return nullptr;
    auto value = [&](std::size_t column) {
        const json parsed = cell(columns[column]);
        return parsed.is_number() ? parsed : json(nullptr);
    };
    return {{"WidthUI", value(2)}, {"HeightMV", value(3)}, {"TopMV", value(4)},
            {"BottomMV", value(5)}, {"LeftUI", value(6)}, {"RightUI", value(7)}};
}

}  // namespace

json eye_scan_device_list(GUIResourceStore& store) {
    json list = json::array();
    const json pcie = GUIPCIEGetDevice(store).get_device_list(store.get_pcie_device_list());
    const json hvl = GUIHVLGetDevice(store).get_device_list(store.get_pcie_device_list());
    for (const json* part : {&pcie, &hvl})
        if (part->is_array())
            for (const json& element : *part) list.push_back(element);
    return list;
}

std::optional<std::string> result_folder(const std::string& root, const std::string& id, std::string& error) {
    const auto parts = parse_result_id(id);
    if (!parts) {
        error = "\"" + id + "\" is not a result id (<run stamp>/test_<number>)";
        return std::nullopt;
    }
    OSSpecific os;
    return os.append_to_path(os.append_to_path(root, parts->first), parts->second);
}

json eye_scan_data(const std::string& folder, const std::string& id) {
    auto refuse = [](const std::string& reason) { return json{{"OperationStatus", false}, {"ErrMsg", reason}}; };
    json record;
    try {
        std::ifstream in(folder + "/output.json");
        if (!in) return refuse("No result " + id + " in the archive");
        record = json::parse(in);
    } catch (const json::exception&) {
        return refuse("Result " + id + " can't be read");
    }
    if (!record.is_object() || record.value("Operation", json()) != "EyeScan")
        return refuse("Result " + id + " is not an eye scan");

    OSSpecific os;
    json lanes = json::array();
    json phases = json::array(), voltages = json::array();
    const json params = record.value("TestParams", json::object());
    int nbits = eye_scan_nbits(params.is_object() ? params.value("BER", std::string()) : std::string());
    int taps = 0;
    for (const std::string& path : os.get_all_files(folder)) {
        const std::string name = os.get_file_name_from_path(path);
        if (name.find("_metadata") == std::string::npos) continue;
        json metadata;
        try {
            std::ifstream in(path);
            metadata = json::parse(in);
        } catch (const json::exception&) {
            continue;  // a lane whose scan ended before its metadata was whole
        }
        if (!metadata.is_object()) continue;
        if (metadata.contains("nbits") && metadata["nbits"].is_number_integer()) nbits = metadata["nbits"].get<int>();
        if (metadata.contains("taps") && metadata["taps"].is_number_integer()) taps = metadata["taps"].get<int>();

        json counts = json::array();
        for (const std::string& line : lines_of(folder + "/" + file_in(folder, metadata, "csv_file_path"))) {
            json row = json::array();
            for (const std::string& value : split(line)) row.push_back(cell(value));
            counts.push_back(row);
        }
        if (phases.empty() && !counts.empty()) {
            const double start_x = number(metadata, "start_x", -0.5), step_x = number(metadata, "x_step_size", 0.0625);
            const double start_y = number(metadata, "start_y", -100), step_y = number(metadata, "y_step_size", 5);
            for (std::size_t p = 0; p < counts[0].size(); ++p) phases.push_back(start_x + p * step_x);
            // Row r counts the voltage bin between values r and r + 1.
            for (std::size_t r = 0; r < counts.size(); ++r) voltages.push_back(start_y + (r + 0.5) * step_y);
        }
        const std::string png = file_in(folder, metadata, "output_file_path");
        const std::string summary = file_in(folder, metadata, "summary_csv");
        lanes.push_back({{"Lane", metadata.value("Lane", json())},
                         {"Link", metadata.value("Link", json())},
                         {"Device", metadata.value("Device", json())},
                         {"Name", metadata.value("header", json())},
                         {"Counts", counts},
                         {"Figures", summary.empty() ? json(nullptr) : figures_of(folder + "/" + summary)},
                         {"Png", !png.empty() && is_file(folder + "/" + png) ? json(file_url(id, png)) : json(nullptr)}});
    }

    json analysis = {{"Header", json::array()}, {"Rows", json::array()}};
    const auto analysis_lines = lines_of(folder + "/analysis.csv");
    for (std::size_t i = 0; i < analysis_lines.size(); ++i) {
        json row = json::array();
        for (const std::string& value : split(analysis_lines[i])) row.push_back(i == 0 ? json(value) : cell(value));
        if (i == 0)
            analysis["Header"] = row;
        else
            analysis["Rows"].push_back(row);
    }
    // The floor a scan can show: 3 counts of all bits compared over both
    // pairs and every tap.
    const json floor = nbits > 0 && taps > 0 ? json(3.0 / (std::pow(2.0, nbits) * 2 * taps)) : json(nullptr);
    return {{"OperationStatus", true},
            {"Nbits", nbits},
            {"Taps", taps > 0 ? json(taps) : json(nullptr)},
            {"BerFloor", floor},
            {"PhaseUI", phases},
            {"VoltageMV", voltages},
            {"Lanes", lanes},
            {"Analysis", analysis},
            {"AnalysisCsv", is_file(folder + "/analysis.csv") ? json(file_url(id, "analysis.csv")) : json(nullptr)}};
}

std::optional<ResultFile> result_file(const std::string& folder, const std::string& name) {
    if (name.empty() || name.size() > 255 || name == "." || name == ".." ||
        name.find_first_of(std::string("/\\\0", 3)) != std::string::npos)
        return std::nullopt;
    const std::string path = folder + "/" + name;
    // A link could lead out of the folder: only regular files are served.
    if (!is_file(path)) return std::nullopt;
    static const std::pair<const char*, const char*> kTypes[] = {{".png", "image/png"},
                                                                {".csv", "text/csv; charset=utf-8"},
                                                                {".json", "application/json"},
                                                                {".txt", "text/plain; charset=utf-8"},
                                                                {".log", "text/plain; charset=utf-8"}};
    for (const auto& [suffix, type] : kTypes) {
        const std::string ending = suffix;
        if (name.size() > ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0)
            return ResultFile{path, type};
    }
    return ResultFile{path, "application/octet-stream"};
}
