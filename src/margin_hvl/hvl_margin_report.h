// The lane object of an hVL margin, filled step by step while the lane is
// margined, and its echo on the console. One object per lane is the single
// source of the CSV rows, the binary report and the test's output.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "result_data/eq_data.h"

struct MarginParams {
    unsigned int ber = 0, err_cnt = 0, dwell = 0;
    std::string link;
    float data_rate = 0;
    unsigned int socket = 0, die = 0;
    std::string device_name, asic_id, bios_version, phy_fw_version, phy_name;
};

struct MarginCapabilities {
    unsigned int values[5] = {0, 0, 0, 0, 0};  // index 1..4: timing steps, max timing, volt steps, max volt
};

struct MarginData {
    using ErrorMap = std::map<unsigned int, std::pair<unsigned int, std::string>>;  // offset -> (errors, message)
    unsigned int right_offset = 0, left_offset = 0;
    float right_margin = 0, left_margin = 0;
    unsigned int top_offset = 0, bottom_offset = 0;
    float top_margin = 0, bottom_margin = 0;
    ErrorMap left_map, right_map, bottom_map, top_map;
    std::pair<unsigned int, unsigned int> left_last, right_last, top_last, bottom_last;
};

class DumpHVLMarginDataToJSON {
public:
    // Each call first checks "LaneID" (writes it when absent) and throws a
    // runtime error naming itself when the object belongs to another lane.
    void dump_margin_capabilities(nlohmann::json& lane_object, unsigned int lane, const MarginCapabilities& caps);
    void dump_margin_params(nlohmann::json& lane_object, unsigned int lane, const MarginParams& params);
    void dump_remote_tx_eq(nlohmann::json& lane_object, unsigned int lane, const TxEq& tx);
    void dump_rx_eq(nlohmann::json& lane_object, unsigned int lane, const RxEq& rx);
    // With texl the timing keys are left out.
    void dump_margin_data(nlohmann::json& lane_object, unsigned int lane, const MarginData& data, bool texl);
};

class DumpHVLMarginDataToConsole {
public:
    enum DumpWhat { Capabilities = 0, Input = 1, Results = 2 };
    void operator()(DumpWhat what, const nlohmann::json& lane_object, unsigned int lane, bool texl, bool always,
                    std::ostream& out);
    void dump_err_or_warning(const std::string& text);
};
