// Upper semicircles of one profile: short runs of valid points whose inside
// holds a local z minimum, with neighbours of one labelled object merged.
//
// The detection rules, stated with a label per point, are: run ends are
// labelled 2 (first) and 3 (last); a valley v with label 0 looks for the nearest
// labelled points left and right of it and makes a semicircle of them when they
// are the 2 and 3 of one run, after which the span is labelled 1. Valleys of a
// run always lie strictly inside it (the first and last points of a run are
// never valley candidates, and an end would carry label 2 or 3 anyway), and the
// only labels inside a run are the 0s it starts with and the 1s of its own
// semicircle. So the nearest labelled points of any unlabelled valley are
// exactly its run's ends, and a run yields one semicircle when it holds at
// least one interior valley and is narrow enough; the other valleys of the run
// are skipped. The kernel below works per run on that basis and needs no label
// array.
#include <cmath>
#include <limits>

#include "internal.h"

using pa_detail::isStrictlyValidZ;
using pa_detail::isValidZ;

namespace {

// A merged semicircle marks its absorbed neighbour with this type.
constexpr int32_t kMergedType = 5;
// The ends of a semicircle lie less than this many maximal half-widths apart in y.
constexpr double kEndSpanPerHalfWidth = 4.0;

struct Run {
    int32_t first;
    int32_t last;
};

// Reads the label of point `row` of this line; rows and columns outside the
// image, and images that are not single-channel 32-bit signed, read as 0.
class LabelColumn {
public:
    LabelColumn(const cv::Mat& img, int32_t col)
        : img_(img), col_(col), readable_(img.dims == 2 && img.type() == CV_32SC1 && col >= 0 && col < img.cols) {}

    int32_t at(int32_t row) const {
        if (!readable_ || row < 0 || row >= img_.rows) return 0;
        return img_.ptr<int32_t>(row)[col_];
    }

private:
    const cv::Mat& img_;
    int32_t col_;
    bool readable_;
};

// Peak point (valid point nearest the middle of the ends in y, the earlier on
// ties), width and top height of the span [first, last]. Returns false when no
// point of the span can be the peak (only possible with NaN coordinates).
bool measureSpan(const SKesp3DPosition* pts, int32_t first, int32_t last, SHX_featureSemiCircle& sc) {
    const double yFirst = pts[first].y, yLast = pts[last].y;
    const double middle = (yFirst + yLast) / 2.0;
    int32_t peak = -1;
    double bestDist = std::numeric_limits<double>::infinity();
    double topZ = std::numeric_limits<double>::infinity();
    for (int32_t i = first; i <= last; ++i) {
        const SKesp3DPosition& p = pts[i];
        if (!isValidZ(p.z)) continue;
        const double d = std::fabs(p.y - middle);
        if (d < bestDist) {
            bestDist = d;
            peak = i;
        }
        if (p.z < topZ) topZ = p.z;
    }
    if (peak < 0) return false;
    sc.startPtIdx = first;
    sc.endPtIdx = last;
    sc.peakPtIdx = peak;
    sc.x = pts[peak].x;
    sc.y = pts[peak].y;
    sc.z = pts[peak].z;
    sc.width = std::fabs(yFirst - yLast);
    sc.topZ = topZ;
    return true;
}

// Whether the valley records of a run of `count` points hold one strictly
// inside the run. hx_getLineLocalPeaks numbers the run's points from 0.
bool hasInteriorValley(const std::vector<SHX_basicFeature1D>& valleys, int32_t count) {
    for (const SHX_basicFeature1D& v : valleys) {
        const int32_t local = static_cast<int32_t>(v.featurePos.nPointIdx);
        if (local > 0 && local < count - 1) return true;
    }
    return false;
}

// The per-line state of the detector: scratch vectors for the valley search,
// and the semicircle recorded last, which is held back until the next one
// shows whether the two merge.
class Detector {
public:
    Detector(SKesp3DPosition* pts, int32_t lineIdx, double maxHalfWidth, const SHX_slopeParam& sp,
             const cv::Mat& labelImg, std::vector<SHX_featureSemiCircle>& out)
        : pts_(pts), lineIdx_(lineIdx), maxSpan_(kEndSpanPerHalfWidth * maxHalfWidth),
          peakRangeY_(sp.slopeRangeY), labels_(labelImg, lineIdx), out_(out) {}

    // One (joined) run: number its points through the valley search, and
    // record a semicircle when the run is narrow and holds a valley.
    void onRun(const Run& r) {
        const int32_t count = r.last - r.first + 1;
        peaks_.clear();
        valleys_.clear();
        hx_getLineLocalPeaks(pts_ + r.first, count, lineIdx_, peakRangeY_, peaks_, valleys_);
        if (!hasInteriorValley(valleys_, count)) return;
        if (!(maxSpan_ > std::fabs(pts_[r.first].y - pts_[r.last].y))) return;
        SHX_featureSemiCircle sc;
        sc.featureType = 0;
        sc.lineIdx = lineIdx_;
        if (!measureSpan(pts_, r.first, r.last, sc)) return;
        onRecorded(sc);
    }

private:
    // Decides the previously recorded semicircle now that its successor is
    // known: when the label rows right after it and right before the successor
    // carry the same object label (1 or above), the two become one, spanning
    // both, and the successor is used up. Only two neighbours merge: a used-up
    // successor is never decided itself. The semicircle still held back when
    // the line ends is the last one recorded: it is dropped on purpose, and
    // reaches the output only by having been merged into its predecessor.
    void onRecorded(SHX_featureSemiCircle& next) {
        if (hasHeld_ && held_.featureType != kMergedType) {
            const int32_t a = labels_.at(held_.endPtIdx + 1);
            const int32_t b = labels_.at(next.startPtIdx - 1);
            if (a >= 1 && a == b) {
                SHX_featureSemiCircle merged = held_;
                if (measureSpan(pts_, held_.startPtIdx, next.endPtIdx, merged)) held_ = merged;
                else held_.endPtIdx = next.endPtIdx;  // NaN coordinates only: the old peak stays
                next.featureType = kMergedType;
            }
            out_.push_back(held_);
        }
        held_ = next;
        hasHeld_ = true;
    }

    SKesp3DPosition* pts_;
    int32_t lineIdx_;
    double maxSpan_;
    double peakRangeY_;
    LabelColumn labels_;
    std::vector<SHX_featureSemiCircle>& out_;
    std::vector<SHX_basicFeature1D> peaks_, valleys_;
    SHX_featureSemiCircle held_;
    bool hasHeld_ = false;
};

// Walks the maximal runs of strictly valid points (z > 0.0001) and hands each
// joined run to the detector: a run whose first point lies less than maxGapY
// in y from the previous run's last point continues that run, chaining.
void forEachJoinedRun(const SKesp3DPosition* pts, int32_t n, double maxGapY, Detector& det) {
    Run cur{-1, -1};
    int32_t i = 0;
    while (i < n) {
        if (!isStrictlyValidZ(pts[i].z)) {
            ++i;
            continue;
        }
        const int32_t first = i;
        while (i + 1 < n && isStrictlyValidZ(pts[i + 1].z)) ++i;
        if (cur.first >= 0 && std::fabs(pts[cur.last].y - pts[first].y) < maxGapY) {
            cur.last = i;
        } else {
            if (cur.first >= 0) det.onRun(cur);
            cur = Run{first, i};
        }
        ++i;
    }
    if (cur.first >= 0) det.onRun(cur);
}

}  // namespace

PA_API void hx_getLineUpperSemiCircleFeature(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                             double maxHalfWidth, SHX_slopeParam slopeParam,
                                             std::vector<SHX_featureSemiCircle>& features, const cv::Mat& labelImg) {
    if (points == nullptr || pointCount < 1) return;
    Detector det(points, lineIdx, maxHalfWidth, slopeParam, labelImg, features);
    forEachJoinedRun(points, pointCount, slopeParam.maxGapY, det);
}
