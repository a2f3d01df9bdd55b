// The one replacement of global operator new in dsp_tests: the nothrow forms,
// which the library uses for every heap object, can be made to fail. Storage
// still comes from the ordinary throwing operator new, so the ordinary
// operator delete releases it and the sanitizers and valgrind see matching
// pairs.
#include "support/allocation_failure.h"

#include "core/fastmem_pool.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// Heap counters: plain thread-local values, constant-initialised, so reading
// them inside operator new allocates nothing.
thread_local bool heapArmed = false;
thread_local bool heapFromThenOn = false;
thread_local uint64_t heapFailAt = 0;
thread_local uint64_t heapCalls = 0;

bool failHeapCall() {
    if (!heapArmed) {
        return false;
    }
    ++heapCalls;
    return heapFailAt != 0 &&
           (heapCalls == heapFailAt || (heapFromThenOn && heapCalls > heapFailAt));
}

// The pool's allocator may be called from any thread.
std::atomic<uint64_t> poolCalls{0};
std::atomic<uint64_t> poolFailAt{0};
std::atomic<bool> poolFromThenOn{false};

void* poolAllocate(size_t bytes) {
    const uint64_t call = ++poolCalls;
    const uint64_t failAt = poolFailAt.load();
    if (failAt != 0 && (call == failAt || (poolFromThenOn.load() && call > failAt))) {
        return nullptr;
    }
    return std::malloc(bytes);
}

} // namespace

namespace dsptest {

void FailingPool::arm(uint64_t failAt, FailMode mode) {
    poolCalls = 0;
    poolFailAt = failAt;
    poolFromThenOn = mode == FailMode::FromThenOn;
    dsp::fastmemPool().setSystemAllocator(&poolAllocate);
}

uint64_t FailingPool::disarm() {
    dsp::fastmemPool().setSystemAllocator(nullptr);
    return poolCalls.load();
}

void FailingHeap::arm(uint64_t failAt, FailMode mode) {
    heapCalls = 0;
    heapFailAt = failAt;
    heapFromThenOn = mode == FailMode::FromThenOn;
    heapArmed = true;
}

uint64_t FailingHeap::disarm() {
    heapArmed = false;
    return heapCalls;
}

} // namespace dsptest

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (failHeapCall()) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (failHeapCall()) {
        return nullptr;
    }
    try {
        return ::operator new[](size);
    } catch (...) {
        return nullptr;
    }
}
