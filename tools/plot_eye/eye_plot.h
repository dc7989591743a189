// plot_eye: turns one eye scan (metadata JSON + density CSV) into an eye
// diagram PNG and a one-row summary CSV. An outside program: it depends on
// nothing of the service, only on nlohmann JSON and cairo.
//
// Grid. The data CSV has one row per voltage bin and one column per phase
// value; a cell holds the error count summed over pairs and taps ("cpdf").
// Phase column p is the sample at start_x + p*x_step_size (UI) and covers
// half a step either side, clipped to the scanned window. Voltage row r is
// the bin from start_y + r*y_step_size to start_y + (r+1)*y_step_size (mV).
// BER of a cell = cpdf / (2^nbits * 2 * taps); the total comes from "nbits"
// and "taps" when the metadata has them, else from the floor text
// "BER=<floor>" (floor = 3 / total).
//
// Figures, at the BER floor: a cell is open when cpdf < 3 (below the floor a
// scan cannot tell errors from noise). The centre cells are those touching
// phase 0 and voltage 0 (two on an axis when 0 is a cell boundary, as in the
// default window where voltage 0 lies between two bins). If any centre cell
// is closed, or 0 lies outside the window, the eye is closed and every
// figure is 0. Otherwise the cuts through the centre walk outwards while the
// cells are open (all centre columns for the vertical cut, all centre rows
// for the horizontal one); each edge is the outer boundary of the last open
// cell, i.e. half way between the last open and the first closed sample, so
// it is within half a step of the true edge. Phase edges stop at the scanned
// window. Width = right - left, height = top - bottom. Area = the summed
// (clipped) area of the open cells 4-connected to the centre, in UI*mV.
#pragma once

#include <string>
#include <vector>

namespace EyePlot {

// Counts below this are under the BER floor.
inline constexpr double kFloorCount = 3.0;

struct EyeScan {
    std::string name, device, link, lane, ber_text;
    std::string csv_path, png_path, summary_path;
    double start_x = 0, x_step = 0, x_axis_step = 0.25;
    double start_y = 0, y_step = 0, y_axis_step = 25;
    double total_bits = 0;                  // bits compared per cell, all pairs and taps
    std::vector<std::vector<double>> cpdf;  // [voltage row][phase column]

    int rows() const { return static_cast<int>(cpdf.size()); }
    int cols() const { return cpdf.empty() ? 0 : static_cast<int>(cpdf[0].size()); }
    double ber_floor() const { return kFloorCount / total_bits; }
    bool open(int r, int c) const { return cpdf[r][c] < kFloorCount; }
    // Cell extents as described above.
    double phase_lo(int c) const;
    double phase_hi(int c) const;
    double volt_lo(int r) const { return start_y + r * y_step; }
    double volt_hi(int r) const { return start_y + (r + 1) * y_step; }
    double phase_min() const { return start_x; }
    double phase_max() const { return start_x + (cols() - 1) * x_step; }
};

struct EyeFigures {
    bool open = false;
    double top_mv = 0, bottom_mv = 0, left_ui = 0, right_ui = 0;
    double width_ui = 0, height_mv = 0, area_ui_mv = 0;
};

// Reads the metadata and the CSV it names; throws std::runtime_error with a
// one-line reason.
EyeScan load_eye_scan(const std::string& metadata_path);
EyeFigures measure_eye(const EyeScan& scan);
// The PNG, 900x640 times scale; throws std::runtime_error.
void render_eye_png(const EyeScan& scan, const EyeFigures& eye, double scale, const std::string& path);
// Header line and one row.
std::string summary_csv(const EyeScan& scan, const EyeFigures& eye);
// The whole program: arguments as main gets them; 0 or 1, reason on err.
int run(int argc, const char* const* argv, std::string& error_text);

}  // namespace EyePlot
