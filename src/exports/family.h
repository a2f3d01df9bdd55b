// What every per-processor export does before and after calling its class:
// the handle must be a live processor of the family (its tag matches);
// anything else, a null handle included, is refused with 0 and nothing is
// touched.
#pragma once

#include "core/processor.h"

#include <cstdint>
#include <memory>
#include <new>

namespace dsp {

template <typename Processor, uint32_t Tag>
struct ExportedFamily {
    // The processor behind a handle, or null when the handle is refused.
    static Processor* from(void* handle) { return processorFromHandle<Processor>(handle, Tag); }

    // A new processor set up by `init(processor)`, as a handle; null, with
    // nothing left allocated, when the object cannot be had or init fails.
    template <typename Init>
    static void* create(Init init) {
        std::unique_ptr<Processor> p(new (std::nothrow) Processor());
        if (p == nullptr || !init(*p)) {
            return nullptr;
        }
        return p.release();
    }

    // Calls `fn(processor)` and returns 1; 0 for a refused handle.
    template <typename Fn>
    static uint32_t apply(void* handle, Fn fn) {
        Processor* p = from(handle);
        if (p == nullptr) {
            return 0;
        }
        fn(*p);
        return 1;
    }

    // Returns what `fn(processor)` answers (a count, or a bool as 1/0); 0 for
    // a refused handle.
    template <typename Fn>
    static uint32_t answer(void* handle, Fn fn) {
        Processor* p = from(handle);
        return p == nullptr ? 0 : static_cast<uint32_t>(fn(*p));
    }

    // Destroys the processor and returns 1; 0 for a refused handle.
    static uint32_t term(void* handle) {
        Processor* p = from(handle);
        if (p == nullptr) {
            return 0;
        }
        destroyProcessor(p);
        return 1;
    }
};

} // namespace dsp
