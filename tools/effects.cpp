#include "effects.h"

#include "cli_error.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace cli {

namespace {

// Processor settings the tool does not expose.
constexpr float kFilterAttenuationDb = 60.0f; // resampler / hqups anti-alias filter
constexpr float kFilterSlopeDbPerOctave = 60.0f;
constexpr float kGrainSeconds = 0.05f; // pitch / stretch grains
constexpr float kSpacingSeconds = 0.01f;
constexpr uint32_t kHqupsBandEdgeHz = 5000;
constexpr float kFaderFloorDb = -50.0f; // the fader's lowest level
constexpr uint32_t kChorusHistory = 65536;

struct EffectInfo {
    const char* name;
    const char* usage;
    const char* help;
};

const EffectInfo kEffects[] = {
    {"lowpass", "lowpass ORDER HZ", "Chebyshev low-pass (1 dB ripple), ORDER 1..32"},
    {"highpass", "highpass ORDER HZ", "Chebyshev high-pass (1 dB ripple), ORDER 1..32"},
    {"resample", "resample RATE [linear|cubic] [mono|stereo]",
     "change the sample rate (default cubic, channels kept)"},
    {"hqups", "hqups [HARMONICS] [MIX%] [active]",
     "upsample to 48000 Hz adding harmonics (default 0.3 50; active limits them to the band "
     "above the source's bandwidth)"},
    {"chorus", "chorus [VOICES DELAY_MS DEPTH_MS PERIOD_S MIX% DRY%]",
     "multi-voice chorus (default 3 20 2 1.5 30 100)"},
    {"pitch", "pitch CENTS", "shift the pitch, -1200..1200 cents, keeping the duration"},
    {"stretch", "stretch SCALE",
     "change the duration keeping the pitch: SCALE in thousandths of an octave, -2000..3000 "
     "(1000 halves the duration, -1000 doubles it)"},
    {"tempo", "tempo FACTOR", "the same given as a speed factor, 0.25..8 (1.25 plays 25% faster)"},
    {"gain", "gain DB", "change the level, -50..50 dB"},
    {"fade", "fade IN_S [OUT_S]",
     "fade in from -50 dB over IN_S seconds and out over OUT_S (default IN_S) at the end"},
};

const EffectInfo& info(const std::string& name) {
    for (const EffectInfo& e : kEffects) {
        if (name == e.name) {
            return e;
        }
    }
    throw UsageError("unknown effect '" + name + "'");
}

double number(const EffectSpec& e, size_t index, const char* what) {
    const std::string& word = e.args.at(index);
    char* end = nullptr;
    double v = std::strtod(word.c_str(), &end);
    if (word.empty() || end == nullptr || *end != '\0' || !std::isfinite(v)) {
        throw UsageError(std::string(e.name) + ": " + what + " must be a number, not '" + word +
                         "'");
    }
    return v;
}

double numberIn(const EffectSpec& e, size_t index, const char* what, double lo, double hi) {
    double v = number(e, index, what);
    if (v < lo || v > hi) {
        std::ostringstream msg;
        msg << e.name << ": " << what << " must be between " << lo << " and " << hi << ", not "
            << e.args[index];
        throw UsageError(msg.str());
    }
    return v;
}

double wholeIn(const EffectSpec& e, size_t index, const char* what, double lo, double hi) {
    double v = numberIn(e, index, what, lo, hi);
    if (v != std::floor(v)) {
        throw UsageError(e.name + ": " + what + " must be a whole number, not " + e.args[index]);
    }
    return v;
}

bool isNumber(const std::string& word) {
    char* end = nullptr;
    std::strtod(word.c_str(), &end);
    return !word.empty() && end != nullptr && *end == '\0';
}

void requireCount(const EffectSpec& e, size_t lo, size_t hi) {
    if (e.args.size() < lo) {
        throw UsageError(e.name + ": missing argument; usage: " + info(e.name).usage);
    }
    if (e.args.size() > hi) {
        throw UsageError(e.name + ": too many arguments ('" + e.args[hi] +
                         "'); usage: " + info(e.name).usage);
    }
}

// Settings of each effect, checked; shared by parsing (validation) and building.
struct ResampleSettings {
    uint32_t rate;
    uint32_t interpolation = 1;
    uint32_t channels = 0; // 0 = keep
};

ResampleSettings resampleSettings(const EffectSpec& e) {
    requireCount(e, 1, 3);
    ResampleSettings s;
    s.rate = static_cast<uint32_t>(wholeIn(e, 0, "RATE", 1000, 768000));
    for (size_t i = 1; i < e.args.size(); ++i) {
        const std::string& w = e.args[i];
        if (w == "linear") {
            s.interpolation = 0;
        } else if (w == "cubic") {
            s.interpolation = 1;
        } else if (w == "mono") {
            s.channels = 1;
        } else if (w == "stereo") {
            s.channels = 2;
        } else {
            throw UsageError("resample: unknown option '" + w + "'; usage: " + info(e.name).usage);
        }
    }
    return s;
}

struct HqupsSettings {
    float harmonics = 0.3f;
    float mix = 50.0f;
    uint32_t active = 0;
};

HqupsSettings hqupsSettings(const EffectSpec& e) {
    requireCount(e, 0, 3);
    HqupsSettings s;
    size_t numbers = 0;
    for (size_t i = 0; i < e.args.size(); ++i) {
        if (e.args[i] == "active") {
            s.active = 1;
        } else if (numbers == 0) {
            s.harmonics = static_cast<float>(numberIn(e, i, "HARMONICS", 0.0, 1.0));
            ++numbers;
        } else if (numbers == 1) {
            s.mix = static_cast<float>(numberIn(e, i, "MIX%", 0.0, 400.0));
            ++numbers;
        } else {
            throw UsageError("hqups: too many numbers; usage: " + std::string(info(e.name).usage));
        }
    }
    return s;
}

struct ChorusSettings {
    uint32_t voices = 3;
    float delayMs = 20.0f;
    float depthMs = 2.0f;
    float periodS = 1.5f;
    float mix = 30.0f;
    float dry = 100.0f;
};

ChorusSettings chorusSettings(const EffectSpec& e) {
    requireCount(e, 0, 6);
    ChorusSettings s;
    size_t n = e.args.size();
    if (n > 0) {
        s.voices = static_cast<uint32_t>(wholeIn(e, 0, "VOICES", 0, 16));
    }
    if (n > 1) {
        s.delayMs = static_cast<float>(numberIn(e, 1, "DELAY_MS", 0.0, 1000.0));
    }
    if (n > 2) {
        s.depthMs = static_cast<float>(numberIn(e, 2, "DEPTH_MS", 0.0, 1000.0));
    }
    if (n > 3) {
        s.periodS = static_cast<float>(numberIn(e, 3, "PERIOD_S", 0.0, 3600.0));
    }
    if (n > 4) {
        s.mix = static_cast<float>(numberIn(e, 4, "MIX%", 0.0, 400.0));
    }
    if (n > 5) {
        s.dry = static_cast<float>(numberIn(e, 5, "DRY%", 0.0, 400.0));
    }
    if (s.depthMs > s.delayMs) {
        throw UsageError("chorus: DEPTH_MS must not exceed DELAY_MS (the swept delay would go "
                         "below zero)");
    }
    if (s.delayMs + s.depthMs > 1000.0f) {
        throw UsageError("chorus: DELAY_MS + DEPTH_MS must not exceed 1000");
    }
    return s;
}

struct FadeSettings {
    double in;
    double out;
};

FadeSettings fadeSettings(const EffectSpec& e) {
    requireCount(e, 1, 2);
    FadeSettings s;
    s.in = numberIn(e, 0, "IN_S", 0.0, 3600.0);
    s.out = e.args.size() > 1 ? numberIn(e, 1, "OUT_S", 0.0, 3600.0) : s.in;
    return s;
}

// Checks everything that does not depend on the format.
void validate(const EffectSpec& e) {
    const std::string& n = e.name;
    if (n == "lowpass" || n == "highpass") {
        requireCount(e, 2, 2);
        wholeIn(e, 0, "ORDER", 1, 32);
        numberIn(e, 1, "HZ", 1e-3, 1e6);
    } else if (n == "resample") {
        resampleSettings(e);
    } else if (n == "hqups") {
        hqupsSettings(e);
    } else if (n == "chorus") {
        chorusSettings(e);
    } else if (n == "pitch") {
        requireCount(e, 1, 1);
        numberIn(e, 0, "CENTS", -1200.0, 1200.0);
    } else if (n == "stretch") {
        requireCount(e, 1, 1);
        numberIn(e, 0, "SCALE", -2000.0, 3000.0);
    } else if (n == "tempo") {
        requireCount(e, 1, 1);
        numberIn(e, 0, "FACTOR", 0.25, 8.0);
    } else if (n == "gain") {
        requireCount(e, 1, 1);
        numberIn(e, 0, "DB", -50.0, 50.0);
    } else if (n == "fade") {
        fadeSettings(e);
    } else {
        info(n); // throws
    }
}

std::string fixed(double v, int digits) {
    std::ostringstream s;
    s.setf(std::ios::fixed);
    s.precision(digits);
    s << v;
    return s.str();
}

} // namespace

bool isEffectName(const std::string& word) {
    for (const EffectInfo& e : kEffects) {
        if (word == e.name) {
            return true;
        }
    }
    return false;
}

std::vector<EffectSpec> parseEffects(const std::vector<std::string>& words) {
    std::vector<EffectSpec> effects;
    for (const std::string& w : words) {
        if (isEffectName(w)) {
            effects.push_back(EffectSpec{w, {}});
        } else if (effects.empty()) {
            if (isNumber(w)) {
                throw UsageError("'" + w + "' does not follow an effect");
            }
            throw UsageError("unknown effect '" + w + "' (see dsp --help)");
        } else {
            effects.back().args.push_back(w);
        }
    }
    for (const EffectSpec& e : effects) {
        validate(e);
    }
    return effects;
}

std::string effectsHelp() {
    std::ostringstream out;
    for (const EffectInfo& e : kEffects) {
        out << "  " << e.usage << "\n      " << e.help << "\n";
    }
    return out.str();
}

Chain::Chain(uint32_t blockFrames, const AudioFormat& source)
    : blockFrames_(blockFrames), source_(source) {
    chain_ = dspCreate(blockFrames, source.channels, source.rate);
    if (chain_ == nullptr) {
        throw Failure("out of memory creating the processing chain");
    }
}

Chain::~Chain() {
    dspDestroy(chain_);
}

AudioFormat Chain::outputFormat() const {
    return AudioFormat{dspGetDstRate(chain_), dspGetDstChannels(chain_)};
}

uint32_t Chain::outputCapacityBytes(uint32_t frames) const {
    // The chain's size estimate ignores a change of channel count: allow twice.
    uint64_t bytes = dspGetDstSize(chain_, frames * 2 * source_.channels);
    return static_cast<uint32_t>(2 * bytes + 1024);
}

uint32_t Chain::send(const int16_t* src, uint32_t frames, int16_t* dst) {
    uint32_t bytes = dspSend(chain_, src, dst, frames * 2 * source_.channels);
    return bytes / (2 * dspGetDstChannels(chain_));
}

void Chain::append(uint32_t (*term)(void*), void* processor, const std::string& what) {
    if (processor == nullptr) {
        throw Failure(what + ": the processor could not be created (out of memory?)");
    }
    // The chain owns what it accepts; a refused processor is still ours.
    if (dspAdd(chain_, processor, ++order_) != descriptions_.size() + 1) {
        term(processor);
        throw Failure(what + ": the chain refused the processor");
    }
    descriptions_.push_back(what);
}

void Chain::add(const EffectSpec& e, uint64_t totalFrames) {
    const AudioFormat now = outputFormat();
    // Frames per block at this point of the chain (the size estimate scales
    // bytes of the source's channel count).
    const uint32_t frames = static_cast<uint32_t>(
        dspGetDstSize(chain_, blockFrames_ * 2 * source_.channels) / (2 * source_.channels));
    const uint32_t block = frames > 0 ? frames : 1;
    const std::string& n = e.name;
    if (n == "lowpass" || n == "highpass") {
        uint32_t order = static_cast<uint32_t>(number(e, 0, "ORDER"));
        double hz = number(e, 1, "HZ");
        if (hz >= now.rate / 2.0) {
            throw UsageError(n + ": HZ must be below half the sample rate (" +
                             std::to_string(now.rate / 2) + " Hz here)");
        }
        append(termIirFilter,
               initIirFilter(block, now.channels, now.rate, order, static_cast<float>(hz),
                             n == "highpass" ? 1 : 0),
               n + " order " + std::to_string(order) + " at " + fixed(hz, 0) + " Hz");
    } else if (n == "resample") {
        ResampleSettings s = resampleSettings(e);
        uint32_t outChannels = s.channels != 0 ? s.channels : now.channels;
        append(termResampler,
               initResampler(block, now.channels, outChannels, now.rate, s.rate, s.interpolation,
                             kFilterAttenuationDb, kFilterSlopeDbPerOctave, 1),
               "resample " + std::to_string(now.rate) + " -> " + std::to_string(s.rate) + " Hz " +
                   (s.interpolation ? "cubic" : "linear") +
                   (outChannels != now.channels ? (outChannels == 2 ? ", to stereo" : ", to mono")
                                                : ""));
    } else if (n == "hqups") {
        HqupsSettings s = hqupsSettings(e);
        append(termHqups,
               initHqupsBySrcsize(block, now.channels, now.channels, now.rate, s.harmonics, s.mix,
                                  kHqupsBandEdgeHz, 1, kFilterAttenuationDb,
                                  kFilterSlopeDbPerOctave, s.active, 1),
               "hqups " + std::to_string(now.rate) + " -> 48000 Hz, harmonics " +
                   fixed(s.harmonics, 2) + ", mix " + fixed(s.mix, 0) + "%" +
                   (s.active ? ", active" : ""));
    } else if (n == "chorus") {
        ChorusSettings s = chorusSettings(e);
        double samples = (s.delayMs + s.depthMs) * 0.001 * now.rate;
        if (samples >= kChorusHistory) {
            throw UsageError("chorus: DELAY_MS + DEPTH_MS is too long for " +
                             std::to_string(now.rate) + " Hz");
        }
        append(termChorus,
               initChorus(block, now.channels, now.rate, s.voices, s.delayMs, s.depthMs, s.periodS,
                          s.mix, s.dry),
               "chorus " + std::to_string(s.voices) + " voices, " + fixed(s.delayMs, 1) +
                   " ms +/- " + fixed(s.depthMs, 1) + " ms every " + fixed(s.periodS, 2) +
                   " s, mix " + fixed(s.mix, 0) + "%, dry " + fixed(s.dry, 0) + "%");
    } else if (n == "pitch") {
        float cents = static_cast<float>(number(e, 0, "CENTS"));
        append(termPitchShift,
               initPitchShift(block, now.channels, now.rate, cents, 0.0f, kGrainSeconds,
                              kSpacingSeconds),
               "pitch " + fixed(cents, 1) + " cents");
    } else if (n == "stretch" || n == "tempo") {
        double scale =
            n == "stretch" ? number(e, 0, "SCALE") : 1000.0 * std::log2(number(e, 0, "FACTOR"));
        append(termStretch,
               initStretch(block, now.channels, now.rate, static_cast<float>(scale), 0.0f,
                           kGrainSeconds, kSpacingSeconds),
               n == "stretch" ? "stretch scale " + fixed(scale, 0)
                              : "tempo x" + e.args[0] + " (scale " + fixed(scale, 1) + ")");
    } else if (n == "gain") {
        float db = static_cast<float>(number(e, 0, "DB"));
        append(termFader, initFader(block, now.channels, now.rate, 0.0f, db, 0.0f),
               "gain " + fixed(db, 1) + " dB");
    } else if (n == "fade") {
        FadeSettings s = fadeSettings(e);
        // Length of the audio arriving at the fader, in seconds of its rate.
        uint64_t inBytes = totalFrames * 2 * source_.channels;
        uint64_t here = inBytes <= 0xFFFFFFFFu
                            ? dspGetDstSize(chain_, static_cast<uint32_t>(inBytes))
                            : inBytes;
        double length = static_cast<double>(here / (2 * source_.channels)) / now.rate;
        float startLevel = s.in > 0.0 ? kFaderFloorDb : 0.0f;
        void* fader = initFader(block, now.channels, now.rate, 0.0f, startLevel, 0.0f);
        append(termFader, fader, "fade in " + fixed(s.in, 2) + " s, out " + fixed(s.out, 2) + " s");
        // Actions must start after the fader's first sample.
        const double firstSample = 1.5 / now.rate;
        if (s.in > 0.0) {
            setFaderAction(fader, 0, static_cast<float>(firstSample),
                           static_cast<float>(std::fmax(s.in, 2 * firstSample)), 0.0f);
        }
        if (s.out > 0.0) {
            double start = std::fmax(length - s.out, firstSample);
            double end = std::fmax(length, start + firstSample);
            setFaderAction(fader, 0, static_cast<float>(start), static_cast<float>(end),
                           kFaderFloorDb);
        }
    }
}

} // namespace cli
