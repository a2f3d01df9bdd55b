// An order-4 low-pass over 60 s of 44100 Hz stereo in 4096-frame blocks, and a
// chain of three such filters: ours next to a plain reference biquad loop
// (direct form II, double state, with its own conversions).
#include "dsp.h"
#include "peer_input.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

using namespace peerbench;

void finish(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["seconds_per_60s"] =
        benchmark::Counter(static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A textbook biquad (Butterworth low-pass sections by the bilinear transform).
struct Biquad {
    double b0, b1, b2, a1, a2;
    double s1[2] = {0, 0}, s2[2] = {0, 0};
};

std::vector<Biquad> lowpassSections(double rate, double hz, int order) {
    std::vector<Biquad> sections;
    double t = std::tan(M_PI * hz / rate);
    for (int k = 0; k < order / 2; ++k) {
        double q = 1.0 / (2.0 * std::cos(M_PI * (2 * k + 1) / (2.0 * order)));
        double norm = 1.0 / (1.0 + t / q + t * t);
        Biquad b{};
        b.b0 = t * t * norm;
        b.b1 = 2 * b.b0;
        b.b2 = b.b0;
        b.a1 = 2 * (t * t - 1) * norm;
        b.a2 = (1 - t / q + t * t) * norm;
        sections.push_back(b);
    }
    return sections;
}

void referenceBlock(std::vector<Biquad>& sections, const int16_t* in, int16_t* out, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        for (uint32_t c = 0; c < kChannels; ++c) {
            double x = in[i * kChannels + c] * (1.0 / 32767.0);
            for (Biquad& b : sections) {
                double w = x - b.a1 * b.s1[c] - b.a2 * b.s2[c];
                double y = b.b0 * w + b.b1 * b.s1[c] + b.b2 * b.s2[c];
                b.s2[c] = b.s1[c];
                b.s1[c] = w;
                x = y;
            }
            double v = x * 32767.0;
            v = v > 32767.0 ? 32767.0 : (v < -32767.0 ? -32767.0 : v);
            out[i * kChannels + c] = static_cast<int16_t>(v);
        }
    }
}

void BM_OursFilter(benchmark::State& state) {
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kBlock * kChannels);
    for (auto _ : state) {
        void* h = initIirFilter(kBlock, kChannels, kRate, 4, 2000.0f, 0);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            doIirFilter(h, in.data() + at * kChannels, out.data(), n * 2 * kChannels);
            benchmark::DoNotOptimize(out.data());
        }
        termIirFilter(h);
    }
    finish(state);
}
BENCHMARK(BM_OursFilter)->Unit(benchmark::kMillisecond);

void BM_ReferenceBiquadFilter(benchmark::State& state) {
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kBlock * kChannels);
    for (auto _ : state) {
        std::vector<Biquad> sections = lowpassSections(kRate, 2000.0, 4);
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            referenceBlock(sections, in.data() + at * kChannels, out.data(), n);
            benchmark::DoNotOptimize(out.data());
        }
    }
    finish(state);
}
BENCHMARK(BM_ReferenceBiquadFilter)->Unit(benchmark::kMillisecond);

void BM_OursChainOfThree(benchmark::State& state) {
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kBlock * kChannels);
    for (auto _ : state) {
        void* chain = dspCreate(kBlock, kChannels, kRate);
        for (uint32_t k = 0; k < 3; ++k) {
            dspAdd(chain, initIirFilter(kBlock, kChannels, kRate, 4, 2000.0f + 1000.0f * k, 0), k);
        }
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            dspSend(chain, in.data() + at * kChannels, out.data(), n * 2 * kChannels);
            benchmark::DoNotOptimize(out.data());
        }
        dspDestroy(chain);
    }
    finish(state);
}
BENCHMARK(BM_OursChainOfThree)->Unit(benchmark::kMillisecond);

void BM_ReferenceBiquadChainOfThree(benchmark::State& state) {
    const std::vector<int16_t>& in = input();
    std::vector<int16_t> out(kBlock * kChannels);
    for (auto _ : state) {
        std::vector<Biquad> sections;
        for (int k = 0; k < 3; ++k) {
            std::vector<Biquad> s = lowpassSections(kRate, 2000.0 + 1000.0 * k, 4);
            sections.insert(sections.end(), s.begin(), s.end());
        }
        for (uint32_t at = 0; at < kFrames; at += kBlock) {
            uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
            referenceBlock(sections, in.data() + at * kChannels, out.data(), n);
            benchmark::DoNotOptimize(out.data());
        }
    }
    finish(state);
}
BENCHMARK(BM_ReferenceBiquadChainOfThree)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
