// Tracking of semicircles across scan lines.
#include <cmath>
#include <cstdlib>

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

std::vector<double> nodeYs(const SHX_semiCircleFeatureTree& t) {
    std::vector<double> ys;
    for (const auto& n : t.treeNodes) ys.push_back(n.y);
    return ys;
}

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

void expectSameFeature(const SHX_featureSemiCircle& a, const SHX_featureSemiCircle& b) {
    EXPECT_EQ(a.featureType, b.featureType);
    EXPECT_EQ(a.lineIdx, b.lineIdx);
    EXPECT_EQ(a.x, b.x);
    EXPECT_EQ(a.y, b.y);
}

void expectSameTrees(const Trees& a, const Trees& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t k = 0; k < a.size(); ++k) {
        EXPECT_EQ(a[k].treeState, b[k].treeState);
        EXPECT_EQ(a[k].treeType, b[k].treeType);
        EXPECT_EQ(a[k].sLineIdx, b[k].sLineIdx);
        EXPECT_EQ(a[k].eLineIdx, b[k].eLineIdx);
        ASSERT_EQ(a[k].treeNodes.size(), b[k].treeNodes.size()) << "tree " << k;
        for (size_t n = 0; n < a[k].treeNodes.size(); ++n) expectSameFeature(a[k].treeNodes[n], b[k].treeNodes[n]);
    }
}

}  // namespace

TEST(SemiCircleTrees, SeedTypesOnlySeedAndSeededTreesAreClean) {
    Tracker t(params(5, 3, 5, 1.0), 100);
    t.line(0, Feats{sc(0, 0, 10)});
    Feats f{sc(1, 0, 10, 1), sc(1, 0, 10.5, 3)};
    t.line(1, f);
    ASSERT_EQ(t.trees.size(), 3u);  // both seeded although the first tree would accept them
    EXPECT_EQ(t.trees[0].treeNodes.size(), 1u);
    const SHX_semiCircleFeatureTree& s = t.trees[2];
    EXPECT_EQ(s.treeState, 1);
    EXPECT_EQ(s.treeType, 0);
    EXPECT_EQ(s.sLineIdx, 1);
    EXPECT_EQ(s.eLineIdx, 1);
    EXPECT_EQ(s.centerX + s.centerY + s.centerZ + s.meanWidth + s.meanTopZ + s.treeLength, 0.0);
    EXPECT_EQ(s.nUserData0 | s.nUserData1 | s.nUserData2, 0);
    EXPECT_EQ(s.treeNodes[0].featureType, 3);
    EXPECT_EQ(f[0].featureType, 1);  // seeding marks nothing
}

TEST(SemiCircleTrees, AcceptanceLimitsAreStrictAndIgnoreZAndType) {
    // Last node at line 0, x 0, y 10; yDev 2, maxSkip 3, xDev 1.
    auto grow = [](const SHX_featureSemiCircle& g) {
        Tracker t(params(2, 3, 1, 0), 100);
        t.line(0, Feats{sc(0, 0, 10)});
        Feats f{g};
        t.line(g.lineIdx, f);
        return t.trees.size() == 1;
    };
    EXPECT_TRUE(grow(sc(1, 0, 11.9)));
    EXPECT_FALSE(grow(sc(1, 0, 12.0)));  // |dy| equal to the limit
    EXPECT_FALSE(grow(sc(1, 0, 8.0)));
    EXPECT_TRUE(grow(sc(2, 50, 10)));    // gap 2 < 3: x not tested
    EXPECT_FALSE(grow(sc(3, 50, 10)));   // gap 3: x must be close
    EXPECT_TRUE(grow(sc(3, 0.9, 10)));
    EXPECT_FALSE(grow(sc(3, 1.0, 10)));  // |dx| equal to the limit
    EXPECT_FALSE(grow(sc(0, 0, 10)));    // same line as the last node
    SHX_featureSemiCircle high = sc(1, 0, 10, 7);
    high.z = 1e6;                        // no z test, and an unknown type still joins
    EXPECT_TRUE(grow(high));
    EXPECT_TRUE(grow(sc(1, 0, 10, 2)));  // a type-2 feature joins ...
    {
        Tracker t(params(2, 3, 1, 0), 100);
        t.line(0, Feats{sc(0, 0, 10)});
        t.line(1, Feats{sc(1, 0, 10, 2)});
        t.line(2, Feats{sc(2, 0, 10)});  // ... and then the tree takes nothing more
        ASSERT_EQ(t.trees.size(), 2u);
        EXPECT_EQ(t.trees[0].treeNodes.size(), 2u);
        EXPECT_EQ(t.trees[0].eLineIdx, 1);
        // It closes once more than maxLineSkipNum lines passed since its last node.
        t.line(4, Feats{});
        EXPECT_EQ(t.trees.size(), 2u);
        t.line(5, Feats{});
        EXPECT_EQ(t.trees.size(), 1u);
        ASSERT_EQ(t.shorts.size(), 1u);  // both nodes at x 0, y 10: length 0
        EXPECT_EQ(t.shorts[0].treeNodes.back().featureType, 2);
    }
}

TEST(SemiCircleTrees, FirstAcceptingTreeWinsNotTheNearest) {
    Tracker t(params(5, 3, 5, 0), 100);
    t.line(0, Feats{sc(0, 0, 10), sc(0, 0, 13)});
    t.line(1, Feats{sc(1, 0, 12.5)});
    ASSERT_EQ(t.trees.size(), 2u);
    EXPECT_EQ(nodeYs(t.trees[0]), (std::vector<double>{10, 12.5}));
    EXPECT_EQ(nodeYs(t.trees[1]), (std::vector<double>{13}));
}

TEST(SemiCircleTrees, CrowdingNearestInYWinsAndAllCandidatesAreUsedUp) {
    Tracker t(params(2, 3, 1, 0), 100);
    t.line(0, Feats{sc(0, 0, 10)});
    // 9.0 is accepted first; 10.5 and 9.8 crowd; 30 ends the crowd; 10.1 would fit but comes too late.
    Feats f{sc(1, 0, 9.0), sc(1, 0, 10.5), sc(1, 0, 9.8), sc(1, 0, 30), sc(1, 0, 10.1)};
    t.line(1, f);
    ASSERT_EQ(t.trees.size(), 3u);
    EXPECT_EQ(nodeYs(t.trees[0]), (std::vector<double>{10, 9.8}));
    EXPECT_EQ(t.trees[0].treeNodes[1].featureType, 0);  // the node is taken before the mark
    EXPECT_EQ(f[0].featureType, 5);
    EXPECT_EQ(f[1].featureType, 5);
    EXPECT_EQ(f[2].featureType, 5);
    EXPECT_EQ(f[3].featureType, 0);
    EXPECT_EQ(f[4].featureType, 0);
    // 30 and 10.1 seed: the grown tree's last node is now on this line.
    EXPECT_EQ(nodeYs(t.trees[1]), (std::vector<double>{30}));
    EXPECT_EQ(nodeYs(t.trees[2]), (std::vector<double>{10.1}));
}

TEST(SemiCircleTrees, CrowdingTiesAndUsedUpNeighbours) {
    {
        // Equal distances: the earlier feature stays the winner.
        Tracker t(params(2, 3, 1, 0), 100);
        t.line(0, Feats{sc(0, 0, 10)});
        Feats f{sc(1, 0, 10.5), sc(1, 0, 9.5)};
        t.line(1, f);
        EXPECT_EQ(nodeYs(t.trees[0]), (std::vector<double>{10, 10.5}));
        EXPECT_EQ(t.trees.size(), 1u);
    }
    {
        // A following feature already used up is collected again and may win.
        Tracker t(params(2, 3, 1, 0), 100);
        t.line(0, Feats{sc(0, 0, 10)});
        Feats f{sc(1, 0, 11), sc(1, 0, 10.2, 5)};
        t.line(1, f);
        EXPECT_EQ(nodeYs(t.trees[0]), (std::vector<double>{10, 10.2}));
        EXPECT_EQ(t.trees[0].treeNodes[1].featureType, 5);
        EXPECT_EQ(f[0].featureType, 5);
    }
    {
        // Without a crowd the joining feature keeps its type.
        Tracker t(params(2, 3, 1, 0), 100);
        t.line(0, Feats{sc(0, 0, 10)});
        Feats f{sc(1, 0, 11), sc(1, 0, 20)};
        t.line(1, f);
        EXPECT_EQ(f[0].featureType, 0);
        EXPECT_EQ(t.trees.size(), 2u);
    }
}

TEST(SemiCircleTrees, ClosingByLineGapOrderAndLength) {
    // maxLineSkipNum 2: a tree whose last node is on line 0 closes at line 3, not 2.
    Tracker t(params(1, 2, 1, 2.0), 100);
    t.line(0, Feats{sc(0, 0, 10), sc(0, 0, 20), sc(0, 0, 30)});
    t.line(1, Feats{sc(1, 3, 20)});  // tree 1 grows: length 3 > 2
    t.line(2, Feats{sc(2, 0, 30)});  // tree 2 grows: gap 2 is not below 2, but x is close
    EXPECT_EQ(t.trees.size(), 3u);
    EXPECT_TRUE(t.shorts.empty());
    t.line(3, Feats{});
    ASSERT_EQ(t.trees.size(), 2u);
    ASSERT_EQ(t.shorts.size(), 1u);
    EXPECT_EQ(t.shorts[0].treeNodes[0].y, 10);
    EXPECT_EQ(t.shorts[0].treeState, 2);
    t.line(4, Feats{});
    ASSERT_EQ(t.trees.size(), 1u);
    EXPECT_EQ(t.trees[0].treeNodes[0].y, 30);
    ASSERT_EQ(t.valid.size(), 1u);
    EXPECT_EQ(t.valid[0].treeNodes[0].y, 20);
    EXPECT_EQ(t.valid[0].treeState, 2);

    // Length exactly the limit is short; a single node is short for any limit >= 0.
    Tracker u(params(5, 2, 5, 2.0), 3);
    u.line(0, Feats{sc(0, 0, 10), sc(0, 0, 20), sc(0, 0, 40)});
    u.line(1, Feats{sc(1, 0, 12), sc(1, 0, 22.5)});
    u.line(2, Feats{});  // last line: all close, visited from the last tree to the first
    EXPECT_TRUE(u.trees.empty());
    ASSERT_EQ(u.shorts.size(), 2u);
    EXPECT_EQ(u.shorts[0].treeNodes[0].y, 40);
    EXPECT_EQ(u.shorts[1].treeNodes[0].y, 10);
    ASSERT_EQ(u.valid.size(), 1u);
    EXPECT_EQ(u.valid[0].treeNodes[0].y, 20);

    // A negative limit keeps even single-node trees.
    Tracker w(params(5, 2, 5, -1.0), 1);
    w.line(0, Feats{sc(0, 0, 10)});
    EXPECT_EQ(w.valid.size(), 1u);
}

TEST(SemiCircleTrees, WithoutSkipLimitTreesCloseOnlyOnTheLastLine) {
    for (int maxSkip : {0, -2}) {
        Tracker t(params(1, maxSkip, 1, 0.5), 50);
        t.line(0, Feats{sc(0, 0, 10)});
        for (int l = 1; l < 49; ++l) t.line(l, Feats{});
        EXPECT_EQ(t.trees.size(), 1u);
        // The gap test now always needs x: a far-away feature in x seeds.
        t.line(49, Feats{sc(49, 0.5, 10.2), sc(49, 9, 10.2)});
        EXPECT_TRUE(t.trees.empty());
        ASSERT_EQ(t.valid.size(), 1u);
        EXPECT_EQ(t.valid[0].treeNodes.size(), 2u);
        EXPECT_EQ(t.shorts.size(), 1u);
    }
}

TEST(SemiCircleTrees, TreesNotGrowingAreNeitherMatchedNorClosed) {
    Tracker t(params(5, 1, 5, 0), 3);
    SHX_semiCircleFeatureTree done;
    done.treeState = 2;
    done.treeNodes.push_back(sc(0, 0, 10));
    t.trees.push_back(done);
    t.line(1, Feats{sc(1, 0, 10)});
    ASSERT_EQ(t.trees.size(), 2u);
    EXPECT_EQ(t.trees[0].treeNodes.size(), 1u);
    t.line(2, Feats{});
    EXPECT_EQ(t.trees.size(), 1u);  // the caller's closed tree stays where it is
    EXPECT_EQ(t.trees[0].treeState, 2);
    EXPECT_EQ(t.shorts.size(), 1u);
}

TEST(SemiCircleTrees, BarTrackedAcrossTheScanClosesAsLongTree) {
    // A bar lies at an angle across 40 lines; an unrelated blob appears on a few
    // lines; the bar is missing on lines 20 and 21 (gap 3 < maxLineSkipNum 4).
    const int lines = 40;
    Tracker t(params(1.0, 4, 0.5, 10.0), lines);
    for (int l = 0; l < lines; ++l) {
        Feats f;
        if (l != 20 && l != 21) f.push_back(sc(l, l * 0.5, 30.0 + 0.2 * l));
        if (l >= 5 && l < 8) f.push_back(sc(l, l * 0.5, 80.0));
        t.line(l, f);
        for (const auto& g : f) EXPECT_EQ(g.featureType, 0);
    }
    EXPECT_TRUE(t.trees.empty());
    ASSERT_EQ(t.valid.size(), 1u);
    const SHX_semiCircleFeatureTree& bar = t.valid[0];
    EXPECT_EQ(bar.sLineIdx, 0);
    EXPECT_EQ(bar.eLineIdx, lines - 1);
    EXPECT_EQ(bar.treeNodes.size(), static_cast<size_t>(lines - 2));
    EXPECT_EQ(bar.treeState, 2);
    ASSERT_EQ(t.shorts.size(), 1u);  // the blob: length 1 < 10, closed on line 12
    EXPECT_EQ(t.shorts[0].eLineIdx, 7);
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
