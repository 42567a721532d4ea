// Contour points: extraction by contour, pairing by key and range, and
// post-processing by mean seed distance; majority flags over whole vectors.
#include <climits>
#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

SHX_contourPtInfo cp(int line, int pt, int contour, int flag, double dist = 0.0, int type = 3) {
    SHX_contourPtInfo p;
    p.lineIdx = line;
    p.ptIdx = pt;
    p.ptType = type;
    p.contourIdx = contour;
    p.ptFlag = flag;
    p.seedDist = dist;
    p.x = line * 2.0;
    p.y = pt * 1.0;
    p.z = 100.0 + line + 0.01 * pt;
    return p;
}

// "line.pt" per output value, in order.
std::string show(const std::vector<SHX_2DValueI>& v) {
    std::string s;
    for (const SHX_2DValueI& p : v) s += std::to_string(p.x) + "." + std::to_string(p.y) + " ";
    return s;
}

SHX_conotourPair pair(int k0, int k1, double c1, double c2, int f1, int f2, int id = 0) {
    SHX_conotourPair p;
    p.pairId = id;
    p.pairKey_0 = k0;
    p.pairKey_1 = k1;
    p.pairType = 3;
    p.pairValue = 2.5;
    p.pt_1 = cp(1, 2, 3, f1);
    p.pt_2 = cp(4, 5, 6, f2);
    p.pt_1.x = p.pt_1.y = c1;
    p.pt_2.x = p.pt_2.y = c2;
    return p;
}

SHX_intPair key(int a, int b) {
    SHX_intPair k;
    k.data_0 = a;
    k.data_1 = b;
    k.idx = 9;
    return k;
}

}  // namespace

// ---------------------------------------------------------------------------
// hx_getContourPts
// ---------------------------------------------------------------------------

TEST(GetContourPts, ExtractsOneContourInLineOrderWithItsFields) {
    std::vector<SHX_lineConotours> lines(3);
    lines[0].lineIdx = 7;
    lines[0].contourPts = {cp(7, 4, 2, 1), cp(7, 9, 5, 1)};
    lines[1].lineIdx = 3;  // vector order counts, not line index
    lines[1].contourPts = {cp(3, 1, 5, 0), cp(3, 8, 2, 0, 0.0, 6)};
    lines[2].lineIdx = 5;
    lines[2].contourPts = {cp(5, 2, 2, 1)};
    std::vector<SHX_2DValueI> out;
    int flag = -1;
    hx_getContourPts(lines, 2, out, &flag);
    EXPECT_EQ(show(out), "7.4 3.8 5.2 ");
    EXPECT_EQ(flag, 1) << "2 of 3 flagged";
    EXPECT_EQ(out[1].featureType, 6);
    EXPECT_EQ(out[1].value, lines[1].contourPts[1].z);
    EXPECT_EQ(out[1].value2, 0);
}

TEST(GetContourPts, MajorityComparesWithTheWholeVector) {
    auto flagOf = [](std::vector<int> flags, size_t held) {
        std::vector<SHX_lineConotours> lines(1);
        for (size_t i = 0; i < flags.size(); ++i) lines[0].contourPts.push_back(cp(0, int(i), 4, flags[i]));
        std::vector<SHX_2DValueI> out(held);
        int flag = -1;
        hx_getContourPts(lines, 4, out, &flag);
        EXPECT_EQ(out.size(), held + flags.size());
        return flag;
    };
    EXPECT_EQ(flagOf({1, 1, 0}, 0), 1) << "4 > 3";
    EXPECT_EQ(flagOf({1, 1, 0, 0}, 0), 0) << "4 is not > 4";
    EXPECT_EQ(flagOf({2, 2, 0}, 0), 1) << "flags of 2 count";
    EXPECT_EQ(flagOf({1, -1, -1, 0}, 0), 0) << "flags of -1 do not";
    EXPECT_EQ(flagOf({1, 1, 1}, 2), 1) << "6 > 5";
    EXPECT_EQ(flagOf({1, 1, 1}, 3), 0) << "6 is not > 6: entries held on entry count";
    EXPECT_EQ(flagOf({}, 0), 0) << "no match: 0 is not > 0";
    EXPECT_EQ(flagOf({}, 5), 0);
    std::vector<SHX_lineConotours> none;
    std::vector<SHX_2DValueI> out;
    int flag = -1;
    hx_getContourPts(none, 4, out, &flag);
    EXPECT_EQ(flag, 0);
    EXPECT_TRUE(out.empty());
}

// ---------------------------------------------------------------------------
// hx_getPairingContourPts
// ---------------------------------------------------------------------------

TEST(GetPairingContourPts, KeepsListedPairsStrictlyInsideTheRange) {
    const SKespRangeD range{10.0, 20.0};
    std::vector<SHX_conotourPair> pairs = {
        pair(1, 2, 15, 16, 1, 0, 100),  // kept
        pair(2, 1, 15, 16, 1, 0, 101),  // keys swapped: no entry
        pair(1, 3, 15, 16, 1, 0, 102),  // only data_0 matches
        pair(3, 4, 10, 16, 1, 0, 103),  // first point on min
        pair(3, 4, 15, 20, 1, 0, 104),  // second point on max
        pair(3, 4, 10.000001, 19.999999, 0, 1, 105),  // kept
        pair(3, 4, 15, NAN, 1, 1, 106),               // NaN is never inside
        pair(-5, 7, 11, 12, 0, 1, 107),               // kept
    };
    const std::vector<SHX_intPair> keys = {key(9, 9), key(1, 2), key(3, 4), key(-5, 7), key(1, 2)};
    std::vector<SHX_conotourPair> valid;
    int f1 = -1, f2 = -1;
    hx_getPairingContourPts(pairs, keys, valid, range, true, &f1, &f2);
    ASSERT_EQ(valid.size(), 3u);
    EXPECT_EQ(valid[0].pairId, 100);
    EXPECT_EQ(valid[1].pairId, 105);
    EXPECT_EQ(valid[2].pairId, 107);
    EXPECT_EQ(valid[1].pairType, 3);
    EXPECT_EQ(valid[1].pairValue, 2.5);
    EXPECT_EQ(valid[1].pt_2.lineIdx, 4);
    EXPECT_EQ(f1, 0) << "1 flagged of 3: half is 1";
    EXPECT_EQ(f2, 1) << "2 flagged of 3";

    // isX false tests y: the x values alone do not decide.
    std::vector<SHX_conotourPair> byY = {pair(1, 2, 15, 16, 1, 1)};
    byY[0].pt_1.x = 0.0;
    std::vector<SHX_conotourPair> keptY, keptX;
    hx_getPairingContourPts(byY, keys, keptY, range, false, &f1, &f2);
    hx_getPairingContourPts(byY, keys, keptX, range, true, &f1, &f2);
    EXPECT_EQ(keptY.size(), 1u);
    EXPECT_EQ(keptX.size(), 0u);
    EXPECT_EQ(f1, 0);
    EXPECT_EQ(f2, 0);
}

TEST(GetPairingContourPts, EmptyKeysKeepNothingAndMajorityUsesTheWholeVector) {
    const SKespRangeD range{0.0, 100.0};
    std::vector<SHX_conotourPair> pairs = {pair(1, 1, 5, 5, 1, 1), pair(1, 1, 6, 6, 1, 0)};
    std::vector<SHX_conotourPair> valid;
    int f1 = -1, f2 = -1;
    hx_getPairingContourPts(pairs, {}, valid, range, true, &f1, &f2);
    EXPECT_TRUE(valid.empty());
    EXPECT_EQ(f1, 0);
    EXPECT_EQ(f2, 0);

    const std::vector<SHX_intPair> keys = {key(1, 1)};
    hx_getPairingContourPts(pairs, keys, valid, range, true, &f1, &f2);
    EXPECT_EQ(f1, 1) << "2 > 1";
    EXPECT_EQ(f2, 0) << "1 is not > 1";
    // Two unflagged pairs already held: size 4, half 2.
    std::vector<SHX_conotourPair> held = {pair(0, 0, 0, 0, 0, 0), pair(0, 0, 0, 0, 0, 0)};
    hx_getPairingContourPts(pairs, keys, held, range, true, &f1, &f2);
    EXPECT_EQ(held.size(), 4u);
    EXPECT_EQ(f1, 0) << "2 is not > 2";
    // An empty range keeps nothing.
    std::vector<SHX_conotourPair> none;
    hx_getPairingContourPts(pairs, keys, none, SKespRangeD{0.0, -1.0}, true, &f1, &f2);
    EXPECT_TRUE(none.empty());
}

// ---------------------------------------------------------------------------
// hx_contourPostProc
// ---------------------------------------------------------------------------

namespace {

struct PostResult {
    std::vector<SHX_2DValueI> out;
    int flag = -1;
};

PostResult post(const std::vector<SHX_contourPtInfo>& pts, int maxIdx, double tol, size_t held = 0, int tag = 0) {
    PostResult r;
    r.out.resize(held);
    hx_contourPostProc(pts, maxIdx, tol, r.out, tag, &r.flag);
    return r;
}

}  // namespace

TEST(ContourPostProc, IdentifiersOutsideTheTableBelongToNoContour) {
    // 10 points: 4 of contour 1 and 6 out of range (max 5); contour 1 still
    // needs more than 3 points of the 10.
    std::vector<SHX_contourPtInfo> pts;
    for (int i = 0; i < 4; ++i) pts.push_back(cp(i, 0, 1, 1, 2.0));
    for (int i = 0; i < 6; ++i) pts.push_back(cp(i, 1, i % 2 ? 99 : -3, 1, 0.0));
    EXPECT_EQ(show(post(pts, 5, 1.0).out), "0.0 1.0 2.0 3.0 ");
    pts.pop_back();
    pts.erase(pts.begin());  // 8 points: 3 of contour 1 > 2
    EXPECT_EQ(show(post(pts, 5, 1.0).out), "1.0 2.0 3.0 ");
    EXPECT_TRUE(post(pts, -1, 1.0).out.empty());
    // An overstated maximum changes nothing (and allocates nothing large).
    EXPECT_EQ(show(post(pts, INT_MAX, 1.0).out), "1.0 2.0 3.0 ");
    // So does an identifier near the top of the int range (no table that large).
    for (SHX_contourPtInfo& p : pts) p.contourIdx = p.contourIdx == 1 ? INT_MAX - 1 : p.contourIdx;
    EXPECT_EQ(show(post(pts, INT_MAX, 1.0).out), "1.0 2.0 3.0 ");
}

namespace {

// Post-processing written step by step: a full table, a walk over all points
// per selected contour.
PostResult plainPost(const std::vector<SHX_contourPtInfo>& pts, int maxIdx, double tol, int tag) {
    PostResult r;
    r.flag = 0;
    if (pts.empty()) return r;
    std::vector<int> count(maxIdx + 1, 0);
    std::vector<double> sum(maxIdx + 1, 0.0);
    std::vector<int> order;
    for (const auto& p : pts) {
        if (count[p.contourIdx] == 0) order.push_back(p.contourIdx);
        count[p.contourIdx] += 1;
        sum[p.contourIdx] += p.seedDist;
    }
    const int limit = (3 * static_cast<int>(pts.size())) / 10;
    std::vector<double> mean(maxIdx + 1, 0.0);
    int ref = -1;
    for (int id : order) {
        mean[id] = sum[id] / count[id];
        if (count[id] <= limit) {
            count[id] = 0;
            continue;
        }
        if (ref < 0 || mean[id] < mean[ref]) ref = id;
    }
    if (ref < 0) return r;
    int flagged = 0;
    for (int id : order) {
        if (count[id] == 0 || !(mean[id] - mean[ref] < tol)) continue;
        for (const auto& p : pts) {
            if (p.contourIdx != id) continue;
            SHX_2DValueI v;
            v.x = p.lineIdx;
            v.y = p.ptIdx;
            v.featureType = p.ptType;
            v.value = p.z;
            v.value2 = tag;
            r.out.push_back(v);
            if (p.ptFlag >= 1) ++flagged;
        }
    }
    r.flag = 2 * flagged > static_cast<int>(r.out.size()) ? 1 : 0;
    return r;
}

}  // namespace

TEST(ContourPostProc, MatchesAPlainVersionOnRandomPoints) {
    testutil::Rng rng(64);
    int selectedSome = 0;
    for (int trial = 0; trial < 2000; ++trial) {
        const int maxIdx = static_cast<int>(rng.integer(0, 8));
        const int n = static_cast<int>(rng.integer(0, 40));
        std::vector<SHX_contourPtInfo> pts;
        for (int i = 0; i < n; ++i) {
            // Few contours, skewed sizes, distances on a coarse grid so that
            // ties and exact tolerance boundaries occur.
            int id = static_cast<int>(rng.integer(0, maxIdx));
            if (rng.integer(0, 2) == 0) id = std::min(id, 1);
            pts.push_back(cp(i, static_cast<int>(rng.integer(0, 99)), id, static_cast<int>(rng.integer(-1, 2)),
                             0.25 * static_cast<double>(rng.integer(0, 40)), static_cast<int>(rng.integer(0, 8))));
        }
        const double tol = 0.25 * static_cast<double>(rng.integer(0, 12));
        const int tag = static_cast<int>(rng.integer(-5, 5));
        PostResult got = post(pts, maxIdx, tol, 0, tag);
        PostResult want = plainPost(pts, maxIdx, tol, tag);
        SCOPED_TRACE("trial " + std::to_string(trial));
        ASSERT_EQ(show(got.out), show(want.out));
        ASSERT_EQ(got.flag, want.flag);
        for (size_t i = 0; i < got.out.size(); ++i) {
            ASSERT_EQ(got.out[i].featureType, want.out[i].featureType);
            ASSERT_EQ(got.out[i].value, want.out[i].value);
            ASSERT_EQ(got.out[i].value2, want.out[i].value2);
        }
        selectedSome += !got.out.empty();
    }
    EXPECT_GT(selectedSome, 1000);
}
