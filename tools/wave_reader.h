// The tool's WAVE reader: PCM (8-bit unsigned, 16, 24, 32-bit) and IEEE
// float (32, 64-bit), plain or WAVE_FORMAT_EXTENSIBLE, in RIFF or RF64
// files, from seekable files or from streams whose sizes are unknown (read
// to the end). Chunks it does not interpret are kept for the output.
#pragma once

#include "audio_codec.h"

namespace cli {

class WaveReader : public AudioReader {
public:
    // Reads the header from the source's current position (its start) up to
    // the first sample; throws Failure naming the field at fault.
    explicit WaveReader(ByteSource& source);

    const StreamFormat& format() const override { return format_; }
    bool lengthKnown() const override { return lengthKnown_; }
    uint64_t totalFrames() const override { return totalFrames_; }
    uint32_t read(uint8_t* dst, uint32_t frames) override;
    void seekFrame(uint64_t frame) override;
    const std::vector<ExtraChunk>& extraChunks() const override { return extras_; }

    // Warnings of the header walk (dropped chunks), one line each.
    const std::vector<std::string>& warnings() const { return warnings_; }

private:
    [[noreturn]] void fail(const std::string& problem) const;
    void readExact(void* dst, size_t bytes, const char* where);
    void skip(uint64_t bytes);
    void parseFormat(const std::vector<uint8_t>& body);
    // Keeps or drops (with a warning) a chunk whose header was just read.
    void takeChunk(const char* id, uint64_t size);
    // Chunks after the data: walked at open for a seekable source, at the
    // end of the samples for a stream. Damage there ends the walk quietly.
    void collectTrailingChunks();

    ByteSource& source_;
    StreamFormat format_;
    bool haveFormat_ = false;
    bool lengthKnown_ = true;
    uint64_t totalFrames_ = 0;
    uint64_t dataStart_ = 0;
    uint64_t dataBytes_ = 0;
    uint64_t framesRead_ = 0;
    bool trailingDone_ = false;
    uint64_t keptBytes_ = 0;
    std::vector<ExtraChunk> extras_;
    std::vector<std::string> warnings_;
};

} // namespace cli
