// `dsp spectrogram` and `dsp waveform`: pictures of a file as PNG.
#include "audio_io.h"
#include "cli_error.h"
#include "commands.h"
#include "numbers.h"
#include "output_file.h"
#include "pictures.h"
#include "png_writer.h"
#include "progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace cli {

namespace {

const char* kSpectrogramUsage = "dsp spectrogram IN.wav OUT.png [--size N] [--hop N] [--range DB]";
const char* kWaveformUsage = "dsp waveform IN.wav OUT.png [--slices]";

// The one place the pictures read a file: every sample, block after block,
// through the tool's audio input (any format, converted to 16 bits). A
// stream of unknown length is gathered first, since the pictures need the
// length before the first sample.
void readSamples(const std::string& path, SampleSink& sink, const Options& options) {
    AudioInput in(path);
    const AudioFormat f = in.format();
    std::vector<int16_t> block(size_t{kBlockFrames} * f.channels);
    auto read = [&] {
        if (interrupted()) {
            throw Failure("interrupted");
        }
        return in.readInt16(block.data(), kBlockFrames);
    };
    std::vector<int16_t> gathered;
    if (!in.lengthKnown()) {
        for (uint32_t n; (n = read()) > 0;) {
            gathered.insert(gathered.end(), block.begin(), block.begin() + size_t{n} * f.channels);
        }
    }
    const uint64_t frames = in.lengthKnown() ? in.totalFrames() : gathered.size() / f.channels;
    if (frames == 0) {
        throw Failure("'" + in.name() + "' holds no samples: there is nothing to draw");
    }
    sink.begin(AudioShape{f.rate, f.channels, frames});
    if (!in.lengthKnown()) {
        for (uint64_t at = 0; at < frames; at += kBlockFrames) {
            sink.add(gathered.data() + at * f.channels,
                     static_cast<uint32_t>(std::min<uint64_t>(kBlockFrames, frames - at)));
        }
        return;
    }
    Progress progress("drawing", frames, options.quiet);
    for (uint32_t n; (n = read()) > 0;) {
        sink.add(block.data(), n);
        progress.update(in.position());
    }
}

// IN, OUT and the options; `valued` lists those taking a value.
struct PictureArgs {
    std::string in, out;
    std::vector<std::pair<std::string, std::string>> options;
    bool slices = false;
};

PictureArgs parsePictureArgs(const std::vector<std::string>& args,
                             const std::vector<std::string>& valued, bool slicesFlag,
                             const char* usage) {
    PictureArgs p;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& w = args[i];
        if (slicesFlag && w == "--slices") {
            p.slices = true;
        } else if (std::find(valued.begin(), valued.end(), w) != valued.end()) {
            if (i + 1 >= args.size()) {
                throw UsageError(w + " needs a value; usage: " + usage);
            }
            p.options.emplace_back(w, args[++i]);
        } else if (w.size() > 1 && w[0] == '-') {
            throw UsageError("unknown option '" + w + "'; usage: " + usage);
        } else if (p.in.empty()) {
            p.in = w;
        } else if (p.out.empty()) {
            p.out = w;
        } else {
            throw UsageError("unexpected '" + w + "'; usage: " + usage);
        }
    }
    if (p.out.empty()) {
        throw UsageError(std::string(p.in.empty() ? "missing IN.wav" : "missing OUT.png") +
                         "; usage: " + usage);
    }
    return p;
}

// A whole number from lo to hi, written as such.
uint32_t wholeOption(const std::string& name, const std::string& value, uint32_t lo, uint32_t hi) {
    double v = 0.0;
    if (!readNumber(value, v) || !(v >= lo && v <= hi) || v != std::floor(v)) {
        throw UsageError(name + " must be a whole number from " + std::to_string(lo) + " to " +
                         std::to_string(hi) + ", not '" + value + "'");
    }
    return static_cast<uint32_t>(v);
}

SpectrogramSettings spectrogramSettings(const PictureArgs& p) {
    SpectrogramSettings s;
    bool hopGiven = false;
    for (const auto& [name, value] : p.options) {
        if (name == "--size") {
            s.size = wholeOption(name, value, 4, 32768);
            if ((s.size & (s.size - 1)) != 0) {
                throw UsageError("--size must be a power of two from 4 to 32768, not '" + value +
                                 "'");
            }
        } else if (name == "--hop") {
            s.hop = wholeOption(name, value, 1, 32768);
            hopGiven = true;
        } else {
            double v = 0.0;
            if (!readNumber(value, v) || !(v >= 1.0 && v <= 200.0)) {
                throw UsageError("--range must be a number of dB from 1 to 200, not '" + value +
                                 "'");
            }
            s.rangeDb = v;
        }
    }
    if (!hopGiven) {
        s.hop = s.size / 4;
    } else if (s.hop > s.size) {
        // Longer hops would leave frames out of every spectrum.
        throw UsageError("--hop must be at most the --size (" + std::to_string(s.size) + "), not " +
                         std::to_string(s.hop));
    }
    return s;
}

void refuseWithoutPng(const char* command) {
    if (!pngSupported()) {
        throw Failure(std::string("dsp was built without libpng or zlib; ") + command +
                      " needs one of them to write PNG");
    }
}

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// Encodes the picture and writes it to `out` (never over the input).
void writePicture(const Image& image, const std::string& out, const std::string& in) {
    std::vector<uint8_t> png = encodePng(image);
    std::unique_ptr<OutputFile> file = OutputFile::open(out, {in});
    file->write(png.data(), png.size());
    file->commit();
}

} // namespace

int runSpectrogram(const std::vector<std::string>& args, const Options& options) {
    PictureArgs p =
        parsePictureArgs(args, {"--size", "--hop", "--range"}, false, kSpectrogramUsage);
    SpectrogramSettings settings = spectrogramSettings(p);
    refuseWithoutPng("spectrogram");
    settings.name = fileName(p.in);
    SpectrogramBuilder builder(settings);
    readSamples(p.in, builder, options);
    Image image = builder.finish();
    writePicture(image, p.out, p.in);
    if (!options.quiet) {
        std::printf("wrote %s: %d x %d pixels, %llu %s\n", p.out.c_str(), image.width(),
                    image.height(), static_cast<unsigned long long>(builder.spectra()),
                    builder.spectra() == 1 ? "spectrum" : "spectra");
    }
    return 0;
}

int runWaveform(const std::vector<std::string>& args, const Options& options) {
    PictureArgs p = parsePictureArgs(args, {}, true, kWaveformUsage);
    if (p.slices && p.in == "-") {
        throw UsageError("--slices reads the input twice: it cannot take standard input");
    }
    refuseWithoutPng("waveform");
    std::vector<TimeSpan> spans;
    if (p.slices) {
        for (const Slice& s : findSlices(p.in, SliceOptions{}, options)) {
            spans.push_back(TimeSpan{s.startSeconds, s.endSeconds});
        }
    }
    WaveformBuilder builder(fileName(p.in), spans);
    readSamples(p.in, builder, options);
    Image image = builder.finish();
    writePicture(image, p.out, p.in);
    if (!options.quiet) {
        std::printf("wrote %s: %d x %d pixels", p.out.c_str(), image.width(), image.height());
        if (p.slices) {
            std::printf(", %zu slice%s marked", spans.size(), spans.size() == 1 ? "" : "s");
        }
        std::printf("\n");
    }
    return 0;
}

} // namespace cli
