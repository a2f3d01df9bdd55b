// Writing and reading 60 s of 44100 Hz stereo 16-bit audio through the WAVE
// writer and reader, in blocks of 4096 frames, to a file in the temporary
// directory. Reported in MB/s of sample data (the page cache usually holds
// the file, so this measures the library's own overhead more than the disk).
// The "MB" counter is a rate: MB of sample data per second of wall time.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr uint32_t kRate = 44100;
constexpr uint32_t kSeconds = 60;
constexpr uint32_t kBlockFrames = 4096;
constexpr uint64_t kTotalBytes = uint64_t{kRate} * kSeconds * 4;

std::string benchPath() {
    std::error_code error;
    std::filesystem::path dir = std::filesystem::temp_directory_path(error);
    if (error) {
        dir = ".";
    }
    return (dir / "dsp_bench_wavefile.wav").string();
}

WavefileFormat stereoFormat() {
    WavefileFormat f{};
    f.formatTag = 1;
    f.channels = 2;
    f.samplesPerSecond = kRate;
    f.avgBytesPerSecond = kRate * 4;
    f.blockAlign = 4;
    f.bitsPerSample = 16;
    return f;
}

bool writeFile(const std::string& path, const std::vector<uint8_t>& block) {
    WavefileFormat format = stereoFormat();
    void* out = initWavefileOut(path.c_str(), &format);
    uint64_t left = kTotalBytes;
    while (left > 0) {
        int32_t n = static_cast<int32_t>(left < block.size() ? left : block.size());
        if (writeWavefileOut(out, block.data(), n) != n) {
            termWavefileOut(out);
            return false;
        }
        left -= static_cast<uint64_t>(n);
    }
    return termWavefileOut(out) == kTotalBytes;
}

void setRate(benchmark::State& state) {
    double bytes = static_cast<double>(kTotalBytes) * static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["MB"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
}

void BM_WriteWavefile60s(benchmark::State& state) {
    std::string path = benchPath();
    std::vector<uint8_t> block(kBlockFrames * 4);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<uint8_t>(i * 31u + 7u);
    }
    for (auto _ : state) {
        if (!writeFile(path, block)) {
            state.SkipWithError("writing the file failed");
            break;
        }
    }
    setRate(state);
    std::remove(path.c_str());
}

void BM_ReadWavefile60s(benchmark::State& state) {
    std::string path = benchPath();
    std::vector<uint8_t> block(kBlockFrames * 4, 1);
    if (!writeFile(path, block)) {
        state.SkipWithError("writing the file failed");
        return;
    }
    for (auto _ : state) {
        void* in = initWavefileIn(path.c_str(), kBlockFrames);
        uint64_t total = 0;
        int32_t n = 0;
        while ((n = readWavefileIn(in, nullptr, kBlockFrames)) > 0) {
            total += static_cast<uint64_t>(n);
        }
        benchmark::DoNotOptimize(getHeaderWavefileIn(in)->buffer[0]);
        termWavefileIn(in);
        if (total != kTotalBytes) {
            state.SkipWithError("reading the file came out short");
            break;
        }
    }
    setRate(state);
    std::remove(path.c_str());
}

BENCHMARK(BM_WriteWavefile60s)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadWavefile60s)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
