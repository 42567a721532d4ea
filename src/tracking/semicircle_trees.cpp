// Tracking of upper semicircles from scan line to scan line.
//
// The caller feeds one line at a time; growing trees live in the caller's
// working vector between calls, and every tree that stops growing is moved out
// into the long or the short result vector.
#include <cmath>
#include <cstdlib>
#include <utility>

#include "internal.h"

namespace {

// A feature of this type is used up: merged by the detector or consumed by
// crowding. Tracking ignores it.
constexpr int32_t kUsedUpType = 5;
// Caller-set types that always start a tree of their own.
constexpr int32_t kSeedTypeA = 1;
constexpr int32_t kSeedTypeB = 3;
// A tree whose last node carries one of these types takes nothing more.
constexpr int32_t kEndTypeA = 2;
constexpr int32_t kEndTypeB = 4;

constexpr int32_t kGrowing = 1;
constexpr int32_t kClosed = 2;

// Line distances in 64 bits, so that far-apart indices cannot overflow.
int64_t lineGap(int32_t a, int32_t b) { return std::llabs(static_cast<int64_t>(a) - b); }

// The matching limits of one tree end, hoisted out of the feature loops.
struct TreeEnd {
    const SHX_featureSemiCircle* last;
    double yMax;
    double xMax;
    int32_t maxLineSkip;

    // Position test shared by acceptance and crowding: close in y, and either a
    // short line gap or close in x.
    bool near(const SHX_featureSemiCircle& g) const {
        if (!(yMax > std::fabs(g.y - last->y))) return false;
        return lineGap(g.lineIdx, last->lineIdx) < maxLineSkip || xMax > std::fabs(g.x - last->x);
    }

    bool accepts(const SHX_semiCircleFeatureTree& t, const SHX_featureSemiCircle& f) const {
        if (t.treeState == kClosed) return false;
        if (last->lineIdx == f.lineIdx) return false;
        if (last->featureType == kEndTypeA || last->featureType == kEndTypeB) return false;
        return near(f);
    }
};

TreeEnd treeEnd(const SHX_semiCircleFeatureTree& t, const SHX_treeGrowParam& p) {
    return TreeEnd{&t.treeNodes.back(), p.yDeviation_max, p.xDeviation_max, p.maxLineSkipNum};
}

void seedTree(std::vector<SHX_semiCircleFeatureTree>& trees, const SHX_featureSemiCircle& f) {
    SHX_semiCircleFeatureTree t;  // the caller's fields stay zero
    t.treeState = kGrowing;
    t.treeType = 0;
    t.sLineIdx = f.lineIdx;
    t.eLineIdx = f.lineIdx;
    t.treeNodes.push_back(f);
    trees.push_back(std::move(t));
}

void appendNode(SHX_semiCircleFeatureTree& t, const SHX_featureSemiCircle& f) {
    t.eLineIdx = f.lineIdx;
    t.treeNodes.push_back(f);
}

// First tree in vector order that accepts f, or -1. Trees without nodes are
// outside the contract and take nothing.
int64_t findAcceptingTree(const std::vector<SHX_semiCircleFeatureTree>& trees, const SHX_featureSemiCircle& f,
                          const SHX_treeGrowParam& p) {
    for (size_t k = 0; k < trees.size(); ++k) {
        const SHX_semiCircleFeatureTree& t = trees[k];
        if (t.treeNodes.empty()) continue;
        if (treeEnd(t, p).accepts(t, f)) return static_cast<int64_t>(k);
    }
    return -1;
}

// Feature i fits tree t. When the features right after it on the line fit the
// same tree end too, the one nearest in y wins (the earlier on ties) and all of
// them are used up, so that a crowd of features feeds one tree once.
void joinWithCrowding(std::vector<SHX_featureSemiCircle>& feats, size_t i, SHX_semiCircleFeatureTree& t,
                      const SHX_treeGrowParam& p) {
    const TreeEnd end = treeEnd(t, p);
    const double lastY = end.last->y;
    size_t stop = i + 1;  // one past the last crowding feature
    while (stop < feats.size() && end.near(feats[stop])) ++stop;

    size_t winner = i;
    double best = std::fabs(feats[i].y - lastY);
    for (size_t j = i + 1; j < stop; ++j) {
        const double d = std::fabs(feats[j].y - lastY);
        if (d < best) {
            best = d;
            winner = j;
        }
    }
    appendNode(t, feats[winner]);  // invalidates `end`: not used below
    if (stop == i + 1) return;
    for (size_t j = i; j < stop; ++j) feats[j].featureType = kUsedUpType;
}

double treeLength(const SHX_semiCircleFeatureTree& t) {
    const SHX_featureSemiCircle& a = t.treeNodes.front();
    const SHX_featureSemiCircle& b = t.treeNodes.back();
    const double dx = b.x - a.x, dy = b.y - a.y;
    return std::sqrt(dx * dx + dy * dy);
}

bool closesNow(const SHX_semiCircleFeatureTree& t, int32_t lineIdx, int32_t lineNum, int32_t maxLineSkip) {
    if (t.treeState != kGrowing) return false;
    if (static_cast<int64_t>(lineIdx) == static_cast<int64_t>(lineNum) - 1) return true;
    // A tree without nodes (outside the contract) closes at the end of the scan only.
    if (maxLineSkip <= 0 || t.treeNodes.empty()) return false;
    return lineGap(lineIdx, t.treeNodes.back().lineIdx) > maxLineSkip;
}

// Moves the trees that stop growing into the result vectors, visiting the
// working vector from back to front; the others keep their order.
void closeTrees(std::vector<SHX_semiCircleFeatureTree>& trees, int32_t lineIdx, int32_t lineNum,
                std::vector<SHX_semiCircleFeatureTree>& validTrees, std::vector<SHX_semiCircleFeatureTree>& shortTrees,
                const SHX_treeGrowParam& p) {
    size_t firstClosed = trees.size();
    std::vector<char> closed;  // allocated only on a line where some tree closes
    for (size_t k = trees.size(); k-- > 0;) {
        SHX_semiCircleFeatureTree& t = trees[k];
        if (!closesNow(t, lineIdx, lineNum, p.maxLineSkipNum)) continue;
        if (closed.empty()) closed.assign(trees.size(), 0);
        closed[k] = 1;
        firstClosed = k;
        t.treeState = kClosed;
        const bool isLong = !t.treeNodes.empty() && treeLength(t) > p.minVTypeTreeLen;
        (isLong ? validTrees : shortTrees).push_back(std::move(t));
    }
    if (closed.empty()) return;
    // Stable compaction instead of one erase per closed tree.
    size_t out = firstClosed;
    for (size_t k = firstClosed; k < trees.size(); ++k) {
        if (closed[k]) continue;
        trees[out++] = std::move(trees[k]);
    }
    trees.resize(out);
}

}  // namespace

PA_API void hx_getFeatureGrowingTrees_semiCircle(std::vector<SHX_featureSemiCircle>& lineFeatures, int32_t lineIdx,
                                                 int32_t lineNum, std::vector<SHX_semiCircleFeatureTree>& trees,
                                                 std::vector<SHX_semiCircleFeatureTree>& validTrees,
                                                 std::vector<SHX_semiCircleFeatureTree>& shortTrees,
                                                 SHX_treeGrowParam growParam) {
    for (size_t i = 0; i < lineFeatures.size(); ++i) {
        const SHX_featureSemiCircle& f = lineFeatures[i];
        if (f.featureType == kUsedUpType) continue;
        if (f.featureType == kSeedTypeA || f.featureType == kSeedTypeB) {
            seedTree(trees, f);
            continue;
        }
        const int64_t k = findAcceptingTree(trees, f, growParam);
        if (k < 0) {
            seedTree(trees, f);
            continue;
        }
        joinWithCrowding(lineFeatures, i, trees[static_cast<size_t>(k)], growParam);
    }
    closeTrees(trees, lineIdx, lineNum, validTrees, shortTrees, growParam);
}
