// corner_angles_kernel.h - the direction angles shared by the corner and jump
// detectors; not installed.
//
// Compaction, arm-length neighbours, chord angles and the extrema of the
// corner angle (see CornerAngleList in internal.h).
//
// Where the processor has AVX2, the valid points are compacted four at a
// time, and the neighbours of four consecutive points are searched side by
// side in one register, one offset at a time (one load per offset and side
// serves all four). A point cannot be farther from k
// than the polyline between them, so a group starts past a skip: as many
// steps as the largest step near the group fits into the arm, separately
// forward and backward. The first offset that reaches is kept per point, with
// the point it reached, so the chord angles of the four points are computed
// from registers. Points whose neighbours lie beyond the group's reach are
// finished one by one, the polyline length from the first point bounding the
// rest of the way. Without AVX2 (two doubles per vector do not pay for the
// group search) every point is searched along the polyline, as the points
// left over by the groups are. Both give the same neighbours, and their
// angles come from the same operations lane for lane.
//
// The kernel lives in this header so that the tests can run both paths side
// by side.
#ifndef PROFILE_ANALYSIS_CORNER_ANGLES_KERNEL_H
#define PROFILE_ANALYSIS_CORNER_ANGLES_KERNEL_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include "../internal.h"

#if defined(__GNUC__)
#define PA_CORNER_COLD __attribute__((noinline))
#define PA_CORNER_INLINE inline __attribute__((always_inline))
#else
#define PA_CORNER_COLD
#define PA_CORNER_INLINE inline
#endif

namespace pa_detail {
namespace corner_angles {

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

constexpr int32_t kGroupShift = 2;
constexpr int32_t kGroup = 1 << kGroupShift;
// Largest skip; a skip is bounded by the largest step of the group and of
// kSpan groups on the side searched, which covers the skip's steps.
constexpr int32_t kMaxSkip = 12;
constexpr int32_t kSpan = kMaxSkip / kGroup;
// A group tests this many offsets past its skip before its unfinished points
// are searched one by one.
constexpr int32_t kGroupReach = 16;
// Skips below this are worked out step by step.
constexpr int32_t kRefineBelow = 6;
// Groups searched before their angles are computed together.
constexpr int32_t kBlockGroups = 32;
// A point searched alone tests this many points before the path bound (the
// points of the last, incomplete group nearly always find theirs sooner).
constexpr int32_t kScanBeforeBound = 32;
// Coordinates are NaN this far on both sides (a group reads up to
// kMaxSkip + 2 + kGroup - 1 past the line's ends).
constexpr int32_t kPad = 24;
// Rounding slack of the skip (relative to one step) and of the path bound
// (relative to the arm): far more than the rounding of a distance.
constexpr double kStepSlack = 1e-9;
constexpr double kArmSlack = 1e-7;
// Above this arm the squared distances may overflow: no bound is used.
constexpr double kLargestBoundedArm = 1e150;
constexpr double kEps = std::numeric_limits<double>::epsilon();

// Four lanes of doubles. Each operation is one IEEE operation per lane, the
// same in every implementation, so every implementation gives the same bits.
#if defined(__SSE2__)
struct Sse2 {
    struct V {
        __m128d a, b;
    };
    static V load(const double* p) { return V{_mm_loadu_pd(p), _mm_loadu_pd(p + 2)}; }
    static void store(double* p, V v) {
        _mm_storeu_pd(p, v.a);
        _mm_storeu_pd(p + 2, v.b);
    }
    static V set1(double x) { return V{_mm_set1_pd(x), _mm_set1_pd(x)}; }
    static V set(double x0, double x1, double x2, double x3) { return V{_mm_set_pd(x1, x0), _mm_set_pd(x3, x2)}; }
    static V zero() { return V{_mm_setzero_pd(), _mm_setzero_pd()}; }
    static V add(V x, V y) { return V{_mm_add_pd(x.a, y.a), _mm_add_pd(x.b, y.b)}; }
    static V sub(V x, V y) { return V{_mm_sub_pd(x.a, y.a), _mm_sub_pd(x.b, y.b)}; }
    static V mul(V x, V y) { return V{_mm_mul_pd(x.a, y.a), _mm_mul_pd(x.b, y.b)}; }
    static V div(V x, V y) { return V{_mm_div_pd(x.a, y.a), _mm_div_pd(x.b, y.b)}; }
    static V ge(V x, V y) { return V{_mm_cmpge_pd(x.a, y.a), _mm_cmpge_pd(x.b, y.b)}; }
    static V gt(V x, V y) { return V{_mm_cmpgt_pd(x.a, y.a), _mm_cmpgt_pd(x.b, y.b)}; }
    static V lt(V x, V y) { return V{_mm_cmplt_pd(x.a, y.a), _mm_cmplt_pd(x.b, y.b)}; }
    static V andV(V x, V y) { return V{_mm_and_pd(x.a, y.a), _mm_and_pd(x.b, y.b)}; }
    static V orV(V x, V y) { return V{_mm_or_pd(x.a, y.a), _mm_or_pd(x.b, y.b)}; }
    static V andNot(V x, V y) { return V{_mm_andnot_pd(x.a, y.a), _mm_andnot_pd(x.b, y.b)}; }
    static V select(V mask, V x, V y) { return orV(andV(mask, x), andNot(mask, y)); }
    // x < y ? x : y (y when either is NaN).
    static V min(V x, V y) { return V{_mm_min_pd(x.a, y.a), _mm_min_pd(x.b, y.b)}; }
    // Stores the lanes, whole numbers within int32_t, as int32_t.
    static void storeInt(int32_t* p, V v) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_unpacklo_epi64(_mm_cvttpd_epi32(v.a), _mm_cvttpd_epi32(v.b)));
    }
    static unsigned bits(V m) {
        return static_cast<unsigned>(_mm_movemask_pd(m.a)) | (static_cast<unsigned>(_mm_movemask_pd(m.b)) << 2);
    }
};
using Portable = Sse2;
#else
struct Scalar4 {
    struct V {
        double l[4];
    };
    template <class F>
    static V map(V x, V y, F f) {
        V r;
        for (int i = 0; i < 4; ++i) r.l[i] = f(x.l[i], y.l[i]);
        return r;
    }
    static double mask(bool b) {
        const uint64_t u = b ? ~uint64_t(0) : 0;
        double d;
        std::memcpy(&d, &u, sizeof d);
        return d;
    }
    static uint64_t raw(double d) {
        uint64_t u;
        std::memcpy(&u, &d, sizeof d);
        return u;
    }
    static double cooked(uint64_t u) {
        double d;
        std::memcpy(&d, &u, sizeof d);
        return d;
    }
    static V load(const double* p) { return V{{p[0], p[1], p[2], p[3]}}; }
    static void store(double* p, V v) { std::memcpy(p, v.l, sizeof v.l); }
    static V set1(double x) { return V{{x, x, x, x}}; }
    static V set(double x0, double x1, double x2, double x3) { return V{{x0, x1, x2, x3}}; }
    static V zero() { return set1(0.0); }
    static V add(V x, V y) { return map(x, y, [](double a, double b) { return a + b; }); }
    static V sub(V x, V y) { return map(x, y, [](double a, double b) { return a - b; }); }
    static V mul(V x, V y) { return map(x, y, [](double a, double b) { return a * b; }); }
    static V div(V x, V y) { return map(x, y, [](double a, double b) { return a / b; }); }
    static V ge(V x, V y) { return map(x, y, [](double a, double b) { return mask(a >= b); }); }
    static V gt(V x, V y) { return map(x, y, [](double a, double b) { return mask(a > b); }); }
    static V lt(V x, V y) { return map(x, y, [](double a, double b) { return mask(a < b); }); }
    static V andV(V x, V y) { return map(x, y, [](double a, double b) { return cooked(raw(a) & raw(b)); }); }
    static V orV(V x, V y) { return map(x, y, [](double a, double b) { return cooked(raw(a) | raw(b)); }); }
    static V andNot(V x, V y) { return map(x, y, [](double a, double b) { return cooked(~raw(a) & raw(b)); }); }
    static V select(V mask, V x, V y) { return orV(andV(mask, x), andNot(mask, y)); }
    static V min(V x, V y) { return map(x, y, [](double a, double b) { return a < b ? a : b; }); }
    static void storeInt(int32_t* p, V v) {
        for (int i = 0; i < 4; ++i) p[i] = static_cast<int32_t>(v.l[i]);
    }
    static unsigned bits(V m) {
        unsigned r = 0;
        for (int i = 0; i < 4; ++i) r |= static_cast<unsigned>(raw(m.l[i]) >> 63) << i;
        return r;
    }
};
using Portable = Scalar4;
#endif

#if PA_AVX2_KERNELS
// The four-lane helpers below pass AVX registers by value; the AVX2 kernel
// is flattened, so every one of them is inlined into it and no call crosses
// the ABI boundary.
// (The note is issued at the end of the including file, so it stays off
// there too.)
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif
#define PA_AVX2_FN static inline __attribute__((target("avx2")))
struct Avx2 {
    using V = __m256d;
    PA_AVX2_FN V load(const double* p) { return _mm256_loadu_pd(p); }
    PA_AVX2_FN void store(double* p, V v) { _mm256_storeu_pd(p, v); }
    PA_AVX2_FN V set1(double x) { return _mm256_set1_pd(x); }
    PA_AVX2_FN V set(double x0, double x1, double x2, double x3) { return _mm256_set_pd(x3, x2, x1, x0); }
    PA_AVX2_FN V zero() { return _mm256_setzero_pd(); }
    PA_AVX2_FN V add(V x, V y) { return _mm256_add_pd(x, y); }
    PA_AVX2_FN V sub(V x, V y) { return _mm256_sub_pd(x, y); }
    PA_AVX2_FN V mul(V x, V y) { return _mm256_mul_pd(x, y); }
    PA_AVX2_FN V div(V x, V y) { return _mm256_div_pd(x, y); }
    PA_AVX2_FN V ge(V x, V y) { return _mm256_cmp_pd(x, y, _CMP_GE_OQ); }
    PA_AVX2_FN V gt(V x, V y) { return _mm256_cmp_pd(x, y, _CMP_GT_OQ); }
    PA_AVX2_FN V lt(V x, V y) { return _mm256_cmp_pd(x, y, _CMP_LT_OQ); }
    PA_AVX2_FN V andV(V x, V y) { return _mm256_and_pd(x, y); }
    PA_AVX2_FN V orV(V x, V y) { return _mm256_or_pd(x, y); }
    PA_AVX2_FN V andNot(V x, V y) { return _mm256_andnot_pd(x, y); }
    PA_AVX2_FN V select(V mask, V x, V y) { return _mm256_blendv_pd(y, x, mask); }
    PA_AVX2_FN unsigned bits(V m) { return static_cast<unsigned>(_mm256_movemask_pd(m)); }
    PA_AVX2_FN void storeInt(int32_t* p, V v) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_cvttpd_epi32(v));
    }
};
#undef PA_AVX2_FN
#endif

inline double exactChordAngle(double dz, double dy) { return radToDegLiteral(std::atan(dz / std::fabs(dy))); }

// The working arrays of one line as the group kernel sees them.
struct GroupLine {
    const double* y;
    const double* z;
    const int32_t* skipF;
    const int32_t* skipB;
    int32_t* back;
    int32_t* fwd;
    double* approxC;
    int32_t m;
    double t;
};

#include "corner_angles_group.inc"

#if PA_AVX2_KERNELS
// The same four-lane code compiled for AVX2: every function in the region
// carries the target.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace avx2 {
#include "corner_angles_group.inc"

__attribute__((flatten, noinline)) inline int32_t groupKernelAvx2(const GroupLine& L, uint8_t* pending, bool& anyPending) {
    return avx2::groupKernel<Avx2>(L, pending, anyPending);
}
}  // namespace avx2
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
using avx2::groupKernelAvx2;
#endif



// Approximate corner angle of one point (lane 0 of the four-lane form, so
// the same bits as in a group).
inline double approxCornerOne(const double* y, const double* z, int32_t k, int32_t b, int32_t f) {
    using O = Portable;
    double out[4];
    O::store(out, approxCornerAngle<O>(O::set1(y[k]), O::set1(z[k]), O::set1(y[b]), O::set1(z[b]), O::set1(y[f]),
                                       O::set1(z[f])));
    return out[0];
}

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
PA_CORNER_COLD inline int exactTrendSign(const CornerAngleList& list, ExactCornerCache& cache, int32_t prev,
                                         int32_t k) {
    const double cp = cache.get(list, prev);
    const double ck = cache.get(list, k);
    return (ck > cp) - (ck < cp);
}

// The trend state machine over the points with angles (see
// CornerAngleList::findExtrema). Four points at a time are settled at once
// when all have angles and every change is clear of the tolerance: the trend
// after each is then the sign of its change.
template <bool kMinima>
void trendExtrema(const CornerAngleList& list, const int32_t* back, const double* cA, int32_t m, int32_t* maxOut,
                  int32_t* minOut, std::size_t& maxCount, std::size_t& minCount) {
    // Corner angles of two points differ by less than this in the
    // approximation only when the exact comparison is needed.
    const double cmpTol = 4.0 * CornerAngleList::kAngleTol;
    using O = Portable;
    const O::V tolUp = O::set1(cmpTol), tolDown = O::set1(-cmpTol);
    ExactCornerCache cache;
    std::size_t nMax = 0, nMin = 0;
    int trend = 0;
    int32_t prev = -1;
    int32_t k = 0;
    auto stepOne = [&](int32_t k) {
        if (back[k] < 0) {
            if (k == m - 1 && prev >= 0) {
                if (trend > 0) maxOut[nMax++] = prev;
                else if (trend < 0 && kMinima) minOut[nMin++] = prev;
            }
            return;
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
    };
    for (; k + 4 <= m; k += 4) {
        if (prev == k - 1 && prev >= 0 && (back[k] | back[k + 1] | back[k + 2] | back[k + 3]) >= 0) {
            const O::V d = O::sub(O::load(cA + k), O::load(cA + k - 1));
            const unsigned up = O::bits(O::gt(d, tolUp)), down = O::bits(O::lt(d, tolDown));
            if ((up | down) == 0xFu) {
                // A fall after a rise ends a maximum at the point before it.
                const unsigned maxBits = down & ((up << 1) | static_cast<unsigned>(trend > 0));
                for (int32_t l = 0; l < 4; ++l) {
                    maxOut[nMax] = k - 1 + l;
                    nMax += (maxBits >> l) & 1u;
                }
                if (kMinima) {
                    const unsigned minBits = up & ((down << 1) | static_cast<unsigned>(trend < 0));
                    for (int32_t l = 0; l < 4; ++l) {
                        minOut[nMin] = k - 1 + l;
                        nMin += (minBits >> l) & 1u;
                    }
                }
                trend = (up >> 3) & 1u ? 1 : -1;
                prev = k + 3;
                continue;
            }
        }
        for (int32_t l = 0; l < 4; ++l) stepOne(k + l);
    }
    for (; k < m; ++k) stepOne(k);
    maxCount = nMax;
    minCount = nMin;
}

// Points the compaction asks the memory for ahead of their use: the loop is
// too long for the processor to run far enough ahead on its own.
constexpr int32_t kPrefetchAhead = 64;

// Copies the valid points' input index, y and z to the front of idx, y and z,
// one point at a time. With kSegments the runs of valid points, cut where
// consecutive heights differ by more than jumpZ, are appended to segments.
// While a run is open its previous input point is valid, so it is the last
// compacted one.
template <bool kSegments>
struct Compaction {
    const SKesp3DPosition* points;
    double jumpZ;
    int32_t* idx;
    double* y;
    double* z;
    std::vector<CornerSegment>* segments;
    int32_t m = 0;  // points copied
    bool open = false;
    int32_t first = 0, last = 0;  // input indices of the open run

    void closeRun() {
        segments->push_back(CornerSegment{first, last - first + 1, 1});
        open = false;
    }
    void add(int32_t i) {
        const double zi = points[i].z;
        if (!isStrictlyValidZ(zi)) {
            if (kSegments && open) closeRun();
            return;
        }
        idx[m] = i;
        y[m] = points[i].y;
        z[m] = zi;
        if (kSegments) {
            if (open && std::fabs(zi - z[m - 1]) > jumpZ) closeRun();
            if (!open) {
                open = true;
                first = i;
            }
            last = i;
        }
        ++m;
    }
    // Closes the last run and returns the number of points copied.
    int32_t finish() {
        if (kSegments && open) closeRun();
        return m;
    }
};

template <bool kSegments>
int32_t compactValid(const SKesp3DPosition* points, int32_t count, double jumpZ, int32_t* idx, double* y, double* z,
                     std::vector<CornerSegment>* segments) {
    Compaction<kSegments> c{points, jumpZ, idx, y, z, segments};
    for (int32_t i = 0; i < count; ++i) {
#if defined(__GNUC__)
        __builtin_prefetch(points + std::min(i + kPrefetchAhead, count - 1));
        // The output lines written next are claimed early, once every eight
        // points.
        if ((i & 7) == 0) {
            __builtin_prefetch(y + c.m + kPad, 1);
            __builtin_prefetch(z + c.m + kPad, 1);
        }
#endif
        c.add(i);
    }
    return c.finish();
}

#if PA_AVX2_KERNELS
// The same compaction four input points at a time: the y and z of four points
// are gathered into two registers, and four valid points that open a run or
// continue the open one without a cut are written at once. Any other block
// (an invalid point, a cut) goes point by point as above, so both give the
// same lists and segments.
template <bool kSegments>
__attribute__((target("avx2"), noinline)) int32_t compactValidAvx2(const SKesp3DPosition* points, int32_t count,
                                                                   double jumpZ, int32_t* idx, double* y, double* z,
                                                                   std::vector<CornerSegment>* segments) {
    static_assert(offsetof(SKesp3DPosition, z) == offsetof(SKesp3DPosition, y) + sizeof(double),
                  "y and z are loaded as one pair");
    Compaction<kSegments> c{points, jumpZ, idx, y, z, segments};
    const __m256d threshold = _mm256_set1_pd(kValidZ), cut = _mm256_set1_pd(jumpZ);
    const __m256d magnitude = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7fffffffffffffffLL));
    const __m128i lanes = _mm_setr_epi32(0, 1, 2, 3);
    int32_t i = 0;
    for (; i + 4 <= count; i += 4) {
        __builtin_prefetch(points + std::min(i + kPrefetchAhead, count - 1));
        __builtin_prefetch(points + std::min(i + kPrefetchAhead + 2, count - 1));
        __builtin_prefetch(y + c.m + kPad, 1);
        __builtin_prefetch(z + c.m + kPad, 1);
        const SKesp3DPosition* p = points + i;
        // (y0, z0 | y2, z2) and (y1, z1 | y3, z3) interleave to (y0 .. y3), (z0 .. z3).
        const __m256d a = _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(&p[0].y)), _mm_loadu_pd(&p[2].y), 1);
        const __m256d b = _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(&p[1].y)), _mm_loadu_pd(&p[3].y), 1);
        const __m256d y4 = _mm256_unpacklo_pd(a, b), z4 = _mm256_unpackhi_pd(a, b);
        bool alone = _mm256_movemask_pd(_mm256_cmp_pd(z4, threshold, _CMP_GT_OQ)) != 0xF;
        if (kSegments && !alone) {
            // The height before each point: the last compacted one, then z0 .. z2
            // (lane 0 does not count when no run is open).
            const __m256d rotated = _mm256_permute4x64_pd(z4, _MM_SHUFFLE(2, 1, 0, 3));
            const __m256d before = _mm256_blend_pd(rotated, _mm256_set1_pd(c.open ? z[c.m - 1] : 0.0), 1);
            const __m256d step = _mm256_and_pd(_mm256_sub_pd(z4, before), magnitude);
            const unsigned cuts = static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(step, cut, _CMP_GT_OQ)));
            alone = (cuts & (c.open ? 0xFu : 0xEu)) != 0;
        }
        if (alone) {
            for (int32_t l = 0; l < 4; ++l) c.add(i + l);
            continue;
        }
        if (kSegments) {
            if (!c.open) {
                c.open = true;
                c.first = i;
            }
            c.last = i + 3;
        }
        _mm256_storeu_pd(y + c.m, y4);
        _mm256_storeu_pd(z + c.m, z4);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(idx + c.m), _mm_add_epi32(_mm_set1_epi32(i), lanes));
        c.m += 4;
    }
    for (; i < count; ++i) c.add(i);
    return c.finish();
}
#endif

}  // namespace corner_angles

// ---------------------------------------------------------------------------
// CornerAngleList
// ---------------------------------------------------------------------------

// Everything in two blocks of about 50 bytes per point: small enough that a
// 2,048-point line stays within the allocator's retained top of heap, so that
// repeated calls do not fault pages in again.
inline void CornerAngleList::allocate(std::size_t n) {
    using namespace corner_angles;
    const std::size_t stride = n + 2 * kPad;
    // Per group values, with room for a last round of four past the end.
    const std::size_t groups = (n >> kGroupShift) + 1 + kGroup;
    // Maxima and minima alternate, so neither list outgrows half the points plus one.
    const std::size_t extrema = n / 2 + 2;
    ints_.reset(new int32_t[3 * n + 3 * extrema + 2 * groups]);
    idx_ = ints_.get();
    back_ = idx_ + n;
    fwd_ = back_ + n;
    maxima_ = fwd_ + n;
    minima_ = maxima_ + extrema;
    skipF_ = minima_ + extrema;
    skipB_ = skipF_ + groups;
    screened_ = skipB_ + groups;
    reals_.reset(new double[4 * stride + groups + 2 * kSpan]);
    y_ = reals_.get() + kPad;
    z_ = y_ + stride;
    path_ = z_ + stride;
    approxC_ = path_ + stride;
    largest_ = approxC_ + stride - kPad + kSpan;
}

// The skips: k steps of at most the largest step near a group span no more
// than k times it, and no point is farther away than the polyline between.
// The skip of a group of four is the largest k (up to kMaxSkip) with
// k * L <= reach, shortened for rounding, where L is the largest step over
// the steps it may cross: those of the group and of kSpan groups on the side
// searched. As the skip falls with L, it is the smallest of the skips of the
// groups' own largest steps. A NaN or infinite step, an arm of 0 or less,
// NaN or too large to square safely gives no skip.
inline void CornerAngleList::findSkips(double armLen) {
    using namespace corner_angles;
    using O = Portable;
    using V = O::V;
    const int32_t m = m_;
    const int32_t groups = (m + kGroup - 1) >> kGroupShift;
    double reach = armLen * (1.0 - kArmSlack);
    if (!(reach > 0.0 && reach < kLargestBoundedArm)) {
        for (int32_t g = 0; g < groups; ++g) skipF_[g] = skipB_[g] = 0;
        return;
    }
    // below[k] = (r / k)^2 with r the reach shortened for rounding; 0 fits
    // always.
    const double r = reach * (1.0 - 4.0 * kStepSlack);
    double below[kMaxSkip + 1];
    below[0] = std::numeric_limits<double>::infinity();
    for (int32_t k = 1; k <= kMaxSkip; ++k) {
        const double rk = r / static_cast<double>(k);
        below[k] = rk * rk;
    }
    const V inf = O::set1(std::numeric_limits<double>::infinity());
    // Squared steps (NaN as +inf; 0 after the last point) in the path's room,
    // free until a far search needs the path.
    double* step2 = path_;
    const double* y = y_;
    const double* z = z_;
    const int32_t padded = groups << kGroupShift;
    for (int32_t j = 0; j < padded; j += kGroup) {
        const V dy = O::sub(O::load(y + j + 1), O::load(y + j)), dz = O::sub(O::load(z + j + 1), O::load(z + j));
        O::store(step2 + j, O::min(O::add(O::mul(dy, dy), O::mul(dz, dz)), inf));
    }
    for (int32_t j = m - 1; j < padded + kGroup * kGroup; ++j) step2[j] = 0.0;  // the last round of four reads past
    // Each group's own skip, the largest k with its largest squared step L
    // below below[k] (they fall with k), in its largest step's room.
    int32_t* own = reinterpret_cast<int32_t*>(largest_);
    auto fits = [&below](double L, int32_t k) {
        while (k > 0 && !(L < below[k])) --k;
        return k;
    };
    int32_t g = 0;
#if defined(__SSE2__)
    // Four groups at a time: an estimate r / sqrt(L) from the processor's
    // reciprocal square root (about 12 bits), capped, then checked exactly
    // against the thresholds and lowered where it was too high. An estimate
    // too low by one only shortens a skip. (rsqrt(0) is +inf, capped; a NaN
    // from inf * 0 is capped too; L beyond the float range is +inf, giving 0.)
    const __m128 rf = _mm_set1_ps(static_cast<float>(r)), most = _mm_set1_ps(static_cast<float>(kMaxSkip));
    for (; g < groups; g += kGroup) {
        const double* s = step2 + (g << kGroupShift);
        const __m128d a01 = _mm_max_pd(_mm_loadu_pd(s), _mm_loadu_pd(s + 2));
        const __m128d b01 = _mm_max_pd(_mm_loadu_pd(s + 4), _mm_loadu_pd(s + 6));
        const __m128d a23 = _mm_max_pd(_mm_loadu_pd(s + 8), _mm_loadu_pd(s + 10));
        const __m128d b23 = _mm_max_pd(_mm_loadu_pd(s + 12), _mm_loadu_pd(s + 14));
        alignas(16) double L[4];
        _mm_store_pd(L, _mm_max_pd(_mm_unpacklo_pd(a01, b01), _mm_unpackhi_pd(a01, b01)));
        _mm_store_pd(L + 2, _mm_max_pd(_mm_unpacklo_pd(a23, b23), _mm_unpackhi_pd(a23, b23)));
        const __m128 lf = _mm_movelh_ps(_mm_cvtpd_ps(_mm_load_pd(L)), _mm_cvtpd_ps(_mm_load_pd(L + 2)));
        alignas(16) int32_t k[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(k),
                        _mm_cvttps_epi32(_mm_min_ps(_mm_mul_ps(_mm_rsqrt_ps(lf), rf), most)));
        for (int32_t h = 0; h < kGroup; ++h) own[g + h] = fits(L[h], k[h]);
    }
#else
    for (; g < groups; ++g) {
        const double* s4 = step2 + (g << kGroupShift);
        own[g] = fits(std::max(std::max(s4[0], s4[1]), std::max(s4[2], s4[3])), kMaxSkip);
    }
#endif
    for (int32_t h = 1; h <= kSpan; ++h) own[-h] = kMaxSkip;
    for (int32_t h = groups; h < groups + kSpan + kGroup; ++h) own[h] = kMaxSkip;
    static_assert(kSpan == 3, "the windows span the group and three on each side");
    // A window of the group and h more on the side searched covers the steps
    // of skips up to 4h + 1 forward (the group's last point crosses three
    // steps of its own) and 4h backward: the narrower windows may allow more
    // within their reach.
    for (g = 0; g < groups; ++g) {
        const int32_t* w = own + g;
        const int32_t f1 = std::min(w[0], w[1]), f2 = std::min(f1, w[2]), f3 = std::min(f2, w[3]);
        const int32_t b1 = std::min(w[0], w[-1]), b2 = std::min(b1, w[-2]), b3 = std::min(b2, w[-3]);
        skipF_[g] = std::max(std::max(std::min(f1, 5), std::min(f2, 9)), f3);
        skipB_[g] = std::max(std::max(std::min(b1, 4), std::min(b2, 8)), b3);
    }
    // Short skips, as next to a step or a gap, are worked out step by step:
    // a skip of k crosses only the steps up to k past the group, so a large
    // step further on does not limit it. (The steps before the line's start
    // are 0, like those after its end.)
    for (int32_t j = -kMaxSkip; j < 0; ++j) step2[j] = 0.0;
    for (g = 0; g < groups; ++g) {
        const double* s = step2 + (g << kGroupShift);
        const double inside = std::max(std::max(s[0], s[1]), s[2]);  // crossed by every skip of the group
        if (skipF_[g] < kRefineBelow) {
            double most = inside;
            int32_t k = 0;
            while (k < kMaxSkip && (most = std::max(most, s[3 + k])) < below[k + 1]) ++k;
            skipF_[g] = k;
        }
        if (skipB_[g] < kRefineBelow) {
            double most = inside;
            int32_t k = 0;
            while (k < kMaxSkip && (most = std::max(most, s[-1 - k])) < below[k + 1]) ++k;
            skipB_[g] = k;
        }
    }
}

// path[k] = length of the polyline from point 0 to point k, summed in order,
// +inf after the last point. Only bounds distances, with a margin for its
// rounding.
inline void CornerAngleList::computePath() {
    using namespace corner_angles;
    const int32_t m = m_;
    const double* y = y_;
    const double* z = z_;
    double* path = path_;
    path[0] = 0.0;
    double walked = 0.0;
    for (int32_t k = 1; k < m; ++k) {
        const double dy = y[k] - y[k - 1], dz = z[k] - z[k - 1];
        walked += std::sqrt(dy * dy + dz * dz);
        path[k] = walked;
    }
    for (int32_t p = 0; p < kPad; ++p) path[m + p] = std::numeric_limits<double>::infinity();
    pathKnown_ = true;
}

// The first point from j on (forward) that is at least an arm from k, -1
// when there is none. After a few points the path bound jumps over the points
// it places inside the arm: every earlier point is nearer along the polyline.
// NaN and +inf fail the bound.
inline int32_t CornerAngleList::forwardFrom(int32_t k, int32_t j) {
    const int32_t m = m_;
    const double yk = y_[k], zk = z_[k];
    for (int32_t tested = 0; j < m;) {
        const double dy = yk - y_[j], dz = zk - z_[j];
        if (dy * dy + dz * dz >= t_) return j;
        ++j;
        if (++tested == corner_angles::kScanBeforeBound) {
            if (!pathKnown_) computePath();
            const double pk = path_[k];
            int32_t lo = j, hi = m;
            while (lo < hi) {
                const int32_t mid = lo + (hi - lo) / 2;
                if (path_[mid] * pathGrow_ - pk < pathReach_) lo = mid + 1;
                else hi = mid;
            }
            j = lo;
        }
    }
    return -1;
}

// The same backward: the first point from j down.
inline int32_t CornerAngleList::backwardFrom(int32_t k, int32_t j) {
    const double yk = y_[k], zk = z_[k];
    for (int32_t tested = 0; j >= 0;) {
        const double dy = yk - y_[j], dz = zk - z_[j];
        if (dy * dy + dz * dz >= t_) return j;
        --j;
        if (++tested == corner_angles::kScanBeforeBound) {
            if (!pathKnown_) computePath();
            const double pkGrown = path_[k] * pathGrow_;
            int32_t lo = 0, hi = j + 1;  // first point provably inside, in 0 .. j+1
            while (lo < hi) {
                const int32_t mid = lo + (hi - lo) / 2;
                if (pkGrown - path_[mid] < pathReach_) hi = mid;
                else lo = mid + 1;
            }
            j = lo - 1;
        }
    }
    return -1;
}

// Stores point k's neighbours (both -1 unless both exist) and its angle.
inline void CornerAngleList::finishPoint(int32_t k, int32_t b, int32_t f) {
    if (b < 0 || f < 0) b = f = -1;
    back_[k] = b;
    fwd_[k] = f;
    approxC_[k] = corner_angles::approxCornerOne(y_, z_, k, b, f);
}

// For each point the first point backward and forward at distance >= armLen,
// and its approximate corner angle. Points without angles have both
// neighbours at -1, where the NaN padding lies, and a NaN angle nothing reads.
inline void CornerAngleList::findNeighboursAndAngles(double armLen, bool avx2) {
    using namespace corner_angles;
#if !PA_AVX2_KERNELS
    (void)avx2;  // only the portable search is built in
#endif
    const int32_t m = m_;
    t_ = squaredReachThreshold(armLen);
    // The path bound needs a margin for the rounding of the path sums and of
    // the distance; for arms too large to square safely it is switched off.
    pathReach_ = armLen * (1.0 - kArmSlack);
    if (!(pathReach_ < kLargestBoundedArm)) pathReach_ = -std::numeric_limits<double>::infinity();
    pathGrow_ = 1.0 + 2.0 * static_cast<double>(m + 8) * kEps;
    pathKnown_ = false;
    if (std::isnan(t_)) {
        // A NaN arm: no distance reaches it, no point has angles.
        for (int32_t k = 0; k < m; ++k) back_[k] = fwd_[k] = -1;
        return;
    }
#if PA_AVX2_KERNELS
    if (!avx2)
#endif
    {
        // Two doubles per vector do not pay for the group search.
        findNeighboursAlongPath(armLen);
        approximateAngles();
        return;
    }
#if PA_AVX2_KERNELS
    findSkips(armLen);
    // The groups' unfinished points are flagged in the maxima's room (two
    // bytes a point), free until the extrema are found.
    uint8_t* pending = reinterpret_cast<uint8_t*>(maxima_);
    const GroupLine line{y_, z_, skipF_, skipB_, back_, fwd_, approxC_, m, t_};
    bool anyPending = false;
    const int32_t done = groupKernelAvx2(line, pending, anyPending);
    for (int32_t g = 0; anyPending && g < (done >> kGroupShift); ++g) {
        if (!pending[g]) continue;
        for (int32_t l = 0; l < kGroup; ++l) {
            if (!((pending[g] >> l) & 1u)) continue;
            const int32_t k = (g << kGroupShift) + l;
            // Unfound sides hold -1 - (the next point to test).
            int32_t b = back_[k], f = fwd_[k];
            if (b < 0) b = backwardFrom(k, -1 - b);
            if (b >= 0 && f < 0) f = forwardFrom(k, -1 - f);
            finishPoint(k, b, f);
        }
    }
    for (int32_t k = done; k < m; ++k) {
        const int32_t b = backwardFrom(k, k - 1);
        finishPoint(k, b, b >= 0 ? forwardFrom(k, k + 1) : -1);
    }
#endif
}

// For each point the first point backward and forward at distance >= armLen,
// one point after the other. A point cannot be farther from k than the
// polyline between them, so the points whose polyline distance to k is
// provably shorter than the arm are skipped; both skip bounds only move
// forward as k does. The scan then starts at the first point that might
// reach, which leaves the result that of the plain scan from k's neighbour
// outward.
inline void CornerAngleList::findNeighboursAlongPath(double armLen) {
    using namespace corner_angles;
    computePath();
    const int32_t m = m_;
    const double t = t_;
    // The skip needs a margin for the rounding of the path sums and of the
    // distance; without a finite path, or for arms too large to square
    // safely, it is switched off.
    const double total = path_[m - 1];
    double reach = -std::numeric_limits<double>::infinity();
    if (std::isfinite(total) && armLen < kLargestBoundedArm)
        reach = armLen - (armLen * kArmSlack + 8.0 * m * kEps * total);
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

// Approximate corner angles after findNeighboursAlongPath, four points at a
// time. The backward chord of a point is usually the forward chord of its
// backward neighbour, whose angle (the same operations on the same
// differences) is then reused, so most points cost one angle instead of two.
inline void CornerAngleList::approximateAngles() {
    using namespace corner_angles;
    using O = Portable;
    using V = O::V;
    const int32_t m = m_;
    const double* y = y_;
    const double* z = z_;
    const int32_t* back = back_;
    const int32_t* fwd = fwd_;
    double* fA = path_;  // the path lengths are no longer needed
    const V sign = O::set1(-0.0);
    auto sharesChord = [&](int32_t k) {
        const int32_t b = back[k];
        return b >= 0 && fwd[b] == k;
    };
    // A backward neighbour lies before its point, so its forward angle is
    // stored by the time the point's backward chord needs it. Points without
    // angles read the NaN padding and get a NaN nothing reads.
    int32_t k = 0;
    for (; k + 4 <= m; k += 4) {
        const int32_t* f = fwd + k;
        const int32_t* b = back + k;
        const V yk = O::load(y + k), zk = O::load(z + k);
        const V yf = O::set(y[f[0]], y[f[1]], y[f[2]], y[f[3]]), zf = O::set(z[f[0]], z[f[1]], z[f[2]], z[f[3]]);
        const V fwdA = approxChordAngle<O>(O::sub(zf, zk), O::andNot(sign, O::sub(yf, yk)));
        O::store(fA + k, fwdA);
        V bA;
        if (sharesChord(k) && sharesChord(k + 1) && sharesChord(k + 2) && sharesChord(k + 3)) {
            bA = O::set(fA[b[0]], fA[b[1]], fA[b[2]], fA[b[3]]);
        } else {
            const V yb = O::set(y[b[0]], y[b[1]], y[b[2]], y[b[3]]), zb = O::set(z[b[0]], z[b[1]], z[b[2]], z[b[3]]);
            bA = approxChordAngle<O>(O::sub(zk, zb), O::andNot(sign, O::sub(yk, yb)));
        }
        O::store(approxC_ + k, O::sub(bA, fwdA));
    }
    for (; k < m; ++k) approxC_[k] = approxCornerOne(y, z, k, back[k], fwd[k]);
}

inline void CornerAngleList::build(const SKesp3DPosition* points, int32_t count, double jumpZ, double armLen,
                                   bool keepMinima, std::vector<CornerSegment>* segments, bool avx2) {
    using namespace corner_angles;
    m_ = 0;
    maxCount_ = minCount_ = 0;
    if (points == nullptr || count < 1) return;
    allocate(static_cast<std::size_t>(count));

#if PA_AVX2_KERNELS
    const int32_t m =
        avx2 ? (segments ? compactValidAvx2<true>(points, count, jumpZ, idx_, y_, z_, segments)
                         : compactValidAvx2<false>(points, count, jumpZ, idx_, y_, z_, nullptr))
             : (segments ? compactValid<true>(points, count, jumpZ, idx_, y_, z_, segments)
                         : compactValid<false>(points, count, jumpZ, idx_, y_, z_, nullptr));
#else
    const int32_t m = segments ? compactValid<true>(points, count, jumpZ, idx_, y_, z_, segments)
                               : compactValid<false>(points, count, jumpZ, idx_, y_, z_, nullptr);
#endif
    m_ = m;
    if (m == 0) return;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (int32_t p = 1; p <= kPad; ++p) {
        y_[-p] = z_[-p] = nan;
        y_[m - 1 + p] = z_[m - 1 + p] = nan;
    }
    findNeighboursAndAngles(armLen, avx2);
    findExtrema(keepMinima);
}

// The trend state machine over the points with angles. Equal corner angles
// keep the trend, so a plateau's last point is its extremum. When the line
// ends while rising (falling), its last point with angles is a maximum
// (minimum). The trend is the sign of the last nonzero change (0 while
// undecided): a fall after a rise ends a maximum, a rise after a fall a
// minimum.
inline void CornerAngleList::findExtrema(bool keepMinima) {
    using namespace corner_angles;
    if (keepMinima) trendExtrema<true>(*this, back_, approxC_, m_, maxima_, minima_, maxCount_, minCount_);
    else trendExtrema<false>(*this, back_, approxC_, m_, maxima_, minima_, maxCount_, minCount_);
}

inline double CornerAngleList::exact(Angle a, int32_t k) const {
    using corner_angles::exactChordAngle;
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
inline bool CornerAngleList::exactGreater(Angle a, int32_t k, double limit, bool absolute) const {
    const double e = exact(a, k);
    return (absolute ? std::fabs(e) : e) > limit;
}

inline bool CornerAngleList::exactLess(Angle a, int32_t k, double limit, bool absolute) const {
    const double e = exact(a, k);
    return (absolute ? std::fabs(e) : e) < limit;
}

inline CornerIndexList CornerAngleList::notClearlyBelow(CornerIndexList cands, double limit, bool absolute) {
    // The clear case of less(): v + 2 * kAngleTol < limit.
    std::size_t n = 0;
    for (std::size_t pos = 0; pos < cands.size(); ++pos) {
        const double c = approxC_[cands[pos]];
        const double v = absolute ? std::fabs(c) : c;
        screened_[n] = static_cast<int32_t>(pos);
        n += v + 2.0 * kAngleTol < limit ? 0 : 1;
    }
    return CornerIndexList{screened_, n};
}

inline bool CornerAngleList::cornerGreater(int32_t o, int32_t q, bool absolute) const {
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

inline bool CornerAngleList::outranked(CornerIndexList cands, std::size_t pos, double armLen, bool absolute) const {
    const double r2 = 4.0 * armLen * armLen;
    const int32_t q = cands[pos];
    const double yq = y_[q];
    for (std::size_t i = pos; i-- > 0;) {
        const int32_t o = cands[i];
        const double dy = y_[o] - yq;
        if (dy * dy > r2) break;
        if (cornerGreater(o, q, absolute)) return true;
    }
    for (std::size_t i = pos + 1; i < cands.size(); ++i) {
        const int32_t o = cands[i];
        const double dy = y_[o] - yq;
        if (dy * dy > r2) break;
        if (cornerGreater(o, q, absolute)) return true;
    }
    return false;
}

}  // namespace pa_detail

#endif  // PROFILE_ANALYSIS_CORNER_ANGLES_KERNEL_H
