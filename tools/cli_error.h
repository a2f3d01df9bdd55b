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
// Handles SIGINT, SIGTERM and SIGHUP so that no temporary output file is
// left behind (output_file.h), and makes a closed pipe an error on write.
void installInterruptHandler();

} // namespace cli
