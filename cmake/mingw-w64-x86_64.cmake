# 64-bit Windows cross build with Debian's mingw-w64:
#   cmake -S . -B build-win64 -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
# ctest runs the test program under wine64 when it is installed.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(DSP_MINGW_TRIPLET x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)

find_program(DSP_WINE64 NAMES wine64 PATHS /usr/lib/wine NO_DEFAULT_PATH)
if(NOT DSP_WINE64)
    find_program(DSP_WINE64 NAMES wine64)
endif()
if(DSP_WINE64)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${DSP_WINE64})
endif()
