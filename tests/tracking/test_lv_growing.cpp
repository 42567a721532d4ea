// L/V growing: majority type, lengthening through segment ends, removal of
// narrow and enclosed shape trees, free segment ends. Trees are built by hand
// (with no lines to grow, the trees passed in are typed and cleaned as they are).
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "profile_analysis.h"

namespace {

SHX_basicFeature1D feat(int type, int line, double y, double z, int64_t idx = 0, double x = -1.0) {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = line;
    f.featurePos.nPointIdx = idx;
    f.featurePos.x = x < 0 ? static_cast<double>(line) : x;
    f.featurePos.y = y;
    f.featurePos.z = z;
    return f;
}

// A closed tree whose nodes sit at the given (x, y); every node has the tree's type.
SHX_featureTree tree(int type, const std::vector<std::pair<double, double>>& xy) {
    SHX_featureTree t;
    t.treeState = 2;
    t.treeType = type;
    int line = 0;
    for (const auto& p : xy) t.treeNodes.push_back(feat(type, line++, p.second, 1.0, 0, p.first));
    return t;
}

SHX_featureTree treeOfNodeTypes(int treeType, const std::vector<int>& nodeTypes) {
    SHX_featureTree t = tree(treeType, {});
    for (size_t k = 0; k < nodeTypes.size(); ++k)
        t.treeNodes.push_back(feat(nodeTypes[k], static_cast<int>(k), 0.0, 1.0, 0, 100.0 * static_cast<double>(k)));
    return t;
}

// Runs the routine on hand-built trees with no lines; returns the surviving trees.
std::vector<SHX_featureTree> clean(std::vector<SHX_featureTree> trees, SHX_bagParam bag) {
    std::vector<SHX_lineFeature> none;
    std::vector<SHX_2DValueI> s, e;
    hx_LVFeatureGrowing(none, trees, bag, SHX_treeGrowParam{}, s, e);
    return trees;
}

std::vector<int> typesOf(const std::vector<SHX_featureTree>& trees) {
    std::vector<int> v;
    for (const auto& t : trees) v.push_back(t.treeType);
    return v;
}

// The scan used for lengthening: one tree of type-1 features on lines 6..8
// (y 10, z 5), and segment ends around it. maxLineSkipNum 3, y and z limits 2.
struct LengtheningScan {
    std::vector<SHX_lineFeature> lines;
    SHX_treeGrowParam grow{2.0, 2.0, 3, 100.0, -1.0, -1.0};

    LengtheningScan() {
        lines.resize(12);
        for (int k = 0; k < 12; ++k) lines[static_cast<size_t>(k)].lineIdx = k;
        for (int k = 6; k <= 8; ++k) {
            SHX_basicFeature1D f = feat(1, k, 10.0, 5.0, 100);
            f.featureValue = 2.0;
            lines[static_cast<size_t>(k)].features.push_back(f);
        }
        addEnding(0, 6, 13.0);   // 4 lines from the first node (line 4): too far
        addEnding(1, 6, 13.0);   // 3 lines away: not fewer than maxLineSkipNum
        addEnding(3, 6, 50.0);   // does not fit
        addEnding(4, 6, 13.0);   // fits the newest first node (line 5, y 11.5) only
        addEnding(5, 6, 11.5);   // fits the first node (line 6)
        addEnding(9, 7, 11.5);   // fits the last node: the first fitting ending of the line
        addEnding(9, 6, 10.0);   // fits too, but the line gave one already
        addEnding(10, 7, 13.0);  // would fit line 9's ending, not the fixed last node (line 8)
        addEnding(11, 6, 10.0);  // 3 lines after the last node
    }
    void addEnding(int line, int type, double y) {
        SHX_basicFeature1D e = feat(type, line, y, 5.0, 200 + line);
        e.featureValue = 7.0;
        lines[static_cast<size_t>(line)].endings.push_back(e);
    }
};

std::vector<std::pair<int, int>> linesAndTypes(const std::vector<SHX_2DValueI>& v) {
    std::vector<std::pair<int, int>> out;
    for (const auto& p : v) out.emplace_back(p.x, p.featureType);
    return out;
}

}  // namespace

TEST(LVGrowing, MajorityTypeWithTiesToTheLowerTypeAndForeignTypesIgnored) {
    const SHX_bagParam noRemoval{0.0, 0.0};
    const auto trees = clean({treeOfNodeTypes(3, {1, 3, 1, 3}),       // tie: 1
                              treeOfNodeTypes(5, {3, 3, 3, 3, 3, 5}),  // 3
                              treeOfNodeTypes(5, {20, -4, 20, 4}),     // out-of-range codes ignored: 4
                              treeOfNodeTypes(9, {20, 16}),            // nothing counted: unchanged
                              treeOfNodeTypes(2, {0, 0, 1})},          // type 0 wins: unchanged
                             noRemoval);
    EXPECT_EQ(typesOf(trees), (std::vector<int>{1, 3, 4, 9, 2}));
}

TEST(LVGrowing, NarrowShapeTreesAreRemoved) {
    // bagW 40: narrow means x extent below 10 and y extent above half of it.
    const SHX_bagParam bag{0.0, 40.0};
    const auto trees = clean({tree(5, {{0, 0}, {9, 5}}),      // removed
                              tree(1, {{0, 0}, {9, 5}}),      // a step tree of the same shape stays
                              tree(5, {{0, 0}, {9, 4.5}}),    // y extent exactly half: stays
                              tree(3, {{0, 0}, {10, 20}}),    // x extent exactly bagW / 4: stays
                              tree(15, {{5, 0}, {5, 0.1}}),   // removed
                              tree(4, {{0, 0}, {9.9, 5}})},   // removed
                             bag);
    ASSERT_EQ(typesOf(trees), (std::vector<int>{1, 5, 3}));
    EXPECT_EQ(trees[0].xRange.max, 9.0);  // the region of every tree is set
    EXPECT_EQ(trees[1].yRange.max, 4.5);
    EXPECT_EQ(trees[2].yRange.min, 0.0);
}

TEST(LVGrowing, EnclosedShapeTreesAreRemovedByTheNearestEnclosingTrees) {
    // bagW 40 (tested when narrower than 20), bagL 20: enclosed when the
    // enclosing trees' centres are less than 26 apart along y.
    const SHX_bagParam bag{20.0, 40.0};
    const SHX_featureTree below = tree(1, {{0, 0}, {100, 0}});
    const SHX_featureTree farBelow = tree(2, {{0, -50}, {100, -50}});
    const SHX_featureTree inner = tree(3, {{40, 10}, {50, 10}});
    auto above = [](double y) { return tree(2, {{0, y}, {100, y}}); };

    EXPECT_EQ(clean({below, inner, above(30)}, bag).size(), 3u);  // 30 apart
    EXPECT_EQ(typesOf(clean({below, inner, above(25)}, bag)), (std::vector<int>{1, 2}));
    EXPECT_EQ(clean({inner, above(25)}, bag).size(), 2u);  // nothing below
    // Only the nearest enclosing trees count: below (0) rather than farBelow,
    // above(25) rather than above(200).
    EXPECT_EQ(clean({farBelow, above(200), inner, below, above(25)}, bag).size(), 4u);
    // Containment along x is strict.
    SHX_featureTree flush = tree(3, {{0, 10}, {10, 10}});
    EXPECT_EQ(clean({below, flush, above(25)}, bag).size(), 3u);
    // A wide shape tree is not tested.
    SHX_featureTree wide = tree(5, {{30, 10}, {50, 10}});
    EXPECT_EQ(clean({below, wide, above(25)}, bag).size(), 3u);
    // Equal yRange.max below: the first in vector order is taken. Centred at
    // -20 it puts the enclosing trees 45 apart; centred at 0, 25.
    const SHX_featureTree tall = tree(1, {{0, -40}, {100, 0}});
    EXPECT_EQ(clean({tall, below, inner, above(25)}, bag).size(), 4u);
    EXPECT_EQ(clean({below, tall, inner, above(25)}, bag).size(), 3u);
}

TEST(LVGrowing, TreesErasedAsEnclosedNoLongerEncloseTreesVisitedAfterThem) {
    // Visited from the last: x (y 20, x 10..20) is enclosed by w1 (y 0) and
    // a (y 25..61, centres 43 apart) and goes. m (y 24, x 12..18) would then
    // lie between x and a2 (centres 39.5 apart) and go too, but with x gone it
    // lies between w1 and a2, 59.5 apart, and stays.
    const SHX_bagParam bag{38.5, 30.0};  // 1.3 * 38.5 = 50.05
    const auto trees = clean({tree(1, {{0, 0}, {100, 0}}),      // w1
                              tree(3, {{12, 24}, {18, 24}}),    // m
                              tree(4, {{10, 20}, {20, 20}}),    // x
                              tree(1, {{0, 25}, {100, 61}}),    // a
                              tree(2, {{11, 59}, {19, 60}})},   // a2
                             bag);
    EXPECT_EQ(typesOf(trees), (std::vector<int>{1, 3, 1, 2}));
}

TEST(LVGrowing, LengthensBackwardFromTheNewestFirstNodeAndForwardFromTheFixedLastNode) {
    LengtheningScan scan;
    std::vector<SHX_featureTree> trees;
    std::vector<SHX_2DValueI> starts(1), ends;  // appended to, never cleared
    hx_LVFeatureGrowing(scan.lines, trees, SHX_bagParam{0.0, 0.0}, scan.grow, starts, ends);

    ASSERT_EQ(trees.size(), 1u);
    const SHX_featureTree& t = trees[0];
    EXPECT_EQ(t.treeType, 1);
    std::vector<std::pair<int, int64_t>> nodes;
    for (const auto& n : t.treeNodes) {
        nodes.emplace_back(n.lineIdx, n.featurePos.nPointIdx);
        EXPECT_EQ(n.featureType, 1);  // taken endings carry the tree's type
    }
    EXPECT_EQ(nodes, (std::vector<std::pair<int, int64_t>>{{4, 204}, {5, 205}, {6, 100}, {7, 100}, {8, 100}, {9, 209}}));
    // The lengthening changes neither the line span nor the value of the tree.
    EXPECT_EQ(t.sLineIdx, 6);
    EXPECT_EQ(t.eLineIdx, 8);
    EXPECT_EQ(t.treeValue, 4.0);
    EXPECT_EQ(t.xRange.min, 4.0);
    EXPECT_EQ(t.yRange.max, 13.0);

    // The taken endings are retyped in the caller's lines; the others are not.
    EXPECT_EQ((std::vector<int>{scan.lines[4].endings[0].featureType, scan.lines[5].endings[0].featureType,
                                scan.lines[9].endings[0].featureType, scan.lines[9].endings[1].featureType,
                                scan.lines[10].endings[0].featureType}),
              (std::vector<int>{1, 1, 1, 6, 7}));

    ASSERT_EQ(starts.size(), 6u);
    starts.erase(starts.begin());
    EXPECT_EQ(linesAndTypes(starts), (std::vector<std::pair<int, int>>{{0, 6}, {1, 6}, {3, 6}, {9, 6}, {11, 6}}));
    EXPECT_EQ(linesAndTypes(ends), (std::vector<std::pair<int, int>>{{10, 7}}));
    EXPECT_EQ(starts[2].y, 203);
    EXPECT_EQ(starts[2].value, 5.0);
    EXPECT_EQ(starts[2].value2, 0);
}

TEST(LVGrowing, NoLengtheningWithMaxLineSkipNumOneOrLess) {
    for (int skip : {1, 0, -2}) {
        LengtheningScan scan;
        scan.grow.maxLineSkipNum = skip;
        std::vector<SHX_featureTree> trees;
        std::vector<SHX_2DValueI> starts, ends;
        hx_LVFeatureGrowing(scan.lines, trees, SHX_bagParam{0.0, 0.0}, scan.grow, starts, ends);
        ASSERT_EQ(trees.size(), 1u) << skip;
        EXPECT_EQ(trees[0].treeNodes.size(), 3u) << skip;
        EXPECT_EQ(starts.size(), 7u) << skip;
        EXPECT_EQ(ends.size(), 2u) << skip;
    }
}

TEST(LVGrowing, WithoutTreesEveryEndingIsFree) {
    std::vector<SHX_lineFeature> lines(2);
    lines[1].lineIdx = 1;
    lines[0].endings = {feat(6, 0, 1, 2, 3), feat(7, 0, 4, 5, 6), feat(1, 0, 0, 0, 0)};
    lines[1].endings = {feat(6, 1, 7, 8, 9), feat(7, 1, 10, 11, 12)};
    std::vector<SHX_featureTree> trees;
    std::vector<SHX_2DValueI> starts, ends;
    hx_LVFeatureGrowing(lines, trees, SHX_bagParam{1, 1}, SHX_treeGrowParam{1, 1, 3, 1, 0, 0}, starts, ends);
    EXPECT_TRUE(trees.empty());
    EXPECT_EQ(linesAndTypes(starts), (std::vector<std::pair<int, int>>{{0, 6}, {1, 6}}));
    EXPECT_EQ(linesAndTypes(ends), (std::vector<std::pair<int, int>>{{0, 7}, {1, 7}}));
    EXPECT_EQ(ends[1].y, 12);
    EXPECT_EQ(ends[1].value, 11.0);
}

TEST(LVGrowing, LineIndicesOutsideTheScanStayInBounds) {
    std::vector<SHX_lineFeature> lines(3);
    for (int k = 0; k < 3; ++k) {
        lines[static_cast<size_t>(k)].lineIdx = k;
        lines[static_cast<size_t>(k)].endings.push_back(feat(6, k, 0, 1));
    }
    std::vector<SHX_featureTree> trees{tree(1, {{0, 0}}), tree(2, {{0, 0}}), SHX_featureTree{}};
    trees[0].treeNodes[0].lineIdx = 1000;
    trees[1].treeNodes[0].lineIdx = -1000;
    std::vector<SHX_2DValueI> starts, ends;
    hx_LVFeatureGrowing(lines, trees, SHX_bagParam{0, 0}, SHX_treeGrowParam{5, 5, 2000, 1, 0, 0}, starts, ends);
    EXPECT_EQ(trees.size(), 3u);
    EXPECT_EQ(trees[2].xRange.max, 0.0);  // a tree without nodes gets an all-zero region
}
