// The input history of the granular engines: a ring of `span` past samples,
// newest at writeIndex, older ones at increasing indices modulo span.
#pragma once

#include <cstdint>

namespace dsp {
namespace granular {

// x[-m] for m >= 1: ring[(writeIndex + m - 1) mod span].
inline float pastSample(const float* ring, uint32_t writeIndex, uint32_t span, uint32_t m) {
    return ring[(static_cast<uint64_t>(writeIndex) + m - 1) % span];
}

// x[k] of the current chunk: the history for k < 0, in[k] for k >= 0. A
// chunk is followed by the rest of the caller's block, so in[k] past the
// chunk is a later input sample; only a read past the block's `available`
// samples (possible right after a change of setting, when a grain started
// under the old one reads ahead) has no sample and takes the last one.
inline float sampleAt(int64_t k, const float* in, uint32_t available, const float* ring,
                      uint32_t writeIndex, uint32_t span) {
    if (k >= 0) {
        return in[k < available ? k : available - 1];
    }
    return pastSample(ring, writeIndex, span, static_cast<uint32_t>(-k));
}

// The history as the engines read it during a block: the ring, the index of
// its newest sample and the span in use.
struct HistoryView {
    const float* ring;
    uint32_t writeIndex;
    uint32_t span;

    float at(int64_t k, const float* in, uint32_t available) const {
        return sampleAt(k, in, available, ring, writeIndex, span);
    }
};

// Appends the block `in` of `frames` samples with the modulus `span`. When the
// block is at least as long as the history, only its last `span` samples are
// kept and writeIndex stays where it is.
inline void storeHistory(float* ring, uint32_t& writeIndex, uint32_t span, const float* in,
                         uint32_t frames) {
    if (span > frames) {
        writeIndex =
            static_cast<uint32_t>((static_cast<uint64_t>(span) + writeIndex - frames) % span);
        uint32_t index = writeIndex;
        for (uint32_t i = 1; i <= frames; ++i) {
            ring[index] = in[frames - i];
            if (++index == span) {
                index = 0;
            }
        }
    } else {
        uint32_t index = span == 0 ? 0 : writeIndex % span;
        for (uint32_t i = 1; i <= span; ++i) {
            ring[index] = in[frames - i];
            if (++index == span) {
                index = 0;
            }
        }
    }
}

} // namespace granular
} // namespace dsp
