// The tool's commands. Each takes the words after its name and returns the
// exit status; errors are thrown as UsageError or Failure.
#pragma once

#include "effects.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct Options {
    bool quiet = false;
    bool noClip = false;     // --no-clip: scale the output down rather than clip
    bool verbose = false;    // one line on standard error about the block size
    OutputEncoding encoding; // --bits, --no-dither
};

// Frames per block in the host loops of the tool (processing chooses its
// own, see chooseBlock).
constexpr uint32_t kBlockFrames = 4096;

struct ProcessResult {
    AudioFormat inFormat;
    AudioFormat outFormat;
    StreamFormat inStream;
    StreamFormat outStream;
    bool dithered = false;
    uint64_t framesIn = 0;
    uint64_t framesOut = 0;
    double elapsedSeconds = 0.0;
    std::vector<std::string> chain;
};

// Streams IN through a chain of the effects into OUT (the host loop).
ProcessResult processFile(const std::string& in, const std::string& out,
                          const std::vector<EffectSpec>& effects, const Options& options);

// Levels relative to the full scale of the file's integer type (2^(bits-1),
// so 32768 for 16 bits), or to 1.0 for float files.
struct ChannelLevels {
    double peak = 0.0;       // largest |sample|
    double rms = 0.0;        // root mean square
    double peakSample = 0.0; // in the file's own units
};

struct FileLevels {
    AudioFormat format;
    StreamFormat stream;
    uint64_t frames = 0;
    std::vector<ChannelLevels> channels;
};

FileLevels measureLevels(const std::string& path, const Options& options);

struct SliceOptions {
    float startGateDb = -30.0f;
    float endGateDb = -40.0f;
    float risePercent = 5.0f;
    float minSeconds = 0.1f;
};

struct Slice {
    float startSeconds;
    float endSeconds;
};

std::vector<Slice> findSlices(const std::string& path, const SliceOptions& slice,
                              const Options& options);

int runProcess(const std::vector<std::string>& args, const Options& options);
int runCrossfade(const std::vector<std::string>& args, const Options& options);
int runInfo(const std::vector<std::string>& args, const Options& options);
int runSpectrum(const std::vector<std::string>& args, const Options& options);
int runEnvelope(const std::vector<std::string>& args, const Options& options);
int runSlices(const std::vector<std::string>& args, const Options& options);
int runDemo(const std::vector<std::string>& args, const Options& options);
int runSpectrogram(const std::vector<std::string>& args, const Options& options);
int runWaveform(const std::vector<std::string>& args, const Options& options);

// Formatting helpers shared by the reports.
std::string formatDescription(const AudioFormat& format);
std::string decibels(double ratio);

} // namespace cli
