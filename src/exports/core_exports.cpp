// Exports of the SIMD switches and the fastmem pool.
#include "dsp.h"

#include "core/fastmem_pool.h"
#include "core/simd_flags.h"

extern "C" {

DSP_API void dspEnableMmx(uint8_t on) {
    dsp::simdFlags.mmx = on != 0 ? 1 : 0;
}

DSP_API void dspEnable3dnow(uint8_t on) {
    dsp::simdFlags.amd3dnow = on != 0 ? 1 : 0;
}

DSP_API void dspEnableSse(uint8_t on) {
    dsp::simdFlags.sse = on != 0 ? 1 : 0;
}

DSP_API void* fastmemAlloc(uint32_t bytes) {
    return dsp::fastmemPool().allocate(bytes);
}

DSP_API uint32_t fastmemFree(void* block) {
    return dsp::fastmemPool().release(block) ? 1 : 0;
}

DSP_API uint32_t fastmemGetAllocatedSize(void) {
    return dsp::fastmemPool().allocatedSize();
}

/* Extensions */

DSP_API const char* dspGetVersion(void) {
    return DSP_VERSION;
}

} // extern "C"
