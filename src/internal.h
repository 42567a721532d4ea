// internal.h - helpers shared by the library's sources; not installed.
#ifndef PROFILE_ANALYSIS_INTERNAL_H
#define PROFILE_ANALYSIS_INTERNAL_H

#include "profile_analysis.h"

namespace pa_detail {

/// Heights below this carry no measurement.
constexpr double kValidZ = 0.0001;

/// The library's usual validity: a point is measured when z >= 0.0001.
/// (NaN heights fail this test and count as invalid.)
inline bool isValidZ(double z) { return z >= kValidZ; }

/// The strict validity used by smoothing, outlier removal and the corner,
/// jump and glove-arc detectors: z > 0.0001. A point at exactly 0.0001 is
/// valid for the rest of the library but not for these routines.
inline bool isStrictlyValidZ(double z) { return z > kValidZ; }

/// The empty interval {0.0, -1.0}.
inline SKespRangeD emptyRange() { return SKespRangeD{0.0, -1.0}; }

/// Grows a range by v: an empty range (min > max) becomes {v, v}; otherwise
/// min and max are updated independently.
inline void growRange(SKespRangeD& r, double v) {
    if (r.min > r.max) {
        r.min = v;
        r.max = v;
        return;
    }
    if (v < r.min) r.min = v;
    if (v > r.max) r.max = v;
}

/// The value of pi the angle-based detectors (corners, jumps, glove arcs) use
/// on purpose, and their conversion: angle * 180 / pi, evaluated in that order.
constexpr double kPiLiteral = 3.141592654;
inline double radToDegLiteral(double radians) { return radians * 180.0 / kPiLiteral; }

// ---------------------------------------------------------------------------
// Tree growing
// ---------------------------------------------------------------------------

// @@internal-growing@@

// ---------------------------------------------------------------------------
// Corner angles (corner and jump detectors)
// ---------------------------------------------------------------------------

// @@internal-corners@@

// ---------------------------------------------------------------------------
// Calibration
// ---------------------------------------------------------------------------

/// Least-squares sums of z on x and y over single-precision points, each
/// coordinate widened to double before it is multiplied or added.
struct PlaneSums {
    double sxx = 0.0, sxy = 0.0, syy = 0.0, sx = 0.0, sy = 0.0;
    double sxz = 0.0, syz = 0.0, sz = 0.0;
    int64_t m = 0;

    void add(const cv::Point3f& p) {
        const double x = p.x, y = p.y, z = p.z;
        sxx += x * x;
        sxy += x * y;
        syy += y * y;
        sx += x;
        sy += y;
        sxz += x * z;
        syz += y * z;
        sz += z;
        ++m;
    }
};

/// Solves the normal equations of z = a x + b y + e and returns (a, b, -1, e),
/// the coefficients of a x + b y - z + e = 0. The inverse is taken by LU and
/// evaluated into a matrix of its own: for a singular system it is the zero
/// matrix, so the result is (0, 0, -1, 0). (Writing the inverse inside the
/// product would let OpenCV turn it into a linear solve, whose output is
/// undefined for a singular system.)
inline cv::Vec4d solvePlane(const PlaneSums& s) {
    cv::Mat A = cv::Mat::zeros(3, 3, CV_64F);
    cv::Mat B = cv::Mat::zeros(3, 1, CV_64F);
    A.at<double>(0, 0) = s.sxx;
    A.at<double>(0, 1) = s.sxy;
    A.at<double>(0, 2) = s.sx;
    A.at<double>(1, 0) = s.sxy;
    A.at<double>(1, 1) = s.syy;
    A.at<double>(1, 2) = s.sy;
    A.at<double>(2, 0) = s.sx;
    A.at<double>(2, 1) = s.sy;
    A.at<double>(2, 2) = static_cast<double>(s.m);
    B.at<double>(0, 0) = s.sxz;
    B.at<double>(1, 0) = s.syz;
    B.at<double>(2, 0) = s.sz;
    const cv::Mat Ainv = A.inv(cv::DECOMP_LU);
    const cv::Mat X = Ainv * B;
    return cv::Vec4d(X.at<double>(0, 0), X.at<double>(1, 0), -1.0, X.at<double>(2, 0));
}

/// Least-squares plane z = a x + b y + e through single-precision points;
/// returns (a, b, -1, e). No point, one point, or points on one line whose
/// sums make the system exactly singular give (0, 0, -1, 0); a system that
/// rounding leaves barely regular gives what its inverse gives.
inline cv::Vec4d planeFitting(const std::vector<cv::Point3f>& pts) {
    PlaneSums s;
    for (const cv::Point3f& p : pts) s.add(p);
    return solvePlane(s);
}

/// Quaternion (w, x, y, z) of the shortest rotation that turns the direction
/// of u into the direction of v. Vectors shorter than 1e-7 and directions
/// that already agree (cosine above 0.9999999) give the identity (1, 0, 0, 0);
/// opposite directions (cosine below -0.9999999) give a half turn about x,
/// or about y when u lies along x.
inline cv::Vec4d rotationBetweenVectors(const cv::Vec3d& u, const cv::Vec3d& v) {
    constexpr double kMinLength = 1e-7;
    constexpr double kParallelCos = 0.9999999;
    const cv::Vec4d identity(1.0, 0.0, 0.0, 0.0);
    const double lu = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
    const double lv = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (lu < kMinLength || lv < kMinLength) return identity;
    const cv::Vec3d a(u[0] / lu, u[1] / lu, u[2] / lu);
    const cv::Vec3d b(v[0] / lv, v[1] / lv, v[2] / lv);
    const double d = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
    if (d > kParallelCos) return identity;
    if (d < -kParallelCos) {
        // Any half turn about an axis perpendicular to u will do; the x axis
        // is perpendicular unless u itself lies along x.
        if (std::fabs(a[1]) < kMinLength && std::fabs(a[2]) < kMinLength) return cv::Vec4d(0.0, 0.0, 1.0, 0.0);
        return cv::Vec4d(0.0, 1.0, 0.0, 0.0);
    }
    const cv::Vec3d n(a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]);
    const double ln = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (ln < kMinLength) return identity;
    const double s = std::sqrt((1.0 - d) / 2.0);
    return cv::Vec4d(std::sqrt((1.0 + d) / 2.0), s * n[0] / ln, s * n[1] / ln, s * n[2] / ln);
}

/// Row-major rotation matrix of a unit quaternion (w, x, y, z).
inline void quaternionToMatrix(const cv::Vec4d& q, double m[9]) {
    const double w = q[0], x = q[1], y = q[2], z = q[3];
    m[0] = 1.0 - 2.0 * (y * y + z * z);
    m[1] = 2.0 * (x * y - w * z);
    m[2] = 2.0 * (x * z + w * y);
    m[3] = 2.0 * (x * y + w * z);
    m[4] = 1.0 - 2.0 * (x * x + z * z);
    m[5] = 2.0 * (y * z - w * x);
    m[6] = 2.0 * (x * z - w * y);
    m[7] = 2.0 * (y * z + w * x);
    m[8] = 1.0 - 2.0 * (x * x + y * y);
}

// ---------------------------------------------------------------------------
// Preprocessing
// ---------------------------------------------------------------------------

// @@internal-preprocess@@

// ---------------------------------------------------------------------------
// Image analysis
// ---------------------------------------------------------------------------

// @@internal-image@@

}  // namespace pa_detail

#endif  // PROFILE_ANALYSIS_INTERNAL_H
