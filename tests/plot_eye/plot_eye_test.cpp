// plot_eye as the runner uses it: the built binary over a metadata file and a
// density CSV of a known eye, in the default window (17 phases, 40 bins).
#include <gtest/gtest.h>

#include <cairo.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
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

extern char** environ;

namespace {

namespace fs = std::filesystem;

struct Eye {
    double left, right, top, bottom;  // UI and mV, signed coordinates
};

// The model's shape: a quarter ellipse per quadrant; inside at most 2
// counts of noise, outside at least 3 and rising with distance.
double count_at(const Eye& eye, double x, double y) {
    double a = x / (x < 0 ? -eye.left : eye.right), b = y / (y >= 0 ? eye.top : -eye.bottom);
    double d = a * a + b * b;
    if (d < 1) return std::fmod(std::fabs(x * 64 + y), 3.0) < 1 ? 0 : 2;
    return std::round(3 + 5e5 * (d - 1) * (d - 1));
}

std::string read_text(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> cells;
    std::stringstream in(line);
    for (std::string cell; std::getline(in, cell, ',');) cells.push_back(cell);
    return cells;
}

class PlotEye : public ::testing::Test {
protected:
    fs::path dir = fs::temp_directory_path() /
                   ("plot_eye_test_" + std::to_string(::getpid()) + "_" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->name());
    void SetUp() override {
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    nlohmann::json metadata() const {
        return {{"phy_type", "e32"},
                {"header", "socket_0_die_0_G1_2"},
                {"csv_file_path", (dir / "1000_data.csv").string()},
                {"output_file_path", (dir / "socket_0_die_0_G1_2.png").string()},
                {"summary_csv", (dir / "socket_0_die_0_G1_2_summary.csv").string()},
                {"start_y", -100},
                {"y_step_size", 5},
                {"y_step_size_axis", 25},
                {"start_x", -0.5},
                {"x_step_size", 0.0625},
                {"x_step_size_axis", 0.25},
                {"multiplier", 1},
                {"DataType", "long"},
                {"Device", "Socket:0 Die:0"},
                {"Link", "G1"},
                {"Lane", 2},
                {"nbits", 23},
                {"taps", 4},
                {"BER", {"BER=4.47035e-08"}},
                {"Text", {"BER=4.47035e-08"}}};
    }

    void write_csv(const Eye& eye) const {
        std::ofstream out(dir / "1000_data.csv");
        for (int r = 0; r < 40; ++r) {
            for (int p = 0; p < 17; ++p) out << count_at(eye, -0.5 + p * 0.0625, -100 + (r + 0.5) * 5) << ",";
            out << "\n";
        }
    }

    fs::path write_metadata(const nlohmann::json& meta) const {
        fs::path path = dir / "1000_metadata.csv";
        std::ofstream(path) << meta.dump(4);
        return path;
    }

    // Runs the binary without a shell; returns its exit status, stderr in err.
    int run(std::vector<std::string> args, std::string& err) const {
        args.insert(args.begin(), PLOT_EYE_PATH);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const std::string err_path = (dir.parent_path() / (dir.filename().string() + ".err")).string();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = 0;
        int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) return -1;
        int status = 0;
        waitpid(pid, &status, 0);
        err = read_text(err_path);
        fs::remove(err_path);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::vector<std::string> summary_row() const {
        std::stringstream in(read_text(dir / "socket_0_die_0_G1_2_summary.csv"));
        std::string header, row;
        std::getline(in, header);
        std::getline(in, row);
        EXPECT_EQ(header,
                  "Name,Lane,EyeWidthUI,EyeHeightMV,EyeTopMV,EyeBottomMV,EyeLeftUI,EyeRightUI,BERFloor,EyeAreaUImV,Link");
        return split(row);
    }
};

// Width and height from the PNG's IHDR chunk.
std::pair<int, int> png_size(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char head[24] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    auto be32 = [&](int at) { return head[at] << 24 | head[at + 1] << 16 | head[at + 2] << 8 | head[at + 3]; };
    EXPECT_EQ(std::string(reinterpret_cast<char*>(head + 12), 4), "IHDR");
    return {be32(16), be32(20)};
}

TEST_F(PlotEye, KnownEyeGivesItsFiguresAndAPictureOfIt) {
    const Eye eye{-0.27, 0.34, 46, -31};
    write_csv(eye);
    const fs::path meta = write_metadata(metadata());

    for (int scale : {1, 2}) {
        SCOPED_TRACE(scale);
        std::string err;
        std::vector<std::string> args = {"-inputjson", meta.string()};
        if (scale == 2) args = {"-scale", "2", "-inputjson", meta.string()};
        ASSERT_EQ(run(args, err), 0) << err;
        const fs::path png = dir / "socket_0_die_0_G1_2.png";
        EXPECT_EQ(png_size(png), std::make_pair(900 * scale, 640 * scale));

        // Inside the eye the map shows the floor colour, outside a much
        // brighter one (plot area of the layout: x 84..742, y 74..556).
        cairo_surface_t* image = cairo_image_surface_create_from_png(png.c_str());
        ASSERT_EQ(cairo_surface_status(image), CAIRO_STATUS_SUCCESS);
        const unsigned char* data = cairo_image_surface_get_data(image);
        const int stride = cairo_image_surface_get_stride(image);
        auto pixel = [&](double ui, double mv) {
            int x = static_cast<int>((84 + (ui + 0.5) * 658) * scale), y = static_cast<int>((556 - (mv + 100) / 200 * 482) * scale);
            uint32_t v = *reinterpret_cast<const uint32_t*>(data + y * stride + x * 4);
            return std::vector<int>{int(v >> 16 & 255), int(v >> 8 & 255), int(v & 255)};
        };
        EXPECT_EQ(pixel(0.1, -12), (std::vector<int>{68, 1, 84}));
        EXPECT_EQ(pixel(-0.12, 22), (std::vector<int>{68, 1, 84}));
        auto outside = pixel(-0.46, 88);
        EXPECT_GT(outside[0] + outside[1] + outside[2], 300);
        cairo_surface_destroy(image);
    }

    const auto row = summary_row();
    ASSERT_EQ(row.size(), 11u);
    EXPECT_EQ(row[0], "socket_0_die_0_G1_2");
    EXPECT_EQ(row[1], "2");
    EXPECT_EQ(row[10], "G1");
    const double top = std::stod(row[4]), bottom = std::stod(row[5]), left = std::stod(row[6]),
                 right = std::stod(row[7]);
    // Edges lie half way between the last open and the first closed sample,
    // so within half a step (5 mV, 1/16 UI) of the true eye.
    EXPECT_NEAR(top, eye.top, 2.5);
    EXPECT_NEAR(bottom, eye.bottom, 2.5);
    EXPECT_NEAR(left, eye.left, 0.03125);
    EXPECT_NEAR(right, eye.right, 0.03125);
    EXPECT_DOUBLE_EQ(std::stod(row[2]), right - left);
    EXPECT_DOUBLE_EQ(std::stod(row[3]), top - bottom);
    EXPECT_NEAR(std::stod(row[8]), 3.0 / (std::ldexp(1.0, 23) * 2 * 4), 1e-12);
    // Four quarter ellipses: pi/4 * sum of the quadrants' products.
    const double area = M_PI / 4 * (eye.right + -eye.left) * (eye.top + -eye.bottom);
    EXPECT_NEAR(std::stod(row[9]), area, area * 0.12);
    for (const auto& entry : fs::directory_iterator(dir))
        EXPECT_EQ(entry.path().string().find(".tmp"), std::string::npos) << entry.path();
}

TEST_F(PlotEye, ClosedEyeGivesZerosAndTheFloorFromTheBerText) {
    write_csv({-0.01, 0.01, 1, -1});  // every cell centre lies outside
    nlohmann::json meta = metadata();
    meta.erase("nbits");
    meta.erase("taps");
    meta["BER"] = {"BER=1e-12"};
    std::string err;
    ASSERT_EQ(run({"-inputjson", write_metadata(meta).string()}, err), 0) << err;
    const auto row = summary_row();
    ASSERT_EQ(row.size(), 11u);
    for (int i : {2, 3, 4, 5, 6, 7, 9}) EXPECT_EQ(std::stod(row[i]), 0) << i;
    EXPECT_EQ(row[8], "1e-12");
}

TEST_F(PlotEye, BadInputExitsNonZeroWithOneLineAndWritesNothing) {
    const Eye eye{-0.3, 0.3, 40, -40};
    // Each case spoils the metadata before it is written or the files after.
    struct Case {
        const char* name;
        std::function<void(nlohmann::json&)> meta;
        std::function<void()> files;
    };
    const fs::path meta_path = dir / "1000_metadata.csv", csv_path = dir / "1000_data.csv";
    const std::vector<Case> cases = {
        {"missing metadata", {}, [&] { fs::remove(meta_path); }},
        {"bad json", {}, [&] { std::ofstream(meta_path) << "{\"header\": "; }},
        {"missing csv", [](nlohmann::json& m) { m["csv_file_path"] = "/nonexistent/x.csv"; }, {}},
        {"ragged rows", {}, [&] { std::ofstream(csv_path, std::ios::app) << "1,2,\n"; }},
        {"zero rows", {}, [&] { std::ofstream(csv_path) << "\n"; }},
        {"not a number", {}, [&] { std::ofstream(csv_path, std::ios::app) << "x" << std::string(16, ',') << "\n"; }},
        {"no floor", [](nlohmann::json& m) { m.erase("nbits"); m.erase("BER"); }, {}},
        {"unwritable png", [](nlohmann::json& m) { m["output_file_path"] = "/nonexistent/x.png"; }, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(dir);
        fs::create_directories(dir);
        write_csv(eye);
        nlohmann::json meta = metadata();
        if (c.meta) c.meta(meta);
        write_metadata(meta);
        if (c.files) c.files();
        std::string err;
        EXPECT_NE(run({"-inputjson", meta_path.string()}, err), 0);
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        for (const auto& entry : fs::directory_iterator(dir)) {
            const std::string file = entry.path().filename().string();
            EXPECT_TRUE(file == "1000_data.csv" || file == "1000_metadata.csv") << file;
        }
    }
}

}  // namespace
