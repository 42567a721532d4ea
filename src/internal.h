// internal.h - helpers shared by the library's sources; not installed.
#ifndef PROFILE_ANALYSIS_INTERNAL_H
#define PROFILE_ANALYSIS_INTERNAL_H

#include "profile_analysis.h"

namespace pa_detail {

/// Heights below this carry no measurement.
constexpr double kValidZ = 0.0001;

/// The library's usual validity: a point is measured when z >= 0.0001.
/// (NaN heights fail this test and count as invalid.)
inline bool isValidZ(double z) { return z >= kValidZ; }

/// The strict validity used by smoothing, outlier removal and the corner,
/// jump and glove-arc detectors: z > 0.0001. A point at exactly 0.0001 is
/// valid for the rest of the library but not for these routines.
inline bool isStrictlyValidZ(double z) { return z > kValidZ; }

/// The empty interval {0.0, -1.0}.
inline SKespRangeD emptyRange() { return SKespRangeD{0.0, -1.0}; }

/// Grows a range by v: an empty range (min > max) becomes {v, v}; otherwise
/// min and max are updated independently.
inline void growRange(SKespRangeD& r, double v) {
    if (r.min > r.max) {
        r.min = v;
        r.max = v;
        return;
    }
    if (v < r.min) r.min = v;
    if (v > r.max) r.max = v;
}

/// The value of pi the angle-based detectors (corners, jumps, glove arcs) use
/// on purpose, and their conversion: angle * 180 / pi, evaluated in that order.
constexpr double kPiLiteral = 3.141592654;
inline double radToDegLiteral(double radians) { return radians * 180.0 / kPiLiteral; }

// ---------------------------------------------------------------------------
// Tree growing
// ---------------------------------------------------------------------------

// @@internal-growing@@

// ---------------------------------------------------------------------------
// Corner angles (corner and jump detectors)
// ---------------------------------------------------------------------------

// @@internal-corners@@

// ---------------------------------------------------------------------------
// Calibration
// ---------------------------------------------------------------------------

// @@internal-calibration@@

// ---------------------------------------------------------------------------
// Preprocessing
// ---------------------------------------------------------------------------

// @@internal-preprocess@@

// ---------------------------------------------------------------------------
// Image analysis
// ---------------------------------------------------------------------------

// @@internal-image@@

}  // namespace pa_detail

#endif  // PROFILE_ANALYSIS_INTERNAL_H
