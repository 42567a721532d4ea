#include "pipeline.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>

namespace {

using Clock = std::chrono::steady_clock;

// Accumulates the time spent inside library calls, per report step.
class StepClock {
public:
    template <typename F>
    void run(F&& f) {
        const auto t0 = Clock::now();
        f();
        ms_ += std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    }
    double ms() const { return ms_; }
    void reset() { ms_ = 0.0; }

private:
    double ms_ = 0.0;
};

std::vector<SKesp3DLaserLine> linesOf(Scan& scan) {
    std::vector<SKesp3DLaserLine> lines(scan.size());
    for (size_t i = 0; i < scan.size(); ++i) {
        lines[i].p3DPosition = scan[i].empty() ? nullptr : scan[i].data();
        lines[i].nPositionCnt = static_cast<int32_t>(scan[i].size());
        lines[i].nLineIdx = static_cast<int32_t>(i);
    }
    return lines;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// Point spacing along a line and line spacing, from consecutive valid points.
void estimatePitch(const Scan& scan, double& pitchX, double& pitchY) {
    std::vector<double> dy, dx;
    const size_t step = std::max<size_t>(1, scan.size() / 50);
    for (size_t i = 0; i < scan.size(); i += step) {
        const auto& line = scan[i];
        for (size_t j = 1; j < line.size() && dy.size() < 200000; ++j)
            if (line[j].z >= 0.0001 && line[j - 1].z >= 0.0001) dy.push_back(std::fabs(line[j].y - line[j - 1].y));
    }
    double prevX = NAN;
    for (const auto& line : scan) {
        for (const auto& p : line)
            if (p.z >= 0.0001) {
                if (!std::isnan(prevX)) dx.push_back(std::fabs(p.x - prevX));
                prevX = p.x;
                break;
            }
    }
    pitchY = median(dy);
    pitchX = median(dx);
    if (!(pitchY > 0)) pitchY = 1.0;
    if (!(pitchX > 0)) pitchX = 1.0;
}

TreeRow summarise(const std::string& detector, int type, const std::vector<const SHX_featureTree*>& trees) {
    TreeRow row;
    row.detector = detector;
    row.type = type;
    row.trees = static_cast<int>(trees.size());
    row.firstLine = INT32_MAX;
    row.lastLine = INT32_MIN;
    double sum = 0.0;
    for (const SHX_featureTree* t : trees) {
        const auto& a = t->treeNodes.front().featurePos;
        const auto& b = t->treeNodes.back().featurePos;
        const double len = std::hypot(a.x - b.x, a.y - b.y);
        sum += len;
        row.maxLength = std::max(row.maxLength, len);
        row.firstLine = std::min(row.firstLine, t->treeNodes.front().lineIdx);
        row.lastLine = std::max(row.lastLine, t->treeNodes.back().lineIdx);
    }
    row.meanLength = trees.empty() ? 0.0 : sum / static_cast<double>(trees.size());
    return row;
}

// Adds the table rows of one detector's trees; drawn trees also go to the picture.
void addTreeRows(PipelineResult& r, const std::string& detector, const std::vector<SHX_featureTree>& trees,
                 bool drawn = false) {
    std::map<int, std::vector<const SHX_featureTree*>> byType;
    for (const auto& t : trees)
        if (!t.treeNodes.empty()) byType[t.treeType].push_back(&t);
    if (byType.empty()) {
        TreeRow none;
        none.detector = detector;
        r.treeRows.push_back(none);
    }
    for (const auto& kv : byType) r.treeRows.push_back(summarise(detector, kv.first, kv.second));
    if (drawn) r.drawnTrees.insert(r.drawnTrees.end(), trees.begin(), trees.end());
}

std::string typeCounts(const std::vector<SHX_basicFeature1D>& features) {
    std::map<int, int> counts;
    for (const auto& f : features) ++counts[f.featureType];
    std::ostringstream s;
    bool first = true;
    for (const auto& kv : counts) {
        s << (first ? "" : ", ") << "type " << kv.first << ": " << kv.second;
        first = false;
    }
    return counts.empty() ? "none" : s.str();
}

long countFeatures(const std::vector<std::vector<SHX_basicFeature1D>>& v) {
    long n = 0;
    for (const auto& l : v) n += static_cast<long>(l.size());
    return n;
}

long countFeatures(const std::vector<SHX_lineFeature>& v) {
    long n = 0;
    for (const auto& l : v) n += static_cast<long>(l.features.size());
    return n;
}

bool regularGrid(const Scan& scan) {
    for (const auto& l : scan)
        if (l.size() != scan.front().size()) return false;
    return !scan.empty() && !scan.front().empty();
}

// The plane's height band: from just below the plane to half an object's
// height above it. A floor fills a fair share of a scan; the lowest
// well-filled band of an object seen without a floor is a sliver of it.
constexpr double kBandBelowPlane = 0.5;
constexpr double kBandAboveShareOfObjectHeight = 0.5;
constexpr double kMinFloorShare = 0.10;
// A flat floor's heights spread by its noise; points strewn evenly over the
// band spread by 0.29 of its width. Above this share of the width the band
// is a slice through a surface, not a floor.
constexpr double kMaxFloorSpreadOfBand = 0.15;

double bandWidth(const PipelineConfig& cfg) {
    return kBandBelowPlane + kBandAboveShareOfObjectHeight * cfg.objectHeight;
}

// Heights of the points in the plane's band after levelling, and the same
// points before, as standard deviations; and how many there are.
void measureFloorBand(const Scan& raw, const Scan& levelled, double plane, const PipelineConfig& cfg,
                      const SHX_planeCalibPara& unrefined, const SHX_planeCalibPara& refined, PipelineResult& r) {
    // Heights the unrefined calibration would give a levelled point: row 2 of
    // its rotation times the refined inverse rotation.
    double w[3] = {0, 0, 0};
    for (int j = 0; j < 3; ++j)
        for (int k = 0; k < 3; ++k) w[j] += unrefined.planeCalib[6 + k] * refined.invRMatrix[3 * k + j];
    double s1 = 0, s2 = 0, t1 = 0, t2 = 0, u1 = 0, u2 = 0;
    r.floorPoints = 0;
    for (size_t i = 0; i < levelled.size(); ++i)
        for (size_t j = 0; j < levelled[i].size(); ++j) {
            const double z = levelled[i][j].z, z0 = raw[i][j].z;
            if (z < 0.0001 || z < plane - kBandBelowPlane || z > plane + kBandAboveShareOfObjectHeight * cfg.objectHeight)
                continue;
            ++r.floorPoints;
            s1 += z0;
            s2 += z0 * z0;
            t1 += z;
            t2 += z * z;
            const double zu = w[0] * levelled[i][j].x + w[1] * levelled[i][j].y + w[2] * z;
            u1 += zu;
            u2 += zu * zu;
        }
    r.floorSpreadBefore = r.floorSpreadAfter = r.floorSpreadUnrefined = 0.0;
    if (r.floorPoints > 1) {
        const double m = static_cast<double>(r.floorPoints);
        r.floorSpreadBefore = std::sqrt(std::max(0.0, s2 / m - (s1 / m) * (s1 / m)));
        r.floorSpreadAfter = std::sqrt(std::max(0.0, t2 / m - (t1 / m) * (t1 / m)));
        r.floorSpreadUnrefined = std::sqrt(std::max(0.0, u2 / m - (u1 / m) * (u1 / m)));
    }
    r.floorShare = r.validPoints > 0 ? static_cast<double>(r.floorPoints) / static_cast<double>(r.validPoints) : 0.0;
}

}  // namespace

void judgeReferencePlane(PipelineResult& r, const PipelineConfig& cfg) {
    char why[160];
    r.planeDoubt.clear();
    if (r.floorShare < kMinFloorShare) {
        std::snprintf(why, sizeof why, "a floor holds at least %.0f%% of the points", 100.0 * kMinFloorShare);
        r.planeDoubt = why;
    } else if (r.floorSpreadAfter > kMaxFloorSpreadOfBand * bandWidth(cfg)) {
        std::snprintf(why, sizeof why, "a flat floor spreads less than %.4g", kMaxFloorSpreadOfBand * bandWidth(cfg));
        r.planeDoubt = why;
    }
    r.planeTrusted = r.planeDoubt.empty();
}

void deriveDefaults(const Scan& scan, PipelineConfig& c, bool builtIn) {
    double px = 1.0, py = 1.0;
    estimatePitch(scan, px, py);
    const SKesp3DRangeD box = hx_getScanDataROI_vector(scan);
    const double lengthX = box.xRange.max - box.xRange.min, widthY = box.yRange.max - box.yRange.min;
    if (c.heightLimit <= 0 && builtIn) c.heightLimit = 40.0;
    if (c.planeInlierDist <= 0) c.planeInlierDist = 0.4 * py;
    if (c.objectHeight <= 0) c.objectHeight = std::max(1.0, 12 * py);
    if (c.smoothWindow <= 0) c.smoothWindow = 5;
    if (c.featureRange <= 0) c.featureRange = 40 * py;
    if (c.jumpHeight <= 0) c.jumpHeight = 12 * py;
    if (c.trackTolerance <= 0) c.trackTolerance = 12 * py;
    if (c.maxLineSkip <= 0) c.maxLineSkip = 5;
    if (c.minTreeLength <= 0) c.minTreeLength = std::max(40 * px, 0.05 * lengthX);
    if (c.objectLength <= 0) c.objectLength = std::max(10 * px, 0.3 * lengthX);
    if (c.objectWidth <= 0) c.objectWidth = std::max(10 * py, 0.2 * widthY);
    if (c.barRadius <= 0) c.barRadius = 32 * py;
}

PipelineResult runPipeline(Scan& scan, const PipelineConfig& cfg) {
    PipelineResult r;
    StepClock clock;
    auto endStep = [&](const char* name) {
        r.times.push_back({name, clock.ms()});
        r.totalMs += clock.ms();
        clock.reset();
    };
    estimatePitch(scan, r.pitchX, r.pitchY);
    const double py = r.pitchY, px = r.pitchX;
    const int n = static_cast<int>(scan.size());
    r.lines = n;
    size_t maxPoints = 0;
    for (const auto& l : scan) {
        maxPoints = std::max(maxPoints, l.size());
        for (const auto& p : l) r.validPoints += p.z >= 0.0001;
    }
    r.points = static_cast<int>(maxPoints);
    auto lines = linesOf(scan);

    // 1. Bounding box.
    clock.run([&] { r.box = hx_getScanDataROI(lines.data(), n); });
    endStep("bounding box");

    // 2. Plane calibration and levelling with the height limit.
    clock.run([&] { r.calib = hx_getPlaneCalibPara(lines.data(), n); });
    r.calibrated = r.calib.planeHeight != -1.0;
    // Refit the plane to the points near it: objects whose tops share the
    // plane's height band pull the histogram's fit.
    const SHX_planeCalibPara unrefined = r.calib;
    constexpr int32_t kRefineRounds = 10;
    clock.run([&] { r.calib = hx_refinePlaneCalibPara(lines.data(), n, r.calib, cfg.planeInlierDist, kRefineRounds); });
    double plane = 0.0;
    if (r.calibrated) {
        // Levelled on a copy first: the scan is only levelled when the plane
        // is a floor to be trusted (or the user insists).
        Scan levelled = scan;
        auto levelledLines = linesOf(levelled);
        const double zCut = cfg.heightLimit > 0 ? r.calib.planeHeight + cfg.heightLimit : 0.0;
        clock.run([&] {
            for (auto& line : levelledLines) lineDataRT(&line, r.calib.planeCalib, zCut);
        });
        double R[3][3];
        for (int k = 0; k < 9; ++k) R[k / 3][k % 3] = r.calib.invRMatrix[k];
        r.tilt = rotationMatrixToEulerZYX(R);
        for (int k = 0; k < 9; ++k) R[k / 3][k % 3] = unrefined.invRMatrix[k];
        r.tiltUnrefined = rotationMatrixToEulerZYX(R);
        measureFloorBand(scan, levelled, r.calib.planeHeight, cfg, unrefined, r.calib, r);
        judgeReferencePlane(r, cfg);
        r.levelled = r.planeTrusted || cfg.forceLevel;
        if (r.levelled) {
            plane = r.calib.planeHeight;
            for (size_t i = 0; i < scan.size(); ++i)
                for (size_t j = 0; j < scan[i].size(); ++j)
                    r.cutByHeightLimit += scan[i][j].z >= 0.0001 && levelled[i][j].z < 0.0001;
            scan.swap(levelled);
            lines = linesOf(scan);
        }
    }
    endStep("calibration + levelling");

    // 3. Per line smoothing (segment-wise, so edges stay sharp) and outlier removal.
    {
        std::vector<SKesp3DPosition> smoothed;
        smoothed.reserve(maxPoints);
        SHX_outlierFilterParam outlier{cfg.jumpHeight / 3.0, 5.0};
        for (auto& line : scan) {
            smoothed.clear();
            clock.run([&] { hx_lineSegSmoothing(line, 4 * py, cfg.jumpHeight / 2.0, cfg.smoothWindow, smoothed); });
            for (size_t j = 0; j < line.size(); ++j) r.smoothedChanged += smoothed[j].z != line[j].z;
            line.swap(smoothed);
            long before = 0, after = 0;
            for (const auto& p : line) before += p.z > 0.0001;
            clock.run([&] {
                hx_lineDataRemoveOutlier_changeOriginData(line.data(), static_cast<int32_t>(line.size()), outlier);
            });
            for (const auto& p : line) after += p.z > 0.0001;
            r.outliersRemoved += before - after;
        }
        lines = linesOf(scan);
        // Free points of one cut through the scan's middle, grouped by distance.
        r.cutLine = n / 2;
        std::vector<SKesp3DPosition> cut;
        if (n > 0)
            for (const auto& p : scan[static_cast<size_t>(r.cutLine)])
                if (p.z >= plane + cfg.objectHeight) cut.push_back(p);
        std::vector<std::vector<SKesp3DPosition>> clusters;
        clock.run([&] { hx_pointClustering(cut, 4 * py, clusters); });
        r.clustersInCut = static_cast<int>(clusters.size());
    }
    endStep("smoothing + outliers");

    // The object mask and its labels (reported with the image analysis below)
    // tell the semicircle detector which stretches belong to one object.
    // Single missing points inside an object are closed over, so that the
    // object's contour is its outline and not every dropout in it.
    cv::Mat bin = cv::Mat::zeros(static_cast<int>(maxPoints), n, CV_8U);
    for (int i = 0; i < n; ++i)
        for (size_t j = 0; j < scan[static_cast<size_t>(i)].size(); ++j)
            if (scan[static_cast<size_t>(i)][j].z >= plane + cfg.objectHeight) bin.at<uint8_t>(static_cast<int>(j), i) = 1;
    cv::morphologyEx(bin, bin, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)));
    cv::Mat labels;
    std::vector<SHX_Region> regions;
    StepClock labelClock;
    labelClock.run([&] { HX_TwoPassLabel(bin, labels, regions, 8); });

    // 4. Per line detectors.
    std::vector<std::vector<SHX_basicFeature1D>> peaks(n), valleys(n), downJumps(n), flatPeaks(n), jumps(n), arcs(n);
    std::vector<SHX_lineFeature> lv(n), corners(n), rightAngles(n);
    std::vector<std::vector<SHX_featureSemiCircle>> semis(n);
    SHX_slopeParam slope{cfg.featureRange, cfg.jumpHeight * 0.66, cfg.jumpHeight, 8 * py};
    SHX_VFeatureParam vParam{cfg.jumpHeight / 2.0, 8 * py};
    SHX_cornerParam cornerParam{8 * py, cfg.jumpHeight, 8 * py, 30.0, 30.0, 10.0};
    SHX_cornerParam jumpParam{8 * py, cfg.jumpHeight, 8 * py, 30.0, 20.0, 60.0};
    SHX_lineRightAngleParam ra{8 * py, 8 * py, 2 * py};
    SHX_gloveArcParam arcParam{4 * py, 8 * py, 60.0};
    SHX_slopeParam semiSlope{cfg.barRadius / 2.0, 0.0, 0.0, 6 * py};
    r.sampleLine = (2 * n) / 3;
    const double depthTop = (r.box.zRange.max > r.box.zRange.min ? r.box.zRange.max : plane) + 100.0;
    std::vector<SKesp3DPosition> depth;
    depth.reserve(maxPoints);
    for (int i = 0; i < n; ++i) {
        auto& line = scan[static_cast<size_t>(i)];
        const int32_t cnt = static_cast<int32_t>(line.size());
        clock.run([&] {
            hx_getLineLocalPeaks(line.data(), cnt, i, cfg.featureRange, peaks[i], valleys[i]);
            hx_getLineDownJumps(line.data(), cnt, i, cfg.jumpHeight, downJumps[i]);
            hx_getFlatLineLocalPeaks_vector(line, i, cfg.featureRange, cfg.objectHeight, cfg.objectHeight / 2, flatPeaks[i]);
            hx_getLineCornerFeature(line.data(), cnt, i, cornerParam, &corners[i]);
            hx_getLineJumpFeature_cornerMethod(line.data(), cnt, i, jumpParam, jumps[i]);
            rightAngles[i].lineIdx = i;
            hx_getLineRigthAngleFeature(line.data(), cnt, i, ra, ra, ra, ra, &rightAngles[i]);
            rk_getLineGloveArcs(line, i, arcParam, arcs[i]);
        });
        // Steps, flanks and V grooves are runs of depth as the sensor sees them
        // (a groove deepens, then rises again): heights turned into depths
        // below a level over the scene.
        depth.assign(line.begin(), line.end());
        for (auto& p : depth) p.z = p.z >= 0.0001 ? depthTop - p.z : 0.0;
        lv[i].lineIdx = i;
        clock.run([&] { hx_getLineLVFeature(depth.data(), cnt, i, slope, vParam, &lv[i]); });
        // Round bars are found the same way on the object points alone.
        for (auto& p : depth)
            if (depthTop - p.z < plane + cfg.objectHeight) p.z = 0.0;
        clock.run([&] {
            hx_getLineUpperSemiCircleFeature(depth.data(), cnt, i, cfg.barRadius, semiSlope, semis[i], labels);
        });
    }
    auto addCount = [&](const std::string& name, long total, const std::vector<SHX_basicFeature1D>& sample) {
        r.detectors.push_back({name, total, typeCounts(sample)});
    };
    const size_t s = static_cast<size_t>(std::max(0, r.sampleLine));
    if (n > 0) {
        addCount("local peaks", countFeatures(peaks), peaks[s]);
        addCount("local valleys", countFeatures(valleys), valleys[s]);
        addCount("down jumps", countFeatures(downJumps), downJumps[s]);
        addCount("flat-line peaks", countFeatures(flatPeaks), flatPeaks[s]);
        addCount("L/V features", countFeatures(lv), lv[s].features);
        addCount("corners", countFeatures(corners), corners[s].features);
        addCount("jumps (corner pairs)", countFeatures(jumps), jumps[s]);
        addCount("right angles", countFeatures(rightAngles), rightAngles[s].features);
        addCount("glove arcs", countFeatures(arcs), arcs[s]);
        long semiTotal = 0;
        for (const auto& v : semis) semiTotal += static_cast<long>(v.size());
        r.detectors.push_back({"upper semicircles", semiTotal, std::to_string(semis[s].size()) + " on the line"});
    }
    endStep("per-line detectors");

    // 5. Tree growing of each detector's features.
    SHX_treeGrowParam grow{cfg.trackTolerance, cfg.trackTolerance, cfg.maxLineSkip,
                           4.0 * cfg.maxLineSkip * px, cfg.minTreeLength, cfg.minTreeLength};
    {
        std::vector<SHX_featureTree> t;
        clock.run([&] { hx_peakFeatureGrowing(peaks, t, grow); });
        addTreeRows(r, "local peaks", t);
        t.clear();
        clock.run([&] { hx_peakFeatureGrowing(valleys, t, grow); });
        addTreeRows(r, "local valleys", t);
        t.clear();
        clock.run([&] {
            for (int i = 0; i < n; ++i) hx_lineFeaturesGrowing(i, i == n - 1, downJumps[i], t, grow);
        });
        addTreeRows(r, "down jumps", t);
        t.clear();
        clock.run([&] { hx_peakFeatureGrowing(flatPeaks, t, grow); });
        addTreeRows(r, "flat-line peaks", t, true);
        t.clear();
        std::vector<SHX_2DValueI> starts, ends;
        clock.run([&] { hx_LVFeatureGrowing(lv, t, SHX_bagParam{cfg.objectLength, cfg.objectWidth}, grow, starts, ends); });
        addTreeRows(r, "L/V", t, true);
        r.freeStarts = static_cast<long>(starts.size());
        r.freeEnds = static_cast<long>(ends.size());
        t.clear();
        clock.run([&] { hx_getEndingGrowingTrees(starts, lines.data(), true, 6, t, grow); });
        addTreeRows(r, "free segment starts", t);
        t.clear();
        clock.run([&] { hx_getFeatureGrowingTrees(corners, t, grow); });
        addTreeRows(r, "corners", t);
        t.clear();
        clock.run([&] { hx_peakFeatureGrowing(jumps, t, grow); });
        addTreeRows(r, "jumps", t, true);
        t.clear();
        clock.run([&] { hx_getFeatureGrowingTrees(rightAngles, t, grow); });
        addTreeRows(r, "right angles", t, true);
        t.clear();
        clock.run([&] { hx_peakFeatureGrowing(arcs, t, grow); });
        addTreeRows(r, "glove arcs", t);
    }
    endStep("tree growing");

    // 6. Semicircle tracking, one call per line with a working tree vector.
    {
        SHX_treeGrowParam semiGrow{cfg.barRadius / 2.0, 0.0, cfg.maxLineSkip, 4.0 * cfg.maxLineSkip * px,
                                   0.0, cfg.minTreeLength};
        std::vector<SHX_semiCircleFeatureTree> working, valid, shortTrees;
        clock.run([&] {
            for (int i = 0; i < n; ++i)
                hx_getFeatureGrowingTrees_semiCircle(semis[i], i, n, working, valid, shortTrees, semiGrow);
        });
        r.shortSemicircleTrees = static_cast<int>(shortTrees.size());
        for (const auto& t : valid) {
            PipelineResult::Bar b{};
            b.firstLine = t.treeNodes.front().lineIdx;
            b.lastLine = t.treeNodes.back().lineIdx;
            b.nodes = static_cast<int>(t.treeNodes.size());
            b.length = std::hypot(t.treeNodes.front().x - t.treeNodes.back().x, t.treeNodes.front().y - t.treeNodes.back().y);
            std::vector<cv::Point> path;
            for (const auto& node : t.treeNodes) {
                b.meanWidth += node.width;
                b.meanY += node.y;
                path.emplace_back(node.lineIdx, node.peakPtIdx);
            }
            r.barPaths.push_back(path);
            b.meanWidth /= b.nodes;
            b.meanY /= b.nodes;
            r.bars.push_back(b);
        }
        std::sort(r.bars.begin(), r.bars.end(), [](const auto& a, const auto& b) { return a.meanY < b.meanY; });
    }
    endStep("semicircle tracking");

    // 7. Image analysis: labelling, distance transform, peak search, one peak
    // XY scan from the strongest peak, contour post-processing.
    clock.run([] {});
    {
        const double minPixels = std::max(50.0, 0.0005 * static_cast<double>(bin.total()));
        r.allRegions = static_cast<int>(regions.size());
        for (const auto& reg : regions)
            if (reg.pixelCnt >= minPixels) r.regions.push_back(reg);
        // Object pixels start far, background at 0; the image frame counts as
        // background, so objects running off the scan end at its edge.
        cv::Mat dist, src = cv::Mat::zeros(bin.size(), CV_32F);
        src.setTo(1e6f, bin);
        if (src.rows > 0 && src.cols > 0) {
            src.row(0).setTo(0.0f);
            src.row(src.rows - 1).setTo(0.0f);
            src.col(0).setTo(0.0f);
            src.col(src.cols - 1).setTo(0.0f);
        }
        clock.run([&] {
            hx_distanceTrans(src, dist, 0);
            hx_getLocalPeaks_distTransform(dist, r.distPeaks, SHX_localPkParam{16, 16});
        });
        std::stable_sort(r.distPeaks.begin(), r.distPeaks.end(),
                         [](const SHX_2DValueI& a, const SHX_2DValueI& b) { return a.value > b.value; });
        if (regularGrid(scan)) {
            std::vector<SHX_2DValueI> minima;
            clock.run([&] { hx_getLocalPeaks(lines.data(), n, minima, SHX_localPkParam{16, 16}); });
            r.scanMinima = static_cast<int>(minima.size());
        }
        if (!r.distPeaks.empty() && regularGrid(scan)) {
            // Contour types in each point's low bits: along the line, 1 where an
            // object starts and 2 where it ends; across lines (bits 4..7) the same
            // between neighbouring lines. The flag image holds each edge point's
            // region label, and element 3 marks object pixels.
            const int rows = labels.rows, cols = labels.cols;
            cv::Mat flags = cv::Mat::zeros(rows, cols, CV_32SC4);
            auto object = [&](int row, int col) {
                return row >= 0 && row < rows && col >= 0 && col < cols && labels.at<int32_t>(row, col) >= 2;
            };
            for (int col = 0; col < cols; ++col)
                for (int row = 0; row < rows; ++row) {
                    SKesp3DPosition& p = scan[static_cast<size_t>(col)][static_cast<size_t>(row)];
                    p.nPointIdx = 0;
                    if (!object(row, col)) continue;
                    int64_t along = !object(row - 1, col) ? 1 : (!object(row + 1, col) ? 2 : 0);
                    int64_t across = !object(row, col - 1) ? 1 : (!object(row, col + 1) ? 2 : 0);
                    p.nPointIdx = along | (across << 4);
                    cv::Vec4i& f = flags.at<cv::Vec4i>(row, col);
                    f[3] = 1;
                    if (along || across) f[0] = labels.at<int32_t>(row, col);
                }
            r.seed = r.distPeaks.front();
            SHX_2DValueI seed = r.seed;
            seed.value = r.seed.value * py;  // the distance image counts points; the scan measures lengths
            const int seedLabel = labels.at<int32_t>(seed.y, seed.x);
            std::vector<SHX_lineConotours> lineDown, lineUp, rowDown, rowUp;
            int32_t m1 = 0, m2 = 0, m3 = 0, m4 = 0;
            clock.run([&] {
                hx_peakXYScan(lines.data(), n, flags, seed, grow, SHX_bagParam{cfg.objectLength, cfg.objectWidth}, false,
                              lineDown, lineUp, rowDown, rowUp, &m1, &m2, &m3, &m4);
            });
            r.seedScanned = true;
            std::vector<SHX_contourPtInfo> all;
            for (const auto* v : {&lineDown, &lineUp, &rowDown, &rowUp})
                for (const auto& lc : *v) all.insert(all.end(), lc.contourPts.begin(), lc.contourPts.end());
            r.contourPointsFound = static_cast<int>(all.size());
            int maxIdx = std::max({m1, m2, m3, m4, 0});
            std::vector<SHX_2DValueI> kept, seedPts;
            std::vector<SHX_conotourPair> pairs, validPairs;
            std::vector<SHX_intPair> keys;
            clock.run([&] {
                hx_contourPostProc(all, maxIdx, 0.25 * cfg.objectWidth, kept, 1, &r.flagMajority);
                int flag = 0;
                hx_getContourPts(lineDown, seedLabel, seedPts, &flag);
            });
            r.contourPointsKept = static_cast<int>(kept.size());
            r.seedContourPoints = static_cast<int>(seedPts.size());
            // Width of the object on each line the scan crossed: the first edge
            // point below and above the seed, paired by line and region.
            for (const auto& d : lineDown)
                for (const auto& u : lineUp)
                    if (d.lineIdx == u.lineIdx && !d.contourPts.empty() && !u.contourPts.empty()) {
                        SHX_conotourPair pr;
                        pr.pairId = static_cast<int32_t>(pairs.size());
                        pr.pairKey_0 = d.lineIdx;
                        pr.pairKey_1 = d.contourPts.front().contourIdx;
                        pr.pt_1 = d.contourPts.front();
                        pr.pt_2 = u.contourPts.front();
                        pairs.push_back(pr);
                        keys.push_back(SHX_intPair{d.lineIdx, seedLabel, 0});
                    }
            int f1 = 0, f2 = 0;
            clock.run([&] {
                hx_getPairingContourPts(pairs, keys, validPairs, r.box.yRange, false, &f1, &f2);
            });
            r.widthPairs = static_cast<int>(validPairs.size());
            for (const auto& pr : validPairs) r.meanWidthAtSeed += std::fabs(pr.pt_2.y - pr.pt_1.y);
            if (!validPairs.empty()) r.meanWidthAtSeed /= static_cast<double>(validPairs.size());
        }
    }
    clock.run([] {});
    r.times.push_back({"image analysis", clock.ms() + labelClock.ms()});
    r.totalMs += clock.ms() + labelClock.ms();

    // The levelled heights above the plane, for the picture.
    r.heightMap = cv::Mat::zeros(static_cast<int>(maxPoints), n, CV_32F);
    for (int i = 0; i < n; ++i)
        for (size_t j = 0; j < scan[static_cast<size_t>(i)].size(); ++j) {
            const double z = scan[static_cast<size_t>(i)][j].z;
            if (z >= 0.0001) r.heightMap.at<float>(static_cast<int>(j), i) = static_cast<float>(z - plane);
        }
    return r;
}
