// The older firmware's result document, "<id>_data.json": the whole 50-wide
// tables (unused cells 0), the window, and the lane's training record.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "discovery/e32_phy.h"
#include "eye_scan/eye_tables.h"
#include "eye_scan/scan_params.h"
#include "hardware/vex_die_info.h"

// Fields of the record that this program does not decode ("eyeparams" and
// the adaptation details beyond ctleidx, vga, iq and the taps) are written
// as null; "lane_data" carries the record's 768 bytes as read.
void generate_json(const VEX_DIE_INFO& die, bool is_die, const std::string& link, uint32_t lane,
                   const CorvaneE32LANEDATA& lane_data, const EyeTables& tables, unsigned int P, unsigned int V,
                   const ScanParams& params, nlohmann::json& out);
