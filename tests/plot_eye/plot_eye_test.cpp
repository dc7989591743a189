// plot_eye as the runner uses it: the built binary over a metadata file and a
// density CSV of a known eye, in the default window (17 phases, 40 bins).
#include <gtest/gtest.h>

#include <cairo.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/program.h"
#include "support/text_file.h"

namespace {

namespace fs = std::filesystem;
using lw_test::read_text;

struct Eye {
    double left, right, top, bottom;  // UI and mV, signed coordinates
};

class PlotEye : public ::testing::Test {
protected:
    fs::path dir = fs::temp_directory_path() / ("plot_eye_test_" + std::to_string(::getpid()));
    fs::path meta_path = dir / "1000_metadata.csv", csv_path = dir / "1000_data.csv";
    fs::path png = dir / "lane.png", summary = dir / "lane_summary.csv";
    void TearDown() override { fs::remove_all(dir); }

    // A fresh folder with the CSV of eye (a quarter ellipse per quadrant, as
    // the model draws it: at most 2 counts inside, 3 and more outside) and
    // metadata as the collector writes it, changed by edit.
    void write_scan(const Eye& eye, const std::function<void(nlohmann::json&)>& edit = {}) {
        fs::remove_all(dir);
        fs::create_directories(dir);
        std::ofstream csv(csv_path);
        for (int r = 0; r < 40; ++r, csv << "\n")
            for (int p = 0; p < 17; ++p) {
                double x = -0.5 + p * 0.0625, y = -100 + (r + 0.5) * 5;
                double a = x / (x < 0 ? -eye.left : eye.right), b = y / (y >= 0 ? eye.top : -eye.bottom);
                double d = a * a + b * b;
                csv << (d < 1 ? (p + r) % 3 : std::round(3 + 5e5 * (d - 1) * (d - 1))) << ",";
            }
        nlohmann::json meta = {
            {"phy_type", "e32"}, {"header", "socket_0_die_0_G1_2"}, {"csv_file_path", csv_path},
            {"output_file_path", png}, {"summary_csv", summary}, {"start_y", -100}, {"y_step_size", 5},
            {"y_step_size_axis", 25}, {"start_x", -0.5}, {"x_step_size", 0.0625}, {"x_step_size_axis", 0.25},
            {"multiplier", 1}, {"DataType", "long"}, {"Device", "Socket:0 Die:0"}, {"Link", "G1"}, {"Lane", 2},
            {"nbits", 23}, {"taps", 4}, {"BER", {"BER=4.47035e-08"}}, {"Text", {"BER=4.47035e-08"}}};
        if (edit) edit(meta);
        std::ofstream(meta_path) << meta.dump(4);
    }

    // Runs the binary; its exit status, stderr in err.
    int run(std::vector<std::string> args, std::string& err) const {
        args.insert(args.begin(), PLOT_EYE_PATH);
        const std::string err_path = dir.string() + ".err";
        const int status = lw_test::run_program(args, err_path).status;
        err = read_text(err_path);
        fs::remove(err_path);
        return status;
    }

    std::vector<double> figures() const {
        std::stringstream in(read_text(summary));
        std::string header, row;
        std::getline(in, header);
        std::getline(in, row);
        EXPECT_EQ(header, "Name,Lane,EyeWidthUI,EyeHeightMV,EyeTopMV,EyeBottomMV,EyeLeftUI,EyeRightUI,BERFloor,"
                          "EyeAreaUImV,Link");
        EXPECT_EQ(row.substr(0, 22), "socket_0_die_0_G1_2,2,");
        EXPECT_EQ(row.substr(row.size() - 3), ",G1");
        std::vector<double> cells;  // columns 2 to 9
        std::stringstream cut(row.substr(22));
        for (std::string cell; cells.size() < 8 && std::getline(cut, cell, ',');) cells.push_back(std::stod(cell));
        return cells;
    }
};

TEST_F(PlotEye, KnownEyeGivesItsFiguresAndAPictureOfIt) {
    const Eye eye{-0.27, 0.34, 46, -31};
    write_scan(eye);
    for (int scale : {2, 1}) {
        SCOPED_TRACE(scale);
        std::string err;
        ASSERT_EQ(run({"-scale", std::to_string(scale), "-inputjson", meta_path}, err), 0) << err;
        unsigned char head[24] = {};
        std::ifstream(png, std::ios::binary).read(reinterpret_cast<char*>(head), sizeof head);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(head + 12), 4), "IHDR");
        EXPECT_EQ((head[18] << 8 | head[19]), 900 * scale);  // width and height, big-endian
        EXPECT_EQ((head[22] << 8 | head[23]), 640 * scale);

        // Inside the eye the map has the floor colour, outside a far brighter
        // one (the layout's plot area: x 84..742, y 74..556).
        cairo_surface_t* image = cairo_image_surface_create_from_png(png.c_str());
        ASSERT_EQ(cairo_surface_status(image), CAIRO_STATUS_SUCCESS);
        auto brightness = [&](double ui, double mv) {
            int x = (84 + (ui + 0.5) * 658) * scale, y = (556 - (mv + 100) / 200 * 482) * scale;
            const unsigned char* px = cairo_image_surface_get_data(image) + y * cairo_image_surface_get_stride(image) + x * 4;
            return px[0] + px[1] + px[2];
        };
        EXPECT_EQ(brightness(0.1, -12), 68 + 1 + 84);
        EXPECT_EQ(brightness(-0.12, 22), 68 + 1 + 84);
        EXPECT_GT(brightness(-0.46, 88), 300);
        cairo_surface_destroy(image);
    }

    // Edges lie half way between the last open and the first closed sample,
    // so within half a step (5 mV, 1/16 UI) of the true eye.
    const auto f = figures();
    const double top = f[2], bottom = f[3], left = f[4], right = f[5];
    EXPECT_NEAR(top, eye.top, 2.5);
    EXPECT_NEAR(bottom, eye.bottom, 2.5);
    EXPECT_NEAR(left, eye.left, 0.03125);
    EXPECT_NEAR(right, eye.right, 0.03125);
    EXPECT_DOUBLE_EQ(f[0], right - left);
    EXPECT_DOUBLE_EQ(f[1], top - bottom);
    EXPECT_NEAR(f[6], 3.0 / (std::ldexp(1.0, 23) * 2 * 4), 1e-12);
    const double area = M_PI / 4 * (eye.right - eye.left) * (eye.top - eye.bottom);  // four quarter ellipses
    EXPECT_NEAR(f[7], area, area * 0.12);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 4);  // no temporary left
}

TEST_F(PlotEye, ClosedEyeGivesZerosAndTheFloorFromTheBerText) {
    write_scan({-0.01, 0.01, 1, -1}, [](nlohmann::json& m) {  // every cell centre lies outside
        m.erase("nbits");
        m["BER"] = {"BER=1e-12"};
    });
    std::string err;
    ASSERT_EQ(run({"-inputjson", meta_path}, err), 0) << err;
    EXPECT_EQ(figures(), (std::vector<double>{0, 0, 0, 0, 0, 0, 1e-12, 0}));
}

TEST_F(PlotEye, BadInputExitsNonZeroWithOneLineAndWritesNothing) {
    using Edit = std::function<void(nlohmann::json&)>;
    struct Case {
        const char* name;
        Edit meta;
        std::function<void()> files;
    };
    const std::vector<Case> cases = {
        {"missing metadata", {}, [this] { fs::remove(meta_path); }},
        {"bad json", {}, [this] { std::ofstream(meta_path) << "{\"header\": "; }},
        {"missing csv", [](nlohmann::json& m) { m["csv_file_path"] = "/nonexistent/x.csv"; }, {}},
        {"ragged rows", {}, [this] { std::ofstream(csv_path, std::ios::app) << "1,2,\n"; }},
        {"zero rows", {}, [this] { std::ofstream(csv_path) << "\n"; }},
        {"not a number", {}, [this] { std::ofstream(csv_path, std::ios::app) << "x" << std::string(16, ',') << "\n"; }},
        {"no floor", [](nlohmann::json& m) { m.erase("nbits"), m.erase("BER"); }, {}},
        {"unwritable png", [](nlohmann::json& m) { m["output_file_path"] = "/nonexistent/x.png"; }, {}},
        {"unwritable summary", [](nlohmann::json& m) { m["summary_csv"] = "/nonexistent/x.csv"; }, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        write_scan({-0.3, 0.3, 40, -40}, c.meta);
        if (c.files) c.files();
        std::string err;
        EXPECT_NE(run({"-inputjson", meta_path}, err), 0);
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        for (const auto& entry : fs::directory_iterator(dir))
            EXPECT_TRUE(entry.path() == csv_path || entry.path() == meta_path) << entry.path();
    }
}

}  // namespace
