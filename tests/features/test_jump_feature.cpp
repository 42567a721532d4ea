// Jump detector: hand-worked steps and identity with the plain version.
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

// "type@index=value ..." of the jumps; positions are checked against the point named.
std::string detect(const std::vector<SKesp3DPosition>& p, SHX_cornerParam prm) {
    std::vector<SHX_basicFeature1D> out;
    hx_getLineJumpFeature_cornerMethod(p.data(), static_cast<int32_t>(p.size()), 4, prm, out);
    std::string s;
    for (const SHX_basicFeature1D& f : out) {
        s += std::to_string(f.featureType) + "@" + std::to_string(f.featurePos.nPointIdx) + "=" +
             std::to_string(static_cast<int>(f.featureValue)) + " ";
        const SKesp3DPosition& q = p[static_cast<size_t>(f.featurePos.nPointIdx)];
        EXPECT_TRUE(f.lineIdx == 4 && f.featurePos.y == q.y && f.featurePos.z == q.z);
    }
    return s;
}

SHX_cornerParam with(double SHX_cornerParam::*field, double v) {
    SHX_cornerParam p = jumpParam();
    p.*field = v;
    return p;
}

}  // namespace

TEST(JumpFeature, HandWorkedSteps) {
    const auto falling = profileFromZ(concat({flat(20, 11), {15}, flat(10, 11)}));
    const auto rising = profileFromZ(concat({flat(10, 11), {15}, flat(20, 11)}));
    std::vector<double> slope;
    for (int i = 1; i <= 10; ++i) slope.push_back(30 - 0.5 * i);
    std::vector<SKesp3DPosition> wall;  // a vertical flank: three points at y = 5
    for (int i = 0; i <= 5; ++i) wall.push_back(testutil::pt(0, i, 10));
    for (int k = 1; k <= 3; ++k) wall.push_back(testutil::pt(0, 5, 10 + 2 * k));
    for (int i = 6; i <= 12; ++i) wall.push_back(testutil::pt(0, i, 16));
    const struct {
        const char* what;
        std::vector<SKesp3DPosition> profile;
        SHX_cornerParam param;
        const char* want;
    } cases[] = {
        {"falling step: convex 78.69 at 10 (kind 9), concave at 12 (kind 11), 2 apart, z(15) - z(7) = -10: a "
         "falling jump at the top corner valued 20",
         falling, jumpParam(), "2@10=20 "},
        {"rising step: foot at 10 (kind 10), top at 12 (kind 12): rising jump at the top, the upper flat's z", rising,
         jumpParam(), "1@12=20 "},
        {"the corners are exactly maxGapY apart", rising, with(&SHX_cornerParam::maxGapY, 2.0), ""},
        {"the step is exactly jumpZ", rising, with(&SHX_cornerParam::jumpZ, 10.0), ""},
        {"both corners measure 78.69, below minCornerAngle", rising, with(&SHX_cornerParam::minCornerAngle, 80.0), ""},
        {"the flank (78.69) is no longer steep", rising, with(&SHX_cornerParam::armAngle2, 80.0), ""},
        {"arms longer than the line: no angles at all", rising, with(&SHX_cornerParam::armLen, 100.0), ""},
        {"two falling steps whose tops are both kind 9 in a row do not pair; the second step (top 30, upper flat "
         "25) is reported",
         profileFromZ(concat({flat(40, 11), {35, 30}, slope, flat(25, 8), {20}, flat(15, 12)})), jumpParam(),
         "2@30=25 "},
        {"a vertical flank measures 90: foot kind 10, top kind 12", wall, jumpParam(), "1@8=16 "},
        {"no valid point", profileFromZ({0, 0, 0.0001, std::nan("")}), jumpParam(), ""},
        {"a line shorter than the arms", profileFromZ({10, 10.5, 20, 20.5}, 0.5), jumpParam(), ""},
    };
    for (const auto& c : cases) EXPECT_EQ(detect(c.profile, c.param), c.want) << c.what;
    // NaN heights inside the flat parts are skipped, not looped on.
    auto holes = rising;
    holes[3].z = holes[18].z = std::nan("");
    EXPECT_EQ(detect(holes, jumpParam()).substr(0, 5), "1@12=");
    // Counts of 0 or below append nothing; the vector is appended to, never cleared.
    std::vector<SHX_basicFeature1D> out(2);
    hx_getLineJumpFeature_cornerMethod(rising.data(), 0, 1, jumpParam(), out);
    hx_getLineJumpFeature_cornerMethod(rising.data(), -3, 1, jumpParam(), out);
    EXPECT_EQ(out.size(), 2u);
    hx_getLineJumpFeature_cornerMethod(rising.data(), 23, 1, jumpParam(), out);
    EXPECT_EQ(out.size(), 3u);
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
