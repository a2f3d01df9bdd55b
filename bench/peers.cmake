# Peer libraries for the side-by-side benchmarks (bench_peers_*.cpp). Each is
# optional: a benchmark whose peer is missing is compiled without it.
# scripts/install-bench-peers.sh installs them on Debian.
find_package(PkgConfig QUIET)
set(DSP_BENCH_PEERS
    samplerate:SAMPLERATE speexdsp:SPEEXDSP soxr:SOXR soundtouch:SOUNDTOUCH
    rubberband:RUBBERBAND fftw3f:FFTW3F kissfft-float:KISSFFT sndfile:SNDFILE)
set(DSP_BENCH_PEER_VARS "")
if(PKG_CONFIG_FOUND)
    foreach(entry ${DSP_BENCH_PEERS})
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

function(dsp_bench_link_peers target)
    foreach(var ${DSP_BENCH_PEER_VARS})
        target_link_libraries(${target} PRIVATE PkgConfig::PEER_${var})
        target_compile_definitions(${target} PRIVATE DSP_HAVE_${var})
    endforeach()
endfunction()
