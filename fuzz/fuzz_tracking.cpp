// Feature tracking: tree growing, L/V growing and semicircle trees over a
// fuzzed scan of features.
#include "fuzz_util.h"

using Features = std::vector<SHX_basicFeature1D>;

namespace {

SHX_basicFeature1D feature(fuzz::Input& in, int32_t lineIdx) {
    SHX_basicFeature1D f;
    f.featureType = in.hostile() ? in.integer(-2, 18) : in.integer(1, 15);
    f.lineIdx = lineIdx;
    f.featurePos.nPointIdx = in.integer(0, 60);
    f.featurePos.x = lineIdx + in.real(-0.5, 0.5);
    f.featurePos.y = in.real(-20.0, 20.0);
    f.featurePos.z = in.real(0.0, 20.0);
    f.featureValue = in.real(-2.0, 2.0);
    return f;
}

SHX_treeGrowParam growParam(fuzz::Input& in) {
    SHX_treeGrowParam g;
    g.yDeviation_max = in.real(0.0, 6.0);
    g.zDeviation_max = in.real(0.0, 6.0);
    g.maxLineSkipNum = in.hostile() ? in.wide(-3, 8) : in.integer(0, 5);
    g.xDeviation_max = in.real(0.0, 6.0);
    g.minLTypeTreeLen = in.real(0.0, 10.0);
    g.minVTypeTreeLen = in.real(0.0, 10.0);
    return g;
}

// Trees the caller already holds: in contract grown trees with nodes; out of
// contract also trees without nodes and in states other than 1 and 2.
std::vector<SHX_featureTree> heldTrees(fuzz::Input& in) {
    std::vector<SHX_featureTree> trees(in.integer(0, 2));
    for (SHX_featureTree& t : trees) {
        t.treeState = in.hostile() ? in.integer(-1, 3) : in.integer(1, 2);
        const int nodes = in.hostile() ? in.integer(0, 3) : in.integer(1, 3);
        for (int k = 0; k < nodes; ++k) t.treeNodes.push_back(feature(in, k));
        t.treeType = t.treeNodes.empty() ? in.integer(0, 15) : t.treeNodes[0].featureType;
        t.eLineIdx = nodes;
    }
    return trees;
}

// Nodes of a grown tree lie on increasing lines (one per line at most); trees
// in state 1 or 2 that came from the call have nodes.
void checkTrees(const std::vector<SHX_featureTree>& trees, bool nodesPromised) {
    for (const SHX_featureTree& t : trees) {
        if (nodesPromised) FUZZ_CHECK(!t.treeNodes.empty());
        for (size_t k = 1; k < t.treeNodes.size() && nodesPromised; ++k)
            FUZZ_CHECK(t.treeNodes[k].lineIdx != t.treeNodes[k - 1].lineIdx);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int routine = in.integer(0, 5);
    const int32_t lines = in.integer(0, 40);
    std::vector<SHX_lineFeature> scan(static_cast<size_t>(lines));
    for (int32_t i = 0; i < lines; ++i) {
        scan[i].lineIdx = in.hostile() && in.integer(0, 7) == 0 ? in.wide(-5, 50) : i;
        const int nf = in.integer(0, 4);
        for (int k = 0; k < nf; ++k) scan[i].features.push_back(feature(in, scan[i].lineIdx));
        if (in.flag())
            for (int type : {6, 7}) {  // a segment start and end
                scan[i].endings.push_back(feature(in, scan[i].lineIdx));
                scan[i].endings.back().featureType = type;
            }
    }
    const SHX_treeGrowParam param = growParam(in);
    std::vector<SHX_featureTree> trees = heldTrees(in);
    const bool fresh = trees.empty() && !in.hostile();
    switch (routine) {
        case 0:
            hx_getFeatureGrowingTrees(scan, trees, param);
            checkTrees(trees, fresh);
            break;
        case 1:
            for (int32_t i = 0; i < lines; ++i) hx_lineFeaturesGrowing(i, i + 1 == lines, scan[i].features, trees, param);
            checkTrees(trees, fresh);
            break;
        case 2: {
            std::vector<std::vector<SHX_basicFeature1D>> perLine(scan.size());
            for (size_t i = 0; i < scan.size(); ++i) perLine[i] = scan[i].features;
            hx_peakFeatureGrowing(perLine, trees, param);
            checkTrees(trees, fresh);
            for (const SHX_featureTree& t : trees)
                if (t.treeNodes.empty()) FUZZ_CHECK(t.xRange.min == 0.0 && t.xRange.max == 0.0);
            break;
        }
        case 3: {
            // Grid positions sorted by x into a scan of point lines.
            std::vector<std::vector<SKesp3DPosition>> pts(static_cast<size_t>(lines));
            for (size_t i = 0; i < pts.size(); ++i) pts[i] = in.profile(24, static_cast<double>(i));
            const std::vector<SKesp3DLaserLine> laser = fuzz::linesOf(pts);
            const bool lineWise = in.flag();
            std::vector<SHX_2DValueI> ends(in.integer(0, 30));
            int32_t x = in.hostile() ? -2 : 0;
            for (SHX_2DValueI& e : ends) {
                x += in.integer(0, 2);
                e.x = x;
                e.y = in.hostile() ? in.integer(-2, 30) : in.integer(0, 23);
            }
            // In contract every position names an existing point.
            const auto exists = [&](int32_t line, int32_t point) {
                return line >= 0 && line < lines && point >= 0 && point < laser[line].nPositionCnt;
            };
            for (SHX_2DValueI& e : ends)
                if (!in.hostile() && !(lineWise ? exists(e.x, e.y) : exists(e.y, e.x))) e.x = e.y = 0;
            bool inScan = true;  // no position may name a line past the scan
            for (const SHX_2DValueI& e : ends) inScan &= (lineWise ? e.x : e.y) < lines;
            if (!inScan || (!in.hostile() && !ends.empty() && !exists(0, 0))) break;
            hx_getEndingGrowingTrees(ends, laser.empty() ? nullptr : laser.data(), lineWise, in.integer(1, 15), trees,
                                     param);
            checkTrees(trees, fresh);
            break;
        }
        case 4: {
            const SHX_bagParam bag{in.real(0.0, 40.0), in.real(0.0, 40.0)};
            std::vector<SHX_2DValueI> starts, ends;
            hx_LVFeatureGrowing(scan, trees, bag, param, starts, ends);
            for (const SHX_2DValueI& s : starts) FUZZ_CHECK(s.featureType == 6);
            for (const SHX_2DValueI& e : ends) FUZZ_CHECK(e.featureType == 7);
            break;
        }
        default: {
            std::vector<SHX_semiCircleFeatureTree> work, valid, shortTrees;
            size_t offered = 0;
            for (int32_t i = 0; i < lines; ++i) {
                std::vector<SHX_featureSemiCircle> fs(in.integer(0, 3));
                for (SHX_featureSemiCircle& f : fs) {
                    f.featureType = in.hostile() ? in.integer(-1, 6) : in.integer(0, 5);
                    f.lineIdx = i;
                    f.x = i + in.real(-0.5, 0.5);
                    f.y = in.real(-20.0, 20.0);
                    f.z = in.real(0.0, 20.0);
                    offered += f.featureType != 5;
                }
                const int32_t lineIdx = in.hostile() && in.integer(0, 7) == 0 ? in.wide(0, lines) : i;
                hx_getFeatureGrowingTrees_semiCircle(fs, lineIdx, in.hostile() ? in.wide(lines, lines) : lines, work,
                                                     valid, shortTrees, param);
            }
            if (!in.hostile()) FUZZ_CHECK(work.empty() || lines == 0);
            size_t nodes = 0;
            for (const auto* v : {&valid, &shortTrees})
                for (const SHX_semiCircleFeatureTree& t : *v) {
                    FUZZ_CHECK(t.treeState == 2 && !t.treeNodes.empty());
                    nodes += t.treeNodes.size();
                }
            FUZZ_CHECK(nodes <= offered);
            break;
        }
    }
    return 0;
}
