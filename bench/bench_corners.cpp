// Corner and jump detectors on realistic 2,048-point profiles beside a plain
// read pass over the same points. The scan is larger than the caches, so each
// line comes from memory, as when a stored scan is processed; the warm-line
// cases run over a few lines that stay in the second-level cache, as a line
// just received from the sensor does, and show the detectors' own work.
#include "bench_util.h"

namespace {

constexpr int kLines = 500;
constexpr int kPoints = 2048;
constexpr int kWarmLines = 8;

std::vector<std::vector<SKesp3DPosition>>& scan() {
    static auto s = benchutil::makeScan(kLines, kPoints);
    return s;
}

void setCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
}

// The first kWarmLines lines, each used kLines / kWarmLines times in turn.
std::vector<SKesp3DLaserLine> warmLinesOf(std::vector<SKesp3DLaserLine> lines) {
    for (size_t l = 0; l < lines.size(); ++l) lines[l] = lines[l % kWarmLines];
    return lines;
}

// Arms of 1.0 (ten points at the scan's pitch of 0.1).
SHX_cornerParam cornerParam() {
    SHX_cornerParam p;
    p.maxGapY = 0.5;
    p.jumpZ = 2.0;
    p.armLen = 1.0;
    p.minCornerAngle = 20.0;
    p.armAngle1 = 30.0;
    p.armAngle2 = 10.0;
    return p;
}

SHX_cornerParam jumpParam() {
    SHX_cornerParam p;
    p.maxGapY = 1.0;
    p.jumpZ = 3.0;
    p.armLen = 1.0;
    p.minCornerAngle = 30.0;
    p.armAngle1 = 20.0;
    p.armAngle2 = 45.0;
    return p;
}

void BM_Baseline_CornersReadPass(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    setCounters(state);
}
BENCHMARK(BM_Baseline_CornersReadPass)->Unit(benchmark::kMillisecond);

void runCorners(benchmark::State& state, const std::vector<SKesp3DLaserLine>& lines) {
    const SHX_cornerParam prm = cornerParam();
    SHX_lineFeature out;
    size_t found = 0;
    for (auto _ : state) {
        for (int32_t l = 0; l < kLines; ++l) {
            out.features.clear();
            out.endings.clear();
            hx_getLineCornerFeature(lines[l].p3DPosition, lines[l].nPositionCnt, l, prm, &out);
            found += out.features.size();
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["corners/line"] = static_cast<double>(found) / (static_cast<double>(state.iterations()) * kLines);
    setCounters(state);
}

void runJumps(benchmark::State& state, const std::vector<SKesp3DLaserLine>& lines) {
    const SHX_cornerParam prm = jumpParam();
    std::vector<SHX_basicFeature1D> out;
    size_t found = 0;
    for (auto _ : state) {
        for (int32_t l = 0; l < kLines; ++l) {
            out.clear();
            hx_getLineJumpFeature_cornerMethod(lines[l].p3DPosition, lines[l].nPositionCnt, l, prm, out);
            found += out.size();
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["jumps/line"] = static_cast<double>(found) / (static_cast<double>(state.iterations()) * kLines);
    setCounters(state);
}

void BM_hx_getLineCornerFeature(benchmark::State& state) { runCorners(state, benchutil::linesOf(scan())); }
BENCHMARK(BM_hx_getLineCornerFeature)->Unit(benchmark::kMillisecond);

void BM_hx_getLineJumpFeature_cornerMethod(benchmark::State& state) { runJumps(state, benchutil::linesOf(scan())); }
BENCHMARK(BM_hx_getLineJumpFeature_cornerMethod)->Unit(benchmark::kMillisecond);

void BM_Baseline_CornersReadPass_WarmLines(benchmark::State& state) {
    const auto lines = warmLinesOf(benchutil::linesOf(scan()));
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    setCounters(state);
}
BENCHMARK(BM_Baseline_CornersReadPass_WarmLines)->Unit(benchmark::kMillisecond);

void BM_hx_getLineCornerFeature_WarmLines(benchmark::State& state) {
    runCorners(state, warmLinesOf(benchutil::linesOf(scan())));
}
BENCHMARK(BM_hx_getLineCornerFeature_WarmLines)->Unit(benchmark::kMillisecond);

void BM_hx_getLineJumpFeature_cornerMethod_WarmLines(benchmark::State& state) {
    runJumps(state, warmLinesOf(benchutil::linesOf(scan())));
}
BENCHMARK(BM_hx_getLineJumpFeature_cornerMethod_WarmLines)->Unit(benchmark::kMillisecond);

}  // namespace
