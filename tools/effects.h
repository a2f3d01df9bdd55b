// The effects of `dsp IN OUT EFFECT [ARGS] ...`: parsing from the command
// line and building the processing chain from them, in the given order.
#pragma once

#include "audio_io.h"
#include "passband_equaliser.h"

#include <any>
#include <cstdint>
#include <memory>
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

// The block size of a chain's host loop. The resampler converts a block in
// chunks of at most 4096 frames, each mapped onto a whole number of output
// frames from a fresh interpolation position: blocks whose chunks are whole
// cycles of the two rates (multiples of srcRate / gcd(srcRate, dstRate)) keep
// the position continuous and the output length exact. The block serves
// every rate change of the chain where the rates allow such a block.
// When every rate change is served and nothing varies the length (exact),
// the host pads the last block with silence to a whole block and cuts the
// output at outputFrames(input frames): the exact length, one that a short
// last block could miss by a frame (the converter's double arithmetic).
struct BlockChoice {
    uint32_t frames = 4096;
    std::string note; // one line describing the choice, for --verbose
    bool exact = false;
    uint64_t num = 1, den = 1; // output frames per input frame

    // trunc(inFrames * num / den).
    uint64_t outputFrames(uint64_t inFrames) const;
};

BlockChoice chooseBlock(const std::vector<EffectSpec>& effects, const AudioFormat& source);

// A processing chain owning its processors (through the library's chain).
// Where the tool itself works on the samples between two processors (a
// stereo-to-mono resampler: the average of the two channels; a resampler's
// pass band equaliser), a new library chain starts behind the last one, the
// tool's work on its input.
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
    // Output samples room needed for one input block of `frames` frames
    // through sendFloat.
    uint32_t outputCapacitySamples(uint32_t frames) const;
    // Frames per block: sends take at most this many.
    uint32_t blockFrames() const { return segments_.front().blockFrames; }
    // True when the chain is one library chain and nothing else, whose output
    // the library's 16-bit path could give.
    bool runsInt16() const { return segments_.size() == 1 && !segments_.front().equaliser; }
    // Processes one block through the library's float interface (full scale
    // 1.0); returns output frames.
    uint32_t sendFloat(const float* src, uint32_t frames, float* dst);
    bool empty() const { return descriptions_.empty(); }
    // One line per effect, for reports.
    const std::vector<std::string>& descriptions() const { return descriptions_; }

private:
    // One library chain and the tool's work on its input: the average of
    // the previous chain's two channels, then the equaliser (each if set).
    struct Segment {
        void* chain;
        AudioFormat source;
        uint32_t blockFrames;
        uint32_t processors = 0;
        std::vector<float> input; // the input as the tool's work leaves it
        bool averages = false;
        std::unique_ptr<PassbandEqualiser> equaliser;
    };

    void append(uint32_t (*term)(void*), void* processor, const std::string& what);
    // Ends the current library chain and starts one behind it; `averages`:
    // the current one's output is stereo and the new one takes the average
    // of its two channels.
    void startSegment(bool averages);
    // Ends the current library chain, whose output is stereo, and starts a
    // mono one that takes the average of its two channels.
    void averageToMono() { startSegment(true); }
    // Runs the equaliser with these taps on the input of the next processor.
    void equalise(std::vector<float> taps);
    // Frames per block at the chain's current end.
    uint32_t blockFramesHere() const;
    // Seconds of audio that reach the chain's current end from a whole input
    // of totalFrames frames.
    double secondsHere(uint64_t totalFrames) const;

    // The library chains in turn (averaging between them).
    uint32_t sendSegments(const float* src, uint32_t frames, float* dst);
    // Sets the frames of the output block `dst` that lie in a silent span
    // to zero; the block follows the ones sent before.
    void silence(float* dst, uint32_t frames);

    // Seconds [from, to) made silent at the point of the chain where they
    // were set, whose input there lasts stageSeconds.
    struct SilentSpan {
        double from, to, stageSeconds;
    };
    // The same as output frames [from, to), worked out at the first send.
    struct SilentFrames {
        uint64_t from, to;
    };

    std::vector<Segment> segments_;
    uint32_t order_ = 0;
    std::vector<std::string> descriptions_;
    uint64_t totalFrames_ = 0; // of the whole input
    std::vector<SilentSpan> spans_;
    std::vector<SilentFrames> silentFrames_;
    uint64_t position_ = 0; // output frames sent
};

} // namespace cli
