// Plane calibration with and without its refinement on a tilted conveyor that
// carries low boxes, beside a plain read pass over the same points. Each
// benchmark also reports the tilt error of its result: the angle in degrees
// between the levelled floor's normal and the true one.
#include <algorithm>
#include <cmath>

#include "bench_util.h"

namespace {

constexpr int kLines = 2000;
constexpr int kPoints = 2048;
constexpr double kPitch = 0.5;  // line and point spacing: a 1,000 x 1,024 unit conveyor
constexpr double kFloorZ = 100.0;
constexpr double kRollDeg = 1.2, kPitchDeg = -0.8;
constexpr double kNoise = 0.02;        // uniform in [-kNoise, kNoise]
constexpr double kDropoutShare = 0.02;
constexpr int kBoxes = 30;
constexpr double kBoxMinHeight = 20.0, kBoxMaxHeight = 60.0;  // tops within the tilted floor's height band
constexpr double kBoxMinSide = 20.0, kBoxMaxSide = 60.0;
constexpr double kInlierDist = 0.1;

/// Deterministic uniform numbers in [0, 1) (a 64-bit LCG), the same everywhere.
class Uniform {
public:
    explicit Uniform(uint64_t seed) : s_(seed) {}
    double operator()() {
        s_ = s_ * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<double>(s_ >> 11) * 0x1.0p-53;
    }
    double operator()(double lo, double hi) { return lo + (hi - lo) * (*this)(); }

private:
    uint64_t s_;
};

struct LowBoxScene {
    std::vector<std::vector<SKesp3DPosition>> scan;
    double trueNormal[3];  // the floor's upward normal in sensor coordinates
};

/// The level scene (floor and boxes) seen by a sensor rolled and pitched
/// about the scan's centre; missing points have z = 0.
LowBoxScene makeLowBoxScene(uint64_t seed) {
    struct Box {
        double x0, x1, y0, y1, height;
    };
    Uniform rnd(seed);
    std::vector<Box> boxes;
    const double lengthX = (kLines - 1) * kPitch, widthY = (kPoints - 1) * kPitch;
    for (int k = 0; k < kBoxes; ++k) {
        const double sx = rnd(kBoxMinSide, kBoxMaxSide), sy = rnd(kBoxMinSide, kBoxMaxSide);
        const double x0 = rnd(0.0, lengthX - sx), y0 = rnd(0.0, widthY - sy);
        boxes.push_back({x0, x0 + sx, y0, y0 + sy, rnd(kBoxMinHeight, kBoxMaxHeight)});
    }
    double R[3][3];
    eulerToRotationMatrixZYX(SHX_EulerAngles{kRollDeg, kPitchDeg, 0.0}, R);
    const double cx = lengthX / 2, cy = widthY / 2;
    LowBoxScene s;
    for (int k = 0; k < 3; ++k) s.trueNormal[k] = R[k][2];
    s.scan.resize(kLines);
    for (int i = 0; i < kLines; ++i) {
        auto& line = s.scan[static_cast<size_t>(i)];
        line.resize(kPoints);
        for (int j = 0; j < kPoints; ++j) {
            const double x = i * kPitch, y = j * kPitch;
            double z = kFloorZ;
            for (const Box& b : boxes)
                if (x >= b.x0 && x <= b.x1 && y >= b.y0 && y <= b.y1) z = std::max(z, kFloorZ + b.height);
            z += rnd(-kNoise, kNoise);
            const double px = x - cx, py = y - cy;
            SKesp3DPosition& p = line[static_cast<size_t>(j)];
            p.nPointIdx = j;
            p.x = R[0][0] * px + R[0][1] * py + R[0][2] * z + cx;
            p.y = R[1][0] * px + R[1][1] * py + R[1][2] * z + cy;
            p.z = rnd() < kDropoutShare ? 0.0 : R[2][0] * px + R[2][1] * py + R[2][2] * z;
        }
    }
    return s;
}

LowBoxScene& scene() {
    static LowBoxScene s = makeLowBoxScene(2024);
    return s;
}

/// Angle in degrees between the levelled up direction (row 2 of planeCalib)
/// and the floor's true normal.
double tiltErrorDeg(const SHX_planeCalibPara& r) {
    const double* u = r.planeCalib + 6;
    const double* n = scene().trueNormal;
    const double cross[3] = {u[1] * n[2] - u[2] * n[1], u[2] * n[0] - u[0] * n[2], u[0] * n[1] - u[1] * n[0]};
    const double sine = std::sqrt(cross[0] * cross[0] + cross[1] * cross[1] + cross[2] * cross[2]);
    const double cosine = u[0] * n[0] + u[1] * n[1] + u[2] * n[2];
    return std::atan2(sine, cosine) * 180.0 / 3.141592653589793;
}

void setCounters(benchmark::State& state, const SHX_planeCalibPara& r) {
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
    state.counters["tilt_deg"] = tiltErrorDeg(r);
}

void BM_Baseline_LowBoxReadPass(benchmark::State& state) {
    auto lines = benchutil::linesOf(scene().scan);
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
}
BENCHMARK(BM_Baseline_LowBoxReadPass)->Unit(benchmark::kMillisecond);

void BM_hx_getPlaneCalibPara_LowBoxes(benchmark::State& state) {
    auto lines = benchutil::linesOf(scene().scan);
    SHX_planeCalibPara r;
    for (auto _ : state) {
        r = hx_getPlaneCalibPara(lines.data(), kLines);
        benchmark::DoNotOptimize(r);
    }
    setCounters(state, r);
}
BENCHMARK(BM_hx_getPlaneCalibPara_LowBoxes)->Unit(benchmark::kMillisecond);

// Calibration followed by at most `rounds` rounds of refinement.
void BM_CalibrationAndRefinement(benchmark::State& state) {
    auto lines = benchutil::linesOf(scene().scan);
    const auto rounds = static_cast<int32_t>(state.range(0));
    SHX_planeCalibPara r;
    for (auto _ : state) {
        const SHX_planeCalibPara start = hx_getPlaneCalibPara(lines.data(), kLines);
        r = hx_refinePlaneCalibPara(lines.data(), kLines, start, kInlierDist, rounds);
        benchmark::DoNotOptimize(r);
    }
    setCounters(state, r);
}
BENCHMARK(BM_CalibrationAndRefinement)->ArgName("rounds")->Arg(1)->Arg(2)->Arg(3)->Arg(20)->Unit(benchmark::kMillisecond);

}  // namespace
