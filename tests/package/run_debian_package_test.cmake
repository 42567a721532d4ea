# A fresh build of the library alone, configured as a Debian build would be
# (prefix /usr, the demo enabled but not built), then:
#  - installing works although the demo was not built;
#  - cpack makes the runtime and development packages, whose files land in
#    Debian's places, whose dependencies name OpenCV core, and whose runtime
#    package is named after the library's SONAME.
file(REMOVE_RECURSE ${WORK_DIR})
include(${CMAKE_CURRENT_LIST_DIR}/run_command.cmake)
set(build ${WORK_DIR}/build)

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${build} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_INSTALL_PREFIX=/usr -DPA_BUILD_TESTS=OFF -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_EXAMPLES=ON)
run(${CMAKE_COMMAND} --build ${build} --target profile_analysis --parallel 2)
run(${CMAKE_COMMAND} --install ${build} --prefix ${WORK_DIR}/prefix)
file(GLOB_RECURSE header ${WORK_DIR}/prefix/include/profile_analysis.h)
if(NOT header)
  message(FATAL_ERROR "the library-only install has no header")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -E chdir ${build} ${CPACK} -G DEB
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cpack failed:\n${out}")
endif()

# Debian's library folder: /usr/lib/<multiarch triplet>.
file(GLOB compiler_file ${build}/CMakeFiles/*/CMakeCXXCompiler.cmake)
file(STRINGS ${compiler_file} arch REGEX "set\\(CMAKE_LIBRARY_ARCHITECTURE ")
string(REGEX REPLACE ".*\"(.*)\".*" "\\1" arch "${arch}")
set(libdir "./usr/lib/${arch}")
string(REGEX REPLACE "/$" "" libdir "${libdir}")

function(expect_files deb)
  run(${DPKG_DEB} -c ${deb})
  foreach(path IN LISTS ARGN)
    if(NOT last_output MATCHES " ${path}( |\n)")
      message(FATAL_ERROR "${deb} lacks ${path}:\n${last_output}")
    endif()
  endforeach()
endfunction()
function(field deb name var)
  run(${DPKG_DEB} -f ${deb} ${name})
  string(STRIP "${last_output}" value)
  set(${var} "${value}" PARENT_SCOPE)
endfunction()

file(GLOB runtime_deb ${build}/libprofile-analysis1_*.deb)
file(GLOB dev_deb ${build}/libprofile-analysis-dev_*.deb)
if(NOT runtime_deb OR NOT dev_deb)
  file(GLOB made ${build}/*.deb)
  message(FATAL_ERROR "expected libprofile-analysis1 and libprofile-analysis-dev, got: ${made}")
endif()

expect_files(${runtime_deb} "${libdir}/libprofile_analysis\\.so\\.1\\.[0-9.]+" "${libdir}/libprofile_analysis\\.so\\.1 ->")
expect_files(${dev_deb} "\\./usr/include/profile_analysis\\.h" "${libdir}/libprofile_analysis\\.so ->"
             "${libdir}/cmake/ProfileAnalysis/ProfileAnalysisConfig\\.cmake"
             "${libdir}/cmake/ProfileAnalysis/ProfileAnalysisTargets\\.cmake"
             "${libdir}/pkgconfig/profile_analysis\\.pc")
run(${DPKG_DEB} -c ${runtime_deb})
if(last_output MATCHES "include/|\\.so ->|pkgconfig|cmake/")
  message(FATAL_ERROR "development files in the runtime package:\n${last_output}")
endif()

field(${runtime_deb} Depends runtime_depends)
field(${dev_deb} Depends dev_depends)
if(NOT runtime_depends MATCHES "(^|, )libopencv-core[0-9][^ ,]*")
  message(FATAL_ERROR "the runtime package does not depend on OpenCV core: ${runtime_depends}")
endif()
if(NOT dev_depends MATCHES "libprofile-analysis1 \\(= " OR NOT dev_depends MATCHES "libopencv-core-dev")
  message(FATAL_ERROR "the development package's dependencies: ${dev_depends}")
endif()

# Debian names a runtime package after the SONAME: libfoo_bar.so.N -> libfoo-bar<N>.
run(${DPKG_DEB} -x ${runtime_deb} ${WORK_DIR}/unpacked)
file(GLOB lib ${WORK_DIR}/unpacked/usr/lib/*/libprofile_analysis.so.1.* ${WORK_DIR}/unpacked/usr/lib/libprofile_analysis.so.1.*)
run(${READELF} -d ${lib})
if(NOT last_output MATCHES "\\(SONAME\\)[^[]*\\[lib([A-Za-z0-9_]+)\\.so\\.([0-9]+)\\]")
  message(FATAL_ERROR "no SONAME in ${lib}:\n${last_output}")
endif()
string(REPLACE "_" "-" stem "${CMAKE_MATCH_1}")
set(expected "lib${stem}${CMAKE_MATCH_2}")
field(${runtime_deb} Package runtime_name)
if(NOT runtime_name STREQUAL expected)
  message(FATAL_ERROR "runtime package ${runtime_name}, SONAME says ${expected}")
endif()
message(STATUS "packages ${runtime_name} and libprofile-analysis-dev as expected")
