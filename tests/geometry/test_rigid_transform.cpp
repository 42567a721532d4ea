// Rotation of scan lines and Euler angle conversions.
#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::pt;

namespace {

const double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
// A quarter turn about x: (x, y, z) -> (x, -z, y).
const double kQuarterX[9] = {1, 0, 0, 0, 0, -1, 0, 1, 0};

void expectSamePoint(const SKesp3DPosition& a, const SKesp3DPosition& b) {
    EXPECT_EQ(a.nPointIdx, b.nPointIdx);
    EXPECT_EQ(a.x, b.x);
    EXPECT_EQ(a.y, b.y);
    EXPECT_EQ(a.z, b.z);
}

}  // namespace

TEST(LineDataRT, IdentityWithoutLimitChangesNothing) {
    std::vector<SKesp3DPosition> v{pt(1.5, -2, 3, 0x123456789ABCLL), pt(4, 5, 0.0, -7), pt(7, 8, 1e6, 3)};
    const auto before = v;
    SKesp3DLaserLine line;
    line.p3DPosition = v.data();
    line.nPositionCnt = 3;
    lineDataRT(&line, kIdentity, 0.0);
    for (size_t i = 0; i < v.size(); ++i) expectSamePoint(v[i], before[i]);
}

TEST(LineDataRT, RotatesValidPointsOnlyAndKeepsIndex) {
    std::vector<SKesp3DPosition> v{pt(1, 2, 3, -1), pt(1, 2, 0.0, 42), pt(1, 2, 0.0000999, 43)};
    lineDataRT_vector(v, kQuarterX, 0.0);
    expectSamePoint(v[0], pt(1, -3, 2, -1));
    // Invalid points are not rotated even though the rotation would lift them.
    expectSamePoint(v[1], pt(1, 2, 0.0, 42));
    expectSamePoint(v[2], pt(1, 2, 0.0000999, 43));
}

TEST(LineDataRT, HeightLimitBoundary) {
    // A pure z scale keeps the arithmetic exact: z' = z.
    std::vector<SKesp3DPosition> v{pt(1, 2, 10.0, 5), pt(3, 4, 10.0001, 6), pt(5, 6, 9.0, 7)};
    SKesp3DLaserLine line;
    line.p3DPosition = v.data();
    line.nPositionCnt = 3;
    lineDataRT(&line, kIdentity, 10.0);
    EXPECT_EQ(v[0].z, 10.0);
    EXPECT_EQ(v[1].z, 0.0);  // dropped: above the limit, keeps x' and y'
    EXPECT_EQ(v[1].x, 3.0);
    EXPECT_EQ(v[1].y, 4.0);
    EXPECT_EQ(v[1].nPointIdx, 6);
    EXPECT_EQ(v[2].z, 9.0);

    // A negative limit is no limit.
    std::vector<SKesp3DPosition> w{pt(0, 0, 50.0)};
    lineDataRT_vector(w, kIdentity, -1.0);
    EXPECT_EQ(w[0].z, 50.0);
}

TEST(LineDataRT, RotationUsesUntransformedCoordinates) {
    // x' = y, y' = z, z' = x (a cyclic permutation): every output depends on
    // an input that a naive in-place update would already have overwritten.
    const double perm[9] = {0, 1, 0, 0, 0, 1, 1, 0, 0};
    std::vector<SKesp3DPosition> v{pt(7, 8, 9)};
    lineDataRT_vector(v, perm, 0.0);
    expectSamePoint(v[0], pt(8, 9, 7));
}

TEST(LineDataRT, EmptyAndNegativeCountsAreLeftAlone) {
    SKesp3DPosition p = pt(1, 2, 3);
    SKesp3DLaserLine line;
    line.p3DPosition = &p;
    line.nPositionCnt = 0;
    lineDataRT(&line, kQuarterX, 0.0);
    line.nPositionCnt = -4;
    lineDataRT(&line, kQuarterX, 0.0);
    expectSamePoint(p, pt(1, 2, 3));
    std::vector<SKesp3DPosition> none;
    lineDataRT_vector(none, kQuarterX, 0.0);
    EXPECT_TRUE(none.empty());
}

TEST(LineDataRT, ColouredPointsRoundThroughFloatAndKeepColour) {
    const double a = 0.3;
    const double rot[9] = {std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a), 0, 0, 0, 1};
    SKespXYZRGBDPoint pts[3];
    pts[0] = {1.1f, 2.2f, 3.3f, 0xDEADBEEFu};
    pts[1] = {1.0f, 1.0f, 0.0f, 0x01020304u};
    pts[2] = {5.0f, 6.0f, 100.0f, 0xFFFFFFFFu};
    SKespXYZRGBDLaserLine line;
    line.pXYZRGBD = pts;
    line.nPositionCnt = 3;
    lineDataRT_RGBD(&line, rot, 50.0);

    const double x = 1.1f, y = 2.2f;  // widened exactly as the routine does
    EXPECT_EQ(pts[0].x, static_cast<float>(std::cos(a) * x + -std::sin(a) * y + 0.0 * static_cast<double>(3.3f)));
    EXPECT_EQ(pts[0].y, static_cast<float>(std::sin(a) * x + std::cos(a) * y + 0.0 * static_cast<double>(3.3f)));
    EXPECT_EQ(pts[0].z, 3.3f);
    EXPECT_EQ(pts[0].nRGBD, 0xDEADBEEFu);
    EXPECT_EQ(pts[1].x, 1.0f);  // invalid: untouched
    EXPECT_EQ(pts[1].nRGBD, 0x01020304u);
    EXPECT_EQ(pts[2].z, 0.0f);  // above the limit
    EXPECT_EQ(pts[2].nRGBD, 0xFFFFFFFFu);
}

TEST(EulerAngles, RoundTrip) {
    double R[3][3];
    eulerToRotationMatrixZYX(SHX_EulerAngles{10, 20, 30}, R);
    const SHX_EulerAngles e = rotationMatrixToEulerZYX(R);
    EXPECT_NEAR(e.roll, 10, 1e-9);
    EXPECT_NEAR(e.pitch, 20, 1e-9);
    EXPECT_NEAR(e.yaw, 30, 1e-9);

    eulerToRotationMatrixZYX(SHX_EulerAngles{-170, -45, 120}, R);
    const SHX_EulerAngles f = rotationMatrixToEulerZYX(R);
    EXPECT_NEAR(f.roll, -170, 1e-9);
    EXPECT_NEAR(f.pitch, -45, 1e-9);
    EXPECT_NEAR(f.yaw, 120, 1e-9);
}

TEST(EulerAngles, MatrixOfSingleAxisRotations) {
    double R[3][3];
    // yaw 90 alone: x axis goes to y.
    eulerToRotationMatrixZYX(SHX_EulerAngles{0, 0, 90}, R);
    EXPECT_NEAR(R[0][0], 0, 1e-15);
    EXPECT_NEAR(R[1][0], 1, 1e-15);
    EXPECT_NEAR(R[0][1], -1, 1e-15);
    EXPECT_NEAR(R[2][2], 1, 1e-15);
    // roll 90 alone: y axis goes to z.
    eulerToRotationMatrixZYX(SHX_EulerAngles{90, 0, 0}, R);
    EXPECT_NEAR(R[2][1], 1, 1e-15);
    EXPECT_NEAR(R[1][2], -1, 1e-15);
    // pitch 90 alone: z axis goes to x.
    eulerToRotationMatrixZYX(SHX_EulerAngles{0, 90, 0}, R);
    EXPECT_NEAR(R[0][2], 1, 1e-15);
    EXPECT_NEAR(R[2][0], -1, 1e-15);
}

TEST(EulerAngles, GimbalLockFoldsRollIntoYaw) {
    double R[3][3];
    eulerToRotationMatrixZYX(SHX_EulerAngles{25, 90, 70}, R);
    const SHX_EulerAngles e = rotationMatrixToEulerZYX(R);
    EXPECT_EQ(e.roll, 0.0);
    EXPECT_NEAR(e.pitch, 90, 1e-6);
    EXPECT_NEAR(e.yaw, 70 - 25, 1e-6);
}

TEST(EulerAngles, IdentityGivesZeros) {
    const double I[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    const SHX_EulerAngles e = rotationMatrixToEulerZYX(I);
    EXPECT_EQ(e.roll, 0.0);
    EXPECT_EQ(e.pitch, 0.0);
    EXPECT_EQ(e.yaw, 0.0);
}
