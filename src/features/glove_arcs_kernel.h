// glove_arcs_kernel.h - the glove-arc detector's kernel; not installed.
//
// Glove arcs: sharp bends of a profile through a local z maximum, measured by
// the drop of the forward chord's slope angle around the point.
//
// The valid points are copied once, with their step lengths. Every point
// needs the slope of its forward chord (most points lie on the arcs of some
// candidate) and so its forward chord end; points are searched in groups of
// four, side by side, one offset at a time. A point cannot be farther from i
// than the polyline between them, so within a group's skip (as many steps as
// the largest step nearby fits into chordLen) no point can end the chord and
// the search starts past it; the result is that of the plain search from the
// neighbour outward. Whether a backward end exists is settled by the line's
// first point for nearly every point; the backward end itself is searched
// only for the points that beat their neighbours (those within the skip
// included), whose full candidate test compares z up to both ends. Candidates
// then walk their arcs over the slopes. The angle is a non-decreasing
// function of the slope, so the largest (smallest) angle over an arc is the
// angle of the largest (smallest) slope; the arc tangent is taken only when a
// cheap bound of the drop cannot rule the candidate out. The group loops run
// on AVX2 where the processor has it, with the same operations lane for lane.
//
// The kernel lives in this header so that the tests can run its portable and
// AVX2 paths side by side.
#ifndef PROFILE_ANALYSIS_GLOVE_ARCS_KERNEL_H
#define PROFILE_ANALYSIS_GLOVE_ARCS_KERNEL_H

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include "../internal.h"

namespace pa_detail {
namespace glove_arcs {

constexpr int32_t kGloveArcType = 13;
constexpr size_t kMinLinePoints = 10;
constexpr double kEps = std::numeric_limits<double>::epsilon();
// The path skip treats points as inside the chord only while their polyline
// distance is below chordLen shortened by this fraction: far more than the
// rounding of one distance.
constexpr double kChordSlack = 1e-7;
// A candidate is ruled out by its drop bound only when the bound falls short
// of minArcAngle by more than this (relative to the bound, plus the same
// absolutely): far more than the rounding of the angles.
constexpr double kDropSlack = 1e-6;

// Points are searched for their chord ends in groups of four. A group skips
// the same number of points on each side, at most kMaxSkip, bounded by the
// largest step among its own and the kMaxSkip before and after.
constexpr int64_t kGroupShift = 2;
constexpr int64_t kGroup = int64_t(1) << kGroupShift;
constexpr int64_t kMaxSkip = 2 * kGroup;
// A group walks this many points past its skip before its unfinished points
// are searched one by one.
constexpr int64_t kGroupReach = 12;
// The neighbour test of a group looks this far on each side, within its skip.
constexpr int64_t kMaxPretest = 4;
// The skip bound counts every step as the largest one grown by this fraction:
// far more than the rounding of the steps and of one distance.
constexpr double kStepSlack = 1e-9;

// Padding on both ends of the coordinate arrays: y is NaN there (never at
// chord distance), z is -inf (never above a point), the path +inf (never
// within a chord).
constexpr int64_t kPad = 16;

// The chord test and the bounds of the searches for one line.
struct ChordSearch {
    ChordSearch(double chordLen, int64_t m)
        : t(squaredReachThreshold(chordLen)),
          reach(chordLen * (1.0 - kChordSlack)),
          grow(1.0 + 2.0 * static_cast<double>(m + 8) * kEps) {}
    double t;      // squared distances >= t reach the chord
    // A point whose polyline distance, grown by a bound on the rounding of
    // the path sums, stays below reach is inside the chord.
    double reach;
    double grow;
};

#if PA_AVX2_KERNELS
// Step lengths of points 0 .. i-1 four at a time (AVX2, no fused multiply-add,
// so the same operations as the portable loop); returns i.
__attribute__((target("avx2"))) inline int64_t stepsFourAtATime(const double* y, const double* z, double* step, int64_t m) {
    int64_t i = 0;
    for (; i + 4 < m; i += 4) {
        const __m256d dy = _mm256_sub_pd(_mm256_loadu_pd(y + i), _mm256_loadu_pd(y + i + 1));
        const __m256d dz = _mm256_sub_pd(_mm256_loadu_pd(z + i), _mm256_loadu_pd(z + i + 1));
        _mm256_storeu_pd(step + i, _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(dy, dy), _mm256_mul_pd(dz, dz))));
    }
    return i;
}
#endif

// The valid points (z > 0.0001) of the line and their per-point quantities.
// The working arrays live in three allocations sized once per call.
class ArcLine {
public:
    ArcLine(const std::vector<SKesp3DPosition>& in, double chordLen, bool avx2) : in_(in.data()), avx2_(avx2) {
        const size_t n = in.size();
        const size_t stride = n + 2 * kPad;
        reals_.reset(new double[5 * stride]);
        skip_.reset(new int32_t[(n >> kGroupShift) + 1]);
        ints_.reset(new int32_t[4 * n]);
        y_ = reals_.get() + kPad;
        z_ = y_ + stride;
        path_ = z_ + stride;
        step_ = path_ + stride;
        slope_ = step_ + stride;
        idx_ = ints_.get();
        cand_ = idx_ + n;
        survivor_ = cand_ + n;
        survivorFwd_ = survivor_ + n;
        m_ = compactValidPoints(in);
        if (m_ == 0) return;
        const double inf = std::numeric_limits<double>::infinity();
        const double nan = std::numeric_limits<double>::quiet_NaN();
        for (int64_t p = 1; p <= kPad; ++p) {
            z_[-p] = z_[m_ - 1 + p] = -inf;
            y_[-p] = y_[m_ - 1 + p] = nan;
            path_[-p] = 0.0;
            path_[m_ - 1 + p] = inf;
        }
        computeSteps();
        computeSkips(chordLen);
        const ChordSearch cs(chordLen, m_);
        findChordEnds(cs);
        findCandidates(cs);
    }

    int64_t size() const { return m_; }
    int64_t candidateCount() const { return candCount_; }
    int64_t candidate(int64_t c) const { return cand_[c]; }
    const SKesp3DPosition& point(int64_t i) const { return in_[idx_[i]]; }
    int32_t inputIndex(int64_t i) const { return idx_[i]; }
    const double* steps() const { return step_; }
    const double* slopes() const { return slope_; }

private:
    int64_t compactValidPoints(const std::vector<SKesp3DPosition>& in) {
        // Every point is written and the count advanced only for valid ones:
        // no branch on the (unpredictable) validity.
        int64_t w = 0;
        const int64_t n = static_cast<int64_t>(in.size());
        for (int64_t i = 0; i < n; ++i) {
            const SKesp3DPosition& p = in_[i];
            y_[w] = p.y;
            z_[w] = p.z;
            idx_[w] = static_cast<int32_t>(i);
            w += pa_detail::isStrictlyValidZ(p.z) ? 1 : 0;
        }
        return w;
    }

    // S(i) for every point.
    void computeSteps() {
        const double* y = y_;
        const double* z = z_;
        double* step = step_;
        const int64_t m = m_;
        int64_t i = 0;
#if PA_AVX2_KERNELS
        if (avx2_) i = stepsFourAtATime(y, z, step, m);
#endif
#if defined(__SSE2__)
        // Two roots per instruction; the packed root is correctly rounded
        // like the scalar one, so the lengths are the same bits.
        for (; i + 2 < m; i += 2) {
            const __m128d dy = _mm_sub_pd(_mm_loadu_pd(y + i), _mm_loadu_pd(y + i + 1));
            const __m128d dz = _mm_sub_pd(_mm_loadu_pd(z + i), _mm_loadu_pd(z + i + 1));
            _mm_storeu_pd(step + i, _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(dy, dy), _mm_mul_pd(dz, dz))));
        }
#endif
        for (; i + 1 < m; ++i) {
            const double dy = y[i] - y[i + 1], dz = z[i] - z[i + 1];
            step[i] = std::sqrt(dy * dy + dz * dz);
        }
        step[m - 1] = 0.0;
    }

    // The polyline length from point 0, needed only by searches that walk
    // far: it only bounds distances (with a margin for its rounding), so it
    // is summed two steps at a time to halve the chain of additions.
    void computePath() {
        const double* step = step_;
        double* path = path_;
        const int64_t m = m_;
        path[0] = 0.0;
        double walked = 0.0;
        int64_t k = 1;
        for (; k + 1 < m; k += 2) {
            path[k] = walked + step[k - 1];
            walked += step[k - 1] + step[k];
            path[k + 1] = walked;
        }
        for (; k < m; ++k) path[k] = path[k - 1] + step[k - 1];
        pathKnown_ = true;
    }

    void computeSkips(double chordLen);
    int64_t firstBeyondForward(int64_t i, double reach, double grow);
    int64_t firstInsideBackward(int64_t i, double reach, double grow);
    int64_t backwardEnd(int64_t i, const ChordSearch& cs);
    int64_t forwardEnd(int64_t i, const ChordSearch& cs);
    void addPoint(int64_t i, bool hasBackwardEnd, int64_t f);
    void findChordEnds(const ChordSearch& cs);
#if PA_AVX2_KERNELS
    int64_t largestStepsFourAtATime(int64_t groups);
    int64_t skipsFourAtATime(int64_t groups, const double* below);
    int64_t chordEndsFourAtATime(const ChordSearch& cs);
    void findCandidatesFourAtATime(const ChordSearch& cs);
#endif
    void findCandidates(const ChordSearch& cs);

    const SKesp3DPosition* in_;
    bool avx2_;  // the AVX2 kernels may run
    int64_t m_ = 0;
    int64_t candCount_ = 0;
    std::unique_ptr<double[]> reals_;
    std::unique_ptr<int32_t[]> ints_;
    std::unique_ptr<int32_t[]> skip_;  // per group: points provably inside the chord on each side
    double *y_, *z_, *path_, *step_, *slope_;
    int32_t *idx_, *cand_, *survivor_, *survivorFwd_;
    int64_t survivorCount_ = 0;
    bool pathKnown_ = false;
};


// Lowest and highest set bit of a non-zero mask.
inline int lowestBit(unsigned mask) {
#if defined(__GNUC__)
    return __builtin_ctz(mask);
#else
    int b = 0;
    while (!(mask & 1u)) mask >>= 1, ++b;
    return b;
#endif
}
inline int highestBit(unsigned mask) {
#if defined(__GNUC__)
    return 31 - __builtin_clz(mask);
#else
    int b = -1;
    while (mask) mask >>= 1, ++b;
    return b;
#endif
}

// Tests on four consecutive points j0 .. j0+3 at once; bit l of a result
// belongs to point j0 + l. Comparisons with NaN are false, as in the plain
// form.
struct Quad {
#if defined(__SSE2__)
    static unsigned bits(__m128d lo, __m128d hi) {
        return static_cast<unsigned>(_mm_movemask_pd(lo)) | (static_cast<unsigned>(_mm_movemask_pd(hi)) << 2);
    }
    // Squared y-z distance to (yi, zi) >= t.
    static unsigned reach(const double* y, const double* z, int64_t j0, double yi, double zi, double t) {
        const __m128d vy = _mm_set1_pd(yi), vz = _mm_set1_pd(zi), vt = _mm_set1_pd(t);
        const __m128d dy0 = _mm_sub_pd(vy, _mm_loadu_pd(y + j0)), dy1 = _mm_sub_pd(vy, _mm_loadu_pd(y + j0 + 2));
        const __m128d dz0 = _mm_sub_pd(vz, _mm_loadu_pd(z + j0)), dz1 = _mm_sub_pd(vz, _mm_loadu_pd(z + j0 + 2));
        const __m128d d0 = _mm_add_pd(_mm_mul_pd(dy0, dy0), _mm_mul_pd(dz0, dz0));
        const __m128d d1 = _mm_add_pd(_mm_mul_pd(dy1, dy1), _mm_mul_pd(dz1, dz1));
        return bits(_mm_cmpge_pd(d0, vt), _mm_cmpge_pd(d1, vt));
    }
#else
    static unsigned reach(const double* y, const double* z, int64_t j0, double yi, double zi, double t) {
        unsigned m = 0;
        for (int l = 0; l < 4; ++l) {
            const double dy = yi - y[j0 + l], dz = zi - z[j0 + l];
            m |= static_cast<unsigned>(dy * dy + dz * dz >= t) << l;
        }
        return m;
    }
#endif
};

// The number of points on each side of every point of group g that are
// provably within the chord: k steps of at most the largest step near the
// group span no more than k times it, and no point is farther away than the
// polyline between. A NaN or infinite step switches the skip off.
inline void ArcLine::computeSkips(double chordLen) {
    const int64_t m = m_;
    const int64_t groups = (m + kGroup - 1) >> kGroupShift;
    const double reach = chordLen * (1.0 - kChordSlack);
    const double* step = step_;
    // Largest step of each group, +inf for a group with a NaN step; the
    // slopes' array is free until the ends are searched. The steps after the
    // last point are 0 up to the end of its group.
    double* largest = slope_;
    const double inf = std::numeric_limits<double>::infinity();
    for (int64_t j = m; j < (groups << kGroupShift); ++j) step_[j] = 0.0;
    int64_t g0 = 0;
#if PA_AVX2_KERNELS
    if (avx2_) g0 = largestStepsFourAtATime(groups);
#endif
    for (int64_t g = g0; g < groups; ++g) {
        const double* s4 = step + (g << kGroupShift);
#if defined(__SSE2__)
        // min(x, inf) is x, or inf when x is NaN.
        const __m128d vinf = _mm_set1_pd(inf);
        const __m128d a = _mm_min_pd(_mm_loadu_pd(s4), vinf), b = _mm_min_pd(_mm_loadu_pd(s4 + 2), vinf);
        const __m128d mx = _mm_max_pd(a, b);
        largest[g] = _mm_cvtsd_f64(_mm_max_sd(mx, _mm_unpackhi_pd(mx, mx)));
#else
        double mx = 0.0;
        for (int64_t l = 0; l < kGroup; ++l) {
            const double v = s4[l] == s4[l] ? s4[l] : inf;
            mx = v > mx ? v : mx;
        }
        largest[g] = mx;
#endif
    }
    // Largest over the group and kSpan groups on each side (none beyond the
    // line's ends); the skip is the most steps of that size that stay below
    // reach: k counts while the largest step is below reach / k, shortened
    // by twice the step slack to cover the quotient's rounding. A NaN reach
    // or step fails every comparison and gives no skip.
    constexpr int64_t kSpan = kMaxSkip / kGroup;  // neighbouring groups whose steps a skip may cross
    static_assert(kSpan == 2 && kMaxSkip == 8, "the window spans two groups on each side, the skip 8 steps");
    for (int64_t h = 1; h <= kSpan; ++h) largest[-h] = largest[groups - 1 + h] = 0.0;
    double below[kMaxSkip];
    for (int64_t k = 1; k <= kMaxSkip; ++k) below[k - 1] = reach / static_cast<double>(k) * (1.0 - 2.0 * kStepSlack);
#if defined(__SSE2__)
    const __m128d b01 = _mm_loadu_pd(below), b23 = _mm_loadu_pd(below + 2);
    const __m128d b45 = _mm_loadu_pd(below + 4), b67 = _mm_loadu_pd(below + 6);
#endif
    g0 = 0;
#if PA_AVX2_KERNELS
    if (avx2_) g0 = skipsFourAtATime(groups, below);
#endif
    for (int64_t g = g0; g < groups; ++g) {
        const double* w = largest + g;
        const double mx = std::max(std::max(std::max(w[-2], w[-1]), std::max(w[1], w[2])), w[0]);
#if defined(__SSE2__)
        const __m128d v = _mm_set1_pd(mx);
        const unsigned fits = Quad::bits(_mm_cmplt_pd(v, b01), _mm_cmplt_pd(v, b23)) |
                              (Quad::bits(_mm_cmplt_pd(v, b45), _mm_cmplt_pd(v, b67)) << 4);
#else
        unsigned fits = 0;
        for (int64_t k = 0; k < kMaxSkip; ++k) fits |= static_cast<unsigned>(mx < below[k]) << k;
#endif
        // The bounds fall with k, so the fitting counts form a prefix.
        skip_[g] = lowestBit(~fits);
    }
}

#if PA_AVX2_KERNELS
// The largest step of groups 0 .. g-1 (+inf for a NaN step), four groups at a
// time; returns g.
__attribute__((target("avx2"))) inline int64_t ArcLine::largestStepsFourAtATime(int64_t groups) {
    const double* step = step_;
    double* largest = slope_;
    const __m256d vinf = _mm256_set1_pd(std::numeric_limits<double>::infinity());
    int64_t g = 0;
    for (; g + 4 <= groups; g += 4) {
        const double* s = step + (g << kGroupShift);
        // min(x, inf) is x, or inf when x is NaN.
        const __m256d a = _mm256_min_pd(_mm256_loadu_pd(s), vinf), b = _mm256_min_pd(_mm256_loadu_pd(s + 4), vinf);
        const __m256d c = _mm256_min_pd(_mm256_loadu_pd(s + 8), vinf), d = _mm256_min_pd(_mm256_loadu_pd(s + 12), vinf);
        const __m256d ab = _mm256_max_pd(_mm256_unpacklo_pd(a, b), _mm256_unpackhi_pd(a, b));
        const __m256d cd = _mm256_max_pd(_mm256_unpacklo_pd(c, d), _mm256_unpackhi_pd(c, d));
        _mm256_storeu_pd(largest + g, _mm256_max_pd(_mm256_permute2f128_pd(ab, cd, 0x20), _mm256_permute2f128_pd(ab, cd, 0x31)));
    }
    return g;
}

// The skips of groups 0 .. g-1, four groups at a time, counted as the
// thresholds below[] the window's largest step stays under; returns g.
__attribute__((target("avx2"))) inline int64_t ArcLine::skipsFourAtATime(int64_t groups, const double* below) {
    const double* largest = slope_;
    int64_t g = 0;
    for (; g + 4 + 2 <= groups + 2; g += 4) {
        const double* w = largest + g;
        const __m256d mx = _mm256_max_pd(
            _mm256_max_pd(_mm256_max_pd(_mm256_loadu_pd(w - 2), _mm256_loadu_pd(w - 1)),
                          _mm256_max_pd(_mm256_loadu_pd(w + 1), _mm256_loadu_pd(w + 2))),
            _mm256_loadu_pd(w));
        __m256i count = _mm256_setzero_si256();
        for (int64_t k = 0; k < kMaxSkip; ++k)
            count = _mm256_sub_epi64(count, _mm256_castpd_si256(_mm256_cmp_pd(mx, _mm256_set1_pd(below[k]), _CMP_LT_OQ)));
        const __m256i low32 = _mm256_permutevar8x32_epi32(count, _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(skip_.get() + g), _mm256_castsi256_si128(low32));
    }
    return g;
}
#endif

// A point after i from which on the path bound can no longer place points
// inside the chord (m when it places all). The bisection keeps the point
// before lo one that passed the test; every earlier point is nearer along
// the polyline, so all of them are inside. NaN and +inf fail the test.
inline int64_t ArcLine::firstBeyondForward(int64_t i, double reach, double grow) {
    if (!pathKnown_) computePath();
    const double pi = path_[i];
    int64_t lo = i + 1, hi = m_;
    while (lo < hi) {
        const int64_t mid = lo + (hi - lo) / 2;
        if (path_[mid] * grow - pi < reach)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// A point before i from which on every point up to i is provably inside the
// chord (i when none is proved), found the same way.
inline int64_t ArcLine::firstInsideBackward(int64_t i, double reach, double grow) {
    if (!pathKnown_) computePath();
    const double piGrown = path_[i] * grow;
    int64_t lo = 0, hi = i;
    while (lo < hi) {
        const int64_t mid = lo + (hi - lo) / 2;
        if (piGrown - path_[mid] < reach)
            hi = mid;
        else
            lo = mid + 1;
    }
    return lo;
}

// One point's chord ends, searched four points at a time from past its
// group's skip; when two groups of four do not reach, the polyline length
// from the first point bounds the rest of the way. Before the line's start
// and after its end y is NaN, which reaches nothing.
constexpr int kQuadsBeforeBisection = 2;

// The first point before i at least chordLen away, -1 when there is none.
inline int64_t ArcLine::backwardEnd(int64_t i, const ChordSearch& cs) {
    const double* y = y_;
    const double* z = z_;
    const double yi = y[i], zi = z[i];
    // Groups top-3 .. top, the highest reaching point first.
    int64_t top = i - skip_[i >> kGroupShift] - 1;
    for (int quads = 0; top >= 0;) {
        const unsigned r = Quad::reach(y, z, top - 3, yi, zi, cs.t);
        if (r) return top - 3 + highestBit(r);
        top -= 4;
        if (++quads == kQuadsBeforeBisection) top = std::min(top, firstInsideBackward(i, cs.reach, cs.grow) - 1);
    }
    return -1;
}

// The first point after i at least chordLen away, m when there is none.
inline int64_t ArcLine::forwardEnd(int64_t i, const ChordSearch& cs) {
    const int64_t m = m_;
    const double* y = y_;
    const double* z = z_;
    const double yi = y[i], zi = z[i];
    // Groups j0 .. j0+3, the lowest reaching point first.
    int64_t j0 = i + skip_[i >> kGroupShift] + 1;
    for (int quads = 0; j0 < m;) {
        const unsigned r = Quad::reach(y, z, j0, yi, zi, cs.t);
        if (r) return j0 + lowestBit(r);
        j0 += 4;
        if (++quads == kQuadsBeforeBisection) j0 = std::max(j0, firstBeyondForward(i, cs.reach, cs.grow));
    }
    return m;
}

// Records point i's chord slope (0 unless both ends exist) and lists it with
// its forward end when it beats its two neighbours.
inline void ArcLine::addPoint(int64_t i, bool hasBackwardEnd, int64_t f) {
    const double* y = y_;
    const double* z = z_;
    const double yi = y[i], zi = z[i];
    const bool bothEnds = hasBackwardEnd && f < m_;
    const int64_t fs = bothEnds ? f : i;  // a harmless division when unused
    const double s = (z[fs] - zi) / std::fabs(y[fs] - yi);
    slope_[i] = bothEnds ? s : 0.0;
    // The padding makes the neighbour test hold at the line's ends. Both
    // comparisons are evaluated: a short-circuit branch on the first would be
    // mispredicted on every other point of a noisy profile.
    const int64_t ns = survivorCount_;
    survivor_[ns] = static_cast<int32_t>(i);
    survivorFwd_[ns] = static_cast<int32_t>(f);
    survivorCount_ =
        ns + static_cast<int64_t>(static_cast<unsigned>(z[i - 1] < zi) & static_cast<unsigned>(!(z[i + 1] > zi)));
}

#if defined(__SSE2__)
// The forward chord ends of the four points i0 .. i0+3 at once: for offsets o
// past the group's skip the points i0+l+o are tested side by side (one load
// per offset), and each point keeps the first offset that reaches. Returns
// the points found; offsets of the others are 0. exhausted is set when every
// point ran out of line.
struct GroupSearch {
    __m128d yA, yB, zA, zB, t;

    // Points of the group at least chordLen from (yp, zp).
    unsigned reachesPoint(double yp, double zp) const {
        const __m128d vy = _mm_set1_pd(yp), vz = _mm_set1_pd(zp);
        const __m128d dyA = _mm_sub_pd(yA, vy), dyB = _mm_sub_pd(yB, vy);
        const __m128d dzA = _mm_sub_pd(zA, vz), dzB = _mm_sub_pd(zB, vz);
        return Quad::bits(_mm_cmpge_pd(_mm_add_pd(_mm_mul_pd(dyA, dyA), _mm_mul_pd(dzA, dzA)), t),
                          _mm_cmpge_pd(_mm_add_pd(_mm_mul_pd(dyB, dyB), _mm_mul_pd(dzB, dzB)), t));
    }

    unsigned run(const double* y, const double* z, int64_t i0, int64_t skip, int64_t limit, double off[4],
                 bool& exhausted) const {
        __m128d foundA = _mm_setzero_pd(), foundB = _mm_setzero_pd();
        __m128d offA = _mm_setzero_pd(), offB = _mm_setzero_pd();
        unsigned found = 0;
        exhausted = false;
        for (int64_t o = skip + 1;; ++o) {
            if (o > limit) {
                exhausted = true;
                break;
            }
            if (o > skip + kGroupReach) break;
            const int64_t base = i0 + o;
            const __m128d dyA = _mm_sub_pd(yA, _mm_loadu_pd(y + base)), dyB = _mm_sub_pd(yB, _mm_loadu_pd(y + base + 2));
            const __m128d dzA = _mm_sub_pd(zA, _mm_loadu_pd(z + base)), dzB = _mm_sub_pd(zB, _mm_loadu_pd(z + base + 2));
            const __m128d rA = _mm_cmpge_pd(_mm_add_pd(_mm_mul_pd(dyA, dyA), _mm_mul_pd(dzA, dzA)), t);
            const __m128d rB = _mm_cmpge_pd(_mm_add_pd(_mm_mul_pd(dyB, dyB), _mm_mul_pd(dzB, dzB)), t);
            const __m128d vo = _mm_set1_pd(static_cast<double>(o));
            const __m128d newA = _mm_andnot_pd(foundA, rA), newB = _mm_andnot_pd(foundB, rB);
            offA = _mm_or_pd(_mm_and_pd(newA, vo), offA);
            offB = _mm_or_pd(_mm_and_pd(newB, vo), offB);
            foundA = _mm_or_pd(foundA, rA);
            foundB = _mm_or_pd(foundB, rB);
            found = Quad::bits(foundA, foundB);
            // The ends of a group usually lie within two offsets of one
            // another; checking only from the second offset on keeps the exit
            // branch predictable.
            if (o > skip + 1 && found == 0xFu) break;
        }
        _mm_storeu_pd(off, offA);
        _mm_storeu_pd(off + 2, offB);
        return found;
    }
};
#endif

// For every point: whether it has a backward chord end, its forward chord
// end f and the slope of the forward chord; the points that beat their two
// neighbours are listed with f for the full candidate test, which alone needs
// the backward end itself. A point has a backward end as soon as the line's
// first point is chordLen away, which settles nearly every point at once.
// Nothing carries from one group of points to the next, so the groups overlap
// in the pipeline.
inline void ArcLine::findChordEnds(const ChordSearch& cs) {
    const int64_t m = m_;
    survivorCount_ = 0;
    int64_t i0 = 0;
#if PA_AVX2_KERNELS
    if (avx2_) i0 = chordEndsFourAtATime(cs);
#endif
#if defined(__SSE2__)
    const double* y = y_;
    const double* z = z_;
    double* slope = slope_;
    const __m128d signMask = _mm_set1_pd(-0.0);
    int64_t ns = survivorCount_;
    for (; i0 + kGroup <= m; i0 += kGroup) {
        const int64_t skip = skip_[i0 >> kGroupShift];
        GroupSearch g;
        g.yA = _mm_loadu_pd(y + i0);
        g.yB = _mm_loadu_pd(y + i0 + 2);
        g.zA = _mm_loadu_pd(z + i0);
        g.zB = _mm_loadu_pd(z + i0 + 2);
        g.t = _mm_set1_pd(cs.t);
        double fo[4];
        bool fDone;
        // Offsets beyond the limit leave every point of the group off the line.
        const unsigned fFound = g.run(y, z, i0, skip, m - i0 - 1, fo, fDone);
        int64_t f[4];
        for (int64_t l = 0; l < kGroup; ++l) f[l] = (fFound >> l) & 1u ? i0 + l + static_cast<int64_t>(fo[l]) : m;
        if (!fDone && fFound != 0xFu) {
            for (int64_t l = 0; l < kGroup; ++l)
                if (!((fFound >> l) & 1u)) f[l] = forwardEnd(i0 + l, cs);
        }
        // The first point has nothing before it, even for a chord of 0.
        unsigned hasBack = g.reachesPoint(y[0], z[0]) & (i0 == 0 ? 0xEu : 0xFu);
        if (hasBack != 0xFu) {
            for (int64_t l = 0; l < kGroup; ++l)
                if (!((hasBack >> l) & 1u) && backwardEnd(i0 + l, cs) >= 0) hasBack |= 1u << l;
        }
        // Slopes of the four forward chords; a point without both ends reads
        // its own coordinates (a harmless 0 / 0) and gets 0.
        int64_t fs[4];
        unsigned both = 0;
        for (int64_t l = 0; l < kGroup; ++l) {
            const bool b = ((hasBack >> l) & 1u) && f[l] < m;
            both |= static_cast<unsigned>(b) << l;
            fs[l] = b ? f[l] : i0 + l;
        }
        const __m128d yfA = _mm_set_pd(y[fs[1]], y[fs[0]]), yfB = _mm_set_pd(y[fs[3]], y[fs[2]]);
        const __m128d zfA = _mm_set_pd(z[fs[1]], z[fs[0]]), zfB = _mm_set_pd(z[fs[3]], z[fs[2]]);
        const __m128d sA = _mm_div_pd(_mm_sub_pd(zfA, g.zA), _mm_andnot_pd(signMask, _mm_sub_pd(yfA, g.yA)));
        const __m128d sB = _mm_div_pd(_mm_sub_pd(zfB, g.zB), _mm_andnot_pd(signMask, _mm_sub_pd(yfB, g.yB)));
        const __m128d keepA = _mm_castsi128_pd(_mm_set_epi64x(-static_cast<int64_t>((both >> 1) & 1u), -static_cast<int64_t>(both & 1u)));
        const __m128d keepB = _mm_castsi128_pd(_mm_set_epi64x(-static_cast<int64_t>((both >> 3) & 1u), -static_cast<int64_t>((both >> 2) & 1u)));
        _mm_storeu_pd(slope + i0, _mm_and_pd(keepA, sA));
        _mm_storeu_pd(slope + i0 + 2, _mm_and_pd(keepB, sB));
        // The neighbour test, extended to the points the skip places inside
        // the chord (they lie within both searches' ranges; the padding makes
        // it hold at the line's ends). Always four offsets, those beyond the
        // skip (beyond the first) masked out, so that no branch depends on
        // the skip.
        unsigned beats = 0xFu;
        for (int64_t o = 1; o <= kMaxPretest; ++o) {
            const unsigned ignored = (o > 1 && o > skip) ? 0xFu : 0u;
            beats &= (Quad::bits(_mm_cmplt_pd(_mm_loadu_pd(z + i0 - o), g.zA), _mm_cmplt_pd(_mm_loadu_pd(z + i0 + 2 - o), g.zB)) &
                      ~Quad::bits(_mm_cmpgt_pd(_mm_loadu_pd(z + i0 + o), g.zA), _mm_cmpgt_pd(_mm_loadu_pd(z + i0 + 2 + o), g.zB))) |
                     ignored;
        }
        for (int64_t l = 0; l < kGroup; ++l) {
            survivor_[ns] = static_cast<int32_t>(i0 + l);
            survivorFwd_[ns] = static_cast<int32_t>(f[l]);
            ns += (beats >> l) & 1u;
        }
    }
    survivorCount_ = ns;
#endif
    for (; i0 < m; ++i0) addPoint(i0, backwardEnd(i0, cs) >= 0, forwardEnd(i0, cs));
}

#if PA_AVX2_KERNELS
// Tests points l + o (l = 0 .. 3) of yg, zg against points l: lanes that
// reach the chord for the first time take offset o. The points tested are
// left in yo, zo.
__attribute__((target("avx2"))) inline void reachAtOffset(const double* yg, const double* zg, int64_t o, const __m256d& yv,
                                                          const __m256d& zv, const __m256d& vt, __m256d& found, __m256d& off,
                                                          __m256d& yo, __m256d& zo) {
    yo = _mm256_loadu_pd(yg + o);
    zo = _mm256_loadu_pd(zg + o);
    const __m256d dy = _mm256_sub_pd(yv, yo);
    const __m256d dz = _mm256_sub_pd(zv, zo);
    const __m256d r = _mm256_cmp_pd(_mm256_add_pd(_mm256_mul_pd(dy, dy), _mm256_mul_pd(dz, dz)), vt, _CMP_GE_OQ);
    off = _mm256_or_pd(_mm256_and_pd(_mm256_andnot_pd(found, r), _mm256_set1_pd(static_cast<double>(o))), off);
    found = _mm256_or_pd(found, r);
}

// The group loop of findChordEnds with the four points of a group in one AVX2
// register: the same operations lane for lane (no fused multiply-add), so the
// same results. Returns the first point it left to the portable loop.
__attribute__((target("avx2"))) inline int64_t ArcLine::chordEndsFourAtATime(const ChordSearch& cs) {
    const int64_t m = m_;
    const double* y = y_;
    const double* z = z_;
    double* slope = slope_;
    const __m256d vt = _mm256_set1_pd(cs.t);
    const __m256d signMask = _mm256_set1_pd(-0.0);
    const __m128i lanes = _mm_set_epi32(3, 2, 1, 0);
    int64_t ns = survivorCount_;
    int64_t i0 = 0;
    for (; i0 + kGroup <= m; i0 += kGroup) {
        const int64_t skip = skip_[i0 >> kGroupShift];
        const __m256d yv = _mm256_loadu_pd(y + i0), zv = _mm256_loadu_pd(z + i0);
        // Forward search: offsets past the skip, the first that reaches kept
        // per point.
        __m256d found = _mm256_setzero_pd(), off = _mm256_setzero_pd();
        unsigned fFound = 0;
        bool fDone = false;
        // Two offsets per round and one exit test: the ends of a group
        // usually lie within two offsets of one another.
        const int64_t limit = m - i0 - 1;  // beyond it every point of the group is off the line
        const double* yg = y + i0;
        const double* zg = z + i0;
        // The points of the last round, and whether the first round found
        // every end: the ends are then among them.
        __m256d yo = _mm256_setzero_pd(), zo = yo, yo1 = yo, zo1 = yo;
        int64_t lastRound = 0;
        bool firstRound = false;
        for (int64_t o = skip + 1;; o += 2) {
            if (o > limit) {
                fDone = true;
                break;
            }
            if (o > skip + kGroupReach) break;
            reachAtOffset(yg, zg, o, yv, zv, vt, found, off, yo, zo);
            if (o + 1 > limit) {
                fDone = true;
                fFound = static_cast<unsigned>(_mm256_movemask_pd(found));
                break;
            }
            reachAtOffset(yg, zg, o + 1, yv, zv, vt, found, off, yo1, zo1);
            fFound = static_cast<unsigned>(_mm256_movemask_pd(found));
            if (fFound == 0xFu) {
                lastRound = o;
                firstRound = o == skip + 1;
                break;
            }
        }
        // f = i + offset where found.
        alignas(16) int32_t f[4];
        const __m128i fvec = _mm_add_epi32(_mm_add_epi32(_mm_set1_epi32(static_cast<int32_t>(i0)), lanes),
                                           _mm256_cvttpd_epi32(off));
        _mm_store_si128(reinterpret_cast<__m128i*>(f), fvec);
        // Backward ends: the line's first point settles nearly every point.
        const __m256d dy0 = _mm256_sub_pd(yv, _mm256_set1_pd(y[0])), dz0 = _mm256_sub_pd(zv, _mm256_set1_pd(z[0]));
        unsigned hasBack = static_cast<unsigned>(_mm256_movemask_pd(
                               _mm256_cmp_pd(_mm256_add_pd(_mm256_mul_pd(dy0, dy0), _mm256_mul_pd(dz0, dz0)), vt, _CMP_GE_OQ))) &
                           (i0 == 0 ? 0xEu : 0xFu);
        __m256d sl;
        if (firstRound && hasBack == 0xFu) {
            // Every point has both ends, at one of the first two offsets
            // (nearly always): the chord ends are already loaded.
            const __m256d second = _mm256_cmp_pd(off, _mm256_set1_pd(static_cast<double>(lastRound + 1)), _CMP_EQ_OQ);
            const __m256d yf = _mm256_blendv_pd(yo, yo1, second), zf = _mm256_blendv_pd(zo, zo1, second);
            sl = _mm256_div_pd(_mm256_sub_pd(zf, zv), _mm256_andnot_pd(signMask, _mm256_sub_pd(yf, yv)));
        } else if ((fFound & hasBack) == 0xFu) {
            // Every point has both ends.
            const __m256d yf = _mm256_set_pd(y[f[3]], y[f[2]], y[f[1]], y[f[0]]);
            const __m256d zf = _mm256_set_pd(z[f[3]], z[f[2]], z[f[1]], z[f[0]]);
            sl = _mm256_div_pd(_mm256_sub_pd(zf, zv), _mm256_andnot_pd(signMask, _mm256_sub_pd(yf, yv)));
        } else {
            // Points without a forward end within the group's reach, or with
            // the first point too near; a point without both ends reads its
            // own coordinates and gets 0.
            for (int64_t l = 0; l < kGroup; ++l) {
                if (!((fFound >> l) & 1u)) f[l] = static_cast<int32_t>(fDone ? m : forwardEnd(i0 + l, cs));
                if (!((hasBack >> l) & 1u) && backwardEnd(i0 + l, cs) >= 0) hasBack |= 1u << l;
            }
            alignas(16) int32_t fs[4];
            alignas(32) int64_t keep[4];
            for (int64_t l = 0; l < kGroup; ++l) {
                const bool both = ((hasBack >> l) & 1u) && f[l] < m;
                fs[l] = both ? f[l] : static_cast<int32_t>(i0 + l);
                keep[l] = both ? -1 : 0;
            }
            const __m256d yf = _mm256_set_pd(y[fs[3]], y[fs[2]], y[fs[1]], y[fs[0]]);
            const __m256d zf = _mm256_set_pd(z[fs[3]], z[fs[2]], z[fs[1]], z[fs[0]]);
            sl = _mm256_and_pd(_mm256_castsi256_pd(_mm256_load_si256(reinterpret_cast<const __m256i*>(keep))),
                               _mm256_div_pd(_mm256_sub_pd(zf, zv), _mm256_andnot_pd(signMask, _mm256_sub_pd(yf, yv))));
        }
        _mm256_storeu_pd(slope + i0, sl);
        // The neighbour test as in the portable loop.
        unsigned beats = 0xFu;
        for (int64_t o = 1; o <= kMaxPretest; ++o) {
            const unsigned ignored = (o > 1 && o > skip) ? 0xFu : 0u;
            beats &= (static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(_mm256_loadu_pd(z + i0 - o), zv, _CMP_LT_OQ))) &
                      ~static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(_mm256_loadu_pd(z + i0 + o), zv, _CMP_GT_OQ)))) |
                     ignored;
        }
        for (int64_t l = 0; l < kGroup; ++l) {
            survivor_[ns] = static_cast<int32_t>(i0 + l);
            survivorFwd_[ns] = f[l];
            ns += (beats >> l) & 1u;
        }
    }
    survivorCount_ = ns;
    return i0;
}
#endif

#if PA_AVX2_KERNELS
// findCandidates with four points per AVX2 comparison: the first group of
// the backward search and the two windows. The same tests, so the same
// candidates.
__attribute__((target("avx2"))) inline void ArcLine::findCandidatesFourAtATime(const ChordSearch& cs) {
    constexpr int64_t kWindow = 8;
    const int64_t m = m_;
    const double* y = y_;
    const double* z = z_;
    const __m256d vt = _mm256_set1_pd(cs.t);
    int64_t nc = 0;
    for (int64_t s = 0; s < survivorCount_; ++s) {
        const int64_t i = survivor_[s];
        const __m256d yi = _mm256_set1_pd(y[i]), zi = _mm256_set1_pd(z[i]);
        // Backward end: the first group of four below the skip nearly
        // always holds it; otherwise the general search.
        const int64_t top = i - skip_[i >> kGroupShift] - 1;
        int64_t b = -1;
        if (top >= 0) {
            const __m256d dy = _mm256_sub_pd(yi, _mm256_loadu_pd(y + top - 3));
            const __m256d dz = _mm256_sub_pd(zi, _mm256_loadu_pd(z + top - 3));
            const unsigned r = static_cast<unsigned>(_mm256_movemask_pd(
                _mm256_cmp_pd(_mm256_add_pd(_mm256_mul_pd(dy, dy), _mm256_mul_pd(dz, dz)), vt, _CMP_GE_OQ)));
            b = r ? top - 3 + highestBit(r) : backwardEnd(i, cs);
        }
        const int64_t first = std::max<int64_t>(b, 0);
        const int64_t last = std::min<int64_t>(survivorFwd_[s], m - 1);
        // Backward window i-9 .. i-2, of which those from first on count.
        const int64_t w0 = i - 1 - kWindow;
        const unsigned backValid = 0xFFu << static_cast<unsigned>(std::max<int64_t>(first - w0, 0));
        // Forward window i+2 .. i+9, of which those up to last count.
        const int64_t fwdCount = std::min<int64_t>(std::max<int64_t>(last - i - 1, 0), kWindow);
        const unsigned fwdValid = (1u << static_cast<unsigned>(fwdCount)) - 1u;
        const unsigned backHigh =
            static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(_mm256_loadu_pd(z + w0), zi, _CMP_GE_OQ))) |
            (static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(_mm256_loadu_pd(z + w0 + 4), zi, _CMP_GE_OQ))) << 4);
        const unsigned fwdHigh =
            static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(_mm256_loadu_pd(z + i + 2), zi, _CMP_GT_OQ))) |
            (static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(_mm256_loadu_pd(z + i + 6), zi, _CMP_GT_OQ))) << 4);
        bool isCand = ((backHigh & backValid & 0xFFu) | (fwdHigh & fwdValid)) == 0;
        const double zs = z[i];
        if (first < w0 && isCand) {
            for (int64_t j = first; j < w0; ++j)
                if (z[j] >= zs) {
                    isCand = false;
                    break;
                }
        }
        if (last > i + 1 + kWindow && isCand) {
            for (int64_t j = i + 2 + kWindow; j <= last; ++j)
                if (z[j] > zs) {
                    isCand = false;
                    break;
                }
        }
        cand_[nc] = static_cast<int32_t>(i);
        nc += isCand ? 1 : 0;
    }
    candCount_ = nc;
}
#endif

// Bit l set when z[j0 + l] >= zi (orEqual) or > zi, for l = 0 .. 7.
inline unsigned zAbove8(const double* z, int64_t j0, double zi, bool orEqual) {
#if defined(__SSE2__)
    const __m128d v = _mm_set1_pd(zi);
    unsigned bits = 0;
    for (int l = 0; l < 8; l += 2) {
        const __m128d w = _mm_loadu_pd(z + j0 + l);
        const __m128d c = orEqual ? _mm_cmpge_pd(w, v) : _mm_cmpgt_pd(w, v);
        bits |= static_cast<unsigned>(_mm_movemask_pd(c)) << l;
    }
    return bits;
#else
    unsigned bits = 0;
    for (int l = 0; l < 8; ++l) bits |= static_cast<unsigned>(orEqual ? z[j0 + l] >= zi : z[j0 + l] > zi) << l;
    return bits;
#endif
}

// The survivors of the neighbour test that no point up to the backward chord
// end reaches in z (that end included) and none up to the forward end
// exceeds; a side without an end is tested to the line's end. The eight
// points next to the neighbours on each side are tested at once and masked
// to the range; longer ranges finish point by point.
inline void ArcLine::findCandidates(const ChordSearch& cs) {
#if PA_AVX2_KERNELS
    if (avx2_) {
        findCandidatesFourAtATime(cs);
        return;
    }
#endif
    constexpr int64_t kWindow = 8;
    const int64_t m = m_;
    const double* z = z_;
    int64_t nc = 0;
    for (int64_t s = 0; s < survivorCount_; ++s) {
        const int64_t i = survivor_[s];
        const double zi = z[i];
        const int64_t first = std::max<int64_t>(backwardEnd(i, cs), 0);
        const int64_t last = std::min<int64_t>(survivorFwd_[s], m - 1);
        // Backward window i-9 .. i-2, of which those from first on count.
        const int64_t w0 = i - 1 - kWindow;
        const unsigned backValid = 0xFFu << static_cast<unsigned>(std::max<int64_t>(first - w0, 0));
        // Forward window i+2 .. i+9, of which those up to last count.
        const int64_t fwdCount = std::min<int64_t>(std::max<int64_t>(last - i - 1, 0), kWindow);
        const unsigned fwdValid = (1u << static_cast<unsigned>(fwdCount)) - 1u;
        bool isCand = ((zAbove8(z, w0, zi, true) & backValid & 0xFFu) | (zAbove8(z, i + 2, zi, false) & fwdValid)) == 0;
        if (first < w0 && isCand) {
            for (int64_t j = first; j < w0; ++j)
                if (z[j] >= zi) {
                    isCand = false;
                    break;
                }
        }
        if (last > i + 1 + kWindow && isCand) {
            for (int64_t j = i + 2 + kWindow; j <= last; ++j)
                if (z[j] > zi) {
                    isCand = false;
                    break;
                }
        }
        cand_[nc] = static_cast<int32_t>(i);
        nc += isCand ? 1 : 0;
    }
    candCount_ = nc;
}

inline double slopeAngle(double slope) { return pa_detail::radToDegLiteral(std::atan(slope)); }

// Largest slope over the arc before k, starting from 0.0 (the slope of angle
// 0); the point that completes the arc length still counts.
inline double leftMaxSlope(const double* slope, const double* step, int64_t k, double searchArcLen) {
    double best = 0.0, walked = 0.0;
    for (int64_t j = k - 1; j >= 0; --j) {
        const double s = slope[j];
        if (s > best) best = s;
        walked += step[j];
        if (walked >= searchArcLen) break;
    }
    return best;
}

// Smallest slope over the arc from k on, starting from k's own; the point
// that completes the arc length does not count.
inline double rightMinSlope(const double* slope, const double* step, int64_t m, int64_t k, double searchArcLen) {
    double best = slope[k];
    double walked = step[k];
    for (int64_t j = k + 1; j < m; ++j) {
        walked += step[j];
        if (walked >= searchArcLen) break;
        const double s = slope[j];
        if (s < best) best = s;
    }
    return best;
}

// False only when the angle drop from slope left to slope right is surely
// below minArcAngle: atan(l) <= min(l, pi/2) for l >= 0 and
// atan(r) >= max(r, -pi/2) for r <= 0 (>= 0 for r >= 0).
inline bool dropMayReach(double left, double right, double minArcAngle) {
    const double upper = std::min(left, kHalfPi);
    const double lower = right >= 0.0 ? 0.0 : std::max(right, -kHalfPi);
    const double bound = pa_detail::radToDegLiteral(upper - lower);
    return !(bound + kDropSlack * (1.0 + std::fabs(bound)) < minArcAngle);
}


/// Appends the glove arcs of linePts to gloveArcs (see rk_getLineGloveArcs).
/// With avx2 the AVX2 kernels run; the caller has checked that the processor
/// has them. Both choices give the same bits.
inline void detect(const std::vector<SKesp3DPosition>& linePts, int lineIdx, SHX_gloveArcParam param,
                   std::vector<SHX_basicFeature1D>& gloveArcs, bool avx2) {
    if (linePts.size() < kMinLinePoints) return;
    const ArcLine line(linePts, param.chordLen, avx2);
    const double* slope = line.slopes();
    const double* step = line.steps();
    const int64_t m = line.size();
    for (int64_t c = 0; c < line.candidateCount(); ++c) {
        const int64_t k = line.candidate(c);
        const double left = leftMaxSlope(slope, step, k, param.searchArcLen);
        const double right = rightMinSlope(slope, step, m, k, param.searchArcLen);
        if (!dropMayReach(left, right, param.minArcAngle)) continue;
        const double drop = slopeAngle(left) - slopeAngle(right);
        if (drop >= param.minArcAngle) {
            SHX_basicFeature1D f;
            f.featureType = kGloveArcType;
            f.lineIdx = lineIdx;
            f.featurePos = line.point(k);
            f.featurePos.nPointIdx = line.inputIndex(k);
            f.featureValue = drop;
            gloveArcs.push_back(f);
        }
    }
}


}  // namespace glove_arcs
}  // namespace pa_detail

#endif  // PROFILE_ANALYSIS_GLOVE_ARCS_KERNEL_H
