#include "render.h"

#include <algorithm>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

// One colour per feature type code (BGR), so a tree's type reads at a glance.
cv::Scalar typeColour(int type) {
    static const cv::Scalar table[16] = {
        {255, 255, 255}, {0, 0, 255},   {255, 0, 0},   {0, 128, 255}, {255, 128, 0}, {255, 0, 255},
        {0, 255, 0},     {0, 128, 0},   {128, 128, 128}, {0, 255, 255}, {255, 255, 0}, {128, 0, 255},
        {255, 0, 128},   {0, 0, 128},   {255, 255, 255}, {0, 200, 200}};
    return table[type >= 0 && type < 16 ? type : 0];
}

}  // namespace

bool writePicture(const PipelineResult& r, const std::string& path, std::string& error) {
    if (r.heightMap.empty()) {
        error = "nothing to draw";
        return false;
    }
    // Heights above the plane, from slightly below it to the highest object.
    double lo = 0, hi = 0;
    cv::minMaxLoc(r.heightMap, &lo, &hi);
    lo = -2.0;
    hi = std::max(hi, 1.0);
    cv::Mat scaled, grey, colour;
    r.heightMap.convertTo(scaled, CV_32F, 1.0 / (hi - lo), -lo / (hi - lo));
    scaled.convertTo(grey, CV_8U, 255.0);
    cv::applyColorMap(grey, colour, cv::COLORMAP_TURBO);
    colour.setTo(cv::Scalar(0, 0, 0), r.heightMap == 0);  // missing points black

    // Trees as polylines through their nodes (x = line, y = point index).
    for (const auto& t : r.drawnTrees) {
        std::vector<cv::Point> pts;
        pts.reserve(t.treeNodes.size());
        for (const auto& node : t.treeNodes)
            pts.emplace_back(node.lineIdx, static_cast<int>(node.featurePos.nPointIdx & 0xFFFFFFFF));
        cv::polylines(colour, pts, false, typeColour(t.treeType), 2, cv::LINE_8);
    }
    for (const auto& path : r.barPaths) cv::polylines(colour, path, false, cv::Scalar(255, 255, 255), 2, cv::LINE_8);
    for (const auto& reg : r.regions)
        cv::rectangle(colour, cv::Point(reg.left, reg.top), cv::Point(reg.right, reg.bottom), cv::Scalar(255, 255, 255), 1);
    for (const auto& p : r.distPeaks) cv::circle(colour, cv::Point(p.x, p.y), 2, cv::Scalar(255, 255, 255), -1);
    if (r.seedScanned) cv::drawMarker(colour, cv::Point(r.seed.x, r.seed.y), cv::Scalar(0, 0, 0), cv::MARKER_CROSS, 14, 2);

    try {
        if (!cv::imwrite(path, colour)) {
            error = "cannot write " + path;
            return false;
        }
    } catch (const cv::Exception& e) {
        error = "cannot write " + path + ": " + e.what();
        return false;
    }
    return true;
}
