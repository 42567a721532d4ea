// Plane calibration beside a plain read-only pass over the same points.
#include "bench_util.h"

namespace {

constexpr int kLines = 2000;
constexpr int kPoints = 2048;
// A ramp standing on the floor lifts part of every line by up to this much,
// so that the heights span about 1,000 units (a histogram of ~1,000 bins).
constexpr double kRampRise = 1000.0;
constexpr int kRampStart = 1500;
constexpr int kRampLength = 200;

std::vector<std::vector<SKesp3DPosition>>& scan() {
    static auto s = [] {
        auto v = benchutil::makeScan(kLines, kPoints);
        for (auto& line : v)
            for (int j = kRampStart; j < kRampStart + kRampLength; ++j) {
                SKesp3DPosition& p = line[static_cast<size_t>(j)];
                if (p.z > 0.0) p.z += kRampRise * (j - kRampStart) / (kRampLength - 1);
            }
        return v;
    }();
    return s;
}

void setCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
}

void BM_Baseline_CalibReadPass(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    setCounters(state);
}
BENCHMARK(BM_Baseline_CalibReadPass)->Unit(benchmark::kMillisecond);

void BM_hx_getPlaneCalibPara(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        SHX_planeCalibPara r = hx_getPlaneCalibPara(lines.data(), kLines);
        benchmark::DoNotOptimize(r);
    }
    setCounters(state);
}
BENCHMARK(BM_hx_getPlaneCalibPara)->Unit(benchmark::kMillisecond);

void BM_hx_getPlaneCalibPara2(benchmark::State& state) {
    const auto& s = scan();
    for (auto _ : state) {
        SHX_planeCalibPara r = hx_getPlaneCalibPara2(s);
        benchmark::DoNotOptimize(r);
    }
    setCounters(state);
}
BENCHMARK(BM_hx_getPlaneCalibPara2)->Unit(benchmark::kMillisecond);

}  // namespace
