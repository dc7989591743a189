#include "result_data/data_handler.h"

#include <iostream>
#include <stdexcept>

#include "result_data/hvl_margin_data_handler.h"
#include "result_data/obfuscate_data.h"
#include "result_data/pcie_margin_data_handler.h"
#include "result_data/static_data.h"

DataHandler::~DataHandler() = default;

void DataHandler::_finish_line(const std::string& line, std::ostream& out) const {
    if (_mode == DUMP_MODE_PLAIN) {
        out << line << '\n';
        return;
    }
    std::string hidden;
    ObfuscateData().hide_data(line, hidden);
    out << hidden << '\n';
}

const std::map<std::string, std::string>& DataHandler::_static_fields() {
    if (!_static) _static = StaticDataHandler::get().get_static_fields_map();
    return *_static;
}

std::unique_ptr<DataHandler> DataHandlerCreator::get_data_handler(DataHandlerType type, ModesOfDumps mode, bool texl) {
    switch (type) {
    case PCIE_DATA_HANDLER: return std::make_unique<PCIEMarginDataHandler>(mode);
    case HVL_DATA_HANDLER: return std::make_unique<HVLMarginDataHandler>(mode, texl);
    }
    static const char* const kUnknown = "Unknow data handler passed";
    std::cout << kUnknown << std::endl;
    throw std::runtime_error(kUnknown);
}
