// Windowed peak search on a float image (local maxima) and on a scan seen as
// an image whose columns are scan lines and whose rows are point indices
// (local minima of z).
//
// Windows are walked with an outer counter k (nY = ceil(Y / (H/2)) steps,
// start (k * W) / 2) and an inner counter j (nX = ceil(X / (W/2)) steps,
// start (j * H) / 2). On the image the outer start moves along rows and the
// inner one along columns; on the scan the outer start moves along lines and
// the inner one along points. With W != H or a non-square extent the two
// pairings visit different windows; both are kept exactly.
//
// Within a window the samples are taken column by column (x outer, y inner);
// the first sample always becomes the best and so does any sample while the
// best is negative, after that only a strictly better one. A best on the
// window's border (unclipped ends) is rejected; a position is reported once.
//
// Speed: when a window's first sample is a number >= 0 (always so on a scan,
// whose valid z is positive), that rule picks the largest value and, among
// equal ones, the first in (x, y) order, NaN never replacing anything: a
// choice that can be combined from parts. The data is therefore cut into
// cells along every window edge, each cell is summarised once in memory
// order, and each window combines the few cells it covers. On images whose
// windows span at most a few bands of rows, the bands are reduced to column
// maxima in registers and the cells are formed per band
// (searchImageByBands). Other windows follow the sample-by-sample rule, and
// so does everything when windows are so small that cells would hold only a
// few samples.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>

#include "internal.h"

namespace {

constexpr int32_t kMinWindowSize = 2;
constexpr double kNoBestValue = -1.0;
/// Cells smaller than this on average are not worth summarising.
constexpr int64_t kMinSamplesPerCell = 16;

struct Best {
    double value = kNoBestValue;
    int32_t x = 0;
    int32_t y = 0;
    bool found = false;
};

/// Summary of one cell: its best sample and the cell's row of cells (cells of
/// a lower band hold only smaller rows, which settles ties in one column).
struct Cell {
    double value = 0.0;
    int32_t x = 0;
    int32_t y = 0;
    int32_t band = 0;
    bool any = false;
};

inline bool before(int32_t xa, int32_t ya, int32_t xb, int32_t yb) {
    return (xa < xb) | ((xa == xb) & (ya < yb));
}

/// A float image: every pixel is a sample, larger is better.
struct ImageSamples {
    const cv::Mat& img;
    int32_t width() const { return img.cols; }
    int32_t height() const { return img.rows; }
    static bool better(double a, double b) { return a > b; }
    /// Whether the cell summaries decide the window starting at (x0, y0).
    bool summariesHold(int32_t x0, int32_t y0) const { return img.ptr<float>(y0)[x0] >= 0.0f; }

    template <typename Visit>
    void column(int32_t x, int32_t y0, int32_t y1, Visit visit) const {
        for (int32_t y = y0; y < y1; ++y) visit(y, static_cast<double>(img.ptr<float>(y)[x]));
    }
};

/// A scan: line x, point y; only valid points are samples, smaller z is better.
/// Lines shorter than the first line simply have no samples past their end.
struct ScanSamples {
    const SKesp3DLaserLine* lines;
    int32_t lineNum;
    int32_t pointNum;
    int32_t width() const { return lineNum; }
    int32_t height() const { return pointNum; }
    static bool better(double a, double b) { return a < b; }
    static bool summariesHold(int32_t, int32_t) { return true; }

    int32_t pointsOf(int32_t x) const {
        const SKesp3DLaserLine& l = lines[x];
        if (l.p3DPosition == nullptr) return 0;
        return std::max(0, std::min(l.nPositionCnt, pointNum));
    }

    template <typename Visit>
    void column(int32_t x, int32_t y0, int32_t y1, Visit visit) const {
        const SKesp3DPosition* p = lines[x].p3DPosition;
        const int32_t end = std::min(y1, pointsOf(x));
        for (int32_t y = y0; y < end; ++y) {
            if (pa_detail::isValidZ(p[y].z)) visit(y, p[y].z);
        }
    }
};

/// The defined sample-by-sample rule over [x0, x1) x [y0, y1).
template <typename Samples>
Best foldWindow(const Samples& s, int32_t x0, int32_t x1, int32_t y0, int32_t y1) {
    Best b;
    for (int32_t x = x0; x < x1; ++x) {
        s.column(x, y0, y1, [&](int32_t y, double v) {
            if (b.value < 0.0 || Samples::better(v, b.value)) b = Best{v, x, y, true};
        });
    }
    return b;
}

/// Window starts along one axis, in walking order, keeping only starts inside
/// the data (starts never decrease, so the rest are empty).
std::vector<int32_t> startsWithin(int64_t count, int64_t step, int32_t extent) {
    std::vector<int32_t> starts;
    for (int64_t i = 0; i < count; ++i) {
        const int64_t s = (i * step) / 2;
        if (s >= extent) break;
        starts.push_back(static_cast<int32_t>(s));
    }
    return starts;
}

int64_t ceilDiv(int64_t a, int64_t b) { return a / b + (a % b > 0 ? 1 : 0); }

/// Cut positions along one axis: 0, the extent, and every window start and
/// clipped end; index[p] is the cell that starts at cut p.
struct Cuts {
    std::vector<int32_t> at;
    std::vector<int32_t> index;

    Cuts(const std::vector<int32_t>& starts, int64_t size, int32_t extent) {
        std::vector<char> isCut(static_cast<size_t>(extent) + 1, 0);
        isCut[0] = 1;
        isCut[static_cast<size_t>(extent)] = 1;
        for (int32_t s : starts) {
            isCut[static_cast<size_t>(s)] = 1;
            isCut[static_cast<size_t>(std::min<int64_t>(s + size, extent))] = 1;
        }
        index.assign(isCut.size(), -1);
        for (size_t p = 0; p < isCut.size(); ++p) {
            if (!isCut[p]) continue;
            index[p] = static_cast<int32_t>(at.size());
            at.push_back(static_cast<int32_t>(p));
        }
    }
    size_t cells() const { return at.size() - 1; }
};

/// Columns handled together: sixteen floats, one cache line per row.
constexpr int32_t kStrip = 16;

/// Largest number in column x over the rows [y0, y1); NaN is skipped, so a
/// column of NaN gives -inf.
void columnMax(const cv::Mat& img, int32_t x, int32_t y0, int32_t y1, float* colMax) {
    float m = -std::numeric_limits<float>::infinity();
    for (int32_t y = y0; y < y1; ++y) {
        const float v = img.ptr<float>(y)[x];
        if (v > m) m = v;
    }
    colMax[x] = m;
}

/// columnMax for the columns [x0, x0 + kStrip). The sixteen columns are
/// carried in registers down the band: one load and one max per four pixels.
/// MAXPS returns its second operand when either is NaN, so with the running
/// maximum second a NaN pixel never enters it.
void stripColumnMax(const cv::Mat& img, int32_t x0, int32_t y0, int32_t y1, float* colMax) {
#if CV_SSE2
    __m128 m0 = _mm_set1_ps(-std::numeric_limits<float>::infinity()), m1 = m0, m2 = m0, m3 = m0;
    for (int32_t y = y0; y < y1; ++y) {
        const float* p = img.ptr<float>(y) + x0;
        m0 = _mm_max_ps(_mm_loadu_ps(p), m0);
        m1 = _mm_max_ps(_mm_loadu_ps(p + 4), m1);
        m2 = _mm_max_ps(_mm_loadu_ps(p + 8), m2);
        m3 = _mm_max_ps(_mm_loadu_ps(p + 12), m3);
    }
    _mm_storeu_ps(colMax + x0, m0);
    _mm_storeu_ps(colMax + x0 + 4, m1);
    _mm_storeu_ps(colMax + x0 + 8, m2);
    _mm_storeu_ps(colMax + x0 + 12, m3);
#else
    for (int32_t x = x0; x < x0 + kStrip; ++x) columnMax(img, x, y0, y1, colMax);
#endif
}

/// Largest of colMax[xa .. xe) (column maxima are never NaN).
float cellMax(const float* colMax, int32_t xa, int32_t xe) {
    int32_t x = xa;
    float best = colMax[x];
#if CV_SIMD128
    if (xe - xa >= 4) {
        cv::v_float32x4 m = cv::v_load(colMax + x);
        for (x += 4; x + 4 <= xe; x += 4) m = cv::v_max(m, cv::v_load(colMax + x));
        best = cv::v_reduce_max(m);
    }
#endif
    for (; x < xe; ++x) best = std::max(best, colMax[x]);
    return best;
}

/// Cell summaries of an image, band of rows by band of rows. The best is the
/// first column (from the left) whose maximum is the cell's
/// maximum, at the first row of that column holding it: exactly the first
/// maximum in column order. Cells are finished as soon as their last column
/// is known, while the band's rows of that strip are still in cache.
void summarise(const ImageSamples& s, const Cuts& cx, const Cuts& cy, std::vector<Cell>& cells) {
    const size_t ncx = cx.cells();
    const int32_t width = s.width();
    std::vector<float> colMax(static_cast<size_t>(width));
    std::vector<const float*> rows(static_cast<size_t>(s.height()));
    for (int32_t y = 0; y < s.height(); ++y) rows[y] = s.img.ptr<float>(y);
    for (size_t j = 0; j < cy.cells(); ++j) {
        const int32_t y0 = cy.at[j], y1 = cy.at[j + 1];
        Cell* row = cells.data() + j * ncx;
        size_t next = 0;
        auto finishCellsUpTo = [&](int32_t done) {
            for (; next < ncx && cx.at[next + 1] <= done; ++next) {
                const int32_t xa = cx.at[next], xe = cx.at[next + 1];
                const float best = cellMax(colMax.data(), xa, xe);
                // First column and first row holding the maximum; the walks go
                // backwards so that the last match, the first position, stays.
                int32_t bx = xa;
                for (int32_t x = xe - 1; x >= xa; --x) bx = colMax[x] == best ? x : bx;
                int32_t by = y0;
                for (int32_t y = y1 - 1; y >= y0; --y) by = rows[y][bx] == best ? y : by;
                // The pixel's own value keeps the sign of a zero; a column of
                // NaN has no such pixel and keeps its -inf.
                const float v = rows[by][bx] == best ? rows[by][bx] : best;
                row[next] = Cell{v, bx, by, static_cast<int32_t>(j), true};
            }
        };
        int32_t x = 0;
        for (; x + kStrip <= width; x += kStrip) {
            stripColumnMax(s.img, x, y0, y1, colMax.data());
            finishCellsUpTo(x + kStrip);
        }
        for (; x < width; ++x) columnMax(s.img, x, y0, y1, colMax.data());
        finishCellsUpTo(width);
    }
}

/// Cell summaries of a scan, read line by line.
void summarise(const ScanSamples& s, const Cuts& cx, const Cuts& cy, std::vector<Cell>& cells) {
    const size_t ncx = cx.cells();
    for (size_t i = 0; i < ncx; ++i) {
        for (int32_t x = cx.at[i]; x < cx.at[i + 1]; ++x) {
            const SKesp3DPosition* p = s.lines[x].p3DPosition;
            const int32_t n = s.pointsOf(x);
            for (size_t j = 0; j < cy.cells() && cy.at[j] < n; ++j) {
                const int32_t end = std::min(cy.at[j + 1], n);
                Cell& c = cells[j * ncx + i];
                for (int32_t y = cy.at[j]; y < end; ++y) {
                    const double z = p[y].z;
                    // Earlier lines and points came first: only a smaller z wins.
                    if (pa_detail::isValidZ(z) && (!c.any || z < c.value)) {
                        c = Cell{z, x, y, static_cast<int32_t>(j), true};
                    }
                }
            }
        }
    }
}

/// One bit per sample position: reported already.
class ReportedMask {
public:
    ReportedMask(int32_t width, int32_t height)
        : width_(width), bits_((static_cast<size_t>(width) * static_cast<size_t>(height) + 63) / 64, 0) {}

    bool markFirst(int32_t x, int32_t y) {
        const size_t i = static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x);
        const uint64_t bit = uint64_t{1} << (i % 64);
        uint64_t& word = bits_[i / 64];
        if (word & bit) return false;
        word |= bit;
        return true;
    }

private:
    int32_t width_;
    std::vector<uint64_t> bits_;
};

/// The end of every window: a best on the window's border (unclipped ends)
/// is dropped, a position is reported once.
void report(const Best& b, int32_t x0, int32_t y0, int32_t W, int32_t H, ReportedMask& reported,
            std::vector<SHX_2DValueI>& peaks) {
    if (!b.found) return;
    if (b.x == x0 || int64_t{b.x} == int64_t{x0} + W - 1 || b.y == y0 || int64_t{b.y} == int64_t{y0} + H - 1) return;
    if (reported.markFirst(b.x, b.y)) peaks.push_back(SHX_2DValueI{b.x, b.y, 0, b.value, 0});
}

/// Most bands of rows one window may span for the band-wise image search.
constexpr int32_t kMaxBandsPerWindow = 4;

/// Index of the lowest set bit of a non-zero mask.
inline int32_t lowestBit(uint64_t mask) {
#if defined(__GNUC__) || defined(__clang__)
    return __builtin_ctzll(mask);
#else
    int32_t i = 0;
    while (!(mask & 1u)) {
        mask >>= 1;
        ++i;
    }
    return i;
#endif
}

/// Best of a span of columns [xa, xe): the largest column maximum and the
/// first column holding it.
struct SpanBest {
    float value;
    int32_t col;
};

SpanBest spanBest(const float* colMax, int32_t xa, int32_t xe) {
    constexpr int32_t kMaskBits = 64;
#if CV_SIMD128
    if (xe - xa >= 4 && xe - xa <= 8) {
        // The common span (half a window of up to sixteen columns) in two
        // vectors, the second ending at the span's end and overlapping the
        // first where the span is narrower: a column seen twice changes
        // neither the maximum nor the first column holding it, as the second
        // vector's mask bits are placed at its own columns.
        const cv::v_float32x4 a = cv::v_load(colMax + xa), b = cv::v_load(colMax + xe - 4);
        const float value = cv::v_reduce_max(cv::v_max(a, b));
        const cv::v_float32x4 best = cv::v_setall_f32(value);
        const uint32_t mask = static_cast<uint32_t>(cv::v_signmask(a == best)) |
                              (static_cast<uint32_t>(cv::v_signmask(b == best)) << (xe - xa - 4));
        return SpanBest{value, xa + lowestBit(mask)};
    }
#endif
    SpanBest r{cellMax(colMax, xa, xe), xa};
#if CV_SIMD128
    if (xe - xa >= 4 && xe - xa <= kMaskBits) {
        const cv::v_float32x4 best = cv::v_setall_f32(r.value);
        uint64_t mask = 0;
        int32_t x = xa, bit = 0;
        for (; x + 4 <= xe; x += 4, bit += 4) {
            mask |= static_cast<uint64_t>(cv::v_signmask(cv::v_load(colMax + x) == best)) << bit;
        }
        for (; x < xe; ++x, ++bit) mask |= static_cast<uint64_t>(colMax[x] == r.value) << bit;
        r.col = xa + lowestBit(mask);
        return r;
    }
#endif
    for (int32_t x = xe - 1; x >= xa; --x) r.col = colMax[x] == r.value ? x : r.col;
    return r;
}

/// Column maxima of two bands together: out = max(a, b) (out may be a).
void mergeColumns(const float* a, const float* b, float* out, int32_t n) {
    int32_t x = 0;
#if CV_SIMD128
    for (; x + 4 <= n; x += 4) cv::v_store(out + x, cv::v_max(cv::v_load(a + x), cv::v_load(b + x)));
#endif
    for (; x < n; ++x) out[x] = std::max(a[x], b[x]);
}

/// Image search for windows that span few bands of rows. Every band is read
/// once and reduced to column maxima in registers; bands are kept in a small
/// ring, since windows only move down the image. A row of windows merges the
/// column maxima of its bands, each span between column cuts takes its first
/// largest column, each window the first largest of its spans, and the row of
/// a best is looked up (in the first band holding the value) only when its
/// column passes the border test.
void searchImageByBands(const ImageSamples& s, int32_t W, int32_t H, const std::vector<int32_t>& rowStarts,
                        const std::vector<int32_t>& colStarts, const Cuts& cx, const Cuts& cy, int32_t slots,
                        ReportedMask& reported, std::vector<SHX_2DValueI>& peaks) {
    const int32_t X = s.width(), Y = s.height();
    const size_t width = static_cast<size_t>(X);
    const size_t spans = cx.cells();
    std::vector<const float*> rows(static_cast<size_t>(Y));
    for (int32_t y = 0; y < Y; ++y) rows[y] = s.img.ptr<float>(y);
    std::vector<float> colMax(static_cast<size_t>(slots) * width), mergedMax(width);
    std::vector<SpanBest> sp(spans);
    auto slotMax = [&](int32_t band) { return colMax.data() + static_cast<size_t>(band % slots) * width; };

    std::vector<const float*> bandMax(static_cast<size_t>(slots));  // column maxima of a window's bands
    int32_t bandsDone = 0;
    for (int32_t y0 : rowStarts) {
        const int32_t y1 = static_cast<int32_t>(std::min<int64_t>(int64_t{y0} + H, Y));
        const int32_t ba = cy.index[y0], bb = cy.index[y1];
        for (; bandsDone < bb; ++bandsDone) {
            float* m = slotMax(bandsDone);
            const int32_t b0 = cy.at[bandsDone], b1 = cy.at[bandsDone + 1];
            int32_t x = 0;
            for (; x + kStrip <= X; x += kStrip) stripColumnMax(s.img, x, b0, b1, m);
            for (; x < X; ++x) columnMax(s.img, x, b0, b1, m);
        }
        for (int32_t b = ba; b < bb; ++b) bandMax[b - ba] = slotMax(b);
        const float* wMax = slotMax(ba);
        for (int32_t b = ba + 1; b < bb; ++b) {
            mergeColumns(wMax, slotMax(b), mergedMax.data(), X);
            wMax = mergedMax.data();
        }
        for (size_t i = 0; i < spans; ++i) sp[i] = spanBest(wMax, cx.at[i], cx.at[i + 1]);
        for (int32_t x0 : colStarts) {
            const int32_t x1 = static_cast<int32_t>(std::min<int64_t>(int64_t{x0} + W, X));
            const int32_t ka = cx.index[x0], kb = cx.index[x1];
            if (!s.summariesHold(x0, y0)) {
                report(foldWindow(s, x0, x1, y0, y1), x0, y0, W, H, reported, peaks);
                continue;
            }
            int32_t k = ka;
            for (int32_t i = ka + 1; i < kb; ++i) k = sp[i].value > sp[k].value ? i : k;
            const int32_t bx = sp[k].col;
            const float best = sp[k].value;
            if (bx == x0 || int64_t{bx} == int64_t{x0} + W - 1) continue;
            int32_t band = ba;
            while (band < bb - 1 && !(bandMax[band - ba][bx] == best)) ++band;
            // The first row of the band holding the value (one always does: the
            // band's column maximum is one of its pixels).
            int32_t by = cy.at[band];
            for (int32_t y = cy.at[band]; y < cy.at[band + 1]; ++y) {
                if (rows[y][bx] == best) {
                    by = y;
                    break;
                }
            }
            // The pixel's own value: +0 and -0 compare equal but are kept as found.
            report(Best{rows[by][bx], bx, by, true}, x0, y0, W, H, reported, peaks);
        }
    }
}

template <typename Samples>
void searchWindows(const Samples& s, int32_t W, int32_t H, bool outerMovesY, std::vector<SHX_2DValueI>& peaks) {
    const int32_t X = s.width(), Y = s.height();
    if (W < kMinWindowSize || H < kMinWindowSize || X <= 0 || Y <= 0) return;
    const int64_t nX = ceilDiv(X, W / 2);
    const int64_t nY = ceilDiv(Y, H / 2);
    const std::vector<int32_t> outer = startsWithin(nY, W, outerMovesY ? Y : X);
    const std::vector<int32_t> inner = startsWithin(nX, H, outerMovesY ? X : Y);
    const std::vector<int32_t>& xStarts = outerMovesY ? inner : outer;
    const std::vector<int32_t>& yStarts = outerMovesY ? outer : inner;

    const Cuts cx(xStarts, W, X), cy(yStarts, H, Y);
    const size_t cellCount = cx.cells() * cy.cells();
    const bool useCells = static_cast<int64_t>(cellCount) * kMinSamplesPerCell <= int64_t{X} * Y;
    ReportedMask reported(X, Y);
    if constexpr (std::is_same_v<Samples, ImageSamples>) {
        int32_t bandsPerWindow = 0;
        for (int32_t y0 : yStarts) {
            const int64_t y1 = std::min<int64_t>(int64_t{y0} + H, Y);
            bandsPerWindow = std::max(bandsPerWindow, cy.index[static_cast<size_t>(y1)] - cy.index[y0]);
        }
        if (useCells && bandsPerWindow <= kMaxBandsPerWindow) {
            searchImageByBands(s, W, H, yStarts, xStarts, cx, cy, bandsPerWindow, reported, peaks);
            return;
        }
    }
    std::vector<Cell> cells;
    if (useCells) {
        cells.resize(cellCount);
        summarise(s, cx, cy, cells);
    }

    for (int32_t o : outer) {
        for (int32_t i : inner) {
            const int32_t x0 = outerMovesY ? i : o;
            const int32_t y0 = outerMovesY ? o : i;
            const int32_t x1 = static_cast<int32_t>(std::min<int64_t>(int64_t{x0} + W, X));
            const int32_t y1 = static_cast<int32_t>(std::min<int64_t>(int64_t{y0} + H, Y));
            Best b;
            const bool summaries = useCells && s.summariesHold(x0, y0);
            if (summaries) {
                const size_t ncx = cx.cells();
                const Cell* bc = nullptr;
                for (int32_t j = cy.index[y0]; j < cy.index[y1]; ++j) {
                    for (int32_t k = cx.index[x0]; k < cx.index[x1]; ++k) {
                        const Cell* c = &cells[static_cast<size_t>(j) * ncx + static_cast<size_t>(k)];
                        if (!c->any) continue;
                        if (bc == nullptr) {
                            bc = c;
                            continue;
                        }
                        // Bitwise operators keep this free of hard-to-predict branches.
                        const bool take = (static_cast<int>(Samples::better(c->value, bc->value)) |
                                           (static_cast<int>(c->value == bc->value) &
                                            static_cast<int>(before(c->x, c->band, bc->x, bc->band)))) != 0;
                        bc = take ? c : bc;
                    }
                }
                if (bc != nullptr) b = Best{bc->value, bc->x, bc->y, true};
            }
            if (!summaries) b = foldWindow(s, x0, x1, y0, y1);
            report(b, x0, y0, W, H, reported, peaks);
        }
    }
}

}  // namespace

void hx_getLocalPeaks_distTransform(const cv::Mat& img, std::vector<SHX_2DValueI>& peaks, SHX_localPkParam param) {
    if (img.type() != CV_32FC1) return;
    searchWindows(ImageSamples{img}, param.searchWin_x, param.searchWin_y, true, peaks);
}

void hx_getLocalPeaks(const SKesp3DLaserLine* lines, int32_t lineNum, std::vector<SHX_2DValueI>& peaks, SHX_localPkParam param) {
    if (lines == nullptr || lineNum <= 0) return;
    searchWindows(ScanSamples{lines, lineNum, lines[0].nPositionCnt}, param.searchWin_x, param.searchWin_y, false,
                  peaks);
}
