// Glove arcs on hand-built profiles.
#include <cmath>

#include <gtest/gtest.h>

#include "../../src/features/glove_arcs_kernel.h"
#include "test_util.h"

using testutil::pt;

namespace {

// Angles in degrees as the detector defines them (pi as 3.141592654).
double deg(double radians) { return radians * 180.0 / 3.141592654; }

SHX_gloveArcParam arcParam(double chord, double arc, double minAngle) {
    SHX_gloveArcParam p;
    p.chordLen = chord;
    p.searchArcLen = arc;
    p.minArcAngle = minAngle;
    return p;
}

std::vector<SHX_basicFeature1D> arcs(const std::vector<SKesp3DPosition>& v, SHX_gloveArcParam p, int lineIdx = 4) {
    std::vector<SHX_basicFeature1D> out;
    rk_getLineGloveArcs(v, lineIdx, p, out);
    return out;
}

// A tent: y = i, z = 10 - |i - 10| for i = 0..20; the apex at index 10.
std::vector<SKesp3DPosition> tent() {
    std::vector<SKesp3DPosition> v;
    for (int i = 0; i <= 20; ++i) v.push_back(pt(1.5, i, 10 - std::abs(i - 10), 100 + i));
    return v;
}

}  // namespace

TEST(GloveArcs, TentApexDropsByTwiceFortyFive) {
    // chordLen 2: the chord end is two points away. Before the apex the
    // chords rise at 45 degrees, from the apex on they fall at -45; over an
    // arc of 3 the left maximum is A(8) = 45 and the right minimum A(10) = -45.
    const double drop = deg(std::atan(1.0)) - deg(std::atan(-1.0));
    const auto found = arcs(tent(), arcParam(2.0, 3.0, 80.0));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].featureType, 13);
    EXPECT_EQ(found[0].lineIdx, 4);
    EXPECT_EQ(found[0].featurePos.nPointIdx, 10);
    EXPECT_EQ(found[0].featurePos.x, 1.5);
    EXPECT_EQ(found[0].featurePos.z, 10.0);
    EXPECT_DOUBLE_EQ(found[0].featureValue, drop);
    // The literal pi is a hair larger than pi: the drop falls just short of 90.
    EXPECT_LT(drop, 90.0);
    EXPECT_TRUE(arcs(tent(), arcParam(2.0, 3.0, 90.0)).empty());
    EXPECT_TRUE(arcs(tent(), arcParam(2.0, 3.0, drop)).size() == 1u);  // >= counts
}

TEST(GloveArcs, LeftMaximumStartsAtZero) {
    // k = 5 is the only candidate; the only angle left of it within the arc,
    // A(4) = atan(-1.5), is negative, so L stays 0 and the drop is -A(5).
    const std::vector<double> z{1, 2, 3, 4, 5, 6, 2, 1.5, 1, 0.5, 0.3};
    const auto v = testutil::profileFromZ(z);
    const auto found = arcs(v, arcParam(3.0, 1.0, 50.0));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].featurePos.nPointIdx, 5);
    EXPECT_DOUBLE_EQ(found[0].featureValue, 0.0 - deg(std::atan(-4.0)));
}

TEST(GloveArcs, FewerThanTenPointsGiveNothing) {
    const std::vector<double> z{1, 2, 3, 4, 5, 6, 2, 1.5, 1, 0.5, 0.3};
    std::vector<double> nine(z.begin(), z.begin() + 9), ten(z.begin(), z.begin() + 10);
    EXPECT_TRUE(arcs(testutil::profileFromZ(nine), arcParam(3.0, 1.0, 50.0)).empty());
    EXPECT_EQ(arcs(testutil::profileFromZ(ten), arcParam(3.0, 1.0, 50.0)).size(), 1u);
    // Ten points, but with invalid ones among them, still go through.
    auto withGaps = testutil::profileFromZ(ten);
    withGaps[0].z = 0.0;
    EXPECT_EQ(arcs(withGaps, arcParam(3.0, 1.0, 50.0)).size(), 1u);
}

TEST(GloveArcs, CandidatesAndPlateaus) {
    // With a threshold no drop can miss, every candidate is reported.
    const SHX_gloveArcParam all = arcParam(1.5, 2.0, -1e9);
    // Of two equal highest points only the first survives (>= behind, > ahead).
    const auto plateau = testutil::profileFromZ({1, 2, 3, 4, 6, 6, 3, 2, 1, 0.5, 0.3});
    const auto found = arcs(plateau, all);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].featurePos.nPointIdx, 4);

    // A steadily falling line: only its first point is a candidate (nothing
    // behind it; nothing ahead rises above it). Its own angle is 0 (no
    // backward chord end), the next angle -45 lies within the arc.
    std::vector<double> falling;
    for (int i = 0; i < 12; ++i) falling.push_back(20 - i);
    const auto f2 = arcs(testutil::profileFromZ(falling), arcParam(1.0, 5.0, -1e9));
    ASSERT_EQ(f2.size(), 1u);
    EXPECT_EQ(f2[0].featurePos.nPointIdx, 0);
    EXPECT_DOUBLE_EQ(f2[0].featureValue, 0.0 - deg(std::atan(-1.0)));
}

TEST(GloveArcs, ValidityIsStrictAndIndicesReferToTheInput) {
    auto v = tent();
    // Insert invalid points before the apex: z = 0 and z = 0.0001 (not valid here).
    v.insert(v.begin() + 3, pt(0, 2.5, 0.0001));
    v.insert(v.begin() + 3, pt(0, 2.4, 0.0));
    const auto found = arcs(v, arcParam(2.0, 3.0, 80.0));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].featurePos.nPointIdx, 12);  // the apex moved two places on
    EXPECT_EQ(found[0].featurePos.z, 10.0);

    std::vector<SKesp3DPosition> none(12, pt(0, 0, 0.0));
    EXPECT_TRUE(arcs(none, arcParam(2.0, 3.0, -1e9)).empty());
}

TEST(GloveArcs, AppendsAndSurvivesDegenerateGeometry) {
    std::vector<SHX_basicFeature1D> out(2);
    rk_getLineGloveArcs(tent(), 0, arcParam(2.0, 3.0, 80.0), out);
    EXPECT_EQ(out.size(), 3u);

    // Vertical chords (all y equal) give +-90 degree angles, not a crash.
    std::vector<SKesp3DPosition> wall;
    for (int i = 0; i < 12; ++i) wall.push_back(pt(0, 0, 1 + (i < 6 ? i : 11 - i)));
    const auto w = arcs(wall, arcParam(1.0, 2.0, -1e9));
    for (const auto& f : w) EXPECT_FALSE(std::isnan(f.featureValue));

    auto nanLine = tent();
    nanLine[7].z = std::numeric_limits<double>::quiet_NaN();
    arcs(nanLine, arcParam(2.0, 3.0, 0.0));
    arcs(tent(), arcParam(std::numeric_limits<double>::quiet_NaN(), 3.0, 0.0));
}

namespace {

// The detector written plainly from its definition: every valid point's
// angle and step up front, full searches, no shortcuts.
std::vector<SHX_basicFeature1D> plainGloveArcs(const std::vector<SKesp3DPosition>& in, int lineIdx,
                                               SHX_gloveArcParam prm) {
    std::vector<SHX_basicFeature1D> out;
    if (in.size() < 10) return out;
    std::vector<SKesp3DPosition> p;
    for (size_t i = 0; i < in.size(); ++i)
        if (in[i].z > 0.0001) {
            p.push_back(in[i]);
            p.back().nPointIdx = static_cast<int64_t>(i);
        }
    const int m = static_cast<int>(p.size());
    auto d = [&](int a, int b) { return std::sqrt((p[a].y - p[b].y) * (p[a].y - p[b].y) + (p[a].z - p[b].z) * (p[a].z - p[b].z)); };
    std::vector<double> A(m, 0.0), S(m, 0.0);
    std::vector<int> cand;
    for (int i = 0; i + 1 < m; ++i) S[i] = d(i, i + 1);
    for (int i = 0; i < m; ++i) {
        bool c = true;
        int b = -1, f = -1;
        for (int j = i - 1; j >= 0; --j) {
            if (p[j].z >= p[i].z) c = false;
            if (d(i, j) >= prm.chordLen) { b = j; break; }
        }
        for (int j = i + 1; j < m; ++j) {
            if (p[j].z > p[i].z) c = false;
            if (d(i, j) >= prm.chordLen) { f = j; break; }
        }
        if (c) cand.push_back(i);
        if (b >= 0 && f >= 0) A[i] = std::atan((p[f].z - p[i].z) / std::fabs(p[f].y - p[i].y)) * 180.0 / 3.141592654;
    }
    for (int k : cand) {
        double L = 0.0, w = 0.0;
        for (int j = k - 1; j >= 0; --j) {
            if (A[j] > L) L = A[j];
            w += S[j];
            if (w >= prm.searchArcLen) break;
        }
        double R = A[k];
        w = S[k];
        for (int j = k + 1; j < m; ++j) {
            w += S[j];
            if (w >= prm.searchArcLen) break;
            if (A[j] < R) R = A[j];
        }
        if (L - R >= prm.minArcAngle) {
            SHX_basicFeature1D f;
            f.featureType = 13;
            f.lineIdx = lineIdx;
            f.featurePos = p[k];
            f.featureValue = L - R;
            out.push_back(f);
        }
    }
    return out;
}

}  // namespace

TEST(GloveArcs, MatchesPlainDefinitionOnRandomProfiles) {
    testutil::Rng rng(2024);
    for (int trial = 0; trial < 400; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 120));
        std::vector<SKesp3DPosition> v;
        double y = 0;
        for (int i = 0; i < n; ++i) {
            y += rng.integer(0, 4) == 0 ? 0.0 : rng.uniform(0.05, 0.4);  // repeated y: vertical chords
            double z = 10 + 3 * std::sin(y * rng.uniform(0.5, 2.0)) + rng.uniform(-0.3, 0.3);
            if (rng.integer(0, 9) == 0) z = 0.0;
            if (rng.integer(0, 15) == 0 && i > 0) z = v.back().z;  // plateaus
            v.push_back(pt(i, y, z, -1));
        }
        const SHX_gloveArcParam prm = arcParam(rng.uniform(0.0, 1.5), rng.uniform(0.0, 3.0), rng.uniform(-10.0, 120.0));
        const auto want = plainGloveArcs(v, trial, prm);
        const auto got = arcs(v, prm, trial);
        ASSERT_EQ(got.size(), want.size()) << "trial " << trial;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].featurePos.nPointIdx, want[i].featurePos.nPointIdx);
            EXPECT_EQ(got[i].featurePos.y, want[i].featurePos.y);
            // Identical, not merely close.
            EXPECT_EQ(got[i].featureValue, want[i].featureValue) << "trial " << trial;
        }
    }
}

namespace {

// Stress profiles for the chord-end search: long lines (the points are
// searched in groups of four and skip ahead by the local step size), with
// duplicate points, vertical walls, plateaus of equal z, sparse stretches,
// invalid points and, on request, NaN and infinite coordinates.
std::vector<SKesp3DPosition> stressProfile(testutil::Rng& rng, int n, bool oddValues) {
    std::vector<SKesp3DPosition> v;
    double y = rng.uniform(-5.0, 5.0), z = 10.0;
    for (int i = 0; i < n; ++i) {
        switch (rng.integer(0, 9)) {
            case 0: break;                                      // duplicate of the previous point
            case 1: z += rng.uniform(-1.5, 1.5); break;         // vertical wall
            case 2: y += rng.uniform(0.05, 0.15); break;        // plateau of equal z
            case 3: y += rng.uniform(0.5, 3.0); break;          // sparse stretch
            default:
                y += rng.uniform(0.05, 0.15);
                z += rng.uniform(-0.02, 0.02);
        }
        double zi = z;
        if (rng.integer(0, 19) == 0) zi = rng.integer(0, 1) ? 0.0 : 0.0001;  // invalid
        SKesp3DPosition p = pt(i, y, zi, -1);
        if (oddValues && rng.integer(0, 29) == 0) {
            switch (rng.integer(0, 3)) {
                case 0: p.y = std::numeric_limits<double>::quiet_NaN(); break;
                case 1: p.z = std::numeric_limits<double>::quiet_NaN(); break;
                case 2: p.z = std::numeric_limits<double>::infinity(); break;
                default: p.y = std::numeric_limits<double>::infinity(); break;
            }
        }
        v.push_back(p);
    }
    return v;
}

void expectSameArcs(const std::vector<SKesp3DPosition>& v, SHX_gloveArcParam prm, int trial) {
    const auto want = plainGloveArcs(v, trial, prm);
    const auto got = arcs(v, prm, trial);
    ASSERT_EQ(got.size(), want.size()) << "trial " << trial << " chord " << prm.chordLen;
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].featurePos.nPointIdx, want[i].featurePos.nPointIdx) << "trial " << trial;
        EXPECT_EQ(got[i].featureValue, want[i].featureValue) << "trial " << trial;
    }
}

}  // namespace

TEST(GloveArcs, MatchesPlainDefinitionOnStressProfiles) {
    testutil::Rng rng(77);
    // Chords from none at all to longer than the line, so that the search
    // ends on the first point tested, after many, or never on one side.
    const double chords[] = {0.0, 0.05, 0.3, 0.5, 1.0, 2.5, 6.0, 40.0, 1e9, -1.0};
    for (int trial = 0; trial < 300; ++trial) {
        const int n = static_cast<int>(rng.integer(10, 400));
        const auto v = stressProfile(rng, n, trial % 3 == 0);
        const double chord = chords[trial % 10];
        expectSameArcs(v, arcParam(chord, rng.uniform(0.0, 4.0), rng.uniform(-30.0, 120.0)), trial);
        // Every candidate reported: the candidate test alone decides.
        expectSameArcs(v, arcParam(chord, rng.uniform(0.0, 4.0), -1e9), trial);
    }
}

TEST(GloveArcs, MatchesPlainDefinitionOnEvenNoisyFloors) {
    // The benchmark's shape: an even pitch with noise, where the chord end is
    // the fifth or sixth point and the skip carries most of the way, broken
    // by walls that shorten the skip nearby.
    testutil::Rng rng(5);
    for (int trial = 0; trial < 60; ++trial) {
        std::vector<SKesp3DPosition> v;
        const double pitch = rng.uniform(0.02, 0.2);
        for (int i = 0; i < 500; ++i) {
            double z = 20.0 + rng.uniform(-0.005, 0.005);
            if (i % 97 > 60) z += 5.0;
            v.push_back(pt(0, i * pitch, z, -1));
            if (i % 97 == 60)
                for (int k = 1; k < 5; ++k) v.push_back(pt(0, i * pitch, 20.0 + k, -1));
        }
        expectSameArcs(v, arcParam(rng.uniform(0.1, 1.5), rng.uniform(0.2, 2.0), rng.uniform(-5.0, 40.0)), trial);
    }
}

TEST(GloveArcs, OddParametersMatchThePlainDefinition) {
    testutil::Rng rng(9);
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const SHX_gloveArcParam odd[] = {arcParam(nan, 1.0, 10.0), arcParam(inf, 1.0, -1e9), arcParam(0.5, nan, -1e9),
                                     arcParam(0.5, inf, -1e9), arcParam(0.5, 1.0, nan), arcParam(0.5, -1.0, -inf),
                                     arcParam(4.9e-324, 1.0, -1e9)};
    for (int trial = 0; trial < 40; ++trial) {
        const auto v = stressProfile(rng, static_cast<int>(rng.integer(10, 200)), trial % 2 == 0);
        for (const auto& prm : odd) expectSameArcs(v, prm, trial);
    }
}

TEST(GloveArcs, PortableAndAvx2KernelsMatchThePlainDefinition) {
    // The exported routine takes the AVX2 kernels where the processor has
    // them; here both kernels run on the same lines, whatever the processor.
    testutil::Rng rng(31);
    const bool avx2 = pa_detail::avx2KernelsUsable();
    const double chords[] = {0.0, 0.3, 0.5, 2.5, 40.0, 1e9};
    for (int trial = 0; trial < 200; ++trial) {
        const auto v = stressProfile(rng, static_cast<int>(rng.integer(10, 300)), trial % 3 == 0);
        const SHX_gloveArcParam prm = arcParam(chords[trial % 6], rng.uniform(0.0, 4.0), rng.uniform(-30.0, 60.0));
        const auto want = plainGloveArcs(v, trial, prm);
        for (int useAvx2 = 0; useAvx2 <= (avx2 ? 1 : 0); ++useAvx2) {
            std::vector<SHX_basicFeature1D> got;
            pa_detail::glove_arcs::detect(v, trial, prm, got, useAvx2 == 1);
            ASSERT_EQ(got.size(), want.size()) << "trial " << trial << " avx2 " << useAvx2;
            for (size_t i = 0; i < got.size(); ++i) {
                EXPECT_EQ(got[i].featurePos.nPointIdx, want[i].featurePos.nPointIdx);
                EXPECT_EQ(got[i].featureValue, want[i].featureValue);
            }
        }
    }
}
