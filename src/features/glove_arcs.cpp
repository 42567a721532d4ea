// Glove arcs: sharp bends of a profile through a local z maximum, measured by
// the drop of the forward chord's slope angle around the point.
//
// Only candidates (points no neighbour within the chord rises above) need the
// angle drop, and the drop only reads angles within searchArcLen of a
// candidate; chord slopes are therefore computed on demand and remembered,
// and a point is rejected as a candidate as soon as a higher neighbour is
// seen. The angle is a non-decreasing function of the slope, so the largest
// (smallest) angle over an arc is the angle of the largest (smallest) slope:
// the arc tangent is taken twice per candidate instead of once per point.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "internal.h"

namespace {

constexpr int32_t kGloveArcType = 13;
constexpr size_t kMinLinePoints = 10;

// The valid points (z > 0.0001) of the line, by their input index, with the
// per-point quantities computed on first use. All working arrays live in one
// allocation sized once per call.
class ArcLine {
public:
    ArcLine(const std::vector<SKesp3DPosition>& in, double chordLen) : in_(in.data()), chord_(chordLen) {
        const size_t n = in.size();
        // y, z, S and the slope of the valid points in four contiguous
        // arrays: the searches below read nothing else. The indices and the
        // slope-known flags share a second block.
        reals_.reset(new double[4 * n]);
        ints_.reset(new int32_t[2 * n]);
        y_ = reals_.get();
        z_ = y_ + n;
        step_ = z_ + n;
        slope_ = step_ + n;
        idx_ = ints_.get();
        slopeKnown_ = idx_ + n;
        m_ = compactValidPoints(in);
        computeSteps();
        std::fill(slopeKnown_, slopeKnown_ + m_, 0);
        // Squared chord bounds, widened by a few ulps, that decide
        // sqrt(d2) >= chordLen without the root except right at the boundary.
        chordSquareLo_ = chordLen * chordLen * (1.0 - 8 * std::numeric_limits<double>::epsilon());
        chordSquareHi_ = chordLen * chordLen * (1.0 + 8 * std::numeric_limits<double>::epsilon());
        squaredTestOk_ = chordLen > 0.0 && std::isfinite(chordSquareHi_) && chordSquareLo_ > 0.0;
    }

    int64_t size() const { return m_; }
    const SKesp3DPosition& point(int64_t i) const { return in_[idx_[i]]; }
    int32_t inputIndex(int64_t i) const { return idx_[i]; }

    // S(i): y-z distance to the next valid point, 0 for the last.
    double step(int64_t i) const { return step_[i]; }

    // True when z(i) beats both neighbours as the full test requires (the
    // previous one strictly, the next one or equal): every candidate passes.
    bool beatsNeighbours(int64_t i) const {
        const double zi = z_[i];
        const bool prevLower = i == 0 || z_[i - 1] < zi;
        const bool nextNotHigher = i + 1 >= m_ || !(z_[i + 1] > zi);
        return prevLower & nextNotHigher;
    }

    // True when no point before the backward chord end (that end included)
    // reaches z(i), and none up to the forward chord end exceeds it.
    bool isCandidate(int64_t i) const {
        const double* z = z_;
        const double zi = z[i];
        for (int64_t j = i - 1; j >= 0; --j) {
            if (z[j] >= zi) return false;
            if (reachesChord(i, j)) break;
        }
        for (int64_t j = i + 1; j < m_; ++j) {
            if (z[j] > zi) return false;
            if (reachesChord(i, j)) break;
        }
        return true;
    }

    // Slope dz / |dy| of the chord to the first point at least chordLen
    // ahead; 0 unless both chord ends exist (the angle is then 0 as well).
    double slope(int64_t i) {
        if (!slopeKnown_[i]) {
            slopeKnown_[i] = 1;
            slope_[i] = chordSlope(i);
        }
        return slope_[i];
    }

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

    void computeSteps() {
        if (m_ == 0) return;
        int64_t i = 0;
#if defined(__SSE2__)
        // Two roots per instruction; the packed root is correctly rounded
        // like the scalar one, so the lengths are the same bits.
        for (; i + 2 < m_; i += 2) {
            const __m128d dy = _mm_sub_pd(_mm_loadu_pd(y_ + i), _mm_loadu_pd(y_ + i + 1));
            const __m128d dz = _mm_sub_pd(_mm_loadu_pd(z_ + i), _mm_loadu_pd(z_ + i + 1));
            _mm_storeu_pd(step_ + i, _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(dy, dy), _mm_mul_pd(dz, dz))));
        }
#endif
        for (; i + 1 < m_; ++i) {
            const double dy = y_[i] - y_[i + 1], dz = z_[i] - z_[i + 1];
            step_[i] = std::sqrt(dy * dy + dz * dz);
        }
        step_[m_ - 1] = 0.0;
    }

    // The y-z distance of valid points a and b is at least chordLen, exactly
    // as the rooted comparison decides it.
    bool reachesChord(int64_t a, int64_t b) const {
        const double dy = y_[a] - y_[b], dz = z_[a] - z_[b];
        const double d2 = dy * dy + dz * dz;
        if (squaredTestOk_) {
            if (d2 < chordSquareLo_) return false;
            if (d2 > chordSquareHi_) return true;
        }
        return std::sqrt(d2) >= chord_;
    }

    // The backward chord end exists when any earlier point is chordLen away;
    // the line's first point usually is, which settles it at once.
    bool hasBackwardChordEnd(int64_t i) const {
        for (int64_t j = 0; j < i; ++j)
            if (reachesChord(i, j)) return true;
        return false;
    }

    double chordSlope(int64_t i) const {
        if (!hasBackwardChordEnd(i)) return 0.0;
        for (int64_t j = i + 1; j < m_; ++j)
            if (reachesChord(i, j)) return (z_[j] - z_[i]) / std::fabs(y_[j] - y_[i]);
        return 0.0;
    }

    const SKesp3DPosition* in_;
    double chord_;
    double chordSquareLo_ = 0.0, chordSquareHi_ = 0.0;
    bool squaredTestOk_ = false;
    int64_t m_ = 0;
    std::unique_ptr<double[]> reals_;
    std::unique_ptr<int32_t[]> ints_;
    double *y_, *z_, *step_, *slope_;
    int32_t *idx_, *slopeKnown_;
};

double slopeAngle(double slope) { return pa_detail::radToDegLiteral(std::atan(slope)); }

// Largest angle over the arc before k, starting from 0.0 (the angle of slope
// 0); the point that completes the arc length still counts.
double leftMaximum(ArcLine& line, int64_t k, double searchArcLen) {
    double best = 0.0, walked = 0.0;
    for (int64_t j = k - 1; j >= 0; --j) {
        const double s = line.slope(j);
        if (s > best) best = s;
        walked += line.step(j);
        if (walked >= searchArcLen) break;
    }
    return slopeAngle(best);
}

// Smallest angle over the arc from k on, starting from k's own; the point
// that completes the arc length does not count.
double rightMinimum(ArcLine& line, int64_t k, double searchArcLen) {
    double best = line.slope(k);
    double walked = line.step(k);
    for (int64_t j = k + 1; j < line.size(); ++j) {
        walked += line.step(j);
        if (walked >= searchArcLen) break;
        const double s = line.slope(j);
        if (s < best) best = s;
    }
    return slopeAngle(best);
}

}  // namespace

PA_API void rk_getLineGloveArcs(const std::vector<SKesp3DPosition>& linePts, int lineIdx, SHX_gloveArcParam param,
                                std::vector<SHX_basicFeature1D>& gloveArcs) {
    if (linePts.size() < kMinLinePoints) return;
    ArcLine line(linePts, param.chordLen);
    for (int64_t k = 0; k < line.size(); ++k) {
        if (!line.beatsNeighbours(k) || !line.isCandidate(k)) continue;
        const double drop = leftMaximum(line, k, param.searchArcLen) - rightMinimum(line, k, param.searchArcLen);
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
