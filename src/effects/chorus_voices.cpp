#include "chorus_voices.h"

#include "core/lookup_tables.h"
#include "core/numeric.h"

namespace dsp {

namespace {

constexpr double kTwoPi = 6.283185307179586;

// One channel of a block: where its voices read and write, and its levels.
struct VoiceChannel {
    float* history;
    const float* voiceMix;
    double orgMix;
    const float* in;
    float* out;
};

} // namespace

bool ChorusVoices::allocate(uint32_t voices) {
    if (voices > kMaxVoices) {
        return false;
    }
    OwnedArray<float> history = ChorusDelayLine::allocateHistory();
    OwnedArray<float> phaseOffsets = OwnedArray<float>::allocate(voices);
    OwnedArray<float> voiceMix = OwnedArray<float>::allocate(voices);
    if (!history || !phaseOffsets || !voiceMix) {
        return false;
    }
    line_.install(std::move(history));
    phaseOffsets_ = std::move(phaseOffsets);
    voiceMix_ = std::move(voiceMix);
    return true;
}

void ChorusVoices::start(uint32_t rate, const ChorusSettings& settings) {
    line_.clear();
    sweep_.start(rate, settings.delayMs, settings.depthMs, settings.speed);
    setOrgMix(settings.orgMixPercent);
    const float mix = static_cast<float>(0.01 * static_cast<double>(settings.mixPercent));
    const uint32_t voices = voiceCount();
    const double spacing = voices == 0 ? 0.0 : kTwoPi / static_cast<double>(voices);
    for (uint32_t v = 0; v < voices; ++v) {
        phaseOffsets_[v] = static_cast<float>(static_cast<double>(v) * spacing);
        voiceMix_[v] = mix;
    }
}

void ChorusVoices::setVoiceMix(uint32_t voice, float percent) {
    if (voice < voiceCount()) {
        voiceMix_[voice] = static_cast<float>(0.01 * static_cast<double>(percent));
    }
}

void ChorusVoices::setOrgMix(float percent) {
    orgMix_ = static_cast<float>(0.01 * static_cast<double>(percent));
}

// One per-sample body serves one channel and a stereo pair at the same speed:
// the channel count is a compile-time constant.
template <size_t kChannels>
void ChorusVoices::runVoices(ChorusVoices* const* sets, const float* const* in, float* const* out,
                             uint32_t frames) {
    const ChorusVoices& lead = *sets[0];
    const SineTable& sine = sineTable();
    const double phaseStep = kTwoPi * static_cast<double>(lead.sweep_.cyclesPerMs());
    const double depth = lead.sweep_.depth();
    const double delay = lead.sweep_.delay();
    const float msPerSample = lead.sweep_.msPerSample();
    const float periodMs = lead.sweep_.periodMs();
    const uint32_t voices = lead.voiceCount();
    const float* phaseOffsets = lead.phaseOffsets_.data();
    VoiceChannel channel[kChannels];
    for (size_t c = 0; c < kChannels; ++c) {
        ChorusVoices& set = *sets[c];
        channel[c] = {set.line_.history(), set.voiceMix_.data(), set.orgMix_, in[c], out[c]};
    }
    uint32_t writeIndex = lead.line_.writeIndex();
    float lfoTime = lead.sweep_.lfoTime();
    for (uint32_t n = 0; n < frames; ++n) {
        float sample[kChannels];
        for (size_t c = 0; c < kChannels; ++c) {
            sample[c] = channel[c].in[n];
        }
        double acc[kChannels] = {};
        const double phase = static_cast<double>(lfoTime) * phaseStep;
        for (uint32_t v = 0; v < voices; ++v) {
            const double lfo = sine.lookup(static_cast<double>(phaseOffsets[v]) + phase);
            // Whole samples: the swept delay moves in steps of one sample.
            const int32_t d = truncToInt32(delay + lfo * depth);
            const uint32_t at = (writeIndex - static_cast<uint32_t>(d)) & ChorusDelayLine::kMask;
            for (size_t c = 0; c < kChannels; ++c) {
                acc[c] += static_cast<double>(channel[c].history[at]) *
                          static_cast<double>(channel[c].voiceMix[v]);
            }
        }
        // Stored after every voice has read, so a delay of 0 reads a full
        // history back.
        for (size_t c = 0; c < kChannels; ++c) {
            channel[c].history[writeIndex] = sample[c];
            channel[c].out[n] =
                static_cast<float>(acc[c] + static_cast<double>(sample[c]) * channel[c].orgMix);
        }
        writeIndex = (writeIndex + 1) & ChorusDelayLine::kMask;
        lfoTime = ModulatedDelay::nextLfoTime(lfoTime, msPerSample, periodMs);
    }
    for (size_t c = 0; c < kChannels; ++c) {
        sets[c]->line_.setWriteIndex(writeIndex);
        sets[c]->sweep_.setLfoTime(lfoTime);
    }
}

void ChorusVoices::process(const float* in, float* out, uint32_t frames) {
    if (!line_.isAllocated()) {
        return;
    }
    ChorusVoices* const sets[] = {this};
    runVoices<1>(sets, &in, &out, frames);
}

bool ChorusVoices::sameModulation(const ChorusVoices& other) const {
    if (this == &other || !line_.isAllocated() || !other.line_.isAllocated() ||
        voiceCount() != other.voiceCount() || line_.writeIndex() != other.line_.writeIndex() ||
        !sweep_.sweepsLike(other.sweep_)) {
        return false;
    }
    for (uint32_t v = 0; v < voiceCount(); ++v) {
        if (phaseOffsets_[v] != other.phaseOffsets_[v]) {
            return false;
        }
    }
    return true;
}

// Both channels normally share every modulation setting and the LFO clock,
// so each sample's delays are computed once for both.
void ChorusVoices::processPair(ChorusVoices& left, const float* inL, float* outL,
                               ChorusVoices& right, const float* inR, float* outR,
                               uint32_t frames) {
    if (!left.sameModulation(right)) {
        left.process(inL, outL, frames);
        right.process(inR, outR, frames);
        return;
    }
    ChorusVoices* const sets[] = {&left, &right};
    const float* const in[] = {inL, inR};
    float* const out[] = {outL, outR};
    runVoices<2>(sets, in, out, frames);
}

} // namespace dsp
