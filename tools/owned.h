// Library objects owned by the tool: freed by their term function when the
// owner goes out of scope, also when an error is thrown.
#pragma once

#include "cli_error.h"

#include <cstdint>
#include <memory>
#include <string>

namespace cli {

using Owned = std::unique_ptr<void, uint32_t (*)(void*)>;

// Takes a newly created object; throws Failure(failure) if its creation
// failed (a null handle).
inline Owned own(void* handle, uint32_t (*term)(void*), const char* failure) {
    if (handle == nullptr) {
        throw Failure(failure);
    }
    return Owned(handle, term);
}

} // namespace cli
