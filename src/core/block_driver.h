// The one loop that carries a host's block through the library: cut into
// pieces that fit the work buffers, each piece converted from the host's
// interleaved samples into per-channel float buffers, processed, and converted
// back. Every do… export and the chain run it; what differs between them is
// the stage (how a piece is processed) and the two ends (16-bit samples by an
// arithmetic rule, or floats as they are).
#pragma once

#include "arithmetic_rules.h"

#include <cstdint>

namespace dsp {

// Where a piece of input goes: one float buffer per channel (right unused
// for mono).
struct PieceInput {
    float* left;
    float* right;
    uint32_t channels;
};

// What a processed piece left: `frames` frames of `channels` channels. A null
// right buffer with two channels writes left to both.
struct PieceOutput {
    const float* left;
    const float* right;
    uint32_t frames;
    uint32_t channels;
};

// The host's interleaved input, read piece by piece.
class InterleavedInput {
public:
    // 16-bit samples, converted by `rule`.
    InterleavedInput(const int16_t* samples, ArithmeticRule rule) : int16_(samples), rule_(rule) {}
    // Floats, copied as they are (full scale 1.0).
    explicit InterleavedInput(const float* samples) : float_(samples) {}

    // Converts the next `frames` frames into the piece's buffers and moves on.
    void read(uint32_t frames, const PieceInput& to);

private:
    const int16_t* int16_ = nullptr;
    const float* float_ = nullptr;
    ArithmeticRule rule_ = ArithmeticRule::kPlain;
};

// The host's interleaved output, written piece by piece.
class InterleavedOutput {
public:
    InterleavedOutput(int16_t* samples, ArithmeticRule rule) : int16_(samples), rule_(rule) {}
    explicit InterleavedOutput(float* samples) : float_(samples) {}

    // Writes a processed piece and moves on.
    void write(const PieceOutput& piece);

private:
    int16_t* int16_ = nullptr;
    float* float_ = nullptr;
    ArithmeticRule rule_ = ArithmeticRule::kPlain;
};

// Both ends of a block of 16-bit samples, converted by the rule the switches
// select when the block starts.
struct Int16Block {
    Int16Block(const int16_t* src, int16_t* dst)
        : rule(currentRules().rule), in(src, rule), out(dst, rule) {}
    ArithmeticRule rule;
    InterleavedInput in;
    InterleavedOutput out;
};

// Runs `frames` input frames through a stage in pieces and returns the output
// frames written. The stage answers three questions:
//   uint32_t pieceLimit()          most frames the next piece may hold (0: stop)
//   PieceInput pieceInput()        where the next piece is converted to
//   PieceOutput runPiece(uint32_t) processes a piece of that many frames
template <typename Stage>
uint32_t driveBlock(Stage& stage, InterleavedInput& in, InterleavedOutput& out, uint32_t frames) {
    uint32_t written = 0;
    while (frames > 0) {
        const uint32_t limit = stage.pieceLimit();
        const uint32_t piece = frames < limit ? frames : limit;
        if (piece == 0) {
            break;
        }
        in.read(piece, stage.pieceInput());
        const PieceOutput result = stage.runPiece(piece);
        out.write(result);
        written += result.frames;
        frames -= piece;
    }
    return written;
}

} // namespace dsp
