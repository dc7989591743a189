#include "eye_plot.h"

#include <cairo.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace EyePlot {
namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& text) { throw std::runtime_error(text); }

std::string read_file(const std::string& path, const char* what) {
    std::ifstream in(path, std::ios::binary);
    if (!in) fail(std::string("cannot read the ") + what + " \"" + path + "\": " + std::strerror(errno));
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) fail(std::string("cannot read the ") + what + " \"" + path + "\"");
    return text.str();
}

std::string text_of(const json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_array() && !value.empty()) return text_of(value.front());
    if (value.is_null()) return "";
    return value.dump();
}

std::string required_text(const json& meta, const char* key) {
    auto it = meta.find(key);
    if (it == meta.end() || !it->is_string() || it->get<std::string>().empty())
        fail(std::string("metadata has no \"") + key + "\" path");
    return it->get<std::string>();
}

double number(const json& meta, const char* key, bool required, double fallback) {
    auto it = meta.find(key);
    if (it == meta.end()) {
        if (required) fail(std::string("metadata has no \"") + key + "\"");
        return fallback;
    }
    if (!it->is_number()) fail(std::string("metadata \"") + key + "\" is not a number");
    double value = it->get<double>();
    if (!std::isfinite(value)) fail(std::string("metadata \"") + key + "\" is not finite");
    return value;
}

std::vector<std::vector<double>> parse_counts(const std::string& text, const std::string& path) {
    std::vector<std::vector<double>> rows;
    std::istringstream in(text);
    std::string line;
    int line_no = 0;
    while (std::getline(in, line)) {
        ++line_no;
        while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
        if (line.empty()) continue;
        // Every value is followed by ",", so the last one leaves nothing after it.
        if (line.back() == ',') line.pop_back();
        std::vector<double> row;
        std::size_t pos = 0;
        while (true) {
            std::size_t comma = line.find(',', pos);
            std::string cell = line.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
            const char* begin = cell.c_str();
            char* end = nullptr;
            errno = 0;
            double value = std::strtod(begin, &end);
            while (end && *end && std::isspace(static_cast<unsigned char>(*end))) ++end;
            if (end == begin || *end != '\0' || errno == ERANGE || !std::isfinite(value))
                fail("data CSV \"" + path + "\" line " + std::to_string(line_no) + ": \"" + cell +
                     "\" is not a number");
            row.push_back(value);
            if (comma == std::string::npos) break;
            pos = comma + 1;
        }
        if (!rows.empty() && row.size() != rows.front().size())
            fail("data CSV \"" + path + "\" line " + std::to_string(line_no) + " has " +
                 std::to_string(row.size()) + " values, the first row " + std::to_string(rows.front().size()));
        rows.push_back(std::move(row));
    }
    if (rows.empty()) fail("data CSV \"" + path + "\" has no rows");
    return rows;
}

// Numbers for people: no trailing zeros, a real minus sign.
std::string label(double value, int digits = 4) {
    if (std::fabs(value) < 1e-12) value = 0;
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%.*g", digits, value);
    std::string text = buffer;
    if (!text.empty() && text[0] == '-') text = "\u2212" + text.substr(1);
    return text;
}

std::string csv_number(double value) {
    if (std::fabs(value) < 1e-15) value = 0;
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%.10g", value);
    return buffer;
}

std::string csv_text(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char ch : text) {
        if (ch == '"') quoted += '"';
        quoted += ch;
    }
    return quoted + "\"";
}

// Cells on one axis that touch 0: one, or two when 0 is their boundary.
template <typename Lo, typename Hi>
std::pair<int, int> centre_span(int count, double step, Lo lo, Hi hi) {
    const double eps = std::fabs(step) * 1e-6;
    int first = -1, last = -1;
    for (int i = 0; i < count; ++i) {
        if (lo(i) <= eps && hi(i) >= -eps) {
            if (first < 0) first = i;
            last = i;
        }
    }
    return {first, last};
}

// Perceptually even and readable in grey: viridis at ten stops.
constexpr double kMap[10][3] = {{68, 1, 84},    {72, 40, 120},  {62, 74, 137},  {49, 104, 142}, {38, 130, 142},
                                {31, 158, 137}, {53, 183, 121}, {109, 205, 89}, {180, 222, 44}, {253, 231, 37}};

void set_map_colour(cairo_t* cr, double t) {
    t = std::clamp(t, 0.0, 1.0) * 9.0;
    int i = std::min(8, static_cast<int>(t));
    double f = t - i;
    cairo_set_source_rgb(cr, (kMap[i][0] + f * (kMap[i + 1][0] - kMap[i][0])) / 255.0,
                         (kMap[i][1] + f * (kMap[i + 1][1] - kMap[i][1])) / 255.0,
                         (kMap[i][2] + f * (kMap[i + 1][2] - kMap[i][2])) / 255.0);
}

enum class Align { Left, Centre, Right };

void text_at(cairo_t* cr, const std::string& text, double x, double y, Align align, double size, bool bold = false) {
    cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_text_extents_t ext;
    cairo_text_extents(cr, text.c_str(), &ext);
    double dx = align == Align::Left ? 0 : align == Align::Centre ? -ext.x_advance / 2 : -ext.x_advance;
    cairo_move_to(cr, x + dx, y);
    cairo_show_text(cr, text.c_str());
}

// A figure label on a dark pill, so it reads over any part of the map.
void tag_at(cairo_t* cr, const std::string& text, double x, double y, Align align) {
    cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    cairo_set_font_size(cr, 11.5);
    cairo_text_extents_t ext;
    cairo_text_extents(cr, text.c_str(), &ext);
    double w = ext.x_advance + 10, h = 17;
    double left = align == Align::Left ? x : align == Align::Centre ? x - w / 2 : x - w;
    cairo_set_source_rgba(cr, 0.08, 0.08, 0.1, 0.78);
    cairo_rectangle(cr, left, y - h / 2, w, h);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_move_to(cr, left + 5, y + 4);
    cairo_show_text(cr, text.c_str());
}

// Ticks at whole multiples of step inside [lo, hi].
std::vector<double> ticks(double lo, double hi, double step) {
    std::vector<double> out;
    if (!(step > 0)) return out;
    const double eps = step * 1e-6;
    for (double k = std::ceil((lo - eps) / step); k * step <= hi + eps && out.size() < 200; k += 1) out.push_back(k * step);
    return out;
}

void write_all(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    out.close();
    if (!out) fail("cannot write \"" + path + "\"");
}

std::string temp_name(const std::string& path) { return path + ".tmp" + std::to_string(::getpid()); }

}  // namespace

double EyeScan::phase_lo(int c) const { return std::max(start_x + (c - 0.5) * x_step, phase_min()); }
double EyeScan::phase_hi(int c) const { return std::min(start_x + (c + 0.5) * x_step, phase_max()); }

EyeScan load_eye_scan(const std::string& metadata_path) {
    json meta;
    try {
        meta = json::parse(read_file(metadata_path, "metadata"));
    } catch (const json::exception& e) {
        fail("metadata \"" + metadata_path + "\" is not valid JSON: " + e.what());
    }
    if (!meta.is_object()) fail("metadata \"" + metadata_path + "\" is not a JSON object");

    EyeScan scan;
    scan.csv_path = required_text(meta, "csv_file_path");
    scan.png_path = required_text(meta, "output_file_path");
    scan.summary_path = required_text(meta, "summary_csv");
    scan.start_x = number(meta, "start_x", true, 0);
    scan.x_step = number(meta, "x_step_size", true, 0);
    scan.start_y = number(meta, "start_y", true, 0);
    scan.y_step = number(meta, "y_step_size", true, 0);
    if (!(scan.x_step > 0) || !(scan.y_step > 0)) fail("metadata step sizes must be above 0");
    scan.x_axis_step = number(meta, "x_step_size_axis", false, scan.x_step * 4);
    scan.y_axis_step = number(meta, "y_step_size_axis", false, scan.y_step * 5);
    scan.name = meta.contains("header") ? text_of(meta["header"]) : "";
    scan.device = meta.contains("Device") ? text_of(meta["Device"]) : "";
    scan.link = meta.contains("Link") ? text_of(meta["Link"]) : "";
    scan.lane = meta.contains("Lane") ? text_of(meta["Lane"]) : "";
    scan.ber_text = meta.contains("BER") ? text_of(meta["BER"]) : "";

    if (meta.contains("nbits") && meta.contains("taps")) {
        double nbits = number(meta, "nbits", true, 0), taps = number(meta, "taps", true, 0);
        if (nbits < 1 || nbits > 60 || taps < 1) fail("metadata \"nbits\"/\"taps\" out of range");
        scan.total_bits = std::ldexp(2.0 * taps, static_cast<int>(nbits));
    } else {
        const std::string& text = scan.ber_text;
        std::size_t eq = text.find('=');
        double floor = 0;
        if (eq != std::string::npos) {
            char* end = nullptr;
            floor = std::strtod(text.c_str() + eq + 1, &end);
        }
        if (!(floor > 0 && floor <= 1))
            fail("metadata has neither \"nbits\" and \"taps\" nor a \"BER\" text of the form BER=<floor>");
        scan.total_bits = kFloorCount / floor;
    }
    if (scan.ber_text.empty()) scan.ber_text = "BER=" + label(scan.ber_floor(), 4);

    scan.cpdf = parse_counts(read_file(scan.csv_path, "data CSV"), scan.csv_path);
    return scan;
}

EyeFigures measure_eye(const EyeScan& scan) {
    EyeFigures eye;
    const int rows = scan.rows(), cols = scan.cols();
    auto [v0, v1] = centre_span(rows, scan.y_step, [&](int r) { return scan.volt_lo(r); },
                                [&](int r) { return scan.volt_hi(r); });
    auto [p0, p1] = centre_span(cols, scan.x_step, [&](int c) { return scan.phase_lo(c); },
                                [&](int c) { return scan.phase_hi(c); });
    if (v0 < 0 || p0 < 0) return eye;
    auto row_open = [&](int r) {
        for (int c = p0; c <= p1; ++c)
            if (!scan.open(r, c)) return false;
        return true;
    };
    auto col_open = [&](int c) {
        for (int r = v0; r <= v1; ++r)
            if (!scan.open(r, c)) return false;
        return true;
    };
    for (int r = v0; r <= v1; ++r)
        if (!row_open(r)) return eye;

    int top = v1, bottom = v0, right = p1, left = p0;
    while (top + 1 < rows && row_open(top + 1)) ++top;
    while (bottom > 0 && row_open(bottom - 1)) --bottom;
    while (right + 1 < cols && col_open(right + 1)) ++right;
    while (left > 0 && col_open(left - 1)) --left;
    eye.open = true;
    eye.top_mv = scan.volt_hi(top);
    eye.bottom_mv = scan.volt_lo(bottom);
    eye.right_ui = scan.phase_hi(right);
    eye.left_ui = scan.phase_lo(left);
    eye.width_ui = eye.right_ui - eye.left_ui;
    eye.height_mv = eye.top_mv - eye.bottom_mv;

    std::vector<char> seen(static_cast<std::size_t>(rows) * cols, 0);
    std::deque<std::pair<int, int>> todo;
    for (int r = v0; r <= v1; ++r)
        for (int c = p0; c <= p1; ++c) {
            seen[r * cols + c] = 1;
            todo.emplace_back(r, c);
        }
    while (!todo.empty()) {
        auto [r, c] = todo.front();
        todo.pop_front();
        eye.area_ui_mv += (scan.phase_hi(c) - scan.phase_lo(c)) * (scan.volt_hi(r) - scan.volt_lo(r));
        const int next[4][2] = {{r + 1, c}, {r - 1, c}, {r, c + 1}, {r, c - 1}};
        for (auto& n : next) {
            if (n[0] < 0 || n[0] >= rows || n[1] < 0 || n[1] >= cols) continue;
            char& mark = seen[n[0] * cols + n[1]];
            if (mark || !scan.open(n[0], n[1])) continue;
            mark = 1;
            todo.emplace_back(n[0], n[1]);
        }
    }
    return eye;
}

std::string summary_csv(const EyeScan& scan, const EyeFigures& eye) {
    std::string out =
        "Name,Lane,EyeWidthUI,EyeHeightMV,EyeTopMV,EyeBottomMV,EyeLeftUI,EyeRightUI,BERFloor,EyeAreaUImV,Link\n";
    out += csv_text(scan.name) + "," + csv_text(scan.lane) + "," + csv_number(eye.width_ui) + "," +
           csv_number(eye.height_mv) + "," + csv_number(eye.top_mv) + "," + csv_number(eye.bottom_mv) + "," +
           csv_number(eye.left_ui) + "," + csv_number(eye.right_ui) + ",";
    char floor[32];
    std::snprintf(floor, sizeof floor, "%.6g", scan.ber_floor());
    out += std::string(floor) + "," + csv_number(eye.area_ui_mv) + "," + csv_text(scan.link) + "\n";
    return out;
}

void render_eye_png(const EyeScan& scan, const EyeFigures& eye, double scale, const std::string& path) {
    constexpr double W = 900, H = 640;
    constexpr double X0 = 84, X1 = 742, Y0 = 74, Y1 = 556;  // plot area
    constexpr double BarX = 772, BarW = 18;
    const int width = static_cast<int>(std::lround(W * scale)), height = static_cast<int>(std::lround(H * scale));
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    cairo_t* cr = cairo_create(surface);
    struct Release {
        cairo_surface_t* s;
        cairo_t* c;
        ~Release() {
            cairo_destroy(c);
            cairo_surface_destroy(s);
        }
    } release{surface, cr};
    if (cairo_status(cr) != CAIRO_STATUS_SUCCESS) fail("cannot create the image");
    cairo_scale(cr, scale, scale);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);

    const double xmin = scan.phase_min(), xmax = std::max(scan.phase_max(), xmin + scan.x_step * 1e-3);
    const double ymin = scan.volt_lo(0), ymax = scan.volt_hi(scan.rows() - 1);
    auto px = [&](double x) { return X0 + (x - xmin) / (xmax - xmin) * (X1 - X0); };
    auto py = [&](double y) { return Y1 - (y - ymin) / (ymax - ymin) * (Y1 - Y0); };
    const double log_floor = std::log10(scan.ber_floor());
    auto shade = [&](double count) {
        if (count < kFloorCount) return 0.0;
        return (std::log10(count / scan.total_bits) - log_floor) / -log_floor;
    };

    // Title and what was scanned.
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.12);
    text_at(cr, scan.name.empty() ? "Eye scan" : scan.name, X0, 30, Align::Left, 19, true);
    std::string subtitle;
    auto add = [&](const char* key, const std::string& value) {
        if (value.empty()) return;
        if (!subtitle.empty()) subtitle += "    ";
        subtitle += std::string(key) + value;
    };
    add("Device: ", scan.device);
    add("Link: ", scan.link);
    add("Lane: ", scan.lane);
    add("", scan.ber_text);
    cairo_set_source_rgb(cr, 0.3, 0.3, 0.34);
    text_at(cr, subtitle, X0, 54, Align::Left, 13);

    // The map: one rectangle per cell, edges snapped to device pixels so
    // neighbours meet without seams.
    cairo_save(cr);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    for (int r = 0; r < scan.rows(); ++r)
        for (int c = 0; c < scan.cols(); ++c) {
            double x0 = std::round(px(scan.phase_lo(c)) * scale) / scale;
            double x1 = std::round(px(scan.phase_hi(c)) * scale) / scale;
            double y0 = std::round(py(scan.volt_hi(r)) * scale) / scale;
            double y1 = std::round(py(scan.volt_lo(r)) * scale) / scale;
            set_map_colour(cr, shade(scan.cpdf[r][c]));
            cairo_rectangle(cr, x0, y0, x1 - x0, y1 - y0);
            cairo_fill(cr);
        }
    cairo_restore(cr);

    // The BER-floor contour: every cell side between an open and a closed cell.
    cairo_set_line_width(cr, 2.2);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_SQUARE);
    cairo_set_source_rgb(cr, 1, 1, 1);
    for (int r = 0; r < scan.rows(); ++r)
        for (int c = 0; c < scan.cols(); ++c) {
            if (c + 1 < scan.cols() && scan.open(r, c) != scan.open(r, c + 1)) {
                double x = px(scan.phase_hi(c));
                cairo_move_to(cr, x, py(scan.volt_lo(r)));
                cairo_line_to(cr, x, py(scan.volt_hi(r)));
            }
            if (r + 1 < scan.rows() && scan.open(r, c) != scan.open(r + 1, c)) {
                double y = py(scan.volt_hi(r));
                cairo_move_to(cr, px(scan.phase_lo(c)), y);
                cairo_line_to(cr, px(scan.phase_hi(c)), y);
            }
        }
    cairo_stroke(cr);

    // Frame, ticks and axis titles.
    cairo_set_source_rgb(cr, 0.15, 0.15, 0.18);
    cairo_set_line_width(cr, 1.2);
    cairo_rectangle(cr, X0, Y0, X1 - X0, Y1 - Y0);
    cairo_stroke(cr);
    cairo_set_line_width(cr, 1);
    for (double x : ticks(xmin, xmax, scan.x_axis_step)) {
        cairo_move_to(cr, px(x), Y1);
        cairo_line_to(cr, px(x), Y1 + 6);
        cairo_stroke(cr);
        text_at(cr, label(x), px(x), Y1 + 21, Align::Centre, 12.5);
    }
    for (double y : ticks(ymin, ymax, scan.y_axis_step)) {
        cairo_move_to(cr, X0 - 6, py(y));
        cairo_line_to(cr, X0, py(y));
        cairo_stroke(cr);
        text_at(cr, label(y), X0 - 10, py(y) + 4.5, Align::Right, 12.5);
    }
    text_at(cr, "Phase (UI)", (X0 + X1) / 2, Y1 + 43, Align::Centre, 14);
    cairo_save(cr);
    cairo_translate(cr, 24, (Y0 + Y1) / 2);
    cairo_rotate(cr, -M_PI / 2);
    text_at(cr, "Voltage (mV)", 0, 0, Align::Centre, 14);
    cairo_restore(cr);

    // Colour bar: log10 BER from the floor (bottom) to 1 (top).
    cairo_save(cr);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    const int steps = 240;
    for (int i = 0; i < steps; ++i) {
        double y0 = Y1 - (Y1 - Y0) * (i + 1) / steps, y1 = Y1 - (Y1 - Y0) * i / steps;
        set_map_colour(cr, (i + 0.5) / steps);
        cairo_rectangle(cr, BarX, std::floor(y0 * scale) / scale, BarW, (std::ceil(y1 * scale) - std::floor(y0 * scale)) / scale);
        cairo_fill(cr);
    }
    cairo_restore(cr);
    cairo_set_source_rgb(cr, 0.15, 0.15, 0.18);
    cairo_rectangle(cr, BarX, Y0, BarW, Y1 - Y0);
    cairo_stroke(cr);
    auto bar_y = [&](double lg) { return Y1 - (lg - log_floor) / -log_floor * (Y1 - Y0); };
    const int span = static_cast<int>(std::ceil(-log_floor));
    const int every = span > 24 ? 4 : span > 12 ? 2 : 1;
    for (int lg = 0; lg > log_floor; lg -= every) {
        double y = bar_y(lg);
        if (y > Y1 - 16) break;  // keep clear of the floor label
        cairo_move_to(cr, BarX + BarW, y);
        cairo_line_to(cr, BarX + BarW + 5, y);
        cairo_stroke(cr);
        text_at(cr, label(lg), BarX + BarW + 8, y + 4.5, Align::Left, 12);
    }
    cairo_move_to(cr, BarX + BarW, Y1);
    cairo_line_to(cr, BarX + BarW + 5, Y1);
    cairo_stroke(cr);
    text_at(cr, label(log_floor, 3), BarX + BarW + 8, Y1 + 4.5, Align::Left, 12, true);
    text_at(cr, "floor", BarX + BarW + 8, Y1 + 19, Align::Left, 11);
    cairo_save(cr);
    cairo_translate(cr, W - 16, (Y0 + Y1) / 2);
    cairo_rotate(cr, -M_PI / 2);
    text_at(cr, "log10 BER", 0, 0, Align::Centre, 14);
    cairo_restore(cr);

    // The eye opening: its box, the two cuts through the centre, the four edges.
    std::string footer;
    if (eye.open) {
        const double l = px(eye.left_ui), r = px(eye.right_ui), t = py(eye.top_mv), b = py(eye.bottom_mv);
        const double cx = std::clamp(px(0), X0, X1), cy = std::clamp(py(0), Y0, Y1);
        const double dash[2] = {6, 4};
        cairo_set_source_rgba(cr, 1, 0.42, 0.2, 0.95);
        cairo_set_line_width(cr, 1.6);
        cairo_set_dash(cr, dash, 2, 0);
        cairo_rectangle(cr, l, t, r - l, b - t);
        cairo_stroke(cr);
        cairo_set_dash(cr, nullptr, 0, 0);
        cairo_set_line_width(cr, 2);
        cairo_move_to(cr, l, cy);
        cairo_line_to(cr, r, cy);
        cairo_move_to(cr, cx, t);
        cairo_line_to(cr, cx, b);
        cairo_stroke(cr);
        for (auto [x, y] : {std::pair{l, cy}, std::pair{r, cy}, std::pair{cx, t}, std::pair{cx, b}}) {
            cairo_arc(cr, x, y, 3.6, 0, 2 * M_PI);
            cairo_fill(cr);
        }
        // Tags sit inside the plot, beside the marks they name.
        auto inside_x = [&](double x, double half) { return std::clamp(x, X0 + half, X1 - half); };
        tag_at(cr, "+" + label(eye.top_mv) + " mV", inside_x(cx, 50), std::max(t - 13, Y0 + 11), Align::Centre);
        tag_at(cr, label(eye.bottom_mv) + " mV", inside_x(cx, 50), std::min(b + 13, Y1 - 11), Align::Centre);
        tag_at(cr, label(eye.left_ui, 5) + " UI", std::max(l - 6, X0 + 4), cy - 14,
               l - 6 - 80 > X0 ? Align::Right : Align::Left);
        tag_at(cr, "+" + label(eye.right_ui, 5) + " UI", std::min(r + 6, X1 - 4), cy - 14,
               r + 6 + 80 < X1 ? Align::Left : Align::Right);
        footer = "Eye at the BER floor: width " + label(eye.width_ui, 5) + " UI, height " + label(eye.height_mv) +
                 " mV, area " + label(eye.area_ui_mv) + " UI\u00b7mV";
    } else {
        footer = "Eye closed at the BER floor";
    }
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.12);
    text_at(cr, footer, X0, H - 14, Align::Left, 13, true);
    // Legend for the contour: a white line on the floor colour.
    const double key_x = W - 150;
    set_map_colour(cr, 0);
    cairo_rectangle(cr, key_x, H - 26, 26, 14);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_set_line_width(cr, 2.2);
    cairo_move_to(cr, key_x + 3, H - 19);
    cairo_line_to(cr, key_x + 23, H - 19);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.3, 0.3, 0.34);
    text_at(cr, "BER floor contour", key_x + 32, H - 14.5, Align::Left, 11.5);

    cairo_surface_flush(surface);
    if (cairo_status(cr) != CAIRO_STATUS_SUCCESS) fail(std::string("drawing failed: ") + cairo_status_to_string(cairo_status(cr)));
    cairo_status_t written = cairo_surface_write_to_png(surface, path.c_str());
    if (written != CAIRO_STATUS_SUCCESS)
        fail("cannot write \"" + path + "\": " + cairo_status_to_string(written));
}

int run(int argc, const char* const* argv, std::string& error_text) {
    std::string metadata;
    double scale = 1;
    auto trim = [](std::string s) {
        while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
        std::size_t start = 0;
        while (start < s.size() && std::isspace(static_cast<unsigned char>(s[start]))) ++start;
        return s.substr(start);
    };
    try {
        std::vector<std::string> args;
        for (int i = 1; i < argc; ++i) {
            std::string arg = trim(argv[i]);
            // "-inputjson  PATH" handed over as one argument.
            if (arg.rfind("-inputjson", 0) == 0 && arg.size() > 10 && std::isspace(static_cast<unsigned char>(arg[10]))) {
                args.push_back("-inputjson");
                args.push_back(trim(arg.substr(10)));
            } else if (!arg.empty()) {
                args.push_back(arg);
            }
        }
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (args[i] == "-inputjson" && i + 1 < args.size()) {
                metadata = args[++i];
            } else if (args[i] == "-scale" && i + 1 < args.size()) {
                char* end = nullptr;
                scale = std::strtod(args[++i].c_str(), &end);
                if (*end || !(scale >= 0.5 && scale <= 4)) fail("-scale takes a number from 0.5 to 4");
            } else {
                fail("usage: plot_eye -inputjson METADATA.json [-scale 1..4]");
            }
        }
        if (metadata.empty()) fail("usage: plot_eye -inputjson METADATA.json [-scale 1..4]");

        const EyeScan scan = load_eye_scan(metadata);
        const EyeFigures eye = measure_eye(scan);
        const std::string png_temp = temp_name(scan.png_path), csv_temp = temp_name(scan.summary_path);
        try {
            render_eye_png(scan, eye, scale, png_temp);
            write_all(csv_temp, summary_csv(scan, eye));
            if (std::rename(png_temp.c_str(), scan.png_path.c_str()) != 0)
                fail("cannot write \"" + scan.png_path + "\": " + std::strerror(errno));
            if (std::rename(csv_temp.c_str(), scan.summary_path.c_str()) != 0) {
                std::string reason = std::strerror(errno);
                std::remove(scan.png_path.c_str());
                fail("cannot write \"" + scan.summary_path + "\": " + reason);
            }
        } catch (...) {
            std::remove(png_temp.c_str());
            std::remove(csv_temp.c_str());
            throw;
        }
        return 0;
    } catch (const std::exception& e) {
        error_text = e.what();
        for (char& ch : error_text)
            if (ch == '\n' || ch == '\r') ch = ' ';
        return 1;
    }
}

}  // namespace EyePlot
