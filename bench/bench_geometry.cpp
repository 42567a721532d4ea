// Scan geometry beside the memory-bound baselines of the same work.
#include "bench_util.h"

namespace {

constexpr int kLines = 2000;
constexpr int kPoints = 2048;

std::vector<std::vector<SKesp3DPosition>>& scan() {
    static auto s = benchutil::makeScan(kLines, kPoints);
    return s;
}

void setCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
}

// Baseline for lineDataRT: read every point's x, y, z and write them back.
void BM_Baseline_ReadWriteXYZ(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        for (auto& line : lines) {
            SKesp3DPosition* p = line.p3DPosition;
            for (int32_t i = 0; i < line.nPositionCnt; ++i) {
                const double x = p[i].x, y = p[i].y, z = p[i].z;
                benchmark::DoNotOptimize(x);
                p[i].x = x;
                p[i].y = y;
                p[i].z = z;
            }
        }
        benchmark::ClobberMemory();
    }
    setCounters(state);
}
BENCHMARK(BM_Baseline_ReadWriteXYZ)->Unit(benchmark::kMillisecond);

void BM_lineDataRT(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    // Alternate a rotation and its inverse so the data stays bounded.
    const double a = 0.01, c = std::cos(a), s = std::sin(a);
    const double fwd[9] = {1, 0, 0, 0, c, -s, 0, s, c};
    const double inv[9] = {1, 0, 0, 0, c, s, 0, -s, c};
    bool forward = true;
    for (auto _ : state) {
        const double* m = forward ? fwd : inv;
        for (auto& line : lines) lineDataRT(&line, m, 0.0);
        forward = !forward;
        benchmark::ClobberMemory();
    }
    setCounters(state);
}
BENCHMARK(BM_lineDataRT)->Unit(benchmark::kMillisecond);

// Baseline for the bounding box: read and sum every point's x, y, z.
void BM_Baseline_ReadSumXYZ(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    setCounters(state);
}
BENCHMARK(BM_Baseline_ReadSumXYZ)->Unit(benchmark::kMillisecond);

void BM_hx_getScanDataROI(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        SKesp3DRangeD box = hx_getScanDataROI(lines.data(), kLines);
        benchmark::DoNotOptimize(box);
    }
    setCounters(state);
}
BENCHMARK(BM_hx_getScanDataROI)->Unit(benchmark::kMillisecond);

}  // namespace
