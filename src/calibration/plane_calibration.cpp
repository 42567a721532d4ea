// Plane calibration: finds the reference plane of a scan from its height
// histogram (or takes it from caller-named regions), fits it by least squares
// and derives the rotation that levels it and the levelled plane height.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
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
/// planeHeight of a failed calibration.
constexpr double kFailedPlaneHeight = -1.0;
/// Half width of the box that smooths the histogram (11 bins in all).
constexpr int32_t kSmoothRadius = 5;
/// The reference peak must hold more than total / kPeakShareDivisor points.
constexpr int64_t kPeakShareDivisor = 10;
/// A band ends at a valley lower than peak / kValleyDepthDivisor.
constexpr int32_t kValleyDepthDivisor = 2;
/// The band pass splits each line into blocks of this many consecutive points
/// and keeps the bounding box of each block's band points, so that the search
/// for the lowest levelled height reads only the few blocks that can hold it.
/// Small blocks give tight boxes; the boxes cost 40 bytes per block.
constexpr int kBlockPoints = 64;
/// Relative slack subtracted from a block's lower bound, far above the few
/// rounding errors by which two evaluations of the same levelled height can
/// differ (for instance when a compiler fuses one of them into an FMA).
constexpr double kBoundSlack = 64 * DBL_EPSILON;
/// Bound on the rounding error of a single-precision z - a x - b y, relative
/// to |z| + |a x| + |b y| (three roundings of 2^-24 each, with room to spare).
constexpr double kResidualSlack = 4 * FLT_EPSILON;
/// Above this |z| + |a x| + |b y| the single-precision residual could overflow
/// (and a NaN residual would drop out of its block's range unnoticed), so the
/// residual bound is not used.
constexpr double kMaxResidualMagnitude = 1e30;
/// The provisional plane slope is fitted to every this many lines of the scan.
constexpr size_t kSlopeSampleStride = 32;

/// One scan line as a pointer and a count; a scan is a vector of them, so one
/// routine serves scans held as line records and as vectors of vectors.
struct LineSpan {
    const SKesp3DPosition* pts;
    int64_t count;
};
using ScanView = std::vector<LineSpan>;

/// The lines of a scan held as line records that hold points.
ScanView viewOf(const SKesp3DLaserLine* lines, int32_t lineNum) {
    ScanView scan;
    if (lines != nullptr && lineNum > 0) {
        scan.reserve(static_cast<size_t>(lineNum));
        for (int32_t l = 0; l < lineNum; ++l) {
            if (lines[l].nPositionCnt >= 1 && lines[l].p3DPosition != nullptr)
                scan.push_back({lines[l].p3DPosition, lines[l].nPositionCnt});
        }
    }
    return scan;
}

/// The lines of a scan held as vectors that hold points.
ScanView viewOf(const std::vector<std::vector<SKesp3DPosition>>& scan) {
    ScanView view;
    view.reserve(scan.size());
    for (const auto& line : scan) {
        if (!line.empty()) view.push_back({line.data(), static_cast<int64_t>(line.size())});
    }
    return view;
}

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
    r.planeHeight = kFailedPlaneHeight;
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

/// The band test z in [zLow, zHigh] for 0 < zLow <= zHigh (both finite), as a
/// single unsigned comparison of bit patterns. The bits of non-negative
/// doubles are ordered as their values, with +inf and then NaN above every
/// finite value; a set sign bit (negative values, -0, negative NaN) puts the
/// pattern above every positive one. So bits(z) - bits(zLow), taken modulo
/// 2^64, is at most bits(zHigh) - bits(zLow) exactly when z is a number in
/// the band: smaller patterns wrap around to huge differences. The band lies
/// within the scan's range of calibration heights, so this also rejects
/// unmeasured and non-finite heights.
class BandTest {
public:
    BandTest(double zLow, double zHigh) : low_(bitsOf(zLow)), width_(bitsOf(zHigh) - bitsOf(zLow)) {}
    bool holds(const double& z) const { return bitsOf(z) - low_ <= width_; }

private:
    static uint64_t bitsOf(double v) {
        uint64_t u;
        std::memcpy(&u, &v, sizeof u);
        return u;
    }
    uint64_t low_, width_;
};

/// Writes point p, converted to single precision, to *out and returns where
/// the next band point goes: past it if p lies in the band, else out itself
/// (the slot is then overwritten by the next point). No branch: the band
/// edges are noisy, and a branch there would be mispredicted.
inline cv::Point3f* gatherBandPoint(const SKesp3DPosition& p, const BandTest& band, cv::Point3f* out) {
    *out = cv::Point3f(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z));
    return out + static_cast<int>(band.holds(p.z));
}

/// The band points of p[0 .. n) in single precision, in order, into `out`;
/// returns their number.
inline int bandPointsOf(const SKesp3DPosition* p, int n, const BandTest& band, cv::Point3f* out) {
    cv::Point3f* next = out;
    for (int i = 0; i < n; ++i) next = gatherBandPoint(p[i], band, next);
    return static_cast<int>(next - out);
}

/// Least-squares sums of a stream of single-precision points, added in
/// arrival order.
class StreamingPlaneSums {
public:
#if CV_SIMD128_64F
    // The sums in pairs, from xy = (x, y) and yz = (y, z): xy * xy gives
    // (x^2, y^2), xy * yz gives (xy, yz), (x, x) * (1, z) gives (x, xz), and
    // yz itself (y, z). Every product of two floats is exact in double (and
    // x * 1 is x), so each sum gets exactly the terms of PlaneSums::add in
    // the same order: the result is bit for bit the same, in fewer
    // instructions.
    void add(const cv::Point3f& p) { add(cv::v_cvt_f64(cv::v_load_low(&p.x)), cv::v_cvt_f64(cv::v_load_low(&p.y))); }
    /// The same from the pairs (x, y) and (y, z) of a point widened from
    /// single precision.
    void add(const cv::v_float64x2& xy, const cv::v_float64x2& yz) {
        squares_ = squares_ + xy * xy;
        mixed_ = mixed_ + xy * yz;
        byX_ = byX_ + cv::v_combine_low(xy, xy) * cv::v_combine_high(cv::v_setall_f64(1.0), yz);
        plain_ = plain_ + yz;
        ++m_;
    }
    pa_detail::PlaneSums sums() const {
        pa_detail::PlaneSums s;
        s.sxx = squares_.get0();
        s.syy = cv::v_extract_n<1>(squares_);
        s.sxy = mixed_.get0();
        s.syz = cv::v_extract_n<1>(mixed_);
        s.sx = byX_.get0();
        s.sxz = cv::v_extract_n<1>(byX_);
        s.sy = plain_.get0();
        s.sz = cv::v_extract_n<1>(plain_);
        s.m = m_;
        return s;
    }

private:
    cv::v_float64x2 squares_ = cv::v_setzero_f64(), mixed_ = squares_, byX_ = squares_, plain_ = squares_;
    int64_t m_ = 0;
#else
    void add(const cv::Point3f& p) { sums_.add(p); }
    void add(double x, double y, double z) { sums_.add(x, y, z); }
    const pa_detail::PlaneSums& sums() const { return sums_; }

private:
    pa_detail::PlaneSums sums_;
#endif
};

/// A provisional slope of the band's plane, z ~ a x + b y + e, fitted to a
/// sample of the band before the pass that sums it. Any values give valid
/// bounds; near the final fit they give tight ones.
struct PlaneSlope {
    float a = 0.0f, b = 0.0f;
};

/// A block of consecutive points of one line, the single-precision bounding
/// box of its band points (at least one), and the range of their heights
/// above the provisional plane, z - a x - b y (in single precision). On a
/// tilted surface the box's corners lie far below every point, while the
/// heights above a plane of nearly the right slope bound the levelled heights
/// closely.
struct BandBlock {
    const SKesp3DPosition* pts;
    int32_t count;
    cv::Point3f lo, hi;
    float residualLo, residualHi;
};

static_assert(kBlockPoints % 4 == 0, "the box is taken four points at a time");

/// Bounding box of the first m >= 1 of kBlockPoints points; pads them with
/// copies of the first point up to a multiple of four. A NaN coordinate is
/// left out of its range (its point's levelled height is NaN, which never
/// becomes the lowest).
void boundingBox(cv::Point3f* pts, int m, cv::Point3f& lo, cv::Point3f& hi) {
    constexpr float kInf = std::numeric_limits<float>::infinity();
    for (int k = m; k % 4 != 0; ++k) pts[k] = pts[0];
    float l[12], h[12];
#if CV_SIMD128
    // Four points are three vectors (x0 y0 z0 x1 | y1 z1 x2 y2 | z2 x3 y3 z3);
    // each vector position keeps one coordinate, so the positions holding
    // the same coordinate are combined at the end.
    using cv::v_float32x4;
    const float* f = &pts[0].x;
    v_float32x4 lo0 = cv::v_setall_f32(kInf), lo1 = lo0, lo2 = lo0;
    v_float32x4 hi0 = cv::v_setall_f32(-kInf), hi1 = hi0, hi2 = hi0;
    // v < acc ? v : acc and v > acc ? v : acc, so that a NaN is skipped on
    // every instruction set. SSE's MINPS and MAXPS compute exactly these (the
    // second operand when the comparison fails, NaN included) in one
    // instruction; elsewhere a comparison and a select.
#if CV_SSE2
    auto lower = [](const v_float32x4& v, const v_float32x4& acc) {
        return v_float32x4(_mm_min_ps(v.val, acc.val));
    };
    auto higher = [](const v_float32x4& v, const v_float32x4& acc) {
        return v_float32x4(_mm_max_ps(v.val, acc.val));
    };
#else
    auto lower = [](const v_float32x4& v, const v_float32x4& acc) { return cv::v_select(v < acc, v, acc); };
    auto higher = [](const v_float32x4& v, const v_float32x4& acc) { return cv::v_select(v > acc, v, acc); };
#endif
    for (int k = 0; k < m; k += 4, f += 12) {
        const v_float32x4 v0 = cv::v_load(f), v1 = cv::v_load(f + 4), v2 = cv::v_load(f + 8);
        lo0 = lower(v0, lo0);
        lo1 = lower(v1, lo1);
        lo2 = lower(v2, lo2);
        hi0 = higher(v0, hi0);
        hi1 = higher(v1, hi1);
        hi2 = higher(v2, hi2);
    }
    cv::v_store(l, lo0);
    cv::v_store(l + 4, lo1);
    cv::v_store(l + 8, lo2);
    cv::v_store(h, hi0);
    cv::v_store(h + 4, hi1);
    cv::v_store(h + 8, hi2);
#else
    std::fill(l, l + 12, kInf);
    std::fill(h, h + 12, -kInf);
    const float* f = &pts[0].x;
    for (int k = 0; k < m * 3; k += 12, f += 12)
        for (int j = 0; j < 12; ++j) {
            l[j] = f[j] < l[j] ? f[j] : l[j];
            h[j] = f[j] > h[j] ? f[j] : h[j];
        }
#endif
    // Coordinate c of point i sits at position (3 i + c) mod 12.
    float box[6] = {kInf, kInf, kInf, -kInf, -kInf, -kInf};
    for (int j = 0; j < 12; ++j) {
        float& low = box[j % 3];
        float& high = box[3 + j % 3];
        low = l[j] < low ? l[j] : low;
        high = h[j] > high ? h[j] : high;
    }
    lo = cv::Point3f(box[0], box[1], box[2]);
    hi = cv::Point3f(box[3], box[4], box[5]);
}

/// Lowest and highest z - a x - b y of the first m points, m a multiple of
/// four (boundingBox pads the block); a NaN is left out, as there.
void residualRange(const cv::Point3f* pts, int m, const PlaneSlope& slope, float& lo, float& hi) {
    constexpr float kInf = std::numeric_limits<float>::infinity();
#if CV_SIMD128
    using cv::v_float32x4;
    const v_float32x4 a = cv::v_setall_f32(slope.a), b = cv::v_setall_f32(slope.b);
    v_float32x4 l = cv::v_setall_f32(kInf), h = cv::v_setall_f32(-kInf);
    for (int k = 0; k < m; k += 4) {
        v_float32x4 x, y, z;
        cv::v_load_deinterleave(&pts[k].x, x, y, z);
        const v_float32x4 r = z - a * x - b * y;
        l = cv::v_select(r < l, r, l);
        h = cv::v_select(r > h, r, h);
    }
    float ls[4], hs[4];
    cv::v_store(ls, l);
    cv::v_store(hs, h);
#else
    float ls[4] = {kInf, kInf, kInf, kInf}, hs[4] = {-kInf, -kInf, -kInf, -kInf};
    for (int k = 0; k < m; ++k) {
        const float r = pts[k].z - slope.a * pts[k].x - slope.b * pts[k].y;
        ls[k % 4] = r < ls[k % 4] ? r : ls[k % 4];
        hs[k % 4] = r > hs[k % 4] ? r : hs[k % 4];
    }
#endif
    lo = std::min(std::min(ls[0], ls[1]), std::min(ls[2], ls[3]));
    hi = std::max(std::max(hs[0], hs[1]), std::max(hs[2], hs[3]));
}

/// Least-squares sums of the band points in scan order; appends a BandBlock
/// for every block that holds band points. The band points are gathered one
/// block at a time into a buffer (GCC 12 at -O3 was seen to vectorise a loop
/// that converts to float and sums at once with the unrounded doubles, which
/// changes the sums in their last bits), and each block is summed while the
/// next one is gathered: the sums are a chain of dependent additions, and
/// interleaved with the reads they cost little more than the reads alone.
PA_PASS pa_detail::PlaneSums sumBand(const ScanView& scan, const BandTest& band, const PlaneSlope& slope,
                                     std::vector<BandBlock>& blocks) {
    StreamingPlaneSums sums;
    cv::Point3f buffers[2][kBlockPoints];
    cv::Point3f* gathered = buffers[0];  // the block being read
    cv::Point3f* pending = buffers[1];   // the previous block's band points, to be summed
    int pendingCount = 0;
    for (const LineSpan& line : scan) {
        for (int64_t s = 0; s < line.count; s += kBlockPoints) {
            const SKesp3DPosition* p = line.pts + s;
            const int n = static_cast<int>(std::min<int64_t>(kBlockPoints, line.count - s));
            const int both = std::min(n, pendingCount);
            cv::Point3f* next = gathered;
            int i = 0;
            for (; i < both; ++i) {
                next = gatherBandPoint(p[i], band, next);
                sums.add(pending[i]);
            }
            for (; i < n; ++i) next = gatherBandPoint(p[i], band, next);
            for (; i < pendingCount; ++i) sums.add(pending[i]);
            const int m = static_cast<int>(next - gathered);
            pendingCount = m;
            if (m == 0) continue;
            BandBlock b{p, n, {}, {}, 0.0f, 0.0f};
            boundingBox(gathered, m, b.lo, b.hi);
            residualRange(gathered, (m + 3) / 4 * 4, slope, b.residualLo, b.residualHi);
            blocks.push_back(b);
            std::swap(gathered, pending);
        }
    }
    for (int i = 0; i < pendingCount; ++i) sums.add(pending[i]);
    return sums.sums();
}

/// The levelled height of a single-precision point before rounding: row 2 of
/// the levelling rotation times the point, in double.
inline double levelledHeight(const double* rotation, double x, double y, double z) {
    return rotation[6] * x + rotation[7] * y + rotation[8] * z;
}

/// The lowest levelled height of a stream of points, rounded to single
/// precision; 0.0 when no point arrives.
class LowestLevelledHeight {
public:
    explicit LowestLevelledHeight(const double* rotation) : rotation_(rotation) {}
    // Starting from +inf, a strict comparison keeps the first of equal
    // heights, as a minimum seeded with the first point would.
    void add(const cv::Point3f& p) { add(p.x, p.y, p.z); }
    /// The same for coordinates already widened from single precision.
    void add(double x, double y, double z) {
        const float h = static_cast<float>(levelledHeight(rotation_, x, y, z));
        lowest_ = h < lowest_ ? h : lowest_;
        ++count_;
    }
    float lowest() const { return lowest_; }
    double value() const { return count_ > 0 ? lowest_ : 0.0; }

private:
    const double* rotation_;
    float lowest_ = std::numeric_limits<float>::infinity();
    int64_t count_ = 0;
};

/// Largest magnitude of a coordinate range.
inline double magnitudeOf(float lo, float hi) { return std::max(std::fabs(double(lo)), std::fabs(double(hi))); }

/// A value no band point of the block can go below once levelled and rounded.
/// The levelled height only adds rounded products, and rounding is monotonic,
/// so it is lowest at the corner of the box where each coordinate is at its
/// low end for a non-negative coefficient and at its high end otherwise. NaN
/// (from infinite coordinates) rules nothing out.
///
/// Where the box is finite a second bound comes from the heights above the
/// provisional plane: with r = z - a x - b y the levelled height r6 x + r7 y +
/// r8 z equals r8 r + (r6 + r8 a) x + (r7 + r8 b) y, whose last two terms are
/// small when the slope is nearly right. Both bounds allow for every rounding
/// (of r in single precision, and of the levelled height and the bound in
/// double), and the higher one is taken.
float lowerBound(const BandBlock& b, const double* rotation, const PlaneSlope& slope) {
    const double r6 = rotation[6], r7 = rotation[7], r8 = rotation[8];
    const double x = r6 >= 0.0 ? b.lo.x : b.hi.x;
    const double y = r7 >= 0.0 ? b.lo.y : b.hi.y;
    const double z = r8 >= 0.0 ? b.lo.z : b.hi.z;
    const double magnitude = std::fabs(r6 * x) + std::fabs(r7 * y) + std::fabs(r8 * z);
    const double cornerBound = levelledHeight(rotation, x, y, z) - kBoundSlack * magnitude;
    const double mx = magnitudeOf(b.lo.x, b.hi.x), my = magnitudeOf(b.lo.y, b.hi.y), mz = magnitudeOf(b.lo.z, b.hi.z);
    const double residualMagnitude = mz + std::fabs(double(slope.a)) * mx + std::fabs(double(slope.b)) * my;
    // Also false for an infinite coordinate (and NaN from one).
    if (!(residualMagnitude < kMaxResidualMagnitude)) return static_cast<float>(cornerBound);
    const double cx = r6 + r8 * slope.a, cy = r7 + r8 * slope.b;
    const double xr = cx >= 0.0 ? b.lo.x : b.hi.x;
    const double yr = cy >= 0.0 ? b.lo.y : b.hi.y;
    const double r = r8 >= 0.0 ? b.residualLo : b.residualHi;
    const double residualError = kResidualSlack * residualMagnitude + FLT_MIN;
    const double sizes = std::fabs(r6) * mx + std::fabs(r7) * my + std::fabs(r8) * mz + std::fabs(r8 * r) +
                         (std::fabs(r6) + std::fabs(r8 * slope.a)) * mx + (std::fabs(r7) + std::fabs(r8 * slope.b)) * my;
    const double residualBound =
        r8 * r + cx * xr + cy * yr - std::fabs(r8) * residualError - kBoundSlack * sizes;
    return static_cast<float>(std::max(cornerBound, residualBound));
}

void addBlock(const BandBlock& b, const BandTest& band, LowestLevelledHeight& lowest) {
    cv::Point3f pts[kBlockPoints];
    const int m = bandPointsOf(b.pts, b.count, band, pts);
    for (int k = 0; k < m; ++k) lowest.add(pts[k]);
}

/// Lowest levelled height of the band points (0.0 without any). The block
/// with the lowest bound is read first, which usually finds the minimum or
/// comes close; then the blocks are read in scan order, skipping every block
/// whose bound lies above the lowest height found. A skipped block's heights
/// all lie strictly above the minimum, so the result is that of reading every
/// band point in scan order, down to which of two equal heights (+0 and -0)
/// is kept.
PA_PASS double lowestBandHeight(const std::vector<BandBlock>& blocks, const BandTest& band, const double* rotation,
                                const PlaneSlope& slope) {
    if (blocks.empty()) return 0.0;
    std::vector<float> bounds(blocks.size());
    size_t first = 0;
    for (size_t k = 0; k < blocks.size(); ++k) {
        bounds[k] = lowerBound(blocks[k], rotation, slope);
        if (bounds[k] < bounds[first]) first = k;
    }
    LowestLevelledHeight probe(rotation);
    addBlock(blocks[first], band, probe);
    LowestLevelledHeight lowest(rotation);
    for (size_t k = 0; k < blocks.size(); ++k) {
        if (bounds[k] > std::min(probe.lowest(), lowest.lowest())) continue;
        addBlock(blocks[k], band, lowest);
    }
    return lowest.lowest();
}

/// The most blocks the band pass can record.
size_t blockCapacity(const ScanView& scan) {
    size_t n = 0;
    for (const LineSpan& line : scan) n += static_cast<size_t>((line.count + kBlockPoints - 1) / kBlockPoints);
    return n;
}

/// The slope of a plane fitted to the band points of every kSlopeSampleStride-th
/// line; zero where that fit fails or is not finite.
PlaneSlope provisionalSlope(const ScanView& scan, const BandTest& band) {
    pa_detail::PlaneSums sums;
    cv::Point3f pts[kBlockPoints];
    for (size_t l = 0; l < scan.size(); l += kSlopeSampleStride) {
        const LineSpan& line = scan[l];
        for (int64_t s = 0; s < line.count; s += kBlockPoints) {
            const int n = static_cast<int>(std::min<int64_t>(kBlockPoints, line.count - s));
            const int m = bandPointsOf(line.pts + s, n, band, pts);
            for (int k = 0; k < m; ++k) sums.add(pts[k]);
        }
    }
    const cv::Vec4d plane = pa_detail::solvePlane(sums);
    PlaneSlope slope;
    const float a = static_cast<float>(plane[0]), b = static_cast<float>(plane[1]);
    if (std::isfinite(a) && std::isfinite(b)) {
        slope.a = a;
        slope.b = b;
    }
    return slope;
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

    // The band is not stored (it is as large as the floor, and filling that
    // much fresh memory costs more than reading it again): the fit sums it in
    // one pass, and the plane height rereads only the blocks of it that can
    // hold the lowest levelled point.
    // Both edges are at least zr.min > 0; should rounding ever
    // put zLow above zHigh, the band holds no point.
    std::vector<BandBlock> blocks;
    pa_detail::PlaneSums sums;
    const BandTest band(zLow, zHigh);
    PlaneSlope slope;
    if (zLow <= zHigh) {
        slope = provisionalSlope(scan, band);
        blocks.reserve(blockCapacity(scan));
        sums = sumBand(scan, band, slope, blocks);
    }
    SHX_planeCalibPara r = levellingRotations(pa_detail::solvePlane(sums));
    r.planeHeight = lowestBandHeight(blocks, band, r.planeCalib, slope);
    return r;
}

/// Whether a point lies in a caller region. The upper z bound is compared
/// with y, not z: heights are limited only from below.
inline bool inRegion(const SKesp3DRangeD& r, double x, double y, double z) {
    return x >= r.xRange.min && x <= r.xRange.max && y >= r.yRange.min && y <= r.yRange.max && z >= r.zRange.min &&
           y <= r.zRange.max;
}

// ---------------------------------------------------------------------------
// Refinement: the plane refitted to the points near it, round after round.
// ---------------------------------------------------------------------------

/// A round needs this many inliers for a plane.
constexpr int64_t kMinInliers = 3;

/// A plane as its upward unit normal n and its level c: the signed distance
/// of a point p above it is n . p - c.
struct LevelPlane {
    cv::Vec3d normal;
    double level;
};

/// The plane a refinement starts from: the levelled plane of the start
/// (normal = row 2 of planeCalib, the direction of levelled heights) at
/// planeHeight + inlierDist. planeHeight is the lowest point of the surface
/// the calibration fitted, so the first round's slab, from planeHeight to
/// planeHeight + 2 inlierDist, lies on the bottom layer of that surface.
LevelPlane startingPlane(const SHX_planeCalibPara& start, double inlierDist) {
    const double* row2 = start.planeCalib + 6;
    return {cv::Vec3d(row2[0], row2[1], row2[2]), start.planeHeight + inlierDist};
}

/// The plane z = a x + b y + e of a fit (a, b, -1, e).
LevelPlane planeOfFit(const cv::Vec4d& fit) {
    const double length = std::sqrt(fit[0] * fit[0] + fit[1] * fit[1] + 1.0);
    return {cv::Vec3d(-fit[0] / length, -fit[1] / length, 1.0 / length), fit[3] / length};
}

// GCC 12 at -O3 was seen to pair the scalar conversions of x and y to single
// precision into one vector and then use the unrounded values (its SLP
// vectorizer). Where there are vector conversions they do the rounding; where
// the scalar ones remain, the round that uses them is kept out of that pass.
#if !CV_SIMD128_64F && defined(__GNUC__) && !defined(__clang__)
#define PA_NO_SLP __attribute__((optimize("no-tree-slp-vectorize")))
#else
#define PA_NO_SLP
#endif

/// A scan point rounded to single precision and widened back: the values the
/// fit takes.
struct WidenedPoint {
#if CV_SIMD128_64F
    explicit WidenedPoint(const SKesp3DPosition& p)
        : xy(cv::v_cvt_f64(cv::v_cvt_f32(cv::v_load(&p.x)))),
          zz(cv::v_cvt_f64(cv::v_cvt_f32(cv::v_setall_f64(p.z)))),
          x(xy.get0()),
          y(cv::v_extract_n<1>(xy)),
          z(zz.get0()) {}
    void addTo(StreamingPlaneSums& sums) const { sums.add(xy, cv::v_combine_high(xy, zz)); }
    cv::v_float64x2 xy, zz;  // (x, y) and (z, z)
#else
    explicit WidenedPoint(const SKesp3DPosition& p)
        : x(static_cast<float>(p.x)), y(static_cast<float>(p.y)), z(static_cast<float>(p.z)) {}
    void addTo(StreamingPlaneSums& sums) const { sums.add(x, y, z); }
#endif
    double x, y, z;
};

/// What a round keeps of its inliers.
struct RoundInliers {
    pa_detail::PlaneSums sums;
    double lowestHeight;  ///< as LowestLevelledHeight::value
};

/// One round over the scan. The inliers are the valid points (z >= 0.0001)
/// whose single-precision coordinates, the ones the fit takes, lie less than
/// halfWidth from the plane; a NaN or infinite coordinate (or one beyond
/// single precision) gives a NaN or infinite distance, which is never below
/// halfWidth. Returns their least-squares sums in scan order and, WithHeight,
/// their lowest levelled height under `rotation`. A point is tested and
/// summed in one step, without a buffer: unlike the calibration's band, the
/// slab's inliers come in long runs (the surface between objects and
/// dropouts), so the branch is well predicted.
template <bool WithHeight>
PA_NO_SLP PA_PASS RoundInliers sumInliers(const ScanView& scan, const LevelPlane& plane, double halfWidth,
                                          const double* rotation) {
    const double n0 = plane.normal[0], n1 = plane.normal[1], n2 = plane.normal[2], level = plane.level;
    StreamingPlaneSums sums;
    LowestLevelledHeight lowest(rotation);
    for (const LineSpan& line : scan) {
        const SKesp3DPosition* p = line.pts;
        for (int64_t i = 0; i < line.count; ++i) {
            const WidenedPoint q(p[i]);
            const double distance = n0 * q.x + n1 * q.y + n2 * q.z - level;
            if (!(isValidZ(p[i].z) & (std::fabs(distance) < halfWidth))) continue;
            q.addTo(sums);
            if (WithHeight) lowest.add(q.x, q.y, q.z);
        }
    }
    return {sums.sums(), lowest.value()};
}

/// Whether two rounds summed the same points: equal sums give the same fit bit
/// for bit, so the next round would take the same inliers again.
bool sameSums(const pa_detail::PlaneSums& a, const pa_detail::PlaneSums& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

SHX_planeCalibPara refineCalibration(const ScanView& scan, const SHX_planeCalibPara& start, double inlierDist,
                                     int32_t maxIter) {
    if (start.planeHeight == kFailedPlaneHeight || !(inlierDist > 0.0) || maxIter < 1) return start;
    SHX_planeCalibPara r = start;
    LevelPlane plane = startingPlane(start, inlierDist), roundPlane = plane;
    pa_detail::PlaneSums previous;
    for (int32_t round = 0; round < maxIter; ++round) {
        roundPlane = plane;
        // A round after the first keeps the height its inliers have under the
        // rotation of the plane that chose them: should it take the same
        // inliers as the round before, that plane is final and so is this
        // height. The first round has no earlier inliers to repeat.
        const RoundInliers inliers = round > 0 ? sumInliers<true>(scan, roundPlane, inlierDist, r.planeCalib)
                                               : sumInliers<false>(scan, roundPlane, inlierDist, r.planeCalib);
        if (inliers.sums.m < kMinInliers) return start;
        if (round > 0 && sameSums(inliers.sums, previous)) {
            r.planeHeight = inliers.lowestHeight;
            return r;
        }
        const cv::Vec4d fit = pa_detail::solvePlane(inliers.sums);
        r = levellingRotations(fit);
        plane = planeOfFit(fit);
        previous = inliers.sums;
    }
    // Stopped by the limit: the last round's inliers, levelled by the last fit.
    r.planeHeight = sumInliers<true>(scan, roundPlane, inlierDist, r.planeCalib).lowestHeight;
    return r;
}

}  // namespace

PA_API SHX_planeCalibPara hx_getPlaneCalibPara(const SKesp3DLaserLine* lines, int32_t lineNum) {
    return calibrateScan(viewOf(lines, lineNum));
}

PA_API SHX_planeCalibPara hx_getPlaneCalibPara2(const std::vector<std::vector<SKesp3DPosition>>& scan) {
    return calibrateScan(viewOf(scan));
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

PA_API SHX_planeCalibPara hx_refinePlaneCalibPara(const SKesp3DLaserLine* lines, int32_t lineNum,
                                                  const SHX_planeCalibPara& start, double inlierDist,
                                                  int32_t maxIter) {
    return refineCalibration(viewOf(lines, lineNum), start, inlierDist, maxIter);
}

PA_API SHX_planeCalibPara hx_refinePlaneCalibPara_vector(const std::vector<std::vector<SKesp3DPosition>>& scan,
                                                         const SHX_planeCalibPara& start, double inlierDist,
                                                         int32_t maxIter) {
    return refineCalibration(viewOf(scan), start, inlierDist, maxIter);
}
