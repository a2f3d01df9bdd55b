# 64-bit ARM Linux cross build on an x86-64 Debian host
# (g++-aarch64-linux-gnu; tests run under qemu-user):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/linux-aarch64.cmake
# ctest and the golden runs go through qemu-aarch64 with the cross sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(DSP_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(DSP_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${DSP_QEMU_AARCH64} -L /usr/aarch64-linux-gnu)
endif()

# The host's GoogleTest and Google Benchmark packages are x86-64 only:
# GoogleTest is built from its sources, the benchmarks are left out.
set(DSP_GTEST_FROM_SOURCE ON CACHE BOOL "Build GoogleTest from /usr/src/googletest")
set(DSP_BUILD_BENCH OFF CACHE BOOL "Build the Google Benchmark programs")
