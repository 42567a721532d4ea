// Contour points: extraction by contour, pairing by key and range, and
// post-processing by mean seed distance, each with majority flags.
#include <algorithm>
#include <cstdint>

#include "internal.h"

namespace {

// A point flag of 1 or more counts as set.
inline bool flagSet(int32_t ptFlag) { return ptFlag >= 1; }

// Most of the vector's entries (strictly more than half) are flagged.
inline int majority(int64_t flagged, size_t size) { return 2 * flagged > static_cast<int64_t>(size) ? 1 : 0; }

inline SHX_2DValueI toValue(const SHX_contourPtInfo& p, int32_t value2) {
    SHX_2DValueI v;
    v.x = p.lineIdx;
    v.y = p.ptIdx;
    v.featureType = p.ptType;
    v.value = p.z;
    v.value2 = value2;
    return v;
}

// Strictly inside the open interval (min, max); NaN is never inside.
inline bool strictlyInside(double v, const SKespRangeD& r) { return r.min < v && v < r.max; }

inline uint64_t packKey(int32_t k0, int32_t k1) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(k0)) << 32) | static_cast<uint32_t>(k1);
}

// Per-contour statistics of hx_contourPostProc.
struct ContourStat {
    int64_t count = 0;
    double distSum = 0.0;
    int64_t outOffset = 0;  // where the contour's points go in the output
    bool selected = false;
};

// Table slots of the contour identifiers in 0 .. maxIdx: the identifier
// itself while the largest one present is small next to the number of points
// (the usual numbering 0, 1, 2, ...), otherwise its rank among the distinct
// identifiers, so that the table never outgrows the input however large the
// identifiers are. -1 for an identifier that belongs to no contour.
class ContourSlots {
public:
    ContourSlots(const std::vector<SHX_contourPtInfo>& pts, int32_t maxIdx) : maxIdx_(maxIdx) {
        int32_t largest = -1;
        for (const SHX_contourPtInfo& p : pts)
            if (inTable(p.contourIdx)) largest = std::max(largest, p.contourIdx);
        if (static_cast<uint64_t>(largest) + 1 <= kDirectSlack + 2 * static_cast<uint64_t>(pts.size())) {
            count_ = static_cast<size_t>(largest + 1);
            return;
        }
        for (const SHX_contourPtInfo& p : pts)
            if (inTable(p.contourIdx)) ranked_.push_back(p.contourIdx);
        std::sort(ranked_.begin(), ranked_.end());
        ranked_.erase(std::unique(ranked_.begin(), ranked_.end()), ranked_.end());
        count_ = ranked_.size();
    }
    size_t count() const { return count_; }
    int64_t slot(int32_t id) const {
        if (!inTable(id)) return -1;
        if (ranked_.empty()) return id < static_cast<int64_t>(count_) ? id : -1;
        const auto it = std::lower_bound(ranked_.begin(), ranked_.end(), id);
        return it != ranked_.end() && *it == id ? it - ranked_.begin() : -1;
    }

private:
    static constexpr uint64_t kDirectSlack = 1024;
    bool inTable(int32_t id) const { return id >= 0 && id <= maxIdx_; }
    int32_t maxIdx_;
    size_t count_ = 0;
    std::vector<int32_t> ranked_;
};

// Dropped contours are those with at most 3/10 of all points.
constexpr int64_t kMinShareNum = 3;
constexpr int64_t kMinShareDen = 10;

}  // namespace

PA_API void hx_getContourPts(const std::vector<SHX_lineConotours>& lineContours, int contourIdx,
                             std::vector<SHX_2DValueI>& contourPts, int* flagMajority) {
    int sink = 0;
    int& majorityOut = flagMajority ? *flagMajority : sink;
    majorityOut = 0;
    if (lineContours.empty()) return;
    int64_t flagged = 0;
    for (const SHX_lineConotours& line : lineContours) {
        for (const SHX_contourPtInfo& p : line.contourPts) {
            if (p.contourIdx != contourIdx) continue;
            contourPts.push_back(toValue(p, 0));
            if (flagSet(p.ptFlag)) ++flagged;
        }
    }
    majorityOut = majority(flagged, contourPts.size());
}

PA_API void hx_getPairingContourPts(const std::vector<SHX_conotourPair>& pairs, const std::vector<SHX_intPair>& pairKeys,
                                    std::vector<SHX_conotourPair>& validPairs, SKespRangeD range, bool isX,
                                    int* flag1Majority, int* flag2Majority) {
    int sink1 = 0, sink2 = 0;
    int& flag1 = flag1Majority ? *flag1Majority : sink1;
    int& flag2 = flag2Majority ? *flag2Majority : sink2;
    flag1 = 0;
    flag2 = 0;
    // Whether some key entry matches does not depend on the range test, so the
    // keys are looked up in a sorted table instead of searched per pair.
    std::vector<uint64_t> keys;
    keys.reserve(pairKeys.size());
    for (const SHX_intPair& k : pairKeys) keys.push_back(packKey(k.data_0, k.data_1));
    std::sort(keys.begin(), keys.end());
    int64_t count1 = 0, count2 = 0;
    for (const SHX_conotourPair& pair : pairs) {
        const double v1 = isX ? pair.pt_1.x : pair.pt_1.y;
        const double v2 = isX ? pair.pt_2.x : pair.pt_2.y;
        if (!strictlyInside(v1, range) || !strictlyInside(v2, range)) continue;
        if (!std::binary_search(keys.begin(), keys.end(), packKey(pair.pairKey_0, pair.pairKey_1))) continue;
        validPairs.push_back(pair);
        if (flagSet(pair.pt_1.ptFlag)) ++count1;
        if (flagSet(pair.pt_2.ptFlag)) ++count2;
    }
    const int64_t half = static_cast<int64_t>(validPairs.size() / 2);
    flag1 = count1 > half ? 1 : 0;
    flag2 = count2 > half ? 1 : 0;
}

PA_API void hx_contourPostProc(const std::vector<SHX_contourPtInfo>& contourPts, int maxContourIdx,
                               double distTolerance, std::vector<SHX_2DValueI>& outPts, int tag, int* flagMajority) {
    int sink = 0;
    int& majorityOut = flagMajority ? *flagMajority : sink;
    majorityOut = 0;
    if (contourPts.empty()) return;

    // One table slot per identifier in 0 .. maxContourIdx; an overstated
    // maxContourIdx or large identifiers cost nothing.
    const ContourSlots slots(contourPts, maxContourIdx);
    std::vector<ContourStat> table(slots.count());
    std::vector<int64_t> order;  // slots in order of first appearance
    for (const SHX_contourPtInfo& p : contourPts) {
        const int64_t slot = slots.slot(p.contourIdx);
        if (slot < 0) continue;
        ContourStat& s = table[static_cast<size_t>(slot)];
        if (s.count == 0) order.push_back(slot);
        ++s.count;
        s.distSum += p.seedDist;
    }
    if (order.empty()) return;

    const int64_t n = static_cast<int64_t>(contourPts.size());
    const int64_t minCount = (kMinShareNum * n) / kMinShareDen;
    bool haveReference = false;
    double referenceMean = 0.0;
    for (int64_t slot : order) {
        ContourStat& s = table[static_cast<size_t>(slot)];
        if (s.count <= minCount) {
            s.count = 0;
            continue;
        }
        const double mean = s.distSum / static_cast<double>(s.count);
        if (!haveReference || mean < referenceMean) referenceMean = mean;
        haveReference = true;
    }
    if (!haveReference) return;

    // The selected contours' points are placed group by group (in order of
    // first appearance) with one pass over the input: each group's offset is
    // the sum of the sizes of the groups before it.
    int64_t total = 0;
    for (int64_t slot : order) {
        ContourStat& s = table[static_cast<size_t>(slot)];
        if (s.count == 0) continue;
        const double mean = s.distSum / static_cast<double>(s.count);
        if (!(mean - referenceMean < distTolerance)) continue;
        s.selected = true;
        s.outOffset = total;
        total += s.count;
    }
    const size_t base = outPts.size();
    outPts.resize(base + static_cast<size_t>(total));
    SHX_2DValueI* out = outPts.data() + base;
    int64_t flagged = 0;
    for (const SHX_contourPtInfo& p : contourPts) {
        const int64_t slot = slots.slot(p.contourIdx);
        if (slot < 0) continue;
        ContourStat& s = table[static_cast<size_t>(slot)];
        if (!s.selected) continue;
        out[s.outOffset++] = toValue(p, tag);
        if (flagSet(p.ptFlag)) ++flagged;
    }
    majorityOut = majority(flagged, outPts.size());
}
