// Corner and jump detectors on realistic 2,048-point profiles beside a plain
// read pass over the same points.
#include "bench_util.h"

namespace {

constexpr int kLines = 500;
constexpr int kPoints = 2048;

std::vector<std::vector<SKesp3DPosition>>& scan() {
    static auto s = benchutil::makeScan(kLines, kPoints);
    return s;
}

void setCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
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

void BM_hx_getLineCornerFeature(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
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
BENCHMARK(BM_hx_getLineCornerFeature)->Unit(benchmark::kMillisecond);

void BM_hx_getLineJumpFeature_cornerMethod(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
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
BENCHMARK(BM_hx_getLineJumpFeature_cornerMethod)->Unit(benchmark::kMillisecond);

}  // namespace
