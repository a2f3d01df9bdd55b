#!/usr/bin/env bash
# Installs a build into a temporary prefix and consumes it the way a user of
# the installed package would, from the installed files only.
#
# Usage: scripts/check-install.sh BUILD_DIR
#
# Linux build: checks the installed layout (versioned SONAME, libdsp.a,
# header, tool, CMake package, dsp.pc), then builds the C examples in
# examples/ and runs them on a generated WAVE file (examples/run_example.cmake)
# four ways:
#   pkg-config, shared      cc $(pkg-config --cflags --libs dsp) with an rpath
#   pkg-config, static      cc -static $(pkg-config --static --cflags --libs dsp)
#   find_package, shared    examples/ as its own project, dsp::dsp
#   find_package, static    the same with -DDSP_EXAMPLES_STATIC=ON, dsp::dsp_static
# and checks that every dynamic program resolves libdsp.so.0 inside the
# prefix, never in the build tree.
# Windows (mingw-w64) build: checks the installed layout (bin/dsp.dll, its
# import library, libdsp.a, header, CMake package, dsp.pc); when the build
# found wine64 (64-bit builds), it also builds the examples against the prefix
# with find_package under the same toolchain and runs their tests under wine.
# Exits 1 on the first failure (the work directory is then kept).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if (($# != 1)) || [[ ! -f $1/CMakeCache.txt ]]; then
    echo "usage: $0 BUILD_DIR (a configured and built build directory)" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

work=$(mktemp -d "${TMPDIR:-/tmp}/dsp-check-install.XXXXXX")
finish() {
    local status=$?
    if ((status == 0)); then
        rm -rf "$work"
    else
        echo "check-install: FAILED (work directory kept: $work)" >&2
    fi
}
trap finish EXIT
fail() {
    echo "check-install: $*" >&2
    exit 1
}
step() { echo "check-install: $*"; }

cache_value() { # cache_value NAME: the value of NAME in the build's CMakeCache.txt
    sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt" | head -n 1
}
# Programs must find nothing through the environment.
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH

prefix=$work/prefix
step "installing $build into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || {
    cat "$work/install.log" >&2
    fail "cmake --install failed"
}
libdir=$prefix/$(cache_value CMAKE_INSTALL_LIBDIR)
version=$(sed -n "s/^Version: //p" "$libdir/pkgconfig/dsp.pc")
major=${version%%.*}

expect_files() {
    local file
    for file in "$@"; do
        [[ -f $prefix/$file ]] || fail "not installed: $file"
    done
}
package=(include/dsp.h "${libdir#"$prefix/"}/libdsp.a" "${libdir#"$prefix/"}/pkgconfig/dsp.pc"
    "${libdir#"$prefix/"}/cmake/dsp/dspConfig.cmake"
    "${libdir#"$prefix/"}/cmake/dsp/dspConfigVersion.cmake"
    "${libdir#"$prefix/"}/cmake/dsp/dspTargets.cmake")

# Runs one example program on a generated tone and checks its output.
run_example() { # run_example EXAMPLE MAKE_TONE WORK_DIR [EMULATOR]
    cmake -DEXAMPLE="$1" -DMAKE_TONE="$2" -DWORK_DIR="$3" -DFRAMES=13288 -DRATE=44100 \
        -DCHANNELS=2 -DEMULATOR="${4:-}" -P "$root/examples/run_example.cmake" ||
        fail "$1 failed on its test input"
}

# Configures, builds and tests examples/ as its own project against the prefix.
build_examples_with_cmake() { # build_examples_with_cmake DIR [cmake arguments...]
    local dir=$1
    shift
    cmake -S "$root/examples" -B "$dir" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF "$@" \
        >"$dir.log" 2>&1 || {
        cat "$dir.log" >&2
        fail "configuring examples/ against the prefix failed"
    }
    local found
    found=$(sed -n 's/^dsp_DIR:[A-Z]*=//p' "$dir/CMakeCache.txt")
    [[ $found == "$libdir/cmake/dsp" ]] || fail "find_package(dsp) found $found, not the prefix"
    cmake --build "$dir" -j "$jobs" >>"$dir.log" 2>&1 || {
        cat "$dir.log" >&2
        fail "building examples/ against the prefix failed"
    }
    ctest --test-dir "$dir" --output-on-failure || fail "the examples' tests failed in $dir"
}

if [[ -f $build/bin/dsp.dll ]]; then
    # ---- Windows (mingw-w64 cross build)
    expect_files bin/dsp.dll "${libdir#"$prefix/"}/libdsp.dll.a" "${package[@]}"
    # The import library must lead to the DLL (a program's own import library
    # under the same name would lead elsewhere).
    for dlltool in x86_64-w64-mingw32-dlltool i686-w64-mingw32-dlltool; do
        if command -v "$dlltool" >/dev/null; then
            target=$("$dlltool" -I "$libdir/libdsp.dll.a") ||
                fail "$dlltool cannot read libdsp.dll.a"
            [[ $target == dsp.dll ]] || fail "libdsp.dll.a imports from '$target', not dsp.dll"
            break
        fi
    done
    step "Windows layout complete: bin/dsp.dll, libdsp.dll.a, libdsp.a, dsp.h, CMake package, dsp.pc"
    wine=$(cache_value DSP_WINE64)
    if [[ -z $wine || $wine == *NOTFOUND ]]; then
        step "no wine64 for this build: the Windows consumer is not run"
        exit 0
    fi
    toolchain=$(cache_value CMAKE_TOOLCHAIN_FILE)
    [[ $toolchain == /* ]] || toolchain=$root/$toolchain
    [[ -f $toolchain ]] || fail "toolchain file $toolchain not found"
    # shellcheck source=scripts/wine-env.sh
    source "$root/scripts/wine-env.sh"
    "$wine" cmd /c exit >/dev/null 2>&1 || true # create the prefix once
    step "find_package(dsp) under $(basename "$toolchain"), examples run under wine"
    # The cross toolchain searches packages under its sysroot only: point at
    # the package directly.
    build_examples_with_cmake "$work/cmake-windows" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -Ddsp_DIR="$libdir/cmake/dsp"
    [[ -f $work/cmake-windows/dsp.dll ]] || fail "dsp.dll was not copied beside the examples"
    step "all passed"
    exit 0
fi

# ---- Linux
so=libdsp.so.$version
expect_files "${libdir#"$prefix/"}/$so" bin/dsp "${package[@]}"
[[ -L $libdir/libdsp.so.$major && -L $libdir/libdsp.so ]] ||
    fail "libdsp.so and libdsp.so.$major must be links to $so"
[[ $(readlink -f "$libdir/libdsp.so") == "$(readlink -f "$libdir/$so")" ]] ||
    fail "libdsp.so does not lead to $so"
soname=$(readelf -d "$libdir/$so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == "libdsp.so.$major" ]] || fail "SONAME is '$soname', not libdsp.so.$major"
"$prefix/bin/dsp" --help >/dev/null || fail "the installed tool does not run"
step "layout complete: $so (SONAME $soname), libdsp.a, dsp.h, dsp, CMake package, dsp.pc"

# A dynamic program must take libdsp.so.N from the prefix.
expect_prefix_library() { # expect_prefix_library PROGRAM
    local resolved
    resolved=$(ldd "$1" | awk -v name="libdsp.so.$major" '$1 == name { print $3 }')
    [[ -n $resolved ]] || fail "$1 does not load libdsp.so.$major"
    [[ $(readlink -f "$resolved") == "$(readlink -f "$libdir/$so")" ]] ||
        fail "$1 loads $resolved, not the installed $libdir/$so"
}
# A static program must load no libdsp at all.
expect_no_library() { # expect_no_library PROGRAM
    if readelf -d "$1" 2>/dev/null | grep -q 'NEEDED.*libdsp'; then
        fail "$1 needs a shared libdsp although it was linked statically"
    fi
}

export PKG_CONFIG_PATH=$libdir/pkgconfig
command -v pkg-config >/dev/null || fail "pkg-config is not installed"
[[ $(pkg-config --modversion dsp) == "$version" ]] || fail "pkg-config reports another version"
cc=${CC:-cc}
examples=(wav_chain float_chain make_tone)

step "pkg-config, shared: $cc \$(pkg-config --cflags --libs dsp)"
mkdir -p "$work/pc-shared"
for name in "${examples[@]}"; do
    # shellcheck disable=SC2046 # pkg-config prints several words
    "$cc" -std=c99 -Wall -Wextra -Werror "$root/examples/$name.c" -o "$work/pc-shared/$name" \
        $(pkg-config --cflags --libs dsp) -Wl,-rpath,"$libdir" || fail "cannot build $name.c"
    expect_prefix_library "$work/pc-shared/$name"
done
for name in wav_chain float_chain; do
    run_example "$work/pc-shared/$name" "$work/pc-shared/make_tone" "$work/pc-shared/runs"
done

step "pkg-config, static: $cc -static \$(pkg-config --static --cflags --libs dsp)"
mkdir -p "$work/pc-static"
for name in "${examples[@]}"; do
    # shellcheck disable=SC2046
    "$cc" -std=c99 -Wall -Wextra -Werror -static "$root/examples/$name.c" \
        -o "$work/pc-static/$name" $(pkg-config --static --cflags --libs dsp) ||
        fail "cannot build $name.c statically"
    expect_no_library "$work/pc-static/$name"
done
run_example "$work/pc-static/wav_chain" "$work/pc-static/make_tone" "$work/pc-static/runs"

step "find_package(dsp), dsp::dsp"
build_examples_with_cmake "$work/cmake-shared"
for name in "${examples[@]}"; do
    expect_prefix_library "$work/cmake-shared/$name"
done

step "find_package(dsp), dsp::dsp_static"
build_examples_with_cmake "$work/cmake-static" -DDSP_EXAMPLES_STATIC=ON
for name in "${examples[@]}"; do
    expect_no_library "$work/cmake-static/$name"
done
step "all passed"
