// Right-angle and glove-arc detectors on realistic 2,048-point profiles,
// beside a plain read pass over the same points.
#include <algorithm>
#include <cmath>

#include "bench_util.h"

namespace {

constexpr int kPoints = 2048;
constexpr int kLines = 64;

// Profiles of blocks with vertical walls and rounded ridges on a floor,
// point spacing 0.1 along y, with noise and a few missing points.
std::vector<std::vector<SKesp3DPosition>> makeBlockProfiles() {
    std::vector<std::vector<SKesp3DPosition>> scan(kLines);
    uint32_t s = 7;
    for (int l = 0; l < kLines; ++l) {
        auto& line = scan[static_cast<size_t>(l)];
        line.reserve(kPoints + 64);
        int idx = 0;
        double y = 0.0;
        for (int j = 0; j < kPoints;) {
            s = s * 1664525u + 1013904223u;
            const double noise = (static_cast<double>(s >> 8) / 16777216.0 - 0.5) * 0.01;
            const int phase = j % 400;
            double z = 20.0;
            if (phase >= 100 && phase < 200) z = 30.0;                       // a block
            if (phase >= 260 && phase < 340) {                               // a rounded ridge
                const double t = (phase - 300) / 40.0;
                z = 20.0 + 6.0 * std::sqrt(std::max(0.0, 1.0 - t * t));
            }
            if (phase == 100 || phase == 200) {
                // Dense vertical wall between the floor and the block.
                for (int k = 1; k < 10; ++k)
                    line.push_back(SKesp3DPosition{idx++, l * 0.2, y, phase == 100 ? 20.0 + k : 30.0 - k});
            }
            if ((j + 13 * l) % 257 < 2) z = 0.0;
            line.push_back(SKesp3DPosition{idx++, l * 0.2, y, z + noise});
            y += 0.1;
            ++j;
        }
    }
    return scan;
}

std::vector<std::vector<SKesp3DPosition>>& profiles() {
    static auto p = makeBlockProfiles();
    return p;
}

int64_t totalPoints() {
    int64_t n = 0;
    for (const auto& l : profiles()) n += static_cast<int64_t>(l.size());
    return n;
}

void BM_Baseline_PlainPassBlocks(benchmark::State& state) {
    for (auto _ : state) {
        double s = 0;
        for (const auto& l : profiles()) s += benchutil::plainReadPass(l.data(), static_cast<int64_t>(l.size()));
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * totalPoints());
}
BENCHMARK(BM_Baseline_PlainPassBlocks);

void BM_hx_getLineRigthAngleFeature(benchmark::State& state) {
    SHX_lineRightAngleParam p;
    p.flatArmLen = 0.5;
    p.wallArmLen = 0.5;
    p.maxDeviation = 0.15;
    SHX_lineFeature out;
    out.features.reserve(256);
    for (auto _ : state) {
        for (const auto& l : profiles()) {
            out.features.clear();
            hx_getLineRigthAngleFeature(l.data(), static_cast<int32_t>(l.size()), 0, p, p, p, p, &out);
            benchmark::DoNotOptimize(out.features.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * totalPoints());
}
BENCHMARK(BM_hx_getLineRigthAngleFeature);

void BM_rk_getLineGloveArcs(benchmark::State& state) {
    SHX_gloveArcParam p;
    p.chordLen = 0.5;
    p.searchArcLen = 1.0;
    p.minArcAngle = 30.0;
    std::vector<SHX_basicFeature1D> out;
    out.reserve(256);
    for (auto _ : state) {
        for (const auto& l : profiles()) {
            out.clear();
            rk_getLineGloveArcs(l, 0, p, out);
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * totalPoints());
}
BENCHMARK(BM_rk_getLineGloveArcs);

}  // namespace
