// Bumps on a flat, tilted base line.
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::pt;

namespace {

using Features = std::vector<SHX_basicFeature1D>;
using Idx = std::vector<int64_t>;

Features flatPeaks(const std::vector<SKesp3DPosition>& line, double range, double minHeight, double tol, int lineIdx = 0) {
    Features out;
    hx_getFlatLineLocalPeaks_vector(line, lineIdx, range, minHeight, tol, out);
    return out;
}

Idx indicesOf(const Features& f) {
    Idx v;
    for (const auto& x : f) v.push_back(x.featurePos.nPointIdx);
    return v;
}

// A belt z = 5 + 0.1 y sampled at y = i * 0.5, with bumps added at given indices.
std::vector<SKesp3DPosition> belt(int n, const std::vector<std::pair<int, double>>& bumps) {
    std::vector<SKesp3DPosition> v;
    for (int i = 0; i < n; ++i) v.push_back(pt(3.0, i * 0.5, 5.0 + 0.1 * (i * 0.5), 1000 + i));
    for (const auto& b : bumps) v[static_cast<size_t>(b.first)].z += b.second;
    return v;
}

// Plain version: normal equations for both fits, residuals, the candidate
// state machine and the suppression, written out directly.
bool plainFit(const std::vector<SKesp3DPosition>& pts, const std::vector<bool>& use, double& k, double& b) {
    double n = 0, my = 0, mz = 0;
    for (size_t i = 0; i < pts.size(); ++i)
        if (use[i]) {
            n += 1;
            my += pts[i].y;
            mz += pts[i].z;
        }
    if (n < 2) return false;
    my /= n;
    mz /= n;
    double syy = 0, syz = 0;
    for (size_t i = 0; i < pts.size(); ++i)
        if (use[i]) {
            syy += (pts[i].y - my) * (pts[i].y - my);
            syz += (pts[i].y - my) * (pts[i].z - mz);
        }
    if (syy == 0) return false;
    k = syz / syy;
    b = mz - k * my;
    return true;
}

Idx plainFlatPeaks(const std::vector<SKesp3DPosition>& pts, double range, double minHeight, double tol) {
    const size_t n = pts.size();
    std::vector<bool> valid(n), flat(n);
    int nValid = 0;
    for (size_t i = 0; i < n; ++i) nValid += (valid[i] = pts[i].z >= 0.0001) ? 1 : 0;
    double k = 0, b = 0;
    if (nValid < 3 || !plainFit(pts, valid, k, b)) return {};
    for (size_t i = 0; i < n; ++i) flat[i] = valid[i] && std::fabs(pts[i].z - (k * pts[i].y + b)) < tol;
    if (!plainFit(pts, flat, k, b)) return {};
    std::vector<size_t> cands;
    int state = 0;
    long prev = -1;
    auto r = [&](size_t i) { return pts[i].z - (k * pts[i].y + b); };
    for (size_t i = 0; i < n; ++i) {
        if (!valid[i]) {
            if (i + 1 == n && state == 2) cands.push_back(static_cast<size_t>(prev));
            continue;
        }
        if (prev >= 0) {
            const double d = r(i) - r(static_cast<size_t>(prev));
            if (state == 0 && d != 0) state = d > 0 ? 2 : 1;
            else if (state == 1 && d > 0) state = 2;
            else if (state == 2 && d < 0) {
                cands.push_back(static_cast<size_t>(prev));
                state = 1;
            }
        }
        prev = static_cast<long>(i);
    }
    Idx out;
    for (size_t c = 0; c < cands.size(); ++c) {
        bool keep = true;
        for (long j = static_cast<long>(c) - 1; j >= 0 && keep; --j) {
            const double dy = pts[cands[c]].y - pts[cands[static_cast<size_t>(j)]].y;
            if (dy * dy > range * range) break;
            if (r(cands[static_cast<size_t>(j)]) > r(cands[c])) keep = false;
        }
        for (size_t j = c + 1; j < cands.size() && keep; ++j) {
            const double dy = pts[cands[c]].y - pts[cands[j]].y;
            if (dy * dy > range * range) break;
            if (r(cands[j]) > r(cands[c])) keep = false;
        }
        if (keep && r(cands[c]) > minHeight) out.push_back(static_cast<int64_t>(cands[c]));
    }
    return out;
}

}  // namespace

TEST(FlatLinePeaks, BumpsOnTiltedBeltWithHeights) {
    // Bumps of 2.0 at index 10 and 1.0 at index 30 on a tilted belt; the first
    // fit is lifted by the bumps, the refit to the flat points is exact.
    const auto line = belt(40, {{9, 1.0}, {10, 2.0}, {11, 1.0}, {30, 1.0}});
    const Features f = flatPeaks(line, 2.0, 0.5, 0.5, 6);
    ASSERT_EQ(indicesOf(f), (Idx{10, 30}));
    EXPECT_EQ(f[0].featureType, 14);
    EXPECT_EQ(f[0].lineIdx, 6);
    EXPECT_NEAR(f[0].featureValue, 2.0, 1e-9);
    EXPECT_NEAR(f[1].featureValue, 1.0, 1e-9);
    EXPECT_EQ(f[0].featurePos.y, 5.0);
    EXPECT_EQ(f[0].featurePos.z, line[10].z);
    EXPECT_EQ(f[0].featurePos.x, 3.0);
    // The input is only read.
    EXPECT_EQ(line[10].nPointIdx, 1010);

    // The height threshold is exclusive; a wider range suppresses the lower bump.
    EXPECT_EQ(indicesOf(flatPeaks(line, 2.0, 1.5, 0.5)), Idx{10});
    EXPECT_EQ(indicesOf(flatPeaks(line, 10.0, 0.5, 0.5)), Idx{10});
    EXPECT_EQ(indicesOf(flatPeaks(line, 2.0, 2.5, 0.5)), Idx{});
}

TEST(FlatLinePeaks, DegenerateInputGivesNothing) {
    auto line = belt(2, {});
    EXPECT_TRUE(flatPeaks(line, 1, -10, 1).empty());  // two points
    // Three valid points (then a gap): the bump lifts the first fit, whose
    // residuals are -1, 2, -1; the refit through the two flat points is exact
    // and the bump stands 3.0 above it.
    line = belt(10, {{1, 3.0}});
    for (size_t i = 3; i < 10; ++i) line[i].z = 0.0;
    const Features three = flatPeaks(line, 1, 0.5, 1.5);
    ASSERT_EQ(indicesOf(three), Idx{1});
    EXPECT_NEAR(three[0].featureValue, 3.0, 1e-9);
    // A refit with fewer than two flat points gives nothing.
    EXPECT_TRUE(flatPeaks(line, 1, 0.5, 0.5).empty());
    EXPECT_TRUE(flatPeaks(line, 1, 0.5, 0.0).empty());
    EXPECT_TRUE(flatPeaks(line, 1, 0.5, -1.0).empty());
    // Two valid points: nothing, whatever the limits.
    line[2].z = 0.0;
    EXPECT_TRUE(flatPeaks(line, 1, -10, 100).empty());
    // All points at one y: no base line.
    std::vector<SKesp3DPosition> column{pt(0, 1, 1), pt(0, 1, 5), pt(0, 1, 2), pt(0, 1, 0)};
    EXPECT_TRUE(flatPeaks(column, 1, -10, 100).empty());
    // A NaN y of a valid point: nothing, and no crash.
    line = belt(10, {{4, 3.0}});
    line[2].y = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(flatPeaks(line, 1, 0.5, 0.5).empty());
    // Appends, never clears.
    line = belt(20, {{10, 3.0}});
    Features out(2);
    hx_getFlatLineLocalPeaks_vector(line, 0, 1.0, 0.5, 0.5, out);
    EXPECT_EQ(out.size(), 3u);
}

TEST(FlatLinePeaks, MatchesPlainVersionOnRandomProfiles) {
    testutil::Rng rng(17);
    for (int trial = 0; trial < 300; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 120));
        const double k = rng.uniform(-0.5, 0.5), b = rng.uniform(5, 50);
        std::vector<SKesp3DPosition> line;
        for (int i = 0; i < n; ++i) {
            const double y = 100.0 + i * 0.25;
            double z = k * y + b + rng.uniform(-0.05, 0.05);
            if (rng.integer(0, 8) == 0) z += rng.uniform(0.2, 3.0);
            if (rng.integer(0, 10) == 0) z = 0.0;
            line.push_back(pt(0, y, z, 0));
        }
        const double range = rng.uniform(0, 3), minHeight = rng.uniform(0, 1), tol = rng.uniform(0.05, 1);
        EXPECT_EQ(indicesOf(flatPeaks(line, range, minHeight, tol)), plainFlatPeaks(line, range, minHeight, tol))
            << "trial " << trial;
    }
}
