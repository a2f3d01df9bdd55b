// dsp: WAVE in, processing chain, WAVE out; analysis; and a demo.
#include "audio_formats.h"
#include "cli_error.h"
#include "commands.h"
#include "dsp.h"
#include "effects.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

const char* kUsage =
    "usage:\n"
    "  dsp [--bits B] [--no-dither] [--no-clip] IN OUT [EFFECT [ARGS] ...]\n"
    "  dsp crossfade A.wav B.wav OUT.wav SECONDS [--curve equal-power|equal-gain]\n"
    "  dsp info FILE.wav\n"
    "  dsp spectrum FILE.wav [--size N] [--at SECONDS] [--csv]\n"
    "  dsp envelope FILE.wav [--step SECONDS] [--csv]\n"
    "  dsp slices FILE.wav [--split DIR] [--start-gate DB] [--end-gate DB] [--rise PERCENT]\n"
    "             [--min SECONDS] [--csv]\n"
    "  dsp spectrogram IN.wav OUT.png [--size N] [--hop N] [--range DB]\n"
    "  dsp waveform IN.wav OUT.png [--slices]\n"
    "  dsp demo [OUT.wav]\n";

void printHelp() {
    std::printf("dsp - audio processing on WAVE files (and more)\n\n%s\n", kUsage);
    std::printf("Effects run in the order given, in one processing chain (none: a plain\n"
                "copy):\n%s\n",
                cli::effectsHelp().c_str());
    std::printf(
        "Commands:\n"
        "  crossfade   A followed by B, overlapped and cross-faded over SECONDS;\n"
        "              --curve equal-power (default) keeps the level of uncorrelated\n"
        "              material (different recordings), equal-gain that of correlated\n"
        "              material (the same recording, or in-phase takes), which\n"
        "              equal-power would raise by up to 3 dB in the middle\n"
        "  info        format, length, peak and RMS level per channel\n"
        "  spectrum    spectrum of N frames (default 4096) from SECONDS (default 0),\n"
        "              in dB relative to a full-scale sine\n"
        "  envelope    the envelope follower (rectified, smoothed at 33 Hz): its\n"
        "              highest value every --step seconds (default 0.1), in dB\n"
        "              relative to its value for a full-scale sine, so a sine reads\n"
        "              its level in dBFS (text and CSV alike)\n"
        "  slices      cut at attacks; gates in dB (defaults -30 and -40), rise in\n"
        "              percent (5), minimum slice length (0.1 s); --split writes\n"
        "              each slice to DIR/slice-NNN.wav\n"
        "  spectrogram picture of the sliding spectrum over time: N-point spectra\n"
        "              (default 2048) every --hop frames (default N/4, at most N),\n"
        "              colours over DB (default 100) below the loudest bin; one\n"
        "              panel per channel\n"
        "  waveform    picture of the waveform, one panel per channel; --slices\n"
        "              marks the slices `dsp slices` finds with its defaults\n"
        "  demo        synthesise test music, process it (resample 48000, chorus,\n"
        "              fade), slice and measure it; writes OUT (default demo.wav)\n"
        "              and OUT-source.wav\n\n"
        "Options:\n"
        "  --bits B     output samples: 8, 16, 24, 32 (PCM), float or double\n"
        "               (IEEE float 32 or 64 bits); default: those of the input\n"
        "  --no-dither  no TPDF dither when the output has fewer bits than the input\n"
        "  --no-clip    integer outputs: where samples would clip (a warning counts\n"
        "               them), scale the whole output down to full scale instead\n"
        "               (a second pass through a temporary file)\n"
        "  --quiet      no report, no progress bar; --help, --version\n"
        "  --verbose    one line on standard error about the block size and whether each\n"
        "               rate change gets whole cycles of the two rates (exact length)\n"
        "Input: mono or stereo WAVE (RIFF or RF64; 8-bit unsigned, 16, 24 or 32-bit\n"
        "PCM, 32 or 64-bit float, plain or extensible)%s. '-' reads standard input or\n"
        "writes standard output. A regular output file is written to a temporary and\n"
        "put in place when complete, keeping its permissions; a symbolic link is\n"
        "followed; devices, FIFOs and '-' are written directly. The input is never\n"
        "written.\n"
        "Exit status: 0 success, 1 failure, 2 usage error.\n",
        cli::haveSndfile()
            ? ";\nthrough libsndfile also FLAC, Ogg Vorbis, Ogg Opus and AIFF (an output's\n"
              "format by its extension: .flac, .ogg, .opus, .aiff)"
            : "");
}

// The commands named by their first word; any other first word is an input
// file to process.
struct Command {
    const char* name;
    int (*run)(const std::vector<std::string>& args, const cli::Options& options);
};

const Command kCommands[] = {
    {"demo", cli::runDemo},
    {"info", cli::runInfo},
    {"spectrum", cli::runSpectrum},
    {"envelope", cli::runEnvelope},
    {"slices", cli::runSlices},
    {"crossfade", cli::runCrossfade},
    {"spectrogram", cli::runSpectrogram},
    {"waveform", cli::runWaveform},
};

int runCommand(const std::vector<std::string>& args, const cli::Options& options) {
    if (args.empty()) {
        throw cli::UsageError("nothing to do");
    }
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    for (const Command& c : kCommands) {
        if (args[0] == c.name) {
            return c.run(rest, options);
        }
    }
    return cli::runProcess(args, options);
}

// The value of --bits.
cli::SampleType sampleTypeOption(const std::string& value) {
    const std::pair<const char*, cli::SampleType> kTypes[] = {
        {"8", cli::SampleType::kUint8},        {"16", cli::SampleType::kInt16},
        {"24", cli::SampleType::kInt24},       {"32", cli::SampleType::kInt32},
        {"float", cli::SampleType::kFloat32},  {"64", cli::SampleType::kFloat64},
        {"double", cli::SampleType::kFloat64},
    };
    for (const auto& [name, type] : kTypes) {
        if (value == name) {
            return type;
        }
    }
    throw cli::UsageError("--bits must be 8, 16, 24, 32, float, 64 or double, not '" + value + "'");
}

} // namespace

int main(int argc, char** argv) {
    cli::installInterruptHandler();
    cli::Options options;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            printHelp();
            return 0;
        }
        if (a == "--version") {
            std::printf("dsp %s\n", dspGetVersion());
            return 0;
        }
        if (a == "--quiet" || a == "-q") {
            options.quiet = true;
        } else if (a == "--verbose" || a == "-v") {
            options.verbose = true;
        } else {
            args.push_back(a);
        }
    }
    try {
        for (size_t i = 0; i < args.size();) {
            if (args[i] == "--no-dither") {
                options.encoding.dither = false;
                args.erase(args.begin() + static_cast<long>(i));
            } else if (args[i] == "--no-clip") {
                options.noClip = true;
                args.erase(args.begin() + static_cast<long>(i));
            } else if (args[i] == "--bits") {
                if (i + 1 >= args.size()) {
                    throw cli::UsageError("--bits needs a value (8, 16, 24, 32, float or double)");
                }
                options.encoding.type = sampleTypeOption(args[i + 1]);
                args.erase(args.begin() + static_cast<long>(i),
                           args.begin() + static_cast<long>(i) + 2);
            } else {
                ++i;
            }
        }
        return runCommand(args, options);
    } catch (const cli::UsageError& e) {
        std::fprintf(stderr, "dsp: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) { // a Failure, or out of memory
        std::fprintf(stderr, "dsp: %s\n", e.what());
        return 1;
    }
}
