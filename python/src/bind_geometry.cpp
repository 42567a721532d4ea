// Scan geometry, rigid transforms and plane calibration.
#include "bindings.h"

namespace pa_py {

namespace {

// A scan given as a list of profiles reaches the vector variants of the C
// routines; that needs the points as vectors.
std::vector<std::vector<SKesp3DPosition>> as_vectors(const Scan& s) {
    std::vector<std::vector<SKesp3DPosition>> v(s.lines.size());
    for (size_t i = 0; i < s.lines.size(); ++i)
        v[i].assign(s.lines[i].p3DPosition, s.lines[i].p3DPosition + s.lines[i].nPositionCnt);
    return v;
}

size_t point_total(const Scan& s) {
    size_t n = 0;
    for (const auto& l : s.lines) n += static_cast<size_t>(l.nPositionCnt);
    return n;
}

std::vector<SKesp3DRangeD> to_regions(py::handle obj) {
    std::vector<SKesp3DRangeD> rois;
    if (py::isinstance<py::array>(obj)) {
        py::array_t<double, py::array::c_style | py::array::forcecast> a(py::reinterpret_borrow<py::array>(obj));
        if (a.size() % 6 != 0 || a.ndim() < 2 || a.shape(a.ndim() - 1) * (a.ndim() == 3 ? a.shape(1) : 1) != 6)
            raise_value("regions: expected an array of shape (K, 6) or (K, 3, 2) of (min, max) per axis, got shape " +
                        shape_text(a));
        const double* v = a.data();
        for (py::ssize_t k = 0; k < a.shape(0); ++k, v += 6)
            rois.push_back({{v[0], v[1]}, {v[2], v[3]}, {v[4], v[5]}});
        return rois;
    }
    try {
        return py::cast<std::vector<SKesp3DRangeD>>(obj);
    } catch (py::cast_error&) {
        raise_type("regions: expected a list of Box3D or a (K, 6) array");
    }
}

}  // namespace

void bind_geometry(py::module_& m) {
    m.def(
        "scan_bounds",
        [](py::handle scan) {
            Scan s = to_scan(scan, "scan", false);
            const bool list = py::isinstance<py::list>(s.result);
            ReleaseGil release(point_total(s));
            if (!list) return hx_getScanDataROI(s.lines.data(), static_cast<int32_t>(s.lines.size()));
            return hx_getScanDataROI_vector(as_vectors(s));
        },
        py::arg("scan"),
        "Bounding box of the valid points (z >= 0.0001) of a scan (hx_getScanDataROI; a list of profiles goes "
        "through hx_getScanDataROI_vector).\n\nReturns a Box3D; a range without valid points is (0.0, -1.0).");

    m.def(
        "fit_line",
        [](py::handle points) {
            std::vector<SKesp3DPoint> pts;
            if (is_scan(points) || (py::isinstance<py::array>(points) &&
                                    py::reinterpret_borrow<py::array>(points).dtype().has_fields())) {
                Profile p = to_profile(points, "points", false);
                for (int32_t i = 0; i < p.count; ++i) pts.push_back({p.data[i].x, p.data[i].y, p.data[i].z});
            } else {
                auto a = py::array_t<double, py::array::forcecast>::ensure(points);
                if (!a || a.ndim() != 2 || (a.shape(1) != 2 && a.shape(1) != 3))
                    raise_value("points: expected an (N, 2) or (N, 3) array");
                for (py::ssize_t i = 0; i < a.shape(0); ++i) pts.push_back({a.at(i, 0), a.at(i, 1), 0.0});
            }
            double k = 0.0, b = 0.0;
            {
                ReleaseGil release(pts.size());
                lineFitting(pts, &k, &b);
            }
            return py::make_tuple(k, b);
        },
        py::arg("points"),
        "Least-squares line y = k x + b through the points' x and y (lineFitting). Returns (k, b); fewer than two "
        "distinct x give infinities or NaN (empty input: NaN).");

    m.def(
        "line_pixels",
        [](int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
            std::vector<SKesp2DPoint> pts;
            drawLine(x0, y0, x1, y1, pts);
            py::array_t<int32_t> out({static_cast<py::ssize_t>(pts.size()), py::ssize_t(2)});
            if (!pts.empty()) std::memcpy(out.mutable_data(), pts.data(), pts.size() * sizeof(SKesp2DPoint));
            return out;
        },
        py::arg("x0"), py::arg("y0"), py::arg("x1"), py::arg("y1"),
        "Integer points of the segment (x0, y0)-(x1, y1), both ends included (drawLine, Bresenham). Returns an "
        "(N, 2) int32 array of (x, y).");

    m.def(
        "rotate_points",
        [](py::handle points, py::handle rotation, double z_cut, int threads) {
            double r[9];
            to_matrix9(rotation, "rotation", r);
            if (!is_scan(points)) {
                checked_threads(threads);
                Profile p = to_profile(points, "points", true);
                {
                    ReleaseGil release(static_cast<size_t>(p.count));
                    if (p.shared) {
                        SKesp3DLaserLine line;
                        line.p3DPosition = p.data;
                        line.nPositionCnt = p.count;
                        lineDataRT(&line, r, z_cut);
                    } else {  // already a converted copy: the vector variant works on it
                        std::vector<SKesp3DPosition> v(p.data, p.data + p.count);
                        lineDataRT_vector(v, r, z_cut);
                        if (!v.empty()) std::memcpy(p.data, v.data(), v.size() * sizeof(SKesp3DPosition));
                    }
                }
                return py::object(p.array);
            }
            return change_points(points, threads, [&](SKesp3DPosition* p, int32_t n, size_t) {
                SKesp3DLaserLine line;
                line.p3DPosition = p;
                line.nPositionCnt = n;
                lineDataRT(&line, r, z_cut);
            });
        },
        py::arg("points"), py::arg("rotation"), py::arg("z_cut") = 0.0, py::kw_only(), py::arg("threads") = 1,
        "Rotates the valid points p' = R p (lineDataRT; lineDataRT_vector on a converted copy). rotation: (3, 3). "
        "z_cut > 0 invalidates points whose rotated z exceeds it (z = 0.0).\n\nIn place: a writeable point_dtype "
        "profile or scan is changed in place and returned; other input is converted and the copy returned. "
        "Accepts a profile or a scan (threads as for the detectors).");

    m.def(
        "rotate_rgbd",
        [](py::handle points, py::handle rotation, double z_cut) {
            double r[9];
            to_matrix9(rotation, "rotation", r);
            py::array a = py::module_::import("numpy").attr("asarray")(points);
            py::array work;
            if (a.dtype().has_fields()) {
                py::array rec = as_record_array(a, dtypes().rgbd, "points");
                const bool inPlace = rec.is(a) && a.writeable();
                work = inPlace ? rec : py::array(rec.attr("copy")());
            } else {
                if (a.ndim() != 2 || a.shape(1) != 3)
                    raise_value("points: expected rgbd_dtype records or an (N, 3) array, got shape " + shape_text(a));
                work = py::module_::import("numpy").attr("zeros")(a.shape(0), dtypes().rgbd);
                work["x"] = a[py::make_tuple(py::ellipsis(), 0)];
                work["y"] = a[py::make_tuple(py::ellipsis(), 1)];
                work["z"] = a[py::make_tuple(py::ellipsis(), 2)];
            }
            SKespXYZRGBDLaserLine line;
            line.nPositionCnt = static_cast<int32_t>(work.shape(0));
            line.pXYZRGBD = line.nPositionCnt ? static_cast<SKespXYZRGBDPoint*>(work.mutable_data()) : nullptr;
            {
                ReleaseGil release(static_cast<size_t>(line.nPositionCnt));
                lineDataRT_RGBD(&line, r, z_cut);
            }
            return work;
        },
        py::arg("points"), py::arg("rotation"), py::arg("z_cut") = 0.0,
        "lineDataRT on coloured points (lineDataRT_RGBD): float32 x, y, z rotated in double, rgbd kept bit for "
        "bit.\n\nIn place on a writeable rgbd_dtype array (returned); an (N, 3) array is converted (colour 0).");

    m.def(
        "euler_from_matrix",
        [](py::handle matrix) {
            double r9[9], r[3][3];
            to_matrix9(matrix, "matrix", r9);
            for (int k = 0; k < 9; ++k) r[k / 3][k % 3] = r9[k];
            return rotationMatrixToEulerZYX(r);
        },
        py::arg("matrix"),
        "z-y-x Euler angles in degrees of a (3, 3) rotation R = Rz(yaw) Ry(pitch) Rx(roll) "
        "(rotationMatrixToEulerZYX). At gimbal lock roll is 0.");

    m.def(
        "matrix_from_euler",
        [](const SHX_EulerAngles& e) {
            double r[3][3];
            eulerToRotationMatrixZYX(e, r);
            return matrix3(&r[0][0]);
        },
        py::arg("angles"),
        "Rotation matrix R = Rz(yaw) Ry(pitch) Rx(roll) of EulerAngles in degrees (eulerToRotationMatrixZYX); "
        "(3, 3) float64.");
}

void bind_calibration(py::module_& m) {
    m.def(
        "plane_calibration",
        [](py::handle scan) {
            Scan s = to_scan(scan, "scan", false);
            const bool list = py::isinstance<py::list>(s.result);
            ReleaseGil release(point_total(s));
            if (!list) return hx_getPlaneCalibPara(s.lines.data(), static_cast<int32_t>(s.lines.size()));
            return hx_getPlaneCalibPara2(as_vectors(s));
        },
        py::arg("scan"),
        "Reference plane of a scan and the rotation that levels it (hx_getPlaneCalibPara; a list of profiles "
        "goes through hx_getPlaneCalibPara2, which gives the same bits).\n\nReturns PlaneCalibration: rotation "
        "(apply with rotate_points), inverse_rotation, height = lowest levelled z of the plane band. Failure (no "
        "valid point, no height peak) gives identity matrices and height -1.0.");

    m.def(
        "refine_plane_calibration",
        [](py::handle scan, const SHX_planeCalibPara& start, double inlier_dist, int32_t max_iter) {
            Scan s = to_scan(scan, "scan", false);
            const bool list = py::isinstance<py::list>(s.result);
            ReleaseGil release(point_total(s));
            if (!list)
                return hx_refinePlaneCalibPara(s.lines.data(), static_cast<int32_t>(s.lines.size()), start,
                                               inlier_dist, max_iter);
            return hx_refinePlaneCalibPara_vector(as_vectors(s), start, inlier_dist, max_iter);
        },
        py::arg("scan"), py::arg("start"), py::arg("inlier_dist"), py::arg("max_iter") = 10,
        "Refits a calibration to the valid points within inlier_dist (scan units, strictly below) of its plane, "
        "round after round, until a round keeps the same inliers or after max_iter rounds "
        "(hx_refinePlaneCalibPara; a list of profiles goes through hx_refinePlaneCalibPara_vector, same bits). "
        "start is usually plane_calibration(scan).\n\nReturns PlaneCalibration with the same meaning of every "
        "field. The start itself when it failed (height -1.0), when inlier_dist <= 0 or NaN, when max_iter < 1 or "
        "when a round keeps fewer than 3 points. NaN or infinite coordinates are never inliers.");

    m.def(
        "plane_calibration_in_regions",
        [](py::handle scan, py::handle regions) {
            std::vector<SKesp3DRangeD> rois = to_regions(regions);
            Scan s = to_scan(scan, "scan", false);
            ReleaseGil release(point_total(s));
            return hx_getPlaneCalibPara_ROIs(s.lines.data(), static_cast<int32_t>(s.lines.size()), rois);
        },
        py::arg("scan"), py::arg("regions"),
        "Levels the plane fitted to the valid points inside caller-named regions (hx_getPlaneCalibPara_ROIs). "
        "regions: list of Box3D or a (K, 6) array (xmin, xmax, ymin, ymax, zmin, zmax); note that the C routine "
        "compares zmax with y. No region point gives identity matrices and height 0.0.");
}

}  // namespace pa_py
