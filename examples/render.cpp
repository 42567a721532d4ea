#include "render.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

// One colour per feature type code (BGR), so a tree's type reads at a glance.
cv::Scalar typeColour(int type) {
    static const cv::Scalar table[16] = {
        {255, 255, 255}, {0, 0, 255},   {255, 0, 0},   {0, 128, 255}, {255, 128, 0}, {255, 0, 255},
        {0, 255, 0},     {0, 128, 0},   {128, 128, 128}, {0, 255, 255}, {255, 255, 0}, {128, 0, 255},
        {255, 0, 128},   {0, 0, 128},   {180, 105, 255}, {0, 200, 200}};
    return table[type >= 0 && type < 16 ? type : 0];
}

// Layout of the picture around the height map (pixels): the map at 1:1, one
// column per line and one row per point, with the axes left of and below it
// and a panel on the right holding the colour bar and the legend.
constexpr int kMarginLeft = 64;
constexpr int kMarginTop = 28;
constexpr int kMarginBottom = 48;
constexpr int kPanelGap = 24;
constexpr int kPanelWidth = 210;
constexpr int kBarWidth = 18;
constexpr int kBarHeightMax = 300;
constexpr int kLegendRow = 18;
constexpr int kTickLength = 5;
constexpr int kTicksPerAxis = 8;  // at most, on a long axis
constexpr double kFontScale = 0.4;
const cv::Scalar kInk(0, 0, 0);
const cv::Scalar kPaper(255, 255, 255);
const cv::Scalar kMarks(255, 255, 255);  // regions, peaks and bars on the map

// Height range shown on a levelled scan: from slightly below the plane to the
// highest point; on a scan left as it was, from its lowest point to its highest.
constexpr double kShownBelowPlane = 2.0;
// Legend rows besides one per tree type: the heading, the marks, missing points.
constexpr int kLegendFixedRows = 7;

void text(cv::Mat& img, const std::string& s, cv::Point at) {
    cv::putText(img, s, at, cv::FONT_HERSHEY_SIMPLEX, kFontScale, kInk, 1, cv::LINE_AA);
}

int textWidth(const std::string& s) {
    int base = 0;
    return cv::getTextSize(s, cv::FONT_HERSHEY_SIMPLEX, kFontScale, 1, &base).width;
}

// A step of 1, 2 or 5 times a power of ten giving at most kTicksPerAxis ticks.
int tickStep(int extent) {
    const double raw = std::max(1.0, static_cast<double>(extent) / kTicksPerAxis);
    const double p = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * p >= raw) return static_cast<int>(m * p);
    return static_cast<int>(10 * p);
}

void drawAxes(cv::Mat& img, cv::Rect map) {
    cv::rectangle(img, map, kInk, 1);
    const int lineStep = tickStep(map.width), pointStep = tickStep(map.height);
    for (int line = 0; line < map.width; line += lineStep) {
        const int x = map.x + line;
        cv::line(img, {x, map.y + map.height}, {x, map.y + map.height + kTickLength}, kInk, 1);
        const std::string s = std::to_string(line);
        text(img, s, {x - textWidth(s) / 2, map.y + map.height + kTickLength + 14});
    }
    for (int point = 0; point < map.height; point += pointStep) {
        const int y = map.y + point;
        cv::line(img, {map.x - kTickLength, y}, {map.x, y}, kInk, 1);
        const std::string s = std::to_string(point);
        text(img, s, {map.x - kTickLength - 3 - textWidth(s), y + 4});
    }
    const std::string xLabel = "scan line (index)";
    text(img, xLabel, {map.x + (map.width - textWidth(xLabel)) / 2, map.y + map.height + kMarginBottom - 8});
    text(img, "point (index along the line)", {4, kMarginTop - 10});
}

// A vertical bar of the colour map from hi (top) to lo, with three labelled heights.
int drawColourBar(cv::Mat& img, cv::Point at, int height, double lo, double hi, bool levelled) {
    text(img, levelled ? "height above the plane" : "height (scan not levelled)", at);
    text(img, "(scan length units)", {at.x, at.y + 14});
    const int top = at.y + 24;
    cv::Mat ramp(height, 1, CV_8U), bar;
    for (int k = 0; k < height; ++k) ramp.at<uint8_t>(k) = static_cast<uint8_t>(255 * (height - 1 - k) / std::max(1, height - 1));
    cv::applyColorMap(ramp, bar, cv::COLORMAP_TURBO);
    cv::resize(bar, bar, cv::Size(kBarWidth, height), 0, 0, cv::INTER_NEAREST);
    bar.copyTo(img(cv::Rect(at.x, top, kBarWidth, height)));
    cv::rectangle(img, cv::Rect(at.x, top, kBarWidth, height), kInk, 1);
    for (int k = 0; k <= 2; ++k) {
        const double v = hi - (hi - lo) * k / 2.0;
        const int y = top + (height - 1) * k / 2;
        char s[32];
        std::snprintf(s, sizeof s, "%.4g", v);
        cv::line(img, {at.x + kBarWidth, y}, {at.x + kBarWidth + kTickLength, y}, kInk, 1);
        text(img, s, {at.x + kBarWidth + kTickLength + 3, y + 4});
    }
    return top + height;
}

// Which colour and mark stands for what; only what the picture shows.
void drawLegend(cv::Mat& img, cv::Point at, const std::set<int>& types) {
    text(img, "trees, by feature type:", at);
    int y = at.y + kLegendRow;
    const cv::Rect swatch(0, -9, 22, 10);
    auto row = [&](const std::string& s) {
        text(img, s, {at.x + 30, y});
        y += kLegendRow;
    };
    for (int type : types) {
        cv::rectangle(img, swatch + cv::Point(at.x, y), typeColour(type), cv::FILLED);
        cv::rectangle(img, swatch + cv::Point(at.x, y), kInk, 1);
        row(std::to_string(type) + " " + featureTypeName(type));
    }
    if (types.empty()) row("(none drawn)");
    cv::rectangle(img, swatch + cv::Point(at.x, y), kInk, cv::FILLED);
    cv::line(img, {at.x + 2, y - 4}, {at.x + 20, y - 4}, kMarks, 2);
    row("round bar");
    cv::rectangle(img, swatch + cv::Point(at.x, y), kInk, cv::FILLED);
    cv::rectangle(img, cv::Rect(at.x + 4, y - 8, 14, 8), kMarks, 1);
    row("region");
    cv::rectangle(img, swatch + cv::Point(at.x, y), kInk, cv::FILLED);
    cv::circle(img, {at.x + 11, y - 4}, 2, kMarks, -1);
    row("distance peak");
    cv::drawMarker(img, {at.x + 11, y - 4}, kInk, cv::MARKER_CROSS, 10, 2);
    row("seed of the XY scan");
    cv::rectangle(img, swatch + cv::Point(at.x, y), kInk, cv::FILLED);
    cv::rectangle(img, swatch + cv::Point(at.x, y), kInk, 1);
    row("no measurement");
}

}  // namespace

const char* featureTypeName(int type) {
    static const char* names[16] = {"none",         "rising step", "falling step", "rising flank",
                                    "falling flank", "V",           "segment start", "segment end",
                                    "(8)",          "right angle 9", "right angle 10", "right angle 11",
                                    "right angle 12", "minimum/arc", "maximum",       "corner"};
    return type >= 0 && type < 16 ? names[type] : "?";
}

bool writePicture(const PipelineResult& r, const std::string& path, std::string& error) {
    if (r.heightMap.empty()) {
        error = "nothing to draw";
        return false;
    }
    const cv::Mat measured = r.heightMap != 0;
    double lo = 0, hi = 0;
    cv::minMaxLoc(r.heightMap, &lo, &hi, nullptr, nullptr, measured);
    if (r.levelled || cv::countNonZero(measured) == 0) {
        lo = -kShownBelowPlane;
        hi = std::max(hi, 1.0);
    }
    if (!(hi > lo)) hi = lo + 1.0;
    cv::Mat scaled, grey, colour;
    r.heightMap.convertTo(scaled, CV_32F, 1.0 / (hi - lo), -lo / (hi - lo));
    scaled.convertTo(grey, CV_8U, 255.0);
    cv::applyColorMap(grey, colour, cv::COLORMAP_TURBO);
    colour.setTo(cv::Scalar(0, 0, 0), ~measured);  // missing points black

    // Trees as polylines through their nodes (x = line, y = point index).
    for (const auto& t : r.drawnTrees) {
        std::vector<cv::Point> pts;
        pts.reserve(t.treeNodes.size());
        for (const auto& node : t.treeNodes)
            pts.emplace_back(node.lineIdx, static_cast<int>(node.featurePos.nPointIdx & 0xFFFFFFFF));
        cv::polylines(colour, pts, false, typeColour(t.treeType), 2, cv::LINE_8);
    }
    for (const auto& path : r.barPaths) cv::polylines(colour, path, false, kMarks, 2, cv::LINE_8);
    for (const auto& reg : r.regions)
        cv::rectangle(colour, cv::Point(reg.left, reg.top), cv::Point(reg.right, reg.bottom), kMarks, 1);
    for (const auto& p : r.distPeaks) cv::circle(colour, cv::Point(p.x, p.y), 2, kMarks, -1);
    if (r.seedScanned) cv::drawMarker(colour, cv::Point(r.seed.x, r.seed.y), cv::Scalar(0, 0, 0), cv::MARKER_CROSS, 14, 2);

    // The map framed by its axes, the colour bar and the legend to its right.
    const int barHeight = std::min(kBarHeightMax, std::max(colour.rows, 100));
    std::set<int> types;
    for (const auto& t : r.drawnTrees) types.insert(t.treeType);
    const int legendRows = kLegendFixedRows + std::max<int>(1, static_cast<int>(types.size()));
    const int panelHeight = 24 + barHeight + 30 + legendRows * kLegendRow;
    const cv::Rect map(kMarginLeft, kMarginTop, colour.cols, colour.rows);
    cv::Mat page(std::max(kMarginTop + colour.rows + kMarginBottom, kMarginTop + panelHeight),
                 kMarginLeft + colour.cols + kPanelGap + kPanelWidth, CV_8UC3, kPaper);
    colour.copyTo(page(map));
    drawAxes(page, map);
    const int panelX = map.x + map.width + kPanelGap;
    const int barBottom = drawColourBar(page, {panelX, kMarginTop}, barHeight, lo, hi, r.levelled);
    drawLegend(page, {panelX, barBottom + 30}, types);

    try {
        if (!cv::imwrite(path, page)) {
            error = "cannot write " + path;
            return false;
        }
    } catch (const cv::Exception& e) {
        error = "cannot write " + path + ": " + e.what();
        return false;
    }
    return true;
}
