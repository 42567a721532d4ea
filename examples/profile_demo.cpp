// profile_demo: runs the library over a scan and prints what it computes.
#include <cstdio>
#include <vector>

#include "profile_analysis.h"
#include "synthetic_scan.h"

namespace {

void printRange(const char* name, const SKespRangeD& r) {
    if (r.min > r.max)
        std::printf("  %-2s  (empty)\n", name);
    else
        std::printf("  %-2s  %10.3f .. %10.3f\n", name, r.min, r.max);
}

}  // namespace

int main() {
    SyntheticScanSpec spec;
    auto scan = makeSyntheticScan(spec);
    std::vector<SKesp3DLaserLine> lines(scan.size());
    for (size_t i = 0; i < scan.size(); ++i) {
        lines[i].p3DPosition = scan[i].data();
        lines[i].nPositionCnt = static_cast<int32_t>(scan[i].size());
        lines[i].nLineIdx = static_cast<int32_t>(i);
    }
    const int32_t lineNum = static_cast<int32_t>(lines.size());

    std::printf("Built-in scan: %d lines x %d points (floor tilted by roll %.2f, pitch %.2f degrees, a box on it)\n\n",
                spec.lines, spec.points, spec.rollDeg, spec.pitchDeg);

    const SKesp3DRangeD box = hx_getScanDataROI(lines.data(), lineNum);
    std::printf("1. Bounding box of the valid points\n");
    printRange("x", box.xRange);
    printRange("y", box.yRange);
    printRange("z", box.zRange);

    // Levelling round trip: angles -> matrix -> rotate the scan -> angles.
    const SHX_EulerAngles tilt{spec.rollDeg, spec.pitchDeg, 0.0};
    double R[3][3];
    eulerToRotationMatrixZYX(tilt, R);
    const double* m = &R[0][0];
    for (auto& line : lines) lineDataRT(&line, m, 0.0);
    const SHX_EulerAngles back = rotationMatrixToEulerZYX(R);
    const SKesp3DRangeD rotated = hx_getScanDataROI(lines.data(), lineNum);
    std::printf("\n2. Rotation round trip (Euler angles -> matrix -> lineDataRT -> angles)\n");
    std::printf("  angles in   roll %8.4f  pitch %8.4f  yaw %8.4f\n", tilt.roll, tilt.pitch, tilt.yaw);
    std::printf("  matrix      [% .6f % .6f % .6f]\n", R[0][0], R[0][1], R[0][2]);
    std::printf("              [% .6f % .6f % .6f]\n", R[1][0], R[1][1], R[1][2]);
    std::printf("              [% .6f % .6f % .6f]\n", R[2][0], R[2][1], R[2][2]);
    std::printf("  angles back roll %8.4f  pitch %8.4f  yaw %8.4f\n", back.roll, back.pitch, back.yaw);
    std::printf("  rotated scan box:\n");
    printRange("x", rotated.xRange);
    printRange("y", rotated.yRange);
    printRange("z", rotated.zRange);
    return 0;
}
