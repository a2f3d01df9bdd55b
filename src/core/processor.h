// The base of every processor the host gets a handle to. A processor has an
// input and output format, six 16-byte aligned float work buffers from the
// fastmem pool (0/1 input left/right, 2/3 output left/right, 4/5 spare), a
// readiness byte and a type tag that every exported call checks.
#pragma once

#include <cstdint>

namespace dsp {

enum ProcessorTag : uint32_t {
    kTagNone = 0,
    kTagAnalyzer = 1,
    kTagFader = 2,
    kTagIirFilter = 3,
    kTagWaveSlice = 4,
    kTagResampler = 5,
    kTagHqups = 6,
    kTagPitchShift = 7,
    kTagStretch = 8,
    kTagChorus = 9,
};

class DspProcessor {
public:
    static constexpr int kWorkBuffers = 6;

    DspProcessor() = default;
    // Returns the work buffers to the pool and clears the tag, so a handle to
    // a destroyed processor is refused while its memory is not reused.
    virtual ~DspProcessor();
    DspProcessor(const DspProcessor&) = delete;
    DspProcessor& operator=(const DspProcessor&) = delete;

    // Returns all six work buffers to the pool (when ready) and leaves the
    // pointers null and ready 0.
    virtual void releaseBuffers();
    // Sets the input format: setupBuffers(frames, channels), then inRate.
    virtual void configure(uint32_t frames, uint32_t channels, uint32_t rate);
    // Output bytes for an input of srcBytes bytes (identity by default).
    virtual uint32_t getDstSize(uint32_t srcBytes);
    // One channel's block from in to out; returns the output frame count.
    virtual uint32_t processChannel(uint32_t channel, const float* in, float* out,
                                    uint32_t frames) = 0;
    // Both channels (inR/outR only when inChannels is 2); returns the output
    // frame count. The chain drives every node through this.
    virtual uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                                    uint32_t frames) = 0;
    // The whole int16-in, int16-out step through the work buffers.
    virtual uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) = 0;

    // Keeps the buffers when ready and frames <= inFrames, else takes six new
    // ones of frames floats. Records the format (outRate untouched, inRate 0).
    // Returns false, with ready 0 and no buffers held, when the pool fails or
    // channels is neither 1 nor 2.
    bool setupBuffers(uint32_t frames, uint32_t channels);

    // Replaces one work buffer by a pool block of `floats` floats (used by the
    // rate changers, whose output buffers differ in size from the input ones).
    // On failure the slot is left null and false is returned.
    bool replaceWorkBuffer(int index, uint32_t floats);

    bool hasTag(uint32_t expected) const { return tag == expected; }

    uint8_t ready = 0;
    uint32_t tag = kTagNone;
    float* work[kWorkBuffers] = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    uint32_t inChannels = 0;
    uint32_t outChannels = 0;
    uint32_t inFrames = 0;
    uint32_t outFrames = 0;
    uint32_t inRate = 0;
    uint32_t outRate = 0;

protected:
    // The standard interleaved step of the effects that keep the rate:
    // convert in, processChannel per channel, convert out; returns bytes.
    // A block larger than inFrames is processed in pieces of inFrames frames.
    uint32_t interleavedTemplate(const int16_t* src, int16_t* dst, uint32_t bytes);
};

// Returns the processor behind a handle when its tag matches, else null.
// The tag is read before the type is known: the handle may be a destroyed
// processor whose storage the host still holds (it reads tag 0), which the
// sanitizers' dynamic-type check would otherwise report.
template <typename T>
#if defined(__GNUC__)
__attribute__((no_sanitize("vptr")))
#endif
T* processorFromHandle(void* handle, uint32_t expectedTag) {
    DspProcessor* p = static_cast<DspProcessor*>(handle);
    if (p == nullptr || p->tag != expectedTag) {
        return nullptr;
    }
    return static_cast<T*>(p);
}

// Destroys a processor created by an init function (deleting destructor).
void destroyProcessor(DspProcessor* processor);

} // namespace dsp
