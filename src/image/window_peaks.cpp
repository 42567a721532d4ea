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
// Speed: with all samples of a window non-negative that rule picks the best
// value and, among equal ones, the first in (x, y) order, a choice that can be
// combined from parts. The data is therefore cut into cells along every window
// edge, each cell is summarised once in memory order, and each window combines
// the few cells it covers. Windows holding a negative or NaN sample fall back
// to the sample-by-sample rule, and so does everything when windows are so
// small that cells would hold only a few samples.
#include <algorithm>
#include <cstdint>
#include <vector>

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

/// Summary of one cell: its best sample and whether every sample is >= 0.
struct Cell {
    double value = 0.0;
    int32_t x = 0;
    int32_t y = 0;
    bool any = false;
    bool clean = true;
};

inline bool before(int32_t xa, int32_t ya, int32_t xb, int32_t yb) {
    return xa < xb || (xa == xb && ya < yb);
}

/// A float image: every pixel is a sample, larger is better.
struct ImageSamples {
    const cv::Mat& img;
    int32_t width() const { return img.cols; }
    int32_t height() const { return img.rows; }
    static bool better(double a, double b) { return a > b; }

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

/// Window starts along the outer and inner axes, in walking order, keeping only
/// starts inside the data (starts never decrease, so the rest are empty).
struct WindowLayout {
    int64_t sizeX, sizeY;  // W, H
    std::vector<int32_t> outerStarts, innerStarts;
};

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

/// Cell summaries of an image, read row by row.
void summarise(const ImageSamples& s, const Cuts& cx, const Cuts& cy, std::vector<Cell>& cells) {
    const size_t ncx = cx.cells();
    for (size_t j = 0; j < cy.cells(); ++j) {
        Cell* row = cells.data() + j * ncx;
        for (int32_t y = cy.at[j]; y < cy.at[j + 1]; ++y) {
            const float* p = s.img.ptr<float>(y);
            for (size_t i = 0; i < ncx; ++i) {
                const int32_t xa = cx.at[i], xe = cx.at[i + 1];
                float m = p[xa];
                int32_t mx = xa;
                bool clean = m >= 0.0f;
                for (int32_t x = xa + 1; x < xe; ++x) {
                    const float v = p[x];
                    clean &= v >= 0.0f;
                    if (v > m) {
                        m = v;
                        mx = x;
                    }
                }
                Cell& c = row[i];
                if (!c.any) {
                    c = Cell{m, mx, y, true, clean};
                    continue;
                }
                c.clean &= clean;
                // Earlier rows came first; on a tie the smaller column wins.
                if (m > c.value || (m == c.value && mx < c.x)) {
                    c.value = m;
                    c.x = mx;
                    c.y = y;
                }
            }
        }
    }
}

/// Cell summaries of a scan, read line by line. Valid z is positive, so every
/// cell is clean.
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
                    if (pa_detail::isValidZ(z) && (!c.any || z < c.value)) c = Cell{z, x, y, true, true};
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
    std::vector<Cell> cells;
    if (useCells) {
        cells.resize(cellCount);
        summarise(s, cx, cy, cells);
    }

    ReportedMask reported(X, Y);
    for (int32_t o : outer) {
        for (int32_t i : inner) {
            const int32_t x0 = outerMovesY ? i : o;
            const int32_t y0 = outerMovesY ? o : i;
            const int32_t x1 = static_cast<int32_t>(std::min<int64_t>(int64_t{x0} + W, X));
            const int32_t y1 = static_cast<int32_t>(std::min<int64_t>(int64_t{y0} + H, Y));
            Best b;
            bool clean = true;
            if (useCells) {
                const size_t ncx = cx.cells();
                for (int32_t j = cy.index[y0]; j < cy.index[y1]; ++j) {
                    for (int32_t k = cx.index[x0]; k < cx.index[x1]; ++k) {
                        const Cell& c = cells[static_cast<size_t>(j) * ncx + static_cast<size_t>(k)];
                        if (!c.any) continue;
                        clean &= c.clean;
                        if (!b.found || Samples::better(c.value, b.value) ||
                            (c.value == b.value && before(c.x, c.y, b.x, b.y))) {
                            b = Best{c.value, c.x, c.y, true};
                        }
                    }
                }
            }
            if (!useCells || !clean) b = foldWindow(s, x0, x1, y0, y1);
            if (!b.found) continue;
            if (b.x == x0 || int64_t{b.x} == int64_t{x0} + W - 1 || b.y == y0 || int64_t{b.y} == int64_t{y0} + H - 1) {
                continue;
            }
            if (reported.markFirst(b.x, b.y)) peaks.push_back(SHX_2DValueI{b.x, b.y, 0, b.value, 0});
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
