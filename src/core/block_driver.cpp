#include "block_driver.h"

#include "sample_convert.h"

namespace dsp {

void InterleavedInput::read(uint32_t frames, const PieceInput& to) {
    const uint32_t channels = to.channels == 2 ? 2 : 1;
    if (int16_ != nullptr) {
        convertToFloat(rule_, int16_, frames * 2 * channels, to.left, to.right, channels);
        int16_ += static_cast<size_t>(frames) * channels;
        return;
    }
    if (channels == 2) {
        for (size_t i = 0; i < frames; ++i) {
            to.left[i] = float_[2 * i];
            to.right[i] = float_[2 * i + 1];
        }
    } else {
        for (size_t i = 0; i < frames; ++i) {
            to.left[i] = float_[i];
        }
    }
    float_ += static_cast<size_t>(frames) * channels;
}

void InterleavedOutput::write(const PieceOutput& piece) {
    const uint32_t channels = piece.channels == 2 ? 2 : 1;
    if (int16_ != nullptr) {
        convertToInt16(rule_, piece.left, piece.right, piece.frames, int16_, piece.channels);
        int16_ += static_cast<size_t>(piece.frames) * channels;
        return;
    }
    if (channels == 2) {
        const float* right = piece.right != nullptr ? piece.right : piece.left;
        for (size_t i = 0; i < piece.frames; ++i) {
            float_[2 * i] = piece.left[i];
            float_[2 * i + 1] = right[i];
        }
    } else {
        for (size_t i = 0; i < piece.frames; ++i) {
            float_[i] = piece.left[i];
        }
    }
    float_ += static_cast<size_t>(piece.frames) * channels;
}

} // namespace dsp
