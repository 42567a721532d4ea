// Upper semicircles of one profile, and their tracking over a scan.
#include <cmath>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Feats = std::vector<SHX_featureSemiCircle>;
using Points = std::vector<SKesp3DPosition>;

SHX_slopeParam slope(double rangeY, double maxGapY) {
    SHX_slopeParam s;
    s.slopeRangeY = rangeY;
    s.minRunHeight = 1e9;  // not read
    s.jumpHeight = 1e9;    // not read
    s.maxGapY = maxGapY;
    return s;
}

cv::Mat labelsOf(int rows, int cols = 1) { return cv::Mat(rows, cols, CV_32S, cv::Scalar(0)); }

// Five-point dips separated by three invalid points, each with its own shape;
// dip k spans indices 1 + 8k .. 5 + 8k (y = index), its gap rows are 6 + 8k .. 8 + 8k.
Points dips(int n) {
    std::vector<double> z{0.0};
    for (int k = 0; k < n; ++k) {
        const double base = 2.0 + k;
        for (double d : {3.0, 1.0, 0.0, 1.0, 3.0}) z.push_back(base + d);
        z.insert(z.end(), {0.0, 0.0, 0.0});
    }
    return testutil::profileFromZ(z);
}

Feats detect(Points& p, double maxHalfWidth, SHX_slopeParam s, const cv::Mat& labels, int lineIdx = 0) {
    Feats out;
    hx_getLineUpperSemiCircleFeature(p.data(), static_cast<int32_t>(p.size()), lineIdx, maxHalfWidth, s, out, labels);
    return out;
}

void expectSemiCircle(const SHX_featureSemiCircle& f, int start, int end, int peak, double z, double width,
                      double topZ) {
    EXPECT_EQ(f.featureType, 0);
    EXPECT_EQ(f.startPtIdx, start);
    EXPECT_EQ(f.endPtIdx, end);
    EXPECT_EQ(f.peakPtIdx, peak);
    EXPECT_EQ(f.y, peak);  // y equals the index in these profiles
    EXPECT_EQ(f.z, z);
    EXPECT_EQ(f.width, width);
    EXPECT_EQ(f.topZ, topZ);
}

// The detection rules written out plainly: a label per point, every valley
// searching its labelled neighbours, all semicircles recorded before merging.
void referenceDetect(Points& pts, int lineIdx, double maxHalfWidth, SHX_slopeParam s, Feats& out, const cv::Mat& img) {
    const int n = static_cast<int>(pts.size());
    struct Run {
        int first, count;
        bool dropped;
    };
    std::vector<Run> runs;
    for (int i = 0; i < n;) {
        if (!(pts[i].z > 0.0001)) {
            ++i;
            continue;
        }
        const int first = i;
        while (i < n && pts[i].z > 0.0001) ++i;
        runs.push_back({first, i - first, false});
    }
    for (size_t k = 1; k < runs.size(); ++k) {
        Run& prev = runs[k - 1];
        if (std::fabs(pts[prev.first + prev.count - 1].y - pts[runs[k].first].y) < s.maxGapY) {
            runs[k].count += runs[k].first - prev.first;
            runs[k].first = prev.first;
            prev.dropped = true;
        }
    }
    std::vector<int> label(pts.size(), 0);
    std::vector<SHX_basicFeature1D> valleys;
    for (const Run& r : runs) {
        if (r.dropped) continue;
        label[r.first] = 2;
        label[r.first + r.count - 1] = 3;
        std::vector<SHX_basicFeature1D> pk, va;
        hx_getLineLocalPeaks(pts.data() + r.first, r.count, lineIdx, s.slopeRangeY, pk, va);
        for (SHX_basicFeature1D v : va) {
            v.featurePos.nPointIdx += r.first;
            valleys.push_back(v);
        }
    }
    auto measure = [&pts](int l, int r, SHX_featureSemiCircle& f) {
        const double mid = (pts[l].y + pts[r].y) / 2.0;
        int peak = -1;
        double topZ = 1e300;
        for (int i = l; i <= r; ++i) {
            if (pts[i].z < 0.0001) continue;
            if (peak < 0 || std::fabs(pts[i].y - mid) < std::fabs(pts[peak].y - mid)) peak = i;
            topZ = std::min(topZ, pts[i].z);
        }
        if (peak < 0) return false;
        f.startPtIdx = l;
        f.endPtIdx = r;
        f.peakPtIdx = peak;
        f.x = pts[peak].x;
        f.y = pts[peak].y;
        f.z = pts[peak].z;
        f.width = std::fabs(pts[l].y - pts[r].y);
        f.topZ = topZ;
        return true;
    };
    Feats rec;
    for (const SHX_basicFeature1D& v : valleys) {
        const int vi = static_cast<int>(v.featurePos.nPointIdx);
        if (label[vi] >= 1) continue;
        int l = vi - 1, r = vi + 1;
        while (l >= 0 && label[l] <= 0) --l;
        while (r < n && label[r] <= 0) ++r;
        if (l < 0 || r >= n || label[l] != 2 || label[r] != 3) continue;
        if (!(4 * maxHalfWidth > std::fabs(pts[l].y - pts[r].y))) continue;
        SHX_featureSemiCircle f;
        f.lineIdx = lineIdx;
        if (!measure(l, r, f)) continue;
        rec.push_back(f);
        for (int i = l; i <= r; ++i)
            if (label[i] == 0) label[i] = 1;
    }
    auto imgLabel = [&img, lineIdx](int row) {
        if (img.type() != CV_32SC1 || row < 0 || row >= img.rows || lineIdx < 0 || lineIdx >= img.cols) return 0;
        return img.at<int>(row, lineIdx);
    };
    for (size_t i = 0; i + 1 < rec.size(); ++i) {
        if (rec[i].featureType == 5) continue;
        const int a = imgLabel(rec[i].endPtIdx + 1), b = imgLabel(rec[i + 1].startPtIdx - 1);
        if (a >= 1 && a == b) {
            measure(rec[i].startPtIdx, rec[i + 1].endPtIdx, rec[i]);
            rec[i + 1].featureType = 5;
        }
        out.push_back(rec[i]);
    }
}

}  // namespace

TEST(UpperSemiCircle, NothingFromEmptyInvalidOrValleyFreeLines) {
    const cv::Mat labels = labelsOf(40);
    Points none = testutil::profileFromZ({1, 2});
    none[0].nPointIdx = 77;
    Feats out(1);  // appended to, never cleared
    hx_getLineUpperSemiCircleFeature(none.data(), 0, 0, 10, slope(1, 1.5), out, labels);
    hx_getLineUpperSemiCircleFeature(nullptr, 5, 0, 10, slope(1, 1.5), out, labels);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(none[0].nPointIdx, 77);

    Points invalid = testutil::profileFromZ({0, 0.0001, 0, 0.00005});
    EXPECT_TRUE(detect(invalid, 10, slope(1, 1.5), labels).empty());
    // Monotone runs and a hill hold no valley; only the dip and the tail qualify,
    // and the tail is the last one.
    Points p = testutil::profileFromZ({0, 5, 4, 3, 0, 0, 0, 2, 4, 5, 4, 2, 0, 0, 0, 5, 3, 2, 3, 5, 0, 0, 0, 6, 4, 6});
    const Feats f = detect(p, 10, slope(1, 1.5), labels);
    ASSERT_EQ(f.size(), 1u);
    expectSemiCircle(f[0], 15, 19, 17, 2, 4, 2);
}

TEST(UpperSemiCircle, RecordFieldsPeakNearestTheMiddleAndTopZ) {
    // Run 1..5: the peak is the point nearest y 3 (z 4), topZ the lowest z (2).
    Points p = testutil::profileFromZ({0, 5, 3, 4, 2, 5, 0, 0, 0, 6, 4, 6}, 1.0, 2.5);
    const Feats f = detect(p, 1.0001, slope(0.5, 1.5), labelsOf(13, 8), 7);
    ASSERT_EQ(f.size(), 1u);
    expectSemiCircle(f[0], 1, 5, 3, 4, 4, 2);
    EXPECT_EQ(f[0].lineIdx, 7);
    EXPECT_EQ(f[0].x, 2.5);
    // Ends exactly 4 * maxHalfWidth apart: no semicircle; the tail alone is dropped.
    EXPECT_TRUE(detect(p, 1.0, slope(0.5, 1.5), labelsOf(13, 8), 7).empty());
}

TEST(UpperSemiCircle, JoiningAcrossNarrowGapsAndBothValidityForms) {
    const std::vector<double> tail{0, 0, 0, 0, 6, 4, 6};
    auto line = [&tail](std::vector<double> z) {
        z.insert(z.end(), tail.begin(), tail.end());
        return testutil::profileFromZ(z);
    };
    const cv::Mat labels = labelsOf(20);
    {
        // Three stretches chained over 2-wide gaps: one run 1..7 with its valley at 4.
        Points p = line({0, 5, 4, 0, 3, 0, 4, 5});
        Feats f = detect(p, 10, slope(1, 2.5), labels);
        ASSERT_EQ(f.size(), 1u);
        expectSemiCircle(f[0], 1, 7, 4, 3, 6, 3);
        EXPECT_EQ(p[3].nPointIdx, 2);  // gap points are numbered with the run
        EXPECT_EQ(p[7].nPointIdx, 6);
        // A gap equal to maxGapY does not join: no stretch holds a valley of its own.
        EXPECT_TRUE(detect(p, 10, slope(1, 2.0), labels).empty());
    }
    {
        // The middle is invalid: the valid points at equal distance tie, the earlier wins.
        Points p = line({0, 5, 3, 0, 3, 5});
        expectSemiCircle(detect(p, 10, slope(1, 2.5), labels).at(0), 1, 5, 2, 3, 4, 3);
    }
    {
        // z exactly 0.0001 breaks a run but is a valid peak, valley and top point.
        Points p = line({0, 5, 3, 0.0001, 3, 5});
        expectSemiCircle(detect(p, 10, slope(1, 2.5), labels).at(0), 1, 5, 3, 0.0001, 4, 0.0001);
        EXPECT_TRUE(detect(p, 10, slope(1, 1.5), labels).empty());
    }
}

TEST(UpperSemiCircle, NeighboursWithTheSameGapLabelMerge) {
    // Dips 1..5, 9..13, 17..21, 25..29; the gap rows read are 6 | 8, 14 | 16, 22 | 24.
    auto run = [](int n, std::vector<std::pair<int, int>> rowLabels, int col = 0, int rows = 0) {
        Points p = dips(n);
        cv::Mat labels = labelsOf(rows > 0 ? rows : static_cast<int>(p.size()) + 1, std::max(col + 1, 1));
        for (auto [row, value] : rowLabels) labels.at<int>(row, col) = value;
        return detect(p, 10, slope(1, 1.5), labels, col);
    };
    {
        // Merged: the span 1..13; its peak nearest y 7 is among invalid gap points,
        // so the valid points 5 and 9 tie and 5 wins; topZ over both dips.
        const Feats f = run(2, {{6, 4}, {8, 4}});
        ASSERT_EQ(f.size(), 1u);
        expectSemiCircle(f[0], 1, 13, 5, 5, 12, 2);
    }
    for (auto labels : std::vector<std::vector<std::pair<int, int>>>{
             {}, {{6, 4}, {8, 5}}, {{6, -3}, {8, -3}}, {{5, 4}, {9, 4}, {7, 4}}}) {
        // No label, different labels, equal labels below 1, or labels on the wrong rows:
        // the first is reported unchanged and the second dropped.
        const Feats f = run(2, labels);
        ASSERT_EQ(f.size(), 1u);
        expectSemiCircle(f[0], 1, 5, 3, 2, 4, 2);
    }
    EXPECT_EQ(run(2, {{6, 1}, {8, 1}}).at(0).endPtIdx, 13);  // label 1 is an object too
    {
        // Only two neighbours merge: the third of the object is reported alone, the fourth dropped.
        const Feats f = run(4, {{6, 4}, {8, 4}, {14, 4}, {16, 4}, {22, 9}, {24, 7}});
        ASSERT_EQ(f.size(), 2u);
        expectSemiCircle(f[0], 1, 13, 5, 5, 12, 2);
        expectSemiCircle(f[1], 17, 21, 19, 4, 4, 4);
    }
    // The column read is lineIdx.
    EXPECT_EQ(run(2, {{6, 4}, {8, 4}}, 3).at(0).endPtIdx, 13);
}

TEST(UpperSemiCircle, LabelsOutsideTheImageReadAsBackground) {
    Points p = dips(2);
    auto endOfFirst = [&p](const cv::Mat& labels, int lineIdx) {
        return detect(p, 10, slope(1, 1.5), labels, lineIdx).at(0).endPtIdx;
    };
    cv::Mat full = labelsOf(static_cast<int>(p.size()) + 1, 2);
    full.col(1).setTo(4);
    ASSERT_EQ(endOfFirst(full, 1), 13);
    EXPECT_EQ(endOfFirst(full, 2), 5);   // no column 2
    EXPECT_EQ(endOfFirst(full, -1), 5);  // no column -1
    EXPECT_EQ(endOfFirst(full.rowRange(0, 8).clone(), 1), 5);  // row 8 missing
    EXPECT_EQ(endOfFirst(cv::Mat(), 0), 5);
    cv::Mat bytes(full.rows, 2, CV_8U, cv::Scalar(4));
    EXPECT_EQ(endOfFirst(bytes, 1), 5);  // not a 32-bit label image: read as background
    cv::Mat pairs(full.rows, 2, CV_32SC2, cv::Scalar(4, 4));
    EXPECT_EQ(endOfFirst(pairs, 1), 5);
    // A view into a larger image is read through its own row stride.
    cv::Mat big = labelsOf(full.rows + 10, 6);
    big(cv::Rect(3, 5, 2, full.rows)).setTo(4);
    EXPECT_EQ(endOfFirst(big(cv::Rect(3, 5, 2, full.rows)), 1), 13);
}

TEST(UpperSemiCircle, MatchesPlainVersionOnRandomLines) {
    testutil::Rng rng(48);
    for (int trial = 0; trial < 2000; ++trial) {
        const int n = static_cast<int>(rng.integer(0, 90));
        Points p;
        double y = rng.uniform(-5, 5);
        for (int i = 0; i < n; ++i) {
            const int64_t kind = rng.integer(0, 30);
            const double z = kind < 6 ? 0.0 : kind == 6 ? 0.0001 : static_cast<double>(rng.integer(1, 6));
            p.push_back(testutil::pt(rng.uniform(0, 1), y, z, -5));
            y += rng.integer(0, 9) == 0 ? rng.uniform(0, 4) : 0.5;  // mostly even steps, some wide gaps
        }
        const int lineIdx = static_cast<int>(rng.integer(0, 3));
        const int rows = static_cast<int>(rng.integer(0, 4)) == 0 ? static_cast<int>(rng.integer(0, n + 1)) : n + 1;
        cv::Mat labels = labelsOf(std::max(rows, 1), static_cast<int>(rng.integer(1, 4)));
        for (int r = 0; r < labels.rows; ++r)
            for (int c = 0; c < labels.cols; ++c) labels.at<int>(r, c) = static_cast<int>(rng.integer(-1, 3));
        const double maxHalfWidth = rng.uniform(0.5, 8), rangeY = rng.uniform(0, 3), maxGapY = rng.uniform(0, 3);

        Points q = p;
        Feats got, want;
        hx_getLineUpperSemiCircleFeature(p.data(), n, lineIdx, maxHalfWidth, slope(rangeY, maxGapY), got, labels);
        if (n > 0) referenceDetect(q, lineIdx, maxHalfWidth, slope(rangeY, maxGapY), want, labels);
        ASSERT_EQ(got.size(), want.size()) << "trial " << trial;
        for (size_t k = 0; k < got.size(); ++k) {
            EXPECT_EQ(got[k].featureType, want[k].featureType);
            EXPECT_EQ(got[k].lineIdx, want[k].lineIdx);
            EXPECT_EQ(got[k].startPtIdx, want[k].startPtIdx);
            EXPECT_EQ(got[k].endPtIdx, want[k].endPtIdx);
            EXPECT_EQ(got[k].peakPtIdx, want[k].peakPtIdx);
            EXPECT_EQ(got[k].x, want[k].x);
            EXPECT_EQ(got[k].z, want[k].z);
            EXPECT_EQ(got[k].width, want[k].width);
            EXPECT_EQ(got[k].topZ, want[k].topZ);
        }
        for (int i = 0; i < n; ++i) EXPECT_EQ(p[i].nPointIdx, q[i].nPointIdx);
        if (HasFailure()) FAIL() << "trial " << trial;
    }
}
