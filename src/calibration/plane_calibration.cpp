// Plane calibration: finds the reference plane of a scan from its height
// histogram (or takes it from caller-named regions), fits it by least squares
// and derives the rotation that levels it and the levelled plane height.
#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <limits>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>

#include "internal.h"

using pa_detail::isValidZ;

// The streaming passes are kept out of line: inlined into their caller, GCC
// left their running values in memory across the loop.
#if defined(__GNUC__)
#define PA_PASS __attribute__((noinline))
#elif defined(_MSC_VER)
#define PA_PASS __declspec(noinline)
#else
#define PA_PASS
#endif

namespace {

/// Histograms are refused above this many bins (one bin per unit of height):
/// heights spanning 1e8 units or more make the calibration fail instead of
/// allocating gigabytes.
constexpr double kMaxHistogramBins = 1e8;
/// Interleaved counter copies for histograms of up to kMaxLanedBins bins.
constexpr int kHistogramLanes = 4;
constexpr size_t kMaxLanedBins = 1 << 16;
/// Half width of the box that smooths the histogram (11 bins in all).
constexpr int32_t kSmoothRadius = 5;
/// The reference peak must hold more than total / kPeakShareDivisor points.
constexpr int64_t kPeakShareDivisor = 10;
/// A band ends at a valley lower than peak / kValleyDepthDivisor.
constexpr int32_t kValleyDepthDivisor = 2;

/// One scan line as a pointer and a count; a scan is a vector of them, so one
/// routine serves scans held as line records and as vectors of vectors.
struct LineSpan {
    const SKesp3DPosition* pts;
    int64_t count;
};
using ScanView = std::vector<LineSpan>;

/// A measured point whose height can enter a histogram: valid and finite
/// (NaN fails the validity test, +inf the upper bound).
inline bool isCalibrationZ(double z) { return isValidZ(z) && z <= DBL_MAX; }

struct HistogramEntry {
    int32_t bin;
    int32_t value;
};

SHX_planeCalibPara failedCalibration() {
    SHX_planeCalibPara r;
    const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::copy(identity, identity + 9, r.planeCalib);
    std::copy(identity, identity + 9, r.invRMatrix);
    r.planeHeight = -1.0;
    return r;
}

/// Lowest and highest calibration height of the scan; empty (min > max) when
/// no point is valid. Every calibration height is finite, so starting from
/// +inf / -inf gives exactly the range grown point by point.
PA_PASS SKespRangeD heightRange(const ScanView& scan) {
    constexpr double kInf = std::numeric_limits<double>::infinity();
    double lo = kInf, hi = -kInf;
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        double l = lo, h = hi;
        for (int64_t i = 0; i < line.count; ++i) {
            const double z = p[i].z;
            const bool ok = isCalibrationZ(z);
            const double zl = ok ? z : kInf, zh = ok ? z : -kInf;
            l = zl < l ? zl : l;
            h = zh > h ? zh : h;
        }
        lo = l;
        hi = h;
    }
    return SKespRangeD{lo, hi};
}

/// Counts the calibration points per unit of height above zMin; returns the
/// total. Neighbouring points of a surface mostly fall into the same bin, and
/// a single counter array would make each increment wait for the previous
/// one; small histograms are therefore counted in kHistogramLanes interleaved
/// copies that are added up at the end.
PA_PASS int64_t fillHistogram(const ScanView& scan, double zMin, std::vector<int32_t>& hist) {
    const size_t n = hist.size();
    const int lanes = n <= kMaxLanedBins ? kHistogramLanes : 1;
    std::vector<int32_t> laned(lanes > 1 ? n * lanes : 0, 0);
    int32_t* h = lanes > 1 ? laned.data() : hist.data();
    const int64_t stride = lanes > 1 ? static_cast<int64_t>(n) : 0;
    int64_t total = 0;
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        for (int64_t i = 0; i < line.count; ++i) {
            const double z = p[i].z;
            if (!isCalibrationZ(z)) continue;
            ++h[(i & (kHistogramLanes - 1)) * stride + static_cast<int32_t>(z - zMin)];
            ++total;
        }
    }
    if (lanes > 1) {
        for (int k = 0; k < lanes; ++k)
            for (size_t b = 0; b < n; ++b) hist[b] += laned[k * n + b];
    }
    return total;
}

/// 11-bin box sums (not normalised, bins outside the histogram omitted), by a
/// running sum. A flat result (every sum equal to its predecessor, which
/// includes every histogram of up to six bins) would hide all structure, so
/// the raw histogram is used instead.
std::vector<int32_t> smoothHistogram(const std::vector<int32_t>& hist) {
    const int32_t n = static_cast<int32_t>(hist.size());
    std::vector<int32_t> s(hist.size());
    int32_t sum = 0;
    for (int32_t j = 0; j <= std::min(kSmoothRadius, n - 1); ++j) sum += hist[j];
    s[0] = sum;
    bool flat = true;
    for (int32_t i = 1; i < n; ++i) {
        if (i + kSmoothRadius < n) sum += hist[i + kSmoothRadius];
        if (i - kSmoothRadius - 1 >= 0) sum -= hist[i - kSmoothRadius - 1];
        s[i] = sum;
        if (sum != s[i - 1]) flat = false;
    }
    if (flat) s = hist;
    return s;
}

/// Peaks and valleys of the smoothed histogram, in increasing bin order.
/// A plateau does not end a rise or a fall. A rise running into the last bin
/// ends in a peak there and a fall running into it in a valley there, but a
/// rise that only begins with the step into the last bin records nothing.
/// The first bin is never a peak or a valley.
void findPeaksAndValleys(const std::vector<int32_t>& s, std::vector<HistogramEntry>& peaks,
                         std::vector<HistogramEntry>& valleys) {
    enum State { kUndecided, kRising, kFalling };
    State state = kUndecided;
    const int32_t last = static_cast<int32_t>(s.size()) - 1;
    for (int32_t i = 1; i <= last; ++i) {
        const int64_t d = static_cast<int64_t>(s[i]) - s[i - 1];
        switch (state) {
            case kUndecided:
                if (d < 0) state = kFalling;
                else if (d > 0) state = kRising;
                break;
            case kRising:
                if (d < 0) {
                    peaks.push_back({i - 1, s[i - 1]});
                    state = kFalling;
                } else if (i == last) {
                    peaks.push_back({i, s[i]});
                }
                break;
            case kFalling:
                if (d > 0) {
                    valleys.push_back({i - 1, s[i - 1]});
                    state = kRising;
                } else if (i == last) {
                    valleys.push_back({i, s[i]});
                }
                break;
        }
    }
}

/// Bins of the nearest valleys below and above the peak bin whose value is
/// below `limit`; -1 where there is none. The valley list is sorted by bin,
/// so walking it outward from the peak visits the bins in the order of a
/// bin-by-bin search.
void bandLimits(const std::vector<HistogramEntry>& valleys, int32_t peakBin, int32_t limit, int32_t& low,
                int32_t& high) {
    const auto above = std::upper_bound(valleys.begin(), valleys.end(), peakBin,
                                        [](int32_t bin, const HistogramEntry& e) { return bin < e.bin; });
    low = -1;
    for (auto it = above; it != valleys.begin();) {
        --it;
        if (it->bin < peakBin && it->value < limit) {
            low = it->bin;
            break;
        }
    }
    high = -1;
    for (auto it = above; it != valleys.end(); ++it) {
        if (it->value < limit) {
            high = it->bin;
            break;
        }
    }
}

/// Calls fn(point) for every calibration point with zLow <= z <= zHigh, in
/// scan order, the point converted to single precision. The band lies within
/// the scan's range of calibration heights, so the band test alone also
/// rejects unmeasured and non-finite heights.
template <typename Fn>
void forEachBandPoint(const ScanView& scan, double zLow, double zHigh, Fn&& fn) {
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        for (int64_t i = 0; i < line.count; ++i) {
            const double z = p[i].z;
            if (!(z >= zLow && z <= zHigh)) continue;
            fn(cv::Point3f(static_cast<float>(p[i].x), static_cast<float>(p[i].y), static_cast<float>(z)));
        }
    }
}

/// Least-squares sums of a stream of points, added in arrival order. The
/// points pass through a small buffer and are summed from there: GCC 12 at
/// -O3 was seen to vectorise a loop that converts to float and sums at once
/// with the unrounded doubles, which changes the sums in their last bits.
class StreamingPlaneSums {
public:
    void add(const cv::Point3f& p) {
        buffer_[size_++] = p;
        if (size_ == kBufferSize) flush();
    }
    const pa_detail::PlaneSums& sums() {
        flush();
        return sums_;
    }

private:
    // Small, so that summing one batch overlaps with reading the next.
    static constexpr int kBufferSize = 64;
    void flush() {
#if CV_SIMD128_64F
        // The eight sums in four pairs, each lane adding exactly the terms of
        // the scalar sum in the same order (products with 1.0 are exact), so
        // the result is bit for bit that of PlaneSums::add, in half the adds.
        using cv::v_float64x2;
        v_float64x2 a0(sums_.sxx, sums_.sxy), a1(sums_.syy, sums_.sx);
        v_float64x2 a2(sums_.sy, sums_.sxz), a3(sums_.syz, sums_.sz);
        for (int k = 0; k < size_; ++k) {
            const double x = buffer_[k].x, y = buffer_[k].y, z = buffer_[k].z;
            const v_float64x2 yx(y, x), y1(y, 1.0);
            a0 = a0 + v_float64x2(x, x) * v_float64x2(x, y);  // x^2, xy
            a1 = a1 + yx * y1;                                 // y^2, x
            a2 = a2 + yx * v_float64x2(1.0, z);                // y, xz
            a3 = a3 + y1 * v_float64x2(z, z);                  // yz, z
        }
        sums_.sxx = a0.get0();
        sums_.sxy = cv::v_extract_n<1>(a0);
        sums_.syy = a1.get0();
        sums_.sx = cv::v_extract_n<1>(a1);
        sums_.sy = a2.get0();
        sums_.sxz = cv::v_extract_n<1>(a2);
        sums_.syz = a3.get0();
        sums_.sz = cv::v_extract_n<1>(a3);
        sums_.m += size_;
#else
        for (int k = 0; k < size_; ++k) sums_.add(buffer_[k]);
#endif
        size_ = 0;
    }
    pa_detail::PlaneSums sums_;
    cv::Point3f buffer_[kBufferSize];
    int size_ = 0;
};

/// The lowest levelled height of a stream of points: row 2 of the levelling
/// rotation times the single-precision point, in double, rounded to single
/// precision; 0.0 when no point arrives.
class LowestLevelledHeight {
public:
    explicit LowestLevelledHeight(const double* rotation)
        : m6_(rotation[6]), m7_(rotation[7]), m8_(rotation[8]) {}
    // Starting from +inf, a strict comparison keeps the first of equal
    // heights, as a minimum seeded with the first point would.
    void add(const cv::Point3f& p) {
        const float z = static_cast<float>(m6_ * p.x + m7_ * p.y + m8_ * p.z);
        lowest_ = z < lowest_ ? z : lowest_;
        ++count_;
    }
    double value() const { return count_ > 0 ? lowest_ : 0.0; }

private:
    double m6_, m7_, m8_;
    float lowest_ = std::numeric_limits<float>::infinity();
    int64_t count_ = 0;
};

/// Least-squares sums of the band points in scan order.
PA_PASS pa_detail::PlaneSums sumBand(const ScanView& scan, double zLow, double zHigh) {
    StreamingPlaneSums sums;
    forEachBandPoint(scan, zLow, zHigh, [&sums](const cv::Point3f& p) { sums.add(p); });
    return sums.sums();
}

/// Lowest levelled height of the band points (0.0 without any).
PA_PASS double lowestBandHeight(const ScanView& scan, double zLow, double zHigh, const double* rotation) {
    LowestLevelledHeight lowest(rotation);
    forEachBandPoint(scan, zLow, zHigh, [&lowest](const cv::Point3f& p) { lowest.add(p); });
    return lowest.value();
}

/// The levelling rotation of a fitted plane (a, b, -1, e), which turns its
/// normal (a, b, -1) to (0, 0, -1), and the inverse rotation; planeHeight is
/// left for the caller.
SHX_planeCalibPara levellingRotations(const cv::Vec4d& plane) {
    const cv::Vec3d normal(plane[0], plane[1], plane[2]);
    const cv::Vec3d down(0.0, 0.0, -1.0);
    SHX_planeCalibPara r;
    pa_detail::quaternionToMatrix(pa_detail::rotationBetweenVectors(normal, down), r.planeCalib);
    pa_detail::quaternionToMatrix(pa_detail::rotationBetweenVectors(down, normal), r.invRMatrix);
    return r;
}

SHX_planeCalibPara calibrateScan(const ScanView& scan) {
    const SHX_planeCalibPara failed = failedCalibration();
    const SKespRangeD zr = heightRange(scan);
    if (zr.min > zr.max) return failed;
    const double span = zr.max - zr.min;
    if (!(span < kMaxHistogramBins)) return failed;
    const int32_t n = static_cast<int32_t>(span) + 1;

    std::vector<int32_t> hist(static_cast<size_t>(n), 0);
    const int64_t total = fillHistogram(scan, zr.min, hist);
    const std::vector<int32_t> smooth = smoothHistogram(hist);

    std::vector<HistogramEntry> peaks, valleys;
    findPeaksAndValleys(smooth, peaks, valleys);
    const int64_t threshold = total / kPeakShareDivisor;
    const auto peak = std::find_if(peaks.begin(), peaks.end(),
                                   [threshold](const HistogramEntry& e) { return e.value > threshold; });
    if (peak == peaks.end()) return failed;

    int32_t low, high;
    bandLimits(valleys, peak->bin, peak->value / kValleyDepthDivisor, low, high);
    const double zLow = low >= 0 ? zr.min + low : zr.min;
    const double zHigh = high >= 0 ? zr.min + high : zr.max;

    // The band is walked twice, once for the fit and once for the height of
    // the levelled points, instead of being stored: a stored band is as large
    // as the floor, and filling fresh memory costs more than a second read.
    SHX_planeCalibPara r = levellingRotations(pa_detail::solvePlane(sumBand(scan, zLow, zHigh)));
    r.planeHeight = lowestBandHeight(scan, zLow, zHigh, r.planeCalib);
    return r;
}

/// Whether a point lies in a caller region. The upper z bound is compared
/// with y, not z: heights are limited only from below.
inline bool inRegion(const SKesp3DRangeD& r, double x, double y, double z) {
    return x >= r.xRange.min && x <= r.xRange.max && y >= r.yRange.min && y <= r.yRange.max && z >= r.zRange.min &&
           y <= r.zRange.max;
}

}  // namespace

PA_API SHX_planeCalibPara hx_getPlaneCalibPara(const SKesp3DLaserLine* lines, int32_t lineNum) {
    ScanView scan;
    if (lines != nullptr && lineNum > 0) {
        scan.reserve(static_cast<size_t>(lineNum));
        for (int32_t l = 0; l < lineNum; ++l) {
            if (lines[l].nPositionCnt >= 1 && lines[l].p3DPosition != nullptr)
                scan.push_back({lines[l].p3DPosition, lines[l].nPositionCnt});
        }
    }
    return calibrateScan(scan);
}

PA_API SHX_planeCalibPara hx_getPlaneCalibPara2(const std::vector<std::vector<SKesp3DPosition>>& scan) {
    ScanView view;
    view.reserve(scan.size());
    for (const auto& line : scan) {
        if (!line.empty()) view.push_back({line.data(), static_cast<int64_t>(line.size())});
    }
    return calibrateScan(view);
}

PA_API SHX_planeCalibPara hx_getPlaneCalibPara_ROIs(const SKesp3DLaserLine* lines, int32_t lineNum,
                                                    const std::vector<SKesp3DRangeD>& rois) {
    std::vector<cv::Point3f> pts;
    for (int32_t l = 0; lines != nullptr && l < lineNum; ++l) {
        const SKesp3DPosition* p = lines[l].p3DPosition;
        if (p == nullptr) continue;
        for (int32_t i = 0; i < lines[l].nPositionCnt; ++i) {
            const double x = p[i].x, y = p[i].y, z = p[i].z;
            if (!isCalibrationZ(z)) continue;
            const bool inside = std::any_of(rois.begin(), rois.end(),
                                            [&](const SKesp3DRangeD& r) { return inRegion(r, x, y, z); });
            if (inside) pts.emplace_back(static_cast<float>(x), static_cast<float>(y), static_cast<float>(z));
        }
    }
    SHX_planeCalibPara r = levellingRotations(pa_detail::planeFitting(pts));
    LowestLevelledHeight lowest(r.planeCalib);
    for (const cv::Point3f& q : pts) lowest.add(q);
    r.planeHeight = lowest.value();
    return r;
}
