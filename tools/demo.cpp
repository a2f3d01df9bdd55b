// `dsp demo`: synthesises a few seconds of test music, runs it through a
// chain with the same host loop as file processing, then slices and measures
// the result and prints a short report.
#include "cli_error.h"
#include "commands.h"
#include "dsp.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <vector>

namespace cli {

namespace {

constexpr uint32_t kRate = 44100;
constexpr double kSeconds = 4.0;
constexpr double kTwoPi = 6.283185307179586;

struct StereoMix {
    std::vector<double> left, right;
    explicit StereoMix(size_t frames) : left(frames, 0.0), right(frames, 0.0) {}

    // A plucked tone: a few harmonics, a 5 ms attack and an exponential decay.
    void tone(double at, double seconds, double hz, double level, double pan) {
        size_t begin = static_cast<size_t>(at * kRate);
        size_t count = static_cast<size_t>(seconds * kRate);
        for (size_t i = 0; i < count && begin + i < left.size(); ++i) {
            double t = static_cast<double>(i) / kRate;
            double envelope = std::fmin(1.0, t / 0.005) * std::exp(-t * 3.0 / seconds);
            double v = std::sin(kTwoPi * hz * t) + 0.4 * std::sin(kTwoPi * 2 * hz * t) +
                       0.15 * std::sin(kTwoPi * 3 * hz * t);
            v *= level * envelope;
            left[begin + i] += v * (1.0 - pan);
            right[begin + i] += v * pan;
        }
    }

    // A percussive burst of noise with a fast decay (a fixed generator, so
    // the demo is the same every time).
    void burst(double at, double level, uint32_t seed) {
        size_t begin = static_cast<size_t>(at * kRate);
        size_t count = static_cast<size_t>(0.12 * kRate);
        uint32_t state = seed;
        for (size_t i = 0; i < count && begin + i < left.size(); ++i) {
            state = state * 1664525u + 1013904223u;
            double noise = static_cast<double>(state >> 8) / 8388608.0 - 1.0;
            double t = static_cast<double>(i) / kRate;
            double v = noise * level * std::exp(-t * 40.0);
            left[begin + i] += v;
            right[begin + i] += v;
        }
    }
};

std::vector<int16_t> synthesiseMusic() {
    const size_t frames = static_cast<size_t>(kSeconds * kRate);
    StereoMix mix(frames);
    // A melody of plucked notes, alternating sides.
    const double melody[] = {440.0, 523.25, 659.25, 587.33, 523.25, 659.25, 783.99, 880.0};
    for (int i = 0; i < 8; ++i) {
        mix.tone(0.25 * i, 0.45, melody[i], 0.22, i % 2 ? 0.3 : 0.7);
    }
    // A sustained C major chord.
    for (double hz : {261.63, 329.63, 392.0}) {
        mix.tone(2.0, 1.6, hz, 0.16, 0.5);
    }
    // Percussive bursts on the beats.
    for (int i = 0; i < 8; ++i) {
        mix.burst(0.5 * i, i % 2 ? 0.25 : 0.45, 12345u + static_cast<uint32_t>(i));
    }
    std::vector<int16_t> samples(2 * frames);
    for (size_t i = 0; i < frames; ++i) {
        samples[2 * i] = static_cast<int16_t>(
            std::lround(std::fmax(-1.0, std::fmin(1.0, mix.left[i])) * 32767.0));
        samples[2 * i + 1] = static_cast<int16_t>(
            std::lround(std::fmax(-1.0, std::fmin(1.0, mix.right[i])) * 32767.0));
    }
    return samples;
}

void printChain(const std::vector<std::string>& chain) {
    std::printf("  chain    ");
    for (size_t i = 0; i < chain.size(); ++i) {
        std::printf("%s%s", i ? "\n           -> " : "", chain[i].c_str());
    }
    std::printf("\n");
}

void printReport(const std::string& sourcePath, const std::string& outPath, const ProcessResult& r,
                 const FileLevels& levels, const std::vector<Slice>& slices) {
    const double seconds = static_cast<double>(r.framesIn) / r.inFormat.rate;
    std::printf("dsp demo\n");
    std::printf("  source   %s: %.2f s of synthesised music (plucked melody, a chord, "
                "percussive bursts), %s\n",
                sourcePath.c_str(), seconds, formatDescription(r.inFormat).c_str());
    printChain(r.chain);
    std::printf("  output   %s: %.2f s, %s, %llu frames (%llu bytes of samples)\n", outPath.c_str(),
                static_cast<double>(r.framesOut) / r.outFormat.rate,
                formatDescription(r.outFormat).c_str(),
                static_cast<unsigned long long>(r.framesOut),
                static_cast<unsigned long long>(r.framesOut) * 2 * r.outFormat.channels);
    if (r.elapsedSeconds > 0.0) {
        std::printf("  speed    %.1f ms for %.2f s of audio: %.0fx real time\n",
                    r.elapsedSeconds * 1000.0, seconds, seconds / r.elapsedSeconds);
    }
    for (uint32_t c = 0; c < levels.format.channels; ++c) {
        std::printf("  %-8s peak %sFS, RMS %sFS\n", c == 0 ? "left" : "right",
                    decibels(levels.channels[c].peak).c_str(),
                    decibels(levels.channels[c].rms).c_str());
    }
    std::printf("  slices   %zu found\n", slices.size());
    for (size_t i = 0; i < slices.size(); ++i) {
        std::printf("           %2zu  %.3f s - %.3f s\n", i + 1, slices[i].startSeconds,
                    slices[i].endSeconds);
    }
}

} // namespace

int runDemo(const std::vector<std::string>& args, const Options& options) {
    if (args.size() > 1) {
        throw UsageError("usage: dsp demo [OUT.wav]");
    }
    const std::string outPath = args.empty() ? "demo.wav" : args[0];
    if (outPath == "-") {
        throw UsageError("the demo writes and reads back files; OUT.wav cannot be standard output");
    }
    std::filesystem::path out(outPath);
    std::string sourcePath = (out.parent_path() / (out.stem().string() + "-source.wav")).string();
    writeWholeFile(sourcePath, AudioFormat{kRate, 2}, synthesiseMusic(), {});

    std::vector<EffectSpec> effects =
        parseEffects({"resample", "48000", "cubic", "chorus", "3", "20", "2", "1.5", "30", "100",
                      "fade", "0.5", "1.0"});
    ProcessResult r = processFile(sourcePath, outPath, effects, options);
    Options quiet = options;
    quiet.quiet = true;
    std::vector<Slice> slices = findSlices(outPath, SliceOptions{}, quiet);
    FileLevels levels = measureLevels(outPath, quiet);
    if (!options.quiet) {
        printReport(sourcePath, outPath, r, levels, slices);
    }
    return 0;
}

} // namespace cli
