#include "slice_list.h"

#include <new>

namespace dsp {

bool SliceList::append(float startSeconds, float endSeconds) {
    SliceRecord* record = new (std::nothrow) SliceRecord;
    if (record == nullptr) {
        return false;
    }
    record->next = nullptr;
    record->prev = last_;
    record->startSeconds = startSeconds;
    record->endSeconds = endSeconds;
    if (last_ != nullptr) {
        last_->next = record;
    } else {
        first_ = record;
    }
    last_ = record;
    return true;
}

void SliceList::clear() {
    SliceRecord* record = first_;
    while (record != nullptr) {
        SliceRecord* next = record->next;
        delete record;
        record = next;
    }
    first_ = nullptr;
    last_ = nullptr;
}

SliceRecord* SliceList::at(uint32_t index) const {
    SliceRecord* record = first_;
    if (record == nullptr) {
        return nullptr;
    }
    for (uint32_t step = 0; step < index && record->next != nullptr; ++step) {
        record = record->next;
    }
    return record;
}

} // namespace dsp
