#include "eye_scan/scan_params.h"

#include "hardware/chips/e32_phy_firmware.h"

int axis_values(int start, int end, int step) {
    if (step <= 0 || end < start) return 0;
    return (end - start) / step + 1;
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
