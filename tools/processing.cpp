// `dsp IN OUT EFFECT...` and `dsp crossfade A B OUT SECONDS`.
#include "cli_error.h"
#include "commands.h"
#include "dsp.h"
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

// The host loop: all of `in` through the chain into `out` in blocks of the
// chosen size; returns the frames read. 16-bit input to 16-bit output runs
// the library's 16-bit path, so it gives exactly what a 16-bit host gets; an
// empty chain between equal encodings copies the samples as they are;
// everything else runs in float. An exact block choice pads the last block
// with silence and cuts the output at the exact length.
uint64_t stream(AudioInput& in, Chain& chain, const BlockChoice& choice, AudioOutput& out,
                const std::string& outPath, Progress& progress) {
    const uint32_t ch = in.format().channels;
    const uint32_t block = choice.frames;
    const SampleType from = in.stream().type, to = out.stream().type;
    const bool raw = chain.empty() && from == to;
    const bool int16 =
        !raw && from == SampleType::kInt16 && to == SampleType::kInt16 && chain.runsInt16();
    std::vector<uint8_t> rawBlock(raw ? size_t{block} * in.stream().frameBytes() : 0);
    std::vector<int16_t> src16(int16 ? size_t{block} * ch : 0);
    std::vector<int16_t> dst16(int16 ? chain.outputCapacityBytes(block) / 2 : 0);
    std::vector<float> src(!raw && !int16 ? size_t{block} * ch : 0);
    std::vector<float> dst(!raw && !int16 ? chain.outputCapacitySamples(block) : 0);
    const bool pad = choice.exact && !raw;
    uint64_t framesIn = 0, framesOut = 0;
    // Of `produced` frames from a block of n input frames, those to write.
    auto keep = [&](uint32_t n, uint32_t produced) {
        if (!pad) {
            return produced;
        }
        const uint64_t owed = choice.outputFrames(framesIn + n) - framesOut;
        return produced < owed ? produced : static_cast<uint32_t>(owed);
    };
    for (;;) {
        stopIfInterrupted(outPath);
        uint32_t n, written = 0;
        if (raw) {
            n = in.readRaw(rawBlock.data(), block);
            out.writeRaw(rawBlock.data(), n);
        } else if (int16) {
            n = in.readInt16(src16.data(), block);
            std::fill(src16.begin() + static_cast<std::ptrdiff_t>(n) * ch, src16.end(), 0);
            written = keep(n, n == 0 ? 0 : chain.send(src16.data(), pad ? block : n, dst16.data()));
            out.writeInt16(dst16.data(), written);
        } else {
            n = in.readFloat(src.data(), block);
            std::fill(src.begin() + static_cast<std::ptrdiff_t>(n) * ch, src.end(), 0.0f);
            written =
                keep(n, n == 0 ? 0 : chain.sendFloat(src.data(), pad ? block : n, dst.data()));
            out.writeFloat(dst.data(), written);
        }
        if (n == 0) {
            break;
        }
        framesIn += n;
        framesOut += written;
        progress.update(framesIn);
    }
    return framesIn;
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
    result.framesIn = stream(in, chain, block, out, outPath, progress);
    if (in.lengthKnown() && result.framesIn < in.totalFrames()) {
        throw Failure("'" + in.name() + "' ends early: its data chunk promises " +
                      std::to_string(in.totalFrames()) + " frames, only " +
                      std::to_string(result.framesIn) + " could be read");
    }
    result.framesOut = out.framesWritten();
    out.commit(
        std::vector<ExtraChunk>(in.extraChunks().begin() + extrasAtOpen, in.extraChunks().end()));
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

// Fills frames [from, from + n) of a stream that holds `in` from frame
// `offset` on (silence elsewhere), reading `in` sequentially.
void fillFrom(AudioInput& in, uint64_t offset, uint64_t from, uint32_t n, int16_t* dst) {
    const uint32_t ch = in.format().channels;
    std::memset(dst, 0, static_cast<size_t>(n) * ch * 2);
    uint64_t begin = std::max(from, offset);
    uint64_t end = std::min(from + n, offset + in.totalFrames());
    uint64_t at = begin;
    while (at < end) {
        uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(end - at, kBlockFrames));
        uint32_t got = in.readInt16(dst + (at - from) * ch, want);
        if (got == 0) {
            throw Failure("'" + in.name() + "' ends early");
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
// outPath in A's encoding (the cross-fader mixes 16-bit samples); returns
// the frames written.
uint64_t writeCrossfade(const std::string& outPath, AudioInput& a, AudioInput& b, uint64_t bStart,
                        void* fader, const Options& options) {
    const AudioFormat f = a.format();
    const uint64_t total = bStart + b.totalFrames();
    AudioOutput out(outPath, {a.path(), b.path()}, f, a.stream(), options.encoding, {});
    std::vector<int16_t> bufA(size_t{kBlockFrames} * f.channels), bufB(bufA.size()),
        mixed(bufA.size());
    Progress progress("cross-fading", total, options.quiet);
    for (uint64_t t = 0; t < total;) {
        stopIfInterrupted(outPath);
        uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(total - t, kBlockFrames));
        fillFrom(a, 0, t, n, bufA.data());
        fillFrom(b, bStart, t, n, bufB.data());
        doCrossFade(fader, bufA.data(), bufB.data(), mixed.data(), n * 2 * f.channels);
        out.writeInt16(mixed.data(), n);
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
    if (args[0] == "-" && args[1] == "-") {
        throw UsageError("A and B cannot both be standard input");
    }
    AudioInput a(args[0]);
    AudioInput b(args[1]);
    for (const AudioInput* in : {&a, &b}) {
        if (!in->lengthKnown()) {
            throw Failure("'" + in->name() +
                          "' does not tell its length (a stream); crossfade needs it");
        }
    }
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
