// A synthetic line-laser scan made in code, so the demo has something real to
// find without any file.
#ifndef PROFILE_DEMO_SYNTHETIC_SCAN_H
#define PROFILE_DEMO_SYNTHETIC_SCAN_H

#include <vector>

#include "profile_analysis.h"

struct SyntheticScanSpec {
    int lines = 400;            ///< scan lines (x direction, one per pitchX)
    int points = 512;           ///< points per line (y direction, one per pitchY)
    double pitchX = 0.5;        ///< line spacing
    double pitchY = 0.25;       ///< point spacing
    double floorHeight = 40.0;  ///< floor height at the scan's centre
    double rollDeg = 1.5;       ///< floor tilt about x
    double pitchDeg = -1.0;     ///< floor tilt about y
};

/// The scan: a tilted floor with a box standing on it and a few runs of
/// missing points (z = 0). One vector per scan line, point index = array index.
std::vector<std::vector<SKesp3DPosition>> makeSyntheticScan(const SyntheticScanSpec& spec);

#endif
