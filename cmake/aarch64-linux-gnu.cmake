# Cross build for 64-bit ARM Linux with Debian's cross compiler, against the
# arm64 libraries installed through multiarch (scripts/setup-aarch64.sh).
# The tests run under qemu-user, which takes the target's loader and C/C++
# runtime from the cross compiler's sysroot.
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(PA_CROSS_TRIPLE aarch64-linux-gnu)

set(CMAKE_C_COMPILER ${PA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PA_CROSS_TRIPLE}-g++)

# Headers and libraries of the target: multiarch folders first (the cross
# compiler searches /usr/include, where the arm64 packages put their headers,
# only through the multiarch include folder).
set(CMAKE_LIBRARY_ARCHITECTURE ${PA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH /usr/${PA_CROSS_TRIPLE} /usr/lib/${PA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

find_program(PA_QEMU_AARCH64 qemu-aarch64)
if(PA_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PA_QEMU_AARCH64} -L /usr/${PA_CROSS_TRIPLE})
endif()
