// Right-angle corners on hand-built steps.
#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

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

std::vector<SKesp3DPosition> reversed(std::vector<SKesp3DPosition> v) {
    return std::vector<SKesp3DPosition>(v.rbegin(), v.rend());
}

std::string show(const std::vector<Found>& v) {
    std::string s;
    for (const Found& f : v) s += std::to_string(f.type) + "@" + std::to_string(f.idx) + " ";
    return s;
}

}  // namespace

TEST(RightAngle, HandBuiltSteps) {
    const auto ok = kind(2, 2, 0.5), exact = kind(2, 2, 0.0), tight = kind(2, 2, 0.2);
    // A wall sampled sparser than the reach: every wall point's backward arm
    // ends at the point right before it.
    std::vector<SKesp3DPosition> sparse;
    for (int i = 0; i <= 20; ++i) sparse.push_back(pt(0, -5 + kStep * i, 10));  // 0..20
    for (int k = 1; k <= 4; ++k) sparse.push_back(pt(0, 0, 10 + 3 * k));        // 21..24: z 13..22
    for (int k = 1; k <= 20; ++k) sparse.push_back(pt(0, kStep * k, 22));       // 25..44
    std::vector<SKesp3DPosition> flat;
    for (int i = 0; i < 30; ++i) flat.push_back(pt(0, kStep * i, 5));
    auto holes = cleanStep();
    holes[5].z = holes[75].z = 0.0;  // invalid: bridged by every arm
    holes[6].z = 0.0001;             // valid as a corner (>= 0.0001) but never on an arm (> 0.0001)
    const struct {
        const char* what;
        std::vector<SKesp3DPosition> profile;
        SHX_lineRightAngleParam p[4];
        const char* want;
    } cases[] = {
        {"foot: 19..21 pass (flat before, wall rising after), a run of type 10 whose middle is the foot; top: 59..61 "
         "(wall before, flat after, above the wall's far end), type 12",
         cleanStep(), {ok, ok, ok, ok}, "10@20 12@60 "},
        {"reversed: the top has the flat before and a falling wall after (9), the foot a wall before and the flat "
         "after, not above the wall's far end (11)",
         reversed(cleanStep()), {ok, ok, ok, ok}, "9@20 11@60 "},
        {"type 9 does not take the third record's tolerance", reversed(cleanStep()), {ok, ok, exact, ok},
         "9@20 11@60 "},
        {"it takes the first record's; the point is then finished, not tried as a wall-before corner",
         reversed(cleanStep()), {exact, ok, ok, ok}, "11@60 "},
        {"type 11 takes the fourth record's tolerance", reversed(cleanStep()), {ok, ok, ok, exact}, "9@20 "},
        {"screening uses the largest tolerance (0.5, second record); type 10 then fails on the first record's 0.2 "
         "for the points whose arm deviates by 0.25; the foot itself stays",
         cleanStep(), {tight, kind(2, 2, 0.5), tight, tight}, "10@20 12@60 "},
        {"a larger own reach for type 10 sees the flat top from the foot's wall arm, whose |dy| spoils it",
         cleanStep(), {kind(2, 12, 0.5), ok, ok, ok}, "12@60 "},
        {"an adjacent backward arm picks the last marked point of the run: 10 on 19..23, 12 on 24..25", sparse,
         {ok, ok, ok, ok}, "10@23 12@24 "},
        {"a flat line has no wall; end points have no far end", flat, {ok, ok, ok, ok}, ""},
        {"a short step whose corner points lack far ends", {pt(0, 0, 10), pt(0, 0.25, 10), pt(0, 0.25, 11)},
         {ok, ok, ok, ok}, ""},
        {"point 6 sits 10 below its neighbours: both arms end at once with maxima -1 and the next point rises above "
         "it, a type-10 corner by the rules; the real corners are unchanged",
         holes, {ok, ok, ok, ok}, "10@6 10@20 12@60 "},
    };
    for (const auto& c : cases) EXPECT_EQ(show(detect(c.profile, c.p[0], c.p[1], c.p[2], c.p[3])), c.want) << c.what;
    // A count of 0 or below: nothing; the features are appended to.
    const auto v = cleanStep();
    SHX_lineFeature lf;
    lf.features.resize(1);
    hx_getLineRigthAngleFeature(v.data(), 0, 0, ok, ok, ok, ok, &lf);
    hx_getLineRigthAngleFeature(v.data(), -4, 0, ok, ok, ok, ok, &lf);
    EXPECT_EQ(lf.features.size(), 1u);
    hx_getLineRigthAngleFeature(v.data(), static_cast<int32_t>(v.size()), 0, ok, ok, ok, ok, &lf);
    EXPECT_EQ(lf.features.size(), 3u);
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
    // Coarse staircases of flats and walls with noise, missing points and
    // heights right at the validity threshold; and fine, even sampling with
    // short reaches, where the screening walks several points on both sides
    // before anything decides and missing points or walls interrupt it.
    testutil::Rng rng(99);
    size_t found = 0;
    for (int trial = 0; trial < 800; ++trial) {
        const bool dense = trial >= 500;
        std::vector<SKesp3DPosition> v;
        double y = 0, z = dense ? 20 : 10;
        const int n = static_cast<int>(dense ? rng.integer(20, 300) : rng.integer(0, 150));
        for (int i = 0; i < n; ++i) {
            double zz;
            if (dense) {
                if (rng.integer(0, 25) == 0) {
                    const double to = z + rng.uniform(-6, 6);
                    for (int k = 1; k < 8; ++k) v.push_back(pt(0, y, z + (to - z) * k / 8.0));
                    z = to;
                }
                y += 0.1;
                zz = rng.integer(0, 60) == 0 ? 0.0 : z + rng.uniform(-0.005, 0.005);
            } else {
                if (rng.integer(0, 3) == 0) z += rng.uniform(-1.5, 1.5);  // wall step
                else y += rng.uniform(0.05, 0.6);                          // flat step
                zz = z + rng.uniform(-0.05, 0.05);
                const int64_t r = rng.integer(0, 20);
                if (r == 0) zz = 0.0;
                if (r == 1) zz = 0.0001;
            }
            v.push_back(pt(0, dense ? y : y + rng.uniform(-0.05, 0.05), zz));
        }
        SHX_lineRightAngleParam p[4];
        for (auto& k : p)
            k = dense ? kind(rng.uniform(0.3, 1.2), rng.uniform(0.3, 1.2), rng.uniform(0.05, 0.4))
                      : kind(rng.uniform(0.2, 2.5), rng.uniform(0.2, 2.5), rng.uniform(0.05, 0.6));
        const auto got = detect(v, p[0], p[1], p[2], p[3]);
        ASSERT_EQ(show(got), show(plainRightAngles(v, p))) << "trial " << trial;
        found += dense ? got.size() : 0;
    }
    EXPECT_GT(found, 100u);  // the dense profiles do hold corners
}
