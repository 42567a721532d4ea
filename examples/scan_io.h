// Reading a user's scan: a CSV of points or a range image.
#ifndef PROFILE_DEMO_SCAN_IO_H
#define PROFILE_DEMO_SCAN_IO_H

#include <string>
#include <vector>

#include "profile_analysis.h"

using Scan = std::vector<std::vector<SKesp3DPosition>>;

/// Units of a range image: x = row * pitchX, y = column * pitchY, z = value * zScale.
struct RangeImageUnits {
    double pitchX = 1.0;
    double pitchY = 1.0;
    double zScale = 1.0;
};

/// Loads a scan from FILE: a CSV (".csv" or ".txt": rows "line,x,y,z", a header
/// row allowed, lines in order, z = 0 for missing points) or a 16-bit or float
/// range image (PNG, TIFF: rows are scan lines, columns points, 0 = missing).
/// On failure returns false and a one-line message in error.
bool loadScan(const std::string& path, const RangeImageUnits& units, Scan& scan, std::string& error);

#endif
