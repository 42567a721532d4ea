// Grouping of free points into clusters by x-y distance.
//
// The clusters are those of the simple procedure: take the first point left
// as a seed, then for each cluster point in turn visit the remaining points in
// input order and take every one strictly closer than the threshold. Comparing
// every cluster point with every remaining point costs O(n^2); here the
// remaining points are filed in a uniform grid whose cells are at least the
// threshold wide, so all points that can join a cluster point lie in its own
// or the eight neighbouring cells. Collecting the takers from those cells and
// ordering them by input index appends exactly the points, in exactly the
// order, that the full scan would.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "internal.h"

namespace {

// Cell coordinates per axis stay within [0, kMaxCellsPerAxis]: an extent far
// larger than the threshold gets wider cells instead of an absurd grid, which
// keeps the search complete and only lets a cell hold more candidates.
constexpr int32_t kMaxCellsPerAxis = 1 << 24;
// Cells are made this much wider than needed, so that rounding in the cell
// coordinates can never put two joinable points two cells apart.
constexpr double kCellMargin = 1e-6;
// Below this, squared coordinate differences lose precision or underflow to 0
// (a distance can then compute as 0 for points further apart than a tiny
// threshold); no cell is narrower.
constexpr double kTinyDistance = 1e-150;

// A point is taken when the low 32 bits of its nPointIdx, read as a signed
// 32-bit integer, are negative.
bool carriesTakenMark(const SKesp3DPosition& p) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(p.nPointIdx))) < 0;
}

bool hasFiniteXY(const SKesp3DPosition& p) { return std::isfinite(p.x) && std::isfinite(p.y); }

// The points that can still join a cluster, filed by grid cell. Each cell
// lists its points in input order; points found taken while a cell is scanned
// are dropped from it, so every point is stepped over at most once after it
// has been taken. A point with an infinite or NaN x or y is never filed: its
// distance to any point is infinite or NaN, so nothing joins it and it joins
// nothing. Cells are held densely, row by row, when the grid has not many more
// cells than points; otherwise only the occupied cells are held, found through
// a hash table of cell coordinates.
class UntakenGrid {
public:
    UntakenGrid(const std::vector<SKesp3DPosition>& pts, const std::vector<unsigned char>& taken, double threshold);

    // Indices of the untaken filed points strictly closer than threshold to
    // q in the x-y plane, in increasing order. q must have finite x and y
    // within the extent of the points the grid was built from.
    void collectNear(const SKesp3DPosition& q, double threshold, const std::vector<unsigned char>& taken,
                     std::vector<size_t>& found);

private:
    struct Entry {
        double x, y;
        size_t idx;
    };
    struct Cell {
        size_t begin, liveEnd;
    };
    static constexpr uint64_t kNoKey = ~uint64_t(0);
    // A dense grid may have this many cells per filed point (plus a few).
    static constexpr uint64_t kDenseCellsPerPoint = 4;
    static constexpr uint64_t kDenseCellsMin = 1024;

    int32_t cellCoord(double v, double vMin) const;
    static uint64_t keyOf(int32_t cx, int32_t cy) { return (uint64_t(uint32_t(cx)) << 32) | uint32_t(cy); }
    size_t slotOf(uint64_t key) const { return size_t((key * 0x9E3779B97F4A7C15ull) >> shift_); }
    // Number of the cell (cx, cy) in cells_, or -1 when no point lies there.
    int64_t findCell(int32_t cx, int32_t cy) const;
    size_t findOrAddCell(int32_t cx, int32_t cy);
    void scanCell(Cell& cell, const SKesp3DPosition& q, double threshold, const std::vector<unsigned char>& taken,
                  std::vector<size_t>& found);

    double xMin_ = 0.0, yMin_ = 0.0, cellSize_ = 1.0;
    bool singleCell_ = false;
    bool dense_ = false;
    int32_t cxMax_ = 0, cyMax_ = 0;
    std::vector<Entry> entries_;
    std::vector<Cell> cells_;
    std::vector<uint64_t> slotKey_;  // sparse grids: cell key -> cell number
    std::vector<size_t> slotCell_;
    size_t mask_ = 0;
    int shift_ = 64;
};

UntakenGrid::UntakenGrid(const std::vector<SKesp3DPosition>& pts, const std::vector<unsigned char>& taken,
                         double threshold) {
    const size_t n = pts.size();
    double xMax = 0.0, yMax = 0.0;
    bool any = false;
    size_t filed = 0;
    for (size_t i = 0; i < n; ++i) {
        const SKesp3DPosition& p = pts[i];
        if (!hasFiniteXY(p)) continue;
        if (!any) {
            xMin_ = xMax = p.x;
            yMin_ = yMax = p.y;
            any = true;
        } else {
            xMin_ = std::min(xMin_, p.x);
            xMax = std::max(xMax, p.x);
            yMin_ = std::min(yMin_, p.y);
            yMax = std::max(yMax, p.y);
        }
        if (!taken[i]) ++filed;
    }
    if (filed == 0) return;

    // The extent may overflow to infinity, and so may a huge threshold: then
    // every point shares one cell and the distance test alone decides.
    const double extent = std::max(xMax - xMin_, yMax - yMin_);
    cellSize_ = std::max(std::max(threshold, kTinyDistance), extent / kMaxCellsPerAxis) * (1.0 + kCellMargin);
    singleCell_ = !std::isfinite(cellSize_);
    cxMax_ = cellCoord(xMax, xMin_);
    cyMax_ = cellCoord(yMax, yMin_);
    const uint64_t denseCells = uint64_t(cxMax_ + 1) * uint64_t(cyMax_ + 1);
    dense_ = denseCells <= kDenseCellsPerPoint * filed + kDenseCellsMin;
    if (dense_) {
        cells_.assign(denseCells, Cell{0, 0});
    } else {
        size_t slots = 16;
        shift_ = 60;
        while (slots < 2 * filed) {
            slots *= 2;
            --shift_;
        }
        mask_ = slots - 1;
        slotKey_.assign(slots, kNoKey);
        slotCell_.assign(slots, 0);
    }

    // Counting sort of the filed points by cell, stable so each cell keeps
    // input order; liveEnd counts the cell's points until the offsets are set.
    std::vector<size_t> cellOfFiled;
    cellOfFiled.reserve(filed);
    for (size_t i = 0; i < n; ++i) {
        const SKesp3DPosition& p = pts[i];
        if (taken[i] || !hasFiniteXY(p)) continue;
        const size_t c = findOrAddCell(cellCoord(p.x, xMin_), cellCoord(p.y, yMin_));
        ++cells_[c].liveEnd;
        cellOfFiled.push_back(c);
    }
    size_t offset = 0;
    for (Cell& cell : cells_) {
        const size_t count = cell.liveEnd;
        cell.begin = cell.liveEnd = offset;
        offset += count;
    }
    entries_.resize(filed);
    size_t j = 0;
    for (size_t i = 0; i < n; ++i) {
        const SKesp3DPosition& p = pts[i];
        if (taken[i] || !hasFiniteXY(p)) continue;
        Cell& cell = cells_[cellOfFiled[j++]];
        entries_[cell.liveEnd++] = Entry{p.x, p.y, i};
    }
}

int32_t UntakenGrid::cellCoord(double v, double vMin) const {
    if (singleCell_) return 0;
    const double u = std::floor((v - vMin) / cellSize_);
    return static_cast<int32_t>(std::min(std::max(u, 0.0), static_cast<double>(kMaxCellsPerAxis)));
}

int64_t UntakenGrid::findCell(int32_t cx, int32_t cy) const {
    if (dense_) return int64_t(cx) * (int64_t(cyMax_) + 1) + cy;
    const uint64_t key = keyOf(cx, cy);
    for (size_t s = slotOf(key);; s = (s + 1) & mask_) {
        if (slotKey_[s] == key) return static_cast<int64_t>(slotCell_[s]);
        if (slotKey_[s] == kNoKey) return -1;
    }
}

size_t UntakenGrid::findOrAddCell(int32_t cx, int32_t cy) {
    if (dense_) return static_cast<size_t>(findCell(cx, cy));
    const uint64_t key = keyOf(cx, cy);
    size_t s = slotOf(key);
    for (; slotKey_[s] != kNoKey; s = (s + 1) & mask_)
        if (slotKey_[s] == key) return slotCell_[s];
    slotKey_[s] = key;
    slotCell_[s] = cells_.size();
    cells_.push_back(Cell{0, 0});
    return slotCell_[s];
}

void UntakenGrid::collectNear(const SKesp3DPosition& q, double threshold, const std::vector<unsigned char>& taken,
                              std::vector<size_t>& found) {
    found.clear();
    if (entries_.empty() || !hasFiniteXY(q)) return;
    const int32_t cx = cellCoord(q.x, xMin_), cy = cellCoord(q.y, yMin_);
    const int32_t gxEnd = std::min(cx + 1, cxMax_), gyEnd = std::min(cy + 1, cyMax_);
    for (int32_t gx = std::max(cx - 1, 0); gx <= gxEnd; ++gx) {
        for (int32_t gy = std::max(cy - 1, 0); gy <= gyEnd; ++gy) {
            const int64_t c = findCell(gx, gy);
            if (c >= 0) scanCell(cells_[static_cast<size_t>(c)], q, threshold, taken, found);
        }
    }
    // Each cell yields its takers in input order; merge the (at most nine) lists.
    if (found.size() > 1) std::sort(found.begin(), found.end());
}

void UntakenGrid::scanCell(Cell& cell, const SKesp3DPosition& q, double threshold,
                           const std::vector<unsigned char>& taken, std::vector<size_t>& found) {
    Entry* e = entries_.data();
    const unsigned char* isTaken = taken.data();
    size_t live = cell.begin;
    for (size_t r = cell.begin; r < cell.liveEnd; ++r) {
        const Entry p = e[r];
        if (isTaken[p.idx]) continue;
        e[live++] = p;
        const double dx = q.x - p.x, dy = q.y - p.y;
        if (threshold > std::sqrt(dx * dx + dy * dy)) found.push_back(p.idx);
    }
    cell.liveEnd = live;
}

// Grows one cluster per seed, the seeds being the first point and then each
// point still untaken, in input order.
void appendGrownClusters(const std::vector<SKesp3DPosition>& pts, double threshold, std::vector<unsigned char>& taken,
                         std::vector<std::vector<SKesp3DPosition>>& clusters) {
    UntakenGrid grid(pts, taken, threshold);
    std::vector<size_t> found;
    for (size_t s = 0; s < pts.size(); ++s) {
        if (s != 0 && taken[s]) continue;
        taken[s] = 1;
        clusters.emplace_back();
        std::vector<SKesp3DPosition>& cluster = clusters.back();
        cluster.push_back(pts[s]);
        for (size_t k = 0; k < cluster.size(); ++k) {
            const SKesp3DPosition q = cluster[k];  // by value: the cluster grows below
            grid.collectNear(q, threshold, taken, found);
            for (const size_t idx : found) {
                cluster.push_back(pts[idx]);
                taken[idx] = 1;
            }
        }
    }
}

}  // namespace

PA_API void hx_pointClustering(std::vector<SKesp3DPosition>& pts, double distTh,
                               std::vector<std::vector<SKesp3DPosition>>& clusters) {
    const size_t n = pts.size();
    if (n == 0) return;
    // The taken marks live in a side table: the input is emptied on return,
    // so marks written into it could never be seen, and the copies must keep
    // their nPointIdx unchanged anyway.
    std::vector<unsigned char> taken(n);
    for (size_t i = 0; i < n; ++i) taken[i] = carriesTakenMark(pts[i]) ? 1 : 0;

    // Seeds are the first point (whatever its mark), then each point still
    // untaken, in input order; points that arrived marked never appear.
    // A threshold that is 0, negative or NaN is never above a distance, so
    // then every seed stays alone.
    if (distTh > 0.0) {
        appendGrownClusters(pts, distTh, taken, clusters);
    } else {
        for (size_t s = 0; s < n; ++s)
            if (s == 0 || !taken[s]) clusters.emplace_back(1, pts[s]);
    }
    pts.clear();
}
