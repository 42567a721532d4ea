// Per-line detectors: one fuzzed profile through one detector.
#include "fuzz_util.h"

using fuzz::checkFeatureOnLine;
using Features = std::vector<SHX_basicFeature1D>;

namespace {

// Every record stands on a point of the line and has one of the given types.
void checkFeatures(const Features& fs, const std::vector<SKesp3DPosition>& line, int32_t lineIdx, bool strict,
                   std::initializer_list<int> types) {
    for (const SHX_basicFeature1D& f : fs) {
        checkFeatureOnLine(f, line.data(), fuzz::count(line), lineIdx, strict);
        bool known = false;
        for (int t : types) known |= f.featureType == t;
        FUZZ_CHECK(known);
    }
}

// Routines that rewrite nPointIdx with the array index (and nothing else),
// up to the count passed; fewer than two points leave the line untouched.
void checkIndexedInPlace(const std::vector<SKesp3DPosition>& before, const std::vector<SKesp3DPosition>& after,
                         int32_t passed) {
    for (size_t i = 0; i < before.size(); ++i) {
        SKesp3DPosition p = before[i];
        if (passed >= 2 && static_cast<int64_t>(i) < passed) p.nPointIdx = static_cast<int64_t>(i);
        FUZZ_CHECK(fuzz::samePoint(after[i], p));
    }
}

SHX_cornerParam cornerParam(fuzz::Input& in) {
    SHX_cornerParam p;
    p.maxGapY = in.real(0.0, 20.0);
    p.jumpZ = in.real(0.0, 20.0);
    p.armLen = in.real(0.0, 12.0);
    p.minCornerAngle = in.real(0.0, 120.0);
    p.armAngle1 = in.real(0.0, 90.0);
    p.armAngle2 = in.real(0.0, 90.0);
    return p;
}

SHX_lineRightAngleParam rightAngleParam(fuzz::Input& in) {
    return SHX_lineRightAngleParam{in.real(0.0, 12.0), in.real(0.0, 12.0), in.real(0.0, 3.0)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int routine = in.integer(0, 8);
    const int32_t lineIdx = in.wide(-3, 40);
    std::vector<SKesp3DPosition> line = in.profile(in.integer(0, 3) == 0 ? 2000 : 64, lineIdx);
    const std::vector<SKesp3DPosition> original = line;
    const int32_t n = fuzz::count(line);
    // A negative count never reads the array, so out of contract any count
    // at or below the line's own length is passed.
    const int32_t passed = in.hostile() && in.flag() ? in.count(n, n) : n;
    SKesp3DPosition* pts = line.empty() ? nullptr : line.data();
    // A null output record does nothing (out of contract).
    const bool nullOut = in.hostile() && in.integer(0, 15) == 0;
    Features a, b;
    switch (routine) {
        case 0: {
            hx_getLineLocalPeaks(pts, passed, lineIdx, in.real(0.0, 20.0), a, b);
            if (passed < 2) FUZZ_CHECK(a.empty() && b.empty());
            checkIndexedInPlace(original, line, passed);
            checkFeatures(a, line, lineIdx, false, {14});
            checkFeatures(b, line, lineIdx, false, {13});
            break;
        }
        case 1: {
            hx_getLineDownJumps(pts, passed, lineIdx, in.real(0.0, 20.0), a);
            checkIndexedInPlace(original, line, passed);
            checkFeatures(a, line, lineIdx, false, {1});
            break;
        }
        case 2: {
            hx_getFlatLineLocalPeaks_vector(line, lineIdx, in.real(0.0, 20.0), in.real(0.0, 10.0), in.real(0.0, 10.0), a);
            checkFeatures(a, line, lineIdx, false, {14});
            break;
        }
        case 3: {
            const SHX_slopeParam sp{in.real(0.0, 10.0), in.real(0.0, 20.0), in.real(0.0, 20.0), in.real(0.0, 20.0)};
            const SHX_VFeatureParam vp{in.real(0.0, 10.0), in.real(0.0, 10.0)};
            SHX_lineFeature out;
            hx_getLineLVFeature(pts, passed, lineIdx, sp, vp, nullOut ? nullptr : &out);
            checkFeatures(out.features, line, lineIdx, false, {1, 2, 3, 4, 5});
            checkFeatures(out.endings, line, lineIdx, false, {6, 7});
            break;
        }
        case 4: {
            SHX_lineFeature out;
            hx_getLineCornerFeature(pts, passed, lineIdx, cornerParam(in), nullOut ? nullptr : &out);
            checkFeatures(out.features, line, lineIdx, true, {1, 2, 15});
            checkFeatures(out.endings, line, lineIdx, true, {6, 7});
            FUZZ_CHECK(out.endings.size() % 2 == 0);
            break;
        }
        case 5: {
            hx_getLineJumpFeature_cornerMethod(pts, passed, lineIdx, cornerParam(in), a);
            checkFeatures(a, line, lineIdx, true, {1, 2});
            break;
        }
        case 6: {
            SHX_lineFeature out;
            const auto p1 = rightAngleParam(in), p2 = rightAngleParam(in), p3 = rightAngleParam(in),
                       p4 = rightAngleParam(in);
            hx_getLineRigthAngleFeature(pts, passed, lineIdx, p1, p2, p3, p4, &out);
            checkFeatures(out.features, line, lineIdx, false, {9, 10, 11, 12});
            FUZZ_CHECK(out.endings.empty());
            break;
        }
        case 7: {
            const SHX_gloveArcParam gp{in.real(0.0, 12.0), in.real(0.0, 30.0), in.real(0.0, 90.0)};
            rk_getLineGloveArcs(line, lineIdx, gp, a);
            checkFeatures(a, line, lineIdx, true, {13});
            if (n < 10) FUZZ_CHECK(a.empty());
            break;
        }
        default: {
            // Label image with a column per line up to lineIdx and pointCount + 1
            // rows (in contract), or anything (outside it).
            const int32_t rows = in.hostile() ? in.integer(0, n + 2) : n + 1;
            const int32_t cols = in.hostile() ? in.integer(0, 42) : (lineIdx < 0 ? 0 : lineIdx) + 1;
            cv::Mat labels = cv::Mat::zeros(rows, cols, in.hostile() && in.flag() ? CV_8UC1 : CV_32SC1);
            for (int r = 0; r < rows && labels.type() == CV_32SC1; ++r)
                for (int c = 0; c < cols; ++c) labels.at<int32_t>(r, c) = in.integer(0, 3);
            const SHX_slopeParam sp{in.real(0.0, 10.0), 0.0, 0.0, in.real(0.0, 10.0)};
            std::vector<SHX_featureSemiCircle> semi;
            if (!in.hostile() && lineIdx < 0) break;
            hx_getLineUpperSemiCircleFeature(pts, passed, lineIdx, in.real(0.0, 20.0), sp, semi, labels);
            for (const SHX_featureSemiCircle& s : semi) {
                FUZZ_CHECK(s.featureType == 0 && s.lineIdx == lineIdx);
                FUZZ_CHECK(0 <= s.startPtIdx && s.startPtIdx <= s.peakPtIdx && s.peakPtIdx <= s.endPtIdx &&
                           s.endPtIdx < n);
            }
            break;
        }
    }
    return 0;
}
