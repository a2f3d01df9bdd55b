// The time base and schedule shared by the fader and the cross-fader: linear
// ramps of a level (actions) placed on the ramp's own count of processed
// samples, and the per-sample loop that carries them out.
#pragma once

#include "core/owned_array.h"

#include <cstddef>
#include <cstdint>

namespace dsp {

// One scheduled ramp: from the level in force at `start` to `target` at `end`
// (exclusive).
struct FadeAction {
    uint32_t start;
    uint32_t end;
    float target;
};

class FadeSchedule {
public:
    FadeSchedule(const FadeSchedule&) = delete;
    FadeSchedule& operator=(const FadeSchedule&) = delete;

    // Schedules a ramp to `target` between two times in seconds. Returns false
    // (changing nothing) unless position < start < end, or when the schedule
    // cannot grow.
    bool setAction(float startSeconds, float endSeconds, float target);
    // Clears the schedule between two times; same refusals as setAction.
    bool removeRange(float startSeconds, float endSeconds);

    bool isInitialised() const { return initialised_; }
    // Samples processed since the latest initialisation.
    uint32_t position() const { return position_; }
    // True while the first action is being carried out.
    bool isRunning() const { return running_; }
    // The actions in time order, never overlapping, each with start < end.
    const NothrowVector<FadeAction>& actions() const { return actions_; }
    // The level the first action ramps from, and its change per sample.
    float startLevel() const { return startLevel_; }
    float slope() const { return slope_; }

protected:
    // Levels are held within lowest .. highest wherever the ramp is read.
    FadeSchedule(float lowest, float highest) : lowest_(lowest), highest_(highest) {}
    ~FadeSchedule() = default;

    // (Re)starts the time base at `level` with position 0. A schedule kept
    // from an earlier initialisation stays armed, its times now counting from
    // here.
    void restart(float rate, float level);

    // Runs `frames` samples: `evaluate(level)` on every sample an action is
    // carried out (the head's level there), then `emit(n)` writes output
    // sample n with the gains then in force.
    template <typename Evaluate, typename Emit>
    void run(uint32_t frames, Evaluate evaluate, Emit emit);

private:
    // Where a placed interval goes: after `keep` entries (the last of them,
    // if any, is cut or prolonged to the new start), before entry `resume`.
    struct Placement {
        size_t keep;
        size_t resume;
        bool trimNext;  // entry `resume` now begins at the new end
        bool splitLast; // the rest of entry keep - 1 follows the new action
    };

    // Seconds to a sample position on this ramp's time base.
    uint32_t timeToPosition(float seconds) const;

    bool place(uint32_t start, uint32_t end, float target, bool removal);
    bool append(uint32_t start, uint32_t end, float target, bool removal);
    Placement locate(uint32_t start, uint32_t end) const;
    void takeOver(const Placement& at, const FadeAction& action, bool removal);
    // Room for `extra` more entries, taken before anything changes.
    bool makeRoom(size_t extra);

    // The head's level at `at`, held within the bounds.
    float headLevel(uint32_t at) const;
    // Slope of the first action from startLevel over its interval.
    void updateHeadSlope();
    // Level entry `index` reaches at `at`, continuing at its own slope.
    float levelReached(size_t index, uint32_t at) const;
    // Drops the first action once it has completed; the next one waits.
    void completeHead();

    const float lowest_;
    const float highest_;
    bool initialised_ = false;
    bool running_ = false;
    float startLevel_ = 0.0f;
    float msPerSample_ = 0.0f;
    float slope_ = 0.0f;
    uint32_t position_ = 0;
    NothrowVector<FadeAction> actions_;
};

// A ramp's level at `at`: from + (at - start) * slope, the 32-bit sample
// distance taken modulo 2^32, evaluated wide and rounded once.
inline float rampLevel(float from, float slope, uint32_t start, uint32_t at) {
    return static_cast<float>(static_cast<double>(from) +
                              static_cast<double>(at - start) * static_cast<double>(slope));
}

// A level held within lowest .. highest (NaN passes).
inline float boundedLevel(float level, float lowest, float highest) {
    if (level < lowest) {
        return lowest;
    }
    if (level > highest) {
        return highest;
    }
    return level;
}

inline float FadeSchedule::headLevel(uint32_t at) const {
    return boundedLevel(rampLevel(startLevel_, slope_, actions_.front().start, at), lowest_,
                        highest_);
}

template <typename Evaluate, typename Emit>
void FadeSchedule::run(uint32_t frames, Evaluate evaluate, Emit emit) {
    uint32_t p = position_;
    position_ += frames;
    uint32_t n = 0;
    while (n < frames) {
        if (!running_) {
            if (!actions_.empty() && p >= actions_.front().start) {
                running_ = true; // evaluated on this very sample below
            } else {
                // Idle or waiting: the stored gains hold until the head starts.
                uint32_t run = frames - n;
                if (!actions_.empty() && actions_.front().start - p < run) {
                    run = actions_.front().start - p;
                }
                for (uint32_t k = 0; k < run; ++k) {
                    emit(n + k);
                }
                n += run;
                p += run;
                continue;
            }
        } else if (p >= actions_.front().end) {
            // Completion sample: no new level, the last gains are applied.
            completeHead();
            emit(n);
            ++n;
            ++p;
            continue;
        }
        // Running: a new level on every sample up to the head's end; the
        // activation sample is evaluated even when already at the end.
        const FadeAction& head = actions_.front();
        uint32_t run = frames - n;
        const uint32_t left = head.end > p ? head.end - p : 1;
        if (left < run) {
            run = left;
        }
        const float from = startLevel_;
        const float slope = slope_;
        const uint32_t start = head.start;
        const float lowest = lowest_;
        const float highest = highest_;
        for (uint32_t k = 0; k < run; ++k) {
            evaluate(boundedLevel(rampLevel(from, slope, start, p), lowest, highest));
            emit(n);
            ++n;
            ++p;
        }
    }
}

} // namespace dsp
