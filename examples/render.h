// The demo's picture: the levelled scan as a colour height map with the
// trees, regions and peaks drawn on it.
#ifndef PROFILE_DEMO_RENDER_H
#define PROFILE_DEMO_RENDER_H

#include <string>

#include "pipeline.h"

/// Writes the picture as PNG; returns false (with a message) when it cannot.
bool writePicture(const PipelineResult& r, const std::string& path, std::string& error);

#endif
