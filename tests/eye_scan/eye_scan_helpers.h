// Building a lane's collector over the model as the runner does, and reading
// back what a scan wrote.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/e32_phy.h"
#include "eye_scan/corvane_eye_scan.h"
#include "hardware/chips/e32_phy_firmware.h"
#include "hardware/crn_factory.h"
#include "hardware/register_storage.h"
#include "support/text_file.h"

namespace eye_test {

struct LaneScan {
    LaneScan(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) {
        phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die));
        lanes = get_lane_generic_info(die);
        commands = std::make_shared<CorvaneE32PCSCommands>(link, lane, get_register_store(die));
        scan = std::make_unique<CorvaneEyeScan>(die, link, lane, commands, std::make_shared<StoneRingBufferReader>(phy),
                                                lanes, std::make_shared<GetCorvaneE32LaneData>(link, lane, phy, lanes));
    }
    // Scan commands the lane's firmware took so far (low byte).
    unsigned int scans() const {
        std::string error;
        commands->do_txrx_cap(chips::e32::kCapEyeScanCount, error);
        return commands->read_response();
    }
    bool run(const ScanParams& params, std::string& error) {
        const bool ok = scan->initate_eye_scan(params, error);
        scan->disable_override();
        return ok;
    }

    std::shared_ptr<PhyAccessor> phy;
    std::shared_ptr<LaneGenericInformation> lanes;
    std::shared_ptr<CorvaneE32PCSCommands> commands;
    std::unique_ptr<CorvaneEyeScan> scan;
};

using lw_test::read_text;

// Rows of a "<id>_data.csv": each line's values (every value ends in ",").
inline std::vector<std::vector<long>> read_csv(const std::string& path) {
    std::vector<std::vector<long>> rows;
    std::istringstream lines(read_text(path));
    for (std::string line; std::getline(lines, line);) {
        std::vector<long> row;
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');) row.push_back(std::stol(cell));
        rows.push_back(row);
    }
    return rows;
}

}  // namespace eye_test
