// Plane calibration on synthetic scans of a mis-mounted sensor: a floor rolled
// and pitched by known angles, boxes and a tall object standing on it, noise
// and runs of missing points. The calibration must find the floor, level it
// to within the noise and recover the tilt.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

using Scan = std::vector<std::vector<SKesp3DPosition>>;

namespace {

constexpr double kFloorZ = 200.0;
constexpr double kBoxHeight = 30.0;
constexpr double kTallHeight = 80.0;
constexpr double kNoise = 0.03;  // uniform in [-kNoise, kNoise]
constexpr int kLines = 200;      // x = 0.5 * line: 0 .. 99.5
constexpr int kPoints = 800;     // y = 0.25 * point: 0 .. 199.75
// Levelled heights must come back within the noise plus this allowance for
// the fit and the float rounding of the band points.
constexpr double kFlatAllowance = 0.005;
constexpr double kTiltToleranceDeg = 0.05;

struct Box {
    double x0, x1, y0, y1, height;
};

struct TiltedScan {
    Scan scan;
    std::vector<std::vector<double>> levelZ;  // true level-frame z, 0 where missing
    std::vector<std::vector<bool>> floor;     // point lies on the floor
};

// Builds the scan in the level frame and turns it into sensor coordinates
// with the rotation of the given roll and pitch (degrees).
TiltedScan makeTiltedScan(double rollDeg, double pitchDeg, const std::vector<Box>& boxes, uint64_t seed) {
    double R[3][3];
    eulerToRotationMatrixZYX(SHX_EulerAngles{rollDeg, pitchDeg, 0.0}, R);
    testutil::Rng rng(seed);
    TiltedScan t;
    t.scan.resize(kLines);
    t.levelZ.assign(kLines, std::vector<double>(kPoints, 0.0));
    t.floor.assign(kLines, std::vector<bool>(kPoints, false));
    for (int i = 0; i < kLines; ++i) {
        const bool lineLost = i % 50 == 17;
        for (int j = 0; j < kPoints; ++j) {
            const double x = 0.5 * i, y = 0.25 * j;
            double z = kFloorZ;
            bool onFloor = true;
            for (const Box& b : boxes)
                if (x >= b.x0 && x <= b.x1 && y >= b.y0 && y <= b.y1) {
                    z = std::max(z, kFloorZ + b.height);
                    onFloor = false;
                }
            z += rng.uniform(-kNoise, kNoise);
            const bool missing = lineLost || (j + 13 * i) % 97 < 6;
            SKesp3DPosition p = testutil::pt(x, y, 0.0, j);
            if (!missing) {
                p.x = R[0][0] * x + R[0][1] * y + R[0][2] * z;
                p.y = R[1][0] * x + R[1][1] * y + R[1][2] * z;
                p.z = R[2][0] * x + R[2][1] * y + R[2][2] * z;
                t.levelZ[i][j] = z;
                t.floor[i][j] = onFloor;
            }
            t.scan[i].push_back(p);
        }
    }
    return t;
}

struct LevelCheck {
    double worstFloor = 0.0;  // largest |levelled z - true z| over floor points
    double worstAll = 0.0;    // the same over every measured point
    double floorMin = 1e300, floorMax = -1e300;
};

LevelCheck levelAndCompare(const TiltedScan& t, const double* planeCalib) {
    Scan levelled = t.scan;
    auto lines = testutil::linesOf(levelled);
    for (auto& line : lines) lineDataRT(&line, planeCalib, 0.0);
    LevelCheck c;
    for (int i = 0; i < kLines; ++i)
        for (int j = 0; j < kPoints; ++j) {
            if (t.levelZ[i][j] == 0.0) continue;
            const double z = levelled[i][j].z;
            const double err = std::fabs(z - t.levelZ[i][j]);
            c.worstAll = std::max(c.worstAll, err);
            if (!t.floor[i][j]) continue;
            c.worstFloor = std::max(c.worstFloor, err);
            c.floorMin = std::min(c.floorMin, z);
            c.floorMax = std::max(c.floorMax, z);
        }
    return c;
}

void expectTiltRecovered(const SHX_planeCalibPara& r, double rollDeg, double pitchDeg) {
    double inv[3][3];
    std::memcpy(inv, r.invRMatrix, sizeof(inv));
    const SHX_EulerAngles e = rotationMatrixToEulerZYX(inv);
    EXPECT_NEAR(e.roll, rollDeg, kTiltToleranceDeg);
    EXPECT_NEAR(e.pitch, pitchDeg, kTiltToleranceDeg);
    EXPECT_NEAR(e.yaw, 0.0, kTiltToleranceDeg);
}

void expectFloorLevelled(const TiltedScan& t, const SHX_planeCalibPara& r, bool heightFromFloor) {
    const LevelCheck c = levelAndCompare(t, r.planeCalib);
    // Every point, floor or not, returns to its true height: no residual tilt.
    EXPECT_LT(c.worstAll, kFlatAllowance);
    EXPECT_LT(c.worstFloor, kFlatAllowance);
    // So the levelled floor is flat to within the noise band.
    EXPECT_GT(c.floorMin, kFloorZ - kNoise - kFlatAllowance);
    EXPECT_LT(c.floorMax, kFloorZ + kNoise + kFlatAllowance);
    if (heightFromFloor) EXPECT_NEAR(r.planeHeight, c.floorMin, 1e-3);
}

const std::vector<Box> kBoxesAndTall = {
    {10, 30, 20, 60, kBoxHeight}, {60, 80, 120, 150, kBoxHeight}, {40, 90, 40, 110, kTallHeight}};

}  // namespace

TEST(TiltedFloor, BoxesAndTallObjectOnTheFloor) {
    const double roll = 2.0, pitch = -1.5;
    TiltedScan t = makeTiltedScan(roll, pitch, kBoxesAndTall, 7);
    auto lines = testutil::linesOf(t.scan);
    const SHX_planeCalibPara r = hx_getPlaneCalibPara(lines.data(), kLines);
    ASSERT_NE(r.planeHeight, -1.0);
    expectTiltRecovered(r, roll, pitch);
    expectFloorLevelled(t, r, true);
    const SHX_planeCalibPara v = hx_getPlaneCalibPara2(t.scan);
    EXPECT_EQ(std::memcmp(&r, &v, sizeof(r)), 0);
}

TEST(TiltedFloor, RegionsOnTheFloorLevelTheWholeScan) {
    // Two strips of floor named by the caller at either end of the scan, clear
    // of every box (sensor coordinates: the tilt moves the floor about 7 units
    // towards negative y and the box tops about 8).
    const double roll = 2.0, pitch = -1.5;
    TiltedScan t = makeTiltedScan(roll, pitch, kBoxesAndTall, 5);
    auto lines = testutil::linesOf(t.scan);
    SKesp3DRangeD strip;
    strip.xRange = {-1e9, 1e9};
    strip.yRange = {-20.0, 5.0};
    strip.zRange = {0.0, 5.0};  // the upper bound limits y
    SKesp3DRangeD farStrip;
    farStrip.xRange = {-1e9, 1e9};
    farStrip.yRange = {148.0, 1e9};
    farStrip.zRange = {0.0, 1e9};
    const SHX_planeCalibPara r = hx_getPlaneCalibPara_ROIs(lines.data(), kLines, {strip, farStrip});
    expectTiltRecovered(r, roll, pitch);
    expectFloorLevelled(t, r, false);
    EXPECT_GT(r.planeHeight, kFloorZ - kNoise - kFlatAllowance);
    EXPECT_LT(r.planeHeight, kFloorZ - kNoise + 0.01);
}
