// Plane calibration: hand-worked histograms, failures and bad input, the
// region variant, and a plain step-by-step reference on random scans.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "test_util.h"

using testutil::pt;
using Scan = std::vector<std::vector<SKesp3DPosition>>;

namespace {

const double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

// ---------------------------------------------------------------------------
// Plain reference: every step written out as literally as possible.
// ---------------------------------------------------------------------------

bool refValid(double z) { return z >= 0.0001; }

std::vector<double> refQuaternion(const double u0[3], const double v0[3]) {
    const double lu = std::sqrt(u0[0] * u0[0] + u0[1] * u0[1] + u0[2] * u0[2]);
    const double lv = std::sqrt(v0[0] * v0[0] + v0[1] * v0[1] + v0[2] * v0[2]);
    if (lu < 1e-7 || lv < 1e-7) return {1, 0, 0, 0};
    const double u[3] = {u0[0] / lu, u0[1] / lu, u0[2] / lu};
    const double v[3] = {v0[0] / lv, v0[1] / lv, v0[2] / lv};
    const double d = u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
    if (d > 0.9999999) return {1, 0, 0, 0};
    if (d < -0.9999999) {
        if (std::fabs(u[1]) < 1e-7 && std::fabs(u[2]) < 1e-7) return {0, 0, 1, 0};
        return {0, 1, 0, 0};
    }
    const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    const double ln = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (ln < 1e-7) return {1, 0, 0, 0};
    const double s = std::sqrt((1 - d) / 2);
    return {std::sqrt((1 + d) / 2), s * n[0] / ln, s * n[1] / ln, s * n[2] / ln};
}

void refMatrix(const std::vector<double>& q, double m[9]) {
    const double w = q[0], x = q[1], y = q[2], z = q[3];
    const double r[9] = {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
                         2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
                         2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
    std::copy(r, r + 9, m);
}

// Fit, rotations and plane height of a set of single-precision points.
SHX_planeCalibPara refLevel(const std::vector<cv::Point3f>& pts) {
    double sxx = 0, sxy = 0, syy = 0, sx = 0, sy = 0, sxz = 0, syz = 0, sz = 0;
    for (const auto& p : pts) {
        const double x = p.x, y = p.y, z = p.z;
        sxx += x * x;
        sxy += x * y;
        syy += y * y;
        sx += x;
        sy += y;
        sxz += x * z;
        syz += y * z;
        sz += z;
    }
    cv::Mat A = cv::Mat::zeros(3, 3, CV_64F), B = cv::Mat::zeros(3, 1, CV_64F);
    const double a[9] = {sxx, sxy, sx, sxy, syy, sy, sx, sy, static_cast<double>(pts.size())};
    for (int k = 0; k < 9; ++k) A.at<double>(k / 3, k % 3) = a[k];
    B.at<double>(0) = sxz;
    B.at<double>(1) = syz;
    B.at<double>(2) = sz;
    cv::Mat Ainv;
    cv::invert(A, Ainv, cv::DECOMP_LU);
    cv::Mat X = Ainv * B;
    const double u[3] = {X.at<double>(0), X.at<double>(1), -1.0};
    const double v[3] = {0, 0, -1};
    SHX_planeCalibPara r;
    refMatrix(refQuaternion(u, v), r.planeCalib);
    refMatrix(refQuaternion(v, u), r.invRMatrix);
    r.planeHeight = 0.0;
    for (size_t i = 0; i < pts.size(); ++i) {
        const float z = static_cast<float>(r.planeCalib[6] * pts[i].x + r.planeCalib[7] * pts[i].y +
                                           r.planeCalib[8] * pts[i].z);
        if (i == 0 || z < r.planeHeight) r.planeHeight = z;
    }
    return r;
}

SHX_planeCalibPara refFailure() {
    SHX_planeCalibPara r;
    std::copy(kIdentity, kIdentity + 9, r.planeCalib);
    std::copy(kIdentity, kIdentity + 9, r.invRMatrix);
    r.planeHeight = -1.0;
    return r;
}

SHX_planeCalibPara refCalibrate(const Scan& scan) {
    double zMin = 0.0, zMax = -1.0;
    for (const auto& line : scan)
        for (const auto& p : line)
            if (refValid(p.z)) {
                if (zMin > zMax) zMin = zMax = p.z;
                else {
                    if (p.z < zMin) zMin = p.z;
                    if (p.z > zMax) zMax = p.z;
                }
            }
    const int n = static_cast<int>(zMax - zMin) + 1;
    if (n == 0) return refFailure();
    std::vector<int> H(n, 0), S(n, 0), valleyMap(n, -1);
    int total = 0;
    for (const auto& line : scan)
        for (const auto& p : line)
            if (refValid(p.z)) {
                ++H[static_cast<int>(p.z - zMin)];
                ++total;
            }
    for (int i = 0; i < n; ++i)
        for (int j = i - 5; j <= i + 5; ++j)
            if (j >= 0 && j < n) S[i] += H[j];
    bool flat = true;
    for (int i = 1; i < n; ++i)
        if (S[i] != S[i - 1]) flat = false;
    if (flat) S = H;
    std::vector<std::pair<int, int>> peaks, valleys;
    int state = 0;
    for (int i = 1; i < n; ++i) {
        const int d = S[i] - S[i - 1];
        if (state == 0) {
            if (d < 0) state = 2;
            else if (d > 0) state = 1;
        } else if (state == 1) {
            if (d < 0) {
                peaks.push_back({i - 1, S[i - 1]});
                state = 2;
            } else if (i == n - 1) {
                peaks.push_back({i, S[i]});
            }
        } else {
            if (d > 0) {
                valleyMap[i - 1] = static_cast<int>(valleys.size());
                valleys.push_back({i - 1, S[i - 1]});
                state = 1;
            } else if (i == n - 1) {
                valleyMap[i] = static_cast<int>(valleys.size());
                valleys.push_back({i, S[i]});
            }
        }
    }
    const int threshold = total / 10;
    int p = -1, v = 0;
    for (const auto& pk : peaks)
        if (pk.second > threshold) {
            p = pk.first;
            v = pk.second;
            break;
        }
    if (p < 0) return refFailure();
    const int half = v / 2;
    int low = -1, high = -1;
    for (int b = p - 1; b >= 0; --b)
        if (valleyMap[b] != -1 && valleys[valleyMap[b]].second < half) {
            low = b;
            break;
        }
    for (int b = p + 1; b < n; ++b)
        if (valleyMap[b] != -1 && valleys[valleyMap[b]].second < half) {
            high = b;
            break;
        }
    const double zLow = low >= 0 ? zMin + low : zMin;
    const double zHigh = high >= 0 ? zMin + high : zMax;
    std::vector<cv::Point3f> band;
    for (const auto& line : scan)
        for (const auto& p3 : line)
            if (refValid(p3.z) && p3.z >= zLow && p3.z <= zHigh)
                band.emplace_back(static_cast<float>(p3.x), static_cast<float>(p3.y), static_cast<float>(p3.z));
    return refLevel(band);
}

// ---------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------

bool sameBits(const SHX_planeCalibPara& a, const SHX_planeCalibPara& b) {
    return std::memcmp(&a, &b, sizeof(SHX_planeCalibPara)) == 0;
}

void expectSameRecord(const SHX_planeCalibPara& got, const SHX_planeCalibPara& want) {
    for (int k = 0; k < 9; ++k) EXPECT_EQ(got.planeCalib[k], want.planeCalib[k]) << "planeCalib " << k;
    EXPECT_EQ(got.planeHeight, want.planeHeight);
    for (int k = 0; k < 9; ++k) EXPECT_EQ(got.invRMatrix[k], want.invRMatrix[k]) << "invRMatrix " << k;
}

void expectFailure(const SHX_planeCalibPara& r) { expectSameRecord(r, refFailure()); }

SHX_planeCalibPara calibrate(Scan& scan) {
    auto lines = testutil::linesOf(scan);
    return hx_getPlaneCalibPara(lines.data(), static_cast<int32_t>(lines.size()));
}

// One line holding, for each bin b, counts[b] points at z = zMin + b + offset;
// x and y vary so that the points span a plane. Bin 0 starts with zMin itself.
std::vector<SKesp3DPosition> binnedLine(double zMin, const std::vector<int>& counts, double offset = 0.5) {
    std::vector<SKesp3DPosition> line;
    int k = 0;
    for (size_t b = 0; b < counts.size(); ++b)
        for (int c = 0; c < counts[b]; ++c, ++k) {
            const double frac = (b == 0 && c == 0) ? 0.0 : offset;
            line.push_back(pt(k % 5, 0.5 * k, zMin + static_cast<double>(b) + frac, k));
        }
    return line;
}

std::vector<cv::Point3f> pointsWithin(const Scan& scan, double zLow, double zHigh) {
    std::vector<cv::Point3f> out;
    for (const auto& line : scan)
        for (const auto& p : line)
            if (p.z >= 0.0001 && p.z >= zLow && p.z <= zHigh)
                out.emplace_back(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z));
    return out;
}

SKesp3DRangeD region(double x0, double x1, double y0, double y1, double z0, double z1) {
    SKesp3DRangeD r;
    r.xRange = {x0, x1};
    r.yRange = {y0, y1};
    r.zRange = {z0, z1};
    return r;
}

SHX_planeCalibPara calibrateRegions(Scan& scan, const std::vector<SKesp3DRangeD>& rois) {
    auto lines = testutil::linesOf(scan);
    return hx_getPlaneCalibPara_ROIs(lines.data(), static_cast<int32_t>(lines.size()), rois);
}

SHX_planeCalibPara levelledIdentity(double height) {
    SHX_planeCalibPara r = refFailure();
    r.planeHeight = height;
    return r;
}

}  // namespace

// ---------------------------------------------------------------------------
// Hand-worked histograms
// ---------------------------------------------------------------------------

TEST(PlaneCalib, EmptyAndUnmeasuredScansFail) {
    expectFailure(hx_getPlaneCalibPara(nullptr, 5));
    Scan scan{{pt(1, 2, 3), pt(2, 3, 4)}};
    auto lines = testutil::linesOf(scan);
    expectFailure(hx_getPlaneCalibPara(lines.data(), 0));
    expectFailure(hx_getPlaneCalibPara(lines.data(), -3));
    expectFailure(hx_getPlaneCalibPara2(Scan{}));
    expectFailure(hx_getPlaneCalibPara2(Scan{{}, {}}));
    Scan unmeasured{{pt(0, 0, 0.0), pt(1, 1, 0.0000999)}, {pt(2, 2, -5.0)}};
    expectFailure(calibrate(unmeasured));
    expectFailure(hx_getPlaneCalibPara2(unmeasured));
}

TEST(PlaneCalib, BandFromTheHistogram) {
    constexpr double kTop = 1e9, kFail = -1.0;
    std::vector<int> thinFloor(30, 0);  // a floor 3 thick at the bottom, a box of 3 per bin in bins 20..29
    thinFloor[0] = thinFloor[1] = thinFloor[2] = 10;
    std::fill(thinFloor.begin() + 20, thinFloor.end(), 3);
    struct Case {
        const char* what;
        double zMin;
        std::vector<int> counts;  // per bin; six bins or fewer have flat box sums, so the raw counts are used
        double extraZ;            // one more point at this height (0: none)
        double bandLow, bandHigh; // expected band; bandLow kFail: calibration fails
    } cases[] = {
        {"one bin (a horizontal plane) holds no peak", 50.0, {120}, 0, kFail, 0},
        {"counts 1 2 1 15 1: the peak of 2 is not above a tenth of 20, bin 3 wins; band from the valley at bin 2",
         10.0, {1, 2, 1, 15, 1}, 0, 12.0, kTop},
        {"counts 1 3 1 14 1: the peak of 3 wins; the valley of 1 is not below 3 / 2, so the band is the whole scan",
         10.0, {1, 3, 1, 14, 1}, 0, 0.0, kTop},
        {"a rise that begins only with the step into the last bin records no peak", 10.0, {2, 2, 2, 5}, 0, kFail, 0},
        {"likewise after a fall", 10.0, {3, 1, 1, 5}, 0, kFail, 0},
        {"a rise that runs into the last bin ends in a peak there", 10.0, {3, 1, 5, 6}, 0, 11.0, kTop},
        {"a fall into the last bin is a valley (2 < 3) that ends the band at z = 13: 13.0 is in, 13.5 out", 10.0,
         {1, 6, 3, 1}, 13.0, 0.0, 13.0},
        {"a thin floor in the first bins only falls and the first bin is never a peak: the box above wins, cut at "
         "the empty valley (bin 14)",
         100.0, thinFloor, 0, 114.0, kTop},
    };
    for (const Case& c : cases) {
        Scan scan{binnedLine(c.zMin, c.counts)};
        if (c.extraZ != 0) scan[0].push_back(pt(7, 3, c.extraZ, 99));
        const auto got = calibrate(scan);
        if (c.bandLow == kFail) expectFailure(got);
        else expectSameRecord(got, refLevel(pointsWithin(scan, c.bandLow, c.bandHigh)));
        if (HasFailure()) FAIL() << c.what;
    }
}

TEST(PlaneCalib, UnmeasuredPointsNeverEnter) {
    Scan scan{binnedLine(10.0, {1, 2, 1, 15, 1})};
    const auto clean = calibrate(scan);
    // Points without a measurement, with coordinates that would pull the fit.
    scan[0].insert(scan[0].begin() + 3, pt(1e4, -1e4, 0.0));
    scan[0].push_back(pt(-1e4, 1e4, 0.0000999));
    scan.insert(scan.begin(), std::vector<SKesp3DPosition>{pt(500, 500, 0.0)});
    EXPECT_TRUE(sameBits(calibrate(scan), clean));
    // A height of exactly 0.0001 is a measurement: it becomes the lowest bin.
    scan[0].push_back(pt(500, 500, 0.0001));
    EXPECT_FALSE(sameBits(calibrate(scan), clean));
    EXPECT_TRUE(sameBits(calibrate(scan), refCalibrate(scan)));
}

TEST(PlaneCalib, SingularBandGivesIdentityAndLowestHeight) {
    // One scan line: x is the same for every point, the normal equations are
    // singular and their inverse is zero, so the tilt along y is not levelled.
    // The values are exact binary fractions so that the singularity is exact.
    Scan scan{{}};
    for (int j = 0; j < 64; ++j) scan[0].push_back(pt(2.0, j, 10.25 + 0.125 * j));
    expectSameRecord(calibrate(scan), levelledIdentity(10.25));
    // A floor of 500 equal points at z = 10 and an object of 200 equal points
    // at z = 40 (bin 30, the last): the box sums are 500 over bins 0..5, 0
    // over 6..24 and 200 over 25..30. The first bin is never a peak, so the
    // object's rise into the last bin is the peak (200 > 700 / 10), cut below
    // at the empty valley (bin 24). Its points all coincide: the fit is
    // singular, and every block of points holds the same lowest height, 40.
    Scan blocks(3);
    for (int k = 0; k < 700; ++k) blocks[k % 3].push_back(k < 500 ? pt(-3.0, 7.0, 10.0) : pt(2.5, -1.0, 40.0));
    expectSameRecord(calibrate(blocks), levelledIdentity(40.0));
    EXPECT_TRUE(sameBits(hx_getPlaneCalibPara2(blocks), levelledIdentity(40.0)));
}

TEST(PlaneCalib, NonFiniteHeightsAreIgnoredAndHugeSpansFail) {
    Scan scan{binnedLine(10.0, {1, 2, 1, 15, 1})};
    const auto clean = calibrate(scan);
    Scan dirty = scan;
    dirty[0].push_back(pt(1, 1, std::numeric_limits<double>::quiet_NaN()));
    dirty[0].insert(dirty[0].begin(), pt(2, 2, std::numeric_limits<double>::infinity()));
    dirty[0].push_back(pt(3, 3, -std::numeric_limits<double>::infinity()));
    EXPECT_TRUE(sameBits(calibrate(dirty), clean));
    EXPECT_TRUE(sameBits(hx_getPlaneCalibPara2(dirty), clean));
    Scan huge = scan;
    huge[0].push_back(pt(4, 4, 1e12));
    expectFailure(calibrate(huge));
    Scan justOver = scan;
    justOver[0].push_back(pt(4, 4, 10.0 + 1e8));
    expectFailure(hx_getPlaneCalibPara2(justOver));
}

// ---------------------------------------------------------------------------
// Against the plain reference, pointer form and vector form alike
// ---------------------------------------------------------------------------

namespace {

Scan randomScan(testutil::Rng& rng) {
    const int lines = static_cast<int>(rng.integer(0, 6));
    const double base = rng.uniform(1.0, 100.0);
    const double span = rng.integer(0, 3) == 0 ? rng.uniform(0.0, 6.0) : rng.uniform(2.0, 40.0);
    const double slope = rng.uniform(-0.3, 0.3);
    Scan scan(static_cast<size_t>(lines));
    for (int i = 0; i < lines; ++i) {
        const int count = rng.integer(0, 7) == 0 ? 0 : static_cast<int>(rng.integer(1, 60));
        for (int j = 0; j < count; ++j) {
            const double y = 0.5 * j;
            double z;
            switch (rng.integer(0, 5)) {
                case 0: z = 0.0; break;                                                  // missing
                case 1: z = base + rng.uniform(0.0, span); break;                        // clutter
                case 2: z = base + 0.6 * span + rng.uniform(-0.5, 0.5); break;           // box top
                default: z = base + std::fabs(slope) * y + rng.uniform(-0.05, 0.05);     // floor
            }
            scan[i].push_back(pt(0.75 * i + rng.uniform(-0.01, 0.01), y, z, j));
        }
    }
    return scan;
}

// Lines long enough to span several blocks of points (lengths around and at
// multiples of 64), a floor tilted either way with negative and positive
// coordinates, boxes, gaps, repeated points, and one dip at the start, the
// end, a block boundary or anywhere: the plane height reads only the parts of
// the band that can hold the lowest levelled point.
Scan longLineScan(testutil::Rng& rng) {
    const int lines = static_cast<int>(rng.integer(1, 8));
    const double base = rng.uniform(5.0, 60.0);
    const double slopeX = rng.uniform(-0.5, 0.5), slopeY = rng.uniform(-0.3, 0.3);
    const double noise = rng.integer(0, 3) == 0 ? 0.0 : rng.uniform(0.001, 0.1);
    const double x0 = rng.uniform(-50.0, 50.0), y0 = rng.uniform(-30.0, 30.0);
    const int lengths[] = {1, 63, 64, 65, 128, 200, 257};
    Scan scan(static_cast<size_t>(lines));
    std::vector<SKesp3DPosition*> all;
    for (int i = 0; i < lines; ++i) {
        const int count = rng.integer(0, 2) == 0 ? lengths[rng.integer(0, 6)] : static_cast<int>(rng.integer(1, 300));
        for (int j = 0; j < count; ++j) {
            const double x = x0 + 0.5 * i, y = y0 + 0.1 * j;
            double z = base + slopeX * (x - x0) + slopeY * (y - y0) + 4.0 + rng.uniform(-noise, noise);
            if (j % 97 > 80) z += 8.0;             // a box
            if (rng.integer(0, 30) == 0) z = 0.0;  // missing
            scan[i].push_back(pt(x, y, z, j));
        }
    }
    for (auto& line : scan)
        for (auto& p : line) all.push_back(&p);
    auto anyPoint = [&]() { return all[static_cast<size_t>(rng.integer(0, static_cast<int64_t>(all.size()) - 1))]; };
    if (all.empty()) return scan;
    SKesp3DPosition* dip = nullptr;
    auto& someLine = scan[static_cast<size_t>(rng.integer(0, lines - 1))];
    switch (rng.integer(0, 4)) {
        case 0: dip = all.front(); break;
        case 1: dip = all.back(); break;
        case 2: dip = someLine.size() > 64 ? &someLine[rng.integer(0, 1) == 0 ? 63 : 64] : nullptr; break;
        case 3: dip = anyPoint(); break;
        default: break;  // no dip: the minimum is wherever the tilt puts it
    }
    if (dip != nullptr && dip->z > 0.0) dip->z -= rng.uniform(0.0, 1.5);
    // Copies of points elsewhere: equal levelled heights in several blocks.
    for (int k = static_cast<int>(rng.integer(0, 3)); k > 0; --k) *anyPoint() = *anyPoint();
    return scan;
}

}  // namespace

TEST(PlaneCalib, MatchesPlainReference) {
    // Every kind of height without a measurement: the band test compares bit
    // patterns, so negative heights, -0, NaN of either sign, -inf and heights
    // just below the validity limit must all stay out of the band.
    const double kUnmeasured[] = {0.0, -0.0, -1.0, -1e300, -std::numeric_limits<double>::infinity(),
                                  std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN(),
                                  std::nextafter(0.0001, 0.0), std::numeric_limits<double>::denorm_min()};
    struct Family {
        const char* what;
        uint64_t seed;
        int trials, minLevelled, minFailed;
    } families[] = {{"random scans", 20240611, 3000, 1000, 100},
                    {"a far point: more than 65,536 bins, one counter copy instead of several", 77, 20, 10, 0},
                    {"every kind of unmeasured height", 99, 1000, 300, 0},
                    {"long lines: the plane height over blocks of points", 31337, 2000, 1000, 0}};
    for (int f = 0; f < 4; ++f) {
        testutil::Rng rng(families[f].seed);
        int levelled = 0, failed = 0;
        for (int trial = 0; trial < families[f].trials; ++trial) {
            Scan scan = f == 3 ? longLineScan(rng) : randomScan(rng);
            if (f == 1) scan.push_back({pt(1, 1, 50.0 + rng.uniform(60000.0, 80000.0))});
            if (f == 2)
                for (auto& line : scan)
                    for (auto& p : line)
                        if (p.z == 0.0) p.z = kUnmeasured[rng.integer(0, 8)];
            const auto want = refCalibrate(scan);
            ASSERT_TRUE(sameBits(calibrate(scan), want)) << families[f].what << ", trial " << trial;
            ASSERT_TRUE(sameBits(hx_getPlaneCalibPara2(scan), want)) << families[f].what << ", trial " << trial;
            (want.planeHeight == -1.0 ? failed : levelled)++;
        }
        // Both outcomes are exercised often.
        EXPECT_GT(levelled, families[f].minLevelled) << families[f].what;
        EXPECT_GE(failed, families[f].minFailed) << families[f].what;
    }
}

TEST(PlaneCalib, MatchesPlainReferenceOnTallScenes) {
    // A tilted floor near z = 200 with boxes up to 1,000 units tall, their
    // shadows and dropouts (a histogram of about 1,000 bins): the levelled
    // floor's heights lie within the noise, so the plane height is decided
    // among thousands of nearly equal points.
    testutil::Rng rng(4242);
    for (int trial = 0; trial < 4; ++trial) {
        Scan scan(150);
        // Tilts of 0.02 to 0.04 per point spread the floor over more bins than
        // the smoothing box, so that its smoothed count rises to a peak.
        const double tiltX = rng.uniform(0.02, 0.04) * (trial % 2 ? 1 : -1);
        const double tiltY = rng.uniform(0.02, 0.04) * (trial / 2 ? 1 : -1);
        for (int i = 0; i < 150; ++i) {
            for (int j = 0; j < 300; ++j) {
                const int box = (i / 30) * 6 + j / 50;  // 30 x 50 point cells, every third one a box
                const bool onBox = box % 3 == 0 && j % 50 < 35, shadow = box % 3 == 0 && j % 50 >= 35;
                double z = 200.0 + tiltX * i + tiltY * j + rng.uniform(-0.05, 0.05) + (onBox ? 40.0 + 64.0 * box : 0.0);
                if (shadow || rng.integer(0, 99) == 0) z = 0.0;
                scan[i].push_back(pt(0.2 * i, 0.2 * j, z, j));
            }
        }
        const auto want = refCalibrate(scan);
        ASSERT_NE(want.planeHeight, -1.0);
        ASSERT_TRUE(sameBits(calibrate(scan), want)) << "trial " << trial;
        ASSERT_TRUE(sameBits(hx_getPlaneCalibPara2(scan), want)) << "trial " << trial;
    }
}

// ---------------------------------------------------------------------------
// Regions
// ---------------------------------------------------------------------------

TEST(PlaneCalibRegions, HandWorked) {
    // The upper height bound acts on y: with zRange {0, 5} the point at z = 100,
    // y = 4 is kept, the one at z = 1, y = 6 dropped; a single point is a
    // singular fit: identity, height its z.
    Scan one{{pt(0, 4, 100.0), pt(0, 6, 1.0), pt(0, 3, 0.0)}};
    expectSameRecord(calibrateRegions(one, {region(-10, 10, -10, 10, 0, 5)}), levelledIdentity(100.0));
    // No point: identity and height 0.
    Scan three{{pt(0, 0, 5), pt(1, 2, 6), pt(3, 1, 7)}};
    expectSameRecord(calibrateRegions(three, {}), levelledIdentity(0.0));
    expectSameRecord(calibrateRegions(three, {region(50, 60, 0, 10, 0, 10)}), levelledIdentity(0.0));
    expectSameRecord(hx_getPlaneCalibPara_ROIs(nullptr, 3, {region(-1e9, 1e9, -1e9, 1e9, 0, 1e9)}),
                     levelledIdentity(0.0));
    // Collinear points along x = 3 rising in y: singular, no tilt.
    Scan column{{}};
    for (int j = 0; j < 16; ++j) column[0].push_back(pt(3.0, j, 7.5 + 0.25 * j));
    expectSameRecord(calibrateRegions(column, {region(0, 10, 0, 100, 0, 100)}), levelledIdentity(7.5));
}

TEST(PlaneCalibRegions, FitsTheRegionPointsOnceEach) {
    // A tilted plane z = 20 + 0.1 x - 0.05 y, plus clutter outside the regions.
    Scan scan(10);
    for (int i = 0; i < 10; ++i)
        for (int j = 0; j < 20; ++j) scan[i].push_back(pt(i, j, j >= 15 ? 60.0 + j : 20 + 0.1 * i - 0.05 * j));
    scan[3][4].z = 0.0;  // unmeasured: never taken
    const auto want = refLevel(pointsWithin(scan, 0.0, 59.0));
    const auto one = calibrateRegions(scan, {region(-1, 20, 0, 14, 0, 14)});
    expectSameRecord(one, want);
    // Overlapping regions: every point still counts once.
    expectSameRecord(
        calibrateRegions(scan, {region(-1, 5, 0, 14, 0, 14), region(3, 20, 0, 14, 0, 14), region(-1, 20, 0, 9, 0, 9)}),
        want);
    // The plane really is levelled: its normal comes out vertical.
    const double n[3] = {0.1, -0.05, -1.0};
    EXPECT_NEAR(one.planeCalib[0] * n[0] + one.planeCalib[1] * n[1] + one.planeCalib[2] * n[2], 0.0, 1e-6);
    EXPECT_NEAR(one.planeCalib[3] * n[0] + one.planeCalib[4] * n[1] + one.planeCalib[5] * n[2], 0.0, 1e-6);
}
