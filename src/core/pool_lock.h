// A mutex that needs no dynamic initialisation, so the pool can be locked from
// the library's load hook whatever the order of static initialisers.
#pragma once

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <mutex>
#endif

namespace dsp {

#if defined(_WIN32)
class PoolLock {
public:
    constexpr PoolLock() = default;
    void lock() { AcquireSRWLockExclusive(&lock_); }
    void unlock() { ReleaseSRWLockExclusive(&lock_); }

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};
#else
class PoolLock {
public:
    constexpr PoolLock() = default;
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};
#endif

class PoolLockGuard {
public:
    explicit PoolLockGuard(PoolLock& lock) : lock_(lock) { lock_.lock(); }
    ~PoolLockGuard() { lock_.unlock(); }
    PoolLockGuard(const PoolLockGuard&) = delete;
    PoolLockGuard& operator=(const PoolLockGuard&) = delete;

private:
    PoolLock& lock_;
};

} // namespace dsp
