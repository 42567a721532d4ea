// internal.h - helpers shared by the library's sources; not installed.
#ifndef PROFILE_ANALYSIS_INTERNAL_H
#define PROFILE_ANALYSIS_INTERNAL_H

#include <cstdint>
#include <vector>

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

/// Tree types whose trees accept a feature type: 1 or 3 take 1 and 3; 2 or 4
/// take 2 and 4; 5 takes 3, 4 and 5; 6, 7 and 9..15 take only their own type;
/// 8, 0, negative types and types above 15 take nothing.
inline bool treeTypeAccepts(int32_t treeType, int32_t featureType) {
    switch (treeType) {
        case 1:
        case 3:
            return featureType == 1 || featureType == 3;
        case 2:
        case 4:
            return featureType == 2 || featureType == 4;
        case 5:
            return featureType == 3 || featureType == 4 || featureType == 5;
        case 6:
        case 7:
        case 9:
        case 10:
        case 11:
        case 12:
        case 13:
        case 14:
        case 15:
            return featureType == treeType;
        default:
            return false;
    }
}

/// Region step: a tree's xRange and yRange become the smallest and largest
/// node x and y, starting from the first node and moving a bound only on a
/// strict improvement (so a NaN coordinate never widens a range, and a NaN
/// first node stays the bound). A tree without nodes gets all four bounds 0.0.
inline void setTreeRegion(SHX_featureTree& tree) {
    const std::vector<SHX_basicFeature1D>& nodes = tree.treeNodes;
    if (nodes.empty()) {
        tree.xRange = SKespRangeD{0.0, 0.0};
        tree.yRange = SKespRangeD{0.0, 0.0};
        return;
    }
    SKespRangeD xr{nodes.front().featurePos.x, nodes.front().featurePos.x};
    SKespRangeD yr{nodes.front().featurePos.y, nodes.front().featurePos.y};
    for (const SHX_basicFeature1D& n : nodes) {
        const double x = n.featurePos.x, y = n.featurePos.y;
        if (x < xr.min) xr.min = x;
        if (x > xr.max) xr.max = x;
        if (y < yr.min) yr.min = y;
        if (y > yr.max) yr.max = y;
    }
    tree.xRange = xr;
    tree.yRange = yr;
}

// ---------------------------------------------------------------------------
// Local extrema along a profile (local peaks, flat-line peaks)
// ---------------------------------------------------------------------------

/// A local-extremum candidate: array index of the point, its y, and the value
/// compared (z for local peaks, the height above the base line for flat-line
/// peaks).
struct ExtremumCandidate {
    int32_t idx;
    double y;
    double v;
};

/// Candidate scan over points[0..count): valid points (z >= 0.0001) are
/// compared with the previous valid point (gaps are bridged); a change from
/// rising to falling makes the previous point a peak candidate, from falling
/// to rising a valley candidate. Equal values never change a decided trend, so
/// a plateau yields its last point. The first valid point is never a
/// candidate, and the last valid point becomes one only when the array ends in
/// an invalid point. valueAt(i) gives the value compared at a valid point i;
/// onPoint(i) is called first for every point, valid or not.
template <class ValueAt, class OnPoint>
inline void scanExtremumCandidates(const SKesp3DPosition* points, int32_t count, ValueAt valueAt, OnPoint onPoint,
                                   std::vector<ExtremumCandidate>& peakCands,
                                   std::vector<ExtremumCandidate>& valleyCands) {
    enum Trend { kUndecided, kFalling, kRising };
    Trend trend = kUndecided;
    bool havePrev = false;
    ExtremumCandidate prev{0, 0.0, 0.0};
    for (int32_t i = 0; i < count; ++i) {
        onPoint(i);
        const SKesp3DPosition& p = points[i];
        if (!isValidZ(p.z)) {
            if (i == count - 1) {
                if (trend == kFalling) valleyCands.push_back(prev);
                else if (trend == kRising) peakCands.push_back(prev);
            }
            continue;
        }
        const ExtremumCandidate cur{i, p.y, valueAt(i)};
        if (havePrev) {
            const double d = cur.v - prev.v;
            if (trend == kUndecided) {
                if (d > 0) trend = kRising;
                else if (d < 0) trend = kFalling;
            } else if (trend == kFalling) {
                if (d > 0) {
                    valleyCands.push_back(prev);
                    trend = kRising;
                }
            } else if (d < 0) {
                peakCands.push_back(prev);
                trend = kFalling;
            }
        }
        prev = cur;
        havePrev = true;
    }
}

/// Neighbourhood suppression along y: candidate k survives unless some
/// candidate j within rangeY of it along y (squared distance <= rangeY^2) has
/// rejects(v_k, v_j) true. Each side is scanned from k outwards and stops at
/// the first candidate out of range, even if a later one is in range again.
/// emit(candidate) is called for the survivors, in candidate order.
template <class Rejects, class Emit>
inline void suppressCandidates(const std::vector<ExtremumCandidate>& cands, double rangeY, Rejects rejects,
                               Emit emit) {
    const double r2 = rangeY * rangeY;
    const ExtremumCandidate* c = cands.data();
    const size_t m = cands.size();
    for (size_t k = 0; k < m; ++k) {
        const double yk = c[k].y, vk = c[k].v;
        bool rejected = false;
        for (size_t j = k; j-- > 0;) {
            const double dy = yk - c[j].y;
            if (dy * dy > r2) break;
            if (rejects(vk, c[j].v)) {
                rejected = true;
                break;
            }
        }
        for (size_t j = k + 1; !rejected && j < m; ++j) {
            const double dy = yk - c[j].y;
            if (dy * dy > r2) break;
            if (rejects(vk, c[j].v)) rejected = true;
        }
        if (!rejected) emit(c[k]);
    }
}

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
