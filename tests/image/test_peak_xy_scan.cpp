// Peak XY scan: hand-built scans for each rule of the walks and the sweeps, and
// an identity test against a plain version written step by step.
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
    // An edge point of a contour along its line / across the lines.
    void alongEdge(int i, int k, int t, int c) { along(i, k, t), contour(i, k, c); }
    void crossEdge(int i, int k, int t, int c) { cross(i, k, t), contour(i, k, c); }
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

// 7 lines x 12 points, seed at line 3, point 5; window 100 (everything).
constexpr int kL = 7, kN = 12, kSX = 3, kSY = 5;

}  // namespace

// ---------------------------------------------------------------------------
// Entry conditions
// ---------------------------------------------------------------------------

TEST(PeakXYScan, UnflaggedOrOutOfContractSeedTouchesNothing) {
    Grid g(kL, kN);
    g.alongEdge(kSX, 1, 3, 4);
    g.enable(kSX, kSY);
    Out fresh;
    fresh.lineDown.push_back(sentinel(50));
    auto expectUntouched = [&](const Out& o) {
        EXPECT_EQ(show(o.lineDown), "50{0.0 t0 c77 f0} ");
        EXPECT_TRUE(o.lineUp.empty() && o.rowDown.empty() && o.rowUp.empty());
        EXPECT_EQ(o.lineDownMax, -7);
        EXPECT_EQ(o.lineUpMax, -7);
        EXPECT_EQ(o.rowDownMax, -7);
        EXPECT_EQ(o.rowUpMax, -7);
    };
    {  // element 3 of the seed pixel is 0 (elements 0..2 set do not count)
        Out o = fresh;
        g.flags.at<cv::Vec4i>(kSY + 1, kSX) = cv::Vec4i(9, 9, 9, 0);
        run(g, seedAt(kSX, kSY + 1), 100.0, false, o);
        expectUntouched(o);
    }
    for (auto s : {seedAt(-1, kSY), seedAt(kL, kSY), seedAt(kSX, -1), seedAt(kSX, kN)}) {
        Out o = fresh;
        run(g, s, 100.0, false, o);
        expectUntouched(o);
    }
    {  // flag image of the wrong type or too small: not read, nothing touched
        cv::Mat wrongType(kN, kL, CV_32SC1, cv::Scalar::all(1));
        cv::Mat tooFewRows(kN - 1, kL, CV_32SC4, cv::Scalar::all(1));
        cv::Mat tooFewCols(kN, kL - 1, CV_32SC4, cv::Scalar::all(1));
        cv::Mat empty;
        for (const cv::Mat* m : {&wrongType, &tooFewRows, &tooFewCols, &empty}) {
            Out o = fresh;
            run(g, seedAt(kSX, kSY), 100.0, false, o, -1, m);
            expectUntouched(o);
        }
    }
    {  // a line shorter than the first, or no lines at all
        Grid h = g;
        h.scan[5].resize(kN - 1);
        Out o = fresh;
        run(h, seedAt(kSX, kSY), 100.0, false, o);
        expectUntouched(o);
        run(g, seedAt(kSX, kSY), 100.0, false, o, 0);
        expectUntouched(o);
    }
    Out o = fresh;  // the same call in contract does scan
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineDown), "3{3.1 t3 c4 f1} 50{0.0 t0 c77 f0} ");
}

TEST(PeakXYScan, UntypedScanRecordsNothingAndZeroesTheMaxima) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    for (int i = 0; i < kL; ++i)
        for (int k = 0; k < kN; ++k) g.contour(i, k, 3);  // contour indices alone make no contour point
    Out o;
    o.rowUp.push_back(sentinel(40));
    run(g, seedAt(kSX, kSY), 100.0, true, o);
    EXPECT_TRUE(o.lineDown.empty() && o.lineUp.empty() && o.rowDown.empty());
    EXPECT_EQ(show(o.rowUp), "40{0.0 t0 c77 f0} ");
    EXPECT_EQ(o.lineDownMax, 0);
    EXPECT_EQ(o.lineUpMax, 0);
    EXPECT_EQ(o.rowDownMax, 0);
    EXPECT_EQ(o.rowUpMax, 0);
}

// ---------------------------------------------------------------------------
// Walk along a line
// ---------------------------------------------------------------------------

TEST(PeakXYScan, AlongLineTypesFlagsAndEnds) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    // Line 3, toward lower indices: 3 is recorded and passed, 6 ends the walk,
    // the type-1 point beyond it is never reached.
    g.alongEdge(3, 3, 3, 4);
    g.alongEdge(3, 2, 6, 4);
    g.alongEdge(3, 0, 1, 4);
    // Line 3, toward higher indices: 4 is recorded (flagged), 2 ends the walk.
    g.alongEdge(3, 7, 4, 2);
    g.alongEdge(3, 9, 2, 2);
    g.alongEdge(3, 11, 7, 2);
    // Line 1: 1 ends toward lower (flagged); 7 ends toward higher; a type-4
    // point toward lower is recorded unflagged, a type-3 toward higher likewise.
    g.alongEdge(1, 3, 4, 3);
    g.alongEdge(1, 2, 1, 3);
    g.alongEdge(1, 8, 3, 3);
    g.alongEdge(1, 10, 7, 3);
    // Line 5: 2 toward lower ends the walk, unflagged; 8 (a stored type) ends toward higher.
    g.alongEdge(5, 1, 2, 1);
    g.alongEdge(5, 0, 3, 1);
    g.alongEdge(5, 9, 8, 1);
    g.alongEdge(5, 10, 3, 1);
    // A typed point without contour index is passed unrecorded but still ends the walk.
    g.along(6, 2, 3);
    g.along(6, 1, 1);
    g.alongEdge(6, 0, 3, 9);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineDown), "1{1.3 t4 c3 f0 1.2 t1 c3 f1} 3{3.3 t3 c4 f1 3.2 t6 c4 f0} 5{5.1 t2 c1 f0} ");
    EXPECT_EQ(show(o.lineUp), "1{1.8 t3 c3 f0 1.10 t7 c3 f0} 3{3.7 t4 c2 f1 3.9 t2 c2 f1} 5{5.9 t8 c1 f0} ");
    EXPECT_EQ(o.lineDownMax, 4);
    EXPECT_EQ(o.lineUpMax, 3);
    // The record carries the point's coordinates and its distance along the line.
    const SHX_contourPtInfo& r = o.lineDown[1].contourPts[0];
    EXPECT_EQ(r.seedDist, 2.0 * kPointGap);
    EXPECT_EQ(r.x, 3 * kLineGap);
    EXPECT_EQ(r.y, 3 * kPointGap);
    EXPECT_EQ(r.z, 13.0);
}

TEST(PeakXYScan, AlongLineEndMarkersAndMarkBits) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    // Either along-line marker ends either walk; the across markers do not.
    g.alongEdge(2, 3, 3, 6);
    g.alongEdge(2, 1, 3, 4);
    g.alongEdge(2, 7, 3, 5);
    g.alongEdge(2, 9, 3, 4);
    g.alongEdge(4, 2, 3, 7);
    g.alongEdge(4, 1, 3, 8);
    g.alongEdge(4, 0, 6, 4);
    // Mark bits on a type-0 point make a type-8 point with marker 5 / 6.
    g.mark(0, 2, 0x10);
    g.alongEdge(0, 1, 3, 4);
    g.mark(0, 9, 0x80);
    g.contour(0, 9, 2);
    // Mark bits on a typed point change nothing.
    g.mark(6, 3, 0x01);
    g.alongEdge(6, 3, 3, 2);
    g.alongEdge(6, 1, 1, 2);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, true, o);
    EXPECT_EQ(show(o.lineDown), "0{0.2 t8 c5 f0} 2{2.3 t3 c6 f1} 4{4.2 t3 c7 f1 4.1 t3 c8 f1 4.0 t6 c4 f0} "
                                "6{6.3 t3 c2 f1 6.1 t1 c2 f1} ");
    EXPECT_EQ(show(o.lineUp), "0{0.9 t8 c6 f0} 2{2.7 t3 c5 f0} ");
    EXPECT_EQ(o.lineDownMax, 8);
    EXPECT_EQ(o.lineUpMax, 6);
    // Without the mark-bit rule the marked points are plain type-0 points.
    Out plain;
    run(g, seedAt(kSX, kSY), 100.0, false, plain);
    EXPECT_EQ(show(plain.lineDown), "0{0.1 t3 c4 f1} 2{2.3 t3 c6 f1} 4{4.2 t3 c7 f1 4.1 t3 c8 f1 4.0 t6 c4 f0} "
                                    "6{6.3 t3 c2 f1 6.1 t1 c2 f1} ");
    EXPECT_EQ(show(plain.lineUp), "2{2.7 t3 c5 f0} ");
}

TEST(PeakXYScan, ContourPointsAtOrBesideTheSeedEndTheWalkUnrecorded) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    g.alongEdge(1, kSY - 1, 3, 4);  // beside the seed toward lower indices
    g.alongEdge(1, kSY - 3, 3, 4);  // never reached
    g.alongEdge(1, kSY + 2, 3, 4);  // two away toward higher: recorded
    g.alongEdge(2, kSY, 3, 4);      // at the seed index: ends both walks
    g.alongEdge(2, kSY - 2, 3, 4);
    g.alongEdge(2, kSY + 2, 3, 4);
    g.alongEdge(4, kSY + 1, 3, 4);  // beside the seed toward higher indices
    g.alongEdge(4, kSY + 3, 3, 4);
    g.alongEdge(4, kSY - 2, 3, 4);  // two away toward lower: recorded
    g.along(5, kSY - 1, 3);         // typed but without contour index: passed
    g.alongEdge(5, kSY - 2, 3, 4);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineDown), "4{4.3 t3 c4 f1} 5{5.3 t3 c4 f1} ");
    EXPECT_EQ(show(o.lineUp), "1{1.7 t3 c4 f0} ");
}

TEST(PeakXYScan, DistanceLimitAndWindow) {
    // limit = bagL - 0.5 * value = 3.0: along a line a point 3 away is
    // recorded, one 4 away ends the walk; lines more than 3 away in x (1.5
    // lines) are outside the window.
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    g.alongEdge(3, 2, 3, 4);  // d = 3
    g.alongEdge(3, 1, 3, 4);  // d = 4: ends the walk
    g.alongEdge(3, 0, 3, 4);
    g.alongEdge(3, 9, 3, 4);  // d = 4 toward higher
    g.alongEdge(2, 2, 3, 1);  // x distance 2: inside
    g.alongEdge(2, 7, 3, 1);
    g.alongEdge(1, 2, 3, 1);  // x distance 4: outside the window
    // Type-0 points are skipped before the distance test: a skipped point 4
    // away still looks ahead, and its abort discards line 4's other walk.
    g.cross(4, 1, 1);
    g.alongEdge(4, 7, 3, 1);
    Out o;
    run(g, seedAt(kSX, kSY, 2.0), 4.0, false, o);
    EXPECT_EQ(show(o.lineDown), "2{2.2 t3 c1 f1} 3{3.2 t3 c4 f1} ");
    EXPECT_EQ(show(o.lineUp), "2{2.7 t3 c1 f0} ");

    // A negative limit scans nothing, not even the seed line; the maxima are reset.
    Out none;
    run(g, seedAt(kSX, kSY, 8.2), 4.0, false, none);
    EXPECT_TRUE(none.lineDown.empty() && none.lineUp.empty() && none.rowDown.empty() && none.rowUp.empty());
    EXPECT_EQ(none.lineDownMax + none.lineUpMax + none.rowDownMax + none.rowUpMax, 0);
    // A limit of 0 keeps only the seed's own coordinate: the seed line, no point.
    Out zero;
    g.alongEdge(3, kSY - 2, 3, 4);
    run(g, seedAt(kSX, kSY, 8.0), 4.0, false, zero);
    EXPECT_TRUE(zero.lineDown.empty());
}

TEST(PeakXYScan, WalksReadTheFirstLinesPointCount) {
    Grid g(kL, kN + 1);
    g.enable(kSX, kSY);
    g.scan[0].pop_back();  // the first line has kN points: every line is read with kN
    g.alongEdge(2, kN - 1, 3, 4);
    g.alongEdge(2, kN, 3, 4);
    g.crossEdge(6, kN - 1, 3, 4);
    g.crossEdge(6, kN, 3, 4);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineUp), "2{2.11 t3 c4 f0} ");
    EXPECT_EQ(show(o.rowUp), "11{6.11 t3 c4 f0} ");
}

// ---------------------------------------------------------------------------
// Look-ahead and aborts
// ---------------------------------------------------------------------------

TEST(PeakXYScan, LookAheadFindsATypeWithinFivePoints) {
    // A skipped point with cross-line type 1 or 2 looks at itself and the next
    // four points of the walk; a typed point among them lets the walk go on.
    auto lineDownOf = [](int typedAt, int crossType) {
        Grid g(kL, kN + 4);
        g.enable(kSX, kSY + 4);
        g.cross(2, 8, crossType);
        g.alongEdge(2, typedAt, 3, 4);
        g.alongEdge(2, 0, 6, 4);
        g.alongEdge(1, 0, 6, 4);  // beyond an abort on line 2: never walked
        g.alongEdge(3, 0, 6, 4);  // before it: stays
        Out o;
        run(g, seedAt(kSX, kSY + 4), 100.0, false, o);
        return show(o.lineDown);
    };
    EXPECT_EQ(lineDownOf(4, 1), "1{1.0 t6 c4 f0} 2{2.4 t3 c4 f1 2.0 t6 c4 f0} 3{3.0 t6 c4 f0} ")
        << "fourth point ahead";
    EXPECT_EQ(lineDownOf(3, 1), "3{3.0 t6 c4 f0} ") << "fifth point ahead: abort ends the backward part";
    EXPECT_EQ(lineDownOf(3, 2), "3{3.0 t6 c4 f0} ");
    EXPECT_EQ(lineDownOf(3, 3), "1{1.0 t6 c4 f0} 2{2.3 t3 c4 f1 2.0 t6 c4 f0} 3{3.0 t6 c4 f0} ")
        << "cross-line types other than 1 and 2 do not look ahead";
}

TEST(PeakXYScan, LookAheadRunningOutOfTheLineAborts) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    g.cross(5, 2, 1);  // toward lower: 2, 1, 0 (untyped), then the line runs out
    g.alongEdge(4, 9, 3, 1);
    g.alongEdge(5, 9, 3, 1);
    g.alongEdge(6, 9, 3, 1);
    // Ends of the line are never skipped and so never look ahead.
    g.cross(1, 0, 1);
    g.cross(1, kN - 1, 2);
    g.alongEdge(1, 9, 3, 2);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineUp), "1{1.9 t3 c2 f0} 4{4.9 t3 c1 f0} ")
        << "the abort on line 5 discards its other walk and ends the forward part";
    EXPECT_EQ(o.lineUpMax, 2);
}

TEST(PeakXYScan, AnAbortEndsOnlyItsPartOfTheSweep) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    // Backward X part: line 2 aborts toward higher indices; lines 3 (before)
    // and 4 (forward part) keep their entries, lines 1 and 0 are never walked.
    g.alongEdge(3, 1, 3, 2);
    g.alongEdge(2, 1, 3, 6);  // would raise the down maximum to 6
    g.cross(2, 8, 2);
    g.alongEdge(1, 1, 3, 2);
    g.alongEdge(4, 1, 3, 3);
    // Y sweep, backward part: row 3 aborts across the lines toward higher
    // lines; rows 5 and 4 keep theirs, rows 2.. are lost, rows 6.. forward stay.
    g.crossEdge(0, 5, 3, 2);
    g.crossEdge(0, 4, 3, 2);
    g.along(5, 3, 1);
    g.crossEdge(0, 3, 3, 2);
    g.crossEdge(0, 2, 3, 2);
    g.crossEdge(0, 6, 3, 2);
    g.crossEdge(0, 10, 3, 2);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    EXPECT_EQ(show(o.lineDown), "3{3.1 t3 c2 f1} 4{4.1 t3 c3 f1} ");
    EXPECT_EQ(o.lineDownMax, 3);
    EXPECT_EQ(show(o.rowDown), "4{0.4 t3 c2 f1} 5{0.5 t3 c2 f1} 6{0.6 t3 c2 f1} 10{0.10 t3 c2 f1} ");
}

// ---------------------------------------------------------------------------
// Walk across lines
// ---------------------------------------------------------------------------

TEST(PeakXYScan, AcrossLinesUsesCrossTypesXDistancesAndItsOwnMarkers) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    // Row 7 toward lower lines: the cross-line type counts (the along-line 3
    // does not), 4 is unflagged, 8 ends the walk.
    g.along(2, 7, 3);
    g.contour(2, 7, 4);
    g.crossEdge(1, 7, 4, 8);
    g.crossEdge(0, 7, 3, 4);
    // Row 7 toward higher lines: 5 and 6 do not end an across walk, 7 does.
    g.crossEdge(5, 7, 4, 5);
    g.crossEdge(6, 7, 3, 7);
    // Row 2: beside the seed line ends the walk toward lower lines; toward
    // higher lines a marked point becomes type 8 with marker 8.
    g.crossEdge(2, 2, 3, 4);
    g.crossEdge(0, 2, 3, 4);
    g.mark(5, 2, 0x04);
    // Row 9: type 2 toward lower lines is recorded unflagged and ends; toward
    // higher lines type 1 is recorded unflagged.
    g.crossEdge(1, 9, 2, 3);
    g.crossEdge(0, 9, 3, 3);
    g.crossEdge(6, 9, 1, 3);
    Out o;
    run(g, seedAt(kSX, kSY), 100.0, true, o);
    EXPECT_EQ(show(o.rowDown), "7{1.7 t4 c8 f0} 9{1.9 t2 c3 f0} ");
    EXPECT_EQ(show(o.rowUp), "2{5.2 t8 c8 f0} 7{5.7 t4 c5 f1 6.7 t3 c7 f0} 9{6.9 t1 c3 f0} ");
    EXPECT_EQ(o.rowDownMax, 8);
    EXPECT_EQ(o.rowUpMax, 8);
    EXPECT_EQ(o.rowUp[1].contourPts[0].seedDist, 2.0 * kLineGap);
    // The Y window tests y along the seed line: limit 4 keeps rows 1..9.
    Grid h(kL, kN);
    h.enable(kSX, kSY);
    for (int row : {0, 1, 9, 10}) h.crossEdge(5, row, 3, 4);
    Out w;
    run(h, seedAt(kSX, kSY), 4.0, false, w);
    EXPECT_EQ(show(w.rowUp), "1{5.1 t3 c4 f0} 9{5.9 t3 c4 f0} ");
}

// ---------------------------------------------------------------------------
// Placement around existing entries
// ---------------------------------------------------------------------------

TEST(PeakXYScan, BackwardEntriesGoBeforeAndForwardEntriesAfterExistingOnes) {
    Grid g(kL, kN);
    g.enable(kSX, kSY);
    for (int i = 0; i < kL; ++i) g.alongEdge(i, 1, 3, i + 1);
    for (int k = 0; k < kN; k += 3) g.crossEdge(6, k, 4, 2);
    Out o;
    o.lineDown = {sentinel(90), sentinel(91)};
    o.rowUp = {sentinel(92)};
    run(g, seedAt(kSX, kSY), 100.0, false, o);
    std::string want;
    for (int i = 0; i <= kSX; ++i) want += std::to_string(i) + "{" + std::to_string(i) + ".1 t3 c" + std::to_string(i + 1) + " f1} ";
    want += "90{0.0 t0 c77 f0} 91{0.0 t0 c77 f0} ";
    for (int i = kSX + 1; i < kL; ++i)
        want += std::to_string(i) + "{" + std::to_string(i) + ".1 t3 c" + std::to_string(i + 1) + " f1} ";
    EXPECT_EQ(show(o.lineDown), want);
    EXPECT_EQ(o.lineDownMax, kL) << "the maximum ignores what the vector held";
    EXPECT_EQ(show(o.rowUp), "0{6.0 t4 c2 f1} 3{6.3 t4 c2 f1} 92{0.0 t0 c77 f0} 6{6.6 t4 c2 f1} 9{6.9 t4 c2 f1} ");
}

// ---------------------------------------------------------------------------
// Identity against a plain version on random scans
// ---------------------------------------------------------------------------

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
            EXPECT_EQ(a.seedDist, b.seedDist);
            EXPECT_EQ(a.x, b.x);
            EXPECT_EQ(a.y, b.y);
            EXPECT_EQ(a.z, b.z);
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
