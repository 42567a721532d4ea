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

// The record's fields, the threshold and appending; candidates, plateaus, invalid
// points and short lines are pinned down by the comparison with the plain version.
TEST(GloveArcs, HandWorkedTent) {
    // Tent, chordLen 2: chords rise at 45 degrees before the apex and fall at
    // -45 from it on; over an arc of 3 the left maximum is A(8) = 45 and the
    // right minimum A(10) = -45.
    const double drop = deg(std::atan(1.0)) - deg(std::atan(-1.0));
    const auto found = arcs(tent(), arcParam(2.0, 3.0, 80.0));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].featurePos.nPointIdx, 10);
    EXPECT_DOUBLE_EQ(found[0].featureValue, drop);
    EXPECT_EQ(found[0].featureType, 13);
    EXPECT_EQ(found[0].lineIdx, 4);
    EXPECT_EQ(found[0].featurePos.x, 1.5);
    EXPECT_EQ(found[0].featurePos.z, 10.0);
    // The literal pi is a hair larger than pi: the drop falls just short of 90; >= counts.
    EXPECT_LT(drop, 90.0);
    EXPECT_TRUE(arcs(tent(), arcParam(2.0, 3.0, 90.0)).empty());
    EXPECT_EQ(arcs(tent(), arcParam(2.0, 3.0, drop)).size(), 1u);

    // Results are appended.
    std::vector<SHX_basicFeature1D> out(2);
    rk_getLineGloveArcs(tent(), 0, arcParam(2.0, 3.0, 80.0), out);
    EXPECT_EQ(out.size(), 3u);
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
            const int64_t k = rng.integer(0, 3);  // NaN y, NaN z, infinite z, infinite y
            (k == 0 || k == 3 ? p.y : p.z) =
                k < 2 ? std::numeric_limits<double>::quiet_NaN() : std::numeric_limits<double>::infinity();
        }
        v.push_back(p);
    }
    return v;
}

// The exported routine and, where asked, both kernels (portable and AVX2,
// whatever the processor picks) against the plain version.
void expectSameArcs(const std::vector<SKesp3DPosition>& v, SHX_gloveArcParam prm, int trial, bool kernels = false) {
    const auto want = plainGloveArcs(v, trial, prm);
    std::vector<std::vector<SHX_basicFeature1D>> got{arcs(v, prm, trial)};
    for (int useAvx2 = 0; kernels && useAvx2 <= (pa_detail::avx2KernelsUsable() ? 1 : 0); ++useAvx2) {
        got.emplace_back();
        pa_detail::glove_arcs::detect(v, trial, prm, got.back(), useAvx2 == 1);
    }
    for (const auto& g : got) {
        ASSERT_EQ(g.size(), want.size()) << "trial " << trial << " chord " << prm.chordLen;
        for (size_t i = 0; i < g.size(); ++i) {
            EXPECT_EQ(g[i].featurePos.nPointIdx, want[i].featurePos.nPointIdx) << "trial " << trial;
            EXPECT_EQ(g[i].featurePos.y, want[i].featurePos.y) << "trial " << trial;
            EXPECT_EQ(g[i].featureValue, want[i].featureValue) << "trial " << trial;  // identical, not close
        }
    }
}

}  // namespace

TEST(GloveArcs, MatchesPlainDefinition) {
    testutil::Rng rng(2024);
    // Wavy lines with repeated y (vertical chords), plateaus and invalid points.
    for (int trial = 0; trial < 400; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 120));
        std::vector<SKesp3DPosition> v;
        double y = 0;
        for (int i = 0; i < n; ++i) {
            y += rng.integer(0, 4) == 0 ? 0.0 : rng.uniform(0.05, 0.4);
            double z = 10 + 3 * std::sin(y * rng.uniform(0.5, 2.0)) + rng.uniform(-0.3, 0.3);
            if (rng.integer(0, 9) == 0) z = 0.0;
            if (rng.integer(0, 15) == 0 && i > 0) z = v.back().z;
            v.push_back(pt(i, y, z, -1));
        }
        expectSameArcs(v, arcParam(rng.uniform(0.0, 1.5), rng.uniform(0.0, 3.0), rng.uniform(-10.0, 120.0)), trial);
    }
    // Stress lines, chords from none at all to longer than the line (the search
    // ends on the first point tested, after many, or never on one side); with
    // every candidate reported the candidate test alone decides.
    const double chords[] = {0.0, 0.05, 0.3, 0.5, 1.0, 2.5, 6.0, 40.0, 1e9, -1.0};
    for (int trial = 0; trial < 300; ++trial) {
        const auto v = stressProfile(rng, static_cast<int>(rng.integer(10, 400)), trial % 3 == 0);
        expectSameArcs(v, arcParam(chords[trial % 10], rng.uniform(0.0, 4.0), rng.uniform(-30.0, 120.0)), trial,
                       trial % 3 != 2);
        expectSameArcs(v, arcParam(chords[trial % 10], rng.uniform(0.0, 4.0), -1e9), trial);
    }
    // Even noisy floors (the benchmark's shape): the skip carries most of the
    // way, broken by walls that shorten it nearby.
    for (int trial = 0; trial < 60; ++trial) {
        std::vector<SKesp3DPosition> v;
        const double pitch = rng.uniform(0.02, 0.2);
        for (int i = 0; i < 500; ++i) {
            v.push_back(pt(0, i * pitch, 20.0 + rng.uniform(-0.005, 0.005) + (i % 97 > 60 ? 5.0 : 0.0), -1));
            if (i % 97 == 60)
                for (int k = 1; k < 5; ++k) v.push_back(pt(0, i * pitch, 20.0 + k, -1));
        }
        expectSameArcs(v, arcParam(rng.uniform(0.1, 1.5), rng.uniform(0.2, 2.0), rng.uniform(-5.0, 40.0)), trial, true);
    }
    // Odd parameters: NaN, infinite, negative and denormal.
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const SHX_gloveArcParam odd[] = {arcParam(nan, 1.0, 10.0), arcParam(inf, 1.0, -1e9), arcParam(0.5, nan, -1e9),
                                     arcParam(0.5, inf, -1e9), arcParam(0.5, 1.0, nan), arcParam(0.5, -1.0, -inf),
                                     arcParam(4.9e-324, 1.0, -1e9)};
    for (int trial = 0; trial < 40; ++trial) {
        const auto v = stressProfile(rng, static_cast<int>(rng.integer(10, 200)), trial % 2 == 0);
        for (const auto& prm : odd) expectSameArcs(v, prm, trial, true);
    }
}
