// Numbers given on the command line.
#pragma once

#include <cstdlib>
#include <string>

namespace cli {

// Reads the whole word as a number; false if it is empty or anything follows
// the number. Infinities and NaN are read: callers that need a finite value
// check for one.
inline bool readNumber(const std::string& word, double& value) {
    char* end = nullptr;
    value = std::strtod(word.c_str(), &end);
    return !word.empty() && end != nullptr && *end == '\0';
}

} // namespace cli
