// Time stretch (tempo x 1.25) and pitch shift (+700 cents) of 60 s of 44100 Hz
// stereo in 4096-frame blocks: ours next to SoundTouch and Rubber Band
// (real-time mode), each with its conversions from and to 16-bit samples.
#include "dsp.h"
#include "peer_input.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#if defined(DSP_HAVE_SOUNDTOUCH)
#include <soundtouch/SoundTouch.h>
#endif
#if defined(DSP_HAVE_RUBBERBAND)
#include <rubberband/RubberBandStretcher.h>
#endif

namespace {

using namespace peerbench;

constexpr double kTempo = 1.25;
constexpr double kCents = 700.0;

void finish(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["seconds_per_60s"] =
        benchmark::Counter(static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_OursTempo(benchmark::State& state) {
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kBlock * kChannels * 4);
    const float scale = static_cast<float>(1000.0 * std::log2(kTempo));
    for (auto _ : state) {
        void* h = initStretch(kBlock, kChannels, kRate, scale, 0.0f, 0.05f, 0.01f);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            benchmark::DoNotOptimize(
                doStretch(h, in.data() + at * kChannels, out.data(), n * 2 * kChannels));
        }
        termStretch(h);
    }
    finish(state);
}
BENCHMARK(BM_OursTempo)->Unit(benchmark::kMillisecond);

void BM_OursPitch(benchmark::State& state) {
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kBlock * kChannels);
    for (auto _ : state) {
        void* h = initPitchShift(kBlock, kChannels, kRate, static_cast<float>(kCents), 0.0f, 0.05f,
                                 0.01f);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            benchmark::DoNotOptimize(
                doPitchShift(h, in.data() + at * kChannels, out.data(), n * 2 * kChannels));
        }
        termPitchShift(h);
    }
    finish(state);
}
BENCHMARK(BM_OursPitch)->Unit(benchmark::kMillisecond);

#if defined(DSP_HAVE_SOUNDTOUCH)
// mode 0: tempo, 1: pitch
void BM_SoundTouch(benchmark::State& state) {
    const bool pitch = state.range(0) == 1;
    const std::vector<int16_t>& in = input();
    std::vector<float> fin(kBlock * kChannels), fout(kBlock * kChannels * 4);
    std::vector<int16_t> out(fout.size());
    for (auto _ : state) {
        soundtouch::SoundTouch st;
        st.setSampleRate(kRate);
        st.setChannels(kChannels);
        if (pitch) {
            st.setPitchSemiTones(kCents / 100.0);
        } else {
            st.setTempo(kTempo);
        }
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            toFloat(in.data() + at * kChannels, fin.data(), n * kChannels);
            st.putSamples(fin.data(), n);
            uint32_t got;
            while ((got = st.receiveSamples(fout.data(), kBlock * 4)) > 0) {
                toInt16(fout.data(), out.data(), got * kChannels);
                benchmark::DoNotOptimize(out.data());
            }
        }
    }
    finish(state);
}
BENCHMARK(BM_SoundTouch)->ArgName("pitch")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

#if defined(DSP_HAVE_RUBBERBAND)
void BM_RubberBand(benchmark::State& state) {
    const bool pitch = state.range(0) == 1;
    const std::vector<int16_t>& in = input();
    std::vector<float> left(kBlock), right(kBlock), outL(kBlock * 4), outR(kBlock * 4);
    std::vector<int16_t> out(kBlock * 4 * kChannels);
    for (auto _ : state) {
        RubberBand::RubberBandStretcher rb(
            kRate, kChannels, RubberBand::RubberBandStretcher::OptionProcessRealTime,
            pitch ? 1.0 : 1.0 / kTempo, pitch ? std::pow(2.0, kCents / 1200.0) : 1.0);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            const int16_t* src = in.data() + at * kChannels;
            for (uint32_t i = 0; i < n; ++i) {
                left[i] = src[2 * i] * (1.0f / 32768.0f);
                right[i] = src[2 * i + 1] * (1.0f / 32768.0f);
            }
            const float* planes[2] = {left.data(), right.data()};
            rb.process(planes, n, at + n >= kFrames);
            int avail;
            while ((avail = rb.available()) > 0) {
                size_t want = static_cast<size_t>(avail) < outL.size() ? avail : outL.size();
                float* outPlanes[2] = {outL.data(), outR.data()};
                size_t got = rb.retrieve(outPlanes, want);
                for (size_t i = 0; i < got; ++i) {
                    float l = outL[i] * 32768.0f, r = outR[i] * 32768.0f;
                    out[2 * i] = static_cast<int16_t>(
                        std::lrint(l > 32767.0f ? 32767.0f : (l < -32768.0f ? -32768.0f : l)));
                    out[2 * i + 1] = static_cast<int16_t>(
                        std::lrint(r > 32767.0f ? 32767.0f : (r < -32768.0f ? -32768.0f : r)));
                }
                benchmark::DoNotOptimize(out.data());
            }
        }
    }
    finish(state);
}
BENCHMARK(BM_RubberBand)->ArgName("pitch")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

} // namespace

BENCHMARK_MAIN();
