#include "analyzer_processor.h"

#include "analysis/input_pieces.h"
#include "core/numeric.h"

#include <memory>
#include <new>

namespace dsp {

namespace {

// Floor of the sliding spectra.
constexpr float kAnalyzeRangeDb = 120.0f;

// Zero-pads samples[frames .. padTo), transforms the samples with `engine`
// and writes their dB spectrum to out; returns the bins written.
uint32_t spectrumOf(FftEngine& engine, float* samples, uint32_t frames, uint32_t padTo,
                    float* out) {
    for (uint32_t i = frames; i < padTo; ++i) {
        samples[i] = 0.0f;
    }
    engine.analyze(samples);
    return engine.magnitudesDb(out);
}

} // namespace

template <typename SetupMembers>
AnalyzerProcessor* AnalyzerProcessor::create(uint32_t frames, uint32_t channels, AnalyzerKind kind,
                                             SetupMembers setupMembers) {
    std::unique_ptr<AnalyzerProcessor> p(new (std::nothrow) AnalyzerProcessor(kind));
    if (p == nullptr || !p->setupBuffers(frames, channels) || !setupMembers(*p)) {
        return nullptr;
    }
    return p.release();
}

AnalyzerProcessor* AnalyzerProcessor::createFft(uint32_t frames, uint32_t channels,
                                                uint32_t spectra, uint32_t rangeDb) {
    if ((spectra != 1 && spectra != 2) || (spectra == 2 && channels != 2) ||
        !isSupportedFftSize(frames)) {
        return nullptr;
    }
    return create(frames, channels, AnalyzerKind::kFft, [&](AnalyzerProcessor& p) {
        p.setOutChannels(spectra);
        const float range = static_cast<float>(rangeDb);
        return p.blockEngines_[0].setup(frames, frames, frames, range) &&
               p.blockEngines_[1].setup(frames, frames, frames, range);
    });
}

AnalyzerProcessor* AnalyzerProcessor::createFftAnalyze(uint32_t frames, uint32_t channels,
                                                       uint32_t fftSize, uint32_t historyLength) {
    if (!isSupportedFftSize(fftSize) || historyLength < fftSize || historyLength < frames) {
        return nullptr;
    }
    return create(frames, channels, AnalyzerKind::kFftAnalyze, [&](AnalyzerProcessor& p) {
        return p.slidingEngines_[0].setup(frames, historyLength, fftSize, kAnalyzeRangeDb) &&
               p.slidingEngines_[1].setup(frames, historyLength, fftSize, kAnalyzeRangeDb);
    });
}

AnalyzerProcessor* AnalyzerProcessor::createEnvAnalyze(uint32_t frames, uint32_t channels,
                                                       uint32_t rate) {
    const float rateHz = static_cast<float>(rate);
    if (!EnvelopeFollower::supportsAmplitudeRate(rateHz)) {
        return nullptr;
    }
    return create(frames, channels, AnalyzerKind::kEnvAnalyze, [&](AnalyzerProcessor& p) {
        return p.envelopes_[0].setupAmplitude(frames, rateHz) &&
               p.envelopes_[1].setupAmplitude(frames, rateHz);
    });
}

uint32_t AnalyzerProcessor::framesIn(uint32_t bytes) const {
    uint32_t frames = bytes / (2 * inChannels());
    return frames < inFrames() ? frames : inFrames();
}

uint32_t AnalyzerProcessor::doFft(const int16_t* src, float* out, uint32_t bytes) {
    const uint32_t n = blockEngines_[0].fftSize();
    // The work buffers must hold a whole transform (a chain may have
    // reconfigured them smaller).
    if (kind_ != AnalyzerKind::kFft || !isReady() || inFrames() < n) {
        return 0;
    }
    const uint32_t frames = framesIn(bytes);
    // One spectrum: stereo is mixed down (no right buffer), mono converted as
    // it is.
    InterleavedInput in(src, currentRules().rule);
    in.read(frames, PieceInput{work(0), outChannels() == 1 ? nullptr : work(1), inChannels()});
    const uint32_t bins = spectrumOf(blockEngines_[0], work(0), frames, n, out);
    if (outChannels() == 2) {
        spectrumOf(blockEngines_[1], work(1), frames, n, out + bins);
    }
    return bins;
}

uint32_t AnalyzerProcessor::doFftAnalyze(const int16_t* src, float* out, uint32_t bytes) {
    if (kind_ != AnalyzerKind::kFftAnalyze || !isReady() || inFrames() < slidingEngines_[0].hop()) {
        return 0;
    }
    const uint32_t frames = framesIn(bytes);
    InterleavedInput in(src, currentRules().rule);
    in.read(frames, pieceInput());
    // A short block still advances the history by a whole hop, of zeros.
    const uint32_t bins = spectrumOf(slidingEngines_[0], work(0), frames, inFrames(), out);
    if (inChannels() == 2) {
        spectrumOf(slidingEngines_[1], work(1), frames, inFrames(), out + bins);
    }
    return 1;
}

uint32_t AnalyzerProcessor::doEnvAnalyze(const int16_t* src, float* out, uint32_t bytes) {
    if (kind_ != AnalyzerKind::kEnvAnalyze || !isReady() || inFrames() == 0) {
        return 0;
    }
    // Blocks longer than the work buffers go through in pieces; the layout
    // stays all left envelopes, then all right ones.
    const uint32_t total = bytes / (2 * inChannels());
    measureInPieces(src, total, inFrames(), pieceInput(), [&](uint32_t done, uint32_t piece) {
        for (uint32_t c = 0; c < inChannels(); ++c) {
            float* envelope = work(2 + static_cast<int>(c));
            envelopes_[c].follow(work(static_cast<int>(c)), envelope, static_cast<int32_t>(piece));
            if (out != nullptr) {
                float* to = out + size_t{c} * total + done;
                for (uint32_t i = 0; i < piece; ++i) {
                    to[i] = static_cast<float>(
                        truncToInt32(static_cast<double>(envelope[i]) * 32767.0));
                }
            }
        }
    });
    return 1;
}

} // namespace dsp
