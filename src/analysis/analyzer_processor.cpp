#include "analyzer_processor.h"

#include "core/numeric.h"
#include "core/sample_convert.h"

#include <new>

namespace dsp {

namespace {

// The envelope's smoothing low-pass and the gain after rectification.
constexpr uint32_t kEnvelopeOrder = 2;
constexpr float kEnvelopeCutoffHz = 33.0f;
constexpr float kEnvelopeGain = 2.5f;
// Floor of the sliding spectra.
constexpr float kAnalyzeRangeDb = 120.0f;

AnalyzerProcessor* createWithBuffers(uint32_t frames, uint32_t channels, AnalyzerKind kind) {
    AnalyzerProcessor* p = new (std::nothrow) AnalyzerProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    p->kind = kind;
    if (!p->setupBuffers(frames, channels)) {
        delete p;
        return nullptr;
    }
    return p;
}

void zeroFill(float* buffer, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
        buffer[i] = 0.0f;
    }
}

} // namespace

AnalyzerProcessor* AnalyzerProcessor::createFft(uint32_t frames, uint32_t channels,
                                                uint32_t spectra, uint32_t rangeDb) {
    if ((spectra != 1 && spectra != 2) || (spectra == 2 && channels != 2) ||
        !isSupportedFftSize(frames)) {
        return nullptr;
    }
    AnalyzerProcessor* p = createWithBuffers(frames, channels, AnalyzerKind::kFft);
    if (p == nullptr) {
        return nullptr;
    }
    p->outChannels = spectra;
    p->fftSize = frames;
    const float range = static_cast<float>(rangeDb);
    for (BlockFftEngine& engine : p->blockEngines) {
        if (!engine.setup(frames, frames, frames, range)) {
            delete p;
            return nullptr;
        }
    }
    return p;
}

AnalyzerProcessor* AnalyzerProcessor::createFftAnalyze(uint32_t frames, uint32_t channels,
                                                       uint32_t fftSize, uint32_t historyLength) {
    if (!isSupportedFftSize(fftSize) || historyLength < fftSize || historyLength < frames) {
        return nullptr;
    }
    AnalyzerProcessor* p = createWithBuffers(frames, channels, AnalyzerKind::kFftAnalyze);
    if (p == nullptr) {
        return nullptr;
    }
    p->analyzeHop = frames;
    p->fftSize = fftSize;
    for (FftEngine& engine : p->slidingEngines) {
        if (!engine.setup(frames, historyLength, fftSize, kAnalyzeRangeDb)) {
            delete p;
            return nullptr;
        }
    }
    return p;
}

AnalyzerProcessor* AnalyzerProcessor::createEnvAnalyze(uint32_t frames, uint32_t channels,
                                                       uint32_t rate) {
    // The low-pass design needs its cut-off below the Nyquist frequency.
    if (!(static_cast<float>(rate) > 2.0f * kEnvelopeCutoffHz)) {
        return nullptr;
    }
    AnalyzerProcessor* p = createWithBuffers(frames, channels, AnalyzerKind::kEnvAnalyze);
    if (p == nullptr) {
        return nullptr;
    }
    for (EnvelopeFollower& envelope : p->envelopes) {
        if (!envelope.setup(frames, static_cast<float>(rate), kEnvelopeOrder, kEnvelopeCutoffHz,
                            kEnvelopeGain, 0, 1.0f)) {
            delete p;
            return nullptr;
        }
    }
    return p;
}

uint32_t AnalyzerProcessor::framesIn(uint32_t bytes) const {
    uint32_t frames = bytes / (2 * inChannels);
    return frames < inFrames ? frames : inFrames;
}

uint32_t AnalyzerProcessor::doFft(const int16_t* src, float* out, uint32_t bytes) {
    // The work buffers must hold a whole transform (a chain may have
    // reconfigured them smaller).
    if (kind != AnalyzerKind::kFft || ready != 1 || inFrames < fftSize) {
        return 0;
    }
    const uint32_t frames = framesIn(bytes);
    const uint32_t used = frames * 2 * inChannels;
    if (outChannels == 1) {
        // One spectrum: stereo is mixed down, mono converted as it is.
        convertToFloat(src, used, work[0], nullptr, inChannels);
    } else {
        convertToFloat(src, used, work[0], work[1], inChannels);
    }
    zeroFill(work[0], frames, fftSize);
    blockEngines[0].analyze(work[0]);
    uint32_t bins = blockEngines[0].magnitudesDb(out);
    if (outChannels == 2) {
        zeroFill(work[1], frames, fftSize);
        blockEngines[1].analyze(work[1]);
        blockEngines[1].magnitudesDb(out + fftSize / 2);
    }
    return bins;
}

uint32_t AnalyzerProcessor::doFftAnalyze(const int16_t* src, float* out, uint32_t bytes) {
    if (kind != AnalyzerKind::kFftAnalyze || ready != 1 || inFrames < analyzeHop) {
        return 0;
    }
    const uint32_t frames = framesIn(bytes);
    convertToFloat(src, frames * 2 * inChannels, work[0], work[1], inChannels);
    // A short block still advances the history by a whole hop, of zeros.
    zeroFill(work[0], frames, inFrames);
    slidingEngines[0].analyze(work[0]);
    slidingEngines[0].magnitudesDb(out);
    if (inChannels == 2) {
        zeroFill(work[1], frames, inFrames);
        slidingEngines[1].analyze(work[1]);
        slidingEngines[1].magnitudesDb(out + fftSize / 2);
    }
    return 1;
}

uint32_t AnalyzerProcessor::doEnvAnalyze(const int16_t* src, float* out, uint32_t bytes) {
    if (kind != AnalyzerKind::kEnvAnalyze || ready != 1 || inFrames == 0) {
        return 0;
    }
    // Blocks longer than the work buffers go through in pieces; the layout
    // stays all left envelopes, then all right ones.
    const uint32_t total = bytes / (2 * inChannels);
    uint32_t done = 0;
    while (done < total) {
        uint32_t piece = total - done < inFrames ? total - done : inFrames;
        convertToFloat(src + done * inChannels, piece * 2 * inChannels, work[0], work[1],
                       inChannels);
        envelopes[0].follow(work[0], work[2], static_cast<int32_t>(piece));
        if (out != nullptr) {
            for (uint32_t i = 0; i < piece; ++i) {
                out[done + i] =
                    static_cast<float>(truncToInt32(static_cast<double>(work[2][i]) * 32767.0));
            }
        }
        if (inChannels == 2) {
            envelopes[1].follow(work[1], work[3], static_cast<int32_t>(piece));
            if (out != nullptr) {
                for (uint32_t i = 0; i < piece; ++i) {
                    out[total + done + i] =
                        static_cast<float>(truncToInt32(static_cast<double>(work[3][i]) * 32767.0));
                }
            }
        }
        done += piece;
    }
    return 1;
}

} // namespace dsp
