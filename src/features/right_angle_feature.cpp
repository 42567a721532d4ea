// Right-angle corners: a flat stretch (z nearly constant along y) meeting a
// wall (y nearly constant along z), in four kinds.
#include <algorithm>
#include <cmath>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "internal.h"

using pa_detail::isStrictlyValidZ;
using pa_detail::isValidZ;

namespace {

constexpr int32_t kFlatBeforeWallUp = 10;      // flat, then a wall rising away from the corner
constexpr int32_t kWallDownFlatAfter = 12;     // wall, then flat, the corner above the wall's far end
constexpr int32_t kFlatBeforeWallDown = 9;     // flat, then a wall not rising
constexpr int32_t kWallUpFlatAfter = 11;       // wall, then flat, the corner not above the wall's far end

// One arm of point i walked outward over the strictly valid points.
// The walk can be resumed with a larger reach: every point within the smaller
// reach is also within the larger one, so the maxima carry over and the walk
// goes on from the far end it stopped at.
struct Arm {
    double maxDy = -1.0;  // largest |y(j) - y(i)| on the arm
    double maxDz = -1.0;  // largest |z(j) - z(i)| on the arm
    int64_t next = 0;     // next index to visit; the far end once found
    bool hasFarEnd = false;
    bool exhausted = false;
};

class ArmWalker {
public:
    ArmWalker(const SKesp3DPosition* pts, int64_t n) : pts_(pts), n_(n) {}

    int64_t size() const { return n_; }

    Arm start(int64_t i, int step) const {
        Arm a;
        a.next = i + step;
        return a;
    }

    // Takes the arm one valid point further. Returns false once the arm is
    // complete: its far end found (the first point with |dy| + |dz| > reach)
    // or the line run out.
    bool advance(Arm& a, int64_t i, int step, double reach) const {
        const double yi = pts_[i].y, zi = pts_[i].z;
        int64_t j = a.next;
        for (; j >= 0 && j < n_; j += step) {
            const double z = pts_[j].z;
            if (!isStrictlyValidZ(z)) continue;
            const double dy = std::fabs(pts_[j].y - yi);
            const double dz = std::fabs(z - zi);
            if (!(dy + dz <= reach)) {
                a.next = j;
                a.hasFarEnd = true;
                return false;
            }
            if (dy > a.maxDy) a.maxDy = dy;
            if (dz > a.maxDz) a.maxDz = dz;
            a.next = j + step;
            return true;
        }
        a.next = j;
        a.hasFarEnd = false;
        a.exhausted = true;
        return false;
    }

    // Walks the arm to completion with the given reach (resuming after its
    // far end when it was walked before with a smaller reach).
    void extend(Arm& a, int64_t i, int step, double reach) const {
        if (a.exhausted) return;
        while (advance(a, i, step, reach)) {
        }
    }

private:
    const SKesp3DPosition* pts_;
    int64_t n_;
};

#if defined(__SSE2__)
// Screening rounds taken two arms at a time: lane 0 is the backward arm, lane
// 1 the forward arm. A round is taken here only when both arms' next points
// are strictly valid and within reach, which is what the one-arm walk would
// do with them too (same differences, sums and comparisons, in the same
// order); at the first other round the arms are handed back to the one-arm
// walk where they stand. Returns false when the point is ruled out.
bool screenBothArmsPacked(const SKesp3DPosition* pts, int64_t n, int64_t i, double reach, double tmax, Arm& back,
                          Arm& fwd) {
    const __m128d yi = _mm_set1_pd(pts[i].y), zi = _mm_set1_pd(pts[i].z);
    const __m128d reachV = _mm_set1_pd(reach), tmaxV = _mm_set1_pd(tmax);
    const __m128d validV = _mm_set1_pd(pa_detail::kValidZ), signBit = _mm_set1_pd(-0.0);
    __m128d maxDy = _mm_set1_pd(-1.0), maxDz = _mm_set1_pd(-1.0);
    int64_t jb = i - 1, jf = i + 1;
    bool open = true;
    // Two rounds at a time where both fit: the maxima only grow, so a point
    // ruled out after the first round is still ruled out after the second,
    // and checking once per pair gives the same answer with fewer branches.
    while (jb >= 1 && jf + 1 < n) {
        const __m128d y1 = _mm_set_pd(pts[jf].y, pts[jb].y), z1 = _mm_set_pd(pts[jf].z, pts[jb].z);
        const __m128d y2 = _mm_set_pd(pts[jf + 1].y, pts[jb - 1].y), z2 = _mm_set_pd(pts[jf + 1].z, pts[jb - 1].z);
        const __m128d dy1 = _mm_andnot_pd(signBit, _mm_sub_pd(y1, yi));
        const __m128d dz1 = _mm_andnot_pd(signBit, _mm_sub_pd(z1, zi));
        const __m128d dy2 = _mm_andnot_pd(signBit, _mm_sub_pd(y2, yi));
        const __m128d dz2 = _mm_andnot_pd(signBit, _mm_sub_pd(z2, zi));
        const __m128d onArm1 = _mm_and_pd(_mm_cmpgt_pd(z1, validV), _mm_cmple_pd(_mm_add_pd(dy1, dz1), reachV));
        const __m128d onArm2 = _mm_and_pd(_mm_cmpgt_pd(z2, validV), _mm_cmple_pd(_mm_add_pd(dy2, dz2), reachV));
        if (_mm_movemask_pd(_mm_and_pd(onArm1, onArm2)) != 3) break;
        maxDy = _mm_max_pd(dy2, _mm_max_pd(dy1, maxDy));
        maxDz = _mm_max_pd(dz2, _mm_max_pd(dz1, maxDz));
        jb -= 2;
        jf += 2;
        const int dyOpen = _mm_movemask_pd(_mm_cmplt_pd(maxDy, tmaxV));
        const int dzOpen = _mm_movemask_pd(_mm_cmplt_pd(maxDz, tmaxV));
        if (!((dzOpen & 1) && (dyOpen & 2)) && !((dyOpen & 1) && (dzOpen & 2))) return false;
    }
    while (jb >= 0 && jf < n) {
        const __m128d y = _mm_set_pd(pts[jf].y, pts[jb].y);
        const __m128d z = _mm_set_pd(pts[jf].z, pts[jb].z);
        const __m128d dy = _mm_andnot_pd(signBit, _mm_sub_pd(y, yi));
        const __m128d dz = _mm_andnot_pd(signBit, _mm_sub_pd(z, zi));
        const __m128d onArm = _mm_and_pd(_mm_cmpgt_pd(z, validV), _mm_cmple_pd(_mm_add_pd(dy, dz), reachV));
        if (_mm_movemask_pd(onArm) != 3) break;
        maxDy = _mm_max_pd(dy, maxDy);
        maxDz = _mm_max_pd(dz, maxDz);
        --jb;
        ++jf;
        const int dyOpen = _mm_movemask_pd(_mm_cmplt_pd(maxDy, tmaxV));
        const int dzOpen = _mm_movemask_pd(_mm_cmplt_pd(maxDz, tmaxV));
        const bool flatBeforeOpen = (dzOpen & 1) && (dyOpen & 2);
        const bool wallBeforeOpen = (dyOpen & 1) && (dzOpen & 2);
        if (!flatBeforeOpen && !wallBeforeOpen) {
            open = false;
            break;
        }
    }
    back.maxDy = _mm_cvtsd_f64(maxDy);
    back.maxDz = _mm_cvtsd_f64(maxDz);
    fwd.maxDy = _mm_cvtsd_f64(_mm_unpackhi_pd(maxDy, maxDy));
    fwd.maxDz = _mm_cvtsd_f64(_mm_unpackhi_pd(maxDz, maxDz));
    back.next = jb;
    fwd.next = jf;
    return open;
}
#endif

struct Reaches {
    double rmin;  // smallest of the eight reaches: the screening reach
    double tmax;  // largest of the four tolerances: the screening tolerance
};

Reaches screeningLimits(const SHX_lineRightAngleParam* p) {
    Reaches r{p[0].flatArmLen, p[0].maxDeviation};
    for (int k = 0; k < 4; ++k) {
        r.rmin = std::min({r.rmin, p[k].flatArmLen, p[k].wallArmLen});
        r.tmax = std::max(r.tmax, p[k].maxDeviation);
    }
    return r;
}

// The arm of a kind's own measurement: the screening arm resumed to the
// kind's reach. A measured arm without a far end reports 0.
struct Measured {
    double dy, dz;
    bool adjacent;
};

Measured measure(const ArmWalker& w, const Arm& screened, int64_t i, int step, double reach, double screenReach) {
    Arm a = screened;
    if (!(reach >= screenReach)) {
        // Only a NaN reach gets here (the screening reach is the smallest):
        // walk from the point itself rather than resume.
        a = w.start(i, step);
    }
    w.extend(a, i, step, reach);
    if (!a.hasFarEnd) return Measured{0.0, 0.0, false};
    return Measured{a.maxDy, a.maxDz, step < 0 && a.next == i - 1};
}

// Classifies point i; returns its type (0 for none) and sets adjacent.
int32_t classifyPoint(const ArmWalker& w, const SKesp3DPosition* pts, int64_t i, const SHX_lineRightAngleParam* p,
                      const Reaches& lim, bool& adjacent) {
    adjacent = false;
    const double tmax = lim.tmax;
    // Screening: both arms are walked in step, and the walk stops as soon as
    // their maxima (which only grow) rule out both kinds.
    Arm back = w.start(i, -1), fwd = w.start(i, +1);
#if defined(__SSE2__)
    if (!screenBothArmsPacked(pts, w.size(), i, lim.rmin, tmax, back, fwd)) return 0;
#endif
    bool backMore = true, fwdMore = true;
    while (backMore || fwdMore) {
        if (backMore) backMore = w.advance(back, i, -1, lim.rmin);
        if (fwdMore) fwdMore = w.advance(fwd, i, +1, lim.rmin);
        const bool flatBeforeOpen = tmax > back.maxDz && tmax > fwd.maxDy;
        const bool wallBeforeOpen = tmax > back.maxDy && tmax > fwd.maxDz;
        if (!flatBeforeOpen && !wallBeforeOpen) return 0;
    }
    if (!back.hasFarEnd || !fwd.hasFarEnd) return 0;
    // An arm ending at the very next point has no points; its |dy| counts as 0.
    const bool backAdjacent = back.next == i - 1;
    const double backDy = backAdjacent ? 0.0 : back.maxDy;
    const double zi = pts[i].z;

    // First kind: flat arm before, wall after. Once its screening passes the
    // point is finished, whether or not its own test succeeds.
    if (tmax > back.maxDz && tmax > fwd.maxDy) {
        const bool wallRises = pts[fwd.next].z > zi;
        const SHX_lineRightAngleParam& own = wallRises ? p[0] : p[2];
        const Measured b = measure(w, back, i, -1, own.flatArmLen, lim.rmin);
        const Measured f = measure(w, fwd, i, +1, own.wallArmLen, lim.rmin);
        // Both flat-before kinds take their tolerance from the first record.
        const double tol = p[0].maxDeviation;
        if (tol > b.dz && tol > f.dy) {
            adjacent = b.adjacent;
            return wallRises ? kFlatBeforeWallUp : kFlatBeforeWallDown;
        }
        return 0;
    }

    // Second kind: wall before, flat arm after.
    if (tmax > backDy && tmax > fwd.maxDz) {
        const bool cornerAbove = zi > pts[back.next].z;
        const SHX_lineRightAngleParam& own = cornerAbove ? p[1] : p[3];
        const Measured b = measure(w, back, i, -1, own.wallArmLen, lim.rmin);
        const Measured f = measure(w, fwd, i, +1, own.flatArmLen, lim.rmin);
        const double wallDy = b.adjacent ? 0.0 : b.dy;
        if (own.maxDeviation > wallDy && own.maxDeviation > f.dz) {
            adjacent = b.adjacent;
            return cornerAbove ? kWallDownFlatAfter : kWallUpFlatAfter;
        }
    }
    return 0;
}

// The point reported for the run [s, e] of one corner type: the last point
// with a backward-adjacent arm (lastAdjacent, or below s when there is none),
// else the middle (or the nearest valid point to it, the higher index first at
// each distance).
int64_t chooseRunPoint(const SKesp3DPosition* pts, int64_t lastAdjacent, int64_t s, int64_t e) {
    if (lastAdjacent >= s) return lastAdjacent;
    const int64_t m = (s + e) / 2;
    if (isValidZ(pts[m].z)) return m;
    for (int64_t k = 1; k <= m - s; ++k) {
        if (isStrictlyValidZ(pts[m + k].z)) return m + k;
        if (isStrictlyValidZ(pts[m - k].z)) return m - k;
    }
    return m;
}

}  // namespace

PA_API void hx_getLineRigthAngleFeature(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                        SHX_lineRightAngleParam param1, SHX_lineRightAngleParam param2,
                                        SHX_lineRightAngleParam param3, SHX_lineRightAngleParam param4,
                                        SHX_lineFeature* feature) {
    if (points == nullptr || feature == nullptr || pointCount <= 0) return;
    const int64_t n = pointCount;
    const SHX_lineRightAngleParam params[4] = {param1, param2, param3, param4};
    const Reaches lim = screeningLimits(params);
    const ArmWalker walker(points, n);

    // Runs of equal type are grouped as the points are classified: only the
    // open run's type, start and last adjacent point are kept.
    int32_t runType = 0;
    int64_t runStart = 0, lastAdjacent = -1;
    auto closeRun = [&](int64_t e) {
        if (runType == 0) return;
        const int64_t c = chooseRunPoint(points, lastAdjacent, runStart, e);
        SHX_basicFeature1D f;
        f.featureType = runType;
        f.lineIdx = lineIdx;
        f.featurePos = points[c];
        f.featurePos.nPointIdx = c;
        f.featureValue = 0.0;
        feature->features.push_back(f);
    };
    for (int64_t i = 0; i < n; ++i) {
        bool adj = false;
        const int32_t t = isValidZ(points[i].z) ? classifyPoint(walker, points, i, params, lim, adj) : 0;
        if (t != runType) {
            closeRun(i - 1);
            runType = t;
            runStart = i;
        }
        if (adj) lastAdjacent = i;
    }
    closeRun(n - 1);
}
