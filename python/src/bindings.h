// One bind_* function per family of routines; module.cpp calls them in turn.
// A new routine is one m.def in the file of its family.
#ifndef PA_PYTHON_BINDINGS_H
#define PA_PYTHON_BINDINGS_H

#include <pybind11/stl.h>

#include "convert.h"
#include "records.h"
#include "scan_calls.h"

namespace pa_py {

void bind_geometry(py::module_& m);
void bind_calibration(py::module_& m);
void bind_preprocess(py::module_& m);
void bind_features(py::module_& m);
void bind_tracking(py::module_& m);
void bind_image(py::module_& m);

}  // namespace pa_py

#endif
