// Every exported routine called from four threads at once, each thread on its
// own scan, many times: each call must give what a serial run gives. Built
// with ThreadSanitizer by `make tsan`, where it must also run without reports.
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Line = std::vector<SKesp3DPosition>;
using Features = std::vector<SHX_basicFeature1D>;

// FNV-1a over the fields of the results (never over padding).
struct Digest {
    uint64_t h = 1469598103934665603ull;
    void bytes(const void* p, size_t n) {
        for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const unsigned char*>(p)[i]) * 1099511628211ull;
    }
    Digest& operator<<(double v) { return bytes(&v, sizeof v), *this; }
    Digest& operator<<(int64_t v) { return bytes(&v, sizeof v), *this; }
    Digest& operator<<(int32_t v) { return *this << int64_t{v}; }
    Digest& operator<<(const SKesp3DPosition& p) { return *this << p.nPointIdx << p.x << p.y << p.z; }
    Digest& operator<<(const SKespRangeD& r) { return *this << r.min << r.max; }
    Digest& operator<<(const SHX_basicFeature1D& f) { return *this << f.featureType << f.lineIdx << f.featurePos << f.featureValue; }
    Digest& operator<<(const SHX_2DValueI& v) { return *this << v.x << v.y << v.featureType << v.value << v.value2; }
    Digest& operator<<(const SHX_featureTree& t) {
        return *this << t.treeState << t.treeType << t.sLineIdx << t.eLineIdx << t.treeValue << t.xRange << t.yRange << t.treeNodes;
    }
    Digest& operator<<(const SHX_featureSemiCircle& s) {
        return *this << s.startPtIdx << s.endPtIdx << s.peakPtIdx << s.featureType << s.y << s.z << s.width << s.topZ;
    }
    Digest& operator<<(const SHX_semiCircleFeatureTree& t) { return *this << t.treeState << t.eLineIdx << t.treeNodes; }
    Digest& operator<<(const SHX_contourPtInfo& p) { return *this << p.lineIdx << p.ptIdx << p.contourIdx << p.ptFlag << p.seedDist << p.z; }
    Digest& operator<<(const SHX_lineConotours& l) { return *this << l.lineIdx << l.contourPts; }
    Digest& operator<<(const SHX_conotourPair& p) { return *this << p.pairKey_0 << p.pt_1 << p.pt_2; }
    Digest& operator<<(const SHX_Region& r) { return *this << r.left << r.right << r.top << r.bottom << r.pixelCnt << r.label; }
    Digest& operator<<(const cv::Mat& m) {
        for (int r = 0; r < m.rows; ++r) bytes(m.ptr(r), m.cols * m.elemSize());
        return *this;
    }
    template <class T>
    Digest& operator<<(const std::vector<T>& v) {
        *this << static_cast<int64_t>(v.size());
        for (const T& x : v) *this << x;
        return *this;
    }
};

// One thread's scan: lines across a box on a belt, with a groove, noise and
// dropouts; the seed makes each thread's scan its own.
struct Scan {
    static constexpr int kLines = 12, kPoints = 160;
    std::vector<Line> lines;
    std::vector<SKesp3DLaserLine> records;
    cv::Mat binary, labels, depth;

    explicit Scan(uint64_t seed) : lines(kLines), binary(kPoints, kLines, CV_8UC1, cv::Scalar(0)) {
        testutil::Rng rng(seed);
        const double left = 40 + rng.integer(0, 20), right = 100 + rng.integer(0, 20);
        for (int i = 0; i < kLines; ++i) {
            for (int k = 0; k < kPoints; ++k) {
                const double y = k * 0.5;
                double z = 10.0 + 0.02 * i + rng.uniform(-0.05, 0.05);
                if (k > left && k < right) z += 15.0 + (k > 70 && k < 76 ? -4.0 + std::fabs(k - 73.0) : 0.0);
                if (rng.integer(0, 40) == 0) z = 0.0;
                // The box's edges are typed for the contour scan: 1 rising, 2 falling.
                lines[i].push_back(testutil::pt(i * 2.0, y, z, k == left + 1 ? 1 : k == right ? 2 : 0));
                binary.at<uint8_t>(k, i) = z > 20.0;
            }
        }
        records = testutil::linesOf(lines);
        std::vector<SHX_Region> regions;
        HX_TwoPassLabel(binary, labels, regions, 8);
        cv::Mat seeds;
        binary.convertTo(seeds, CV_32F, 1000.0);
        hx_distanceTrans(seeds, depth, 0);
    }
};

// The routines, each turning a thread's scan into a digest of its results.
using Call = std::function<uint64_t(const Scan&)>;

SHX_cornerParam cornerParam() { return SHX_cornerParam{3.0, 4.0, 2.0, 30.0, 30.0, 60.0}; }
SHX_treeGrowParam growParam() { return SHX_treeGrowParam{3.0, 3.0, 2, 5.0, 2.0, 2.0}; }

Features peaksOf(const Scan& s, int i) {
    Line l = s.lines[i];
    Features p, v;
    hx_getLineLocalPeaks(l.data(), static_cast<int32_t>(l.size()), i, 2.0, p, v);
    p.insert(p.end(), v.begin(), v.end());
    return p;
}

std::vector<SHX_lineFeature> lvScan(const Scan& s) {
    std::vector<SHX_lineFeature> out(s.lines.size());
    for (size_t i = 0; i < s.lines.size(); ++i) {
        out[i].lineIdx = static_cast<int32_t>(i);
        hx_getLineLVFeature(s.lines[i].data(), Scan::kPoints, out[i].lineIdx, SHX_slopeParam{1.0, 2.0, 4.0, 3.0},
                            SHX_VFeatureParam{1.0, 2.0}, &out[i]);
    }
    return out;
}

template <class F>
uint64_t digestOf(F&& f) {
    Digest d;
    f(d);
    return d.h;
}

std::vector<Call> allRoutines() {
    const double rot[9] = {0.99, -0.1, 0.05, 0.1, 0.99, 0.0, -0.05, 0.0, 0.99};
    return {
        [](const Scan& s) { return digestOf([&](Digest& d) { const auto r = hx_getScanDataROI(s.records.data(), Scan::kLines); d << r.xRange << r.yRange << r.zRange; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) { d << hx_getScanDataROI_vector(s.lines).zRange; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            std::vector<SKesp3DPoint> p;
            for (const auto& q : s.lines[1]) p.push_back(SKesp3DPoint{q.y, q.z, 0.0});
            double k, b;
            lineFitting(p, &k, &b);
            d << k << b; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            std::vector<SKesp2DPoint> p;
            drawLine(0, 0, static_cast<int32_t>(s.lines[0][3].z * 1000), 7, p);
            for (auto q : p) d << q.x << q.y; }); },
        [rot](const Scan& s) { return digestOf([&](Digest& d) {
            Line l = s.lines[2];
            SKesp3DLaserLine r{l.data(), Scan::kPoints};
            lineDataRT(&r, rot, 24.0);
            lineDataRT_vector(l, rot, 0.0);
            std::vector<SKespXYZRGBDPoint> c;
            for (const auto& q : l) c.push_back(SKespXYZRGBDPoint{float(q.x), float(q.y), float(q.z), 1u});
            SKespXYZRGBDLaserLine cl{c.data(), Scan::kPoints};
            lineDataRT_RGBD(&cl, rot, 0.0);
            d << l << static_cast<double>(c[5].z); }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            double m[3][3];
            eulerToRotationMatrixZYX(SHX_EulerAngles{s.lines[0][0].z, 2.0, 3.0}, m);
            const SHX_EulerAngles e = rotationMatrixToEulerZYX(m);
            d << e.roll << e.pitch << e.yaw; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            const SHX_planeCalibPara a = hx_getPlaneCalibPara(s.records.data(), Scan::kLines);
            const SHX_planeCalibPara b = hx_getPlaneCalibPara2(s.lines);
            const SHX_planeCalibPara c = hx_getPlaneCalibPara_ROIs(s.records.data(), Scan::kLines,
                {SKesp3DRangeD{{0, 30}, {0, 15}, {0, 100}}});
            d << a.planeHeight << a.planeCalib[2] << b.planeHeight << c.planeHeight << c.invRMatrix[5]; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            Line a, b;
            hx_lineDataSmoothing(s.lines[3], 5, a);
            hx_lineSegSmoothing(s.lines[3], 2.0, 3.0, 5, b);
            d << a << b; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            Line a, b, c = s.lines[4];
            std::vector<int32_t> ra, rb;
            const SHX_outlierFilterParam p{1.0, 4.0};
            hx_lineDataRemoveOutlier(c.data(), Scan::kPoints, p, a, ra);
            hx_lineDataRemoveOutlier_ptDistMethod(c.data(), Scan::kPoints, p, b, rb);
            hx_lineDataRemoveOutlier_changeOriginData(c.data(), Scan::kPoints, p);
            d << a << b << c << std::vector<double>(ra.begin(), ra.end()) << std::vector<double>(rb.begin(), rb.end()); }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            Line p = s.lines[5];
            std::vector<Line> clusters;
            hx_pointClustering(p, 0.8, clusters);
            d << clusters; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            Line l = s.lines[6];
            Features j;
            hx_getLineDownJumps(l.data(), Scan::kPoints, 6, 3.0, j);
            d << peaksOf(s, 6) << j; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            Features f;
            hx_getFlatLineLocalPeaks_vector(s.lines[7], 7, 5.0, 5.0, 8.0, f);
            d << f; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) { for (const auto& l : lvScan(s)) d << l.features << l.endings; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            SHX_lineFeature c;
            Features j;
            hx_getLineCornerFeature(s.lines[8].data(), Scan::kPoints, 8, cornerParam(), &c);
            hx_getLineJumpFeature_cornerMethod(s.lines[8].data(), Scan::kPoints, 8, cornerParam(), j);
            d << c.features << c.endings << j; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            SHX_lineFeature f;
            const SHX_lineRightAngleParam p{3.0, 3.0, 0.5};
            hx_getLineRigthAngleFeature(s.lines[9].data(), Scan::kPoints, 9, p, p, p, p, &f);
            d << f.features; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            Features f;
            rk_getLineGloveArcs(s.lines[10], 10, SHX_gloveArcParam{2.0, 6.0, 20.0}, f);
            d << f; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            std::vector<SHX_semiCircleFeatureTree> work, valid, shortTrees;
            for (int i = 0; i < Scan::kLines; ++i) {
                Line l = s.lines[i];
                std::vector<SHX_featureSemiCircle> f;
                hx_getLineUpperSemiCircleFeature(l.data(), Scan::kPoints, i, 6.0, SHX_slopeParam{2.0, 0, 0, 1.0}, f, s.labels);
                d << f;
                hx_getFeatureGrowingTrees_semiCircle(f, i, Scan::kLines, work, valid, shortTrees, growParam());
            }
            d << valid << shortTrees; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            std::vector<SHX_featureTree> a, b, c;
            std::vector<Features> perLine;
            for (int i = 0; i < Scan::kLines; ++i) perLine.push_back(peaksOf(s, i));
            const auto lv = lvScan(s);
            hx_getFeatureGrowingTrees(lv, a, growParam());
            for (int i = 0; i < Scan::kLines; ++i) hx_lineFeaturesGrowing(i, i + 1 == Scan::kLines, lv[i].features, b, growParam());
            hx_peakFeatureGrowing(perLine, c, growParam());
            d << a << b << c; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            std::vector<SHX_featureTree> t, u;
            std::vector<SHX_2DValueI> starts, ends;
            auto lv = lvScan(s);
            hx_LVFeatureGrowing(lv, t, SHX_bagParam{20.0, 10.0}, growParam(), starts, ends);
            hx_getEndingGrowingTrees(starts, s.records.data(), true, 6, u, growParam());
            d << t << u << starts << ends; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            cv::Mat labels;
            std::vector<SHX_Region> regions;
            HX_TwoPassLabel(s.binary, labels, regions, 4);
            cv::Mat dist;
            hx_distanceTrans(s.depth, dist, 1);
            std::vector<SHX_2DValueI> a, b;
            hx_getLocalPeaks_distTransform(s.depth, a, SHX_localPkParam{6, 6});
            hx_getLocalPeaks(s.records.data(), Scan::kLines, b, SHX_localPkParam{4, 8});
            d << labels << regions << dist << a << b; }); },
        [](const Scan& s) { return digestOf([&](Digest& d) {
            std::vector<SHX_2DValueI> peaks;
            hx_getLocalPeaks_distTransform(s.depth, peaks, SHX_localPkParam{6, 6});
            cv::Mat flags(Scan::kPoints, Scan::kLines, CV_32SC4, cv::Scalar(1, 0, 0, 1));
            std::vector<SHX_lineConotours> out[4];
            int32_t mx[4];
            SHX_2DValueI seed = peaks.empty() ? SHX_2DValueI{5, 80, 0, 3.0, 0} : peaks[0];
            hx_peakXYScan(s.records.data(), Scan::kLines, flags, seed, growParam(), SHX_bagParam{60.0, 10.0}, true,
                          out[0], out[1], out[2], out[3], &mx[0], &mx[1], &mx[2], &mx[3]);
            std::vector<SHX_contourPtInfo> all;
            for (const auto& l : out[0]) all.insert(all.end(), l.contourPts.begin(), l.contourPts.end());
            std::vector<SHX_2DValueI> pts, post;
            int f0, f1, f2, f3;
            hx_getContourPts(out[1], 1, pts, &f0);
            hx_contourPostProc(all, 8, 5.0, post, 3, &f1);
            std::vector<SHX_conotourPair> pairs, kept;
            for (size_t k = 0; k + 1 < all.size(); k += 2) pairs.push_back(SHX_conotourPair{0, 1, 2, 0, 0.0, all[k], all[k + 1]});
            hx_getPairingContourPts(pairs, {SHX_intPair{1, 2, 0}}, kept, SKespRangeD{-1e9, 1e9}, true, &f2, &f3);
            d << out[0] << out[1] << out[2] << out[3] << pts << post << kept << f0 << f1 << f2 << f3; }); },
    };
}

constexpr int kThreads = 4;
constexpr int kRounds = 25;

TEST(ConcurrentCalls, EveryRoutineFromFourThreadsGivesTheSerialResult) {
    const std::vector<Call> calls = allRoutines();
    std::vector<std::vector<uint64_t>> serial(kThreads), parallel(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        const Scan scan(100 + t);
        for (const Call& c : calls) serial[t].push_back(c(scan));
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const Scan scan(100 + t);
            for (int round = 0; round < kRounds; ++round)
                for (const Call& c : calls) parallel[t].push_back(c(scan));
        });
    }
    for (std::thread& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(parallel[t].size(), kRounds * calls.size());
        for (size_t k = 0; k < parallel[t].size(); ++k)
            EXPECT_EQ(parallel[t][k], serial[t][k % calls.size()]) << "thread " << t << ", routine group " << k % calls.size();
    }
}

}  // namespace
