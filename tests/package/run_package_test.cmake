# Installs the built library into WORK_DIR/prefix, then builds and runs a
# consumer project against it with find_package and with pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

include(${CMAKE_CURRENT_LIST_DIR}/run_command.cmake)

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_RPATH=${prefix}/lib)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
file(GLOB_RECURSE libs ${prefix}/*/libprofile_analysis.so)
list(GET libs 0 lib)
get_filename_component(libdir ${lib} DIRECTORY)
set(ENV{LD_LIBRARY_PATH} ${libdir})
run(${WORK_DIR}/consumer/consumer)

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
  run(${PKG_CONFIG} --cflags --libs profile_analysis)
  string(STRIP "${last_output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(${CXX} -std=c++17 ${CONSUMER_DIR}/main.cpp -o ${WORK_DIR}/consumer_pc ${flags})
  run(${WORK_DIR}/consumer_pc)
endif()
message(STATUS "package consumer built and ran")
