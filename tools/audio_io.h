// Audio input and output of the tool's commands, over the codecs of
// audio_formats.h. Input: a file or standard input ("-"), any format the
// codecs read, handed out as packed samples, floats (full scale 1.0) or the
// library's 16-bit samples. Output: a file or standard output ("-"), put in
// place only when complete (a failed or interrupted run leaves nothing).
#pragma once

#include "audio_codec.h"
#include "file_source.h"
#include "output_file.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cli {

struct AudioFormat {
    uint32_t rate = 0;
    uint32_t channels = 0;
};

// How outputs are encoded: the sample type from --bits (none: the input's)
// and whether reducing the bits adds dither (--no-dither).
struct OutputEncoding {
    std::optional<SampleType> type;
    bool dither = true;
};

class AudioInput {
public:
    // Opens and checks the input; throws Failure with one line naming the
    // file and the problem. Warnings go to standard error.
    explicit AudioInput(const std::string& path);

    const StreamFormat& stream() const { return reader_->format(); }
    AudioFormat format() const { return AudioFormat{stream().rate, stream().channels}; }
    bool lengthKnown() const { return reader_->lengthKnown(); }
    // The frames the header promises (0 when the length is unknown).
    uint64_t totalFrames() const { return reader_->totalFrames(); }
    const std::string& path() const { return path_; }
    const std::string& name() const { return source_.name(); }
    uint64_t position() const { return position_; }
    const std::vector<ExtraChunk>& extraChunks() const { return reader_->extraChunks(); }

    // Each reads up to `frames` frames and returns the frames read, fewer
    // only at the end of the samples.
    uint32_t readRaw(uint8_t* dst, uint32_t frames);
    uint32_t readFloat(float* dst, uint32_t frames);
    // 16-bit input as it is; other input by the library's 16-bit rule.
    uint32_t readInt16(int16_t* dst, uint32_t frames);
    void seekFrame(uint64_t frame);

private:
    std::string path_;
    FileSource source_;
    std::unique_ptr<AudioReader> reader_;
    std::vector<uint8_t> raw_;
    std::vector<float> floats_;
    uint64_t position_ = 0;
};

class AudioOutput {
public:
    // Opens OUT for samples of `format` (rate and channels) encoded as
    // chosen from the input's stream and `encoding`; `inputs` may not be OUT.
    AudioOutput(const std::string& path, const std::vector<std::string>& inputs,
                const AudioFormat& format, const StreamFormat& input,
                const OutputEncoding& encoding, const std::vector<ExtraChunk>& extras);

    const StreamFormat& stream() const { return stream_; }
    bool dithered() const { return dither_.has_value(); }
    void writeRaw(const uint8_t* src, uint32_t frames);
    void writeFloat(const float* src, uint32_t frames);
    void writeInt16(const int16_t* src, uint32_t frames);
    // Completes the file (with chunks that followed the input's samples)
    // and puts it in place.
    void commit(const std::vector<ExtraChunk>& trailing = {});
    uint64_t framesWritten() const { return frames_; }

private:
    std::unique_ptr<OutputFile> target_;
    StreamFormat stream_;
    std::unique_ptr<AudioWriter> writer_;
    std::optional<Dither> dither_;
    std::vector<uint8_t> raw_;
    std::vector<float> floats_;
    uint64_t frames_ = 0;
};

// Writes a whole buffer of interleaved 16-bit samples (the demo's material,
// a slice); `inputs` may not be the output.
void writeWholeFile(const std::string& path, const AudioFormat& format,
                    const std::vector<int16_t>& samples, const std::vector<std::string>& inputs);

// "24-bit PCM, 44100 Hz, stereo".
std::string streamDescription(const StreamFormat& format);

} // namespace cli
