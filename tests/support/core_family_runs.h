// One processor of every family, created, run a block at a time and destroyed
// through the exports alone; shared by the tests that drive all families the
// same way (allocation failure, fresh memory, concurrency).
#pragma once

#include <cstdint>
#include <vector>

namespace dsptest {

// Largest block any family below accepts, in frames.
constexpr uint32_t kFamilyFrames = 384;

struct FamilyRun {
    const char* name;
    uint32_t channels; // of the input blocks
    void* (*init)();
    // Runs one block of `bytes` bytes; `out` holds at least kFamilyOutBytes.
    // Wave slicing writes its first four slices' times as floats.
    uint32_t (*run)(void* handle, const int16_t* in, void* out, uint32_t bytes);
    uint32_t (*term)(void* handle);
    void (*prepare)(void* handle); // settings beyond the init, or null
};

constexpr uint32_t kFamilyOutBytes = 1 << 14;

const std::vector<FamilyRun>& familyRuns();

// A deterministic noise signal at a third of full scale.
std::vector<int16_t> testSignal(uint32_t samples, uint32_t seed);

} // namespace dsptest
