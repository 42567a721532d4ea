// Plane calibration: finds the reference plane of a scan from its height
// histogram (or takes it from caller-named regions), fits it by least squares
// and derives the rotation that levels it and the levelled plane height.
#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <vector>

#include "internal.h"

using pa_detail::isValidZ;

namespace {

/// Histograms are refused above this many bins (one bin per unit of height):
/// heights spanning 1e8 units or more make the calibration fail instead of
/// allocating gigabytes.
constexpr double kMaxHistogramBins = 1e8;
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

/// Lowest and highest calibration height of the scan; empty ({0, -1}) when
/// no point is valid.
SKespRangeD heightRange(const ScanView& scan) {
    bool any = false;
    double lo = 0.0, hi = -1.0;
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        for (int64_t i = 0; i < line.count; ++i) {
            const double z = p[i].z;
            if (!isCalibrationZ(z)) continue;
            if (!any) {
                lo = hi = z;
                any = true;
                continue;
            }
            lo = std::min(lo, z);
            hi = std::max(hi, z);
        }
    }
    return SKespRangeD{lo, hi};
}

/// Counts the calibration points per unit of height above zMin; returns the total.
int64_t fillHistogram(const ScanView& scan, double zMin, std::vector<int32_t>& hist) {
    int32_t* h = hist.data();
    int64_t total = 0;
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        for (int64_t i = 0; i < line.count; ++i) {
            const double z = p[i].z;
            if (!isCalibrationZ(z)) continue;
            ++h[static_cast<int32_t>(z - zMin)];
            ++total;
        }
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

/// Gathers, in scan order, the calibration points with zLow <= z <= zHigh in
/// single precision.
void collectBand(const ScanView& scan, double zLow, double zHigh, std::vector<cv::Point3f>& band) {
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        for (int64_t i = 0; i < line.count; ++i) {
            const double z = p[i].z;
            if (!isCalibrationZ(z) || z < zLow || z > zHigh) continue;
            band.emplace_back(static_cast<float>(p[i].x), static_cast<float>(p[i].y), static_cast<float>(z));
        }
    }
}

/// Levels the plane fitted to `pts`: the rotation that turns its normal to
/// (0, 0, -1), the inverse rotation, and the lowest levelled height of the
/// points, each rounded to single precision (0.0 when there is no point).
/// The fit reads the stored single-precision points rather than summing them
/// while they are gathered: GCC 12 at -O3 was seen to vectorise such a fused
/// loop with the unrounded doubles, which changes the sums in the last bits.
SHX_planeCalibPara levelFittedPlane(const std::vector<cv::Point3f>& pts) {
    const cv::Vec4d plane = pa_detail::planeFitting(pts);
    const cv::Vec3d normal(plane[0], plane[1], plane[2]);
    const cv::Vec3d down(0.0, 0.0, -1.0);
    SHX_planeCalibPara r;
    pa_detail::quaternionToMatrix(pa_detail::rotationBetweenVectors(normal, down), r.planeCalib);
    pa_detail::quaternionToMatrix(pa_detail::rotationBetweenVectors(down, normal), r.invRMatrix);
    const double m6 = r.planeCalib[6], m7 = r.planeCalib[7], m8 = r.planeCalib[8];
    float lowest = 0.0f;
    for (size_t i = 0; i < pts.size(); ++i) {
        const cv::Point3f& p = pts[i];
        const float z = static_cast<float>(m6 * p.x + m7 * p.y + m8 * p.z);
        if (i == 0 || z < lowest) lowest = z;
    }
    r.planeHeight = lowest;
    return r;
}

/// Upper bound of the points that can fall into [zMin + low, zMin + high]:
/// the counts of those bins and one more on each side against rounding.
size_t bandCapacity(const std::vector<int32_t>& hist, int32_t first, int32_t last) {
    first = std::max(first - 1, 0);
    last = std::min(last + 1, static_cast<int32_t>(hist.size()) - 1);
    size_t c = 0;
    for (int32_t b = first; b <= last; ++b) c += static_cast<size_t>(hist[b]);
    return c;
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

    std::vector<cv::Point3f> band;
    band.reserve(bandCapacity(hist, low >= 0 ? low : 0, high >= 0 ? high : n - 1));
    collectBand(scan, zLow, zHigh, band);
    return levelFittedPlane(band);
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
            if (!inside) continue;
            pts.emplace_back(static_cast<float>(x), static_cast<float>(y), static_cast<float>(z));
        }
    }
    return levelFittedPlane(pts);
}
