// The one replacement of global operator new in dsp_tests: the nothrow forms
// can be made to fail. Storage comes from the throwing operator new, so the
// ordinary operator delete releases it and the sanitizers see matching pairs.
#include "support/allocation_failure.h"

#include "core/fastmem_pool.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

bool failsNow(uint64_t call, uint64_t failAt, bool fromThenOn) {
    return failAt != 0 && (call == failAt || (fromThenOn && call > failAt));
}

// Thread-local, constant-initialised: reading them inside operator new
// allocates nothing.
thread_local bool heapArmed = false, heapFromThenOn = false;
thread_local uint64_t heapFailAt = 0, heapCalls = 0;

// The pool's allocator may be called from any thread.
std::atomic<uint64_t> poolCalls{0}, poolFailAt{0};
std::atomic<bool> poolFromThenOn{false};

void* poolAllocate(size_t bytes) {
    return failsNow(++poolCalls, poolFailAt.load(), poolFromThenOn.load()) ? nullptr
                                                                           : std::malloc(bytes);
}

template <void* (*Allocate)(std::size_t)>
void* nothrowNew(std::size_t size) noexcept {
    if (heapArmed && failsNow(++heapCalls, heapFailAt, heapFromThenOn)) {
        return nullptr;
    }
    try {
        return Allocate(size);
    } catch (...) {
        return nullptr;
    }
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

bool FailingHeap::works() {
    // Called through a pointer, so the probe reaches whatever operator new the
    // process really uses (a memory checker may substitute its own) instead of
    // the definition below inlined.
    void* (*volatile nothrowNewOf)(std::size_t, const std::nothrow_t&) noexcept = &::operator new;
    arm(1, FailMode::OnlyAt);
    void* probe = nothrowNewOf(16, std::nothrow);
    disarm();
    ::operator delete(probe);
    return probe == nullptr;
}

} // namespace dsptest

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return nothrowNew < ::operator new>(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return nothrowNew < ::operator new[]>(size);
}
