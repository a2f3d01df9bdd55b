// The wave slicer as a processor (tag 4): the host feeds the whole signal
// block by block and then reads the slices found. It produces no audio, so in
// a chain it does nothing.
#pragma once

#include "analysis/wave_slicer.h"
#include "core/processor.h"
#include "dsp.h"

#include <cstdint>

namespace dsp {

class WaveSliceProcessor : public DspProcessor {
public:
    WaveSliceProcessor() { tag = kTagWaveSlice; }

    // A ready slicer from the general heap, or null when channels is not 1 or
    // 2, frames is 0, the rate is too low for the envelope (66 Hz or less) or
    // an allocation fails.
    static WaveSliceProcessor* create(uint32_t frames, uint32_t channels, uint32_t rate,
                                      float startGateDb, float endGateDb, float risePercent,
                                      float minSeconds);

    // Analyses a block (stereo as the halved sum of both channels); blocks
    // larger than the buffers go through in pieces. Returns 1, or 0 when the
    // buffers are missing.
    uint32_t analyze(const int16_t* src, uint32_t bytes);

    // Closes the open slice at the current position, then returns the record
    // `index` steps from the first (the last one when index is beyond it), or
    // null when no slice was found.
    SliceRecord* getSlice(uint32_t index);

    // The slicer produces no audio.
    uint32_t processChannel(uint32_t, const float*, float*, uint32_t) override { return 0; }
    uint32_t processChained(const float*, const float*, float*, float*, uint32_t) override {
        return 0;
    }
    uint32_t processInterleaved(const int16_t*, int16_t*, uint32_t) override { return 0; }

    WaveSlicer slicer;
};

} // namespace dsp
