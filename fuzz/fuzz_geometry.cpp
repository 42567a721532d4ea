// Scan geometry and plane calibration on fuzzed scans, lines and matrices.
#include "fuzz_util.h"

using fuzz::sameBits;

namespace {

bool sameRange(const SKespRangeD& a, const SKespRangeD& b) { return sameBits(a.min, b.min) && sameBits(a.max, b.max); }

bool sameRecord(const SHX_planeCalibPara& a, const SHX_planeCalibPara& b) {
    for (int i = 0; i < 9; ++i)
        if (!sameBits(a.planeCalib[i], b.planeCalib[i]) || !sameBits(a.invRMatrix[i], b.invRMatrix[i])) return false;
    return sameBits(a.planeHeight, b.planeHeight);
}

void checkIdentity(const SHX_planeCalibPara& r) {
    for (int i = 0; i < 9; ++i) FUZZ_CHECK(r.planeCalib[i] == (i % 4 == 0) && r.invRMatrix[i] == (i % 4 == 0));
}

// A rotated line: invalid points untouched, nPointIdx kept.
void checkRotated(const std::vector<SKesp3DPosition>& before, const std::vector<SKesp3DPosition>& after) {
    for (size_t i = 0; i < before.size(); ++i) {
        FUZZ_CHECK(after[i].nPointIdx == before[i].nPointIdx);
        if (!(before[i].z >= 0.0001)) FUZZ_CHECK(fuzz::samePoint(after[i], before[i]));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int routine = in.integer(0, 5);
    // A scan of up to 24 lines; in contract heights within a few hundred units.
    std::vector<std::vector<SKesp3DPosition>> scan(in.integer(0, 24));
    for (size_t i = 0; i < scan.size(); ++i) {
        scan[i] = in.profile(in.integer(0, 3) == 0 ? 400 : 40, static_cast<double>(i) * in.real(0.0, 2.0));
        const double lift = in.real(0.0, 300.0);
        for (SKesp3DPosition& p : scan[i]) p.z = p.z >= 0.0001 ? p.z + lift : p.z;
    }
    std::vector<SKesp3DLaserLine> lines = fuzz::linesOf(scan);
    const int32_t all = static_cast<int32_t>(scan.size());
    const int32_t lineNum = in.hostile() ? in.count(all, all) : all;
    const SKesp3DLaserLine* linesPtr = lines.empty() ? nullptr : lines.data();
    switch (routine) {
        case 0: {
            const SKesp3DRangeD a = hx_getScanDataROI(linesPtr, lineNum);
            if (lineNum == all) {
                const SKesp3DRangeD b = hx_getScanDataROI_vector(scan);
                FUZZ_CHECK(sameRange(a.xRange, b.xRange) && sameRange(a.yRange, b.yRange) && sameRange(a.zRange, b.zRange));
            }
            if (lineNum <= 0) FUZZ_CHECK(a.zRange.min == 0.0 && a.zRange.max == -1.0);
            break;
        }
        case 1: {
            std::vector<SKesp3DPoint> pts(in.integer(0, 40));
            for (SKesp3DPoint& p : pts) p = SKesp3DPoint{in.real(-100.0, 100.0), in.real(-100.0, 100.0), 0.0};
            double k = 0.0, b = 0.0;
            lineFitting(pts, &k, &b);
            break;
        }
        case 2: {
            // In contract the segment stays short; out of contract its ends
            // sit at the edges of the int range, still a short segment.
            const int32_t base = in.hostile() ? (in.flag() ? 2147483647 - 40 : -2147483647 - 1 + 40) : 0;
            const int32_t x0 = base + in.integer(-40, 40), y0 = base + in.integer(-40, 40);
            const int32_t x1 = base + in.integer(-40, 40), y1 = base + in.integer(-40, 40);
            std::vector<SKesp2DPoint> pts(in.integer(0, 2));
            const size_t before = pts.size();
            drawLine(x0, y0, x1, y1, pts);
            const int64_t dx = std::abs(int64_t{x1} - x0), dy = std::abs(int64_t{y1} - y0);
            FUZZ_CHECK(static_cast<int64_t>(pts.size() - before) == std::max(dx, dy) + 1);
            FUZZ_CHECK(pts[before].x == x0 && pts[before].y == y0 && pts.back().x == x1 && pts.back().y == y1);
            break;
        }
        case 3: {
            double r[9];
            SHX_EulerAngles e{in.real(-180.0, 180.0), in.real(-90.0, 90.0), in.real(-180.0, 180.0)};
            double m[3][3];
            eulerToRotationMatrixZYX(e, m);
            if (in.hostile())
                for (auto& row : m)
                    for (double& v : row) v = in.flag() ? v : in.real(-2.0, 2.0);
            e = rotationMatrixToEulerZYX(m);
            for (int i = 0; i < 9; ++i) r[i] = m[i / 3][i % 3];
            const double zCut = in.real(-10.0, 400.0);
            std::vector<SKesp3DPosition> line = scan.empty() ? std::vector<SKesp3DPosition>{} : scan[0];
            const std::vector<SKesp3DPosition> before = line;
            lineDataRT_vector(line, r, zCut);
            checkRotated(before, line);
            if (!lines.empty()) {
                lineDataRT(&lines[0], r, zCut);
                for (size_t i = 0; i < line.size(); ++i) FUZZ_CHECK(fuzz::samePoint(line[i], scan[0][i]));
            }
            std::vector<SKespXYZRGBDPoint> rgbd(before.size());
            for (size_t i = 0; i < rgbd.size(); ++i)
                rgbd[i] = SKespXYZRGBDPoint{float(before[i].x), float(before[i].y), float(before[i].z), uint32_t(i)};
            SKespXYZRGBDLaserLine rl{rgbd.empty() ? nullptr : rgbd.data(), in.hostile() ? in.count(0, 0) : fuzz::count(before)};
            lineDataRT_RGBD(&rl, r, zCut);
            for (size_t i = 0; i < rgbd.size(); ++i) FUZZ_CHECK(rgbd[i].nRGBD == i);
            break;
        }
        case 4: {
            const SHX_planeCalibPara a = hx_getPlaneCalibPara(linesPtr, lineNum);
            if (lineNum == all) FUZZ_CHECK(sameRecord(a, hx_getPlaneCalibPara2(scan)));
            if (a.planeHeight == -1.0) checkIdentity(a);
            break;
        }
        default: {
            std::vector<SKesp3DRangeD> rois(in.integer(0, 3));
            for (SKesp3DRangeD& r : rois) {
                const double x = in.real(-10.0, 60.0), y = in.real(-60.0, 60.0), z = in.real(0.0, 300.0);
                r.xRange = SKespRangeD{x, x + in.real(-1.0, 40.0)};
                r.yRange = SKespRangeD{y, y + in.real(-1.0, 80.0)};
                r.zRange = SKespRangeD{z, in.real(-60.0, 400.0)};
            }
            const SHX_planeCalibPara a = hx_getPlaneCalibPara_ROIs(linesPtr, lineNum, rois);
            if (rois.empty() || lineNum <= 0) {
                checkIdentity(a);  // the identity, with height 0.0
                FUZZ_CHECK(a.planeHeight == 0.0);
            }
            break;
        }
    }
    return 0;
}
