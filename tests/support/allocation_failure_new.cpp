// The one replacement of global operator new in dsp_tests: the nothrow forms,
// which the library uses for every heap object, can be made to fail on the
// calling thread (see allocation_failure_new.h). Storage still comes from the
// ordinary throwing operator new, so the ordinary operator delete releases it
// and the sanitizers and valgrind see matching pairs.
#include "allocation_failure_new.h"

#include <cstddef>
#include <new>

namespace {

// Plain thread-local values: constant-initialised, so reading them inside
// operator new allocates nothing.
thread_local bool armed = false;
thread_local bool failFromThenOn = false;
thread_local uint64_t failAtCall = 0;
thread_local uint64_t calls = 0;

bool failThisCall() {
    if (!armed) {
        return false;
    }
    ++calls;
    return failAtCall != 0 && (calls == failAtCall || (failFromThenOn && calls > failAtCall));
}

} // namespace

namespace dsptest {

void FailingHeap::arm(uint64_t failAt, Mode mode) {
    calls = 0;
    failAtCall = failAt;
    failFromThenOn = mode == Mode::FromThenOn;
    armed = true;
}

uint64_t FailingHeap::disarm() {
    armed = false;
    return calls;
}

} // namespace dsptest

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (failThisCall()) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (failThisCall()) {
        return nullptr;
    }
    try {
        return ::operator new[](size);
    } catch (...) {
        return nullptr;
    }
}
