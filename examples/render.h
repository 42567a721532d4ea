// The demo's picture: the scan as a colour height map with the trees, regions
// and peaks drawn on it, axes in lines and points, a colour bar of heights and
// a legend of the tree colours.
#ifndef PROFILE_DEMO_RENDER_H
#define PROFILE_DEMO_RENDER_H

#include <string>

#include "pipeline.h"

/// The name of a feature type code (1 rising step ... 15 corner).
const char* featureTypeName(int type);

/// Writes the picture as PNG; returns false (with a message) when it cannot.
bool writePicture(const PipelineResult& r, const std::string& path, std::string& error);

#endif
