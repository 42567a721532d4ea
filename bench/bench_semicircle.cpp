// Upper semicircles: the per-line detector beside the local-peak pass it is
// built on, and the tracker over a long scan beside the copying it needs.
#include <cmath>

#include "bench_util.h"

namespace {

constexpr int kDetLines = 500;
constexpr int kPoints = 2048;
constexpr int kBars = 8;
constexpr int kBarPoints = 120;  // 12 length units at a point pitch of 0.1
constexpr int kTrackLines = 5000;

// Lines with kBars round bars on an invalidated floor, with a little noise.
// Every second bar is split by a short occlusion that the label image bridges,
// so that the merging step runs too. Point j has y = j * 0.1.
struct BarScan {
    std::vector<std::vector<SKesp3DPosition>> lines;
    cv::Mat labels;  // kPoints + 1 rows, one column per line
};

BarScan makeBarScan(int lineCount) {
    BarScan s;
    s.lines.resize(static_cast<size_t>(lineCount));
    s.labels = cv::Mat(kPoints + 1, lineCount, CV_32S, cv::Scalar(0));
    uint32_t seed = 7;
    auto noise = [&seed]() {
        seed = seed * 1664525u + 1013904223u;
        return (static_cast<double>(seed >> 8) / 16777216.0 - 0.5) * 0.02;
    };
    const double radius = kBarPoints * 0.1 / 2.0;
    for (int l = 0; l < lineCount; ++l) {
        auto& line = s.lines[static_cast<size_t>(l)];
        line.resize(kPoints);
        for (int j = 0; j < kPoints; ++j) line[static_cast<size_t>(j)] = SKesp3DPosition{j, l * 0.2, j * 0.1, 0.0};
        const int drift = (l / 50) % 20;
        for (int b = 0; b < kBars; ++b) {
            const int first = 40 + b * (kPoints / kBars) + drift;
            const double centre = (first + kBarPoints / 2) * 0.1;
            for (int j = first; j < first + kBarPoints; ++j) {
                const double d = j * 0.1 - centre;
                const double h = std::sqrt(std::max(0.0, radius * radius - d * d));
                line[static_cast<size_t>(j)].z = 100.0 - h + noise();
                s.labels.at<int32_t>(j, l) = 2 + b;
            }
            if (b % 2 == 1) {
                for (int j = first + 50; j < first + 56; ++j) line[static_cast<size_t>(j)].z = 0.0;
            }
        }
    }
    return s;
}

BarScan& detScan() {
    static BarScan s = makeBarScan(kDetLines);
    return s;
}

SHX_slopeParam barSlope() {
    SHX_slopeParam p;
    p.slopeRangeY = 1.0;
    p.maxGapY = 0.3;
    return p;
}

constexpr double kMaxHalfWidth = 4.0;

// Baseline: read every point once (the memory limit of a pass over the lines).
void BM_Baseline_ReadBarLines(benchmark::State& state) {
    BarScan& s = detScan();
    for (auto _ : state) {
        double sum = 0;
        for (const auto& line : s.lines) sum += benchutil::plainReadPass(line.data(), kPoints);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kDetLines) * kPoints);
}
BENCHMARK(BM_Baseline_ReadBarLines)->Unit(benchmark::kMillisecond);

// Baseline: the local-peak pass over each whole line (the detector runs it on
// every run of valid points).
void BM_Baseline_LocalPeaksPerLine(benchmark::State& state) {
    BarScan& s = detScan();
    std::vector<SHX_basicFeature1D> peaks, valleys;
    for (auto _ : state) {
        for (int l = 0; l < kDetLines; ++l) {
            peaks.clear();
            valleys.clear();
            hx_getLineLocalPeaks(s.lines[static_cast<size_t>(l)].data(), kPoints, l, barSlope().slopeRangeY, peaks,
                                 valleys);
            benchmark::DoNotOptimize(valleys.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kDetLines) * kPoints);
}
BENCHMARK(BM_Baseline_LocalPeaksPerLine)->Unit(benchmark::kMillisecond);

void BM_hx_getLineUpperSemiCircleFeature(benchmark::State& state) {
    BarScan& s = detScan();
    std::vector<SHX_featureSemiCircle> features;
    features.reserve(kBars);
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (int l = 0; l < kDetLines; ++l) {
            features.clear();
            hx_getLineUpperSemiCircleFeature(s.lines[static_cast<size_t>(l)].data(), kPoints, l, kMaxHalfWidth,
                                             barSlope(), features, s.labels);
            found += features.size();
            benchmark::DoNotOptimize(features.data());
        }
    }
    state.counters["perLine"] = static_cast<double>(found) / kDetLines;
    state.SetItemsProcessed(state.iterations() * int64_t(kDetLines) * kPoints);
}
BENCHMARK(BM_hx_getLineUpperSemiCircleFeature)->Unit(benchmark::kMillisecond);

// Features of a long scan: kBars semicircles per line drifting slowly in y,
// with one line in 40 missing a bar.
std::vector<std::vector<SHX_featureSemiCircle>>& trackFeatures() {
    static std::vector<std::vector<SHX_featureSemiCircle>> all = [] {
        std::vector<std::vector<SHX_featureSemiCircle>> v(kTrackLines);
        for (int l = 0; l < kTrackLines; ++l) {
            for (int b = 0; b < kBars; ++b) {
                if ((l + 5 * b) % 40 == 0) continue;
                SHX_featureSemiCircle f;
                f.lineIdx = l;
                f.x = l * 0.2;
                f.y = 10.0 + b * 25.0 + 0.002 * l + 0.05 * std::sin(l * 0.3);
                f.z = 94.0;
                f.width = 12.0;
                f.topZ = 94.0;
                f.startPtIdx = 40 + b * 256;
                f.endPtIdx = f.startPtIdx + 119;
                f.peakPtIdx = f.startPtIdx + 60;
                v[static_cast<size_t>(l)].push_back(f);
            }
        }
        return v;
    }();
    return all;
}

SHX_treeGrowParam trackParam() {
    SHX_treeGrowParam p;
    p.yDeviation_max = 2.0;
    p.maxLineSkipNum = 5;
    p.xDeviation_max = 1.0;
    p.minVTypeTreeLen = 50.0;
    return p;
}

// Baseline: the least work of the same shape as tracking: hand every line's
// features over in a working copy (the tracker marks the features it uses up)
// and append each to the node vector of its bar, as the trees store them.
void BM_Baseline_StoreNodesPerBar(benchmark::State& state) {
    auto& all = trackFeatures();
    std::vector<SHX_featureSemiCircle> work;
    work.reserve(kBars);
    for (auto _ : state) {
        std::vector<std::vector<SHX_featureSemiCircle>> nodes(kBars);
        for (const auto& line : all) {
            work.assign(line.begin(), line.end());
            for (const auto& f : work) nodes[static_cast<size_t>(f.startPtIdx / 256)].push_back(f);
        }
        benchmark::DoNotOptimize(nodes.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kTrackLines));
}
BENCHMARK(BM_Baseline_StoreNodesPerBar)->Unit(benchmark::kMillisecond);

void BM_hx_getFeatureGrowingTrees_semiCircle(benchmark::State& state) {
    auto& all = trackFeatures();
    std::vector<SHX_featureSemiCircle> work;
    work.reserve(kBars);
    std::vector<SHX_semiCircleFeatureTree> trees, valid, shorts;
    for (auto _ : state) {
        trees.clear();
        valid.clear();
        shorts.clear();
        for (int l = 0; l < kTrackLines; ++l) {
            const auto& line = all[static_cast<size_t>(l)];
            work.assign(line.begin(), line.end());
            hx_getFeatureGrowingTrees_semiCircle(work, l, kTrackLines, trees, valid, shorts, trackParam());
        }
        benchmark::DoNotOptimize(valid.data());
    }
    state.counters["validTrees"] = static_cast<double>(valid.size());
    state.SetItemsProcessed(state.iterations() * int64_t(kTrackLines));
}
BENCHMARK(BM_hx_getFeatureGrowingTrees_semiCircle)->Unit(benchmark::kMillisecond);

}  // namespace
