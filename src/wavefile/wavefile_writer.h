// Creates a RIFF WAVE file with a fixed header (RIFF, an 18-byte "fmt ", a
// "data" chunk with the provisional size 307200), appends sample bytes as they
// come and fixes the chunk sizes at close.
#pragma once

#include "dsp.h"
#include "wavefile/riff_file.h"

#include <cstdint>

namespace dsp {

class WavefileWriter {
public:
    static constexpr uint32_t kProvisionalDataBytes = 307200;

    // Copies `source` (when given) and creates the file; any failure leaves
    // it closed.
    void open(const char* path, const WavefileFormat* source);
    // Bytes written, 0 when not open, -1 on error (including a write that
    // would take the file past what the 32-bit RIFF size can describe).
    int32_t write(const void* data, int32_t bytes);
    // 1 once buffered bytes are on their way to disk, 0 when not open or the
    // write-back fails.
    uint32_t flush();
    // Fixes the sizes and closes; the "data" size, or 0 when not open or
    // when fixing, flushing or closing fails.
    uint32_t close();

    // The record the host reads through a pointer.
    WavefileFormat* format() { return &format_; }

private:
    bool writeHeader();

    RiffFile file_;
    RiffChunk riffChunk_;
    RiffChunk chunk_; // "fmt " while the header is written, then "data"
    uint8_t isOpen_ = 0;
    alignas(8) WavefileFormat format_{}; // packed; aligned for the host's reads
};

} // namespace dsp
