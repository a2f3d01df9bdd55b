// The interface of the tool's audio file codecs: its own WAVE reader and
// writer, and the optional libsndfile backend for other containers. Readers
// hand out packed little-endian samples of their SampleType; writers take
// the same. Every error is thrown as Failure with one line naming the file.
#pragma once

#include "byte_stream.h"
#include "sample_format.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cli {

// Containers the tool knows; all but WAVE need libsndfile.
enum class Container : uint8_t { kWave, kFlac, kOggVorbis, kOggOpus, kAiff };

const char* containerName(Container c);

struct StreamFormat {
    Container container = Container::kWave;
    uint32_t rate = 0;
    uint32_t channels = 0;
    SampleType type = SampleType::kInt16;
    bool extensible = false;  // WAVE: written as WAVE_FORMAT_EXTENSIBLE
    uint16_t validBits = 0;   // WAVE extensible: 0 means all bits
    uint32_t channelMask = 0; // WAVE extensible: speaker positions, 0 unassigned
    uint32_t frameBytes() const { return channels * bytesPerSample(type); }
};

// A chunk of a WAVE file that the tool does not interpret (LIST, cue , ...),
// carried from input to output.
struct ExtraChunk {
    std::array<char, 4> id;
    std::vector<uint8_t> body;
};

// Most bytes of extra chunks kept from one input; beyond, chunks are dropped
// with a warning.
constexpr uint64_t kExtraChunkLimit = 16u << 20;

class AudioReader {
public:
    virtual ~AudioReader() = default;
    virtual const StreamFormat& format() const = 0;
    // The frame count from the header; false for a stream of unknown length
    // (read to its end).
    virtual bool lengthKnown() const = 0;
    virtual uint64_t totalFrames() const = 0;
    // Reads up to `frames` frames into dst (format().frameBytes() each);
    // returns fewer only at the end of the samples.
    virtual uint32_t read(uint8_t* dst, uint32_t frames) = 0;
    // Moves to a frame of the samples: by seeking when the source is
    // seekable, else forward by reading.
    virtual void seekFrame(uint64_t frame) = 0;
    // Chunks to carry to a WAVE output (known at open, and after the end of
    // the samples also those that followed them in a stream).
    virtual const std::vector<ExtraChunk>& extraChunks() const = 0;
};

class AudioWriter {
public:
    virtual ~AudioWriter() = default;
    virtual void write(const uint8_t* src, uint32_t frames) = 0;
    // Completes the file (sizes, trailing chunks); the sink is left at its end.
    virtual void finish(const std::vector<ExtraChunk>& trailing) = 0;
};

} // namespace cli
