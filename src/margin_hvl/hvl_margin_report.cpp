#include "margin_hvl/hvl_margin_report.h"

#include <iomanip>
#include <iostream>
#include <stdexcept>

#include "hardware/resource_lock.h"
#include "margin_pcie/margin_report_json.h"

using nlohmann::json;

namespace {

void check_lane(json& object, unsigned int lane, const char* who) {
    if (!object.contains("LaneID")) {
        object["LaneID"] = lane;
        return;
    }
    if (object.at("LaneID") != lane) throw std::runtime_error(std::string("Lane ID is not matching in ") + who + ".");
}

json error_map(const MarginData::ErrorMap& map) {
    json out = json::array();
    for (const auto& [offset, result] : map) {
        json entry = {{"Offset", offset}, {"ErrCnt", result.first}};
        if (!result.second.empty()) entry["OffsetStatus"] = result.second;
        out.push_back(entry);
    }
    return out;
}

}  // namespace

void DumpHVLMarginDataToJSON::dump_margin_capabilities(json& o, unsigned int lane, const MarginCapabilities& caps) {
    check_lane(o, lane, "DumpHVLMarginDataToJSON::dump_margin_capabilities");
    o["TimingSteps"] = caps.values[1];
    o["MaxTimingOffset"] = caps.values[2];
    o["VoltSteps"] = caps.values[3];
    o["MaxVoltOffset"] = caps.values[4];
}

void DumpHVLMarginDataToJSON::dump_margin_params(json& o, unsigned int lane, const MarginParams& p) {
    check_lane(o, lane, "DumpHVLMarginDataToJSON::dump_margin_params");
    if (p.ber == 0) o["BER"] = "Not Available";
    else o["BER"] = p.ber;
    o["ErrCnt"] = p.err_cnt;
    o["DwellTime"] = p.dwell;
    std::ostringstream rate;
    rate << std::fixed << std::setprecision(2) << p.data_rate;
    o["DataRate"] = rate.str();
    o["Link"] = p.link;
    o["Socket"] = p.socket;
    o["Die"] = p.die;
    o["ASICID"] = p.asic_id;
    o["DeviceName"] = p.device_name;
    o["BIOSVersion"] = p.bios_version;
    o["PhyName"] = p.phy_name;
    o["PhyFwVersion"] = p.phy_fw_version;
}

void DumpHVLMarginDataToJSON::dump_remote_tx_eq(json& o, unsigned int lane, const TxEq& tx) {
    check_lane(o, lane, "DumpHVLMarginDataToJSON::dump_tx_eq");
    o["TxEqValid"] = tx.valid != 0;
    if (!tx.valid) return;
    o["cnm1_phy"] = tx.pre;
    o["cnp1_phy"] = tx.post;
    o["preset"] = tx.preset;
    o["fom_valid"] = false;
}

void DumpHVLMarginDataToJSON::dump_rx_eq(json& o, unsigned int lane, const RxEq& rx) {
    check_lane(o, lane, "DumpHVLMarginDataToJSON::dump_rx_eq");
    o.update(rx.to_json());
}

void DumpHVLMarginDataToJSON::dump_margin_data(json& o, unsigned int lane, const MarginData& d, bool texl) {
    check_lane(o, lane, "DumpHVLMarginDataToJSON::dump_margin_data");
    if (!texl) {
        dump_phase_margins(o, d.right_offset, d.left_offset, d.right_margin, d.left_margin, error_map(d.left_map),
                           error_map(d.right_map));
        o["LeftErrCnt"] = {d.left_last.first, d.left_last.second};
        o["RightErrCnt"] = {d.right_last.first, d.right_last.second};
    }
    dump_volt_margins(o, d.top_offset, d.bottom_offset, d.top_margin, d.bottom_margin, error_map(d.bottom_map),
                      error_map(d.top_map));
    o["TopErrCnt"] = {d.top_last.first, d.top_last.second};
    o["BotErrCnt"] = {d.bottom_last.first, d.bottom_last.second};
}

void DumpHVLMarginDataToConsole::operator()(DumpWhat what, const json& o, unsigned int lane, bool texl, bool always,
                                            std::ostream& out) {
    NamedLockGuard console("ConsoleLock");
    if (!always) {
        out << "." << std::flush;
        return;
    }
    if (o.value("LaneID", lane + 1) != lane)
        throw std::runtime_error("Lane ID is not matching in DumpHVLMarginDataToConsole::operator.");
    auto v = [&](const char* key) { return o.contains(key) ? o.at(key).dump() : std::string("Not Available"); };
    switch (what) {
    case Capabilities:
        out << "Margin Capabilities:\n  NumTimingSteps: " << v("TimingSteps") << "\n  MaxTimingOffset: "
            << v("MaxTimingOffset") << "\n  NumVoltageSteps: " << v("VoltSteps") << "\n  MaxVoltageOffset: "
            << v("MaxVoltOffset") << "\n";
        break;
    case Input:
        out << "\nInput Information:\n  Socket        : " << v("Socket") << "\n  Die           : " << v("Die")
            << "\n  Device Name   : " << o.value("DeviceName", "") << "\n  Link          : " << o.value("Link", "")
            << "\n  Lane Number   : " << lane << "\n  BER           : " << v("BER") << "\n  Err Cnt       : "
            << v("ErrCnt") << "\n  Dwell Time(ms): " << v("DwellTime") << "\n";
        break;
    case Results:
        out << "Results: \n";
        if (o.value("ErrorPresent", false)) {
            out << "  Margin Failed.\n";
            break;
        }
        out << std::fixed << std::setprecision(2) << "  Top   Margin: " << o.value("VoltTopMargin", 0.0) << " volt\n"
            << "  Bot   Margin: " << o.value("VoltBotomMargin", 0.0) << " volt\n";
        if (!texl)
            out << "  Left  Margin: " << o.value("PhaseLeftMargin", 0.0) << " ui\n"
                << "  Right Margin: " << o.value("PhaseRightMargin", 0.0) << " ui\n";
        out.unsetf(std::ios::floatfield);
        break;
    }
    out << std::flush;
}

void DumpHVLMarginDataToConsole::dump_err_or_warning(const std::string& text) {
    NamedLockGuard console("ConsoleLock");
    std::cerr << text << std::endl;
}
