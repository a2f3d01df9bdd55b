// The measuring processors (analyzers, wave slicer) take host blocks longer
// than their work buffers piece by piece: each piece is converted into the
// buffers and measured before the next one comes.
#pragma once

#include "core/block_driver.h"

#include <cstdint>

namespace dsp {

// Converts `frames` frames of 16-bit samples into `to`, at most `limit` at a
// time (limit > 0), under the rule the switches select now, and calls
// measure(done, piece) after each piece of `piece` frames, `done` frames in.
template <typename Measure>
void measureInPieces(const int16_t* src, uint32_t frames, uint32_t limit, const PieceInput& to,
                     Measure measure) {
    InterleavedInput in(src, currentRules().rule);
    for (uint32_t done = 0; done < frames;) {
        const uint32_t piece = frames - done < limit ? frames - done : limit;
        in.read(piece, to);
        measure(done, piece);
        done += piece;
    }
}

} // namespace dsp
