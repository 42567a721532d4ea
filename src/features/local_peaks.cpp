// Local z maxima and minima of a profile, and upward jumps between valid points.
#include "internal.h"

using pa_detail::isValidZ;

namespace {

constexpr int32_t kTypeDownJump = 1;
constexpr int32_t kTypeValley = 13;
constexpr int32_t kTypePeak = 14;

// Writes the array index into a point, storing only when it differs: lines
// whose points already carry their index (the usual case, and every second
// call) then stay clean in the cache.
inline void setPointIndex(SKesp3DPosition& p, int32_t i) {
    if (p.nPointIdx != i) p.nPointIdx = i;
}

SHX_basicFeature1D makeFeature(int32_t type, int32_t lineIdx, const SKesp3DPosition& p) {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = lineIdx;
    f.featurePos = p;
    f.featureValue = 0.0;
    return f;
}

void localPeaksKernel(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                      std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys) {
    pa_detail::ExtremumCandidates cands(pointCount);
    pa_detail::scanExtremumCandidates(
        points, pointCount, [points](int32_t i) { return points[i].z; },
        [points](int32_t i) { setPointIndex(points[i], i); }, cands);

    // Peaks and valleys alternate in the list; each kind takes every second
    // entry, and its y and z are read from the points. The candidates' points
    // are copied only for the survivors; their nPointIdx already holds the
    // array index.
    const int32_t* ord = cands.order();
    const auto suppress = [&](size_t first, size_t m, auto rejects, int32_t type,
                              std::vector<SHX_basicFeature1D>& out) {
        const int32_t* list = ord + first;
        pa_detail::suppressCandidatesAt(
            m, peakRangeY, [=](size_t k) { return points[list[2 * k]].y; },
            [=](size_t k) { return points[list[2 * k]].z; }, rejects,
            [&](size_t k) { out.push_back(makeFeature(type, lineIdx, points[list[2 * k]])); });
    };
    suppress(cands.firstValleyPos(), cands.valleyCount(), [](double vk, double vj) { return vk > vj; }, kTypeValley,
             valleys);
    suppress(cands.firstPeakPos(), cands.peakCount(), [](double vk, double vj) { return vj > vk; }, kTypePeak, peaks);
}

void downJumpsKernel(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double jumpThreshold,
                     std::vector<SHX_basicFeature1D>& jumps) {
    int32_t prev = -1;
    double prevZ = 0.0;
    for (int32_t i = 0; i < pointCount; ++i) {
        setPointIndex(points[i], i);
        const double z = points[i].z;
        if (!isValidZ(z)) continue;
        // The record is the near side of the jump: the last valid point before it.
        if (prev >= 0 && z - prevZ > jumpThreshold) jumps.push_back(makeFeature(kTypeDownJump, lineIdx, points[prev]));
        prev = i;
        prevZ = z;
    }
}

}  // namespace

PA_API void hx_getLineLocalPeaks(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                                 std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys) {
    if (points == nullptr || pointCount < 2) return;
    localPeaksKernel(points, pointCount, lineIdx, peakRangeY, peaks, valleys);
}

PA_API void hx_getLineDownJumps(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double jumpThreshold,
                                std::vector<SHX_basicFeature1D>& jumps) {
    if (points == nullptr || pointCount < 2) return;
    downJumpsKernel(points, pointCount, lineIdx, jumpThreshold, jumps);
}
