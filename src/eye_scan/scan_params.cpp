#include "eye_scan/scan_params.h"

#include <algorithm>
#include <cmath>

#include "hardware/chips/e32_phy_firmware.h"

int axis_values(int start, int end, int step) {
    if (step <= 0 || end < start) return 0;
    return (end - start) / step + 1;
}

double eye_scan_tap_seconds(const ScanParams& params, double rate_gbps) {
    const double rate = rate_gbps > 0 ? rate_gbps : 2.5;
    const int bits = std::min(params.nbits, static_cast<int>(chips::e32::kMaxScanBits));
    const double points = static_cast<double>(axis_values(params.phase_start, params.phase_end, params.phase_step)) *
                          axis_values(params.voltage_start, params.voltage_end, params.voltage_step);
    return points * (chips::e32::kEyePointMoveNs * 1e-9 + std::ldexp(1.0, bits) / (rate * 1e9));
}

double eye_scan_lane_seconds(const ScanParams& params, unsigned int taps, double rate_gbps) {
    const int extra = params.nbits - static_cast<int>(chips::e32::kMaxScanBits);
    return (extra > 0 ? std::ldexp(1.0, extra) : 1.0) * taps * eye_scan_tap_seconds(params, rate_gbps);
}

std::optional<std::string> check_scan_window(const ScanParams& params) {
    const struct {
        const char* name;
        int start, end, step;
    } axes[] = {{"phase", params.phase_start, params.phase_end, params.phase_step},
                {"voltage", params.voltage_start, params.voltage_end, params.voltage_step}};
    for (const auto& axis : axes) {
        const int values = axis_values(axis.start, axis.end, axis.step);
        const std::string window = std::to_string(axis.start) + ".." + std::to_string(axis.end) + " by " +
                                   std::to_string(axis.step);
        if (values == 0) return std::string("Eye scan ") + axis.name + " window " + window + " holds no values";
        if (values > static_cast<int>(chips::e32::kMaxEyeAxisValues))
            return std::string("Eye scan ") + axis.name + " window " + window + " holds " + std::to_string(values) +
                   " values; at most " + std::to_string(chips::e32::kMaxEyeAxisValues) + " fit";
    }
    return std::nullopt;
}
