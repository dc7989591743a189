// The work tables of one lane's scan and the files written from them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "eye_scan/scan_params.h"
#include "hardware/vex_die_info.h"

constexpr unsigned int kEyeTableSize = 50, kEyeTableTaps = 8;

// raw[tap][phase][voltage][pair] as the PHY counted (cumulative in voltage),
// pdf[pair][tap][voltage][phase] the density of each voltage bin, and
// cpdf[voltage][phase] the density summed over pairs and taps. Taps are in
// the order they were read. Value-initialised: all zero.
struct EyeTables {
    int32_t raw[kEyeTableTaps][kEyeTableSize][kEyeTableSize][2]{};
    int32_t pdf[2][kEyeTableTaps][kEyeTableSize][kEyeTableSize]{};
    int32_t cpdf[kEyeTableSize][kEyeTableSize]{};
};

// Little-endian 32-bit counts of the bytes (a partial last count is dropped).
std::vector<int32_t> counts_from_bytes(const std::vector<uint8_t>& bytes);

// Unpacks taps x P x V x 2 counts (index tap*V*P*2 + phase*V*2 + voltage*2
// + pair) and forms the densities, V - 1 rows. False with a text when the
// tables can't hold the grid or the counts fall short of it.
bool fill_eye_tables(const std::vector<int32_t>& counts, unsigned int taps, unsigned int P, unsigned int V,
                     EyeTables& tables, std::string& error_text);

// V - 1 lines of P values, each value followed by ",".
std::string eye_csv(const EyeTables& tables, unsigned int P, unsigned int V);

// The lowest bit error rate a scan can show: 3 / (2^nbits * 2 * taps).
double eye_ber_floor(int nbits, unsigned int taps);

// "Socket:<s> Die:<d>", or "Segment:<s> Bus:<b> Device:<d> Function:<f>"
// (hexadecimal) for a plain PCI device.
std::string eye_device_text(const VEX_DIE_INFO& die);
bool is_plain_pci_device(const VEX_DIE_INFO& die);

// The metadata of a lane's CSV, for the plot tool.
nlohmann::json eye_metadata(const VEX_DIE_INFO& die, const std::string& link, uint32_t lane,
                            const std::string& base_name, const ScanParams& params, unsigned int taps);
