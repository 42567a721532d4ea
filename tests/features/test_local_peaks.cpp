// Local peaks / valleys and down jumps of one profile.
#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::profileFromZ;
using testutil::pt;

namespace {

using Features = std::vector<SHX_basicFeature1D>;

struct PeaksResult {
    Features peaks, valleys;
};

PeaksResult localPeaks(std::vector<SKesp3DPosition>& line, double range, int lineIdx = 0) {
    PeaksResult r;
    hx_getLineLocalPeaks(line.data(), static_cast<int32_t>(line.size()), lineIdx, range, r.peaks, r.valleys);
    return r;
}

std::vector<int64_t> indicesOf(const Features& f) {
    std::vector<int64_t> v;
    for (const auto& x : f) v.push_back(x.featurePos.nPointIdx);
    return v;
}

using Idx = std::vector<int64_t>;

// Plain version of the detector, written from its description with whole
// point copies, kept deliberately simple.
void plainLocalPeaks(std::vector<SKesp3DPosition> pts, int lineIdx, double range, Features& peaks, Features& valleys) {
    const int n = static_cast<int>(pts.size());
    if (n < 2) return;
    std::vector<SKesp3DPosition> pc, vc;
    bool havePrev = false;
    SKesp3DPosition prev{};
    int state = 0;  // 0 undecided, 1 falling, 2 rising
    for (int i = 0; i < n; ++i) {
        pts[i].nPointIdx = i;
        if (pts[i].z >= 0.0001) {
            if (havePrev) {
                const double d = pts[i].z - prev.z;
                if (state == 0) {
                    state = d > 0 ? 2 : (d < 0 ? 1 : 0);
                } else if (state == 1) {
                    if (d > 0) {
                        vc.push_back(prev);
                        state = 2;
                    }
                } else if (d < 0) {
                    pc.push_back(prev);
                    state = 1;
                }
            }
            prev = pts[i];
            havePrev = true;
        } else if (i == n - 1) {
            if (state == 1) vc.push_back(prev);
            if (state == 2) pc.push_back(prev);
        }
    }
    const double r2 = range * range;
    auto suppress = [&](const std::vector<SKesp3DPosition>& c, bool isPeak, Features& out) {
        for (size_t k = 0; k < c.size(); ++k) {
            bool rejected = false;
            for (int j = static_cast<int>(k) - 1; j >= 0; --j) {
                if ((c[k].y - c[j].y) * (c[k].y - c[j].y) > r2) break;
                if (isPeak ? c[j].z > c[k].z : c[k].z > c[j].z) rejected = true;
            }
            if (!rejected) {
                for (size_t j = k + 1; j < c.size(); ++j) {
                    if ((c[k].y - c[j].y) * (c[k].y - c[j].y) > r2) break;
                    if (isPeak ? c[j].z > c[k].z : c[k].z > c[j].z) rejected = true;
                }
            }
            if (!rejected) out.push_back(SHX_basicFeature1D{isPeak ? 14 : 13, lineIdx, c[k], 0.0});
        }
    };
    suppress(vc, false, valleys);
    suppress(pc, true, peaks);
}

void expectSameFeatures(const Features& a, const Features& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].featureType, b[i].featureType);
        EXPECT_EQ(a[i].lineIdx, b[i].lineIdx);
        EXPECT_EQ(a[i].featurePos.nPointIdx, b[i].featurePos.nPointIdx);
        EXPECT_EQ(a[i].featurePos.x, b[i].featurePos.x);
        EXPECT_EQ(a[i].featurePos.y, b[i].featurePos.y);
        EXPECT_EQ(a[i].featurePos.z, b[i].featurePos.z);
        EXPECT_EQ(a[i].featureValue, b[i].featureValue);
    }
}

}  // namespace

TEST(LocalPeaks, FewerThanTwoPointsWritesNothing) {
    std::vector<SKesp3DPosition> one{pt(0, 0, 5, 77)};
    Features peaks, valleys;
    hx_getLineLocalPeaks(one.data(), 1, 0, 1.0, peaks, valleys);
    hx_getLineLocalPeaks(one.data(), 0, 0, 1.0, peaks, valleys);
    hx_getLineLocalPeaks(one.data(), -4, 0, 1.0, peaks, valleys);
    EXPECT_TRUE(peaks.empty());
    EXPECT_TRUE(valleys.empty());
    EXPECT_EQ(one[0].nPointIdx, 77);
}

TEST(LocalPeaks, AllInvalidStillRewritesIndices) {
    std::vector<SKesp3DPosition> line{pt(0, 0, 0.0, 9), pt(0, 1, 0.0000999, 9), pt(0, 2, -3, 9)};
    const PeaksResult r = localPeaks(line, 1.0);
    EXPECT_TRUE(r.peaks.empty());
    EXPECT_TRUE(r.valleys.empty());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(line[i].nPointIdx, i);
}

TEST(LocalPeaks, EndCandidateOnlyWhenLineEndsInvalid) {
    // Strictly rising with a valid last point: nothing at all.
    auto rising = profileFromZ({1, 2, 3, 4});
    PeaksResult r = localPeaks(rising, 1.0);
    EXPECT_TRUE(r.peaks.empty());
    EXPECT_TRUE(r.valleys.empty());
    // The same line followed by invalid points: the last valid point is a peak.
    auto risingThenGap = profileFromZ({1, 2, 3, 4, 0, 0});
    r = localPeaks(risingThenGap, 1.0, 12);
    EXPECT_EQ(indicesOf(r.peaks), Idx{3});
    EXPECT_EQ(r.peaks[0].featureType, 14);
    EXPECT_EQ(r.peaks[0].lineIdx, 12);
    EXPECT_EQ(r.peaks[0].featurePos.z, 4.0);
    EXPECT_EQ(r.peaks[0].featureValue, 0.0);
    // Falling into a final gap: the last valid point is a valley.
    auto fallingThenGap = profileFromZ({5, 4, 3, 0});
    r = localPeaks(fallingThenGap, 1.0);
    EXPECT_EQ(indicesOf(r.valleys), Idx{2});
    EXPECT_TRUE(r.peaks.empty());
}

TEST(LocalPeaks, FirstPointAndPlateausAndGaps) {
    // Begins by falling: the first point is no peak; the valley at index 2.
    auto line = profileFromZ({5, 3, 1, 4, 6});
    PeaksResult r = localPeaks(line, 0.5);
    EXPECT_TRUE(r.peaks.empty());
    EXPECT_EQ(indicesOf(r.valleys), Idx{2});

    // A flat top of three equal points reports its last point; a flat bottom too.
    line = profileFromZ({1, 2, 5, 5, 5, 2, 1, 1, 3});
    r = localPeaks(line, 0.5);
    EXPECT_EQ(indicesOf(r.peaks), Idx{4});
    EXPECT_EQ(indicesOf(r.valleys), Idx{7});

    // Equal values at the start leave the trend undecided.
    line = profileFromZ({2, 2, 2, 3, 1, 4});
    r = localPeaks(line, 0.5);
    EXPECT_EQ(indicesOf(r.peaks), Idx{3});
    EXPECT_EQ(indicesOf(r.valleys), Idx{4});

    // A gap is bridged: 4 then (gap) 2 is a fall, so 4 (index 1) is a peak.
    line = profileFromZ({1, 4, 0, 0, 2, 3});
    r = localPeaks(line, 0.5);
    EXPECT_EQ(indicesOf(r.peaks), Idx{1});
    EXPECT_EQ(indicesOf(r.valleys), Idx{4});
    EXPECT_EQ(r.peaks[0].featurePos.nPointIdx, 1);
}

TEST(LocalPeaks, SuppressionRange) {
    // Peaks at y 1 (z 5) and y 3 (z 4), valley at y 2 (z 1); pitch 1.0.
    auto line = profileFromZ({1, 5, 1, 4, 1});
    // Range 2.0: the lower peak at distance 2 (exactly the range) is inside.
    PeaksResult r = localPeaks(line, 2.0);
    EXPECT_EQ(indicesOf(r.peaks), Idx{1});
    // Range 1.9: both survive. The sign of the range does not matter.
    EXPECT_EQ(indicesOf(localPeaks(line, 1.9).peaks), (Idx{1, 3}));
    EXPECT_EQ(indicesOf(localPeaks(line, -2.0).peaks), Idx{1});
    // Range 0: only neighbours with the very same y compare.
    EXPECT_EQ(indicesOf(localPeaks(line, 0.0).peaks), (Idx{1, 3}));

    // Two peak candidates 1.0 apart along y with range 1.0: the lower goes.
    line = {pt(0, 0.0, 1), pt(0, 1.0, 3), pt(0, 1.5, 1), pt(0, 2.0, 2), pt(0, 2.5, 1)};
    EXPECT_EQ(indicesOf(localPeaks(line, 1.0).peaks), Idx{1});

    // Equal peaks within range are both kept.
    line = profileFromZ({1, 5, 1, 5, 1});
    EXPECT_EQ(indicesOf(localPeaks(line, 10.0).peaks), (Idx{1, 3}));

    // Valleys: the higher valley is rejected by the lower one within range.
    line = profileFromZ({5, 1, 5, 2, 5});
    r = localPeaks(line, 2.0);
    EXPECT_EQ(indicesOf(r.valleys), Idx{1});
    EXPECT_EQ(indicesOf(r.peaks), Idx{2});
}

TEST(LocalPeaks, ScanStopsAtFirstCandidateOutOfRange) {
    // Peak candidates in line order at y 0 (z 9), y 10 (z 2), y 0.5 (z 3):
    // the last one scans back, meets y 10 out of range and stops, so the
    // higher peak at y 0 never rejects it. x is ignored.
    std::vector<SKesp3DPosition> line{pt(0, -1, 1),  pt(0, 0, 9),   pt(50, -2, 1), pt(0, 10, 2),
                                      pt(0, 20, 1),  pt(0, 0.5, 3), pt(0, 30, 1)};
    const PeaksResult r = localPeaks(line, 1.0);
    EXPECT_EQ(indicesOf(r.peaks), (Idx{1, 3, 5}));
    // Without the far candidate in between the lower one goes.
    std::vector<SKesp3DPosition> near{pt(0, -1, 1), pt(0, 0, 9), pt(0, 20, 1), pt(0, 0.5, 3), pt(0, 30, 1)};
    EXPECT_EQ(indicesOf(localPeaks(near, 1.0).peaks), Idx{1});
}

TEST(LocalPeaks, ValleysBeforePeaksInOneVectorAndAppending) {
    auto line = profileFromZ({1, 5, 1, 6});
    Features both{SHX_basicFeature1D{99, 0, pt(0, 0, 0), 0.0}};
    hx_getLineLocalPeaks(line.data(), 4, 3, 0.5, both, both);
    ASSERT_EQ(both.size(), 3u);
    EXPECT_EQ(both[0].featureType, 99);  // appended, never cleared
    EXPECT_EQ(both[1].featureType, 13);
    EXPECT_EQ(both[2].featureType, 14);
}

TEST(LocalPeaks, NaNCoordinatesEndWithoutCrash) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<SKesp3DPosition> line{pt(0, 0, 1), pt(0, nan, 5), pt(0, 2, nan), pt(0, 3, 1), pt(0, 4, 7),
                                      pt(0, 5, 2), pt(0, 6, 0)};
    PeaksResult r = localPeaks(line, 1.0);
    // NaN z is invalid (bridged); a NaN y is never out of range, so the peak
    // at NaN y is rejected by the higher one; the final gap adds a valley.
    EXPECT_EQ(indicesOf(r.valleys), (Idx{3, 5}));
    EXPECT_EQ(indicesOf(r.peaks), Idx{4});
    r = localPeaks(line, nan);
    EXPECT_EQ(indicesOf(r.peaks), Idx{4});
    r = localPeaks(line, std::numeric_limits<double>::infinity());
    EXPECT_EQ(indicesOf(r.peaks), Idx{4});
}

TEST(LocalPeaks, MatchesPlainVersionOnRandomProfiles) {
    testutil::Rng rng(11);
    for (int trial = 0; trial < 400; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 80));
        std::vector<SKesp3DPosition> line(static_cast<size_t>(n));
        const bool coarse = rng.integer(0, 1) == 0;  // coarse z gives plateaus and ties
        for (int i = 0; i < n; ++i) {
            double z = coarse ? static_cast<double>(rng.integer(0, 4)) : rng.uniform(0.0, 10.0);
            if (rng.integer(0, 5) == 0) z = 0.0;
            // Mostly increasing y with occasional jumps back, to exercise the early stops.
            const double y = rng.integer(0, 6) == 0 ? rng.uniform(0, 20) : i * 0.3;
            line[static_cast<size_t>(i)] = pt(rng.uniform(-1, 1), y, z, -1);
        }
        const double range = rng.uniform(-3.0, 3.0);
        Features ep, ev, gp, gv;
        plainLocalPeaks(line, trial, range, ep, ev);
        hx_getLineLocalPeaks(line.data(), n, trial, range, gp, gv);
        expectSameFeatures(gp, ep);
        expectSameFeatures(gv, ev);
        if (n >= 2)
            for (int i = 0; i < n; ++i) ASSERT_EQ(line[static_cast<size_t>(i)].nPointIdx, i);
    }
}

TEST(LocalPeaks, MatchesPlainVersionOnLongMonotoneStretches) {
    // Long rises and falls (the common case on real profiles) with plateaus,
    // single reversals, gaps and lengths of every remainder modulo four.
    testutil::Rng rng(23);
    int found = 0;
    for (int trial = 0; trial < 400; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 200));
        std::vector<SKesp3DPosition> line(static_cast<size_t>(n));
        double z = rng.uniform(5.0, 20.0), slope = rng.uniform(-1.0, 1.0);
        for (int i = 0; i < n; ++i) {
            const int kind = static_cast<int>(rng.integer(0, 19));
            if (kind == 0) slope = -slope;                        // a turn
            else if (kind == 1) slope = rng.uniform(-1.0, 1.0);  // a new slope
            const double dz = kind == 2 ? 0.0 : kind == 3 ? -slope : slope;  // plateau, one-point reversal
            z = std::max(z + dz, 0.5);
            const bool gap = rng.integer(0, 25) == 0;
            line[static_cast<size_t>(i)] = pt(0.0, i * 0.1, gap ? 0.0 : z, -1);
        }
        const double range = rng.uniform(0.0, 2.0);
        Features ep, ev, gp, gv;
        plainLocalPeaks(line, trial, range, ep, ev);
        hx_getLineLocalPeaks(line.data(), n, trial, range, gp, gv);
        expectSameFeatures(gp, ep);
        expectSameFeatures(gv, ev);
        found += static_cast<int>(ep.size() + ev.size());
    }
    EXPECT_GT(found, 400);  // the comparison is not vacuous
}

// Lines whose points already carry their index take the eight-point block
// path; blocks with a gap, or with a point not yet numbered, go point by
// point. Each line is checked on a first call (partly numbered) and on a
// second (fully numbered), against the plain version.
TEST(LocalPeaks, MatchesPlainVersionOnNumberedLinesInBlocks) {
    testutil::Rng rng(37);
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    int found = 0;
    for (int trial = 0; trial < 800; ++trial) {
        const int n = static_cast<int>(rng.integer(2, 260));
        std::vector<SKesp3DPosition> line(static_cast<size_t>(n));
        // Monotone runs with noise, plateaus of equal values, zigzags (many
        // candidates close together), gaps at any offset, and rare infinite
        // or NaN heights.
        double z = rng.uniform(5.0, 20.0), slope = rng.uniform(-1.0, 1.0);
        const double noise = rng.integer(0, 2) == 0 ? 0.0 : rng.uniform(0.0, 1.0);
        const int gapEvery = static_cast<int>(rng.integer(3, 60));
        for (int i = 0; i < n; ++i) {
            const int kind = static_cast<int>(rng.integer(0, 29));
            if (kind == 0) slope = -slope;
            else if (kind == 1) slope = rng.uniform(-1.0, 1.0);
            else if (kind == 2) slope = 0.0;  // a plateau until the next change
            z = std::max(z + slope + (noise > 0 ? rng.uniform(-noise, noise) : 0.0), 0.5);
            double zi = rng.integer(0, 3) == 0 ? std::round(z) : z;  // ties
            if (rng.integer(0, gapEvery) == 0) zi = 0.0;
            if (rng.integer(0, 400) == 0) zi = inf;
            if (rng.integer(0, 400) == 0) zi = nan;
            const double y = rng.integer(0, 150) == 0 ? rng.uniform(0.0, 30.0) : i * 0.1;
            const int64_t idx = rng.integer(0, 20) == 0 ? -1 : i;
            line[static_cast<size_t>(i)] = pt(rng.uniform(-1, 1), y, zi, idx);
        }
        // Ranges from a few points to many candidates at once (beyond the
        // four compared together), and the out-of-contract ones.
        const int rangeKind = static_cast<int>(rng.integer(0, 9));
        const double range = rangeKind == 0 ? nan : rangeKind == 1 ? inf : rangeKind == 2 ? rng.uniform(2.0, 30.0)
                                                                                           : rng.uniform(-1.5, 1.5);
        for (int call = 0; call < 2; ++call) {
            Features ep, ev, gp, gv;
            plainLocalPeaks(line, trial, range, ep, ev);
            hx_getLineLocalPeaks(line.data(), n, trial, range, gp, gv);
            expectSameFeatures(gp, ep);
            expectSameFeatures(gv, ev);
            for (int i = 0; i < n; ++i) ASSERT_EQ(line[static_cast<size_t>(i)].nPointIdx, i);
            found += static_cast<int>(ep.size() + ev.size());
        }
    }
    EXPECT_GT(found, 4000);
}

TEST(LocalPeaks, GapsAtEveryOffsetOfABlock) {
    // A ramp up and down with a run of invalid points at each offset and of
    // each length up to a whole block, ending valid or invalid.
    for (int gapStart = 0; gapStart < 24; ++gapStart) {
        for (int gapLen = 1; gapLen <= 9; ++gapLen) {
            for (int endsInvalid = 0; endsInvalid < 2; ++endsInvalid) {
                const int n = 48;
                std::vector<SKesp3DPosition> line(static_cast<size_t>(n));
                for (int i = 0; i < n; ++i) {
                    double z = i < 20 ? 1.0 + i : 41.0 - i;  // peak at 19, then falling
                    if (i % 7 == 3) z += 0.5;                // small bumps: extra candidates
                    if (i >= gapStart && i < gapStart + gapLen) z = 0.0;
                    if (endsInvalid && i == n - 1) z = 0.0;
                    line[static_cast<size_t>(i)] = pt(0.0, i * 0.1, z, i);
                }
                for (double range : {0.05, 0.35, 1.0, 5.0}) {
                    Features ep, ev, gp, gv;
                    plainLocalPeaks(line, 0, range, ep, ev);
                    hx_getLineLocalPeaks(line.data(), n, 0, range, gp, gv);
                    expectSameFeatures(gp, ep);
                    expectSameFeatures(gv, ev);
                }
            }
        }
    }
}

TEST(DownJumps, HandWorkedCases) {
    // 1, 1, gap, 3 with threshold 1.5: one jump at the near side (index 1).
    auto line = profileFromZ({1.0, 1.0, 0.0, 3.0});
    Features jumps;
    hx_getLineDownJumps(line.data(), 4, 8, 1.5, jumps);
    ASSERT_EQ(jumps.size(), 1u);
    EXPECT_EQ(jumps[0].featureType, 1);
    EXPECT_EQ(jumps[0].lineIdx, 8);
    EXPECT_EQ(jumps[0].featurePos.nPointIdx, 1);
    EXPECT_EQ(jumps[0].featurePos.y, 1.0);
    EXPECT_EQ(jumps[0].featureValue, 0.0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(line[i].nPointIdx, i);

    // Falls are ignored; a rise exactly at the threshold is no jump.
    line = profileFromZ({3.0, 1.0, 2.5, 4.0, 0.0});
    jumps.clear();
    hx_getLineDownJumps(line.data(), 5, 0, 1.5, jumps);
    EXPECT_TRUE(jumps.empty());
    line = profileFromZ({3.0, 1.0, 2.5001, 9.0});
    hx_getLineDownJumps(line.data(), 4, 0, 1.5, jumps);
    EXPECT_EQ(indicesOf(jumps), (Idx{1, 2}));
}

TEST(DownJumps, DegenerateInput) {
    std::vector<SKesp3DPosition> line{pt(0, 0, 1, 5)};
    Features jumps;
    hx_getLineDownJumps(line.data(), 1, 0, 0.1, jumps);
    EXPECT_EQ(line[0].nPointIdx, 5);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    line = profileFromZ({0.0, nan, 0.0});
    hx_getLineDownJumps(line.data(), 3, 0, 0.1, jumps);
    EXPECT_TRUE(jumps.empty());
    EXPECT_EQ(line[2].nPointIdx, 2);
    line = profileFromZ({1.0, 5.0});
    hx_getLineDownJumps(line.data(), 2, 0, nan, jumps);
    EXPECT_TRUE(jumps.empty());
}
