// Tracking of semicircles across scan lines.
#include <cmath>
#include <cstdlib>
#include <tuple>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Trees = std::vector<SHX_semiCircleFeatureTree>;
using Feats = std::vector<SHX_featureSemiCircle>;

SHX_featureSemiCircle sc(int line, double x, double y, int type = 0, double width = 4.0) {
    SHX_featureSemiCircle f;
    f.featureType = type;
    f.lineIdx = line;
    f.x = x;
    f.y = y;
    f.z = 50.0;
    f.width = width;
    return f;
}

SHX_treeGrowParam params(double yDev, int maxSkip, double xDev, double minLen) {
    SHX_treeGrowParam p;
    p.yDeviation_max = yDev;
    p.zDeviation_max = 0.001;  // never read: a z test would reject every join below
    p.maxLineSkipNum = maxSkip;
    p.xDeviation_max = xDev;
    p.minLTypeTreeLen = 1e9;   // never read either
    p.minVTypeTreeLen = minLen;
    return p;
}

struct Tracker {
    Trees trees, valid, shorts;
    SHX_treeGrowParam p;
    int lineNum;
    Tracker(SHX_treeGrowParam param, int lines) : p(param), lineNum(lines) {}
    void line(int idx, Feats& f) { hx_getFeatureGrowingTrees_semiCircle(f, idx, lineNum, trees, valid, shorts, p); }
    void line(int idx, Feats&& f) { line(idx, f); }
};

// The tracking rules written out plainly, erasing closed trees one by one.
void referenceTrack(Feats& feats, int lineIdx, int lineNum, Trees& trees, Trees& valid, Trees& shorts,
                    const SHX_treeGrowParam& p) {
    auto fits = [&p](const SHX_featureSemiCircle& g, const SHX_featureSemiCircle& last) {
        return p.yDeviation_max > std::fabs(g.y - last.y) &&
               (std::abs(g.lineIdx - last.lineIdx) < p.maxLineSkipNum || p.xDeviation_max > std::fabs(g.x - last.x));
    };
    auto seed = [&trees](const SHX_featureSemiCircle& f) {
        SHX_semiCircleFeatureTree t;
        t.treeState = 1;
        t.sLineIdx = t.eLineIdx = f.lineIdx;
        t.treeNodes.push_back(f);
        trees.push_back(t);
    };
    for (size_t i = 0; i < feats.size(); ++i) {
        const SHX_featureSemiCircle f = feats[i];
        if (f.featureType == 5) continue;
        if (f.featureType == 1 || f.featureType == 3) {
            seed(f);
            continue;
        }
        int found = -1;
        for (size_t k = 0; k < trees.size() && found < 0; ++k) {
            const SHX_featureSemiCircle& last = trees[k].treeNodes.back();
            if (trees[k].treeState != 2 && last.lineIdx != f.lineIdx && last.featureType != 2 &&
                last.featureType != 4 && fits(f, last))
                found = static_cast<int>(k);
        }
        if (found < 0) {
            seed(f);
            continue;
        }
        const SHX_featureSemiCircle last = trees[found].treeNodes.back();
        std::vector<size_t> crowd;
        for (size_t j = i + 1; j < feats.size() && fits(feats[j], last); ++j) crowd.push_back(j);
        size_t winner = i;
        for (size_t j : crowd)
            if (std::fabs(feats[j].y - last.y) < std::fabs(feats[winner].y - last.y)) winner = j;
        trees[found].eLineIdx = feats[winner].lineIdx;
        trees[found].treeNodes.push_back(feats[winner]);
        if (!crowd.empty()) {
            feats[i].featureType = 5;
            for (size_t j : crowd) feats[j].featureType = 5;
        }
    }
    for (int k = static_cast<int>(trees.size()) - 1; k >= 0; --k) {
        SHX_semiCircleFeatureTree& t = trees[k];
        const int gap = std::abs(lineIdx - t.treeNodes.back().lineIdx);
        if (t.treeState != 1 || !((p.maxLineSkipNum > 0 && gap > p.maxLineSkipNum) || lineIdx == lineNum - 1))
            continue;
        t.treeState = 2;
        const double dx = t.treeNodes.back().x - t.treeNodes.front().x;
        const double dy = t.treeNodes.back().y - t.treeNodes.front().y;
        (std::sqrt(dx * dx + dy * dy) > p.minVTypeTreeLen ? valid : shorts).push_back(t);
        trees.erase(trees.begin() + k);
    }
}

auto fieldsOf(const SHX_semiCircleFeatureTree& t) {
    return std::make_tuple(t.treeState, t.treeType, t.sLineIdx, t.eLineIdx, t.centerX, t.centerY, t.centerZ,
                           t.meanWidth, t.meanTopZ, t.treeLength, t.nUserData0, t.nUserData1, t.nUserData2,
                           t.treeNodes.size());
}

void expectSameTrees(const Trees& a, const Trees& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t k = 0; k < a.size(); ++k) {
        ASSERT_EQ(fieldsOf(a[k]), fieldsOf(b[k])) << "tree " << k;
        for (size_t n = 0; n < a[k].treeNodes.size(); ++n) {
            const SHX_featureSemiCircle &f = a[k].treeNodes[n], &g = b[k].treeNodes[n];
            EXPECT_TRUE(f.featureType == g.featureType && f.lineIdx == g.lineIdx && f.x == g.x && f.y == g.y)
                << "tree " << k << " node " << n;
        }
    }
}

}  // namespace

TEST(SemiCircleTrees, AcceptanceLimitsAreStrictAndIgnoreZAndType) {
    // Last node at line 0, x 0, y 10; yDev 2, maxSkip 3, xDev 1.
    SHX_featureSemiCircle high = sc(1, 0, 10, 7);
    high.z = 1e6;
    const struct {
        SHX_featureSemiCircle f;
        bool joins;
        const char* what;
    } cases[] = {
        {sc(1, 0, 11.9), true, "|dy| below the limit"},
        {sc(1, 0, 12.0), false, "|dy| equal to the limit"},
        {sc(1, 0, 8.0), false, "|dy| equal to the limit, below"},
        {sc(2, 50, 10), true, "gap 2 < 3: x not tested"},
        {sc(3, 50, 10), false, "gap 3: x must be close"},
        {sc(3, 0.9, 10), true, "gap 3, |dx| below the limit"},
        {sc(3, 1.0, 10), false, "gap 3, |dx| equal to the limit"},
        {sc(0, 0, 10), false, "same line as the last node"},
        {high, true, "no z test, and an unknown type still joins"},
        {sc(1, 0, 10, 2), true, "a type-2 feature joins"},
        {sc(1, 0, 10, 1), false, "type 1 only seeds"},
        {sc(1, 0, 10, 3), false, "type 3 only seeds"},
    };
    for (const auto& c : cases) {
        Tracker t(params(2, 3, 1, 0), 100);
        t.line(0, Feats{sc(0, 0, 10)});
        t.line(c.f.lineIdx, Feats{c.f});
        EXPECT_EQ(t.trees.size() + t.shorts.size() == 1, c.joins) << c.what;
    }
    // A tree ending in a type-2 node takes nothing more, and closes once more
    // than maxLineSkipNum lines passed since its last node.
    Tracker t(params(2, 3, 1, 0), 100);
    t.line(0, Feats{sc(0, 0, 10)});
    t.line(1, Feats{sc(1, 0, 10, 2)});
    t.line(2, Feats{sc(2, 0, 10)});
    ASSERT_EQ(t.trees.size(), 2u);
    EXPECT_EQ(t.trees[0].eLineIdx, 1);
    t.line(4, Feats{});
    EXPECT_EQ(t.trees.size(), 2u);
    t.line(5, Feats{});
    EXPECT_EQ(t.trees.size(), 1u);
    ASSERT_EQ(t.shorts.size(), 1u);  // both nodes at x 0, y 10: length 0
    EXPECT_EQ(t.shorts[0].treeNodes.back().featureType, 2);
}

TEST(SemiCircleTrees, LengthLimitIsStrictAndCallersClosedTreesStay) {
    // Length exactly the limit is short; a single node is short for any limit >= 0;
    // on the last line all close, visited from the last tree to the first.
    Tracker u(params(5, 2, 5, 2.0), 3);
    u.line(0, Feats{sc(0, 0, 10), sc(0, 0, 20), sc(0, 0, 40)});
    u.line(1, Feats{sc(1, 0, 12), sc(1, 0, 22.5)});
    u.line(2, Feats{});
    EXPECT_TRUE(u.trees.empty());
    ASSERT_EQ(u.shorts.size(), 2u);
    EXPECT_EQ(u.shorts[0].treeNodes[0].y, 40);
    EXPECT_EQ(u.shorts[1].treeNodes[0].y, 10);
    ASSERT_EQ(u.valid.size(), 1u);
    EXPECT_EQ(u.valid[0].treeNodes[0].y, 20);
    // A closed tree the caller passes in is neither matched nor closed again.
    Tracker t(params(5, 1, 5, 0), 3);
    SHX_semiCircleFeatureTree done;
    done.treeState = 2;
    done.treeNodes.push_back(sc(0, 0, 10));
    t.trees.push_back(done);
    t.line(1, Feats{sc(1, 0, 10)});
    ASSERT_EQ(t.trees.size(), 2u);
    EXPECT_EQ(t.trees[0].treeNodes.size(), 1u);
    t.line(2, Feats{});
    EXPECT_EQ(t.trees.size(), 1u);
    EXPECT_EQ(t.trees[0].treeState, 2);
    EXPECT_EQ(t.shorts.size(), 1u);
}

TEST(SemiCircleTrees, MatchesPlainVersionOnRandomScans) {
    testutil::Rng rng(8);
    for (int trial = 0; trial < 300; ++trial) {
        const int lines = static_cast<int>(rng.integer(1, 60));
        const SHX_treeGrowParam p = params(rng.uniform(0.2, 3.0), static_cast<int>(rng.integer(-1, 4)),
                                           rng.uniform(0.2, 3.0), rng.uniform(-1.0, 6.0));
        Trees trees, valid, shorts, rTrees, rValid, rShorts;
        for (int l = 0; l < lines; ++l) {
            Feats f;
            const int n = static_cast<int>(rng.integer(0, 6));
            for (int k = 0; k < n; ++k) {
                const int64_t type = rng.integer(0, 12);
                // Half-unit grid coordinates make equal distances (ties) common.
                f.push_back(sc(l, 0.5 * static_cast<double>(rng.integer(0, 8)),
                               0.5 * static_cast<double>(rng.integer(0, 20)), type <= 5 ? static_cast<int>(type) : 0));
            }
            Feats rf = f;
            hx_getFeatureGrowingTrees_semiCircle(f, l, lines, trees, valid, shorts, p);
            referenceTrack(rf, l, lines, rTrees, rValid, rShorts, p);
            ASSERT_EQ(f.size(), rf.size());
            for (size_t k = 0; k < f.size(); ++k) EXPECT_EQ(f[k].featureType, rf[k].featureType);
            expectSameTrees(trees, rTrees);
        }
        expectSameTrees(valid, rValid);
        expectSameTrees(shorts, rShorts);
        EXPECT_TRUE(trees.empty());
        if (HasFailure()) FAIL() << "trial " << trial;
    }
}
