// Reads the samples of a RIFF WAVE file block by block: checks the structure
// at open, keeps the 18-byte format record and the header record the host
// reads, and seeks in bytes or in seconds. Every frame counts as
// 2 x channels bytes (16-bit samples).
#pragma once

#include "core/owned_array.h"
#include "dsp.h"
#include "wavefile/riff_file.h"
#include "wavefile/wavefile_format_codec.h"

#include <cstdint>

namespace dsp {

class WavefileReader {
public:
    WavefileReader() = default;
    ~WavefileReader();
    WavefileReader(const WavefileReader&) = delete;
    WavefileReader& operator=(const WavefileReader&) = delete;

    // Opens `path` and positions the file at the first sample byte, with an
    // own buffer of `frames` frames. Any failure leaves it closed and the file
    // closed.
    void open(const char* path, uint32_t frames);
    // Reads frames x 2 x channels bytes into `buffer`, or into the own buffer
    // (at most its size) when `buffer` is null. Bytes read, 0 when not open,
    // -1 when the file layer fails.
    int32_t read(uint8_t* buffer, uint32_t frames);
    // Mode 0: to `bytes` after the first sample byte; otherwise by `bytes`
    // from the current position. New position, 0 when not open, -1 when the
    // target is before the file's start or beyond 2^31 - 1.
    int32_t seek(int32_t bytes, uint32_t mode);
    // Moves by trunc(rate x seconds) frames, from the first sample byte
    // (mode 0) or from the current position.
    int32_t timeSeek(float seconds, uint32_t mode);
    // Replaces the own buffer by a zero-filled one of `frames` frames; null
    // (and nothing changed) when it cannot be allocated.
    uint8_t* extendBuffer(uint32_t frames);
    // Closes the file and frees the own buffer.
    void close();

    // The records the host reads through pointers.
    WavefileFormat* format() { return &format_; }
    WavefileHeader* header() { return &header_; }

private:
    bool frameBytes(uint32_t frames, uint32_t& bytes) const;
    bool openChecked(const char* path, uint32_t frames);
    // Finds the "WAVE" form and its "fmt " chunk and reads the format body.
    bool readFormatChunk(uint8_t (&body)[kWaveFormatBytes]);
    // The header record the host reads, for the "data" chunk just found.
    void fillHeader();
    int32_t moveTo(int64_t position);

    RiffFile file_;
    RiffChunk riffChunk_;
    RiffChunk chunk_; // "fmt " during open, then "data"
    uint8_t isOpen_ = 0;
    // The records are packed; aligning them keeps the header's pointer and
    // the format's 32-bit fields naturally aligned for the host.
    alignas(8) WavefileFormat format_{};
    alignas(8) WavefileHeader header_{};
    // The reader's own buffer; a caller's buffer is never taken over.
    OwnedArray<uint8_t> ownBuffer_;
};

} // namespace dsp
