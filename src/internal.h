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

/// One continuous run of valid points, cut where consecutive heights jump.
struct CornerSegment {
    int32_t startIdx = 0;  ///< input-array index of the first point
    int32_t ptNum = 0;     ///< array positions spanned (last = startIdx + ptNum - 1)
    int32_t valid = 1;     ///< 0 once joined into its successor
};

/// A read-only run of indices owned by a CornerAngleList.
struct CornerIndexList {
    const int32_t* data = nullptr;
    std::size_t count = 0;
    std::size_t size() const { return count; }
    int32_t operator[](std::size_t i) const { return data[i]; }
};

/// The direction angles of one profile as the corner and jump detectors see
/// them: the valid points (z > 0.0001) compacted in order, each with the
/// nearest point at least one arm length before and after it (straight-line
/// distance in the y-z plane), and the angles of the chords to those points:
///   backward = atan((z(k) - z(b)) / |y(k) - y(b)|) in degrees,
///   forward  = atan((z(f) - z(k)) / |y(f) - y(k)|) in degrees,
///   corner   = backward - forward,
/// converted with 180 / kPiLiteral. A point lacking either neighbour has no
/// angles. The local maxima (and, on request, minima) of the corner angle are
/// found by a trend state machine over the points that have angles.
///
/// The corner angles are first evaluated with a cheap polynomial whose error
/// is far below kAngleTol; every decision on them (extrema, limits,
/// suppression) is settled from the approximation when it is more than the
/// tolerance away from the boundary and from the exact one-argument atan
/// otherwise, so all decisions equal those taken on the exact angles. The arm
/// angles, tested only on the surviving corners, are computed exactly.
class CornerAngleList {
public:
    enum class Angle { Backward, Forward, Corner };

    /// Builds the list for points[0 .. count-1]. When segments is not null the
    /// runs of valid points, cut where |dz| between consecutive valid points
    /// exceeds jumpZ, are appended to it. minima are found only if keepMinima.
    void build(const SKesp3DPosition* points, int32_t count, double jumpZ, double armLen, bool keepMinima,
               std::vector<CornerSegment>* segments);

    int32_t size() const { return m_; }
    int32_t inputIndex(int32_t k) const { return idx_[k]; }
    double y(int32_t k) const { return y_[k]; }
    /// z of the backward / forward neighbour (only for points with angles).
    double backwardZ(int32_t k) const { return z_[back_[k]]; }
    double forwardZ(int32_t k) const { return z_[fwd_[k]]; }
    /// Compacted indices of the extrema of the corner angle, in line order.
    CornerIndexList maxima() const { return CornerIndexList{maxima_, maxCount_}; }
    CornerIndexList minima() const { return CornerIndexList{minima_, minCount_}; }

    /// The exact angle (one-argument atan), in degrees.
    double exact(Angle a, int32_t k) const;
    /// Exactly `angle(k) > limit` / `angle(k) < limit`; with absolute, of |angle(k)|.
    bool greater(Angle a, int32_t k, double limit, bool absolute) const;
    bool less(Angle a, int32_t k, double limit, bool absolute) const;
    /// Exactly `corner(o) > corner(q)`; with absolute, of their magnitudes.
    bool cornerGreater(int32_t o, int32_t q, bool absolute) const;
    /// True when a candidate of cands within 2 * armLen along y of cands[pos]
    /// (both scans stop at the first candidate beyond that range) has a
    /// strictly larger corner angle (magnitude, with absolute).
    bool outranked(CornerIndexList cands, std::size_t pos, double armLen, bool absolute) const;

    /// Largest error of one approximated angle, in degrees (the polynomial's
    /// own error is below 1.5e-5 degrees).
    static constexpr double kAngleTol = 1e-3;

private:
    void allocate(std::size_t n);
    void findNeighbours(double armLen);
    void approximateAngles();
    void findExtrema(bool keepMinima);

    int32_t m_ = 0;
    std::vector<int32_t> ints_;        // the index arrays below, in one block
    std::vector<double> reals_;        // the coordinate and angle arrays below, in one block
    int32_t* idx_ = nullptr;           // input index of compacted point k
    int32_t* back_ = nullptr;          // backward neighbour, -1 when k has no angles
    int32_t* fwd_ = nullptr;           // forward neighbour, -1 when k has no angles
    int32_t* maxima_ = nullptr;
    int32_t* minima_ = nullptr;
    std::size_t maxCount_ = 0;
    std::size_t minCount_ = 0;
    double* y_ = nullptr;              // padded on both sides with NaN (never within reach)
    double* z_ = nullptr;
    double* path_ = nullptr;           // polyline length from point 0 to point k, +inf after m;
                                       // later the approximate forward angles
    double* approxC_ = nullptr;        // approximate corner angle
};

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
