// Runs the demo program end to end: on its built-in scan, on a CSV and on a
// range image written here, and on bad input.
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <regex>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "profile_analysis.h"

namespace {

struct DemoRun {
    int status = -1;
    std::string out;
};

// Runs the demo with the given arguments; stdout and stderr together.
DemoRun runDemo(const std::string& args) {
    DemoRun r;
    const std::string cmd = std::string("\"") + PROFILE_DEMO_PATH + "\" " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string tempPath(const std::string& name) {
    return std::string(TEST_WORK_DIR) + "/" + name;
}

// The first number after a label in the report, or NaN.
double numberAfter(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    if (at == std::string::npos) return NAN;
    return std::strtod(text.c_str() + at + label.size(), nullptr);
}

// A level scene (a floor at 30 with a 25-high box, well clear of the floor) tilted by roll and pitch
// about the origin, sampled on a grid: (line, x, y, z) per point.
struct TiltedScene {
    int lines = 80, points = 160;
    double roll = 2.0, pitch = -1.5;
    template <typename F>
    void forEach(F f) const {
        double R[3][3];
        eulerToRotationMatrixZYX(SHX_EulerAngles{roll, pitch, 0.0}, R);
        for (int i = 0; i < lines; ++i)
            for (int j = 0; j < points; ++j) {
                const double x = i, y = j;
                const double z = 30.0 + ((i > 20 && i < 50 && j > 40 && j < 90) ? 25.0 : 0.0);
                f(i, j, R[0][0] * x + R[0][1] * y + R[0][2] * z, R[1][0] * x + R[1][1] * y + R[1][2] * z,
                  R[2][0] * x + R[2][1] * y + R[2][2] * z);
            }
    }
};

}  // namespace

TEST(Demo, BuiltInScanFindsTiltBarsAndGrooves) {
    const std::string png = tempPath("builtin.png");
    std::remove(png.c_str());
    const DemoRun r = runDemo("--out \"" + png + "\"");
    ASSERT_EQ(r.status, 0) << r.out;
    // The built-in scene is tilted by roll 1.2 and pitch -0.8 degrees.
    const double roll = numberAfter(r.out, "recovered tilt:        roll ");
    const size_t p = r.out.find("recovered tilt:");
    ASSERT_NE(p, std::string::npos) << r.out;
    const double pitch = numberAfter(r.out.substr(p), "pitch ");
    EXPECT_NEAR(roll, 1.2, 0.05) << r.out;
    EXPECT_NEAR(pitch, -0.8, 0.05) << r.out;
    EXPECT_EQ(r.out.find("no reference plane"), std::string::npos) << r.out;
    // Two round bars (the thin cable is the line's last semicircle, never reported).
    EXPECT_EQ(numberAfter(r.out, "bars tracked:"), 2.0) << r.out;
    // The plate's V groove is tracked as one long V tree.
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex(R"(L/V\s+5 V\s+(\d+))"))) << r.out;
    EXPECT_GE(std::stoi(m[1]), 1);
    // The picture exists: the map of 600 lines x 1000 points, with axes, colour bar and legend around it.
    const cv::Mat img = cv::imread(png);
    ASSERT_FALSE(img.empty());
    EXPECT_GT(img.cols, 600 + 200);
    EXPECT_GT(img.rows, 1000);
    EXPECT_NE(r.out.find("Picture: " + png), std::string::npos);
}

TEST(Demo, CsvScanIsCalibrated) {
    const std::string csv = tempPath("scan.csv");
    {
        std::ofstream f(csv);
        f << "line,x,y,z\n";
        TiltedScene().forEach([&](int i, int, double x, double y, double z) { f << i << "," << x << "," << y << "," << z << "\n"; });
    }
    const DemoRun r = runDemo("--scan \"" + csv + "\" --out \"" + tempPath("csv.png") + "\"");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("80 lines x 160 points"), std::string::npos) << r.out;
    const size_t p = r.out.find("recovered tilt:");
    ASSERT_NE(p, std::string::npos) << r.out;
    EXPECT_NEAR(numberAfter(r.out.substr(p), "roll "), 2.0, 0.05) << r.out;
    EXPECT_NEAR(numberAfter(r.out.substr(p), "pitch "), -1.5, 0.05) << r.out;
}

TEST(Demo, ObjectWithoutFloorIsNotLevelled) {
    // A dome 40 high on a 60 x 50 ellipse, nothing measured around it: the lowest
    // well-filled height band is the dome's rim, a few percent of its points.
    const std::string csv = tempPath("dome.csv");
    {
        std::ofstream f(csv);
        for (int i = 0; i < 70; ++i)
            for (int j = 0; j < 60; ++j) {
                const double u = (i - 35) / 30.0, v = (j - 30) / 25.0, w = 1.0 - u * u - v * v;
                f << i << "," << i << "," << j << "," << (w > 0 ? 100.0 + 40.0 * std::sqrt(w) : 0.0) << "\n";
            }
    }
    const std::string args = "--scan \"" + csv + "\" --out \"" + tempPath("dome.png") + "\"";
    const DemoRun r = runDemo(args);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("no reference plane it can trust"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("% of the valid points in its band"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("left unlevelled"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("recovered tilt"), std::string::npos) << r.out;
    const DemoRun forced = runDemo(args + " --force-level");
    ASSERT_EQ(forced.status, 0) << forced.out;
    EXPECT_NE(forced.out.find("levelled on it all the same"), std::string::npos) << forced.out;
    EXPECT_NE(forced.out.find("recovered tilt"), std::string::npos) << forced.out;
}

TEST(Demo, RangeImageWithUnits) {
    // 16-bit heights: a floor at 1000 grey values with a 200-high box, 0 = missing.
    cv::Mat img(120, 90, CV_16U, cv::Scalar(1000));
    img(cv::Rect(30, 40, 20, 30)).setTo(1200);
    img(cv::Rect(0, 10, 90, 1)).setTo(0);
    const std::string png = tempPath("range.png");
    ASSERT_TRUE(cv::imwrite(png, img));
    const DemoRun r = runDemo("--scan \"" + png + "\" --pitch-x 0.5 --pitch-y 0.25 --z-scale 0.01 --out \"" +
                          tempPath("range_out.png") + "\"");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("120 lines x 90 points"), std::string::npos) << r.out;
    // x spans 119 lines of 0.5, y 89 points of 0.25, z 10 .. 12.
    EXPECT_NE(r.out.find("0.000 ..     59.500"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("0.000 ..     22.250"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("10.000 ..     12.000"), std::string::npos) << r.out;
}

TEST(Demo, BadInputGivesOneLineAndStatusTwo) {
    auto expectBad = [](const std::string& args, const std::string& words) {
        const DemoRun r = runDemo(args);
        EXPECT_EQ(r.status, 2) << args << "\n" << r.out;
        EXPECT_NE(r.out.find("profile_demo: error:"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find(words), std::string::npos) << r.out;
        EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
    };
    expectBad("--scan /nonexistent/scan.csv", "cannot open");

    const std::string bad = tempPath("bad.csv");
    std::ofstream(bad) << "line,x,y,z\n0,0,0,1\n0,1,zz,1\n";
    expectBad("--scan \"" + bad + "\"", "row 3");

    const std::string empty = tempPath("empty.csv");
    std::ofstream(empty) << "0,0,0,0\n0,1,0,0\n";
    expectBad("--scan \"" + empty + "\"", "no valid point");

    const std::string eight = tempPath("eight.png");
    ASSERT_TRUE(cv::imwrite(eight, cv::Mat(10, 10, CV_8U, cv::Scalar(5))));
    expectBad("--scan \"" + eight + "\"", "16-bit");

    expectBad("--pitch-x nope", "--pitch-x needs a number");
    expectBad("--frobnicate", "unknown option");
}

TEST(Demo, HelpListsTheOptions) {
    const DemoRun r = runDemo("--help");
    EXPECT_EQ(r.status, 0);
    for (const char* opt : {"--scan", "--pitch-x", "--pitch-y", "--z-scale", "--out", "--object-height", "--force-level"})
        EXPECT_NE(r.out.find(opt), std::string::npos) << opt;
}
