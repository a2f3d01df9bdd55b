// The base of the processors that measure audio instead of transforming it
// (the analyzers and the wave slicer). No audio comes out of them: their
// processChained returns 0 frames, so a chain holding one outputs nothing
// from there on.
#pragma once

#include "core/processor.h"

#include <cstdint>

namespace dsp {

class MeasuringProcessor : public DspProcessor {
public:
    uint32_t processChannel(uint32_t, const float*, float*, uint32_t) override { return 0; }
    uint32_t processChained(const float*, const float*, float*, float*, uint32_t) override {
        return 0;
    }
    uint32_t processInterleaved(const int16_t*, int16_t*, uint32_t) override { return 0; }
    uint32_t pieceOutputBound(uint32_t) const override { return 0; }

protected:
    explicit MeasuringProcessor(uint32_t tag) : DspProcessor(tag) {}
};

} // namespace dsp
