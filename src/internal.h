// internal.h - helpers shared by the library's sources; not installed.
#ifndef PROFILE_ANALYSIS_INTERNAL_H
#define PROFILE_ANALYSIS_INTERNAL_H

#include <cstdint>
#include <memory>
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

/// Working storage of the candidate scan for a line of `count` points: the
/// peak and the valley candidates, each in line order, in one uninitialised
/// allocation. Peaks and valleys alternate and every candidate is a distinct
/// valid point other than the first, so neither kind exceeds count / 2.
class ExtremumCandidates {
public:
    explicit ExtremumCandidates(int32_t count)
        : capacity_(static_cast<size_t>(count) / 2 + 2), storage_(new ExtremumCandidate[2 * capacity_]) {}
    ExtremumCandidate* peaks() { return storage_.get(); }
    ExtremumCandidate* valleys() { return storage_.get() + capacity_; }
    const ExtremumCandidate* peaks() const { return storage_.get(); }
    const ExtremumCandidate* valleys() const { return storage_.get() + capacity_; }
    size_t peakCount = 0;
    size_t valleyCount = 0;

private:
    size_t capacity_;
    std::unique_ptr<ExtremumCandidate[]> storage_;
};

/// Candidate scan along a line: the valid points (z >= 0.0001) are fed in
/// line order with the value compared (z for local peaks, the height above the
/// base line for flat-line peaks); invalid points are simply not fed, so gaps
/// are bridged. Each point is compared with the previous one fed: a change
/// from rising to falling makes the previous point a peak candidate, from
/// falling to rising a valley candidate. Equal values (and NaN differences)
/// never change the trend, so a plateau yields its last point, and the first
/// point is never a candidate. finish() adds the last point as an end
/// candidate when asked to (the line ends in invalid points).
///
/// Feeding goes in three phases, each a loop of its own in the caller: start()
/// with the first point, decide() until the first rise or fall (it returns
/// true once the trend is decided), then feed(). Once decided, the trend
/// changes only where a candidate is emitted, so it is kept as a factor of +1
/// (rising) or -1 (falling) and one product per point tells a step against it
/// (d * trend < 0, never true for a level step or a NaN difference): only the
/// rare candidates take a branch.
class ExtremumScanner {
public:
    ExtremumScanner(const SKesp3DPosition* points, ExtremumCandidates& out)
        : points_(points), peaks_(out.peaks()), valleys_(out.valleys()), out_(out) {}

    void start(int32_t i, double v) {
        prev_ = i;
        prevV_ = v;
    }

    bool decide(int32_t i, double v) {
        const double d = v - prevV_;
        prev_ = i;
        prevV_ = v;
        if (d > 0) trend_ = 1.0;
        else if (d < 0) trend_ = -1.0;
        return trend_ != 0.0;
    }

    void feed(int32_t i, double v) {
        if ((v - prevV_) * trend_ < 0) {
            emit();
            trend_ = -trend_;
        }
        prev_ = i;
        prevV_ = v;
    }

    /// Stores the counts in the output; with endCandidate the last point fed
    /// becomes a candidate of the current trend (none while undecided).
    void finish(bool endCandidate) {
        if (endCandidate && trend_ != 0.0) emit();
        out_.peakCount = np_;
        out_.valleyCount = nv_;
    }

private:
    void emit() {
        const ExtremumCandidate c{prev_, points_[prev_].y, prevV_};
        if (trend_ > 0) peaks_[np_++] = c;
        else valleys_[nv_++] = c;
    }

    const SKesp3DPosition* points_;
    ExtremumCandidate* peaks_;
    ExtremumCandidate* valleys_;
    ExtremumCandidates& out_;
    size_t np_ = 0, nv_ = 0;
    int32_t prev_ = 0;
    double prevV_ = 0.0;
    double trend_ = 0.0;
};

/// Runs an ExtremumScanner over points[0..count) in its three phases.
/// valueAt(i) gives the value compared at a valid point i; onPoint(i) is
/// called for every point, valid or not, in the same pass (it is called inside
/// both branches of the validity test so that the compiler keeps it in the
/// scanning loop instead of splitting it into a second pass over memory).
template <class ValueAt, class OnPoint>
inline void scanExtremumCandidates(const SKesp3DPosition* points, int32_t count, ValueAt valueAt, OnPoint onPoint,
                                   ExtremumCandidates& out) {
    ExtremumScanner scanner(points, out);
    int32_t i = 0;
    for (; i < count; ++i) {
        onPoint(i);
        if (isValidZ(points[i].z)) {
            scanner.start(i, valueAt(i));
            ++i;
            break;
        }
    }
    for (; i < count; ++i) {
        if (isValidZ(points[i].z)) {
            onPoint(i);
            if (scanner.decide(i, valueAt(i))) {
                ++i;
                break;
            }
        } else {
            onPoint(i);
        }
    }
    for (; i < count; ++i) {
        if (isValidZ(points[i].z)) {
            onPoint(i);
            scanner.feed(i, valueAt(i));
        } else {
            onPoint(i);
        }
    }
    scanner.finish(count > 0 && !isValidZ(points[count - 1].z));
}

/// Neighbourhood suppression along y: candidate k survives unless some
/// candidate j within rangeY of it along y (squared distance <= rangeY^2) has
/// rejects(v_k, v_j) true. Each side is scanned from k outwards and stops at
/// the first candidate out of range, even if a later one is in range again.
/// emit(candidate) is called for the survivors, in candidate order.
template <class Rejects, class Emit>
inline void suppressCandidates(const ExtremumCandidate* c, size_t m, double rangeY, Rejects rejects, Emit emit) {
    const double r2 = rangeY * rangeY;
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
