// L/V feature growing: trees of steps, flanks and V shapes across scan lines,
// typed by majority, lengthened at both ends through the segment ends of the
// neighbouring lines, cleaned of trees too narrow or enclosed for the object
// looked for, and the segment ends that no tree took.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <vector>

#include "internal.h"

namespace {

constexpr int32_t kSegmentStart = 6;
constexpr int32_t kSegmentEnd = 7;
// One counter per type code 0..15 in the majority vote.
constexpr int32_t kTypeCodes = 16;
// A shape tree narrower than this share of the object's width, and longer
// along y than kNarrowYPerX times its x extent, is not the object.
constexpr double kNarrowWidthShare = 0.25;
constexpr double kNarrowYPerX = 0.5;
// Shape trees narrower than this share of the object's width are tested for
// enclosure, and are enclosed when the trees around them are closer (centre to
// centre along y) than kEnclosedLengthShare times the object's length.
constexpr double kEnclosedWidthShare = 0.5;
constexpr double kEnclosedLengthShare = 1.3;

// Flanks, V shapes and corners: the trees the object's size can rule out.
bool isShapeType(int32_t type) { return type == 3 || type == 4 || type == 5 || type == 15; }

int64_t lineGap(int64_t a, int64_t b) { return std::llabs(a - b); }

// The most frequent node type, the lower type on ties; node types outside
// 0..15 are not counted. A winner of type 0 or no counted node leaves the
// tree's type as it is.
void setMajorityType(SHX_featureTree& tree) {
    int32_t counts[kTypeCodes] = {};
    for (const SHX_basicFeature1D& n : tree.treeNodes)
        if (n.featureType >= 0 && n.featureType < kTypeCodes) ++counts[n.featureType];
    int32_t best = -1, bestCount = 0;
    for (int32_t t = 0; t < kTypeCodes; ++t) {
        if (counts[t] > bestCount) {
            bestCount = counts[t];
            best = t;
        }
    }
    if (best > 0) tree.treeType = best;
}

// The first ending of a line close enough to node `to`: y and z within the
// growing limits and fewer than maxLineSkipNum lines away (all strict). The
// segment type is not looked at.
SHX_basicFeature1D* findEnding(SHX_lineFeature& line, const SHX_basicFeature1D& to, const SHX_treeGrowParam& g) {
    for (SHX_basicFeature1D& e : line.endings) {
        if (g.yDeviation_max > std::fabs(e.featurePos.y - to.featurePos.y) &&
            g.zDeviation_max > std::fabs(e.featurePos.z - to.featurePos.z) &&
            lineGap(e.lineIdx, to.lineIdx) < g.maxLineSkipNum)
            return &e;
    }
    return nullptr;
}

// Earlier lines, each compared with the tree's newest first node; a taken
// ending is retyped to the tree's type in the caller's lines.
void extendBackward(SHX_featureTree& tree, std::vector<SHX_lineFeature>& lines, const SHX_treeGrowParam& g) {
    std::vector<SHX_basicFeature1D>& nodes = tree.treeNodes;
    const int64_t lineCount = static_cast<int64_t>(lines.size());
    // Line indices beyond the vector are outside the contract: start inside it.
    int64_t k = std::min<int64_t>(static_cast<int64_t>(nodes.front().lineIdx) - 1, lineCount - 1);
    std::vector<SHX_basicFeature1D> added;  // newest last; put in front of the nodes once
    SHX_basicFeature1D first = nodes.front();
    for (; k >= 0; --k) {
        SHX_lineFeature& line = lines[static_cast<size_t>(k)];
        if (SHX_basicFeature1D* e = findEnding(line, first, g)) {
            e->featureType = tree.treeType;
            added.push_back(*e);
            first = *e;
        } else if (lineGap(line.lineIdx, first.lineIdx) > g.maxLineSkipNum) {
            break;
        }
    }
    if (!added.empty()) nodes.insert(nodes.begin(), added.rbegin(), added.rend());
}

// Later lines, each compared with the last node the tree had before this
// extension (not with the endings just taken), so only endings fewer than
// maxLineSkipNum lines after it can join; the search stops after a line
// without a match that lies more than maxLineSkipNum lines after the current
// last node.
void extendForward(SHX_featureTree& tree, std::vector<SHX_lineFeature>& lines, const SHX_treeGrowParam& g) {
    std::vector<SHX_basicFeature1D>& nodes = tree.treeNodes;
    const SHX_basicFeature1D last0 = nodes.back();
    int32_t lastLine = last0.lineIdx;
    const size_t lineCount = lines.size();
    for (int64_t k = std::max<int64_t>(static_cast<int64_t>(last0.lineIdx) + 1, 0);
         k < static_cast<int64_t>(lineCount); ++k) {
        SHX_lineFeature& line = lines[static_cast<size_t>(k)];
        if (SHX_basicFeature1D* e = findEnding(line, last0, g)) {
            e->featureType = tree.treeType;
            nodes.push_back(*e);
            lastLine = e->lineIdx;
        } else if (lineGap(line.lineIdx, lastLine) > g.maxLineSkipNum) {
            break;
        }
    }
}

double width(const SKespRangeD& r) { return r.max - r.min; }

// Among the other live trees whose x extent strictly contains t's, the one
// just below t along y (greatest yRange.max) or just above it (smallest
// yRange.max); the first in vector order on ties. -1 when there is none.
void enclosingNeighbours(const std::vector<SHX_featureTree>& trees, const std::vector<char>& alive, size_t t,
                         std::ptrdiff_t& before, std::ptrdiff_t& after) {
    const SHX_featureTree& tt = trees[t];
    before = after = -1;
    for (size_t u = 0; u < trees.size(); ++u) {
        if (u == t || !alive[u]) continue;
        const SHX_featureTree& uu = trees[u];
        if (!(tt.xRange.min > uu.xRange.min && uu.xRange.max > tt.xRange.max)) continue;
        const std::ptrdiff_t ui = static_cast<std::ptrdiff_t>(u);
        if (tt.yRange.min > uu.yRange.max &&
            (before < 0 || uu.yRange.max > trees[static_cast<size_t>(before)].yRange.max))
            before = ui;
        if (uu.yRange.min > tt.yRange.max &&
            (after < 0 || uu.yRange.max < trees[static_cast<size_t>(after)].yRange.max))
            after = ui;
    }
}

// Removes the trees not alive, keeping the order of the others.
void eraseDead(std::vector<SHX_featureTree>& trees, const std::vector<char>& alive) {
    size_t w = 0;
    for (size_t r = 0; r < trees.size(); ++r) {
        if (!alive[r]) continue;
        if (w != r) trees[w] = std::move(trees[r]);
        ++w;
    }
    trees.erase(trees.begin() + static_cast<std::ptrdiff_t>(w), trees.end());
}

// Narrow shape trees go first; then, from the last tree to the first, shape
// trees enclosed between two trees closer than the object's length. A tree
// erased there no longer encloses the trees visited after it. Erasing is done
// by marks and one compaction, which leaves the same trees in the same order.
void removeNarrowAndEnclosed(std::vector<SHX_featureTree>& trees, const SHX_bagParam& bag) {
    const size_t n = trees.size();
    std::vector<char> alive(n, 1);
    for (size_t t = n; t-- > 0;) {
        SHX_featureTree& tree = trees[t];
        pa_detail::setTreeRegion(tree);
        if (!isShapeType(tree.treeType)) continue;
        const double xW = width(tree.xRange), yW = width(tree.yRange);
        if (bag.bagW * kNarrowWidthShare > xW && yW > xW * kNarrowYPerX) alive[t] = 0;
    }
    for (size_t t = n; t-- > 0;) {
        const SHX_featureTree& tree = trees[t];
        if (!alive[t] || !isShapeType(tree.treeType) || !(bag.bagW * kEnclosedWidthShare > width(tree.xRange)))
            continue;
        std::ptrdiff_t before = -1, after = -1;
        enclosingNeighbours(trees, alive, t, before, after);
        if (before < 0 || after < 0) continue;
        const SKespRangeD& b = trees[static_cast<size_t>(before)].yRange;
        const SKespRangeD& a = trees[static_cast<size_t>(after)].yRange;
        if (bag.bagL * kEnclosedLengthShare > (a.max + a.min - b.min - b.max) * 0.5) alive[t] = 0;
    }
    eraseDead(trees, alive);
}

SHX_2DValueI freeEnding(const SHX_basicFeature1D& e) {
    SHX_2DValueI v;
    v.x = e.lineIdx;
    v.y = static_cast<int32_t>(e.featurePos.nPointIdx);
    v.featureType = e.featureType;
    v.value = e.featurePos.z;
    v.value2 = 0;
    return v;
}

}  // namespace

PA_API void hx_LVFeatureGrowing(std::vector<SHX_lineFeature>& lineFeatures, std::vector<SHX_featureTree>& trees,
                                SHX_bagParam bagParam, SHX_treeGrowParam growParam,
                                std::vector<SHX_2DValueI>& startPts, std::vector<SHX_2DValueI>& endPts) {
    hx_getFeatureGrowingTrees(lineFeatures, trees, growParam);
    for (SHX_featureTree& tree : trees) {
        setMajorityType(tree);
        if (tree.treeNodes.empty()) continue;  // outside the contract: nothing to extend from
        extendBackward(tree, lineFeatures, growParam);
        extendForward(tree, lineFeatures, growParam);
    }
    removeNarrowAndEnclosed(trees, bagParam);
    for (const SHX_lineFeature& line : lineFeatures) {
        for (const SHX_basicFeature1D& e : line.endings) {
            if (e.featureType == kSegmentStart) startPts.push_back(freeEnding(e));
            else if (e.featureType == kSegmentEnd) endPts.push_back(freeEnding(e));
        }
    }
}
