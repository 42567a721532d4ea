# Debian packages of the library, made by CPack (`make package` at the top of
# the source tree, or `cpack` in a build tree):
#   libprofile-analysis<SOVERSION>  the shared library (install component "runtime")
#   libprofile-analysis-dev         header, CMake package files, pkg-config file
#                                   and the unversioned .so link (component "dev")
# The demo is not packaged. Configure with CMAKE_INSTALL_PREFIX=/usr so that the
# library lands in Debian's multiarch folder (/usr/lib/<triplet>).

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME profile-analysis)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(PA_PACKAGE_CONTACT "Profile analysis maintainers <maintainers@profile-analysis.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${PA_PACKAGE_CONTACT}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)

set(PA_RUNTIME_PACKAGE libprofile-analysis${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${PA_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Descriptions: the first line is the synopsis, CPack indents the rest.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "profile analysis for line-laser 3-D scanners - shared library
Steps, flanks, V shapes, corners, peaks and arcs of scan lines, feature
trees across lines, plane calibration and image analyses of range scans.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libprofile-analysis-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "profile analysis for line-laser 3-D scanners - development files
The header, CMake package files and pkg-config file of libprofile-analysis.")
# A shlibs file and the ldconfig trigger for the runtime package.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# The runtime package depends on the package that holds the OpenCV core
# library we linked (libopencv-core406 on Debian 12), the development package
# on its development files.
set(PA_OPENCV_CORE_PACKAGE "")
foreach(_pa_property IMPORTED_LOCATION IMPORTED_LOCATION_RELEASE IMPORTED_LOCATION_NOCONFIG)
  get_target_property(_pa_core_library opencv_core ${_pa_property})
  if(_pa_core_library)
    break()
  endif()
endforeach()
find_program(PA_DPKG dpkg)
if(_pa_core_library AND PA_DPKG)
  get_filename_component(_pa_core_library "${_pa_core_library}" REALPATH)
  execute_process(COMMAND ${PA_DPKG} -S "${_pa_core_library}"
    OUTPUT_VARIABLE _pa_owner RESULT_VARIABLE _pa_rc ERROR_QUIET)
  if(_pa_rc EQUAL 0 AND _pa_owner MATCHES "^([^:,]+)")
    set(PA_OPENCV_CORE_PACKAGE ${CMAKE_MATCH_1})
  endif()
endif()
find_program(PA_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(PA_DPKG_SHLIBDEPS)
  # Every shared library the package links, OpenCV core included, with versions.
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
elseif(PA_OPENCV_CORE_PACKAGE)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${PA_OPENCV_CORE_PACKAGE}")
endif()
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${PA_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}-1), libopencv-core-dev")

include(CPack)
