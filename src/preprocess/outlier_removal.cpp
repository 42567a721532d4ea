// Removal of short isolated runs (specks, reflections, spray) from a profile.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "internal.h"

using pa_detail::isStrictlyValidZ;

namespace {

// Whether a valid point continues the run of the valid point before it: its
// height step is below the continuity limit.
struct HeightContinuity {
    double th;
    explicit HeightContinuity(double continuityTh) : th(continuityTh) {}
    bool operator()(const SKesp3DPosition& p, const SKesp3DPosition& last) const { return th > std::fabs(p.z - last.z); }
};

// Whether the 3-D distance sqrt(dx^2 + dy^2 + dz^2) to the previous valid
// point is below the limit. Squared distances clearly below or above the
// squared limit decide without the square root; only those within a relative
// kSquareBand of it take the root, so the answer is always the root's.
struct SpatialContinuity {
    static constexpr double kSquareBand = 1e-9;
    // Limits whose squares are normal doubles, so the band above holds.
    static constexpr double kMinFastTh = 1e-150, kMaxFastTh = 1e150;
    double th, surelyBelow = -1.0, surelyAbove = -1.0;  // -1: always take the root

    explicit SpatialContinuity(double continuityTh) : th(continuityTh) {
        if (th >= kMinFastTh && th <= kMaxFastTh) {
            surelyBelow = th * th * (1.0 - kSquareBand);
            surelyAbove = th * th * (1.0 + kSquareBand);
        }
    }
    bool operator()(const SKesp3DPosition& p, const SKesp3DPosition& last) const {
        const double dx = p.x - last.x, dy = p.y - last.y, dz = p.z - last.z;
        const double sq = dx * dx + dy * dy + dz * dz;
        if (sq < surelyBelow) return true;
        if (sq > surelyAbove) return false;
        return th > std::sqrt(sq);
    }
};

// Cuts the line into runs of strictly valid points in one pass and calls
// removeRun(first, lastValid) for every run with fewer points than outlierTh.
// Invalid points neither start, extend nor end a run; a valid point joins the
// run while `continues` says so (a step equal to the limit starts a new run).
// A run is passed to removeRun as soon as the next one starts, so removeRun
// may write into `pts` itself: it only touches indices the walk has already
// left behind. visit(i) is called for every point before it is looked at.
template <typename Continues, typename RemoveRun, typename Visit>
void forEachShortRun(const SKesp3DPosition* pts, int64_t n, double outlierTh, Continues continues,
                     RemoveRun removeRun, Visit visit) {
    int64_t i = 0;
    for (; i < n; ++i) {
        visit(i);
        if (isStrictlyValidZ(pts[i].z)) break;
    }
    if (i >= n) return;  // no valid point: no run
    int64_t first = i, lastValid = i, count = 1;
    SKesp3DPosition last = pts[i];
    for (++i; i < n; ++i) {
        visit(i);
        const SKesp3DPosition p = pts[i];
        if (!isStrictlyValidZ(p.z)) continue;
        if (!continues(p, last)) {
            if (outlierTh > static_cast<double>(count)) removeRun(first, lastValid);
            first = i;
            count = 0;
        }
        ++count;
        last = p;
        lastValid = i;
    }
    if (outlierTh > static_cast<double>(count)) removeRun(first, lastValid);
}

// The copying variants: the output becomes a copy of the line (its length
// taken from the count as given, so a negative count makes the resize throw
// std::length_error), then the short runs are zeroed in the copy and their
// indices, gaps included, appended to removedIdx. The copy is made during the
// walk, so the line is read once.
template <typename Continues>
void removeOutliersIntoCopy(const SKesp3DPosition* lineData, int32_t ptNum, double outlierTh,
                            Continues continues, std::vector<SKesp3DPosition>& cleanedData,
                            std::vector<int32_t>& removedIdx) {
    cleanedData.resize(static_cast<size_t>(static_cast<int64_t>(ptNum)));
    if (ptNum <= 0 || lineData == nullptr) return;
    SKesp3DPosition* out = cleanedData.data();
    const auto zeroRun = [&](int64_t first, int64_t lastValid) {
        for (int64_t k = first; k <= lastValid; ++k) {
            out[k].z = 0.0;
            removedIdx.push_back(static_cast<int32_t>(k));
        }
    };
    forEachShortRun(lineData, ptNum, outlierTh, continues, zeroRun, [&](int64_t i) { out[i] = lineData[i]; });
}

}  // namespace

PA_API void hx_lineDataRemoveOutlier(const SKesp3DPosition* lineData, int32_t ptNum, SHX_outlierFilterParam param,
                                     std::vector<SKesp3DPosition>& cleanedData, std::vector<int32_t>& removedIdx) {
    removeOutliersIntoCopy(lineData, ptNum, param.outlierTh, HeightContinuity(param.continuityTh), cleanedData,
                           removedIdx);
}

PA_API void hx_lineDataRemoveOutlier_changeOriginData(SKesp3DPosition* lineData, int32_t ptNum,
                                                      SHX_outlierFilterParam param) {
    if (ptNum <= 0 || lineData == nullptr) return;
    const auto zeroRun = [lineData](int64_t first, int64_t lastValid) {
        for (int64_t k = first; k <= lastValid; ++k) lineData[k].z = 0.0;
    };
    forEachShortRun(lineData, ptNum, param.outlierTh, HeightContinuity(param.continuityTh), zeroRun, [](int64_t) {});
}

PA_API void hx_lineDataRemoveOutlier_ptDistMethod(const SKesp3DPosition* lineData, int32_t ptNum,
                                                  SHX_outlierFilterParam param,
                                                  std::vector<SKesp3DPosition>& cleanedData,
                                                  std::vector<int32_t>& removedIdx) {
    removeOutliersIntoCopy(lineData, ptNum, param.outlierTh, SpatialContinuity(param.continuityTh), cleanedData,
                           removedIdx);
}
