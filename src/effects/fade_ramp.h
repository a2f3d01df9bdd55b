// One channel of one fader: a level in dB turned into a gain, changed over
// time by a schedule of linear ramps (actions) placed on the ramp's own count
// of processed samples.
#pragma once

#include <cstdint>

namespace dsp {

// One scheduled ramp: from the level in force at `start` to `target` at `end`
// (exclusive). Entries of a schedule are sorted and never overlap.
struct FadeAction {
    FadeAction* next = nullptr;
    FadeAction* prev = nullptr;
    uint32_t start = 0;
    uint32_t end = 0;
    float target = 0.0f;
};

class FadeRamp {
public:
    FadeRamp() = default;
    FadeRamp(const FadeRamp&) = delete;
    FadeRamp& operator=(const FadeRamp&) = delete;

    // Level of the head action at `position`: startLevel + (position -
    // head.start) * slope, the difference taken modulo 2^32.
    virtual float levelAt(uint32_t position) const;
    // Gain for a level in dB through the decibel table.
    virtual float levelToGain(float level);
    // Frees every scheduled action.
    virtual ~FadeRamp();
    // Runs the schedule over a block and applies the gain; 0 if never
    // initialised, else 1.
    virtual uint32_t process(const float* in, float* out, uint32_t frames);
    uint32_t processBlock(const float* in, float* out) { return process(in, out, blockFrames); }

    // (Re)starts the ramp at `level` with position 0. A schedule kept from an
    // earlier initialisation stays armed, its times now counting from here.
    void initialise(uint32_t frames, float rate, float level);

    // Schedules a ramp to `target` between two times in seconds. Returns false
    // (changing nothing) unless position < start < end, or when the action
    // cannot be allocated.
    bool setAction(float startSeconds, float endSeconds, float target);
    // Clears the schedule between two times; same refusals as setAction.
    bool removeRange(float startSeconds, float endSeconds);

    // Seconds to a sample position on this ramp's time base.
    uint32_t timeToPosition(float seconds) const;

    uint8_t configured = 0;
    uint8_t active = 0;
    uint8_t pending = 0;
    float initialLevel = 0.0f;
    float startLevel = 0.0f;
    uint32_t blockFrames = 0;
    float msPerSample = 0.0f;
    uint32_t position = 0;
    float slope = 0.0f;
    float level = 0.0f;
    float gain = 0.0f;
    FadeAction* head = nullptr;
    FadeAction* tail = nullptr;

protected:
    // The per-sample schedule loop shared by process and the cross-fader's
    // mix; `emit(n)` writes output sample n with the gains then in force.
    template <typename Emit>
    void runSchedule(uint32_t frames, Emit emit);

private:
    bool place(uint32_t start, uint32_t end, float target, bool removal);
    void clearSchedule();
    // Slope of the head from startLevel over its interval.
    void updateHeadSlope();
    // Level an entry's ramp reaches at `at`, continuing at its own slope.
    float levelReached(const FadeAction* entry, uint32_t at) const;
    void unlink(FadeAction* entry);
    // Drops the head once it has completed; arms the next one if any.
    void completeHead();
};

template <typename Emit>
void FadeRamp::runSchedule(uint32_t frames, Emit emit) {
    uint32_t p = position;
    position += frames;
    uint32_t n = 0;
    while (n < frames) {
        if (active == 0) {
            if (pending != 0 && p >= head->start) {
                active = 1; // evaluated on this very sample below
            } else {
                // Idle or waiting: the stored gain holds until the head starts.
                uint32_t run = frames - n;
                if (pending != 0 && head->start - p < run) {
                    run = head->start - p;
                }
                for (uint32_t k = 0; k < run; ++k) {
                    emit(n + k);
                }
                n += run;
                p += run;
                continue;
            }
        } else if (p >= head->end) {
            // Completion sample: no new level, the last gain is applied.
            completeHead();
            emit(n);
            ++n;
            ++p;
            continue;
        }
        // Running: a new level and gain on every sample up to the head's end;
        // the activation sample is evaluated even when already at the end.
        uint32_t run = frames - n;
        uint32_t left = head->end > p ? head->end - p : 1;
        if (left < run) {
            run = left;
        }
        for (uint32_t k = 0; k < run; ++k) {
            level = levelAt(p);
            gain = levelToGain(level);
            emit(n);
            ++n;
            ++p;
        }
    }
}

} // namespace dsp
