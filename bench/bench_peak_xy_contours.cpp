// Peak XY scan on a flagged 2,000 x 2,048 scan and contour post-processing on
// 100k points, each beside a plain read pass over the same data.
#include <cmath>

#include <opencv2/core.hpp>

#include "bench_util.h"

namespace {

constexpr int kLines = 2000;
constexpr int kPoints = 2048;
constexpr int kFirstContour = 10;  // contour indices 5..8 are the walks' end markers

// Objects on the scan: ellipses with semi-axes in scan units (x across the
// lines, y along them), as a caller's labelling would classify them.
struct Blob {
    double cx, cy, ax, ay;
};

const std::vector<Blob>& blobs() {
    static const std::vector<Blob> b = [] {
        std::vector<Blob> v;
        // x spans 0..400 (0.2 per line), y spans 0..205 (0.1 per point).
        uint32_t s = 7;
        auto rnd = [&s](double lo, double hi) {
            s = s * 1664525u + 1013904223u;
            return lo + (hi - lo) * (static_cast<double>(s >> 8) / 16777216.0);
        };
        for (double cx = 35.0; cx < 380.0; cx += 70.0) {
            for (double cy = 18.0; cy < 200.0; cy += 32.0) v.push_back({cx + rnd(-4, 4), cy + rnd(-3, 3), rnd(22, 30), rnd(9, 13)});
        }
        return v;
    }();
    return b;
}

// The scan with its type bits and flag image: along each line an object's first
// and last point are edges of types 1 and 2, across the lines likewise; every
// edge point carries its object's contour index.
struct FlaggedScan {
    std::vector<std::vector<SKesp3DPosition>> scan;
    std::vector<SKesp3DLaserLine> lines;
    cv::Mat flags;
    SHX_2DValueI seed;
    SHX_bagParam bag;

    FlaggedScan() : scan(benchutil::makeScan(kLines, kPoints)), flags(kPoints, kLines, CV_32SC4, cv::Scalar::all(0)) {
        lines = benchutil::linesOf(scan);
        cv::Mat_<int32_t> label(kPoints, kLines, 0);
        for (int i = 0; i < kLines; ++i) {
            for (int k = 0; k < kPoints; ++k) {
                scan[i][k].nPointIdx = 0;
                const double x = i * 0.2, y = k * 0.1;
                for (size_t b = 0; b < blobs().size(); ++b) {
                    const Blob& o = blobs()[b];
                    const double u = (x - o.cx) / o.ax, v = (y - o.cy) / o.ay;
                    if (u * u + v * v <= 1.0) label(k, i) = static_cast<int32_t>(b) + 1;
                }
            }
        }
        for (int i = 0; i < kLines; ++i) {
            for (int k = 0; k < kPoints; ++k) {
                const int32_t l = label(k, i);
                if (l == 0) continue;
                int64_t bits = 0;
                if (k == 0 || label(k - 1, i) != l) bits |= 1;
                else if (k == kPoints - 1 || label(k + 1, i) != l) bits |= 2;
                if (i == 0 || label(k, i - 1) != l) bits |= 1 << 4;
                else if (i == kLines - 1 || label(k, i + 1) != l) bits |= 2 << 4;
                scan[i][k].nPointIdx = bits;
                if (bits) flags.at<cv::Vec4i>(k, i)[0] = kFirstContour + l;
            }
        }
        // Seed at the centre of an inner object; its width and length set the window.
        const Blob& o = blobs()[blobs().size() / 2 + 1];
        seed.x = static_cast<int32_t>(std::lround(o.cx / 0.2));
        seed.y = static_cast<int32_t>(std::lround(o.cy / 0.1));
        seed.value = 2.0 * o.ay;
        bag.bagL = 2.0 * o.ax;
        flags.at<cv::Vec4i>(seed.y, seed.x)[3] = 1;
    }
};

FlaggedScan& flagged() {
    static FlaggedScan f;
    return f;
}

struct ScanOut {
    std::vector<SHX_lineConotours> ld, lu, rd, ru;
    int32_t m[4] = {0, 0, 0, 0};
    size_t records() const {
        size_t n = 0;
        for (const auto* v : {&ld, &lu, &rd, &ru})
            for (const auto& e : *v) n += e.contourPts.size();
        return n;
    }
};

void scanOnce(FlaggedScan& f, const SHX_2DValueI& seed, const SHX_bagParam& bag, ScanOut& o) {
    hx_peakXYScan(f.lines.data(), kLines, f.flags, seed, SHX_treeGrowParam{}, bag, false, o.ld, o.lu, o.rd, o.ru,
                  &o.m[0], &o.m[1], &o.m[2], &o.m[3]);
}

// Baseline: read every point of the scan once.
void BM_Baseline_ReadScan(benchmark::State& state) {
    FlaggedScan& f = flagged();
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchutil::plainReadScan(f.lines));
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints);
}
BENCHMARK(BM_Baseline_ReadScan)->Unit(benchmark::kMillisecond);

// A seed at an object's centre, window from the object's size.
void BM_peakXYScan_Object(benchmark::State& state) {
    FlaggedScan& f = flagged();
    size_t records = 0;
    for (auto _ : state) {
        ScanOut o;
        scanOnce(f, f.seed, f.bag, o);
        records = o.records();
        benchmark::DoNotOptimize(o.ld.data());
    }
    state.counters["records"] = static_cast<double>(records);
}
BENCHMARK(BM_peakXYScan_Object)->Unit(benchmark::kMillisecond);

// Worst case: a window over the whole scan and no type bits, so every walk runs
// to the end of its line (or across all lines): each point is visited twice.
void BM_peakXYScan_WholeScanUntyped(benchmark::State& state) {
    static FlaggedScan f = [] {
        FlaggedScan g = flagged();
        g.lines = benchutil::linesOf(g.scan);
        for (auto& line : g.scan)
            for (auto& p : line) p.nPointIdx = 0;
        return g;
    }();
    SHX_bagParam bag;
    bag.bagL = 1e6;
    for (auto _ : state) {
        ScanOut o;
        scanOnce(f, f.seed, bag, o);
        benchmark::DoNotOptimize(o.ld.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kLines) * kPoints * 2);
}
BENCHMARK(BM_peakXYScan_WholeScanUntyped)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------
// Contour post-processing
// ---------------------------------------------------------------------------

constexpr int kContourPts = 100000;
constexpr int kContours = 40;

const std::vector<SHX_contourPtInfo>& contourPoints() {
    static const std::vector<SHX_contourPtInfo> pts = [] {
        std::vector<SHX_contourPtInfo> v;
        v.reserve(kContourPts);
        uint32_t s = 3;
        auto next = [&s]() { return s = s * 1664525u + 1013904223u; };
        for (int i = 0; i < kContourPts; ++i) {
            SHX_contourPtInfo p;
            // Two large contours and many small ones, interleaved as a scan finds them.
            const uint32_t r = next() >> 8;
            p.contourIdx = (r % 10 < 4) ? 1 : (r % 10 < 8) ? 2 : 3 + static_cast<int32_t>(r % (kContours - 3));
            p.lineIdx = i / 50;
            p.ptIdx = static_cast<int32_t>(next() % 2048);
            p.ptType = 1 + static_cast<int32_t>(next() % 4);
            p.ptFlag = static_cast<int32_t>(next() % 2);
            p.seedDist = 10.0 * p.contourIdx + static_cast<double>(next() % 1000) * 0.01;
            p.z = 100.0 + p.seedDist;
            v.push_back(p);
        }
        return v;
    }();
    return pts;
}

// Baseline: one read pass over the points' contour index and seed distance.
void BM_Baseline_ReadContourPts(benchmark::State& state) {
    const auto& pts = contourPoints();
    for (auto _ : state) {
        double sum = 0;
        int64_t ids = 0;
        for (const SHX_contourPtInfo& p : pts) {
            sum += p.seedDist;
            ids += p.contourIdx;
        }
        benchmark::DoNotOptimize(sum);
        benchmark::DoNotOptimize(ids);
    }
    state.SetItemsProcessed(state.iterations() * kContourPts);
}
BENCHMARK(BM_Baseline_ReadContourPts)->Unit(benchmark::kMicrosecond);

void BM_contourPostProc(benchmark::State& state) {
    const auto& pts = contourPoints();
    std::vector<SHX_2DValueI> out;
    out.reserve(kContourPts);
    for (auto _ : state) {
        out.clear();
        int flag = 0;
        // Tolerance 15 keeps both large contours (means about 15 and 25).
        hx_contourPostProc(pts, kContours, 15.0, out, 1, &flag);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["out"] = static_cast<double>(out.size());
    state.SetItemsProcessed(state.iterations() * kContourPts);
}
BENCHMARK(BM_contourPostProc)->Unit(benchmark::kMicrosecond);

void BM_getContourPts(benchmark::State& state) {
    std::vector<SHX_lineConotours> lines(kContourPts / 50);
    const auto& pts = contourPoints();
    for (size_t i = 0; i < pts.size(); ++i) lines[i / 50].contourPts.push_back(pts[i]);
    std::vector<SHX_2DValueI> out;
    out.reserve(kContourPts);
    for (auto _ : state) {
        out.clear();
        int flag = 0;
        hx_getContourPts(lines, 2, out, &flag);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * kContourPts);
}
BENCHMARK(BM_getContourPts)->Unit(benchmark::kMicrosecond);

}  // namespace
