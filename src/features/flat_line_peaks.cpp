// Bumps standing on a flat, possibly tilted surface (a conveyor belt, a
// plate): local maxima of the height above a fitted base line.
#include <cmath>

#include "internal.h"

using pa_detail::ExtremumCandidate;
using pa_detail::isValidZ;

namespace {

constexpr int32_t kTypePeak = 14;
// A base line needs this many valid points for the first fit, and this many
// flat points for the refit.
constexpr size_t kMinPointsFirstFit = 3;
constexpr size_t kMinPointsRefit = 2;

// z = k * y + b.
struct BaseLine {
    double k;
    double b;
    double residual(const SKesp3DPosition& p) const { return p.z - (k * p.y + b); }
};

// Least-squares base line through the points for which use(p) holds, from
// centred sums (well conditioned for y far from 0). Fails with fewer than
// minPoints points or when they do not spread along y.
template <class Use>
bool fitBaseLine(const SKesp3DPosition* pts, size_t n, Use use, size_t minPoints, BaseLine& line) {
    size_t count = 0;
    double sy = 0.0, sz = 0.0;
    for (size_t i = 0; i < n; ++i) {
        if (!use(pts[i])) continue;
        ++count;
        sy += pts[i].y;
        sz += pts[i].z;
    }
    if (count < minPoints) return false;
    const double my = sy / static_cast<double>(count), mz = sz / static_cast<double>(count);
    double syy = 0.0, syz = 0.0;
    for (size_t i = 0; i < n; ++i) {
        if (!use(pts[i])) continue;
        const double dy = pts[i].y - my;
        syy += dy * dy;
        syz += dy * (pts[i].z - mz);
    }
    if (!(syy > 0.0)) return false;
    line.k = syz / syy;
    line.b = mz - line.k * my;
    return true;
}

}  // namespace

PA_API void hx_getFlatLineLocalPeaks_vector(const std::vector<SKesp3DPosition>& line, int32_t lineIdx,
                                            double peakRangeY, double minPeakHeight, double flatTolerance,
                                            std::vector<SHX_basicFeature1D>& peaks) {
    const SKesp3DPosition* pts = line.data();
    const size_t n = line.size();
    if (n < kMinPointsFirstFit || n > static_cast<size_t>(INT32_MAX)) return;

    BaseLine first{0.0, 0.0};
    if (!fitBaseLine(pts, n, [](const SKesp3DPosition& p) { return isValidZ(p.z); }, kMinPointsFirstFit, first))
        return;
    // Refit to the flat part only, so that the bumps do not lift the base line.
    BaseLine base{0.0, 0.0};
    const auto isFlat = [&first, flatTolerance](const SKesp3DPosition& p) {
        return isValidZ(p.z) && std::fabs(first.residual(p)) < flatTolerance;
    };
    if (!fitBaseLine(pts, n, isFlat, kMinPointsRefit, base)) return;

    const auto height = [pts, &base](int32_t i) { return base.residual(pts[i]); };
    pa_detail::ExtremumCandidates cands(static_cast<int32_t>(n));
    pa_detail::scanExtremumCandidates(pts, static_cast<int32_t>(n), height, [](int32_t) {}, cands);
    cands.split(pts, height);
    pa_detail::suppressCandidates(cands.peaks(), cands.peakCount(), peakRangeY, [](double vk, double vj) { return vj > vk; },
                                  [&](const ExtremumCandidate& c) {
                                      if (!(c.v > minPeakHeight)) return;
                                      SHX_basicFeature1D f;
                                      f.featureType = kTypePeak;
                                      f.lineIdx = lineIdx;
                                      f.featurePos = pts[c.idx];
                                      f.featurePos.nPointIdx = c.idx;
                                      f.featureValue = c.v;
                                      peaks.push_back(f);
                                  });
}
