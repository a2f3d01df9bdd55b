// The voices of one channel: voiceCount copies of the input, each read from
// the channel's history at a delay that a shared sine LFO sweeps around the
// base delay, spread evenly over the LFO cycle, plus the dry signal.
#pragma once

#include "chorus_delay_line.h"

#include <cstddef>

namespace dsp {

// What a voice set is started from: levels in percent, times in
// milliseconds, the LFO period in seconds.
struct ChorusSettings {
    uint32_t voiceCount;
    float delayMs;
    float depthMs;
    float speed;
    float mixPercent;
    float orgMixPercent;
};

class ChorusVoices {
public:
    // Voices cost two floats each plus their work per sample; a count beyond
    // this is a mistake, not a chorus, and is refused rather than allocated.
    static constexpr uint32_t kMaxVoices = 65536;

    ChorusVoices() = default;
    ChorusVoices(const ChorusVoices&) = delete;
    ChorusVoices& operator=(const ChorusVoices&) = delete;

    // The history and the per-voice arrays for `voices` voices; false, with
    // nothing changed, when refused or when they cannot be allocated.
    bool allocate(uint32_t voices);
    uint32_t voiceCount() const { return static_cast<uint32_t>(phaseOffsets_.size()); }

    // Full restart for the allocated voices: history cleared, LFO restarted,
    // every voice at settings.mixPercent.
    void start(uint32_t rate, const ChorusSettings& settings);
    // Level of one voice; an index beyond the voices changes nothing.
    void setVoiceMix(uint32_t voice, float percent);
    void setOrgMix(float percent);
    void setDelayTime(float delayMs) { sweep_.setDelayTime(delayMs); }
    void setDepth(float depthMs) { sweep_.setDepth(depthMs); }
    void setSpeed(float seconds) { sweep_.setSpeed(seconds); }

    // One block; nothing is written before allocate().
    void process(const float* in, float* out, uint32_t frames);
    // Both channels of a stereo stream: the same results as process() on each.
    static void processPair(ChorusVoices& left, const float* inL, float* outL, ChorusVoices& right,
                            const float* inR, float* outR, uint32_t frames);

private:
    // True when both sets would compute the same delays sample for sample.
    bool sameModulation(const ChorusVoices& other) const;
    // The voices of kChannels sets, one per channel, over one block; the
    // first set's delays and LFO clock serve them all.
    template <size_t kChannels>
    static void runVoices(ChorusVoices* const* sets, const float* const* in, float* const* out,
                          uint32_t frames);

    ChorusDelayLine line_;
    ModulatedDelay sweep_;
    OwnedArray<float> phaseOffsets_; // voice v's LFO phase offset in radians
    OwnedArray<float> voiceMix_;     // voice v's level as a factor
    float orgMix_ = 0.0f;            // the dry signal's level as a factor
};

} // namespace dsp
