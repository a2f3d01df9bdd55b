// Resampling 60 s of 44100 Hz stereo to 48000 Hz in 4096-frame blocks: ours
// (linear and cubic, filter on and off) next to libsamplerate, speexdsp and
// soxr, each with its conversions from and to 16-bit samples.
#include "dsp.h"
#include "peer_input.h"

#include <benchmark/benchmark.h>

#include <vector>

#if defined(DSP_HAVE_SAMPLERATE)
#include <samplerate.h>
#endif
#if defined(DSP_HAVE_SPEEXDSP)
#include <speex/speex_resampler.h>
#endif
#if defined(DSP_HAVE_SOXR)
#include <soxr.h>
#endif

namespace {

using namespace peerbench;

constexpr uint32_t kOutRate = 48000;
constexpr uint32_t kOutBlock = kBlock * kOutRate / kRate + 16;

void finish(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["seconds_per_60s"] =
        benchmark::Counter(static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_Ours(benchmark::State& state) {
    const uint32_t interpolation = static_cast<uint32_t>(state.range(0));
    const uint8_t filterOn = static_cast<uint8_t>(state.range(1));
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kOutBlock * kChannels);
    for (auto _ : state) {
        void* h = initResampler(kBlock, kChannels, kChannels, kRate, kOutRate, interpolation, 60.0f,
                                60.0f, filterOn);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            benchmark::DoNotOptimize(
                doResampler(h, in.data() + at * kChannels, out.data(), n * 2 * kChannels));
        }
        termResampler(h);
    }
    finish(state);
}
BENCHMARK(BM_Ours)
    ->ArgNames({"cubic", "filter"})
    ->Args({0, 1})
    ->Args({0, 0})
    ->Args({1, 1})
    ->Args({1, 0})
    ->Unit(benchmark::kMillisecond);

#if defined(DSP_HAVE_SAMPLERATE)
void BM_Libsamplerate(benchmark::State& state) {
    const int converter = static_cast<int>(state.range(0));
    const std::vector<int16_t>& in = input();
    std::vector<float> fin(kBlock * kChannels), fout(kOutBlock * kChannels);
    std::vector<int16_t> out(kOutBlock * kChannels);
    for (auto _ : state) {
        int error = 0;
        SRC_STATE* src = src_new(converter, kChannels, &error);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            src_short_to_float_array(in.data() + at * kChannels, fin.data(),
                                     static_cast<int>(n * kChannels));
            SRC_DATA d{};
            d.data_in = fin.data();
            d.data_out = fout.data();
            d.input_frames = n;
            d.output_frames = kOutBlock;
            d.src_ratio = static_cast<double>(kOutRate) / kRate;
            d.end_of_input = at + n >= kFrames;
            src_process(src, &d);
            src_float_to_short_array(fout.data(), out.data(),
                                     static_cast<int>(d.output_frames_gen * kChannels));
            benchmark::DoNotOptimize(out.data());
        }
        src_delete(src);
    }
    finish(state);
}
BENCHMARK(BM_Libsamplerate)
    ->ArgName("converter")
    ->Arg(SRC_LINEAR)
    ->Arg(SRC_SINC_FASTEST)
    ->Unit(benchmark::kMillisecond);
#endif

#if defined(DSP_HAVE_SPEEXDSP)
void BM_Speexdsp(benchmark::State& state) {
    const int quality = static_cast<int>(state.range(0));
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kOutBlock * kChannels);
    for (auto _ : state) {
        int error = 0;
        SpeexResamplerState* r = speex_resampler_init(kChannels, kRate, kOutRate, quality, &error);
        speex_resampler_skip_zeros(r);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            spx_uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            spx_uint32_t outLen = kOutBlock;
            speex_resampler_process_interleaved_int(r, in.data() + at * kChannels, &n, out.data(),
                                                    &outLen);
            benchmark::DoNotOptimize(out.data());
        }
        speex_resampler_destroy(r);
    }
    finish(state);
}
BENCHMARK(BM_Speexdsp)->ArgName("quality")->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond);
#endif

#if defined(DSP_HAVE_SOXR)
void BM_Soxr(benchmark::State& state) {
    const unsigned long recipe = static_cast<unsigned long>(state.range(0));
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kOutBlock * kChannels);
    for (auto _ : state) {
        soxr_error_t error = nullptr;
        soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
        soxr_quality_spec_t quality = soxr_quality_spec(recipe, 0);
        soxr_t r = soxr_create(kRate, kOutRate, kChannels, &error, &io, &quality, nullptr);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            size_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            size_t used = 0, made = 0;
            soxr_process(r, in.data() + at * kChannels, n, &used, out.data(), kOutBlock, &made);
            benchmark::DoNotOptimize(out.data());
        }
        soxr_delete(r);
    }
    finish(state);
}
BENCHMARK(BM_Soxr)->ArgName("recipe")->Arg(SOXR_QQ)->Arg(SOXR_LQ)->Unit(benchmark::kMillisecond);
#endif

} // namespace

BENCHMARK_MAIN();
