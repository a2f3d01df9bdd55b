// Cuts a signal into slices at its attacks. The signal is band-limited
// (20000 Hz low-pass, 2000 Hz high-pass), its amplitude envelope followed,
// and the envelope's valleys and peaks tracked: a rise out of a valley that
// reaches the start gate and climbs by at least `rise` opens a slice at that
// valley (or, once the open slice is long enough, closes it there and opens
// the next); the envelope falling below the end gate closes it too.
#pragma once

#include "analysis/envelope_follower.h"
#include "dsp.h"
#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

class WaveSlicer {
public:
    // Where slice records come from (a plain nothrow new by default; a null
    // result drops the slice).
    using RecordAllocator = SliceRecord* (*)();

    WaveSlicer() = default;
    ~WaveSlicer();
    WaveSlicer(const WaveSlicer&) = delete;
    WaveSlicer& operator=(const WaveSlicer&) = delete;

    // Designs the filters and the envelope for `rate` and stores the gates.
    // A second setup forgets the slices found and starts tracking afresh.
    // Returns false (configured 0) when an allocation fails or rate or
    // frames is 0.
    bool setup(uint32_t frames, float rate, float startGateDb, float endGateDb, float risePercent,
               float minSeconds);

    // Analyses n more samples of the signal (in pieces of at most `frames`).
    void analyze(const float* x, uint32_t n);

    // Closes the open slice, if any, at the current position.
    void closeOpenSlice();

    // The record `index` steps from the first, stopping at the last; null
    // when there is none.
    SliceRecord* slice(uint32_t index) const;

    // A sample position in seconds: the exact product position x
    // secondsPerSample rounded once to float.
    float secondsAt(uint32_t samplePosition) const;

    uint8_t configured = 0;
    float rate = 0.0f;
    float secondsPerSample = 0.0f;
    float startGate = 0.0f;
    float endGate = 0.0f;
    float rise = 0.0f;
    uint32_t minLength = 0;
    uint32_t frames = 0;
    uint8_t inSlice = 0;
    float valley = 1.0f;
    uint32_t valleyPos = 0;
    uint8_t armed = 0;
    float peak = 0.0f;
    uint32_t peakPos = 0;
    uint8_t seekingValley = 1;
    uint32_t sliceStart = 0;
    uint32_t sliceEnd = 0;
    uint32_t position = 0;
    EnvelopeFollower envelope;
    ButterworthDesigner upperFilter; // low-pass, 20000 Hz
    ButterworthDesigner lowerFilter; // high-pass, 2000 Hz
    // Each filter is used only when its cut-off lies below half the rate.
    bool useUpperFilter = false;
    bool useLowerFilter = false;
    float* scratch = nullptr;
    SliceRecord* first = nullptr;
    SliceRecord* last = nullptr;
    uint32_t sliceCount = 0;
    RecordAllocator allocateRecord = &newRecord;

private:
    static SliceRecord* newRecord();
    void freeSlices();
    void resetTracking();
    void appendSlice(uint32_t start, uint32_t end);
    void bandLimitAndFollow(const float* x, uint32_t n);
    void applyRules(uint32_t n);
};

} // namespace dsp
