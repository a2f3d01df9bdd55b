// Exports of the processing chain. A null chain, or a handle of another
// kind, is refused (0, or nothing done) by every call.
#include "dsp.h"

#include "core/dsp_chain.h"

#include <new>

namespace {

dsp::DspChain* chainFromHandle(void* handle) {
    return dsp::DspChain::fromHandle(handle);
}

} // namespace

extern "C" {

DSP_API void* dspCreate(uint32_t frames, uint32_t channels, uint32_t rate) {
    return new (std::nothrow) dsp::DspChain(frames, channels, rate);
}

DSP_API uint32_t dspAdd(void* chain, void* processor, uint32_t order) {
    dsp::DspChain* c = chainFromHandle(chain);
    if (c == nullptr) {
        return 0;
    }
    return c->add(static_cast<dsp::DspProcessor*>(processor), order);
}

DSP_API void dspAdjust(void* chain, uint32_t frames, uint32_t channels, uint32_t rate) {
    dsp::DspChain* c = chainFromHandle(chain);
    if (c != nullptr) {
        c->adjust(frames, channels, rate);
    }
}

DSP_API uint32_t dspSend(void* chain, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::DspChain* c = chainFromHandle(chain);
    return c == nullptr ? 0 : c->send(src, dst, bytes);
}

DSP_API uint32_t dspGetDstRate(void* chain) {
    dsp::DspChain* c = chainFromHandle(chain);
    return c == nullptr ? 0 : c->dstRate();
}

DSP_API uint32_t dspGetDstChannels(void* chain) {
    dsp::DspChain* c = chainFromHandle(chain);
    return c == nullptr ? 0 : c->dstChannels();
}

DSP_API uint32_t dspGetDstSize(void* chain, uint32_t bytes) {
    dsp::DspChain* c = chainFromHandle(chain);
    return c == nullptr ? 0 : c->dstSize(bytes);
}

DSP_API void* dspGetHandle(void* chain, uint32_t index) {
    dsp::DspChain* c = chainFromHandle(chain);
    return c == nullptr ? nullptr : c->handleAt(index);
}

DSP_API void dspClear(void* chain) {
    dsp::DspChain* c = chainFromHandle(chain);
    if (c != nullptr) {
        c->clear();
    }
}

DSP_API void dspDestroy(void* chain) {
    delete chainFromHandle(chain);
}

/* Extensions */

DSP_API uint32_t dspSendFloat(void* chain, const float* src, float* dst, uint32_t frames) {
    dsp::DspChain* c = chainFromHandle(chain);
    if (c == nullptr || src == nullptr || dst == nullptr) {
        return 0;
    }
    return c->sendFloat(src, dst, frames);
}

DSP_API uint32_t dspGetDstSamples(void* chain, uint32_t frames) {
    dsp::DspChain* c = chainFromHandle(chain);
    return c == nullptr ? 0 : c->dstSamples(frames);
}

} // extern "C"
