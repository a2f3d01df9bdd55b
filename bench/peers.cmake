# Peer libraries for the side-by-side benchmarks (bench_peers_*.cpp). Each is
# optional: a benchmark whose peer is missing is compiled without it, and
# DSP_BENCH_PEERS=OFF leaves them all out, as on a machine that has none.
# scripts/install-bench-peers.sh installs them on Debian.
set(DSP_BENCH_PEERS_WANTED
    samplerate:SAMPLERATE speexdsp:SPEEXDSP soxr:SOXR soundtouch:SOUNDTOUCH
    rubberband:RUBBERBAND fftw3f:FFTW3F kissfft-float:KISSFFT sndfile:SNDFILE)
set(DSP_BENCH_PEER_VARS "")
if(NOT DSP_BENCH_PEERS)
    message(STATUS "Benchmark peers left out (DSP_BENCH_PEERS=OFF)")
else()
    find_package(PkgConfig QUIET)
    if(PKG_CONFIG_FOUND)
        foreach(entry ${DSP_BENCH_PEERS_WANTED})
            string(REPLACE ":" ";" parts ${entry})
            list(GET parts 0 module)
            list(GET parts 1 var)
            pkg_check_modules(PEER_${var} QUIET IMPORTED_TARGET ${module})
            if(PEER_${var}_FOUND)
                list(APPEND DSP_BENCH_PEER_VARS ${var})
            endif()
        endforeach()
    endif()
    message(STATUS "Benchmark peers found: ${DSP_BENCH_PEER_VARS}")
endif()

function(dsp_bench_link_peers target)
    foreach(var ${DSP_BENCH_PEER_VARS})
        target_link_libraries(${target} PRIVATE PkgConfig::PEER_${var})
        target_compile_definitions(${target} PRIVATE DSP_HAVE_${var})
    endforeach()
endfunction()
