// WAVE input and output for the tool. Input goes through the library's
// reader and is checked to be 16-bit PCM mono or stereo; output goes
// through an OutputFile (output_file.h), so a failed or interrupted run
// never leaves a truncated file or damages anything.
#pragma once

#include "dsp.h"
#include "output_file.h"

#include <cstdint>
#include <memory>
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

// A 16-bit PCM WAVE file. A seekable output gets its sizes by commit(); a
// stream (a pipe, a device) has them marked unknown (0xFFFFFFFF), as
// readers of streamed WAVE expect.
class WavOutput {
public:
    // `inputs` are the files the output may not be.
    WavOutput(const std::string& path, const AudioFormat& format,
              const std::vector<std::string>& inputs);

    void write(const int16_t* samples, uint32_t frames);
    // Completes the header and puts the file in place; without it the
    // output is discarded.
    void commit();
    uint64_t framesWritten() const { return frames_; }
    const std::string& path() const;

private:
    std::unique_ptr<OutputFile> file_;
    AudioFormat format_;
    uint64_t frames_ = 0;
};

// Writes a whole buffer of interleaved samples as a WAVE file (used by the
// demo and by slice splitting).
void writeWholeFile(const std::string& path, const AudioFormat& format,
                    const std::vector<int16_t>& samples, const std::vector<std::string>& inputs);

WavefileFormat pcmFormat(const AudioFormat& format);

} // namespace cli
