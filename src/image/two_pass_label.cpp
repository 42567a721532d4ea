// Connected-component labelling of a binary image with bounding-box records.
//
// The result depends only on the components formed by the interior pixels
// equal to 1: components get the labels 2, 3, ... in raster order of their
// first pixel, border pixels keep their value, and one record per component
// is appended in label order. The kernel below reaches that result in two
// passes over the image (provisional labels with a union-find table, then
// resolution fused with compaction and statistics), which is cheaper than
// resolving, compacting and recording in separate walks.
#include <algorithm>
#include <cstdint>
#include <memory>

#include "internal.h"

namespace {

using Label = int32_t;

/// The smallest component label; 0 is background and 1 unlabelled foreground.
constexpr Label kFirstLabel = 2;
constexpr int kEightConnected = 8;

/// Union-find over provisional labels. A parent is never larger than its
/// child, so the root of a set is its smallest label and a walk over the labels
/// in increasing order meets every parent before its children.
class Equivalences {
public:
    explicit Equivalences(size_t capacity) : parent_(new Label[capacity]) {}

    Label create() {
        parent_[next_] = next_;
        return next_++;
    }

    Label unite(Label a, Label b) {
        Label r = root(a);
        if (a != b) {
            const Label rb = root(b);
            if (rb < r) r = rb;
            pointAt(b, r);
        }
        pointAt(a, r);
        return r;
    }

    /// Rewrites the table into final labels: roots are numbered 2, 3, ... in
    /// increasing order (which is raster order of the components' first pixels)
    /// and every other label takes its parent's number. Returns the count.
    Label resolve() {
        Label nextFinal = kFirstLabel;
        for (Label l = kFirstLabel; l < next_; ++l) {
            parent_[l] = parent_[l] == l ? nextFinal++ : parent_[parent_[l]];
        }
        return nextFinal - kFirstLabel;
    }

    const Label* table() const { return parent_.get(); }

private:
    Label root(Label l) const {
        while (parent_[l] < l) l = parent_[l];
        return l;
    }

    void pointAt(Label l, Label r) {
        while (parent_[l] < l) {
            const Label p = parent_[l];
            parent_[l] = r;
            l = p;
        }
        parent_[l] = r;
    }

    std::unique_ptr<Label[]> parent_;
    Label next_ = kFirstLabel;
};

/// Most provisional labels the first pass can hand out: a new label needs a
/// background pixel to its left, so a row of w pixels takes at most (w + 1) / 2.
size_t labelCapacity(int interiorRows, int interiorCols) {
    return static_cast<size_t>(kFirstLabel) +
           static_cast<size_t>(interiorRows) * static_cast<size_t>((interiorCols + 1) / 2);
}

/// Sets the outermost rows and columns of the label image to 0 so that the
/// first pass reads them as background without tests at the edges.
void clearBorder(cv::Mat& lab) {
    const int last = lab.cols - 1;
    std::fill_n(lab.ptr<Label>(0), lab.cols, 0);
    std::fill_n(lab.ptr<Label>(lab.rows - 1), lab.cols, 0);
    for (int r = 1; r < lab.rows - 1; ++r) {
        Label* d = lab.ptr<Label>(r);
        d[0] = 0;
        d[last] = 0;
    }
}

/// Border pixels are never labelled: they hold the source value converted to
/// a 32-bit integer, as the rest of the image would without components.
template <typename T>
void copyBorder(const cv::Mat& src, cv::Mat& lab) {
    const int last = lab.cols - 1;
    for (int r : {0, lab.rows - 1}) {
        const T* s = src.ptr<T>(r);
        Label* d = lab.ptr<Label>(r);
        for (int c = 0; c < lab.cols; ++c) d[c] = static_cast<Label>(s[c]);
    }
    for (int r = 1; r < lab.rows - 1; ++r) {
        const T* s = src.ptr<T>(r);
        Label* d = lab.ptr<Label>(r);
        d[0] = static_cast<Label>(s[0]);
        d[last] = static_cast<Label>(s[last]);
    }
}

/// First pass over the interior: provisional labels for pixels equal to 1,
/// 0 for every other interior pixel. The neighbours already visited are read
/// from the label image, where anything non-zero is a provisional label.
template <typename T, bool kEight>
void firstPass(const cv::Mat& src, cv::Mat& lab, Equivalences& eq) {
    const int lastCol = lab.cols - 1;
    for (int r = 1; r < lab.rows - 1; ++r) {
        const T* s = src.ptr<T>(r);
        const Label* u = lab.ptr<Label>(r - 1);
        Label* d = lab.ptr<Label>(r);
        for (int c = 1; c < lastCol; ++c) {
            if (s[c] != 1) {
                d[c] = 0;
                continue;
            }
            Label l;
            if (kEight) {
                // The up pixel touches up-left, up-right and left's upper
                // neighbours, so when it is set nothing else needs a union.
                if (u[c]) {
                    l = u[c];
                } else if (u[c + 1]) {
                    if (u[c - 1]) {
                        l = eq.unite(u[c + 1], u[c - 1]);
                    } else if (d[c - 1]) {
                        l = eq.unite(u[c + 1], d[c - 1]);
                    } else {
                        l = u[c + 1];
                    }
                } else if (u[c - 1]) {
                    l = u[c - 1];
                } else if (d[c - 1]) {
                    l = d[c - 1];
                } else {
                    l = eq.create();
                }
            } else {
                if (u[c]) {
                    l = d[c - 1] ? eq.unite(u[c], d[c - 1]) : u[c];
                } else if (d[c - 1]) {
                    l = d[c - 1];
                } else {
                    l = eq.create();
                }
            }
            d[c] = l;
        }
    }
}

/// Second pass: final labels and the records. A horizontal run of labelled
/// pixels belongs to one component under either connectivity, so the record
/// is updated once per run.
void finalPass(cv::Mat& lab, const Label* finalOf, SHX_Region* records) {
    const int lastCol = lab.cols - 1;
    for (int r = 1; r < lab.rows - 1; ++r) {
        Label* d = lab.ptr<Label>(r);
        int c = 1;
        while (c < lastCol) {
            if (!d[c]) {
                ++c;
                continue;
            }
            const Label f = finalOf[d[c]];
            const int start = c;
            d[c] = f;
            while (++c < lastCol && d[c]) d[c] = finalOf[d[c]];
            const int end = c - 1;
            SHX_Region& g = records[f - kFirstLabel];
            if (g.pixelCnt == 0) {
                g.top = r;
                g.left = start;
                g.right = end;
            } else {
                if (start < g.left) g.left = start;
                if (end > g.right) g.right = end;
            }
            g.bottom = r;
            g.pixelCnt += end - start + 1;
        }
    }
}

template <typename T>
void labelInterior(const cv::Mat& src, cv::Mat& lab, std::vector<SHX_Region>& regions, bool eight) {
    lab.create(src.rows, src.cols, CV_32S);
    clearBorder(lab);
    Equivalences eq(labelCapacity(src.rows - 2, src.cols - 2));
    if (eight) {
        firstPass<T, true>(src, lab, eq);
    } else {
        firstPass<T, false>(src, lab, eq);
    }
    const Label count = eq.resolve();
    const size_t base = regions.size();
    regions.resize(base + static_cast<size_t>(count));
    SHX_Region* records = regions.data() + base;
    for (Label i = 0; i < count; ++i) records[i].label = i + kFirstLabel;
    finalPass(lab, eq.table(), records);
    copyBorder<T>(src, lab);
}

}  // namespace

void HX_TwoPassLabel(const cv::Mat& binImg, cv::Mat& labelImg, std::vector<SHX_Region>& regions,
                     int connectivity) {
    // A header of our own keeps the source alive if labelImg is the same matrix.
    const cv::Mat src = binImg;
    if (src.rows < 3 || src.cols < 3 || src.channels() != 1) {
        src.convertTo(labelImg, CV_32S);
        return;
    }
    const bool eight = connectivity == kEightConnected;
    // Integer depths convert exactly, so the kernel reads them directly; other
    // depths are converted first because the conversion rounds (0.7 becomes 1).
    switch (src.depth()) {
    case CV_8U: labelInterior<uint8_t>(src, labelImg, regions, eight); break;
    case CV_8S: labelInterior<int8_t>(src, labelImg, regions, eight); break;
    case CV_16U: labelInterior<uint16_t>(src, labelImg, regions, eight); break;
    case CV_16S: labelInterior<int16_t>(src, labelImg, regions, eight); break;
    default: {
        cv::Mat converted;
        src.convertTo(converted, CV_32S);
        labelInterior<int32_t>(converted, labelImg, regions, eight);
        break;
    }
    }
}
