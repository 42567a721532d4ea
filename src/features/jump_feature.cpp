// Height jumps of a profile found as a convex and a concave corner that bound
// one steep flank.
#include <algorithm>
#include <cmath>
#include <vector>

#include "corner_angles_kernel.h"

using pa_detail::CornerAngleList;

namespace {

constexpr int32_t kTypeRisingJump = 1;
constexpr int32_t kTypeFallingJump = 2;
// Corner kinds: which arm is flat and which steep, and whether convex.
constexpr int32_t kConvexFlatSteep = 9;   // top of a falling flank
constexpr int32_t kConcaveFlatSteep = 10; // foot of a rising flank
constexpr int32_t kConcaveSteepFlat = 11; // foot of a falling flank
constexpr int32_t kConvexSteepFlat = 12;  // top of a rising flank

struct TypedCorner {
    int32_t k;     // compacted index
    int32_t kind;  // one of the corner kinds above
};

// Appends the extrema that pass the angle limit, survive suppression and have
// one flat and one steep arm. Convex corners are judged on the corner angle,
// concave ones on its magnitude.
void typeCorners(CornerAngleList& list, pa_detail::CornerIndexList cands, bool concave,
                 const SHX_cornerParam& param, std::vector<TypedCorner>& out) {
    using A = CornerAngleList::Angle;
    const pa_detail::CornerIndexList kept = list.notClearlyBelow(cands, param.minCornerAngle, concave);
    for (size_t i = 0; i < kept.size(); ++i) {
        const size_t pos = static_cast<size_t>(kept[i]);
        const int32_t q = cands[pos];
        if (list.less(A::Corner, q, param.minCornerAngle, concave)) continue;
        if (list.outranked(cands, pos, param.armLen, concave)) continue;
        if (list.less(A::Backward, q, param.armAngle1, true) && list.greater(A::Forward, q, param.armAngle2, true)) {
            out.push_back(TypedCorner{q, concave ? kConcaveFlatSteep : kConvexFlatSteep});
        } else if (list.less(A::Forward, q, param.armAngle1, true) &&
                   list.greater(A::Backward, q, param.armAngle2, true)) {
            out.push_back(TypedCorner{q, concave ? kConcaveSteepFlat : kConvexSteepFlat});
        }
    }
}

SHX_basicFeature1D jumpAt(const SKesp3DPosition* points, const CornerAngleList& list, int32_t k, int32_t type,
                          int32_t lineIdx, double value) {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = lineIdx;
    const int32_t i = list.inputIndex(k);
    f.featurePos = points[i];
    f.featurePos.nPointIdx = i;
    f.featureValue = value;
    return f;
}

}  // namespace

PA_API void hx_getLineJumpFeature_cornerMethod(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                               SHX_cornerParam param, std::vector<SHX_basicFeature1D>& features) {
    if (points == nullptr || pointCount < 1) return;

    CornerAngleList list;
    list.build(points, pointCount, param.jumpZ, param.armLen, true, nullptr, pa_detail::avx2KernelsChosen());

    std::vector<TypedCorner> convex, concave;
    typeCorners(list, list.maxima(), false, param, convex);
    typeCorners(list, list.minima(), true, param, concave);
    // Both lists are in line order and no point is in both, so merging them
    // gives the order of a sort by position.
    std::vector<TypedCorner> corners(convex.size() + concave.size());
    std::merge(convex.begin(), convex.end(), concave.begin(), concave.end(), corners.begin(),
               [](const TypedCorner& a, const TypedCorner& b) { return a.k < b.k; });

    for (size_t i = 0; i + 1 < corners.size(); ++i) {
        const TypedCorner& e = corners[i];
        const TypedCorner& f = corners[i + 1];
        const bool falling = e.kind == kConvexFlatSteep && f.kind == kConcaveSteepFlat;
        const bool rising = e.kind == kConcaveFlatSteep && f.kind == kConvexSteepFlat;
        if (!falling && !rising) continue;
        // The step is measured between the points one arm outside the two corners.
        if (!(std::fabs(list.y(e.k) - list.y(f.k)) < param.maxGapY)) continue;
        if (!(std::fabs(list.forwardZ(f.k) - list.backwardZ(e.k)) > param.jumpZ)) continue;
        if (falling) {
            features.push_back(jumpAt(points, list, e.k, kTypeFallingJump, lineIdx, list.backwardZ(e.k)));
        } else {
            features.push_back(jumpAt(points, list, f.k, kTypeRisingJump, lineIdx, list.forwardZ(f.k)));
        }
    }
}
