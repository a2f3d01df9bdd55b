#include "progress.h"

#include "cli_error.h"

#include <csignal>
#include <cstdio>

#if defined(_WIN32)
#include <io.h>
#define DSP_ISATTY(fd) _isatty(fd)
#define DSP_STDERR_FD 2
#else
#include <unistd.h>
#define DSP_ISATTY(fd) isatty(fd)
#define DSP_STDERR_FD STDERR_FILENO
#endif

namespace cli {

namespace {
volatile std::sig_atomic_t interruptFlag = 0;

extern "C" void onInterrupt(int) {
    interruptFlag = 1;
}
} // namespace

bool interrupted() {
    return interruptFlag != 0;
}

void installInterruptHandler() {
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
}

Progress::Progress(std::string label, uint64_t total, bool quiet)
    : label_(std::move(label)), total_(total),
      enabled_(!quiet && total > 0 && DSP_ISATTY(DSP_STDERR_FD) != 0),
      start_(std::chrono::steady_clock::now()), lastDraw_(start_) {}

Progress::~Progress() {
    finish();
}

void Progress::update(uint64_t done) {
    if (!enabled_) {
        return;
    }
    auto now = std::chrono::steady_clock::now();
    // Only work that lasts longer than about a second gets a bar, redrawn
    // ten times a second at most.
    if (now - start_ < std::chrono::seconds(1) ||
        (shown_ && now - lastDraw_ < std::chrono::milliseconds(100))) {
        return;
    }
    lastDraw_ = now;
    shown_ = true;
    const int width = 30;
    double fraction = done >= total_ ? 1.0 : static_cast<double>(done) / total_;
    int filled = static_cast<int>(fraction * width);
    std::string bar(filled, '#');
    bar.append(width - filled, '.');
    std::fprintf(stderr, "\r%s [%s] %3d%%", label_.c_str(), bar.c_str(),
                 static_cast<int>(fraction * 100));
    std::fflush(stderr);
}

void Progress::finish() {
    if (shown_) {
        std::fprintf(stderr, "\r%*s\r", static_cast<int>(label_.size()) + 40, "");
        std::fflush(stderr);
        shown_ = false;
    }
    enabled_ = false;
}

} // namespace cli
