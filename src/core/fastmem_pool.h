// The library-wide pool of 16-byte aligned blocks behind every processor's
// work buffers and the fastmem exports. Each block is one system allocation
// with 15 bytes of slack; the pool keeps a record per live block, newest
// first, and the running sum of (requested size + 15).
#pragma once

#include "pool_lock.h"

#include <cstddef>
#include <cstdint>

namespace dsp {

struct FastmemBlock {
    void* raw;           // what the system allocator returned
    void* aligned;       // raw rounded up to a multiple of 16: the caller's pointer
    uint32_t size;       // bytes asked for
    uint32_t paddedSize; // size + 15
    FastmemBlock* next;  // older block
    FastmemBlock* prev;  // newer block
};

class FastmemPool {
public:
    using SystemAlloc = void* (*)(size_t);

    constexpr FastmemPool() = default;
    FastmemPool(const FastmemPool&) = delete;
    FastmemPool& operator=(const FastmemPool&) = delete;

    // Returns a 16-byte aligned block of at least `bytes` bytes, or null when
    // the system allocator (or the record allocation) fails; a failure leaves
    // no trace in the pool.
    void* allocate(uint32_t bytes);
    // Releases a block handed out by allocate: true when found, false (and no
    // change) for anything else, including a pointer into a block's middle.
    bool release(void* block);
    // Releases every live block (library unload).
    void releaseAll();

    uint32_t allocatedSize() const { return totalBytes_; }
    uint32_t blockCount() const { return count_; }

    // Replaces the system allocator, for tests that make allocation fail. The
    // replacement must return memory that std::free releases (or null);
    // passing null restores std::malloc.
    void setSystemAllocator(SystemAlloc alloc);

private:
    uint32_t count_ = 0;
    FastmemBlock* head_ = nullptr;
    uint32_t totalBytes_ = 0;
    SystemAlloc systemAlloc_ = nullptr;
    PoolLock lock_;
};

// The one pool of the process, built by the library's load hook.
FastmemPool& fastmemPool();

} // namespace dsp
