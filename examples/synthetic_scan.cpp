#include "synthetic_scan.h"

#include <cmath>

namespace {

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

// Height of the scene above the untilted floor at (x, y), or a negative value
// where nothing is measured.
double sceneHeight(double x, double y, const SyntheticScanSpec& s) {
    const double w = s.points * s.pitchY;
    const double l = s.lines * s.pitchX;
    // A box: 30 x 20 in x-y, 25 high, in the first half of the scan.
    if (x > 0.25 * l && x < 0.25 * l + 30 && y > 0.3 * w && y < 0.3 * w + 20) return 25.0;
    return 0.0;
}

}  // namespace

std::vector<std::vector<SKesp3DPosition>> makeSyntheticScan(const SyntheticScanSpec& s) {
    std::vector<std::vector<SKesp3DPosition>> scan(static_cast<size_t>(s.lines));
    const double tx = std::tan(s.pitchDeg * kDegToRad);
    const double ty = std::tan(s.rollDeg * kDegToRad);
    const double cx = 0.5 * s.lines * s.pitchX, cy = 0.5 * s.points * s.pitchY;
    for (int i = 0; i < s.lines; ++i) {
        auto& line = scan[static_cast<size_t>(i)];
        line.resize(static_cast<size_t>(s.points));
        const double x = i * s.pitchX;
        for (int j = 0; j < s.points; ++j) {
            const double y = j * s.pitchY;
            SKesp3DPosition& p = line[static_cast<size_t>(j)];
            p.nPointIdx = j;
            p.x = x;
            p.y = y;
            const double floor = s.floorHeight + (x - cx) * tx + (y - cy) * ty;
            p.z = floor + sceneHeight(x, y, s);
            // Runs of missing points: a shadow behind the box and a dropout band.
            const bool dropout = (i % 97 == 13 && j > 100 && j < 140) || (j > 470 && j < 478 && i % 5 == 0);
            if (dropout) p.z = 0.0;
        }
    }
    return scan;
}
