// The Hqups upsampler through its exports: sizes, the 48 kHz pass, the
// shared stereo analysis against converters and generators driven by hand,
// the synthesised band, configuration, failures and handle checks.
#include "core/fastmem_pool.h"
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "rate/cutoff_detector.h"
#include "rate/hqups_processor.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

using dsp::HqupsProcessor;

struct HqupsHandle {
    void* handle;
    explicit HqupsHandle(void* h) : handle(h) {}
    ~HqupsHandle() {
        if (handle != nullptr) {
            termHqups(handle);
        }
    }
    HqupsProcessor* get() const { return static_cast<HqupsProcessor*>(handle); }
};

// (srcFrames, channels, rate, harmonics, mix, activeMode) with the usual
// converter settings: linear, 60 dB over 60 dB/octave, filter on.
void* bySource(uint32_t frames, uint32_t channels, uint32_t rate, float harmonics, float mix,
               uint32_t mode, uint32_t outChannels = 0) {
    return initHqupsBySrcsize(frames, channels, outChannels == 0 ? channels : outChannels, rate,
                              harmonics, mix, 5000, 0, 60.0f, 60.0f, mode, 1);
}

std::vector<int16_t> tones(size_t frames, uint32_t channels, double rate,
                           std::initializer_list<double> freqs, double amplitude) {
    std::vector<int16_t> v(frames * channels);
    for (size_t t = 0; t < frames; ++t) {
        for (uint32_t c = 0; c < channels; ++c) {
            double x = 0.0;
            int k = 0;
            for (double f : freqs) {
                x += amplitude * std::sin(2 * M_PI * f * t / rate + c * 0.7 + k++);
            }
            v[t * channels + c] = static_cast<int16_t>(std::lrint(x * 32767.0));
        }
    }
    return v;
}

// Energy of x (Hann-windowed) between two frequencies by a direct DFT.
double bandEnergy(const std::vector<float>& x, double rate, double lo, double hi) {
    const size_t n = x.size();
    double energy = 0.0;
    for (size_t k = 1; k < n / 2; ++k) {
        const double f = k * rate / n;
        if (f < lo || f > hi) {
            continue;
        }
        double re = 0.0;
        double im = 0.0;
        for (size_t t = 0; t < n; ++t) {
            const double w = 0.5 - 0.5 * std::cos(2 * M_PI * t / n);
            re += w * x[t] * std::cos(2 * M_PI * k * t / n);
            im += w * x[t] * std::sin(2 * M_PI * k * t / n);
        }
        energy += re * re + im * im;
    }
    return energy;
}

// A processor of another kind, to hand the exports a foreign handle.
class OtherProcessor : public dsp::DspProcessor {
public:
    OtherProcessor() { tag = dsp::kTagResampler; }
    uint32_t processChannel(uint32_t, const float*, float*, uint32_t) override { return 0; }
    uint32_t processChained(const float*, const float*, float*, float*, uint32_t) override {
        return 0;
    }
    uint32_t processInterleaved(const int16_t*, int16_t*, uint32_t) override { return 0; }
};

TEST(Hqups, SourceSizedInitGivesTheConvertedBlock) {
    const uint32_t poolBytes = fastmemGetAllocatedSize();
    HqupsHandle h(bySource(1024, 2, 44100, 0.0f, 50.0f, 0));
    // Two source buffers, four output-side buffers and, per generator, two
    // band buffers and the spectrum: each pool block costs 15 bytes of slack.
    EXPECT_EQ(fastmemGetAllocatedSize() - poolBytes,
              2 * (1024 * 4 + 15) + 4 * (1114 * 4 + 15) + 2 * (2 * (1114 * 4 + 15) + 1024 + 15));
    ASSERT_NE(h.handle, nullptr);
    HqupsProcessor* p = h.get();
    EXPECT_EQ(p->tag, static_cast<uint32_t>(dsp::kTagHqups));
    EXPECT_EQ(p->inFrames, 1024u);
    EXPECT_EQ(p->outFrames, 1114u);
    EXPECT_EQ(p->inRate, 44100u);
    EXPECT_EQ(p->outRate, 48000u);
    EXPECT_EQ(p->generators[0].frames, 1114u);
    const std::vector<int16_t> src = tones(1024, 2, 44100, {1000.0}, 0.5);
    std::vector<int16_t> dst(2 * 1114 + 16, 0x5555);
    EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 4096), 4456u);
    EXPECT_EQ(dst[2 * 1114], 0x5555);
    EXPECT_EQ(getHqupsDstSize(h.handle, 4096), 4458u); // trunc(48000 * 4096 / 44100)
    EXPECT_EQ(getHqupsSrcSize(h.handle, 1000), 919u);
    EXPECT_EQ(getHqupsSrcSize(h.handle, 1114), 1024u);
}

TEST(Hqups, OutputSizedInitHoldsTheLargerConvertedBlock) {
    // At 22050 Hz, 1000 output frames need 460 source frames, which convert
    // to 1001.
    HqupsHandle h(initHqups(1000, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1));
    ASSERT_NE(h.handle, nullptr);
    HqupsProcessor* p = h.get();
    EXPECT_EQ(p->inFrames, 460u);
    EXPECT_EQ(p->outFrames, 1000u);
    EXPECT_GE(p->outputCapacity, 1001u);
    EXPECT_GE(p->generators[0].frames, 1001u);
    EXPECT_GE(p->generators[1].frames, 1001u);
    const std::vector<int16_t> src = tones(460, 2, 22050, {3000.0, 7000.0}, 0.4);
    std::vector<int16_t> dst(2 * 1001);
    for (int block = 0; block < 3; ++block) {
        EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 460 * 4), 1001u * 4);
    }
}

TEST(Hqups, InitRefusesWhatItCannotServe) {
    EXPECT_EQ(bySource(1024, 2, 0, 0.0f, 50.0f, 0), nullptr);
    EXPECT_EQ(initHqups(1000, 2, 2, 0, 0.0f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1), nullptr);
    EXPECT_EQ(bySource(1024, 3, 44100, 0.0f, 50.0f, 0), nullptr);
    EXPECT_EQ(bySource(1024, 2, 44100, 0.0f, 50.0f, 0, 4), nullptr);
    // An unknown mode counts as 0: the short dry delay.
    HqupsHandle h(bySource(512, 1, 44100, 0.0f, 50.0f, 9));
    ASSERT_NE(h.handle, nullptr);
    EXPECT_EQ(h.get()->activeMode, 0u);
    EXPECT_EQ(h.get()->generators[0].activeMode, 0u);
    EXPECT_EQ(h.get()->generators[0].dryDelay.length, 8u);
}

// Fails every pool allocation after the first `allowed` ones.
int gAllowed = 0;
void* countingAlloc(size_t bytes) {
    if (gAllowed <= 0) {
        return nullptr;
    }
    --gAllowed;
    return std::malloc(bytes);
}

TEST(Hqups, PoolFailureAtAnyStepLeavesNothingBehind) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t blocks = pool.blockCount();
    const uint32_t bytes = pool.allocatedSize();
    bool succeeded = false;
    for (int allowed = 0; allowed < 40 && !succeeded; ++allowed) {
        gAllowed = allowed;
        pool.setSystemAllocator(countingAlloc);
        void* h = initHqups(1000, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1);
        pool.setSystemAllocator(nullptr);
        if (h != nullptr) {
            succeeded = true;
            EXPECT_EQ(termHqups(h), 1u);
        }
        EXPECT_EQ(pool.blockCount(), blocks) << allowed;
        EXPECT_EQ(pool.allocatedSize(), bytes) << allowed;
    }
    EXPECT_TRUE(succeeded);
}

TEST(Hqups, SourceAt48kHzIsOnlyShaped) {
    dsptest::SimdGuard guard;
    dsptest::SimdGuard::set(false, false, false);
    const std::vector<int16_t> src = tones(3 * 512, 2, 48000, {6000.0, 9000.0}, 0.3);
    // No bend: the converted input delayed by 8 samples.
    {
        HqupsHandle h(bySource(512, 2, 48000, 0.0f, 100.0f, 0));
        ASSERT_NE(h.handle, nullptr);
        EXPECT_EQ(h.get()->outFrames, 512u);
        std::vector<int16_t> dst(src.size());
        for (int b = 0; b < 3; ++b) {
            ASSERT_EQ(doHqups(h.handle, src.data() + b * 1024, dst.data() + b * 1024, 2048), 2048u);
        }
        for (size_t i = 0; i < src.size(); ++i) {
            const int16_t expected =
                i < 16 ? 0 : dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i - 16]));
            ASSERT_EQ(dst[i], expected) << i;
        }
    }
    // A bend: each channel is exactly its generator on the unconverted samples.
    HqupsHandle h(bySource(512, 2, 48000, 0.9f, 70.0f, 0));
    dsp::HarmonicGenerator left;
    dsp::HarmonicGenerator right;
    ASSERT_EQ(left.setup(512, 48000, 0.9f, 70.0f, 5000, 0, 16), 1u);
    ASSERT_EQ(right.setup(512, 48000, 0.9f, 70.0f, 5000, 0, 16), 1u);
    std::vector<float> inL(512), inR(512), outL(512), outR(512);
    std::vector<int16_t> expected(1024), dst(1024);
    for (int b = 0; b < 3; ++b) {
        dsp::convertToFloat(src.data() + b * 1024, 2048, inL.data(), inR.data(), 2);
        left.process(inL.data(), outL.data(), 0.0f, 512);
        right.process(inR.data(), outR.data(), 0.0f, 512);
        dsp::convertToInt16(outL.data(), outR.data(), 512, expected.data(), 2);
        ASSERT_EQ(doHqups(h.handle, src.data() + b * 1024, dst.data(), 2048), 2048u);
        ASSERT_EQ(dst, expected) << b;
    }
}

// The stereo path against converters and generators driven by hand: both
// generators take the cutoff that generator 0's analyzer finds in the mix.
TEST(Hqups, StereoSharesOneAnalysisOfTheMixedChannels) {
    dsptest::SimdGuard guard;
    for (bool sse : {false, true}) {
        dsptest::SimdGuard::set(sse, false, sse);
        HqupsHandle h(bySource(1024, 2, 44100, 0.6f, 80.0f, 1));
        ASSERT_NE(h.handle, nullptr);
        dsp::RateConverter conv[2];
        dsp::HarmonicGenerator gen[2];
        for (int c = 0; c < 2; ++c) {
            ASSERT_EQ(conv[c].setup(1024, 44100, 48000, 0, 60.0f, 60.0f, 1, 0.1f), 1114u);
            ASSERT_EQ(gen[c].setup(1114, 48000, 0.6f, 80.0f, 5000, 1, 16), 1u);
        }
        const std::vector<int16_t> src = tones(4 * 1024, 2, 44100, {2000.0, 9000.0}, 0.3);
        std::vector<float> in[2] = {std::vector<float>(1024), std::vector<float>(1024)};
        std::vector<float> up[2] = {std::vector<float>(1114), std::vector<float>(1114)};
        std::vector<float> out[2] = {std::vector<float>(1114), std::vector<float>(1114)};
        std::vector<float> mixed(1114);
        std::vector<int16_t> expected(2 * 1114), dst(2 * 1114);
        for (int b = 0; b < 4; ++b) {
            const int16_t* block = src.data() + b * 2048;
            dsp::convertToFloat(block, 4096, in[0].data(), in[1].data(), 2);
            for (int c = 0; c < 2; ++c) {
                ASSERT_EQ(conv[c].convert(in[c].data(), up[c].data(), 1024), 1114u);
            }
            for (int i = 0; i < 1114; ++i) {
                mixed[i] = (up[1][i] + up[0][i]) * 0.5f;
            }
            const float cutoff = gen[0].analyzeCutoff(mixed.data());
            for (int c = 0; c < 2; ++c) {
                gen[c].process(up[c].data(), out[c].data(), cutoff, 1114);
            }
            dsp::convertToInt16(out[0].data(), out[1].data(), 1114, expected.data(), 2);
            ASSERT_EQ(doHqups(h.handle, block, dst.data(), 4096), 4456u);
            ASSERT_EQ(dst, expected) << sse << " " << b;
            EXPECT_EQ(h.get()->generators[1].cutoffHz, cutoff);
        }
    }
}

TEST(Hqups, MonoAnalysesItsOnlyChannel) {
    HqupsHandle h(bySource(1024, 1, 32000, 0.6f, 80.0f, 1, 2));
    ASSERT_NE(h.handle, nullptr);
    dsp::RateConverter conv;
    dsp::HarmonicGenerator gen;
    const uint32_t n = conv.setup(1024, 32000, 48000, 0, 60.0f, 60.0f, 1, 0.1f);
    ASSERT_EQ(n, 1536u);
    ASSERT_EQ(gen.setup(n, 48000, 0.6f, 80.0f, 5000, 1, 16), 1u);
    const std::vector<int16_t> src = tones(3 * 1024, 1, 32000, {1500.0, 6000.0}, 0.4);
    std::vector<float> in(1024), up(n), out(n);
    std::vector<int16_t> expected(2 * n), dst(2 * n);
    for (int b = 0; b < 3; ++b) {
        dsp::convertToFloat(src.data() + b * 1024, 2048, in.data(), nullptr, 1);
        conv.convert(in.data(), up.data(), 1024);
        gen.processDetecting(up.data(), out.data(), n);
        dsp::convertToInt16(out.data(), nullptr, n, expected.data(), 2);
        // Mono in, stereo out: the channel is written to both sides.
        ASSERT_EQ(doHqups(h.handle, src.data() + b * 1024, dst.data(), 2048), 4 * n);
        ASSERT_EQ(dst, expected) << b;
    }
    // The per-channel slot gives the same path.
    HqupsHandle again(bySource(1024, 1, 32000, 0.6f, 80.0f, 1));
    dsp::RateConverter conv2;
    dsp::HarmonicGenerator gen2;
    conv2.setup(1024, 32000, 48000, 0, 60.0f, 60.0f, 1, 0.1f);
    gen2.setup(n, 48000, 0.6f, 80.0f, 5000, 1, 16);
    std::vector<float> viaSlot(n), byHand(n);
    dsp::convertToFloat(src.data(), 2048, in.data(), nullptr, 1);
    EXPECT_EQ(again.get()->processChannel(0, in.data(), viaSlot.data(), 1024), n);
    conv2.convert(in.data(), up.data(), 1024);
    gen2.processDetecting(up.data(), byHand.data(), n);
    EXPECT_EQ(viaSlot, byHand);
    EXPECT_EQ(again.get()->processChannel(2, in.data(), viaSlot.data(), 1024), 0u);
}

TEST(Hqups, BendAddsEnergyAboveTheSourceBand) {
    // Tones up to 10 kHz at 44.1 kHz: nothing of the source lies above 11 kHz.
    const std::vector<int16_t> src = tones(8 * 1024, 1, 44100, {3000.0, 7000.0, 10000.0}, 0.25);
    auto render = [&](float harmonics) {
        HqupsHandle h(bySource(1024, 1, 44100, harmonics, 100.0f, 0));
        std::vector<int16_t> dst(1114);
        std::vector<float> out;
        for (int b = 0; b < 8; ++b) {
            EXPECT_EQ(doHqups(h.handle, src.data() + b * 1024, dst.data(), 2048), 2228u);
            for (int16_t s : dst) {
                out.push_back(s / 32767.0f);
            }
        }
        return std::vector<float>(out.end() - 2048, out.end());
    };
    const std::vector<float> plain = render(0.0f);
    const std::vector<float> bent = render(1.0f);
    const double plainHigh = bandEnergy(plain, 48000, 11500, 24000);
    const double bentHigh = bandEnergy(bent, 48000, 11500, 24000);
    const double plainLow = bandEnergy(plain, 48000, 0, 11000);
    EXPECT_GT(bentHigh, 1000.0 * plainHigh);
    EXPECT_GT(bentHigh, 1e-4 * plainLow);
}

TEST(Hqups, SettersReachBothGeneratorsAndRefuseOtherHandles) {
    HqupsHandle h(bySource(1024, 2, 44100, 0.0f, 50.0f, 0));
    HqupsProcessor* p = h.get();
    EXPECT_EQ(setHqupsHarmonics(h.handle, -1.0f), 1u);
    EXPECT_EQ(setHqupsMix(h.handle, 25.0f), 1u);
    EXPECT_EQ(setHqupsActiveMode(h.handle, 1), 1u);
    EXPECT_EQ(p->harmonics, -1.0f);
    EXPECT_EQ(p->mixPercent, 25.0f);
    EXPECT_EQ(p->activeMode, 1u);
    for (const dsp::HarmonicGenerator& g : p->generators) {
        EXPECT_EQ(g.curve.count, 47);
        EXPECT_EQ(g.mixGain, static_cast<float>(25.0 * 0.01));
        EXPECT_EQ(g.activeMode, 1u);
        EXPECT_EQ(g.dryDelay.length, 8u); // the delay follows the mode at setup only
    }

    OtherProcessor other;
    int16_t buffer[8] = {};
    for (void* wrong : {static_cast<void*>(&other), static_cast<void*>(nullptr)}) {
        EXPECT_EQ(setHqupsHarmonics(wrong, 1.0f), 0u);
        EXPECT_EQ(setHqupsMix(wrong, 1.0f), 0u);
        EXPECT_EQ(setHqupsActiveMode(wrong, 1), 0u);
        EXPECT_EQ(doHqups(wrong, buffer, buffer, 16), 0u);
        EXPECT_EQ(getHqupsDstSize(wrong, 100), 0u);
        EXPECT_EQ(getHqupsSrcSize(wrong, 100), 0u);
        EXPECT_EQ(termHqups(wrong), 0u);
    }
    EXPECT_EQ(other.tag, static_cast<uint32_t>(dsp::kTagResampler));
}

TEST(Hqups, ConfigureRebuildsForTheNewFormat) {
    HqupsHandle h(initHqups(1000, 2, 1, 22050, 0.5f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1));
    HqupsProcessor* p = h.get();
    setHqupsActiveMode(h.handle, 3); // an unknown mode counts as 0 at configure
    p->configure(2048, 1, 32000);
    EXPECT_EQ(p->ready, 1);
    EXPECT_EQ(p->inFrames, 2048u);
    EXPECT_EQ(p->inChannels, 1u);
    EXPECT_EQ(p->outChannels, 1u);
    EXPECT_EQ(p->inRate, 32000u);
    EXPECT_EQ(p->outRate, 48000u);
    EXPECT_EQ(p->outFrames, 3072u);
    EXPECT_GE(p->outputCapacity, 3072u);
    EXPECT_EQ(p->generators[0].frames, 3072u);
    EXPECT_EQ(p->generators[0].dryDelay.length, 8u);
    EXPECT_EQ(p->getDstSize(2048), 3072u);
    const std::vector<int16_t> src = tones(2048, 1, 32000, {5000.0}, 0.5);
    std::vector<int16_t> dst(3072);
    EXPECT_EQ(doHqups(h.handle, src.data(), dst.data(), 4096), 6144u);

    // Smaller again: buffers kept, the output size follows.
    float* kept = p->work[2];
    setHqupsActiveMode(h.handle, 1);
    p->configure(1024, 2, 44100);
    EXPECT_EQ(p->work[2], kept);
    EXPECT_EQ(p->outFrames, 1114u);
    EXPECT_EQ(p->generators[1].dryDelay.length, 16u);
    std::vector<int16_t> stereo(2 * 1114);
    const std::vector<int16_t> src2 = tones(1024, 2, 44100, {5000.0}, 0.5);
    EXPECT_EQ(doHqups(h.handle, src2.data(), stereo.data(), 4096), 4456u);

    // A format it cannot serve leaves it passing nothing.
    p->configure(1024, 5, 44100);
    EXPECT_EQ(p->ready, 0);
    EXPECT_EQ(doHqups(h.handle, src2.data(), stereo.data(), 4096), 0u);
}

TEST(Hqups, LargerBlocksAreTakenInPieces) {
    HqupsHandle whole(bySource(2048, 2, 48000, 0.0f, 50.0f, 0));
    HqupsHandle pieces(bySource(512, 2, 48000, 0.0f, 50.0f, 0));
    const std::vector<int16_t> src = tones(2048, 2, 48000, {4000.0}, 0.5);
    std::vector<int16_t> a(4096), b(4096);
    EXPECT_EQ(doHqups(whole.handle, src.data(), a.data(), 8192), 8192u);
    EXPECT_EQ(doHqups(pieces.handle, src.data(), b.data(), 8192), 8192u);
    EXPECT_EQ(a, b);
}

// In a chain the node is reconfigured for the chain's format and behaves as
// a processor created for it; a second node at 48 kHz only shapes.
TEST(Hqups, ChainRunsItLikeADirectProcessor) {
    void* chain = dspCreate(1024, 2, 44100);
    ASSERT_NE(chain, nullptr);
    ASSERT_EQ(dspAdd(chain, bySource(512, 1, 22050, 0.6f, 80.0f, 1), 1), 1u);
    ASSERT_EQ(dspAdd(chain, bySource(256, 2, 32000, 0.3f, 40.0f, 0), 2), 2u);
    EXPECT_EQ(dspGetDstRate(chain), 48000u);
    EXPECT_EQ(dspGetDstChannels(chain), 2u);
    EXPECT_EQ(dspGetDstSize(chain, 4096), 4458u);

    HqupsHandle first(bySource(1024, 2, 44100, 0.6f, 80.0f, 1));
    HqupsHandle second(bySource(1114, 2, 48000, 0.3f, 40.0f, 0));
    const std::vector<int16_t> src = tones(3 * 1024, 2, 44100, {2500.0, 8000.0}, 0.3);
    std::vector<int16_t> viaChain(2 * 1114), step(2 * 1114), direct(2 * 1114);
    for (int b = 0; b < 3; ++b) {
        const int16_t* block = src.data() + b * 2048;
        ASSERT_EQ(dspSend(chain, block, viaChain.data(), 4096), 4456u);
        // The chain stays in float between the nodes, so compare with a
        // tolerance of one step of the 16-bit output.
        ASSERT_EQ(doHqups(first.handle, block, step.data(), 4096), 4456u);
        ASSERT_EQ(doHqups(second.handle, step.data(), direct.data(), 4456), 4456u);
        for (size_t i = 0; i < direct.size(); ++i) {
            ASSERT_NEAR(viaChain[i], direct[i], 2) << b << " " << i;
        }
    }
    dspDestroy(chain);
}

} // namespace
