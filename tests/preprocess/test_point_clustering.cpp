// Point clustering by x-y distance.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::pt;
using Cluster = std::vector<SKesp3DPosition>;
using Clusters = std::vector<Cluster>;

namespace {

const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

int32_t lowWord(int64_t idx) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(idx))); }
bool isTaken(const SKesp3DPosition& p) { return lowWord(p.nPointIdx) < 0; }
void markTaken(SKesp3DPosition& p) {
    p.nPointIdx = static_cast<int64_t>((static_cast<uint64_t>(p.nPointIdx) & 0xFFFFFFFF00000000ull) | 0xFFFFFFFFull);
}

// The clustering written out plainly: seed, grow by visiting every input
// point for every cluster point, erase the taken points from the back.
void referenceClustering(std::vector<SKesp3DPosition>& in, double th, Clusters& out) {
    while (!in.empty()) {
        Cluster cluster{in[0]};
        markTaken(in[0]);
        for (size_t k = 0; k < cluster.size(); ++k) {
            const SKesp3DPosition q = cluster[k];
            for (auto& p : in) {
                if (isTaken(p)) continue;
                const double d = std::sqrt((q.x - p.x) * (q.x - p.x) + (q.y - p.y) * (q.y - p.y));
                if (th > d) {
                    cluster.push_back(p);
                    markTaken(p);
                }
            }
        }
        out.push_back(cluster);
        for (size_t i = in.size(); i-- > 0;)
            if (isTaken(in[i])) in.erase(in.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

bool sameBits(const SKesp3DPosition& a, const SKesp3DPosition& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

::testing::AssertionResult sameClusters(const Clusters& got, const Clusters& want) {
    if (got.size() != want.size())
        return ::testing::AssertionFailure() << got.size() << " clusters, expected " << want.size();
    for (size_t c = 0; c < got.size(); ++c) {
        if (got[c].size() != want[c].size())
            return ::testing::AssertionFailure() << "cluster " << c << " has " << got[c].size() << " points, expected "
                                                 << want[c].size();
        for (size_t k = 0; k < got[c].size(); ++k)
            if (!sameBits(got[c][k], want[c][k]))
                return ::testing::AssertionFailure() << "cluster " << c << " point " << k << " differs";
    }
    return ::testing::AssertionSuccess();
}

// Runs both versions on copies of pts and compares; the input must end empty.
::testing::AssertionResult matchesReference(const std::vector<SKesp3DPosition>& pts, double th) {
    std::vector<SKesp3DPosition> a = pts, b = pts;
    Clusters got, want;
    hx_pointClustering(a, th, got);
    referenceClustering(b, th, want);
    if (!a.empty()) return ::testing::AssertionFailure() << "input not emptied";
    return sameClusters(got, want);
}

// Indices (nPointIdx) of each cluster, for hand-worked expectations.
std::vector<std::vector<int64_t>> indicesOf(const Clusters& cs) {
    std::vector<std::vector<int64_t>> r;
    for (const auto& c : cs) {
        r.emplace_back();
        for (const auto& p : c) r.back().push_back(p.nPointIdx);
    }
    return r;
}

using Ids = std::vector<std::vector<int64_t>>;

}  // namespace

TEST(PointClustering, HandWorkedClusters) {
    using Pts = std::vector<SKesp3DPosition>;
    const Pts dup{pt(1, 1, 1, 0), pt(1, 1, 1, 1), pt(1.5, 1, 1, 2), pt(1, 1, 1, -1)};
    const struct {
        const char* what;
        Pts in;
        double th;
        Ids want;  // nPointIdx of each cluster, in order
    } cases[] = {
        {"0 reaches 3, 3 reaches 2; 1 and 4 form the second cluster",
         {pt(0, 0, 1, 0), pt(5, 0, 1, 1), pt(2, 0, 1, 2), pt(1, 0, 1, 3), pt(5.5, 0, 1, 4)}, 1.5, {{0, 3, 2}, {1, 4}}},
        {"points join in the order reached: 0 takes 2 first, only 2 reaches 1",
         {pt(0, 0, 1, 0), pt(2, 0, 1, 1), pt(1, 0, 1, 2)}, 1.5, {{0, 2, 1}}},
        {"a cluster point takes all its untaken neighbours in input order before the next is looked at",
         {pt(0, 0, 1, 0), pt(0, 1, 1, 1), pt(0, 2, 1, 2), pt(1, 0, 1, 3), pt(-1, 0, 1, 4)}, 1.2, {{0, 1, 3, 4, 2}}},
        {"3-4-5: exactly the threshold apart is not joined", {pt(0, 0, 1, 0), pt(3, 4, 1, 1)}, 5.0, {{0}, {1}}},
        {"just above it is", {pt(0, 0, 1, 0), pt(3, 4, 1, 1)}, std::nextafter(5.0, 6.0), {{0, 1}}},
        {"z plays no part; points without a measurement are clustered too",
         {pt(0, 0, 0.0, 0), pt(0.1, 0, 500.0, 1), pt(0.2, 0, -3.0, 2)}, 0.15, {{0, 1, 2}}},
        {"threshold 0: duplicates are not joined (0 is not below 0); the marked point is dropped", dup, 0.0,
         {{0}, {1}, {2}}},
        {"negative threshold", dup, -1.0, {{0}, {1}, {2}}},
        {"-inf", dup, -kInf, {{0}, {1}, {2}}},
        {"NaN", dup, kNaN, {{0}, {1}, {2}}},
    };
    for (const auto& c : cases) {
        Pts in = c.in;
        Clusters out;
        hx_pointClustering(in, c.th, out);
        EXPECT_TRUE(in.empty()) << c.what;
        EXPECT_EQ(indicesOf(out), c.want) << c.what;
    }
}

TEST(PointClustering, TakenMarks) {
    const int64_t markedHigh = 0x0000000180000000LL;   // low word INT32_MIN: taken
    const int64_t unmarkedHigh = 0x7FFFFFFF00000007LL;  // low word 7: free
    const int64_t markedFirst = -5;
    std::vector<SKesp3DPosition> v{pt(0, 0, 1, markedFirst), pt(0.5, 0, 1, markedHigh), pt(1, 0, 1, unmarkedHigh),
                                   pt(9, 0, 1, -1), pt(20, 0, 1, 3)};
    Clusters out{{pt(7, 7, 7, 77)}};  // appended to, not replaced
    hx_pointClustering(v, 0.8, out);
    EXPECT_TRUE(v.empty());
    // The marked first point is still a seed and keeps its word; the marked
    // point between it and point 2 is dropped, so the chain breaks.
    EXPECT_EQ(indicesOf(out), (Ids{{77}, {markedFirst}, {unmarkedHigh}, {3}}));

    // A marked point never seeds, even when it is the only one left.
    std::vector<SKesp3DPosition> w{pt(0, 0, 1, 0), pt(50, 0, 1, -1)};
    Clusters out2;
    hx_pointClustering(w, 1.0, out2);
    EXPECT_EQ(indicesOf(out2), (Ids{{0}}));
}

TEST(PointClustering, EmptyInputLeavesOutputAlone) {
    std::vector<SKesp3DPosition> v;
    Clusters out{{pt(1, 2, 3, 4)}};
    hx_pointClustering(v, 1.0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0][0].nPointIdx, 4);
}

TEST(PointClustering, HugeAndInfiniteThresholdsMakeOneCluster) {
    testutil::Rng rng(7);
    std::vector<SKesp3DPosition> v;
    for (int i = 0; i < 20000; ++i) v.push_back(pt(rng.uniform(-1e6, 1e6), rng.uniform(-1e3, 1e3), 1, i));
    for (double th : {kInf, 1e300, std::numeric_limits<double>::max()}) {
        std::vector<SKesp3DPosition> in = v;
        Clusters out;
        hx_pointClustering(in, th, out);
        ASSERT_EQ(out.size(), 1u);
        // The seed takes every point in its own pass, so input order is kept.
        ASSERT_EQ(out[0].size(), v.size());
        for (size_t i = 0; i < v.size(); ++i) EXPECT_TRUE(sameBits(out[0][i], v[i]));
    }
}

TEST(PointClustering, OverflowingExtent) {
    // The extent 2e308 overflows; distances across it are infinite, so even
    // an infinite threshold joins only the points near each other.
    const double big = std::numeric_limits<double>::max();
    const std::vector<SKesp3DPosition> v{pt(-big, 0, 1, 0), pt(big, 0, 1, 1), pt(0, 0, 1, 2),
                                         pt(big, -big, 1, 3), pt(1, 1, 1, 4),  pt(-big, 1, 1, 5)};
    for (double th : {kInf, 1.5, big}) EXPECT_TRUE(matchesReference(v, th)) << "threshold " << th;
    std::vector<SKesp3DPosition> in = v;
    Clusters out;
    hx_pointClustering(in, kInf, out);
    EXPECT_EQ(indicesOf(out), (Ids{{0, 5}, {1}, {2, 4}, {3}}));  // 1 and 3 are big apart in y
}

TEST(PointClustering, NonFiniteCoordinatesJoinNothing) {
    std::vector<SKesp3DPosition> v{pt(kNaN, 0, 1, 0), pt(0, 0, 1, 1), pt(kInf, 0, 1, 2), pt(0.1, kNaN, 1, 3),
                                   pt(0.2, 0, 1, 4),  pt(-kInf, kInf, 1, 5)};
    for (double th : {1.0, kInf}) {
        std::vector<SKesp3DPosition> in = v;
        Clusters out;
        hx_pointClustering(in, th, out);
        EXPECT_EQ(indicesOf(out), (Ids{{0}, {1, 4}, {2}, {3}, {5}})) << "threshold " << th;
        EXPECT_TRUE(matchesReference(v, th));
    }
}

// Integer coordinates give many duplicates and many pairs exactly 1, 2 or 5
// apart; pre-marks and every kind of threshold are mixed in.
TEST(PointClustering, MatchesPlainDefinitionOnGridPoints) {
    testutil::Rng rng(11);
    const double thresholds[] = {0.0, 1.0, 2.0, 5.0, 1.5, std::sqrt(2.0), 0.5, 3.0, kInf, kNaN, -2.0};
    for (int trial = 0; trial < 3000; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 120));
        const int span = static_cast<int>(rng.integer(1, 40));
        std::vector<SKesp3DPosition> v;
        for (int i = 0; i < n; ++i) {
            const int64_t idx = rng.integer(0, 9) == 0 ? -static_cast<int64_t>(rng.integer(1, 3)) : i;
            v.push_back(pt(static_cast<double>(rng.integer(0, span)), static_cast<double>(rng.integer(0, span)),
                           rng.uniform(0, 2), idx));
        }
        const double th = thresholds[rng.integer(0, 10)];
        ASSERT_TRUE(matchesReference(v, th)) << "trial " << trial << " threshold " << th;
    }
}

// Real coordinates: offsets far from the origin, clustered blobs, extents far
// larger than the threshold, and thresholds so small that squared differences
// underflow (such points compute as 0 apart and must still be joined).
TEST(PointClustering, MatchesPlainDefinitionOnRealPoints) {
    testutil::Rng rng(12);
    for (int trial = 0; trial < 2000; ++trial) {
        const int n = static_cast<int>(rng.integer(1, 150));
        const int kind = static_cast<int>(rng.integer(0, 3));
        double th = rng.uniform(0.01, 3.0);
        std::vector<SKesp3DPosition> v;
        for (int i = 0; i < n; ++i) {
            double x = 0.0, y = 0.0;
            if (kind == 0) {  // blobs far from the origin
                const double cx = 1e6 + 10.0 * static_cast<double>(rng.integer(0, 4));
                x = cx + rng.uniform(-2, 2);
                y = -5e5 + rng.uniform(-2, 2);
            } else if (kind == 1) {  // extent of 1e9 around close pairs
                x = rng.uniform(-1e9, 1e9);
                y = rng.uniform(-1e9, 1e9);
                if (i > 0 && rng.integer(0, 2) == 0) {
                    x = v.back().x + rng.uniform(-1e-3, 1e-3);
                    y = v.back().y;
                }
                th = 1e-3;
            } else if (kind == 2) {  // underflowing distances
                x = 1e-170 * static_cast<double>(rng.integer(0, 5));
                y = rng.integer(0, 3) == 0 ? 1.0 : 0.0;
                th = 1e-300;
            } else {  // plain square
                x = rng.uniform(0, 20);
                y = rng.uniform(0, 20);
            }
            v.push_back(pt(x, y, 1.0, rng.integer(0, 12) == 0 ? -1 : i));
        }
        ASSERT_TRUE(matchesReference(v, th)) << "trial " << trial << " kind " << kind;
    }
}
