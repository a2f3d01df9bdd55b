// The three analyzers behind one processor class (tag 1): Fft (dB spectra of
// each block on its own), FftAnalyze (dB spectra over a sliding history) and
// EnvAnalyze (amplitude envelopes in 16-bit sample units). Every object
// carries the members of all three kinds; only those of the kind it was
// created as are set up, and a do call of another kind is refused.
#pragma once

#include "analysis/envelope_follower.h"
#include "analysis/fft_engine.h"
#include "analysis/measuring_processor.h"

#include <cstdint>

namespace dsp {

enum class AnalyzerKind : uint8_t {
    kFft = 1,
    kFftAnalyze = 2,
    kEnvAnalyze = 3,
};

// Analyzers produce no audio: in a chain one ends the output (see
// MeasuringProcessor).
class AnalyzerProcessor : public MeasuringProcessor {
public:
    // Each returns a ready analyzer from the general heap, or null when an
    // argument is outside the supported range or an allocation fails.
    // Fft: frames is the transform length N (a power of two, 4..32768),
    // spectra 1 (stereo mixed down) or 2 (stereo input only).
    static AnalyzerProcessor* createFft(uint32_t frames, uint32_t channels, uint32_t spectra,
                                        uint32_t rangeDb);
    // FftAnalyze: frames is the hop; historyLength must hold fftSize and the hop.
    static AnalyzerProcessor* createFftAnalyze(uint32_t frames, uint32_t channels, uint32_t fftSize,
                                               uint32_t historyLength);
    // EnvAnalyze: 33 Hz second-order low-pass after a gain of 2.5; the rate
    // must put 33 Hz below its Nyquist frequency.
    static AnalyzerProcessor* createEnvAnalyze(uint32_t frames, uint32_t channels, uint32_t rate);

    // Each returns 0 (touching nothing) when the analyzer is of another kind.
    // N/2 per spectrum; out gets one spectrum or left then right.
    uint32_t doFft(const int16_t* src, float* out, uint32_t bytes);
    // 1; out gets the spectrum of each channel, left then right.
    uint32_t doFftAnalyze(const int16_t* src, float* out, uint32_t bytes);
    // 1; out (may be null) gets all left envelopes, then all right ones.
    uint32_t doEnvAnalyze(const int16_t* src, float* out, uint32_t bytes);

private:
    explicit AnalyzerProcessor(AnalyzerKind kind) : MeasuringProcessor(kTagAnalyzer), kind_(kind) {}

    // An analyzer of `kind` with work buffers for frames x channels whose
    // members setupMembers(analyzer) sets up (false: refused).
    template <typename SetupMembers>
    static AnalyzerProcessor* create(uint32_t frames, uint32_t channels, AnalyzerKind kind,
                                     SetupMembers setupMembers);

    // Frames of a block of `bytes`, limited to what the work buffers hold.
    uint32_t framesIn(uint32_t bytes) const;

    FftEngine slidingEngines_[2];
    EnvelopeFollower envelopes_[2];
    BlockFftEngine blockEngines_[2];
    AnalyzerKind kind_;
};

} // namespace dsp
