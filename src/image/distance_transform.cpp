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
// which the candidates are taken (costs are positive, so no candidate is -0),
// which lets the kernel take the neighbours of the previous and next rows
// first and leaves one add and one compare on the chain along the row.
#include <cmath>

#include "internal.h"

namespace {

constexpr int kDistTypeEuclidean = 0;
constexpr int kDistTypeCityBlock = 1;
constexpr float kOrthogonalCost = 1.0f;
constexpr float kCityBlockDiagonal = 2.0f;
constexpr float kChessboardDiagonal = 1.0f;

float diagonalCost(int distType) {
    if (distType == kDistTypeEuclidean) return std::sqrt(2.0f);
    if (distType == kDistTypeCityBlock) return kCityBlockDiagonal;
    return kChessboardDiagonal;
}

inline void takeSmaller(float& v, float candidate) {
    if (candidate < v) v = candidate;
}

/// Top-down pass: rows 1 .. N-2, columns 1 .. M-1 (the last column included).
void forwardPass(cv::Mat& f, float diag) {
    const int lastRow = f.rows - 1;
    for (int y = 1; y < lastRow; ++y) {
        const float* up = f.ptr<float>(y - 1);
        const float* below = f.ptr<float>(y + 1);
        float* row = f.ptr<float>(y);
        float left = row[0];
        for (int x = 1; x < f.cols; ++x) {
            float v = row[x];
            takeSmaller(v, up[x - 1] + diag);
            takeSmaller(v, up[x] + kOrthogonalCost);
            takeSmaller(v, below[x - 1] + diag);
            takeSmaller(v, left + kOrthogonalCost);
            row[x] = v;
            left = v;
        }
    }
}

/// Bottom-up pass: rows N-2 .. 1, columns M-2 .. 0 (column 0 included).
void backwardPass(cv::Mat& f, float diag) {
    for (int y = f.rows - 2; y >= 1; --y) {
        const float* up = f.ptr<float>(y - 1);
        const float* below = f.ptr<float>(y + 1);
        float* row = f.ptr<float>(y);
        float right = row[f.cols - 1];
        for (int x = f.cols - 2; x >= 0; --x) {
            float v = row[x];
            takeSmaller(v, below[x] + kOrthogonalCost);
            takeSmaller(v, below[x + 1] + diag);
            takeSmaller(v, up[x + 1] + diag);
            takeSmaller(v, right + kOrthogonalCost);
            row[x] = v;
            right = v;
        }
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
    cv::Mat f;  // a fresh buffer, so src (and a dst sharing it) is never written
    src.convertTo(f, CV_32F);
    const float diag = diagonalCost(distType);
    if (f.rows >= 3 && f.cols >= 1) {
        if (f.cols >= 2) forwardPass(f, diag);
        backwardPass(f, diag);
    }
    zeroFrame(f);
    dst = f;
}
