// The per-line detectors give the same bits on every compiler, processor and
// vector path: their outputs on a fixed set of generated profiles hash to one
// stored value, on each vector target the processor runs. A deliberate change of behaviour changes the hash; the test
// then prints the new value, to be stored here with the reason in the commit.
#include <cstring>

#include <gtest/gtest.h>
#include <hwy/targets.h>
#include <opencv2/core.hpp>

#include "test_util.h"

namespace {

// FNV-1a over 64-bit words: doubles by their bits, so -0.0, NaN payloads and
// the last bit all count.
struct Hash {
    uint64_t h = 0xcbf29ce484222325ull;
    void word(uint64_t w) {
        for (int i = 0; i < 8; ++i) h = (h ^ ((w >> (8 * i)) & 0xFFu)) * 0x100000001b3ull;
    }
    void num(double d) {
        uint64_t u;
        std::memcpy(&u, &d, sizeof u);
        word(u);
    }
    void num(int64_t i) { word(static_cast<uint64_t>(i)); }
    void point(const SKesp3DPosition& p) {
        num(p.nPointIdx);
        num(p.x);
        num(p.y);
        num(p.z);
    }
    void features(const std::vector<SHX_basicFeature1D>& v) {
        num(static_cast<int64_t>(v.size()));
        for (const auto& f : v) {
            num(int64_t{f.featureType});
            num(int64_t{f.lineIdx});
            point(f.featurePos);
            num(f.featureValue);
        }
    }
};

// Scenes built from + - * / and sqrt only (correctly rounded everywhere, unlike
// the math library's sines): a tilted floor with boxes, grooves, round dips and
// arcs, clean or with noise, with and without runs of missing points.
std::vector<SKesp3DPosition> profile(int line) {
    constexpr int kPoints = 480;
    constexpr double kPitch = 0.1;
    testutil::Rng rng(0x5eed0000u + static_cast<uint64_t>(line));
    const double noise = (line % 2) ? 0.03 : 0.0;
    const bool gaps = line % 3 == 2;
    std::vector<SKesp3DPosition> p(kPoints);
    for (int j = 0; j < kPoints; ++j) {
        const double y = j * kPitch;
        double z = 50.0 + 0.05 * line + 0.02 * y;
        const int cell = j % 120, kind = (j / 120 + line) % 4;
        const double u = (cell - 60) * kPitch;  // -6 .. 6 across the cell
        if (kind == 0 && cell >= 30 && cell < 90) z += 8.0;                // box: steps, right angles
        const double grooveDepth = 4.0 - 0.8 * (u < 0 ? -u : u);
        if (kind == 1 && grooveDepth > 0.0) z -= grooveDepth;            // V groove
        if (kind == 2 && u * u < 9.0) z -= std::sqrt(9.0 - u * u);        // round dip
        if (kind == 3 && u * u < 16.0) z += std::sqrt(16.0 - u * u) * 1.5;  // arc (glove)
        z += noise * rng.uniform(-1.0, 1.0);
        if (gaps && (j + 13 * line) % 97 < 3) z = 0.0;
        p[static_cast<size_t>(j)] = testutil::pt(line * 0.5, y, z, -1);
    }
    return p;
}

uint64_t detectorHash() {
    constexpr int kLines = 12;
    SHX_cornerParam corner;
    corner.maxGapY = 0.5;
    corner.jumpZ = 2.0;
    corner.armLen = 0.6;
    corner.minCornerAngle = 20.0;
    corner.armAngle1 = 30.0;
    corner.armAngle2 = 10.0;
    SHX_cornerParam jump = corner;
    jump.jumpZ = 3.0;
    jump.minCornerAngle = 30.0;
    jump.armAngle1 = 20.0;
    jump.armAngle2 = 45.0;
    const SHX_slopeParam slope{1.0, 1.0, 3.0, 0.5}, bars{1.0, 1.0, 3.0, 0.2};  // bars: runs cut at the gaps
    const SHX_VFeatureParam vParam{1.0, 1.5};
    const SHX_lineRightAngleParam flatWall{0.5, 0.5, 0.15}, longArms{1.0, 0.8, 0.3};
    const SHX_gloveArcParam glove{0.5, 1.0, 30.0};
    const cv::Mat labels(600, kLines, CV_32S, cv::Scalar(1));

    Hash h;
    for (int line = 0; line < kLines; ++line) {
        std::vector<SKesp3DPosition> pts = profile(line);
        const int32_t n = static_cast<int32_t>(pts.size());
        std::vector<SHX_basicFeature1D> a, b;
        hx_getLineLocalPeaks(pts.data(), n, line, 1.5, a, b);
        h.features(a);
        h.features(b);
        a.clear();
        hx_getLineDownJumps(pts.data(), n, line, 2.0, a);
        h.features(a);
        a.clear();
        hx_getFlatLineLocalPeaks_vector(pts, line, 1.5, 0.5, 1.0, a);
        h.features(a);
        SHX_lineFeature lv, corners, right;
        hx_getLineLVFeature(pts.data(), n, line, slope, vParam, &lv);
        hx_getLineCornerFeature(pts.data(), n, line, corner, &corners);
        hx_getLineRigthAngleFeature(pts.data(), n, line, flatWall, flatWall, longArms, longArms, &right);
        for (const SHX_lineFeature* f : {&lv, &corners, &right}) {
            h.features(f->features);
            h.features(f->endings);
        }
        a.clear();
        hx_getLineJumpFeature_cornerMethod(pts.data(), n, line, jump, a);
        h.features(a);
        a.clear();
        rk_getLineGloveArcs(pts, line, glove, a);
        h.features(a);
        std::vector<SHX_featureSemiCircle> semi;
        hx_getLineUpperSemiCircleFeature(pts.data(), n, line, 4.0, bars, semi, labels);
        h.num(static_cast<int64_t>(semi.size()));
        for (const auto& s : semi) {
            for (int32_t i : {s.featureType, s.lineIdx, s.startPtIdx, s.endPtIdx, s.peakPtIdx}) h.num(int64_t{i});
            for (double d : {s.x, s.y, s.z, s.width, s.topZ}) h.num(d);
        }
        for (const auto& p : pts) h.point(p);  // the point indices some detectors write
    }
    return h.h;
}

// Update on purpose only, with the reason in the commit message.
constexpr uint64_t kStoredHash = 0x580cfbae0f70e998ull;

TEST(SameBits, DetectorOutputsHashToTheStoredValueOnEveryTarget) {
    for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
        hwy::SetSupportedTargetsForTest(target);
        const uint64_t got = detectorHash();
        EXPECT_EQ(got, kStoredHash) << hwy::TargetName(target) << ": detector outputs hash to 0x" << std::hex << got;
    }
    hwy::SetSupportedTargetsForTest(0);
}

}  // namespace
