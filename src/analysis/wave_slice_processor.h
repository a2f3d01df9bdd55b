// The wave slicer as a processor (tag 4): the host feeds the whole signal
// block by block and then reads the slices found. It produces no audio: its
// processChained returns 0 frames, so a chain holding one outputs nothing
// from there on.
#pragma once

#include "analysis/measuring_processor.h"
#include "analysis/wave_slicer.h"
#include "dsp.h"

#include <cstdint>

namespace dsp {

class WaveSliceProcessor : public MeasuringProcessor {
public:
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

private:
    WaveSliceProcessor() : MeasuringProcessor(kTagWaveSlice) {}

    WaveSlicer slicer_;
};

} // namespace dsp
