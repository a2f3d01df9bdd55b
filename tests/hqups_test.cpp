// The Hqups upsampler through its exports: sizes, against converters and
// generators driven by hand, configuration, modes and setters.
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "rate/hqups_processor.h"
#include "support/signals.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using dsp::HqupsProcessor;
using dsptest::pcmTones;

struct HqupsHandle {
    void* handle;
    explicit HqupsHandle(void* h) : handle(h) {}
    ~HqupsHandle() { termHqups(handle); }
    HqupsProcessor* get() const { return static_cast<HqupsProcessor*>(handle); }
};

// Linear conversion, 60 dB over 60 dB/octave, filter on, 5 kHz high-pass.
void* bySource(uint32_t frames, uint32_t channels, uint32_t rate, float harmonics, float mix,
               uint32_t mode, uint32_t outChannels = 0) {
    return initHqupsBySrcsize(frames, channels, outChannels == 0 ? channels : outChannels, rate,
                              harmonics, mix, 5000, 0, 60.0f, 60.0f, mode, 1);
}

TEST(Hqups, InitSizesTheConvertedBlock) {
    {
        HqupsHandle h(bySource(1024, 2, 44100, 0.0f, 50.0f, 0));
        EXPECT_EQ(h.get()->outFrames(), 1114u);
        const std::vector<int16_t> src = pcmTones(1024, 2, 44100, {1000.0}, 0.5);
        std::vector<int16_t> dst(2 * 1114 + 16, 0x5555);
        EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 4096), 4456u);
        EXPECT_EQ(dst[2 * 1114], 0x5555);
        EXPECT_EQ(getHqupsDstSize(h.handle, 4096), 4458u); // trunc(48000 * 4096 / 44100)
        EXPECT_EQ(getHqupsSrcSize(h.handle, 1000), 919u);
        EXPECT_EQ(getHqupsSrcSize(h.handle, 1114), 1024u);
    }
    // By output size at 22050 Hz: 1000 frames need 460 source frames, which
    // convert to 1001, and the buffers hold them.
    HqupsHandle h(initHqups(1000, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1));
    EXPECT_EQ(h.get()->inFrames(), 460u);
    EXPECT_EQ(h.get()->outFrames(), 1000u);
    EXPECT_GE(h.get()->outputCapacity(), 1001u);
    EXPECT_GE(h.get()->generator(1).blockFrames(), 1001u);
    const std::vector<int16_t> src = pcmTones(460, 2, 22050, {3000.0, 7000.0}, 0.4);
    std::vector<int16_t> dst(2 * 1001);
    for (int block = 0; block < 3; ++block) {
        EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 460 * 4), 1001u * 4);
    }
}

// Stereo: in active mode both generators take the cutoff that generator 0's
// analyzer finds in the mix of the converted channels. Mono analyses its only
// channel and, with stereo out, writes it to both sides. At 48 kHz the
// converters copy and only the generators act.
TEST(Hqups, MatchesConvertersAndGeneratorsDrivenByHand) {
    dsptest::SimdGuard guard;
    const struct {
        uint32_t channels, rate, frames;
        bool sse;
        uint32_t mode;
    } cases[] = {{2, 44100, 1114, false, 1},
                 {2, 44100, 1114, true, 1},
                 {1, 32000, 1536, false, 1},
                 {2, 48000, 1024, false, 0}};
    for (const auto& k : cases) {
        dsptest::SimdGuard::set(k.sse, false, k.sse);
        const dsp::ArithmeticRule rule = dsp::currentRules().rule;
        HqupsHandle h(bySource(1024, k.channels, k.rate, 0.6f, 80.0f, k.mode, 2));
        dsp::RateConverter conv[2];
        dsp::HarmonicGenerator gen[2];
        for (int c = 0; c < 2; ++c) {
            ASSERT_TRUE(conv[c].setup(1024, k.rate, 48000, {0, 60.0f, 60.0f, 1}));
            ASSERT_EQ(conv[c].blockOutputFrames(), k.frames);
            ASSERT_EQ(gen[c].setup(k.frames, 48000, 0.6f, 80.0f, 5000, k.mode, 16), 1u);
        }
        const std::vector<int16_t> src =
            pcmTones(4 * 1024, k.channels, k.rate, {2000.0, 9000.0}, 0.3);
        std::vector<float> in[2], up[2], out[2], mixed(k.frames);
        for (int c = 0; c < 2; ++c) {
            in[c].resize(1024);
            up[c].resize(k.frames);
            out[c].resize(k.frames);
        }
        std::vector<int16_t> expected(2 * k.frames), dst(2 * k.frames);
        float cutoff = 0.0f;
        for (int b = 0; b < 4; ++b) {
            const int16_t* block = src.data() + b * 1024 * k.channels;
            dsp::convertToFloat(rule, block, 2048 * k.channels, in[0].data(), in[1].data(),
                                k.channels);
            if (k.channels == 1) {
                conv[0].convert(in[0].data(), up[0].data(), 1024);
                gen[0].processDetecting(rule, up[0].data(), out[0].data(), k.frames);
                dsp::convertToInt16(rule, out[0].data(), nullptr, k.frames, expected.data(), 2);
            } else {
                for (int c = 0; c < 2; ++c) {
                    ASSERT_EQ(conv[c].convert(in[c].data(), up[c].data(), 1024), k.frames);
                }
                for (uint32_t i = 0; i < k.frames; ++i) {
                    mixed[i] = (up[1][i] + up[0][i]) * 0.5f;
                }
                cutoff = k.mode == 1 ? gen[0].analyzeCutoff(mixed.data()) : 0.0f;
                for (int c = 0; c < 2; ++c) {
                    gen[c].process(rule, up[c].data(), out[c].data(), cutoff, k.frames);
                }
                dsp::convertToInt16(rule, out[0].data(), out[1].data(), k.frames, expected.data(),
                                    2);
            }
            ASSERT_EQ(doHqups(h.handle, block, dst.data(), 2048 * k.channels), 4 * k.frames);
            ASSERT_EQ(dst, expected) << k.channels << " " << k.sse << " " << b;
            if (k.channels == 2) {
                EXPECT_EQ(h.get()->generator(1).cutoffHz(), cutoff);
            }
        }
        EXPECT_EQ(h.get()->processChannel(2, in[0].data(), out[0].data(), 1024), 0u);
    }
}

// Configure rebuilds for the new format; an unknown mode counts as 0 there.
TEST(Hqups, ConfigureRebuildsForTheNewFormat) {
    HqupsHandle h(initHqups(1000, 2, 1, 22050, 0.5f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1));
    HqupsProcessor* p = h.get();
    setHqupsActiveMode(h.handle, 3);
    p->configure(2048, 1, 32000);
    EXPECT_EQ(p->outFrames(), 3072u);
    EXPECT_EQ(p->generator(0).blockFrames(), 3072u);
    EXPECT_EQ(p->generator(0).dryDelayLength(), 8u);
    const std::vector<int16_t> src = pcmTones(2048, 2, 32000, {5000.0}, 0.5);
    std::vector<int16_t> dst(2 * 3072);
    EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 4096), 6144u);
    // Smaller again: buffers kept, the output size follows.
    float* kept = p->work(2);
    setHqupsActiveMode(h.handle, DSP_HQUPS_ACTIVE);
    p->configure(1024, 2, 44100);
    EXPECT_EQ(p->work(2), kept);
    EXPECT_EQ(p->generator(1).dryDelayLength(), 16u);
    EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 4096), 4456u);
    // A format it cannot serve leaves it passing nothing.
    p->configure(1024, 5, 44100);
    EXPECT_FALSE(p->isReady());
    EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 4096), 0u);
}

TEST(Hqups, LargerBlocksAreTakenInPieces) {
    HqupsHandle whole(bySource(2048, 2, 48000, 0.0f, 50.0f, 0));
    HqupsHandle pieces(bySource(512, 2, 48000, 0.0f, 50.0f, 0));
    const std::vector<int16_t> src = pcmTones(2048, 2, 48000, {4000.0}, 0.5);
    std::vector<int16_t> a(4096), b(4096);
    EXPECT_EQ(doHqups(whole.handle, src.data(), a.data(), 8192), 8192u);
    EXPECT_EQ(doHqups(pieces.handle, src.data(), b.data(), 8192), 8192u);
    EXPECT_EQ(a, b);
}

// An unknown mode at init counts as 0 (the short dry delay). The setters
// reach both channels: set afterwards or given at init, the same output.
TEST(Hqups, UnknownModesAndSetters) {
    {
        HqupsHandle h(bySource(512, 1, 44100, 0.0f, 50.0f, 9));
        EXPECT_EQ(h.get()->settings().activeMode, 0u);
        EXPECT_EQ(h.get()->generator(0).dryDelayLength(), 8u);
    }
    HqupsHandle h(bySource(1024, 2, 44100, 0.0f, 50.0f, DSP_HQUPS_PASSIVE));
    HqupsHandle given(bySource(1024, 2, 44100, -1.0f, 25.0f, 0));
    EXPECT_EQ(setHqupsHarmonics(h.handle, -1.0f), 1u);
    EXPECT_EQ(setHqupsMix(h.handle, 25.0f), 1u);
    const std::vector<int16_t> src = pcmTones(1024, 2, 44100, {6000.0, 11000.0}, 0.45);
    std::vector<int16_t> out(2 * 1114), expected(2 * 1114);
    EXPECT_EQ(doHqups(h.handle, src.data(), out.data(), 4096), 4456u);
    EXPECT_EQ(doHqups(given.handle, src.data(), expected.data(), 4096), 4456u);
    EXPECT_EQ(out, expected);
    EXPECT_EQ(setHqupsActiveMode(h.handle, DSP_HQUPS_ACTIVE), 1u);
    for (int c = 0; c < 2; ++c) {
        EXPECT_EQ(h.get()->generator(c).activeMode(), 1u);
        EXPECT_EQ(h.get()->generator(c).dryDelayLength(), 8u); // follows the mode at setup only
    }
}

} // namespace
