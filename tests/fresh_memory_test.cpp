// Fresh pool memory is never read before it is written: every family, run on
// short and whole blocks (alone and in a chain), gives the same output whether
// the pool's system allocator hands out memory filled with zeros, NaNs, huge
// finite values or a loud tone. (A Hqups processor once read its output buffers
// past a short block; valgrind found it, this test keeps it from returning.)
#include "core/fastmem_pool.h"
#include "dsp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

enum class Fill { Zeros, NaNs, Huge, Tone };
Fill fill = Fill::Zeros;

void* filledAllocation(size_t bytes) {
    void* p = std::malloc(bytes);
    if (p == nullptr) {
        return nullptr;
    }
    switch (fill) {
    case Fill::Zeros:
        std::memset(p, 0, bytes);
        break;
    case Fill::NaNs:
        std::memset(p, 0xFF, bytes);
        break;
    case Fill::Huge:
        std::memset(p, 0x7F, bytes); // every float about 3.4e38
        break;
    case Fill::Tone: {
        // A loud tone at 0.4 of the rate: a stray spectral peak where the
        // Hqups bandwidth analysis looks for the source's cut-off.
        float* f = static_cast<float*>(p);
        for (size_t i = 0; i < bytes / sizeof(float); ++i) {
            f[i] = 0.8f * static_cast<float>(std::sin(2.0 * 3.141592653589793 * 0.4 * i));
        }
        break;
    }
    }
    return p;
}

struct FillGuard {
    explicit FillGuard(Fill value) {
        fill = value;
        dsp::fastmemPool().setSystemAllocator(&filledAllocation);
    }
    ~FillGuard() { dsp::fastmemPool().setSystemAllocator(nullptr); }
};

constexpr uint32_t kFrames = 384;

std::vector<int16_t> block(uint32_t samples, uint32_t seed) {
    std::vector<int16_t> data(samples);
    uint32_t state = seed;
    for (uint32_t i = 0; i < samples; ++i) {
        state = state * 1664525u + 1013904223u;
        data[i] = static_cast<int16_t>(static_cast<int32_t>(state >> 16) - 32768) / 3;
    }
    return data;
}

// Everything a run produced, in order.
using Output = std::vector<uint8_t>;

void append(Output& out, const void* data, size_t bytes) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    out.insert(out.end(), p, p + bytes);
}

// Frames per call: short first blocks, then whole, short and whole again.
const uint32_t kBlockFrames[] = {7, kFrames / 3, kFrames, 5, kFrames};

using AudioCall = uint32_t (*)(void*, const int16_t*, int16_t*, uint32_t);

// A processor that writes audio; `returnsBytes` for the rate changers.
Output runAudio(void* h, AudioCall call, uint32_t channels, uint32_t outChannels,
                bool returnsBytes) {
    Output out;
    uint32_t seed = 1;
    for (uint32_t frames : kBlockFrames) {
        std::vector<int16_t> in = block(frames * channels, seed++);
        std::vector<int16_t> dst(static_cast<size_t>(frames) * outChannels * 8 + 64, 0);
        const uint32_t result = call(h, in.data(), dst.data(), frames * channels * 2);
        append(out, &result, sizeof result);
        const size_t bytes = returnsBytes ? result : static_cast<size_t>(frames) * channels * 2;
        append(out, dst.data(), bytes);
    }
    return out;
}

using AnalyzerCall = uint32_t (*)(void*, const int16_t*, float*, uint32_t);

Output runAnalyzer(void* h, AnalyzerCall call, uint32_t channels, size_t floats) {
    Output out;
    uint32_t seed = 1;
    for (uint32_t frames : kBlockFrames) {
        std::vector<int16_t> in = block(frames * channels, seed++);
        std::vector<float> dst(floats, 0.0f);
        const uint32_t result = call(h, in.data(), dst.data(), frames * channels * 2);
        append(out, &result, sizeof result);
        append(out, dst.data(), floats * sizeof(float));
    }
    return out;
}

struct Case {
    std::string name;
    std::function<Output()> run;
};

std::vector<Case> cases() {
    return {
        {"IirFilter",
         [] {
             void* h = initIirFilter(kFrames, 2, 44100, 4, 1000.0f, 0);
             Output out = runAudio(h, doIirFilter, 2, 2, false);
             termIirFilter(h);
             return out;
         }},
        {"Fader",
         [] {
             void* h = initFader(kFrames, 2, 44100, 0.0f, -6.0f, 0.0f);
             setFaderAction(h, 0, 0.0f, 0.01f, -20.0f);
             Output out = runAudio(
                 h,
                 [](void* p, const int16_t* s, int16_t* d, uint32_t b) {
                     return doFade(p, 0, s, d, b);
                 },
                 2, 2, false);
             termFader(h);
             return out;
         }},
        {"Chorus",
         [] {
             void* h = initChorus(kFrames, 2, 44100, 3, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f);
             Output out = runAudio(h, doChorus, 2, 2, false);
             termChorus(h);
             return out;
         }},
        {"Resampler",
         [] {
             void* h = initResampler(kFrames, 1, 2, 22050, 48000, 2, 60.0f, 60.0f, 1);
             Output out = runAudio(h, doResampler, 1, 2, true);
             termResampler(h);
             return out;
         }},
        {"Hqups",
         [] {
             void* h =
                 initHqupsBySrcsize(kFrames, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1);
             Output out = runAudio(h, doHqups, 2, 2, true);
             termHqups(h);
             return out;
         }},
        {"HqupsMonoToStereo",
         [] {
             void* h =
                 initHqups(kFrames * 2, 1, 2, 32000, 0.7f, 60.0f, 6000, 0, 60.0f, 60.0f, 0, 1);
             Output out = runAudio(h, doHqups, 1, 2, true);
             termHqups(h);
             return out;
         }},
        {"PitchShift",
         [] {
             void* h = initPitchShift(kFrames, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f);
             Output out = runAudio(h, doPitchShift, 2, 2, false);
             termPitchShift(h);
             return out;
         }},
        {"Stretch",
         [] {
             void* h = initStretch(kFrames, 2, 44100, -700.0f, 0.0f, 0.05f, 0.01f);
             Output out = runAudio(h, doStretch, 2, 2, true);
             termStretch(h);
             return out;
         }},
        {"Fft",
         [] {
             void* h = initFft(512, 2, 2, 100); // a power of two, above every block
             Output out = runAnalyzer(h, doFft, 2, 512);
             termFft(h);
             return out;
         }},
        {"FftAnalyze",
         [] {
             void* h = initFftAnalyze(kFrames, 2, 512, 1024);
             Output out = runAnalyzer(h, doFftAnalyze, 2, 512);
             termFftAnalyze(h);
             return out;
         }},
        {"EnvAnalyze",
         [] {
             void* h = initEnvAnalyze(kFrames, 2, 44100);
             Output out = runAnalyzer(h, doEnvAnalyze, 2, 2 * kFrames);
             termEnvAnalyze(h);
             return out;
         }},
        {"WaveSlice",
         [] {
             void* h = initWaveSlice(kFrames, 2, 48000, -40.0f, -60.0f, 2.0f, 0.001f);
             uint32_t seed = 1;
             for (uint32_t frames : kBlockFrames) {
                 std::vector<int16_t> in = block(frames * 2, seed++);
                 doWaveSlice(h, in.data(), frames * 4);
             }
             Output out;
             for (uint32_t i = 0; i < 8; ++i) {
                 const SliceRecord* slice = getWaveSlice(h, i);
                 out.push_back(slice != nullptr ? 1 : 0);
                 if (slice != nullptr) {
                     append(out, &slice->startSeconds, sizeof slice->startSeconds);
                     append(out, &slice->endSeconds, sizeof slice->endSeconds);
                 }
             }
             termWaveSlice(h);
             return out;
         }},
        {"Chain",
         [] {
             // The chain reconfigures every node for its source format.
             void* chain = dspCreate(kFrames, 2, 32000);
             dspAdd(chain, initResampler(kFrames, 2, 2, 44100, 44100, 1, 60.0f, 60.0f, 1), 1);
             dspAdd(chain, initChorus(kFrames, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), 2);
             dspAdd(chain,
                    initHqups(kFrames * 2, 2, 2, 44100, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1),
                    3);
             dspAdd(chain, initStretch(kFrames, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f), 4);
             Output out = runAudio(chain, dspSend, 2, 2, true);
             dspDestroy(chain);
             return out;
         }},
    };
}

TEST(FreshMemory, OutputsDoNotDependOnWhatFreshPoolMemoryHolds) {
    for (const Case& c : cases()) {
        Output zeros, nans, huge, tone;
        {
            FillGuard guard(Fill::Zeros);
            zeros = c.run();
        }
        {
            FillGuard guard(Fill::NaNs);
            nans = c.run();
        }
        {
            FillGuard guard(Fill::Huge);
            huge = c.run();
        }
        {
            FillGuard guard(Fill::Tone);
            tone = c.run();
        }
        ASSERT_FALSE(zeros.empty()) << c.name;
        EXPECT_EQ(nans, zeros) << c.name;
        EXPECT_EQ(huge, zeros) << c.name;
        EXPECT_EQ(tone, zeros) << c.name;
    }
}

} // namespace
