// Generators of the realistic benchmark workloads (see workloads.h).
#include "workloads.h"

#include <algorithm>
#include <cmath>

namespace workloads {
namespace {

/// A small linear congruential generator: the same numbers everywhere.
class Rng {
public:
    explicit Rng(uint32_t seed) : s_(seed) {}
    /// Uniform in [0, 1).
    double unit() {
        s_ = s_ * 1664525u + 1013904223u;
        return static_cast<double>(s_ >> 8) / 16777216.0;
    }
    double uniform(double lo, double hi) { return lo + (hi - lo) * unit(); }
    /// Uniform integer in [lo, hi].
    int between(int lo, int hi) { return lo + static_cast<int>(unit() * (hi - lo + 1)); }
    /// Triangular noise in (-amplitude, amplitude), the sum of two uniforms.
    double noise(double amplitude) { return (unit() + unit() - 1.0) * amplitude; }

private:
    uint32_t s_;
};

// --- Noisy scanner lines ---------------------------------------------------

constexpr double kFloorZ = 60.0;
constexpr double kFloorTiltY = 0.004;
constexpr double kSensorNoise = 0.03;  // bound of the noise
constexpr double kSpeckChance = 0.002;  // per point
constexpr double kDropChance = 0.004;   // an isolated invalid point, per point
constexpr double kGapChance = 0.0035;   // a run of 3 to 12 invalid points starts, per point
constexpr double kLineDriftY = 3.0;     // the layout wanders this far along y over the scan

enum class Shape { kVGroove, kRidge, kGroove, kStep, kBlock };

/// One shape of the profile layout, from y0 to y0 + width.
struct Feature {
    Shape shape;
    double y0, width, height;
};

/// The layout shared by all lines: shapes separated by short stretches of
/// floor. A step changes the floor level from its position on.
std::vector<Feature> noisyLayout(double length, Rng& rng) {
    std::vector<Feature> f;
    for (double y = rng.uniform(2.0, 6.0); y < length - 20.0;) {
        const int kind = rng.between(0, 4);
        Feature s{static_cast<Shape>(kind), y, 0.0, 0.0};
        switch (s.shape) {
            case Shape::kVGroove: s.width = rng.uniform(12.0, 30.0); s.height = rng.uniform(2.0, 6.0); break;
            case Shape::kRidge:
            case Shape::kGroove: s.width = rng.uniform(15.0, 40.0); s.height = rng.uniform(2.0, 5.0); break;
            case Shape::kStep: s.width = 0.0; s.height = rng.uniform(-3.0, 3.0); break;
            case Shape::kBlock: s.width = rng.uniform(3.0, 6.0); s.height = rng.uniform(2.0, 8.0); break;
        }
        f.push_back(s);
        y += s.width + rng.uniform(0.5, 2.0);
    }
    return f;
}

/// Height of the layout above the floor at position t along the line.
double layoutHeight(const std::vector<Feature>& layout, double t) {
    double h = 0.0;
    for (const Feature& s : layout) {
        if (t < s.y0) break;
        const double u = t - s.y0;
        if (s.shape == Shape::kStep) {
            h += s.height;
            continue;
        }
        if (u >= s.width) continue;
        const double half = s.width / 2.0, c = (u - half) / half;  // c in [-1, 1)
        switch (s.shape) {
            case Shape::kVGroove: h -= s.height * (1.0 - std::fabs(c)); break;
            case Shape::kRidge: h += s.height * std::sqrt(1.0 - c * c); break;
            case Shape::kGroove: h -= s.height * std::sqrt(1.0 - c * c); break;
            case Shape::kBlock: h += s.height; break;
            case Shape::kStep: break;
        }
    }
    return h;
}

// --- Tall scene --------------------------------------------------------------

constexpr double kSceneFloorZ = 200.0;
constexpr double kSceneTiltX = 0.012;
constexpr double kSceneTiltY = 0.010;
constexpr double kSceneNoise = 0.05;
constexpr int kBoxes = 24;
constexpr double kShadowPerHeight = 0.03;  // shadow length along y per unit of box height
constexpr double kSceneDropChance = 0.01;

struct Box {
    double x0, x1, y0, y1, height;
};

}  // namespace

Scan makeNoisyLines(int lines, int points, uint32_t seed) {
    Rng rng(seed);
    const std::vector<Feature> layout = noisyLayout(points * kPitchY, rng);
    Scan scan(static_cast<size_t>(lines));
    for (int l = 0; l < lines; ++l) {
        auto& line = scan[static_cast<size_t>(l)];
        line.resize(static_cast<size_t>(points));
        const double drift = kLineDriftY * std::sin(l * 0.013);
        const double level = 0.2 * std::sin(l * 0.007);
        int gapLeft = 0;
        for (int j = 0; j < points; ++j) {
            const double y = j * kPitchY;
            double z = kFloorZ + level + kFloorTiltY * y + layoutHeight(layout, y - drift) + rng.noise(kSensorNoise);
            if (rng.unit() < kSpeckChance) z += rng.uniform(-3.0, 3.0);
            if (gapLeft == 0 && rng.unit() < kGapChance) gapLeft = rng.between(3, 12);
            if (gapLeft > 0) {
                --gapLeft;
                z = 0.0;
            } else if (rng.unit() < kDropChance) {
                z = 0.0;
            }
            line[static_cast<size_t>(j)] = SKesp3DPosition{j, l * kPitchY, y, z};
        }
    }
    return scan;
}

Scan makeTallScene(int lines, int points, uint32_t seed) {
    Rng rng(seed);
    const double sizeX = lines * kPitchY, sizeY = points * kPitchY;
    std::vector<Box> boxes;
    for (int b = 0; b < kBoxes; ++b) {
        const double w = rng.uniform(12.0, 50.0), d = rng.uniform(12.0, 50.0);
        const double x0 = rng.uniform(0.0, sizeX - w), y0 = rng.uniform(0.0, sizeY - d - 30.0);
        // Heights spread from 40 to 1,000, a few of them tall.
        const double height = 40.0 + 960.0 * std::pow(static_cast<double>(b) / (kBoxes - 1), 2.0);
        boxes.push_back(Box{x0, x0 + w, y0, y0 + d, height});
    }
    Scan scan(static_cast<size_t>(lines));
    for (int l = 0; l < lines; ++l) {
        auto& line = scan[static_cast<size_t>(l)];
        line.resize(static_cast<size_t>(points));
        const double x = l * kPitchY;
        for (int j = 0; j < points; ++j) {
            const double y = j * kPitchY;
            const double floor = kSceneFloorZ + kSceneTiltX * x + kSceneTiltY * y;
            double top = 0.0;
            bool shadow = false;
            for (const Box& b : boxes) {
                if (x < b.x0 || x >= b.x1) continue;
                if (y >= b.y0 && y < b.y1) top = std::max(top, b.height);
                else if (y >= b.y1 && y < b.y1 + kShadowPerHeight * b.height) shadow = true;
            }
            double z = floor + top + rng.noise(kSceneNoise);
            if ((shadow && top == 0.0) || rng.unit() < kSceneDropChance) z = 0.0;
            line[static_cast<size_t>(j)] = SKesp3DPosition{j, x, y, z};
        }
    }
    return scan;
}

}  // namespace workloads
