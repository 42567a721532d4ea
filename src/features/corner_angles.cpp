// Direction angles of a profile shared by the corner and jump detectors:
// compaction, arm-length neighbours, chord angles and the extrema of the
// corner angle.
#include <cmath>
#include <cstddef>
#include <limits>

#include <opencv2/core/hal/intrin.hpp>

#include "internal.h"

#if defined(__GNUC__)
#define PA_CORNER_COLD __attribute__((noinline))
#elif defined(_MSC_VER)
#define PA_CORNER_COLD __declspec(noinline)
#else
#define PA_CORNER_COLD
#endif

namespace pa_detail {

namespace {

// The exact angles convert with the literal pi; the approximation converts the
// same way so that it approximates exactly those values.
constexpr double kDegPerRad = 180.0 / kPiLiteral;

// atan(v) ~ v * P(v^2) on [0, 1], least-squares fit with equalised error;
// largest error 2.5e-7 rad (1.42e-5 degrees).
constexpr double kAtan0 = 9.99996112124604735e-01;
constexpr double kAtan1 = -3.33173688973460603e-01;
constexpr double kAtan2 = 1.98078192880662250e-01;
constexpr double kAtan3 = -1.32333485252968094e-01;
constexpr double kAtan4 = 7.96237072257946114e-02;
constexpr double kAtan5 = -3.36042060397564353e-02;
constexpr double kAtan6 = 6.81177879731841659e-03;

// Approximates radToDegLiteral(atan(dz / ady)) for ady >= 0 without a libm
// call: the octant is reduced to a ratio in [0, 1]. Any input for which the
// exact ratio is NaN (0/0, inf/inf, NaN) gives NaN, so that every decision
// on such a point falls back to the exact angle.
inline double approxChordAngle(double dz, double ady) {
    const double az = std::fabs(dz);
    const bool steep = az > ady;
    const double v = (steep ? ady : az) / (steep ? az : ady);
    const double s = v * v;
    const double p = v * (kAtan0 + s * (kAtan1 + s * (kAtan2 + s * (kAtan3 + s * (kAtan4 + s * (kAtan5 + s * kAtan6))))));
    const double deg = (steep ? kHalfPi - p : p) * kDegPerRad;
    return dz < 0.0 ? -deg : deg;
}

#if CV_SIMD128_64F
// approxChordAngle on two lanes; same formula, same NaN behaviour.
inline cv::v_float64x2 approxChordAngle2(const cv::v_float64x2& dz, const cv::v_float64x2& ady) {
    const cv::v_float64x2 zero = cv::v_setzero_f64();
    const cv::v_float64x2 az = cv::v_abs(dz);
    const cv::v_float64x2 steep = az > ady;
    const cv::v_float64x2 v = cv::v_select(steep, ady, az) / cv::v_select(steep, az, ady);
    // Estrin's scheme: the pass is bound by the latency of this chain.
    const cv::v_float64x2 s = v * v;
    const cv::v_float64x2 s2 = s * s;
    const cv::v_float64x2 s4 = s2 * s2;
    const cv::v_float64x2 q0 = cv::v_setall_f64(kAtan0) + cv::v_setall_f64(kAtan1) * s;
    const cv::v_float64x2 q1 = cv::v_setall_f64(kAtan2) + cv::v_setall_f64(kAtan3) * s;
    const cv::v_float64x2 q2 = cv::v_setall_f64(kAtan4) + cv::v_setall_f64(kAtan5) * s;
    const cv::v_float64x2 r1 = q2 + cv::v_setall_f64(kAtan6) * s2;
    const cv::v_float64x2 p = (q0 + q1 * s2 + r1 * s4) * v;
    const cv::v_float64x2 deg = cv::v_select(steep, cv::v_setall_f64(kHalfPi) - p, p) * cv::v_setall_f64(kDegPerRad);
    return cv::v_select(dz < zero, zero - deg, deg);
}
#endif

inline double exactChordAngle(double dz, double dy) { return radToDegLiteral(std::atan(dz / std::fabs(dy))); }



// Copies the valid points' input index, y and z to the front of idx, y and z
// and returns their number. With kSegments the runs of valid points, cut
// where consecutive heights differ by more than jumpZ, are appended to
// segments. While a run is open its previous input point is valid, so it is
// the last compacted one.
template <bool kSegments>
int32_t compactValid(const SKesp3DPosition* points, int32_t count, double jumpZ, int32_t* idx, double* y, double* z,
                     std::vector<CornerSegment>* segments) {
    int32_t m = 0;
    bool open = false;
    int32_t first = 0, last = 0;
    for (int32_t i = 0; i < count; ++i) {
        const double zi = points[i].z;
        if (!isStrictlyValidZ(zi)) {
            if (kSegments && open) {
                segments->push_back(CornerSegment{first, last - first + 1, 1});
                open = false;
            }
            continue;
        }
        idx[m] = i;
        y[m] = points[i].y;
        z[m] = zi;
        if (kSegments) {
            if (!open) {
                open = true;
                first = last = i;
            } else if (std::fabs(zi - z[m - 1]) > jumpZ) {
                segments->push_back(CornerSegment{first, last - first + 1, 1});
                first = last = i;
            } else {
                last = i;
            }
        }
        ++m;
    }
    if (kSegments && open) segments->push_back(CornerSegment{first, last - first + 1, 1});
    return m;
}

// path[k] = length of the polyline from point 0 to point k, summed in order.
// The step lengths are independent, so they are taken two at a time; the
// square root of the vector unit also skips the library call that a scalar
// sqrt keeps for negative arguments.
void pathLengths(const double* y, const double* z, int32_t m, double* path) {
    path[0] = 0.0;
    double walked = 0.0;
    int32_t k = 1;
#if CV_SIMD128_64F
    for (; k + 2 <= m; k += 2) {
        const cv::v_float64x2 dy = cv::v_load(y + k) - cv::v_load(y + k - 1);
        const cv::v_float64x2 dz = cv::v_load(z + k) - cv::v_load(z + k - 1);
        double step[2];
        cv::v_store(step, cv::v_sqrt(dy * dy + dz * dz));
        walked += step[0];
        path[k] = walked;
        walked += step[1];
        path[k + 1] = walked;
    }
#endif
    for (; k < m; ++k) {
        const double dy = y[k] - y[k - 1], dz = z[k] - z[k - 1];
        walked += std::sqrt(dy * dy + dz * dz);
        path[k] = walked;
    }
}

}  // namespace

// Arrays are padded: coordinates are NaN outside 0 .. m-1, so that points
// without neighbours (index -1) can be read without a branch, and the path is
// +inf after m-1, where the forward skip stops.
constexpr int32_t kPad = 2;

// Everything in two blocks of about 48 bytes per point: small enough that a
// 2,048-point line stays within the allocator's retained top of heap, so that
// repeated calls do not fault pages in again.
void CornerAngleList::allocate(size_t n) {
    const size_t stride = n + 2 * kPad;
    // Maxima and minima alternate, so neither list outgrows half the points plus one.
    const size_t extrema = n / 2 + 2;
    ints_.reset(new int32_t[3 * n + 2 * extrema]);
    idx_ = ints_.get();
    back_ = idx_ + n;
    fwd_ = back_ + n;
    maxima_ = fwd_ + n;
    minima_ = maxima_ + extrema;
    reals_.reset(new double[4 * stride]);
    y_ = reals_.get() + kPad;
    z_ = y_ + stride;
    path_ = z_ + stride;
    approxC_ = path_ + stride;
}

void CornerAngleList::build(const SKesp3DPosition* points, int32_t count, double jumpZ, double armLen,
                            bool keepMinima, std::vector<CornerSegment>* segments) {
    m_ = 0;
    maxCount_ = minCount_ = 0;
    if (points == nullptr || count < 1) return;
    allocate(static_cast<size_t>(count));

    const int32_t m = segments ? compactValid<true>(points, count, jumpZ, idx_, y_, z_, segments)
                               : compactValid<false>(points, count, jumpZ, idx_, y_, z_, nullptr);
    m_ = m;
    if (m == 0) return;

    pathLengths(y_, z_, m, path_);

    double* y = y_;
    double* z = z_;
    double* path = path_;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (int32_t p = 1; p <= kPad; ++p) {
        y[-p] = z[-p] = nan;
        y[m - 1 + p] = z[m - 1 + p] = nan;
        path[m - 1 + p] = std::numeric_limits<double>::infinity();
    }

    findNeighbours(armLen);
    approximateAngles();
    findExtrema(keepMinima);
}

// For each point the first point backward and forward at distance >= armLen.
// A point cannot be farther from k than the polyline between them, so the
// points whose polyline distance to k is provably shorter than the arm are
// skipped; both skip bounds only move forward as k does. The scan then starts
// at the first point that might reach, which leaves the result that of the
// plain scan from k's neighbour outward. On real profiles the first point
// tested nearly always reaches.
void CornerAngleList::findNeighbours(double armLen) {
    const int32_t m = m_;
    const double t = squaredReachThreshold(armLen);
    // The skip needs a margin for the rounding of the path sums and of the
    // distance; without a finite path it is switched off.
    const double total = path_[m - 1];
    const double eps = std::numeric_limits<double>::epsilon();
    double reach = -std::numeric_limits<double>::infinity();
    if (std::isfinite(total)) reach = armLen - (armLen * 1e-7 + 8.0 * m * eps * total);
    if (std::isnan(reach)) reach = -std::numeric_limits<double>::infinity();

    const double* y = y_;
    const double* z = z_;
    const double* path = path_;
    int32_t lo = 0;  // points lo .. k-1 are provably within the arm backward
    int32_t hi = 0;  // points k+1 .. hi-1 are provably within the arm forward
    for (int32_t k = 0; k < m; ++k) {
        const double yk = y[k], zk = z[k], pk = path[k];
        auto reaches = [&](int32_t j) {
            const double dy = yk - y[j], dz = zk - z[j];
            return dy * dy + dz * dz >= t;
        };
        // Branches rather than arithmetic on purpose: a predicted branch lets
        // the next point start before the path load that moves the bound.
        while (lo < k && !(pk - path[lo] < reach)) ++lo;
        int32_t b = lo - 1;
        while (b >= 0 && !reaches(b)) --b;
        if (hi <= k) hi = k + 1;
        while (path[hi] - pk < reach) ++hi;  // stops at the +inf padding
        int32_t f = -1;
        if (b >= 0) {
            f = hi;
            while (f < m && !reaches(f)) ++f;
            if (f == m) f = -1;
        }
        if (f < 0) b = -1;
        back_[k] = b;
        fwd_[k] = f;
    }
}

// Approximate corner angles of all points. The backward chord of a point is
// usually the forward chord of its backward neighbour, whose angle is then
// reused, so most points cost one angle instead of two. Points without
// angles have both neighbours at -1, where the NaN padding lies, and get a
// NaN that nothing reads.
void CornerAngleList::approximateAngles() {
    const int32_t m = m_;
    const double* y = y_;
    const double* z = z_;
    const int32_t* back = back_;
    const int32_t* fwd = fwd_;
    double* fA = path_;  // the path lengths are no longer needed
    double* cA = approxC_;
    auto sharesChord = [&](int32_t k) {
        const int32_t b = back[k];
        return b >= 0 && fwd[b] == k;
    };
    // A backward neighbour lies before its point, so its forward angle is
    // stored by the time the point's backward chord needs it.
    int32_t k = 0;
#if CV_SIMD128_64F
    for (; k + 2 <= m; k += 2) {
        const int32_t f0 = fwd[k], f1 = fwd[k + 1];
        const int32_t b0 = back[k], b1 = back[k + 1];
        const cv::v_float64x2 yk = cv::v_load(y + k), zk = cv::v_load(z + k);
        const cv::v_float64x2 yf(y[f0], y[f1]), zf(z[f0], z[f1]);
        const cv::v_float64x2 fwdA = approxChordAngle2(zf - zk, cv::v_abs(yf - yk));
        cv::v_store(fA + k, fwdA);
        cv::v_float64x2 bA;
        if (sharesChord(k) && sharesChord(k + 1)) {
            bA = cv::v_float64x2(fA[b0], fA[b1]);
        } else {
            const cv::v_float64x2 yb(y[b0], y[b1]), zb(z[b0], z[b1]);
            bA = approxChordAngle2(zk - zb, cv::v_abs(yk - yb));
        }
        cv::v_store(cA + k, bA - fwdA);
    }
#endif
    for (; k < m; ++k) {
        const int32_t f = fwd[k], b = back[k];
        fA[k] = approxChordAngle(z[f] - z[k], std::fabs(y[f] - y[k]));
        const double bA = sharesChord(k) ? fA[b] : approxChordAngle(z[k] - z[b], std::fabs(y[k] - y[b]));
        cA[k] = bA - fA[k];
    }
}

namespace {

// The last exact corner angle computed, kept because a run of near ties
// compares each point with the next.
struct ExactCornerCache {
    int32_t idx = -1;
    double val = 0.0;
    double get(const CornerAngleList& list, int32_t k) {
        if (k != idx) {
            idx = k;
            val = list.exact(CornerAngleList::Angle::Corner, k);
        }
        return val;
    }
};

// Sign of corner(k) - corner(prev) on the exact angles. Out of line: only
// near ties get here, and the trend loop keeps its registers.
PA_CORNER_COLD int exactTrendSign(const CornerAngleList& list, ExactCornerCache& cache, int32_t prev, int32_t k) {
    const double cp = cache.get(list, prev);
    const double ck = cache.get(list, k);
    return (ck > cp) - (ck < cp);
}

template <bool kMinima>
void trendExtrema(const CornerAngleList& list, const int32_t* back, const double* cA, int32_t m, int32_t* maxOut,
                  int32_t* minOut, std::size_t& maxCount, std::size_t& minCount) {
    // Corner angles of two points differ by less than this in the
    // approximation only when the exact comparison is needed.
    const double cmpTol = 4.0 * CornerAngleList::kAngleTol;
    ExactCornerCache cache;
    std::size_t nMax = 0, nMin = 0;
    int trend = 0;
    int32_t prev = -1;
    for (int32_t k = 0; k < m; ++k) {
        if (back[k] < 0) {
            if (k == m - 1 && prev >= 0) {
                if (trend > 0) maxOut[nMax++] = prev;
                else if (trend < 0 && kMinima) minOut[nMin++] = prev;
            }
            continue;
        }
        if (prev >= 0) {
            const double d = cA[k] - cA[prev];
            int sign = (d > cmpTol) - (d < -cmpTol);
            if (sign == 0) sign = exactTrendSign(list, cache, prev, k);  // too close to call, or NaN
            maxOut[nMax] = prev;
            nMax += static_cast<std::size_t>(sign < 0 && trend > 0);
            if (kMinima) {
                minOut[nMin] = prev;
                nMin += static_cast<std::size_t>(sign > 0 && trend < 0);
            }
            trend = sign != 0 ? sign : trend;
        }
        prev = k;
    }
    maxCount = nMax;
    minCount = nMin;
}

}  // namespace

// The trend state machine over the points with angles. Equal corner angles
// keep the trend, so a plateau's last point is its extremum. When the line
// ends while rising (falling), its last point with angles is a maximum
// (minimum). The trend is the sign of the last nonzero change (0 while
// undecided): a fall after a rise ends a maximum, a rise after a fall a
// minimum. Kept in that form the loop has no data-dependent branch except
// the rare exact comparison, so noisy profiles, whose trend flips every few
// points, cost no mispredictions.
void CornerAngleList::findExtrema(bool keepMinima) {
    if (keepMinima) trendExtrema<true>(*this, back_, approxC_, m_, maxima_, minima_, maxCount_, minCount_);
    else trendExtrema<false>(*this, back_, approxC_, m_, maxima_, minima_, maxCount_, minCount_);
}

double CornerAngleList::exact(Angle a, int32_t k) const {
    const int32_t b = back_[k], f = fwd_[k];
    const double yk = y_[k], zk = z_[k];
    switch (a) {
        case Angle::Backward:
            return exactChordAngle(zk - z_[b], yk - y_[b]);
        case Angle::Forward:
            return exactChordAngle(z_[f] - zk, y_[f] - yk);
        case Angle::Corner:
        default:
            return exactChordAngle(zk - z_[b], yk - y_[b]) - exactChordAngle(z_[f] - zk, y_[f] - yk);
    }
}

// The arm angles are tested only on the few corners that survive the corner
// angle tests, so they are computed exactly; the corner angle reaches these
// only when its approximation is too close to the limit.
bool CornerAngleList::exactGreater(Angle a, int32_t k, double limit, bool absolute) const {
    const double e = exact(a, k);
    return (absolute ? std::fabs(e) : e) > limit;
}

bool CornerAngleList::exactLess(Angle a, int32_t k, double limit, bool absolute) const {
    const double e = exact(a, k);
    return (absolute ? std::fabs(e) : e) < limit;
}

bool CornerAngleList::cornerGreater(int32_t o, int32_t q, bool absolute) const {
    const double tol = 4.0 * kAngleTol;
    double vo = approxC_[o], vq = approxC_[q];
    if (absolute) {
        vo = std::fabs(vo);
        vq = std::fabs(vq);
    }
    const double d = vo - vq;
    if (d > tol) return true;
    if (d < -tol) return false;
    double eo = exact(Angle::Corner, o), eq = exact(Angle::Corner, q);
    if (absolute) {
        eo = std::fabs(eo);
        eq = std::fabs(eq);
    }
    return eo > eq;
}

bool CornerAngleList::outranked(CornerIndexList cands, size_t pos, double armLen, bool absolute) const {
    const double r2 = 4.0 * armLen * armLen;
    const int32_t q = cands[pos];
    const double yq = y_[q];
    for (size_t i = pos; i-- > 0;) {
        const int32_t o = cands[i];
        const double dy = y_[o] - yq;
        if (dy * dy > r2) break;
        if (cornerGreater(o, q, absolute)) return true;
    }
    for (size_t i = pos + 1; i < cands.size(); ++i) {
        const int32_t o = cands[i];
        const double dy = y_[o] - yq;
        if (dy * dy > r2) break;
        if (cornerGreater(o, q, absolute)) return true;
    }
    return false;
}

}  // namespace pa_detail
