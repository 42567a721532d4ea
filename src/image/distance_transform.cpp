// Two-pass chamfer distance transform over a float image.
//
// Every interior pixel is relaxed to the smallest of its own value and a
// neighbour's value plus the step cost, first top-down with the neighbours
// up-left, up, left and below-left (the below-left neighbour instead of the
// usual up-right one is part of this transform's definition), then bottom-up
// with below, below-right, right and up-right. The frame is set to 0 last.
//
// Only the strict minimum replaces a value, so a NaN never replaces anything
// and a NaN pixel keeps its value. The minimum does not depend on the order in
// which the candidates are taken (costs are positive, so no candidate is -0).
// Each row is therefore done in two steps: the three candidates from the rows
// above and below, which do not depend on the row itself, for the whole row at
// once (a loop the compiler vectorises), then the chain along the row through
// the left (or right) neighbour, which carries the only dependency.
#include <algorithm>
#include <cmath>
#include <limits>

#include "internal.h"

namespace {

constexpr int kDistTypeEuclidean = 0;
constexpr int kDistTypeCityBlock = 1;
constexpr float kOrthogonalCost = 1.0f;
constexpr float kCityBlockDiagonal = 2.0f;
constexpr float kChessboardDiagonal = 1.0f;
/// The chain along a row is cut into this many pieces that are relaxed side
/// by side, so that their additions overlap instead of waiting for each other.
constexpr int kChainPieces = 8;
/// Rows shorter than this are relaxed in one piece.
constexpr int kMinPiecedRow = 16 * kChainPieces;

float diagonalCost(int distType) {
    if (distType == kDistTypeEuclidean) return std::sqrt(2.0f);
    if (distType == kDistTypeCityBlock) return kCityBlockDiagonal;
    return kChessboardDiagonal;
}

/// The candidate if strictly smaller, else v (a NaN on either side keeps v).
inline float smaller(float v, float candidate) { return candidate < v ? candidate : v; }

/// Top-down candidates of row y for columns 1 .. m-1 into out: the pixel's
/// own value against up-left, up and below-left.
void forwardCandidates(const float* __restrict own, const float* __restrict up, const float* __restrict below,
                       float* __restrict out, int m, float diag) {
    for (int x = 1; x < m; ++x) {
        float v = own[x];
        v = smaller(v, up[x - 1] + diag);
        v = smaller(v, up[x] + kOrthogonalCost);
        v = smaller(v, below[x - 1] + diag);
        out[x] = v;
    }
}

/// Bottom-up candidates of row y for columns 0 .. m-2, in place: below,
/// below-right and up-right.
void backwardCandidates(float* __restrict row, const float* __restrict up, const float* __restrict below, int m,
                        float diag) {
    for (int x = 0; x + 1 < m; ++x) {
        float v = row[x];
        v = smaller(v, below[x] + kOrthogonalCost);
        v = smaller(v, below[x + 1] + diag);
        v = smaller(v, up[x + 1] + diag);
        row[x] = v;
    }
}

/// The chain along a run of `count` pixels at p[0], p[step], ...: each pixel
/// takes the previous one's final value plus one if that is strictly smaller;
/// `before` is the value ahead of the run.
///
/// The run is cut into kChainPieces pieces relaxed side by side, each starting
/// as if nothing came before it. The carry from the piece before is then added
/// at each piece's start and passed along while it wins. That gives the same
/// bits as the single chain: rounding is monotonic, so if the carried value
/// does not win at some pixel (not strictly smaller, or the pixel NaN) it does
/// not win at any later one either, and from there on the pixel values are
/// those the piece computed by itself.
template <int kStep>
void relaxChain(float* p, int count, float before) {
    if (count < kMinPiecedRow) {
        float prev = before;
        for (int i = 0; i < count; ++i) {
            prev = smaller(p[i * kStep], prev + kOrthogonalCost);
            p[i * kStep] = prev;
        }
        return;
    }
    const int piece = count / kChainPieces;  // the last piece also takes the remainder
    float prev[kChainPieces];
    prev[0] = before;
    for (int k = 1; k < kChainPieces; ++k) prev[k] = std::numeric_limits<float>::infinity();
    for (int i = 0; i < piece; ++i) {
        for (int k = 0; k < kChainPieces; ++k) {
            float& v = p[(k * piece + i) * kStep];
            prev[k] = smaller(v, prev[k] + kOrthogonalCost);
            v = prev[k];
        }
    }
    float last = prev[kChainPieces - 1];
    for (int i = kChainPieces * piece; i < count; ++i) {
        last = smaller(p[i * kStep], last + kOrthogonalCost);
        p[i * kStep] = last;
    }
    for (int k = 1; k < kChainPieces; ++k) {
        const int start = k * piece, end = k + 1 < kChainPieces ? start + piece : count;
        float carry = p[(start - 1) * kStep];
        for (int i = start; i < end; ++i) {
            carry += kOrthogonalCost;
            if (!(carry < p[i * kStep])) break;
            p[i * kStep] = carry;
        }
    }
}

/// Top-down pass from the input into f: rows 1 .. N-2, columns 1 .. M-1 (the
/// last column included). Reads each row of the input once, so the input needs
/// no copy beforehand; rows 0 and N-1 are copied as they are.
void forwardPass(const cv::Mat& src, cv::Mat& f, float diag) {
    const int lastRow = f.rows - 1, m = f.cols;
    std::copy(src.ptr<float>(0), src.ptr<float>(0) + m, f.ptr<float>(0));
    std::copy(src.ptr<float>(lastRow), src.ptr<float>(lastRow) + m, f.ptr<float>(lastRow));
    for (int y = 1; y < lastRow; ++y) {
        const float* own = src.ptr<float>(y);
        float* row = f.ptr<float>(y);
        row[0] = own[0];
        forwardCandidates(own, f.ptr<float>(y - 1), src.ptr<float>(y + 1), row, m, diag);
        relaxChain<1>(row + 1, m - 1, row[0]);
    }
}

/// Bottom-up pass: rows N-2 .. 1, columns M-2 .. 0 (column 0 included).
void backwardPass(cv::Mat& f, float diag) {
    const int m = f.cols;
    for (int y = f.rows - 2; y >= 1; --y) {
        float* row = f.ptr<float>(y);
        backwardCandidates(row, f.ptr<float>(y - 1), f.ptr<float>(y + 1), m, diag);
        relaxChain<-1>(row + m - 2, m - 1, row[m - 1]);
    }
}

void zeroFrame(cv::Mat& f) {
    if (f.rows == 0 || f.cols == 0) return;
    f.row(0).setTo(0.0f);
    f.row(f.rows - 1).setTo(0.0f);
    for (int y = 1; y < f.rows - 1; ++y) {
        float* row = f.ptr<float>(y);
        row[0] = 0.0f;
        row[f.cols - 1] = 0.0f;
    }
}

}  // namespace

void hx_distanceTrans(cv::Mat src, cv::Mat& dst, int distType) {
    if (src.channels() != 1) {
        dst.release();
        return;
    }
    cv::Mat in = src;
    if (in.depth() != CV_32F) src.convertTo(in, CV_32F);
    const float diag = diagonalCost(distType);
    cv::Mat f(in.size(), CV_32F);  // a fresh buffer, so src (and a dst sharing it) is never written
    if (f.rows >= 3 && f.cols >= 2) {
        forwardPass(in, f, diag);
        backwardPass(f, diag);
    } else {
        // Without the top-down pass only the frame would change (the bottom-up
        // pass has no column to visit when there is one column).
        in.copyTo(f);
    }
    zeroFrame(f);
    dst = f;
}
