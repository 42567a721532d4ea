// Feature-tree growing: matching, seeding, closing, keep test, region step.
#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Features = std::vector<SHX_basicFeature1D>;
using Trees = std::vector<SHX_featureTree>;

SHX_basicFeature1D feat(int type, int line, double x, double y, double z, double value = 0.0, int64_t idx = 0) {
    return SHX_basicFeature1D{type, line, testutil::pt(x, y, z, idx), value};
}

SHX_treeGrowParam params(double yDev, double zDev, int skip, double xDev, double minL, double minV) {
    SHX_treeGrowParam p;
    p.yDeviation_max = yDev;
    p.zDeviation_max = zDev;
    p.maxLineSkipNum = skip;
    p.xDeviation_max = xDev;
    p.minLTypeTreeLen = minL;
    p.minVTypeTreeLen = minV;
    return p;
}

// Lenient limits: everything near matches, nothing is dropped for length.
const SHX_treeGrowParam kLoose = params(1.0, 1.0, 3, 1.0, -1.0, -1.0);

std::vector<SHX_lineFeature> scanOf(const std::vector<Features>& perLine) {
    std::vector<SHX_lineFeature> v(perLine.size());
    for (size_t i = 0; i < perLine.size(); ++i) {
        v[i].lineIdx = static_cast<int>(i);
        v[i].features = perLine[i];
    }
    return v;
}

std::vector<size_t> nodeCounts(const Trees& trees) {
    std::vector<size_t> v;
    for (const auto& t : trees) v.push_back(t.treeNodes.size());
    return v;
}

using Counts = std::vector<size_t>;

// ---------------------------------------------------------------------------
// Plain version of the growing, written from its description: a linear scan
// over every tree for every feature, and erasure at once, from the back.
// ---------------------------------------------------------------------------

bool plainAccepts(int treeType, int featureType) {
    static const std::vector<std::set<int>> table = {
        {},       {1, 3}, {2, 4}, {1, 3}, {2, 4}, {3, 4, 5}, {6},  {7},
        {},       {9},    {10},   {11},   {12},   {13},      {14}, {15},
    };
    if (treeType < 0 || treeType > 15) return false;
    return table[static_cast<size_t>(treeType)].count(featureType) > 0;
}

void plainOffer(Trees& trees, const SHX_basicFeature1D& f, int L, const SHX_treeGrowParam& p, bool seedValue) {
    for (auto& t : trees) {
        if (t.treeState == 2) continue;
        const SHX_basicFeature1D& last = t.treeNodes.back();
        if (f.lineIdx == last.lineIdx) continue;
        const double dx = std::fabs(f.featurePos.x - last.featurePos.x);
        const double dy = std::fabs(f.featurePos.y - last.featurePos.y);
        const double dz = std::fabs(f.featurePos.z - last.featurePos.z);
        const long gap = std::labs(static_cast<long>(f.lineIdx) - last.lineIdx);
        if (!(p.yDeviation_max > dy && p.zDeviation_max > dz)) continue;
        if (gap >= p.maxLineSkipNum && !(p.xDeviation_max > dx)) continue;
        if (!plainAccepts(t.treeType, f.featureType)) continue;
        t.eLineIdx = L;
        t.treeNodes.push_back(f);
        t.treeValue += f.featureValue;
        return;
    }
    SHX_featureTree t;
    t.treeState = 1;
    t.treeType = f.featureType;
    t.sLineIdx = t.eLineIdx = L;
    t.treeValue = seedValue ? f.featureValue : 0.0;
    t.treeNodes.push_back(f);
    trees.push_back(t);
}

bool plainKeep(const SHX_featureTree& t, const SHX_treeGrowParam& p) {
    const auto& a = t.treeNodes.front().featurePos;
    const auto& b = t.treeNodes.back().featurePos;
    const double len = std::sqrt((a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y));
    if (t.treeType != 5) return p.minLTypeTreeLen < len;
    if (p.minVTypeTreeLen >= len) return false;
    const size_t n = t.treeNodes.size();
    return std::fabs(t.treeNodes[n / 4].featurePos.z - t.treeNodes[3 * n / 4].featurePos.z) / len < 0.3;
}

void plainClose(Trees& trees, int L, bool lastLine, const SHX_treeGrowParam& p) {
    for (size_t k = trees.size(); k-- > 0;) {
        SHX_featureTree& t = trees[k];
        if (t.treeState != 1) continue;
        const long gap = std::labs(static_cast<long>(L) - t.treeNodes.back().lineIdx);
        if (!((p.maxLineSkipNum > 0 && gap > p.maxLineSkipNum) || lastLine)) continue;
        t.treeState = 2;
        if (!plainKeep(t, p)) trees.erase(trees.begin() + static_cast<long>(k));
    }
}

void plainRegion(SHX_featureTree& t) {
    if (t.treeNodes.empty()) {
        t.xRange = {0.0, 0.0};
        t.yRange = {0.0, 0.0};
        return;
    }
    t.xRange = {t.treeNodes[0].featurePos.x, t.treeNodes[0].featurePos.x};
    t.yRange = {t.treeNodes[0].featurePos.y, t.treeNodes[0].featurePos.y};
    for (const auto& n : t.treeNodes) {
        if (n.featurePos.x < t.xRange.min) t.xRange.min = n.featurePos.x;
        if (n.featurePos.x > t.xRange.max) t.xRange.max = n.featurePos.x;
        if (n.featurePos.y < t.yRange.min) t.yRange.min = n.featurePos.y;
        if (n.featurePos.y > t.yRange.max) t.yRange.max = n.featurePos.y;
    }
}

void plainPeakGrowing(const std::vector<Features>& lines, Trees& trees, const SHX_treeGrowParam& p) {
    if (lines.empty()) return;
    for (size_t i = 0; i < lines.size(); ++i) {
        for (const auto& f : lines[i]) plainOffer(trees, f, static_cast<int>(i), p, false);
        plainClose(trees, static_cast<int>(i), i + 1 == lines.size(), p);
    }
    for (auto& t : trees) plainRegion(t);
}

// Every field of every tree and node.
auto fieldsOf(const SHX_featureTree& t) {
    return std::make_tuple(t.treeState, t.treeType, t.sLineIdx, t.eLineIdx, t.treeValue, t.xRange.min, t.xRange.max,
                           t.yRange.min, t.yRange.max, t.treeNodes.size());
}
auto fieldsOf(const SHX_basicFeature1D& n) {
    return std::make_tuple(n.lineIdx, n.featureType, n.featureValue, n.featurePos.nPointIdx, n.featurePos.x,
                           n.featurePos.y, n.featurePos.z);
}

void expectSameTrees(const Trees& got, const Trees& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(fieldsOf(got[i]), fieldsOf(want[i])) << "tree " << i;
        for (size_t k = 0; k < got[i].treeNodes.size(); ++k)
            EXPECT_EQ(fieldsOf(got[i].treeNodes[k]), fieldsOf(want[i].treeNodes[k])) << "tree " << i << " node " << k;
    }
}

// Random scans whose features follow a few tracks, so that trees grow, pause,
// collide and end; with odd types and random states of earlier trees.
struct RandomCase {
    std::vector<Features> lines;
    Trees initial;
    SHX_treeGrowParam param;
};

RandomCase randomCase(testutil::Rng& rng) {
    static const int kTypes[] = {1, 3, 2, 4, 5, 5, 13, 14, 6, 8, 0, 16, -2, 9};
    RandomCase c;
    const int nLines = static_cast<int>(rng.integer(1, 40));
    const int nTracks = static_cast<int>(rng.integer(1, 6));
    std::vector<double> trackY(static_cast<size_t>(nTracks)), trackZ(static_cast<size_t>(nTracks));
    for (int k = 0; k < nTracks; ++k) {
        trackY[static_cast<size_t>(k)] = rng.uniform(0, 6);
        trackZ[static_cast<size_t>(k)] = rng.uniform(0, 3);
    }
    const int typeSpan = static_cast<int>(rng.integer(1, 14));
    c.lines.resize(static_cast<size_t>(nLines));
    for (int i = 0; i < nLines; ++i) {
        const int nf = static_cast<int>(rng.integer(0, 4));
        for (int f = 0; f < nf; ++f) {
            const size_t k = static_cast<size_t>(rng.integer(0, nTracks - 1));
            trackY[k] += rng.uniform(-0.3, 0.3);
            trackZ[k] += rng.uniform(-0.3, 0.3);
            const int type = kTypes[rng.integer(0, typeSpan - 1)];
            c.lines[static_cast<size_t>(i)].push_back(feat(type, i, i * 0.5 + rng.uniform(-0.5, 0.5), trackY[k],
                                                           trackZ[k], rng.uniform(0, 2), rng.integer(0, 99)));
        }
    }
    const int nInitial = static_cast<int>(rng.integer(0, 2) == 0 ? rng.integer(1, 3) : 0);
    for (int k = 0; k < nInitial; ++k) {
        SHX_featureTree t;
        static const int kStates[] = {1, 1, 2, 3};
        t.treeState = kStates[rng.integer(0, 3)];
        t.treeType = kTypes[rng.integer(0, 7)];
        const int line = static_cast<int>(rng.integer(-3, 0));
        t.sLineIdx = t.eLineIdx = line;
        t.treeNodes.push_back(feat(t.treeType, line, 0.0, rng.uniform(0, 6), rng.uniform(0, 3)));
        c.initial.push_back(t);
    }
    c.param = params(rng.uniform(0.1, 1.0), rng.uniform(0.1, 1.0), static_cast<int>(rng.integer(-1, 4)),
                     rng.uniform(0.2, 3.0), rng.uniform(-0.5, 3.0), rng.uniform(-0.5, 3.0));
    return c;
}

}  // namespace

TEST(TreeGrowing, TypeCompatibilityTable) {
    // Row: tree type, then the feature types it takes among -1..17.
    const std::vector<std::pair<int, std::set<int>>> table = {
        {-1, {}},     {0, {}},       {1, {1, 3}},  {2, {2, 4}},  {3, {1, 3}},  {4, {2, 4}}, {5, {3, 4, 5}},
        {6, {6}},     {7, {7}},      {8, {}},      {9, {9}},     {10, {10}},   {11, {11}},  {12, {12}},
        {13, {13}},   {14, {14}},    {15, {15}},   {16, {}},     {17, {}},
    };
    for (const auto& row : table) {
        for (int f = -1; f <= 17; ++f) {
            // Grown line by line and never closed, so no keep test interferes.
            Trees trees;
            hx_lineFeaturesGrowing(0, false, {feat(row.first, 0, 0, 0, 1)}, trees, kLoose);
            hx_lineFeaturesGrowing(1, false, {feat(f, 1, 0, 0, 1)}, trees, kLoose);
            const size_t want = row.second.count(f) ? 2 : 1;
            ASSERT_FALSE(trees.empty());
            EXPECT_EQ(trees[0].treeNodes.size(), want) << "tree type " << row.first << ", feature type " << f;
        }
    }
}

TEST(TreeGrowing, KeepTestByLength) {
    // Single-node trees have length 0: dropped when the limit is 0 or more.
    for (double minL : {0.0, 1.0}) {
        Trees trees;
        hx_peakFeatureGrowing({{feat(14, 0, 0, 0, 1)}}, trees, params(1, 1, 3, 1, minL, -1));
        EXPECT_TRUE(trees.empty());
    }
    // Length 5 (3-4-5 in x-y): kept when the limit is below 5, not at 5.
    const std::vector<Features> lines = {{feat(14, 0, 0, 0, 1)}, {feat(14, 1, 1.5, 2, 1)}, {feat(14, 2, 3, 4, 1)}};
    Trees trees;
    hx_peakFeatureGrowing(lines, trees, params(2.5, 1, 3, 5, 4.99, 100));
    EXPECT_EQ(trees.size(), 1u);
    trees.clear();
    hx_peakFeatureGrowing(lines, trees, params(2.5, 1, 3, 5, 5.0, -100));
    EXPECT_TRUE(trees.empty());
    // Type 8 never grows; it survives only a negative limit.
    trees.clear();
    hx_peakFeatureGrowing({{feat(8, 0, 0, 0, 1)}, {feat(8, 1, 0, 0, 1)}}, trees, params(1, 1, 3, 1, -0.5, 1));
    EXPECT_EQ(nodeCounts(trees), (Counts{1, 1}));
}

TEST(TreeGrowing, VTreeKeepTestByLengthAndDrift) {
    // Four nodes at x 0, 1, 2, 4 (length 4); the keep test compares nodes 1 and 3.
    auto grow = [](double z3, double minV) {
        const std::vector<Features> lines = {{feat(5, 0, 0, 0, 1.0)},
                                             {feat(3, 1, 1, 0, 1.0)},
                                             {feat(4, 2, 2, 0, 1.5)},
                                             {feat(5, 3, 4, 0, z3)}};
        Trees trees;
        hx_peakFeatureGrowing(lines, trees, params(1, 2, 5, 0, 100, minV));
        return trees.size();
    };
    EXPECT_EQ(grow(2.1875, 3.99), 1u);  // drift 1.1875 / 4 < 0.3: kept (the L limit 100 does not apply)
    EXPECT_EQ(grow(2.25, 3.99), 0u);    // drift 1.25 / 4 >= 0.3: dropped
    EXPECT_EQ(grow(2.1875, 4.0), 0u);   // length not above the V limit
    EXPECT_EQ(grow(-0.1875, 3.99), 1u);
    EXPECT_EQ(grow(-0.25, 3.99), 0u);  // a drift downwards counts by its size
}

TEST(TreeGrowing, EmptyInputLeavesTreesAlone) {
    Trees trees(1);
    trees[0].treeState = 1;
    trees[0].treeNodes = {feat(1, 0, 0, 0, 1)};
    trees[0].xRange = {5, 6};
    hx_getFeatureGrowingTrees({}, trees, kLoose);
    hx_peakFeatureGrowing({}, trees, kLoose);
    std::vector<SKesp3DLaserLine> none;
    hx_getEndingGrowingTrees({}, none.data(), true, 6, trees, kLoose);
    ASSERT_EQ(trees.size(), 1u);
    EXPECT_EQ(trees[0].treeState, 1);
    EXPECT_EQ(trees[0].xRange.max, 6.0);
}

TEST(TreeGrowing, PeakGrowingUsesPositionForSeedAndRegionForAllTrees) {
    Trees trees(2);
    trees[0].treeState = 2;  // an earlier tree without nodes: ranges become zero
    trees[0].xRange = {5, 6};
    trees[1].treeState = 2;
    trees[1].treeNodes = {feat(14, 0, 3, -1, 1), feat(14, 1, -2, 4, 1)};
    // The same-line test compares the feature's own lineIdx: the feature at
    // position 1 still says line 0, so it cannot join the tree seeded there
    // and seeds a tree of its own under the position 1.
    hx_peakFeatureGrowing({{feat(14, 0, 0, 0, 1)}, {feat(14, 0, 0.5, 0.5, 1)}}, trees, kLoose);
    ASSERT_EQ(trees.size(), 4u);
    EXPECT_EQ(trees[0].xRange.min, 0.0);
    EXPECT_EQ(trees[0].xRange.max, 0.0);
    EXPECT_EQ(trees[1].xRange.min, -2.0);
    EXPECT_EQ(trees[1].xRange.max, 3.0);
    EXPECT_EQ(trees[1].yRange.min, -1.0);
    EXPECT_EQ(trees[1].yRange.max, 4.0);
    EXPECT_EQ(trees[2].sLineIdx, 0);
    EXPECT_EQ(trees[3].sLineIdx, 1);
    EXPECT_EQ(trees[3].eLineIdx, 1);
    EXPECT_EQ(trees[3].xRange.min, 0.5);
    EXPECT_EQ(trees[3].yRange.max, 0.5);
}

TEST(TreeGrowing, NaNCoordinatesNeverJoin) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    Trees trees;
    hx_peakFeatureGrowing({{feat(1, 0, 0, 0, 1)}, {feat(1, 1, 0, nan, 1)}, {feat(1, 2, nan, 0, nan)}}, trees,
                          params(1, 1, 0, 1, -1, -1));
    // Each NaN feature seeds its own tree; those trees have a NaN length and
    // fail the keep test at the end.
    EXPECT_EQ(nodeCounts(trees), (Counts{1}));
    EXPECT_EQ(trees[0].treeNodes[0].featurePos.y, 0.0);
}

TEST(TreeGrowing, MatchesPlainVersionOnRandomScans) {
    testutil::Rng rng(3);
    for (int trial = 0; trial < 600; ++trial) {
        const RandomCase c = randomCase(rng);
        // Peak growing, including the region step over every tree.
        Trees want = c.initial, got = c.initial;
        plainPeakGrowing(c.lines, want, c.param);
        hx_peakFeatureGrowing(c.lines, got, c.param);
        expectSameTrees(got, want);

        // Growing from line records (the record's lineIdx drives seeding and closing).
        want = c.initial;
        got = c.initial;
        const auto records = scanOf(c.lines);
        for (size_t i = 0; i < c.lines.size(); ++i) {
            for (const auto& f : c.lines[i]) plainOffer(want, f, static_cast<int>(i), c.param, false);
            plainClose(want, static_cast<int>(i), i + 1 == c.lines.size(), c.param);
        }
        hx_getFeatureGrowingTrees(records, got, c.param);
        expectSameTrees(got, want);

        // Line by line, the trees staying open between calls.
        want = c.initial;
        got = c.initial;
        for (size_t i = 0; i < c.lines.size(); ++i) {
            const bool last = i + 1 == c.lines.size();
            for (const auto& f : c.lines[i]) plainOffer(want, f, static_cast<int>(i), c.param, true);
            plainClose(want, static_cast<int>(i), last, c.param);
            hx_lineFeaturesGrowing(static_cast<int>(i), last, c.lines[i], got, c.param);
            expectSameTrees(got, want);
        }
        if (HasFailure()) FAIL() << "trial " << trial;
    }
}

TEST(TreeGrowing, EndingGrowingMatchesPlainVersionOnRandomPositions) {
    testutil::Rng rng(5);
    for (int trial = 0; trial < 300; ++trial) {
        const int nLines = static_cast<int>(rng.integer(1, 30));
        std::vector<std::vector<SKesp3DPosition>> scan(static_cast<size_t>(nLines));
        for (int i = 0; i < nLines; ++i)
            for (int j = 0; j < 8; ++j)
                scan[i].push_back(testutil::pt(i * 0.5 + rng.uniform(-0.2, 0.2), j * 0.5, rng.uniform(1, 1.6)));
        auto lines = testutil::linesOf(scan);
        const bool lineWise = rng.integer(0, 1) == 1;
        std::vector<SHX_2DValueI> ends;
        for (int k = static_cast<int>(rng.integer(1, 40)); k > 0; --k) {
            const int a = static_cast<int>(rng.integer(0, nLines - 1));
            const int b = static_cast<int>(rng.integer(0, 7));
            ends.push_back(lineWise ? SHX_2DValueI{a, b, 0, 0.0, 0} : SHX_2DValueI{b, a, 0, 0.0, 0});
        }
        std::sort(ends.begin(), ends.end(), [](const SHX_2DValueI& p, const SHX_2DValueI& q) { return p.x < q.x; });
        const SHX_treeGrowParam p = params(rng.uniform(0.3, 1.2), rng.uniform(0.2, 0.7),
                                           static_cast<int>(rng.integer(-1, 3)), rng.uniform(0.2, 2.0),
                                           rng.uniform(-0.5, 2.0), 0);
        Trees want, got;
        for (size_t i = 0; i < ends.size(); ++i) {
            const SHX_2DValueI& e = ends[i];
            const SKesp3DPosition& q = lineWise ? scan[e.x][e.y] : scan[e.y][e.x];
            SHX_basicFeature1D f = lineWise ? feat(7, e.x, q.x, q.y, q.z, 0.0, e.y) : feat(7, e.x, q.y, q.x, q.z, 0.0, e.y);
            plainOffer(want, f, e.x, p, false);
            plainClose(want, e.x, i + 1 == ends.size(), p);
        }
        hx_getEndingGrowingTrees(ends, lines.data(), lineWise, 7, got, p);
        expectSameTrees(got, want);
        if (HasFailure()) FAIL() << "trial " << trial;
    }
}
