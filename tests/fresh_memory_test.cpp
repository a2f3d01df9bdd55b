// Fresh pool memory is never read before it is written: every family and the
// chain give the same output whether the pool hands out memory holding zeros,
// NaNs, huge finite values or a loud tone. (A Hqups processor once read its
// output buffers past a short block; valgrind found it.)
#include "core/fastmem_pool.h"
#include "support/core_family_runs.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

enum class Fill { Zeros, NaNs, Huge, Tone };
Fill fill = Fill::Zeros;

void* filledAllocation(size_t bytes) {
    void* p = std::malloc(bytes);
    if (p != nullptr && fill == Fill::Tone) {
        // A stray peak at 0.4 of the rate, where the Hqups bandwidth analysis
        // looks for the source's cut-off.
        float* f = static_cast<float*>(p);
        for (size_t i = 0; i < bytes / sizeof(float); ++i) {
            f[i] = 0.8f * static_cast<float>(std::sin(2.0 * 3.141592653589793 * 0.4 * i));
        }
    } else if (p != nullptr) { // floats of 0, NaN or about 3.4e38
        std::memset(p, fill == Fill::Zeros ? 0 : fill == Fill::NaNs ? 0xFF : 0x7F, bytes);
    }
    return p;
}

std::vector<uint8_t> runWithFill(Fill value, const dsptest::FamilyRun& family) {
    fill = value;
    dsp::fastmemPool().setSystemAllocator(&filledAllocation);
    std::vector<uint8_t> out = dsptest::familyOutput(family, 1);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    return out;
}

TEST(FreshMemory, OutputsDoNotDependOnWhatFreshPoolMemoryHolds) {
    std::vector<dsptest::FamilyRun> cases = dsptest::familyRuns();
    cases.push_back(dsptest::chainRun());
    for (const dsptest::FamilyRun& c : cases) {
        const std::vector<uint8_t> zeros = runWithFill(Fill::Zeros, c);
        ASSERT_FALSE(zeros.empty()) << c.name;
        for (Fill other : {Fill::NaNs, Fill::Huge, Fill::Tone}) {
            EXPECT_EQ(runWithFill(other, c), zeros) << c.name << " fill " << int(other);
        }
    }
}

} // namespace
