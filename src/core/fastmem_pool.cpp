#include "fastmem_pool.h"

#include <cstdlib>
#include <new>

namespace dsp {

namespace {
constexpr uint32_t kSlack = 15;
} // namespace

void* FastmemPool::allocate(uint32_t bytes) {
    // size + 15 must still fit the 32-bit accounting, or the block would be
    // smaller than asked for.
    if (bytes > UINT32_MAX - kSlack) {
        return nullptr;
    }
    FastmemBlock* record = new (std::nothrow) FastmemBlock();
    if (record == nullptr) {
        return nullptr;
    }
    record->size = bytes;
    record->paddedSize = bytes + kSlack;

    PoolLockGuard guard(lock_);
    void* raw = systemAlloc_ != nullptr ? systemAlloc_(record->paddedSize)
                                        : std::malloc(record->paddedSize);
    if (raw == nullptr) {
        delete record;
        return nullptr;
    }
    record->raw = raw;
    // Moved up to the next multiple of 16 by pointer arithmetic, so the
    // result stays a pointer into the block.
    const uintptr_t misalignment = reinterpret_cast<uintptr_t>(raw) & kSlack;
    record->aligned = static_cast<unsigned char*>(raw) + ((kSlack + 1 - misalignment) & kSlack);
    totalBytes_ += record->paddedSize;

    record->prev = nullptr;
    record->next = head_;
    if (head_ != nullptr) {
        head_->prev = record;
    }
    head_ = record;
    ++count_;
    return record->aligned;
}

bool FastmemPool::release(void* block) {
    FastmemBlock* record = nullptr;
    {
        PoolLockGuard guard(lock_);
        record = head_;
        while (record != nullptr && record->aligned != block) {
            record = record->next;
        }
        if (record == nullptr) {
            return false;
        }
        std::free(record->raw);
        if (record->prev != nullptr) {
            record->prev->next = record->next;
        } else {
            head_ = record->next;
        }
        if (record->next != nullptr) {
            record->next->prev = record->prev;
        }
        totalBytes_ -= record->paddedSize;
        --count_;
    }
    delete record;
    return true;
}

void FastmemPool::releaseAll() {
    PoolLockGuard guard(lock_);
    if (count_ == 0) {
        return;
    }
    FastmemBlock* record = head_;
    while (record != nullptr) {
        FastmemBlock* next = record->next;
        std::free(record->raw);
        totalBytes_ -= record->paddedSize;
        delete record;
        record = next;
    }
    head_ = nullptr;
    count_ = 0;
}

void FastmemPool::setSystemAllocator(SystemAlloc alloc) {
    PoolLockGuard guard(lock_);
    systemAlloc_ = alloc;
}

} // namespace dsp
