// Feature-tree growing: links the features of successive scan lines into
// trees, closes the trees that stop growing and keeps those long enough.
//
// All four entry points drive one TreeGrower: features are offered one by one
// (matching or seeding), the closing step runs after each line, and the trees
// that fail the keep test are removed at the end of the call.
//
// Two things keep the cost independent of the number of trees already closed:
//  - the trees that can still take nodes are kept in an ordered list (by
//    position in the vector), with a copy of each one's last node, so a
//    feature is offered to the open trees only, still in vector order, and
//    joins the first that accepts it;
//  - a tree that fails the keep test is only marked; one stable compaction at
//    the end of the call removes the marked trees. Erasing each at once would
//    move every later tree; the resulting vector is the same because a closed
//    tree never takes part in matching or closing again.
#include <cmath>
#include <cstdlib>
#include <utility>

#include "internal.h"

namespace {

constexpr int32_t kStateGrowing = 1;
constexpr int32_t kStateClosed = 2;
constexpr int32_t kTypeV = 5;
// A V tree is kept only while its height drifts less than this per unit length.
constexpr double kMaxVTreeDrift = 0.3;

int64_t lineGap(int64_t a, int64_t b) { return std::llabs(a - b); }

// Length of a tree: x-y distance between its first and its last node.
double treeLength(const SHX_featureTree& tree) {
    const SKesp3DPosition& a = tree.treeNodes.front().featurePos;
    const SKesp3DPosition& b = tree.treeNodes.back().featurePos;
    const double dx = a.x - b.x, dy = a.y - b.y;
    return std::sqrt(dx * dx + dy * dy);
}

// Keep test of a closed tree (which has at least one node). A V tree must
// also keep its height: the z of its quarter and three-quarter nodes may
// differ by less than kMaxVTreeDrift times its length. A NaN length or drift
// fails.
bool keepClosedTree(const SHX_featureTree& tree, const SHX_treeGrowParam& param) {
    const double len = treeLength(tree);
    if (tree.treeType != kTypeV) return param.minLTypeTreeLen < len;
    if (param.minVTypeTreeLen >= len) return false;
    const size_t n = tree.treeNodes.size();
    const double drift = std::fabs(tree.treeNodes[n / 4].featurePos.z - tree.treeNodes[3 * n / 4].featurePos.z);
    return drift / len < kMaxVTreeDrift;
}

SHX_basicFeature1D featureFromPosition(const SHX_2DValueI& p, const SKesp3DPosition& point, bool lineWise,
                                       int32_t featureType) {
    SHX_basicFeature1D f;
    f.featureType = featureType;
    f.lineIdx = p.x;
    f.featurePos.nPointIdx = p.y;
    // Read across the lines, the two axes swap roles.
    f.featurePos.x = lineWise ? point.x : point.y;
    f.featurePos.y = lineWise ? point.y : point.x;
    f.featurePos.z = point.z;
    f.featureValue = 0.0;
    return f;
}

// The point a position stands for, or nullptr when the position lies outside
// its line (negative indices, a point index past the line's count).
const SKesp3DPosition* pointAt(const SKesp3DLaserLine* scanLines, const SHX_2DValueI& p, bool lineWise) {
    const int32_t line = lineWise ? p.x : p.y;
    const int32_t point = lineWise ? p.y : p.x;
    if (line < 0 || point < 0) return nullptr;
    const SKesp3DLaserLine& l = scanLines[line];
    if (l.p3DPosition == nullptr || point >= l.nPositionCnt) return nullptr;
    return &l.p3DPosition[point];
}

class TreeGrower {
public:
    // seedTakesValue: a new tree's treeValue starts at its seed's featureValue
    // (instead of 0.0).
    TreeGrower(std::vector<SHX_featureTree>& trees, const SHX_treeGrowParam& param, bool seedTakesValue)
        : trees_(trees), param_(param), seedTakesValue_(seedTakesValue), dropped_(trees.size(), 0) {
        // Trees from earlier calls take part like new ones: every tree not
        // closed can take nodes, and those in state 1 can be closed. A tree
        // without nodes has no end to match against and is left alone.
        for (size_t i = 0; i < trees.size(); ++i) {
            const SHX_featureTree& t = trees[i];
            if (t.treeState == kStateClosed || t.treeNodes.empty()) continue;
            open_.push_back(openEntry(i, t.treeType, t.treeState == kStateGrowing, t.treeNodes.back()));
        }
    }

    // Matching step: f joins the first open tree, in vector order, that
    // accepts it; otherwise it seeds a new tree. line is the index under which
    // f is offered (eLineIdx / sLineIdx), f.lineIdx the one it is compared by.
    void offer(const SHX_basicFeature1D& f, int32_t line) {
        const double fx = f.featurePos.x, fy = f.featurePos.y, fz = f.featurePos.z;
        const int32_t fLine = f.lineIdx;
        const int32_t fType = f.featureType;
        const double yMax = param_.yDeviation_max, zMax = param_.zDeviation_max, xMax = param_.xDeviation_max;
        const int64_t skip = param_.maxLineSkipNum;
        for (OpenTree& e : open_) {
            if (fLine == e.lastLine) continue;
            if (!(yMax > std::fabs(fy - e.y)) || !(zMax > std::fabs(fz - e.z))) continue;
            // Within maxLineSkipNum lines no x test is made.
            if (lineGap(fLine, e.lastLine) >= skip && !(xMax > std::fabs(fx - e.x))) continue;
            if (!pa_detail::treeTypeAccepts(e.type, fType)) continue;
            SHX_featureTree& t = trees_[e.tree];
            t.eLineIdx = line;
            t.treeNodes.push_back(f);
            t.treeValue += f.featureValue;
            e.lastLine = fLine;
            e.x = fx;
            e.y = fy;
            e.z = fz;
            return;
        }
        seed(f, line);
    }

    // Closing step after a line: a growing tree is closed when it has gone
    // more than maxLineSkipNum lines without a node (only when that is
    // positive) or when this is the last line. Closed trees leave the open
    // list; those failing the keep test are marked for removal.
    void closeLine(int32_t line, bool lastLine) {
        const int64_t skip = param_.maxLineSkipNum;
        const bool closeBySkip = skip > 0;
        size_t w = 0;
        for (size_t r = 0; r < open_.size(); ++r) {
            const OpenTree& e = open_[r];
            const bool closing = e.closable && (lastLine || (closeBySkip && lineGap(line, e.lastLine) > skip));
            if (!closing) {
                open_[w++] = e;
                continue;
            }
            SHX_featureTree& t = trees_[e.tree];
            t.treeState = kStateClosed;
            if (!keepClosedTree(t, param_)) {
                dropped_[e.tree] = 1;
                anyDropped_ = true;
            }
        }
        open_.resize(w);
    }

    // Removes the marked trees in one stable pass.
    void finish() {
        if (!anyDropped_) return;
        size_t w = 0;
        for (size_t r = 0; r < trees_.size(); ++r) {
            if (dropped_[r]) continue;
            if (w != r) trees_[w] = std::move(trees_[r]);
            ++w;
        }
        trees_.erase(trees_.begin() + static_cast<std::ptrdiff_t>(w), trees_.end());
        anyDropped_ = false;
        dropped_.assign(trees_.size(), 0);
    }

private:
    // A tree that can still take nodes, with a copy of its last node so that
    // matching reads one compact array.
    struct OpenTree {
        size_t tree;
        int32_t type;
        int32_t lastLine;
        bool closable;
        double x, y, z;
    };

    static OpenTree openEntry(size_t tree, int32_t type, bool closable, const SHX_basicFeature1D& last) {
        return OpenTree{tree, type, last.lineIdx, closable, last.featurePos.x, last.featurePos.y, last.featurePos.z};
    }

    void seed(const SHX_basicFeature1D& f, int32_t line) {
        SHX_featureTree t;
        t.treeState = kStateGrowing;
        t.treeType = f.featureType;
        t.sLineIdx = line;
        t.eLineIdx = line;
        t.treeValue = seedTakesValue_ ? f.featureValue : 0.0;
        t.xRange = SKespRangeD{0.0, 0.0};
        t.yRange = SKespRangeD{0.0, 0.0};
        t.treeNodes.push_back(f);
        trees_.push_back(std::move(t));
        dropped_.push_back(0);
        open_.push_back(openEntry(trees_.size() - 1, f.featureType, true, f));
    }

    std::vector<SHX_featureTree>& trees_;
    const SHX_treeGrowParam param_;
    const bool seedTakesValue_;
    std::vector<OpenTree> open_;  // ascending tree index
    std::vector<char> dropped_;   // per tree: failed the keep test
    bool anyDropped_ = false;
};

}  // namespace

PA_API void hx_getFeatureGrowingTrees(const std::vector<SHX_lineFeature>& lineFeatures,
                                      std::vector<SHX_featureTree>& trees, SHX_treeGrowParam growParam) {
    if (lineFeatures.empty()) return;
    TreeGrower grower(trees, growParam, false);
    const size_t n = lineFeatures.size();
    for (size_t i = 0; i < n; ++i) {
        const SHX_lineFeature& lf = lineFeatures[i];
        for (const SHX_basicFeature1D& f : lf.features) grower.offer(f, lf.lineIdx);
        grower.closeLine(lf.lineIdx, i + 1 == n);
    }
    grower.finish();
}

PA_API void hx_lineFeaturesGrowing(int32_t lineIdx, bool isLastLine, const std::vector<SHX_basicFeature1D>& lineFeatures,
                                   std::vector<SHX_featureTree>& trees, SHX_treeGrowParam growParam) {
    TreeGrower grower(trees, growParam, true);
    for (const SHX_basicFeature1D& f : lineFeatures) grower.offer(f, lineIdx);
    grower.closeLine(lineIdx, isLastLine);
    grower.finish();
}

PA_API void hx_getEndingGrowingTrees(const std::vector<SHX_2DValueI>& endings, const SKesp3DLaserLine* scanLines,
                                     bool lineWise, int32_t featureType, std::vector<SHX_featureTree>& trees,
                                     SHX_treeGrowParam growParam) {
    if (endings.empty() || scanLines == nullptr) return;
    TreeGrower grower(trees, growParam, false);
    const size_t n = endings.size();
    for (size_t i = 0; i < n; ++i) {
        const SHX_2DValueI& p = endings[i];
        if (const SKesp3DPosition* point = pointAt(scanLines, p, lineWise))
            grower.offer(featureFromPosition(p, *point, lineWise, featureType), p.x);
        grower.closeLine(p.x, i + 1 == n);
    }
    grower.finish();
}

PA_API void hx_peakFeatureGrowing(const std::vector<std::vector<SHX_basicFeature1D>>& lineFeatures,
                                  std::vector<SHX_featureTree>& trees, SHX_treeGrowParam growParam) {
    if (lineFeatures.empty()) return;
    TreeGrower grower(trees, growParam, false);
    const size_t n = lineFeatures.size();
    for (size_t i = 0; i < n; ++i) {
        const int32_t line = static_cast<int32_t>(i);
        for (const SHX_basicFeature1D& f : lineFeatures[i]) grower.offer(f, line);
        grower.closeLine(line, i + 1 == n);
    }
    grower.finish();
    for (SHX_featureTree& t : trees) pa_detail::setTreeRegion(t);
}
