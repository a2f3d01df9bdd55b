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

# The x86 kernel headers serve both widths. gcc-multilib's one file is the
# link /usr/include/asm to them; that package conflicts with every cross
# compiler (g++-aarch64-linux-gnu among them), so without it the build makes
# the same link in its own tree.
if(NOT EXISTS /usr/include/asm AND EXISTS /usr/include/x86_64-linux-gnu/asm)
    set(DSP_X86_KERNEL_HEADERS ${CMAKE_BINARY_DIR}/x86-kernel-headers)
    file(MAKE_DIRECTORY ${DSP_X86_KERNEL_HEADERS})
    if(NOT EXISTS ${DSP_X86_KERNEL_HEADERS}/asm)
        file(CREATE_LINK /usr/include/x86_64-linux-gnu/asm ${DSP_X86_KERNEL_HEADERS}/asm SYMBOLIC)
    endif()
    string(APPEND CMAKE_C_FLAGS_INIT " -idirafter ${DSP_X86_KERNEL_HEADERS}")
    string(APPEND CMAKE_CXX_FLAGS_INIT " -idirafter ${DSP_X86_KERNEL_HEADERS}")
endif()

set(DSP_GTEST_FROM_SOURCE ON CACHE BOOL "Build GoogleTest from /usr/src/googletest")
set(DSP_BUILD_BENCH OFF CACHE BOOL "Build the Google Benchmark programs")
