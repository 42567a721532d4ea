// The plane fit and the rotation construction behind plane calibration,
// including the branches a levelling normal (a, b, -1) never reaches.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "../../src/internal.h"
#include "test_util.h"

using pa_detail::planeFitting;
using pa_detail::quaternionToMatrix;
using pa_detail::rotationBetweenVectors;

namespace {

cv::Vec3d rotate(const double m[9], const cv::Vec3d& p) {
    return cv::Vec3d(m[0] * p[0] + m[1] * p[1] + m[2] * p[2], m[3] * p[0] + m[4] * p[1] + m[5] * p[2],
                     m[6] * p[0] + m[7] * p[1] + m[8] * p[2]);
}

}  // namespace

TEST(PlaneFitting, ExactPlaneAndSingularSystems) {
    // z = 0.5 x - 0.25 y + 3 on a 7 x 9 grid: every value is exact in float.
    std::vector<cv::Point3f> pts;
    for (int i = 0; i < 7; ++i)
        for (int j = 0; j < 9; ++j) pts.emplace_back(float(i), float(j), 0.5f * i - 0.25f * j + 3.0f);
    const cv::Vec4d p = planeFitting(pts);
    EXPECT_NEAR(p[0], 0.5, 1e-12);
    EXPECT_NEAR(p[1], -0.25, 1e-12);
    EXPECT_EQ(p[2], -1.0);
    EXPECT_NEAR(p[3], 3.0, 1e-12);
    // The inverse of a singular system is taken as zero; a linear solve or a
    // pseudo-inverse would return a tilted plane through these points instead.
    const cv::Vec4d flat(0.0, 0.0, -1.0, 0.0);
    EXPECT_EQ(planeFitting({}), flat);
    EXPECT_EQ(planeFitting({cv::Point3f(1, 2, 3)}), flat);
    std::vector<cv::Point3f> collinear;
    for (int k = 0; k < 10; ++k) collinear.emplace_back(1.0f + k, 2.0f + 2 * k, 5.0f + 0.5f * k);
    EXPECT_EQ(planeFitting(collinear), flat);
}

TEST(RotationBetweenVectors, HandWorkedQuarterTurn) {
    // x onto y: a quarter turn about z, (cos 45, 0, 0, sin 45).
    const cv::Vec4d q = rotationBetweenVectors(cv::Vec3d(2, 0, 0), cv::Vec3d(0, 5, 0));
    EXPECT_NEAR(q[0], std::sqrt(0.5), 1e-15);
    EXPECT_EQ(q[1], 0.0);
    EXPECT_EQ(q[2], 0.0);
    EXPECT_NEAR(q[3], std::sqrt(0.5), 1e-15);
    double m[9];
    quaternionToMatrix(q, m);
    const double want[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(m[k], want[k], 1e-15) << k;
}

TEST(RotationBetweenVectors, DegenerateAndOppositeDirections) {
    // Too short, or already aligned within the cosine limit: identity.
    EXPECT_EQ(rotationBetweenVectors(cv::Vec3d(0, 0, 5e-8), cv::Vec3d(0, 0, 1)), cv::Vec4d(1, 0, 0, 0));
    EXPECT_EQ(rotationBetweenVectors(cv::Vec3d(1, 0, 0), cv::Vec3d(0, 0, 0)), cv::Vec4d(1, 0, 0, 0));
    EXPECT_EQ(rotationBetweenVectors(cv::Vec3d(0.0003, 0, -1), cv::Vec3d(0, 0, -1)), cv::Vec4d(1, 0, 0, 0));
    // Just beyond the limit (cosine about 0.99999988) the rotation is real.
    const cv::Vec4d small = rotationBetweenVectors(cv::Vec3d(0.0005, 0, -1), cv::Vec3d(0, 0, -1));
    EXPECT_LT(small[0], 1.0);
    EXPECT_NE(small[2], 0.0);
    // Opposite: a half turn about x, or about y when u lies along x.
    EXPECT_EQ(rotationBetweenVectors(cv::Vec3d(0, 0, -1), cv::Vec3d(0, 0, 3)), cv::Vec4d(0, 1, 0, 0));
    EXPECT_EQ(rotationBetweenVectors(cv::Vec3d(0, 2, 1), cv::Vec3d(0, -4, -2)), cv::Vec4d(0, 1, 0, 0));
    EXPECT_EQ(rotationBetweenVectors(cv::Vec3d(3, 0, 0), cv::Vec3d(-1, 0, 0)), cv::Vec4d(0, 0, 1, 0));
    double m[9];
    quaternionToMatrix(cv::Vec4d(0, 0, 1, 0), m);
    const cv::Vec3d back = rotate(m, cv::Vec3d(3, 0, 0));
    EXPECT_EQ(back, cv::Vec3d(-3, 0, 0));
}

TEST(RotationBetweenVectors, TurnsAnyDirectionOntoTheOtherAndBack) {
    testutil::Rng rng(12345);
    auto uni = [&rng]() { return rng.uniform(-1.0, 1.0); };
    for (int trial = 0; trial < 500; ++trial) {
        const cv::Vec3d u(uni(), uni(), uni()), v(uni(), uni(), uni());
        if (cv::norm(u) < 0.1 || cv::norm(v) < 0.1) continue;
        double m[9], inv[9];
        quaternionToMatrix(rotationBetweenVectors(u, v), m);
        quaternionToMatrix(rotationBetweenVectors(v, u), inv);
        const cv::Vec3d turned = rotate(m, u / cv::norm(u));
        EXPECT_LT(cv::norm(turned - v / cv::norm(v)), 1e-9) << trial;
        // The two rotations are inverses: their product is the identity.
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                double sum = 0;
                for (int k = 0; k < 3; ++k) sum += m[3 * r + k] * inv[3 * k + c];
                EXPECT_NEAR(sum, r == c ? 1.0 : 0.0, 1e-12);
            }
    }
}
