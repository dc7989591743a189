// CSV lines of an hVL margin: one line per lane object (see the margin
// job's lane object). The plain mode writes the CSV; the internal mode adds
// the receiver equalisation and figure-of-merit columns and hides each line.
// The TEXL form has no timing and no transmitter columns.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "result_data/data_handler.h"

class HVLMarginDataHandler : public DataHandler {
public:
    HVLMarginDataHandler(ModesOfDumps mode, bool texl) : DataHandler(mode), _texl(texl) {}

    void dump_data(const nlohmann::json& element, const nlohmann::json& first, std::ostream& out) override;
    void dump_header(std::ostream& out) override;
    void dump_header(const nlohmann::json& first, std::ostream& out) override;
    void dump_4pt_data(const nlohmann::json& element, const nlohmann::json& first, std::ostream& out) override;
    void dump_4pt_header(std::ostream& out) override;
    void dump_4pt_header(const nlohmann::json& first, std::ostream& out) override;

    bool _dump_internal_data() const { return _mode == DUMP_MODE_INTERNAL; }

private:
    std::string _header() ;
    std::string _row(const nlohmann::json& element);

    bool _texl;
};
