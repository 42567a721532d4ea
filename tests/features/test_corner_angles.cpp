// The direction angles shared by the corner and jump detectors, with the
// portable search along the polyline and the AVX2 group search side by side:
// neighbours, extrema and approximate corner angles against the plain
// version on profiles built to exercise the skips, the group searches, the
// searches of single points and the path bounds.
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "../../src/features/corner_angles_kernel.h"
#include "corner_reference.h"
#include "test_util.h"

using pa_detail::CornerAngleList;

namespace {

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Profiles of one kind: 0 evenly spaced and smooth, 1 flats and steps, 2 runs
// of invalid points, 3 repeated points, 4 vertical walls, 5 non-finite
// coordinates, 6 a mix of all, 7 a straight line (distances equal the
// polyline, so the path bound of long searches is tight).
std::vector<SKesp3DPosition> profile(testutil::Rng& rng, int kind, int n, double pitch) {
    std::vector<SKesp3DPosition> p;
    double y = 0, z = rng.uniform(5, 50);
    const double inf = std::numeric_limits<double>::infinity();
    for (int i = 0; i < n; ++i) {
        const int k = kind == 6 ? static_cast<int>(rng.integer(0, 5)) : kind;
        if (k == 7) z += 0.5 * pitch;
        bool advance = true;
        if (k == 0) z += rng.uniform(-0.3, 0.3) * pitch;
        if (k == 1) z += rng.integer(0, 30) == 0 ? rng.uniform(-20, 20) : rng.uniform(-0.05, 0.05) * pitch;
        if (k == 2 || k == 5 || k == 6) z += rng.uniform(-0.5, 0.5) * pitch;
        if (k == 3 && (advance = rng.integer(0, 3) != 0)) z += rng.uniform(-0.5, 0.5) * pitch;
        if (k == 4) {
            advance = rng.integer(0, 4) != 0;
            z += advance ? rng.uniform(-0.2, 0.2) * pitch : rng.uniform(0.5, 3.0) * pitch;
        }
        if (advance) y += pitch;
        double zi = z, yi = y;
        if (k == 2 && rng.integer(0, 15) == 0) zi = 0.0;
        if (k == 5 && rng.integer(0, 40) == 0) {
            const double bad[] = {std::nan(""), inf, -inf, 1e300};
            if (rng.integer(0, 1)) yi = bad[rng.integer(0, 3)];
            else zi = bad[rng.integer(0, 3)];
        }
        p.push_back(testutil::pt(i, yi, zi, i));
    }
    return p;
}

double armFor(testutil::Rng& rng, double pitch) {
    switch (rng.integer(0, 11)) {
        case 0: return 0.0;
        case 1: return 1e-300;
        case 2: return pitch * 0.3;
        case 3: return 1e6;
        case 4: return std::numeric_limits<double>::infinity();
        case 5: return -1.0;
        case 6: return pitch * 40;
        case 8: return pitch * rng.uniform(60, 200);  // far past the group reach
        case 7: return pitch * static_cast<double>(rng.integer(1, 14));  // exactly k pitches: ties at the arm
        default: return pitch * rng.uniform(0.5, 16);
    }
}

void expectSameList(const pa_detail::CornerIndexList& got, const std::vector<int>& want, const char* what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(got[i], want[i]) << what << " " << i;
}

// Both kernels against the plain version: neighbours, the z of the
// neighbours, maxima and minima (minima and segments only when asked for);
// the approximate corner angles equal bit for bit between the kernels and lie
// within the tolerance of the exact ones.
void expectKernelsMatch(const std::vector<SKesp3DPosition>& p, double jumpZ, double armLen, bool full) {
    const int n = static_cast<int>(p.size());
    const cornerref::Angles ref = cornerref::angles(p.data(), n, armLen);
    const std::vector<cornerref::Seg> segments = cornerref::segments(p.data(), n, jumpZ);
    const bool avx2 = pa_detail::avx2KernelsUsable();
    CornerAngleList lists[2];
    for (int useAvx2 = 0; useAvx2 <= (avx2 ? 1 : 0); ++useAvx2) {
        SCOPED_TRACE(useAvx2 ? "avx2" : "portable");
        CornerAngleList& list = lists[useAvx2];
        std::vector<pa_detail::CornerSegment> segs;
        list.build(p.data(), n, jumpZ, armLen, full, full ? &segs : nullptr, useAvx2 != 0);
        ASSERT_EQ(list.size(), static_cast<int32_t>(ref.pts.size()));
        if (full) {
            ASSERT_EQ(segs.size(), segments.size());
            for (size_t s = 0; s < segs.size(); ++s) {
                EXPECT_EQ(segs[s].startIdx, segments[s].start) << s;
                EXPECT_EQ(segs[s].ptNum, segments[s].num) << s;
            }
        }
        for (int32_t k = 0; k < list.size(); ++k) {
            const cornerref::Entry& e = ref.list[static_cast<size_t>(k)];
            ASSERT_EQ(list.inputIndex(k), ref.pts[static_cast<size_t>(k)].nPointIdx) << k;
            ASSERT_EQ(list.backward(k), e.back) << k;
            ASSERT_EQ(list.forward(k), e.fwd) << k;
            if (e.back < 0 || !full) continue;
            EXPECT_TRUE(sameBits(list.backwardZ(k), e.backwardZ)) << k;
            EXPECT_TRUE(sameBits(list.forwardZ(k), e.forwardZ)) << k;
            if (std::isfinite(e.cornerAngle) && std::isfinite(list.approxCorner(k)))
                EXPECT_NEAR(list.approxCorner(k), e.cornerAngle, 2 * CornerAngleList::kAngleTol) << k;
        }
        expectSameList(list.maxima(), std::vector<int>(ref.maxima.begin(), ref.maxima.end()), "maxima");
        if (full) expectSameList(list.minima(), std::vector<int>(ref.minima.begin(), ref.minima.end()), "minima");
        else EXPECT_EQ(list.minima().size(), 0u);
    }
    for (int32_t k = 0; avx2 && full && k < lists[0].size(); ++k)
        if (lists[0].backward(k) >= 0) EXPECT_TRUE(sameBits(lists[0].approxCorner(k), lists[1].approxCorner(k))) << k;
}

}  // namespace

TEST(CornerAngles, KernelsMatchPlainVersion) {
    testutil::Rng rng(23);
    for (int trial = 0; trial < 1500; ++trial) {
        const int kind = trial % 8;
        const int n = static_cast<int>(rng.integer(0, trial % 10 == 0 || kind == 7 ? 900 : 160));
        const double pitch = rng.integer(0, 3) == 0 ? 0.1 : rng.uniform(0.01, 2);
        const std::vector<SKesp3DPosition> p = profile(rng, kind, n, pitch);
        const double armLen = armFor(rng, pitch);
        // Small cuts split the runs often, so that blocks of four fall back to single points.
        const double jumpZ = trial % 3 == 0 ? pitch * 0.1 : 1.0;
        SCOPED_TRACE(testing::Message() << "trial " << trial << " kind " << kind << " n " << n << " arm " << armLen);
        expectKernelsMatch(p, jumpZ, armLen, true);
    }
    // Long evenly spaced lines with steps, as a scanner delivers them, maxima
    // only: most groups settle in their first round, the points next to a step
    // search alone.
    for (int trial = 0; trial < 40; ++trial) {
        std::vector<SKesp3DPosition> p;
        for (int j = 0; j < 2048; ++j) {
            double z = 100.0 + 5.0 * std::sin(j * 0.015) + (j % 300 < 40 ? 8.0 : 0.0) + rng.uniform(-0.01, 0.01);
            if ((j + 7 * trial) % 211 < 4) z = 0.0;
            p.push_back(testutil::pt(j, j * 0.1, z, j));
        }
        SCOPED_TRACE(testing::Message() << "long line " << trial);
        expectKernelsMatch(p, 1.0, trial % 4 == 0 ? 1.0 : rng.uniform(0.05, 3.0), false);
    }
}
