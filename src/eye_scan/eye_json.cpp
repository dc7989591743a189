#include "eye_scan/eye_json.h"

#include <algorithm>

#include "hardware/chips/e32_phy_firmware.h"

using nlohmann::json;

void generate_json(const VEX_DIE_INFO& die, bool is_die, const std::string& link, uint32_t lane,
                   const CorvaneE32LANEDATA& lane_data, const EyeTables& t, unsigned int P, unsigned int V,
                   const ScanParams& params, json& out) {
    json cpdf = json::array();
    for (const auto& row : t.cpdf) cpdf.push_back(json(std::vector<int32_t>(std::begin(row), std::end(row))));
    json pdf = json::array();
    for (const auto& pair : t.pdf) {
        json taps = json::array();
        for (const auto& tap : pair) {
            json rows = json::array();
            for (const auto& row : tap) rows.push_back(json(std::vector<int32_t>(std::begin(row), std::end(row))));
            taps.push_back(std::move(rows));
        }
        pdf.push_back(std::move(taps));
    }
    json rxadapt = json::array();
    for (const auto& adapt : lane_data.rxadapt) {
        json taps = json::array();
        for (const auto& [first, second] : adapt.taps) taps.push_back({first, second});
        rxadapt.push_back({{"ctleidx", adapt.ctleidx}, {"vga", adapt.vga}, {"iq", adapt.iq}, {"taps", taps}});
    }
    json valid = json::array();
    for (const auto& entry : lane_data.clock_train) valid.push_back(entry.valid);
    const auto cache = lane_data.active_cache < lane_data.rxadapt.size() ? lane_data.active_cache : 0;
    const auto& active = lane_data.rxadapt[cache];
    out = {{"fwapiver", lane_data.layout},
           {"pi_steps", P},
           {"dac_steps", V},
           {"total_taps", kEyeTableTaps},
           {"is_cpu", die.is_cpu},
           {"is_gpu", die.is_gpu},
           {"link_name", link},
           {"lane_number", lane},
           {"cpdf", std::move(cpdf)},
           {"pdf", std::move(pdf)},
           {"phase_start", params.phase_start},
           {"phase_end", params.phase_end},
           {"phase_step", params.phase_step},
           {"voltage_start", params.voltage_start},
           {"voltage_end", params.voltage_end},
           {"voltage_step", params.voltage_step},
           {"nbits", params.nbits},
           {"trainentry", lane_data.active_cache},
           {"valid_flags", std::move(valid)},
           {"ctleidx", active.ctleidx},
           {"vga", active.vga},
           {"iq", active.iq},
           {"rxadapt", std::move(rxadapt)},
           {"lane_data", lane_data.bytes}};
    const auto& eye = lane_data.eye;
    out["es_dfetaps"] = eye.es_dfetaps;
    out["pi"] = eye.pi;
    out["att"] = eye.att;
    out["zero"] = eye.zero;
    out["ind"] = eye.ind;
    out["dc"] = eye.dc;
    for (std::size_t i = 0; i < eye.rsvd.size(); ++i) out["rsvd" + std::to_string(i + 1)] = eye.rsvd[i];
    out["offsetAFE"] = eye.offset_afe;
    out["dacs"] = eye.dacs;
    out["offsetDacs"] = eye.offset_dacs;
    out["eyeh"] = eye.eyeh;
    out["h1est"] = eye.h1est;
    out["fom"] = eye.fom;
    // The whole block as read, reserved bytes included.
    const auto first = lane_data.bytes.begin() + std::min<std::size_t>(chips::e32::kEyeParamsFirst, lane_data.bytes.size());
    out["eyeparams"] = std::vector<uint8_t>(first, lane_data.bytes.end());
    if (is_die) {
        out["socket"] = die.socket();
        out["die"] = die.die();
    } else {
        out["bus"] = die.gpu.device.bus;
        out["device"] = die.gpu.device.device;
        out["function"] = die.gpu.device.function;
    }
}
