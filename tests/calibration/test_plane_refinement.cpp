// Refinement of a plane calibration: a tilted conveyor with low boxes that the
// histogram alone levels badly, the fixed point the rounds must reach, and the
// inputs that return the start unchanged.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

using Scan = std::vector<std::vector<SKesp3DPosition>>;

namespace {

constexpr double kInlierDist = 0.1;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kDegreesPerRadian = 57.29577951308232;

// 250 lines x 256 points, 4 units apart: a 1,000-unit conveyor at z = 100
// with 30 boxes 20 to 60 units tall and wide, seen by a sensor rolled 1.2 and
// pitched -0.8 degrees about the scan's centre, so that the floor's heights
// span about 35 units and take in the lower box tops. Noise +-0.02, 2 %
// dropouts. floorOnly is the same scan with every box point missing.
struct Conveyor {
    Scan scan, floorOnly;
    double normal[3];  // the floor's upward normal in sensor coordinates
};

Conveyor makeConveyor(uint64_t seed) {
    constexpr int kLines = 250, kPoints = 256;
    constexpr double kPitch = 4.0, kCx = 498.0, kCy = 510.0;
    testutil::Rng rng(seed);
    std::vector<std::vector<double>> boxes;  // x0, y0, side x, side y, height
    for (int k = 0; k < 30; ++k)
        boxes.push_back({rng.uniform(0, 940), rng.uniform(0, 960), rng.uniform(20, 60), rng.uniform(20, 60),
                         rng.uniform(20, 60)});
    double R[3][3];
    eulerToRotationMatrixZYX(SHX_EulerAngles{1.2, -0.8, 0.0}, R);
    Conveyor c;
    for (int k = 0; k < 3; ++k) c.normal[k] = R[k][2];
    c.scan.assign(kLines, {});
    c.floorOnly.assign(kLines, {});
    for (int i = 0; i < kLines; ++i)
        for (int j = 0; j < kPoints; ++j) {
            const double x = i * kPitch, y = j * kPitch;
            double height = 0.0;
            for (const auto& b : boxes)
                if (x >= b[0] && x <= b[0] + b[2] && y >= b[1] && y <= b[1] + b[3]) height = std::max(height, b[4]);
            const double z = 100.0 + height + rng.uniform(-0.02, 0.02);
            SKesp3DPosition p = testutil::pt(R[0][0] * (x - kCx) + R[0][1] * (y - kCy) + R[0][2] * z + kCx,
                                             R[1][0] * (x - kCx) + R[1][1] * (y - kCy) + R[1][2] * z + kCy,
                                             R[2][0] * (x - kCx) + R[2][1] * (y - kCy) + R[2][2] * z, j);
            if (rng.uniform(0, 1) < 0.02) p.z = 0.0;
            c.scan[i].push_back(p);
            if (height > 0.0) p.z = 0.0;
            c.floorOnly[i].push_back(p);
        }
    return c;
}

// Angle in degrees between the levelled up direction and the floor's normal.
double tiltErrorDeg(const SHX_planeCalibPara& r, const double* n) {
    const double* u = r.planeCalib + 6;
    const double c[3] = {u[1] * n[2] - u[2] * n[1], u[2] * n[0] - u[0] * n[2], u[0] * n[1] - u[1] * n[0]};
    return std::atan2(std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]), u[0] * n[0] + u[1] * n[1] + u[2] * n[2]) *
           kDegreesPerRadian;
}

// The calibration fitted to exactly the valid points of `scan`.
SHX_planeCalibPara fitOfAll(Scan& scan) {
    SKesp3DRangeD everywhere;
    everywhere.xRange = everywhere.yRange = everywhere.zRange = {-1e9, 1e9};
    auto lines = testutil::linesOf(scan);
    return hx_getPlaneCalibPara_ROIs(lines.data(), static_cast<int32_t>(lines.size()), {everywhere});
}

bool sameRecord(const SHX_planeCalibPara& a, const SHX_planeCalibPara& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

TEST(PlaneRefinement, LowBoxConveyorIsLevelledToTheFloor) {
    Conveyor c = makeConveyor(21);
    auto lines = testutil::linesOf(c.scan);
    const int32_t n = static_cast<int32_t>(lines.size());
    const SHX_planeCalibPara start = hx_getPlaneCalibPara(lines.data(), n);
    ASSERT_NE(start.planeHeight, -1.0);
    EXPECT_GT(tiltErrorDeg(start, c.normal), 0.02);  // box tops pulled the histogram's fit

    // One round fits the points within the inlier distance of the levelled
    // plane planeHeight + inlierDist, written out plainly here.
    Scan firstSlab = c.scan;
    for (auto& line : firstSlab)
        for (auto& p : line) {
            const double x = static_cast<float>(p.x), y = static_cast<float>(p.y), z = static_cast<float>(p.z);
            const double* u = start.planeCalib + 6;
            const double d = u[0] * x + u[1] * y + u[2] * z - (start.planeHeight + kInlierDist);
            if (p.z < 0.0001 || !(std::fabs(d) < kInlierDist)) p.z = 0.0;
        }
    const SHX_planeCalibPara once = hx_refinePlaneCalibPara(lines.data(), n, start, kInlierDist, 1);
    EXPECT_TRUE(sameRecord(once, fitOfAll(firstSlab)));
    EXPECT_LE(tiltErrorDeg(once, c.normal), 0.01);

    // Points no fit can take, on the floor: they must never be inliers.
    c.scan[10][20].x = kNaN;
    c.scan[20][30].y = kInf;
    c.scan[30][40].z = kNaN;
    c.scan[40][50].z = kInf;
    c.scan[50][60].x = 1e300;  // beyond single precision
    for (int k = 1; k <= 5; ++k) c.floorOnly[10 * k][10 + 10 * k].z = 0.0;
    // Converged, the inliers are exactly the floor points.
    const SHX_planeCalibPara refined = hx_refinePlaneCalibPara(lines.data(), n, start, kInlierDist, 20);
    EXPECT_TRUE(sameRecord(refined, fitOfAll(c.floorOnly)));
    EXPECT_LE(tiltErrorDeg(refined, c.normal), 0.001);
    EXPECT_TRUE(sameRecord(refined, hx_refinePlaneCalibPara_vector(c.scan, start, kInlierDist, 20)));
}

TEST(PlaneRefinement, BadInputReturnsTheStart) {
    Conveyor c = makeConveyor(5);
    auto lines = testutil::linesOf(c.scan);
    const int32_t n = static_cast<int32_t>(lines.size());
    const SHX_planeCalibPara start = hx_getPlaneCalibPara(lines.data(), n);
    SHX_planeCalibPara failed = start, above = start;
    failed.planeHeight = -1.0;
    above.planeHeight += 1000.0;
    struct Row {
        SHX_planeCalibPara start;
        int32_t lines;
        double inlierDist;
        int32_t maxIter;
    } rows[] = {
        {failed, n, kInlierDist, 5},  // failed calibration
        {start, n, 0.0, 5},           // no slab
        {start, n, -0.1, 5},          // negative distance
        {start, n, kNaN, 5},          // NaN distance
        {start, n, kInlierDist, 0},   // no round allowed
        {above, n, kInlierDist, 5},   // the first slab holds no point
        {start, 0, kInlierDist, 5},   // no line
    };
    for (const Row& row : rows) {
        const SHX_planeCalibPara r =
            hx_refinePlaneCalibPara(lines.data(), row.lines, row.start, row.inlierDist, row.maxIter);
        EXPECT_TRUE(sameRecord(r, row.start)) << "distance " << row.inlierDist << ", rounds " << row.maxIter;
    }
}
