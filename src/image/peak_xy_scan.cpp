// Peak XY scan: from a seed point, walks along the scan lines and across them
// and collects the typed contour points that bound the object at the seed.
//
// The two walks are one algorithm with the roles of the axes exchanged, so the
// walk is written once over an "axis" policy: AlongLine reads the points of one
// line, AcrossLines reads one point index on successive lines.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "internal.h"

namespace {

// Point type bits in the low 16 bits of nPointIdx.
constexpr int64_t kTypeMask = 0xF;
constexpr int kCrossTypeShift = 4;
constexpr int kMarkBitsShift = 8;
constexpr int64_t kMarkBitsMask = 0xFF;

// Type given to a point that ends a walk through its mark bits.
constexpr int32_t kMarkedType = 8;
// A skipped point whose other-axis type is an edge looks ahead over this many
// points (itself included) for a point of the walk's own type.
constexpr int kLookAheadPoints = 5;
// Largest change of seed distance between two successive edge points of a walk.
constexpr double kMaxSeedDistJump = 100.0;

// Walks along a line read it in order and run one at a time; walks across the
// lines run this many rows side by side, so that each line is touched once per
// block of rows rather than once per row.
constexpr int kLinesPerBlock = 1;
constexpr int kRowsPerBlock = 16;
constexpr int32_t kPrefetchLines = 4;

// A hint to fetch memory that the walks will read soon; no effect where the
// compiler offers none.
inline void prefetch(const void* p) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(p);
#else
    (void)p;
#endif
}

inline int32_t alongLineType(const SKesp3DPosition& p) { return static_cast<int32_t>(p.nPointIdx & kTypeMask); }
inline int32_t crossLineType(const SKesp3DPosition& p) {
    return static_cast<int32_t>((p.nPointIdx >> kCrossTypeShift) & kTypeMask);
}
inline bool hasMarkBits(const SKesp3DPosition& p) { return ((p.nPointIdx >> kMarkBitsShift) & kMarkBitsMask) != 0; }

// Types 1, 2, 6, 7 and 8 end a walk.
inline bool typeEndsWalk(int32_t t) { return t == 1 || t == 2 || t == 6 || t == 7 || t == kMarkedType; }

// Edge types 1 and 3 face lower indices, 2 and 4 higher ones; the point flag
// says that the edge faces the way the walk goes.
inline int32_t edgeFlag(int32_t t, bool towardLower) {
    if (towardLower) return (t == 1 || t == 3) ? 1 : 0;
    return (t == 2 || t == 4) ? 1 : 0;
}

// What both walks share: the scan, the flag image and the seed.
struct ScanContext {
    const SKesp3DLaserLine* lines = nullptr;
    int32_t lineNum = 0;
    int32_t pointNum = 0;  // point count of the first line, used for every line
    const uchar* flagData = nullptr;
    size_t flagStep = 0;  // bytes per flag-image row
    int32_t seedLine = 0;
    int32_t seedPoint = 0;
    double seedX = 0.0;
    double seedY = 0.0;
    double limit = 0.0;
    bool useMarkBits = false;

    const SKesp3DPosition& point(int32_t line, int32_t idx) const { return lines[line].p3DPosition[idx]; }
    // Element 0 (contour index) or 3 (scan enable) of the flag pixel of point idx of a line.
    int32_t flag(int32_t idx, int32_t line, int element) const {
        return reinterpret_cast<const int32_t*>(flagData + static_cast<size_t>(idx) * flagStep)[4 * line + element];
    }
};

// Walk along line `line`: visits point indices, reads the along-line type.
struct AlongLine {
    const ScanContext& ctx;
    int32_t line;

    static constexpr int32_t kLowerMarker = 5;
    static constexpr int32_t kHigherMarker = 6;
    int32_t count() const { return ctx.pointNum; }
    int32_t seedIndex() const { return ctx.seedPoint; }
    const SKesp3DPosition& at(int32_t k) const { return ctx.point(line, k); }
    static int32_t ownType(const SKesp3DPosition& p) { return alongLineType(p); }
    static int32_t otherType(const SKesp3DPosition& p) { return crossLineType(p); }
    int32_t contourIdx(int32_t k) const { return ctx.flag(k, line, 0); }
    // A line is read in order: the hardware prefetcher follows it.
    void prefetchAhead(int32_t, int32_t) const {}
    double seedDist(const SKesp3DPosition& p) const { return std::fabs(ctx.seedY - p.y); }
    // Any pair of edge types 1/2 counts as a jump along a line.
    static bool isJumpPair(int32_t prevType, int32_t t) {
        return (prevType == 1 || prevType == 2) && (t == 1 || t == 2);
    }
    void fill(SHX_contourPtInfo& r, int32_t k) const {
        r.lineIdx = line;
        r.ptIdx = k;
    }
};

// Walk across the lines at point index `row`: visits line indices, reads the
// cross-line type.
struct AcrossLines {
    const ScanContext& ctx;
    int32_t row;

    static constexpr int32_t kLowerMarker = 7;
    static constexpr int32_t kHigherMarker = 8;
    int32_t count() const { return ctx.lineNum; }
    int32_t seedIndex() const { return ctx.seedLine; }
    const SKesp3DPosition& at(int32_t j) const { return ctx.point(j, row); }
    static int32_t ownType(const SKesp3DPosition& p) { return crossLineType(p); }
    static int32_t otherType(const SKesp3DPosition& p) { return alongLineType(p); }
    int32_t contourIdx(int32_t j) const { return ctx.flag(row, j, 0); }
    // Rows of a block lie side by side in each line: fetching them some lines
    // ahead hides the jump from one line's array to the next.
    void prefetchAhead(int32_t j, int32_t step) const {
        const int32_t ahead = j + kPrefetchLines * step;
        if (ahead >= 0 && ahead < ctx.lineNum) prefetch(&ctx.point(ahead, row));
    }
    double seedDist(const SKesp3DPosition& p) const { return std::fabs(ctx.seedX - p.x); }
    // Across the lines only two successive type-1 points count as a jump: a
    // narrower test than along a line, on purpose.
    static bool isJumpPair(int32_t prevType, int32_t t) { return prevType == 1 && t == 1; }
    void fill(SHX_contourPtInfo& r, int32_t j) const {
        r.lineIdx = j;
        r.ptIdx = row;
    }
};

// Look-ahead of a skipped point whose other-axis type is an edge: true when one
// of the next points (up to kLookAheadPoints in all, the skipped one included)
// has a type of its own before the walk runs out of indices.
template <class Axis>
bool typeAhead(const Axis& ax, int32_t k, int32_t step) {
    const int32_t last = ax.count() - 1;
    for (int m = 1; m < kLookAheadPoints; ++m) {
        const int32_t idx = k + m * step;
        if (idx < 0 || idx > last) return false;
        if (Axis::ownType(ax.at(idx)) != 0) return true;
    }
    return false;
}

// What a walk remembers between two visited points: the previous record's
// type and seed distance (a skipped point clears them).
struct WalkState {
    int32_t prevType = 0;
    double prevDist = 0.0;
};

enum class Step { Continue, Done, Abort };

// Visits index k of a walk toward lower (step -1) or higher (step +1)
// indices: appends the contour point found there to `out` and says whether the
// walk goes on, ends, or raises the abort flag.
template <class Axis>
Step stepWalk(const Axis& ax, int32_t k, int32_t step, bool useMarkBits, double limit, WalkState& st,
              std::vector<SHX_contourPtInfo>& out) {
    const bool towardLower = step < 0;
    const int32_t last = ax.count() - 1;
    const SKesp3DPosition& p = ax.at(k);
    int32_t t = Axis::ownType(p);
    const bool marked = useMarkBits && hasMarkBits(p);
    if (t == 0 && !marked && k != 0 && k != last) {
        if (const int32_t other = Axis::otherType(p); (other == 1 || other == 2) && !typeAhead(ax, k, step)) {
            return Step::Abort;
        }
        st = WalkState{};
        return Step::Continue;
    }
    int32_t c = ax.contourIdx(k);
    int32_t flag = 0;
    if (t == 0 && marked) {
        t = kMarkedType;
        c = towardLower ? Axis::kLowerMarker : Axis::kHigherMarker;
    } else {
        flag = edgeFlag(t, towardLower);
    }
    const double d = ax.seedDist(p);
    if (d > limit) return Step::Done;
    const bool endsHere = typeEndsWalk(t) || c == Axis::kLowerMarker || c == Axis::kHigherMarker;
    if (t != 0 && c > 0) {
        // A contour point at or right beside the seed belongs to the seed's
        // own edge: the walk stops without it.
        const int32_t seedIdx = ax.seedIndex();
        const bool besideSeed = towardLower ? k >= seedIdx - 1 : k <= seedIdx + 1;
        if (besideSeed) return Step::Done;
        if (Axis::isJumpPair(st.prevType, t) && std::fabs(st.prevDist - d) > kMaxSeedDistJump) return Step::Abort;
        SHX_contourPtInfo r;
        ax.fill(r, k);
        r.ptType = t;
        r.contourIdx = c;
        r.ptFlag = flag;
        r.seedDist = d;
        r.x = p.x;
        r.y = p.y;
        r.z = p.z;
        out.push_back(r);
    }
    if (endsHere) return Step::Done;
    st.prevType = t;
    st.prevDist = d;
    return Step::Continue;
}

// One walk with its records.
struct WalkSlot {
    WalkState state;
    Step status = Step::Continue;
    std::vector<SHX_contourPtInfo> recs;
};

// Runs the walks of n sweep indices in one direction side by side, one visited
// index at a time for all of them. The walks are independent, so this gives
// what n walks one after the other give; across the lines it reads the n
// points of a line together instead of one point of every line per walk.
template <class MakeAxis>
void runWalks(MakeAxis makeAxis, const int32_t* idx, int n, int32_t step, bool useMarkBits, double limit,
              WalkSlot* slots) {
    if (n == 0) return;
    for (int r = 0; r < n; ++r) {
        slots[r].state = WalkState{};
        slots[r].status = Step::Continue;
        slots[r].recs.clear();
    }
    const auto first = makeAxis(idx[0]);
    const int32_t last = first.count() - 1;
    int active = n;
    for (int32_t k = first.seedIndex(); active > 0 && k >= 0 && k <= last; k += step) {
        for (int r = 0; r < n; ++r) {
            WalkSlot& s = slots[r];
            if (s.status != Step::Continue) continue;
            const auto ax = makeAxis(idx[r]);
            ax.prefetchAhead(k, step);
            s.status = stepWalk(ax, k, step, useMarkBits, limit, s.state, s.recs);
            if (s.status != Step::Continue) --active;
        }
    }
}

int32_t maxContourIdx(const std::vector<SHX_contourPtInfo>& pts, int32_t current) {
    for (const SHX_contourPtInfo& r : pts) current = std::max(current, r.contourIdx);
    return current;
}

// Collects the entries of one part of a sweep: the backward part keeps them
// aside (in decreasing index order) and puts them in front of what the output
// vectors held when it ends; the forward part appends them directly.
struct SweepOutput {
    std::vector<SHX_lineConotours>& down;
    std::vector<SHX_lineConotours>& up;
    int32_t& downMax;
    int32_t& upMax;
    std::vector<SHX_lineConotours> downFront;
    std::vector<SHX_lineConotours> upFront;

    void add(bool backward, int32_t idx, const std::vector<SHX_contourPtInfo>& a,
             const std::vector<SHX_contourPtInfo>& b) {
        downMax = maxContourIdx(a, downMax);
        upMax = maxContourIdx(b, upMax);
        if (!a.empty()) (backward ? downFront : down).push_back(SHX_lineConotours{idx, a});
        if (!b.empty()) (backward ? upFront : up).push_back(SHX_lineConotours{idx, b});
    }
    void finishBackward() {
        down.insert(down.begin(), std::make_move_iterator(downFront.rbegin()),
                    std::make_move_iterator(downFront.rend()));
        up.insert(up.begin(), std::make_move_iterator(upFront.rbegin()), std::make_move_iterator(upFront.rend()));
        downFront.clear();
        upFront.clear();
    }
};

// One sweep: the backward part from the seed index down to 0, then the forward
// part from the seed index + 1 up. `makeAxis(idx)` builds the walk of index
// idx; `coordOf(idx)` gives the coordinate compared with the seed's for the
// window. Indices are taken blockSize at a time (their walks run side by
// side); the results are then added index by index, and an abort ends the part
// there, so the indices after it in the block are dropped unseen.
template <class MakeAxis, class CoordOf>
void sweep(int32_t seedIdx, int32_t count, double seedCoord, int blockSize, const ScanContext& ctx,
           MakeAxis makeAxis, CoordOf coordOf, SweepOutput& out) {
    std::vector<WalkSlot> down(static_cast<size_t>(blockSize)), up(static_cast<size_t>(blockSize));
    std::vector<int32_t> idx(static_cast<size_t>(blockSize));
    for (const bool backward : {true, false}) {
        const int32_t step = backward ? -1 : 1;
        int32_t i = backward ? seedIdx : seedIdx + 1;
        bool partEnds = false;
        while (!partEnds && i >= 0 && i < count) {
            int n = 0;
            for (; n < blockSize && i >= 0 && i < count; ++n, i += step) {
                if (std::fabs(coordOf(i) - seedCoord) > ctx.limit) {
                    partEnds = true;
                    break;
                }
                idx[static_cast<size_t>(n)] = i;
            }
            runWalks(makeAxis, idx.data(), n, -1, ctx.useMarkBits, ctx.limit, down.data());
            runWalks(makeAxis, idx.data(), n, +1, ctx.useMarkBits, ctx.limit, up.data());
            for (int r = 0; r < n; ++r) {
                if (down[r].status == Step::Abort || up[r].status == Step::Abort) {
                    partEnds = true;
                    break;
                }
                out.add(backward, idx[static_cast<size_t>(r)], down[r].recs, up[r].recs);
            }
        }
        if (backward) out.finishBackward();
    }
}

// The scan and flag image the walks can read without leaving them: a regular
// grid of lineNum lines of at least pointNum points and a CV_32SC4 flag image
// covering it.
bool scanIsReadable(const SKesp3DLaserLine* lines, int32_t lineNum, const cv::Mat& flagImg) {
    if (lines == nullptr || lineNum < 1) return false;
    const int32_t pointNum = lines[0].nPositionCnt;
    if (pointNum < 1) return false;
    for (int32_t i = 0; i < lineNum; ++i) {
        if (lines[i].p3DPosition == nullptr || lines[i].nPositionCnt < pointNum) return false;
    }
    return flagImg.dims == 2 && flagImg.type() == CV_32SC4 && flagImg.rows >= pointNum && flagImg.cols >= lineNum;
}

}  // namespace

PA_API void hx_peakXYScan(const SKesp3DLaserLine* lines, int32_t lineNum, const cv::Mat& flagImg, SHX_2DValueI seed,
                          SHX_treeGrowParam /*growParam*/, SHX_bagParam bagParam, bool useMarkBits,
                          std::vector<SHX_lineConotours>& lineContoursDown,
                          std::vector<SHX_lineConotours>& lineContoursUp,
                          std::vector<SHX_lineConotours>& rowContoursDown,
                          std::vector<SHX_lineConotours>& rowContoursUp, int32_t* lineDownMaxIdx,
                          int32_t* lineUpMaxIdx, int32_t* rowDownMaxIdx, int32_t* rowUpMaxIdx) {
    if (!scanIsReadable(lines, lineNum, flagImg)) return;
    ScanContext ctx;
    ctx.lines = lines;
    ctx.lineNum = lineNum;
    ctx.pointNum = lines[0].nPositionCnt;
    if (seed.x < 0 || seed.x >= ctx.lineNum || seed.y < 0 || seed.y >= ctx.pointNum) return;
    ctx.flagData = flagImg.data;
    ctx.flagStep = flagImg.step[0];
    if (ctx.flag(seed.y, seed.x, 3) == 0) return;

    ctx.seedLine = seed.x;
    ctx.seedPoint = seed.y;
    const SKesp3DPosition& s = ctx.point(seed.x, seed.y);
    ctx.seedX = s.x;
    ctx.seedY = s.y;
    ctx.limit = bagParam.bagL - 0.5 * seed.value;
    ctx.useMarkBits = useMarkBits;

    int32_t sink[4];
    int32_t& lineDownMax = lineDownMaxIdx ? *lineDownMaxIdx : sink[0];
    int32_t& lineUpMax = lineUpMaxIdx ? *lineUpMaxIdx : sink[1];
    int32_t& rowDownMax = rowDownMaxIdx ? *rowDownMaxIdx : sink[2];
    int32_t& rowUpMax = rowUpMaxIdx ? *rowUpMaxIdx : sink[3];

    // X sweep: one walk along each line, the window tested on x at the seed's point index.
    lineDownMax = 0;
    lineUpMax = 0;
    SweepOutput xOut{lineContoursDown, lineContoursUp, lineDownMax, lineUpMax, {}, {}};
    sweep(
        seed.x, ctx.lineNum, ctx.seedX, kLinesPerBlock, ctx, [&ctx](int32_t i) { return AlongLine{ctx, i}; },
        [&ctx, &seed](int32_t i) { return ctx.point(i, seed.y).x; }, xOut);

    // Y sweep: one walk across the lines at each point index, the window tested
    // on y along the seed line.
    rowDownMax = 0;
    rowUpMax = 0;
    SweepOutput yOut{rowContoursDown, rowContoursUp, rowDownMax, rowUpMax, {}, {}};
    sweep(
        seed.y, ctx.pointNum, ctx.seedY, kRowsPerBlock, ctx, [&ctx](int32_t p) { return AcrossLines{ctx, p}; },
        [&ctx, &seed](int32_t p) { return ctx.point(seed.x, p).y; }, yOut);
}
