# 32-bit x86 Linux build on a 64-bit Debian host (g++-multilib):
#   cmake -S . -B build-x86 -DCMAKE_TOOLCHAIN_FILE=cmake/linux-x86.cmake
# The host's GoogleTest and Google Benchmark packages are 64-bit only, so
# GoogleTest is built from its sources and the benchmarks are left out.
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
# Never pick up 64-bit libraries by search.
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
set(FIND_LIBRARY_USE_LIB32_PATHS ON)

set(DSP_GTEST_FROM_SOURCE ON CACHE BOOL "Build GoogleTest from /usr/src/googletest")
set(DSP_BUILD_BENCH OFF CACHE BOOL "Build the Google Benchmark programs")
