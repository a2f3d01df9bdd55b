# Shared part of the mingw-w64 cross toolchains; DSP_MINGW_TRIPLET is set by
# the file that includes this one.
set(CMAKE_SYSTEM_NAME Windows)

set(CMAKE_C_COMPILER ${DSP_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${DSP_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${DSP_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${DSP_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GoogleTest is cross-built from the sources Debian ships; there is no
# Windows Google Benchmark.
set(DSP_GTEST_FROM_SOURCE ON CACHE BOOL "Build GoogleTest from /usr/src/googletest")
set(DSP_BUILD_BENCH OFF CACHE BOOL "Build the Google Benchmark programs")
