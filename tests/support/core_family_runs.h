// One processor of every family (and a chain of four), created, run and
// destroyed through the exports alone; shared by the allocation failure,
// fresh memory and concurrency tests.
#pragma once

#include <cstdint>
#include <vector>

namespace dsptest {

// Largest block any family below accepts, in frames.
constexpr uint32_t kFamilyFrames = 384;
constexpr uint32_t kFamilyOutBytes = 1 << 14;

struct FamilyRun {
    const char* name;
    uint32_t channels; // of the input blocks
    void* (*init)();
    // Runs one block of `bytes` bytes into `out` (kFamilyOutBytes long); wave
    // slicing writes its first four slices' times as floats.
    uint32_t (*run)(void* handle, const int16_t* in, void* out, uint32_t bytes);
    uint32_t (*term)(void* handle);
    void (*prepare)(void* handle); // settings beyond the init, or null
};

const std::vector<FamilyRun>& familyRuns();
// A chain whose source format differs from its four processors', so dspAdd
// reconfigures each of them.
const FamilyRun& chainRun();

// Everything a run returns and writes over short and whole blocks (7, 128,
// 384, 5 and 384 frames); empty when the init fails.
std::vector<uint8_t> familyOutput(const FamilyRun& family, uint32_t seed);

// A deterministic noise signal at a third of full scale.
std::vector<int16_t> testSignal(uint32_t samples, uint32_t seed);

} // namespace dsptest
