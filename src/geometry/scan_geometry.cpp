// Scan bounding box, least-squares line fitting and Bresenham line drawing.
#include <cstdlib>

#include "internal.h"

using pa_detail::growRange;
using pa_detail::isValidZ;

namespace {

SKesp3DRangeD emptyBox() {
    SKesp3DRangeD box;
    box.xRange = pa_detail::emptyRange();
    box.yRange = pa_detail::emptyRange();
    box.zRange = pa_detail::emptyRange();
    return box;
}

// Grows the box by the valid points of one array. The three ranges are kept
// in locals so that the compiler can hold them in registers over the loop.
void growBoxByPoints(SKesp3DRangeD& box, const SKesp3DPosition* pts, int64_t count) {
    SKespRangeD xr = box.xRange, yr = box.yRange, zr = box.zRange;
    int64_t i = 0;
    // Until the first valid point the ranges may be empty; after it they never are,
    // and the plain min/max updates below are exactly the growing rule.
    if (xr.min > xr.max) {
        for (; i < count; ++i) {
            if (isValidZ(pts[i].z)) {
                growRange(xr, pts[i].x);
                growRange(yr, pts[i].y);
                growRange(zr, pts[i].z);
                ++i;
                break;
            }
        }
    }
    for (; i < count; ++i) {
        const SKesp3DPosition& p = pts[i];
        if (!isValidZ(p.z)) continue;
        if (p.x < xr.min) xr.min = p.x;
        if (p.x > xr.max) xr.max = p.x;
        if (p.y < yr.min) yr.min = p.y;
        if (p.y > yr.max) yr.max = p.y;
        if (p.z < zr.min) zr.min = p.z;
        if (p.z > zr.max) zr.max = p.z;
    }
    box.xRange = xr;
    box.yRange = yr;
    box.zRange = zr;
}

}  // namespace

PA_API SKesp3DRangeD hx_getScanDataROI(const SKesp3DLaserLine* lines, int32_t lineNum) {
    SKesp3DRangeD box = emptyBox();
    if (lines == nullptr) return box;
    for (int32_t l = 0; l < lineNum; ++l) {
        const SKesp3DLaserLine& line = lines[l];
        if (line.nPositionCnt < 1 || line.p3DPosition == nullptr) continue;
        growBoxByPoints(box, line.p3DPosition, line.nPositionCnt);
    }
    return box;
}

PA_API SKesp3DRangeD hx_getScanDataROI_vector(const std::vector<std::vector<SKesp3DPosition>>& scan) {
    SKesp3DRangeD box = emptyBox();
    for (const auto& line : scan) {
        if (!line.empty()) growBoxByPoints(box, line.data(), static_cast<int64_t>(line.size()));
    }
    return box;
}

PA_API void lineFitting(const std::vector<SKesp3DPoint>& pts, double* k, double* b) {
    double sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
    for (const SKesp3DPoint& p : pts) {
        sx += p.x;
        sy += p.y;
        sxx += p.x * p.x;
        sxy += p.x * p.y;
    }
    const double n = static_cast<double>(pts.size());
    // No guard against a zero determinant: callers test the quotients.
    const double d = n * sxx - sx * sx;
    const double slope = (n * sxy - sx * sy) / d;
    const double intercept = (sy * sxx - sxy * sx) / d;
    if (k != nullptr) *k = slope;
    if (b != nullptr) *b = intercept;
}

PA_API void drawLine(int32_t x0, int32_t y0, int32_t x1, int32_t y1, std::vector<SKesp2DPoint>& pts) {
    // 64-bit arithmetic so that end points far apart cannot overflow the error term.
    const int64_t dx = std::llabs(static_cast<int64_t>(x1) - x0);
    const int64_t dy = std::llabs(static_cast<int64_t>(y1) - y0);
    const int32_t sx = x0 < x1 ? 1 : -1;
    const int32_t sy = y0 < y1 ? 1 : -1;
    pts.reserve(pts.size() + static_cast<size_t>(dx > dy ? dx : dy) + 1);
    int64_t err = dx - dy;
    int32_t x = x0, y = y0;
    for (;;) {
        pts.push_back(SKesp2DPoint{x, y});
        if (x == x1 && y == y1) break;
        const int64_t e2 = 2 * err;
        if (e2 > -dy) {
            err -= dy;
            x += sx;
        }
        if (e2 < dx) {
            err += dx;
            y += sy;
        }
    }
}
