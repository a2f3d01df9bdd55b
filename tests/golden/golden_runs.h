// Fixed processing runs whose output bytes must be identical on every build
// (64- and 32-bit Linux, Windows). The program dsp_golden runs every
// registered run under every SIMD setting and prints one digest line per run
// and setting; scripts/compare-builds.sh compares the lines of two builds.
//
// A family adds its runs in a file tests/golden/golden_<family>.cpp, which is
// built once src/exports/<family>_exports.cpp exists:
//
//     GOLDEN_RUN(chorusStereo) {
//         void* h = initChorus(...);
//         std::vector<int16_t> in = golden::testSignal(4096, 2, 1), out(in.size());
//         doChorus(h, in.data(), out.data(), ...);
//         out.samples(out);   // every byte written goes into the digest
//         termChorus(h);
//     }
//
// Runs must free what they allocate and may not depend on addresses, so that
// the pool and the results are the same whatever ran before.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace golden {

// Collects a run's output into a 64-bit FNV-1a digest and a byte count.
class Sink {
public:
    void bytes(const void* data, size_t count);
    template <typename T>
    void value(T v) {
        bytes(&v, sizeof v);
    }
    template <typename T>
    void samples(const std::vector<T>& v) {
        bytes(v.data(), v.size() * sizeof(T));
    }
    template <typename T>
    void samples(const T* data, size_t count) {
        bytes(data, count * sizeof(T));
    }

    uint64_t digest() const { return hash_; }
    uint64_t size() const { return size_; }

private:
    uint64_t hash_ = 14695981039346656037ull;
    uint64_t size_ = 0;
};

using RunFunction = void (*)(Sink&);

class Registrar {
public:
    Registrar(const char* name, RunFunction run);
};

struct Run {
    std::string name;
    RunFunction function;
};

// Every registered run, sorted by name.
std::vector<Run> registeredRuns();

// Interleaved 16-bit test signal, the same on every build: a swept tone made
// by an exact recurrence, noise from a linear congruential generator, and a
// few full-scale samples (32767, -32768) to reach the clamps.
std::vector<int16_t> testSignal(size_t frames, uint32_t channels, uint32_t seed);

// Float signal in roughly [-1.25, 1.25] from the same generator, with a NaN
// and exact +-1.0, +-0.5 among the first samples.
std::vector<float> testFloats(size_t count, uint32_t seed);

// Feeds `blocks` blocks of `frames` frames of the test signal (the last one
// 37 frames shorter) to `process(src, dst, bytes)`, a do... call bound to a
// handle, with `dstBytes` of output room per block; every return value and
// every byte of the output buffers goes into `out`.
template <typename Process>
void feedBlocks(Sink& out, uint32_t channels, uint32_t frames, int blocks, size_t dstBytes,
                Process process) {
    std::vector<int16_t> signal = testSignal(static_cast<size_t>(frames) * blocks, channels, 5);
    std::vector<int16_t> dst((dstBytes + 1) / 2);
    for (int b = 0; b < blocks; ++b) {
        uint32_t blockFrames = b == blocks - 1 && frames > 37 ? frames - 37 : frames;
        std::fill(dst.begin(), dst.end(), static_cast<int16_t>(0x1234));
        uint32_t result = process(signal.data() + static_cast<size_t>(b) * frames * channels,
                                  dst.data(), blockFrames * channels * 2);
        out.value(result);
        out.samples(dst);
    }
}

} // namespace golden

#define GOLDEN_RUN(name)                                                                           \
    static void golden_##name(golden::Sink& out);                                                  \
    static const golden::Registrar golden_registrar_##name(#name, golden_##name);                  \
    static void golden_##name(golden::Sink& out)
