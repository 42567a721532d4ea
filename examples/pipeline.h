// The library's typical pass over one scan, as the demo runs it.
#ifndef PROFILE_DEMO_PIPELINE_H
#define PROFILE_DEMO_PIPELINE_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "profile_analysis.h"

using Scan = std::vector<std::vector<SKesp3DPosition>>;

/// Tunable values of the pass. Those left at 0 (or negative) are derived from
/// the scan's extent and point pitch by deriveDefaults.
struct PipelineConfig {
    double heightLimit = 0.0;     ///< levelling height limit above the plane (0: off)
    double planeInlierDist = 0.0; ///< inlier distance of the plane refinement
    double objectHeight = 0.0;    ///< height above the plane that counts as an object
    int smoothWindow = 0;         ///< smoothing span in points
    double featureRange = 0.0;    ///< neighbourhood along y of the peak detectors
    double jumpHeight = 0.0;      ///< least step height of the step and jump detectors
    double trackTolerance = 0.0;  ///< y and z deviation of tree growing
    int maxLineSkip = 0;          ///< lines a tree may miss
    double minTreeLength = 0.0;   ///< shortest tree kept
    double objectLength = 0.0;    ///< object size for L/V cleaning and the XY scan
    double objectWidth = 0.0;
    double barRadius = 0.0;       ///< largest half width of a round bar
    bool forceLevel = false;      ///< level on the calibrated plane even when it is not trusted
};

/// One row of a tree table: the trees of one type grown from one detector.
struct TreeRow {
    std::string detector;
    int type = 0;
    int trees = 0;
    int firstLine = 0, lastLine = 0;  ///< line span over all trees of the row
    double meanLength = 0.0;
    double maxLength = 0.0;
};

struct StepTime {
    std::string step;
    double ms = 0.0;
};

/// Everything the report and the picture show.
struct PipelineResult {
    int lines = 0, points = 0;
    long validPoints = 0;
    double pitchX = 0.0, pitchY = 0.0;
    SKesp3DRangeD box;

    SHX_planeCalibPara calib;
    bool calibrated = false;
    bool planeTrusted = false;            ///< the calibrated plane looks like a floor (see judgeReferencePlane)
    std::string planeDoubt;               ///< why it does not, when it does not
    bool levelled = false;                ///< the scan was levelled (trusted, or forced)
    SHX_EulerAngles tilt;                 ///< sensor tilt recovered from the inverse rotation
    SHX_EulerAngles tiltUnrefined;        ///< the same from the calibration before its refinement
    double floorSpreadUnrefined = 0.0;    ///< std dev of floor heights levelled without the refinement
    double floorSpreadBefore = 0.0, floorSpreadAfter = 0.0;  ///< std dev of floor heights
    long floorPoints = 0;
    double floorShare = 0.0;              ///< floorPoints / validPoints
    long cutByHeightLimit = 0;

    long smoothedChanged = 0;
    long outliersRemoved = 0;
    int clustersInCut = 0, cutLine = 0;

    struct DetectorCount {
        std::string name;
        long features = 0;
        std::string sampleLine;  ///< per-type counts on the sample line
    };
    std::vector<DetectorCount> detectors;
    int sampleLine = 0;
    std::vector<TreeRow> treeRows;
    long freeStarts = 0, freeEnds = 0;

    struct Bar {
        int firstLine, lastLine, nodes;
        double length, meanWidth, meanY;
    };
    std::vector<Bar> bars;
    int shortSemicircleTrees = 0;

    std::vector<SHX_Region> regions;      ///< regions large enough to report
    int allRegions = 0;
    std::vector<SHX_2DValueI> distPeaks;  ///< distance-transform peaks, strongest first
    int scanMinima = 0;
    SHX_2DValueI seed;
    bool seedScanned = false;
    int contourPointsFound = 0, contourPointsKept = 0, seedContourPoints = 0;
    int widthPairs = 0;
    double meanWidthAtSeed = 0.0;
    int flagMajority = 0;

    std::vector<StepTime> times;
    double totalMs = 0.0;

    // For the picture.
    cv::Mat heightMap;                        ///< levelled heights, CV_32F, rows = points, cols = lines (0: invalid)
    std::vector<SHX_featureTree> drawnTrees;    ///< trees of the detectors shown in the picture
    std::vector<std::vector<cv::Point>> barPaths;  ///< (line, point) of each bar's nodes
};

/// Whether a calibrated plane can be trusted as the scan's reference floor:
/// its height band must hold a fair share of the valid points and be flat
/// after levelling. Sets planeTrusted, and planeDoubt to the reason when not.
void judgeReferencePlane(PipelineResult& r, const PipelineConfig& cfg);

/// Fills the values left at 0 from the scan's extent and pitch.
void deriveDefaults(const Scan& scan, PipelineConfig& cfg, bool builtIn);

/// Runs the typical pass; the scan is levelled and cleaned in place.
PipelineResult runPipeline(Scan& scan, const PipelineConfig& cfg);

#endif
