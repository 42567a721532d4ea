// profile_demo: runs the library's typical pass over a scan (a built-in
// synthetic one, or the user's own) and prints what each step finds and costs.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pipeline.h"
#include "render.h"
#include "scan_io.h"
#include "synthetic_scan.h"

namespace {

constexpr int kBadInput = 2;

void usage() {
    std::printf(
        "usage: profile_demo [--scan FILE] [options]\n"
        "\n"
        "Runs the profile-analysis library's typical pass over a scan and prints a report;\n"
        "writes a picture of the levelled scan with its trees, regions and peaks.\n"
        "\n"
        "Input (default: a built-in synthetic scan)\n"
        "  --scan FILE            a CSV of points (line,x,y,z per row; header allowed; z = 0 for\n"
        "                         missing points; lines in order), or a 16-bit or float range\n"
        "                         image (PNG, TIFF: rows are scan lines, columns points, 0 = missing)\n"
        "  --pitch-x V            range image: line spacing (default 1)\n"
        "  --pitch-y V            range image: point spacing (default 1)\n"
        "  --z-scale V            range image: height per grey value (default 1)\n"
        "Output\n"
        "  --out FILE             the picture (PNG; default profile_demo.png)\n"
        "Parameters (defaults derived from the scan's extent and point pitch p)\n"
        "  --height-limit V       levelling drops points higher than this above the plane\n"
        "                         (default off; built-in scan 40)\n"
        "  --force-level          level the scan on the calibrated plane even when that plane\n"
        "                         does not look like a floor (too few points in it, or not flat)\n"
        "  --plane-inlier-dist V  refinement of the plane: largest distance of its points (0.4 p)\n"
        "  --object-height V      height above the plane that counts as an object (12 p)\n"
        "  --smooth-window N      smoothing span in points (5)\n"
        "  --feature-range V      neighbourhood of the peak detectors along y (40 p)\n"
        "  --jump-height V        least height of a step or jump (12 p)\n"
        "  --track-tolerance V    y and z deviation when linking features across lines (12 p)\n"
        "  --max-line-skip N      lines a tracked feature may miss (5)\n"
        "  --min-tree-length V    shortest tree kept (5%% of the scan's length, at least 40 line pitches)\n"
        "  --object-length V      length of the object looked for (30%% of the scan's length)\n"
        "  --object-width V       width of the object looked for (20%% of the scan's width)\n"
        "  --bar-radius V         largest half width of a round bar (32 p)\n"
        "  --help                 this text\n");
}

[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "profile_demo: error: %s\n", message.c_str());
    std::exit(kBadInput);
}

double numberArg(const char* name, const char* value) {
    char* end = nullptr;
    const double v = value ? std::strtod(value, &end) : 0.0;
    if (!value || end == value || *end != '\0' || !std::isfinite(v)) fail(std::string(name) + " needs a number");
    return v;
}

struct Options {
    std::string scanPath;
    std::string outPath = "profile_demo.png";
    RangeImageUnits units;
    PipelineConfig cfg;
};

Options parseArgs(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        auto num = [&]() {
            ++i;
            return numberArg(a.c_str(), v);
        };
        if (a == "--help" || a == "-h") {
            usage();
            std::exit(0);
        } else if (a == "--scan") {
            if (!v) fail("--scan needs a file");
            o.scanPath = v;
            ++i;
        } else if (a == "--out") {
            if (!v) fail("--out needs a file");
            o.outPath = v;
            ++i;
        } else if (a == "--pitch-x") o.units.pitchX = num();
        else if (a == "--pitch-y") o.units.pitchY = num();
        else if (a == "--z-scale") o.units.zScale = num();
        else if (a == "--height-limit") o.cfg.heightLimit = num();
        else if (a == "--force-level") o.cfg.forceLevel = true;
        else if (a == "--plane-inlier-dist") o.cfg.planeInlierDist = num();
        else if (a == "--object-height") o.cfg.objectHeight = num();
        else if (a == "--smooth-window") o.cfg.smoothWindow = static_cast<int>(num());
        else if (a == "--feature-range") o.cfg.featureRange = num();
        else if (a == "--jump-height") o.cfg.jumpHeight = num();
        else if (a == "--track-tolerance") o.cfg.trackTolerance = num();
        else if (a == "--max-line-skip") o.cfg.maxLineSkip = static_cast<int>(num());
        else if (a == "--min-tree-length") o.cfg.minTreeLength = num();
        else if (a == "--object-length") o.cfg.objectLength = num();
        else if (a == "--object-width") o.cfg.objectWidth = num();
        else if (a == "--bar-radius") o.cfg.barRadius = num();
        else fail("unknown option " + a + " (see --help)");
    }
    if (!(o.units.pitchX > 0) || !(o.units.pitchY > 0) || !(o.units.zScale > 0))
        fail("--pitch-x, --pitch-y and --z-scale must be positive");
    return o;
}

void printRange(const char* axis, const SKespRangeD& r) {
    if (r.min > r.max)
        std::printf("   %s  (no valid point)\n", axis);
    else
        std::printf("   %s  %10.3f .. %10.3f\n", axis, r.min, r.max);
}

// Why the calibrated plane is not taken as the scan's floor, with the figures.
void printPlaneDoubt(const PipelineResult& r, const Options& o) {
    std::printf("   the scan shows no reference plane it can trust:\n");
    std::printf("   the calibrated plane (height %.4f) has %.2f%% of the valid points in its band (%ld of %ld)\n",
                r.calib.planeHeight, 100.0 * r.floorShare, r.floorPoints, r.validPoints);
    std::printf("   and they spread %.4f (std dev) after levelling, where %s\n", r.floorSpreadAfter,
                r.planeDoubt.c_str());
    if (o.cfg.forceLevel)
        std::printf("   levelled on it all the same (--force-level)\n");
    else
        std::printf("   the scan is left unlevelled (--force-level levels it on that plane)\n");
}

void printLevelling(const PipelineResult& r, const Options& o, const SyntheticScanSpec* scene) {
    std::printf("   plane height:          %.4f\n", r.calib.planeHeight);
    std::printf("   recovered tilt:        roll %.4f pitch %.4f yaw %.4f degrees\n", r.tilt.roll, r.tilt.pitch,
                r.tilt.yaw);
    std::printf("   before refinement:     roll %.4f pitch %.4f yaw %.4f degrees (histogram fit; refined with\n"
                "                          the points within %.3g of the plane)\n",
                r.tiltUnrefined.roll, r.tiltUnrefined.pitch, r.tiltUnrefined.yaw, o.cfg.planeInlierDist);
    if (scene) std::printf("   built-in tilt:         roll %.4f pitch %.4f degrees\n", scene->rollDeg, scene->pitchDeg);
    std::printf("   floor height spread:   %.4f before, %.4f after levelling (std dev, %ld floor points, %.1f%%)\n",
                r.floorSpreadBefore, r.floorSpreadAfter, r.floorPoints, 100.0 * r.floorShare);
    std::printf("   without refinement:    %.4f after levelling by the histogram fit\n", r.floorSpreadUnrefined);
    if (o.cfg.heightLimit > 0)
        std::printf("   height limit:          %ld points above %.1f over the plane dropped\n", r.cutByHeightLimit,
                    o.cfg.heightLimit);
}

void printReport(const PipelineResult& r, const Options& o, const SyntheticScanSpec* scene) {
    std::printf("Scan: %s, %d lines x %d points (pitch %.3g x %.3g), %ld valid points\n\n",
                scene ? "built-in synthetic scene" : o.scanPath.c_str(), r.lines, r.points, r.pitchX, r.pitchY,
                r.validPoints);

    std::printf("1. Bounding box of the valid points\n");
    printRange("x", r.box.xRange);
    printRange("y", r.box.yRange);
    printRange("z", r.box.zRange);

    std::printf("\n2. Plane calibration and levelling\n");
    if (!r.calibrated) {
        std::printf("   no reference plane found (planeHeight -1): the scan is left as it is\n");
    } else {
        if (!r.planeTrusted) printPlaneDoubt(r, o);
        if (r.levelled) printLevelling(r, o, scene);
    }

    std::printf("\n3. Smoothing and outlier removal\n");
    std::printf("   heights smoothed:      %ld points (segment-wise, window %d)\n", r.smoothedChanged, o.cfg.smoothWindow);
    std::printf("   outliers removed:      %ld points\n", r.outliersRemoved);
    std::printf("   clusters in a cut:     %d (object points of line %d)\n", r.clustersInCut, r.cutLine);

    std::printf("\n4. Per-line detectors (whole scan; sample line %d)\n", r.sampleLine);
    std::printf("   %-22s %10s   %s\n", "detector", "features", "on the sample line");
    for (const auto& d : r.detectors) std::printf("   %-22s %10ld   %s\n", d.name.c_str(), d.features, d.sampleLine.c_str());

    std::printf("\n5. Feature trees (kept after closing)\n");
    std::printf("   %-20s %-16s %6s %13s %12s %10s\n", "detector", "type", "trees", "lines", "mean length", "longest");
    for (const auto& t : r.treeRows) {
        if (t.trees == 0) {
            std::printf("   %-20s %-16s %6d\n", t.detector.c_str(), "-", 0);
            continue;
        }
        char span[32];
        std::snprintf(span, sizeof span, "%d..%d", t.firstLine, t.lastLine);
        char type[32];
        std::snprintf(type, sizeof type, "%d %s", t.type, featureTypeName(t.type));
        std::printf("   %-20s %-16s %6d %13s %12.2f %10.2f\n", t.detector.c_str(), type, t.trees, span, t.meanLength,
                    t.maxLength);
    }
    std::printf("   free segment ends:     %ld starts, %ld ends\n", r.freeStarts, r.freeEnds);

    std::printf("\n6. Round bars (semicircle trees)\n");
    std::printf("   bars tracked:          %zu (%d short trees dropped)\n", r.bars.size(), r.shortSemicircleTrees);
    for (size_t k = 0; k < r.bars.size(); ++k) {
        const auto& b = r.bars[k];
        std::printf("   bar %zu: lines %d..%d, %d nodes, length %.2f, mean width %.2f, at y %.2f\n", k + 1, b.firstLine,
                    b.lastLine, b.nodes, b.length, b.meanWidth, b.meanY);
    }

    std::printf("\n7. Image analysis (columns = lines, rows = points)\n");
    std::printf("   regions:               %d labelled, %zu large\n", r.allRegions, r.regions.size());
    for (const auto& g : r.regions)
        std::printf("     label %-4d lines %4d..%-4d points %4d..%-4d %8d pixels\n", g.label, g.left, g.right, g.top,
                    g.bottom, g.pixelCnt);
    std::printf("   distance peaks:        %zu", r.distPeaks.size());
    if (!r.distPeaks.empty())
        std::printf(" (strongest %.2f at line %d, point %d)", r.distPeaks.front().value, r.distPeaks.front().x,
                    r.distPeaks.front().y);
    std::printf("\n   scan height minima:    %d (16 x 16 windows)\n", r.scanMinima);
    if (r.seedScanned) {
        std::printf("   peak XY scan:          %d contour points, %d kept by post-processing (majority flag %d)\n",
                    r.contourPointsFound, r.contourPointsKept, r.flagMajority);
        std::printf("   width at the seed:     %.2f (mean over %d lines), %d contour points of its region below it\n",
                    r.meanWidthAtSeed, r.widthPairs, r.seedContourPoints);
    } else {
        std::printf("   peak XY scan:          skipped (no peak, or lines of unequal length)\n");
    }

    std::printf("\nTime per step (library calls only)\n");
    for (const auto& t : r.times) std::printf("   %-26s %9.1f ms\n", t.step.c_str(), t.ms);
    std::printf("   %-26s %9.1f ms\n", "total", r.totalMs);
}

}  // namespace

int main(int argc, char** argv) {
    Options o = parseArgs(argc, argv);
    Scan scan;
    SyntheticScanSpec scene;
    const bool builtIn = o.scanPath.empty();
    if (builtIn) {
        scan = makeSyntheticScan(scene);
    } else {
        std::string error;
        if (!loadScan(o.scanPath, o.units, scan, error)) fail(error);
    }
    deriveDefaults(scan, o.cfg, builtIn);
    PipelineResult r = runPipeline(scan, o.cfg);
    printReport(r, o, builtIn ? &scene : nullptr);
    std::string error;
    if (writePicture(r, o.outPath, error))
        std::printf("\nPicture: %s\n", o.outPath.c_str());
    else
        std::printf("\nPicture: not written (%s)\n", error.c_str());
    return 0;
}
