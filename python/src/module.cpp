// The profile_analysis Python module: every routine of the library on numpy
// arrays, plus whole-scan calls that loop over the lines in C++.
#include "bindings.h"

PYBIND11_MODULE(_core, m) {
    m.doc() = "Line-laser profile analysis on numpy arrays (bindings of libprofile_analysis).";
    m.attr("__version__") = std::to_string(PROFILE_ANALYSIS_VERSION_MAJOR) + "." +
                            std::to_string(PROFILE_ANALYSIS_VERSION_MINOR) + "." +
                            std::to_string(PROFILE_ANALYSIS_VERSION_PATCH);
    pa_py::init_dtypes(m);
    pa_py::bind_records(m);
    pa_py::bind_geometry(m);
    pa_py::bind_calibration(m);
    pa_py::bind_preprocess(m);
    pa_py::bind_features(m);
    pa_py::bind_tracking(m);
    pa_py::bind_image(m);
}
