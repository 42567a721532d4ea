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

    // The table grows to the largest identifier met, so an overstated
    // maxContourIdx costs nothing. Identifiers outside 0 .. maxContourIdx
    // belong to no contour.
    std::vector<ContourStat> table;
    std::vector<int32_t> order;  // identifiers in order of first appearance
    for (const SHX_contourPtInfo& p : contourPts) {
        const int32_t id = p.contourIdx;
        if (id < 0 || id > maxContourIdx) continue;
        if (static_cast<size_t>(id) >= table.size()) table.resize(static_cast<size_t>(id) + 1);
        ContourStat& s = table[static_cast<size_t>(id)];
        if (s.count == 0) order.push_back(id);
        ++s.count;
        s.distSum += p.seedDist;
    }
    if (order.empty()) return;
    const int32_t tableMax = static_cast<int32_t>(table.size()) - 1;

    const int64_t n = static_cast<int64_t>(contourPts.size());
    const int64_t minCount = (kMinShareNum * n) / kMinShareDen;
    bool haveReference = false;
    double referenceMean = 0.0;
    for (int32_t id : order) {
        ContourStat& s = table[static_cast<size_t>(id)];
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
    for (int32_t id : order) {
        ContourStat& s = table[static_cast<size_t>(id)];
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
        if (p.contourIdx < 0 || p.contourIdx > tableMax) continue;
        ContourStat& s = table[static_cast<size_t>(p.contourIdx)];
        if (!s.selected) continue;
        out[s.outOffset++] = toValue(p, tag);
        if (flagSet(p.ptFlag)) ++flagged;
    }
    majorityOut = majority(flagged, outPts.size());
}
