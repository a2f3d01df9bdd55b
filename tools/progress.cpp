#include "progress.h"

#include "cli_error.h"
#include "output_file.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#if defined(_WIN32)
#include <io.h>
#define DSP_ISATTY(fd) _isatty(fd)
#define DSP_STDERR_FD 2
#else
#include <signal.h>
#include <unistd.h>
#define DSP_ISATTY(fd) isatty(fd)
#define DSP_STDERR_FD STDERR_FILENO
#endif

namespace cli {

namespace {
volatile std::sig_atomic_t interruptFlag = 0;

// The first SIGINT asks the loops to stop: they do at the next block (a
// write waiting on a pipe returns early), and the output is discarded on the
// way out. SIGTERM, SIGHUP or a second SIGINT end the process at once:
// the output's temporary file is removed, then the signal takes its usual
// course. Only async-signal-safe calls here.
extern "C" void onSignal(int sig) {
    if (sig == SIGINT && interruptFlag == 0) {
        interruptFlag = 1;
#if defined(_WIN32)
        std::signal(SIGINT, onSignal); // reset to the default on each call
#endif
        return;
    }
    interruptFlag = 1;
    discardTemporaryOutputs();
#if defined(_WIN32)
    _exit(128 + sig);
#else
    // Delivered, and fatal, as soon as this handler returns.
    signal(sig, SIG_DFL);
    raise(sig);
#endif
}
} // namespace

bool interrupted() {
    return interruptFlag != 0;
}

void installInterruptHandler() {
#if defined(_WIN32)
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
#else
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&action.sa_mask, sig);
    }
    // No SA_RESTART: a blocking write or open returns, so the loop sees
    // the flag.
    action.sa_flags = 0;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(sig, &action, nullptr);
    }
    // A closed pipe is reported as an error on the write, naming the file.
    signal(SIGPIPE, SIG_IGN);
#endif
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
