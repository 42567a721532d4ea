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

/// Local z maxima (type 14) and minima (type 13) of one profile that dominate
/// their neighbourhood along y.
/// Candidates: walking the line, each valid point (z >= 0.0001) is compared
/// with the previous valid point (gaps of invalid points are bridged). Where
/// z turns from rising to falling the previous point is a peak candidate, from
/// falling to rising a valley candidate. Equal z never changes a decided
/// trend, so a plateau yields its last point; the first valid point is never a
/// candidate; the last valid point becomes one only when the array ends in one
/// or more invalid points (a valid last point adds no end candidate).
/// Suppression: a peak candidate is dropped when another peak candidate within
/// peakRangeY along y (x ignored; a neighbour at exactly peakRangeY is inside)
/// is strictly higher; a valley candidate when one is strictly lower. Each
/// side is scanned from the candidate outwards, in line order, and stops at
/// the first candidate out of range even if a later one is in range again.
/// Equal extremes within range are all kept.
/// @param[in,out] points      pointCount points in scan order; the nPointIdx
///                            of point i is set to i (all points, valid or not)
/// @param[in]     pointCount  number of points; below 2 (or a null points)
///                            returns at once without touching anything
/// @param[in]     lineIdx     scan-line index copied into every record
/// @param[in]     peakRangeY  neighbourhood half-width along y (length unit);
///                            only its square is used, so its sign is ignored
/// @param[in,out] peaks       survivors are appended (type 14, featurePos the
///                            point, featureValue 0.0); never cleared
/// @param[in,out] valleys     survivors are appended (type 13, likewise); all
///                            valleys are appended before any peak, which shows
///                            when the same vector is passed twice
/// No valid point gives no record. A NaN y is never out of range; a NaN
/// z counts as invalid; a NaN or infinite peakRangeY never ends a scan, so each
/// candidate is compared with all others of its kind (quadratic, but it ends).
PA_API void hx_getLineLocalPeaks(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double peakRangeY,
                                 std::vector<SHX_basicFeature1D>& peaks, std::vector<SHX_basicFeature1D>& valleys);

/// Upward jumps of z between consecutive valid points of one profile (type 1).
/// A jump is recorded where z rises by strictly more than jumpThreshold from
/// one valid point (z >= 0.0001) to the next; invalid points in between are
/// bridged. Falls of z are ignored however large.
/// @param[in,out] points         pointCount points in scan order; the
///                               nPointIdx of point i is set to i
/// @param[in]     pointCount     number of points; below 2 (or a null
///                               points) returns at once without touching
///                               anything
/// @param[in]     lineIdx        scan-line index copied into every record
/// @param[in]     jumpThreshold  least z rise (exclusive), length unit
/// @param[in,out] jumps          one record per jump is appended (type 1,
///                               featurePos the valid point just before the
///                               rise, featureValue 0.0); never cleared
/// No valid point gives no record; a NaN z counts as invalid, and a NaN
/// threshold finds no jump.
PA_API void hx_getLineDownJumps(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx, double jumpThreshold,
                                std::vector<SHX_basicFeature1D>& jumps);

/// Bumps standing on a flat, possibly tilted surface (a conveyor belt, a
/// plate): local maxima of the height above a fitted base line (type 14).
/// The base line z = k * y + b is fitted by least squares to the valid points
/// (z >= 0.0001), then refitted once to the valid points whose residual
/// z - (k * y + b) is strictly below flatTolerance in absolute value. The
/// residual above the refitted line then takes the place of z in the rules of
/// hx_getLineLocalPeaks: the same candidate scan (plateaus keep their last
/// point, gaps are bridged, an end candidate only when the line ends in
/// invalid points) and the same suppression within peakRangeY along y; a
/// survivor is reported when its residual is strictly greater than
/// minPeakHeight.
/// @param[in]     line           the profile in scan order (read only)
/// @param[in]     lineIdx        scan-line index copied into every record
/// @param[in]     peakRangeY     neighbourhood half-width along y (sign ignored)
/// @param[in]     minPeakHeight  least height above the base line (exclusive)
/// @param[in]     flatTolerance  largest |residual| (exclusive) of the points
///                               the base line is refitted to
/// @param[in,out] peaks          one record per bump is appended: featurePos
///                               a copy of the point with nPointIdx set to its
///                               array index, featureValue its height above
///                               the base line; never cleared
/// Fewer than 3 valid points, fewer than 2 flat points for the refit, or
/// points that do not spread along y give nothing. A NaN y of a valid point
/// leaves no base line, so nothing is found; a NaN z counts as invalid; x is
/// only copied.
PA_API void hx_getFlatLineLocalPeaks_vector(const std::vector<SKesp3DPosition>& line, int32_t lineIdx,
                                            double peakRangeY, double minPeakHeight, double flatTolerance,
                                            std::vector<SHX_basicFeature1D>& peaks);

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

// Tree growing links the features of successive scan lines into trees. All
// four routines share the same steps:
//  - Matching: a feature f is offered to the trees in vector order and joins
//    the FIRST tree that accepts it (not the nearest). A tree accepts f when
//    it is not closed (treeState != 2), its last node lies on another line
//    (f.lineIdx differs), |dy| < yDeviation_max and |dz| < zDeviation_max
//    against the last node, also |dx| < xDeviation_max when f lies
//    maxLineSkipNum or more lines after the last node (no x test below that),
//    and the tree's type accepts f's type (see the feature type codes above).
//    All tests are strict, so a NaN difference fails. The tree then takes a
//    copy of f, eLineIdx becomes the line index of the call's step and
//    treeValue grows by f.featureValue. A feature no tree accepts seeds a new
//    tree at the end of the vector (state 1, type of f, sLineIdx = eLineIdx =
//    the line index, xRange and yRange zero).
//  - Closing, after every line: a tree in state 1 is closed (state 2) when
//    maxLineSkipNum > 0 and the line lies more than maxLineSkipNum lines after
//    its last node, or on the input's last line. A closed tree is kept only
//    when its length (x-y distance from first to last node) is greater than
//    minLTypeTreeLen; a type-5 tree when its length is greater than
//    minVTypeTreeLen and the z of its nodes n/4 and 3n/4 differ by less than
//    0.3 times the length. Trees that fail are erased; the others keep their
//    order. Trees in a state other than 1 and 2 take nodes but never close.
// The trees vector is never cleared: trees already in it are matched and
// closed like new ones. Trees without nodes (outside the contract) are
// neither matched nor closed.

/// Grows trees over a scan of per-line feature records.
/// @param[in]     lineFeatures  one record per scan line, in scan order; each
///                              record's features are offered in order under
///                              its lineIdx, then the closing step runs; the
///                              last record closes every growing tree
/// @param[in,out] trees         trees are matched, appended, closed and erased
/// @param[in]     growParam     matching and keep limits
/// Empty lineFeatures leaves trees untouched. New trees start with treeValue
/// 0.0 (the seed's value is not counted). Cost: features times the trees still
/// open, plus one pass over the vector at the start and one at the end (which
/// removes the trees that failed the keep test); closed trees are never
/// visited per feature or per line.
PA_API void hx_getFeatureGrowingTrees(const std::vector<SHX_lineFeature>& lineFeatures,
                                      std::vector<SHX_featureTree>& trees, SHX_treeGrowParam growParam);

/// Grows trees by the features of one scan line; call once per line, in scan
/// order, on the same trees vector.
/// @param[in]     lineIdx       index of this line (matching, seeding, closing)
/// @param[in]     isLastLine    true closes every growing tree after this line
/// @param[in]     lineFeatures  the line's features, offered in order; empty
///                              still runs the closing step
/// @param[in,out] trees         trees are matched, appended, closed and erased;
///                              trees stay open between calls
/// @param[in]     growParam     matching and keep limits
/// A new tree's treeValue starts at its seed's featureValue. This routine
/// keeps no state between calls, so every call scans the whole trees vector,
/// closed trees included, to find the open ones: its cost grows with the
/// number of trees the caller keeps in the vector. Callers with the whole
/// scan at hand should prefer hx_getFeatureGrowingTrees or
/// hx_peakFeatureGrowing, whose cost does not.
PA_API void hx_lineFeaturesGrowing(int32_t lineIdx, bool isLastLine, const std::vector<SHX_basicFeature1D>& lineFeatures,
                                   std::vector<SHX_featureTree>& trees, SHX_treeGrowParam growParam);

/// Grows trees over grid positions into a scan (segment ends, image peaks).
/// @param[in]     endings      positions sorted by x; each becomes a feature
///                             of type featureType, lineIdx p.x, nPointIdx p.y,
///                             featureValue 0.0, then is matched or seeds a
///                             tree under line p.x, and the closing step runs
///                             for line p.x (the last position closes all)
/// @param[in]     scanLines    the scan's lines (read only)
/// @param[in]     lineWise     true: p is point p.y of line p.x, and the
///                             feature takes its x, y, z; false: p is point
///                             p.x of line p.y, and the feature takes its y as
///                             x, its x as y, and its z
/// @param[in]     featureType  type code of the made features
/// @param[in,out] trees        trees are matched, appended, closed and erased
/// @param[in]     growParam    matching and keep limits
/// Empty endings or a null scanLines leaves trees untouched. Positions are
/// not checked against the number of lines; a position with a negative index
/// or a point index past its line's count makes no feature (the closing step
/// still runs for it). New trees start with treeValue 0.0.
PA_API void hx_getEndingGrowingTrees(const std::vector<SHX_2DValueI>& endings, const SKesp3DLaserLine* scanLines,
                                     bool lineWise, int32_t featureType, std::vector<SHX_featureTree>& trees,
                                     SHX_treeGrowParam growParam);

/// Grows trees over one feature vector per scan line, then sets every tree's
/// xRange and yRange to the extent of its nodes' x and y.
/// @param[in]     lineFeatures  inner vector i holds the features of line i;
///                              they are compared by their own lineIdx
///                              (callers fill it with i) and seed and close
///                              under i; the last index closes every tree
/// @param[in,out] trees         trees are matched, appended, closed and erased;
///                              afterwards every tree in it (earlier ones too)
///                              gets its ranges, all 0.0 for a tree without
///                              nodes
/// @param[in]     growParam     matching and keep limits
/// Empty lineFeatures leaves trees untouched. New trees start with treeValue
/// 0.0. Cost as hx_getFeatureGrowingTrees.
PA_API void hx_peakFeatureGrowing(const std::vector<std::vector<SHX_basicFeature1D>>& lineFeatures,
                                  std::vector<SHX_featureTree>& trees, SHX_treeGrowParam growParam);

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

// @@image-contours@@

#endif  // PROFILE_ANALYSIS_H
