// Float samples kept for a second pass (--no-clip): in memory while they are
// few, then in a temporary file that has no name (POSIX: unlinked as soon as
// it is created) or is deleted when closed (Windows), so that nothing is
// left behind, also after a crash.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace cli {

class TemporarySamples {
public:
    // The temporary file goes to the directory of `nearPath` (the output;
    // none for "-"), else to $TMPDIR (Windows: the temporary directory),
    // else to /tmp.
    explicit TemporarySamples(const std::string& nearPath);
    ~TemporarySamples();
    TemporarySamples(const TemporarySamples&) = delete;
    TemporarySamples& operator=(const TemporarySamples&) = delete;

    void write(const float* src, size_t count);
    // The largest magnitude written (NaN ignored).
    float peak() const { return peak_; }
    // Hands the samples back in the order written, at most `piece` at a time.
    void replay(size_t piece, const std::function<void(const float* src, size_t count)>& take);

private:
    void spill();
    [[noreturn]] void fail(const std::string& what) const;

    size_t memoryLimit_;
    std::vector<std::string> places_;
    std::vector<float> memory_;
    std::FILE* file_ = nullptr;
    std::string where_; // the directory of the file, for messages
    float peak_ = 0.0f;
};

} // namespace cli
