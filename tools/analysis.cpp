// `dsp info`, `dsp spectrum`, `dsp envelope` and `dsp slices`.
#include "cli_error.h"
#include "commands.h"
#include "dsp.h"
#include "numbers.h"
#include "owned.h"
#include "progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace cli {

std::string formatDescription(const AudioFormat& format) {
    return std::to_string(format.rate) + " Hz " + (format.channels == 2 ? "stereo" : "mono");
}

std::string decibels(double ratio) {
    if (ratio <= 0.0) {
        return "-inf dB";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dB", 20.0 * std::log10(ratio));
    return text;
}

namespace {

// Options of the analysis commands: a file name and --name VALUE pairs.
struct Parsed {
    std::string file;
    std::vector<std::pair<std::string, std::string>> options;
    bool csv = false;
};

Parsed parseArgs(const std::vector<std::string>& args, const std::vector<std::string>& valued,
                 const char* usage) {
    Parsed p;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& w = args[i];
        if (w == "--csv") {
            p.csv = true;
        } else if (std::find(valued.begin(), valued.end(), w) != valued.end()) {
            if (i + 1 >= args.size()) {
                throw UsageError(w + " needs a value; usage: " + usage);
            }
            p.options.emplace_back(w, args[++i]);
        } else if (w.size() > 1 && w[0] == '-' && !(w[1] >= '0' && w[1] <= '9')) {
            throw UsageError("unknown option '" + w + "'; usage: " + usage);
        } else if (p.file.empty()) {
            p.file = w;
        } else {
            throw UsageError("unexpected '" + w + "'; usage: " + usage);
        }
    }
    if (p.file.empty()) {
        throw UsageError(std::string("missing FILE.wav; usage: ") + usage);
    }
    return p;
}

double optionNumber(const std::string& name, const std::string& value, double lo, double hi) {
    double v = 0.0;
    if (!readNumber(value, v) || !std::isfinite(v) || v < lo || v > hi) {
        char range[96];
        std::snprintf(range, sizeof range, "%g and %g", lo, hi);
        throw UsageError(name + " must be a number between " + range + ", not '" + value + "'");
    }
    return v;
}

std::string bar(double db, double floorDb) {
    int n = static_cast<int>(std::lround((db - floorDb) / -floorDb * 40.0));
    n = std::max(0, std::min(40, n));
    return std::string(static_cast<size_t>(n), '#');
}

const char* channelName(uint32_t c, uint32_t channels) {
    return channels == 1 ? "mono" : (c == 0 ? "left" : "right");
}

// Options of `dsp spectrum`.
struct SpectrumRequest {
    uint32_t size = 4096;
    double at = 0.0;
};

SpectrumRequest spectrumRequest(const Parsed& p) {
    SpectrumRequest r;
    for (const auto& [name, value] : p.options) {
        if (name == "--size") {
            r.size = static_cast<uint32_t>(optionNumber(name, value, 4, 32768));
            if ((r.size & (r.size - 1)) != 0 || std::to_string(r.size) != value) {
                throw UsageError("--size must be a power of two from 4 to 32768, not '" + value +
                                 "'");
            }
        } else {
            r.at = optionNumber(name, value, 0.0, 1e7);
        }
    }
    return r;
}

// The analyzer's spectrum of `size` frames from `frame` on.
struct Spectrum {
    AudioFormat format;
    uint32_t size = 0;
    uint64_t frame = 0;
    uint32_t bins = 0;     // per channel
    std::vector<float> db; // the analyzer's dB, `bins` per channel, channel after channel

    float binDb(uint32_t channel, uint32_t bin) const { return db[channel * bins + bin]; }
    double binHz() const { return static_cast<double>(format.rate) / size; }
    // A full-scale sine at a bin centre reads 20 log10(N/4): reports give dB
    // relative to that, so 0 dB is full scale.
    double reference() const { return 20.0 * std::log10(size / 4.0); }
};

Spectrum readSpectrum(const std::string& path, const SpectrumRequest& r) {
    AudioInput in(path);
    Spectrum s;
    s.format = in.format();
    s.size = r.size;
    s.frame = static_cast<uint64_t>(std::llround(r.at * s.format.rate));
    if (in.lengthKnown() && s.frame > in.totalFrames()) {
        throw UsageError("--at " + std::to_string(r.at) + " s lies beyond the end of '" + path +
                         "'");
    }
    in.seekFrame(s.frame);
    const uint32_t ch = s.format.channels;
    std::vector<int16_t> block(static_cast<size_t>(r.size) * ch, 0);
    uint32_t got = 0;
    while (got < r.size) {
        uint32_t n = in.readInt16(block.data() + size_t{got} * ch, r.size - got);
        if (n == 0) {
            break;
        }
        got += n;
    }

    Owned fft =
        own(initFft(r.size, ch, ch, 120), termFft, "cannot create the analyzer (out of memory?)");
    s.db.resize(r.size); // N/2 bins per channel
    s.bins = doFft(fft.get(), block.data(), s.db.data(), got * 2 * ch);
    if (s.bins != r.size / 2) {
        throw Failure("the analyzer returned no spectrum");
    }
    return s;
}

void printSpectrumCsv(const Spectrum& s) {
    const uint32_t ch = s.format.channels;
    std::printf("frequency_hz");
    for (uint32_t c = 0; c < ch; ++c) {
        std::printf(",%s_db", channelName(c, ch));
    }
    std::printf("\n");
    const double binHz = s.binHz();
    const double reference = s.reference();
    for (uint32_t k = 0; k < s.bins; ++k) {
        std::printf("%.3f", k * binHz);
        for (uint32_t c = 0; c < ch; ++c) {
            std::printf(",%.2f", s.binDb(c, k) - reference);
        }
        std::printf("\n");
    }
}

// One line per band: the loudest bin of each channel among bins k0..k1.
void printSpectrumBand(const Spectrum& s, double lo, double hi, uint32_t k0, uint32_t k1) {
    const double reference = s.reference();
    const double floorDb = -120.0 - reference;
    std::printf("%7.0f - %-7.0f Hz", lo, hi);
    for (uint32_t c = 0; c < s.format.channels; ++c) {
        float best = -1e9f;
        for (uint32_t k = k0; k <= k1; ++k) {
            best = std::max(best, s.binDb(c, k));
        }
        double v = best - reference;
        std::printf("  %7.1f %-40s", v, bar(v, floorDb).c_str());
    }
    std::printf("\n");
}

void printSpectrumBands(const Spectrum& s, const std::string& file) {
    const AudioFormat& f = s.format;
    const double binHz = s.binHz();
    std::printf("spectrum of %s at %.3f s: %u-point, %s, %.2f Hz per bin\n", file.c_str(),
                static_cast<double>(s.frame) / f.rate, s.size, formatDescription(f).c_str(), binHz);
    std::printf("(dB relative to a full-scale sine; the loudest bin of each band)\n");
    // Bands spaced by thirds of an octave from 20 Hz (or one bin) to half the rate.
    double lo = std::max(20.0, binHz);
    while (lo < f.rate / 2.0) {
        double hi = std::min(lo * 1.2599210498948732, f.rate / 2.0);
        uint32_t k0 = static_cast<uint32_t>(std::ceil(lo / binHz));
        uint32_t k1 = std::min(s.bins - 1, static_cast<uint32_t>(std::floor(hi / binHz)));
        if (k0 <= k1) {
            printSpectrumBand(s, lo, hi, k0, k1);
        }
        lo = hi;
    }
}

// The envelope as a table: one row per step, the loudest value of each
// channel over the step.
class EnvelopeTable {
public:
    EnvelopeTable(const AudioFormat& format, double step, bool csv)
        : format_(format), csv_(csv),
          perRow_(std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(step * format.rate)))),
          rowMax_(format.channels, 0.0f) {}

    void printHeader(const std::string& file, double step) const {
        if (csv_) {
            std::printf("time_s");
            for (uint32_t c = 0; c < format_.channels; ++c) {
                std::printf(",%s", channelName(c, format_.channels));
            }
            std::printf("\n");
        } else {
            std::printf("envelope of %s, %s, every %.3f s (dB relative to full scale)\n",
                        file.c_str(), formatDescription(format_).c_str(), step);
        }
    }

    // Takes n frames of the analyzer's output (n values per channel, channel
    // after channel), printing each row as it completes.
    void add(const float* values, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            for (uint32_t c = 0; c < format_.channels; ++c) {
                rowMax_[c] = std::max(rowMax_[c], values[c * n + i]);
            }
            if (++position_ - rowStart_ == perRow_) {
                printRow();
                rowStart_ = position_;
            }
        }
    }

    // Prints the last row if it is incomplete.
    void finish() {
        if (position_ > rowStart_) {
            printRow();
        }
    }

    uint64_t position() const { return position_; }

private:
    // The analyzer settles at 2.5 x 32767 for a constant full-scale input.
    static constexpr double kFullScale = 2.5 * 32767.0;

    void printRow() {
        double t = static_cast<double>(rowStart_) / format_.rate;
        if (csv_) {
            std::printf("%.4f", t);
            for (uint32_t c = 0; c < format_.channels; ++c) {
                std::printf(",%.0f", rowMax_[c]);
            }
        } else {
            std::printf("%9.3f s", t);
            for (uint32_t c = 0; c < format_.channels; ++c) {
                double v = rowMax_[c] > 0.0f ? 20.0 * std::log10(rowMax_[c] / kFullScale) : -120.0;
                std::printf("  %7.1f %-40s", v, bar(v, -80.0).c_str());
            }
        }
        std::printf("\n");
        std::fill(rowMax_.begin(), rowMax_.end(), 0.0f);
    }

    AudioFormat format_;
    bool csv_;
    uint64_t perRow_;
    std::vector<float> rowMax_;
    uint64_t position_ = 0;
    uint64_t rowStart_ = 0;
};

// Options of `dsp slices`.
struct SliceRequest {
    SliceOptions slice;
    std::string splitDir; // empty: no files
};

SliceRequest sliceRequest(const Parsed& p) {
    SliceRequest r;
    for (const auto& [name, value] : p.options) {
        if (name == "--split") {
            r.splitDir = value;
        } else if (name == "--start-gate") {
            r.slice.startGateDb = static_cast<float>(optionNumber(name, value, -120.0, 20.0));
        } else if (name == "--end-gate") {
            r.slice.endGateDb = static_cast<float>(optionNumber(name, value, -120.0, 20.0));
        } else if (name == "--rise") {
            r.slice.risePercent = static_cast<float>(optionNumber(name, value, 0.0, 1000.0));
        } else {
            r.slice.minSeconds = static_cast<float>(optionNumber(name, value, 0.0, 3600.0));
        }
    }
    return r;
}

void makeDirectory(const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (!std::filesystem::is_directory(dir, ec)) {
        throw Failure("cannot create the directory '" + dir + "'");
    }
}

void printSlices(const std::vector<Slice>& slices, const std::string& file, bool csv) {
    if (csv) {
        std::printf("index,start_s,end_s\n");
        for (size_t i = 0; i < slices.size(); ++i) {
            std::printf("%zu,%.6f,%.6f\n", i + 1, slices[i].startSeconds, slices[i].endSeconds);
        }
        return;
    }
    std::printf("%zu slice%s in %s\n", slices.size(), slices.size() == 1 ? "" : "s", file.c_str());
    for (size_t i = 0; i < slices.size(); ++i) {
        std::printf("%4zu  %9.3f s - %9.3f s  (%.3f s)\n", i + 1, slices[i].startSeconds,
                    slices[i].endSeconds, slices[i].endSeconds - slices[i].startSeconds);
    }
}

// The samples of a slice (as far as the file reaches).
std::vector<int16_t> readSlice(AudioInput& in, const Slice& slice) {
    const AudioFormat f = in.format();
    uint64_t from = static_cast<uint64_t>(std::llround(slice.startSeconds * f.rate));
    uint64_t to = static_cast<uint64_t>(std::llround(slice.endSeconds * f.rate));
    to = std::min(to, in.totalFrames());
    from = std::min(from, to);
    std::vector<int16_t> samples(static_cast<size_t>(to - from) * f.channels);
    in.seekFrame(from);
    for (uint64_t at = 0; at < to - from;) {
        uint32_t got =
            in.readInt16(samples.data() + at * f.channels,
                         static_cast<uint32_t>(std::min<uint64_t>(to - from - at, kBlockFrames)));
        if (got == 0) {
            break;
        }
        at += got;
    }
    return samples;
}

// Writes each slice of the file to DIR/slice-NNN.wav, in the file's
// encoding (the slices are cut from its 16-bit samples).
void writeSlices(const std::string& file, const std::string& dir, const std::vector<Slice>& slices,
                 const Options& options) {
    AudioInput in(file);
    for (size_t i = 0; i < slices.size(); ++i) {
        std::vector<int16_t> samples = readSlice(in, slices[i]);
        char name[32];
        std::snprintf(name, sizeof name, "slice-%03zu.wav", i + 1);
        std::string path = (std::filesystem::path(dir) / name).string();
        AudioOutput out(path, {file}, in.format(), in.stream(), options.encoding, {});
        out.writeInt16(samples.data(),
                       static_cast<uint32_t>(samples.size() / in.format().channels));
        out.commit();
    }
}

} // namespace

FileLevels measureLevels(const std::string& path, const Options& options) {
    AudioInput in(path);
    FileLevels levels;
    levels.format = in.format();
    levels.stream = in.stream();
    const uint32_t ch = in.format().channels;
    // Integer files: relative to 2^(bits-1), the floats being s / (2^(bits-1) - 1).
    const double units = isFloat(in.stream().type) ? 1.0 : integerScale(in.stream().type);
    const double toFullScale = isFloat(in.stream().type) ? 1.0 : units / (units + 1.0);
    levels.channels.resize(ch);
    std::vector<double> sumSquares(ch, 0.0);
    std::vector<float> peak(ch, 0.0f);
    std::vector<float> block(size_t{kBlockFrames} * ch);
    Progress progress("measuring", in.totalFrames(), options.quiet);
    for (uint32_t n; (n = in.readFloat(block.data(), kBlockFrames)) > 0;) {
        for (uint32_t i = 0; i < n; ++i) {
            for (uint32_t c = 0; c < ch; ++c) {
                float s = block[i * ch + c];
                sumSquares[c] += static_cast<double>(s) * s;
                if (std::fabs(s) > std::fabs(peak[c])) {
                    peak[c] = s;
                }
            }
        }
        levels.frames += n;
        progress.update(levels.frames);
    }
    for (uint32_t c = 0; c < ch; ++c) {
        ChannelLevels& l = levels.channels[c];
        l.peakSample = isFloat(in.stream().type) ? peak[c] : std::nearbyint(peak[c] * units);
        l.peak = std::fabs(peak[c]) * toFullScale;
        l.rms = levels.frames > 0 ? std::sqrt(sumSquares[c] / levels.frames) * toFullScale : 0.0;
    }
    return levels;
}

int runInfo(const std::vector<std::string>& args, const Options& options) {
    Parsed p = parseArgs(args, {}, "dsp info FILE.wav");
    FileLevels levels = measureLevels(p.file, options);
    const AudioFormat& f = levels.format;
    std::printf("file      %s\n", p.file.c_str());
    std::printf("format    %s\n", streamDescription(levels.stream).c_str());
    std::printf("length    %.3f s (%llu frames)\n", static_cast<double>(levels.frames) / f.rate,
                static_cast<unsigned long long>(levels.frames));
    for (uint32_t c = 0; c < f.channels; ++c) {
        const ChannelLevels& l = levels.channels[c];
        std::printf("%-9s peak %s (%.*f), RMS %s\n", channelName(c, f.channels),
                    (decibels(l.peak) + "FS").c_str(), isFloat(levels.stream.type) ? 6 : 0,
                    l.peakSample, (decibels(l.rms) + "FS").c_str());
    }
    return 0;
}

int runSpectrum(const std::vector<std::string>& args, const Options&) {
    Parsed p = parseArgs(args, {"--size", "--at"},
                         "dsp spectrum FILE.wav [--size N] [--at SECONDS] [--csv]");
    Spectrum s = readSpectrum(p.file, spectrumRequest(p));
    if (p.csv) {
        printSpectrumCsv(s);
    } else {
        printSpectrumBands(s, p.file);
    }
    return 0;
}

int runEnvelope(const std::vector<std::string>& args, const Options& options) {
    Parsed p = parseArgs(args, {"--step"}, "dsp envelope FILE.wav [--step SECONDS] [--csv]");
    double step = 0.1;
    for (const auto& option : p.options) {
        step = optionNumber(option.first, option.second, 0.001, 3600.0);
    }
    AudioInput in(p.file);
    const AudioFormat f = in.format();
    Owned env = own(initEnvAnalyze(kBlockFrames, f.channels, f.rate), termEnvAnalyze,
                    "cannot create the analyzer (out of memory?)");
    EnvelopeTable table(f, step, p.csv);
    table.printHeader(p.file, step);
    std::vector<int16_t> block(size_t{kBlockFrames} * f.channels);
    std::vector<float> out(size_t{kBlockFrames} * f.channels);
    Progress progress("following", in.totalFrames(), options.quiet || !p.csv);
    for (uint32_t n; (n = in.readInt16(block.data(), kBlockFrames)) > 0;) {
        doEnvAnalyze(env.get(), block.data(), out.data(), n * 2 * f.channels);
        table.add(out.data(), n);
        progress.update(table.position());
    }
    table.finish();
    return 0;
}

std::vector<Slice> findSlices(const std::string& path, const SliceOptions& o,
                              const Options& options) {
    AudioInput in(path);
    const AudioFormat f = in.format();
    Owned slicer = own(initWaveSlice(kBlockFrames, f.channels, f.rate, o.startGateDb, o.endGateDb,
                                     o.risePercent, o.minSeconds),
                       termWaveSlice, "cannot create the wave slicer (out of memory?)");
    std::vector<int16_t> block(size_t{kBlockFrames} * f.channels);
    Progress progress("slicing", in.totalFrames(), options.quiet);
    uint64_t done = 0;
    for (uint32_t n; (n = in.readInt16(block.data(), kBlockFrames)) > 0;) {
        doWaveSlice(slicer.get(), block.data(), n * 2 * f.channels);
        done += n;
        progress.update(done);
    }
    std::vector<Slice> slices;
    for (const SliceRecord* r = getWaveSlice(slicer.get(), 0); r != nullptr; r = r->next) {
        slices.push_back(Slice{r->startSeconds, r->endSeconds});
    }
    return slices;
}

int runSlices(const std::vector<std::string>& args, const Options& options) {
    const char* usage = "dsp slices FILE.wav [--split DIR] [--start-gate DB] [--end-gate DB] "
                        "[--rise PERCENT] [--min SECONDS] [--csv]";
    Parsed p = parseArgs(args, {"--split", "--start-gate", "--end-gate", "--rise", "--min"}, usage);
    SliceRequest r = sliceRequest(p);
    if (!r.splitDir.empty()) {
        if (p.file == "-") {
            throw UsageError("--split reads the file twice: it cannot take standard input");
        }
        makeDirectory(r.splitDir);
    }
    std::vector<Slice> slices = findSlices(p.file, r.slice, options);
    printSlices(slices, p.file, p.csv);
    if (!r.splitDir.empty()) {
        writeSlices(p.file, r.splitDir, slices, options);
        if (!options.quiet && !p.csv) {
            std::printf("wrote %zu file%s to %s\n", slices.size(), slices.size() == 1 ? "" : "s",
                        r.splitDir.c_str());
        }
    }
    return 0;
}

} // namespace cli
