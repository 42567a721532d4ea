// Distance transform and window peak search: hand-worked cases and plain,
// literal versions of both walks compared on many random inputs.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "profile_analysis.h"
#include "test_util.h"

namespace {

constexpr float kBig = 100.0f;
const float kSqrt2f = std::sqrt(2.0f);

cv::Mat distance(const cv::Mat& src, int distType) {
    cv::Mat dst;
    hx_distanceTrans(src, dst, distType);
    return dst;
}

// The transform exactly as defined: candidates in their order, each taken only
// when strictly smaller.
cv::Mat referenceDistance(const cv::Mat& src, int distType) {
    cv::Mat f = src.clone();
    const int n = f.rows, m = f.cols;
    const float diag = distType == 0 ? kSqrt2f : distType == 1 ? 2.0f : 1.0f;
    auto at = [&](int y, int x) -> float& { return f.at<float>(y, x); };
    auto relax = [&](int y, int x, std::initializer_list<float> candidates) {
        float v = at(y, x);
        for (float c : candidates)
            if (c < v) v = c;
        at(y, x) = v;
    };
    // Top down over rows 1..n-2 and columns 1..m-1, then bottom up over columns m-2..0.
    for (int y = 1; m >= 2 && y <= n - 2; ++y)
        for (int x = 1; x <= m - 1; ++x)
            relax(y, x, {at(y - 1, x - 1) + diag, at(y - 1, x) + 1.0f, at(y, x - 1) + 1.0f, at(y + 1, x - 1) + diag});
    for (int y = n - 2; y >= 1; --y)
        for (int x = m - 2; x >= 0; --x)
            relax(y, x, {at(y + 1, x) + 1.0f, at(y + 1, x + 1) + diag, at(y, x + 1) + 1.0f, at(y - 1, x + 1) + diag});
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < m; ++x)
            if (y == 0 || y == n - 1 || x == 0 || x == m - 1) at(y, x) = 0.0f;
    return f;
}

bool sameBits(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return false;
    for (int y = 0; y < a.rows; ++y) {
        if (std::memcmp(a.ptr(y), b.ptr(y), a.cols * a.elemSize()) != 0) return false;
    }
    return true;
}

void expectInterior(const cv::Mat& d, const std::vector<std::vector<float>>& want) {
    ASSERT_EQ(d.type(), CV_32F);
    for (int y = 0; y < d.rows; ++y) {
        for (int x = 0; x < d.cols; ++x) {
            const bool frame = y == 0 || x == 0 || y == d.rows - 1 || x == d.cols - 1;
            EXPECT_EQ(d.at<float>(y, x), frame ? 0.0f : want[y - 1][x - 1]) << y << "," << x;
        }
    }
}

// ---- window peaks ----

struct Peak {
    int x, y;
    double value;
};

// Positions and values equal bit for bit (NaN as NaN, -0 as -0); type and value2 zero.
void expectPeaks(const std::vector<SHX_2DValueI>& got, const std::vector<Peak>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_TRUE(got[i].x == want[i].x && got[i].y == want[i].y) << i;
        EXPECT_TRUE(got[i].featureType == 0 && got[i].value2 == 0) << i;
        EXPECT_TRUE(std::memcmp(&got[i].value, &want[i].value, sizeof(double)) == 0 ||
                    (std::isnan(got[i].value) && std::isnan(want[i].value))) << i << ": " << got[i].value;
    }
}

std::vector<SHX_2DValueI> imagePeaks(const cv::Mat& img, int w, int h) {
    std::vector<SHX_2DValueI> v;
    hx_getLocalPeaks_distTransform(img, v, SHX_localPkParam{w, h});
    return v;
}

int windowCount(int extent, int size) {
    const int half = size / 2;
    return extent / half + (extent % half > 0 ? 1 : 0);
}

// The windowed search exactly as defined, on a sample function over an
// X x Y grid; outerMovesY selects the image pairing, otherwise the scan one.
template <typename Sample, typename Better>
std::vector<Peak> referenceSearch(int X, int Y, int W, int H, bool outerMovesY, Sample sample, Better better) {
    std::vector<Peak> out;
    std::vector<int> mask(static_cast<size_t>(X) * Y, 0);
    const int nX = windowCount(X, W), nY = windowCount(Y, H);
    for (int k = 0; k < nY; ++k) {
        for (int j = 0; j < nX; ++j) {
            const int x0 = outerMovesY ? (j * H) / 2 : (k * W) / 2;
            const int y0 = outerMovesY ? (k * W) / 2 : (j * H) / 2;
            const int x1 = std::min(x0 + W, X), y1 = std::min(y0 + H, Y);
            bool found = false;
            double best = -1.0;
            int bx = 0, by = 0;
            for (int x = x0; x < x1; ++x) {
                for (int y = y0; y < y1; ++y) {
                    double v;
                    if (!sample(x, y, v)) continue;
                    if (best < 0.0 || better(v, best)) {
                        best = v;
                        bx = x;
                        by = y;
                        found = true;
                    }
                }
            }
            if (!found) continue;
            if (bx == x0 || bx == x0 + W - 1 || by == y0 || by == y0 + H - 1) continue;
            if (mask[static_cast<size_t>(by) * X + bx] == 0) {
                out.push_back(Peak{bx, by, best});
                mask[static_cast<size_t>(by) * X + bx] = 1;
            }
        }
    }
    return out;
}

std::vector<Peak> referenceImagePeaks(const cv::Mat& img, int W, int H) {
    return referenceSearch(
        img.cols, img.rows, W, H, true,
        [&](int x, int y, double& v) {
            v = img.at<float>(y, x);
            return true;
        },
        [](double a, double b) { return a > b; });
}

std::vector<Peak> referenceScanPeaks(const std::vector<std::vector<SKesp3DPosition>>& scan, int W, int H) {
    return referenceSearch(
        static_cast<int>(scan.size()), static_cast<int>(scan[0].size()), W, H, false,
        [&](int x, int y, double& v) {
            v = scan[x][y].z;
            return v >= 0.0001;
        },
        [](double a, double b) { return a < b; });
}

std::vector<std::vector<SKesp3DPosition>> scanOfZ(int lines, int points, double z) {
    std::vector<std::vector<SKesp3DPosition>> scan(lines);
    for (int i = 0; i < lines; ++i) {
        for (int j = 0; j < points; ++j) scan[i].push_back(testutil::pt(i, j, z, j));
    }
    return scan;
}

std::vector<SHX_2DValueI> scanPeaks(std::vector<std::vector<SKesp3DPosition>>& scan, int w, int h) {
    auto lines = testutil::linesOf(scan);
    std::vector<SHX_2DValueI> v;
    hx_getLocalPeaks(lines.data(), static_cast<int>(lines.size()), v, SHX_localPkParam{w, h});
    return v;
}

}  // namespace

// ---- Distance transform ----

TEST(DistanceTransform, HandWorkedCases) {
    cv::Mat src(5, 5, CV_32F, cv::Scalar(kBig));
    src.at<float>(2, 2) = 0.0f;
    // Each step cost: sqrt(2) and 2 on the diagonal, and any other type 1 everywhere.
    expectInterior(distance(src, 1), {{2, 1, 2}, {1, 0, 1}, {2, 1, 2}});
    expectInterior(distance(src, 0), {{kSqrt2f, 1, kSqrt2f}, {1, 0, 1}, {kSqrt2f, 1, kSqrt2f}});
    EXPECT_EQ(kSqrt2f, 1.41421354f);
    for (int other : {2, -1, 7}) expectInterior(distance(src, other), {{1, 1, 1}, {1, 0, 1}, {1, 1, 1}});
    EXPECT_EQ(src.at<float>(1, 1), kBig);  // the input is left alone
    // Fewer than three rows or two columns: only the zero frame.
    for (const cv::Size sz : {cv::Size(6, 1), cv::Size(6, 2), cv::Size(1, 6), cv::Size(2, 6), cv::Size(1, 1)}) {
        const cv::Mat d = distance(cv::Mat(sz, CV_32F, cv::Scalar(kBig)), 0);
        EXPECT_EQ(d.size(), sz);
        EXPECT_EQ(cv::countNonZero(d), 0);
    }
    EXPECT_TRUE(distance(cv::Mat(), 0).empty());
    // The output sharing the input matrix gets a fresh buffer.
    cv::Mat img(6, 6, CV_32F, cv::Scalar(kBig));
    img.at<float>(3, 3) = 0.0f;
    const cv::Mat want = referenceDistance(img, 0), alias = img;
    hx_distanceTrans(img, img, 0);
    EXPECT_TRUE(sameBits(img, want));
    EXPECT_EQ(alias.at<float>(1, 1), kBig);
}

TEST(DistanceTransform, MatchesLiteralPassesOnRandomImages) {
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float specials[] = {nan, -0.0f, -3.5f, std::numeric_limits<float>::infinity(), 1e30f};
    for (int iter = 0; iter < 400; ++iter) {
        const int rows = 1 + static_cast<int>(rng() % 30), cols = 1 + static_cast<int>(rng() % 30);
        cv::Mat src(rows, cols, CV_32F);
        const float seedDensity = u(rng) * 0.3f;
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < cols; ++x) {
                const float r = u(rng);
                float v = r < seedDensity ? 0.0f : (r < 0.9f ? 1e6f : u(rng) * 10.0f);
                if (iter % 4 == 0 && rng() % 25 == 0) v = specials[rng() % 5];
                src.at<float>(y, x) = v;
            }
        }
        for (int distType : {0, 1, 2})
            EXPECT_TRUE(sameBits(distance(src, distType), referenceDistance(src, distType))) << iter << " " << distType;
    }
    // Rows long enough to be relaxed in pieces: sparse seeds make distances run
    // across piece boundaries; a NaN pixel stops the run.
    for (int cols : {127, 128, 135, 300, 1031}) {
        cv::Mat src(24, cols, CV_32F, cv::Scalar(1e6f));
        for (int y = 0; y < src.rows; y += 6)
            for (int x = 0; x < cols; x += 150) src.at<float>(y, x) = 0.0f;
        for (int k = 0; k < 12; ++k)
            src.at<float>(static_cast<int>(rng() % 24), static_cast<int>(rng() % cols)) = k % 2 ? nan : 1e20f;
        for (int distType : {0, 1})
            EXPECT_TRUE(sameBits(distance(src, distType), referenceDistance(src, distType))) << cols;
    }
}

// ---- Window peaks ----
TEST(ImagePeaks, MatchesLiteralSearchOnRandomImages) {
    std::mt19937 rng(2024);
    for (int iter = 0; iter < 500; ++iter) {
        const bool big = iter % 5 == 0;
        const int rows = 1 + static_cast<int>(rng() % (big ? 200 : 50));
        const int cols = 1 + static_cast<int>(rng() % (big ? 200 : 50));
        int w = 2 + static_cast<int>(rng() % (big ? 30 : 12)), h = 2 + static_cast<int>(rng() % (big ? 30 : 12));
        if (iter % 5 == 1) {
            // Windows much taller than their row step: each spans many bands.
            w = 6 + 2 * static_cast<int>(rng() % 3);
            h = w * (3 + static_cast<int>(rng() % 3));
        }
        cv::Mat img(rows, cols, CV_32F);
        const int levels = 1 + static_cast<int>(rng() % 6);  // few levels: many ties
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < cols; ++x) {
                float v = static_cast<float>(rng() % levels);
                if (iter % 7 == 3 && rng() % 40 == 0) v = -1.0f - static_cast<float>(rng() % 3);
                if (iter % 7 == 5 && rng() % 60 == 0) v = std::numeric_limits<float>::quiet_NaN();
                if (iter % 7 == 6 && rng() % 10 == 0) v = -0.0f;
                if (iter % 7 == 4 && rng() % 300 != 0) v = -1.0f - v;  // nearly all negative: many windows have no v >= 0
                img.at<float>(y, x) = v;
            }
        }
        SCOPED_TRACE(::testing::Message() << "iter " << iter << " win " << w << "x" << h);
        expectPeaks(imagePeaks(img, w, h), referenceImagePeaks(img, w, h));
    }
}

TEST(ScanPeaks, InvalidPointsAreSkippedAndTiesKeepTheLowerLine) {
    auto scan = scanOfZ(6, 6, 10.0);
    scan[1][1].z = 0.0;
    scan[2][1].z = 0.00009;
    scan[1][2].z = 1.0;
    scan[2][2].z = 1.0;
    expectPeaks(scanPeaks(scan, 4, 4), {{1, 2, 1.0}});
    scan[2][2].z = 0.0001;  // exactly the limit: a valid point
    expectPeaks(scanPeaks(scan, 4, 4), {{2, 2, 0.0001}});
}

TEST(WindowPeaks, DegenerateInputGivesNoPeaks) {
    cv::Mat img = cv::Mat::zeros(20, 20, CV_32F);
    img.at<float>(10, 10) = 1.0f;
    // Windows below 2: nothing appended, nothing cleared.
    for (const SHX_localPkParam bad : {SHX_localPkParam{1, 6}, SHX_localPkParam{6, 1}, SHX_localPkParam{0, 0},
                                       SHX_localPkParam{-4, 6}}) {
        std::vector<SHX_2DValueI> v(1);
        hx_getLocalPeaks_distTransform(img, v, bad);
        EXPECT_EQ(v.size(), 1u);
    }
    EXPECT_TRUE(imagePeaks(cv::Mat(), 6, 6).empty());
    cv::Mat asInt;
    img.convertTo(asInt, CV_32S);
    EXPECT_TRUE(imagePeaks(asInt, 6, 6).empty());
    // Huge windows: one window clipped on both far sides.
    expectPeaks(imagePeaks(img, 2147483647, 2147483647), {{10, 10, 1.0}});

    auto scan = scanOfZ(8, 8, 0.0);
    EXPECT_TRUE(scanPeaks(scan, 4, 4).empty());  // nothing valid
    auto valid = scanOfZ(8, 8, 5.0);
    valid[3][3].z = 1.0;
    EXPECT_TRUE(scanPeaks(valid, 1, 4).empty());
    EXPECT_TRUE(scanPeaks(valid, 4, 0).empty());
    std::vector<SHX_2DValueI> v;
    hx_getLocalPeaks(nullptr, 0, v, SHX_localPkParam{4, 4});
    auto lines = testutil::linesOf(valid);
    hx_getLocalPeaks(lines.data(), 0, v, SHX_localPkParam{4, 4});
    EXPECT_TRUE(v.empty());
    // Out of contract: a line shorter than the first is read only to its end.
    lines[2].nPositionCnt = 2;
    lines[4].p3DPosition = nullptr;
    hx_getLocalPeaks(lines.data(), 8, v, SHX_localPkParam{4, 4});
    expectPeaks(v, {{3, 3, 1.0}});
}

TEST(ScanPeaks, MatchesLiteralSearchOnRandomScans) {
    std::mt19937 rng(31337);
    for (int iter = 0; iter < 400; ++iter) {
        const bool big = iter % 5 == 0;
        const int lineNum = 1 + static_cast<int>(rng() % (big ? 150 : 40));
        const int points = 1 + static_cast<int>(rng() % (big ? 300 : 60));
        const int w = 2 + static_cast<int>(rng() % (big ? 30 : 12)), h = 2 + static_cast<int>(rng() % (big ? 30 : 12));
        const int levels = 1 + static_cast<int>(rng() % 5);
        auto scan = scanOfZ(lineNum, points, 1.0);
        for (auto& line : scan) {
            for (auto& p : line) {
                p.z = 1.0 + static_cast<double>(rng() % levels);
                if (rng() % 8 == 0) p.z = 0.0;
            }
        }
        SCOPED_TRACE(::testing::Message() << "iter " << iter << " win " << w << "x" << h);
        expectPeaks(scanPeaks(scan, w, h), referenceScanPeaks(scan, w, h));
    }
}
