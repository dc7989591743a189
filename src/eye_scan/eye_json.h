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

// "ctleidx", "vga", "iq" come from the active cache's adaptation entry,
// "trainentry" is the active cache, "valid_flags" the clock-train entries'
// valid bytes; the eye sampler's fields ("es_dfetaps" ... "fom") are decoded
// from the record's eye parameters, and "eyeparams" holds that block's bytes
// as read (to the record's end); "lane_data" carries all 768 bytes.
void generate_json(const VEX_DIE_INFO& die, bool is_die, const std::string& link, uint32_t lane,
                   const CorvaneE32LANEDATA& lane_data, const EyeTables& tables, unsigned int P, unsigned int V,
                   const ScanParams& params, nlohmann::json& out);
