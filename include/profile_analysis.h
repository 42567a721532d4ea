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

/// Finds the reference plane of a scan (a conveyor, a table) and the rotation
/// that levels it. The plane is the lowest height band holding a substantial
/// share of the valid points: heights are counted in bins of one unit from the
/// lowest valid z, the counts are smoothed by an 11-bin box sum (the raw counts
/// are used when the sums come out flat, e.g. for six bins or fewer), and the
/// first peak from low z upward whose smoothed count exceeds a tenth of the
/// valid points is taken; the band reaches down and up to the nearest valleys
/// lower than half that peak (from the lower edge of each valley bin; to the
/// scan's lowest or highest z where there is none). The band's points, in
/// single precision, are fitted with z = a x + b y + e by least squares.
/// The lowest bin is never a peak: when the reference surface is the lowest
/// thing in the scan, its heights should span six units or more (a tilted
/// surface does) for its counts to rise to a peak; otherwise name the surface
/// with hx_getPlaneCalibPara_ROIs. Working memory: two 32-bit counters per
/// unit of height span; the scan is read four times.
/// @param[in] lines    array of lineNum scan lines (read only); lines with
///                     nPositionCnt < 1 are skipped; points with z < 0.0001
///                     are ignored
/// @param[in] lineNum  number of lines; 0 or negative (or null lines) gives
///                     the failure record
/// @return planeCalib: the shortest rotation that turns the fitted plane's
///         normal (a, b, -1) to (0, 0, -1); apply it with lineDataRT.
///         invRMatrix: the inverse rotation. planeHeight: the lowest levelled
///         z of the band points (row 2 of planeCalib times the single-precision
///         point, rounded to single precision), 0.0 if the band holds no point.
///         When the band's normal equations are singular (all its points on
///         one line, e.g. one scan line at x = 0) their inverse is taken as
///         zero and both matrices are the identity; a band that lies on a line
///         only up to rounding gives an unreliable tilt.
///         Failure (no valid point; all heights within one unit, so no peak;
///         no peak above a tenth of the valid points) returns planeCalib =
///         invRMatrix = identity and planeHeight = -1.0: test planeHeight.
///         Out of contract: NaN or infinite heights are not points for
///         calibration and are ignored; valid heights spanning 1e8 units or
///         more give the failure record (the histogram would need 1e8 bins);
///         NaN or infinite x or y of a band point give NaN matrices.
PA_API SHX_planeCalibPara hx_getPlaneCalibPara(const SKesp3DLaserLine* lines, int32_t lineNum);

/// hx_getPlaneCalibPara on a scan held as one vector of points per line.
/// @param[in] scan  the scan (read only); empty inner vectors are skipped
/// @return the same record, bit for bit, as hx_getPlaneCalibPara on the same
///         points; an empty scan gives the failure record (identity, -1.0).
PA_API SHX_planeCalibPara hx_getPlaneCalibPara2(const std::vector<std::vector<SKesp3DPosition>>& scan);

/// Levels the plane fitted to the valid points that lie in caller-named
/// regions (no histogram search). A point (z >= 0.0001) is taken once if it
/// lies in at least one region: xRange.min <= x <= xRange.max,
/// yRange.min <= y <= yRange.max, z >= zRange.min and y <= zRange.max (the
/// upper z bound is compared with y, so heights are limited only from below).
/// @param[in] lines    array of lineNum scan lines (read only)
/// @param[in] lineNum  number of lines; 0 or negative means no point
/// @param[in] rois     the regions, tried in order (read only)
/// @return planeCalib, invRMatrix and planeHeight as hx_getPlaneCalibPara.
///         There is no failure record: with no region point (no region, no
///         line, nothing inside) or a singular fit, both matrices are the
///         identity and planeHeight is 0.0 (empty) or the lowest point's z.
///         Out of contract: NaN or infinite heights are ignored; NaN x or y
///         lie in no region; infinite x or y inside a region give NaN
///         matrices.
PA_API SHX_planeCalibPara hx_getPlaneCalibPara_ROIs(const SKesp3DLaserLine* lines, int32_t lineNum,
                                                    const std::vector<SKesp3DRangeD>& rois);

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

// @@image-contours@@

#endif  // PROFILE_ANALYSIS_H
