// A system allocator for the fastmem pool that counts its calls and fails
// from (or only at) a chosen call, so tests can walk a failure through every
// pool allocation an init… makes.
#pragma once

#include "core/fastmem_pool.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace dsptest {

class FailingPoolAllocator {
public:
    enum class Mode { OnlyAt, FromThenOn };

    // Installs the counting allocator; failAt 0 never fails.
    static void install(uint64_t failAt, Mode mode) {
        calls().store(0);
        failAtCall().store(failAt);
        failFromThenOn().store(mode == Mode::FromThenOn);
        dsp::fastmemPool().setSystemAllocator(&allocate);
    }
    static void restore() { dsp::fastmemPool().setSystemAllocator(nullptr); }
    static uint64_t callCount() { return calls().load(); }

private:
    static void* allocate(size_t bytes) {
        const uint64_t call = ++calls();
        const uint64_t failAt = failAtCall().load();
        if (failAt != 0 && (call == failAt || (failFromThenOn().load() && call > failAt))) {
            return nullptr;
        }
        return std::malloc(bytes);
    }
    static std::atomic<uint64_t>& calls() {
        static std::atomic<uint64_t> value{0};
        return value;
    }
    static std::atomic<uint64_t>& failAtCall() {
        static std::atomic<uint64_t> value{0};
        return value;
    }
    static std::atomic<bool>& failFromThenOn() {
        static std::atomic<bool> value{false};
        return value;
    }
};

// Restores the default allocator when a test leaves its scope, even on an
// assertion failure.
struct PoolAllocatorRestore {
    ~PoolAllocatorRestore() { FailingPoolAllocator::restore(); }
};

} // namespace dsptest
