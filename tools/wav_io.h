// WAVE input and output for the tool, through the library's reader and
// writer. Input is checked to be 16-bit PCM mono or stereo; output goes to a
// temporary file beside the destination and is renamed into place only when
// complete, so a failed or interrupted run never leaves a truncated file.
#pragma once

#include "dsp.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct AudioFormat {
    uint32_t rate = 0;
    uint32_t channels = 0;
};

class WavInput {
public:
    // Opens and checks the file; throws Failure with a clear message.
    WavInput(const std::string& path, uint32_t blockFrames);
    ~WavInput();
    WavInput(const WavInput&) = delete;
    WavInput& operator=(const WavInput&) = delete;

    const AudioFormat& format() const { return format_; }
    uint64_t totalFrames() const { return totalFrames_; }
    double seconds() const { return static_cast<double>(totalFrames_) / format_.rate; }
    const std::string& path() const { return path_; }

    // Reads up to `frames` frames (at most blockFrames) into dst; returns the
    // frames read, 0 at the end of the samples.
    uint32_t read(int16_t* dst, uint32_t frames);
    // Moves to the given frame of the samples.
    void seekFrame(uint64_t frame);
    uint64_t position() const { return position_; }

private:
    // Throws Failure unless the open file is 16-bit PCM mono or stereo.
    void checkFormat();

    std::string path_;
    void* reader_ = nullptr;
    AudioFormat format_;
    uint64_t totalFrames_ = 0;
    uint64_t position_ = 0;
    uint32_t blockFrames_;
};

class WavOutput {
public:
    WavOutput(const std::string& path, const AudioFormat& format);
    ~WavOutput(); // removes the temporary file unless committed
    WavOutput(const WavOutput&) = delete;
    WavOutput& operator=(const WavOutput&) = delete;

    void write(const int16_t* samples, uint32_t frames);
    // Closes the file and renames it into place.
    void commit();
    uint64_t framesWritten() const { return frames_; }

private:
    std::string path_;
    std::string tempPath_;
    void* writer_ = nullptr;
    AudioFormat format_;
    uint64_t frames_ = 0;
    bool committed_ = false;
};

// Refuses (UsageError) an output that is the same file as an input.
void checkDistinct(const std::string& input, const std::string& output);

// Writes a whole buffer of interleaved samples as a WAVE file (used by the
// demo and by slice splitting).
void writeWholeFile(const std::string& path, const AudioFormat& format,
                    const std::vector<int16_t>& samples);

WavefileFormat pcmFormat(const AudioFormat& format);

} // namespace cli
