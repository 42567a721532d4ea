#include "convert.h"

#include <cstddef>
#include <limits>
#include <optional>
#include <utility>

namespace pa_py {

namespace {

Dtypes* g_dtypes = nullptr;  // made at import, lives as long as the process

struct FieldLayout {
    const char* name;
    py::object format;
    size_t offset;
};

py::dtype make_dtype(const std::vector<FieldLayout>& fields, size_t itemsize) {
    py::list names, formats, offsets;
    for (const auto& f : fields) {
        names.append(f.name);
        formats.append(f.format);
        offsets.append(f.offset);
    }
    py::dict layout;
    layout["names"] = names;
    layout["formats"] = formats;
    layout["offsets"] = offsets;
    layout["itemsize"] = itemsize;
    return py::dtype::from_args(layout);
}

const py::str kI4("<i4"), kI8("<i8"), kF4("<f4"), kF8("<f8"), kU4("<u4");

py::module_ numpy() { return py::module_::import("numpy"); }

bool same_dtype(const py::array& a, const py::dtype& dt) {
    PyObject* d = reinterpret_cast<PyObject*>(py::detail::array_proxy(a.ptr())->descr);
    return d == dt.ptr() || py::detail::npy_api::get().PyArray_EquivTypes_(d, dt.ptr());
}

py::array as_array(py::handle obj, const char* name) {
    if (py::isinstance<py::array>(obj)) return py::reinterpret_borrow<py::array>(obj);
    try {
        return numpy().attr("asarray")(obj);
    } catch (py::error_already_set&) {
        raise_type(std::string(name) + ": expected an array, got " + std::string(py::str(obj.get_type())));
    }
}

bool c_contiguous(const py::array& a) { return (a.flags() & py::array::c_style) != 0; }

bool numeric(const py::array& a) {
    const char k = a.dtype().kind();
    return k == 'f' || k == 'i' || k == 'u';
}

// Fills points from rows of three coordinates of type S; idx restarts every
// `perLine` points (the point's index within its line).
template <class S>
void fill_points(const char* base, py::ssize_t n, py::ssize_t rowStride, py::ssize_t colStride, py::ssize_t perLine,
                 SKesp3DPosition* out) {
    py::ssize_t j = 0;
    for (py::ssize_t i = 0; i < n; ++i) {
        const char* row = base + i * rowStride;
        out[i].nPointIdx = j;
        out[i].x = static_cast<double>(*reinterpret_cast<const S*>(row));
        out[i].y = static_cast<double>(*reinterpret_cast<const S*>(row + colStride));
        out[i].z = static_cast<double>(*reinterpret_cast<const S*>(row + 2 * colStride));
        if (++j == perLine) j = 0;
    }
}

// Converts a numeric array whose last axis holds x, y, z into points, in one pass.
py::array convert_xyz(py::array a, py::ssize_t outLines, py::ssize_t outPoints, py::ssize_t perLine) {
    const char k = a.dtype().kind();
    const bool native = py::detail::array_descriptor_proxy(a.dtype().ptr())->byteorder != '>';
    const bool direct = native && k == 'f' && (a.itemsize() == 8 || a.itemsize() == 4);
    if (!direct) a = a.attr("astype")(numpy().attr("float64"));
    const py::ssize_t n = a.size() / 3;
    py::array out = outLines < 0 ? new_points(outPoints) : new_points(outLines, outPoints);
    auto* dst = static_cast<SKesp3DPosition*>(out.mutable_data());
    // Rows of the leading axes are contiguous in the result; in the source the
    // last two strides describe a line, so walk line by line.
    const py::ssize_t nd = a.ndim();
    const py::ssize_t rowStride = a.strides(nd - 2), colStride = a.strides(nd - 1);
    const py::ssize_t lines = nd == 3 ? a.shape(0) : 1;
    const py::ssize_t lineStride = nd == 3 ? a.strides(0) : 0;
    const py::ssize_t perRow = nd == 3 ? a.shape(1) : n;
    const char* base = static_cast<const char*>(a.data());
    std::optional<py::gil_scoped_release> release;
    if (static_cast<size_t>(n) > kReleaseGilAbove) release.emplace();
    for (py::ssize_t l = 0; l < lines; ++l) {
        if (a.itemsize() == 8)
            fill_points<double>(base + l * lineStride, perRow, rowStride, colStride, perLine, dst + l * perRow);
        else
            fill_points<float>(base + l * lineStride, perRow, rowStride, colStride, perLine, dst + l * perRow);
    }
    return out;
}

void check_count(py::ssize_t n, const char* name) {
    if (n > std::numeric_limits<int32_t>::max())
        raise_value(std::string(name) + ": more than 2^31 - 1 points in one line");
}

}  // namespace

[[noreturn]] void raise_type(const std::string& msg) { throw py::type_error(msg); }
[[noreturn]] void raise_value(const std::string& msg) { throw py::value_error(msg); }

std::string shape_text(const py::array& a) { return std::string(py::str(py::tuple(a.attr("shape")))); }

void init_dtypes(py::module_& m) {
    g_dtypes = new Dtypes;
    Dtypes& d = *g_dtypes;
    using P = SKesp3DPosition;
    d.point = make_dtype({{"idx", kI8, offsetof(P, nPointIdx)},
                          {"x", kF8, offsetof(P, x)},
                          {"y", kF8, offsetof(P, y)},
                          {"z", kF8, offsetof(P, z)}},
                         sizeof(P));
    using F = SHX_basicFeature1D;
    const size_t pos = offsetof(F, featurePos);
    d.feature = make_dtype({{"type", kI4, offsetof(F, featureType)},
                            {"line", kI4, offsetof(F, lineIdx)},
                            {"idx", kI8, pos + offsetof(P, nPointIdx)},
                            {"x", kF8, pos + offsetof(P, x)},
                            {"y", kF8, pos + offsetof(P, y)},
                            {"z", kF8, pos + offsetof(P, z)},
                            {"value", kF8, offsetof(F, featureValue)}},
                           sizeof(F));
    using V = SHX_2DValueI;
    d.value2d = make_dtype({{"x", kI4, offsetof(V, x)},
                            {"y", kI4, offsetof(V, y)},
                            {"type", kI4, offsetof(V, featureType)},
                            {"value", kF8, offsetof(V, value)},
                            {"value2", kI4, offsetof(V, value2)}},
                           sizeof(V));
    using R = SHX_Region;
    d.region = make_dtype({{"left", kI4, offsetof(R, left)},
                           {"right", kI4, offsetof(R, right)},
                           {"top", kI4, offsetof(R, top)},
                           {"bottom", kI4, offsetof(R, bottom)},
                           {"pixel_count", kI4, offsetof(R, pixelCnt)},
                           {"label", kI4, offsetof(R, label)}},
                          sizeof(R));
    using S = SHX_featureSemiCircle;
    d.semicircle = make_dtype({{"type", kI4, offsetof(S, featureType)},
                               {"line", kI4, offsetof(S, lineIdx)},
                               {"start_idx", kI4, offsetof(S, startPtIdx)},
                               {"end_idx", kI4, offsetof(S, endPtIdx)},
                               {"peak_idx", kI4, offsetof(S, peakPtIdx)},
                               {"x", kF8, offsetof(S, x)},
                               {"y", kF8, offsetof(S, y)},
                               {"z", kF8, offsetof(S, z)},
                               {"width", kF8, offsetof(S, width)},
                               {"top_z", kF8, offsetof(S, topZ)}},
                              sizeof(S));
    using C = SHX_contourPtInfo;
    d.contour_point = make_dtype({{"line", kI4, offsetof(C, lineIdx)},
                                  {"idx", kI4, offsetof(C, ptIdx)},
                                  {"type", kI4, offsetof(C, ptType)},
                                  {"contour", kI4, offsetof(C, contourIdx)},
                                  {"flag", kI4, offsetof(C, ptFlag)},
                                  {"seed_dist", kF8, offsetof(C, seedDist)},
                                  {"x", kF8, offsetof(C, x)},
                                  {"y", kF8, offsetof(C, y)},
                                  {"z", kF8, offsetof(C, z)}},
                                 sizeof(C));
    using Q = SHX_conotourPair;
    d.contour_pair = make_dtype({{"id", kI4, offsetof(Q, pairId)},
                                 {"key_0", kI4, offsetof(Q, pairKey_0)},
                                 {"key_1", kI4, offsetof(Q, pairKey_1)},
                                 {"type", kI4, offsetof(Q, pairType)},
                                 {"value", kF8, offsetof(Q, pairValue)},
                                 {"pt_1", d.contour_point, offsetof(Q, pt_1)},
                                 {"pt_2", d.contour_point, offsetof(Q, pt_2)}},
                                sizeof(Q));
    using I = SHX_intPair;
    d.int_pair = make_dtype(
        {{"data_0", kI4, offsetof(I, data_0)}, {"data_1", kI4, offsetof(I, data_1)}, {"idx", kI4, offsetof(I, idx)}},
        sizeof(I));
    using G = SKespXYZRGBDPoint;
    d.rgbd = make_dtype({{"x", kF4, offsetof(G, x)},
                         {"y", kF4, offsetof(G, y)},
                         {"z", kF4, offsetof(G, z)},
                         {"rgbd", kU4, offsetof(G, nRGBD)}},
                        sizeof(G));

    m.attr("point_dtype") = d.point;
    m.attr("feature_dtype") = d.feature;
    m.attr("value2d_dtype") = d.value2d;
    m.attr("region_dtype") = d.region;
    m.attr("semicircle_dtype") = d.semicircle;
    m.attr("contour_point_dtype") = d.contour_point;
    m.attr("contour_pair_dtype") = d.contour_pair;
    m.attr("int_pair_dtype") = d.int_pair;
    m.attr("rgbd_dtype") = d.rgbd;
}

const Dtypes& dtypes() { return *g_dtypes; }

py::array new_points(py::ssize_t n) { return new_array(dtypes().point, n); }
py::array new_points(py::ssize_t lines, py::ssize_t points) {
    const py::ssize_t shape[2] = {lines, points};
    return new_array(dtypes().point, 2, shape);
}

Profile to_profile(py::handle obj, const char* name, bool writes) {
    // No default-constructed py::array on this path: pybind11 makes one by
    // creating an empty numpy array, which per-line calls would pay for.
    py::array a = as_array(obj, name);
    bool shared = false;
    if (same_dtype(a, dtypes().point)) {
        if (a.ndim() != 1)
            raise_value(std::string(name) + ": expected a 1-D array of point_dtype, got shape " + shape_text(a));
        shared = c_contiguous(a) && (!writes || a.writeable());
        if (!shared) a = numpy().attr("array")(a);
    } else if (numeric(a)) {
        if (a.ndim() != 2 || a.shape(1) != 3)
            raise_value(std::string(name) + ": expected an (N, 3) array of x, y, z, got shape " + shape_text(a));
        a = convert_xyz(a, -1, a.shape(0), -1);
    } else {
        raise_type(std::string(name) + ": expected an (N, 3) float array or point_dtype records, got dtype " +
                   std::string(py::str(a.dtype())));
    }
    check_count(a.shape(0), name);
    const auto count = static_cast<int32_t>(a.shape(0));
    auto* data = count ? static_cast<SKesp3DPosition*>(a.mutable_data()) : nullptr;
    return Profile{data, count, std::move(a), shared};
}

bool is_scan(py::handle obj) {
    if (py::isinstance<py::array>(obj)) {
        py::array a = py::reinterpret_borrow<py::array>(obj);
        return same_dtype(a, dtypes().point) ? a.ndim() == 2 : a.ndim() == 3;
    }
    if (!py::isinstance<py::list>(obj) && !py::isinstance<py::tuple>(obj)) return false;
    py::sequence s = py::reinterpret_borrow<py::sequence>(obj);
    if (s.size() == 0) return false;
    py::object first = s[0];
    if (py::isinstance<py::array>(first)) {
        py::array a = py::reinterpret_borrow<py::array>(first);
        return same_dtype(a, dtypes().point) ? a.ndim() == 1 : a.ndim() == 2;
    }
    if (py::isinstance<py::list>(first) || py::isinstance<py::tuple>(first)) {
        py::sequence f = py::reinterpret_borrow<py::sequence>(first);
        return f.size() > 0 && !py::isinstance<py::float_>(f[0]) && !py::isinstance<py::int_>(f[0]);
    }
    return false;
}

Scan to_scan(py::handle obj, const char* name, bool writes) {
    Scan s;
    py::array grid;
    if (py::isinstance<py::list>(obj) || py::isinstance<py::tuple>(obj)) {
        py::sequence seq = py::reinterpret_borrow<py::sequence>(obj);
        py::list result;
        const std::string base(name);
        for (size_t i = 0; i < seq.size(); ++i) {
            const std::string item = base + "[" + std::to_string(i) + "]";
            Profile p = to_profile(seq[i], item.c_str(), writes);
            SKesp3DLaserLine line;
            line.p3DPosition = p.data;
            line.nPositionCnt = p.count;
            line.nLineIdx = static_cast<int32_t>(i);
            s.lines.push_back(line);
            s.keep.push_back(p.array);
            result.append(p.array);
        }
        s.result = result;
        return s;
    }
    py::array a = as_array(obj, name);
    if (same_dtype(a, dtypes().point)) {
        if (a.ndim() != 2)
            raise_value(std::string(name) + ": expected an (L, P) array of point_dtype, got shape " + shape_text(a));
        grid = c_contiguous(a) && (!writes || a.writeable()) ? a : py::array(numpy().attr("array")(a));
    } else if (numeric(a)) {
        if (a.ndim() != 3 || a.shape(2) != 3)
            raise_value(std::string(name) + ": expected an (L, P, 3) array of x, y, z, got shape " + shape_text(a));
        grid = convert_xyz(a, a.shape(0), a.shape(1), a.shape(1));
    } else {
        raise_type(std::string(name) + ": expected an (L, P, 3) float array, point_dtype records or a list of "
                                       "profiles, got dtype " + std::string(py::str(a.dtype())));
    }
    check_count(grid.shape(1), name);
    check_count(grid.shape(0), name);
    s.width = static_cast<int32_t>(grid.shape(1));
    auto* base = static_cast<SKesp3DPosition*>(grid.mutable_data());
    s.lines.resize(static_cast<size_t>(grid.shape(0)));
    for (size_t i = 0; i < s.lines.size(); ++i) {
        s.lines[i].p3DPosition = s.width ? base + i * static_cast<size_t>(s.width) : nullptr;
        s.lines[i].nPositionCnt = s.width;
        s.lines[i].nLineIdx = static_cast<int32_t>(i);
    }
    s.keep.push_back(grid);
    s.result = grid;
    return s;
}

py::array as_record_array(py::handle obj, const py::dtype& dt, const char* name) {
    py::array a = as_array(obj, name);
    if (a.size() == 0 && a.ndim() == 1) return new_array(dt, 0);
    if (same_dtype(a, dt)) {
        if (a.ndim() != 1) raise_value(std::string(name) + ": expected a 1-D record array, got shape " + shape_text(a));
        return c_contiguous(a) ? a : py::array(numpy().attr("ascontiguousarray")(a));
    }
    py::tuple wanted = dt.attr("names");
    if (a.dtype().has_fields() && a.ndim() == 1) {
        py::tuple have = a.dtype().attr("names");
        std::string missing;
        for (auto n : wanted)
            if (!have.contains(n)) missing += (missing.empty() ? "" : ", ") + std::string(py::str(n));
        if (missing.empty()) {
            py::array out = numpy().attr("zeros")(a.shape(0), dt);
            for (auto n : wanted) out[n] = a[n];
            return out;
        }
        raise_type(std::string(name) + ": record array lacks the fields " + missing);
    }
    raise_type(std::string(name) + ": expected a 1-D structured array with the fields " + std::string(py::str(wanted)) +
               ", got dtype " + std::string(py::str(a.dtype())) + " of shape " + shape_text(a));
}

std::vector<std::vector<SHX_basicFeature1D>> to_feature_lines(py::handle obj, const char* name, int lineCount) {
    std::vector<std::vector<SHX_basicFeature1D>> lines;
    if (py::isinstance<py::list>(obj) || py::isinstance<py::tuple>(obj)) {
        py::sequence seq = py::reinterpret_borrow<py::sequence>(obj);
        const std::string base(name);
        for (size_t i = 0; i < seq.size(); ++i) {
            const std::string item = base + "[" + std::to_string(i) + "]";
            lines.push_back(to_records<SHX_basicFeature1D>(seq[i], dtypes().feature, item.c_str()));
        }
        return lines;
    }
    std::vector<SHX_basicFeature1D> all = to_records<SHX_basicFeature1D>(obj, dtypes().feature, name);
    int n = lineCount;
    if (n < 0) {
        n = 0;
        for (const auto& f : all) n = std::max(n, f.lineIdx + 1);
    }
    lines.resize(static_cast<size_t>(n));
    for (const auto& f : all) {
        if (f.lineIdx < 0 || f.lineIdx >= n)
            raise_value(std::string(name) + ": a feature's line " + std::to_string(f.lineIdx) +
                        " lies outside 0 .. line_count - 1 = " + std::to_string(n - 1));
        lines[static_cast<size_t>(f.lineIdx)].push_back(f);
    }
    return lines;
}

namespace {

int cv_depth(const py::dtype& dt) {
    const char k = dt.kind();
    const auto size = dt.itemsize();
    if (k == 'u' && size == 1) return CV_8U;
    if (k == 'i' && size == 1) return CV_8S;
    if (k == 'u' && size == 2) return CV_16U;
    if (k == 'i' && size == 2) return CV_16S;
    if (k == 'i' && size == 4) return CV_32S;
    if (k == 'f' && size == 4) return CV_32F;
    if (k == 'f' && size == 8) return CV_64F;
    return -1;
}

const char* numpy_format(int depth) {
    switch (depth) {
        case CV_8U: return "u1";
        case CV_8S: return "i1";
        case CV_16U: return "u2";
        case CV_16S: return "i2";
        case CV_32S: return "i4";
        case CV_32F: return "f4";
        default: return "f8";
    }
}

}  // namespace

Image to_image(py::handle obj, const char* name, int channels) {
    py::array a = as_array(obj, name);
    if (a.dtype().kind() == 'b') a = a.attr("astype")(numpy().attr("uint8"));
    const bool ok = channels == 1 ? a.ndim() == 2 : a.ndim() == 3 && a.shape(2) == channels;
    if (!ok)
        raise_value(std::string(name) + (channels == 1 ? ": expected a 2-D image" :
                                         ": expected a (rows, cols, " + std::to_string(channels) + ") image") +
                    ", got shape " + shape_text(a));
    const int depth = cv_depth(a.dtype());
    if (depth < 0 || py::detail::array_descriptor_proxy(a.dtype().ptr())->byteorder == '>')
        raise_type(std::string(name) + ": unsupported image dtype " + std::string(py::str(a.dtype())));
    if (!c_contiguous(a)) a = numpy().attr("ascontiguousarray")(a);
    cv::Mat mat(static_cast<int>(a.shape(0)), static_cast<int>(a.shape(1)), CV_MAKETYPE(depth, channels),
                const_cast<void*>(a.data()));
    return Image{mat, std::move(a)};
}

py::array from_mat(const cv::Mat& m) {
    const std::string fmt = numpy_format(m.depth());
    if (m.empty()) return py::array(py::dtype(fmt), std::vector<py::ssize_t>{0, 0});
    auto* held = new cv::Mat(m);
    py::capsule owner(held, [](void* p) { delete static_cast<cv::Mat*>(p); });
    std::vector<py::ssize_t> shape{held->rows, held->cols}, strides{static_cast<py::ssize_t>(held->step[0]),
                                                                    static_cast<py::ssize_t>(held->elemSize())};
    if (held->channels() > 1) {
        shape.push_back(held->channels());
        strides.push_back(static_cast<py::ssize_t>(held->elemSize1()));
    }
    return py::array(py::dtype(fmt), shape, strides, held->data, owner);
}

void to_matrix9(py::handle obj, const char* name, double out[9]) {
    py::array a = numpy().attr("asarray")(obj, numpy().attr("float64"));
    if (a.size() != 9 || !(a.ndim() == 1 || (a.ndim() == 2 && a.shape(0) == 3)))
        raise_value(std::string(name) + ": expected a (3, 3) rotation matrix, got shape " + shape_text(a));
    a = numpy().attr("ascontiguousarray")(a);
    std::memcpy(out, a.data(), 9 * sizeof(double));
}

py::array matrix3(const double* nine) {
    py::array_t<double> out({3, 3});
    std::memcpy(out.mutable_data(), nine, 9 * sizeof(double));
    return out;
}

}  // namespace pa_py
