#include "chorus_voices.h"

#include "core/lookup_tables.h"
#include "core/numeric.h"

#include <cstdint>
#include <new>

namespace dsp {

namespace {
constexpr double kTwoPi = 6.283185307179586;
} // namespace

ChorusVoices::~ChorusVoices() {
    releaseVoiceArrays();
}

void ChorusVoices::releaseVoiceArrays() {
    delete[] phaseOffsets;
    delete[] voiceMix;
    phaseOffsets = nullptr;
    voiceMix = nullptr;
    arrayVoices = 0;
}

void ChorusVoices::release() {
    ModulatedDelay::release();
    releaseVoiceArrays();
}

bool ChorusVoices::init(uint32_t sampleRate, float delayMs, uint32_t newCapacity) {
    // Every voice receives the same input at the same positions, so the voices'
    // histories are always identical: one history serves them all.
    return initLine(sampleRate, delayMs, newCapacity, newCapacity);
}

bool ChorusVoices::setup(uint32_t sampleRate, uint32_t voices, float delayMs, float depthMs,
                         float speed, float mixPercent, float orgMixPercent, uint32_t newCapacity) {
    // Voices cost two floats each plus their work per sample; a count beyond
    // this is a mistake, not a chorus, and is refused rather than allocated.
    if (voices > kMaxVoices) {
        release();
        return false;
    }
    voiceCount = voices;
    if (!init(sampleRate, delayMs, newCapacity)) {
        return false;
    }
    msPerSample = static_cast<float>(1000.0 / static_cast<double>(sampleRate));
    setDepth(depthMs);
    lfoTime = 0.0f;
    setSpeed(speed);
    mix = static_cast<float>(0.01 * static_cast<double>(mixPercent));
    setOrgMix(orgMixPercent);
    if (phaseOffsets == nullptr || arrayVoices != voices) {
        releaseVoiceArrays();
        phaseOffsets = new (std::nothrow) float[voices];
        voiceMix = new (std::nothrow) float[voices];
        if (phaseOffsets == nullptr || voiceMix == nullptr) {
            release();
            return false;
        }
        arrayVoices = voices;
    }
    const double spacing = voices == 0 ? 0.0 : kTwoPi / static_cast<double>(voices);
    for (uint32_t v = 0; v < voices; ++v) {
        phaseOffsets[v] = static_cast<float>(static_cast<double>(v) * spacing);
        voiceMix[v] = mix;
    }
    return true;
}

void ChorusVoices::setVoiceMix(uint32_t voice, float percent) {
    if (voice >= voiceCount || voiceMix == nullptr) {
        return;
    }
    mix = static_cast<float>(0.01 * static_cast<double>(percent));
    voiceMix[voice] = mix;
}

uint32_t ChorusVoices::process(const float* in, float* out, uint32_t frames) {
    if (configured == 0) {
        return frames;
    }
    const SineTable& sine = sineTable();
    const double phaseStep = kTwoPi * static_cast<double>(cyclesPerMs);
    const double depthD = depth;
    const double delayD = delay;
    for (uint32_t n = 0; n < frames; ++n) {
        const double phase = static_cast<double>(lfoTime) * phaseStep;
        const float sample = in[n];
        double acc = 0.0;
        for (uint32_t v = 0; v < voiceCount; ++v) {
            const double lfo = sine.lookup(static_cast<double>(phaseOffsets[v]) + phase);
            // Whole samples: the swept delay moves in steps of one sample.
            const int32_t d = truncToInt32(delayD + lfo * depthD);
            acc += static_cast<double>(history[(writeIndex - static_cast<uint32_t>(d)) & mask]) *
                   static_cast<double>(voiceMix[v]);
        }
        // Stored after every voice has read, so a delay of 0 reads a full
        // history back.
        history[writeIndex] = sample;
        out[n] =
            static_cast<float>(acc + static_cast<double>(sample) * static_cast<double>(orgMix));
        writeIndex = (writeIndex + 1) & mask;
        lfoTime += msPerSample;
        if (lfoTime >= periodMs) {
            const int32_t k =
                truncToInt32(static_cast<double>(lfoTime) / static_cast<double>(periodMs));
            lfoTime = static_cast<float>(static_cast<double>(lfoTime) -
                                         static_cast<double>(k) * static_cast<double>(periodMs));
        }
    }
    return frames;
}

bool ChorusVoices::sameModulation(const ChorusVoices& other) const {
    if (configured == 0 || other.configured == 0 || voiceCount != other.voiceCount ||
        mask != other.mask || writeIndex != other.writeIndex || delay != other.delay ||
        depth != other.depth || cyclesPerMs != other.cyclesPerMs ||
        msPerSample != other.msPerSample || periodMs != other.periodMs ||
        lfoTime != other.lfoTime || history == other.history) {
        return false;
    }
    for (uint32_t v = 0; v < voiceCount; ++v) {
        if (phaseOffsets[v] != other.phaseOffsets[v]) {
            return false;
        }
    }
    return true;
}

void ChorusVoices::processPair(ChorusVoices& left, const float* inL, float* outL,
                               ChorusVoices& right, const float* inR, float* outR,
                               uint32_t frames) {
    // Both channels normally share every modulation setting and the LFO
    // clock, so each sample's delays are computed once for both. Each
    // channel's arithmetic is exactly that of process().
    if (!left.sameModulation(right)) {
        left.process(inL, outL, frames);
        right.process(inR, outR, frames);
        return;
    }
    const SineTable& sine = sineTable();
    const double phaseStep = kTwoPi * static_cast<double>(left.cyclesPerMs);
    const double depthD = left.depth;
    const double delayD = left.delay;
    const uint32_t voices = left.voiceCount;
    const uint32_t mask = left.mask;
    float* historyL = left.history;
    float* historyR = right.history;
    uint32_t writeIndex = left.writeIndex;
    float lfoTime = left.lfoTime;
    for (uint32_t n = 0; n < frames; ++n) {
        const double phase = static_cast<double>(lfoTime) * phaseStep;
        const float sampleL = inL[n];
        const float sampleR = inR[n];
        double accL = 0.0;
        double accR = 0.0;
        for (uint32_t v = 0; v < voices; ++v) {
            const double lfo = sine.lookup(static_cast<double>(left.phaseOffsets[v]) + phase);
            const uint32_t at =
                (writeIndex - static_cast<uint32_t>(truncToInt32(delayD + lfo * depthD))) & mask;
            accL += static_cast<double>(historyL[at]) * static_cast<double>(left.voiceMix[v]);
            accR += static_cast<double>(historyR[at]) * static_cast<double>(right.voiceMix[v]);
        }
        historyL[writeIndex] = sampleL;
        historyR[writeIndex] = sampleR;
        outL[n] = static_cast<float>(accL + static_cast<double>(sampleL) *
                                                static_cast<double>(left.orgMix));
        outR[n] = static_cast<float>(accR + static_cast<double>(sampleR) *
                                                static_cast<double>(right.orgMix));
        writeIndex = (writeIndex + 1) & mask;
        lfoTime += left.msPerSample;
        if (lfoTime >= left.periodMs) {
            const int32_t k =
                truncToInt32(static_cast<double>(lfoTime) / static_cast<double>(left.periodMs));
            lfoTime =
                static_cast<float>(static_cast<double>(lfoTime) -
                                   static_cast<double>(k) * static_cast<double>(left.periodMs));
        }
    }
    left.writeIndex = right.writeIndex = writeIndex;
    left.lfoTime = right.lfoTime = lfoTime;
}

} // namespace dsp
