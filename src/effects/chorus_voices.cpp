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
    // voiceCount histories of newCapacity floats must be addressable at all.
    if (newCapacity != 0 && voiceCount > SIZE_MAX / sizeof(float) / newCapacity) {
        release();
        return false;
    }
    size_t floats = static_cast<size_t>(voiceCount) * newCapacity;
    return initLine(sampleRate, delayMs, newCapacity, floats);
}

bool ChorusVoices::setup(uint32_t sampleRate, uint32_t voices, float delayMs, float depthMs,
                         float speed, float mixPercent, float orgMixPercent, uint32_t newCapacity) {
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
        float* line = history;
        for (uint32_t v = 0; v < voiceCount; ++v, line += capacity) {
            const double lfo = sine.lookup(static_cast<double>(phaseOffsets[v]) + phase);
            // Whole samples: the swept delay moves in steps of one sample.
            const int32_t d = truncToInt32(delayD + lfo * depthD);
            // Read before storing, so a delay of 0 reads a full history back.
            acc += static_cast<double>(line[(writeIndex - static_cast<uint32_t>(d)) & mask]) *
                   static_cast<double>(voiceMix[v]);
            line[writeIndex] = sample;
        }
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

} // namespace dsp
