// Saves the process-wide SIMD switches and restores them when the test ends,
// so one test's switches never leak into another.
#pragma once

#include "core/simd_flags.h"

namespace dsptest {

class SimdGuard {
public:
    SimdGuard() : saved_(dsp::simdFlags) {}
    ~SimdGuard() { dsp::simdFlags = saved_; }
    SimdGuard(const SimdGuard&) = delete;
    SimdGuard& operator=(const SimdGuard&) = delete;

    static void set(bool mmx, bool amd3dnow, bool sse) {
        dsp::simdFlags.mmx = mmx ? 1 : 0;
        dsp::simdFlags.amd3dnow = amd3dnow ? 1 : 0;
        dsp::simdFlags.sse = sse ? 1 : 0;
    }

private:
    dsp::SimdFlags saved_;
};

} // namespace dsptest
