// Short-time spectra of one channel: bring samples in, window N of them with a
// Hann window, transform them in place with a forward real FFT and, on
// request, turn the first N/2 bins into floored dB magnitudes.
//
// FftEngine keeps a sliding history (each frame shifts it by a hop and appends
// the hop's new samples); BlockFftEngine windows the first N samples of the
// block it is given and keeps nothing between calls.
//
// The transform's cos/sin tables live inside the object, which makes it large
// (about 80 KiB): it is embedded by value in its users.
#pragma once

#include "core/owned_array.h"

#include <cstdint>

namespace dsp {

class FftEngine {
public:
    static constexpr uint32_t kMinSize = 4;
    static constexpr uint32_t kMaxSize = 32768;
    static constexpr uint32_t kTwiddleEntries = 20480;
    // Bit-reversal offsets of the largest transform (one per low index).
    static constexpr uint32_t kBitrevOffsets = 64;

    FftEngine() = default;
    virtual ~FftEngine() = default;
    FftEngine(const FftEngine&) = delete;
    FftEngine& operator=(const FftEngine&) = delete;

    // Brings samples in and fills the frame: `hop` samples into the history
    // (sliding), or the first fftSize samples of `in` (block).
    virtual void loadFrame(const float* in);

    // Allocates (or reuses, when large enough) the buffers, computes the
    // window and sets the floor to -rangeDb. Buffers only grow; a longer
    // history starts as zeros, a larger size forgets the tables. Returns
    // false, changing nothing, for a size that is not a power of two in
    // 4..32768 or when an allocation fails. The sliding variant needs
    // historyLength >= fftSize and >= hop (a frame loaded otherwise leaves
    // everything as it was).
    bool setup(uint32_t hop, uint32_t historyLength, uint32_t fftSize, float rangeDb);

    // loadFrame(in), then the forward real transform of the frame in place.
    void analyze(const float* in);

    // Writes the dB magnitudes of bins 0 .. N/2-1 (bin 0 combines the DC and
    // Nyquist terms), floored; returns N/2.
    uint32_t magnitudesDb(float* out) const;

    // Forward real transform of n floats in place (n a power of two, at most
    // 32768). Result, unscaled: a[0] = sum x, a[1] = sum x (-1)^j, and for
    // 0 < k < n/2: a[2k] = sum x cos(2 pi jk/n), a[2k+1] = sum x sin(2 pi jk/n).
    void realFft(float* a, uint32_t n);

    uint32_t fftSize() const { return fftSize_; }
    uint32_t hop() const { return hop_; }
    uint32_t historyLength() const { return historyLength_; }
    const float* window() const { return window_.data(); }
    const float* history() const { return history_.data(); }
    // The windowed frame; after analyze, its packed spectrum.
    const float* frame() const { return frame_.data(); }
    // The transform's tables: the complex-stage table (complexTableSize()
    // entries) followed by the post-processing table (postTableSize()).
    const float* twiddles() const { return twiddles_; }
    uint32_t complexTableSize() const { return complexTableSize_; }
    uint32_t postTableSize() const { return postTableSize_; }

protected:
    // frame[i] = samples[i] * window[i] for the fftSize samples.
    void windowFrom(const float* samples);

private:
    void buildTwiddles(uint32_t nw);
    void buildPostTable(uint32_t nc);
    void complexFft(float* a, uint32_t n);
    void postProcess(float* a, uint32_t n) const;
    void bitReverse(float* a, uint32_t n);

    OwnedArray<float> history_; // oldest first (sliding variant only)
    OwnedArray<float> window_;
    OwnedArray<float> frame_;
    uint32_t fftSize_ = 0;
    uint32_t keepCount_ = 0; // historyLength - hop: carried from frame to frame
    uint32_t hop_ = 0;
    uint32_t historyLength_ = 0;
    float floorDb_ = 0.0f;
    // Sizes of the tables built so far (0: none).
    uint32_t complexTableSize_ = 0;
    uint32_t postTableSize_ = 0;
    float twiddles_[kTwiddleEntries];
    // Scratch of the bit-reversal permutation.
    int32_t bitrevOffsets_[kBitrevOffsets];
};

class BlockFftEngine : public FftEngine {
public:
    // frame[i] = window[i] * in[i]; the history is not touched.
    void loadFrame(const float* in) override;
};

// True for the transform lengths the engines support: powers of two 4..32768.
inline bool isSupportedFftSize(uint32_t n) {
    return n >= FftEngine::kMinSize && n <= FftEngine::kMaxSize && (n & (n - 1)) == 0;
}

} // namespace dsp
