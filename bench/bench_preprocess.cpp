// Profile preprocessing beside plain copies of the same lines and beside the
// plain per-window mean and quadratic clustering they replace.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "bench_util.h"

namespace {

constexpr int kLines = 200;
constexpr int kPoints = 2048;

// The standard scan with specks added: every 97th point jumps 30 up.
std::vector<std::vector<SKesp3DPosition>>& speckledScan() {
    static auto s = [] {
        auto scan = benchutil::makeScan(kLines, kPoints, 5);
        for (auto& line : scan)
            for (size_t j = 13; j < line.size(); j += 97)
                if (line[j].z > 0.0) line[j].z += 30.0;
        return scan;
    }();
    return s;
}

void setLineCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
}

// Baseline: copy every line into a reused output vector.
void BM_Baseline_CopyLine(benchmark::State& state) {
    auto& scan = speckledScan();
    std::vector<SKesp3DPosition> out;
    for (auto _ : state) {
        for (const auto& line : scan) {
            out.assign(line.begin(), line.end());
            benchmark::DoNotOptimize(out.data());
        }
        benchmark::ClobberMemory();
    }
    setLineCounters(state);
}
BENCHMARK(BM_Baseline_CopyLine)->Unit(benchmark::kMicrosecond);

// Baseline: the mean of every window summed afresh, O(points x window).
void BM_Baseline_PlainWindowMean(benchmark::State& state) {
    auto& scan = speckledScan();
    const int half = static_cast<int>(state.range(0)) / 2;
    std::vector<SKesp3DPosition> out;
    for (auto _ : state) {
        for (const auto& line : scan) {
            out.assign(line.begin(), line.end());
            const int n = static_cast<int>(line.size());
            for (int i = 0; i < n; ++i) {
                if (!(line[i].z > 0.0001)) continue;
                double sum = 0.0;
                int cnt = 0;
                for (int j = std::max(0, i - half); j <= std::min(n - 1, i + half); ++j) {
                    if (line[j].z > 0.0001) {
                        sum += line[j].z;
                        ++cnt;
                    }
                }
                out[i].z = sum / cnt;
            }
            benchmark::DoNotOptimize(out.data());
        }
        benchmark::ClobberMemory();
    }
    setLineCounters(state);
}
BENCHMARK(BM_Baseline_PlainWindowMean)->Arg(5)->Arg(31)->Arg(201)->Unit(benchmark::kMicrosecond);

void BM_hx_lineDataSmoothing(benchmark::State& state) {
    auto& scan = speckledScan();
    const int32_t win = static_cast<int32_t>(state.range(0));
    std::vector<SKesp3DPosition> out;
    for (auto _ : state) {
        for (const auto& line : scan) {
            hx_lineDataSmoothing(line, win, out);
            benchmark::DoNotOptimize(out.data());
        }
        benchmark::ClobberMemory();
    }
    setLineCounters(state);
}
BENCHMARK(BM_hx_lineDataSmoothing)->Arg(5)->Arg(31)->Arg(201)->Unit(benchmark::kMicrosecond);

void BM_hx_lineSegSmoothing(benchmark::State& state) {
    auto& scan = speckledScan();
    const int32_t win = static_cast<int32_t>(state.range(0));
    std::vector<SKesp3DPosition> out;
    out.reserve(kPoints);
    for (auto _ : state) {
        for (const auto& line : scan) {
            out.clear();
            hx_lineSegSmoothing(line, 0.5, 2.0, win, out);
            benchmark::DoNotOptimize(out.data());
        }
        benchmark::ClobberMemory();
    }
    setLineCounters(state);
}
BENCHMARK(BM_hx_lineSegSmoothing)->Arg(5)->Arg(31)->Arg(201)->Unit(benchmark::kMicrosecond);

SHX_outlierFilterParam outlierParam() {
    SHX_outlierFilterParam p;
    p.continuityTh = 1.0;
    p.outlierTh = 5.0;
    return p;
}

// The two copying variants share one signature: the line is read, the kept
// points copied to out and the removed indices listed.
using CopyingOutlierFilter = void (*)(const SKesp3DPosition*, int32_t, SHX_outlierFilterParam,
                                      std::vector<SKesp3DPosition>&, std::vector<int32_t>&);

void runCopyingOutlierFilter(benchmark::State& state, CopyingOutlierFilter filter) {
    auto& scan = speckledScan();
    std::vector<SKesp3DPosition> out;
    std::vector<int32_t> removed;
    for (auto _ : state) {
        for (const auto& line : scan) {
            removed.clear();
            filter(line.data(), kPoints, outlierParam(), out, removed);
            benchmark::DoNotOptimize(out.data());
        }
        benchmark::ClobberMemory();
    }
    setLineCounters(state);
}

void BM_hx_lineDataRemoveOutlier(benchmark::State& state) {
    runCopyingOutlierFilter(state, hx_lineDataRemoveOutlier);
}
BENCHMARK(BM_hx_lineDataRemoveOutlier)->Unit(benchmark::kMicrosecond);

void BM_hx_lineDataRemoveOutlier_ptDistMethod(benchmark::State& state) {
    runCopyingOutlierFilter(state, hx_lineDataRemoveOutlier_ptDistMethod);
}
BENCHMARK(BM_hx_lineDataRemoveOutlier_ptDistMethod)->Unit(benchmark::kMicrosecond);

// In place: the lines are restored from the originals by a copy every
// iteration, so this is best read against BM_Baseline_CopyLine.
void BM_hx_lineDataRemoveOutlier_changeOriginData(benchmark::State& state) {
    auto& scan = speckledScan();
    std::vector<SKesp3DPosition> work;
    for (auto _ : state) {
        for (const auto& line : scan) {
            work.assign(line.begin(), line.end());
            hx_lineDataRemoveOutlier_changeOriginData(work.data(), kPoints, outlierParam());
            benchmark::DoNotOptimize(work.data());
        }
        benchmark::ClobberMemory();
    }
    setLineCounters(state);
}
BENCHMARK(BM_hx_lineDataRemoveOutlier_changeOriginData)->Unit(benchmark::kMicrosecond);

// Points spread evenly at density 1 per unit square; with threshold 0.5 they
// form many small clusters, with 1.5 one large cluster and a few small ones.
std::vector<SKesp3DPosition> spreadPoints(int64_t n) {
    std::vector<SKesp3DPosition> v(static_cast<size_t>(n));
    const double side = std::sqrt(static_cast<double>(n));
    uint64_t s = 12345;
    auto next = [&s] {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<double>(s >> 11) * 0x1.0p-53;
    };
    for (int64_t i = 0; i < n; ++i) v[static_cast<size_t>(i)] = SKesp3DPosition{i, next() * side, next() * side, 1.0};
    return v;
}

// The clustering written out plainly (each cluster point against every
// remaining point), for comparison at the smaller sizes.
void plainClustering(std::vector<SKesp3DPosition>& in, double th, std::vector<std::vector<SKesp3DPosition>>& out) {
    std::vector<char> taken(in.size(), 0);
    for (size_t s = 0; s < in.size(); ++s) {
        if (taken[s]) continue;
        taken[s] = 1;
        std::vector<SKesp3DPosition> cluster{in[s]};
        for (size_t k = 0; k < cluster.size(); ++k) {
            const SKesp3DPosition q = cluster[k];
            for (size_t i = 0; i < in.size(); ++i) {
                if (taken[i]) continue;
                const double dx = q.x - in[i].x, dy = q.y - in[i].y;
                if (th > std::sqrt(dx * dx + dy * dy)) {
                    cluster.push_back(in[i]);
                    taken[i] = 1;
                }
            }
        }
        out.push_back(std::move(cluster));
    }
    in.clear();
}

template <bool kPlain>
void clusteringCase(benchmark::State& state) {
    const auto pts = spreadPoints(state.range(0));
    const double th = static_cast<double>(state.range(1)) / 10.0;
    size_t clusters = 0;
    for (auto _ : state) {
        std::vector<SKesp3DPosition> in = pts;  // consumed by the call
        std::vector<std::vector<SKesp3DPosition>> out;
        if (kPlain)
            plainClustering(in, th, out);
        else
            hx_pointClustering(in, th, out);
        clusters = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["clusters"] = static_cast<double>(clusters);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_hx_pointClustering(benchmark::State& state) { clusteringCase<false>(state); }
BENCHMARK(BM_hx_pointClustering)
    ->ArgsProduct({{1000, 10000, 100000}, {5, 15}})
    ->ArgNames({"points", "th_x10"})
    ->Unit(benchmark::kMillisecond);

void BM_Baseline_PlainClustering(benchmark::State& state) { clusteringCase<true>(state); }
BENCHMARK(BM_Baseline_PlainClustering)
    ->ArgsProduct({{1000, 10000}, {5, 15}})
    ->ArgNames({"points", "th_x10"})
    ->Unit(benchmark::kMillisecond);

}  // namespace
