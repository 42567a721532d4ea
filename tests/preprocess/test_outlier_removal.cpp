// Removal of short isolated runs from a profile.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::profileFromZ;
using testutil::pt;
using Line = std::vector<SKesp3DPosition>;
using Indices = std::vector<int32_t>;

namespace {

struct Run {
    int first, count, lastValid;
};

// Run building and removal written out plainly: the whole run list first,
// then the removal, into a copy.
void referenceRemoval(const Line& in, SHX_outlierFilterParam param, bool spatial, Line& out, Indices& removed) {
    std::vector<Run> runs;
    bool started = false;
    Run cur{0, 0, 0};
    SKesp3DPosition last;
    for (int i = 0; i < static_cast<int>(in.size()); ++i) {
        const auto& p = in[i];
        if (!(p.z > 0.0001)) continue;
        if (!started) {
            cur = Run{i, 1, i};
            started = true;
        } else {
            const double d = spatial ? std::sqrt((p.x - last.x) * (p.x - last.x) + (p.y - last.y) * (p.y - last.y) +
                                                 (p.z - last.z) * (p.z - last.z))
                                     : std::fabs(p.z - last.z);
            if (param.continuityTh > d) {
                ++cur.count;
                cur.lastValid = i;
            } else {
                runs.push_back(cur);
                cur = Run{i, 1, i};
            }
        }
        last = p;
    }
    if (started) runs.push_back(cur);
    out = in;
    for (const auto& r : runs) {
        if (!(param.outlierTh > static_cast<double>(r.count))) continue;
        for (int k = r.first; k <= r.lastValid; ++k) {
            out[k].z = 0.0;
            removed.push_back(k);
        }
    }
}

std::vector<double> heights(const Line& v) {
    std::vector<double> z;
    for (const auto& p : v) z.push_back(p.z);
    return z;
}

bool sameBits(const Line& a, const Line& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0);
}

SHX_outlierFilterParam params(double continuityTh, double outlierTh) {
    SHX_outlierFilterParam p;
    p.continuityTh = continuityTh;
    p.outlierTh = outlierTh;
    return p;
}

// Runs the three variants; the in-place one on a copy.
struct Results {
    Line heightCopy, inPlace, spatialCopy;
    Indices heightIdx, spatialIdx;
};
Results runAll(const Line& in, SHX_outlierFilterParam p) {
    Results r;
    hx_lineDataRemoveOutlier(in.data(), static_cast<int32_t>(in.size()), p, r.heightCopy, r.heightIdx);
    r.inPlace = in;
    hx_lineDataRemoveOutlier_changeOriginData(r.inPlace.data(), static_cast<int32_t>(in.size()), p);
    hx_lineDataRemoveOutlier_ptDistMethod(in.data(), static_cast<int32_t>(in.size()), p, r.spatialCopy, r.spatialIdx);
    return r;
}

}  // namespace

TEST(RemoveOutlier, HandWorkedRuns) {
    const Line steps = profileFromZ({5, 5.5, 5, 0, 5.2, 20, 5, 5, 5, 5});
    const Line spread{pt(0, 0, 5, 10), pt(0, 2, 5, 11), pt(0, 20, 5, 12), pt(3, 20, 9, 13)};
    const Indices any{-1};
    const struct {
        const char* what;
        Line in;
        double continuityTh, outlierTh;
        Indices byHeight, bySpace;  // removed indices; `any`: not checked
    } cases[] = {
        {"runs {0..4, the gap at 3 inside} of 4, {5} of 1 (|20 - 5| >= 1), {6..9} of 4", steps, 1.0, 2.0, {5}, any},
        {"the count is compared as a double: a run of 4 does not survive 4.5", steps, 1.0, 4.5,
         {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, any},
        {"but survives 4", steps, 1.0, 4.0, {5}, any},
        {"a removed run reports the gap it spans, not the leading and trailing gaps",
         profileFromZ({0, 10, 0, 0.0001, 10, 50, 50, 50, 0}), 1.0, 3.0, {1, 2, 3, 4}, any},
        {"a step equal to continuityTh splits: 1 | 2 | 3, 3.5", profileFromZ({1, 2, 3, 3.5}), 1.0, 2.0, {0, 1}, any},
        {"continuityTh 0: every valid point is its own run (0.0001 is no point)", profileFromZ({7, 7, 0.0001, 7}), 0.0,
         1.5, {0, 1, 3}, {0, 1, 3}},
        {"runs of one survive outlierTh 1", profileFromZ({7, 7, 0.0001, 7}), 0.0, 1.0, {}, {}},
        {"nearly equal heights 18 apart in y: only the distance variant cuts; the last step is 3-4-5, exactly 5",
         spread, 5.0, 1.5, {}, {2, 3}},
        {"a limit just above 5 keeps the last step", spread, std::nextafter(5.0, 6.0), 1.5, {}, {}},
    };
    for (const auto& c : cases) {
        const Results r = runAll(c.in, params(c.continuityTh, c.outlierTh));
        EXPECT_EQ(r.heightIdx, c.byHeight) << c.what;
        if (c.bySpace != any) EXPECT_EQ(r.spatialIdx, c.bySpace) << c.what;
        // Copies and the in-place form keep everything but the removed heights.
        Line want = c.in;
        for (int32_t k : c.byHeight) want[static_cast<size_t>(k)].z = 0.0;
        EXPECT_TRUE(sameBits(r.heightCopy, want)) << c.what;
        EXPECT_TRUE(sameBits(r.inPlace, want)) << c.what;
    }
    // The output vector is replaced, the index vector appended to.
    Line out(3, pt(1, 1, 1, 1));
    Indices removed{99};
    hx_lineDataRemoveOutlier(steps.data(), static_cast<int32_t>(steps.size()), params(1.0, 2.0), out, removed);
    EXPECT_EQ(out.size(), steps.size());
    EXPECT_EQ(removed, (Indices{99, 5}));
}

TEST(RemoveOutlier, EmptyAndNegativeCounts) {
    Line out(4, pt(1, 1, 1));
    Indices removed{3};
    hx_lineDataRemoveOutlier(nullptr, 0, params(1, 2), out, removed);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(removed, (Indices{3}));
    out.assign(2, pt(1, 1, 1));
    hx_lineDataRemoveOutlier_ptDistMethod(nullptr, 0, params(1, 2), out, removed);
    EXPECT_TRUE(out.empty());

    Line line = profileFromZ({5, 9});
    EXPECT_THROW(hx_lineDataRemoveOutlier(line.data(), -1, params(1, 2), out, removed), std::length_error);
    EXPECT_THROW(hx_lineDataRemoveOutlier_ptDistMethod(line.data(), std::numeric_limits<int32_t>::min(), params(1, 2),
                                                       out, removed),
                 std::length_error);
    hx_lineDataRemoveOutlier_changeOriginData(line.data(), -3, params(1, 5));
    EXPECT_EQ(heights(line), (std::vector<double>{5, 9}));
}

TEST(RemoveOutlier, MatchesPlainRunBuilding) {
    testutil::Rng rng(21);
    for (int trial = 0; trial < 2000; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 300));
        Line in;
        double z = 50.0;
        for (int i = 0; i < n; ++i) {
            const auto r = rng.integer(0, 9);
            // Steps on a quarter grid hit the continuity limit exactly now and then.
            z += 0.25 * static_cast<double>(rng.integer(-3, 3)) + (r == 0 ? 5.0 : 0.0) - (r == 1 ? 5.0 : 0.0);
            const double zi = r == 2 ? 0.0 : (r == 3 ? 0.0001 : (r == 4 ? -z : z));
            in.push_back(pt(rng.uniform(0, 0.5), i * 0.25, zi, rng.integer(-5, 1000)));
        }
        const auto p = params(0.25 * static_cast<double>(rng.integer(0, 6)), rng.uniform(0, 8));
        const Results r = runAll(in, p);
        Line wantH, wantS;
        Indices idxH{-7}, idxS{-7};
        referenceRemoval(in, p, false, wantH, idxH);
        referenceRemoval(in, p, true, wantS, idxS);
        ASSERT_TRUE(sameBits(r.heightCopy, wantH)) << "trial " << trial;
        ASSERT_TRUE(sameBits(r.inPlace, wantH)) << "trial " << trial;
        ASSERT_TRUE(sameBits(r.spatialCopy, wantS)) << "trial " << trial;
        idxH.erase(idxH.begin());
        idxS.erase(idxS.begin());
        ASSERT_EQ(r.heightIdx, idxH) << "trial " << trial;
        ASSERT_EQ(r.spatialIdx, idxS) << "trial " << trial;
    }
}
