// `dsp IN OUT EFFECT...` and `dsp crossfade A B OUT SECONDS`.
#include "cli_error.h"
#include "commands.h"
#include "dsp.h"
#include "numbers.h"
#include "owned.h"
#include "progress.h"
#include "temporary_samples.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>

namespace cli {

namespace {

// The report goes to standard error when the audio goes to standard output.
std::FILE* reportStream(const std::string& outPath) {
    return outPath == "-" ? stderr : stdout;
}

void stopIfInterrupted(const std::string& outPath) {
    if (interrupted()) {
        throw Failure("interrupted; '" + outPath + "' was not written");
    }
}

// Where processed samples go, a block of frames at a time.
using FloatSink = std::function<void(const float* src, uint32_t frames)>;

// The host loop: all of `in` through the chain in blocks of the chosen size,
// the output to `sink`; returns the frames read. An exact block choice pads
// the last block with silence and cuts the output at the exact length.
uint64_t stream(AudioInput& in, Chain& chain, const BlockChoice& choice, const FloatSink& sink,
                const std::string& outPath, Progress& progress) {
    const uint32_t ch = in.format().channels;
    const uint32_t block = choice.frames;
    std::vector<float> src(size_t{block} * ch);
    std::vector<float> dst(chain.outputCapacitySamples(block));
    uint64_t framesIn = 0, framesOut = 0;
    for (uint32_t n; (stopIfInterrupted(outPath), n = in.readFloat(src.data(), block)) > 0;) {
        std::fill(src.begin() + static_cast<std::ptrdiff_t>(n) * ch, src.end(), 0.0f);
        uint32_t written = chain.sendFloat(src.data(), choice.exact ? block : n, dst.data());
        if (choice.exact) {
            const uint64_t owed = choice.outputFrames(framesIn + n) - framesOut;
            written = written < owed ? written : static_cast<uint32_t>(owed);
        }
        sink(dst.data(), written);
        framesIn += n;
        framesOut += written;
        progress.update(framesIn);
    }
    return framesIn;
}

// An empty chain between equal encodings: the samples copied as they are.
uint64_t copyRaw(AudioInput& in, AudioOutput& out, const std::string& outPath, Progress& progress) {
    std::vector<uint8_t> block(size_t{kBlockFrames} * in.stream().frameBytes());
    uint64_t framesIn = 0;
    for (uint32_t n;
         (stopIfInterrupted(outPath), n = in.readRaw(block.data(), kBlockFrames)) > 0;) {
        out.writeRaw(block.data(), n);
        framesIn += n;
        progress.update(framesIn);
    }
    return framesIn;
}

// The largest magnitude an integer encoding takes without clamping: full
// scale, less one step where dither may add up to one.
double unclippedLimit(const AudioOutput& out) {
    if (!out.dithered()) {
        return 1.0;
    }
    const double scale = integerScale(out.stream().type);
    return (scale - 1.0) / scale;
}

// Runs `produce` with a sink; its samples reach `write` as they come, or
// with --no-clip (integer outputs) through a temporary, scaled down as a
// whole when their peak would clip.
void deliver(const std::function<void(const FloatSink&)>& produce, const FloatSink& write,
             AudioOutput& out, const std::string& outPath, const Options& options) {
    if (!options.noClip || isFloat(out.stream().type)) {
        produce(write);
        return;
    }
    const uint32_t ch = out.stream().channels;
    TemporarySamples kept(outPath);
    produce([&](const float* src, uint32_t frames) { kept.write(src, size_t{frames} * ch); });
    const double limit = unclippedLimit(out);
    float gain = kept.peak() > limit ? static_cast<float>(limit / kept.peak()) : 1.0f;
    while (kept.peak() * gain > static_cast<float>(limit)) {
        gain = std::nextafter(gain, 0.0f);
    }
    std::vector<float> scaled(size_t{kBlockFrames} * ch);
    kept.replay(scaled.size(), [&](const float* src, size_t count) {
        for (size_t i = 0; i < count; ++i) {
            scaled[i] = src[i] * gain;
        }
        write(scaled.data(), static_cast<uint32_t>(count / ch));
    });
}

// One warning line when an integer output clipped.
void warnClipping(const std::string& outPath, const AudioOutput& out) {
    if (out.clipped() > 0) {
        std::fprintf(stderr,
                     "dsp: warning: '%s': %llu sample%s clipped (the peak would have been %+.1f "
                     "dBFS); --no-clip scales the whole output down instead\n",
                     outPath.c_str(), static_cast<unsigned long long>(out.clipped()),
                     out.clipped() == 1 ? "" : "s",
                     20.0 * std::log10(static_cast<double>(out.peak())));
    }
}

// A fade-out is placed from the end of the input: a stream that does not
// tell its length cannot have one.
void checkFadeNeedsLength(const std::vector<EffectSpec>& effects, const AudioInput& in) {
    if (in.lengthKnown()) {
        return;
    }
    for (const EffectSpec& e : effects) {
        double out = 0.0;
        if (e.name == "fade" && !e.args.empty() && readNumber(e.args.back(), out) && out > 0.0) {
            throw UsageError("fade: '" + in.name() +
                             "' does not tell its length (a stream), so a fade-out cannot be "
                             "placed; use fade IN_S 0");
        }
    }
}

} // namespace

ProcessResult processFile(const std::string& inPath, const std::string& outPath,
                          const std::vector<EffectSpec>& effects, const Options& options) {
    AudioInput in(inPath);
    checkFadeNeedsLength(effects, in);
    const BlockChoice block = chooseBlock(effects, in.format());
    if (options.verbose) {
        std::fprintf(stderr, "dsp: %s\n", block.note.c_str());
    }
    Chain chain(block.frames, in.format());
    for (const EffectSpec& e : effects) {
        chain.add(e, in.totalFrames());
    }
    ProcessResult result;
    result.inFormat = in.format();
    result.outFormat = chain.outputFormat();
    result.inStream = in.stream();
    result.chain = chain.descriptions();
    const size_t extrasAtOpen = in.extraChunks().size();

    AudioOutput out(outPath, {inPath}, result.outFormat, in.stream(), options.encoding,
                    in.extraChunks());
    result.outStream = out.stream();
    result.dithered = out.dithered();
    Progress progress("processing", in.totalFrames(), options.quiet || outPath == "-");
    auto start = std::chrono::steady_clock::now();
    const bool raw = chain.empty() && in.stream().type == out.stream().type;
    // 16-bit input written as 16 bits through one library chain: the
    // library's 16-bit rule, so the result is exactly what a 16-bit host gets
    // from dspSend (a chain that averages two channels between library chains
    // has no such path: its floats are rounded, as any).
    const bool rule16 = in.stream().type == SampleType::kInt16 &&
                        out.stream().type == SampleType::kInt16 && chain.runsInt16();
    const bool monoSource = in.format().channels == 1;
    const FloatSink write = [&](const float* src, uint32_t frames) {
        if (rule16) {
            out.writeFloatBy16BitRule(src, frames, monoSource);
        } else {
            out.writeFloat(src, frames);
        }
    };
    if (raw) {
        result.framesIn = copyRaw(in, out, outPath, progress);
    } else {
        deliver(
            [&](const FloatSink& sink) {
                result.framesIn = stream(in, chain, block, sink, outPath, progress);
            },
            write, out, outPath, options);
    }
    if (in.lengthKnown() && result.framesIn < in.totalFrames()) {
        throw Failure("'" + in.name() + "' ends early: its data chunk promises " +
                      std::to_string(in.totalFrames()) + " frames, only " +
                      std::to_string(result.framesIn) + " could be read");
    }
    result.framesOut = out.framesWritten();
    out.commit(
        std::vector<ExtraChunk>(in.extraChunks().begin() + extrasAtOpen, in.extraChunks().end()));
    warnClipping(outPath, out);
    result.elapsedSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    progress.finish();
    return result;
}

int runProcess(const std::vector<std::string>& args, const Options& options) {
    if (args.size() < 2) {
        throw UsageError("expected IN.wav OUT.wav [EFFECT [ARGS]...] (see dsp --help)");
    }
    std::vector<std::string> words(args.begin() + 2, args.end());
    std::vector<EffectSpec> effects = parseEffects(words);
    ProcessResult r = processFile(args[0], args[1], effects, options);
    if (!options.quiet) {
        std::FILE* report = reportStream(args[1]);
        double seconds = static_cast<double>(r.framesOut) / r.outFormat.rate;
        std::fprintf(report, "%s: %.3f s, %s%s (%llu frames)", args[1].c_str(), seconds,
                     streamDescription(r.outStream).c_str(), r.dithered ? ", dithered" : "",
                     static_cast<unsigned long long>(r.framesOut));
        if (r.elapsedSeconds > 0.0) {
            double audio = static_cast<double>(r.framesIn) / r.inFormat.rate;
            std::fprintf(report, ", %.0fx real time", audio / r.elapsedSeconds);
        }
        std::fprintf(report, "\n");
    }
    return 0;
}

namespace {

double parseSeconds(const std::string& word, const char* what) {
    double v = 0.0;
    if (!readNumber(word, v) || !std::isfinite(v) || v < 0.0) {
        throw UsageError(std::string(what) + " must be a number of seconds >= 0, not '" + word +
                         "'");
    }
    return v;
}

// Fills frames [from, from + n) of a timeline that holds `in` from frame
// `offset` on (silence elsewhere), reading `in` sequentially.
void fillFrom(AudioInput& in, uint64_t offset, uint64_t from, uint32_t n, float* dst) {
    const uint32_t ch = in.format().channels;
    std::fill_n(dst, size_t{n} * ch, 0.0f);
    uint64_t begin = std::max(from, offset);
    uint64_t end = std::min(from + n, offset + in.totalFrames());
    for (uint64_t at = begin; at < end;) {
        uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(end - at, kBlockFrames));
        uint32_t got = in.readFloat(dst + (at - from) * ch, want);
        if (got == 0) {
            throw Failure("'" + in.name() + "' ends early");
        }
        at += got;
    }
}

enum class Curve { kEqualPower, kEqualGain };

// Ramps per fader that trace a cross-fade curve: between them the level
// runs in a straight line of dB, within 0.01 dB (equal power) and 0.06 dB
// (equal gain) of the curve.
constexpr uint32_t kCurveSegments = 32;
constexpr float kFaderFloorDb = -50.0f; // the fader's lowest level

// The gain of the incoming input at `x` (0..1) of the overlap; the outgoing
// one has the gain at 1 - x. Equal power: the two gains' squares sum to 1
// (uncorrelated material keeps its level); equal gain: the gains sum to 1
// (correlated material keeps its level).
double curveGain(Curve curve, double x) {
    return curve == Curve::kEqualGain ? x : std::sin(x * 1.5707963267948966);
}

uint32_t destroyChain(void* chain) {
    dspDestroy(chain);
    return 1;
}

// A chain holding one fader that follows `curve` over output frames
// [start, start + overlap): rising (B) or falling (A).
Owned curveFader(const AudioFormat& f, Curve curve, bool rising, uint64_t start, uint64_t overlap) {
    Owned chain = own(dspCreate(kBlockFrames, f.channels, f.rate), destroyChain,
                      "out of memory creating the cross-fade");
    const float startDb = rising && overlap > 0 ? kFaderFloorDb : 0.0f;
    void* fader = initFader(kBlockFrames, f.channels, f.rate, 0.0f, startDb, 0.0f);
    if (fader == nullptr || dspAdd(chain.get(), fader, 1) != 1) {
        if (fader != nullptr) {
            termFader(fader);
        }
        throw Failure("out of memory creating the cross-fade");
    }
    // The schedule is set once the fader is in its chain. An action starts
    // after the fader's first sample; a time half a frame into a frame lands
    // on that frame.
    float previous = 0.0f;
    for (uint32_t k = 1; k <= kCurveSegments && overlap > 0; ++k) {
        const uint64_t from = start + overlap * (k - 1) / kCurveSegments;
        const uint64_t to = start + overlap * k / kCurveSegments;
        const float t0 =
            static_cast<float>((static_cast<double>(std::max<uint64_t>(from, 1)) + 0.5) / f.rate);
        const float t1 = static_cast<float>((static_cast<double>(to) + 0.5) / f.rate);
        if (t0 <= previous || t1 <= t0) {
            continue; // shorter than a frame
        }
        const double x = static_cast<double>(k) / kCurveSegments;
        const double gain = curveGain(curve, rising ? x : 1.0 - x);
        const double db = gain > 0.0 ? 20.0 * std::log10(gain) : kFaderFloorDb;
        setFaderAction(fader, 0, t0, t1, static_cast<float>(std::max<double>(db, kFaderFloorDb)));
        previous = t1;
    }
    return chain;
}

// A, and B from frame bStart on, each through its fader, summed into `sink`;
// returns the frames written.
uint64_t mixCrossfade(AudioInput& a, AudioInput& b, uint64_t bStart, Curve curve,
                      const FloatSink& sink, const std::string& outPath, const Options& options) {
    const AudioFormat f = a.format();
    const uint64_t total = bStart + b.totalFrames();
    const uint64_t overlap = a.totalFrames() - bStart;
    Owned fadeA = curveFader(f, curve, false, bStart, overlap);
    Owned fadeB = curveFader(f, curve, true, bStart, overlap);
    const size_t samples = size_t{kBlockFrames} * f.channels;
    std::vector<float> bufA(samples), bufB(samples), outA(samples), outB(samples);
    Progress progress("cross-fading", total, options.quiet);
    for (uint64_t t = 0; t < total;) {
        stopIfInterrupted(outPath);
        uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(total - t, kBlockFrames));
        fillFrom(a, 0, t, n, bufA.data());
        fillFrom(b, bStart, t, n, bufB.data());
        if (dspSendFloat(fadeA.get(), bufA.data(), outA.data(), n) != n ||
            dspSendFloat(fadeB.get(), bufB.data(), outB.data(), n) != n) {
            throw Failure("the cross-fade's faders failed");
        }
        for (size_t i = 0; i < size_t{n} * f.channels; ++i) {
            outA[i] += outB[i];
        }
        sink(outA.data(), n);
        t += n;
        progress.update(t);
    }
    progress.finish();
    return total;
}

Curve curveOption(const std::string& value) {
    if (value == "equal-power") {
        return Curve::kEqualPower;
    }
    if (value == "equal-gain") {
        return Curve::kEqualGain;
    }
    throw UsageError("--curve must be equal-power or equal-gain, not '" + value + "'");
}

} // namespace

int runCrossfade(const std::vector<std::string>& args, const Options& options) {
    const char* usage =
        "usage: dsp crossfade A.wav B.wav OUT.wav SECONDS [--curve equal-power|equal-gain]";
    std::vector<std::string> words;
    Curve curve = Curve::kEqualPower;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--curve") {
            if (i + 1 >= args.size()) {
                throw UsageError(std::string("--curve needs a value; ") + usage);
            }
            curve = curveOption(args[++i]);
        } else {
            words.push_back(args[i]);
        }
    }
    if (words.size() != 4) {
        throw UsageError(usage);
    }
    double overlapSeconds = parseSeconds(words[3], "SECONDS");
    if (words[0] == "-" && words[1] == "-") {
        throw UsageError("A and B cannot both be standard input");
    }
    AudioInput a(words[0]);
    AudioInput b(words[1]);
    for (const AudioInput* in : {&a, &b}) {
        if (!in->lengthKnown()) {
            throw Failure("'" + in->name() +
                          "' does not tell its length (a stream); crossfade needs it");
        }
    }
    const AudioFormat f = a.format();
    if (f.rate != b.format().rate || f.channels != b.format().channels) {
        throw Failure("'" + words[0] + "' is " + formatDescription(f) + " but '" + words[1] +
                      "' is " + formatDescription(b.format()) + "; resample one of them first");
    }
    uint64_t overlap = static_cast<uint64_t>(std::llround(overlapSeconds * f.rate));
    if (overlap > a.totalFrames() || overlap > b.totalFrames()) {
        throw UsageError("SECONDS (" + words[3] + ") is longer than the shorter input");
    }
    AudioOutput out(words[2], {a.path(), b.path()}, f, a.stream(), options.encoding, {});
    uint64_t total = 0;
    deliver(
        [&](const FloatSink& sink) {
            total = mixCrossfade(a, b, a.totalFrames() - overlap, curve, sink, words[2], options);
        },
        [&](const float* src, uint32_t frames) { out.writeFloat(src, frames); }, out, words[2],
        options);
    out.commit();
    warnClipping(words[2], out);
    if (!options.quiet) {
        std::fprintf(reportStream(words[2]), "%s: %.3f s, %s (%.3f s overlap, %s)\n",
                     words[2].c_str(), static_cast<double>(total) / f.rate,
                     formatDescription(f).c_str(), static_cast<double>(overlap) / f.rate,
                     curve == Curve::kEqualGain ? "equal gain" : "equal power");
    }
    return 0;
}

} // namespace cli
