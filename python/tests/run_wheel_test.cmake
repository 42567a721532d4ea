# Builds a wheel from the source tree with the project's interpreter (reusing
# the module of BUILD_DIR), installs it into a fresh virtual environment made
# with --system-site-packages and imports it from outside the source tree.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK_DIR} RESULT_VARIABLE rc
                  OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(ENV{PA_WHEEL_BUILD_DIR} ${WORK_DIR}/build)
set(ENV{PA_PREBUILT_DIR} ${BUILD_DIR})
set(ENV{PIP_NO_INDEX} 1)
set(ENV{PYTHONDONTWRITEBYTECODE} 1)
run(${PYTHON} -m pip wheel --no-deps --no-build-isolation ${SOURCE_DIR} -w ${WORK_DIR}/dist)
file(GLOB wheels ${WORK_DIR}/dist/profile_analysis-*.whl)
list(LENGTH wheels count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one wheel in ${WORK_DIR}/dist, found: ${wheels}")
endif()

run(${PYTHON} -m venv --system-site-packages ${WORK_DIR}/venv)
set(venv_python ${WORK_DIR}/venv/bin/python)
run(${venv_python} -m pip install --no-deps --no-index ${wheels})
run(${venv_python} -c
  "import numpy as np, profile_analysis as pa\nassert '/venv/' in pa.__file__, pa.__file__\nz = np.r_[np.arange(10, 21.0), np.full(10, 20.0)]\np = np.column_stack([np.zeros(21), np.arange(21.0), z])\nc = pa.CornerParam(max_gap_y=3, jump_z=5, arm_len=2.5, min_corner_angle=20, arm_angle1=30, arm_angle2=10)\nf, e = pa.corner_features(p, c)\nassert f['idx'].tolist() == [10] and e['type'].tolist() == [6, 7]\nprint(pa.__file__)")
message(STATUS "wheel installed and imported: ${last_output}")
