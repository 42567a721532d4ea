// Jump detector: hand-worked steps and identity with the plain version.
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "corner_reference.h"
#include "test_util.h"

using cornerref::expectSame;
using testutil::profileFromZ;

namespace {

// Arms of 2.5 on a pitch of 1; an arm is flat below 20 degrees and steep
// above 45; corners of at least 30 degrees; corners closer than 5 in y, steps
// larger than 5 in z.
SHX_cornerParam jumpParam() {
    SHX_cornerParam p;
    p.maxGapY = 5.0;
    p.jumpZ = 5.0;
    p.armLen = 2.5;
    p.minCornerAngle = 30.0;
    p.armAngle1 = 20.0;
    p.armAngle2 = 45.0;
    return p;
}

std::vector<double> concat(std::initializer_list<std::vector<double>> parts) {
    std::vector<double> z;
    for (const auto& part : parts) z.insert(z.end(), part.begin(), part.end());
    return z;
}

std::vector<double> flat(double v, int n) { return std::vector<double>(static_cast<size_t>(n), v); }

std::vector<SHX_basicFeature1D> detect(const std::vector<SKesp3DPosition>& p, SHX_cornerParam prm) {
    std::vector<SHX_basicFeature1D> out;
    hx_getLineJumpFeature_cornerMethod(p.data(), static_cast<int32_t>(p.size()), 4, prm, out);
    return out;
}

void expectJump(const SHX_basicFeature1D& f, int type, int idx, double value, const std::vector<SKesp3DPosition>& p) {
    EXPECT_EQ(f.featureType, type);
    EXPECT_EQ(f.lineIdx, 4);
    EXPECT_EQ(f.featurePos.nPointIdx, idx);
    EXPECT_EQ(f.featurePos.y, p[static_cast<size_t>(idx)].y);
    EXPECT_EQ(f.featurePos.z, p[static_cast<size_t>(idx)].z);
    EXPECT_EQ(f.featureValue, value);
}

}  // namespace

// Flat 20 over points 0..10, flank 15 at 11, flat 10 from 12. At 10 the
// backward arm is flat (to 7) and the forward one drops 5 in 1 (-78.69):
// convex corner 78.69, kind 9. At 12 the backward arm is that drop and the
// forward one flat (to 15): concave -78.69, kind 11. They are 2 apart in y and
// z(15) - z(7) = -10: a falling jump at the top corner valued 20.
TEST(JumpFeature, FallingStepReportedAtTopCorner) {
    const auto p = profileFromZ(concat({flat(20, 11), {15}, flat(10, 11)}));
    const auto out = detect(p, jumpParam());
    ASSERT_EQ(out.size(), 1u);
    expectJump(out[0], 2, 10, 20.0, p);
}

// The rising mirror: foot at 10 (kind 10), top at 12 (kind 12): a rising jump
// at the top corner, valued with the upper flat's z.
TEST(JumpFeature, RisingStepReportedAtTopCorner) {
    const auto p = profileFromZ(concat({flat(10, 11), {15}, flat(20, 11)}));
    const auto out = detect(p, jumpParam());
    ASSERT_EQ(out.size(), 1u);
    expectJump(out[0], 1, 12, 20.0, p);
}

TEST(JumpFeature, LimitsOnGapAndStepAreStrict) {
    const auto p = profileFromZ(concat({flat(10, 11), {15}, flat(20, 11)}));
    SHX_cornerParam prm = jumpParam();
    prm.maxGapY = 2.0;  // the corners are exactly 2 apart
    EXPECT_TRUE(detect(p, prm).empty());
    prm = jumpParam();
    prm.jumpZ = 10.0;  // the step is exactly 10
    EXPECT_TRUE(detect(p, prm).empty());
    prm = jumpParam();
    prm.minCornerAngle = 80.0;  // both corners measure 78.69
    EXPECT_TRUE(detect(p, prm).empty());
    prm = jumpParam();
    prm.armAngle2 = 80.0;  // the flank (78.69) is no longer steep
    EXPECT_TRUE(detect(p, prm).empty());
}

// Two falling steps: 40 -> 30 whose foot runs out on a 1:2 slope (-26.57,
// not flat, so that foot gets no kind), then 25 -> 15 with a flat foot. The
// two tops are both kind 9 and follow each other: that pair gives nothing;
// only the second step is reported (top 30, upper flat 25).
TEST(JumpFeature, TwoConvexCornersInARowDoNotPair) {
    std::vector<double> slope;
    for (int i = 1; i <= 10; ++i) slope.push_back(30 - 0.5 * i);
    const auto z = concat({flat(40, 11), {35, 30}, slope, flat(25, 8), {20}, flat(15, 12)});
    const auto p = profileFromZ(z);
    ASSERT_EQ(p[30].z, 25.0);
    ASSERT_EQ(p[32].z, 15.0);
    const auto out = detect(p, jumpParam());
    ASSERT_EQ(out.size(), 1u);
    expectJump(out[0], 2, 30, 25.0, p);
}

// A vertical flank (three points at y = 5): chords along it measure 90 as
// floating point gives it; foot kind 10, top kind 12, rising jump at the top.
TEST(JumpFeature, VerticalFlank) {
    std::vector<SKesp3DPosition> p;
    for (int i = 0; i <= 5; ++i) p.push_back(testutil::pt(0, i, 10));
    for (int k = 1; k <= 3; ++k) p.push_back(testutil::pt(0, 5, 10 + 2 * k));
    for (int i = 6; i <= 12; ++i) p.push_back(testutil::pt(0, i, 16));
    const auto out = detect(p, jumpParam());
    ASSERT_EQ(out.size(), 1u);
    expectJump(out[0], 1, 8, 16.0, p);
}

TEST(JumpFeature, DegenerateLinesGiveNothing) {
    const auto step = profileFromZ(concat({flat(10, 11), {15}, flat(20, 11)}));
    std::vector<SHX_basicFeature1D> out(2);
    hx_getLineJumpFeature_cornerMethod(step.data(), 0, 1, jumpParam(), out);
    hx_getLineJumpFeature_cornerMethod(step.data(), -3, 1, jumpParam(), out);
    EXPECT_EQ(out.size(), 2u);  // appended to, never cleared
    hx_getLineJumpFeature_cornerMethod(step.data(), 23, 1, jumpParam(), out);
    EXPECT_EQ(out.size(), 3u);

    EXPECT_TRUE(detect(profileFromZ({0, 0, 0.0001, std::nan("")}), jumpParam()).empty());
    EXPECT_TRUE(detect(profileFromZ({10, 10.5, 20, 20.5}, 0.5), jumpParam()).empty());
    // Arms longer than the line: no angles at all.
    SHX_cornerParam longArms = jumpParam();
    longArms.armLen = 100.0;
    EXPECT_TRUE(detect(step, longArms).empty());
    // NaN heights inside the flat parts are skipped, not looped on.
    auto holes = step;
    holes[3].z = std::nan("");
    holes[18].z = std::nan("");
    const auto withHoles = detect(holes, jumpParam());
    ASSERT_EQ(withHoles.size(), 1u);
    EXPECT_EQ(withHoles[0].featurePos.nPointIdx, 12);
}

// Identity with the plain version on random step profiles: flats, steep and
// vertical flanks, ties from heights on a grid, gaps and odd parameters.
TEST(JumpFeature, MatchesPlainVersionOnRandomProfiles) {
    testutil::Rng rng(17);
    const double inf = std::numeric_limits<double>::infinity();
    for (int trial = 0; trial < 3000; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 200));
        const bool quantised = rng.integer(0, 2) == 0;
        std::vector<SKesp3DPosition> p;
        double y = 0, z = rng.uniform(10, 30);
        for (int i = 0; i < n; ++i) {
            if (rng.integer(0, 12) != 0) y += quantised ? 1.0 : rng.uniform(0.2, 1.2);
            const int shape = static_cast<int>(rng.integer(0, 19));
            if (shape == 0) z += rng.uniform(-12, 12);
            else if (shape < 3) z += quantised ? 4.0 * rng.integer(-2, 2) : rng.uniform(-6, 6);
            else if (shape < 8) z += quantised ? 0.25 * rng.integer(-1, 1) : rng.uniform(-0.2, 0.2);
            double zi = rng.integer(0, 25) == 0 ? 0.0 : z;
            double yi = y;
            if (trial % 50 == 49 && rng.integer(0, 30) == 0) yi = rng.integer(0, 1) ? inf : std::nan("");
            p.push_back(testutil::pt(i, yi, zi, i));
        }
        SHX_cornerParam prm;
        prm.maxGapY = rng.uniform(0, 8);
        prm.jumpZ = rng.uniform(0, 10);
        prm.armLen = rng.integer(0, 10) == 0 ? 0.0 : rng.uniform(0.5, 4);
        prm.minCornerAngle = rng.uniform(0, 60);
        prm.armAngle1 = rng.integer(0, 3) == 0 ? 45.0 : rng.uniform(0, 40);
        prm.armAngle2 = rng.integer(0, 3) == 0 ? 45.0 : rng.uniform(20, 80);
        std::vector<SHX_basicFeature1D> got, want;
        hx_getLineJumpFeature_cornerMethod(p.data(), n, trial, prm, got);
        cornerref::jumps(p.data(), n, trial, prm, want);
        SCOPED_TRACE(trial);
        expectSame(got, want);
    }
}
