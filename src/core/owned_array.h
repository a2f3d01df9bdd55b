// Heap memory that owns itself and never throws: an array from the nothrow
// operator new that knows its length, and an allocator that lets standard
// containers take their storage from the same place. A failed allocation
// shows as an empty array or a false result, never as an exception leaving
// the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

namespace dsp {

template <typename T>
class OwnedArray {
public:
    OwnedArray() = default;

    // `count` default-initialised elements (plain numbers are left as the heap
    // gives them), or an empty array when they cannot be allocated. Zero elements still allocate
    // one, so that a successful allocation is never empty.
    static OwnedArray allocate(size_t count) {
        OwnedArray array;
        const size_t held = count == 0 ? 1 : count;
        if (held > SIZE_MAX / sizeof(T)) {
            return array;
        }
        array.data_.reset(new (std::nothrow) T[held]);
        if (array.data_ != nullptr) {
            array.size_ = count;
        }
        return array;
    }

    explicit operator bool() const { return data_ != nullptr; }
    T* data() { return data_.get(); }
    const T* data() const { return data_.get(); }
    size_t size() const { return size_; }
    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }
    void reset() {
        data_.reset();
        size_ = 0;
    }

private:
    std::unique_ptr<T[]> data_;
    size_t size_ = 0;
};

// Prepares the replacement of `held` by a larger array: allocates `count`
// elements into `fresh` when `held` is missing or smaller. False only when
// that allocation fails. Setups prepare every array before installing any, so
// a failed setup leaves the object as it was.
template <typename T>
bool prepareGrowth(const OwnedArray<T>& held, size_t count, OwnedArray<T>& fresh) {
    if (held && held.size() >= count) {
        return true;
    }
    fresh = OwnedArray<T>::allocate(count);
    return static_cast<bool>(fresh);
}

// Puts a prepared replacement in place (nothing happens when none was needed).
template <typename T>
void installGrowth(OwnedArray<T>& held, OwnedArray<T>& fresh) {
    if (fresh) {
        held = std::move(fresh);
    }
}

// Storage for standard containers from the nothrow operator new. A failure is
// reported to the container as std::bad_alloc, which tryReserve turns back
// into a false result before it can leave the call.
template <typename T>
struct NothrowAllocator {
    using value_type = T;
    NothrowAllocator() = default;
    template <typename U>
    NothrowAllocator(const NothrowAllocator<U>&) {}
    T* allocate(size_t n) {
        void* p = n > SIZE_MAX / sizeof(T) ? nullptr : ::operator new(n * sizeof(T), std::nothrow);
        if (p == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) noexcept { ::operator delete(p); }
    template <typename U>
    bool operator==(const NothrowAllocator<U>&) const {
        return true;
    }
    template <typename U>
    bool operator!=(const NothrowAllocator<U>&) const {
        return false;
    }
};

template <typename T>
using NothrowVector = std::vector<T, NothrowAllocator<T>>;

// Makes room for `count` elements; false (the vector unchanged) when the
// storage cannot be had. Inserting up to that count then cannot fail.
template <typename T>
bool tryReserve(NothrowVector<T>& v, size_t count) noexcept {
    try {
        v.reserve(count);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
}

} // namespace dsp
