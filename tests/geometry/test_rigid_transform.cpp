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
    EXPECT_TRUE(a.nPointIdx == b.nPointIdx && a.x == b.x && a.y == b.y && a.z == b.z)
        << a.x << " " << a.y << " " << a.z << " vs " << b.x << " " << b.y << " " << b.z;
}

}  // namespace

TEST(LineDataRT, HandWorkedLines) {
    // x' = y, y' = z, z' = x: every output depends on an input that a naive
    // in-place update would already have overwritten.
    const double perm[9] = {0, 1, 0, 0, 0, 1, 1, 0, 0};
    using Pts = std::vector<SKesp3DPosition>;
    const struct {
        const char* what;
        const double* rot;
        double limit;
        Pts in, want;
    } cases[] = {
        {"identity without limit changes nothing", kIdentity, 0.0,
         {pt(1.5, -2, 3, 0x123456789ABCLL), pt(4, 5, 0.0, -7), pt(7, 8, 1e6, 3)},
         {pt(1.5, -2, 3, 0x123456789ABCLL), pt(4, 5, 0.0, -7), pt(7, 8, 1e6, 3)}},
        {"valid points turn, invalid ones stay though the turn would lift them", kQuarterX, 0.0,
         {pt(1, 2, 3, -1), pt(1, 2, 0.0, 42), pt(1, 2, 0.0000999, 43)},
         {pt(1, -3, 2, -1), pt(1, 2, 0.0, 42), pt(1, 2, 0.0000999, 43)}},
        {"a height just above the limit drops to 0 keeping x' and y'; at the limit it stays", kIdentity, 10.0,
         {pt(1, 2, 10.0, 5), pt(3, 4, 10.0001, 6), pt(5, 6, 9.0, 7)},
         {pt(1, 2, 10.0, 5), pt(3, 4, 0.0, 6), pt(5, 6, 9.0, 7)}},
        {"a negative limit is no limit", kIdentity, -1.0, {pt(0, 0, 50.0)}, {pt(0, 0, 50.0)}},
        {"the turn reads the untransformed coordinates", perm, 0.0, {pt(7, 8, 9)}, {pt(8, 9, 7)}},
    };
    for (const auto& c : cases) {
        Pts viaPointer = c.in, viaVector = c.in;
        SKesp3DLaserLine line;
        line.p3DPosition = viaPointer.data();
        line.nPositionCnt = static_cast<int32_t>(viaPointer.size());
        lineDataRT(&line, c.rot, c.limit);
        lineDataRT_vector(viaVector, c.rot, c.limit);
        for (size_t i = 0; i < c.want.size(); ++i) {
            expectSamePoint(viaPointer[i], c.want[i]);
            expectSamePoint(viaVector[i], c.want[i]);
        }
        if (HasFailure()) FAIL() << c.what;
    }
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

TEST(EulerAngles, RoundTripAndIdentity) {
    for (const SHX_EulerAngles& in : {SHX_EulerAngles{10, 20, 30}, SHX_EulerAngles{-170, -45, 120}}) {
        double R[3][3];
        eulerToRotationMatrixZYX(in, R);
        const SHX_EulerAngles e = rotationMatrixToEulerZYX(R);
        EXPECT_NEAR(e.roll, in.roll, 1e-9);
        EXPECT_NEAR(e.pitch, in.pitch, 1e-9);
        EXPECT_NEAR(e.yaw, in.yaw, 1e-9);
    }
    const double I[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    const SHX_EulerAngles e = rotationMatrixToEulerZYX(I);
    EXPECT_TRUE(e.roll == 0.0 && e.pitch == 0.0 && e.yaw == 0.0);
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
