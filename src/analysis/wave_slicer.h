// Cuts a signal into slices at its attacks. The signal is band-limited
// (20000 Hz low-pass, 2000 Hz high-pass), its amplitude envelope followed,
// and the envelope's valleys and peaks tracked: a rise out of a valley that
// reaches the start gate and climbs by at least `rise` opens a slice at that
// valley (or, once the open slice is long enough, closes it there and opens
// the next); the envelope falling below the end gate closes it too.
#pragma once

#include "analysis/envelope_follower.h"
#include "analysis/slice_list.h"
#include "core/owned_array.h"
#include "dsp.h"
#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

class WaveSlicer {
public:
    // Designs the filters and the envelope for `rate` and stores the gates.
    // A second setup forgets the slices found and starts tracking afresh.
    // Returns false when frames is 0, the rate is too low for the envelope
    // (66 Hz or less) or an allocation fails.
    bool setup(uint32_t frames, float rate, float startGateDb, float endGateDb, float risePercent,
               float minSeconds);

    // Analyses n more samples of the signal (in pieces of at most the frames
    // of the setup); nothing before a successful setup.
    void analyze(const float* x, uint32_t n);

    // Closes the open slice, if any, at the current position.
    void closeOpenSlice();

    // The record `index` steps from the first, stopping at the last; null
    // when there is none.
    SliceRecord* slice(uint32_t index) const { return slices_.at(index); }

private:
    // What the envelope must do to open or close a slice.
    struct Gates {
        float start = 0.0f;     // reached for an attack to count
        float end = 0.0f;       // falling below it ends a slice
        float rise = 0.0f;      // least climb above the valley for an attack
        uint32_t minLength = 0; // samples a slice must exceed before it may end
    };
    // Where the envelope and the open slice stand.
    struct Tracking {
        bool inSlice = false;
        float valley = 1.0f; // last tracked minimum
        uint32_t valleyPos = 0;
        bool armed = false; // rising out of a valley, no attack taken yet
        float peak = 0.0f;  // last tracked maximum
        bool seekingValley = true;
        uint32_t sliceStart = 0;
        uint32_t position = 0; // samples analysed since setup
    };

    // Forgets the slices, resets the tracking and sets up the scratch, the
    // envelope and the band filters; false when one cannot be allocated.
    bool startOver(OwnedArray<float> scratch, uint32_t frames, float rate);
    void appendSlice(uint32_t start, uint32_t end);
    void bandLimitAndFollow(const float* x, uint32_t n);
    void applyRules(uint32_t n);
    bool isAttack(float e) const;
    void applySliceRules(float e);
    void trackExtremes(float e);

    bool configured_ = false;
    float secondsPerSample_ = 0.0f;
    Gates gates_;
    Tracking track_;
    EnvelopeFollower envelope_;
    ButterworthDesigner upperFilter_; // low-pass, 20000 Hz
    ButterworthDesigner lowerFilter_; // high-pass, 2000 Hz
    // Each filter is used only when its cut-off lies below half the rate.
    bool useUpperFilter_ = false;
    bool useLowerFilter_ = false;
    OwnedArray<float> scratch_; // band-limited signal, then its envelope
    SliceList slices_;
};

// A sample position in seconds: the exact product position x
// secondsPerSample rounded once to float.
float sliceSeconds(uint32_t position, float secondsPerSample);

} // namespace dsp
