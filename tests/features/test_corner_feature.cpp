// Corner detector: hand-worked profiles, segment ends, and identity with the
// plain version on random profiles.
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "corner_reference.h"
#include "test_util.h"

using cornerref::expectSame;
using testutil::profileFromZ;

namespace {

// Flat limit 30 / steep 10 as in the type rule; arms of 2.5 on a pitch of 1.
SHX_cornerParam cornerParam() {
    SHX_cornerParam p;
    p.maxGapY = 3.0;
    p.jumpZ = 5.0;
    p.armLen = 2.5;
    p.minCornerAngle = 20.0;
    p.armAngle1 = 30.0;
    p.armAngle2 = 10.0;
    return p;
}

// z from `from` to `to` in steps of `step` per point (last value included).
void ramp(std::vector<double>& z, double from, double to, double step) {
    const int n = static_cast<int>(std::lround(std::fabs(to - from) / step));
    for (int i = 0; i <= n; ++i) z.push_back(from + (to > from ? i : -i) * step);
}

void flat(std::vector<double>& z, double v, int n) { z.insert(z.end(), static_cast<size_t>(n), v); }

SHX_lineFeature detect(const std::vector<SKesp3DPosition>& p, SHX_cornerParam prm, int lineIdx = 3) {
    SHX_lineFeature out;
    hx_getLineCornerFeature(p.data(), static_cast<int32_t>(p.size()), lineIdx, prm, &out);
    return out;
}

void expectFeature(const SHX_basicFeature1D& f, int type, int idx, const std::vector<SKesp3DPosition>& p,
                   int lineIdx = 3) {
    EXPECT_EQ(f.featureType, type);
    EXPECT_EQ(f.lineIdx, lineIdx);
    EXPECT_EQ(f.featurePos.nPointIdx, idx);
    EXPECT_EQ(f.featurePos.y, p[static_cast<size_t>(idx)].y);
    EXPECT_EQ(f.featurePos.z, p[static_cast<size_t>(idx)].z);
    EXPECT_EQ(f.featureValue, 0.0);
}

}  // namespace

// Rise at 45 degrees over points 0..10, plateau 10..20. At point 10 the
// backward arm ends at 8 (distance sqrt 8) and the forward one at 13
// (distance 3): backward 45, forward 0, corner 45, the largest of the line
// (points 9 and 11 give 26.57 and 33.69) -> type 1.
TEST(CornerFeature, RiseIntoPlateauIsType1) {
    std::vector<double> z;
    ramp(z, 10, 20, 1);
    flat(z, 20, 10);
    const auto p = profileFromZ(z);
    const SHX_lineFeature out = detect(p, cornerParam());
    EXPECT_EQ(out.lineIdx, 3);
    ASSERT_EQ(out.features.size(), 1u);
    expectFeature(out.features[0], 1, 10, p);
    ASSERT_EQ(out.endings.size(), 2u);
    expectFeature(out.endings[0], 6, 0, p);
    expectFeature(out.endings[1], 7, 20, p);
}

// The mirror: plateau 0..10, fall at 45 degrees 10..20: backward 0, forward
// -45, corner 45 -> type 2. Raising minCornerAngle above 45 removes it.
TEST(CornerFeature, PlateauIntoFallIsType2AndMinAngleFilters) {
    std::vector<double> z;
    flat(z, 20, 10);
    ramp(z, 20, 10, 1);
    const auto p = profileFromZ(z);
    const SHX_lineFeature out = detect(p, cornerParam());
    ASSERT_EQ(out.features.size(), 1u);
    expectFeature(out.features[0], 2, 10, p);

    SHX_cornerParam strict = cornerParam();
    strict.minCornerAngle = 45.5;
    EXPECT_TRUE(detect(p, strict).features.empty());
    EXPECT_EQ(detect(p, strict).endings.size(), 2u);
}

// A roof: 45 degrees up to point 10, 45 down after: corner 90 with a steep
// fall after it -> neither type 1 nor 2 -> type 15.
TEST(CornerFeature, RoofIsType15) {
    std::vector<double> z;
    ramp(z, 10, 20, 1);
    z.pop_back();
    ramp(z, 20, 10, 1);
    const auto p = profileFromZ(z);
    const SHX_lineFeature out = detect(p, cornerParam());
    ASSERT_EQ(out.features.size(), 1u);
    expectFeature(out.features[0], 15, 10, p);
}

// A block: up at 45 to point 10, top 10..14, down at 45 to 24. Corners 10 and
// 14 both measure exactly 45; point 12 between them is a weaker maximum
// (36.87) and is suppressed, while the two equal ones within 2 * armLen both
// stay.
TEST(CornerFeature, EqualMaximaWithinRangeBothReported) {
    std::vector<double> z;
    ramp(z, 10, 20, 1);
    flat(z, 20, 3);
    ramp(z, 20, 10, 1);
    flat(z, 10, 5);
    const auto p = profileFromZ(z);
    const SHX_lineFeature out = detect(p, cornerParam());
    ASSERT_EQ(out.features.size(), 2u);
    expectFeature(out.features[0], 1, 10, p);
    expectFeature(out.features[1], 2, 14, p);
}

// A vertical wall (four points at y = 5) from z 10 to 16: the chord down the
// wall has dy = 0 and measures 90 degrees as floating point gives it.
TEST(CornerFeature, VerticalChordGivesNinetyDegrees) {
    std::vector<SKesp3DPosition> p;
    for (int i = 0; i <= 5; ++i) p.push_back(testutil::pt(0, i, 10));
    for (int k = 1; k <= 3; ++k) p.push_back(testutil::pt(0, 5, 10 + 2 * k));
    for (int i = 6; i <= 12; ++i) p.push_back(testutil::pt(0, i, 16));
    const SHX_lineFeature out = detect(p, cornerParam());
    // The top of the wall (index 8): backward chord to index 6 is vertical
    // (+90), forward flat: corner ~90, type 1.
    ASSERT_EQ(out.features.size(), 1u);
    expectFeature(out.features[0], 1, 8, p);
    // Wall steps of 2 stay within jumpZ 5: one segment.
    ASSERT_EQ(out.endings.size(), 2u);
    SHX_lineFeature ref;
    cornerref::corners(p.data(), static_cast<int>(p.size()), 3, cornerParam(), &ref);
    expectSame(out.features, ref.features);
}

TEST(CornerFeature, SegmentsCutAtJumpsAndJoinedAcrossSmallGaps) {
    const SHX_cornerParam prm = cornerParam();  // maxGapY 3, jumpZ 5
    // Single invalid point between two flat runs: y gap 2 < 3, z gap 0 -> one segment.
    auto p = profileFromZ({10, 10, 10, 10, 0, 10, 10, 10});
    SHX_lineFeature out = detect(p, prm);
    ASSERT_EQ(out.endings.size(), 2u);
    expectFeature(out.endings[0], 6, 0, p);
    expectFeature(out.endings[1], 7, 7, p);

    // The gap must be strictly below maxGapY: two invalid points give y gap 3.
    p = profileFromZ({10, 10, 10, 0, 0, 10, 10});
    out = detect(p, prm);
    ASSERT_EQ(out.endings.size(), 4u);
    expectFeature(out.endings[1], 7, 2, p);
    expectFeature(out.endings[2], 6, 5, p);

    // A z step of 6 > jumpZ cuts a run, and the two parts are not joined
    // (z gap not below jumpZ); a step of exactly 5 does not cut.
    p = profileFromZ({10, 10, 10, 16, 16, 21, 21});
    out = detect(p, prm);
    ASSERT_EQ(out.endings.size(), 4u);
    expectFeature(out.endings[0], 6, 0, p);
    expectFeature(out.endings[1], 7, 2, p);
    expectFeature(out.endings[2], 6, 3, p);
    expectFeature(out.endings[3], 7, 6, p);

    // Joins cascade: three runs with single-point gaps make one segment.
    p = profileFromZ({0, 10, 10, 0, 11, 0, 12, 12, 0});
    out = detect(p, prm);
    ASSERT_EQ(out.endings.size(), 2u);
    expectFeature(out.endings[0], 6, 1, p);
    expectFeature(out.endings[1], 7, 7, p);

    // A single valid point is a segment by itself.
    p = profileFromZ({0, 0, 12, 0});
    out = detect(p, prm);
    EXPECT_TRUE(out.features.empty());
    ASSERT_EQ(out.endings.size(), 2u);
    expectFeature(out.endings[0], 6, 2, p);
    expectFeature(out.endings[1], 7, 2, p);
}

TEST(CornerFeature, DegenerateLinesGiveNoCorners) {
    const SHX_cornerParam prm = cornerParam();
    // Count 0 or negative and all-invalid lines: lineIdx set, nothing appended,
    // earlier content kept.
    auto invalid = profileFromZ({0, 0.0001, -5, std::nan("")});
    for (int count : {0, -4, 4}) {
        SHX_lineFeature out;
        out.features.resize(1);
        hx_getLineCornerFeature(invalid.data(), count, 9, prm, &out);
        EXPECT_EQ(out.lineIdx, 9);
        EXPECT_EQ(out.features.size(), 1u);
        EXPECT_TRUE(out.endings.empty());
    }
    // A line shorter than the arms: segment ends only.
    auto shortLine = profileFromZ({10, 10.5, 11, 10.5}, 0.5);
    SHX_lineFeature out = detect(shortLine, prm);
    EXPECT_TRUE(out.features.empty());
    EXPECT_EQ(out.endings.size(), 2u);
    // NaN heights are invalid points: they cut segments like zeros.
    auto withNan = profileFromZ({10, 10, std::nan(""), std::nan(""), std::nan(""), 10, 10});
    out = detect(withNan, prm);
    EXPECT_EQ(out.endings.size(), 4u);
}

// Identity with the plain version on random profiles built to hit ties
// (heights on a coarse grid), vertical chords (repeated y), gaps, steps, and
// odd parameters.
TEST(CornerFeature, MatchesPlainVersionOnRandomProfiles) {
    testutil::Rng rng(7);
    for (int trial = 0; trial < 3000; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 160));
        const bool quantised = rng.integer(0, 2) == 0;
        std::vector<SKesp3DPosition> p;
        double y = 0, z = rng.uniform(5, 20);
        for (int i = 0; i < n; ++i) {
            if (rng.integer(0, 9) != 0) y += quantised ? 1.0 : rng.uniform(0.05, 1.5);
            const int shape = static_cast<int>(rng.integer(0, 9));
            if (shape == 0) z += rng.uniform(-8, 8);
            else if (shape < 5) z += quantised ? 0.5 * rng.integer(-2, 2) : rng.uniform(-0.5, 0.5);
            double zi = rng.integer(0, 15) == 0 ? 0.0 : z;
            p.push_back(testutil::pt(i, y, zi, 1000 + i));
        }
        SHX_cornerParam prm;
        prm.maxGapY = rng.uniform(0, 4);
        prm.jumpZ = rng.uniform(0, 6);
        const int armKind = static_cast<int>(rng.integer(0, 9));
        prm.armLen = armKind == 0 ? 0.0 : (armKind == 1 ? -1.0 : (armKind == 2 ? 40.0 : rng.uniform(0.5, 5)));
        prm.minCornerAngle = rng.integer(0, 3) == 0 ? -10.0 : rng.uniform(0, 60);
        prm.armAngle1 = rng.integer(0, 3) == 0 ? 45.0 : rng.uniform(0, 80);
        prm.armAngle2 = rng.integer(0, 3) == 0 ? 45.0 : rng.uniform(0, 80);
        SHX_lineFeature got, want;
        hx_getLineCornerFeature(p.data(), n, trial, prm, &got);
        cornerref::corners(p.data(), n, trial, prm, &want);
        SCOPED_TRACE(trial);
        EXPECT_EQ(got.lineIdx, trial);
        expectSame(got.features, want.features);
        expectSame(got.endings, want.endings);
    }
}

// Non-finite coordinates and limits must neither hang nor differ from the
// plain version (NaN comparisons are false in both).
TEST(CornerFeature, NonFiniteInputMatchesPlainVersion) {
    testutil::Rng rng(11);
    const double inf = std::numeric_limits<double>::infinity();
    const double bad[] = {std::nan(""), inf, -inf, 1e300};
    for (int trial = 0; trial < 400; ++trial) {
        std::vector<SKesp3DPosition> p;
        for (int i = 0; i < 60; ++i) {
            double y = i, z = 10 + (i % 20 < 10 ? i % 20 : 20 - i % 20);
            if (rng.integer(0, 12) == 0) y = bad[rng.integer(0, 3)];
            if (rng.integer(0, 12) == 0) z = bad[rng.integer(0, 3)];
            p.push_back(testutil::pt(0, y, z, i));
        }
        SHX_cornerParam prm = cornerParam();
        if (trial % 4 == 1) prm.armLen = bad[rng.integer(0, 3)];
        if (trial % 4 == 2) prm.minCornerAngle = std::nan("");
        if (trial % 4 == 3) prm.armAngle1 = std::nan("");
        SHX_lineFeature got, want;
        hx_getLineCornerFeature(p.data(), 60, 1, prm, &got);
        cornerref::corners(p.data(), 60, 1, prm, &want);
        SCOPED_TRACE(trial);
        expectSame(got.features, want.features);
        expectSame(got.endings, want.endings);
    }
}
