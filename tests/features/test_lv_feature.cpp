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

// Appends values from the last one towards `to` in steps of `step` (to included).
void ramp(std::vector<double>& z, double to, double step) {
    const double from = z.back();
    const int n = static_cast<int>(std::lround(std::fabs(to - from) / step));
    for (int k = 1; k <= n; ++k) z.push_back(from + (to - from) * k / n);
}

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

// Rising side without a step or flank: 10, 10, 11, ..., 20 (top at index 11).
std::vector<double> gentleRise() {
    std::vector<double> z{10, 10};
    ramp(z, 20, 1);
    return z;
}
// Rising side with a far step: 10, 10, 16 (step at 1..2), then +0.25 to 20 at index 18.
std::vector<double> farStepRise() {
    std::vector<double> z{10, 10, 16};
    ramp(z, 20, 0.25);
    return z;
}
// Rising side with a step just below the top: 10, 10, 11, ..., 14, 20 (top at index 6).
std::vector<double> nearStepRise() { return {10, 10, 11, 12, 13, 14, 20}; }
// Rising side that is a steep flank: 10, 10, 12.5, 15, 17.5, 20 (top at index 5).
std::vector<double> flankRise() { return {10, 10, 12.5, 15, 17.5, 20}; }

// Falling sides, appended after a top of 20.
void gentleFall(std::vector<double>& z) {
    ramp(z, 10, 1);
    z.push_back(10);
}
void farStepFall(std::vector<double>& z) {  // 12 points of -0.5, then a drop of 6
    ramp(z, 14, 0.5);
    z.push_back(8);
    z.push_back(8);
}
void nearStepFall(std::vector<double>& z) {  // a drop of 6 right after the top
    z.push_back(14);
    ramp(z, 10, 1);
    z.push_back(10);
}
void nearStepFallSoftTop(std::vector<double>& z) {  // 19.8 first, so the first step is not steep
    z.push_back(19.8);
    ramp(z, 10.8, 1);
    z.push_back(10.8);
}
void flankFall(std::vector<double>& z) {  // steps of 2.5: steep but below the jump height
    ramp(z, 10, 2.5);
    z.push_back(10);
}

// ---- A plain version of the detector without V shapes, written straight from
// the rules with a trend state and linear searches, for random comparisons ----

struct PlainRun {
    bool rising;
    int start, end, stepStart, stepEnd;
};

struct PlainResult {
    Found features;
    Found endings;
};

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
    for (int j = static_cast<int>(feats.size()) - 2; j >= 0; --j) {
        const auto& a = feats[static_cast<size_t>(j)];
        const auto& b = feats[static_cast<size_t>(j) + 1];
        if (a.first == b.first && (a.first == 1 || a.first == 2) && std::fabs(y(a.second) - y(b.second)) < 20.0) {
            feats[static_cast<size_t>(j)] = b;
            feats.erase(feats.begin() + j + 1);
        }
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

TEST(LVFeature, PlainVAtItsDeepestPointWithSegmentEnds) {
    // Rising 10..20 over indices 1..11, falling back over 11..22.
    auto z = gentleRise();
    gentleFall(z);
    const auto pts = profile(z, 0.5);
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

TEST(LVFeature, SingleStepAtItsLowerPoint) {
    EXPECT_EQ(features({10, 10, 10, 16, 16, 16}), (Found{{1, 2}}));
    EXPECT_EQ(features({16, 16, 16, 10, 10, 10}), (Found{{2, 3}}));
    // A step of exactly jumpHeight is no step; the run is not steep enough to be a flank.
    EXPECT_EQ(features({10, 10, 10, 13, 13, 13}, 10.0), Found{});
}

TEST(LVFeature, FlankNeedsSteepnessAndDistanceFromSegmentEnds) {
    Params p;
    p.zTol = 0.0;
    p.yTol = 0.0;  // no V
    // Rising run 2..6, largest step 2..3 (first of equal steps), falling 6.. of height 1.
    std::vector<double> z{10, 10, 10, 12.5, 15, 17.5, 20, 19, 19, 19};
    EXPECT_EQ(features(z, 0.5, p), (Found{{3, 3}}));  // high end 6, segment end 9
    EXPECT_EQ(features(z, 1.0, p), Found{});           // slope (15 - 10) / 3 is below 2
    z.pop_back();
    EXPECT_EQ(features(z, 0.5, p), Found{});  // high end only 2 indices from the segment end
    // Falling flank at the upper point of its largest step.
    EXPECT_EQ(features({19, 19, 19, 19, 20, 17.5, 15, 12.5, 10, 10}, 0.5, p), (Found{{4, 4}}));
    // The end of a segment cut by a gap counts like the line's end: 7 is 1 index away.
    auto pts = profile({10, 10, 10, 12.5, 15, 17.5, 20, 19, 0, 19, 19, 19, 19}, 0.5);
    pts[9].y += 5.0;  // the gap at index 8 splits the line
    for (size_t i = 10; i < pts.size(); ++i) pts[i].y += 5.0;
    const SHX_lineFeature lf = run(pts, p);
    EXPECT_EQ(typesAt(lf.endings), (Found{{6, 0}, {7, 7}, {6, 9}, {7, 12}}));
    EXPECT_EQ(typesAt(lf.features), Found{});
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

// ---- Arbitration between a V and the candidates of its sides ----

TEST(LVFeatureArbitration, NoCandidateOnEitherSide) {
    auto z = gentleRise();
    gentleFall(z);
    EXPECT_EQ(features(z), (Found{{5, 11}}));
}

TEST(LVFeatureArbitration, OnlyFallingSideCandidate) {
    auto far = gentleRise();
    farStepFall(far);  // step 23..24, upper end 6.0 along y from the V
    EXPECT_EQ(features(far), (Found{{5, 11}, {2, 24}}));

    auto nearStep = gentleRise();
    nearStepFall(nearStep);  // a near step wins over the V
    EXPECT_EQ(features(nearStep), (Found{{2, 12}}));

    auto nearFlank = gentleRise();
    flankFall(nearFlank);  // a near flank of a shallow V is the V's own side
    EXPECT_EQ(features(nearFlank), (Found{{5, 11}}));

    // The same near flank when the V changes depth by 40 or more wins over it.
    std::vector<double> deep{50, 50};
    ramp(deep, 60, 1);
    for (double v : {45.0, 30.0, 15.0, 10.0, 10.0}) deep.push_back(v);
    Params p;
    p.jumpHeight = 20.0;
    EXPECT_EQ(features(deep, 0.5, p), (Found{{4, 11}}));  // depth change 50 - 10 = 40
    deep[deep.size() - 2] = deep.back() = 10.5;            // 39.5: the V again
    EXPECT_EQ(features(deep, 0.5, p), (Found{{5, 11}}));
}

TEST(LVFeatureArbitration, OnlyRisingSideCandidate) {
    auto far = farStepRise();  // step 1..2, upper end 8.0 along y from the V at 18
    gentleFall(far);
    EXPECT_EQ(features(far), (Found{{1, 1}, {5, 18}}));

    auto nearStep = nearStepRise();
    nearStepFallSoftTop(nearStep);
    EXPECT_EQ(features(nearStep), (Found{{1, 5}}));

    auto nearFlank = flankRise();  // flank at 2, 1.5 along y from the V at 5
    gentleFall(nearFlank);
    EXPECT_EQ(features(nearFlank), (Found{{5, 5}}));

    // Rising flank 10 -> 100 in steps of 15, falling side ending at 60: depth change -50.
    std::vector<double> deep{10, 10, 25, 40, 55, 70, 85, 100, 99.8};
    ramp(deep, 60.3, 0.5);
    deep.push_back(60.3);
    Params p;
    p.jumpHeight = 20.0;
    EXPECT_EQ(features(deep, 0.5, p), (Found{{3, 2}}));
}

TEST(LVFeatureArbitration, CandidatesOnBothSides) {
    auto bothFar = farStepRise();
    farStepFall(bothFar);
    EXPECT_EQ(features(bothFar), (Found{{1, 1}, {5, 18}, {2, 31}}));

    auto farThenNearStep = farStepRise();
    nearStepFall(farThenNearStep);
    EXPECT_EQ(features(farThenNearStep), (Found{{1, 1}, {2, 19}}));

    auto farThenNearFlank = farStepRise();
    flankFall(farThenNearFlank);  // the near flank gives way to the V
    EXPECT_EQ(features(farThenNearFlank), (Found{{1, 1}, {5, 18}}));

    auto nearStepThenFar = nearStepRise();
    farStepFall(nearStepThenFar);
    EXPECT_EQ(features(nearStepThenFar), (Found{{1, 5}, {2, 19}}));

    auto nearFlankThenFar = flankRise();
    farStepFall(nearFlankThenFar);
    EXPECT_EQ(features(nearFlankThenFar), (Found{{5, 5}, {2, 18}}));

    auto bothNearShallow = nearStepRise();
    nearStepFall(bothNearShallow);
    EXPECT_EQ(features(bothNearShallow), (Found{{5, 6}}));
}

TEST(LVFeatureArbitration, BothNearAndDeepKeepsTheDeeperRetypedByDepthSign) {
    // Steps at 5 (z 55) and 7 (z 54); depth change 50 - 10 = 40 > 0: the deeper, A, as type 4.
    std::vector<double> down{50, 50, 51, 52, 53, 55, 60, 54};
    ramp(down, 10, 4);
    down.push_back(10);
    EXPECT_EQ(features(down), (Found{{4, 5}}));
    down[5] = 54;  // equal depths: B
    EXPECT_EQ(features(down), (Found{{4, 7}}));

    // Steps at 12 (z 54) and 14 (z 55); depth change 10 - 54.5 < 0: B as type 3.
    std::vector<double> up{10, 10, 14};
    ramp(up, 54, 4);
    for (double v : {60.0, 55.0, 54.5, 54.5}) up.push_back(v);
    EXPECT_EQ(features(up), (Found{{3, 14}}));
}

// ---- The V check ----

TEST(LVFeatureVCheck, EqualTopsCompareHalfTheToleranceBelowTheTop) {
    // Narrow tip, wide base: 18 is at y 7 and 9, 16 at y 6 and 10.
    const std::vector<double> z{10, 11, 12, 13, 14, 15, 16, 18, 20, 18, 16, 14, 12, 10, 10};
    Params p;
    p.jumpHeight = 100.0;
    p.zTol = 4.0;
    p.yTol = 3.0;
    EXPECT_EQ(features(z, 1.0, p), (Found{{5, 8}}));  // at 20 - 2: width 2
    p.yTol = 2.0;
    EXPECT_EQ(features(z, 1.0, p), Found{});
}

TEST(LVFeatureVCheck, DeeperFallingTopComparesTheFullToleranceBelowIt) {
    // Rising to 20 at 3, a small wobble (runs below minRunHeight), falling from 20.4 at 5.
    const std::vector<double> z{10, 16.4, 18.4, 20, 19.6, 20.4, 18.4, 16.4, 10, 10};
    Params p;
    p.jumpHeight = 100.0;
    p.zTol = 4.0;
    p.yTol = 5.0;  // at 16.4 the sides are 6 apart (at 18.4 they would be 4)
    EXPECT_EQ(features(z, 1.0, p), Found{});
    p.yTol = 7.0;
    EXPECT_EQ(features(z, 1.0, p), (Found{{5, 5}}));  // the deeper top
}

TEST(LVFeatureVCheck, TopsFartherApartThanZTolCompareYWithTheFallingTopHeight) {
    Params p;
    p.jumpHeight = 100.0;
    p.zTol = 0.1;
    p.yTol = 1.0;
    // Falling top deeper (20.3 at 12); its nearest point to 20 is index 12 itself.
    std::vector<double> a{10};
    ramp(a, 20, 1);
    a.push_back(19.5);
    a.push_back(20.3);
    ramp(a, 10.3, 1);
    EXPECT_EQ(typesAt(run(profile(a, 1.0, 8.0), p).features), (Found{{5, 12}}));  // |20 - 20.3|
    EXPECT_EQ(typesAt(run(profile(a, 1.0, 0.0), p).features), Found{});          // |12 - 20.3|

    // Rising top deeper (20.3 at 10); its nearest point to the falling top 20 is index 10.
    std::vector<double> b{10.3};
    ramp(b, 20.3, 1);
    b.push_back(19.5);
    b.push_back(20);
    ramp(b, 10, 1);
    EXPECT_EQ(typesAt(run(profile(b, 1.0, 10.0), p).features), (Found{{5, 10}}));  // |20 - 20|
    EXPECT_EQ(typesAt(run(profile(b, 1.0, 0.0), p).features), Found{});
}

// ---- Merging of near steps ----

TEST(LVFeature, NearStepsOfOneTypeCollapseIntoTheLaterOne) {
    Params p;
    p.zTol = 0.0;
    p.yTol = 0.0;  // no V
    // Rising steps at y 0, 14 and 29, each followed by a drop of 1 and a plateau.
    std::vector<double> z{10, 15, 14};
    z.resize(15, 14);
    z.push_back(19);
    z.push_back(18);
    z.resize(30, 18);
    z.push_back(23);
    z.push_back(22);
    z.push_back(22);
    // 14 -> 29 collapses first; the survivor at 29 is then 29 away from 0.
    EXPECT_EQ(features(z, 1.0, p), (Found{{1, 0}, {1, 29}}));

    // Different types never collapse; a falling step 2 after a rising one stays.
    EXPECT_EQ(features({10, 10, 16, 16, 16, 10, 10}, 1.0, p), (Found{{1, 1}, {2, 5}}));

    // Features already in the record are left alone.
    SHX_lineFeature lf;
    SHX_basicFeature1D old;
    old.featureType = 1;
    old.featurePos.y = -5.0;
    lf.features.push_back(old);
    const auto pts = profile({10, 10, 16, 16}, 1.0);
    hx_getLineLVFeature(pts.data(), 4, 0, SHX_slopeParam{0, 1, 3, 2}, SHX_VFeatureParam{0, 0}, &lf);
    EXPECT_EQ(typesAt(lf.features), (Found{{1, 0}, {1, 1}}));
}

// ---- Segments ----

TEST(LVFeatureSegments, GapsSplitOnlyWhenWiderThanMaxGapY) {
    Params p;  // maxGapY 2
    // Gap over index 2 spans y 2 (kept), gap over 5..7 spans 4 (split).
    EXPECT_EQ(typesAt(run(profile({10, 10, 0, 10, 10, 0, 0, 0, 10, 10}, 1.0), p).endings),
              (Found{{6, 0}, {7, 4}, {6, 8}, {7, 9}}));
    // Invalid points at both ends: the segment closes at the last valid point.
    EXPECT_EQ(typesAt(run(profile({0, 10, 10, 0.00009, 0}, 1.0), p).endings), (Found{{6, 1}, {7, 2}}));
    // z exactly 0.0001 is a measurement.
    EXPECT_EQ(typesAt(run(profile({0.0001, 10, 0}, 1.0), p).endings), (Found{{6, 0}, {7, 1}}));
    // The line's last point closes the segment across any gap.
    EXPECT_EQ(typesAt(run(profile({10, 10, 0, 0, 0, 10}, 1.0), p).endings), (Found{{6, 0}, {7, 5}}));
    // One valid point in the middle is a one-point segment; nothing valid, no segment.
    EXPECT_EQ(typesAt(run(profile({0, 10, 0}, 1.0), p).endings), (Found{{6, 1}, {7, 1}}));
    EXPECT_TRUE(run(profile({0, 0, 0}, 1.0), p).endings.empty());
}

TEST(LVFeatureSegments, RunsBridgeGapsAndSplitSegments) {
    // The rising run 10 -> 16 spans the split; its step (1 -> 5) is still found.
    const auto pts = profile({10, 10, 0, 0, 0, 16, 16}, 1.0);
    const SHX_lineFeature lf = run(pts);
    EXPECT_EQ(typesAt(lf.features), (Found{{1, 1}}));
    EXPECT_EQ(typesAt(lf.endings), (Found{{6, 0}, {7, 1}, {6, 5}, {7, 6}}));
}

TEST(LVFeature, NonFiniteHeightsAndRandomProfilesStayInBounds) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(typesAt(run(profile({10, nan, 10}, 1.0)).endings), (Found{{6, 0}, {7, 2}}));
    run(profile({10, inf, 10, inf, inf, -inf, 20, 5}, 1.0));

    testutil::Rng rng(7);
    for (int trial = 0; trial < 300; ++trial) {
        const int n = static_cast<int>(rng.integer(2, 120));
        std::vector<double> z(static_cast<size_t>(n));
        for (auto& v : z) v = rng.integer(0, 5) == 0 ? 0.0 : rng.uniform(0.0, 60.0);
        Params p;
        p.minRunHeight = rng.uniform(0, 5);
        p.jumpHeight = rng.uniform(0, 20);
        p.maxGapY = rng.uniform(0, 3);
        p.zTol = rng.uniform(0, 5);
        p.yTol = rng.uniform(0, 10);
        const auto pts = profile(z, rng.uniform(0.1, 2.0));
        const SHX_lineFeature lf = run(pts, p);
        ASSERT_EQ(lf.endings.size() % 2, 0u);
        for (size_t k = 0; k < lf.endings.size(); k += 2) {
            EXPECT_LE(lf.endings[k].featurePos.nPointIdx, lf.endings[k + 1].featurePos.nPointIdx);
            if (k > 0) EXPECT_LT(lf.endings[k - 1].featurePos.nPointIdx, lf.endings[k].featurePos.nPointIdx);
        }
        for (const auto& f : lf.features) {
            ASSERT_GE(f.featurePos.nPointIdx, 0);
            ASSERT_LT(f.featurePos.nPointIdx, n);
            EXPECT_GE(f.featureType, 1);
            EXPECT_LE(f.featureType, 5);
            EXPECT_EQ(f.featurePos.y, pts[static_cast<size_t>(f.featurePos.nPointIdx)].y);
            EXPECT_EQ(f.featurePos.z, pts[static_cast<size_t>(f.featurePos.nPointIdx)].z);
            EXPECT_GT(f.featurePos.z, 0.0);
        }
    }
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
