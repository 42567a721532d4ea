// L/V features of one profile: steps, steep flanks and V shapes found on the
// monotone z runs of the line, plus the two ends of every continuous segment.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "internal.h"

using pa_detail::isValidZ;

namespace {

// Feature type codes this detector emits.
constexpr int32_t kRisingStep = 1;
constexpr int32_t kFallingStep = 2;
constexpr int32_t kRisingFlank = 3;
constexpr int32_t kFallingFlank = 4;
constexpr int32_t kVShape = 5;
constexpr int32_t kSegmentStart = 6;
constexpr int32_t kSegmentEnd = 7;

// A flank must be steeper than this |dz / dy| across its largest step.
constexpr double kFlankMinSlope = 2.0;
// A flank's high end must lie more than this many indices from every segment end.
constexpr int32_t kFlankMinEdgeIndices = 2;
// Arbitration around a V: a step or flank farther than this along y stands on its own.
constexpr double kArbitrationNearY = 5.0;
// Arbitration around a V: below this overall depth change a near flank is part of the V.
constexpr double kArbitrationDepthZ = 40.0;
// Two steps of one type closer than this along y are one step (the later one is kept).
constexpr double kStepMergeY = 20.0;

// One monotone z run. Indices are input-array indices; the points are read
// from the input when needed instead of being copied.
struct SlopeRun {
    bool used;
    bool rising;
    int32_t startIdx;
    int32_t endIdx;
    int32_t stepStartIdx;  // the run's largest single step
    int32_t stepEndIdx;
};

// A step or flank proposed by one run.
struct Candidate {
    bool exists = false;
    int32_t type = 0;
    int32_t idx = 0;    // the feature's point
    double refY = 0.0;  // where its distance to a V is measured
};

// Working lists of one call.
struct Scratch {
    // The kept runs, in line order.
    std::unique_ptr<SlopeRun[]> runs;
    size_t runCount = 0;
    // Segment ends flattened as start0, end0, start1, end1, ...: nondecreasing,
    // so the nearest end to an index is found by binary search.
    std::vector<int32_t> segBounds;
};

class LineKernel {
public:
    LineKernel(const SKesp3DPosition* pts, int32_t n, int32_t lineIdx, const SHX_slopeParam& slope,
               const SHX_VFeatureParam& vParam, Scratch& s)
        : p_(pts), n_(n), lineIdx_(lineIdx), slope_(slope), v_(vParam), s_(s) {}

    void extractRunsAndSegments();
    void extractFeatures(std::vector<SHX_basicFeature1D>& out) const;
    void appendEndings(std::vector<SHX_basicFeature1D>& out) const;

private:
    double z(int32_t i) const { return p_[i].z; }
    double y(int32_t i) const { return p_[i].y; }
    double runHeight(const SlopeRun& r) const { return z(r.endIdx) - z(r.startIdx); }
    double stepHeight(const SlopeRun& r) const { return z(r.stepEndIdx) - z(r.stepStartIdx); }

    void closeSegment(int32_t start, int32_t end) {
        s_.segBounds.push_back(start);
        s_.segBounds.push_back(end);
    }

    void keepHighRuns(const int32_t* turns, size_t turnCount, int32_t firstStart, bool firstRising,
                      int32_t lastIdx);
    bool farFromSegmentEnds(int32_t idx) const;
    int32_t nearestZ(const SlopeRun& r, double v) const;
    void findLargestStep(SlopeRun& r) const;
    bool isV(const SlopeRun& R, const SlopeRun& N) const;
    Candidate candidateOf(const SlopeRun& r) const;
    void push(std::vector<SHX_basicFeature1D>& out, int32_t type, int32_t idx) const;
    void arbitrate(const Candidate& A, const Candidate& B, int32_t vIdx, double depthChange,
                   std::vector<SHX_basicFeature1D>& out) const;

    const SKesp3DPosition* p_;
    int32_t n_;
    int32_t lineIdx_;
    SHX_slopeParam slope_;
    SHX_VFeatureParam v_;
    Scratch& s_;
};

// One pass: monotone runs by the sign of z between successive valid points,
// and segments split where invalid points span more than maxGapY along y.
// A run continues while z keeps its direction or stays level, so the trend is
// the sign of the latest non-zero change, and a run ends where a change of the
// opposite sign turns it; the next run starts at that same point. On noisy
// flats the trend flips at random, so the pass does not branch on it: at every
// point it writes the current end into the next free slot and advances the
// count only at a turn. The runs alternate in direction and each starts where
// the one before ended, so the list of turns gives them all; the runs high
// enough are kept afterwards, and their largest steps found. The inner loop
// walks one stretch of valid points; gaps and segment ends are handled between
// stretches.
void LineKernel::extractRunsAndSegments() {
    const SKesp3DPosition* p = p_;
    const int32_t n = n_;

    int32_t i = 0;
    while (i < n && !isValidZ(p[i].z)) ++i;  // NaN heights are invalid too
    if (i >= n - 1) return;  // no valid point, or a segment opened by the last point: never closed
    // At most one turn per point, and one slot written past the last.
    std::unique_ptr<int32_t[]> turnBuf(new int32_t[static_cast<size_t>(n) + 1]);
    int32_t* turns = turnBuf.get();
    size_t turnCount = 0;
    int32_t segStart = i;
    int32_t prev = i;
    double zPrev = p[i].z;
    ++i;

    bool decided = false;       // false before the first change of z
    bool firstRising = false;   // direction of the first run
    int32_t firstStart = 0;     // start of the first run
    unsigned rising = 0;        // direction of the current run
    for (;;) {
        if (!decided) {
            for (; i < n; ++i) {
                const double zi = p[i].z;
                if (!isValidZ(zi)) break;
                const double d = zi - zPrev;
                const int32_t from = prev;
                prev = i;
                zPrev = zi;
                if (d > 0 || d < 0) {
                    decided = true;
                    firstRising = d > 0;
                    rising = firstRising;
                    firstStart = from;
                    ++i;
                    break;
                }
            }
        }
        if (decided) {
            for (; i < n; ++i) {
                const double zi = p[i].z;
                if (!isValidZ(zi)) break;
                const double d = zi - zPrev;
                // The direction after this point; a change of it ends the run at
                // prev. (A select rather than arithmetic on the old direction keeps
                // the chain from one point to the next one instruction long.)
                const unsigned up = d > 0, down = d < 0;
                const unsigned next = (up | down) ? up : rising;
                turns[turnCount] = prev;
                turnCount += next ^ rising;
                rising = next;
                prev = i;
                zPrev = zi;
            }
        }
        if (i >= n) {  // the line's last point is valid: it closes the segment
            closeSegment(segStart, n - 1);
            break;
        }
        while (i < n && !isValidZ(p[i].z)) ++i;
        if (i >= n) {  // trailing invalid points: close at the last valid one
            closeSegment(segStart, prev);
            break;
        }
        // The last point closes the segment across any gap; elsewhere a wide gap splits it.
        if (i != n - 1 && std::fabs(p[i].y - p[prev].y) > slope_.maxGapY) {
            closeSegment(segStart, prev);
            segStart = i;
        }
    }
    if (!decided) return;
    keepHighRuns(turns, turnCount, firstStart, firstRising, prev);
}

// The runs ended by the turns (run k from the previous turn, or firstStart,
// to turns[k]) that are at least minRunHeight high, then the run still open at
// the end of the line (up to lastIdx) under the same test unless the last kept
// run has the same start.
void LineKernel::keepHighRuns(const int32_t* turns, size_t turnCount, int32_t firstStart, bool firstRising,
                              int32_t lastIdx) {
    const double minRun = slope_.minRunHeight;
    // In a monotone run |z(end) - z(start)| is its height.
    const auto high = [this, minRun](int32_t start, int32_t end) { return std::fabs(z(end) - z(start)) >= minRun; };
    s_.runs.reset(new SlopeRun[turnCount + 1]);
    SlopeRun* runs = s_.runs.get();
    size_t count = 0;
    int32_t start = firstStart;
    bool rising = firstRising;
    for (size_t k = 0; k < turnCount; ++k) {
        const int32_t end = turns[k];
        if (high(start, end)) runs[count++] = SlopeRun{false, rising, start, end, start, end};
        start = end;
        rising = !rising;
    }
    if ((count == 0 || runs[count - 1].startIdx != start) && high(start, lastIdx))
        runs[count++] = SlopeRun{false, rising, start, lastIdx, start, lastIdx};
    s_.runCount = count;
    for (size_t r = 0; r < count; ++r) findLargestStep(runs[r]);
}

// The largest single step between successive valid points of a kept run, the
// first one on ties. Found after the pass so that the pass itself only tracks
// where runs turn; kept runs share at most their end points, so this reads
// each point about once more.
void LineKernel::findLargestStep(SlopeRun& r) const {
    const double sign = r.rising ? 1.0 : -1.0;
    double best = -std::numeric_limits<double>::infinity();
    int32_t a = r.startIdx;
    for (int32_t k = a + 1; k <= r.endIdx; ++k) {
        const double zk = p_[k].z;
        if (!isValidZ(zk)) continue;
        const double m = (zk - p_[a].z) * sign;
        if (m > best) {
            best = m;
            r.stepStartIdx = a;
            r.stepEndIdx = k;
        }
        a = k;
    }
}

// True when idx lies more than kFlankMinEdgeIndices from every segment start and end.
bool LineKernel::farFromSegmentEnds(int32_t idx) const {
    const auto& b = s_.segBounds;
    const auto it = std::lower_bound(b.begin(), b.end(), idx - kFlankMinEdgeIndices);
    return it == b.end() || *it > idx + kFlankMinEdgeIndices;
}

// The valid point of the run whose z is closest to v; the first one on ties.
int32_t LineKernel::nearestZ(const SlopeRun& r, double v) const {
    int32_t best = r.startIdx;
    double bestDist = std::fabs(z(best) - v);
    for (int32_t k = r.startIdx + 1; k <= r.endIdx; ++k) {
        if (!isValidZ(p_[k].z)) continue;
        const double dist = std::fabs(p_[k].z - v);
        if (dist < bestDist) {
            bestDist = dist;
            best = k;
        }
    }
    return best;
}

// Do rising run R and falling run N form a V? The sides are compared at a
// depth just below the shallower top: half the tolerance below R's top when R
// reaches at least as deep as N, the full tolerance below N's top otherwise.
// When the tops differ by zTol or more, the y of the nearest point is tested
// against N's top height itself (y against z, as the detector has always done).
bool LineKernel::isV(const SlopeRun& R, const SlopeRun& N) const {
    const double rTop = z(R.endIdx), nTop = z(N.startIdx);
    if (!(rTop > z(N.endIdx) && nTop > z(R.startIdx))) return false;
    const double zTol = v_.zTol, yTol = v_.yTol;
    if (rTop >= nTop) {
        if (zTol > std::fabs(nTop - rTop)) {
            const double v = rTop - 0.5 * zTol;
            return std::fabs(y(nearestZ(R, v)) - y(nearestZ(N, v))) < yTol;
        }
        return std::fabs(y(nearestZ(R, nTop)) - nTop) < yTol;
    }
    if (zTol > std::fabs(rTop - nTop)) {
        const double v = nTop - zTol;
        return std::fabs(y(nearestZ(R, v)) - y(nearestZ(N, v))) < yTol;
    }
    return std::fabs(y(nearestZ(N, rTop)) - nTop) < yTol;
}

// Step (largest single step above jumpHeight) or steep flank (run higher than
// jumpHeight, steep around its largest step, away from segment ends).
Candidate LineKernel::candidateOf(const SlopeRun& r) const {
    Candidate c;
    const double S = stepHeight(r);
    if (std::fabs(S) > slope_.jumpHeight) {
        // At the lower point of the step; distances to a V from its upper point.
        c.exists = true;
        c.type = S > 0 ? kRisingStep : kFallingStep;
        c.idx = S > 0 ? r.stepStartIdx : r.stepEndIdx;
        c.refY = y(S > 0 ? r.stepEndIdx : r.stepStartIdx);
        return c;
    }
    if (!(std::fabs(runHeight(r)) > slope_.jumpHeight)) return c;
    // The steepness is taken between the step's array neighbours, measured or
    // not: a flank that runs into a dropout is compared with the dropout's z,
    // so a flank falling into a shadow counts as steep.
    const int32_t a = r.stepStartIdx > 0 ? r.stepStartIdx - 1 : r.stepStartIdx;
    const int32_t b = r.stepEndIdx < n_ - 1 ? r.stepEndIdx + 1 : r.stepEndIdx;
    if (!(std::fabs((z(a) - z(b)) / (y(a) - y(b))) > kFlankMinSlope)) return c;
    if (!farFromSegmentEnds(r.rising ? r.endIdx : r.startIdx)) return c;
    // At the upper point of the step.
    c.exists = true;
    c.type = r.rising ? kRisingFlank : kFallingFlank;
    c.idx = r.rising ? r.stepEndIdx : r.stepStartIdx;
    c.refY = y(c.idx);
    return c;
}

void LineKernel::push(std::vector<SHX_basicFeature1D>& out, int32_t type, int32_t idx) const {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = lineIdx_;
    f.featurePos = p_[idx];
    f.featurePos.nPointIdx = idx;
    f.featureValue = 0.0;
    out.push_back(f);
}

inline bool isStep(int32_t type) { return type == kRisingStep || type == kFallingStep; }
inline bool isFlank(int32_t type) { return type == kRisingFlank || type == kFallingFlank; }

// Which of a V and the candidates of its two sides are reported.
void LineKernel::arbitrate(const Candidate& A, const Candidate& B, int32_t vIdx, double depthChange,
                           std::vector<SHX_basicFeature1D>& out) const {
    const double vY = y(vIdx);
    const bool shallow = std::fabs(depthChange) < kArbitrationDepthZ;
    const bool farA = A.exists && std::fabs(A.refY - vY) > kArbitrationNearY;
    const bool farB = B.exists && std::fabs(B.refY - vY) > kArbitrationNearY;
    if (!A.exists && !B.exists) {
        push(out, kVShape, vIdx);
    } else if (!A.exists) {
        if (farB) {
            push(out, kVShape, vIdx);
            push(out, B.type, B.idx);
        } else if (shallow && isFlank(B.type)) {
            push(out, kVShape, vIdx);
        } else {
            push(out, B.type, B.idx);
        }
    } else if (!B.exists) {
        if (farA) {
            push(out, A.type, A.idx);
            push(out, kVShape, vIdx);
        } else if (shallow && isFlank(A.type)) {
            push(out, kVShape, vIdx);
        } else {
            push(out, A.type, A.idx);
        }
    } else if (farA) {
        push(out, A.type, A.idx);
        if (farB) {
            push(out, kVShape, vIdx);
            push(out, B.type, B.idx);
        } else if (isStep(B.type)) {
            push(out, B.type, B.idx);
        } else {
            push(out, kVShape, vIdx);
        }
    } else if (farB) {
        if (isStep(A.type))
            push(out, A.type, A.idx);
        else
            push(out, kVShape, vIdx);
        push(out, B.type, B.idx);
    } else if (shallow) {
        push(out, kVShape, vIdx);
    } else {
        const int32_t deeper = z(A.idx) > z(B.idx) ? A.idx : B.idx;
        push(out, depthChange > 0 ? kFallingFlank : kRisingFlank, deeper);
    }
}

void LineKernel::extractFeatures(std::vector<SHX_basicFeature1D>& out) const {
    SlopeRun* runs = s_.runs.get();
    const size_t count = s_.runCount;
    for (size_t r = 0; r < count; ++r) {
        SlopeRun& R = runs[r];
        if (R.used) continue;
        R.used = true;
        const Candidate A = candidateOf(R);
        SlopeRun* N = r + 1 < count ? &runs[r + 1] : nullptr;
        if (N == nullptr || !(runHeight(R) > 0) || N->rising || N->used || !isV(R, *N)) {
            if (A.exists) push(out, A.type, A.idx);
            continue;
        }
        N->used = true;
        // The V sits at the deeper of the two tops.
        const int32_t vIdx = z(R.endIdx) >= z(N->startIdx) ? R.endIdx : N->startIdx;
        const Candidate B = candidateOf(*N);
        arbitrate(A, B, vIdx, z(R.startIdx) - z(N->endIdx), out);
    }
}

void LineKernel::appendEndings(std::vector<SHX_basicFeature1D>& out) const {
    const auto& b = s_.segBounds;
    for (size_t k = 0; k + 1 < b.size(); k += 2) {
        push(out, kSegmentStart, b[k]);
        push(out, kSegmentEnd, b[k + 1]);
    }
}

// Walking back from the end, a step followed by a step of the same type less
// than kStepMergeY away along y gives way to it; the survivor is then compared
// with the step before. Done in place in one backward pass.
void mergeNearSteps(std::vector<SHX_basicFeature1D>& f, size_t first) {
    if (f.size() < first + 2) return;
    size_t w = f.size() - 1;  // the surviving successor of the feature being looked at
    for (size_t j = f.size() - 1; j-- > first;) {
        const SHX_basicFeature1D& a = f[j];
        const SHX_basicFeature1D& b = f[w];
        if (a.featureType == b.featureType && isStep(a.featureType) &&
            std::fabs(a.featurePos.y - b.featurePos.y) < kStepMergeY)
            continue;
        --w;
        if (w != j) f[w] = f[j];
    }
    f.erase(f.begin() + static_cast<std::ptrdiff_t>(first), f.begin() + static_cast<std::ptrdiff_t>(w));
}

}  // namespace

PA_API void hx_getLineLVFeature(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                SHX_slopeParam slopeParam, SHX_VFeatureParam vParam, SHX_lineFeature* lineFeature) {
    if (points == nullptr || lineFeature == nullptr || pointCount < 2) return;
    Scratch scratch;
    scratch.segBounds.reserve(8);
    LineKernel kernel(points, pointCount, lineIdx, slopeParam, vParam, scratch);
    kernel.extractRunsAndSegments();
    const size_t first = lineFeature->features.size();
    kernel.extractFeatures(lineFeature->features);
    mergeNearSteps(lineFeature->features, first);
    kernel.appendEndings(lineFeature->endings);
}
