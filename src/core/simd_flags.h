// The three process-wide switches the host sets through the C interface
// (dspEnableMmx, dspEnable3dnow, dspEnableSse). They are plain bytes; the
// library never probes the processor, and only currentRules() reads them.
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

} // namespace dsp
