// Bounding box, line fitting and line drawing.
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "test_util.h"

using testutil::pt;

namespace {

void expectRange(const SKespRangeD& r, double mn, double mx) {
    EXPECT_EQ(r.min, mn);
    EXPECT_EQ(r.max, mx);
}

std::vector<SKesp2DPoint> draw(int x0, int y0, int x1, int y1) {
    std::vector<SKesp2DPoint> v;
    drawLine(x0, y0, x1, y1, v);
    return v;
}

void expectPoints(const std::vector<SKesp2DPoint>& v, const std::vector<std::pair<int, int>>& want) {
    ASSERT_EQ(v.size(), want.size());
    for (size_t i = 0; i < v.size(); ++i) {
        EXPECT_EQ(v[i].x, want[i].first) << "point " << i;
        EXPECT_EQ(v[i].y, want[i].second) << "point " << i;
    }
}

}  // namespace

TEST(ScanBoundingBox, HandWorkedScans) {
    using Scan = std::vector<std::vector<SKesp3DPosition>>;
    constexpr int all = 1 << 30;
    const struct {
        const char* what;
        Scan scan;
        int count;          // lines passed; `all`: every line, through both forms
        double want[3][2];  // x, y, z ranges
    } cases[] = {
        {"no valid point: empty ranges {0, -1}", {{pt(1, 2, 0.0), pt(3, 4, 0.0000999)}, {}}, all,
         {{0, -1}, {0, -1}, {0, -1}}},
        {"no line", {{pt(1, 2, 3)}}, 0, {{0, -1}, {0, -1}, {0, -1}}},
        {"a negative line count", {{pt(1, 2, 3)}}, -5, {{0, -1}, {0, -1}, {0, -1}}},
        {"z exactly 0.0001 is valid, just below is not", {{pt(-7, 2, 0.0000999), pt(5, -3, 0.0001)}}, all,
         {{5, 5}, {-3, -3}, {0.0001, 0.0001}}},
        {"negative coordinates, an empty line",
         {{pt(-1, 10, 2), pt(100, 100, 0.0), pt(3, -4, 5)}, {}, {pt(-2, 0, 1.5), pt(0, 7, 9)}},
         all, {{-2, 3}, {-4, 10}, {1.5, 9}}},
        {"only the first line counted", {{pt(-1, 10, 2), pt(100, 100, 0.0), pt(3, -4, 5)}, {pt(-2, 0, 1.5)}}, 1,
         {{-1, 3}, {-4, 10}, {2, 5}}},
    };
    for (const auto& c : cases) {
        Scan scan = c.scan;
        auto lines = testutil::linesOf(scan);
        const int32_t count = c.count == all ? static_cast<int32_t>(lines.size()) : c.count;
        std::vector<SKesp3DRangeD> boxes{hx_getScanDataROI(lines.data(), count)};
        if (c.count == all) boxes.push_back(hx_getScanDataROI_vector(scan));
        for (const SKesp3DRangeD& box : boxes) {
            const SKespRangeD* r[3] = {&box.xRange, &box.yRange, &box.zRange};
            for (int a = 0; a < 3; ++a)
                EXPECT_TRUE(r[a]->min == c.want[a][0] && r[a]->max == c.want[a][1]) << c.what << ", axis " << a;
        }
    }
    // A negative count is an empty line.
    Scan scan{{pt(-1, 10, 2)}, {pt(50, 50, 50)}, {pt(-2, 0, 1.5)}};
    auto lines = testutil::linesOf(scan);
    lines[1].nPositionCnt = -3;
    expectRange(hx_getScanDataROI(lines.data(), 3).xRange, -2, -1);
}

TEST(ScanBoundingBox, MatchesPlainRangeGrowingOnRandomScans) {
    testutil::Rng rng(7);
    for (int trial = 0; trial < 50; ++trial) {
        std::vector<std::vector<SKesp3DPosition>> scan(static_cast<size_t>(rng.integer(0, 6)));
        for (auto& line : scan) {
            line.resize(static_cast<size_t>(rng.integer(0, 40)));
            for (auto& p : line) {
                p = pt(rng.uniform(-50, 50), rng.uniform(-50, 50), rng.integer(0, 3) == 0 ? 0.0 : rng.uniform(-5, 50));
            }
        }
        // Plain reference: the growing rule applied point by point.
        SKespRangeD r[3] = {{0, -1}, {0, -1}, {0, -1}};
        for (const auto& line : scan)
            for (const auto& p : line) {
                if (!(p.z >= 0.0001)) continue;
                const double v[3] = {p.x, p.y, p.z};
                for (int a = 0; a < 3; ++a) {
                    if (r[a].min > r[a].max) {
                        r[a].min = r[a].max = v[a];
                    } else {
                        if (v[a] < r[a].min) r[a].min = v[a];
                        if (v[a] > r[a].max) r[a].max = v[a];
                    }
                }
            }
        auto lines = testutil::linesOf(scan);
        const SKesp3DRangeD box = hx_getScanDataROI(lines.data(), static_cast<int32_t>(lines.size()));
        expectRange(box.xRange, r[0].min, r[0].max);
        expectRange(box.yRange, r[1].min, r[1].max);
        expectRange(box.zRange, r[2].min, r[2].max);
    }
}

TEST(LineFitting, ExactLineAndDegenerateInput) {
    std::vector<SKesp3DPoint> pts{{0, 1, 9}, {1, 3, -4}, {2, 5, 0}};
    double k = 0, b = 0;
    lineFitting(pts, &k, &b);
    EXPECT_DOUBLE_EQ(k, 2.0);
    EXPECT_DOUBLE_EQ(b, 1.0);

    // Least squares through (0,0), (1,1), (2,1): k = 0.5, b = 1/6.
    std::vector<SKesp3DPoint> noisy{{0, 0, 0}, {1, 1, 0}, {2, 1, 0}};
    lineFitting(noisy, &k, &b);
    EXPECT_NEAR(k, 0.5, 1e-15);
    EXPECT_NEAR(b, 1.0 / 6.0, 1e-15);

    std::vector<SKesp3DPoint> one{{3, 4, 0}};
    lineFitting(one, &k, &b);
    EXPECT_FALSE(std::isfinite(k));
    EXPECT_FALSE(std::isfinite(b));

    std::vector<SKesp3DPoint> vertical{{2, 1, 0}, {2, 5, 0}};
    lineFitting(vertical, &k, &b);
    EXPECT_FALSE(std::isfinite(k));

    std::vector<SKesp3DPoint> none;
    lineFitting(none, &k, &b);
    EXPECT_TRUE(std::isnan(k));
    EXPECT_TRUE(std::isnan(b));
}

TEST(DrawLine, BresenhamRuns) {
    expectPoints(draw(0, 0, 3, 1), {{0, 0}, {1, 0}, {2, 1}, {3, 1}});
    expectPoints(draw(3, 1, 0, 0), {{3, 1}, {2, 1}, {1, 0}, {0, 0}});
    expectPoints(draw(2, 2, 2, 2), {{2, 2}});
    expectPoints(draw(0, 0, 0, -3), {{0, 0}, {0, -1}, {0, -2}, {0, -3}});
    expectPoints(draw(0, 0, 2, 2), {{0, 0}, {1, 1}, {2, 2}});
    // Steep: err = 1 - 3 = -2; steps worked by hand.
    expectPoints(draw(0, 0, 1, 3), {{0, 0}, {0, 1}, {1, 2}, {1, 3}});
    // Appended after what the vector held.
    std::vector<SKesp2DPoint> v{{9, 9}};
    drawLine(-1, 0, 1, 0, v);
    expectPoints(v, {{9, 9}, {-1, 0}, {0, 0}, {1, 0}});
}
