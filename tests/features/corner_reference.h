// Plain, obviously-correct versions of the corner and jump detectors for the
// tests: full square-root neighbour scans, the library's atan on every point,
// a full comparison sort. Slow on purpose.
#ifndef PROFILE_ANALYSIS_TEST_CORNER_REFERENCE_H
#define PROFILE_ANALYSIS_TEST_CORNER_REFERENCE_H

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "profile_analysis.h"

namespace cornerref {

struct Entry {
    int ptIdx = -1;
    int back = -1, fwd = -1;  // the neighbours at least armLen away, in the compacted list
    double forwardAngle = 0, backwardAngle = 0, cornerAngle = 0;
    double forwardZ = 0, backwardZ = 0;
    int cornerType = 0;
};

struct Angles {
    std::vector<SKesp3DPosition> pts;  // compacted, nPointIdx = input index
    std::vector<Entry> list;
    std::vector<int> maxima, minima;  // indices into list
};

inline double deg(double rad) { return rad * 180.0 / 3.141592654; }

inline Angles angles(const SKesp3DPosition* p, int n, double armLen) {
    Angles a;
    for (int i = 0; i < n; ++i) {
        if (p[i].z > 0.0001) {
            a.pts.push_back(p[i]);
            a.pts.back().nPointIdx = i;
        }
    }
    const int m = static_cast<int>(a.pts.size());
    const auto& c = a.pts;
    auto dist = [&](int k, int j) {
        return std::sqrt((c[k].y - c[j].y) * (c[k].y - c[j].y) + (c[k].z - c[j].z) * (c[k].z - c[j].z));
    };
    a.list.resize(m);
    for (int k = 0; k < m; ++k) {
        int b = -1, f = -1;
        for (int j = k - 1; j >= 0; --j)
            if (dist(k, j) >= armLen) { b = j; break; }
        for (int j = k + 1; j < m; ++j)
            if (dist(k, j) >= armLen) { f = j; break; }
        if (b < 0 || f < 0) continue;
        Entry& e = a.list[k];
        e.ptIdx = k;
        e.back = b;
        e.fwd = f;
        e.backwardAngle = deg(std::atan((c[k].z - c[b].z) / std::fabs(c[k].y - c[b].y)));
        e.forwardAngle = deg(std::atan((c[f].z - c[k].z) / std::fabs(c[f].y - c[k].y)));
        e.cornerAngle = e.backwardAngle - e.forwardAngle;
        e.backwardZ = c[b].z;
        e.forwardZ = c[f].z;
    }
    int state = 0, prev = -1;  // 0 undecided, 1 rising, 2 falling
    for (int k = 0; k < m; ++k) {
        if (a.list[k].ptIdx < 0) {
            if (k == m - 1 && prev >= 0 && state == 1) a.maxima.push_back(prev);
            if (k == m - 1 && prev >= 0 && state == 2) a.minima.push_back(prev);
            continue;
        }
        if (prev >= 0) {
            const double d = a.list[k].cornerAngle - a.list[prev].cornerAngle;
            if (state == 0) {
                if (d > 0) state = 1;
                else if (d < 0) state = 2;
            } else if (state == 1 && d < 0) {
                a.maxima.push_back(prev);
                state = 2;
            } else if (state == 2 && d > 0) {
                a.minima.push_back(prev);
                state = 1;
            }
        }
        prev = k;
    }
    return a;
}

// True when another candidate within 2 * armLen along y has a larger value.
template <class Value>
bool suppressed(const Angles& a, const std::vector<int>& cands, size_t q, double armLen, Value value) {
    for (size_t dir : {size_t(0) - 1, size_t(1)})  // backward, then forward (unsigned wrap ends the backward walk)
        for (size_t i = q + dir; i < cands.size(); i += dir) {
            const double dy = a.pts[cands[i]].y - a.pts[cands[q]].y;
            if (dy * dy > 4 * armLen * armLen) break;
            if (value(cands[i]) > value(cands[q])) return true;
        }
    return false;
}

inline SHX_basicFeature1D record(const SKesp3DPosition* p, int inputIdx, int type, int lineIdx, double value) {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = lineIdx;
    f.featurePos = p[inputIdx];
    f.featurePos.nPointIdx = inputIdx;
    f.featureValue = value;
    return f;
}

// Runs of valid points, cut where consecutive heights differ by more than
// jumpZ (a NaN step does not cut).
struct Seg { int start, num, valid; };
inline std::vector<Seg> segments(const SKesp3DPosition* p, int n, double jumpZ) {
    std::vector<Seg> segs;
    int first = -1, last = -1;
    for (int i = 0; i < n; ++i) {
        if (p[i].z > 0.0001) {
            if (first >= 0 && std::fabs(p[i].z - p[i - 1].z) > jumpZ) {
                segs.push_back({first, last - first + 1, 1});
                first = -1;
            }
            if (first < 0) first = i;
            last = i;
        } else if (first >= 0) {
            segs.push_back({first, last - first + 1, 1});
            first = -1;
        }
    }
    if (first >= 0) segs.push_back({first, last - first + 1, 1});
    return segs;
}

inline void corners(const SKesp3DPosition* p, int n, int lineIdx, SHX_cornerParam prm, SHX_lineFeature* out) {
    out->lineIdx = lineIdx;
    if (n < 1) return;
    std::vector<Seg> segs = segments(p, n, prm.jumpZ);
    Angles a = angles(p, n, prm.armLen);
    for (size_t q = 0; q < a.maxima.size(); ++q) {
        const Entry& e = a.list[a.maxima[q]];
        if (prm.minCornerAngle > e.cornerAngle) continue;
        if (suppressed(a, a.maxima, q, prm.armLen, [&](int k) { return a.list[k].cornerAngle; })) continue;
        int type = 15;
        if (e.backwardAngle > prm.armAngle1 && e.forwardAngle > -prm.armAngle2) type = 1;
        else if (-prm.armAngle1 > e.forwardAngle && prm.armAngle2 > e.backwardAngle) type = 2;
        out->features.push_back(record(p, static_cast<int>(a.pts[e.ptIdx].nPointIdx), type, lineIdx, 0.0));
    }
    for (size_t s = 1; s < segs.size(); ++s) {
        const int ia = segs[s - 1].start + segs[s - 1].num - 1, ib = segs[s].start;
        if (std::fabs(p[ia].y - p[ib].y) < prm.maxGapY && std::fabs(p[ia].z - p[ib].z) < prm.jumpZ) {
            segs[s].num += segs[s].start - segs[s - 1].start;
            segs[s].start = segs[s - 1].start;
            segs[s - 1].valid = 0;
        }
    }
    for (const Seg& s : segs) {
        if (!s.valid) continue;
        out->endings.push_back(record(p, s.start, 6, lineIdx, 0.0));
        out->endings.push_back(record(p, s.start + s.num - 1, 7, lineIdx, 0.0));
    }
}

inline void jumps(const SKesp3DPosition* p, int n, int lineIdx, SHX_cornerParam prm,
                  std::vector<SHX_basicFeature1D>& out) {
    if (n < 1) return;
    Angles a = angles(p, n, prm.armLen);
    std::vector<Entry> combined;
    auto type = [&](const std::vector<int>& cands, bool concave) {
        auto value = [&](int k) { return concave ? std::fabs(a.list[k].cornerAngle) : a.list[k].cornerAngle; };
        for (size_t q = 0; q < cands.size(); ++q) {
            Entry e = a.list[cands[q]];
            if (prm.minCornerAngle > value(cands[q])) continue;
            if (suppressed(a, cands, q, prm.armLen, value)) continue;
            if (prm.armAngle1 > std::fabs(e.backwardAngle) && std::fabs(e.forwardAngle) > prm.armAngle2)
                e.cornerType = concave ? 10 : 9;
            else if (prm.armAngle1 > std::fabs(e.forwardAngle) && std::fabs(e.backwardAngle) > prm.armAngle2)
                e.cornerType = concave ? 11 : 12;
            else
                continue;
            combined.push_back(e);
        }
    };
    type(a.maxima, false);
    type(a.minima, true);
    std::sort(combined.begin(), combined.end(), [](const Entry& x, const Entry& y) { return x.ptIdx < y.ptIdx; });
    for (size_t k = 0; k + 1 < combined.size(); ++k) {
        const Entry& e = combined[k];
        const Entry& f = combined[k + 1];
        const double gap = std::fabs(a.pts[e.ptIdx].y - a.pts[f.ptIdx].y);
        const double step = std::fabs(f.forwardZ - e.backwardZ);
        if (e.cornerType == 9 && f.cornerType == 11 && gap < prm.maxGapY && step > prm.jumpZ)
            out.push_back(record(p, static_cast<int>(a.pts[e.ptIdx].nPointIdx), 2, lineIdx, e.backwardZ));
        if (e.cornerType == 10 && f.cornerType == 12 && gap < prm.maxGapY && step > prm.jumpZ)
            out.push_back(record(p, static_cast<int>(a.pts[f.ptIdx].nPointIdx), 1, lineIdx, f.forwardZ));
    }
}

// Records equal field by field, coordinates and values bit for bit.
inline void expectSame(const std::vector<SHX_basicFeature1D>& a, const std::vector<SHX_basicFeature1D>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].featureType, b[i].featureType) << i;
        EXPECT_EQ(a[i].lineIdx, b[i].lineIdx) << i;
        EXPECT_EQ(a[i].featurePos.nPointIdx, b[i].featurePos.nPointIdx) << i;
        EXPECT_EQ(std::memcmp(&a[i].featurePos.x, &b[i].featurePos.x, sizeof(double)), 0) << i;
        EXPECT_EQ(std::memcmp(&a[i].featurePos.y, &b[i].featurePos.y, sizeof(double)), 0) << i;
        EXPECT_EQ(std::memcmp(&a[i].featurePos.z, &b[i].featurePos.z, sizeof(double)), 0) << i;
        EXPECT_EQ(std::memcmp(&a[i].featureValue, &b[i].featureValue, sizeof(double)), 0) << i;
    }
}

}  // namespace cornerref

#endif
