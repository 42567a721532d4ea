// Local z maxima and minima of a profile, and upward jumps between valid points.
//
// The local-peaks kernel is written once with Highway's portable vector
// operations and compiled for every target family of the processor (SSSE3,
// SSE4, AVX2, AVX-512 on x86-64; NEON, SVE on aarch64; plain C++ elsewhere);
// the best one the processor has is chosen at run time. Every target gives
// identical results: each lane operation is one IEEE operation or comparison,
// and no multiply is fused with an add.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "internal.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "features/local_peaks.cpp"
#include <hwy/foreach_target.h>  // includes this file once per target
#include <hwy/highway.h>

// Code shared by all targets, compiled once.
#ifndef PROFILE_ANALYSIS_LOCAL_PEAKS_SHARED
#define PROFILE_ANALYSIS_LOCAL_PEAKS_SHARED

using pa_detail::isValidZ;

namespace {

constexpr int32_t kTypeDownJump = 1;
constexpr int32_t kTypeValley = 13;
constexpr int32_t kTypePeak = 14;

// Writes the array index into a point, storing only when it differs: lines
// whose points already carry their index (the usual case, and every second
// call) then stay clean in the cache.
inline void setPointIndex(SKesp3DPosition& p, int32_t i) {
    if (p.nPointIdx != i) p.nPointIdx = i;
}

SHX_basicFeature1D makeFeature(int32_t type, int32_t lineIdx, const SKesp3DPosition& p) {
    SHX_basicFeature1D f;
    f.featureType = type;
    f.lineIdx = lineIdx;
    f.featurePos = p;
    f.featureValue = 0.0;
    return f;
}

void localPeaksKernel(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                      std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys) {
    pa_detail::ExtremumCandidates cands(pointCount);
    pa_detail::scanExtremumCandidates(
        points, pointCount, [points](int32_t i) { return points[i].z; },
        [points](int32_t i) { setPointIndex(points[i], i); }, cands);

    // Peaks and valleys alternate in the list; each kind takes every second
    // entry, and its y and z are read from the points. The candidates' points
    // are copied only for the survivors; their nPointIdx already holds the
    // array index.
    const int32_t* ord = cands.order();
    const auto suppress = [&](size_t first, size_t m, auto rejects, int32_t type,
                              std::vector<SHX_basicFeature1D>& out) {
        const int32_t* list = ord + first;
        pa_detail::suppressCandidatesAt(
            m, peakRangeY, [=](size_t k) { return points[list[2 * k]].y; },
            [=](size_t k) { return points[list[2 * k]].z; }, rejects,
            [&](size_t k) { out.push_back(makeFeature(type, lineIdx, points[list[2 * k]])); });
    };
    suppress(cands.firstValleyPos(), cands.valleyCount(), [](double vk, double vj) { return vk > vj; }, kTypeValley,
             valleys);
    suppress(cands.firstPeakPos(), cands.peakCount(), [](double vk, double vj) { return vj > vk; }, kTypePeak, peaks);
}

void downJumpsKernel(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double jumpThreshold,
                     std::vector<SHX_basicFeature1D>& jumps) {
    int32_t prev = -1;
    double prevZ = 0.0;
    for (int32_t i = 0; i < pointCount; ++i) {
        setPointIndex(points[i], i);
        const double z = points[i].z;
        if (!isValidZ(z)) continue;
        // The record is the near side of the jump: the last valid point before it.
        if (prev >= 0 && z - prevZ > jumpThreshold) jumps.push_back(makeFeature(kTypeDownJump, lineIdx, points[prev]));
        prev = i;
        prevZ = z;
    }
}

static_assert(sizeof(SKesp3DPosition) == 4 * sizeof(double) && offsetof(SKesp3DPosition, nPointIdx) == 0 &&
                  offsetof(SKesp3DPosition, z) == 3 * sizeof(double),
              "the block loads take a point as {nPointIdx, x, y, z} in 32 bytes");

constexpr int32_t kBlock = 8;
constexpr unsigned kBlockMask = (1u << kBlock) - 1;
constexpr size_t kNeighbours = 4;  // compared at once on either side of a candidate
constexpr int32_t kChunk = 256;    // points scanned between two copies of the candidates found

// For each 8-bit mask: the positions of its set bits in order, one byte each,
// and how many there are.
struct BlockTables {
    uint64_t positions[256];
    uint8_t counts[256];
};

constexpr BlockTables makeBlockTables() {
    BlockTables t{};
    for (unsigned m = 0; m < 256; ++m) {
        unsigned c = 0;
        for (unsigned b = 0; b < 8; ++b) {
            if ((m >> b) & 1u) {
                t.positions[m] |= uint64_t(b) << (8 * c);
                ++c;
            }
        }
        t.counts[m] = static_cast<uint8_t>(c);
    }
    return t;
}

constexpr BlockTables kBlockTables = makeBlockTables();

// Candidates of a block of valid points from its change masks: bit t of up
// (down) is set when point t of the block is above (below) the point before
// it. `rising` is the trend coming in and, on return, going out. Returns the
// mask of positions t whose change turns the trend: the point before t is
// then a candidate (a peak when the change is down, a valley when up).
//
// Bit 0 of the shifted masks stands for the incoming trend, as if it were a
// change just before the block. The first non-zero change after a down change
// at p is found by adding 1 at p + 1 to the mask of zero changes: the carry
// runs through the zeros and stops on it. A virtual non-zero change after the
// block catches the carry of the last one, which gives the outgoing trend.
inline unsigned blockCandidates(unsigned up, unsigned down, unsigned& rising) {
    const unsigned nonZero = ((up | down) << 1) | 1u;
    const unsigned upV = (up << 1) | rising;
    const unsigned downV = (down << 1) | (rising ^ 1u);
    const unsigned zeros = ~nonZero & 0x1FFu;
    const unsigned stops = nonZero | 0x200u;
    const unsigned afterDown = (zeros + (downV << 1)) & stops;
    const unsigned afterUp = (zeros + (upV << 1)) & stops;
    rising = afterUp >> 9;
    return (((afterDown & upV) | (afterUp & downV)) >> 1) & kBlockMask;
}

// Working storage of the AVX2 kernel: the candidates' indices in line order
// as the scan finds them (peaks and valleys alternate), and their x, y and z,
// the even and the odd entries of the list apart (one kind each), each array
// padded with kNeighbours zeros on either side for the neighbour loads.
class CandidateStore {
public:
    explicit CandidateStore(int32_t count)
        : perKind_(static_cast<size_t>(count) / 2 + 2),
          stride_(perKind_ + 2 * kNeighbours),
          listSize_(static_cast<size_t>(count) + 2 * kBlock) {
        // Short lines (the runs of the semicircle detector) need no allocation.
        if (count <= kSmallCount) {
            order_ = smallOrder_;
            values_ = smallValues_;
        } else {
            heapOrder_.reset(new int32_t[listSize_ + perKind_]);
            heapValues_.reset(new double[6 * stride_]);
            order_ = heapOrder_.get();
            values_ = heapValues_.get();
        }
        for (size_t a = 0; a < 6; ++a) std::fill(values_ + a * stride_, values_ + a * stride_ + kNeighbours, 0.0);
    }
    CandidateStore(const CandidateStore&) = delete;
    CandidateStore& operator=(const CandidateStore&) = delete;

    int32_t* order() { return order_; }
    /// Room for the survivors of one kind.
    int32_t* keep() { return order_ + listSize_; }
    /// Field f (0 x, 1 y, 2 z) of the entries of parity `parity`.
    double* field(size_t f, size_t parity) { return values_ + (2 * f + parity) * stride_ + kNeighbours; }
    /// Entry k of the list: its fields go to slot k / 2 of its parity.
    void copy(size_t k, const SKesp3DPosition& p) {
        double* base = values_ + (k & 1) * stride_ + kNeighbours + (k >> 1);
        base[0] = p.x;
        base[2 * stride_] = p.y;
        base[4 * stride_] = p.z;
    }
    /// Copies the points of list entries [from, to). Kept out of line: it runs
    /// once per chunk, and inlined it would crowd the scanning loop's registers.
    __attribute__((noinline)) void copyFrom(const SKesp3DPosition* points, size_t from, size_t to) {
        for (size_t k = from; k < to; ++k) copy(k, points[order_[k]]);
    }
    /// Zeros the padding after the first m entries of a parity.
    void padAfter(size_t parity, size_t m) {
        for (size_t f = 1; f < 3; ++f) std::fill(field(f, parity) + m, field(f, parity) + m + kNeighbours, 0.0);
    }

private:
    static constexpr int32_t kSmallCount = 128;
    static constexpr size_t kSmallStride = kSmallCount / 2 + 2 + 2 * kNeighbours;

    size_t perKind_;
    size_t stride_;
    size_t listSize_;
    int32_t* order_ = nullptr;
    double* values_ = nullptr;
    std::unique_ptr<int32_t[]> heapOrder_;
    std::unique_ptr<double[]> heapValues_;
    int32_t smallOrder_[kSmallCount + 2 * kBlock + kSmallCount / 2 + 2];
    double smallValues_[6 * kSmallStride];
};

// The verdict on the four lanes of one side of a candidate, indexed by the
// mask of lanes out of range plus the mask of rejecting lanes shifted by 4:
// kSideRejects when a lane nearer than every lane out of range rejects,
// kSideOpen when no lane is out of range (the scan must go on). Backward lane
// 3 and forward lane 0 are the nearest.
constexpr unsigned kSideRejects = 1, kSideOpen = 2;

struct SideTables {
    uint8_t backward[256];
    uint8_t forward[256];
};

constexpr uint8_t sideVerdict(unsigned out, unsigned rejects, bool backward) {
    unsigned verdict = out == 0 ? kSideOpen : 0;
    for (unsigned step = 0; step < kNeighbours; ++step) {
        const unsigned lane = backward ? 3 - step : step;
        if ((out >> lane) & 1u) break;
        if ((rejects >> lane) & 1u) verdict |= kSideRejects;
    }
    return static_cast<uint8_t>(verdict);
}

constexpr SideTables makeSideTables() {
    SideTables t{};
    for (unsigned i = 0; i < 256; ++i) {
        t.backward[i] = sideVerdict(i & 0xFu, i >> 4, true);
        t.forward[i] = sideVerdict(i & 0xFu, i >> 4, false);
    }
    return t;
}

constexpr SideTables kSideTables = makeSideTables();

}  // namespace

#endif  // PROFILE_ANALYSIS_LOCAL_PEAKS_SHARED

// ---------------------------------------------------------------------------
// Vector kernel, once per target
//
// The scan takes the line in blocks of eight points. A block whose points are
// all valid and already numbered (the usual case: gaps are rare and a line
// keeps its numbers from one call to the next) is settled from two bit masks,
// the up and down changes of its eight points, without a branch on the data;
// any other block goes point by point. Every few hundred points the x, y and
// z of the candidates found are copied into short arrays per kind, while their
// points are still in the first-level cache. Each candidate is then compared
// with its four nearest neighbours on either side at once, the scan going on
// one neighbour at a time only where all four are within range. Vectors hold
// up to four doubles; narrower ones take the eight points and the four
// neighbours in turns.
// ---------------------------------------------------------------------------

HWY_BEFORE_NAMESPACE();
namespace pa_detail {
namespace local_peaks {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_EMU128 || HWY_TARGET == HWY_SCALAR
// Without vector registers the plain kernel is the fastest.
void localPeaksVector(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                      std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys) {
    localPeaksKernel(points, pointCount, lineIdx, peakRangeY, peaks, valleys);
}
#else
using D = hn::CappedTag<double, 4>;
using V = hn::Vec<D>;

// The lanes of a mask as bits (lane 0 in bit 0).
HWY_INLINE unsigned laneBits(D d, hn::Mask<D> m) {
    uint8_t bits[8] = {0};
    hn::StoreMaskBits(d, m, bits);
    return bits[0];
}

// Candidate scan: the candidates' indices go to store.order() in line order,
// their coordinates into the store. Returns their number; firstIsPeak tells
// the kind of the first.
size_t scanCandidates(SKesp3DPosition* points, int32_t count, CandidateStore& store, bool& firstIsPeak) {
    const D d;
    const hn::RebindToSigned<D> di;
    const int32_t lanes = static_cast<int32_t>(hn::Lanes(d));
    const hn::CappedTag<int32_t, kBlock> d32;
    const hn::Rebind<uint8_t, decltype(d32)> d8;
    const int32_t lanes32 = static_cast<int32_t>(hn::Lanes(d32));
    int32_t* const order = store.order();
    size_t n = 0;
    // The candidates are copied chunk by chunk, while their points are still
    // in the first-level cache.
    size_t copied = 0;
    const auto copyFound = [&] {
        store.copyFrom(points, copied, n);
        copied = n;
    };
    int32_t prev = 0;
    double prevV = 0.0;
    int trend = 0;
    int32_t i = 0;
    for (; i < count; ++i) {
        setPointIndex(points[i], i);
        if (isValidZ(points[i].z)) {
            prev = i;
            prevV = points[i].z;
            ++i;
            break;
        }
    }
    for (; i < count; ++i) {
        setPointIndex(points[i], i);
        if (isValidZ(points[i].z)) {
            const double dz = points[i].z - prevV;
            prev = i;
            prevV = points[i].z;
            trend = (dz > 0) - (dz < 0);
            if (trend != 0) {
                ++i;
                break;
            }
        }
    }
    firstIsPeak = trend > 0;
    unsigned rising = firstIsPeak ? 1u : 0u;
    // One point at a time, as the portable scanner does.
    const auto step = [&](int32_t k) { pa_detail::trendStep(order, n, prev, prevV, rising, k, points[k].z); };
    const V validZ = hn::Set(d, pa_detail::kValidZ);
    const auto allLanes = hn::FirstN(d, static_cast<size_t>(lanes));
    const auto firstLane = hn::FirstN(d, 1);
    // Lane l of a point's predecessor is lane l - 1 of the same vector; lane 0
    // takes the last lane of the vector before.
    HWY_ALIGN int64_t shiftIdx[4], lastIdx[4];
    for (int32_t l = 0; l < 4; ++l) {
        shiftIdx[l] = l == 0 ? 0 : l - 1;
        lastIdx[l] = lanes - 1;
    }
    const auto shiftUp = hn::SetTableIndices(d, shiftIdx), lastLane = hn::SetTableIndices(d, lastIdx);
    for (int32_t chunkEnd = i; i + kBlock <= count; i += kBlock) {
        if (i >= chunkEnd) {
            copyFound();
            chunkEnd = i + kChunk;
        }
        const double* p = reinterpret_cast<const double*>(points + i);
        auto settled = allLanes;
        // z > before and z < before are d > 0 and d < 0 (both false for
        // inf - inf); the first point's predecessor is prev.
        unsigned up = 0, down = 0;
        V carry = hn::Set(d, prevV);
        for (int32_t o = 0; o < kBlock; o += lanes) {
            V idx, x, y, z;
            hn::LoadInterleaved4(d, p + 4 * o, idx, x, y, z);
            const auto numbered = hn::RebindMask(d, hn::Eq(hn::BitCast(di, idx), hn::Iota(di, int64_t{i} + o)));
            settled = hn::And(settled, hn::And(numbered, hn::Ge(z, validZ)));
            const V before =
                hn::IfThenElse(firstLane, hn::TableLookupLanes(carry, lastLane), hn::TableLookupLanes(z, shiftUp));
            up |= laneBits(d, hn::Gt(z, before)) << o;
            down |= laneBits(d, hn::Lt(z, before)) << o;
            carry = z;
        }
        if (!hn::AllTrue(d, settled)) {
            for (int32_t k = i; k < i + kBlock; ++k) {
                setPointIndex(points[k], k);
                if (isValidZ(points[k].z)) step(k);
            }
            continue;
        }
        const unsigned turns = blockCandidates(up, down, rising);
        // The candidate before position t is point i + t - 1, or prev for t
        // = 0 (prev lies further back when the block follows a gap). All
        // eight slots are written; the count advances by the number of turns.
        const uint8_t* positions = reinterpret_cast<const uint8_t*>(&kBlockTables.positions[turns]);
        const auto base = hn::Set(d32, i - 1);
        for (int32_t t = 0; t < kBlock; t += lanes32)
            hn::StoreU(hn::Add(hn::PromoteTo(d32, hn::LoadU(d8, positions + t)), base), d32, order + n + t);
        order[n] = (turns & 1u) ? prev : i - 1 + static_cast<int32_t>(positions[0]);
        n += kBlockTables.counts[turns];
        prev = i + kBlock - 1;
        prevV = points[i + kBlock - 1].z;
    }
    for (; i < count; ++i) {
        setPointIndex(points[i], i);
        if (isValidZ(points[i].z)) step(i);
    }
    if (trend != 0 && !isValidZ(points[count - 1].z)) order[n++] = prev;
    copyFound();
    return n;
}

// Whether candidate k of m (y and v padded with kNeighbours zeros on both
// sides) is rejected by a neighbour within range: a higher one for peaks, a
// lower one for valleys. The four nearest on either side are tested at once;
// lanes beyond the first neighbour out of range, and beyond the ends of the
// list, do not count. Where all four of a side are within range and nothing
// rejected k, the scan goes on one candidate at a time.
template <bool kPeak>
HWY_INLINE bool rejected(const double* y, const double* v, size_t m, size_t k, V r2v, double r2) {
    const D d;
    const size_t lanes = hn::Lanes(d);
    const V yk = hn::Set(d, y[k]), vk = hn::Set(d, v[k]);
    // Backward lane l holds candidate k - 4 + l, forward lane l candidate k + 1 + l.
    unsigned outB = 0, outF = 0, rejB = 0, rejF = 0;
    for (size_t o = 0; o < kNeighbours; o += lanes) {
        const V dB = hn::Sub(yk, hn::LoadU(d, y + k - kNeighbours + o));
        const V dF = hn::Sub(yk, hn::LoadU(d, y + k + 1 + o));
        const V vB = hn::LoadU(d, v + k - kNeighbours + o), vF = hn::LoadU(d, v + k + 1 + o);
        outB |= laneBits(d, hn::Gt(hn::Mul(dB, dB), r2v)) << o;
        outF |= laneBits(d, hn::Gt(hn::Mul(dF, dF), r2v)) << o;
        rejB |= laneBits(d, kPeak ? hn::Gt(vB, vk) : hn::Gt(vk, vB)) << o;
        rejF |= laneBits(d, kPeak ? hn::Gt(vF, vk) : hn::Gt(vk, vF)) << o;
    }
    const size_t after = m - 1 - k;
    outB |= 0xFu >> std::min(k, kNeighbours);
    outF |= (0xFu << std::min(after, kNeighbours)) & 0xFu;
    const unsigned verdict =
        kSideTables.backward[outB | (rejB << 4)] | kSideTables.forward[outF | (rejF << 4)];
    if (verdict != kSideOpen) return (verdict & kSideRejects) != 0;
    const double ykk = y[k], vkk = v[k];
    const auto rejects = [vkk](double vj) { return kPeak ? vj > vkk : vkk > vj; };
    if (outB == 0) {
        for (size_t j = k - kNeighbours; j-- > 0;) {
            const double dy = ykk - y[j];
            if (dy * dy > r2) break;
            if (rejects(v[j])) return true;
        }
    }
    if (outF == 0) {
        for (size_t j = k + kNeighbours + 1; j < m; ++j) {
            const double dy = ykk - y[j];
            if (dy * dy > r2) break;
            if (rejects(v[j])) return true;
        }
    }
    return false;
}

// Suppression over the m candidates of one kind, the entries of parity
// `parity` in the list; the survivors are appended to out.
template <bool kPeak>
void suppress(CandidateStore& store, size_t parity, size_t m, double peakRangeY, int32_t type, int32_t lineIdx,
              std::vector<SHX_basicFeature1D>& out) {
    int32_t* keep = store.keep();
    store.padAfter(parity, m);
    const double* x = store.field(0, parity);
    const double* y = store.field(1, parity);
    const double* z = store.field(2, parity);
    const double r2 = peakRangeY * peakRangeY;
    const V r2v = hn::Set(D(), r2);
    size_t kept = 0;
    for (size_t k = 0; k < m; ++k) {
        keep[kept] = static_cast<int32_t>(k);
        kept += !rejected<kPeak>(y, z, m, k, r2v, r2);
    }
    const int32_t* order = store.order() + parity;
    const size_t old = out.size();
    out.resize(old + kept);
    SHX_basicFeature1D* f = out.data() + old;
    for (size_t t = 0; t < kept; ++t) {
        const size_t k = static_cast<size_t>(keep[t]);
        f[t].featureType = type;
        f[t].lineIdx = lineIdx;
        f[t].featurePos = SKesp3DPosition{order[2 * k], x[k], y[k], z[k]};
        f[t].featureValue = 0.0;
    }
}

void localPeaksVector(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                      std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys) {
    CandidateStore store(pointCount);
    bool firstIsPeak = false;
    const size_t found = scanCandidates(points, pointCount, store, firstIsPeak);
    if (found == 0) return;
    const size_t evens = (found + 1) / 2, odds = found / 2;
    const size_t peakParity = firstIsPeak ? 0 : 1;
    suppress<false>(store, 1 - peakParity, peakParity ? evens : odds, peakRangeY, kTypeValley, lineIdx, valleys);
    suppress<true>(store, peakParity, peakParity ? odds : evens, peakRangeY, kTypePeak, lineIdx, peaks);
}
#endif

}  // namespace HWY_NAMESPACE
}  // namespace local_peaks
}  // namespace pa_detail
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace pa_detail {
namespace local_peaks {
HWY_EXPORT(localPeaksVector);
}  // namespace local_peaks
}  // namespace pa_detail

PA_API void hx_getLineLocalPeaks(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                                 std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys) {
    if (points == nullptr || pointCount < 2) return;
    using namespace pa_detail::local_peaks;
    HWY_DYNAMIC_DISPATCH(localPeaksVector)(points, pointCount, lineIdx, peakRangeY, peaks, valleys);
}

PA_API void hx_getLineDownJumps(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double jumpThreshold,
                                std::vector<SHX_basicFeature1D>& jumps) {
    if (points == nullptr || pointCount < 2) return;
    downJumpsKernel(points, pointCount, lineIdx, jumpThreshold, jumps);
}
#endif  // HWY_ONCE
