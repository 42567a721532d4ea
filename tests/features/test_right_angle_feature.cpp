// Right-angle corners on hand-built steps.
#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::pt;

namespace {

constexpr double kStep = 0.25;  // exact in binary, so reach boundaries are exact

SHX_lineRightAngleParam kind(double flat, double wall, double tol) {
    SHX_lineRightAngleParam p;
    p.flatArmLen = flat;
    p.wallArmLen = wall;
    p.maxDeviation = tol;
    return p;
}

// Flat at z = 10 for y = -5 .. 0 (indices 0..20), a vertical wall at y = 0
// up to z = 20 (21..60), and a flat top at z = 20 for y = 0.25 .. 5 (61..80).
std::vector<SKesp3DPosition> cleanStep() {
    std::vector<SKesp3DPosition> v;
    for (int i = 0; i <= 20; ++i) v.push_back(pt(0, -5 + kStep * i, 10));
    for (int i = 21; i <= 60; ++i) v.push_back(pt(0, 0, 10 + kStep * (i - 20)));
    for (int i = 61; i <= 80; ++i) v.push_back(pt(0, kStep * (i - 60), 20));
    return v;
}

struct Found {
    int32_t type;
    int64_t idx;
};

std::vector<Found> detect(const std::vector<SKesp3DPosition>& v, const SHX_lineRightAngleParam& p1,
                          const SHX_lineRightAngleParam& p2, const SHX_lineRightAngleParam& p3,
                          const SHX_lineRightAngleParam& p4, int32_t lineIdx = 3) {
    SHX_lineFeature lf;
    lf.lineIdx = -9;
    hx_getLineRigthAngleFeature(v.data(), static_cast<int32_t>(v.size()), lineIdx, p1, p2, p3, p4, &lf);
    EXPECT_EQ(lf.lineIdx, -9);  // not touched
    EXPECT_TRUE(lf.endings.empty());
    std::vector<Found> out;
    for (const auto& f : lf.features) {
        EXPECT_EQ(f.lineIdx, lineIdx);
        EXPECT_EQ(f.featureValue, 0.0);
        const size_t i = static_cast<size_t>(f.featurePos.nPointIdx);
        EXPECT_EQ(f.featurePos.y, v[i].y);
        EXPECT_EQ(f.featurePos.z, v[i].z);
        out.push_back({f.featureType, f.featurePos.nPointIdx});
    }
    return out;
}

std::vector<Found> detectUniform(const std::vector<SKesp3DPosition>& v) {
    const auto p = kind(2, 2, 0.5);
    return detect(v, p, p, p, p);
}

void expectFound(const std::vector<Found>& got, const std::vector<Found>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].type, want[i].type) << "feature " << i;
        EXPECT_EQ(got[i].idx, want[i].idx) << "feature " << i;
    }
}

std::vector<SKesp3DPosition> reversed(std::vector<SKesp3DPosition> v) {
    return std::vector<SKesp3DPosition>(v.rbegin(), v.rend());
}

}  // namespace

TEST(RightAngle, CleanStepGivesFootAndTopOnce) {
    // Foot: points 19, 20, 21 pass (flat before, wall rising after): a run of
    // type 10 whose middle is the foot. Top: 59, 60, 61 (wall before, flat
    // after, corner above the wall's far end): type 12 at the top corner.
    expectFound(detectUniform(cleanStep()), {{10, 20}, {12, 60}});
}

TEST(RightAngle, StepTraversedBackwards) {
    // Reversed, the top corner has the flat before and a falling wall after
    // (type 9) and the foot a wall before and the flat after, not above the
    // wall's far end (type 11).
    expectFound(detectUniform(reversed(cleanStep())), {{9, 20}, {11, 60}});
}

TEST(RightAngle, FlatBeforeKindsTakeTheFirstRecordsTolerance) {
    const auto v = reversed(cleanStep());
    const auto ok = kind(2, 2, 0.5);
    // The third record's own tolerance does not matter for type 9 ...
    expectFound(detect(v, ok, ok, kind(2, 2, 0.0), ok), {{9, 20}, {11, 60}});
    // ... the first record's does, and then the point is finished: it is not
    // tried as a wall-before corner either.
    expectFound(detect(v, kind(2, 2, 0.0), ok, ok, ok), {{11, 60}});
    // Type 11 uses the fourth record's tolerance.
    expectFound(detect(v, ok, ok, ok, kind(2, 2, 0.0)), {{9, 20}});
}

TEST(RightAngle, ScreeningUsesSmallestReachAndLargestTolerance) {
    const auto v = cleanStep();
    // Tolerance 0.5 only in the second record: the screening still admits the
    // foot's points, but type 10 then fails on the first record's 0.2 for the
    // points whose flat or wall arm deviates by 0.25; the foot itself stays.
    expectFound(detect(v, kind(2, 2, 0.2), kind(2, 2, 0.5), kind(2, 2, 0.2), kind(2, 2, 0.2)), {{10, 20}, {12, 60}});
    // A larger own reach for type 10 sees the top corner from the foot's wall
    // arm: the wall arm of reach 12 reaches the flat top, whose |dy| spoils it.
    const auto far = kind(2, 12, 0.5);
    const auto ok = kind(2, 2, 0.5);
    expectFound(detect(v, far, ok, ok, ok), {{12, 60}});
}

TEST(RightAngle, AdjacentBackwardArmPicksLastMarkedPoint) {
    // A wall sampled sparser than the reach: every wall point's backward arm
    // ends at the point right before it.
    std::vector<SKesp3DPosition> v;
    for (int i = 0; i <= 20; ++i) v.push_back(pt(0, -5 + kStep * i, 10));  // 0..20
    for (int k = 1; k <= 4; ++k) v.push_back(pt(0, 0, 10 + 3 * k));        // 21..24: z 13..22
    for (int k = 1; k <= 20; ++k) v.push_back(pt(0, kStep * k, 22));       // 25..44
    // Type 10 on 19..23 (21, 22, 23 adjacent), type 12 on 24..25 (24 adjacent).
    expectFound(detectUniform(v), {{10, 23}, {12, 24}});
}

TEST(RightAngle, EndsOfLineAndDegenerateInput) {
    // Flat line: no wall anywhere, and end points have no far end.
    std::vector<SKesp3DPosition> flat;
    for (int i = 0; i < 30; ++i) flat.push_back(pt(0, kStep * i, 5));
    expectFound(detectUniform(flat), {});
    expectFound(detectUniform({}), {});
    SHX_lineFeature lf;
    const auto p = kind(2, 2, 0.5);
    const auto v = cleanStep();
    hx_getLineRigthAngleFeature(v.data(), 0, 0, p, p, p, p, &lf);
    hx_getLineRigthAngleFeature(v.data(), -4, 0, p, p, p, p, &lf);
    EXPECT_TRUE(lf.features.empty());
    // A short step whose corner points lack far ends.
    std::vector<SKesp3DPosition> tiny{pt(0, 0, 10), pt(0, 0.25, 10), pt(0, 0.25, 11)};
    expectFound(detectUniform(tiny), {});
}

TEST(RightAngle, InvalidPointsAreSteppedOverAndAppendKeepsOldFeatures) {
    auto v = cleanStep();
    v[5].z = 0.0;     // invalid: bridged by every arm
    v[75].z = 0.0;
    v[6].z = 0.0001;  // valid as a corner (>= 0.0001) but never on an arm (> 0.0001)
    SHX_lineFeature lf;
    lf.features.push_back(SHX_basicFeature1D{});
    const auto p = kind(2, 2, 0.5);
    hx_getLineRigthAngleFeature(v.data(), static_cast<int32_t>(v.size()), 1, p, p, p, p, &lf);
    // Point 6 sits 10 below its neighbours: both its arms end at once, with
    // no point within reach (maxima -1), and the next point rises above it:
    // a type-10 corner by the rules. The real corners are unchanged.
    ASSERT_EQ(lf.features.size(), 4u);
    EXPECT_EQ(lf.features[1].featureType, 10);
    EXPECT_EQ(lf.features[1].featurePos.nPointIdx, 6);
    EXPECT_EQ(lf.features[2].featurePos.nPointIdx, 20);
    EXPECT_EQ(lf.features[3].featurePos.nPointIdx, 60);
}

TEST(RightAngle, NanHeightsDoNotLoopOrCrash) {
    auto v = cleanStep();
    v[20].z = std::numeric_limits<double>::quiet_NaN();
    v[40].y = std::numeric_limits<double>::quiet_NaN();
    SHX_lineFeature lf;
    const auto p = kind(2, 2, 0.5);
    hx_getLineRigthAngleFeature(v.data(), static_cast<int32_t>(v.size()), 1, p, p, p, p, &lf);
    for (const auto& f : lf.features) EXPECT_TRUE(f.featureType >= 9 && f.featureType <= 12);
    const auto nanKind = kind(std::numeric_limits<double>::quiet_NaN(), 2, 0.5);
    hx_getLineRigthAngleFeature(v.data(), static_cast<int32_t>(v.size()), 1, nanKind, p, p, p, &lf);
}

namespace {

// The detector written plainly from its definition: every arm walked from
// the point itself, every measurement separate, no early exits.
struct PlainArm {
    double dy = -1.0, dz = -1.0;
    int far = -1;  // -1: ran out of points
};

PlainArm plainArm(const std::vector<SKesp3DPosition>& v, int i, int step, double reach) {
    PlainArm a;
    for (int j = i + step; j >= 0 && j < static_cast<int>(v.size()); j += step) {
        if (!(v[j].z > 0.0001)) continue;
        const double dy = std::fabs(v[j].y - v[i].y), dz = std::fabs(v[j].z - v[i].z);
        if (dy + dz > reach) {
            a.far = j;
            return a;
        }
        a.dy = std::max(a.dy, dy);
        a.dz = std::max(a.dz, dz);
    }
    return a;
}

std::vector<Found> plainRightAngles(const std::vector<SKesp3DPosition>& v, const SHX_lineRightAngleParam p[4]) {
    const int n = static_cast<int>(v.size());
    double rmin = p[0].flatArmLen, tmax = p[0].maxDeviation;
    for (int k = 0; k < 4; ++k) {
        rmin = std::min(rmin, std::min(p[k].flatArmLen, p[k].wallArmLen));
        tmax = std::max(tmax, p[k].maxDeviation);
    }
    std::vector<int> type(n, 0), adj(n, 0);
    for (int i = 0; i < n; ++i) {
        if (v[i].z < 0.0001) continue;
        const PlainArm b = plainArm(v, i, -1, rmin), f = plainArm(v, i, +1, rmin);
        if (b.far < 0 || f.far < 0) continue;
        const bool bAdj = b.far == i - 1;
        const double bDy = bAdj ? 0.0 : b.dy;
        // A measured arm without a far end reports 0.
        auto measured = [&](int step, double reach, bool wantDy, bool& isAdj) {
            const PlainArm a = plainArm(v, i, step, reach);
            isAdj = step < 0 && a.far == i - 1;
            if (a.far < 0) return 0.0;
            return wantDy ? a.dy : a.dz;
        };
        bool ab = false, af = false;
        if (tmax > b.dz && tmax > f.dy) {
            const SHX_lineRightAngleParam& q = v[f.far].z > v[i].z ? p[0] : p[2];
            const double dz = measured(-1, q.flatArmLen, false, ab), dy = measured(+1, q.wallArmLen, true, af);
            if (p[0].maxDeviation > dz && p[0].maxDeviation > dy) {
                type[i] = v[f.far].z > v[i].z ? 10 : 9;
                adj[i] = ab;
            }
        } else if (tmax > bDy && tmax > f.dz) {
            const bool above = v[i].z > v[b.far].z;
            const SHX_lineRightAngleParam& q = above ? p[1] : p[3];
            double dy = measured(-1, q.wallArmLen, true, ab);
            if (ab) dy = 0.0;
            const double dz = measured(+1, q.flatArmLen, false, af);
            if (q.maxDeviation > dy && q.maxDeviation > dz) {
                type[i] = above ? 12 : 11;
                adj[i] = ab;
            }
        }
    }
    std::vector<Found> out;
    for (int s = 0; s < n;) {
        int e = s;
        while (e + 1 < n && type[e + 1] == type[s]) ++e;
        if (type[s] != 0) {
            int c = -1;
            for (int k = s; k <= e; ++k)
                if (adj[k]) c = k;
            if (c < 0) {
                c = (s + e) / 2;
                if (v[c].z < 0.0001)
                    for (int k = 1; k <= c - s; ++k) {
                        if (v[c + k].z > 0.0001) { c += k; break; }
                        if (v[c - k].z > 0.0001) { c -= k; break; }
                    }
            }
            out.push_back({type[s], c});
        }
        s = e + 1;
    }
    return out;
}

}  // namespace

TEST(RightAngle, MatchesPlainDefinitionOnRandomProfiles) {
    testutil::Rng rng(99);
    for (int trial = 0; trial < 500; ++trial) {
        // Staircases of flats and walls with noise, coarse and fine sampling,
        // missing points and heights right at the validity threshold.
        std::vector<SKesp3DPosition> v;
        double y = 0, z = 10;
        const int n = static_cast<int>(rng.integer(0, 150));
        for (int i = 0; i < n; ++i) {
            if (rng.integer(0, 3) == 0) z += rng.uniform(-1.5, 1.5);  // wall step
            else y += rng.uniform(0.05, 0.6);                          // flat step
            double zz = z + rng.uniform(-0.05, 0.05);
            const int64_t r = rng.integer(0, 20);
            if (r == 0) zz = 0.0;
            if (r == 1) zz = 0.0001;
            v.push_back(pt(0, y + rng.uniform(-0.05, 0.05), zz));
        }
        SHX_lineRightAngleParam p[4];
        for (auto& k : p) k = kind(rng.uniform(0.2, 2.5), rng.uniform(0.2, 2.5), rng.uniform(0.05, 0.6));
        const auto want = plainRightAngles(v, p);
        const auto got = detect(v, p[0], p[1], p[2], p[3]);
        ASSERT_EQ(got.size(), want.size()) << "trial " << trial;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].type, want[i].type) << "trial " << trial;
            EXPECT_EQ(got[i].idx, want[i].idx) << "trial " << trial;
        }
    }
}

TEST(RightAngle, MatchesPlainDefinitionOnDenselySampledProfiles) {
    // Fine, even sampling with short reaches: the screening walks several
    // points on both sides before anything decides, and missing points or
    // walls interrupt it part way.
    testutil::Rng rng(7);
    size_t found = 0;
    for (int trial = 0; trial < 300; ++trial) {
        std::vector<SKesp3DPosition> v;
        double y = 0, z = 20;
        const int n = static_cast<int>(rng.integer(20, 300));
        for (int i = 0; i < n; ++i) {
            if (rng.integer(0, 25) == 0) {
                const double to = z + rng.uniform(-6, 6);
                for (int k = 1; k < 8; ++k) v.push_back(pt(0, y, z + (to - z) * k / 8.0));
                z = to;
            }
            y += 0.1;
            double zz = z + rng.uniform(-0.005, 0.005);
            if (rng.integer(0, 60) == 0) zz = 0.0;
            v.push_back(pt(0, y, zz));
        }
        SHX_lineRightAngleParam p[4];
        for (auto& k : p) k = kind(rng.uniform(0.3, 1.2), rng.uniform(0.3, 1.2), rng.uniform(0.05, 0.4));
        const auto want = plainRightAngles(v, p);
        const auto got = detect(v, p[0], p[1], p[2], p[3]);
        ASSERT_EQ(got.size(), want.size()) << "trial " << trial;
        found += got.size();
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].type, want[i].type) << "trial " << trial;
            EXPECT_EQ(got[i].idx, want[i].idx) << "trial " << trial;
        }
    }
    EXPECT_GT(found, 100u);  // the profiles do hold corners
}
