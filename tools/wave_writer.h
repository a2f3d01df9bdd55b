// The tool's WAVE writer. On a seekable sink it fixes the sizes at the end
// and, when the file passes 4 GiB, turns the "JUNK" chunk it reserved after
// the WAVE id into "ds64" and the file into RF64. On a stream (a pipe) the
// RIFF, data and fact sizes are written as 0xFFFFFFFF, "unknown": readers
// that take streams (this tool among them) read such a data chunk to the end
// of the stream; readers that trust the sizes reject it or stop at 4 GiB.
#pragma once

#include "audio_codec.h"

namespace cli {

class WaveWriter : public AudioWriter {
public:
    // Writes the header, with `extras` before the data chunk.
    WaveWriter(ByteSink& sink, const StreamFormat& format, const std::vector<ExtraChunk>& extras);

    void write(const uint8_t* src, uint32_t frames) override;
    void finish(const std::vector<ExtraChunk>& trailing) override;

private:
    ByteSink& sink_;
    StreamFormat format_;
    bool seekable_;
    uint64_t junkAt_ = 0;
    uint64_t factAt_ = 0; // 0: no fact chunk
    uint64_t dataSizeAt_ = 0;
    uint64_t dataBytes_ = 0;
};

} // namespace cli
