// Corners of a profile by the turn of its direction angle, with the ends of
// its continuous segments.
#include <cmath>
#include <vector>

#include "corner_angles_kernel.h"

using pa_detail::CornerAngleList;
using pa_detail::CornerSegment;

namespace {

constexpr int32_t kTypeRiseCorner = 1;  // reached by a steep rise, left without a steep fall
constexpr int32_t kTypeFallCorner = 2;  // reached without a steep rise, left by a steep fall
constexpr int32_t kTypeSegmentStart = 6;
constexpr int32_t kTypeSegmentEnd = 7;
constexpr int32_t kTypeOtherCorner = 15;

SHX_basicFeature1D featureAt(const SKesp3DPosition* points, int32_t inputIdx, int32_t type, int32_t lineIdx) {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = lineIdx;
    f.featurePos = points[inputIdx];
    f.featurePos.nPointIdx = inputIdx;
    f.featureValue = 0.0;
    return f;
}

int32_t cornerType(const CornerAngleList& list, int32_t q, const SHX_cornerParam& param) {
    using A = CornerAngleList::Angle;
    if (list.greater(A::Backward, q, param.armAngle1, false) && list.greater(A::Forward, q, -param.armAngle2, false))
        return kTypeRiseCorner;
    if (list.less(A::Forward, q, -param.armAngle1, false) && list.less(A::Backward, q, param.armAngle2, false))
        return kTypeFallCorner;
    return kTypeOtherCorner;
}

void appendCorners(const SKesp3DPosition* points, CornerAngleList& list, int32_t lineIdx,
                   const SHX_cornerParam& param, std::vector<SHX_basicFeature1D>& out) {
    const pa_detail::CornerIndexList cands = list.maxima();
    const pa_detail::CornerIndexList kept = list.notClearlyBelow(cands, param.minCornerAngle, false);
    for (size_t i = 0; i < kept.size(); ++i) {
        const size_t pos = static_cast<size_t>(kept[i]);
        const int32_t q = cands[pos];
        if (list.less(CornerAngleList::Angle::Corner, q, param.minCornerAngle, false)) continue;
        if (list.outranked(cands, pos, param.armLen, false)) continue;
        out.push_back(featureAt(points, list.inputIndex(q), cornerType(list, q, param), lineIdx));
    }
}

// Joins each segment into its successor when the gap between them is short in
// y and small in z; joins cascade along the line.
void joinSegments(const SKesp3DPosition* points, std::vector<CornerSegment>& segs, const SHX_cornerParam& param) {
    for (size_t s = 1; s < segs.size(); ++s) {
        CornerSegment& before = segs[s - 1];
        CornerSegment& seg = segs[s];
        const SKesp3DPosition& a = points[before.startIdx + before.ptNum - 1];
        const SKesp3DPosition& b = points[seg.startIdx];
        if (std::fabs(a.y - b.y) < param.maxGapY && std::fabs(a.z - b.z) < param.jumpZ) {
            seg.ptNum += seg.startIdx - before.startIdx;
            seg.startIdx = before.startIdx;
            before.valid = 0;
        }
    }
}

}  // namespace

PA_API void hx_getLineCornerFeature(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                    SHX_cornerParam param, SHX_lineFeature* out) {
    if (out == nullptr) return;
    out->lineIdx = lineIdx;
    if (points == nullptr || pointCount < 1) return;

    CornerAngleList list;
    std::vector<CornerSegment> segs;
    list.build(points, pointCount, param.jumpZ, param.armLen, false, &segs, pa_detail::avx2KernelsChosen());
    appendCorners(points, list, lineIdx, param, out->features);

    joinSegments(points, segs, param);
    for (const CornerSegment& s : segs) {
        if (!s.valid) continue;
        out->endings.push_back(featureAt(points, s.startIdx, kTypeSegmentStart, lineIdx));
        out->endings.push_back(featureAt(points, s.startIdx + s.ptNum - 1, kTypeSegmentEnd, lineIdx));
    }
}
