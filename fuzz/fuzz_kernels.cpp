// The vector and the portable kernels of the local-peak, corner, jump and
// glove-arc detectors on the same fuzzed profile: their outputs must agree bit
// for bit. The corner and glove-arc kernels are internal, so this target
// compiles them in; local peaks are run through the library:
//  - local peaks: hx_getLineLocalPeaks under every vector target the processor
//    has, restricted in turn with hwy::SetSupportedTargetsForTest (the
//    non-vector targets run the plain kernel); features and the rewritten
//    point array compared with the first target's;
//  - corners and jumps: pa_detail::CornerAngleList::build with avx2 false and
//    true, as hx_getLineCornerFeature (segments, maxima) and
//    hx_getLineJumpFeature_cornerMethod (maxima and minima) call it; the rest
//    of both detectors is scalar code on the list, so the lists are compared:
//    compacted points, neighbours, approximate corner angles, extrema and
//    segments;
//  - glove arcs: pa_detail::glove_arcs::detect with avx2 false and true.
// The AVX2 side of corners, jumps and glove arcs runs only where
// pa_detail::avx2KernelsUsable() is true;
// elsewhere the portable kernels are fuzzed alone.
#include "fuzz_util.h"

#include "features/corner_angles_kernel.h"
#include "features/glove_arcs_kernel.h"

#include <hwy/targets.h>

using fuzz::sameBits;
using fuzz::samePoint;
using Features = std::vector<SHX_basicFeature1D>;

namespace {

bool sameFeatures(const Features& a, const Features& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i].featureType != b[i].featureType || a[i].lineIdx != b[i].lineIdx ||
            !samePoint(a[i].featurePos, b[i].featurePos) || !sameBits(a[i].featureValue, b[i].featureValue))
            return false;
    return true;
}

bool sameIndices(pa_detail::CornerIndexList a, pa_detail::CornerIndexList b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i]) return false;
    return true;
}

void compareLocalPeaks(const std::vector<SKesp3DPosition>& line, double range) {
    std::vector<SKesp3DPosition> first, points;
    Features firstPeaks, firstValleys, peaks, valleys;
    bool haveFirst = false;
    for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
        hwy::SetSupportedTargetsForTest(target);
        points = line;
        peaks.clear();
        valleys.clear();
        hx_getLineLocalPeaks(points.data(), fuzz::count(points), 7, range, peaks, valleys);
        if (!haveFirst) {
            first.swap(points);
            firstPeaks.swap(peaks);
            firstValleys.swap(valleys);
            haveFirst = true;
            continue;
        }
        FUZZ_CHECK(sameFeatures(firstPeaks, peaks) && sameFeatures(firstValleys, valleys));
        for (size_t i = 0; i < points.size(); ++i) FUZZ_CHECK(samePoint(first[i], points[i]));
    }
    hwy::SetSupportedTargetsForTest(0);
}

void compareCornerLists(const std::vector<SKesp3DPosition>& line, double jumpZ, double armLen, bool jumps) {
    using pa_detail::CornerAngleList;
    using pa_detail::CornerSegment;
    CornerAngleList a, b;
    std::vector<CornerSegment> sa, sb;
    a.build(line.data(), fuzz::count(line), jumpZ, armLen, jumps, jumps ? nullptr : &sa, false);
    if (!pa_detail::avx2KernelsUsable()) return;
    b.build(line.data(), fuzz::count(line), jumpZ, armLen, jumps, jumps ? nullptr : &sb, true);
    FUZZ_CHECK(a.size() == b.size());
    for (int32_t k = 0; k < a.size(); ++k) {
        FUZZ_CHECK(a.inputIndex(k) == b.inputIndex(k) && sameBits(a.y(k), b.y(k)));
        FUZZ_CHECK(a.backward(k) == b.backward(k) && a.forward(k) == b.forward(k));
        if (a.backward(k) >= 0) FUZZ_CHECK(sameBits(a.approxCorner(k), b.approxCorner(k)));
    }
    FUZZ_CHECK(sameIndices(a.maxima(), b.maxima()) && sameIndices(a.minima(), b.minima()));
    FUZZ_CHECK(sa.size() == sb.size());
    for (size_t i = 0; i < sa.size(); ++i) FUZZ_CHECK(sa[i].startIdx == sb[i].startIdx && sa[i].ptNum == sb[i].ptNum);
}

void compareGloveArcs(const std::vector<SKesp3DPosition>& line, const SHX_gloveArcParam& param) {
    Features a, b;
    pa_detail::glove_arcs::detect(line, 7, param, a, false);
    if (!pa_detail::avx2KernelsUsable()) return;
    pa_detail::glove_arcs::detect(line, 7, param, b, true);
    FUZZ_CHECK(sameFeatures(a, b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int kernel = in.integer(0, 3);
    const std::vector<SKesp3DPosition> line = in.profile(in.integer(0, 3) == 0 ? 1500 : 80);
    switch (kernel) {
        case 0: compareLocalPeaks(line, in.real(0.0, 20.0)); break;
        case 1:
        case 2: compareCornerLists(line, in.real(0.0, 20.0), in.real(0.0, 12.0), kernel == 2); break;
        default: compareGloveArcs(line, SHX_gloveArcParam{in.real(0.0, 12.0), in.real(0.0, 30.0), in.real(0.0, 90.0)});
    }
    return 0;
}
