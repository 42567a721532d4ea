// Two-pass labelling: hand-built images, a plain two-pass reference and
// OpenCV's connected components as independent checks.
#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "profile_analysis.h"

namespace {

cv::Mat imageOf(const std::vector<std::vector<int>>& rows) {
    cv::Mat m(static_cast<int>(rows.size()), rows.empty() ? 0 : static_cast<int>(rows[0].size()), CV_8U);
    for (int r = 0; r < m.rows; ++r) {
        for (int c = 0; c < m.cols; ++c) m.at<uint8_t>(r, c) = static_cast<uint8_t>(rows[r][c]);
    }
    return m;
}

struct Labelled {
    cv::Mat labels;
    std::vector<SHX_Region> regions;
};

Labelled label(const cv::Mat& bin, int connectivity) {
    Labelled out;
    HX_TwoPassLabel(bin, out.labels, out.regions, connectivity);
    return out;
}

void expectLabels(const cv::Mat& labels, const std::vector<std::vector<int>>& want) {
    ASSERT_EQ(labels.type(), CV_32S);
    ASSERT_EQ(labels.rows, static_cast<int>(want.size()));
    for (int r = 0; r < labels.rows; ++r) {
        for (int c = 0; c < labels.cols; ++c) EXPECT_EQ(labels.at<int32_t>(r, c), want[r][c]) << r << "," << c;
    }
}

void expectRegion(const SHX_Region& g, int left, int right, int top, int bottom, int cnt, int lbl) {
    EXPECT_EQ(g.left, left);
    EXPECT_EQ(g.right, right);
    EXPECT_EQ(g.top, top);
    EXPECT_EQ(g.bottom, bottom);
    EXPECT_EQ(g.pixelCnt, cnt);
    EXPECT_EQ(g.label, lbl);
}

// The classic method written out step by step: provisional labels with a
// neighbour list and a path-compressing find, resolution, then compaction
// with records looked up by label.
Labelled referenceTwoPass(const cv::Mat& bin, int connectivity) {
    Labelled out;
    cv::Mat& L = out.labels;
    bin.convertTo(L, CV_32S);
    if (L.rows == 0) return out;
    const int rows = L.rows, cols = L.cols;
    std::vector<int> table(static_cast<size_t>((rows - 1) * (cols - 1) + 1));
    std::iota(table.begin(), table.end(), 0);
    std::function<int(int)> find = [&](int x) {
        if (table[x] == x) return x;
        table[x] = find(table[x]);
        return table[x];
    };
    int next = 2;
    for (int r = 1; r <= rows - 2; ++r) {
        for (int c = 1; c <= cols - 2; ++c) {
            if (L.at<int>(r, c) != 1) continue;
            const int left = L.at<int>(r, c - 1), up = L.at<int>(r - 1, c);
            const int upLeft = L.at<int>(r - 1, c - 1), upRight = L.at<int>(r - 1, c + 1);
            std::vector<int> nb;
            if (up > 1) nb.push_back(find(up));
            if (left > 1 && left != up) nb.push_back(find(left));
            if (connectivity == 8) {
                if (upLeft > 1 && upLeft != up && upLeft != left) nb.push_back(find(upLeft));
                if (upRight > 1 && upRight != up && upRight != left && upRight != upLeft) nb.push_back(find(upRight));
            }
            if (nb.empty()) {
                L.at<int>(r, c) = next++;
                continue;
            }
            const int smallest = *std::min_element(nb.begin(), nb.end());
            L.at<int>(r, c) = smallest;
            for (int e : nb) {
                if (e == smallest) continue;
                const int a = find(e), b = find(smallest);
                if (a != b) table[std::max(a, b)] = std::min(a, b);
            }
        }
    }
    for (int l = 2; l < next; ++l) table[l] = find(l);
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            if (L.at<int>(r, c) > 1) L.at<int>(r, c) = table[L.at<int>(r, c)];
        }
    }
    std::map<int, int> finalOf;
    std::map<int, size_t> recordOf;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            const int v = L.at<int>(r, c);
            if (v < 2) continue;
            if (!finalOf.count(v)) {
                const int f = static_cast<int>(finalOf.size()) + 2;
                finalOf[v] = f;
            }
            const int f = finalOf[v];
            L.at<int>(r, c) = f;
            if (!recordOf.count(f)) {
                recordOf[f] = out.regions.size();
                out.regions.push_back(SHX_Region{c, c, r, r, 1, f});
                continue;
            }
            SHX_Region& g = out.regions[recordOf[f]];
            g.left = std::min(g.left, c);
            g.right = std::max(g.right, c);
            g.top = std::min(g.top, r);
            g.bottom = std::max(g.bottom, r);
            ++g.pixelCnt;
        }
    }
    return out;
}

void expectSame(const Labelled& got, const Labelled& want) {
    ASSERT_EQ(got.labels.type(), CV_32S);
    ASSERT_EQ(got.labels.size(), want.labels.size());
    ASSERT_EQ(cv::countNonZero(got.labels != want.labels), 0);
    ASSERT_EQ(got.regions.size(), want.regions.size());
    for (size_t i = 0; i < got.regions.size(); ++i) {
        const SHX_Region &a = got.regions[i], &b = want.regions[i];
        ASSERT_TRUE(a.left == b.left && a.right == b.right && a.top == b.top && a.bottom == b.bottom &&
                    a.pixelCnt == b.pixelCnt && a.label == b.label)
            << "record " << i;
    }
}

// Random binary images: uniform noise of a given density, or overlapping blobs
// (discs and bars) whose shapes give U turns, holes and late unions.
cv::Mat randomBinary(std::mt19937& rng, int rows, int cols, bool blobs) {
    cv::Mat m = cv::Mat::zeros(rows, cols, CV_8U);
    if (!blobs) {
        std::uniform_real_distribution<double> u(0.0, 1.0);
        const double density = u(rng);
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < cols; ++c) m.at<uint8_t>(r, c) = u(rng) < density ? 1 : 0;
        }
        return m;
    }
    std::uniform_int_distribution<int> rr(0, std::max(0, rows - 1)), cc(0, std::max(0, cols - 1)), rad(1, 6);
    const int n = 1 + static_cast<int>(rng() % 12);
    for (int i = 0; i < n; ++i) {
        const cv::Point p(cc(rng), rr(rng));
        if (rng() % 2) {
            cv::circle(m, p, rad(rng), cv::Scalar(1), rng() % 2 ? -1 : 1);
        } else {
            cv::line(m, p, cv::Point(cc(rng), rr(rng)), cv::Scalar(1), 1);
        }
    }
    return m;
}

}  // namespace

TEST(TwoPassLabel, AllZeroImageGivesZerosAndNoRecords) {
    const Labelled out = label(cv::Mat::zeros(6, 7, CV_8U), 8);
    EXPECT_EQ(cv::countNonZero(out.labels), 0);
    EXPECT_TRUE(out.regions.empty());
}

TEST(TwoPassLabel, SinglePixelInA3x3Image) {
    const Labelled out = label(imageOf({{0, 0, 0}, {0, 1, 0}, {0, 0, 0}}), 4);
    expectLabels(out.labels, {{0, 0, 0}, {0, 2, 0}, {0, 0, 0}});
    ASSERT_EQ(out.regions.size(), 1u);
    expectRegion(out.regions[0], 1, 1, 1, 1, 1, 2);
}

TEST(TwoPassLabel, BorderPixelsStayOneAndSplitComponents) {
    // The two interior pixels touch only through the border column 0.
    const Labelled out = label(imageOf({{1, 1, 0, 0},  //
                                        {1, 1, 0, 1},
                                        {1, 0, 0, 0},
                                        {1, 1, 0, 0},
                                        {0, 0, 0, 0}}),
                               8);
    expectLabels(out.labels, {{1, 1, 0, 0}, {1, 2, 0, 1}, {1, 0, 0, 0}, {1, 3, 0, 0}, {0, 0, 0, 0}});
    ASSERT_EQ(out.regions.size(), 2u);
    expectRegion(out.regions[0], 1, 1, 1, 1, 1, 2);
    expectRegion(out.regions[1], 1, 1, 3, 3, 1, 3);
}

TEST(TwoPassLabel, DiagonalPairJoinsOnlyUnderEightConnectivity) {
    const cv::Mat bin = imageOf({{0, 0, 0, 0, 0}, {0, 0, 1, 0, 0}, {0, 1, 0, 0, 0}, {0, 0, 1, 0, 0}, {0, 0, 0, 0, 0}});
    const Labelled eight = label(bin, 8);
    expectLabels(eight.labels, {{0, 0, 0, 0, 0}, {0, 0, 2, 0, 0}, {0, 2, 0, 0, 0}, {0, 0, 2, 0, 0}, {0, 0, 0, 0, 0}});
    ASSERT_EQ(eight.regions.size(), 1u);
    expectRegion(eight.regions[0], 1, 2, 1, 3, 3, 2);
    for (int conn : {4, 0, 6, -8}) {
        const Labelled four = label(bin, conn);
        expectLabels(four.labels,
                     {{0, 0, 0, 0, 0}, {0, 0, 2, 0, 0}, {0, 3, 0, 0, 0}, {0, 0, 4, 0, 0}, {0, 0, 0, 0, 0}});
        EXPECT_EQ(four.regions.size(), 3u) << conn;
    }
}

TEST(TwoPassLabel, UShapeUnitedAtTheBottomIsOneRecord) {
    // Three arms take three provisional labels that are united only on the
    // bottom row; the record counts all of them.
    const cv::Mat bin = imageOf({{0, 0, 0, 0, 0, 0, 0},
                                 {0, 0, 0, 0, 0, 1, 0},
                                 {0, 1, 0, 1, 0, 1, 0},
                                 {0, 1, 0, 1, 0, 1, 0},
                                 {0, 1, 1, 1, 1, 1, 0},
                                 {0, 0, 0, 0, 0, 0, 0}});
    for (int conn : {4, 8}) {
        const Labelled out = label(bin, conn);
        expectLabels(out.labels, {{0, 0, 0, 0, 0, 0, 0},
                                  {0, 0, 0, 0, 0, 2, 0},
                                  {0, 2, 0, 2, 0, 2, 0},
                                  {0, 2, 0, 2, 0, 2, 0},
                                  {0, 2, 2, 2, 2, 2, 0},
                                  {0, 0, 0, 0, 0, 0, 0}});
        ASSERT_EQ(out.regions.size(), 1u);
        expectRegion(out.regions[0], 1, 5, 1, 4, 12, 2);
    }
}

TEST(TwoPassLabel, LabelsFollowRasterOrderOfFirstPixels) {
    // The single pixel between the arms gets its provisional label before the
    // right arm does; the arms unite later and keep the first label.
    const Labelled out = label(imageOf({{0, 0, 0, 0, 0, 0, 0},
                                        {0, 1, 0, 1, 0, 1, 0},
                                        {0, 1, 0, 0, 0, 1, 0},
                                        {0, 1, 1, 1, 1, 1, 0},
                                        {0, 0, 0, 0, 0, 0, 0},
                                        {0, 0, 0, 0, 0, 0, 0}}),
                               8);
    expectLabels(out.labels, {{0, 0, 0, 0, 0, 0, 0},
                              {0, 2, 0, 3, 0, 2, 0},
                              {0, 2, 0, 0, 0, 2, 0},
                              {0, 2, 2, 2, 2, 2, 0},
                              {0, 0, 0, 0, 0, 0, 0},
                              {0, 0, 0, 0, 0, 0, 0}});
    ASSERT_EQ(out.regions.size(), 2u);
    expectRegion(out.regions[0], 1, 5, 1, 3, 9, 2);
    expectRegion(out.regions[1], 3, 3, 1, 1, 1, 3);
}

TEST(TwoPassLabel, ThinImagesAreOnlyConverted) {
    for (const cv::Size sz : {cv::Size(5, 1), cv::Size(5, 2), cv::Size(1, 5), cv::Size(2, 5), cv::Size(2, 2)}) {
        const cv::Mat bin = cv::Mat::ones(sz, CV_8U);
        const Labelled out = label(bin, 8);
        EXPECT_EQ(out.labels.type(), CV_32S);
        EXPECT_EQ(out.labels.size(), sz);
        EXPECT_EQ(cv::countNonZero(out.labels != 1), 0);
        EXPECT_TRUE(out.regions.empty());
    }
    const Labelled empty = label(cv::Mat(), 8);
    EXPECT_TRUE(empty.labels.empty());
    EXPECT_TRUE(empty.regions.empty());
}

TEST(TwoPassLabel, RecordsAreAppendedAfterExistingOnes) {
    Labelled out;
    out.regions.push_back(SHX_Region{9, 9, 9, 9, 9, 2});
    HX_TwoPassLabel(imageOf({{0, 0, 0}, {0, 1, 0}, {0, 0, 0}}), out.labels, out.regions, 8);
    ASSERT_EQ(out.regions.size(), 2u);
    expectRegion(out.regions[0], 9, 9, 9, 9, 9, 2);
    expectRegion(out.regions[1], 1, 1, 1, 1, 1, 2);
}

TEST(TwoPassLabel, OtherDepthsAndAliasedOutput) {
    const cv::Mat bin = imageOf({{1, 0, 0, 0}, {0, 1, 1, 0}, {0, 0, 0, 0}, {0, 1, 0, 1}});
    const Labelled want = referenceTwoPass(bin, 4);
    for (int depth : {CV_8S, CV_16U, CV_16S, CV_32S, CV_32F, CV_64F}) {
        cv::Mat other;
        bin.convertTo(other, depth);
        expectSame(label(other, 4), want);
        // The label image may be the very matrix that holds the input.
        Labelled same;
        same.labels = other.clone();
        HX_TwoPassLabel(same.labels, same.labels, same.regions, 4);
        expectSame(same, want);
    }
    // Float input is rounded by the conversion: 0.7 counts as 1, 0.4 as 0.
    cv::Mat f = cv::Mat::zeros(3, 4, CV_32F);
    f.at<float>(1, 1) = 0.7f;
    f.at<float>(1, 2) = 0.4f;
    const Labelled rounded = label(f, 8);
    expectLabels(rounded.labels, {{0, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 0, 0}});
}

TEST(TwoPassLabel, ValuesOutsideZeroAndOneStayInBounds) {
    // Out of contract: such interior pixels become background; border values
    // are kept. Large values must not index the tables.
    const cv::Mat bin = imageOf({{255, 7, 0, 2}, {0, 255, 1, 0}, {0, 2, 1, 200}, {9, 0, 0, 1}});
    const Labelled out = label(bin, 8);
    expectLabels(out.labels, {{255, 7, 0, 2}, {0, 0, 2, 0}, {0, 0, 2, 200}, {9, 0, 0, 1}});
    ASSERT_EQ(out.regions.size(), 1u);
    expectRegion(out.regions[0], 2, 2, 1, 2, 2, 2);
    cv::Mat neg(4, 4, CV_32S, cv::Scalar(-2147483647));
    neg.at<int32_t>(1, 1) = 1;
    const Labelled n = label(neg, 4);
    EXPECT_EQ(n.labels.at<int32_t>(1, 1), 2);
    EXPECT_EQ(n.labels.at<int32_t>(2, 2), 0);
    EXPECT_EQ(n.labels.at<int32_t>(0, 0), -2147483647);
}

TEST(TwoPassLabel, MatchesPlainTwoPassOnRandomImages) {
    std::mt19937 rng(12345);
    for (int iter = 0; iter < 600; ++iter) {
        const int rows = 1 + static_cast<int>(rng() % 40), cols = 1 + static_cast<int>(rng() % 40);
        const cv::Mat bin = randomBinary(rng, rows, cols, iter % 2 == 0);
        for (int conn : {4, 8}) {
            SCOPED_TRACE(::testing::Message() << "iter " << iter << " conn " << conn << " " << rows << "x" << cols);
            expectSame(label(bin, conn), referenceTwoPass(bin, conn));
        }
    }
}

TEST(TwoPassLabel, AgreesWithOpenCvOnRandomImagesWithZeroBorder) {
    // With the border cleared the components are those of the whole image, so
    // OpenCV's labelling must give the same partition, counts and boxes.
    std::mt19937 rng(777);
    for (int iter = 0; iter < 300; ++iter) {
        const int rows = 3 + static_cast<int>(rng() % 120), cols = 3 + static_cast<int>(rng() % 120);
        cv::Mat bin = randomBinary(rng, rows, cols, iter % 3 != 0);
        bin.row(0).setTo(0);
        bin.row(rows - 1).setTo(0);
        bin.col(0).setTo(0);
        bin.col(cols - 1).setTo(0);
        for (int conn : {4, 8}) {
            SCOPED_TRACE(::testing::Message() << "iter " << iter << " conn " << conn);
            const Labelled out = label(bin, conn);
            cv::Mat cvLabels, stats, centroids;
            const int n = cv::connectedComponentsWithStats(bin, cvLabels, stats, centroids, conn, CV_32S);
            ASSERT_EQ(out.regions.size(), static_cast<size_t>(n - 1));
            // The label maps must be a bijection between the two labellings.
            std::map<int, int> ours, theirs;
            for (int r = 0; r < rows; ++r) {
                for (int c = 0; c < cols; ++c) {
                    const int a = out.labels.at<int>(r, c), b = cvLabels.at<int>(r, c);
                    ASSERT_EQ(a == 0, b == 0);
                    if (a == 0) continue;
                    ASSERT_EQ(ours.emplace(a, b).first->second, b);
                    ASSERT_EQ(theirs.emplace(b, a).first->second, a);
                }
            }
            for (const SHX_Region& g : out.regions) {
                const int b = ours.at(g.label);
                EXPECT_EQ(g.pixelCnt, stats.at<int>(b, cv::CC_STAT_AREA));
                EXPECT_EQ(g.left, stats.at<int>(b, cv::CC_STAT_LEFT));
                EXPECT_EQ(g.top, stats.at<int>(b, cv::CC_STAT_TOP));
                EXPECT_EQ(g.right - g.left + 1, stats.at<int>(b, cv::CC_STAT_WIDTH));
                EXPECT_EQ(g.bottom - g.top + 1, stats.at<int>(b, cv::CC_STAT_HEIGHT));
            }
        }
    }
}
