// One processor of every family (and a chain of four), created, run and
// destroyed through the exports alone; shared by the handle, allocation
// failure, fresh memory and concurrency tests.
#pragma once

#include "dsp.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace dsptest {

// Largest block any family below accepts, in frames.
constexpr uint32_t kFamilyFrames = 384;
constexpr uint32_t kFamilyOutBytes = 1 << 14;

struct FamilyRun {
    const char* name;
    const char* family; // whose exports accept the handle
    uint32_t channels;  // of the input blocks
    void* (*init)();
    // Runs one block of `bytes` bytes into `out` (kFamilyOutBytes long); wave
    // slicing writes its first four slices' times as floats.
    uint32_t (*run)(void* handle, const int16_t* in, void* out, uint32_t bytes);
    uint32_t (*term)(void* handle);
    void (*prepare)(void* handle); // settings beyond the init, or null
};

namespace detail {

using AudioCall = uint32_t (*)(void*, const int16_t*, int16_t*, uint32_t);
using AnalyzerCall = uint32_t (*)(void*, const int16_t*, float*, uint32_t);

template <AudioCall Fn>
inline uint32_t audio(void* h, const int16_t* in, void* out, uint32_t bytes) {
    return Fn(h, in, static_cast<int16_t*>(out), bytes);
}

template <AnalyzerCall Fn>
inline uint32_t analyzer(void* h, const int16_t* in, void* out, uint32_t bytes) {
    return Fn(h, in, static_cast<float*>(out), bytes);
}

inline uint32_t fade(void* h, const int16_t* in, void* out, uint32_t bytes) {
    return doFade(h, 0, in, static_cast<int16_t*>(out), bytes);
}

inline uint32_t slice(void* h, const int16_t* in, void* out, uint32_t bytes) {
    const uint32_t result = doWaveSlice(h, in, bytes);
    float* times = static_cast<float*>(out);
    for (uint32_t i = 0; i < 4; ++i) {
        const SliceRecord* record = getWaveSlice(h, i);
        times[2 * i] = record != nullptr ? record->startSeconds : -1.0f;
        times[2 * i + 1] = record != nullptr ? record->endSeconds : -1.0f;
    }
    return result;
}

constexpr uint32_t kF = kFamilyFrames;

inline void* initChain() {
    void* chain = dspCreate(kF, 2, 32000);
    dspAdd(chain, initResampler(kF, 2, 2, 44100, 44100, 1, 60.0f, 60.0f, 1), 1);
    dspAdd(chain, initChorus(kF, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), 2);
    dspAdd(chain, initHqups(kF * 2, 2, 2, 44100, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1), 3);
    dspAdd(chain, initStretch(kF, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f), 4);
    return chain;
}

inline uint32_t destroyChain(void* chain) {
    dspDestroy(chain);
    return 1;
}

} // namespace detail

// One processor of each family.
inline const std::vector<FamilyRun>& familyRuns() {
    using namespace detail;
    static const std::vector<FamilyRun> runs = {
        {"IirFilter", "IirFilter", 2, [] { return initIirFilter(kF, 2, 44100, 4, 1000.0f, 0); },
         audio<doIirFilter>, termIirFilter, nullptr},
        {"Fader", "Fader", 2, [] { return initFader(kF, 2, 44100, 0.0f, -6.0f, 0.0f); }, fade,
         termFader, [](void* h) { setFaderAction(h, 0, 0.0f, 0.01f, -20.0f); }},
        {"Chorus", "Chorus", 2,
         [] { return initChorus(kF, 2, 44100, 3, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f); },
         audio<doChorus>, termChorus, nullptr},
        {"Resampler", "Resampler", 2,
         [] { return initResampler(kF, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1); },
         audio<doResampler>, termResampler, nullptr},
        {"ResamplerMonoToStereo", "Resampler", 1,
         [] { return initResampler(kF, 1, 2, 22050, 48000, 2, 60.0f, 60.0f, 1); },
         audio<doResampler>, termResampler, nullptr},
        {"HqupsMonoToStereo", "Hqups", 1,
         [] { return initHqups(kF * 2, 1, 2, 32000, 0.7f, 60.0f, 6000, 0, 60.0f, 60.0f, 0, 1); },
         audio<doHqups>, termHqups, nullptr},
        {"HqupsBySrcsize", "Hqups", 2,
         [] {
             return initHqupsBySrcsize(kF, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1);
         },
         audio<doHqups>, termHqups, nullptr},
        {"PitchShift", "PitchShift", 2,
         [] { return initPitchShift(kF, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f); },
         audio<doPitchShift>, termPitchShift, nullptr},
        {"Stretch", "Stretch", 2,
         [] { return initStretch(kF, 2, 44100, -700.0f, 0.0f, 0.05f, 0.01f); }, audio<doStretch>,
         termStretch, nullptr},
        {"Fft", "Fft", 2, [] { return initFft(512, 2, 2, 100); }, analyzer<doFft>, termFft,
         nullptr},
        {"FftAnalyze", "FftAnalyze", 2, [] { return initFftAnalyze(kF, 2, 512, 1024); },
         analyzer<doFftAnalyze>, termFftAnalyze, nullptr},
        {"EnvAnalyze", "EnvAnalyze", 2, [] { return initEnvAnalyze(kF, 2, 44100); },
         analyzer<doEnvAnalyze>, termEnvAnalyze, nullptr},
        {"WaveSlice", "WaveSlice", 2,
         [] { return initWaveSlice(kF, 2, 48000, -40.0f, -60.0f, 2.0f, 0.001f); }, slice,
         termWaveSlice, nullptr},
    };
    return runs;
}

// A chain whose source format differs from its four processors', so dspAdd
// reconfigures each of them.
inline const FamilyRun& chainRun() {
    using namespace detail;
    static const FamilyRun run{"Chain",        "Chain",      2,      initChain,
                               audio<dspSend>, destroyChain, nullptr};
    return run;
}

// A deterministic noise signal at a third of full scale.
inline std::vector<int16_t> testSignal(uint32_t samples, uint32_t seed) {
    std::vector<int16_t> data(samples);
    uint32_t state = seed;
    for (int16_t& s : data) {
        state = state * 1664525u + 1013904223u;
        s = static_cast<int16_t>((static_cast<int32_t>(state >> 16) - 32768) / 3);
    }
    return data;
}

// Everything a run returns and writes over short and whole blocks (7, 128,
// 384, 5 and 384 frames); empty when the init fails. With a handle, that
// processor is run (and destroyed) instead of a new one.
inline std::vector<uint8_t> familyOutput(const FamilyRun& family, uint32_t seed,
                                         void* handle = nullptr) {
    void* h = handle != nullptr ? handle : family.init();
    if (h == nullptr) {
        return {};
    }
    if (family.prepare != nullptr) {
        family.prepare(h);
    }
    std::vector<uint8_t> all;
    for (uint32_t frames : {7u, kFamilyFrames / 3, kFamilyFrames, 5u, kFamilyFrames}) {
        const std::vector<int16_t> in = testSignal(frames * family.channels, seed++);
        std::vector<uint8_t> out(kFamilyOutBytes + 4, 0);
        const uint32_t result = family.run(h, in.data(), out.data(), frames * family.channels * 2);
        std::memcpy(&out[kFamilyOutBytes], &result, 4);
        all.insert(all.end(), out.begin(), out.end());
    }
    family.term(h);
    return all;
}

} // namespace dsptest
