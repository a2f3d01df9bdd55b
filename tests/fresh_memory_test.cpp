// Fresh pool memory is never read before it is written: every family, run on
// short and whole blocks (alone and in a chain), gives the same output whether
// the pool's system allocator hands out memory filled with zeros, NaNs, huge
// finite values or a loud tone. (A Hqups processor once read its output buffers
// past a short block; valgrind found it, this test keeps it from returning.)
#include "core/fastmem_pool.h"
#include "dsp.h"
#include "support/core_family_runs.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using dsptest::kFamilyFrames;

enum class Fill { Zeros, NaNs, Huge, Tone };
Fill fill = Fill::Zeros;

void* filledAllocation(size_t bytes) {
    void* p = std::malloc(bytes);
    if (p != nullptr && fill == Fill::Tone) {
        // A loud tone at 0.4 of the rate: a stray spectral peak where the
        // Hqups bandwidth analysis looks for the source's cut-off.
        float* f = static_cast<float*>(p);
        for (size_t i = 0; i < bytes / sizeof(float); ++i) {
            f[i] = 0.8f * static_cast<float>(std::sin(2.0 * 3.141592653589793 * 0.4 * i));
        }
    } else if (p != nullptr) {
        // Zeros, NaNs, or floats of about 3.4e38.
        std::memset(p, fill == Fill::Zeros ? 0 : fill == Fill::NaNs ? 0xFF : 0x7F, bytes);
    }
    return p;
}

using Output = std::vector<uint8_t>;
using Run = uint32_t (*)(void*, const int16_t*, void*, uint32_t);

// Short first blocks, then whole, short and whole again; everything the
// calls return and write, in order.
Output runBlocks(void* h, Run run, uint32_t channels) {
    const uint32_t blockFrames[] = {7, kFamilyFrames / 3, kFamilyFrames, 5, kFamilyFrames};
    Output out;
    uint32_t seed = 1;
    for (uint32_t frames : blockFrames) {
        std::vector<int16_t> in = dsptest::testSignal(frames * channels, seed++);
        Output dst(dsptest::kFamilyOutBytes, 0);
        const uint32_t result = run(h, in.data(), dst.data(), frames * channels * 2);
        dst.insert(dst.end(), reinterpret_cast<const uint8_t*>(&result),
                   reinterpret_cast<const uint8_t*>(&result + 1));
        out.insert(out.end(), dst.begin(), dst.end());
    }
    return out;
}

Output runFamily(const dsptest::FamilyRun& family) {
    void* h = family.init();
    if (h == nullptr) {
        return {};
    }
    if (family.prepare != nullptr) {
        family.prepare(h);
    }
    Output out = runBlocks(h, family.run, family.channels);
    family.term(h);
    return out;
}

// The chain reconfigures every node for its source format.
Output runChain() {
    void* chain = dspCreate(kFamilyFrames, 2, 32000);
    dspAdd(chain, initResampler(kFamilyFrames, 2, 2, 44100, 44100, 1, 60.0f, 60.0f, 1), 1);
    dspAdd(chain, initChorus(kFamilyFrames, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), 2);
    dspAdd(chain,
           initHqups(kFamilyFrames * 2, 2, 2, 44100, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1), 3);
    dspAdd(chain, initStretch(kFamilyFrames, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f), 4);
    Output out = runBlocks(
        chain,
        [](void* c, const int16_t* in, void* dst, uint32_t bytes) {
            return dspSend(c, in, static_cast<int16_t*>(dst), bytes);
        },
        2);
    dspDestroy(chain);
    return out;
}

Output runWithFill(Fill value, const dsptest::FamilyRun* family) {
    fill = value;
    dsp::fastmemPool().setSystemAllocator(&filledAllocation);
    Output out = family != nullptr ? runFamily(*family) : runChain();
    dsp::fastmemPool().setSystemAllocator(nullptr);
    return out;
}

TEST(FreshMemory, OutputsDoNotDependOnWhatFreshPoolMemoryHolds) {
    std::vector<const dsptest::FamilyRun*> cases = {nullptr}; // the chain
    for (const dsptest::FamilyRun& family : dsptest::familyRuns()) {
        cases.push_back(&family);
    }
    for (const dsptest::FamilyRun* c : cases) {
        const char* name = c != nullptr ? c->name : "Chain";
        const Output zeros = runWithFill(Fill::Zeros, c);
        ASSERT_FALSE(zeros.empty()) << name;
        for (Fill other : {Fill::NaNs, Fill::Huge, Fill::Tone}) {
            EXPECT_EQ(runWithFill(other, c), zeros) << name << " fill " << static_cast<int>(other);
        }
    }
}

} // namespace
