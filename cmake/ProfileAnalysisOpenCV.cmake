# Finds the OpenCV modules the project uses and provides the imported targets
# opencv_<module> for each, as OpenCV's own package configuration does.
#
# Debian ships OpenCV's CMake configuration (and opencv4.pc) only in the
# all-modules development package; the per-module packages (core, imgproc,
# imgcodecs) hold the headers and libraries alone. So the configuration is
# used where it is installed, and otherwise each module is found by its header
# and library, which also serves cross builds against a multiarch sysroot.
#
#   pa_find_opencv(core imgproc ...)   fails if a module is missing; sets
#                                      PA_OPENCV_CORE_INCLUDE_DIR, the folder
#                                      that holds opencv2/core.hpp

macro(pa_find_opencv)
  set(_pa_cv_missing)
  foreach(_pa_cv_module ${ARGN})
    if(NOT TARGET opencv_${_pa_cv_module})
      list(APPEND _pa_cv_missing ${_pa_cv_module})
    endif()
  endforeach()
  if(_pa_cv_missing)
    if(NOT PA_OPENCV_BY_HAND)
      find_package(OpenCV QUIET CONFIG COMPONENTS ${_pa_cv_missing})
    endif()
    if(NOT OpenCV_FOUND)
      set(PA_OPENCV_BY_HAND ON)
      find_path(PA_OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
      if(NOT PA_OPENCV_INCLUDE_DIR)
        message(FATAL_ERROR "OpenCV headers not found: install libopencv-core-dev")
      endif()
      foreach(_pa_cv_module ${_pa_cv_missing})
        find_library(PA_OPENCV_${_pa_cv_module}_LIBRARY opencv_${_pa_cv_module})
        if(NOT PA_OPENCV_${_pa_cv_module}_LIBRARY)
          message(FATAL_ERROR "OpenCV module '${_pa_cv_module}' not found: install libopencv-${_pa_cv_module}-dev")
        endif()
        add_library(opencv_${_pa_cv_module} SHARED IMPORTED GLOBAL)
        set_target_properties(opencv_${_pa_cv_module} PROPERTIES
          IMPORTED_LOCATION ${PA_OPENCV_${_pa_cv_module}_LIBRARY}
          INTERFACE_INCLUDE_DIRECTORIES ${PA_OPENCV_INCLUDE_DIR})
        if(NOT _pa_cv_module STREQUAL "core")
          set_property(TARGET opencv_${_pa_cv_module} APPEND PROPERTY INTERFACE_LINK_LIBRARIES opencv_core)
        endif()
      endforeach()
    endif()
  endif()
  if(NOT PA_OPENCV_CORE_INCLUDE_DIR)
    get_target_property(_pa_cv_includes opencv_core INTERFACE_INCLUDE_DIRECTORIES)
    list(GET _pa_cv_includes 0 PA_OPENCV_CORE_INCLUDE_DIR)
  endif()
endmacro()
