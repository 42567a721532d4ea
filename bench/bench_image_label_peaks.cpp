// Labelling, distance transform and window peaks beside OpenCV and a plain
// read pass, on 2,048 x 2,048 images. OpenCV runs single-threaded (the
// library never starts threads), so both sides do the same sequential work.
#include <cstdint>
#include <random>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_util.h"

namespace {

constexpr int kSide = 2048;
constexpr float kFar = 1.0e6f;  // starting value of the pixels whose distance is wanted

void singleThreadedOpenCv() { cv::setNumThreads(1); }

/// Realistic blobs: filled discs and ellipses of many sizes, some touching,
/// some with holes, on a 0/1 image (about a third foreground).
const cv::Mat& blobs() {
    static const cv::Mat img = [] {
        cv::Mat m = cv::Mat::zeros(kSide, kSide, CV_8U);
        std::mt19937 rng(5);
        std::uniform_int_distribution<int> pos(0, kSide - 1), rad(4, 60), ang(0, 179);
        for (int i = 0; i < 900; ++i) {
            const cv::Point c(pos(rng), pos(rng));
            const cv::Size axes(rad(rng), rad(rng));
            cv::ellipse(m, c, axes, ang(rng), 0, 360, cv::Scalar(1), cv::FILLED);
            if (i % 7 == 0) cv::circle(m, c, axes.width / 3, cv::Scalar(0), cv::FILLED);
        }
        return m;
    }();
    return img;
}

/// Uniform noise, half of the pixels foreground.
const cv::Mat& noise() {
    static const cv::Mat img = [] {
        cv::Mat m(kSide, kSide, CV_8U);
        std::mt19937 rng(7);
        for (int r = 0; r < kSide; ++r) {
            uint8_t* p = m.ptr<uint8_t>(r);
            for (int c = 0; c < kSide; ++c) p[c] = static_cast<uint8_t>(rng() & 1u);
        }
        return m;
    }();
    return img;
}

const cv::Mat& imageOf(int which) { return which == 0 ? blobs() : noise(); }

/// Starting values for the distance transform: 0 on background, far on blobs.
const cv::Mat& distanceInput() {
    static const cv::Mat img = [] {
        cv::Mat f;
        blobs().convertTo(f, CV_32F, kFar);
        return f;
    }();
    return img;
}

/// A distance image of the blobs, the usual input of the window peak search.
const cv::Mat& distanceImage() {
    static const cv::Mat img = [] {
        cv::Mat d;
        hx_distanceTrans(distanceInput(), d, 0);
        return d;
    }();
    return img;
}

void setPixels(benchmark::State& state) { state.SetItemsProcessed(state.iterations() * int64_t(kSide) * kSide); }

// Arguments: image (0 blobs, 1 noise), connectivity.
void BM_Label_OpenCV(benchmark::State& state) {
    singleThreadedOpenCv();
    const cv::Mat& bin = imageOf(static_cast<int>(state.range(0)));
    cv::Mat labels, stats, centroids;
    for (auto _ : state) {
        const int n = cv::connectedComponentsWithStats(bin, labels, stats, centroids,
                                                       static_cast<int>(state.range(1)), CV_32S);
        benchmark::DoNotOptimize(n);
    }
    setPixels(state);
}
BENCHMARK(BM_Label_OpenCV)->ArgsProduct({{0, 1}, {4, 8}})->Unit(benchmark::kMillisecond);

void BM_HX_TwoPassLabel(benchmark::State& state) {
    const cv::Mat& bin = imageOf(static_cast<int>(state.range(0)));
    cv::Mat labels;
    std::vector<SHX_Region> regions;
    for (auto _ : state) {
        regions.clear();
        HX_TwoPassLabel(bin, labels, regions, static_cast<int>(state.range(1)));
        benchmark::DoNotOptimize(regions.data());
    }
    setPixels(state);
}
BENCHMARK(BM_HX_TwoPassLabel)->ArgsProduct({{0, 1}, {4, 8}})->Unit(benchmark::kMillisecond);

// OpenCV's 3x3 chamfer transform from the binary image (its own
// initialisation included; ours starts from prepared float values).
void BM_DistanceTransform_OpenCV(benchmark::State& state) {
    singleThreadedOpenCv();
    cv::Mat dst;
    for (auto _ : state) {
        cv::distanceTransform(blobs(), dst, cv::DIST_L2, cv::DIST_MASK_3, CV_32F);
        benchmark::DoNotOptimize(dst.data);
    }
    setPixels(state);
}
BENCHMARK(BM_DistanceTransform_OpenCV)->Unit(benchmark::kMillisecond);

void BM_hx_distanceTrans(benchmark::State& state) {
    cv::Mat dst;
    for (auto _ : state) {
        hx_distanceTrans(distanceInput(), dst, 0);
        benchmark::DoNotOptimize(dst.data);
    }
    setPixels(state);
}
BENCHMARK(BM_hx_distanceTrans)->Unit(benchmark::kMillisecond);

// Baseline for the window search: read every pixel once (eight running sums,
// so the pass is limited by memory, not by one add chain).
void BM_Baseline_ReadImage(benchmark::State& state) {
    const cv::Mat& img = distanceImage();
    for (auto _ : state) {
        float s[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        for (int r = 0; r < img.rows; ++r) {
            const float* p = img.ptr<float>(r);
            for (int c = 0; c + 8 <= img.cols; c += 8) {
                for (int k = 0; k < 8; ++k) s[k] += p[c + k];
            }
        }
        float total = 0;
        for (float v : s) total += v;
        benchmark::DoNotOptimize(total);
    }
    setPixels(state);
}
BENCHMARK(BM_Baseline_ReadImage)->Unit(benchmark::kMillisecond);

void BM_hx_getLocalPeaks_distTransform(benchmark::State& state) {
    const cv::Mat& img = distanceImage();
    const SHX_localPkParam param{16, 16};
    std::vector<SHX_2DValueI> peaks;
    for (auto _ : state) {
        peaks.clear();
        hx_getLocalPeaks_distTransform(img, peaks, param);
        benchmark::DoNotOptimize(peaks.data());
    }
    state.counters["peaks"] = static_cast<double>(peaks.size());
    setPixels(state);
}
BENCHMARK(BM_hx_getLocalPeaks_distTransform)->Unit(benchmark::kMillisecond);

// The same search on a scan (2,048 lines x 2,048 points), beside a read pass
// over the points.
std::vector<std::vector<SKesp3DPosition>>& scan() {
    static auto s = benchutil::makeScan(kSide, kSide);
    return s;
}

void BM_Baseline_ReadScan(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(lines));
    }
    setPixels(state);
}
BENCHMARK(BM_Baseline_ReadScan)->Unit(benchmark::kMillisecond);

void BM_hx_getLocalPeaks(benchmark::State& state) {
    auto lines = benchutil::linesOf(scan());
    const SHX_localPkParam param{16, 16};
    std::vector<SHX_2DValueI> peaks;
    for (auto _ : state) {
        peaks.clear();
        hx_getLocalPeaks(lines.data(), static_cast<int32_t>(lines.size()), peaks, param);
        benchmark::DoNotOptimize(peaks.data());
    }
    state.counters["peaks"] = static_cast<double>(peaks.size());
    setPixels(state);
}
BENCHMARK(BM_hx_getLocalPeaks)->Unit(benchmark::kMillisecond);

}  // namespace
