// Moving-average smoothing, whole line and segment by segment.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::profileFromZ;
using testutil::pt;
using Line = std::vector<SKesp3DPosition>;

namespace {

const double kRelTol = 1e-12;

bool counts(double z) { return z > 0.0001; }

// The mean written out plainly: every window summed afresh, in index order.
Line plainSmoothing(const Line& in, int winSize) {
    Line out = in;
    const int n = static_cast<int>(in.size());
    const int half = winSize / 2;
    for (int i = 0; i < n; ++i) {
        if (!counts(in[i].z)) continue;
        double sum = 0.0;
        int cnt = 0;
        for (int j = i - half; j <= i + half; ++j) {
            if (j < 0 || j >= n || !counts(in[j].z)) continue;
            sum += in[j].z;
            ++cnt;
        }
        out[i].z = sum / cnt;
    }
    return out;
}

// Segmentation written out plainly: segments as lists, each valid point
// compared with the last point appended to the current segment.
Line plainSegSmoothing(const Line& in, double maxStepY, double maxStepZ, int winSize) {
    std::vector<Line> segments;
    Line current;
    bool seenValid = false;
    for (const auto& p : in) {
        if (!counts(p.z)) {
            current.push_back(p);
            continue;
        }
        if (!seenValid) {
            seenValid = true;
            current.push_back(p);
            continue;
        }
        const auto& last = current.back();
        if (std::fabs(p.y - last.y) > maxStepY || std::fabs(p.z - last.z) > maxStepZ) {
            segments.push_back(current);
            current = {p};
        } else {
            current.push_back(p);
        }
    }
    if (!current.empty()) segments.push_back(current);
    Line out;
    for (const auto& s : segments) {
        const Line sm = plainSmoothing(s, winSize);
        out.insert(out.end(), sm.begin(), sm.end());
    }
    return out;
}

std::vector<double> heights(const Line& v) {
    std::vector<double> z;
    for (const auto& p : v) z.push_back(p.z);
    return z;
}

// Same records except z, which must agree within kRelTol (or both be the same
// non-finite value).
::testing::AssertionResult closeLines(const Line& got, const Line& want) {
    if (got.size() != want.size()) return ::testing::AssertionFailure() << "length " << got.size() << " vs " << want.size();
    for (size_t i = 0; i < got.size(); ++i) {
        const auto &a = got[i], &b = want[i];
        if (a.nPointIdx != b.nPointIdx || std::memcmp(&a.x, &b.x, sizeof a.x) != 0 ||
            std::memcmp(&a.y, &b.y, sizeof a.y) != 0)
            return ::testing::AssertionFailure() << "point " << i << " changed beyond z";
        const bool same = std::isfinite(b.z) ? std::fabs(a.z - b.z) <= kRelTol * std::fabs(b.z)
                                             : (std::isnan(b.z) ? std::isnan(a.z) : a.z == b.z);
        if (!same) return ::testing::AssertionFailure() << "z at " << i << ": " << a.z << " vs " << b.z;
    }
    return ::testing::AssertionSuccess();
}

// A profile with runs of missing points, points at exactly 0.0001, and
// heights from `offset` with the given spread.
Line randomLine(testutil::Rng& rng, int n, double offset, double spread) {
    Line v;
    for (int i = 0; i < n; ++i) {
        double z = offset + rng.uniform(-spread, spread);
        const auto r = rng.integer(0, 19);
        if (r == 0) z = 0.0;
        if (r == 1) z = 0.0001;
        v.push_back(pt(rng.uniform(-1, 1), i * 0.05 + rng.uniform(0, 0.2), z, i));
    }
    return v;
}

}  // namespace

TEST(Smoothing, HandWorkedWindows) {
    const Line ramp = profileFromZ({1, 2, 3, 4, 5, 6});
    const Line odd = profileFromZ({3, 0, 7, 1e6, 0.00005});
    Line ySteps = profileFromZ({1, 2, 3, 4});
    ySteps[2].y = 5.0;  // a step of 4 from y = 1
    ySteps[3].y = 6.0;  // a step of 1
    const double whole = -1.0;  // maxStepY of a whole-line smoothing row
    const struct {
        const char* what;
        Line in;
        int window;
        double maxStepY, maxStepZ;
        std::vector<double> want;
    } cases[] = {
        {"half 1; the invalid point and the point at exactly 0.0001 neither change nor enter a mean",
         profileFromZ({1, 2, 0, 4, 0.0001, 6}), 3, whole, 0, {1.5, 1.5, 0, 4, 0.0001, 6}},
        {"the span is clipped at the ends, not shifted", ramp, 5, whole, 0, {2, 2.5, 3, 4, 4.5, 5}},
        {"an even window 4 has half 2", ramp, 4, whole, 0, {2, 2.5, 3, 4, 4.5, 5}},
        {"a window longer than the line averages all valid points", ramp, std::numeric_limits<int32_t>::max(), whole,
         0, {3.5, 3.5, 3.5, 3.5, 3.5, 3.5}},
        {"window 1 changes nothing", odd, 1, whole, 0, {3, 0, 7, 1e6, 0.00005}},
        {"nor window 0", odd, 0, whole, 0, {3, 0, 7, 1e6, 0.00005}},
        {"nor window -1", odd, -1, whole, 0, {3, 0, 7, 1e6, 0.00005}},
        {"segments: a z step above maxStepZ splits the line", profileFromZ({1, 2, 3, 10, 11, 12}), 3, 100.0, 5.0,
         {1.5, 2, 2.5, 10.5, 11, 11.5}},
        {"a y step above maxStepY splits too, a step equal to it does not", ySteps, 3, 1.0, 100.0,
         {1.5, 1.5, 3.5, 3.5}},
        {"a gap compares as height 0: |6 - 0| > 3 cuts into {2, 4, 0} and {6, 8}", profileFromZ({2, 4, 0, 6, 8}), 5,
         100.0, 3.0, {3, 3, 0, 7, 7}},
        {"with a larger z step the gap does not cut", profileFromZ({2, 4, 0, 6, 8}), 5, 100.0, 10.0, {3, 4, 0, 6, 7}},
        {"leading missing points head the first segment; the first valid point is not compared with them",
         profileFromZ({0, 0, 3, 3.5}), 5, 100.0, 1.0, {0, 0, 3.25, 3.25}},
    };
    for (const auto& c : cases) {
        Line out{pt(9, 9, 9, 9)};  // replaced by the whole-line form, appended to by the segment form
        if (c.maxStepY == whole) hx_lineDataSmoothing(c.in, c.window, out);
        else hx_lineSegSmoothing(c.in, c.maxStepY, c.maxStepZ, c.window, out);
        if (c.maxStepY != whole) {
            ASSERT_EQ(out.front().z, 9.0) << c.what;
            out.erase(out.begin());
        }
        EXPECT_EQ(heights(out), c.want) << c.what;
        for (size_t i = 0; i < out.size() && i < c.in.size(); ++i)
            EXPECT_TRUE(out[i].nPointIdx == c.in[i].nPointIdx && out[i].x == c.in[i].x && out[i].y == c.in[i].y);
    }
}

TEST(LineDataSmoothing, NegativeWindowsBelowMinusOne) {
    // Outside the contract: an empty span gives 0 / 0 at valid points.
    const Line in = profileFromZ({3, 0, 7, 1e6, 0.00005});
    Line out;
    for (int win : {-2, -3, std::numeric_limits<int32_t>::min()}) {
        hx_lineDataSmoothing(in, win, out);
        EXPECT_TRUE(std::isnan(out[0].z) && std::isnan(out[2].z) && std::isnan(out[3].z)) << win;
        EXPECT_EQ(out[1].z, 0.0);
        EXPECT_EQ(out[4].z, 0.00005);
    }
}

TEST(LineDataSmoothing, EmptyAndInPlace) {
    Line out{pt(1, 1, 1)};
    hx_lineDataSmoothing(Line(), 5, out);
    EXPECT_TRUE(out.empty());

    testutil::Rng rng(3);
    Line v = randomLine(rng, 500, 50, 10);
    Line expected;
    hx_lineDataSmoothing(v, 9, expected);
    hx_lineDataSmoothing(v, 9, v);  // the means use the original heights
    EXPECT_TRUE(closeLines(v, expected));
    for (size_t i = 0; i < v.size(); ++i) ASSERT_EQ(v[i].z, expected[i].z);
}

// The running sum must not drift from the plain mean: long lines, large
// offsets, and heights spanning many magnitudes (a window leaving 1e6-high
// points must not carry their rounding into 1e-3-high ones).
TEST(LineDataSmoothing, RunningMeanMatchesPlainMean) {
    testutil::Rng rng(5);
    for (int trial = 0; trial < 60; ++trial) {
        const int n = static_cast<int>(rng.integer(1, 20000));
        Line v;
        if (trial % 3 == 0) {
            v = randomLine(rng, n, 1e6, 5.0);
        } else if (trial % 3 == 1) {
            v = randomLine(rng, n, 1e9, 1e3);
        } else {
            v = randomLine(rng, n, 1.0, 0.5);
            for (auto& p : v)
                if (counts(p.z)) p.z *= std::pow(10.0, static_cast<double>(rng.integer(-3, 7)));
        }
        const int win = static_cast<int>(rng.integer(1, 450));
        Line out;
        hx_lineDataSmoothing(v, win, out);
        ASSERT_TRUE(closeLines(out, plainSmoothing(v, win))) << "trial " << trial << " window " << win;
    }
}

TEST(LineDataSmoothing, OverflowingHeightsGiveThePlainResult) {
    // Sums of these overflow to infinity while the window holds them; the mean
    // must come back once it has passed them (and an infinite height likewise).
    Line v = profileFromZ({1, 2, 1e308, 1e308, 3, 4, 5, 6, 7, 8, 9, 10});
    v[9].z = std::numeric_limits<double>::infinity();
    Line out;
    hx_lineDataSmoothing(v, 3, out);
    const Line want = plainSmoothing(v, 3);
    EXPECT_TRUE(closeLines(out, want));
    EXPECT_EQ(out[2].z, std::numeric_limits<double>::infinity());
    EXPECT_EQ(out[5].z, 4.0);  // (3 + 4 + 5) / 3: nothing of the huge heights is left
    EXPECT_EQ(out[10].z, std::numeric_limits<double>::infinity());
    EXPECT_EQ(out[11].z, 9.5);
}

TEST(LineSegSmoothing, EmptyInputAndInPlace) {
    Line out{pt(1, 2, 3, 4)};
    hx_lineSegSmoothing(Line(), 1.0, 1.0, 5, out);
    ASSERT_EQ(out.size(), 1u);

    const Line in = profileFromZ({1, 2, 3, 10, 11, 12});
    Line v = in;
    hx_lineSegSmoothing(v, 100.0, 5.0, 3, v);  // appends the smoothed copy
    Line want = in;
    hx_lineSegSmoothing(in, 100.0, 5.0, 3, want);
    EXPECT_TRUE(closeLines(v, want));
}

TEST(LineSegSmoothing, MatchesPlainSegmentation) {
    testutil::Rng rng(9);
    for (int trial = 0; trial < 400; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 600));
        Line v = randomLine(rng, n, 100.0, 3.0);
        for (auto& p : v)
            if (rng.integer(0, 30) == 0 && counts(p.z)) p.z += 20.0;  // steps
        const double maxStepY = rng.uniform(0.05, 0.3);
        const double maxStepZ = rng.integer(0, 3) == 0 ? 200.0 : rng.uniform(1.0, 10.0);
        const int win = static_cast<int>(rng.integer(-1, 40));
        Line out{pt(1, 1, 1, 1)};
        hx_lineSegSmoothing(v, maxStepY, maxStepZ, win, out);
        Line want{pt(1, 1, 1, 1)};
        const Line segs = plainSegSmoothing(v, maxStepY, maxStepZ, win);
        want.insert(want.end(), segs.begin(), segs.end());
        ASSERT_TRUE(closeLines(out, want)) << "trial " << trial;
    }
}
