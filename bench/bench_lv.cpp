// L/V detector beside a plain read pass over the same profiles.
#include <cmath>
#include <cstdlib>

#include "bench_util.h"

namespace {

constexpr int kPoints = 2048;
constexpr int kDetectLines = 500;

const SHX_slopeParam kSlope{0.0, 1.0, 3.0, 1.0};
const SHX_VFeatureParam kVParam{1.0, 1.5};

// One profile of a part on a floor (y = j * 0.1, z grows downwards): V grooves
// 8 deep, a raised plate and a channel between steps of 6, a little noise, a
// few runs of missing points, all drifting slowly with the line index.
void makeLVProfile(int line, std::vector<SKesp3DPosition>& pts, uint32_t& seed) {
    pts.resize(kPoints);
    const int shift = (line / 50) % 7;  // the features wander a little across lines
    for (int j = 0; j < kPoints; ++j) {
        seed = seed * 1664525u + 1013904223u;
        const double noise = (static_cast<double>(seed >> 8) / 16777216.0 - 0.5) * 0.02;
        const int k = j - shift;
        double z = 100.0 + 0.001 * j;
        for (int centre : {200, 700, 1300, 1800}) {  // V grooves, 40 points wide
            const int d = std::abs(k - centre);
            if (d < 20) z += 8.0 * (20 - d) / 20.0;
        }
        if (k >= 400 && k < 550) z -= 6.0;    // raised plate
        if (k >= 1000 && k < 1150) z += 6.0;  // channel
        z += noise;
        if ((j + 3 * line) % 331 < 3) z = 0.0;
        pts[static_cast<size_t>(j)] = SKesp3DPosition{j, line * 0.5, j * 0.1, z};
    }
}

std::vector<std::vector<SKesp3DPosition>>& detectScan() {
    static std::vector<std::vector<SKesp3DPosition>> scan = [] {
        std::vector<std::vector<SKesp3DPosition>> s(kDetectLines);
        uint32_t seed = 1;
        for (int i = 0; i < kDetectLines; ++i) makeLVProfile(i, s[static_cast<size_t>(i)], seed);
        return s;
    }();
    return scan;
}

void BM_Baseline_ReadSumXYZ_LV(benchmark::State& state) {
    auto& scan = detectScan();
    for (auto _ : state) {
        double sum = 0;
        for (const auto& line : scan) sum += benchutil::plainReadPass(line.data(), kPoints);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kDetectLines) * kPoints);
}
BENCHMARK(BM_Baseline_ReadSumXYZ_LV)->Unit(benchmark::kMicrosecond);

void BM_hx_getLineLVFeature(benchmark::State& state) {
    auto& scan = detectScan();
    SHX_lineFeature lf;
    size_t found = 0;
    for (auto _ : state) {
        for (int i = 0; i < kDetectLines; ++i) {
            lf.features.clear();
            lf.endings.clear();
            hx_getLineLVFeature(scan[static_cast<size_t>(i)].data(), kPoints, i, kSlope, kVParam, &lf);
            found += lf.features.size();
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kDetectLines) * kPoints);
    state.counters["features/line"] = static_cast<double>(lf.features.size());
    state.counters["endings/line"] = static_cast<double>(lf.endings.size());
}
BENCHMARK(BM_hx_getLineLVFeature)->Unit(benchmark::kMicrosecond);

// ---- Growing over a 5,000-line scan of such profiles ----

constexpr int kGrowLines = 5000;
const SHX_treeGrowParam kGrow{1.0, 2.0, 5, 5.0, 5.0, 5.0};
const SHX_bagParam kBag{100.0, 40.0};

// The detector's results for every line (the profiles are made one at a time).
const std::vector<SHX_lineFeature>& growScan() {
    static const std::vector<SHX_lineFeature> lines = [] {
        std::vector<SHX_lineFeature> v(kGrowLines);
        std::vector<SKesp3DPosition> pts;
        uint32_t seed = 7;
        for (int i = 0; i < kGrowLines; ++i) {
            makeLVProfile(i, pts, seed);
            v[static_cast<size_t>(i)].lineIdx = i;
            hx_getLineLVFeature(pts.data(), kPoints, i, kSlope, kVParam, &v[static_cast<size_t>(i)]);
        }
        return v;
    }();
    return lines;
}

// Baseline: the tree growing that the L/V growing starts with, on the same
// fresh copy of the lines (so both read memory laid out alike).
void BM_Baseline_FeatureGrowingTrees_LV(benchmark::State& state) {
    std::vector<SHX_lineFeature> lines;
    std::vector<SHX_featureTree> trees;
    for (auto _ : state) {
        state.PauseTiming();
        lines = growScan();
        trees.clear();
        state.ResumeTiming();
        hx_getFeatureGrowingTrees(lines, trees, kGrow);
        benchmark::DoNotOptimize(trees.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kGrowLines));
    state.counters["trees"] = static_cast<double>(trees.size());
}
BENCHMARK(BM_Baseline_FeatureGrowingTrees_LV)->Unit(benchmark::kMillisecond);

void BM_hx_LVFeatureGrowing(benchmark::State& state) {
    std::vector<SHX_lineFeature> lines;
    std::vector<SHX_featureTree> trees;
    std::vector<SHX_2DValueI> starts, ends;
    for (auto _ : state) {
        state.PauseTiming();  // the routine retypes endings in place: start from the detector's output
        lines = growScan();
        trees.clear();
        starts.clear();
        ends.clear();
        state.ResumeTiming();
        hx_LVFeatureGrowing(lines, trees, kBag, kGrow, starts, ends);
        benchmark::DoNotOptimize(trees.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kGrowLines));
    state.counters["trees"] = static_cast<double>(trees.size());
    state.counters["freeEnds"] = static_cast<double>(starts.size() + ends.size());
}
BENCHMARK(BM_hx_LVFeatureGrowing)->Unit(benchmark::kMillisecond);

}  // namespace
