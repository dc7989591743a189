#include "result_data/data_handler.h"

#include <iostream>
#include <stdexcept>

#include "result_data/hvl_margin_data_handler.h"
#include "result_data/pcie_margin_data_handler.h"

DataHandler::~DataHandler() = default;

std::unique_ptr<DataHandler> DataHandlerCreator::get_data_handler(DataHandlerType type, ModesOfDumps mode, bool texl) {
    switch (type) {
    case PCIE_DATA_HANDLER: return std::make_unique<PCIEMarginDataHandler>(mode);
    case HVL_DATA_HANDLER: return std::make_unique<HVLMarginDataHandler>(mode, texl);
    }
    static const char* const kUnknown = "Unknow data handler passed";
    std::cout << kUnknown << std::endl;
    throw std::runtime_error(kUnknown);
}
