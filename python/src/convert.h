// Conversions between numpy arrays and the library's records.
//
// Points travel without a copy when an array already has the point record's
// layout (pa.point_dtype, C-contiguous); any other float array of shape (N, 3)
// is converted once. Result records come back as structured arrays whose
// dtypes mirror the C records byte for byte, so building one is a memcpy.
#ifndef PA_PYTHON_CONVERT_H
#define PA_PYTHON_CONVERT_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstring>
#include <string>
#include <vector>

#include "profile_analysis.h"

namespace pa_py {

namespace py = pybind11;

/// The structured dtypes of the records handed to Python, made once at import.
struct Dtypes {
    py::dtype point;          ///< SKesp3DPosition
    py::dtype feature;        ///< SHX_basicFeature1D, flattened
    py::dtype value2d;        ///< SHX_2DValueI
    py::dtype region;         ///< SHX_Region
    py::dtype semicircle;     ///< SHX_featureSemiCircle
    py::dtype contour_point;  ///< SHX_contourPtInfo
    py::dtype contour_pair;   ///< SHX_conotourPair (two nested contour points)
    py::dtype int_pair;       ///< SHX_intPair
    py::dtype rgbd;           ///< SKespXYZRGBDPoint
};

void init_dtypes(py::module_& m);
const Dtypes& dtypes();

/// Calls on more points than this release the GIL; below it the release
/// would cost more than the call.
constexpr size_t kReleaseGilAbove = 64;

[[noreturn]] void raise_type(const std::string& msg);
[[noreturn]] void raise_value(const std::string& msg);
std::string shape_text(const py::array& a);

/// One profile as the library sees it.
struct Profile {
    SKesp3DPosition* data = nullptr;
    int32_t count = 0;
    py::array array;      ///< the array data points into (the caller's, or a converted copy)
    bool shared = false;  ///< data lies in the caller's own array
};

/// Takes a profile: a 1-D array of point_dtype (no copy when C-contiguous and,
/// for routines that write, writeable) or an (N, 3) numeric array (converted).
Profile to_profile(py::handle obj, const char* name, bool writes);

/// A scan: one SKesp3DLaserLine per line over the arrays that hold the points.
struct Scan {
    std::vector<SKesp3DLaserLine> lines;
    std::vector<py::array> keep;  ///< owners of the line arrays
    py::object result;            ///< what the caller sees: the (L, P) array or a list of profiles
    int32_t width = 0;            ///< points per line of an (L, P) array, 0 for a list
};

/// True when obj is a scan ((L, P) point_dtype, (L, P, 3) numeric, or a list
/// of profiles) rather than one profile.
bool is_scan(py::handle obj);
Scan to_scan(py::handle obj, const char* name, bool writes);

/// A new C-contiguous array of dtype dt, made straight through numpy's C
/// interface: per-line calls make two or three of these, so their cost counts.
inline py::array new_array(const py::dtype& dt, int ndim, const py::ssize_t* shape) {
    auto& api = py::detail::npy_api::get();
    Py_INCREF(dt.ptr());  // the constructor steals the descriptor
    PyObject* a = api.PyArray_NewFromDescr_(api.PyArray_Type_, dt.ptr(), ndim, shape, nullptr, nullptr, 0, nullptr);
    if (!a) throw py::error_already_set();
    return py::reinterpret_steal<py::array>(a);
}
inline py::array new_array(const py::dtype& dt, py::ssize_t n) { return new_array(dt, 1, &n); }

/// Fresh point array (C-contiguous): n points, or lines x points.
py::array new_points(py::ssize_t n);
py::array new_points(py::ssize_t lines, py::ssize_t points);

/// Copies records into a new structured array of the matching dtype.
template <class T>
py::array to_array(const T* data, size_t n, const py::dtype& dt) {
    py::array out = new_array(dt, static_cast<py::ssize_t>(n));
    if (n) std::memcpy(out.mutable_data(), data, n * sizeof(T));
    return out;
}
template <class T>
py::array to_array(const std::vector<T>& v, const py::dtype& dt) {
    return to_array(v.data(), v.size(), dt);
}

/// A 1-D C-contiguous array of dtype dt made from obj: the array itself when it
/// already is one, else a copy (a structured array with the same field names is
/// copied field by field). Raises TypeError naming `name` otherwise.
py::array as_record_array(py::handle obj, const py::dtype& dt, const char* name);

template <class T>
std::vector<T> to_records(py::handle obj, const py::dtype& dt, const char* name) {
    py::array a = as_record_array(obj, dt, name);
    std::vector<T> v(static_cast<size_t>(a.shape(0)));
    if (!v.empty()) std::memcpy(v.data(), a.data(), v.size() * sizeof(T));
    return v;
}

/// Lines of features given as a list of per-line record arrays (line i is
/// record i) or as one array with a `line` field, split by it into lineCount
/// records (lineCount < 0: the largest line + 1).
std::vector<std::vector<SHX_basicFeature1D>> to_feature_lines(py::handle obj, const char* name, int lineCount);

/// A 2-D image as a cv::Mat header over the array's memory (no copy; the array
/// is made C-contiguous first when it is not).
struct Image {
    cv::Mat mat;
    py::array array;
};
Image to_image(py::handle obj, const char* name, int channels = 1);

/// The matrix as a numpy array sharing its memory (the array keeps it alive).
py::array from_mat(const cv::Mat& m);

/// Nine row-major doubles from a (3, 3) or (9,) array.
void to_matrix9(py::handle obj, const char* name, double out[9]);
py::array matrix3(const double* nine);

}  // namespace pa_py

#endif
