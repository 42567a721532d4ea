// A minimal program built against the installed library.
#include <profile_analysis.h>

int main() {
    SKesp3DPosition pts[2];
    pts[0].x = 1.0; pts[0].y = 2.0; pts[0].z = 3.0;
    pts[1].x = 4.0; pts[1].y = 5.0; pts[1].z = 6.0;
    SKesp3DLaserLine line;
    line.p3DPosition = pts;
    line.nPositionCnt = 2;
    const SKesp3DRangeD box = hx_getScanDataROI(&line, 1);
    return (box.xRange.min == 1.0 && box.zRange.max == 6.0) ? 0 : 1;
}
