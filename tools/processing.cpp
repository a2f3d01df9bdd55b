// `dsp IN OUT EFFECT...` and `dsp crossfade A B OUT SECONDS`.
#include "cli_error.h"
#include "commands.h"
#include "numbers.h"
#include "owned.h"
#include "progress.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

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

// The host loop: all of `in` through the chain into `out`; returns the
// frames read.
uint64_t stream(WavInput& in, Chain& chain, WavOutput& out, const std::string& outPath,
                Progress& progress) {
    std::vector<int16_t> src(size_t{kBlockFrames} * in.format().channels);
    std::vector<int16_t> dst(chain.outputCapacityBytes(kBlockFrames) / 2);
    uint64_t framesIn = 0;
    for (;;) {
        stopIfInterrupted(outPath);
        uint32_t n = in.read(src.data(), kBlockFrames);
        if (n == 0) {
            break;
        }
        uint32_t m = chain.send(src.data(), n, dst.data());
        out.write(dst.data(), m);
        framesIn += n;
        progress.update(framesIn);
    }
    return framesIn;
}

} // namespace

ProcessResult processFile(const std::string& inPath, const std::string& outPath,
                          const std::vector<EffectSpec>& effects, const Options& options) {
    WavInput in(inPath, kBlockFrames);
    Chain chain(kBlockFrames, in.format());
    for (const EffectSpec& e : effects) {
        chain.add(e, in.totalFrames());
    }
    ProcessResult result;
    result.inFormat = in.format();
    result.outFormat = chain.outputFormat();
    result.chain = chain.descriptions();

    WavOutput out(outPath, result.outFormat, {inPath});
    Progress progress("processing", in.totalFrames(), options.quiet);
    auto start = std::chrono::steady_clock::now();
    result.framesIn = stream(in, chain, out, outPath, progress);
    if (result.framesIn < in.totalFrames()) {
        throw Failure("'" + inPath + "' ends early: its data chunk promises " +
                      std::to_string(in.totalFrames()) + " frames, only " +
                      std::to_string(result.framesIn) + " could be read");
    }
    result.framesOut = out.framesWritten();
    out.commit();
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
        std::fprintf(report, "%s: %.3f s, %s (%llu frames)", args[1].c_str(), seconds,
                     formatDescription(r.outFormat).c_str(),
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

// Fills frames [from, from + n) of a stream that holds `in` from frame
// `offset` on (silence elsewhere), reading `in` sequentially.
void fillFrom(WavInput& in, uint64_t offset, uint64_t from, uint32_t n, int16_t* dst) {
    const uint32_t ch = in.format().channels;
    std::memset(dst, 0, static_cast<size_t>(n) * ch * 2);
    uint64_t begin = std::max(from, offset);
    uint64_t end = std::min(from + n, offset + in.totalFrames());
    uint64_t at = begin;
    while (at < end) {
        uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(end - at, kBlockFrames));
        uint32_t got = in.read(dst + (at - from) * ch, want);
        if (got == 0) {
            throw Failure("'" + in.path() + "' ends early");
        }
        at += got;
    }
}

// A cross-fader at +1 (A alone) that moves to -1 (B alone) across the
// `overlap` frames before the end of A.
Owned crossFader(const AudioFormat& f, uint64_t aFrames, uint64_t overlap) {
    Owned fader = own(initFader(kBlockFrames, f.channels, f.rate, 1.0f, 0.0f, 0.0f), termFader,
                      "out of memory creating the cross-fader");
    if (overlap > 0) {
        double first = 1.5 / f.rate;
        double start = std::max(static_cast<double>(aFrames - overlap) / f.rate, first);
        double end = std::max(static_cast<double>(aFrames) / f.rate, start + first);
        setCrossFaderAction(fader.get(), static_cast<float>(start), static_cast<float>(end), -1.0f);
    }
    return fader;
}

// Writes A, and B from frame bStart on, through the cross-fader into
// outPath; returns the frames written.
uint64_t writeCrossfade(const std::string& outPath, WavInput& a, WavInput& b, uint64_t bStart,
                        void* fader, const Options& options) {
    const AudioFormat f = a.format();
    const uint64_t total = bStart + b.totalFrames();
    WavOutput out(outPath, f, {a.path(), b.path()});
    std::vector<int16_t> bufA(size_t{kBlockFrames} * f.channels), bufB(bufA.size()),
        mixed(bufA.size());
    Progress progress("cross-fading", total, options.quiet);
    for (uint64_t t = 0; t < total;) {
        stopIfInterrupted(outPath);
        uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(total - t, kBlockFrames));
        fillFrom(a, 0, t, n, bufA.data());
        fillFrom(b, bStart, t, n, bufB.data());
        doCrossFade(fader, bufA.data(), bufB.data(), mixed.data(), n * 2 * f.channels);
        out.write(mixed.data(), n);
        t += n;
        progress.update(t);
    }
    out.commit();
    progress.finish();
    return total;
}

} // namespace

int runCrossfade(const std::vector<std::string>& args, const Options& options) {
    if (args.size() != 4) {
        throw UsageError("usage: dsp crossfade A.wav B.wav OUT.wav SECONDS");
    }
    double overlapSeconds = parseSeconds(args[3], "SECONDS");
    WavInput a(args[0], kBlockFrames);
    WavInput b(args[1], kBlockFrames);
    const AudioFormat f = a.format();
    if (f.rate != b.format().rate || f.channels != b.format().channels) {
        throw Failure("'" + args[0] + "' is " + formatDescription(f) + " but '" + args[1] +
                      "' is " + formatDescription(b.format()) + "; resample one of them first");
    }
    uint64_t overlap = static_cast<uint64_t>(std::llround(overlapSeconds * f.rate));
    if (overlap > a.totalFrames() || overlap > b.totalFrames()) {
        throw UsageError("SECONDS (" + args[3] + ") is longer than the shorter input");
    }
    Owned fader = crossFader(f, a.totalFrames(), overlap);
    uint64_t total = writeCrossfade(args[2], a, b, a.totalFrames() - overlap, fader.get(), options);
    if (!options.quiet) {
        std::fprintf(reportStream(args[2]), "%s: %.3f s, %s (%.3f s overlap)\n", args[2].c_str(),
                     static_cast<double>(total) / f.rate, formatDescription(f).c_str(),
                     static_cast<double>(overlap) / f.rate);
    }
    return 0;
}

} // namespace cli
