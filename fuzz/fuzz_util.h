// fuzz_util.h - decoding and checking helpers shared by the fuzz targets.
//
// Every target reads its first byte as the mode: an even byte keeps every
// precondition the header states (finite coordinates, window sizes of at least
// 2, label images of 0 and 1, valid indices), an odd byte also feeds what the
// header describes for input outside its contract (NaN, infinities, 1e300,
// -0.0, negative counts, empty and one-pixel images, absurd parameters). The
// rest of the input is decoded with FuzzedDataProvider. A broken promise
// aborts like a crash, so libFuzzer keeps the input.
#ifndef PROFILE_ANALYSIS_FUZZ_UTIL_H
#define PROFILE_ANALYSIS_FUZZ_UTIL_H

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "profile_analysis.h"

#define FUZZ_CHECK(cond)                                                                      \
    do {                                                                                      \
        if (!(cond)) {                                                                        \
            std::fprintf(stderr, "promise not kept: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            std::abort();                                                                     \
        }                                                                                     \
    } while (0)

namespace fuzz {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

/// Same bits (so NaN equals NaN and -0.0 differs from 0.0).
inline bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
inline bool samePoint(const SKesp3DPosition& a, const SKesp3DPosition& b) {
    return a.nPointIdx == b.nPointIdx && sameBits(a.x, b.x) && sameBits(a.y, b.y) && sameBits(a.z, b.z);
}

class Input {
public:
    Input(const uint8_t* data, size_t size)
        : fdp_(size ? data + 1 : data, size ? size - 1 : 0), hostile_(size > 0 && (data[0] & 1)) {}

    /// True for out-of-contract input.
    bool hostile() const { return hostile_; }
    bool flag() { return fdp_.ConsumeBool(); }
    template <class T>
    T integer(T lo, T hi) {
        return fdp_.ConsumeIntegralInRange<T>(lo, hi);
    }
    /// A count in lo..hi; out of contract now and then any int at or below lo.
    int32_t count(int32_t lo, int32_t hi) {
        if (hostile_ && integer(0, 7) == 0) return integer<int32_t>(std::numeric_limits<int32_t>::min(), lo);
        return integer(lo, hi);
    }
    /// An int in lo..hi; out of contract now and then one at the ends of the
    /// int range or a power of two (sums and products of such overflow).
    int32_t wide(int32_t lo, int32_t hi) {
        static const int32_t kExtreme[] = {-2147483647 - 1, -2147483647, -65536, -1, 0, 1, 65536, 1073741824,
                                           2147483646, 2147483647};
        if (hostile_ && integer(0, 3) == 0) return kExtreme[integer<size_t>(0, sizeof kExtreme / sizeof *kExtreme - 1)];
        return integer(lo, hi);
    }
    /// A real in [lo, hi], mostly on a grid of eighths (ties, plateaus and
    /// exact limits are where the edge cases live); out of contract now and
    /// then one of the values sensors and wrong records produce.
    double real(double lo, double hi) {
        if (hostile_ && integer(0, 15) == 0) return special();
        return grid(lo, hi);
    }
    double grid(double lo, double hi) {
        if (integer(0, 15) == 0) return fdp_.ConsumeFloatingPointInRange(lo, hi);
        const double steps = std::floor((hi - lo) * 8.0);
        return lo + static_cast<double>(integer<int64_t>(0, static_cast<int64_t>(steps))) / 8.0;
    }
    // (Heights spanning just under 1e8 units are left out: plane calibration
    // documents a histogram of that many bins, 800 MB, as their cost.)
    double special() {
        static const double kSpecial[] = {kNaN, kInf, -kInf, 1e300, -1e300, -0.0, 0.0, 1e-300, 5e-324,
                                          std::numeric_limits<double>::max(), 0.0001, 1e9, -1e9, 2.5e9};
        return kSpecial[integer<size_t>(0, sizeof kSpecial / sizeof *kSpecial - 1)];
    }

    /// A profile of up to maxN points: y mostly rising, z a random walk with
    /// gaps of invalid points (z 0.0), x fixed per line; out of contract some
    /// coordinates are special values.
    std::vector<SKesp3DPosition> profile(int maxN, double x = 0.0) {
        std::vector<SKesp3DPosition> v(static_cast<size_t>(integer(0, maxN)));
        double y = grid(-50.0, 50.0), z = grid(0.0, 40.0);
        for (SKesp3DPosition& p : v) {
            y += grid(-0.5, 4.0);
            z += grid(-6.0, 6.0);
            if (!(z > -50.0 && z < 100.0)) z = grid(0.0, 40.0);
            p.nPointIdx = integer<int64_t>(-2, 1000);
            p.x = x;
            p.y = y;
            p.z = integer(0, 7) == 0 ? 0.0 : (z > 0.0 ? z : 0.0);
            if (hostile_ && integer(0, 7) == 0) (integer(0, 2) == 0 ? p.x : integer(0, 1) ? p.y : p.z) = special();
        }
        return v;
    }

    /// An OpenCV matrix of up to maxSide rows and columns: in contract of
    /// the given type and values lo..hi; out of contract also empty, one
    /// pixel, another depth or several channels, and any value.
    cv::Mat image(int type, int maxSide, double lo, double hi) {
        int rows = integer(0, maxSide), cols = integer(0, maxSide);
        if (hostile_ && flag()) {
            static const int kTypes[] = {CV_8UC1, CV_8SC1, CV_16UC1, CV_32SC1, CV_32FC1, CV_64FC1, CV_8UC3, CV_32SC4};
            type = kTypes[integer<size_t>(0, 7)];
            if (flag()) rows = cols = integer(0, 1);
        } else if (!hostile_) {
            rows = rows < 1 ? 1 : rows;
            cols = cols < 1 ? 1 : cols;
        }
        cv::Mat m = cv::Mat::zeros(rows, cols, type);
        const int n = rows * cols * m.channels();
        for (int i = 0; i < n; ++i) {
            const double v = hostile_ ? real(-300.0, 300.0) : std::floor(real(lo, hi));
            switch (m.depth()) {
                case CV_8U: m.ptr<uint8_t>()[i] = cv::saturate_cast<uint8_t>(v); break;
                case CV_8S: m.ptr<int8_t>()[i] = cv::saturate_cast<int8_t>(v); break;
                case CV_16U: m.ptr<uint16_t>()[i] = cv::saturate_cast<uint16_t>(v); break;
                case CV_32S: m.ptr<int32_t>()[i] = cv::saturate_cast<int32_t>(v); break;
                case CV_32F: m.ptr<float>()[i] = static_cast<float>(v); break;
                default: m.ptr<double>()[i] = v;
            }
        }
        return m;
    }

private:
    FuzzedDataProvider fdp_;
    bool hostile_;
};

inline int32_t count(const std::vector<SKesp3DPosition>& v) { return static_cast<int32_t>(v.size()); }

/// Line records over caller-held point vectors (which must outlive them).
inline std::vector<SKesp3DLaserLine> linesOf(std::vector<std::vector<SKesp3DPosition>>& scan) {
    std::vector<SKesp3DLaserLine> lines(scan.size());
    for (size_t i = 0; i < scan.size(); ++i)
        lines[i] = SKesp3DLaserLine{scan[i].empty() ? nullptr : scan[i].data(), count(scan[i])};
    return lines;
}

/// A detector's record must stand on a point of the line: featurePos a copy of
/// points[i] with nPointIdx = i, on a valid point (strictly above 0.0001 when
/// strict), with the caller's line index.
inline void checkFeatureOnLine(const SHX_basicFeature1D& f, const SKesp3DPosition* points, int32_t n, int32_t lineIdx,
                               bool strict) {
    const int64_t i = f.featurePos.nPointIdx;
    FUZZ_CHECK(i >= 0 && i < n);
    FUZZ_CHECK(f.lineIdx == lineIdx);
    SKesp3DPosition p = points[i];
    p.nPointIdx = i;
    FUZZ_CHECK(samePoint(f.featurePos, p));
    FUZZ_CHECK(strict ? p.z > 0.0001 : p.z >= 0.0001);
}

}  // namespace fuzz

#endif
