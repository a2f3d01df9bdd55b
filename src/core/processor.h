// The base of every processor the host gets a handle to. A processor has an
// input and output format, six 16-byte aligned float work buffers from the
// fastmem pool (0/1 input left/right, 2/3 output left/right, 4/5 spare), a
// readiness flag and a type tag that every exported call checks.
#pragma once

#include "block_driver.h"
#include "pool_buffer.h"

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

    // Returns the work buffers to the pool and clears the tag, so a handle to
    // a destroyed processor is refused while its memory is not reused.
    virtual ~DspProcessor();
    DspProcessor(const DspProcessor&) = delete;
    DspProcessor& operator=(const DspProcessor&) = delete;

    // The seven operations, in their fixed order (the destructor first).
    // Returns all six work buffers to the pool; ready is then false.
    virtual void releaseBuffers();
    // Sets the input format: setupBuffers(frames, channels), then inRate.
    virtual void configure(uint32_t frames, uint32_t channels, uint32_t rate);
    // Output bytes for an input of srcBytes bytes (identity by default).
    virtual uint32_t getDstSize(uint32_t srcBytes);
    // One channel's block from in to out; returns the output frame count.
    virtual uint32_t processChannel(uint32_t channel, const float* in, float* out,
                                    uint32_t frames) = 0;
    // Both channels (inR/outR only when inChannels is 2); returns the output
    // frame count. The block driver and the chain run every piece through it.
    virtual uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                                    uint32_t frames) = 0;
    // The whole int16-in, int16-out step through the work buffers. This
    // standard step, for the effects that keep the rate, runs the block and
    // returns `bytes`; the rate and time changers return the bytes written.
    virtual uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes);

    // Keeps the buffers when ready and frames <= inFrames, else takes six new
    // ones of frames floats. Records the format (outRate untouched, inRate 0).
    // Returns false, with ready false and no buffers held, when the pool fails
    // or channels is neither 1 nor 2.
    bool setupBuffers(uint32_t frames, uint32_t channels);

    // Runs `frames` frames of the host's interleaved stream through the block
    // driver: each piece converted into work[0]/work[1], run through
    // processChained into work[2]/work[3] and converted out. Returns the
    // output frames written (0 when the processor is not ready).
    uint32_t runPieces(InterleavedInput& in, InterleavedOutput& out, uint32_t frames);
    // runPieces with each piece processed by `process(frames)`, which returns
    // the output frames it left in work[2]/work[3], instead of processChained.
    template <typename Process>
    uint32_t runPiecesWith(InterleavedInput& in, InterleavedOutput& out, uint32_t frames,
                           Process process);
    // runPieces over 16-bit samples under the rules the switches select now;
    // `bytes` holds bytes / (2 x inChannels) whole frames. Returns the output
    // bytes written.
    uint32_t runInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes);

    bool hasTag(uint32_t expected) const { return tag_ == expected; }
    bool isReady() const { return ready_; }
    uint32_t inChannels() const { return inChannels_; }
    uint32_t outChannels() const { return outChannels_; }
    uint32_t inFrames() const { return inFrames_; }
    uint32_t outFrames() const { return outFrames_; }
    uint32_t inRate() const { return inRate_; }
    uint32_t outRate() const { return outRate_; }
    // Work buffer `index` (null when not held) and the floats it holds.
    float* work(int index) const { return work_[index].data(); }
    uint32_t workCapacity(int index) const { return work_[index].size(); }

    // The block driver's view of a processor (see driveBlock).
    uint32_t pieceLimit() const;
    PieceInput pieceInput() const;
    PieceOutput runPiece(uint32_t frames);
    // What a piece of `frames` output frames in work[2]/work[3] is written as:
    // outChannels channels, a mono input's single buffer to both when the
    // output is stereo.
    PieceOutput outputOf(uint32_t frames) const;
    // The most output frames a piece of `frames` input frames (at most
    // pieceLimit()) can leave: what hosts size their buffers by. The same
    // count for the effects that keep the rate.
    virtual uint32_t pieceOutputBound(uint32_t frames) const { return frames; }

protected:
    explicit DspProcessor(uint32_t tag) : tag_(tag) {}

    // The largest piece the output buffers can take; inFrames unless a class
    // sizes its output differently.
    virtual uint32_t largestPiece() const { return inFrames_; }

    // Replaces one work buffer by a pool block of `floats` floats (the rate
    // changers, whose output buffers differ in size from the input ones). On
    // failure the slot is left empty and false is returned.
    bool replaceWorkBuffer(int index, uint32_t floats);
    // Puts a buffer the class allocated itself in a slot (the old one goes
    // back to the pool).
    void installWorkBuffer(int index, PoolBuffer buffer);

    // setupBuffers and both rates: the configure step of the effects that
    // keep the rate.
    bool setupKeepingRate(uint32_t frames, uint32_t channels, uint32_t rate);
    void setInRate(uint32_t rate) { inRate_ = rate; }
    void setOutRate(uint32_t rate) { outRate_ = rate; }
    void setOutFrames(uint32_t frames) { outFrames_ = frames; }
    void setOutChannels(uint32_t channels) { outChannels_ = channels; }

private:
    template <typename T>
    friend T* processorFromHandle(void* handle, uint32_t expectedTag);

    bool ready_ = false;
    uint32_t tag_ = kTagNone;
    PoolBuffer work_[kWorkBuffers];
    uint32_t inChannels_ = 0;
    uint32_t outChannels_ = 0;
    uint32_t inFrames_ = 0;
    uint32_t outFrames_ = 0;
    uint32_t inRate_ = 0;
    uint32_t outRate_ = 0;
};

template <typename Process>
uint32_t DspProcessor::runPiecesWith(InterleavedInput& in, InterleavedOutput& out, uint32_t frames,
                                     Process process) {
    struct Stage {
        DspProcessor& processor;
        Process& process;
        uint32_t pieceLimit() const { return processor.pieceLimit(); }
        PieceInput pieceInput() const { return processor.pieceInput(); }
        PieceOutput runPiece(uint32_t n) { return processor.outputOf(process(n)); }
    } stage{*this, process};
    return driveBlock(stage, in, out, frames);
}

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
    if (p == nullptr || p->tag_ != expectedTag) {
        return nullptr;
    }
    return static_cast<T*>(p);
}

// Destroys a processor created by an init function (deleting destructor).
void destroyProcessor(DspProcessor* processor);

} // namespace dsp
