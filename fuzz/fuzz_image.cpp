// Image analysis: labelling, distance transform, window peaks, peak XY scan
// and contour handling on fuzzed images and contour records.
#include "fuzz_util.h"

namespace {

SHX_localPkParam windows(fuzz::Input& in) {
    if (in.hostile() && in.flag()) {
        static const int32_t kAbsurd[] = {-2147483647 - 1, -1, 0, 1, 2, 3, 65536, 1073741824, 2147483647};
        return SHX_localPkParam{kAbsurd[in.integer(0, 8)], kAbsurd[in.integer(0, 8)]};
    }
    return SHX_localPkParam{in.integer(2, 12), in.integer(2, 12)};
}

// A window peak lies inside the extent searched.
void checkPeaks(const std::vector<SHX_2DValueI>& peaks, int32_t width, int32_t height) {
    for (const SHX_2DValueI& p : peaks) FUZZ_CHECK(p.x >= 0 && p.x < width && p.y >= 0 && p.y < height);
}

SHX_contourPtInfo contourPoint(fuzz::Input& in) {
    SHX_contourPtInfo p;
    p.lineIdx = in.integer(0, 30);
    p.ptIdx = in.integer(0, 30);
    p.ptType = in.integer(0, 8);
    p.contourIdx = in.hostile() && in.integer(0, 7) == 0 ? in.integer<int32_t>(-2147483647 - 1, 2147483647)
                                                         : in.integer(0, 8);
    p.ptFlag = in.integer(-1, 2);
    p.seedDist = in.real(0.0, 50.0);
    p.x = in.real(-30.0, 30.0);
    p.y = in.real(-30.0, 30.0);
    p.z = in.real(0.0, 30.0);
    return p;
}

// A scan of lineNum lines of pointCnt points each (out of contract some
// lines shorter), with contour types in the low bits of nPointIdx.
struct Scan {
    std::vector<std::vector<SKesp3DPosition>> pts;
    std::vector<SKesp3DLaserLine> lines;
    Scan(fuzz::Input& in, int32_t lineNum, int32_t pointCnt) : pts(lineNum) {
        for (int32_t i = 0; i < lineNum; ++i) {
            pts[i] = in.profile(pointCnt, i);
            pts[i].resize(static_cast<size_t>(in.hostile() && in.integer(0, 7) == 0 ? fuzz::count(pts[i]) : pointCnt));
            for (SKesp3DPosition& q : pts[i]) q.nPointIdx = in.flag() ? 0 : in.integer(0, 0xffff);
        }
        lines = fuzz::linesOf(pts);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int routine = in.integer(0, 7);
    std::vector<SHX_2DValueI> peaks;
    switch (routine) {
        case 0: {
            const cv::Mat bin = in.image(CV_8UC1, 24, 0.0, 1.0);
            cv::Mat labels;
            std::vector<SHX_Region> regions;
            HX_TwoPassLabel(bin, labels, regions, in.flag() ? 8 : in.wide(-5, 9));
            FUZZ_CHECK(labels.size() == bin.size() || (bin.empty() && labels.empty()));
            for (const SHX_Region& r : regions)
                FUZZ_CHECK(r.label >= 2 && 1 <= r.left && r.left <= r.right && r.right < bin.cols - 1 && 1 <= r.top &&
                           r.top <= r.bottom && r.bottom < bin.rows - 1 && r.pixelCnt >= 1);
            break;
        }
        case 1: {
            const cv::Mat src = in.image(CV_32FC1, 24, 0.0, 100.0);
            cv::Mat dst;
            hx_distanceTrans(src, dst, in.wide(-1, 3));
            if (src.empty()) FUZZ_CHECK(dst.empty());
            else if (src.channels() == 1) FUZZ_CHECK(dst.size() == src.size() && dst.type() == CV_32FC1);
            else FUZZ_CHECK(dst.empty());
            break;
        }
        case 2: {
            const cv::Mat img = in.image(CV_32FC1, 40, -2.0, 60.0);
            const SHX_localPkParam w = windows(in);
            hx_getLocalPeaks_distTransform(img, peaks, w);
            checkPeaks(peaks, img.cols, img.rows);
            if (w.searchWin_x < 2 || w.searchWin_y < 2 || img.type() != CV_32FC1) FUZZ_CHECK(peaks.empty());
            break;
        }
        case 3: {
            const int32_t lineNum = in.integer(0, 24), pointCnt = in.integer(0, 24);
            Scan scan(in, lineNum, pointCnt);
            const SHX_localPkParam w = windows(in);
            hx_getLocalPeaks(scan.lines.data(), in.hostile() ? in.count(lineNum, lineNum) : lineNum, peaks, w);
            checkPeaks(peaks, lineNum, lineNum ? scan.lines[0].nPositionCnt : 0);
            break;
        }
        case 4: {
            const int32_t lineNum = in.integer(1, 16), pointCnt = in.integer(1, 16);
            Scan scan(in, lineNum, pointCnt);
            // Flag image: element 0 the contour index, element 3 set at the seed.
            const bool wrong = in.hostile() && in.flag();
            cv::Mat flags(wrong ? in.integer(0, pointCnt + 1) : pointCnt, wrong ? in.integer(0, lineNum + 1) : lineNum,
                          wrong && in.flag() ? CV_32SC1 : CV_32SC4, cv::Scalar::all(0));
            for (int r = 0; r < flags.rows && flags.type() == CV_32SC4; ++r)
                for (int c = 0; c < flags.cols; ++c) flags.at<cv::Vec4i>(r, c) = cv::Vec4i(in.integer(0, 9), 0, 0, 1);
            SHX_2DValueI seed;
            seed.x = in.hostile() ? in.integer(-2, lineNum + 1) : in.integer(0, lineNum - 1);
            seed.y = in.hostile() ? in.integer(-2, pointCnt + 1) : in.integer(0, pointCnt - 1);
            seed.value = in.real(0.0, 10.0);
            const SHX_bagParam bag{in.real(0.0, 30.0), 0.0};
            std::vector<SHX_lineConotours> out[4];
            int32_t maxIdx[4] = {-1, -1, -1, -1};
            hx_peakXYScan(scan.lines.data(), in.hostile() ? in.count(lineNum, lineNum) : lineNum, flags, seed,
                          SHX_treeGrowParam{}, bag, in.flag(), out[0], out[1], out[2], out[3], &maxIdx[0], &maxIdx[1],
                          &maxIdx[2], in.flag() ? nullptr : &maxIdx[3]);
            for (const auto& v : out)
                for (const SHX_lineConotours& l : v)
                    for (const SHX_contourPtInfo& p : l.contourPts)
                        FUZZ_CHECK(p.lineIdx >= 0 && p.lineIdx < lineNum && p.ptIdx >= 0 && p.ptIdx < pointCnt);
            break;
        }
        case 5: {
            std::vector<SHX_lineConotours> lines(in.integer(0, 6));
            for (SHX_lineConotours& l : lines) {
                l.contourPts.resize(in.integer(0, 6));
                for (SHX_contourPtInfo& p : l.contourPts) p = contourPoint(in);
            }
            peaks.resize(in.integer(0, 3));
            int flag = -1;
            hx_getContourPts(lines, in.integer(-1, 9), peaks, in.flag() ? nullptr : &flag);
            FUZZ_CHECK(flag == -1 || flag == 0 || flag == 1);
            break;
        }
        case 6: {
            std::vector<SHX_conotourPair> pairs(in.integer(0, 12)), valid(in.integer(0, 2));
            for (SHX_conotourPair& p : pairs) {
                p.pairKey_0 = in.integer(0, 3);
                p.pairKey_1 = in.integer(0, 3);
                p.pt_1 = contourPoint(in);
                p.pt_2 = contourPoint(in);
            }
            std::vector<SHX_intPair> keys(in.integer(0, 4));
            for (SHX_intPair& k : keys) k = SHX_intPair{in.integer(0, 3), in.integer(0, 3), 0};
            const size_t before = valid.size();
            int f1 = -1, f2 = -1;
            hx_getPairingContourPts(pairs, keys, valid, SKespRangeD{in.real(-30.0, 30.0), in.real(-30.0, 30.0)},
                                    in.flag(), &f1, in.flag() ? nullptr : &f2);
            FUZZ_CHECK(valid.size() - before <= pairs.size());
            if (keys.empty()) FUZZ_CHECK(valid.size() == before);
            break;
        }
        default: {
            std::vector<SHX_contourPtInfo> pts(in.integer(0, 40));
            for (SHX_contourPtInfo& p : pts) p = contourPoint(in);
            const int maxIdx = in.hostile() ? in.integer<int>(-2147483647 - 1, 2147483647) : in.integer(0, 8);
            int flag = -1;
            hx_contourPostProc(pts, maxIdx, in.real(0.0, 30.0), peaks, in.integer(-3, 3), &flag);
            FUZZ_CHECK(peaks.size() <= pts.size() && (flag == 0 || flag == 1));
            break;
        }
    }
    return 0;
}
