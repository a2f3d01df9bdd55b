// The IIR filter effect: a Chebyshev type I low- or high-pass with a 1 dB
// ripple, one designer per channel so that left and right keep their own
// state with identical coefficients. The settings are fixed at creation; a
// reconfiguration to another sample rate redesigns and restarts the filters.
#pragma once

#include "core/processor.h"
#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

class IirFilterProcessor : public DspProcessor {
public:
    static constexpr uint32_t kHighPass = 1;

    IirFilterProcessor() : DspProcessor(kTagIirFilter) {}

    // Buffers for frames x channels and both filters designed for rate.
    // Returns false when buffers or filter arrays cannot be allocated.
    bool init(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t filterOrder,
              float cutoffHz, uint32_t filterKind);

    // A new block size or channel count keeps the coefficients and the state;
    // a new rate (compared with outRate, the rate the filters are designed
    // for) redesigns both filters and clears their state.
    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;

private:
    // setOrder then design at rate, for both filters; false when a filter's
    // arrays cannot be allocated.
    bool redesign(uint32_t rate);

    ChebyshevDesigner filters_[2]; // left (or mono), right
    uint32_t order_ = 0;
    float cutoff_ = 0.0f;
    uint32_t kind_ = 0; // 1 high-pass, anything else low-pass
};

} // namespace dsp
