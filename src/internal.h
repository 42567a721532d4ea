// internal.h - helpers shared by the library's sources; not installed.
#ifndef PROFILE_ANALYSIS_INTERNAL_H
#define PROFILE_ANALYSIS_INTERNAL_H

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "profile_analysis.h"

// Vector kernels. The local-peaks kernel is written once with Highway and
// compiled for every target of the processor family (SSSE3, SSE4, AVX2,
// AVX-512 on x86-64; NEON, SVE on aarch64); the corner, jump and glove-arc
// detectors have hand-written AVX2 kernels for x86-64 beside their portable
// ones, each AVX2 function compiled for its target only. One choice governs
// them all: Highway's run-time target (chosenVectorTarget below), the best the
// processor has, which a test or fuzz target can restrict with
// hwy::SetSupportedTargetsForTest(mask) (0 restores the processor's own) to
// run every path in turn; the AVX2 kernels run when that target is AVX2 or
// better. Every path gives identical results, and none enables fused
// multiply-add, which would change them. Defining PA_PORTABLE_KERNELS leaves
// the AVX2 kernels out and compiles the Highway kernels for the portable
// target only (the sanitizer build does, so that the test suite covers the
// portable kernels too).
#if (defined(__GNUC__) || defined(__clang__)) && defined(__x86_64__) && !defined(PA_PORTABLE_KERNELS)
#define PA_AVX2_KERNELS 1
#include <immintrin.h>
#else
#define PA_AVX2_KERNELS 0
#endif

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
/// pi / 2 to double precision (the range of the arc tangent).
constexpr double kHalfPi = 1.57079632679489661923;

/// Smallest squared distance d2 with sqrt(d2) >= len, so that a distance test
/// against an arm or chord length needs no square root and decides exactly as
/// the rooted comparison does. A NaN length gives NaN (no distance reaches
/// it); a length <= 0 gives 0 (every distance reaches it).
inline double squaredReachThreshold(double len) {
    if (std::isnan(len)) return len;
    if (!(len > 0.0)) return 0.0;
    double t = len * len;
    while (t > 0.0 && std::sqrt(std::nextafter(t, 0.0)) >= len) t = std::nextafter(t, 0.0);
    while (std::sqrt(t) < len) t = std::nextafter(t, std::numeric_limits<double>::infinity());
    return t;
}

// ---------------------------------------------------------------------------
// Wide-vector kernels
// ---------------------------------------------------------------------------

/// Highway's target for the vector kernels (an HWY_* bit): the best the
/// processor supports among those compiled, or the best of the targets set by
/// hwy::SetSupportedTargetsForTest.
int64_t chosenVectorTarget();

/// Whether the detectors run their AVX2 kernels: built in, and the chosen
/// vector target is AVX2 or better. The library's detectors decide by this.
bool avx2KernelsChosen();

/// True when the AVX2 kernels are built in and the processor has AVX2 (the
/// kernel tests run both paths where it is).
inline bool avx2KernelsUsable() {
#if PA_AVX2_KERNELS
    __builtin_cpu_init();  // a no-op once the runtime's own start-up has run it
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

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

/// Working storage of the candidate scan for a line of `count` points: the
/// candidates' indices in line order as the scan finds them (peaks and valleys
/// alternate, so one list holds both and the first one's kind gives every
/// kind), and on request the peaks and the valleys apart. Every
/// candidate is a distinct valid point other than the first, so there are
/// fewer than count; the scan writes one slot past the last candidate.
class ExtremumCandidates {
public:
    explicit ExtremumCandidates(int32_t count)
        : order_(new int32_t[static_cast<size_t>(count > 0 ? count : 0) + 2]) {}

    /// Room for the scan's index list.
    int32_t* order() { return order_.get(); }
    const int32_t* order() const { return order_.get(); }
    size_t found = 0;          ///< candidates in the list
    bool firstIsPeak = false;  ///< kind of the first one
    /// Where the peaks (or the valleys) start in the list; they then take every
    /// second entry.
    size_t firstPeakPos() const { return firstIsPeak ? 0 : 1; }
    size_t firstValleyPos() const { return firstIsPeak ? 1 : 0; }
    size_t peakCount() const { return found > firstPeakPos() ? (found - firstPeakPos() + 1) / 2 : 0; }
    size_t valleyCount() const { return found - peakCount(); }

    /// The peaks and the valleys apart, each in line order, with y and the
    /// value compared (valueAt(i), the same value the scan compared): filled
    /// by split().
    const ExtremumCandidate* peaks() const { return split_.get(); }
    const ExtremumCandidate* valleys() const { return split_.get() + peakCount(); }

    template <class ValueAt>
    void split(const SKesp3DPosition* points, ValueAt valueAt) {
        const size_t n = found;
        if (n == 0) return;
        split_.reset(new ExtremumCandidate[n]);
        ExtremumCandidate* p = split_.get();
        ExtremumCandidate* v = p + peakCount();
        const int32_t* ord = order_.get();
        for (size_t k = 0; k < n; ++k) {
            const int32_t i = ord[k];
            const ExtremumCandidate c{i, points[i].y, valueAt(i)};
            if ((k & 1) == firstPeakPos()) *p++ = c;
            else *v++ = c;
        }
    }

private:
    std::unique_ptr<int32_t[]> order_;
    std::unique_ptr<ExtremumCandidate[]> split_;
};

/// One point of the candidate scan past its first rise or fall: point i with
/// value v follows prev (value prevV); rising is the trend so far (1 rising,
/// 0 falling). The trend after i is set by the sign of the change (a level or
/// NaN change keeps it); a change of the trend makes prev a candidate. prev is
/// written into the next free slot of order every time and the count n
/// advances only for a candidate, so noisy stretches, where candidates come
/// at random, cost no branch. (A select rather than arithmetic on the old
/// trend keeps the chain from one point to the next one instruction long.)
inline void trendStep(int32_t* order, size_t& n, int32_t& prev, double& prevV, unsigned& rising, int32_t i,
                      double v) {
    const double d = v - prevV;
    const unsigned up = d > 0, down = d < 0;
    const unsigned next = (up | down) ? up : rising;
    order[n] = prev;
    n += next ^ rising;
    rising = next;
    prev = i;
    prevV = v;
}

/// Candidate scan along a line: the valid points (z >= 0.0001) are fed in
/// line order with the value compared (z for local peaks, the height above the
/// base line for flat-line peaks); invalid points are simply not fed, so gaps
/// are bridged. Each point is compared with the previous one fed: a change
/// from rising to falling makes the previous point a peak candidate, from
/// falling to rising a valley candidate. Equal values (and NaN differences)
/// never change the trend, so a plateau yields its last point, and the first
/// point is never a candidate. The last point fed becomes an end candidate of
/// the current trend when the line ends in invalid points.
///
/// The scan runs in three loops: up to the first valid point, up to the first
/// rise or fall (which fixes the kind of the first candidate), then the rest.
/// In the last loop the trend is the sign of the latest non-zero change and a
/// candidate is a change of the opposite sign. It takes four points at a time
/// and skips them at once when none goes against the trend; otherwise, as on
/// noisy stretches where candidates come at random, it does not branch on
/// them: it writes the previous index into the next free slot of the list
/// every time and advances the count only for a candidate.
///
/// valueAt(i) gives the value compared at a valid point i and must depend on i
/// alone (it is evaluated again for the candidates); onPoint(i) is called for
/// every point, valid or not, in the same pass (it is called inside both
/// branches of the validity test so that the compiler keeps it in the scanning
/// loop instead of splitting it into a second pass over memory).
template <class ValueAt, class OnPoint>
inline void scanExtremumCandidates(const SKesp3DPosition* points, int32_t count, ValueAt valueAt, OnPoint onPoint,
                                   ExtremumCandidates& out) {
    int32_t* const order = out.order();
    size_t n = 0;
    int32_t prev = 0;
    double prevV = 0.0;
    int trend = 0;  // +1 rising, -1 falling, 0 until the first rise or fall
    int32_t i = 0;
    for (; i < count; ++i) {
        onPoint(i);
        if (isValidZ(points[i].z)) {
            prev = i;
            prevV = valueAt(i);
            ++i;
            break;
        }
    }
    for (; i < count; ++i) {
        if (isValidZ(points[i].z)) {
            onPoint(i);
            const double v = valueAt(i);
            const double d = v - prevV;
            prev = i;
            prevV = v;
            trend = (d > 0) - (d < 0);
            if (trend != 0) {
                ++i;
                break;
            }
        } else {
            onPoint(i);
        }
    }
    const bool firstIsPeak = trend > 0;
    unsigned rising = firstIsPeak ? 1u : 0u;
    const auto step = [&](int32_t i, double v) { trendStep(order, n, prev, prevV, rising, i, v); };
    // Four points at a time. Where all four are valid and none of their
    // changes goes against the trend (the usual case away from noisy flats),
    // none of them is a candidate and only the last one is kept; otherwise
    // they go through step() one by one. (d * sign < 0 is d against the
    // trend: never true for a level step or a NaN difference.)
    for (; i + 3 < count; i += 4) {
        if (isValidZ(points[i].z) && isValidZ(points[i + 1].z) && isValidZ(points[i + 2].z) &&
            isValidZ(points[i + 3].z)) {
            onPoint(i);
            onPoint(i + 1);
            onPoint(i + 2);
            onPoint(i + 3);
            const double v0 = valueAt(i), v1 = valueAt(i + 1), v2 = valueAt(i + 2), v3 = valueAt(i + 3);
            const double sign = rising ? 1.0 : -1.0;
            const bool against = ((v0 - prevV) * sign < 0) | ((v1 - v0) * sign < 0) | ((v2 - v1) * sign < 0) |
                                 ((v3 - v2) * sign < 0);
            if (!against) {
                prev = i + 3;
                prevV = v3;
            } else {
                step(i, v0);
                step(i + 1, v1);
                step(i + 2, v2);
                step(i + 3, v3);
            }
        } else {
            for (int32_t k = i; k < i + 4; ++k) {
                onPoint(k);
                if (isValidZ(points[k].z)) step(k, valueAt(k));
            }
        }
    }
    for (; i < count; ++i) {
        onPoint(i);
        if (isValidZ(points[i].z)) step(i, valueAt(i));
    }
    if (trend != 0 && count > 0 && !isValidZ(points[count - 1].z)) order[n++] = prev;
    out.found = n;
    out.firstIsPeak = firstIsPeak;
}

/// Neighbourhood suppression along y over m candidates, candidate k at yAt(k)
/// with value vAt(k): candidate k survives unless some candidate j within
/// rangeY of it along y (squared distance <= rangeY^2) has rejects(v_k, v_j)
/// true. Each side is scanned from k outwards and stops at the first candidate
/// out of range, even if a later one is in range again. emit(k) is called for
/// the survivors, in candidate order.
template <class YAt, class VAt, class Rejects, class Emit>
inline void suppressCandidatesAt(size_t m, double rangeY, YAt yAt, VAt vAt, Rejects rejects, Emit emit) {
    const double r2 = rangeY * rangeY;
    for (size_t k = 0; k < m; ++k) {
        const double yk = yAt(k), vk = vAt(k);
        bool rejected = false;
        for (size_t j = k; j-- > 0;) {
            const double dy = yk - yAt(j);
            if (dy * dy > r2) break;
            if (rejects(vk, vAt(j))) {
                rejected = true;
                break;
            }
        }
        for (size_t j = k + 1; !rejected && j < m; ++j) {
            const double dy = yk - yAt(j);
            if (dy * dy > r2) break;
            if (rejects(vk, vAt(j))) rejected = true;
        }
        if (!rejected) emit(k);
    }
}

/// The same over an array of candidates; emit(candidate) for the survivors.
template <class Rejects, class Emit>
inline void suppressCandidates(const ExtremumCandidate* c, size_t m, double rangeY, Rejects rejects, Emit emit) {
    suppressCandidatesAt(
        m, rangeY, [c](size_t k) { return c[k].y; }, [c](size_t k) { return c[k].v; }, rejects,
        [c, &emit](size_t k) { emit(c[k]); });
}

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
///
/// With avx2 (which the caller has checked the processor has) the neighbours
/// are searched for four points at a time on AVX2; otherwise point by point
/// along the polyline. Both give the same neighbours and, with the same
/// operations lane for lane, the same approximate angles.
class CornerAngleList {
public:
    enum class Angle { Backward, Forward, Corner };

    /// Builds the list for points[0 .. count-1]. When segments is not null the
    /// runs of valid points, cut where |dz| between consecutive valid points
    /// exceeds jumpZ, are appended to it. minima are found only if keepMinima.
    void build(const SKesp3DPosition* points, int32_t count, double jumpZ, double armLen, bool keepMinima,
               std::vector<CornerSegment>* segments, bool avx2);

    int32_t size() const { return m_; }
    int32_t inputIndex(int32_t k) const { return idx_[k]; }
    double y(int32_t k) const { return y_[k]; }
    /// Compacted index of the backward / forward neighbour, -1 for a point
    /// without angles.
    int32_t backward(int32_t k) const { return back_[k]; }
    int32_t forward(int32_t k) const { return fwd_[k]; }
    /// z of the backward / forward neighbour (only for points with angles).
    double backwardZ(int32_t k) const { return z_[back_[k]]; }
    double forwardZ(int32_t k) const { return z_[fwd_[k]]; }
    /// The approximate corner angle (only for points with angles).
    double approxCorner(int32_t k) const { return approxC_[k]; }
    /// Compacted indices of the extrema of the corner angle, in line order.
    CornerIndexList maxima() const { return CornerIndexList{maxima_, maxCount_}; }
    CornerIndexList minima() const { return CornerIndexList{minima_, minCount_}; }

    /// The exact angle (one-argument atan), in degrees.
    double exact(Angle a, int32_t k) const;
    /// Exactly `angle(k) > limit` / `angle(k) < limit`; with absolute, of |angle(k)|.
    /// The corner angle's clear cases are settled inline: the tests run on
    /// every extremum.
    bool greater(Angle a, int32_t k, double limit, bool absolute) const {
        if (a == Angle::Corner) {
            const double v = absolute ? std::fabs(approxC_[k]) : approxC_[k];
            if (v - 2.0 * kAngleTol > limit) return true;
            if (v + 2.0 * kAngleTol < limit) return false;
        }
        return exactGreater(a, k, limit, absolute);
    }
    bool less(Angle a, int32_t k, double limit, bool absolute) const {
        if (a == Angle::Corner) {
            const double v = absolute ? std::fabs(approxC_[k]) : approxC_[k];
            if (v + 2.0 * kAngleTol < limit) return true;
            if (v - 2.0 * kAngleTol > limit) return false;
        }
        return exactLess(a, k, limit, absolute);
    }
    /// Positions in cands of the candidates whose corner angle (magnitude, with
    /// absolute) is not clearly below limit: every candidate for which
    /// less(Corner, q, limit, absolute) can be false. Screened without
    /// branches, as on noisy profiles most candidates fail at random; valid
    /// until the next call.
    CornerIndexList notClearlyBelow(CornerIndexList cands, double limit, bool absolute);
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
    bool exactGreater(Angle a, int32_t k, double limit, bool absolute) const;
    bool exactLess(Angle a, int32_t k, double limit, bool absolute) const;
    void allocate(std::size_t n);
    void findSkips(double armLen);
    void findNeighboursAndAngles(double armLen, bool avx2);
    void findNeighboursAlongPath(double armLen);
    void approximateAngles();
    void computePath();
    int32_t forwardFrom(int32_t k, int32_t j);
    int32_t backwardFrom(int32_t k, int32_t j);
    void finishPoint(int32_t k, int32_t b, int32_t f);
    void findExtrema(bool keepMinima);

    int32_t m_ = 0;
    // Left uninitialised: every element is written before it is read.
    std::unique_ptr<int32_t[]> ints_;  // the index arrays below, in one block
    std::unique_ptr<double[]> reals_;  // the coordinate and angle arrays below, in one block
    int32_t* idx_ = nullptr;           // input index of compacted point k
    int32_t* back_ = nullptr;          // backward neighbour, -1 when k has no angles
    int32_t* fwd_ = nullptr;           // forward neighbour, -1 when k has no angles
    int32_t* maxima_ = nullptr;
    int32_t* minima_ = nullptr;
    int32_t* skipF_ = nullptr;         // per group of four points: points provably within the arm forward
    int32_t* skipB_ = nullptr;         // ... and backward
    int32_t* screened_ = nullptr;      // positions kept by notClearlyBelow
    std::size_t maxCount_ = 0;
    std::size_t minCount_ = 0;
    double* y_ = nullptr;              // padded on both sides with NaN (never within reach)
    double* z_ = nullptr;
    double* path_ = nullptr;           // polyline length from point 0 to point k, +inf after m;
                                       // computed only when a search walks far
    double* approxC_ = nullptr;        // approximate corner angle
    double* largest_ = nullptr;        // per group: its largest squared step, padded with 0
    double t_ = 0.0;                   // squared distances >= t_ reach the arm
    double pathReach_ = 0.0;           // path bound of the far searches
    double pathGrow_ = 1.0;
    bool pathKnown_ = false;
};

// ---------------------------------------------------------------------------
// Calibration
// ---------------------------------------------------------------------------

/// Least-squares sums of z on x and y over single-precision points, each
/// coordinate widened to double before it is multiplied or added.
struct PlaneSums {
    double sxx = 0.0, sxy = 0.0, syy = 0.0, sx = 0.0, sy = 0.0;
    double sxz = 0.0, syz = 0.0, sz = 0.0;
    int64_t m = 0;

    void add(const cv::Point3f& p) { add(p.x, p.y, p.z); }
    /// The same for coordinates already widened from single precision.
    void add(double x, double y, double z) {
        sxx += x * x;
        sxy += x * y;
        syy += y * y;
        sx += x;
        sy += y;
        sxz += x * z;
        syz += y * z;
        sz += z;
        ++m;
    }
};

/// Solves the normal equations of z = a x + b y + e and returns (a, b, -1, e),
/// the coefficients of a x + b y - z + e = 0. The inverse is taken by LU and
/// evaluated into a matrix of its own: for a singular system it is the zero
/// matrix, so the result is (0, 0, -1, 0). (Writing the inverse inside the
/// product would let OpenCV turn it into a linear solve, whose output is
/// undefined for a singular system.)
inline cv::Vec4d solvePlane(const PlaneSums& s) {
    cv::Mat A = cv::Mat::zeros(3, 3, CV_64F);
    cv::Mat B = cv::Mat::zeros(3, 1, CV_64F);
    A.at<double>(0, 0) = s.sxx;
    A.at<double>(0, 1) = s.sxy;
    A.at<double>(0, 2) = s.sx;
    A.at<double>(1, 0) = s.sxy;
    A.at<double>(1, 1) = s.syy;
    A.at<double>(1, 2) = s.sy;
    A.at<double>(2, 0) = s.sx;
    A.at<double>(2, 1) = s.sy;
    A.at<double>(2, 2) = static_cast<double>(s.m);
    B.at<double>(0, 0) = s.sxz;
    B.at<double>(1, 0) = s.syz;
    B.at<double>(2, 0) = s.sz;
    const cv::Mat Ainv = A.inv(cv::DECOMP_LU);
    const cv::Mat X = Ainv * B;
    return cv::Vec4d(X.at<double>(0, 0), X.at<double>(1, 0), -1.0, X.at<double>(2, 0));
}

/// Least-squares plane z = a x + b y + e through single-precision points;
/// returns (a, b, -1, e). No point, one point, or points on one line whose
/// sums make the system exactly singular give (0, 0, -1, 0); a system that
/// rounding leaves barely regular gives what its inverse gives.
inline cv::Vec4d planeFitting(const std::vector<cv::Point3f>& pts) {
    PlaneSums s;
    for (const cv::Point3f& p : pts) s.add(p);
    return solvePlane(s);
}

/// Quaternion (w, x, y, z) of the shortest rotation that turns the direction
/// of u into the direction of v. Vectors shorter than 1e-7 and directions
/// that already agree (cosine above 0.9999999) give the identity (1, 0, 0, 0);
/// opposite directions (cosine below -0.9999999) give a half turn about x,
/// or about y when u lies along x.
inline cv::Vec4d rotationBetweenVectors(const cv::Vec3d& u, const cv::Vec3d& v) {
    constexpr double kMinLength = 1e-7;
    constexpr double kParallelCos = 0.9999999;
    const cv::Vec4d identity(1.0, 0.0, 0.0, 0.0);
    const double lu = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
    const double lv = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (lu < kMinLength || lv < kMinLength) return identity;
    const cv::Vec3d a(u[0] / lu, u[1] / lu, u[2] / lu);
    const cv::Vec3d b(v[0] / lv, v[1] / lv, v[2] / lv);
    const double d = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
    if (d > kParallelCos) return identity;
    if (d < -kParallelCos) {
        // Any half turn about an axis perpendicular to u will do; the x axis
        // is perpendicular unless u itself lies along x.
        if (std::fabs(a[1]) < kMinLength && std::fabs(a[2]) < kMinLength) return cv::Vec4d(0.0, 0.0, 1.0, 0.0);
        return cv::Vec4d(0.0, 1.0, 0.0, 0.0);
    }
    const cv::Vec3d n(a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]);
    const double ln = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (ln < kMinLength) return identity;
    const double s = std::sqrt((1.0 - d) / 2.0);
    return cv::Vec4d(std::sqrt((1.0 + d) / 2.0), s * n[0] / ln, s * n[1] / ln, s * n[2] / ln);
}

/// Row-major rotation matrix of a unit quaternion (w, x, y, z).
inline void quaternionToMatrix(const cv::Vec4d& q, double m[9]) {
    const double w = q[0], x = q[1], y = q[2], z = q[3];
    m[0] = 1.0 - 2.0 * (y * y + z * z);
    m[1] = 2.0 * (x * y - w * z);
    m[2] = 2.0 * (x * z + w * y);
    m[3] = 2.0 * (x * y + w * z);
    m[4] = 1.0 - 2.0 * (x * x + z * z);
    m[5] = 2.0 * (y * z - w * x);
    m[6] = 2.0 * (x * z - w * y);
    m[7] = 2.0 * (y * z + w * x);
    m[8] = 1.0 - 2.0 * (x * x + y * y);
}

}  // namespace pa_detail

#endif  // PROFILE_ANALYSIS_INTERNAL_H
