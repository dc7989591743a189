#include "eye_scan/eye_tables.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace {

// A whole number stays an integer in the JSON, anything else a fraction.
nlohmann::json number(double value) {
    if (value == static_cast<double>(static_cast<long long>(value))) return static_cast<long long>(value);
    return value;
}

std::string hex(unsigned int value) {
    std::ostringstream out;
    out << std::hex << value;
    return out.str();
}

}  // namespace

std::vector<int32_t> counts_from_bytes(const std::vector<uint8_t>& bytes) {
    std::vector<int32_t> counts(bytes.size() / 4);
    for (size_t i = 0; i < counts.size(); ++i)
        counts[i] = static_cast<int32_t>(bytes[4 * i] | bytes[4 * i + 1] << 8 | bytes[4 * i + 2] << 16 |
                                         static_cast<uint32_t>(bytes[4 * i + 3]) << 24);
    return counts;
}

bool fill_eye_tables(const std::vector<int32_t>& counts, unsigned int taps, unsigned int P, unsigned int V,
                     EyeTables& t, std::string& error_text) {
    if (taps > kEyeTableTaps || P > kEyeTableSize || V > kEyeTableSize || P == 0 || V < 2) {
        error_text = "Eye scan grid of " + std::to_string(taps) + " taps, " + std::to_string(P) + " phases and " +
                     std::to_string(V) + " voltages does not fit the tables";
        return false;
    }
    const size_t needed = static_cast<size_t>(taps) * P * V * 2;
    if (counts.size() < needed) {
        error_text = "Eye scan returned " + std::to_string(counts.size()) + " of " + std::to_string(needed) + " counts";
        return false;
    }
    for (unsigned int tap = 0; tap < taps; ++tap)
        for (unsigned int phase = 0; phase < P; ++phase)
            for (unsigned int voltage = 0; voltage < V; ++voltage)
                for (unsigned int pair = 0; pair < 2; ++pair)
                    t.raw[tap][phase][voltage][pair] = counts[tap * V * P * 2 + phase * V * 2 + voltage * 2 + pair];
    for (unsigned int pair = 0; pair < 2; ++pair)
        for (unsigned int tap = 0; tap < taps; ++tap)
            for (unsigned int voltage = 0; voltage + 1 < V; ++voltage)
                for (unsigned int phase = 0; phase < P; ++phase) {
                    const int64_t d = static_cast<int64_t>(t.raw[tap][phase][voltage + 1][pair]) -
                                      t.raw[tap][phase][voltage][pair];
                    t.pdf[pair][tap][voltage][phase] = static_cast<int32_t>(std::llabs(d));
                    t.cpdf[voltage][phase] += t.pdf[pair][tap][voltage][phase];
                }
    return true;
}

std::string eye_csv(const EyeTables& t, unsigned int P, unsigned int V) {
    std::string text;
    for (unsigned int voltage = 0; voltage + 1 < V; ++voltage) {
        for (unsigned int phase = 0; phase < P; ++phase) text += std::to_string(t.cpdf[voltage][phase]) + ",";
        text += "\n";
    }
    return text;
}

double eye_ber_floor(int nbits, unsigned int taps) {
    return 3.0 / (std::ldexp(1.0, nbits) * 2.0 * static_cast<double>(taps == 0 ? 1 : taps));
}

bool is_plain_pci_device(const VEX_DIE_INFO& die) { return die.is_gpu && die.name() != "KX900X"; }

std::string eye_device_text(const VEX_DIE_INFO& die) {
    if (is_plain_pci_device(die)) {
        const PCIDeviceDetails& d = die.gpu.device;
        return "Segment:" + hex(d.segment) + " Bus:" + hex(d.bus) + " Device:" + hex(d.device) + " Function:" +
               hex(d.function);
    }
    return "Socket:" + std::to_string(die.socket()) + " Die:" + std::to_string(die.die());
}

nlohmann::json eye_metadata(const VEX_DIE_INFO& die, const std::string& link, uint32_t lane,
                            const std::string& base_name, const ScanParams& params, unsigned int taps) {
    std::ostringstream ber;
    ber << "BER=" << eye_ber_floor(params.nbits, taps);
    const std::string folder = params.folder.empty() || params.folder.back() == '/' ? params.folder : params.folder + "/";
    return {{"phy_type", "e32"},
            {"header", base_name},
            {"csv_file_path", folder + std::to_string(params.id) + "_data.csv"},
            {"output_file_path", folder + base_name + ".png"},
            {"start_y", number(params.voltage_start / 2.0)},
            {"y_step_size", number(params.voltage_step / 2.0)},
            {"y_step_size_axis", 25},
            {"start_x", number(params.phase_start / 64.0)},
            {"x_step_size", number(params.phase_step / 64.0)},
            {"x_step_size_axis", 0.25},
            {"multiplier", 1},
            {"DataType", "long"},
            {"Device", eye_device_text(die)},
            {"Link", link},
            {"Lane", lane},
            {"summary_csv", folder + base_name + "_summary.csv"},
            {"BER", nlohmann::json::array({ber.str()})},
            {"Text", nlohmann::json::array({ber.str()})},
            {"nbits", params.nbits},
            {"taps", taps}};
}
