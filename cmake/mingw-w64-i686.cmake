# 32-bit Windows cross build with Debian's mingw-w64:
#   cmake -S . -B build-win32 -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-i686.cmake
set(CMAKE_SYSTEM_PROCESSOR i686)
set(DSP_MINGW_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
