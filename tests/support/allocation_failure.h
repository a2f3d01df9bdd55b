// Allocation failure on demand: each injector counts the allocations since it
// was armed and fails one chosen call (failAt, 0 = none) or every call from it
// on. FailingPool replaces the pool's system allocator; FailingHeap the
// nothrow operator new (every library heap object) on the calling thread.
#pragma once

#include <cstdint>

namespace dsptest {

enum class FailMode { OnlyAt, FromThenOn };

struct FailingPool {
    static void arm(uint64_t failAt, FailMode mode);
    static uint64_t disarm(); // restores the allocator; returns the calls counted
};

struct FailingHeap {
    static void arm(uint64_t failAt, FailMode mode);
    static uint64_t disarm();
    // Whether failures take effect: the nothrow operator new cannot be
    // replaced on every platform.
    static bool works();
};

constexpr const char* kNoFailingHeap = "the nothrow operator new cannot be replaced here";

} // namespace dsptest
