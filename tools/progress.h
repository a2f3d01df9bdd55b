// A progress bar on standard error for work that takes longer than about a
// second, drawn only when standard error is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace cli {

class Progress {
public:
    Progress(std::string label, uint64_t total, bool quiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(uint64_t done);
    void finish();

private:
    std::string label_;
    uint64_t total_;
    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
};

} // namespace cli
