// Control of the test program's nothrow operator new (replaced in
// allocation_failure_new.cpp): counts the nothrow allocations the calling
// thread makes and fails one chosen call, or every call from it on, so tests
// can walk a failure through every heap allocation an init… makes. Other
// threads and the throwing forms of new are never affected.
#pragma once

#include <cstdint>

namespace dsptest {

class FailingHeap {
public:
    enum class Mode { OnlyAt, FromThenOn };

    // Starts counting on this thread; failAt 0 never fails.
    static void arm(uint64_t failAt, Mode mode);
    // Stops counting and failing; returns the calls counted since arm.
    static uint64_t disarm();
};

// Disarms when a test leaves its scope, even on an assertion failure.
struct FailingHeapDisarm {
    ~FailingHeapDisarm() { FailingHeap::disarm(); }
};

} // namespace dsptest
