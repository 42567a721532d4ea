// A synthetic line-laser scan made in code, so the demo has something real to
// find at every step without any file.
#ifndef PROFILE_DEMO_SYNTHETIC_SCAN_H
#define PROFILE_DEMO_SYNTHETIC_SCAN_H

#include <vector>

#include "profile_analysis.h"

struct SyntheticScanSpec {
    int lines = 600;             ///< scan lines, one per pitchX along x
    int points = 1000;           ///< points per line, one per pitchY along y
    double pitchX = 0.5;         ///< line spacing
    double pitchY = 0.25;        ///< point spacing
    double conveyorZ = 50.0;     ///< conveyor height before tilting
    double rollDeg = 1.2;        ///< sensor tilt about x
    double pitchDeg = -0.8;      ///< sensor tilt about y
    double noise = 0.02;         ///< height noise amplitude
    unsigned seed = 12345;       ///< noise and speck seed
};

/// The scene, level, in scan coordinates: a conveyor with a box, two round
/// bars and a thin cable lying along x on a rack above it, a plate with a V groove along x, and
/// a step up onto a platform near the far edge, and a thin cable beside it.
/// Everything stands well clear of the conveyor, so that the conveyor is a band
/// of heights of its own (that is how plane calibration finds it). The scan is this scene rotated by the sensor's
/// tilt (about the scan's centre), with noise, specks and runs of missing
/// points (z = 0). One vector per scan line; nPointIdx = point index.
std::vector<std::vector<SKesp3DPosition>> makeSyntheticScan(const SyntheticScanSpec& scene);

/// Where the built-in scene's objects lie, for the report.
struct SyntheticScene {
    static constexpr double kBar1Y = 80.0, kBar1R = 6.0, kBar1Axis = 16.0;   // axis height over the conveyor
    static constexpr double kBar2Y = 185.0, kBar2R = 5.0, kBar2Axis = 15.0;
    static constexpr double kCableY = 205.0, kCableR = 2.0;   // a thin cable on the rack too
    static constexpr double kStepY = 212.0, kStepH = 15.0;
    static constexpr double kGrooveY = 140.0;
};

#endif
