// The effects of `dsp IN OUT EFFECT [ARGS] ...`: parsing from the command
// line and building the processing chain from them, in the given order.
#pragma once

#include "audio_io.h"

#include <any>
#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct EffectSpec {
    std::string name;
    std::vector<std::string> args;
    // The arguments as checked settings of this effect, made by parseEffects
    // (left empty, Chain::add reads them from args with the same parser).
    std::any settings;
};

// Splits the words after IN and OUT into effects (none: a plain copy through
// an empty chain) and reads each one's settings; throws UsageError for an
// unknown effect or malformed arguments (checked against the rules of each
// effect that do not depend on the format).
std::vector<EffectSpec> parseEffects(const std::vector<std::string>& words);

bool isEffectName(const std::string& word);

// Help text listing every effect with its defaults.
std::string effectsHelp();

// A processing chain owning its processors (through the library's chain).
class Chain {
public:
    Chain(uint32_t blockFrames, const AudioFormat& source);
    ~Chain();
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    // Creates the effect's processor for the chain's current output format
    // and appends it; throws UsageError for settings that do not suit that
    // format. totalFrames is the length of the whole input (for fades).
    void add(const EffectSpec& effect, uint64_t totalFrames);

    AudioFormat outputFormat() const;
    // Output bytes room needed for one input block of `frames` frames.
    uint32_t outputCapacityBytes(uint32_t frames) const;
    // Output samples room needed for one input block of `frames` frames
    // through sendFloat.
    uint32_t outputCapacitySamples(uint32_t frames) const;
    // Processes one block; returns output frames.
    uint32_t send(const int16_t* src, uint32_t frames, int16_t* dst);
    // The same through the library's float interface (full scale 1.0).
    uint32_t sendFloat(const float* src, uint32_t frames, float* dst);
    bool empty() const { return descriptions_.empty(); }
    // One line per effect, for reports.
    const std::vector<std::string>& descriptions() const { return descriptions_; }

private:
    void append(uint32_t (*term)(void*), void* processor, const std::string& what);
    // Frames per block at the chain's current end.
    uint32_t blockFramesHere() const;
    // Seconds of audio that reach the chain's current end from a whole input
    // of totalFrames frames.
    double secondsHere(uint64_t totalFrames) const;

    void* chain_ = nullptr;
    uint32_t blockFrames_;
    AudioFormat source_;
    uint32_t order_ = 0;
    std::vector<std::string> descriptions_;
};

} // namespace cli
