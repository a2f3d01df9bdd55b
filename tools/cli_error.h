// Errors of the command-line tool: a usage error (exit status 2) or a
// failure while working (exit status 1). Each carries one line of text.
#pragma once

#include <stdexcept>
#include <string>

namespace cli {

struct UsageError : std::runtime_error {
    explicit UsageError(const std::string& what) : std::runtime_error(what) {}
};

struct Failure : std::runtime_error {
    explicit Failure(const std::string& what) : std::runtime_error(what) {}
};

// Set by the interrupt handler; long loops check it and stop cleanly.
bool interrupted();
void installInterruptHandler();

} // namespace cli
