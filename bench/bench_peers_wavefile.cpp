// Writing and reading 60 s of 44100 Hz stereo as a WAVE file in 4096-frame
// blocks: ours next to libsndfile.
#include "dsp.h"
#include "peer_input.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#if defined(DSP_HAVE_SNDFILE)
#include <sndfile.h>
#endif

namespace {

using namespace peerbench;

std::string scratchPath(const char* name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/" + name;
}

void finish(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFrames) * kChannels * 2);
    state.counters["seconds_per_60s"] =
        benchmark::Counter(static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void writeOurs(const std::string& path) {
    const std::vector<int16_t>& in = input();
    WavefileFormat f{1, kChannels, kRate, kRate * kChannels * 2, kChannels * 2, 16, 0};
    void* w = initWavefileOut(path.c_str(), &f);
    for (uint32_t at = 0; at < kFrames; at += kBlock) {
        uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
        writeWavefileOut(w, in.data() + at * kChannels, static_cast<int32_t>(n * 2 * kChannels));
    }
    termWavefileOut(w);
}

void BM_OursWrite(benchmark::State& state) {
    std::string path = scratchPath("dsp-bench-ours.wav");
    for (auto _ : state) {
        writeOurs(path);
    }
    std::remove(path.c_str());
    finish(state);
}
BENCHMARK(BM_OursWrite)->Unit(benchmark::kMillisecond);

void BM_OursRead(benchmark::State& state) {
    std::string path = scratchPath("dsp-bench-ours.wav");
    writeOurs(path);
    std::vector<int16_t> block(kBlock * kChannels);
    for (auto _ : state) {
        void* r = initWavefileIn(path.c_str(), kBlock);
        while (readWavefileIn(r, reinterpret_cast<uint8_t*>(block.data()), kBlock) > 0) {
            benchmark::DoNotOptimize(block.data());
        }
        termWavefileIn(r);
    }
    std::remove(path.c_str());
    finish(state);
}
BENCHMARK(BM_OursRead)->Unit(benchmark::kMillisecond);

#if defined(DSP_HAVE_SNDFILE)
void writeSndfile(const std::string& path) {
    const std::vector<int16_t>& in = input();
    SF_INFO info{};
    info.samplerate = kRate;
    info.channels = kChannels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    for (uint32_t at = 0; at < kFrames; at += kBlock) {
        uint32_t n = kFrames - at < kBlock ? kFrames - at : kBlock;
        sf_writef_short(f, in.data() + at * kChannels, n);
    }
    sf_close(f);
}

void BM_SndfileWrite(benchmark::State& state) {
    std::string path = scratchPath("dsp-bench-sndfile.wav");
    for (auto _ : state) {
        writeSndfile(path);
    }
    std::remove(path.c_str());
    finish(state);
}
BENCHMARK(BM_SndfileWrite)->Unit(benchmark::kMillisecond);

void BM_SndfileRead(benchmark::State& state) {
    std::string path = scratchPath("dsp-bench-sndfile.wav");
    writeSndfile(path);
    std::vector<int16_t> block(kBlock * kChannels);
    for (auto _ : state) {
        SF_INFO info{};
        SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
        while (sf_readf_short(f, block.data(), kBlock) > 0) {
            benchmark::DoNotOptimize(block.data());
        }
        sf_close(f);
    }
    std::remove(path.c_str());
    finish(state);
}
BENCHMARK(BM_SndfileRead)->Unit(benchmark::kMillisecond);
#endif

} // namespace

BENCHMARK_MAIN();
