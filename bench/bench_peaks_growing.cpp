// Local peaks and down jumps beside a plain read pass over the same profiles;
// tree growing over long scans, whose cost must grow with the scan length
// only, not with the number of trees already closed.
#include <cmath>
#include <cstdlib>

#include "bench_util.h"

namespace {

// ---------------------------------------------------------------------------
// Per-line detectors on realistic 2,048-point profiles
// ---------------------------------------------------------------------------

constexpr int kProfileLines = 500;
constexpr int kProfilePoints = 2048;
constexpr double kPeakRangeY = 1.0;     // ten point pitches
constexpr double kJumpThreshold = 2.0;  // the scan's ridges and grooves step by 6 to 8

std::vector<std::vector<SKesp3DPosition>>& profiles() {
    static auto s = benchutil::makeScan(kProfileLines, kProfilePoints, 3);
    return s;
}

void setPointCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kProfileLines) * kProfilePoints);
}

void BM_Peaks_Baseline_ReadPass(benchmark::State& state) {
    auto lines = benchutil::linesOf(profiles());
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    setPointCounters(state);
}
BENCHMARK(BM_Peaks_Baseline_ReadPass)->Unit(benchmark::kMicrosecond);

// The output vectors are cleared per line and reused, as a caller would.
void BM_hx_getLineLocalPeaks(benchmark::State& state) {
    auto lines = benchutil::linesOf(profiles());
    std::vector<SHX_basicFeature1D> peaks, valleys;
    size_t found = 0;
    for (auto _ : state) {
        for (int32_t i = 0; i < kProfileLines; ++i) {
            peaks.clear();
            valleys.clear();
            hx_getLineLocalPeaks(lines[i].p3DPosition, lines[i].nPositionCnt, i, kPeakRangeY, peaks, valleys);
            found += peaks.size() + valleys.size();
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["features/line"] = static_cast<double>(found) / (double(state.iterations()) * kProfileLines);
    setPointCounters(state);
}
BENCHMARK(BM_hx_getLineLocalPeaks)->Unit(benchmark::kMicrosecond);

void BM_hx_getLineDownJumps(benchmark::State& state) {
    auto lines = benchutil::linesOf(profiles());
    std::vector<SHX_basicFeature1D> jumps;
    size_t found = 0;
    for (auto _ : state) {
        for (int32_t i = 0; i < kProfileLines; ++i) {
            jumps.clear();
            hx_getLineDownJumps(lines[i].p3DPosition, lines[i].nPositionCnt, i, kJumpThreshold, jumps);
            found += jumps.size();
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["features/line"] = static_cast<double>(found) / (double(state.iterations()) * kProfileLines);
    setPointCounters(state);
}
BENCHMARK(BM_hx_getLineDownJumps)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Tree growing over long scans
// ---------------------------------------------------------------------------

// Ten features per line, one per lane 10 apart along y. A lane carries one
// feature for 20 to 200 lines, pauses a few lines, then a new feature starts
// at another height, so a new tree is seeded and the old one closes.
constexpr int kLanes = 10;
constexpr double kLaneSpacingY = 10.0;
constexpr double kLinePitchX = 0.2;

SHX_treeGrowParam growParam() {
    SHX_treeGrowParam p;
    p.yDeviation_max = 1.0;
    p.zDeviation_max = 1.0;
    p.maxLineSkipNum = 5;
    p.xDeviation_max = 2.0;
    p.minLTypeTreeLen = 3.0;
    p.minVTypeTreeLen = 3.0;
    return p;
}

std::vector<std::vector<SHX_basicFeature1D>> makeFeatureScan(int lines) {
    std::vector<std::vector<SHX_basicFeature1D>> scan(static_cast<size_t>(lines));
    uint32_t s = 12345;
    auto next = [&s](int lo, int hi) {
        s = s * 1664525u + 1013904223u;
        return lo + static_cast<int>((s >> 8) % static_cast<uint32_t>(hi - lo + 1));
    };
    for (int lane = 0; lane < kLanes; ++lane) {
        int line = next(0, 10);
        double z = 10.0;
        while (line < lines) {
            const int life = next(20, 200);
            z = z > 40.0 ? 10.0 : z + 3.0;  // far from the previous feature's height
            const int type = lane % 2 == 0 ? 13 : 14;
            for (int i = line; i < line + life && i < lines; ++i) {
                SHX_basicFeature1D f;
                f.featureType = type;
                f.lineIdx = i;
                f.featurePos.nPointIdx = lane * 100;
                f.featurePos.x = i * kLinePitchX;
                f.featurePos.y = lane * kLaneSpacingY + 0.5 * std::sin(i * 0.05) + (next(0, 100) - 50) * 0.002;
                f.featurePos.z = z + (next(0, 100) - 50) * 0.002;
                f.featureValue = 1.0;
                scan[static_cast<size_t>(i)].push_back(f);
            }
            line += life + next(0, 8);
        }
    }
    // Features of a line in lane order, as a detector would list them along y.
    return scan;
}

const std::vector<std::vector<SHX_basicFeature1D>>& featureScan(int lines) {
    static auto small = makeFeatureScan(10000);
    static auto large = makeFeatureScan(100000);
    return lines == 10000 ? small : large;
}

std::vector<SHX_lineFeature> lineRecords(const std::vector<std::vector<SHX_basicFeature1D>>& scan) {
    std::vector<SHX_lineFeature> v(scan.size());
    for (size_t i = 0; i < scan.size(); ++i) {
        v[i].lineIdx = static_cast<int32_t>(i);
        v[i].features = scan[i];
    }
    return v;
}

void setGrowCounters(benchmark::State& state, const std::vector<std::vector<SHX_basicFeature1D>>& scan,
                     size_t trees) {
    size_t features = 0;
    for (const auto& l : scan) features += l.size();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(features));
    state.counters["lines"] = static_cast<double>(scan.size());
    state.counters["trees"] = static_cast<double>(trees);
}

void BM_hx_getFeatureGrowingTrees(benchmark::State& state) {
    const auto& scan = featureScan(static_cast<int>(state.range(0)));
    const std::vector<SHX_lineFeature> records = lineRecords(scan);
    std::vector<SHX_featureTree> trees;
    for (auto _ : state) {
        trees.clear();
        hx_getFeatureGrowingTrees(records, trees, growParam());
        benchmark::DoNotOptimize(trees.data());
    }
    setGrowCounters(state, scan, trees.size());
}
BENCHMARK(BM_hx_getFeatureGrowingTrees)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_hx_peakFeatureGrowing(benchmark::State& state) {
    const auto& scan = featureScan(static_cast<int>(state.range(0)));
    std::vector<SHX_featureTree> trees;
    for (auto _ : state) {
        trees.clear();
        hx_peakFeatureGrowing(scan, trees, growParam());
        benchmark::DoNotOptimize(trees.data());
    }
    setGrowCounters(state, scan, trees.size());
}
BENCHMARK(BM_hx_peakFeatureGrowing)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// For comparison: the same growing done plainly, every feature offered to
// every tree (closed ones skipped by their state) and failed trees erased at
// once. Its cost grows with the square of the scan length, so it runs on the
// short scan only. (The scan has no V features, so the V keep test is left out.)
bool plainAccepts(int32_t treeType, int32_t f) {
    if (treeType == 1 || treeType == 3) return f == 1 || f == 3;
    if (treeType == 2 || treeType == 4) return f == 2 || f == 4;
    if (treeType == 5) return f == 3 || f == 4 || f == 5;
    if (treeType == 6 || treeType == 7 || (treeType >= 9 && treeType <= 15)) return f == treeType;
    return false;
}

void plainGrowing(const std::vector<std::vector<SHX_basicFeature1D>>& scan, std::vector<SHX_featureTree>& trees,
                  const SHX_treeGrowParam& p) {
    for (size_t i = 0; i < scan.size(); ++i) {
        const int32_t L = static_cast<int32_t>(i);
        for (const SHX_basicFeature1D& f : scan[i]) {
            bool taken = false;
            for (SHX_featureTree& t : trees) {
                if (t.treeState == 2) continue;
                const SHX_basicFeature1D& last = t.treeNodes.back();
                if (f.lineIdx == last.lineIdx) continue;
                if (!(p.yDeviation_max > std::fabs(f.featurePos.y - last.featurePos.y))) continue;
                if (!(p.zDeviation_max > std::fabs(f.featurePos.z - last.featurePos.z))) continue;
                if (std::abs(f.lineIdx - last.lineIdx) >= p.maxLineSkipNum &&
                    !(p.xDeviation_max > std::fabs(f.featurePos.x - last.featurePos.x)))
                    continue;
                if (!plainAccepts(t.treeType, f.featureType)) continue;
                t.eLineIdx = L;
                t.treeNodes.push_back(f);
                t.treeValue += f.featureValue;
                taken = true;
                break;
            }
            if (!taken) {
                SHX_featureTree t;
                t.treeState = 1;
                t.treeType = f.featureType;
                t.sLineIdx = t.eLineIdx = L;
                t.treeNodes.push_back(f);
                trees.push_back(std::move(t));
            }
        }
        const bool lastLine = i + 1 == scan.size();
        for (size_t k = trees.size(); k-- > 0;) {
            SHX_featureTree& t = trees[k];
            if (t.treeState != 1) continue;
            if (!(lastLine || (p.maxLineSkipNum > 0 && std::abs(L - t.treeNodes.back().lineIdx) > p.maxLineSkipNum)))
                continue;
            t.treeState = 2;
            const auto& a = t.treeNodes.front().featurePos;
            const auto& b = t.treeNodes.back().featurePos;
            if (!(p.minLTypeTreeLen < std::sqrt((a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y))))
                trees.erase(trees.begin() + static_cast<std::ptrdiff_t>(k));
        }
    }
}

void BM_Growing_Baseline_PlainScanOfAllTrees(benchmark::State& state) {
    const auto& scan = featureScan(static_cast<int>(state.range(0)));
    std::vector<SHX_featureTree> trees;
    for (auto _ : state) {
        trees.clear();
        plainGrowing(scan, trees, growParam());
        benchmark::DoNotOptimize(trees.data());
    }
    setGrowCounters(state, scan, trees.size());
}
BENCHMARK(BM_Growing_Baseline_PlainScanOfAllTrees)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
