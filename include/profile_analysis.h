// profile_analysis.h - profile-analysis library for line-laser 3-D scanners.
//
// One public header: every record the library exchanges and every exported
// routine. The library is a set of pure functions: no global state, no threads,
// no I/O, no errors of its own. Concurrent calls on different data are safe;
// calls that share an in-place argument or an output vector are not.
//
// Conventions a caller must know
//  - A scan is a sequence of scan lines (profiles); a line is an ordered array
//    of points x, y, z. A point is measured (valid) when z >= 0.0001; a point
//    is invalidated by setting its z to 0.0. Some routines use the strict form
//    z > 0.0001; their comments say so.
//  - Coordinates and distance limits are in the scan's length unit (doubles);
//    line gaps and skip counts count scan lines; angles are in degrees.
//  - 3x3 matrices passed as nine doubles are row-major (entry 3r + k is row r,
//    column k) and multiply points as column vectors.
//  - Images: columns are scan lines (x), rows are point indices (y). In label
//    images 0 is background, 1 foreground never labelled, 2 and up labels.
//  - Output vectors are appended to and never cleared, unless a routine's
//    comment says it replaces its output. Routines that change their inputs in
//    place say so.
#ifndef PROFILE_ANALYSIS_H
#define PROFILE_ANALYSIS_H

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#define PROFILE_ANALYSIS_VERSION_MAJOR 1
#define PROFILE_ANALYSIS_VERSION_MINOR 0
#define PROFILE_ANALYSIS_VERSION_PATCH 0

#if defined(_WIN32)
#  if defined(PROFILE_ANALYSIS_BUILDING)
#    define PA_API __declspec(dllexport)
#  else
#    define PA_API __declspec(dllimport)
#  endif
#else
#  define PA_API __attribute__((visibility("default")))
#endif

// ===========================================================================
// Geometry records
// ===========================================================================

/// One measured point of a profile. z below 0.0001 means "nothing measured".
/// nPointIdx: the point's index within its line (low 32 bits, signed); some
/// detectors rewrite it with the array index, point clustering marks taken
/// points with -1 in the low 32 bits. The high 32 bits are the caller's.
struct SKesp3DPosition {
    int64_t nPointIdx = 0;
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

/// One scan line as a caller-owned array. The attribute fields after
/// nPositionCnt are carried for the caller; no routine reads or writes them.
struct SKesp3DLaserLine {
    SKesp3DPosition* p3DPosition = nullptr;  ///< first point (caller-owned)
    int32_t nPositionCnt = 0;                ///< point count; below 1: empty line
    int32_t nLineIdx = 0;                    ///< caller's line number (attribute)
    int64_t nTimeStamp = 0;                  ///< caller's time stamp (attribute)
    double dEncoderPos = 0.0;                ///< caller's encoder position (attribute)
};

/// A coloured point: single-precision coordinates and a packed colour word that
/// every routine carries unchanged.
struct SKespXYZRGBDPoint {
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;
    uint32_t nRGBD = 0;
};

/// One scan line of coloured points (caller-owned array).
struct SKespXYZRGBDLaserLine {
    SKespXYZRGBDPoint* pXYZRGBD = nullptr;
    int32_t nPositionCnt = 0;
};

/// A free 3-D point.
struct SKesp3DPoint {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

/// An integer pixel or grid position.
struct SKesp2DPoint {
    int32_t x = 0;
    int32_t y = 0;
};

/// A closed interval [min, max]. The empty interval is written {0.0, -1.0};
/// any interval with min > max counts as empty. Default-constructed: {0, 0}.
struct SKespRangeD {
    double min = 0.0;
    double max = 0.0;
};

/// A box: one interval per axis.
struct SKesp3DRangeD {
    SKespRangeD xRange;
    SKespRangeD yRange;
    SKespRangeD zRange;
};

/// Rotation as z-y-x Euler angles in degrees: R = Rz(yaw) * Ry(pitch) * Rx(roll).
struct SHX_EulerAngles {
    double roll = 0.0;   ///< about x
    double pitch = 0.0;  ///< about y
    double yaw = 0.0;    ///< about z
};

/// Result of plane calibration.
struct SHX_planeCalibPara {
    double planeCalib[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};  ///< levelling rotation, row-major
    double planeHeight = 0.0;                            ///< levelled plane height; -1.0 = failed
    double invRMatrix[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};  ///< inverse rotation, row-major
};

// ===========================================================================
// Feature records
// ===========================================================================
//
// Feature type codes (one number space for all detectors; tree growing tests
// them): 1 rising step / down jump, 2 falling step, 3 rising flank, 4 falling
// flank, 5 V shape, 6 segment start, 7 segment end, 8 unused (a type-8 tree
// never grows), 9..12 right-angle kinds, 13 local z minimum / glove arc,
// 14 local z maximum, 15 corner.
// Growing compatibility by tree type: 1 or 3 takes 1 and 3; 2 or 4 takes 2
// and 4; 5 takes 3, 4, 5; 6, 7, 9..15 take only their own type; 0, 8,
// negative and above 15 take nothing.

/// One feature on one scan line.
struct SHX_basicFeature1D {
    int32_t featureType = 0;      ///< type code
    int32_t lineIdx = 0;          ///< scan line of the feature
    SKesp3DPosition featurePos;   ///< the point; nPointIdx = index within its line
    double featureValue = 0.0;    ///< measure of the feature (detector-defined)
};

/// Everything one detector found on one scan line.
struct SHX_lineFeature {
    int32_t lineIdx = 0;
    std::vector<SHX_basicFeature1D> features;  ///< in order along the line
    std::vector<SHX_basicFeature1D> endings;   ///< per segment: type 6 (first point), type 7 (last)
};

/// One feature followed across scan lines.
struct SHX_featureTree {
    int32_t treeState = 0;   ///< 1 growing, 2 closed
    int32_t treeType = 0;    ///< type of the seed (or the majority type, L/V growing)
    int32_t sLineIdx = 0;    ///< line of the seed
    int32_t eLineIdx = 0;    ///< latest line that gave a node
    double treeValue = 0.0;  ///< sum of the nodes' featureValue
    SKespRangeD xRange;      ///< node x extent (after the region step)
    SKespRangeD yRange;      ///< node y extent (after the region step)
    std::vector<SHX_basicFeature1D> treeNodes;  ///< in line order, at most one per line
};

/// How features are linked into trees.
struct SHX_treeGrowParam {
    double yDeviation_max = 0.0;   ///< |dy| to the tree's last node must be below this
    double zDeviation_max = 0.0;   ///< |dz| likewise
    int32_t maxLineSkipNum = 0;    ///< lines a tree may go without a node (<= 0: close at scan end only)
    double xDeviation_max = 0.0;   ///< |dx| limit, tested only at gaps >= maxLineSkipNum
    double minLTypeTreeLen = 0.0;  ///< closed trees (type != 5) kept when longer than this
    double minVTypeTreeLen = 0.0;  ///< closed type-5 trees kept when longer than this (and not drifting)
};

/// Integer grid position with a value (peaks, segment ends, image positions).
struct SHX_2DValueI {
    int32_t x = 0;            ///< scan line / image column
    int32_t y = 0;            ///< point index / image row
    int32_t featureType = 0;  ///< type code of the point it stands for, 0 for none
    double value = 0.0;       ///< value at the position (z for scan points)
    int32_t value2 = 0;       ///< integer tag
};

/// A pair of indices identifying one item plus an index of the caller's choosing.
struct SHX_intPair {
    int32_t data_0 = 0;
    int32_t data_1 = 0;
    int32_t idx = 0;
};

/// Dimensions of the object looked for, in the scan's length unit.
struct SHX_bagParam {
    double bagL = 0.0;  ///< length
    double bagW = 0.0;  ///< width
};

/// Slope and gap limits of a profile.
struct SHX_slopeParam {
    double slopeRangeY = 0.0;   ///< neighbourhood range along y
    double minRunHeight = 0.0;  ///< least total z change of a monotone run
    double jumpHeight = 0.0;    ///< least single z step of a step feature / run height of a flank
    double maxGapY = 0.0;       ///< largest y gap over which two stretches still count as one
};

/// Corner and jump detector parameters (field roles differ per detector).
struct SHX_cornerParam {
    double maxGapY = 0.0;
    double jumpZ = 0.0;
    double armLen = 0.0;
    double minCornerAngle = 0.0;  ///< degrees
    double armAngle1 = 0.0;       ///< degrees
    double armAngle2 = 0.0;       ///< degrees
};

/// V-shape tolerances of the L/V detector.
struct SHX_VFeatureParam {
    double zTol = 0.0;  ///< depth tolerance of the two sides (also a depth offset)
    double yTol = 0.0;  ///< width tolerance
};

/// Parameters of one right-angle corner kind.
struct SHX_lineRightAngleParam {
    double flatArmLen = 0.0;    ///< reach of the flat arm (|dy| + |dz|)
    double wallArmLen = 0.0;    ///< reach of the wall arm (|dy| + |dz|)
    double maxDeviation = 0.0;  ///< tolerance of both arms
};

/// Glove-arc detector parameters.
struct SHX_gloveArcParam {
    double chordLen = 0.0;      ///< y-z distance to the chord ends
    double searchArcLen = 0.0;  ///< polyline length examined on each side
    double minArcAngle = 0.0;   ///< least angle drop, degrees
};

/// Outlier removal parameters.
struct SHX_outlierFilterParam {
    double continuityTh = 0.0;  ///< successive valid points continue a run while their difference is below this
    double outlierTh = 0.0;     ///< runs with fewer points than this are removed
};

/// One upper semicircle on one scan line.
struct SHX_featureSemiCircle {
    int32_t featureType = 0;  ///< 0 from the detector; 5 marks a used-up feature
    int32_t lineIdx = 0;
    int32_t startPtIdx = 0;   ///< first point of the semicircle
    int32_t endPtIdx = 0;     ///< last point
    int32_t peakPtIdx = 0;    ///< valid point nearest the middle in y
    double x = 0.0;           ///< coordinates of the peak point
    double y = 0.0;
    double z = 0.0;
    double width = 0.0;       ///< |y(end) - y(start)|
    double topZ = 0.0;        ///< smallest valid z between start and end
};

/// One tracked semicircle. The six doubles and three 64-bit fields between
/// eLineIdx and treeNodes are carried for the caller; tracking leaves them zero.
struct SHX_semiCircleFeatureTree {
    int32_t treeState = 0;  ///< 1 growing, 2 closed
    int32_t treeType = 0;   ///< 0 at seeding
    int32_t sLineIdx = 0;
    int32_t eLineIdx = 0;
    double centerX = 0.0;
    double centerY = 0.0;
    double centerZ = 0.0;
    double meanWidth = 0.0;
    double meanTopZ = 0.0;
    double treeLength = 0.0;
    int64_t nUserData0 = 0;
    int64_t nUserData1 = 0;
    int64_t nUserData2 = 0;
    std::vector<SHX_featureSemiCircle> treeNodes;  ///< in line order
};

/// One connected component of a binary image.
struct SHX_Region {
    int32_t left = 0;      ///< smallest column
    int32_t right = 0;     ///< largest column
    int32_t top = 0;       ///< smallest row
    int32_t bottom = 0;    ///< largest row
    int32_t pixelCnt = 0;  ///< pixel count
    int32_t label = 0;     ///< label value in the label image
};

/// Window sizes of the windowed peak search (both at least 2).
struct SHX_localPkParam {
    int32_t searchWin_x = 0;  ///< along x: image columns / scan lines
    int32_t searchWin_y = 0;  ///< along y: image rows / point indices
};

/// One contour point.
struct SHX_contourPtInfo {
    int32_t lineIdx = 0;
    int32_t ptIdx = 0;
    int32_t ptType = 0;
    int32_t contourIdx = 0;
    int32_t ptFlag = 0;      ///< 1 or more counts as set
    double seedDist = 0.0;   ///< distance to the seed point of the contour scan
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

/// The contour points of one scan line (or one point row).
struct SHX_lineConotours {
    int32_t lineIdx = 0;
    std::vector<SHX_contourPtInfo> contourPts;
};

/// Two contour points that belong together. pairId, pairType and pairValue are
/// carried unchanged; pairKey_0 / pairKey_1 form the pair's key.
struct SHX_conotourPair {
    int32_t pairId = 0;
    int32_t pairKey_0 = 0;
    int32_t pairKey_1 = 0;
    int32_t pairType = 0;
    double pairValue = 0.0;
    SHX_contourPtInfo pt_1;
    SHX_contourPtInfo pt_2;
};

// ===========================================================================
// Scan geometry
// ===========================================================================

/// Bounding box of the valid points (z >= 0.0001) of a scan.
/// @param[in] lines    array of lineNum scan lines (read only); lines with
///                     nPositionCnt < 1 are skipped
/// @param[in] lineNum  number of lines; 0 or negative gives the empty box
/// @return the x, y and z ranges; each is {0.0, -1.0} when no point is valid.
PA_API SKesp3DRangeD hx_getScanDataROI(const SKesp3DLaserLine* lines, int32_t lineNum);

/// Bounding box of the valid points of a scan held as one vector per line.
/// @param[in] scan  the scan (read only); empty inner vectors are skipped
/// @return as hx_getScanDataROI; an empty scan gives {0.0, -1.0} in all ranges.
PA_API SKesp3DRangeD hx_getScanDataROI_vector(const std::vector<std::vector<SKesp3DPosition>>& scan);

/// Least-squares line y = k x + b through 2-D points (z ignored, no validity test).
/// @param[in]  pts  the points
/// @param[out] k    slope
/// @param[out] b    intercept
/// Fewer than two distinct x values divide by zero on purpose: k and b are
/// then infinities or NaN, for the caller to test (empty input gives NaN).
PA_API void lineFitting(const std::vector<SKesp3DPoint>& pts, double* k, double* b);

/// Integer points of the segment (x0, y0)-(x1, y1), both ends included, by
/// Bresenham's algorithm with a combined error term.
/// @param[in,out] pts  the points are appended after what it holds, starting
///                     with (x0, y0) and ending with (x1, y1); a zero-length
///                     segment appends one point.
PA_API void drawLine(int32_t x0, int32_t y0, int32_t x1, int32_t y1, std::vector<SKesp2DPoint>& pts);

/// Rotates the valid points (z >= 0.0001) of one scan line in place:
/// p' = R p, computed in double; no translation. Invalid points stay untouched;
/// nPointIdx is kept.
/// @param[in,out] line      the line; nPositionCnt < 1 leaves it alone
/// @param[in]     rotation  nine doubles, row-major
/// @param[in]     zCut      height limit: when zCut > 0, a point whose rotated
///                          z exceeds it gets z = 0.0 (keeping x', y'); 0 or
///                          below switches the limit off
PA_API void lineDataRT(SKesp3DLaserLine* line, const double* rotation, double zCut);

/// lineDataRT on a vector of points (changed in place; empty: nothing happens).
PA_API void lineDataRT_vector(std::vector<SKesp3DPosition>& line, const double* rotation, double zCut);

/// lineDataRT on a line of coloured points, changed in place: coordinates are
/// widened to double, rotated in double and rounded to float on storing; the
/// validity test uses the widened z; nRGBD is kept bit for bit.
PA_API void lineDataRT_RGBD(SKespXYZRGBDLaserLine* line, const double* rotation, double zCut);

/// z-y-x Euler angles (degrees) of a rotation matrix R = Rz(yaw) Ry(pitch) Rx(roll).
/// pitch = asin(-R[2][0]); when |cos(pitch)| <= 1e-6 (gimbal lock) roll is 0
/// and yaw = atan2(-R[0][1], R[1][1]).
/// @param[in] R  the rotation
/// @return {roll, pitch, yaw} in degrees.
PA_API SHX_EulerAngles rotationMatrixToEulerZYX(const double R[3][3]);

/// Rotation matrix R = Rz(yaw) Ry(pitch) Rx(roll) of z-y-x Euler angles in degrees.
/// @param[in]  e  the angles
/// @param[out] R  the matrix
PA_API void eulerToRotationMatrixZYX(const SHX_EulerAngles& e, double R[3][3]);

// ===========================================================================
// Plane calibration
// ===========================================================================

// @@calibration@@

// ===========================================================================
// Profile preprocessing
// ===========================================================================

// @@preprocess@@

// ===========================================================================
// Per-line detectors: local peaks, down jumps, flat-line peaks
// ===========================================================================

// @@peaks@@

// ===========================================================================
// Per-line detectors: L/V features
// ===========================================================================

// @@lv@@

// ===========================================================================
// Per-line detectors: corners, jumps, right angles, glove arcs
// ===========================================================================

// @@corners@@

// ===========================================================================
// Per-line detectors: upper semicircles
// ===========================================================================

// @@semicircle@@

// ===========================================================================
// Feature tracking: tree growing
// ===========================================================================

// @@growing@@

// ===========================================================================
// Feature tracking: L/V growing
// ===========================================================================

// @@lvgrowing@@

// ===========================================================================
// Feature tracking: semicircle trees
// ===========================================================================

// @@semicircletrees@@

// ===========================================================================
// Image analysis: labelling
// ===========================================================================

// @@image-label@@

// ===========================================================================
// Image analysis: distance transform and window peaks
// ===========================================================================

// @@image-peaks@@

// ===========================================================================
// Image analysis: peak XY scan and contour handling
// ===========================================================================

/// Peak XY scan: from a seed point, collects the typed contour points that bound
/// the object at the seed, walking along the scan lines (X sweep) and across
/// them (Y sweep) inside a window of half-size bagL - 0.5 * seed.value.
///
/// Point types are read from the low 16 bits of each point's nPointIdx: bits
/// 0-3 the along-line type, bits 4-7 the cross-line type, bits 8-15 mark bits.
/// Types 1 to 4 are edges (1 and 3 set the point flag on walks toward lower
/// indices, 2 and 4 toward higher ones); types 1, 2, 6, 7 and 8 end a walk.
/// The X sweep visits lines seed.x, seed.x-1, ..., 0 (backward part) and then
/// seed.x+1, ... (forward part) while |x(point seed.y of line i) - x(seed)| is
/// within the limit; on each line it walks from seed.y toward lower and toward
/// higher point indices. The Y sweep does the same over point indices p
/// (window on y along the seed line), walking across the lines at p.
/// A walk:
///  - skips a point of type 0 (not at either end of its axis, no mark rule):
///    nothing is recorded and the remembered previous point is cleared, but if
///    the point's type on the other axis is 1 or 2 and none of the next four
///    points in the walking direction has a type of its own before the axis
///    ends, the walk aborts;
///  - with useMarkBits, turns a type-0 point with mark bits into a type-8 point
///    with flag 0 and contour index 5 / 6 (along a line, toward lower / higher
///    point indices) or 7 / 8 (across lines, toward lower / higher lines);
///  - ends, unrecorded, at the first point it does not skip that lies farther
///    than the limit from the seed (|dy| along a line, |dx| across lines);
///    skipped points do not end it, however far they are;
///  - records a point of non-zero type whose contour index (element 0 of its
///    flag pixel, or the marker above) is positive, except that such a point
///    at the seed index or next to it ends the walk unrecorded;
///  - ends after a point of type 1, 2, 6, 7 or 8 or of contour index 5 or 6
///    (along a line) / 7 or 8 (across lines).
/// Two successive recorded edge points whose seed distances differ by more
/// than 100.0 abort the walk (types 1 or 2 along a line, only type 1 across
/// lines); since both types end a walk this never happens in practice.
/// An abort discards the two walks of that line (or point index) and ends the
/// current part of the sweep; entries already added stay.
///
/// @param[in] lines       the scan, lineNum lines (read only); a regular grid:
///                        every line is read with the first line's point count
/// @param[in] lineNum     number of lines
/// @param[in] flagImg     CV_32SC4, row = point index, column = line index;
///                        element 0 = contour index (0: none), element 3 of the
///                        seed's pixel must be non-zero; elements 1, 2 unused
/// @param[in] seed        x = seed line, y = seed point index, value = object
///                        width at the seed (e.g. its distance-transform value)
/// @param[in] growParam   not read
/// @param[in] bagParam    only bagL (object length) is read
/// @param[in] useMarkBits enables the mark-bit rule above
/// @param[in,out] lineContoursDown  X sweep, walks toward lower point indices:
///                        one entry per line with records (lineIdx = line)
/// @param[in,out] lineContoursUp    X sweep, walks toward higher point indices
/// @param[in,out] rowContoursDown   Y sweep, walks toward lower line indices:
///                        one entry per point index (lineIdx = point index)
/// @param[in,out] rowContoursUp     Y sweep, walks toward higher line indices
///                        In each vector the entries come in increasing index
///                        order: the backward part's before what the vector
///                        held, the forward part's after it.
/// @param[out] lineDownMaxIdx, lineUpMaxIdx, rowDownMaxIdx, rowUpMaxIdx
///                        largest contourIdx among the records added to the
///                        vector of the same position (0 when none)
/// An unflagged seed returns at once with all eight outputs untouched. A limit
/// below 0 scans nothing (the outputs stay, the integers become 0).
/// Out of contract, the routine also returns with nothing touched: a seed
/// outside the scan, lines == nullptr or lineNum < 1, a first line without
/// points, a line with a null point array or fewer points than the first, and
/// a flag image that is not a 2-D CV_32SC4 matrix of at least (point count)
/// rows and lineNum columns. Null max-index pointers are skipped. NaN
/// coordinates or limits never fail a distance test; every walk stays bounded
/// by the scan.
PA_API void hx_peakXYScan(const SKesp3DLaserLine* lines, int32_t lineNum, const cv::Mat& flagImg, SHX_2DValueI seed,
                          SHX_treeGrowParam growParam, SHX_bagParam bagParam, bool useMarkBits,
                          std::vector<SHX_lineConotours>& lineContoursDown,
                          std::vector<SHX_lineConotours>& lineContoursUp,
                          std::vector<SHX_lineConotours>& rowContoursDown,
                          std::vector<SHX_lineConotours>& rowContoursUp, int32_t* lineDownMaxIdx,
                          int32_t* lineUpMaxIdx, int32_t* rowDownMaxIdx, int32_t* rowUpMaxIdx);

/// Points of one contour, appended as {x = lineIdx, y = ptIdx, featureType =
/// ptType, value = z, value2 = 0}, in vector order and line order.
/// @param[in]  lineContours  per-line contour records (read only)
/// @param[in]  contourIdx    the contour wanted
/// @param[in,out] contourPts the points are appended after what it holds
/// @param[out] flagMajority  1 when twice the number of appended points with
///                           ptFlag >= 1 exceeds the size of the whole
///                           contourPts vector after the appends, else 0
/// Empty lineContours (or no matching point): nothing appended, flag 0.
/// A null flagMajority is skipped.
PA_API void hx_getContourPts(const std::vector<SHX_lineConotours>& lineContours, int contourIdx,
                             std::vector<SHX_2DValueI>& contourPts, int* flagMajority);

/// Pairs whose key (pairKey_0, pairKey_1) equals the (data_0, data_1) of some
/// entry of pairKeys and whose two points lie strictly inside the range
/// (min < v < max, on x when isX, else on y), appended whole in input order.
/// @param[in]  pairs      the candidate pairs (read only)
/// @param[in]  pairKeys   the accepted keys (read only); empty: no pair is kept
/// @param[in,out] validPairs  kept pairs are appended after what it holds
/// @param[in]  range      the open interval; an empty range keeps nothing
/// @param[in]  isX        test x (true) or y (false) of both points
/// @param[out] flag1Majority  1 when the kept pairs with pt_1.ptFlag >= 1 are
///                        more than half (integer division) of the whole
///                        validPairs vector, else 0
/// @param[out] flag2Majority  the same for pt_2
/// NaN coordinates are never inside the range. Null flag pointers are skipped.
/// validPairs must not be the pairs vector itself.
PA_API void hx_getPairingContourPts(const std::vector<SHX_conotourPair>& pairs,
                                    const std::vector<SHX_intPair>& pairKeys,
                                    std::vector<SHX_conotourPair>& validPairs, SKespRangeD range, bool isX,
                                    int* flag1Majority, int* flag2Majority);

/// Keeps the contours that are long enough and close to the seed: points are
/// grouped by contourIdx; a contour of at most (3 * n) / 10 points (n = all
/// input points, integer division) is dropped; of the others, the smallest mean
/// seedDist is the reference (the first contour wins ties), and every contour
/// whose mean minus the reference is strictly below distTolerance is output.
/// @param[in]  contourPts     the points (read only), contourIdx in 0 .. maxContourIdx
/// @param[in]  maxContourIdx  the largest contour identifier
/// @param[in]  distTolerance  tolerance on the mean seed distance
/// @param[in,out] outPts      appended after what it holds, grouped by contour
///                            in order of first appearance, input order within a
///                            contour, as {x = lineIdx, y = ptIdx, featureType =
///                            ptType, value = z, value2 = tag}
/// @param[in]  tag            written into value2 of every output point
/// @param[out] flagMajority   1 when twice the number of output points with
///                            ptFlag >= 1 exceeds the size of the whole outPts
///                            vector, else 0
/// Empty input, or no contour left: nothing appended, flag 0.
/// Out of contract: points whose contourIdx lies outside 0 .. maxContourIdx
/// belong to no contour (never counted, never output) but still count in n;
/// a negative maxContourIdx outputs nothing. Memory use follows the largest
/// identifier present, not maxContourIdx. NaN seed distances make their
/// contour's mean NaN, which is never selected. A null flagMajority is skipped.
PA_API void hx_contourPostProc(const std::vector<SHX_contourPtInfo>& contourPts, int maxContourIdx,
                               double distTolerance, std::vector<SHX_2DValueI>& outPts, int tag, int* flagMajority);

#endif  // PROFILE_ANALYSIS_H
