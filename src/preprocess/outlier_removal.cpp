// Removal of short isolated runs (specks, reflections, spray) from a profile.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "internal.h"

using pa_detail::isStrictlyValidZ;

namespace {

// How far a valid point lies from the valid point before it.
struct HeightStep {
    double operator()(const SKesp3DPosition& p, const SKesp3DPosition& last) const { return std::fabs(p.z - last.z); }
};

struct SpatialStep {
    double operator()(const SKesp3DPosition& p, const SKesp3DPosition& last) const {
        const double dx = p.x - last.x, dy = p.y - last.y, dz = p.z - last.z;
        return std::sqrt(dx * dx + dy * dy + dz * dz);
    }
};

// Cuts the line into runs of strictly valid points in one pass and calls
// removeRun(first, lastValid) for every run with fewer points than outlierTh.
// Invalid points neither start, extend nor end a run; a valid point joins the
// run while its step from the previous valid point is below continuityTh
// (a step equal to it starts a new run). A run is passed to removeRun as soon
// as the next one starts, so removeRun may write into `pts` itself: it only
// touches indices the walk has already left behind.
template <typename Step, typename RemoveRun>
void forEachShortRun(const SKesp3DPosition* pts, int64_t n, const SHX_outlierFilterParam& param, Step step,
                     RemoveRun removeRun) {
    int64_t first = -1, lastValid = -1, count = 0;
    SKesp3DPosition last;
    for (int64_t i = 0; i < n; ++i) {
        const SKesp3DPosition p = pts[i];
        if (!isStrictlyValidZ(p.z)) continue;
        if (first < 0) {
            first = i;
            count = 1;
        } else if (param.continuityTh > step(p, last)) {
            ++count;
        } else {
            if (param.outlierTh > static_cast<double>(count)) removeRun(first, lastValid);
            first = i;
            count = 1;
        }
        last = p;
        lastValid = i;
    }
    if (first >= 0 && param.outlierTh > static_cast<double>(count)) removeRun(first, lastValid);
}

// The copying variants: the output becomes a copy of the line (its length
// taken from the count as given, so a negative count makes the resize throw
// std::length_error), then the short runs are zeroed in the copy and their
// indices, gaps included, appended to removedIdx.
template <typename Step>
void removeOutliersIntoCopy(const SKesp3DPosition* lineData, int32_t ptNum, const SHX_outlierFilterParam& param,
                            std::vector<SKesp3DPosition>& cleanedData, std::vector<int32_t>& removedIdx, Step step) {
    cleanedData.resize(static_cast<size_t>(static_cast<int64_t>(ptNum)));
    if (ptNum <= 0 || lineData == nullptr) return;
    SKesp3DPosition* out = cleanedData.data();
    if (out != lineData) std::copy_n(lineData, ptNum, out);
    forEachShortRun(lineData, ptNum, param, step, [&](int64_t first, int64_t lastValid) {
        for (int64_t k = first; k <= lastValid; ++k) {
            out[k].z = 0.0;
            removedIdx.push_back(static_cast<int32_t>(k));
        }
    });
}

}  // namespace

PA_API void hx_lineDataRemoveOutlier(const SKesp3DPosition* lineData, int32_t ptNum, SHX_outlierFilterParam param,
                                     std::vector<SKesp3DPosition>& cleanedData, std::vector<int32_t>& removedIdx) {
    removeOutliersIntoCopy(lineData, ptNum, param, cleanedData, removedIdx, HeightStep());
}

PA_API void hx_lineDataRemoveOutlier_changeOriginData(SKesp3DPosition* lineData, int32_t ptNum,
                                                      SHX_outlierFilterParam param) {
    if (ptNum <= 0 || lineData == nullptr) return;
    forEachShortRun(lineData, ptNum, param, HeightStep(), [lineData](int64_t first, int64_t lastValid) {
        for (int64_t k = first; k <= lastValid; ++k) lineData[k].z = 0.0;
    });
}

PA_API void hx_lineDataRemoveOutlier_ptDistMethod(const SKesp3DPosition* lineData, int32_t ptNum,
                                                  SHX_outlierFilterParam param,
                                                  std::vector<SKesp3DPosition>& cleanedData,
                                                  std::vector<int32_t>& removedIdx) {
    removeOutliersIntoCopy(lineData, ptNum, param, cleanedData, removedIdx, SpatialStep());
}
