// Smoothing, outlier removal and point clustering.
#include "bindings.h"

namespace pa_py {

namespace {

constexpr const char* kScanNote =
    "\n\nAccepts one profile or a whole scan ((L, P, 3), (L, P) point_dtype or a list of profiles), looped in "
    "C++ with the GIL released over `threads` workers; the result has the input's shape.";

void copy_out(const std::vector<SKesp3DPosition>& v, int32_t n, SKesp3DPosition* out) {
    const size_t k = std::min(v.size(), static_cast<size_t>(n));
    if (k) std::memcpy(out, v.data(), k * sizeof(SKesp3DPosition));
}

// Outlier removal into a copy: the cleaned points in the input's shape, and
// the zeroed indices: a 1-D int32 array for a profile, an (K, 2) int32 array
// of (line, index) rows for a scan.
template <class Remove>
py::tuple remove_copying(py::handle points, int threads, Remove remove) {
    const bool scan = is_scan(points);
    std::vector<std::vector<int32_t>> removed;
    py::object cleaned = map_points(
        points, threads,
        [&](const SKesp3DPosition* p, int32_t n, SKesp3DPosition* out, size_t line) {
            std::vector<SKesp3DPosition> clean;
            remove(p, n, clean, removed[line]);
            copy_out(clean, n, out);
        },
        [&](size_t lines) { removed.resize(lines); });
    if (!scan) return py::make_tuple(cleaned, py::array_t<int32_t>(removed[0].size(), removed[0].data()));
    size_t total = 0;
    for (const auto& r : removed) total += r.size();
    py::array_t<int32_t> rows({static_cast<py::ssize_t>(total), py::ssize_t(2)});
    int32_t* dst = rows.mutable_data();
    for (size_t line = 0; line < removed.size(); ++line)
        for (int32_t idx : removed[line]) {
            *dst++ = static_cast<int32_t>(line);
            *dst++ = idx;
        }
    return py::make_tuple(cleaned, rows);
}

}  // namespace

void bind_preprocess(py::module_& m) {
    m.def(
        "smooth",
        [](py::handle points, int32_t win_size, int threads) {
            return map_points(points, threads, [&](const SKesp3DPosition* p, int32_t n, SKesp3DPosition* out, size_t) {
                const std::vector<SKesp3DPosition> in(p, p + n);
                std::vector<SKesp3DPosition> smoothed;
                hx_lineDataSmoothing(in, win_size, smoothed);
                copy_out(smoothed, n, out);
            });
        },
        py::arg("points"), py::arg("win_size"), py::kw_only(), py::arg("threads") = 1,
        (std::string("Moving average of the valid heights (z > 0.0001) over win_size points, clipped at the line "
                     "ends (hx_lineDataSmoothing).\n\nReturns new points; the input is not changed. win_size "
                     "-1..1 leaves heights unchanged; an empty profile gives an empty one.") +
         kScanNote)
            .c_str());

    m.def(
        "smooth_segments",
        [](py::handle points, double max_step_y, double max_step_z, int32_t win_size, int threads) {
            return map_points(points, threads, [&](const SKesp3DPosition* p, int32_t n, SKesp3DPosition* out, size_t) {
                const std::vector<SKesp3DPosition> in(p, p + n);
                std::vector<SKesp3DPosition> smoothed;
                hx_lineSegSmoothing(in, max_step_y, max_step_z, win_size, smoothed);
                copy_out(smoothed, n, out);
            });
        },
        py::arg("points"), py::arg("max_step_y"), py::arg("max_step_z"), py::arg("win_size"), py::kw_only(),
        py::arg("threads") = 1,
        (std::string("Smoothing segment by segment, cut where |dy| > max_step_y or |dz| > max_step_z, so edges "
                     "stay sharp (hx_lineSegSmoothing).\n\nReturns new points (every input point once, in "
                     "order); the input is not changed.") +
         kScanNote)
            .c_str());

    m.def(
        "remove_outliers",
        [](py::handle points, const SHX_outlierFilterParam& param, int threads) {
            return remove_copying(points, threads,
                                  [&](const SKesp3DPosition* p, int32_t n, std::vector<SKesp3DPosition>& clean,
                                      std::vector<int32_t>& removed) {
                                      hx_lineDataRemoveOutlier(p, n, param, clean, removed);
                                  });
        },
        py::arg("points"), py::arg("param"), py::kw_only(), py::arg("threads") = 1,
        (std::string("Zeroes short isolated runs of valid points (z > 0.0001), runs cut where |dz| >= "
                     "continuity_th (hx_lineDataRemoveOutlier).\n\nReturns (cleaned, removed): new points and "
                     "the zeroed indices (int32; for a scan an (K, 2) array of (line, index)). The input is not "
                     "changed.") +
         kScanNote)
            .c_str());

    m.def(
        "remove_outliers_by_distance",
        [](py::handle points, const SHX_outlierFilterParam& param, int threads) {
            return remove_copying(points, threads,
                                  [&](const SKesp3DPosition* p, int32_t n, std::vector<SKesp3DPosition>& clean,
                                      std::vector<int32_t>& removed) {
                                      hx_lineDataRemoveOutlier_ptDistMethod(p, n, param, clean, removed);
                                  });
        },
        py::arg("points"), py::arg("param"), py::kw_only(), py::arg("threads") = 1,
        (std::string("remove_outliers with runs cut where the 3-D distance between valid neighbours is >= "
                     "continuity_th (hx_lineDataRemoveOutlier_ptDistMethod). Returns (cleaned, removed).") +
         kScanNote)
            .c_str());

    m.def(
        "remove_outliers_in_place",
        [](py::handle points, const SHX_outlierFilterParam& param, int threads) {
            return change_points(points, threads, [&](SKesp3DPosition* p, int32_t n, size_t) {
                hx_lineDataRemoveOutlier_changeOriginData(p, n, param);
            });
        },
        py::arg("points"), py::arg("param"), py::kw_only(), py::arg("threads") = 1,
        (std::string("remove_outliers in place (hx_lineDataRemoveOutlier_changeOriginData): short runs get z = "
                     "0.0.\n\nA writeable point_dtype profile or scan is changed in place and returned; other "
                     "input is converted and the changed copy returned.") +
         kScanNote)
            .c_str());

    m.def(
        "cluster_points",
        [](py::handle points, double dist_th) {
            Profile p = to_profile(points, "points", false);
            std::vector<std::vector<SKesp3DPosition>> clusters;
            {
                ReleaseGil release(static_cast<size_t>(p.count));
                std::vector<SKesp3DPosition> work(p.data, p.data + p.count);
                hx_pointClustering(work, dist_th, clusters);
            }
            py::list out;
            for (const auto& c : clusters) out.append(to_array(c, dtypes().point));
            return out;
        },
        py::arg("points"), py::arg("dist_th"),
        "Clusters of points joined by x-y steps strictly shorter than dist_th (hx_pointClustering).\n\nReturns a "
        "list of point_dtype arrays in seed order. The C routine empties its input vector and marks taken points; "
        "the binding hands it a copy, so the caller's array is not changed. Points whose idx has negative low 32 "
        "bits (taken marks) are dropped, except the first. Empty input gives an empty list.");
}

}  // namespace pa_py
