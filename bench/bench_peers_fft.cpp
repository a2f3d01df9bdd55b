// The spectrum of one frame (Hann window, forward real transform, dB
// magnitudes of the first N/2 bins) for N = 256, 1024, 4096, 32768: ours next
// to FFTW3 single precision (FFTW_MEASURE plan) and KissFFT.
#include "analysis/fft_engine.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

#if defined(DSP_HAVE_FFTW3F)
#include <fftw3.h>
#endif
#if defined(DSP_HAVE_KISSFFT)
#include <kiss_fftr.h>
#endif

namespace {

std::vector<float> frameOf(uint32_t n) {
    std::vector<float> x(n);
    for (uint32_t i = 0; i < n; ++i) {
        x[i] = 0.5f * std::sin(0.01f * i) + 0.25f * std::sin(0.37f * i);
    }
    return x;
}

#if defined(DSP_HAVE_FFTW3F) || defined(DSP_HAVE_KISSFFT)
// Only the peers need these: ours windows and converts to dB inside its engine.
std::vector<float> hann(uint32_t n) {
    std::vector<float> w(n);
    for (uint32_t i = 0; i < n; ++i) {
        w[i] = static_cast<float>(0.5 * (1.0 - std::cos(2.0 * M_PI * (i - 0.5) / n)));
    }
    return w;
}

// dB magnitude with a -120 dB floor, as a host computing its own would.
inline float toDb(float re, float im) {
    float power = re * re + im * im;
    float db = power > 0.0f ? 10.0f * std::log10(power) : -120.0f;
    return db < -120.0f ? -120.0f : db;
}
#endif

void BM_OursSpectrum(benchmark::State& state) {
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    auto engine = std::make_unique<dsp::BlockFftEngine>();
    engine->setup(n, n, n, 120.0f);
    std::vector<float> in = frameOf(n), db(n / 2);
    for (auto _ : state) {
        engine->analyze(in.data());
        engine->magnitudesDb(db.data());
        benchmark::DoNotOptimize(db.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OursSpectrum)->Arg(256)->Arg(1024)->Arg(4096)->Arg(32768);

#if defined(DSP_HAVE_FFTW3F)
void BM_FftwSpectrum(benchmark::State& state) {
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    float* buffer = fftwf_alloc_real(n);
    fftwf_complex* spectrum = fftwf_alloc_complex(n / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(static_cast<int>(n), buffer, spectrum, FFTW_MEASURE);
    std::vector<float> in = frameOf(n), window = hann(n), db(n / 2);
    for (auto _ : state) {
        for (uint32_t i = 0; i < n; ++i) {
            buffer[i] = in[i] * window[i];
        }
        fftwf_execute(plan);
        for (uint32_t k = 0; k < n / 2; ++k) {
            db[k] = toDb(spectrum[k][0], spectrum[k][1]);
        }
        benchmark::DoNotOptimize(db.data());
    }
    fftwf_destroy_plan(plan);
    fftwf_free(spectrum);
    fftwf_free(buffer);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FftwSpectrum)->Arg(256)->Arg(1024)->Arg(4096)->Arg(32768);
#endif

#if defined(DSP_HAVE_KISSFFT)
void BM_KissSpectrum(benchmark::State& state) {
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    kiss_fftr_cfg cfg = kiss_fftr_alloc(static_cast<int>(n), 0, nullptr, nullptr);
    std::vector<float> in = frameOf(n), window = hann(n), buffer(n), db(n / 2);
    std::vector<kiss_fft_cpx> spectrum(n / 2 + 1);
    for (auto _ : state) {
        for (uint32_t i = 0; i < n; ++i) {
            buffer[i] = in[i] * window[i];
        }
        kiss_fftr(cfg, buffer.data(), spectrum.data());
        for (uint32_t k = 0; k < n / 2; ++k) {
            db[k] = toDb(spectrum[k].r, spectrum[k].i);
        }
        benchmark::DoNotOptimize(db.data());
    }
    kiss_fftr_free(cfg);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_KissSpectrum)->Arg(256)->Arg(1024)->Arg(4096)->Arg(32768);
#endif

} // namespace

BENCHMARK_MAIN();
