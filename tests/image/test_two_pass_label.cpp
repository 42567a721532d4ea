// Two-pass labelling: hand-built images, a plain two-pass reference and
// OpenCV's connected components as independent checks.
#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "profile_analysis.h"

namespace {

// Rows separated by '/', one digit per pixel.
cv::Mat imageOf(const std::string& rows, int type = CV_8U) {
    std::vector<std::string> r;
    std::istringstream in(rows);
    for (std::string row; std::getline(in, row, '/');) r.push_back(row);
    cv::Mat m(static_cast<int>(r.size()), static_cast<int>(r[0].size()), CV_32S);
    for (int i = 0; i < m.rows; ++i)
        for (int c = 0; c < m.cols; ++c) m.at<int32_t>(i, c) = r[i][c] - '0';
    m.convertTo(m, type);
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

TEST(TwoPassLabel, HandLabelledImages) {
    const struct {
        const char* what;
        const char* image;
        int connectivity;
        const char* labels;
        std::vector<SHX_Region> regions;  // left, right, top, bottom, pixelCnt, label
    } cases[] = {
        {"all zero: no records", "0000000/0000000/0000000/0000000/0000000/0000000", 8,
         "0000000/0000000/0000000/0000000/0000000/0000000", {}},
        {"a single pixel in a 3 x 3 image", "000/010/000", 4, "000/020/000", {{1, 1, 1, 1, 1, 2}}},
        {"border pixels stay 1 and do not join the two interior pixels", "1100/1101/1000/1100/0000", 8,
         "1100/1201/1000/1300/0000", {{1, 1, 1, 1, 1, 2}, {1, 1, 3, 3, 1, 3}}},
        {"a diagonal chain joins under 8-connectivity", "00000/00100/01000/00100/00000", 8,
         "00000/00200/02000/00200/00000", {{1, 2, 1, 3, 3, 2}}},
        {"and not under 4", "00000/00100/01000/00100/00000", 4, "00000/00200/03000/00400/00000",
         {{2, 2, 1, 1, 1, 2}, {1, 1, 2, 2, 1, 3}, {2, 2, 3, 3, 1, 4}}},
        {"any connectivity other than 8 is 4", "00000/00100/01000/00100/00000", 6, "00000/00200/03000/00400/00000",
         {{2, 2, 1, 1, 1, 2}, {1, 1, 2, 2, 1, 3}, {2, 2, 3, 3, 1, 4}}},
        {"three arms united only on the bottom row are one record (4)",
         "0000000/0000010/0101010/0101010/0111110/0000000", 4, "0000000/0000020/0202020/0202020/0222220/0000000",
         {{1, 5, 1, 4, 12, 2}}},
        {"three arms united only on the bottom row are one record (8)",
         "0000000/0000010/0101010/0101010/0111110/0000000", 8, "0000000/0000020/0202020/0202020/0222220/0000000",
         {{1, 5, 1, 4, 12, 2}}},
        {"labels follow the raster order of first pixels: the lone pixel before the right arm",
         "0000000/0101010/0100010/0111110/0000000/0000000", 8, "0000000/0203020/0200020/0222220/0000000/0000000",
         {{1, 5, 1, 3, 9, 2}, {3, 3, 1, 1, 1, 3}}},
    };
    for (const auto& c : cases) {
        Labelled out;
        out.regions.push_back(SHX_Region{9, 9, 9, 9, 9, 2});  // appended to, never cleared
        HX_TwoPassLabel(imageOf(c.image), out.labels, out.regions, c.connectivity);
        ASSERT_EQ(out.labels.type(), CV_32S) << c.what;
        EXPECT_EQ(cv::countNonZero(out.labels != imageOf(c.labels, CV_32S)), 0) << c.what;
        ASSERT_EQ(out.regions.size(), c.regions.size() + 1) << c.what;
        for (size_t k = 0; k < c.regions.size(); ++k) {
            const SHX_Region &g = out.regions[k + 1], &w = c.regions[k];
            EXPECT_TRUE(g.left == w.left && g.right == w.right && g.top == w.top && g.bottom == w.bottom &&
                        g.pixelCnt == w.pixelCnt && g.label == w.label)
                << c.what << ", record " << k;
        }
    }
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

TEST(TwoPassLabel, OtherDepthsAndAliasedOutput) {
    const cv::Mat bin = imageOf("1000/0110/0000/0101");
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
    EXPECT_EQ(cv::countNonZero(label(f, 8).labels != imageOf("0000/0200/0000", CV_32S)), 0);
}

TEST(TwoPassLabel, ValuesOutsideZeroAndOneStayInBounds) {
    // Out of contract: such interior pixels become background; border values
    // are kept. Large values must not index the tables.
    cv::Mat bin = imageOf("9702/0910/0219/9001");
    bin.at<uint8_t>(0, 0) = bin.at<uint8_t>(1, 1) = 255;
    bin.at<uint8_t>(2, 3) = 200;
    const Labelled out = label(bin, 8);
    cv::Mat want = imageOf("9702/0020/0029/9001", CV_32S);
    want.at<int32_t>(0, 0) = 255;
    want.at<int32_t>(2, 3) = 200;
    EXPECT_EQ(cv::countNonZero(out.labels != want), 0);
    ASSERT_EQ(out.regions.size(), 1u);
    EXPECT_TRUE(out.regions[0].left == 2 && out.regions[0].top == 1 && out.regions[0].bottom == 2 &&
                out.regions[0].pixelCnt == 2 && out.regions[0].label == 2);
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
