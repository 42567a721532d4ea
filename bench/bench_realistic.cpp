// Every per-line detector on noisy scanner lines, and plane calibration on a
// tall scene, each beside a plain read pass over the same points (see
// workloads.h). The detectors' smooth-profile figures are in their own files.
#include <opencv2/core.hpp>

#include "bench_util.h"
#include "workloads.h"

namespace {

// ---------------------------------------------------------------------------
// Per-line detectors on noisy scanner lines
// ---------------------------------------------------------------------------

constexpr int kNoisyLines = 1000;
constexpr int kNoisyPoints = 2048;
constexpr double kPeakRangeY = 2.0;     // ten point pitches
constexpr double kJumpThreshold = 1.0;  // the lines' steps and block walls rise by 1 to 8

workloads::Scan& noisyLines() {
    static workloads::Scan s = workloads::makeNoisyLines(kNoisyLines, kNoisyPoints);
    return s;
}

void setNoisyCounters(benchmark::State& state, size_t found) {
    state.SetItemsProcessed(state.iterations() * int64_t(kNoisyLines) * kNoisyPoints);
    state.counters["features/line"] = static_cast<double>(found) / (double(state.iterations()) * kNoisyLines);
}

/// Runs detect(points, count, lineIdx) on every line and counts what it returns.
template <class Detect>
void runOnNoisyLines(benchmark::State& state, Detect detect) {
    auto& scan = noisyLines();
    size_t found = 0;
    for (auto _ : state) {
        for (int32_t l = 0; l < kNoisyLines; ++l) found += detect(scan[static_cast<size_t>(l)], l);
        benchmark::DoNotOptimize(found);
    }
    setNoisyCounters(state, found);
}

void BM_Noisy_Baseline_ReadPass(benchmark::State& state) {
    auto lines = benchutil::linesOf(noisyLines());
    for (auto _ : state) benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    setNoisyCounters(state, 0);
}
BENCHMARK(BM_Noisy_Baseline_ReadPass)->Unit(benchmark::kMillisecond);

void BM_Noisy_hx_getLineLocalPeaks(benchmark::State& state) {
    std::vector<SHX_basicFeature1D> peaks, valleys;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        peaks.clear();
        valleys.clear();
        hx_getLineLocalPeaks(line.data(), kNoisyPoints, l, kPeakRangeY, peaks, valleys);
        return peaks.size() + valleys.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineLocalPeaks)->Unit(benchmark::kMillisecond);

void BM_Noisy_hx_getLineDownJumps(benchmark::State& state) {
    std::vector<SHX_basicFeature1D> jumps;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        jumps.clear();
        hx_getLineDownJumps(line.data(), kNoisyPoints, l, kJumpThreshold, jumps);
        return jumps.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineDownJumps)->Unit(benchmark::kMillisecond);

void BM_Noisy_hx_getFlatLineLocalPeaks_vector(benchmark::State& state) {
    std::vector<SHX_basicFeature1D> peaks;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        peaks.clear();
        hx_getFlatLineLocalPeaks_vector(line, l, kPeakRangeY, 0.5, 0.3, peaks);
        return peaks.size();
    });
}
BENCHMARK(BM_Noisy_hx_getFlatLineLocalPeaks_vector)->Unit(benchmark::kMillisecond);

void BM_Noisy_hx_getLineLVFeature(benchmark::State& state) {
    const SHX_slopeParam slope{0.0, 1.0, 3.0, 1.0};
    const SHX_VFeatureParam v{1.0, 1.5};
    SHX_lineFeature out;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        out.features.clear();
        out.endings.clear();
        hx_getLineLVFeature(line.data(), kNoisyPoints, l, slope, v, &out);
        return out.features.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineLVFeature)->Unit(benchmark::kMillisecond);

// Arms of 2.0, ten point pitches, as the smooth-profile benchmarks use.
SHX_cornerParam noisyCornerParam(double maxGapY, double jumpZ, double minAngle, double arm1, double arm2) {
    SHX_cornerParam p;
    p.maxGapY = maxGapY;
    p.jumpZ = jumpZ;
    p.armLen = 2.0;
    p.minCornerAngle = minAngle;
    p.armAngle1 = arm1;
    p.armAngle2 = arm2;
    return p;
}

void BM_Noisy_hx_getLineCornerFeature(benchmark::State& state) {
    const SHX_cornerParam prm = noisyCornerParam(1.0, 2.0, 20.0, 30.0, 10.0);
    SHX_lineFeature out;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        out.features.clear();
        out.endings.clear();
        hx_getLineCornerFeature(line.data(), kNoisyPoints, l, prm, &out);
        return out.features.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineCornerFeature)->Unit(benchmark::kMillisecond);

void BM_Noisy_hx_getLineJumpFeature_cornerMethod(benchmark::State& state) {
    const SHX_cornerParam prm = noisyCornerParam(1.0, 1.5, 20.0, 30.0, 30.0);
    std::vector<SHX_basicFeature1D> out;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        out.clear();
        hx_getLineJumpFeature_cornerMethod(line.data(), kNoisyPoints, l, prm, out);
        return out.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineJumpFeature_cornerMethod)->Unit(benchmark::kMillisecond);

void BM_Noisy_hx_getLineRigthAngleFeature(benchmark::State& state) {
    const SHX_lineRightAngleParam p{1.0, 1.0, 0.15};
    SHX_lineFeature out;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        out.features.clear();
        hx_getLineRigthAngleFeature(line.data(), kNoisyPoints, l, p, p, p, p, &out);
        return out.features.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineRigthAngleFeature)->Unit(benchmark::kMillisecond);

void BM_Noisy_rk_getLineGloveArcs(benchmark::State& state) {
    const SHX_gloveArcParam p{1.0, 2.0, 30.0};
    std::vector<SHX_basicFeature1D> out;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        out.clear();
        rk_getLineGloveArcs(line, l, p, out);
        return out.size();
    });
}
BENCHMARK(BM_Noisy_rk_getLineGloveArcs)->Unit(benchmark::kMillisecond);

// No label image: every run stands alone.
void BM_Noisy_hx_getLineUpperSemiCircleFeature(benchmark::State& state) {
    SHX_slopeParam slope;
    slope.slopeRangeY = kPeakRangeY;
    slope.maxGapY = 0.6;
    const cv::Mat noLabels;
    std::vector<SHX_featureSemiCircle> out;
    runOnNoisyLines(state, [&](std::vector<SKesp3DPosition>& line, int32_t l) {
        out.clear();
        hx_getLineUpperSemiCircleFeature(line.data(), kNoisyPoints, l, 8.0, slope, out, noLabels);
        return out.size();
    });
}
BENCHMARK(BM_Noisy_hx_getLineUpperSemiCircleFeature)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------
// Plane calibration on a tall scene
// ---------------------------------------------------------------------------

constexpr int kSceneLines = 2000;
constexpr int kScenePoints = 2048;

workloads::Scan& tallScene() {
    static workloads::Scan s = workloads::makeTallScene(kSceneLines, kScenePoints);
    return s;
}

void setSceneCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * int64_t(kSceneLines) * kScenePoints);
}

void BM_Tall_Baseline_ReadPass(benchmark::State& state) {
    auto lines = benchutil::linesOf(tallScene());
    for (auto _ : state) benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    setSceneCounters(state);
}
BENCHMARK(BM_Tall_Baseline_ReadPass)->Unit(benchmark::kMillisecond);

void BM_Tall_hx_getPlaneCalibPara(benchmark::State& state) {
    auto lines = benchutil::linesOf(tallScene());
    for (auto _ : state) {
        SHX_planeCalibPara r = hx_getPlaneCalibPara(lines.data(), kSceneLines);
        benchmark::DoNotOptimize(r);
    }
    setSceneCounters(state);
}
BENCHMARK(BM_Tall_hx_getPlaneCalibPara)->Unit(benchmark::kMillisecond);

void BM_Tall_hx_getPlaneCalibPara2(benchmark::State& state) {
    const auto& s = tallScene();
    for (auto _ : state) {
        SHX_planeCalibPara r = hx_getPlaneCalibPara2(s);
        benchmark::DoNotOptimize(r);
    }
    setSceneCounters(state);
}
BENCHMARK(BM_Tall_hx_getPlaneCalibPara2)->Unit(benchmark::kMillisecond);

}  // namespace
