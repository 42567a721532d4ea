// Per-line detectors, each also callable on a whole scan.
#include "bindings.h"

namespace pa_py {

namespace {

using Feature = SHX_basicFeature1D;
using Features1 = std::array<std::vector<Feature>, 1>;
using Features2 = std::array<std::vector<Feature>, 2>;

constexpr const char* kScanNote =
    "\n\n`points` is one profile ((N, 3) float array, or point_dtype records used without a copy) or a "
    "whole scan ((L, P, 3), (L, P) point_dtype or a list of profiles); a scan is looped in C++ with the "
    "GIL released, its lines spread over `threads` workers, line i taking line index line_idx + i, and "
    "its records joined in line order. Records are feature_dtype arrays (type, line, idx, x, y, z, value).";

py::tuple pair(const Detected<2>& d) { return py::make_tuple(d.records[0], d.records[1]); }

}  // namespace

void bind_features(py::module_& m) {
    const auto& feature = dtypes().feature;

    m.def(
        "corner_features",
        [feature](py::handle points, const SHX_cornerParam& param, int32_t line_idx, int threads) {
            return pair(detect<Feature, 2>(points, false, line_idx, threads, feature,
                                           [&](const SKesp3DPosition* p, int32_t n, int32_t li, Features2& out) {
                                               SHX_lineFeature lf;
                                               hx_getLineCornerFeature(p, n, li, param, &lf);
                                               out[0] = std::move(lf.features);
                                               out[1] = std::move(lf.endings);
                                           }));
        },
        py::arg("points"), py::arg("param"), py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Corners where a profile's y-z direction turns sharply (hx_getLineCornerFeature).\n\n"
                     "Returns (features, endings): corners of type 1, 2 or 15 and the segment ends (type 6 at "
                     "a segment's first point, 7 at its last). Lengths in the scan's unit, angles in degrees. "
                     "Only z > 0.0001 counts; an empty profile gives two empty arrays.") +
         kScanNote)
            .c_str());

    m.def(
        "lv_features",
        [feature](py::handle points, const SHX_slopeParam& slope, const SHX_VFeatureParam& v, int32_t line_idx,
                  int threads) {
            return pair(detect<Feature, 2>(points, false, line_idx, threads, feature,
                                           [&](const SKesp3DPosition* p, int32_t n, int32_t li, Features2& out) {
                                               SHX_lineFeature lf;
                                               hx_getLineLVFeature(p, n, li, slope, v, &lf);
                                               out[0] = std::move(lf.features);
                                               out[1] = std::move(lf.endings);
                                           }));
        },
        py::arg("points"), py::arg("slope_param"), py::arg("v_param"), py::arg("line_idx") = 0, py::kw_only(),
        py::arg("threads") = 1,
        (std::string("Steps (1, 2), flanks (3, 4) and V shapes (5) of a profile and its segment ends "
                     "(hx_getLineLVFeature).\n\nReturns (features, endings). Fewer than 2 points give nothing.") +
         kScanNote)
            .c_str());

    m.def(
        "jump_features",
        [feature](py::handle points, const SHX_cornerParam& param, int32_t line_idx, int threads) {
            return detect<Feature, 1>(points, false, line_idx, threads, feature,
                                      [&](const SKesp3DPosition* p, int32_t n, int32_t li, Features1& out) {
                                          hx_getLineJumpFeature_cornerMethod(p, n, li, param, out[0]);
                                      })
                .records[0];
        },
        py::arg("points"), py::arg("param"), py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Height jumps found as a convex and a concave corner around one steep flank "
                     "(hx_getLineJumpFeature_cornerMethod).\n\nReturns the jumps (type 1 rising, 2 falling; "
                     "value = z of the upper flat part). An empty profile gives an empty array.") +
         kScanNote)
            .c_str());

    m.def(
        "local_peaks",
        [feature](py::handle points, double peak_range_y, int32_t line_idx, int threads) {
            auto d = detect<Feature, 2>(points, true, line_idx, threads, feature,
                                        [&](SKesp3DPosition* p, int32_t n, int32_t li, Features2& out) {
                                            hx_getLineLocalPeaks(p, n, li, peak_range_y, out[0], out[1]);
                                        });
            return py::make_tuple(d.records[0], d.records[1], d.points);
        },
        py::arg("points"), py::arg("peak_range_y"), py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Local z maxima (type 14) and minima (type 13) that dominate +-peak_range_y along y "
                     "(hx_getLineLocalPeaks).\n\nReturns (peaks, valleys, points). In place: the C routine "
                     "writes each point's array index into idx; a writeable point_dtype array is changed in "
                     "place and returned as `points`, any other input is converted and the changed copy "
                     "returned. Fewer than 2 points give nothing.") +
         kScanNote)
            .c_str());

    m.def(
        "down_jumps",
        [feature](py::handle points, double jump_threshold, int32_t line_idx, int threads) {
            auto d = detect<Feature, 1>(points, true, line_idx, threads, feature,
                                        [&](SKesp3DPosition* p, int32_t n, int32_t li, Features1& out) {
                                            hx_getLineDownJumps(p, n, li, jump_threshold, out[0]);
                                        });
            return py::make_tuple(d.records[0], d.points);
        },
        py::arg("points"), py::arg("jump_threshold"), py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Rises of z by more than jump_threshold between consecutive valid points, type 1 "
                     "(hx_getLineDownJumps).\n\nReturns (jumps, points); idx is rewritten in place as by "
                     "local_peaks. Fewer than 2 points give nothing.") +
         kScanNote)
            .c_str());

    m.def(
        "flat_line_peaks",
        [feature](py::handle points, double peak_range_y, double min_peak_height, double flat_tolerance,
                  int32_t line_idx, int threads) {
            return detect<Feature, 1>(points, false, line_idx, threads, feature,
                                      [&](const SKesp3DPosition* p, int32_t n, int32_t li, Features1& out) {
                                          const std::vector<SKesp3DPosition> line(p, p + n);
                                          hx_getFlatLineLocalPeaks_vector(line, li, peak_range_y, min_peak_height,
                                                                          flat_tolerance, out[0]);
                                      })
                .records[0];
        },
        py::arg("points"), py::arg("peak_range_y"), py::arg("min_peak_height"), py::arg("flat_tolerance"),
        py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Bumps on a flat, possibly tilted base line, type 14 with value = height above the base "
                     "(hx_getFlatLineLocalPeaks_vector).\n\nFewer than 3 valid points give nothing.") +
         kScanNote)
            .c_str());

    m.def(
        "right_angle_features",
        [feature](py::handle points, const SHX_lineRightAngleParam& p1, const SHX_lineRightAngleParam& p2,
                  const SHX_lineRightAngleParam& p3, const SHX_lineRightAngleParam& p4, int32_t line_idx,
                  int threads) {
            return detect<Feature, 1>(points, false, line_idx, threads, feature,
                                      [&](const SKesp3DPosition* p, int32_t n, int32_t li, Features1& out) {
                                          SHX_lineFeature lf;
                                          hx_getLineRigthAngleFeature(p, n, li, p1, p2, p3, p4, &lf);
                                          out[0] = std::move(lf.features);
                                      })
                .records[0];
        },
        py::arg("points"), py::arg("param1"), py::arg("param2"), py::arg("param3"), py::arg("param4"),
        py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Right-angle corners where a flat stretch meets a wall, types 9..12 "
                     "(hx_getLineRigthAngleFeature).\n\nparam1..param4 are the four kinds (RightAngleParam). "
                     "An empty profile gives nothing.") +
         kScanNote)
            .c_str());

    m.def(
        "glove_arcs",
        [feature](py::handle points, const SHX_gloveArcParam& param, int32_t line_idx, int threads) {
            return detect<Feature, 1>(points, false, line_idx, threads, feature,
                                      [&](const SKesp3DPosition* p, int32_t n, int32_t li, Features1& out) {
                                          const std::vector<SKesp3DPosition> line(p, p + n);
                                          rk_getLineGloveArcs(line, li, param, out[0]);
                                      })
                .records[0];
        },
        py::arg("points"), py::arg("param"), py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Glove arcs, type 13 with value = the angle drop in degrees (rk_getLineGloveArcs).\n\n"
                     "Fewer than 10 points give nothing.") +
         kScanNote)
            .c_str());

    m.def(
        "upper_semicircles",
        [](py::handle points, double max_half_width, const SHX_slopeParam& slope, py::handle labels,
           int32_t line_idx, int threads) {
            Image im = to_image(labels, "labels");
            if (im.mat.type() != CV_32SC1)
                raise_type("labels: expected an int32 label image, got dtype " +
                           std::string(py::str(im.array.dtype())));
            const cv::Mat& label = im.mat;
            auto d = detect<SHX_featureSemiCircle, 1>(
                points, true, line_idx, threads, dtypes().semicircle,
                [&](SKesp3DPosition* p, int32_t n, int32_t li, std::array<std::vector<SHX_featureSemiCircle>, 1>& out) {
                    hx_getLineUpperSemiCircleFeature(p, n, li, max_half_width, slope, out[0], label);
                });
            return py::make_tuple(d.records[0], d.points);
        },
        py::arg("points"), py::arg("max_half_width"), py::arg("slope_param"), py::arg("labels"),
        py::arg("line_idx") = 0, py::kw_only(), py::arg("threads") = 1,
        (std::string("Upper semicircles of a profile, merged across one labelled object "
                     "(hx_getLineUpperSemiCircleFeature).\n\nlabels: int32 label image of the scan (rows = "
                     "point index, columns = line), read without a copy. Returns (semicircles, points): "
                     "semicircle_dtype records, and the points, whose idx the C routine rewrites within each run "
                     "(in place as for local_peaks). A line with a single semicircle outputs nothing.") +
         kScanNote)
            .c_str());
}

}  // namespace pa_py
