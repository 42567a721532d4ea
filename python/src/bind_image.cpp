// Image analysis: labelling, distance transform, window peaks, contours.
#include "bindings.h"

namespace pa_py {

namespace {

void check_windows(const SHX_localPkParam& p) {
    if (p.searchWin_x < 2 || p.searchWin_y < 2)
        raise_value("param: search_win_x and search_win_y must be at least 2, got " + std::to_string(p.searchWin_x) +
                    " and " + std::to_string(p.searchWin_y));
}

std::vector<SHX_lineConotours> to_contours(py::handle obj, const char* name) {
    try {
        return py::cast<std::vector<SHX_lineConotours>>(obj);
    } catch (py::cast_error&) {
        raise_type(std::string(name) + ": expected a list of LineContours");
    }
}

py::list contours_out(std::vector<SHX_lineConotours>& v) {
    py::list out;
    for (auto& c : v) out.append(py::cast(std::move(c)));
    return out;
}

}  // namespace

void bind_image(py::module_& m) {
    m.def(
        "label_components",
        [](py::handle image, int connectivity) {
            Image im = to_image(image, "image");
            cv::Mat labels;
            std::vector<SHX_Region> regions;
            {
                ReleaseGil release(im.mat.total());
                HX_TwoPassLabel(im.mat, labels, regions, connectivity);
            }
            return py::make_tuple(from_mat(labels), to_array(regions, dtypes().region));
        },
        py::arg("image"), py::arg("connectivity") = 8,
        "Connected components of the interior 1-pixels of a binary image (HX_TwoPassLabel).\n\nReturns (labels, "
        "regions): an int32 label image sharing the C matrix's memory (0 background, 2.. labels, border pixels "
        "the input value) and region_dtype records (left, right, top, bottom, pixel_count, label). connectivity 8, "
        "any other value gives 4. Images under 3 rows or columns are only converted.");

    m.def(
        "distance_transform",
        [](py::handle image, int dist_type) {
            Image im = to_image(image, "image");
            cv::Mat dst;
            {
                ReleaseGil release(im.mat.total());
                hx_distanceTrans(im.mat, dst, dist_type);
            }
            return from_mat(dst);
        },
        py::arg("image"), py::arg("dist_type") = 0,
        "Two-pass chamfer distance transform of a float32 image whose seeds hold 0 (hx_distanceTrans).\n\n"
        "dist_type 0: diagonal step sqrt(2), 1: city block, other: chessboard. Returns a new float32 image "
        "sharing the C matrix's memory, its frame set to 0; the input is not changed.");

    m.def(
        "image_peaks",
        [](py::handle image, const SHX_localPkParam& param) {
            check_windows(param);
            Image im = to_image(image, "image");
            if (im.mat.type() != CV_32FC1)
                raise_type("image: expected a float32 image, got dtype " + std::string(py::str(im.array.dtype())));
            std::vector<SHX_2DValueI> peaks;
            {
                ReleaseGil release(im.mat.total());
                hx_getLocalPeaks_distTransform(im.mat, peaks, param);
            }
            return to_array(peaks, dtypes().value2d);
        },
        py::arg("image"), py::arg("param"),
        "Local maxima of a float32 image by a windowed search (hx_getLocalPeaks_distTransform).\n\nReturns "
        "value2d_dtype records {x = column, y = row, value}. Windows below 2 raise ValueError; an empty image "
        "gives none.");

    m.def(
        "scan_minima",
        [](py::handle scan, const SHX_localPkParam& param) {
            check_windows(param);
            Scan s = to_scan(scan, "scan", false);
            std::vector<SHX_2DValueI> peaks;
            {
                py::gil_scoped_release release;
                hx_getLocalPeaks(s.lines.data(), static_cast<int32_t>(s.lines.size()), peaks, param);
            }
            return to_array(peaks, dtypes().value2d);
        },
        py::arg("scan"), py::arg("param"),
        "Local minima of z over a scan seen as an image (columns = lines, rows = points) by a windowed search "
        "(hx_getLocalPeaks).\n\nReturns value2d_dtype records {x = line, y = point, value = z}. Windows below 2 "
        "raise ValueError. All lines are read with the first line's point count.");

    m.def(
        "peak_xy_scan",
        [](py::handle scan, py::handle flags, py::handle seed, const SHX_bagParam& bag, bool use_mark_bits) {
            Scan s = to_scan(scan, "scan", false);
            Image im = to_image(flags, "flags", 4);
            if (im.mat.type() != CV_32SC4)
                raise_type("flags: expected an int32 (rows, cols, 4) image, got dtype " +
                           std::string(py::str(im.array.dtype())));
            py::array seedArray = py::module_::import("numpy").attr("atleast_1d")(seed);
            std::vector<SHX_2DValueI> seedRec = to_records<SHX_2DValueI>(seedArray, dtypes().value2d, "seed");
            if (seedRec.size() != 1) raise_value("seed: expected one value2d_dtype record");
            std::vector<SHX_lineConotours> ld, lu, rd, ru;
            int32_t ldMax = 0, luMax = 0, rdMax = 0, ruMax = 0;
            {
                py::gil_scoped_release release;
                hx_peakXYScan(s.lines.data(), static_cast<int32_t>(s.lines.size()), im.mat, seedRec[0],
                              SHX_treeGrowParam{}, bag, use_mark_bits, ld, lu, rd, ru, &ldMax, &luMax, &rdMax, &ruMax);
            }
            py::dict out;
            out["line_contours_down"] = contours_out(ld);
            out["line_contours_up"] = contours_out(lu);
            out["row_contours_down"] = contours_out(rd);
            out["row_contours_up"] = contours_out(ru);
            out["line_down_max_idx"] = ldMax;
            out["line_up_max_idx"] = luMax;
            out["row_down_max_idx"] = rdMax;
            out["row_up_max_idx"] = ruMax;
            return py::module_::import("types").attr("SimpleNamespace")(**out);
        },
        py::arg("scan"), py::arg("flags"), py::arg("seed"), py::arg("bag_param"), py::arg("use_mark_bits") = false,
        "Collects the typed contour points around a seed, sweeping along and across the lines (hx_peakXYScan; its "
        "unread tree parameter is left out).\n\nscan: regular (L, P) grid whose idx low 16 bits hold the point "
        "types; flags: int32 (P, L, 4) image (element 0 contour index, element 3 of the seed pixel non-zero); "
        "seed: one value2d_dtype record (x line, y point, value object width). Returns a namespace with "
        "line_contours_down/up, row_contours_down/up (lists of LineContours) and the four *_max_idx. An unflagged "
        "seed gives empty lists and zeros.");

    m.def(
        "contour_points",
        [](py::handle line_contours, int contour_idx) {
            std::vector<SHX_lineConotours> lc = to_contours(line_contours, "line_contours");
            std::vector<SHX_2DValueI> pts;
            int flag = 0;
            {
                ReleaseGil release(lc.size());
                hx_getContourPts(lc, contour_idx, pts, &flag);
            }
            return py::make_tuple(to_array(pts, dtypes().value2d), flag);
        },
        py::arg("line_contours"), py::arg("contour_idx"),
        "Points of one contour from per-line contour records (hx_getContourPts).\n\nReturns (points, "
        "flag_majority): value2d_dtype {x = line, y = point, type, value = z} and 1 when more than half of them "
        "have flag >= 1. No matching point gives an empty array and 0.");

    m.def(
        "pair_contour_points",
        [](py::handle pairs, py::handle keys, py::handle range, bool is_x) {
            auto p = to_records<SHX_conotourPair>(pairs, dtypes().contour_pair, "pairs");
            auto k = to_records<SHX_intPair>(keys, dtypes().int_pair, "keys");
            const SKespRangeD r = to_range(range, "range");
            std::vector<SHX_conotourPair> valid;
            int f1 = 0, f2 = 0;
            {
                ReleaseGil release(p.size());
                hx_getPairingContourPts(p, k, valid, r, is_x, &f1, &f2);
            }
            return py::make_tuple(to_array(valid, dtypes().contour_pair), f1, f2);
        },
        py::arg("pairs"), py::arg("keys"), py::arg("range"), py::arg("is_x"),
        "Pairs whose (key_0, key_1) is among keys' (data_0, data_1) and whose two points lie strictly inside "
        "range on x (is_x) or y (hx_getPairingContourPts).\n\nReturns (pairs, flag1_majority, flag2_majority). "
        "range: (min, max); an empty range keeps nothing.");

    m.def(
        "filter_contours",
        [](py::handle points, int max_contour_idx, double dist_tolerance, int tag) {
            auto c = to_records<SHX_contourPtInfo>(points, dtypes().contour_point, "points");
            std::vector<SHX_2DValueI> out;
            int flag = 0;
            {
                ReleaseGil release(c.size());
                hx_contourPostProc(c, max_contour_idx, dist_tolerance, out, tag, &flag);
            }
            return py::make_tuple(to_array(out, dtypes().value2d), flag);
        },
        py::arg("points"), py::arg("max_contour_idx"), py::arg("dist_tolerance"), py::arg("tag") = 0,
        "Keeps the contours longer than 3/10 of all points whose mean seed distance is within dist_tolerance of "
        "the smallest (hx_contourPostProc).\n\nReturns (points, flag_majority): value2d_dtype with value2 = tag. "
        "Empty input gives an empty array and 0.");
}

}  // namespace pa_py
