// Realistic workloads for the benchmarks: noisy scanner lines for the
// per-line detectors and a tall scene for plane calibration. Both are built
// once from fixed seeds, outside the timed loops, and are the same on every
// machine (own generator, no library distributions).
#ifndef PROFILE_ANALYSIS_BENCH_WORKLOADS_H
#define PROFILE_ANALYSIS_BENCH_WORKLOADS_H

#include <cstdint>
#include <vector>

#include "profile_analysis.h"

namespace workloads {

using Scan = std::vector<std::vector<SKesp3DPosition>>;

/// Point pitch along y of both workloads.
constexpr double kPitchY = 0.2;

/// Noisy scanner lines: profiles of `points` points at a pitch of 0.2 along y
/// on a slightly tilted floor near z = 60, with V grooves, rounded ridges and
/// grooves, steps, raised blocks, runs of invalid points (about 3% of the
/// points in all), isolated specks and sensor noise of a few hundredths. With
/// a peak range of 2.0 the local-peak detector keeps about 80 peaks and
/// valleys per 2,048-point line.
Scan makeNoisyLines(int lines, int points, uint32_t seed = 11);

/// A tall scene: `lines` scan lines of `points` points (pitch 0.2 both ways)
/// over a tilted floor around z = 200, with 24 boxes from 40 to 1,000 units
/// high, the shadow each box casts along y, dropouts and noise; the height
/// histogram spans about 1,000 bins.
Scan makeTallScene(int lines, int points, uint32_t seed = 13);

}  // namespace workloads

#endif
