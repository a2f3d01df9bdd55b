#include "iir_filter_processor.h"

namespace dsp {

bool IirFilterProcessor::init(uint32_t frames, uint32_t channels, uint32_t rate,
                              uint32_t filterOrder, float cutoffHz, uint32_t filterKind) {
    if (!setupBuffers(frames, channels)) {
        return false;
    }
    setOutRate(rate);
    setInRate(rate);
    order_ = filterOrder;
    cutoff_ = cutoffHz;
    kind_ = filterKind;
    return redesign(rate);
}

bool IirFilterProcessor::redesign(uint32_t rate) {
    bool ok = true;
    for (ChebyshevDesigner& filter : filters_) {
        // An order beyond the signed range has no meaning; it comes out
        // negative and gives a filter without sections.
        if (filter.setOrder(static_cast<int32_t>(order_), kind_)) {
            filter.design(static_cast<float>(rate), cutoff_);
        } else {
            ok = false;
        }
    }
    return ok;
}

void IirFilterProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupBuffers(frames, channels);
    setInRate(rate);
    if (rate != outRate()) {
        // A filter whose arrays cannot be had is left without sections and
        // passes the signal through.
        redesign(rate);
    }
    setOutRate(rate);
}

uint32_t IirFilterProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                            uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    return filters_[channel].process(in, out, frames);
}

uint32_t IirFilterProcessor::processChained(const float* inL, const float* inR, float* outL,
                                            float* outR, uint32_t frames) {
    if (inChannels() == 2) {
        IirDesigner::processPair(filters_[0], inL, outL, filters_[1], inR, outR, frames);
    } else {
        filters_[0].process(inL, outL, frames);
    }
    return frames;
}

} // namespace dsp
