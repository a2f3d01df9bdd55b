// Allocation failure on demand: each injector counts the allocations made
// since it was armed and fails one chosen call, or every call from it on, so
// tests can walk a failure through every allocation an init… makes.
// FailingPool replaces the fastmem pool's system allocator; FailingHeap
// replaces the nothrow operator new of this test program (the library's
// every heap object) on the calling thread only.
#pragma once

#include <cstdint>

namespace dsptest {

enum class FailMode { OnlyAt, FromThenOn };

struct FailingPool {
    // Starts counting; failAt 0 never fails.
    static void arm(uint64_t failAt, FailMode mode);
    // Restores the default allocator; returns the calls counted since arm.
    static uint64_t disarm();
};

struct FailingHeap {
    static void arm(uint64_t failAt, FailMode mode);
    static uint64_t disarm();
};

} // namespace dsptest
