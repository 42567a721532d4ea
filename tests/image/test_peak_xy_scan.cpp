// Peak XY scan: a table of hand-built scans for the rules of the walks and the
// sweeps, out-of-contract calls, and identity with a plain version written step
// by step on random scans.
#include <array>
#include <cmath>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

constexpr double kLineGap = 2.0;   // x of line i is i * kLineGap
constexpr double kPointGap = 1.0;  // y of point k is k * kPointGap

// A regular scan with its flag image; types, marks and contour indices are set
// point by point.
struct Grid {
    int lines, points;
    std::vector<std::vector<SKesp3DPosition>> scan;
    cv::Mat flags;

    Grid(int l, int n) : lines(l), points(n), scan(l), flags(n, l, CV_32SC4, cv::Scalar::all(0)) {
        for (int i = 0; i < l; ++i) {
            for (int k = 0; k < n; ++k) scan[i].push_back(testutil::pt(i * kLineGap, k * kPointGap, 10.0 + k, 0));
        }
    }
    void setBits(int i, int k, int shift, int64_t mask, int64_t v) {
        int64_t& w = scan[i][k].nPointIdx;
        w = (w & ~(mask << shift)) | (v << shift);
    }
    void along(int i, int k, int t) { setBits(i, k, 0, 0xF, t); }
    void cross(int i, int k, int t) { setBits(i, k, 4, 0xF, t); }
    void mark(int i, int k, int bits) { setBits(i, k, 8, 0xFF, bits); }
    void contour(int i, int k, int c) { flags.at<cv::Vec4i>(k, i)[0] = c; }
    void enable(int i, int k) { flags.at<cv::Vec4i>(k, i)[3] = 1; }
};

struct Out {
    std::vector<SHX_lineConotours> lineDown, lineUp, rowDown, rowUp;
    int32_t lineDownMax = -7, lineUpMax = -7, rowDownMax = -7, rowUpMax = -7;
};

SHX_2DValueI seedAt(int x, int y, double value = 0.0) {
    SHX_2DValueI s;
    s.x = x;
    s.y = y;
    s.value = value;
    return s;
}

void run(Grid& g, SHX_2DValueI seed, double bagL, bool useMarkBits, Out& o, int lineNum = -1,
         const cv::Mat* flags = nullptr) {
    auto lines = testutil::linesOf(g.scan);
    SHX_bagParam bag;
    bag.bagL = bagL;
    hx_peakXYScan(lines.data(), lineNum < 0 ? g.lines : lineNum, flags ? *flags : g.flags, seed, SHX_treeGrowParam{},
                  bag, useMarkBits, o.lineDown, o.lineUp, o.rowDown, o.rowUp, &o.lineDownMax, &o.lineUpMax,
                  &o.rowDownMax, &o.rowUpMax);
}

// "idx{line.pt tT cC fF ...}" per entry: compact and readable in failures.
std::string show(const std::vector<SHX_lineConotours>& v) {
    std::ostringstream s;
    for (const SHX_lineConotours& e : v) {
        s << e.lineIdx << "{";
        for (size_t r = 0; r < e.contourPts.size(); ++r) {
            const SHX_contourPtInfo& p = e.contourPts[r];
            s << (r ? " " : "") << p.lineIdx << "." << p.ptIdx << " t" << p.ptType << " c" << p.contourIdx << " f"
              << p.ptFlag;
        }
        s << "} ";
    }
    return s.str();
}

SHX_lineConotours sentinel(int idx) {
    SHX_lineConotours e;
    e.lineIdx = idx;
    e.contourPts.resize(1);
    e.contourPts[0].contourIdx = 77;
    return e;
}

// 7 lines x 12 points, seed at line 3, point 5.
constexpr int kL = 7, kN = 12, kSX = 3, kSY = 5;

// One point of a hand-built scan: along-line type, cross-line type, mark bits, contour index.
struct Edit {
    int i, k, along, cross, mark, contour;
};

struct Case {
    const char* what;
    int points, seedY;
    double seedValue, bagL;
    bool markBits;
    std::vector<Edit> edits;
    std::array<const char*, 4> want;  // lineDown, lineUp, rowDown, rowUp; nullptr: not checked
    std::array<int, 4> maxima;        // likewise; -1: not checked
};

}  // namespace

TEST(PeakXYScan, HandBuiltScans) {
    const char* any = nullptr;
    const std::vector<Case> cases = {
        {"along a line: 3 recorded flagged toward lower, 4 toward higher; 1, 2, 6, 7, 8 end the walk; a typed "
         "point without contour index is passed unrecorded but still ends it",
         kN, kSY, 0, 100, false,
         {{3, 3, 3, 0, 0, 4}, {3, 2, 6, 0, 0, 4}, {3, 0, 1, 0, 0, 4}, {3, 7, 4, 0, 0, 2}, {3, 9, 2, 0, 0, 2},
          {3, 11, 7, 0, 0, 2}, {1, 3, 4, 0, 0, 3}, {1, 2, 1, 0, 0, 3}, {1, 8, 3, 0, 0, 3}, {1, 10, 7, 0, 0, 3},
          {5, 1, 2, 0, 0, 1}, {5, 0, 3, 0, 0, 1}, {5, 9, 8, 0, 0, 1}, {5, 10, 3, 0, 0, 1}, {6, 2, 3, 0, 0, 0},
          {6, 1, 1, 0, 0, 0}, {6, 0, 3, 0, 0, 9}},
         {"1{1.3 t4 c3 f0 1.2 t1 c3 f1} 3{3.3 t3 c4 f1 3.2 t6 c4 f0} 5{5.1 t2 c1 f0} ",
          "1{1.8 t3 c3 f0 1.10 t7 c3 f0} 3{3.7 t4 c2 f1 3.9 t2 c2 f1} 5{5.9 t8 c1 f0} ", any, any},
         {4, 3, -1, -1}},
        {"either along-line end marker (5, 6) ends either walk, the across markers (7, 8) do not; mark bits on a "
         "type-0 point make a type-8 point with marker 5 / 6; on a typed point they change nothing",
         kN, kSY, 0, 100, true,
         {{2, 3, 3, 0, 0, 6}, {2, 1, 3, 0, 0, 4}, {2, 7, 3, 0, 0, 5}, {2, 9, 3, 0, 0, 4}, {4, 2, 3, 0, 0, 7},
          {4, 1, 3, 0, 0, 8}, {4, 0, 6, 0, 0, 4}, {0, 2, 0, 0, 0x10, 0}, {0, 1, 3, 0, 0, 4}, {0, 9, 0, 0, 0x80, 2},
          {6, 3, 3, 0, 0x01, 2}, {6, 1, 1, 0, 0, 2}},
         {"0{0.2 t8 c5 f0} 2{2.3 t3 c6 f1} 4{4.2 t3 c7 f1 4.1 t3 c8 f1 4.0 t6 c4 f0} 6{6.3 t3 c2 f1 6.1 t1 c2 f1} ",
          "0{0.9 t8 c6 f0} 2{2.7 t3 c5 f0} ", any, any},
         {8, 6, -1, -1}},
        {"contour points at or beside the seed index end the walk unrecorded; two away they are recorded", kN, kSY,
         0, 100, false,
         {{1, 4, 3, 0, 0, 4}, {1, 2, 3, 0, 0, 4}, {1, 7, 3, 0, 0, 4}, {2, 5, 3, 0, 0, 4}, {2, 3, 3, 0, 0, 4},
          {2, 7, 3, 0, 0, 4}, {4, 6, 3, 0, 0, 4}, {4, 8, 3, 0, 0, 4}, {4, 3, 3, 0, 0, 4}, {5, 4, 3, 0, 0, 0},
          {5, 3, 3, 0, 0, 4}},
         {"4{4.3 t3 c4 f1} 5{5.3 t3 c4 f1} ", "1{1.7 t3 c4 f0} ", any, any},
         {-1, -1, -1, -1}},
        {"limit bagL - 0.5 value = 3: a point 3 away is recorded, 4 away ends the walk; lines more than 3 away in x "
         "are outside the window; a skipped type-0 point 4 away still looks ahead and its abort discards line 4",
         kN, kSY, 2.0, 4.0, false,
         {{3, 2, 3, 0, 0, 4}, {3, 1, 3, 0, 0, 4}, {3, 0, 3, 0, 0, 4}, {3, 9, 3, 0, 0, 4}, {2, 2, 3, 0, 0, 1},
          {2, 7, 3, 0, 0, 1}, {1, 2, 3, 0, 0, 1}, {4, 1, 0, 1, 0, 0}, {4, 7, 3, 0, 0, 1}},
         {"2{2.2 t3 c1 f1} 3{3.2 t3 c4 f1} ", "2{2.7 t3 c1 f0} ", any, any},
         {-1, -1, -1, -1}},
        {"a negative limit scans nothing, not even the seed line, and zeroes the maxima", kN, kSY, 8.2, 4.0, false,
         {{3, 2, 3, 0, 0, 4}, {3, 9, 3, 0, 0, 4}, {1, 5, 0, 3, 0, 4}},
         {"", "", "", ""},
         {0, 0, 0, 0}},
        {"look-ahead: a skipped point with cross type 1 finds a type within five points (the fourth ahead)",
         kN + 4, kSY + 4, 0, 100, false,
         {{2, 8, 0, 1, 0, 0}, {2, 4, 3, 0, 0, 4}, {2, 0, 6, 0, 0, 4}, {1, 0, 6, 0, 0, 4}, {3, 0, 6, 0, 0, 4}},
         {"1{1.0 t6 c4 f0} 2{2.4 t3 c4 f1 2.0 t6 c4 f0} 3{3.0 t6 c4 f0} ", any, any, any},
         {-1, -1, -1, -1}},
        {"look-ahead: the fifth point ahead is too far; the abort ends the backward part", kN + 4, kSY + 4, 0, 100,
         false,
         {{2, 8, 0, 1, 0, 0}, {2, 3, 3, 0, 0, 4}, {2, 0, 6, 0, 0, 4}, {1, 0, 6, 0, 0, 4}, {3, 0, 6, 0, 0, 4}},
         {"3{3.0 t6 c4 f0} ", any, any, any},
         {-1, -1, -1, -1}},
        {"look-ahead: cross types other than 1 and 2 do not look ahead", kN + 4, kSY + 4, 0, 100, false,
         {{2, 8, 0, 3, 0, 0}, {2, 3, 3, 0, 0, 4}, {2, 0, 6, 0, 0, 4}, {1, 0, 6, 0, 0, 4}, {3, 0, 6, 0, 0, 4}},
         {"1{1.0 t6 c4 f0} 2{2.3 t3 c4 f1 2.0 t6 c4 f0} 3{3.0 t6 c4 f0} ", any, any, any},
         {-1, -1, -1, -1}},
        {"look-ahead running out of the line aborts line 5 and ends the forward part; line ends are never skipped",
         kN, kSY, 0, 100, false,
         {{5, 2, 0, 1, 0, 0}, {4, 9, 3, 0, 0, 1}, {5, 9, 3, 0, 0, 1}, {6, 9, 3, 0, 0, 1}, {1, 0, 0, 1, 0, 0},
          {1, 11, 0, 2, 0, 0}, {1, 9, 3, 0, 0, 2}},
         {any, "1{1.9 t3 c2 f0} 4{4.9 t3 c1 f0} ", any, any},
         {-1, 2, -1, -1}},
        {"an abort ends only its part of the sweep: line 2 (backward X part) and row 3 (backward Y part)", kN, kSY, 0,
         100, false,
         {{3, 1, 3, 0, 0, 2}, {2, 1, 3, 0, 0, 6}, {2, 8, 0, 2, 0, 0}, {1, 1, 3, 0, 0, 2}, {4, 1, 3, 0, 0, 3},
          {0, 5, 0, 3, 0, 2}, {0, 4, 0, 3, 0, 2}, {5, 3, 1, 0, 0, 0}, {0, 3, 0, 3, 0, 2}, {0, 2, 0, 3, 0, 2},
          {0, 6, 0, 3, 0, 2}, {0, 10, 0, 3, 0, 2}},
         {"3{3.1 t3 c2 f1} 4{4.1 t3 c3 f1} ", any, "4{0.4 t3 c2 f1} 5{0.5 t3 c2 f1} 6{0.6 t3 c2 f1} 10{0.10 t3 c2 f1} ",
          any},
         {3, -1, -1, -1}},
        {"across lines: the cross type counts, not the along type; 5 and 6 do not end it, 7 and 8 do; beside the "
         "seed line ends it; a marked point becomes type 8 with marker 8",
         kN, kSY, 0, 100, true,
         {{2, 7, 3, 0, 0, 4}, {1, 7, 0, 4, 0, 8}, {0, 7, 0, 3, 0, 4}, {5, 7, 0, 4, 0, 5}, {6, 7, 0, 3, 0, 7},
          {2, 2, 0, 3, 0, 4}, {0, 2, 0, 3, 0, 4}, {5, 2, 0, 0, 0x04, 0}, {1, 9, 0, 2, 0, 3}, {0, 9, 0, 3, 0, 3},
          {6, 9, 0, 1, 0, 3}},
         {any, any, "7{1.7 t4 c8 f0} 9{1.9 t2 c3 f0} ",
          "2{5.2 t8 c8 f0} 7{5.7 t4 c5 f1 6.7 t3 c7 f0} 9{6.9 t1 c3 f0} "},
         {-1, -1, 8, 8}},
    };
    for (const Case& c : cases) {
        Grid g(kL, c.points);
        g.enable(kSX, c.seedY);
        for (const Edit& e : c.edits) {
            g.along(e.i, e.k, e.along);
            g.cross(e.i, e.k, e.cross);
            g.mark(e.i, e.k, e.mark);
            g.contour(e.i, e.k, e.contour);
        }
        Out o;
        run(g, seedAt(kSX, c.seedY, c.seedValue), c.bagL, c.markBits, o);
        const std::vector<SHX_lineConotours>* got[4] = {&o.lineDown, &o.lineUp, &o.rowDown, &o.rowUp};
        const int32_t maxima[4] = {o.lineDownMax, o.lineUpMax, o.rowDownMax, o.rowUpMax};
        for (int k = 0; k < 4; ++k) {
            if (c.want[k]) EXPECT_EQ(show(*got[k]), c.want[k]) << c.what;
            if (c.maxima[k] >= 0) EXPECT_EQ(maxima[k], c.maxima[k]) << c.what;
        }
    }
}

TEST(PeakXYScan, WalksReadTheFirstLinesPointCount) {
    Grid g(kL, kN + 1);
    g.enable(kSX, kSY);
    g.scan[0].pop_back();  // the first line has kN points: every line is read with kN
    for (int k : {kN - 1, kN}) {
        g.along(2, k, 3), g.contour(2, k, 4);
        g.cross(6, k, 3), g.contour(6, k, 4);
    }
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineUp), "2{2.11 t3 c4 f0} ");
    EXPECT_EQ(show(o.rowUp), "11{6.11 t3 c4 f0} ");
}

TEST(PeakXYScan, UnflaggedOrOutOfContractSeedTouchesNothing) {
    Grid g(kL, kN);
    g.along(kSX, 1, 3), g.contour(kSX, 1, 4);
    g.enable(kSX, kSY);
    g.flags.at<cv::Vec4i>(kSY + 1, kSX) = cv::Vec4i(9, 9, 9, 0);  // elements 0..2 set do not count
    Grid shortLine = g;
    shortLine.scan[5].resize(kN - 1);  // a line shorter than the first
    const cv::Mat wrongType(kN, kL, CV_32SC1, cv::Scalar::all(1)), tooFewRows(kN - 1, kL, CV_32SC4, cv::Scalar::all(1)),
        tooFewCols(kN, kL - 1, CV_32SC4, cv::Scalar::all(1)), empty;
    struct Call {
        Grid* grid;
        SHX_2DValueI seed;
        int lineNum;
        const cv::Mat* flags;
    };
    const std::vector<Call> calls = {
        {&g, seedAt(kSX, kSY + 1), -1, nullptr}, {&g, seedAt(-1, kSY), -1, nullptr},
        {&g, seedAt(kL, kSY), -1, nullptr},      {&g, seedAt(kSX, -1), -1, nullptr},
        {&g, seedAt(kSX, kN), -1, nullptr},      {&g, seedAt(kSX, kSY), -1, &wrongType},
        {&g, seedAt(kSX, kSY), -1, &tooFewRows}, {&g, seedAt(kSX, kSY), -1, &tooFewCols},
        {&g, seedAt(kSX, kSY), -1, &empty},      {&shortLine, seedAt(kSX, kSY), -1, nullptr},
        {&g, seedAt(kSX, kSY), 0, nullptr},
    };
    for (size_t k = 0; k < calls.size(); ++k) {
        Out o;
        o.lineDown.push_back(sentinel(50));
        run(*calls[k].grid, calls[k].seed, 100.0, false, o, calls[k].lineNum, calls[k].flags);
        EXPECT_EQ(show(o.lineDown), "50{0.0 t0 c77 f0} ") << "call " << k;
        EXPECT_TRUE(o.lineUp.empty() && o.rowDown.empty() && o.rowUp.empty()) << "call " << k;
        EXPECT_EQ(std::vector<int>({o.lineDownMax, o.lineUpMax, o.rowDownMax, o.rowUpMax}), std::vector<int>(4, -7));
    }
    Out o;  // the same call in contract does scan
    o.lineDown.push_back(sentinel(50));
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineDown), "3{3.1 t3 c4 f1} 50{0.0 t0 c77 f0} ");
}

namespace {

int bitsOf(const SKesp3DPosition& p, int shift, int mask) { return static_cast<int>((p.nPointIdx >> shift) & mask); }

struct PlainScan {
    const std::vector<std::vector<SKesp3DPosition>>& scan;
    const cv::Mat& flags;
    SHX_2DValueI seed;
    double limit;
    bool useMarkBits;
    bool abort = false;
    int aborts = 0;

    // One walk; `acrossLines` exchanges the axes. Written step by step.
    std::vector<SHX_contourPtInfo> scanWalk(bool acrossLines, int fixed, bool down) {
        std::vector<SHX_contourPtInfo> out;
        const int n = acrossLines ? static_cast<int>(scan.size()) : static_cast<int>(scan[0].size());
        const int start = acrossLines ? seed.x : seed.y;
        const int ownShift = acrossLines ? 4 : 0, otherShift = acrossLines ? 0 : 4;
        const SKesp3DPosition& S = scan[seed.x][seed.y];
        auto pointAt = [&](int k) -> const SKesp3DPosition& { return acrossLines ? scan[k][fixed] : scan[fixed][k]; };
        SHX_contourPtInfo prev{};
        for (int k = start; down ? k >= 0 : k <= n - 1; k += down ? -1 : 1) {
            const SKesp3DPosition& P = pointAt(k);
            int t = bitsOf(P, ownShift, 0xF);
            int c = acrossLines ? flags.at<cv::Vec4i>(fixed, k)[0] : flags.at<cv::Vec4i>(k, fixed)[0];
            double d = acrossLines ? std::fabs(S.x - P.x) : std::fabs(S.y - P.y);
            bool markRule = useMarkBits && bitsOf(P, 8, 0xFF) != 0;
            if (t == 0 && k != 0 && k != n - 1 && !markRule) {
                int other = bitsOf(P, otherShift, 0xF);
                if (other == 1 || other == 2) {
                    bool found = false;
                    for (int m = 0; m < 5; ++m) {
                        int q = down ? k - m : k + m;
                        if (q < 0 || q > n - 1) break;
                        if (bitsOf(pointAt(q), ownShift, 0xF) != 0) {
                            found = true;
                            break;
                        }
                    }
                    if (!found) {
                        abort = true;
                        return out;
                    }
                }
                prev = SHX_contourPtInfo{};
                continue;
            }
            int flag;
            if (t == 0 && markRule) {
                t = 8;
                flag = 0;
                c = acrossLines ? (down ? 7 : 8) : (down ? 5 : 6);
            } else {
                flag = down ? (t == 1 || t == 3) : (t == 2 || t == 4);
            }
            if (d > limit) return out;
            SHX_contourPtInfo r;
            r.lineIdx = acrossLines ? k : fixed;
            r.ptIdx = acrossLines ? fixed : k;
            r.ptType = t;
            r.contourIdx = c;
            r.ptFlag = flag;
            r.seedDist = d;
            r.x = P.x;
            r.y = P.y;
            r.z = P.z;
            bool ends = t == 1 || t == 2 || t == 6 || t == 7 || t == 8 ||
                        (acrossLines ? (c == 7 || c == 8) : (c == 5 || c == 6));
            if (t != 0 && c > 0) {
                if (down ? k >= start - 1 : k <= start + 1) return out;
                bool jump = acrossLines ? (prev.ptType == 1 && t == 1)
                                        : ((prev.ptType == 1 || prev.ptType == 2) && (t == 1 || t == 2));
                if (jump && std::fabs(prev.seedDist - d) > 100.0) {
                    abort = true;
                    return out;
                }
                out.push_back(r);
            }
            if (ends) return out;
            prev = r;
        }
        return out;
    }

    void sweep(bool acrossLines, Out& o) {
        auto& down = acrossLines ? o.rowDown : o.lineDown;
        auto& up = acrossLines ? o.rowUp : o.lineUp;
        int32_t& downMax = acrossLines ? o.rowDownMax : o.lineDownMax;
        int32_t& upMax = acrossLines ? o.rowUpMax : o.lineUpMax;
        downMax = upMax = 0;
        const int n = acrossLines ? static_cast<int>(scan[0].size()) : static_cast<int>(scan.size());
        const int start = acrossLines ? seed.y : seed.x;
        for (int backward = 1; backward >= 0; --backward) {
            for (int i = backward ? start : start + 1; backward ? i >= 0 : i < n; i += backward ? -1 : 1) {
                double off = acrossLines ? std::fabs(scan[seed.x][i].y - scan[seed.x][seed.y].y)
                                         : std::fabs(scan[i][seed.y].x - scan[seed.x][seed.y].x);
                if (off > limit) break;
                abort = false;
                auto a = scanWalk(acrossLines, i, true);
                auto b = scanWalk(acrossLines, i, false);
                if (abort) {
                    ++aborts;
                    break;
                }
                for (auto& r : a) downMax = std::max(downMax, r.contourIdx);
                for (auto& r : b) upMax = std::max(upMax, r.contourIdx);
                if (!a.empty()) down.insert(backward ? down.begin() : down.end(), SHX_lineConotours{i, a});
                if (!b.empty()) up.insert(backward ? up.begin() : up.end(), SHX_lineConotours{i, b});
            }
        }
    }
};

void expectSameRecords(const std::vector<SHX_lineConotours>& got, const std::vector<SHX_lineConotours>& want) {
    ASSERT_EQ(show(got), show(want));
    for (size_t e = 0; e < got.size(); ++e) {
        for (size_t r = 0; r < got[e].contourPts.size(); ++r) {
            const auto &a = got[e].contourPts[r], &b = want[e].contourPts[r];
            EXPECT_TRUE(a.seedDist == b.seedDist && a.x == b.x && a.y == b.y && a.z == b.z);
        }
    }
}

}  // namespace

TEST(PeakXYScan, MatchesAPlainVersionOnRandomScans) {
    testutil::Rng rng(9);
    auto randomType = [&rng](int zeroPercent) {
        return rng.integer(0, 99) < zeroPercent ? 0 : static_cast<int>(rng.integer(1, 9));
    };
    int nonEmpty = 0, aborted = 0;
    for (int trial = 0; trial < 3000; ++trial) {
        const int L = static_cast<int>(rng.integer(1, 9)), N = static_cast<int>(rng.integer(1, 14));
        Grid g(L, N);
        const int zeroPercent = static_cast<int>(rng.integer(50, 95));
        for (int i = 0; i < L; ++i) {
            for (int k = 0; k < N; ++k) {
                SKesp3DPosition& p = g.scan[i][k];
                p.x += rng.uniform(-0.3, 0.3);
                p.y += rng.uniform(-0.3, 0.3);
                g.along(i, k, randomType(zeroPercent));
                g.cross(i, k, randomType(zeroPercent));
                if (rng.integer(0, 9) == 0) g.mark(i, k, static_cast<int>(rng.integer(1, 255)));
                if (rng.integer(0, 9) < 4) g.contour(i, k, static_cast<int>(rng.integer(-1, 9)));
            }
        }
        const SHX_2DValueI seed = seedAt(static_cast<int>(rng.integer(0, L - 1)), static_cast<int>(rng.integer(0, N - 1)),
                                         rng.uniform(0.0, 4.0));
        g.enable(seed.x, seed.y);
        const double bagL = rng.uniform(0.0, 14.0);
        const bool useMarkBits = rng.integer(0, 1) == 1;
        Out got, want;
        for (Out* o : {&got, &want}) {
            o->lineDown = {sentinel(100)};
            o->rowUp = {sentinel(101), sentinel(102)};
        }
        run(g, seed, bagL, useMarkBits, got);
        PlainScan plain{g.scan, g.flags, seed, bagL - 0.5 * seed.value, useMarkBits};
        plain.sweep(false, want);
        plain.sweep(true, want);
        SCOPED_TRACE("trial " + std::to_string(trial));
        expectSameRecords(got.lineDown, want.lineDown);
        expectSameRecords(got.lineUp, want.lineUp);
        expectSameRecords(got.rowDown, want.rowDown);
        expectSameRecords(got.rowUp, want.rowUp);
        ASSERT_EQ(got.lineDownMax, want.lineDownMax);
        ASSERT_EQ(got.lineUpMax, want.lineUpMax);
        ASSERT_EQ(got.rowDownMax, want.rowDownMax);
        ASSERT_EQ(got.rowUpMax, want.rowUpMax);
        nonEmpty += got.lineDown.size() + got.lineUp.size() + got.rowDown.size() + got.rowUp.size() > 3;
        aborted += plain.aborts;
    }
    // The random scans must exercise the rules, not just return empty.
    EXPECT_GT(nonEmpty, 1000);
    EXPECT_GT(aborted, 500);
}
