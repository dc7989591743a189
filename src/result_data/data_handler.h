// Report line writers. A data handler turns the JSON of one margin result
// into report text, so runners and the archive write CSV without knowing
// the report's columns.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

enum DataHandlerType : int { PCIE_DATA_HANDLER = 0, HVL_DATA_HANDLER = 1 };
// The internal mode adds columns and hides each finished line.
enum ModesOfDumps : int { DUMP_MODE_PLAIN = 0, DUMP_MODE_INTERNAL = 1 };

class DataHandler {
public:
    virtual ~DataHandler();
    // One lane's line; `first` is the first lane object of the run, which
    // alone carries the device's keys.
    virtual void dump_data(const nlohmann::json& element, const nlohmann::json& first, std::ostream& out) = 0;
    virtual void dump_header(std::ostream& out) = 0;
    virtual void dump_header(const nlohmann::json& first, std::ostream& out) = 0;
    virtual void dump_4pt_data(const nlohmann::json& element, const nlohmann::json& first, std::ostream& out) = 0;
    virtual void dump_4pt_header(std::ostream& out) = 0;
    virtual void dump_4pt_header(const nlohmann::json& first, std::ostream& out) = 0;

protected:
    explicit DataHandler(ModesOfDumps mode) : _mode(mode) {}
    // Writes one finished line: as it is in the plain mode, hidden otherwise;
    // the line feed stays a real one so hidden files still read line by line.
    void _finish_line(const std::string& line, std::ostream& out) const;
    // Taken once, at the first line, so one report's header and rows agree.
    const std::map<std::string, std::string>& _static_fields();

    ModesOfDumps _mode;

private:
    std::optional<std::map<std::string, std::string>> _static;
};

class DataHandlerCreator {
public:
    // PCIe ignores `texl`; hVL tells a TEXL report from an hVL report by it.
    // An unknown type prints "Unknow data handler passed" and throws it as
    // std::runtime_error: a bad value ends the caller's run, not the process.
    static std::unique_ptr<DataHandler> get_data_handler(DataHandlerType type, ModesOfDumps mode, bool texl);
};
