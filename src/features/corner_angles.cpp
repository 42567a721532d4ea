// Direction angles of a profile shared by the corner and jump detectors:
// compaction, arm-length neighbours, chord angles and the extrema of the
// corner angle.
#include <cmath>
#include <cstddef>
#include <limits>

#include "internal.h"

namespace pa_detail {

namespace {

constexpr double kHalfPi = 1.57079632679489661923;
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

inline double exactChordAngle(double dz, double dy) { return radToDegLiteral(std::atan(dz / std::fabs(dy))); }

// Smallest squared distance d2 with sqrt(d2) >= armLen, so that the arm test
// needs no square root and decides exactly as the square-root form does.
double armThreshold(double armLen) {
    if (std::isnan(armLen)) return armLen;  // no distance reaches a NaN arm
    if (!(armLen > 0.0)) return 0.0;        // every distance reaches it
    double t = armLen * armLen;
    while (t > 0.0 && std::sqrt(std::nextafter(t, 0.0)) >= armLen) t = std::nextafter(t, 0.0);
    while (std::sqrt(t) < armLen) t = std::nextafter(t, std::numeric_limits<double>::infinity());
    return t;
}

enum Trend { kUndecided, kRising, kFalling };

}  // namespace

void CornerAngleList::build(const SKesp3DPosition* points, int32_t count, double jumpZ, double armLen,
                            bool keepMinima, std::vector<CornerSegment>* segments) {
    m_ = 0;
    maxima_.clear();
    minima_.clear();
    if (points == nullptr || count < 1) return;

    const size_t n = static_cast<size_t>(count);
    ints_.resize(3 * n);
    reals_.resize(6 * n);
    idx_ = ints_.data();
    back_ = idx_ + n;
    fwd_ = back_ + n;
    y_ = reals_.data();
    z_ = y_ + n;
    path_ = z_ + n;
    approxB_ = path_ + n;
    approxF_ = approxB_ + n;
    approxC_ = approxF_ + n;

    // Compaction (and segments): one pass over the input.
    int32_t m = 0;
    bool open = false;
    int32_t first = 0, last = 0;
    auto close = [&]() {
        if (segments) segments->push_back(CornerSegment{first, last - first + 1, 1});
        open = false;
    };
    for (int32_t i = 0; i < count; ++i) {
        const double z = points[i].z;
        if (!isStrictlyValidZ(z)) {
            if (open) close();
            continue;
        }
        idx_[m] = i;
        y_[m] = points[i].y;
        z_[m] = z;
        if (m == 0) {
            path_[0] = 0.0;
        } else {
            const double dy = y_[m] - y_[m - 1], dz = z - z_[m - 1];
            path_[m] = path_[m - 1] + std::sqrt(dy * dy + dz * dz);
        }
        ++m;
        if (!open) {
            open = true;
            first = last = i;
        } else if (std::fabs(z - points[i - 1].z) > jumpZ) {
            close();
            open = true;
            first = last = i;
        } else {
            last = i;
        }
    }
    if (open) close();
    m_ = m;
    if (m == 0) return;

    findNeighbours(armLen);
    findExtrema(keepMinima);
}

// For each point the first point backward and forward at distance >= armLen.
// A point cannot be farther from k than the polyline between them, so the
// points whose polyline distance to k is provably shorter than the arm are
// skipped; both skip bounds only move forward as k does. The scan then starts
// at the first point that might reach, which leaves the result that of the
// plain scan from k's neighbour outward.
void CornerAngleList::findNeighbours(double armLen) {
    const int32_t m = m_;
    const double t = armThreshold(armLen);
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
        const double yk = y[k], zk = z[k];
        while (lo < k && !(path[k] - path[lo] < reach)) ++lo;
        int32_t b = -1;
        for (int32_t j = lo - 1; j >= 0; --j) {
            const double dy = yk - y[j], dz = zk - z[j];
            if (dy * dy + dz * dz >= t) {
                b = j;
                break;
            }
        }
        if (hi <= k) hi = k + 1;
        while (hi < m && path[hi] - path[k] < reach) ++hi;
        int32_t f = -1;
        if (b >= 0) {
            for (int32_t j = hi; j < m; ++j) {
                const double dy = yk - y[j], dz = zk - z[j];
                if (dy * dy + dz * dz >= t) {
                    f = j;
                    break;
                }
            }
        }
        if (f < 0) {
            back_[k] = -1;
            fwd_[k] = -1;
            continue;
        }
        back_[k] = b;
        fwd_[k] = f;
        const double bA = approxChordAngle(zk - z[b], std::fabs(yk - y[b]));
        const double fA = approxChordAngle(z[f] - zk, std::fabs(y[f] - yk));
        approxB_[k] = bA;
        approxF_[k] = fA;
        approxC_[k] = bA - fA;
    }
}

// The trend state machine over the points with angles. Equal corner angles
// keep the trend, so a plateau's last point is its extremum. When the line
// ends while rising (falling), its last point with angles is a maximum
// (minimum).
void CornerAngleList::findExtrema(bool keepMinima) {
    const int32_t m = m_;
    // Corner angles of two points differ by less than this in the
    // approximation only when the exact comparison is needed.
    const double cmpTol = 4.0 * kAngleTol;
    Trend trend = kUndecided;
    int32_t prev = -1;
    int32_t exactIdx = -1;  // the last exact corner angle computed, kept for the next step
    double exactVal = 0.0;
    auto exactCorner = [&](int32_t k) {
        if (k != exactIdx) {
            exactIdx = k;
            exactVal = exact(Angle::Corner, k);
        }
        return exactVal;
    };
    for (int32_t k = 0; k < m; ++k) {
        if (back_[k] < 0) {
            if (k == m - 1 && prev >= 0) {
                if (trend == kRising) maxima_.push_back(prev);
                else if (trend == kFalling && keepMinima) minima_.push_back(prev);
            }
            continue;
        }
        if (prev >= 0) {
            const double d = approxC_[k] - approxC_[prev];
            int sign;
            if (d > cmpTol) {
                sign = 1;
            } else if (d < -cmpTol) {
                sign = -1;
            } else {
                const double cp = exactCorner(prev);
                const double ck = exactCorner(k);
                sign = ck > cp ? 1 : (ck < cp ? -1 : 0);
            }
            if (trend == kUndecided) {
                trend = sign > 0 ? kRising : (sign < 0 ? kFalling : kUndecided);
            } else if (trend == kRising) {
                if (sign < 0) {
                    maxima_.push_back(prev);
                    trend = kFalling;
                }
            } else if (sign > 0) {
                if (keepMinima) minima_.push_back(prev);
                trend = kRising;
            }
        }
        prev = k;
    }
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

double CornerAngleList::approx(Angle a, int32_t k) const {
    switch (a) {
        case Angle::Backward:
            return approxB_[k];
        case Angle::Forward:
            return approxF_[k];
        case Angle::Corner:
        default:
            return approxC_[k];
    }
}

namespace {
inline double tolOf(CornerAngleList::Angle a) {
    return a == CornerAngleList::Angle::Corner ? 2.0 * CornerAngleList::kAngleTol : CornerAngleList::kAngleTol;
}
}  // namespace

bool CornerAngleList::greater(Angle a, int32_t k, double limit, bool absolute) const {
    const double tol = tolOf(a);
    double v = approx(a, k);
    if (absolute) v = std::fabs(v);
    if (v - tol > limit) return true;
    if (v + tol < limit) return false;
    double e = exact(a, k);
    if (absolute) e = std::fabs(e);
    return e > limit;
}

bool CornerAngleList::less(Angle a, int32_t k, double limit, bool absolute) const {
    const double tol = tolOf(a);
    double v = approx(a, k);
    if (absolute) v = std::fabs(v);
    if (v + tol < limit) return true;
    if (v - tol > limit) return false;
    double e = exact(a, k);
    if (absolute) e = std::fabs(e);
    return e < limit;
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

bool CornerAngleList::outranked(const std::vector<int32_t>& cands, size_t pos, double armLen, bool absolute) const {
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
