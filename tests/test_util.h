// Small builders shared by the tests.
#ifndef PROFILE_ANALYSIS_TEST_UTIL_H
#define PROFILE_ANALYSIS_TEST_UTIL_H

#include <cstdint>
#include <vector>

#include "profile_analysis.h"

namespace testutil {

inline SKesp3DPosition pt(double x, double y, double z, int64_t idx = 0) {
    SKesp3DPosition p;
    p.nPointIdx = idx;
    p.x = x;
    p.y = y;
    p.z = z;
    return p;
}

/// A line whose point i has y = i * pitch and the given z (x fixed).
inline std::vector<SKesp3DPosition> profileFromZ(const std::vector<double>& z, double pitch = 1.0,
                                                 double x = 0.0) {
    std::vector<SKesp3DPosition> v;
    v.reserve(z.size());
    for (size_t i = 0; i < z.size(); ++i) v.push_back(pt(x, static_cast<double>(i) * pitch, z[i], 0));
    return v;
}

/// Line records over caller-held vectors (the vectors must outlive the records).
inline std::vector<SKesp3DLaserLine> linesOf(std::vector<std::vector<SKesp3DPosition>>& scan) {
    std::vector<SKesp3DLaserLine> lines(scan.size());
    for (size_t i = 0; i < scan.size(); ++i) {
        lines[i].p3DPosition = scan[i].empty() ? nullptr : scan[i].data();
        lines[i].nPositionCnt = static_cast<int32_t>(scan[i].size());
    }
    return lines;
}

/// Deterministic pseudo-random numbers (splitmix64), independent of the platform's rand().
class Rng {
public:
    explicit Rng(uint64_t seed) : s_(seed) {}
    uint64_t next() {
        uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    /// Uniform in [lo, hi).
    double uniform(double lo, double hi) { return lo + (hi - lo) * (static_cast<double>(next() >> 11) * 0x1.0p-53); }
    /// Uniform integer in [lo, hi].
    int64_t integer(int64_t lo, int64_t hi) { return lo + static_cast<int64_t>(next() % static_cast<uint64_t>(hi - lo + 1)); }

private:
    uint64_t s_;
};

}  // namespace testutil

#endif
