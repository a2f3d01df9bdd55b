// The three process-wide SIMD switches set by the host. They are plain bytes,
// read on every conversion; the library never probes the processor.
#pragma once

#include <cstdint>

namespace dsp {

struct SimdFlags {
    uint8_t mmx;
    uint8_t amd3dnow;
    uint8_t sse;
};

// All switches are 0 when the library is loaded (constant-initialised).
extern SimdFlags simdFlags;

// True when any switch is on: whole-buffer copies then use the 16-byte block copy.
inline bool anySimdFlag() {
    return (simdFlags.mmx | simdFlags.amd3dnow | simdFlags.sse) != 0;
}

} // namespace dsp
