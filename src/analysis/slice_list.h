// The slices the wave slicer found, as the doubly linked list of records the
// host reads (one heap block per slice, handed out by address). The list owns
// its records: clearing it or destroying it frees them.
#pragma once

#include "dsp.h"

#include <cstdint>

namespace dsp {

class SliceList {
public:
    SliceList() = default;
    ~SliceList() { clear(); }
    SliceList(const SliceList&) = delete;
    SliceList& operator=(const SliceList&) = delete;

    // Links a new record after the last; false, the slice lost, when the
    // record cannot be allocated.
    bool append(float startSeconds, float endSeconds);
    void clear();

    // The record `index` steps from the first, stopping at the last; null
    // when the list is empty.
    SliceRecord* at(uint32_t index) const;

private:
    SliceRecord* first_ = nullptr;
    SliceRecord* last_ = nullptr;
};

} // namespace dsp
