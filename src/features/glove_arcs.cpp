// Glove arcs: sharp bends of a profile through a local z maximum, measured by
// the drop of the forward chord's slope angle around the point.
#include <cmath>
#include <vector>

#include "internal.h"

namespace {

constexpr int32_t kGloveArcType = 13;
constexpr size_t kMinLinePoints = 10;

inline double yzDistance(const SKesp3DPosition& a, const SKesp3DPosition& b) {
    const double dy = a.y - b.y, dz = a.z - b.z;
    return std::sqrt(dy * dy + dz * dz);
}

struct ArcWork {
    std::vector<SKesp3DPosition> pts;  // strictly valid points, nPointIdx = input index
    std::vector<double> angle;         // forward chord angle A(i), degrees (0 when undefined)
    std::vector<double> step;          // S(i): y-z distance to the next valid point (0 for the last)
    std::vector<int64_t> candidates;   // points no neighbour rises above
};

void collectValidPoints(const std::vector<SKesp3DPosition>& in, ArcWork& w) {
    w.pts.reserve(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        if (!pa_detail::isStrictlyValidZ(in[i].z)) continue;
        SKesp3DPosition p = in[i];
        p.nPointIdx = static_cast<int64_t>(i);
        w.pts.push_back(p);
    }
}

// For every valid point: the extreme test against the points up to each chord
// end, and the forward chord's angle. Both searches stop at the chord end, so
// the work per point follows the number of points within chordLen.
void measureChords(double chordLen, ArcWork& w) {
    const int64_t m = static_cast<int64_t>(w.pts.size());
    const SKesp3DPosition* p = w.pts.data();
    w.step.assign(static_cast<size_t>(m), 0.0);
    for (int64_t i = 0; i + 1 < m; ++i) w.step[static_cast<size_t>(i)] = yzDistance(p[i], p[i + 1]);
    w.angle.assign(static_cast<size_t>(m), 0.0);

    for (int64_t i = 0; i < m; ++i) {
        const double zi = p[i].z;
        bool candidate = true;
        bool hasBackEnd = false;
        for (int64_t j = i - 1; j >= 0; --j) {
            if (p[j].z >= zi) candidate = false;
            if (yzDistance(p[i], p[j]) >= chordLen) {
                hasBackEnd = true;
                break;
            }
        }
        int64_t forwardEnd = -1;
        for (int64_t j = i + 1; j < m; ++j) {
            // Strictly greater ahead: of equal highest points the first survives.
            if (p[j].z > zi) candidate = false;
            const double d = (j == i + 1) ? w.step[static_cast<size_t>(i)] : yzDistance(p[i], p[j]);
            if (d >= chordLen) {
                forwardEnd = j;
                break;
            }
        }
        if (candidate) w.candidates.push_back(i);
        if (hasBackEnd && forwardEnd >= 0) {
            const SKesp3DPosition& f = p[forwardEnd];
            w.angle[static_cast<size_t>(i)] = pa_detail::radToDegLiteral(std::atan((f.z - zi) / std::fabs(f.y - p[i].y)));
        }
    }
}

// Largest angle over the arc before k (from 0.0; the point that completes
// the arc length still counts).
double leftMaximum(const ArcWork& w, int64_t k, double searchArcLen) {
    double best = 0.0, walked = 0.0;
    for (int64_t j = k - 1; j >= 0; --j) {
        const double a = w.angle[static_cast<size_t>(j)];
        if (a > best) best = a;
        walked += w.step[static_cast<size_t>(j)];
        if (walked >= searchArcLen) break;
    }
    return best;
}

// Smallest angle over the arc from k on (from A(k); the point that completes
// the arc length does not count).
double rightMinimum(const ArcWork& w, int64_t k, double searchArcLen) {
    const int64_t m = static_cast<int64_t>(w.pts.size());
    double best = w.angle[static_cast<size_t>(k)];
    double walked = w.step[static_cast<size_t>(k)];
    for (int64_t j = k + 1; j < m; ++j) {
        walked += w.step[static_cast<size_t>(j)];
        if (walked >= searchArcLen) break;
        const double a = w.angle[static_cast<size_t>(j)];
        if (a < best) best = a;
    }
    return best;
}

}  // namespace

PA_API void rk_getLineGloveArcs(const std::vector<SKesp3DPosition>& linePts, int lineIdx, SHX_gloveArcParam param,
                                std::vector<SHX_basicFeature1D>& gloveArcs) {
    if (linePts.size() < kMinLinePoints) return;
    ArcWork w;
    collectValidPoints(linePts, w);
    if (w.pts.empty()) return;
    measureChords(param.chordLen, w);
    for (const int64_t k : w.candidates) {
        const double drop = leftMaximum(w, k, param.searchArcLen) - rightMinimum(w, k, param.searchArcLen);
        if (drop >= param.minArcAngle) {
            SHX_basicFeature1D f;
            f.featureType = kGloveArcType;
            f.lineIdx = lineIdx;
            f.featurePos = w.pts[static_cast<size_t>(k)];
            f.featureValue = drop;
            gloveArcs.push_back(f);
        }
    }
}
