// L/V feature detector: runs, steps, flanks, V shapes, arbitration and endings.
// Every profile below is worked out by hand; comments give the runs it makes.
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Found = std::vector<std::pair<int, int>>;  // (type, point index)

std::vector<SKesp3DPosition> profile(const std::vector<double>& z, double pitch, double y0 = 0.0) {
    auto pts = testutil::profileFromZ(z, pitch, 3.0);
    for (auto& p : pts) p.y += y0;
    return pts;
}

struct Params {
    double minRunHeight = 1.0;
    double jumpHeight = 3.0;
    double maxGapY = 2.0;
    double zTol = 1.0;
    double yTol = 2.0;
};

SHX_lineFeature run(const std::vector<SKesp3DPosition>& pts, const Params& p = Params(), int lineIdx = 7) {
    SHX_lineFeature lf;
    lf.lineIdx = -99;
    hx_getLineLVFeature(pts.data(), static_cast<int32_t>(pts.size()), lineIdx,
                        SHX_slopeParam{123.0, p.minRunHeight, p.jumpHeight, p.maxGapY}, SHX_VFeatureParam{p.zTol, p.yTol},
                        &lf);
    return lf;
}

Found typesAt(const std::vector<SHX_basicFeature1D>& v) {
    Found out;
    for (const auto& f : v) out.emplace_back(f.featureType, static_cast<int>(f.featurePos.nPointIdx));
    return out;
}

Found features(const std::vector<double>& z, double pitch = 0.5, const Params& p = Params()) {
    return typesAt(run(profile(z, pitch), p).features);
}

// z, then `pre`, then values from the last one towards `to` in steps of
// `step` (to included), then `post`.
std::vector<double> then(std::vector<double> z, std::vector<double> pre, double to, double step,
                         std::vector<double> post) {
    z.insert(z.end(), pre.begin(), pre.end());
    const double from = z.back();
    const int n = static_cast<int>(std::lround(std::fabs(to - from) / step));
    for (int k = 1; k <= n; ++k) z.push_back(from + (to - from) * k / n);
    z.insert(z.end(), post.begin(), post.end());
    return z;
}

// Rising sides: gentle, 10, 10, 11, ..., 20 (top at 11); with a far step, 10, 10,
// 16 (step at 1..2), then +0.25 to 20 at 18; with a step just below the top at
// 5..6; a steep flank 10, 12.5, ..., 20 (top at 5).
const std::vector<double> kGentleRise = then({10, 10}, {}, 20, 1, {});
const std::vector<double> kFarStepRise = then({10, 10, 16}, {}, 20, 0.25, {});
const std::vector<double> kNearStepRise{10, 10, 11, 12, 13, 14, 20}, kFlankRise{10, 10, 12.5, 15, 17.5, 20};
// Falling sides after a top of 20: gentle; steps of -0.5, then a drop of 6; a drop
// of 6 first; a steep flank of steps 2.5, below the jump height.
using Z = std::vector<double>;
Z gentleFall(const Z& z) { return then(z, {}, 10, 1, {10}); }
Z farStepFall(const Z& z) { return then(z, {}, 14, 0.5, {8, 8}); }
Z nearStepFall(const Z& z) { return then(z, {14}, 10, 1, {10}); }
Z flankFall(const Z& z) { return then(z, {}, 10, 2.5, {10}); }

// ---- A plain version of the detector without V shapes, written straight from
// the rules with a trend state and linear searches, for random comparisons ----

struct PlainRun { bool rising; int start, end, stepStart, stepEnd; };
struct PlainResult { Found features, endings; };

PlainResult plainStepsAndFlanks(const std::vector<SKesp3DPosition>& p, const Params& prm) {
    PlainResult out;
    const int n = static_cast<int>(p.size());
    auto valid = [&](int i) { return p[static_cast<size_t>(i)].z >= 0.0001; };
    auto z = [&](int i) { return p[static_cast<size_t>(i)].z; };
    auto y = [&](int i) { return p[static_cast<size_t>(i)].y; };
    std::vector<PlainRun> runs;
    std::vector<std::pair<int, int>> segs;
    enum { None, Falling, Rising } trend = None;
    PlainRun cur{};
    int prev = -1, segStart = -1;
    bool gap = false;
    auto keep = [&](const PlainRun& r) {
        if ((r.rising ? z(r.end) - z(r.start) : z(r.start) - z(r.end)) >= prm.minRunHeight) runs.push_back(r);
    };
    for (int i = 0; i < n; ++i) {
        if (!valid(i)) {
            gap = true;
            if (i == n - 1 && segStart >= 0) segs.emplace_back(segStart, prev);
            continue;
        }
        if (prev < 0) {
            segStart = prev = i;
            gap = false;
            continue;
        }
        if (i == n - 1) {
            segs.emplace_back(segStart, i);
        } else if (gap && std::fabs(y(i) - y(prev)) > prm.maxGapY) {
            segs.emplace_back(segStart, prev);
            segStart = i;
        }
        gap = false;
        const double d = z(i) - z(prev);
        if (trend == None) {
            if (d > 0) cur = PlainRun{true, prev, i, prev, i}, trend = Rising;
            if (d < 0) cur = PlainRun{false, prev, i, prev, i}, trend = Falling;
        } else if (trend == Falling && d <= 0) {
            cur.end = i;
            if (-d > z(cur.stepStart) - z(cur.stepEnd)) cur.stepStart = prev, cur.stepEnd = i;
        } else if (trend == Rising && d >= 0) {
            cur.end = i;
            if (d > z(cur.stepEnd) - z(cur.stepStart)) cur.stepStart = prev, cur.stepEnd = i;
        } else {
            keep(cur);
            cur = PlainRun{d > 0, prev, i, prev, i};
            trend = d > 0 ? Rising : Falling;
        }
        prev = i;
    }
    if (trend != None && (runs.empty() || runs.back().start != cur.start)) keep(cur);

    std::vector<std::pair<int, int>> feats;  // (type, index)
    for (const PlainRun& r : runs) {
        const double S = z(r.stepEnd) - z(r.stepStart), H = z(r.end) - z(r.start);
        if (std::fabs(S) > prm.jumpHeight) {
            feats.emplace_back(S > 0 ? 1 : 2, S > 0 ? r.stepStart : r.stepEnd);
        } else if (std::fabs(H) > prm.jumpHeight) {
            // The step's array neighbours, measured or not; the step's own ends at the array's ends.
            const int a = r.stepStart > 0 ? r.stepStart - 1 : r.stepStart;
            const int b = r.stepEnd < n - 1 ? r.stepEnd + 1 : r.stepEnd;
            if (!(std::fabs((z(a) - z(b)) / (y(a) - y(b))) > 2.0)) continue;
            const int hi = r.rising ? r.end : r.start;
            bool far = true;
            for (const auto& sg : segs)
                if (std::abs(hi - sg.first) <= 2 || std::abs(hi - sg.second) <= 2) far = false;
            if (far) feats.emplace_back(r.rising ? 3 : 4, r.rising ? r.stepEnd : r.stepStart);
        }
    }
    // A step near the next one of its type gives way to it.
    for (int j = static_cast<int>(feats.size()) - 2; j >= 0; --j) {
        const auto &a = feats[static_cast<size_t>(j)], &b = feats[static_cast<size_t>(j) + 1];
        if (a.first == b.first && (a.first == 1 || a.first == 2) && std::fabs(y(a.second) - y(b.second)) < 20.0)
            feats.erase(feats.begin() + j);
    }
    out.features = feats;
    for (const auto& sg : segs) {
        out.endings.emplace_back(6, sg.first);
        out.endings.emplace_back(7, sg.second);
    }
    return out;
}

}  // namespace

TEST(LVFeature, TooFewPointsOrNullGiveNothing) {
    SHX_lineFeature lf;
    const auto one = profile({10}, 1.0);
    const SHX_slopeParam sp{0, 1, 3, 2};
    hx_getLineLVFeature(one.data(), 1, 0, sp, SHX_VFeatureParam{1, 2}, &lf);
    hx_getLineLVFeature(one.data(), -4, 0, sp, SHX_VFeatureParam{1, 2}, &lf);
    hx_getLineLVFeature(nullptr, 5, 0, sp, SHX_VFeatureParam{1, 2}, &lf);
    hx_getLineLVFeature(one.data(), 1, 0, sp, SHX_VFeatureParam{1, 2}, nullptr);
    EXPECT_TRUE(lf.features.empty());
    EXPECT_TRUE(lf.endings.empty());
}

TEST(LVFeature, StepsSegmentsAndOddHeights) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    // A step of exactly jumpHeight is no step; the run is not steep enough to be a flank.
    EXPECT_EQ(features({10, 10, 10, 13, 13, 13}, 10.0), Found{});
    // z exactly 0.0001 is a measurement, 0.00009 is not.
    EXPECT_EQ(typesAt(run(profile({0, 10, 10, 0.00009, 0}, 1.0)).endings), (Found{{6, 1}, {7, 2}}));
    EXPECT_EQ(typesAt(run(profile({0.0001, 10, 0}, 1.0)).endings), (Found{{6, 0}, {7, 1}}));
    // A NaN height is no measurement; infinite heights do not crash.
    EXPECT_EQ(typesAt(run(profile({10, nan, 10}, 1.0)).endings), (Found{{6, 0}, {7, 2}}));
    run(profile({10, inf, 10, inf, inf, -inf, 20, 5}, 1.0));
}

TEST(LVFeature, PlainVAtItsDeepestPointWithSegmentEnds) {
    // Rising 10..20 over indices 1..11, falling back over 11..22.
    const auto pts = profile(gentleFall(kGentleRise), 0.5);
    const SHX_lineFeature lf = run(pts, Params(), 42);
    EXPECT_EQ(typesAt(lf.features), (Found{{5, 11}}));
    EXPECT_EQ(typesAt(lf.endings), (Found{{6, 0}, {7, 22}}));
    const SHX_basicFeature1D& v = lf.features[0];
    EXPECT_EQ(v.lineIdx, 42);
    EXPECT_EQ(v.featureValue, 0.0);
    EXPECT_EQ(v.featurePos.x, pts[11].x);
    EXPECT_EQ(v.featurePos.y, pts[11].y);
    EXPECT_EQ(v.featurePos.z, 20.0);
    EXPECT_EQ(lf.endings[1].lineIdx, 42);
    EXPECT_EQ(lf.lineIdx, -99);  // the record's own line index is the caller's
}

TEST(LVFeature, FlankSteepnessUsesArrayNeighboursEvenWhenInvalid) {
    // A measured profile whose falling side runs into a shadow (y 76.5, 77.5, ...).
    // Rising run 3..7 with its step 5 -> 6 (56.75 > 5.5): a type 1 at 5, upper end
    // 1.0 from the V at 7. Falling run 7..13, largest step 12 -> 13 (2.75): its
    // neighbours are 11 (146) and 14 (0, invalid), |146 / -3| > 2, so a type 4 at
    // 12, 5.0 from the V. Both near, |90.75 - 142| >= 40: the deeper (12) as type 3.
    // Taking 13 itself instead of the invalid 14 gives |4 / -2| = 2: no flank, a type 1.
    std::vector<SKesp3DPosition> pts = profile({91, 91.5, 91.5, 90.75, 91.5, 94, 150.75, 153, 151, 150.5, 148.5,
                                                146, 144.75, 142, 0, 0, 0.00005},
                                               1.0, 76.5);
    for (auto& q : pts) q.x = -5.75;
    const SHX_lineFeature lf = run(pts, Params{4.8122742776944847, 5.5, 0.82290904876223214, 5.762493233234312,
                                               9.1800191223898437});
    EXPECT_EQ(typesAt(lf.features), (Found{{3, 12}}));
    EXPECT_EQ(typesAt(lf.endings), (Found{{6, 0}, {7, 13}}));
    // Before the step likewise: the invalid point 0 enters with z 0, |(0 - 14) / (0 - 3)| > 2,
    // where the step's own point 1 would give |(10 - 14) / (1 - 3)| = 2, no flank.
    Params p;
    p.yTol = 0.0;
    EXPECT_EQ(features({0, 10, 12, 14, 16, 18, 17.5, 17.5, 17.5, 17.5}, 1.0, p), (Found{{3, 2}}));
}

// ---- Arbitration between a V and the candidates of its sides, and the V check ----

TEST(LVFeature, ArbitrationAndVCheck) {
    struct Case {
        std::vector<double> z;
        Found want;
        Params p;
        double pitch, y0;
    };
    const Params d, jump20{1, 20, 2, 1, 2};
    const Case cases[] = {
        // No candidate on either side: the V at its deepest point.
        {gentleFall(kGentleRise), {{5, 11}}, d, 0.5, 0},
        // Falling side only: a far step (upper end 6.0 along y from the V) stays beside the V,
        {farStepFall(kGentleRise), {{5, 11}, {2, 24}}, d, 0.5, 0},
        // a near step wins over the V, a near flank of a shallow V is the V's own side,
        {nearStepFall(kGentleRise), {{2, 12}}, d, 0.5, 0},
        {flankFall(kGentleRise), {{5, 11}}, d, 0.5, 0},
        // and the same near flank wins when the V changes depth by 40 or more (50 - 10), not 39.5.
        {then({50, 50}, {}, 60, 1, {45, 30, 15, 10, 10}), {{4, 11}}, jump20, 0.5, 0},
        {then({50, 50}, {}, 60, 1, {45, 30, 15, 10.5, 10.5}), {{5, 11}}, jump20, 0.5, 0},
        // Rising side only: a far step (8.0 from the V at 18), a near step, a near flank (1.5 away),
        {gentleFall(kFarStepRise), {{1, 1}, {5, 18}}, d, 0.5, 0},
        {then(kNearStepRise, {19.8}, 10.8, 1, {10.8}), {{1, 5}}, d, 0.5, 0},  // 19.8: first fall not steep
        {gentleFall(kFlankRise), {{5, 5}}, d, 0.5, 0},
        // and a deep rising flank 10 -> 100 in steps of 15 with the falling side ending at 60.
        {then({10, 10, 25, 40, 55, 70, 85, 100, 99.8}, {}, 60.3, 0.5, {60.3}), {{3, 2}}, jump20, 0.5, 0},
        // Candidates on both sides: each far one stays, a near step wins, a near flank gives way.
        {farStepFall(kFarStepRise), {{1, 1}, {5, 18}, {2, 31}}, d, 0.5, 0},
        {nearStepFall(kFarStepRise), {{1, 1}, {2, 19}}, d, 0.5, 0},
        {flankFall(kFarStepRise), {{1, 1}, {5, 18}}, d, 0.5, 0},
        {farStepFall(kNearStepRise), {{1, 5}, {2, 19}}, d, 0.5, 0},
        {farStepFall(kFlankRise), {{5, 5}, {2, 18}}, d, 0.5, 0},
        {nearStepFall(kNearStepRise), {{5, 6}}, d, 0.5, 0},  // both near, shallow: the V
        // Both near and deep: the deeper, retyped by the sign of the depth change. Steps at 5
        // (z 55) and 7 (z 54), change 50 - 10 > 0: A as type 4; equal depths: B.
        {then({50, 50, 51, 52, 53, 55, 60, 54}, {}, 10, 4, {10}), {{4, 5}}, d, 0.5, 0},
        {then({50, 50, 51, 52, 53, 54, 60, 54}, {}, 10, 4, {10}), {{4, 7}}, d, 0.5, 0},
        // Steps at 12 (z 54) and 14 (z 55), change 10 - 54.5 < 0: B as type 3.
        {then({10, 10, 14}, {}, 54, 4, {60, 55, 54.5, 54.5}), {{3, 14}}, d, 0.5, 0},
        // V check, equal tops: widths compared half of zTol below the top (18 at y 7
        // and 9, 16 at y 6 and 10): width 2 passes yTol 3, not yTol 2.
        {{10, 11, 12, 13, 14, 15, 16, 18, 20, 18, 16, 14, 12, 10, 10}, {{5, 8}}, {1, 100, 2, 4, 3}, 1, 0},
        {{10, 11, 12, 13, 14, 15, 16, 18, 20, 18, 16, 14, 12, 10, 10}, {}, {1, 100, 2, 4, 2}, 1, 0},
        // Deeper falling top (20.4 at 5 after a wobble): the full zTol below it, at 16.4
        // the sides are 6 apart (at 18.4 they would be 4); the V at the deeper top.
        {{10, 16.4, 18.4, 20, 19.6, 20.4, 18.4, 16.4, 10, 10}, {}, {1, 100, 2, 4, 5}, 1, 0},
        {{10, 16.4, 18.4, 20, 19.6, 20.4, 18.4, 16.4, 10, 10}, {{5, 5}}, {1, 100, 2, 4, 7}, 1, 0},
        // Tops farther apart than zTol: y compared at the falling top's height. Falling
        // top deeper (20.3 at 12), its nearest point to 20 itself: |20 - 20.3| with y0 8,
        {then(then({10}, {}, 20, 1, {19.5, 20.3}), {}, 10.3, 1, {}), {{5, 12}}, {1, 100, 2, 0.1, 1}, 1, 8},
        {then(then({10}, {}, 20, 1, {19.5, 20.3}), {}, 10.3, 1, {}), {}, {1, 100, 2, 0.1, 1}, 1, 0},
        // rising top deeper (20.3 at 10), its nearest point to the falling top 20 is 10.
        {then(then({10.3}, {}, 20.3, 1, {19.5, 20}), {}, 10, 1, {}), {{5, 10}}, {1, 100, 2, 0.1, 1}, 1, 10},
        {then(then({10.3}, {}, 20.3, 1, {19.5, 20}), {}, 10, 1, {}), {}, {1, 100, 2, 0.1, 1}, 1, 0},
    };
    for (size_t k = 0; k < sizeof cases / sizeof *cases; ++k) {
        const Case& c = cases[k];
        EXPECT_EQ(typesAt(run(profile(c.z, c.pitch, c.y0), c.p).features), c.want) << "case " << k;
    }
}

// ---- Merging of near steps ----

TEST(LVFeature, StepsAlreadyInTheRecordAreNotMerged) {
    // The record's own step (y -5) is 6 from the new one: near, but left alone.
    SHX_lineFeature lf;
    SHX_basicFeature1D old;
    old.featureType = 1;
    old.featurePos.y = -5.0;
    lf.features.push_back(old);
    const auto pts = profile({10, 10, 16, 16}, 1.0);
    hx_getLineLVFeature(pts.data(), 4, 0, SHX_slopeParam{0, 1, 3, 2}, SHX_VFeatureParam{0, 0}, &lf);
    EXPECT_EQ(typesAt(lf.features), (Found{{1, 0}, {1, 1}}));
}

TEST(LVFeature, MatchesPlainVersionWithoutVShapesOnRandomProfiles) {
    // yTol 0 rules out every V, so steps, flanks, merging and segments are all
    // that is left, and the plain version above covers them.
    testutil::Rng rng(2024);
    int withFeatures = 0;
    for (int trial = 0; trial < 2000; ++trial) {
        const int n = static_cast<int>(rng.integer(2, 200));
        std::vector<double> z(static_cast<size_t>(n));
        double level = rng.uniform(5, 50);
        for (auto& v : z) {
            const int kind = static_cast<int>(rng.integer(0, 9));
            if (kind == 0) level += rng.uniform(-8, 8);                    // a step
            else if (kind < 4) level += rng.uniform(-2, 2);                // a slope
            else if (kind == 4) level += 0.0;                              // a plateau point
            else level += rng.uniform(-0.05, 0.05);                        // noise
            v = rng.integer(0, 12) == 0 ? 0.0 : std::max(level, 0.001);   // a few missing points
        }
        Params p;
        p.minRunHeight = rng.uniform(0.0, 3.0);
        p.jumpHeight = rng.uniform(1.0, 6.0);
        p.maxGapY = rng.uniform(0.0, 4.0);
        p.yTol = 0.0;
        const auto pts = profile(z, rng.uniform(0.2, 3.0));
        const SHX_lineFeature lf = run(pts, p);
        const PlainResult want = plainStepsAndFlanks(pts, p);
        ASSERT_EQ(typesAt(lf.features), want.features) << "trial " << trial;
        ASSERT_EQ(typesAt(lf.endings), want.endings) << "trial " << trial;
        withFeatures += !want.features.empty();
    }
    EXPECT_GT(withFeatures, 1000);  // the comparison is not vacuous
}
