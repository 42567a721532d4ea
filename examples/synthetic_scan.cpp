#include "synthetic_scan.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using S = SyntheticScene;

// Height of the upper surface of a cylinder of radius r whose axis runs
// along x at y0, at height axis.
double barHeight(double y, double y0, double r, double axis) {
    const double d = y - y0;
    return std::fabs(d) < r ? axis + std::sqrt(r * r - d * d) : 0.0;
}

// Height of the scene above the conveyor at (x, y).
double sceneHeight(double x, double y) {
    double h = y > S::kStepY ? S::kStepH : 0.0;  // a step up onto a platform
    if (x > 40 && x < 100 && y > 20 && y < 60) h = 30.0;  // a box
    if (x > 130 && x < 260 && y > 110 && y < 170) {      // a plate with a V groove along x
        const double depth = 6.0 - 1.5 * std::fabs(y - S::kGrooveY);
        h = 20.0 - (depth > 0 ? depth : 0.0);
    }
    if (x > 20 && x < 280) h = std::max(h, barHeight(y, S::kBar1Y, S::kBar1R, S::kBar1Axis));
    if (x > 30 && x < 270) h = std::max(h, barHeight(y, S::kBar2Y, S::kBar2R, S::kBar2Axis));
    if (x > 5 && x < 295) h = std::max(h, barHeight(y, S::kCableY, S::kCableR, S::kBar2Axis));
    return h;
}

}  // namespace

std::vector<std::vector<SKesp3DPosition>> makeSyntheticScan(const SyntheticScanSpec& s) {
    std::mt19937 rng(s.seed);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    std::uniform_int_distribution<int> speckChance(0, 999);

    double R[3][3];
    eulerToRotationMatrixZYX(SHX_EulerAngles{s.rollDeg, s.pitchDeg, 0.0}, R);
    const double cx = 0.5 * (s.lines - 1) * s.pitchX, cy = 0.5 * (s.points - 1) * s.pitchY;

    std::vector<std::vector<SKesp3DPosition>> scan(static_cast<size_t>(s.lines));
    for (int i = 0; i < s.lines; ++i) {
        auto& line = scan[static_cast<size_t>(i)];
        line.resize(static_cast<size_t>(s.points));
        const double x = i * s.pitchX;
        for (int j = 0; j < s.points; ++j) {
            const double y = j * s.pitchY;
            double z = s.conveyorZ + sceneHeight(x, y) + s.noise * unit(rng);
            const int speck = speckChance(rng);
            if (speck == 0) z += 40.0 + 20.0 * unit(rng);  // spray above the scene
            // Tilt the level scene about the scan's centre as the mounted sensor sees it.
            const double px = x - cx, py = y - cy;
            SKesp3DPosition& p = line[static_cast<size_t>(j)];
            p.nPointIdx = j;
            p.x = R[0][0] * px + R[0][1] * py + R[0][2] * z + cx;
            p.y = R[1][0] * px + R[1][1] * py + R[1][2] * z + cy;
            p.z = R[2][0] * px + R[2][1] * py + R[2][2] * z;
            // Runs of missing points: a shadow behind the box, dropouts, and a dead band.
            const bool shadow = x > 40 && x < 100 && y >= 60 && y < 64;
            const bool dropout = (i % 53 == 7 && j > 300 && j < 330) || speck == 1;
            const bool deadBand = j >= 560 && j < 563 && i % 4 == 0;
            if (shadow || dropout || deadBand) p.z = 0.0;
        }
    }
    return scan;
}
