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
//  - Results do not depend on the compiler or the processor: the local-peak,
//    corner, jump and glove-arc detectors run vector kernels chosen at run
//    time (SSE4, AVX2, AVX-512 on x86-64, NEON and SVE on aarch64 for local
//    peaks; AVX2 for the others) and portable ones elsewhere, and all give
//    the same bits (no fused multiply-add anywhere).
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
/// unit of height span and 40 bytes per 64 points; the scan is read three
/// times, then only the parts of the band that can hold its lowest levelled
/// point.
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

/// Refines a plane calibration by refitting the plane to the points near it,
/// round after round (deterministic, no sampling). Use it after
/// hx_getPlaneCalibPara when objects whose tops lie in the reference
/// surface's height band (low boxes on a tilted conveyor) pull its fit.
/// The starting plane is the levelled plane of `start` lifted by the inlier
/// distance: levelled height (row 2 of start.planeCalib times the point)
/// start.planeHeight + inlierDist. The first round therefore takes the points
/// whose levelled height lies strictly between start.planeHeight and
/// start.planeHeight + 2 inlierDist: planeHeight being the lowest levelled
/// point of the calibrated surface, that is the bottom layer of the surface,
/// from which the following rounds spread over all of it. Each round takes
/// the valid points (z >= 0.0001) whose single-precision coordinates lie less
/// than inlierDist (perpendicular distance) from the current plane, fits them
/// with the calibration's least-squares fit z = a x + b y + e, and rebuilds
/// planeCalib and invRMatrix from the fit exactly as hx_getPlaneCalibPara
/// does; the fitted plane is the next round's plane. The rounds stop when a
/// round takes the same inliers as the round before (its least-squares sums
/// are the same bits, so the fit could not change), or after maxIter rounds.
/// Each round reads the scan once; a refinement stopped by maxIter reads it
/// once more for the plane height. No working memory.
/// @param[in] lines       array of lineNum scan lines (read only); lines with
///                        nPositionCnt < 1 are skipped
/// @param[in] lineNum     number of lines; 0 or negative (or null lines) means
///                        no point, so the start is returned
/// @param[in] start       the calibration to refine, usually the result of
///                        hx_getPlaneCalibPara on the same scan
/// @param[in] inlierDist  largest distance of an inlier from the plane, in
///                        units of the scan (strictly below); a few times the
///                        height noise of the surface
/// @param[in] maxIter     largest number of rounds; 0 or below returns the start
/// @return the same record as the calibration: planeCalib levels the last fit,
///         invRMatrix is its inverse, planeHeight is the lowest levelled z of
///         the last round's inliers (rounded to single precision as in
///         hx_getPlaneCalibPara). The start itself, unchanged, when it is a
///         failed calibration (planeHeight -1.0), when inlierDist is 0 or
///         below or NaN, or when any round finds fewer than 3 inliers.
///         A round whose inliers lie on one line fits a singular system,
///         whose plane is z = 0 (identity matrices), as in the calibration.
///         Out of contract: a NaN or infinite coordinate (or one beyond
///         single precision's range) makes its point no inlier; a start whose
///         matrix or height is NaN has no inliers and is returned.
PA_API SHX_planeCalibPara hx_refinePlaneCalibPara(const SKesp3DLaserLine* lines, int32_t lineNum,
                                                  const SHX_planeCalibPara& start, double inlierDist,
                                                  int32_t maxIter);

/// hx_refinePlaneCalibPara on a scan held as one vector of points per line.
/// @param[in] scan  the scan (read only); empty inner vectors are skipped
/// @return the same record, bit for bit, as hx_refinePlaneCalibPara on the
///         same points.
PA_API SHX_planeCalibPara hx_refinePlaneCalibPara_vector(const std::vector<std::vector<SKesp3DPosition>>& scan,
                                                         const SHX_planeCalibPara& start, double inlierDist,
                                                         int32_t maxIter);

// ===========================================================================
// Profile preprocessing
// ===========================================================================

/// Moving-average smoothing of a profile's heights. Uses the strict validity
/// z > 0.0001: a point at exactly 0.0001 neither is smoothed nor enters a mean.
/// @param[in]  lineData      the profile (read only)
/// @param[in]  winSize       averaging span in points; half = winSize / 2
///                           (truncated toward zero)
/// @param[out] smoothedData  replaced by a copy of lineData (same length,
///                           nPointIdx, x, y kept) in which each valid point's
///                           z is the mean of the valid heights at indices
///                           i - half .. i + half; the span is clipped at the
///                           line ends, not shifted. Invalid points keep their z.
/// An empty line gives an empty output. winSize -1, 0 or 1 leaves the heights
/// unchanged. winSize -2 or below (outside the contract) averages an empty
/// span: every valid point gets NaN. lineData and smoothedData may be the same
/// vector (smoothing in place). The cost does not depend on winSize.
PA_API void hx_lineDataSmoothing(const std::vector<SKesp3DPosition>& lineData, int32_t winSize,
                                 std::vector<SKesp3DPosition>& smoothedData);

/// Smoothing segment by segment, so that edges between surfaces stay sharp.
/// The line is cut before every valid point (z > 0.0001) whose |dy| exceeds
/// maxStepY or whose |dz| exceeds maxStepZ against the point just before it,
/// valid or not (the first valid point of the line is never a cut): a run of
/// missing points (z = 0) therefore ends the segment before it whenever the
/// next valid height exceeds maxStepZ. Each segment is smoothed as by
/// hx_lineDataSmoothing with the same winSize.
/// @param[in]     lineData      the profile (read only)
/// @param[in]     maxStepY      largest y step inside a segment
/// @param[in]     maxStepZ      largest z step inside a segment
/// @param[in]     winSize       averaging span, as for hx_lineDataSmoothing
/// @param[in,out] smoothedData  the smoothed segments, which together hold
///                              every input point once and in input order,
///                              are appended after what it holds
/// An empty line leaves smoothedData unchanged; winSize -2 or below gives NaN
/// heights as for hx_lineDataSmoothing. NaN steps never cut.
PA_API void hx_lineSegSmoothing(const std::vector<SKesp3DPosition>& lineData, double maxStepY, double maxStepZ,
                                int32_t winSize, std::vector<SKesp3DPosition>& smoothedData);

/// Removes short isolated runs (specks, reflections, spray) from a copy of a
/// profile. The valid points (strict form z > 0.0001) are cut into runs: a
/// valid point continues the run while |z - z of the previous valid point| is
/// below param.continuityTh (a step equal to it starts a new run); invalid
/// points neither start, extend nor split a run. Every run with fewer points
/// than param.outlierTh is zeroed (z = 0.0) from its first to its last valid
/// point, invalid points in between included.
/// @param[in]     lineData     ptNum points (read only)
/// @param[in]     ptNum        point count
/// @param[in]     param        continuity and run-length limits
/// @param[out]    cleanedData  replaced: resized to ptNum and filled with a
///                             copy of the line with the short runs zeroed
/// @param[in,out] removedIdx   the zeroed indices are appended in increasing
///                             order (not cleared first)
/// ptNum 0 gives an empty cleanedData. A negative ptNum (outside the contract)
/// is taken as a huge size: the resize of cleanedData throws
/// std::length_error, which passes through unchanged. With continuityTh 0
/// every valid point is a run of its own.
PA_API void hx_lineDataRemoveOutlier(const SKesp3DPosition* lineData, int32_t ptNum, SHX_outlierFilterParam param,
                                     std::vector<SKesp3DPosition>& cleanedData, std::vector<int32_t>& removedIdx);

/// hx_lineDataRemoveOutlier in place: the short runs are zeroed (z = 0.0) in
/// the caller's array; nothing else changes.
/// @param[in,out] lineData  ptNum points
/// @param[in]     ptNum     point count; 0 or negative: nothing happens
/// @param[in]     param     continuity and run-length limits
PA_API void hx_lineDataRemoveOutlier_changeOriginData(SKesp3DPosition* lineData, int32_t ptNum,
                                                      SHX_outlierFilterParam param);

/// hx_lineDataRemoveOutlier with continuity measured in space: a valid point
/// continues the run while its 3-D distance sqrt(dx^2 + dy^2 + dz^2) to the
/// previous valid point is below param.continuityTh. Outputs, empty input and
/// negative counts as for hx_lineDataRemoveOutlier; NaN coordinates always
/// start a new run.
PA_API void hx_lineDataRemoveOutlier_ptDistMethod(const SKesp3DPosition* lineData, int32_t ptNum,
                                                  SHX_outlierFilterParam param,
                                                  std::vector<SKesp3DPosition>& cleanedData,
                                                  std::vector<int32_t>& removedIdx);

/// Splits points into clusters by x-y distance (z plays no part and the
/// validity rule is not applied): two points share a cluster when a chain of
/// points joins them whose every step is strictly shorter than distTh.
/// Order: clusters in the order of their seeds; the first seed is the first
/// point, each later seed the first point not yet taken. Within a cluster the
/// seed comes first, then points in the order reached: each cluster point in
/// turn takes the remaining points closer than distTh, in input order.
/// Points arriving with a taken mark (negative low 32 bits of nPointIdx, read
/// as a signed 32-bit integer) are dropped, except the first point, which is a
/// seed whatever its mark. The copies keep nPointIdx unchanged.
/// @param[in,out] pts       the points; emptied on return
/// @param[in]     distTh    joining distance (strict: points exactly distTh
///                          apart are not joined)
/// @param[in,out] clusters  one vector per cluster is appended
/// An empty input leaves clusters unchanged. distTh 0, negative or NaN makes
/// every point its own cluster; an infinite distTh joins every two points
/// whose x-y distance is finite (one cluster for ordinary coordinates). A
/// point with an infinite or NaN x or y joins nothing. Runs in about O(n) for evenly spread points (a uniform
/// grid of cells as wide as distTh), never worse than O(n^2).
PA_API void hx_pointClustering(std::vector<SKesp3DPosition>& pts, double distTh,
                               std::vector<std::vector<SKesp3DPosition>>& clusters);

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

/// Steps, steep flanks and V shapes of one profile, and the ends of its
/// continuous segments. The line is cut into monotone z runs (successive valid
/// points, z >= 0.0001, compared across invalid ones); runs whose total z
/// change is below minRunHeight are dropped. A run whose largest single step
/// exceeds jumpHeight gives a step (1 rising, 2 falling) at the step's lower
/// point; otherwise a run higher than jumpHeight that is steeper than 2 (|dz/dy|
/// between the array neighbours of its largest step, the points just before
/// and after it whether measured or not, so an invalid neighbour enters with
/// its z; the step's own point stands in at either end of the array) and whose
/// high end lies more than 2 indices from every segment end gives a flank (3
/// rising, 4 falling) at the step's upper point. A rising run followed by a
/// falling run whose sides match within zTol / yTol is a V (5) at the deeper
/// top; a step or flank within 5.0 along y of a V is arbitrated against it
/// (the overall depth change of the V against 40.0 decides). Finally a step
/// followed by a step of the same type less than 20.0 away along y gives way
/// to it.
/// @param[in]  points      pointCount points of one line (read only)
/// @param[in]  pointCount  number of points; below 2 nothing happens
/// @param[in]  lineIdx     written into every record's lineIdx
/// @param[in]  slopeParam  minRunHeight, jumpHeight and maxGapY are read
///                         (slopeRangeY is not); segments split where invalid
///                         points span more than maxGapY along y
/// @param[in]  vParam      zTol (side depth tolerance and depth offset of the
///                         comparison) and yTol (side width tolerance)
/// @param[in,out] lineFeature  features are appended to features in order along
///                         the line, and per segment a type-6 record (first
///                         point) and a type-7 record (last point) to endings;
///                         its lineIdx is not set. Each record holds a copy of
///                         the point with nPointIdx = its array index, and
///                         featureValue 0.0. The merging of near steps touches
///                         only this call's features.
/// A segment that starts at the line's last point gives no endings. NaN heights
/// count as invalid points; infinite heights are outside the contract and give
/// unspecified features, never a crash or a hang; null pointers do nothing.
PA_API void hx_getLineLVFeature(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                SHX_slopeParam slopeParam, SHX_VFeatureParam vParam, SHX_lineFeature* lineFeature);

// ===========================================================================
// Per-line detectors: corners, jumps, right angles, glove arcs
// ===========================================================================

/// Corners of one profile, where its direction in the y-z plane turns sharply,
/// and the ends of its continuous segments.
/// Only points with z > 0.0001 (strict) are used. For each such point the
/// nearest valid points at least armLen away (straight y-z distance) before
/// and after it give the backward and forward chord angles,
/// atan(dz / |dy|) * 180 / 3.141592654, in -90..90 and positive where z grows
/// along the line (a chord with dy = 0 gives +-90); the corner angle is
/// backward - forward. Local maxima of the corner angle (a plateau keeps its
/// last point) of at least minCornerAngle that no other maximum within
/// 2 * armLen along y exceeds (ties are all kept) are reported as
///   type 1 when backward > armAngle1 and forward > -armAngle2,
///   else type 2 when forward < -armAngle1 and backward < armAngle2,
///   else type 15.
/// Segments are runs of valid points cut where consecutive heights differ by
/// more than jumpZ; a segment is joined into the next when the y gap between
/// them is below maxGapY and the z gap below jumpZ.
/// @param[in]     points      array of pointCount points (read only)
/// @param[in]     pointCount  number of points; 0 or negative gives nothing
/// @param[in]     lineIdx     index of the line, written into out and every record
/// @param[in]     param       maxGapY, jumpZ (length unit), armLen (length unit),
///                            minCornerAngle, armAngle1, armAngle2 (degrees)
/// @param[in,out] out         lineIdx is set; corners are appended to features
///                            (featureValue 0.0), segment ends to endings (type 6
///                            at a segment's first point, then type 7 at its
///                            last); nothing is cleared. featurePos is a copy of
///                            the point with nPointIdx = its index in points.
/// A line without valid points gives nothing; lines with fewer than three valid
/// points or shorter than the arms give no corners but still give segment
/// ends. NaN heights count as invalid; NaN or infinite y or limits never hang
/// or read out of bounds (NaN angles compare false). A null out does nothing.
PA_API void hx_getLineCornerFeature(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                    SHX_cornerParam param, SHX_lineFeature* out);

/// Height jumps of one profile, found as a convex and a concave corner bounding
/// one steep flank.
/// Corner angles as hx_getLineCornerFeature (valid: z > 0.0001). Local maxima
/// (convex) and minima (concave) of the corner angle whose magnitude is at
/// least minCornerAngle and not exceeded within 2 * armLen along y by another
/// extremum of the same kind are kept when one arm is flat (|angle| <
/// armAngle1) and the other steep (|angle| > armAngle2). Along the line, a
/// convex flat-then-steep corner followed directly by a concave steep-then-flat
/// one is a falling jump (type 2, at the convex corner); a concave
/// flat-then-steep corner followed by a convex steep-then-flat one is a rising
/// jump (type 1, at the convex corner). Either needs the corners closer than
/// maxGapY along y and the z of the point one arm before the first corner and
/// one arm after the second differing by more than jumpZ. The reported point
/// is always the corner on the high side; featureValue is the z of the upper
/// flat part (the arm point outside that corner).
/// @param[in]     points      array of pointCount points (read only)
/// @param[in]     pointCount  number of points; 0 or negative gives nothing
/// @param[in]     lineIdx     index of the line, written into every record
/// @param[in]     param       maxGapY, jumpZ (length unit), armLen (length unit),
///                            minCornerAngle, armAngle1, armAngle2 (degrees)
/// @param[in,out] features    jumps are appended in order along the line, never
///                            cleared; featurePos is a copy of the point with
///                            nPointIdx = its index in points
/// NaN heights count as invalid; NaN or infinite y or limits never hang or read
/// out of bounds (NaN angles compare false).
PA_API void hx_getLineJumpFeature_cornerMethod(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                               SHX_cornerParam param, std::vector<SHX_basicFeature1D>& features);

// ===========================================================================
// Per-line detectors: right angles and glove arcs
// ===========================================================================

/// Right-angle corners of one profile: points where, in the y-z plane, a flat
/// stretch (z nearly constant) meets a wall (y nearly constant). One feature
/// per run of consecutive corner points of one kind.
///
/// An arm of a point is walked outward over the points with z > 0.0001; it
/// holds the points whose |dy| + |dz| from the corner is at most the reach, and
/// the first point beyond the reach is its far end. A point is screened with
/// the smallest of the eight reaches and the largest of the four tolerances;
/// a point passing the flat-before screening is finished there (the wall-
/// before kinds are not tried). Kinds and their records:
///  - param1: flat before, wall after, wall's far end above the point: type 10;
///  - param2: wall before, flat after, point above the wall's far end: type 12;
///  - param3: flat before, wall after, far end not above: type 9 (reaches of
///    param3, tolerance of param1: param3.maxDeviation only enters the screening);
///  - param4: wall before, flat after, point not above: type 11.
/// Within a run of one kind the reported point is the last one whose backward
/// arm ends at the immediately preceding point, else the run's middle. The first
/// and last valid points of a line are never corners.
/// @param[in]     points      pointCount points of the line (read only; z >= 0.0001 for a corner)
/// @param[in]     pointCount  0 or below: nothing happens
/// @param[in]     lineIdx     copied into the features
/// @param[in]     param1..4   the four kinds, as above
/// @param[in,out] feature     features (type 9..12, nPointIdx = array index, featureValue 0.0)
///                            are appended to feature->features; its lineIdx and endings are not touched
/// NaN heights are treated as invalid points; NaN parameters do not loop or crash.
PA_API void hx_getLineRigthAngleFeature(const SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                        SHX_lineRightAngleParam param1, SHX_lineRightAngleParam param2,
                                        SHX_lineRightAngleParam param3, SHX_lineRightAngleParam param4,
                                        SHX_lineFeature* feature);

/// Glove arcs of one profile: points with z > 0.0001 that no neighbour within
/// chordLen (y-z distance) rises above (>= before, > after, so of equal highest
/// points the first survives) and around which the forward chord's slope angle
/// drops by at least minArcAngle: the largest angle over searchArcLen of
/// polyline before the point (starting from 0.0) minus the smallest from the
/// point on (starting from its own angle). Angles are
/// atan(dz / |dy|) * 180 / 3.141592654 of the chord to the first point at least
/// chordLen away; a point without a chord end on either side has angle 0.
/// @param[in]     linePts    the line (read only); fewer than 10 points give nothing
/// @param[in]     lineIdx    copied into the features
/// @param[in]     param      chordLen, searchArcLen, minArcAngle (degrees)
/// @param[in,out] gloveArcs  features appended in point order: type 13, featurePos = the point with
///                           nPointIdx = its index in linePts, featureValue = the angle drop (degrees)
/// A vertical chord gives +-90 degrees; NaN heights or parameters do not loop or crash.
PA_API void rk_getLineGloveArcs(const std::vector<SKesp3DPosition>& linePts, int lineIdx, SHX_gloveArcParam param,
                                std::vector<SHX_basicFeature1D>& gloveArcs);

// ===========================================================================
// Per-line detectors: upper semicircles
// ===========================================================================

/// Upper semicircles of one profile: short runs of valid points whose inside
/// holds a local z minimum. Neighbouring semicircles of one labelled object
/// are reported as one.
/// Runs are maximal stretches of strictly valid points (z > 0.0001); a run
/// whose first point lies less than maxGapY in y from the previous run's last
/// point continues that run (chaining). On each run hx_getLineLocalPeaks is
/// called with slopeParam.slopeRangeY; a run that holds one of its valleys
/// strictly inside and whose end points lie less than 4 * maxHalfWidth apart
/// in y is recorded as a semicircle: featureType 0, startPtIdx / endPtIdx its
/// end points, peakPtIdx the valid point (z >= 0.0001) of the span whose y is
/// nearest the mean of the ends' y (the earlier on ties), x, y, z of that
/// point, width |y(end) - y(start)|, topZ the smallest valid z of the span.
/// Merging: each recorded semicircle but the last is decided against its
/// successor: when label row endPtIdx + 1 of it and label row startPtIdx - 1
/// of the successor (column lineIdx) hold the same label, 1 or above, it takes
/// the successor's end, its peak, width and topZ are recomputed over the new
/// span, and the successor is used up; otherwise it is output unchanged. Only
/// two neighbours merge at a time. The last recorded semicircle is never
/// output on its own: it appears only merged into its predecessor, so a line
/// with a single semicircle outputs nothing.
/// @param[in,out] points        pointCount points; the nPointIdx of every point
///                              of a run is set to its index within the run
///                              (0, 1, ...), by hx_getLineLocalPeaks; points
///                              outside runs keep theirs
/// @param[in]     pointCount    number of points; below 1 does nothing
/// @param[in]     lineIdx       scan-line index: copied into the records and
///                              the column read from labelImg
/// @param[in]     maxHalfWidth  largest half-width of a semicircle (length unit)
/// @param[in]     slopeParam    uses slopeRangeY and maxGapY only
/// @param[in,out] features      semicircles are appended, in line order
/// @param[in]     labelImg      label image of the scan, CV_32SC1, one row per
///                              point index and one column per line; only read,
///                              never copied. Needs pointCount + 1 rows and a
///                              column lineIdx; rows and columns outside the
///                              image read as label 0 (no merge), and so does
///                              every element of an image of another type
/// A line without valid points, or without a narrow run holding a valley,
/// gives nothing. A null points pointer gives nothing. NaN coordinates never
/// join runs nor pass the width test.
PA_API void hx_getLineUpperSemiCircleFeature(SKesp3DPosition* points, int32_t pointCount, int32_t lineIdx,
                                             double maxHalfWidth, SHX_slopeParam slopeParam,
                                             std::vector<SHX_featureSemiCircle>& features, const cv::Mat& labelImg);

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

/// Grows L/V features (steps, flanks, V shapes, corners) into trees and cleans
/// them with the size of the object looked for; returns the segment ends that
/// no tree took.
///  1. Grows with hx_getFeatureGrowingTrees (trees already in the vector take
///     part).
///  2. For every tree, in order: the type becomes the most frequent node type
///     (the lower type on ties; node types outside 0..15 are not counted, and
///     a winner of type 0 or no counted node leaves the type unchanged). Then
///     the tree is lengthened backwards: from the line before its first node
///     down to line 0, the first ending of each line whose y and z differ from
///     the newest first node by less than yDeviation_max / zDeviation_max and
///     that lies fewer than maxLineSkipNum lines from it is put in front; the
///     search stops at a line without one that lies more than maxLineSkipNum
///     lines from the first node. Forwards likewise, but every ending is
///     compared with the last node the tree had before (so only endings fewer
///     than maxLineSkipNum lines after it can join). A taken ending is retyped
///     to the tree's type in lineFeatures, and so is its copy in the tree.
///     sLineIdx, eLineIdx and treeValue are not changed.
///  3. Every tree gets its xRange / yRange from its nodes. A tree of type 3,
///     4, 5 or 15 is erased when bagW * 0.25 > its x extent and its y extent
///     > half its x extent.
///  4. From the last tree to the first, a remaining tree of type 3, 4, 5 or 15
///     with bagW * 0.5 > its x extent is erased when the nearest remaining
///     trees below and above it along y whose x extents strictly contain its
///     own have y centres less than bagL * 1.3 apart.
///  5. Every ending still of type 6 goes to startPts and of type 7 to endPts,
///     as x = lineIdx, y = point index, featureType, value = z, value2 = 0.
/// @param[in,out] lineFeatures  one record per scan line in scan order, with
///                              lineIdx equal to its position; the featureType
///                              of the endings taken by trees is changed
/// @param[in,out] trees         grown, typed, lengthened and cleaned; erasing
///                              keeps the order of the others
/// @param[in]     bagParam      length bagL and width bagW of the object
/// @param[in]     growParam     growing limits, also used by the lengthening
/// @param[in,out] startPts      free segment starts are appended, in line order
/// @param[in,out] endPts        free segment ends are appended, in line order
/// With empty lineFeatures nothing is grown, lengthened or collected, but the
/// trees already in the vector are still typed and cleaned. An ending can be
/// taken by several trees. Line indices outside the vector are outside
/// the contract: the searches stay inside it. Cost: the growing, plus the
/// lines searched by the lengthening, plus the square of the number of shape
/// trees tested for enclosure.
PA_API void hx_LVFeatureGrowing(std::vector<SHX_lineFeature>& lineFeatures, std::vector<SHX_featureTree>& trees,
                                SHX_bagParam bagParam, SHX_treeGrowParam growParam,
                                std::vector<SHX_2DValueI>& startPts, std::vector<SHX_2DValueI>& endPts);

// ===========================================================================
// Feature tracking: semicircle trees
// ===========================================================================

/// Tracks the upper semicircles of one scan line into trees; call it once per
/// line, in scan order, with the same working vector `trees`.
/// Each feature, in order: type 5 (used up) is skipped; type 1 or 3 seeds a new
/// tree; any other type joins the first tree of `trees` that accepts it, or
/// seeds one. A tree accepts f when it is not closed, its last node lies on
/// another line and has neither type 2 nor 4, |f.y - last.y| <
/// yDeviation_max, and either the line gap |f.lineIdx - last.lineIdx| <
/// maxLineSkipNum or |f.x - last.x| < xDeviation_max. No z or type test.
/// Crowding: the features right after f that pass the same y and gap/x test
/// against that last node (up to the first that fails, whatever their type)
/// compete with f; the one nearest in y joins (the earlier on ties) and all of
/// them, f included, get type 5. A seeded tree has treeState 1, treeType 0,
/// sLineIdx = eLineIdx = f.lineIdx, one node and all other fields zero.
/// Then the growing trees are closed, from the last to the first, when
/// maxLineSkipNum > 0 and |lineIdx - last.lineIdx| > maxLineSkipNum, or when
/// lineIdx == lineNum - 1: treeState becomes 2 and the tree is moved to
/// `validTrees` if its length (x-y distance of its first and last nodes) is
/// strictly greater than minVTypeTreeLen, else to `shortTrees`, and erased from
/// `trees` (the others keep their order).
/// @param[in,out] lineFeatures  the line's semicircles; the types of the
///                              features used up by crowding become 5
/// @param[in]     lineIdx       index of the current line
/// @param[in]     lineNum       number of lines in the scan
/// @param[in,out] trees         the working trees, kept by the caller between
///                              calls (empty before the first line; empty again
///                              after the call for line lineNum - 1)
/// @param[in,out] validTrees    closed long trees are appended
/// @param[in,out] shortTrees    closed short trees are appended
/// @param[in]     growParam     uses yDeviation_max, maxLineSkipNum,
///                              xDeviation_max and minVTypeTreeLen only
/// Empty `lineFeatures` only closes trees. NaN coordinates never match (such a
/// feature seeds a tree of its own). Out of contract: a tree without nodes in
/// `trees` takes nothing and closes only at the end of the scan, as a short
/// tree.
PA_API void hx_getFeatureGrowingTrees_semiCircle(std::vector<SHX_featureSemiCircle>& lineFeatures, int32_t lineIdx,
                                                 int32_t lineNum, std::vector<SHX_semiCircleFeatureTree>& trees,
                                                 std::vector<SHX_semiCircleFeatureTree>& validTrees,
                                                 std::vector<SHX_semiCircleFeatureTree>& shortTrees,
                                                 SHX_treeGrowParam growParam);

// ===========================================================================
// Image analysis: labelling
// ===========================================================================

/// Connected components of a binary image, with one bounding-box record each.
/// Only interior pixels (not on the outermost rows and columns) equal to 1 are
/// labelled: components get 2, 3, ... in raster order of their first pixel
/// (top row first, leftmost first). Border pixels are never labelled and never
/// join components, so two interior parts linked only through the border are
/// two components.
/// @param[in]  binImg        single-channel image of any depth; 1 is
///                           foreground, 0 background
/// @param[out] labelImg      replaced by a CV_32S image of binImg's size: 0
///                           background, the component label on labelled
///                           pixels, border pixels binImg's value converted to
///                           int (so 1 for border foreground)
/// @param[in,out] regions    one record per component is appended in label
///                           order ({left, right, top, bottom} in columns and
///                           rows, pixelCnt, label); records already present
///                           are kept and not consulted
/// @param[in]  connectivity  8 for 8-connectivity; any other value gives 4
/// Images with fewer than 3 rows or columns are only converted (no labels, no
/// records). Out of contract: interior pixels with values other than 0 and 1
/// (after conversion to int, which rounds non-integer depths) come out as 0;
/// a multi-channel image is only converted.
PA_API void HX_TwoPassLabel(const cv::Mat& binImg, cv::Mat& labelImg, std::vector<SHX_Region>& regions,
                            int connectivity);

// ===========================================================================
// Image analysis: distance transform and window peaks
// ===========================================================================

/// Two-pass chamfer distance transform. Seeds hold 0 and the pixels whose
/// distance is wanted a large value; every interior pixel is relaxed to the
/// smallest of its value and a neighbour's value plus the step cost, first
/// top-down (rows 1..N-2, columns 1..M-1; neighbours up-left, up, left and
/// below-left), then bottom-up (rows N-2..1, columns M-2..0; neighbours below,
/// below-right, right and up-right). Then the frame (first and last row and
/// column) is set to 0.
/// @param[in]  src       CV_32FC1 starting values (not modified)
/// @param[out] dst       replaced by a new CV_32F image of src's size
/// @param[in]  distType  0: diagonal step sqrt(2) in float (1.41421354),
///                       1: diagonal 2 (city block), other: diagonal 1
///                       (chessboard); the orthogonal step is always 1
/// Fewer than 3 rows: only the frame is zeroed; an empty src gives an empty
/// dst. NaN pixels keep their value and never spread. Out of contract: another
/// single-channel depth is converted to float first; a multi-channel src
/// leaves dst empty.
PA_API void hx_distanceTrans(cv::Mat src, cv::Mat& dst, int distType);

/// Local maxima of a float image by a windowed search. Windows are W x H
/// (W = param.searchWin_x columns, H = param.searchWin_y rows); with
/// nX = ceil(cols / (W/2)) and nY = ceil(rows / (H/2)), window (k, j) for
/// k = 0..nY-1 (outer) and j = 0..nX-1 (inner) starts at row (k*W)/2 and
/// column (j*H)/2, clipped to the image. In each window the pixels are taken
/// column by column (column outer, row inner); the first becomes the best, and
/// so does every later pixel while the best is negative, otherwise only a
/// strictly greater one (ties keep the first). A best on the window's first or
/// last row or column (of the unclipped window) is dropped, so a side cut off
/// by the image edge has no border. A position is reported once, in order of
/// first finding.
/// @param[in]     img    CV_32FC1 image, read only (any other type: no peaks)
/// @param[in,out] peaks  appended {x = column, y = row, 0, value, 0}
/// @param[in]     param  window sizes; both must be at least 2: a smaller size
///                       returns without peaks
/// An empty image gives no peaks.
PA_API void hx_getLocalPeaks_distTransform(const cv::Mat& img, std::vector<SHX_2DValueI>& peaks,
                                           SHX_localPkParam param);

/// Local minima of z in a scan seen as an image whose columns are scan lines
/// and whose rows are point indices. Same windowed search as
/// hx_getLocalPeaks_distTransform with these differences: the extent is
/// lineNum lines by the first line's nPositionCnt points; window (k, j) for
/// k = 0..nY-1 (outer) and j = 0..nX-1 (inner) starts at line (k*W)/2 and
/// point (j*H)/2; only valid points (z >= 0.0001) are samples; better is
/// strictly smaller z (ties keep the lower line, then the lower point).
/// @param[in]     lines    array of lineNum scan lines, read only; all are
///                         taken to have the first line's point count
/// @param[in]     lineNum  number of lines; 0 or negative gives no peaks
/// @param[in,out] peaks    appended {x = line index, y = point index, 0, z, 0}
/// @param[in]     param    window sizes (W along lines, H along points); both
///                         must be at least 2: a smaller size returns without
///                         peaks
/// A window without valid points reports nothing. Out of contract: a line
/// with fewer points than the first (or no array) has no samples past its end.
PA_API void hx_getLocalPeaks(const SKesp3DLaserLine* lines, int32_t lineNum, std::vector<SHX_2DValueI>& peaks,
                             SHX_localPkParam param);

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
/// a negative maxContourIdx outputs nothing. Memory use follows the number of
/// points, whatever the identifiers and maxContourIdx. NaN seed distances make their
/// contour's mean NaN, which is never selected. A null flagMajority is skipped.
PA_API void hx_contourPostProc(const std::vector<SHX_contourPtInfo>& contourPts, int maxContourIdx,
                               double distTolerance, std::vector<SHX_2DValueI>& outPts, int tag, int* flagMajority);

#endif  // PROFILE_ANALYSIS_H
