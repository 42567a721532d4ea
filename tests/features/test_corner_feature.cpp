// Corner detector: hand-worked profiles, segment ends, and identity with the
// plain version on random profiles.
#include <cmath>
#include <limits>
#include <string>
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

// z from `from` to `to` in steps of 1 per point (last value included).
std::vector<double> ramp(double from, double to) {
    std::vector<double> z;
    for (double v = from; from < to ? v <= to : v >= to; v += from < to ? 1 : -1) z.push_back(v);
    return z;
}

std::vector<double> concat(std::initializer_list<std::vector<double>> parts) {
    std::vector<double> z;
    for (const auto& part : parts) z.insert(z.end(), part.begin(), part.end());
    return z;
}

std::vector<double> flat(double v, int n) { return std::vector<double>(static_cast<size_t>(n), v); }

// "type@index ..." of the features, then "|", then the segment ends; the
// position and value of each are checked against the point it names.
std::string detect(const std::vector<SKesp3DPosition>& p, SHX_cornerParam prm) {
    SHX_lineFeature out;
    hx_getLineCornerFeature(p.data(), static_cast<int32_t>(p.size()), 3, prm, &out);
    EXPECT_EQ(out.lineIdx, 3);
    std::string s;
    for (const auto* list : {&out.features, &out.endings}) {
        for (const SHX_basicFeature1D& f : *list) {
            s += std::to_string(f.featureType) + "@" + std::to_string(f.featurePos.nPointIdx) + " ";
            const SKesp3DPosition& q = p[static_cast<size_t>(f.featurePos.nPointIdx)];
            EXPECT_TRUE(f.lineIdx == 3 && f.featurePos.y == q.y && f.featurePos.z == q.z && f.featureValue == 0.0);
        }
        s += list == &out.features ? "| " : "";
    }
    return s;
}

}  // namespace

TEST(CornerFeature, HandWorkedProfiles) {
    // A vertical wall (four points at y = 5) from z 10 to 16.
    std::vector<SKesp3DPosition> wall;
    for (int i = 0; i <= 5; ++i) wall.push_back(testutil::pt(0, i, 10));
    for (int k = 1; k <= 3; ++k) wall.push_back(testutil::pt(0, 5, 10 + 2 * k));
    for (int i = 6; i <= 12; ++i) wall.push_back(testutil::pt(0, i, 16));
    SHX_cornerParam strict = cornerParam();
    strict.minCornerAngle = 45.5;
    const double nan = std::nan("");
    const struct {
        const char* what;
        std::vector<SKesp3DPosition> profile;
        SHX_cornerParam param;
        const char* want;
    } cases[] = {
        {"rise at 45 into a plateau: at 10 backward 45, forward 0, corner 45, the largest of the line (9 and 11 "
         "give 26.57 and 33.69): type 1",
         profileFromZ(concat({ramp(10, 20), flat(20, 10)})), cornerParam(), "1@10 | 6@0 7@20 "},
        {"plateau into a fall at 45: backward 0, forward -45: type 2",
         profileFromZ(concat({flat(20, 10), ramp(20, 10)})),
         cornerParam(), "2@10 | 6@0 7@20 "},
        {"minCornerAngle above 45 removes it", profileFromZ(concat({flat(20, 10), ramp(20, 10)})), strict,
         "| 6@0 7@20 "},
        {"a roof: corner 90 with a steep fall after it is neither type 1 nor 2: type 15",
         profileFromZ(concat({ramp(10, 19), ramp(20, 10)})), cornerParam(), "15@10 | 6@0 7@20 "},
        {"a block: corners 10 and 14 both measure exactly 45 and stay though within 2 armLen; 12 (36.87) is "
         "suppressed",
         profileFromZ(concat({ramp(10, 20), flat(20, 3), ramp(20, 10), flat(10, 5)})), cornerParam(),
         "1@10 2@14 | 6@0 7@29 "},
        {"a vertical chord (dy = 0) measures 90 at the top of a wall; wall steps of 2 stay within jumpZ", wall,
         cornerParam(), "1@8 | 6@0 7@15 "},
        {"one invalid point: y gap 2 < maxGapY 3, z gap 0: one segment", profileFromZ({10, 10, 10, 10, 0, 10, 10, 10}),
         cornerParam(), "| 6@0 7@7 "},
        {"two invalid points: y gap 3 is not below maxGapY", profileFromZ({10, 10, 10, 0, 0, 10, 10}), cornerParam(),
         "| 6@0 7@2 6@5 7@6 "},
        {"a z step of 6 > jumpZ cuts and is not joined; a step of exactly 5 does not cut",
         profileFromZ({10, 10, 10, 16, 16, 21, 21}), cornerParam(), "| 6@0 7@2 6@3 7@6 "},
        {"joins cascade: three runs with single-point gaps are one segment",
         profileFromZ({0, 10, 10, 0, 11, 0, 12, 12, 0}),
         cornerParam(), "| 6@1 7@7 "},
        {"a single valid point is a segment", profileFromZ({0, 0, 12, 0}), cornerParam(), "| 6@2 7@2 "},
        {"a line shorter than the arms: segment ends only", profileFromZ({10, 10.5, 11, 10.5}, 0.5), cornerParam(),
         "| 6@0 7@3 "},
        {"NaN heights are invalid points and cut like zeros", profileFromZ({10, 10, nan, nan, nan, 10, 10}),
         cornerParam(), "| 6@0 7@1 6@5 7@6 "},
        {"no valid point: nothing", profileFromZ({0, 0.0001, -5, nan}), cornerParam(), "| "},
    };
    for (const auto& c : cases) EXPECT_EQ(detect(c.profile, c.param), c.want) << c.what;
    // Counts of 0 or below: lineIdx set, nothing appended, earlier content kept.
    for (int count : {0, -4}) {
        SHX_lineFeature out;
        out.features.resize(1);
        hx_getLineCornerFeature(wall.data(), count, 9, cornerParam(), &out);
        EXPECT_EQ(out.lineIdx, 9);
        EXPECT_EQ(out.features.size(), 1u);
        EXPECT_TRUE(out.endings.empty());
    }
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
