# Builds the parent project in parent/ (the library as its subdirectory, with
# GoogleTest and Google Benchmark hidden from it), runs its program, and checks
# that installing the parent installs nothing of the library.
file(REMOVE_RECURSE ${WORK_DIR})
include(${CMAKE_CURRENT_LIST_DIR}/run_command.cmake)

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/parent -B ${WORK_DIR}/build -DPA_SOURCE_DIR=${SOURCE_DIR}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build --target app --parallel 2)
run(${WORK_DIR}/build/app)
run(${CMAKE_COMMAND} --install ${WORK_DIR}/build --prefix ${WORK_DIR}/prefix)
file(GLOB_RECURSE installed ${WORK_DIR}/prefix/*)
if(installed)
  message(FATAL_ERROR "the subproject installed files the parent did not ask for:\n${installed}")
endif()
message(STATUS "built and ran as a subproject")
