// Moving-average smoothing of profile heights, over the whole line or segment
// by segment.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "internal.h"

using pa_detail::isStrictlyValidZ;

namespace {

// A running sum that stays accurate while values enter and leave it: every
// update is done with error-free two-sums whose rounding errors are carried in
// `carry`, so a window that once held large heights does not leave their
// rounding noise behind when it moves on to small ones.
struct RunningSum {
    double sum = 0.0;
    double carry = 0.0;

    void add(double v) {
        const double t = sum + v;
        const double vPart = t - sum;
        carry += (sum - (t - vPart)) + (v - vPart);
        sum = t;
    }
    // Adds entering - leaving. The difference is formed exactly (d + e) off
    // the sum's dependency chain, so each window step costs the chain one
    // addition instead of two.
    void replace(double leaving, double entering) {
        const double d = entering - leaving;
        const double dPart = d - entering;
        const double e = (entering - (d - dPart)) + (-leaving - dPart);
        const double t = sum + d;
        const double tPart = t - sum;
        carry += e + ((sum - (t - tPart)) + (d - tPart));
        sum = t;
    }
    double value() const { return sum + carry; }
    // An infinite or overflowing term always makes `sum` itself non-finite
    // (the carried errors of finite terms are finite), so `sum` alone tells.
    bool isFinite() const { return std::isfinite(sum); }
};

// Sums of the strictly valid heights of pts[lo..hi] in index order: plain,
// and compensated (the state a running sum restarts from).
double plainValidSum(const SKesp3DPosition* pts, int64_t lo, int64_t hi) {
    double s = 0.0;
    for (int64_t j = lo; j <= hi; ++j)
        if (isStrictlyValidZ(pts[j].z)) s += pts[j].z;
    return s;
}

RunningSum compensatedValidSum(const SKesp3DPosition* pts, int64_t lo, int64_t hi) {
    RunningSum s;
    for (int64_t j = lo; j <= hi; ++j)
        if (isStrictlyValidZ(pts[j].z)) s.add(pts[j].z);
    return s;
}

// Writes into out[0..n-1] a copy of in[0..n-1] in which the z of every
// strictly valid point is the mean of the strictly valid heights of
// in[i - half .. i + half] clipped to the line; invalid points are copied as
// they are. Copying in the same pass saves a second sweep over the line.
// The window moves by one point per step, so each point enters and leaves the
// running sum once: the cost does not depend on the window. Should the sum
// overflow (infinite heights, or heights near the top of the double range),
// it is summed afresh at every step until it is finite again, and meanwhile
// the mean is the plain one (infinite, as a plain sum gives).
void smoothHeights(const SKesp3DPosition* in, int64_t n, int64_t half, SKesp3DPosition* out) {
    if (half < 0) {
        // An empty window: the mean is 0 / 0 at every valid point.
        const double nan = std::numeric_limits<double>::quiet_NaN();
        for (int64_t i = 0; i < n; ++i) {
            out[i] = in[i];
            if (isStrictlyValidZ(in[i].z)) out[i].z = nan;
        }
        return;
    }
    half = std::min(half, n);
    const auto lo = [half](int64_t i) { return std::max<int64_t>(0, i - half); };
    const auto hi = [half, n](int64_t i) { return std::min(n - 1, i + half); };

    RunningSum window;
    int64_t count = 0;
    for (int64_t j = 0; j <= hi(0); ++j) {
        if (isStrictlyValidZ(in[j].z)) {
            window.add(in[j].z);
            ++count;
        }
    }
    for (int64_t i = 0; i < n; ++i) {
        if (i > 0) {
            const int64_t entering = i + half;
            const int64_t leaving = i - half - 1;
            const bool enters = entering < n && isStrictlyValidZ(in[entering].z);
            const bool leaves = leaving >= 0 && isStrictlyValidZ(in[leaving].z);
            window.replace(leaves ? in[leaving].z : 0.0, enters ? in[entering].z : 0.0);
            count += static_cast<int64_t>(enters) - static_cast<int64_t>(leaves);
            if (count == 0) window = RunningSum();  // exact restart whenever the window empties
            if (!window.isFinite()) window = compensatedValidSum(in, lo(i), hi(i));
        }
        out[i] = in[i];
        if (!isStrictlyValidZ(in[i].z)) continue;
        const double sum = window.isFinite() ? window.value() : plainValidSum(in, lo(i), hi(i));
        out[i].z = sum / static_cast<double>(count);
    }
}

int64_t halfWindow(int32_t winSize) { return static_cast<int64_t>(winSize / 2); }

}  // namespace

PA_API void hx_lineDataSmoothing(const std::vector<SKesp3DPosition>& lineData, int32_t winSize,
                                 std::vector<SKesp3DPosition>& smoothedData) {
    if (&lineData == &smoothedData) {
        // Smoothing in place: the means must still be taken over the original heights.
        const std::vector<SKesp3DPosition> original(lineData);
        smoothHeights(original.data(), static_cast<int64_t>(original.size()), halfWindow(winSize),
                      smoothedData.data());
        return;
    }
    smoothedData.resize(lineData.size());
    smoothHeights(lineData.data(), static_cast<int64_t>(lineData.size()), halfWindow(winSize),
                  smoothedData.data());
}

PA_API void hx_lineSegSmoothing(const std::vector<SKesp3DPosition>& lineData, double maxStepY, double maxStepZ,
                                int32_t winSize, std::vector<SKesp3DPosition>& smoothedData) {
    if (lineData.empty()) return;
    if (&lineData == &smoothedData) {
        // The output grows while the input is read: work from a copy.
        const std::vector<SKesp3DPosition> original(lineData);
        hx_lineSegSmoothing(original, maxStepY, maxStepZ, winSize, smoothedData);
        return;
    }
    const int64_t n = static_cast<int64_t>(lineData.size());
    const int64_t half = halfWindow(winSize);
    const size_t base = smoothedData.size();
    smoothedData.resize(base + lineData.size());
    const SKesp3DPosition* in = lineData.data();
    SKesp3DPosition* out = smoothedData.data() + base;

    // Segments are consecutive stretches of the line, so each is smoothed
    // straight into its place in the output. A valid point is compared with
    // the point just before it, valid or not: a gap of missing points (z = 0)
    // ends the segment before it whenever the next height exceeds maxStepZ.
    int64_t segStart = 0;
    bool seenValid = false;
    for (int64_t i = 0; i < n; ++i) {
        const SKesp3DPosition& p = in[i];
        if (!isStrictlyValidZ(p.z)) continue;
        if (!seenValid) {
            seenValid = true;
            continue;
        }
        const SKesp3DPosition& last = in[i - 1];
        if (std::fabs(p.y - last.y) > maxStepY || std::fabs(p.z - last.z) > maxStepZ) {
            smoothHeights(in + segStart, i - segStart, half, out + segStart);
            segStart = i;
        }
    }
    smoothHeights(in + segStart, n - segStart, half, out + segStart);
}
