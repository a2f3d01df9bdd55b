// `dsp info`, `dsp spectrum`, `dsp envelope` and `dsp slices`.
#include "cli_error.h"
#include "commands.h"
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
    char* end = nullptr;
    double v = std::strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || !std::isfinite(v) || v < lo || v > hi) {
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

} // namespace

FileLevels measureLevels(const std::string& path, const Options& options) {
    WavInput in(path, kBlockFrames);
    FileLevels levels;
    levels.format = in.format();
    const uint32_t ch = in.format().channels;
    levels.channels.resize(ch);
    std::vector<double> sumSquares(ch, 0.0);
    std::vector<int> peak(ch, 0);
    std::vector<int16_t> block(kBlockFrames * ch);
    Progress progress("measuring", in.totalFrames(), options.quiet);
    for (uint32_t n; (n = in.read(block.data(), kBlockFrames)) > 0;) {
        for (uint32_t i = 0; i < n; ++i) {
            for (uint32_t c = 0; c < ch; ++c) {
                int s = block[i * ch + c];
                sumSquares[c] += static_cast<double>(s) * s;
                if (std::abs(s) > std::abs(peak[c])) {
                    peak[c] = s;
                }
            }
        }
        levels.frames += n;
        progress.update(levels.frames);
    }
    for (uint32_t c = 0; c < ch; ++c) {
        levels.channels[c].peakSample = static_cast<int16_t>(peak[c]);
        levels.channels[c].peak = std::abs(peak[c]) / 32768.0;
        levels.channels[c].rms =
            levels.frames > 0 ? std::sqrt(sumSquares[c] / levels.frames) / 32768.0 : 0.0;
    }
    return levels;
}

int runInfo(const std::vector<std::string>& args, const Options& options) {
    Parsed p = parseArgs(args, {}, "dsp info FILE.wav");
    FileLevels levels = measureLevels(p.file, options);
    const AudioFormat& f = levels.format;
    std::printf("file      %s\n", p.file.c_str());
    std::printf("format    16-bit PCM, %u Hz, %s\n", f.rate, f.channels == 2 ? "stereo" : "mono");
    std::printf("length    %.3f s (%llu frames)\n", static_cast<double>(levels.frames) / f.rate,
                static_cast<unsigned long long>(levels.frames));
    for (uint32_t c = 0; c < f.channels; ++c) {
        const ChannelLevels& l = levels.channels[c];
        std::printf("%-9s peak %s (%d), RMS %s\n", channelName(c, f.channels),
                    (decibels(l.peak) + "FS").c_str(), l.peakSample,
                    (decibels(l.rms) + "FS").c_str());
    }
    return 0;
}

int runSpectrum(const std::vector<std::string>& args, const Options&) {
    const char* usage = "dsp spectrum FILE.wav [--size N] [--at SECONDS] [--csv]";
    Parsed p = parseArgs(args, {"--size", "--at"}, usage);
    uint32_t size = 4096;
    double at = 0.0;
    for (const auto& [name, value] : p.options) {
        if (name == "--size") {
            size = static_cast<uint32_t>(optionNumber(name, value, 4, 32768));
            if ((size & (size - 1)) != 0 || std::to_string(size) != value) {
                throw UsageError("--size must be a power of two from 4 to 32768, not '" + value +
                                 "'");
            }
        } else {
            at = optionNumber(name, value, 0.0, 1e7);
        }
    }
    WavInput in(p.file, size);
    const AudioFormat f = in.format();
    uint64_t frame = static_cast<uint64_t>(std::llround(at * f.rate));
    if (frame > in.totalFrames()) {
        throw UsageError("--at " + std::to_string(at) + " s lies beyond the end of '" + p.file +
                         "'");
    }
    in.seekFrame(frame);
    std::vector<int16_t> block(static_cast<size_t>(size) * f.channels, 0);
    uint32_t got = in.read(block.data(), size);

    void* fft = initFft(size, f.channels, f.channels, 120);
    if (fft == nullptr) {
        throw Failure("cannot create the analyzer (out of memory?)");
    }
    std::vector<float> db(size); // N/2 bins per channel
    uint32_t bins = doFft(fft, block.data(), db.data(), got * 2 * f.channels);
    termFft(fft);
    if (bins != size / 2) {
        throw Failure("the analyzer returned no spectrum");
    }
    // A full-scale sine at a bin centre reads 20 log10(N/4): report dB
    // relative to that, so 0 dB is full scale.
    const double reference = 20.0 * std::log10(size / 4.0);
    const double binHz = static_cast<double>(f.rate) / size;
    if (p.csv) {
        std::printf("frequency_hz");
        for (uint32_t c = 0; c < f.channels; ++c) {
            std::printf(",%s_db", channelName(c, f.channels));
        }
        std::printf("\n");
        for (uint32_t k = 0; k < bins; ++k) {
            std::printf("%.3f", k * binHz);
            for (uint32_t c = 0; c < f.channels; ++c) {
                std::printf(",%.2f", db[c * bins + k] - reference);
            }
            std::printf("\n");
        }
        return 0;
    }
    std::printf("spectrum of %s at %.3f s: %u-point, %s, %.2f Hz per bin\n", p.file.c_str(),
                static_cast<double>(frame) / f.rate, size, formatDescription(f).c_str(), binHz);
    std::printf("(dB relative to a full-scale sine; the loudest bin of each band)\n");
    // Bands spaced by thirds of an octave from 20 Hz (or one bin) to half the rate.
    double lo = std::max(20.0, binHz);
    const double floorDb = -120.0 - reference;
    while (lo < f.rate / 2.0) {
        double hi = std::min(lo * 1.2599210498948732, f.rate / 2.0);
        uint32_t k0 = static_cast<uint32_t>(std::ceil(lo / binHz));
        uint32_t k1 = std::min(bins - 1, static_cast<uint32_t>(std::floor(hi / binHz)));
        if (k0 <= k1) {
            std::printf("%7.0f - %-7.0f Hz", lo, hi);
            for (uint32_t c = 0; c < f.channels; ++c) {
                float best = -1e9f;
                for (uint32_t k = k0; k <= k1; ++k) {
                    best = std::max(best, db[c * bins + k]);
                }
                double v = best - reference;
                std::printf("  %7.1f %-40s", v, bar(v, floorDb).c_str());
            }
            std::printf("\n");
        }
        lo = hi;
    }
    return 0;
}

int runEnvelope(const std::vector<std::string>& args, const Options& options) {
    const char* usage = "dsp envelope FILE.wav [--step SECONDS] [--csv]";
    Parsed p = parseArgs(args, {"--step"}, usage);
    double step = 0.1;
    for (const auto& option : p.options) {
        step = optionNumber(option.first, option.second, 0.001, 3600.0);
    }
    WavInput in(p.file, kBlockFrames);
    const AudioFormat f = in.format();
    void* env = initEnvAnalyze(kBlockFrames, f.channels, f.rate);
    if (env == nullptr) {
        throw Failure("cannot create the analyzer (out of memory?)");
    }
    struct Guard {
        void* h;
        ~Guard() { termEnvAnalyze(h); }
    } guard{env};

    const uint64_t perRow =
        std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(step * f.rate)));
    // Full scale: a constant full-scale input settles at 2.5 x 32767.
    const double fullScale = 2.5 * 32767.0;
    std::vector<int16_t> block(kBlockFrames * f.channels);
    std::vector<float> out(kBlockFrames * f.channels);
    std::vector<float> rowMax(f.channels, 0.0f);
    uint64_t position = 0;
    uint64_t rowStart = 0;
    if (p.csv) {
        std::printf("time_s");
        for (uint32_t c = 0; c < f.channels; ++c) {
            std::printf(",%s", channelName(c, f.channels));
        }
        std::printf("\n");
    } else {
        std::printf("envelope of %s, %s, every %.3f s (dB relative to full scale)\n",
                    p.file.c_str(), formatDescription(f).c_str(), step);
    }
    auto emitRow = [&]() {
        double t = static_cast<double>(rowStart) / f.rate;
        if (p.csv) {
            std::printf("%.4f", t);
            for (uint32_t c = 0; c < f.channels; ++c) {
                std::printf(",%.0f", rowMax[c]);
            }
        } else {
            std::printf("%9.3f s", t);
            for (uint32_t c = 0; c < f.channels; ++c) {
                double v = rowMax[c] > 0.0f ? 20.0 * std::log10(rowMax[c] / fullScale) : -120.0;
                std::printf("  %7.1f %-40s", v, bar(v, -80.0).c_str());
            }
        }
        std::printf("\n");
        std::fill(rowMax.begin(), rowMax.end(), 0.0f);
    };
    Progress progress("following", in.totalFrames(), options.quiet || !p.csv);
    for (uint32_t n; (n = in.read(block.data(), kBlockFrames)) > 0;) {
        doEnvAnalyze(env, block.data(), out.data(), n * 2 * f.channels);
        for (uint32_t i = 0; i < n; ++i) {
            for (uint32_t c = 0; c < f.channels; ++c) {
                rowMax[c] = std::max(rowMax[c], out[c * n + i]);
            }
            if (++position - rowStart == perRow) {
                emitRow();
                rowStart = position;
            }
        }
        progress.update(position);
    }
    if (position > rowStart) {
        emitRow();
    }
    return 0;
}

std::vector<Slice> findSlices(const std::string& path, const SliceOptions& o,
                              const Options& options) {
    WavInput in(path, kBlockFrames);
    const AudioFormat f = in.format();
    void* slicer = initWaveSlice(kBlockFrames, f.channels, f.rate, o.startGateDb, o.endGateDb,
                                 o.risePercent, o.minSeconds);
    if (slicer == nullptr) {
        throw Failure("cannot create the wave slicer (out of memory?)");
    }
    struct Guard {
        void* h;
        ~Guard() { termWaveSlice(h); }
    } guard{slicer};
    std::vector<int16_t> block(kBlockFrames * f.channels);
    Progress progress("slicing", in.totalFrames(), options.quiet);
    uint64_t done = 0;
    for (uint32_t n; (n = in.read(block.data(), kBlockFrames)) > 0;) {
        doWaveSlice(slicer, block.data(), n * 2 * f.channels);
        done += n;
        progress.update(done);
    }
    std::vector<Slice> slices;
    for (const SliceRecord* r = getWaveSlice(slicer, 0); r != nullptr; r = r->next) {
        slices.push_back(Slice{r->startSeconds, r->endSeconds});
    }
    return slices;
}

int runSlices(const std::vector<std::string>& args, const Options& options) {
    const char* usage = "dsp slices FILE.wav [--split DIR] [--start-gate DB] [--end-gate DB] "
                        "[--rise PERCENT] [--min SECONDS] [--csv]";
    Parsed p = parseArgs(args, {"--split", "--start-gate", "--end-gate", "--rise", "--min"}, usage);
    SliceOptions o;
    std::string splitDir;
    for (const auto& [name, value] : p.options) {
        if (name == "--split") {
            splitDir = value;
        } else if (name == "--start-gate") {
            o.startGateDb = static_cast<float>(optionNumber(name, value, -120.0, 20.0));
        } else if (name == "--end-gate") {
            o.endGateDb = static_cast<float>(optionNumber(name, value, -120.0, 20.0));
        } else if (name == "--rise") {
            o.risePercent = static_cast<float>(optionNumber(name, value, 0.0, 1000.0));
        } else {
            o.minSeconds = static_cast<float>(optionNumber(name, value, 0.0, 3600.0));
        }
    }
    if (!splitDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(splitDir, ec);
        if (!std::filesystem::is_directory(splitDir, ec)) {
            throw Failure("cannot create the directory '" + splitDir + "'");
        }
    }
    std::vector<Slice> slices = findSlices(p.file, o, options);
    if (p.csv) {
        std::printf("index,start_s,end_s\n");
        for (size_t i = 0; i < slices.size(); ++i) {
            std::printf("%zu,%.6f,%.6f\n", i + 1, slices[i].startSeconds, slices[i].endSeconds);
        }
    } else {
        std::printf("%zu slice%s in %s\n", slices.size(), slices.size() == 1 ? "" : "s",
                    p.file.c_str());
        for (size_t i = 0; i < slices.size(); ++i) {
            std::printf("%4zu  %9.3f s - %9.3f s  (%.3f s)\n", i + 1, slices[i].startSeconds,
                        slices[i].endSeconds, slices[i].endSeconds - slices[i].startSeconds);
        }
    }
    if (!splitDir.empty()) {
        WavInput in(p.file, kBlockFrames);
        const AudioFormat f = in.format();
        for (size_t i = 0; i < slices.size(); ++i) {
            uint64_t from = static_cast<uint64_t>(std::llround(slices[i].startSeconds * f.rate));
            uint64_t to = static_cast<uint64_t>(std::llround(slices[i].endSeconds * f.rate));
            to = std::min(to, in.totalFrames());
            from = std::min(from, to);
            std::vector<int16_t> samples(static_cast<size_t>(to - from) * f.channels);
            in.seekFrame(from);
            for (uint64_t at = 0; at < to - from;) {
                uint32_t got = in.read(
                    samples.data() + at * f.channels,
                    static_cast<uint32_t>(std::min<uint64_t>(to - from - at, kBlockFrames)));
                if (got == 0) {
                    break;
                }
                at += got;
            }
            char name[32];
            std::snprintf(name, sizeof name, "slice-%03zu.wav", i + 1);
            std::string out = (std::filesystem::path(splitDir) / name).string();
            checkDistinct(p.file, out);
            writeWholeFile(out, f, samples);
        }
        if (!options.quiet && !p.csv) {
            std::printf("wrote %zu file%s to %s\n", slices.size(), slices.size() == 1 ? "" : "s",
                        splitDir.c_str());
        }
    }
    return 0;
}

} // namespace cli
