// Scan builders and baselines shared by the benchmarks.
#ifndef PROFILE_ANALYSIS_BENCH_UTIL_H
#define PROFILE_ANALYSIS_BENCH_UTIL_H

#include <cmath>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "profile_analysis.h"

namespace benchutil {

/// A realistic scan: a gently tilted floor with ridges, grooves, a plateau,
/// a little noise and runs of missing points. Point j of line i has y = j * 0.1.
inline std::vector<std::vector<SKesp3DPosition>> makeScan(int lines, int points, uint32_t seed = 1) {
    std::vector<std::vector<SKesp3DPosition>> scan(static_cast<size_t>(lines));
    uint32_t s = seed;
    auto noise = [&s]() {
        s = s * 1664525u + 1013904223u;
        return (static_cast<double>(s >> 8) / 16777216.0 - 0.5) * 0.02;
    };
    for (int i = 0; i < lines; ++i) {
        auto& line = scan[static_cast<size_t>(i)];
        line.resize(static_cast<size_t>(points));
        for (int j = 0; j < points; ++j) {
            const double y = j * 0.1;
            double z = 100.0 + 0.01 * i + 0.02 * y;
            z += 5.0 * std::sin(y * 0.15) + (j % 300 < 40 ? 8.0 : 0.0) - (j % 500 > 480 ? 6.0 : 0.0);
            z += noise();
            if ((j + 7 * i) % 211 < 4) z = 0.0;
            line[static_cast<size_t>(j)] = SKesp3DPosition{j, i * 0.2, y, z};
        }
    }
    return scan;
}

inline std::vector<SKesp3DLaserLine> linesOf(std::vector<std::vector<SKesp3DPosition>>& scan) {
    std::vector<SKesp3DLaserLine> lines(scan.size());
    for (size_t i = 0; i < scan.size(); ++i) {
        lines[i].p3DPosition = scan[i].data();
        lines[i].nPositionCnt = static_cast<int32_t>(scan[i].size());
    }
    return lines;
}

/// Baseline: read every point's x, y, z once (the memory limit of a read-only pass).
inline double plainReadPass(const SKesp3DPosition* pts, int64_t n) {
    double sx = 0, sy = 0, sz = 0;
    for (int64_t i = 0; i < n; ++i) {
        sx += pts[i].x;
        sy += pts[i].y;
        sz += pts[i].z;
    }
    return sx + sy + sz;
}

/// Baseline: read every point of every line once.
inline double plainReadScan(const std::vector<SKesp3DLaserLine>& lines) {
    double sum = 0;
    for (const auto& line : lines) sum += plainReadPass(line.p3DPosition, line.nPositionCnt);
    return sum;
}

}  // namespace benchutil

#endif
