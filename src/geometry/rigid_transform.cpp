// Rotation of scan lines in place and z-y-x Euler angle conversions.
#include <cmath>

#include "internal.h"

using pa_detail::isValidZ;

namespace {

constexpr double kRadToDeg = 57.29577951308232;
constexpr double kDegToRad = 0.017453292519943295;
constexpr double kGimbalLockCos = 1e-6;

// Rotates the valid points of an array in place. Point is any record with
// x, y, z members: doubles, or floats for coloured points, which are widened,
// transformed in double and rounded back on storing.
template <typename Point>
void rotatePoints(Point* pts, int64_t count, const double* m, double zCut) {
    const double m0 = m[0], m1 = m[1], m2 = m[2];
    const double m3 = m[3], m4 = m[4], m5 = m[5];
    const double m6 = m[6], m7 = m[7], m8 = m[8];
    const bool limitOn = zCut > 0.0;
    for (int64_t i = 0; i < count; ++i) {
        Point& p = pts[i];
        const double x = p.x, y = p.y, z = p.z;
        if (!isValidZ(z)) continue;
        const double xr = m0 * x + m1 * y + m2 * z;
        const double yr = m3 * x + m4 * y + m5 * z;
        double zr = m6 * x + m7 * y + m8 * z;
        if (limitOn && zr > zCut) zr = 0.0;
        p.x = static_cast<decltype(p.x)>(xr);
        p.y = static_cast<decltype(p.y)>(yr);
        p.z = static_cast<decltype(p.z)>(zr);
    }
}

}  // namespace

PA_API void lineDataRT(SKesp3DLaserLine* line, const double* rotation, double zCut) {
    if (line == nullptr || rotation == nullptr || line->nPositionCnt < 1 || line->p3DPosition == nullptr) return;
    rotatePoints(line->p3DPosition, line->nPositionCnt, rotation, zCut);
}

PA_API void lineDataRT_vector(std::vector<SKesp3DPosition>& line, const double* rotation, double zCut) {
    if (rotation == nullptr || line.empty()) return;
    rotatePoints(line.data(), static_cast<int64_t>(line.size()), rotation, zCut);
}

PA_API void lineDataRT_RGBD(SKespXYZRGBDLaserLine* line, const double* rotation, double zCut) {
    if (line == nullptr || rotation == nullptr || line->nPositionCnt < 1 || line->pXYZRGBD == nullptr) return;
    rotatePoints(line->pXYZRGBD, line->nPositionCnt, rotation, zCut);
}

PA_API SHX_EulerAngles rotationMatrixToEulerZYX(const double R[3][3]) {
    const double pitch = std::asin(-R[2][0]);
    double yaw, roll;
    if (std::fabs(std::cos(pitch)) > kGimbalLockCos) {
        yaw = std::atan2(R[1][0], R[0][0]);
        roll = std::atan2(R[2][1], R[2][2]);
    } else {
        yaw = std::atan2(-R[0][1], R[1][1]);
        roll = 0.0;
    }
    SHX_EulerAngles e;
    e.roll = roll * kRadToDeg;
    e.pitch = pitch * kRadToDeg;
    e.yaw = yaw * kRadToDeg;
    return e;
}

PA_API void eulerToRotationMatrixZYX(const SHX_EulerAngles& e, double R[3][3]) {
    const double r = e.roll * kDegToRad, p = e.pitch * kDegToRad, y = e.yaw * kDegToRad;
    const double cr = std::cos(r), sr = std::sin(r);
    const double cp = std::cos(p), sp = std::sin(p);
    const double cy = std::cos(y), sy = std::sin(y);
    R[0][0] = cp * cy;
    R[0][1] = sp * cy * sr - cr * sy;
    R[0][2] = sp * cy * cr + sr * sy;
    R[1][0] = cp * sy;
    R[1][1] = sp * sy * sr + cr * cy;
    R[1][2] = sp * sy * cr - sr * cy;
    R[2][0] = -sp;
    R[2][1] = sr * cp;
    R[2][2] = cr * cp;
}
