#include "effects.h"

#include "cli_error.h"
#include "dsp.h"
#include "numbers.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <numeric>
#include <sstream>
#include <utility>

namespace cli {

namespace {

// Processor settings the tool does not expose.
constexpr float kFilterAttenuationDb = 60.0f; // resampler / hqups anti-alias filter
constexpr float kFilterSlopeDbPerOctave = 60.0f;
// Where the resampler's pass band ends, as a fraction of the lower rate's
// Nyquist frequency (--passband).
constexpr double kPassbandFraction = 0.9;
constexpr uint32_t kHqupsBandEdgeHz = 5000;
constexpr float kFaderFloorDb = -50.0f; // the fader's lowest level
constexpr uint32_t kChorusHistory = 65536;

// Grain and spacing of the pitch shifter and the time stretcher: the
// settings bench_granular_choice finds best on sines and a vowel (pitch
// error, energy outside the expected tone); --grain and --spacing override.
constexpr float kPitchGrainSeconds = 0.15f;
constexpr float kPitchSpacingSeconds = 0.1f;
constexpr float kStretchGrainSeconds = 0.2f;
constexpr float kStretchSpacingSeconds = 0.1f;

// The words after an effect's name, read with messages that name the effect:
// positional words, and options written "--NAME VALUE" among them.
class EffectArgs {
public:
    EffectArgs(const EffectSpec& effect, const char* usage) : effect_(effect), usage_(usage) {
        for (size_t i = 0; i < effect.args.size(); ++i) {
            const std::string& w = effect.args[i];
            if (w.size() > 2 && w.compare(0, 2, "--") == 0) {
                if (i + 1 >= effect.args.size()) {
                    refuse(w + " needs a value");
                }
                options_.push_back({w, effect.args[++i], false});
            } else {
                words_.push_back(w);
            }
        }
    }

    const std::string& name() const { return effect_.name; }
    size_t count() const { return words_.size(); }
    const std::string& word(size_t index) const { return words_.at(index); }

    // Refuses fewer than lo or more than hi words.
    void requireCount(size_t lo, size_t hi) const {
        if (count() < lo) {
            refuse("missing argument");
        }
        if (count() > hi) {
            refuse("too many arguments ('" + word(hi) + "')");
        }
    }

    // The word at index as a finite number from lo to hi.
    double number(size_t index, const char* what, double lo, double hi) const {
        return numberIn(word(index), what, lo, hi);
    }

    // The same, a whole number.
    double whole(size_t index, const char* what, double lo, double hi) const {
        double v = number(index, what, lo, hi);
        if (v != std::floor(v)) {
            fail(std::string(what) + " must be a whole number, not " + word(index));
        }
        return v;
    }

    // The value of option `option` as a number from lo to hi; fallback when
    // it is not given.
    double option(const char* option, double fallback, double lo, double hi) const {
        double v = fallback;
        for (Option& o : options_) {
            if (o.name == option) {
                v = numberIn(o.value, option, lo, hi);
                o.read = true;
            }
        }
        return v;
    }

    // Refuses an option that the effect's parser did not read.
    void requireOptionsRead() const {
        for (const Option& o : options_) {
            if (!o.read) {
                refuse("unknown option '" + o.name + "'");
            }
        }
    }

    // A problem with the words as a whole: the message repeats the usage.
    [[noreturn]] void refuse(const std::string& problem) const {
        fail(problem + "; usage: " + usage_);
    }

private:
    struct Option {
        std::string name;
        std::string value;
        bool read;
    };

    double numberIn(const std::string& text, const char* what, double lo, double hi) const {
        double v = 0.0;
        if (!readNumber(text, v) || !std::isfinite(v)) {
            fail(std::string(what) + " must be a number, not '" + text + "'");
        }
        if (v < lo || v > hi) {
            std::ostringstream range;
            range << lo << " and " << hi;
            fail(std::string(what) + " must be between " + range.str() + ", not " + text);
        }
        return v;
    }

    [[noreturn]] void fail(const std::string& problem) const {
        throw UsageError(name() + ": " + problem);
    }

    const EffectSpec& effect_;
    const char* usage_;
    std::vector<std::string> words_;
    mutable std::vector<Option> options_;
};

// An optional number of an effect, read into a member of its settings.
template <typename Settings>
struct NumberField {
    const char* what;
    double lo, hi;
    float Settings::*member;

    void read(const EffectArgs& a, size_t index, Settings& s) const {
        s.*member = static_cast<float>(a.number(index, what, lo, hi));
    }
};

// The one number of an effect that takes exactly one.
double onlyNumber(const EffectArgs& a, const char* what, double lo, double hi) {
    a.requireCount(1, 1);
    return a.number(0, what, lo, hi);
}

// Where an effect's processor joins the chain: the format and block size
// there, and how to append the processor (the chain owns it from then on).
struct Stage {
    const std::string& effect;
    AudioFormat format;
    uint32_t blockFrames;
    double inputSeconds; // the length of the whole input as it arrives here
    std::function<void(uint32_t (*term)(void*), void* processor, const std::string& what)> append;
    // Makes the tool average the two channels before the next processor.
    std::function<void()> averageToMono;
    // Makes the tool run an equaliser with these taps before the next one.
    std::function<void(std::vector<float> taps)> equalise;
    // Makes [from, to) seconds at this point of the chain digital silence.
    std::function<void(double from, double to)> silence;
};

std::string fixed(double v, int digits) {
    std::ostringstream s;
    s.setf(std::ios::fixed);
    s.precision(digits);
    s << v;
    return s.str();
}

// Each effect: its settings, checked as far as they do not depend on the
// format (parse), and its processor made for the format where it joins the
// chain (build).

struct FilterSettings {
    bool highpass;
    uint32_t order;
    double hz;
};

FilterSettings parseFilter(const EffectArgs& a) {
    a.requireCount(2, 2);
    FilterSettings s;
    s.highpass = a.name() == "highpass";
    s.order = static_cast<uint32_t>(a.whole(0, "ORDER", 1, 32));
    s.hz = a.number(1, "HZ", 1e-3, 1e6);
    return s;
}

void buildFilter(const FilterSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    if (s.hz >= f.rate / 2.0) {
        throw UsageError(at.effect + ": HZ must be below half the sample rate (" +
                         std::to_string(f.rate / 2) + " Hz here)");
    }
    at.append(termIirFilter,
              initIirFilter(at.blockFrames, f.channels, f.rate, s.order, static_cast<float>(s.hz),
                            s.highpass ? 1 : 0),
              at.effect + " order " + std::to_string(s.order) + " at " + fixed(s.hz, 0) + " Hz");
}

struct ResampleSettings {
    uint32_t rate;
    uint32_t interpolation = 1;
    uint32_t channels = 0; // 0 = keep
    double passband = kPassbandFraction;
};

ResampleSettings parseResample(const EffectArgs& a) {
    a.requireCount(1, 3);
    ResampleSettings s;
    s.rate = static_cast<uint32_t>(a.whole(0, "RATE", 1000, 768000));
    for (size_t i = 1; i < a.count(); ++i) {
        const std::string& w = a.word(i);
        if (w == "linear") {
            s.interpolation = 0;
        } else if (w == "cubic") {
            s.interpolation = 1;
        } else if (w == "mono") {
            s.channels = 1;
        } else if (w == "stereo") {
            s.channels = 2;
        } else {
            a.refuse("unknown option '" + w + "'");
        }
    }
    s.passband = a.option("--passband", kPassbandFraction, 0.05, 0.99);
    return s;
}

void buildResample(const ResampleSettings& s, const Stage& at) {
    AudioFormat f = at.format;
    const uint32_t outChannels = s.channels != 0 ? s.channels : f.channels;
    const char* channelChange =
        outChannels == f.channels ? "" : (outChannels == 2 ? ", to stereo" : ", to mono (average)");
    if (f.channels == 2 && outChannels == 1) {
        // The resampler itself would keep the left channel only.
        at.averageToMono();
        f.channels = 1;
    }
    // A Chebyshev low-pass whose pass band (0.1 dB ripple) ends at the
    // fraction of the lower rate's Nyquist frequency and which has fallen by
    // kFilterAttenuationDb at that frequency.
    const double octaves = -std::log2(s.passband);
    const float slope = static_cast<float>(kFilterAttenuationDb / octaves);
    const uint32_t lower = std::min(f.rate, s.rate);
    // Before the converter, the inverse of its interpolation's droop over
    // that band. Output frames on whole source frames only (one phase: the
    // output rate divides the source rate) are not interpolated.
    const uint32_t phases = s.rate / std::gcd(f.rate, s.rate);
    const bool equalised = phases > 1;
    if (equalised) {
        at.equalise(equaliserTaps(s.interpolation != 0, phases, s.passband * lower / 2.0 / f.rate));
    }
    at.append(termResampler,
              initResampler(at.blockFrames, f.channels, outChannels, f.rate, s.rate,
                            s.interpolation, kFilterAttenuationDb, slope, 1),
              "resample " + std::to_string(f.rate) + " -> " + std::to_string(s.rate) + " Hz " +
                  (s.interpolation ? "cubic" : "linear") + ", pass band to " +
                  fixed(s.passband * lower / 2.0, 0) + " Hz" + (equalised ? " (equalised)" : "") +
                  channelChange);
}

struct HqupsSettings {
    float harmonics = 0.3f;
    float mix = 50.0f;
    uint32_t active = 0;
};

HqupsSettings parseHqups(const EffectArgs& a) {
    a.requireCount(0, 3);
    static const NumberField<HqupsSettings> kNumbers[] = {
        {"HARMONICS", 0.0, 1.0, &HqupsSettings::harmonics},
        {"MIX%", 0.0, 400.0, &HqupsSettings::mix},
    };
    HqupsSettings s;
    size_t numbers = 0;
    for (size_t i = 0; i < a.count(); ++i) {
        if (a.word(i) == "active") {
            s.active = 1;
        } else if (numbers < std::size(kNumbers)) {
            kNumbers[numbers++].read(a, i, s);
        } else {
            a.refuse("too many numbers");
        }
    }
    return s;
}

void buildHqups(const HqupsSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    at.append(termHqups,
              initHqupsBySrcsize(at.blockFrames, f.channels, f.channels, f.rate, s.harmonics, s.mix,
                                 kHqupsBandEdgeHz, 1, kFilterAttenuationDb, kFilterSlopeDbPerOctave,
                                 s.active, 1),
              "hqups " + std::to_string(f.rate) + " -> 48000 Hz, harmonics " +
                  fixed(s.harmonics, 2) + ", mix " + fixed(s.mix, 0) + "%" +
                  (s.active ? ", active" : ""));
}

struct ChorusSettings {
    uint32_t voices = 3;
    float delayMs = 20.0f;
    float depthMs = 2.0f;
    float periodS = 1.5f;
    float mix = 30.0f;
    float dry = 100.0f;
};

ChorusSettings parseChorus(const EffectArgs& a) {
    a.requireCount(0, 6);
    // The numbers after VOICES, in order.
    static const NumberField<ChorusSettings> kNumbers[] = {
        {"DELAY_MS", 0.0, 1000.0, &ChorusSettings::delayMs},
        {"DEPTH_MS", 0.0, 1000.0, &ChorusSettings::depthMs},
        {"PERIOD_S", 0.0, 3600.0, &ChorusSettings::periodS},
        {"MIX%", 0.0, 400.0, &ChorusSettings::mix},
        {"DRY%", 0.0, 400.0, &ChorusSettings::dry},
    };
    ChorusSettings s;
    if (a.count() > 0) {
        s.voices = static_cast<uint32_t>(a.whole(0, "VOICES", 0, 16));
    }
    for (size_t i = 1; i < a.count(); ++i) {
        kNumbers[i - 1].read(a, i, s);
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

void buildChorus(const ChorusSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    double samples = (s.delayMs + s.depthMs) * 0.001 * f.rate;
    if (samples >= kChorusHistory) {
        throw UsageError("chorus: DELAY_MS + DEPTH_MS is too long for " + std::to_string(f.rate) +
                         " Hz");
    }
    at.append(termChorus,
              initChorus(at.blockFrames, f.channels, f.rate, s.voices, s.delayMs, s.depthMs,
                         s.periodS, s.mix, s.dry),
              "chorus " + std::to_string(s.voices) + " voices, " + fixed(s.delayMs, 1) +
                  " ms +/- " + fixed(s.depthMs, 1) + " ms every " + fixed(s.periodS, 2) +
                  " s, mix " + fixed(s.mix, 0) + "%, dry " + fixed(s.dry, 0) + "%");
}

// Grain and spacing of the granular processors.
struct Granular {
    float grain;
    float spacing;
};

Granular readGranular(const EffectArgs& a, float grain, float spacing) {
    Granular g;
    g.grain = static_cast<float>(a.option("--grain", grain, 0.005, 1.0));
    g.spacing = static_cast<float>(a.option("--spacing", spacing, 0.001, 1.0));
    if (g.spacing > g.grain) {
        a.refuse("--spacing must not exceed --grain");
    }
    return g;
}

// Grains start a whole number of samples apart, at least one.
void checkGranular(const Granular& g, const Stage& at) {
    if (std::floor(static_cast<double>(g.spacing) * at.format.rate) < 1.0) {
        throw UsageError(at.effect + ": --spacing must be at least one sample (" +
                         fixed(1.0 / at.format.rate, 4) + " s at " +
                         std::to_string(at.format.rate) + " Hz)");
    }
}

std::string granularDescription(const Granular& g) {
    return ", grain " + fixed(g.grain, 3) + " s, spacing " + fixed(g.spacing, 3) + " s";
}

struct PitchSettings {
    float cents;
    Granular granular;
};

PitchSettings parsePitch(const EffectArgs& a) {
    return {static_cast<float>(onlyNumber(a, "CENTS", -1200.0, 1200.0)),
            readGranular(a, kPitchGrainSeconds, kPitchSpacingSeconds)};
}

void buildPitch(const PitchSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    checkGranular(s.granular, at);
    at.append(termPitchShift,
              initPitchShift(at.blockFrames, f.channels, f.rate, s.cents, 0.0f, s.granular.grain,
                             s.granular.spacing),
              "pitch " + fixed(s.cents, 1) + " cents" + granularDescription(s.granular));
}

// stretch and tempo: the same processor, its scale given two ways.
struct StretchSettings {
    double scale;
    std::string description;
    Granular granular;
};

void buildStretch(const StretchSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    checkGranular(s.granular, at);
    at.append(termStretch,
              initStretch(at.blockFrames, f.channels, f.rate, static_cast<float>(s.scale), 0.0f,
                          s.granular.grain, s.granular.spacing),
              s.description + granularDescription(s.granular));
}

StretchSettings parseStretch(const EffectArgs& a) {
    double scale = onlyNumber(a, "SCALE", -2000.0, 3000.0);
    return {scale, "stretch scale " + fixed(scale, 0),
            readGranular(a, kStretchGrainSeconds, kStretchSpacingSeconds)};
}

StretchSettings parseTempo(const EffectArgs& a) {
    double scale = 1000.0 * std::log2(onlyNumber(a, "FACTOR", 0.25, 8.0));
    return {scale, "tempo x" + a.word(0) + " (scale " + fixed(scale, 1) + ")",
            readGranular(a, kStretchGrainSeconds, kStretchSpacingSeconds)};
}

struct GainSettings {
    float db;
};

GainSettings parseGain(const EffectArgs& a) {
    return {static_cast<float>(onlyNumber(a, "DB", -50.0, 50.0))};
}

void buildGain(const GainSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    at.append(termFader, initFader(at.blockFrames, f.channels, f.rate, 0.0f, s.db, 0.0f),
              "gain " + fixed(s.db, 1) + " dB");
}

struct FadeSettings {
    double in;
    double out;
};

FadeSettings parseFade(const EffectArgs& a) {
    a.requireCount(1, 2);
    FadeSettings s;
    s.in = a.number(0, "IN_S", 0.0, 3600.0);
    s.out = a.count() > 1 ? a.number(1, "OUT_S", 0.0, 3600.0) : s.in;
    return s;
}

// The fader's ramps run between 0 dB and its lowest level, -50 dB; the frame
// before a fade-in and the frame after a fade-out are made digital silence.
void buildFade(const FadeSettings& s, const Stage& at) {
    const AudioFormat& f = at.format;
    float startLevel = s.in > 0.0 ? kFaderFloorDb : 0.0f;
    void* fader = initFader(at.blockFrames, f.channels, f.rate, 0.0f, startLevel, 0.0f);
    at.append(termFader, fader, "fade in " + fixed(s.in, 2) + " s, out " + fixed(s.out, 2) + " s");
    const double frame = 1.0 / f.rate;
    // Actions start after the fader's first sample; a time half a frame
    // past a frame's start lands on that frame.
    const double firstSample = 1.5 * frame;
    if (s.in > 0.0) {
        setFaderAction(fader, 0, static_cast<float>(firstSample),
                       static_cast<float>(std::fmax(s.in, 2 * firstSample)), 0.0f);
        at.silence(0.0, frame);
    }
    if (s.out > 0.0) {
        // The ramp ends on the last frame, which is silent.
        double start = std::fmax(at.inputSeconds - s.out, firstSample);
        double end = std::fmax(at.inputSeconds - 0.5 * frame, start + firstSample);
        setFaderAction(fader, 0, static_cast<float>(start), static_cast<float>(end), kFaderFloorDb);
        at.silence(std::fmax(at.inputSeconds - frame, frame), HUGE_VAL);
    }
}

// One effect of the command line: what --help shows, how its words become
// settings and how the settings become a processor of the chain.
struct EffectEntry {
    const char* name;
    const char* usage;
    const char* help;
    std::any (*parse)(const EffectArgs& args);
    void (*build)(const std::any& settings, const Stage& at);
};

// An entry from a parser and a builder that agree on the settings' type.
template <auto parse, auto build>
EffectEntry effect(const char* name, const char* usage, const char* help) {
    using Settings = decltype(parse(std::declval<const EffectArgs&>()));
    return {
        name, usage, help,
        [](const EffectArgs& a) {
            std::any settings(parse(a));
            a.requireOptionsRead();
            return settings;
        },
        [](const std::any& s, const Stage& at) { build(std::any_cast<const Settings&>(s), at); }};
}

// In the order --help lists them.
const EffectEntry kEffects[] = {
    effect<parseFilter, buildFilter>("lowpass", "lowpass ORDER HZ",
                                     "Chebyshev low-pass (1 dB ripple), ORDER 1..32"),
    effect<parseFilter, buildFilter>("highpass", "highpass ORDER HZ",
                                     "Chebyshev high-pass (1 dB ripple), ORDER 1..32"),
    effect<parseResample, buildResample>(
        "resample", "resample RATE [linear|cubic] [mono|stereo] [--passband FRACTION]",
        "change the sample rate (default cubic, channels kept; mono averages both channels); the "
        "anti-alias low-pass is flat (0.1 dB) to FRACTION of the lower rate's Nyquist frequency "
        "(default 0.9) and 60 dB down at that Nyquist frequency (0.5: the old, narrower shape); "
        "an equaliser before the converter makes up for its interpolation's droop up to there"),
    effect<parseHqups, buildHqups>(
        "hqups", "hqups [HARMONICS] [MIX%] [active]",
        "upsample to 48000 Hz adding harmonics (default 0.3 50; active limits them to the band "
        "above the source's bandwidth)"),
    effect<parseChorus, buildChorus>("chorus",
                                     "chorus [VOICES DELAY_MS DEPTH_MS PERIOD_S MIX% DRY%]",
                                     "multi-voice chorus (default 3 20 2 1.5 30 100)"),
    effect<parsePitch, buildPitch>(
        "pitch", "pitch CENTS [--grain SECONDS] [--spacing SECONDS]",
        "shift the pitch, -1200..1200 cents, keeping the duration (grains of 0.15 s every 0.1 s "
        "by default)"),
    effect<parseStretch, buildStretch>(
        "stretch", "stretch SCALE [--grain SECONDS] [--spacing SECONDS]",
        "change the duration keeping the pitch: SCALE in thousandths of an octave, -2000..3000 "
        "(1000 halves the duration, -1000 doubles it; grains of 0.2 s every 0.1 s by default)"),
    effect<parseTempo, buildStretch>(
        "tempo", "tempo FACTOR [--grain SECONDS] [--spacing SECONDS]",
        "the same given as a speed factor, 0.25..8 (1.25 plays 25% faster)"),
    effect<parseGain, buildGain>("gain", "gain DB", "change the level, -50..50 dB"),
    effect<parseFade, buildFade>(
        "fade", "fade IN_S [OUT_S]",
        "fade in over IN_S seconds and out over OUT_S (default IN_S) at the end: the fader "
        "ramps between 0 and -50 dB, the first and the last frame are digital silence"),
};

const EffectEntry* findEffect(const std::string& name) {
    for (const EffectEntry& e : kEffects) {
        if (name == e.name) {
            return &e;
        }
    }
    return nullptr;
}

// Groups the words into effects, each followed by its arguments.
std::vector<EffectSpec> splitEffects(const std::vector<std::string>& words) {
    std::vector<EffectSpec> effects;
    for (const std::string& w : words) {
        if (isEffectName(w)) {
            effects.push_back(EffectSpec{w, {}, {}});
        } else if (effects.empty()) {
            double ignored;
            if (readNumber(w, ignored)) {
                throw UsageError("'" + w + "' does not follow an effect");
            }
            throw UsageError("unknown effect '" + w + "' (see dsp --help)");
        } else {
            effects.back().args.push_back(w);
        }
    }
    return effects;
}

// The effect's settings, read from its words when parseEffects did not.
std::any settingsOf(const EffectSpec& e, const EffectEntry& entry) {
    return e.settings.has_value() ? e.settings : entry.parse(EffectArgs(e, entry.usage));
}

// Block sizes of the host loop.
constexpr uint32_t kLongestBlock = 4096;
// The resampler's chunk: its interpolation position restarts at every one.
constexpr uint32_t kConverterChunk = 4096;
// Smaller blocks than this are not worth an exact rate change.
constexpr uint32_t kShortestAlignedBlock = 256;

uint64_t greatestCommonDivisor(uint64_t a, uint64_t b) {
    while (b != 0) {
        const uint64_t r = a % b;
        a = b;
        b = r;
    }
    return a;
}

// A rate change of the chain: where it converts, and by how much the
// blocks of the chain's input have grown where it gets them (num / den),
// unless a processor before it makes blocks of varying length.
struct RateChange {
    uint32_t from;
    uint32_t to;
    bool steady;
    uint64_t num;
    uint64_t den;

    // Source frames of one cycle of the two rates.
    uint64_t cycle() const { return from / greatestCommonDivisor(from, to); }
    uint64_t cycleOut() const { return to / greatestCommonDivisor(from, to); }
    bool alignable() const { return steady && cycle() <= kConverterChunk; }
};

std::vector<RateChange> rateChanges(const std::vector<EffectSpec>& effects,
                                    const AudioFormat& source) {
    std::vector<RateChange> changes;
    uint32_t rate = source.rate;
    bool steady = true;
    uint64_t num = 1, den = 1;
    for (const EffectSpec& e : effects) {
        const EffectEntry* entry = findEffect(e.name);
        if (entry == nullptr) {
            continue;
        }
        uint32_t to = rate;
        if (e.name == "resample") {
            to = std::any_cast<ResampleSettings>(settingsOf(e, *entry)).rate;
        } else if (e.name == "hqups") {
            to = 48000; // the Hqups upsampler's rate converter
        } else if (e.name == "stretch" || e.name == "tempo") {
            steady = false;
        }
        if (to != rate) {
            changes.push_back(RateChange{rate, to, steady, num, den});
            num *= to;
            den *= rate;
            const uint64_t g = greatestCommonDivisor(num, den);
            num /= g;
            den /= g;
            rate = to;
        }
    }
    return changes;
}

// The converter's own count of output frames for n source frames (its
// double arithmetic, which falls one short for some whole numbers of cycles).
uint64_t convertedCount(uint64_t n, const RateChange& c) {
    return static_cast<uint64_t>((static_cast<double>(n) / c.from) * c.to);
}

// True when blocks of `frames` frames reach the change as whole cycles, cut
// into chunks of whole cycles, each counted exactly: then the output of every
// block is exact and the interpolation position carries on across chunks and
// blocks.
bool wholeCycles(uint64_t frames, const RateChange& c) {
    if (frames * c.num % c.den != 0) {
        return false;
    }
    const uint64_t here = frames * c.num / c.den;
    const uint64_t q = c.cycle();
    if (here == 0 || here % q != 0 || convertedCount(here, c) != here / q * c.cycleOut()) {
        return false;
    }
    return here <= kConverterChunk ||
           (kConverterChunk % q == 0 &&
            convertedCount(kConverterChunk, c) == kConverterChunk / q * c.cycleOut());
}

// The longest block that serves the first `count` alignable changes, or 0.
uint32_t blockFor(const std::vector<RateChange>& changes, size_t count) {
    for (uint32_t frames = kLongestBlock; frames >= kShortestAlignedBlock; --frames) {
        size_t served = 0;
        for (const RateChange& c : changes) {
            if (served == count || (c.alignable() && !wholeCycles(frames, c))) {
                break;
            }
            served += c.alignable() ? 1 : 0;
        }
        if (served == count) {
            return frames;
        }
    }
    return 0;
}

// What --verbose says about one change.
std::string changeNote(const RateChange& c, uint32_t frames, bool served) {
    std::ostringstream note;
    note << c.from << " -> " << c.to << " Hz: ";
    if (served) {
        const uint64_t in = static_cast<uint64_t>(frames) * c.num / c.den;
        note << in << " -> " << in / c.cycle() * c.cycleOut()
             << " frames per block, whole cycles of " << c.cycle() << " frames";
    } else if (!c.steady) {
        note << "blocks of varying length (after a stretch)";
    } else if (c.cycle() > kConverterChunk) {
        note << "the rates repeat every " << c.cycle() << " frames, beyond the resampler's "
             << kConverterChunk << "-frame chunk";
    } else {
        note << "no block suits it with the other rate changes";
    }
    if (!served) {
        note << " (interpolation restarts at every chunk, output short by up to a frame per "
                "block)";
    }
    return note.str();
}

} // namespace

uint64_t BlockChoice::outputFrames(uint64_t inFrames) const {
    return inFrames / den * num + inFrames % den * num / den;
}

BlockChoice chooseBlock(const std::vector<EffectSpec>& effects, const AudioFormat& source) {
    const std::vector<RateChange> changes = rateChanges(effects, source);
    // Served from the first on: as many alignable changes as one block suits.
    size_t count = static_cast<size_t>(std::count_if(
        changes.begin(), changes.end(), [](const RateChange& c) { return c.alignable(); }));
    uint32_t frames = 0;
    while (count > 0 && (frames = blockFor(changes, count)) == 0) {
        --count;
    }
    BlockChoice choice;
    choice.frames = frames != 0 ? frames : kLongestBlock;
    // Exact when every change is served and no stretch varies the length.
    choice.exact = !changes.empty() && count == changes.size() &&
                   std::none_of(effects.begin(), effects.end(), [](const EffectSpec& e) {
                       return e.name == "stretch" || e.name == "tempo";
                   });
    if (choice.exact) {
        const RateChange& last = changes.back();
        choice.num = last.num * last.to;
        choice.den = last.den * last.from;
        const uint64_t g = greatestCommonDivisor(choice.num, choice.den);
        choice.num /= g;
        choice.den /= g;
    }
    std::string note = "blocks of " + std::to_string(choice.frames) + " frames";
    if (changes.empty()) {
        note += " (no rate change)";
    }
    size_t served = 0;
    for (const RateChange& c : changes) {
        const bool serves = c.alignable() && served < count;
        served += serves ? 1 : 0;
        note += "; " + changeNote(c, choice.frames, serves);
    }
    if (choice.exact) {
        note += "; the last block is padded with silence and the output cut to the exact length";
    }
    choice.note = note;
    return choice;
}

bool isEffectName(const std::string& word) {
    return findEffect(word) != nullptr;
}

std::vector<EffectSpec> parseEffects(const std::vector<std::string>& words) {
    std::vector<EffectSpec> effects = splitEffects(words);
    for (EffectSpec& e : effects) {
        const EffectEntry* entry = findEffect(e.name);
        e.settings = entry->parse(EffectArgs(e, entry->usage));
    }
    return effects;
}

std::string effectsHelp() {
    std::ostringstream out;
    for (const EffectEntry& e : kEffects) {
        out << "  " << e.usage << "\n      " << e.help << "\n";
    }
    return out.str();
}

Chain::Chain(uint32_t blockFrames, const AudioFormat& source) {
    segments_.reserve(1);
    void* chain = dspCreate(blockFrames, source.channels, source.rate);
    if (chain == nullptr) {
        throw Failure("out of memory creating the processing chain");
    }
    segments_.push_back(Segment{chain, source, blockFrames, 0, {}, false, nullptr});
}

Chain::~Chain() {
    for (Segment& s : segments_) {
        dspDestroy(s.chain);
    }
}

AudioFormat Chain::outputFormat() const {
    void* last = segments_.back().chain;
    return AudioFormat{dspGetDstRate(last), dspGetDstChannels(last)};
}

uint32_t Chain::outputCapacitySamples(uint32_t frames) const {
    uint32_t samples = 0;
    for (const Segment& s : segments_) {
        samples = dspGetDstSamples(s.chain, frames);
        frames = samples / dspGetDstChannels(s.chain);
    }
    return samples;
}

uint32_t Chain::sendFloat(const float* src, uint32_t frames, float* dst) {
    const uint32_t written = sendSegments(src, frames, dst);
    silence(dst, written);
    return written;
}

uint32_t Chain::sendSegments(const float* src, uint32_t frames, float* dst) {
    if (runsInt16()) {
        return dspSendFloat(segments_.front().chain, src, dst, frames);
    }
    const float* in = src;
    for (size_t k = 0; k < segments_.size(); ++k) {
        Segment& s = segments_[k];
        if (s.averages) {
            // The previous chain left stereo frames: their average.
            float* mono = s.input.data();
            for (size_t i = 0; i < frames; ++i) {
                mono[i] = (in[2 * i] + in[2 * i + 1]) * 0.5f;
            }
            in = mono;
        }
        if (s.equaliser) {
            s.equaliser->process(in, s.input.data(), frames);
            in = s.input.data();
        }
        if (s.processors == 0) {
            if (k + 1 == segments_.size()) {
                std::copy(in, in + static_cast<size_t>(frames) * s.source.channels, dst);
            }
            continue;
        }
        // Each chain but the last writes into the next one's input room,
        // which its averaging then reads.
        float* out = k + 1 == segments_.size() ? dst : segments_[k + 1].input.data();
        frames = dspSendFloat(s.chain, in, out, frames);
        in = out;
    }
    return frames;
}

void Chain::silence(float* dst, uint32_t frames) {
    const AudioFormat f = outputFormat();
    if (!spans_.empty() && silentFrames_.empty()) {
        // Placed in the output: seconds where a span was made scale with the
        // length of the whole input from there to the end of the chain.
        const double seconds = secondsHere(totalFrames_);
        for (const SilentSpan& span : spans_) {
            const double scale = span.stageSeconds > 0.0 ? seconds / span.stageSeconds : 1.0;
            const double from = std::nearbyint(span.from * scale * f.rate);
            const double to =
                std::fmax(std::nearbyint(std::fmin(span.to * scale * f.rate, 1e18)), from + 1.0);
            silentFrames_.push_back({static_cast<uint64_t>(from), static_cast<uint64_t>(to)});
        }
    }
    for (const SilentFrames& span : silentFrames_) {
        const uint64_t from = std::max(span.from, position_);
        const uint64_t to = std::min(span.to, position_ + frames);
        for (uint64_t i = from; i < to; ++i) {
            std::fill_n(dst + (i - position_) * f.channels, f.channels, 0.0f);
        }
    }
    position_ += frames;
}

void Chain::append(uint32_t (*term)(void*), void* processor, const std::string& what) {
    if (processor == nullptr) {
        throw Failure(what + ": the processor could not be created (out of memory?)");
    }
    Segment& s = segments_.back();
    // The chain owns what it accepts; a refused processor is still ours.
    if (dspAdd(s.chain, processor, ++order_) != s.processors + 1) {
        term(processor);
        throw Failure(what + ": the chain refused the processor");
    }
    ++s.processors;
    descriptions_.push_back(what);
}

void Chain::startSegment(bool averages) {
    const AudioFormat here = outputFormat();
    const uint32_t frames = blockFramesHere();
    // The frames the chain so far leaves, in the new chain's input room (the
    // tool's work overwrites them in place).
    const uint32_t room = std::max(outputCapacitySamples(blockFrames()), here.channels * frames);
    std::vector<float> input(room);
    const uint32_t channels = averages ? 1 : here.channels;
    segments_.reserve(segments_.size() + 1);
    void* chain = dspCreate(frames, channels, here.rate);
    if (chain == nullptr) {
        throw Failure("out of memory creating the processing chain");
    }
    segments_.push_back(Segment{chain, AudioFormat{here.rate, channels}, frames, 0,
                                std::move(input), averages, nullptr});
}

void Chain::equalise(std::vector<float> taps) {
    if (segments_.back().processors > 0) {
        startSegment(false);
    }
    // The input of a chain with no processor yet: the source's block, or
    // the room the previous chain's output gets.
    Segment& s = segments_.back();
    const uint32_t channels = s.source.channels;
    if (s.input.empty()) {
        s.input.resize(size_t{s.blockFrames} * channels);
    }
    s.equaliser = std::make_unique<PassbandEqualiser>(
        std::move(taps), channels, static_cast<uint32_t>(s.input.size() / channels));
}

uint32_t Chain::blockFramesHere() const {
    // The output of a whole block, counted as the processors count it.
    const Segment& s = segments_.back();
    const uint32_t frames = dspGetDstSamples(s.chain, s.blockFrames) / dspGetDstChannels(s.chain);
    return frames > 0 ? frames : 1;
}

double Chain::secondsHere(uint64_t totalFrames) const {
    uint64_t frames = totalFrames;
    for (const Segment& s : segments_) {
        const uint64_t inBytes = frames * 2 * s.source.channels;
        const uint64_t here = inBytes <= 0xFFFFFFFFu
                                  ? dspGetDstSize(s.chain, static_cast<uint32_t>(inBytes))
                                  : inBytes;
        // Whole frames of the output so far.
        frames = here / (uint64_t{2} * s.source.channels);
    }
    return static_cast<double>(frames) / outputFormat().rate;
}

void Chain::add(const EffectSpec& e, uint64_t totalFrames) {
    const EffectEntry* entry = findEffect(e.name);
    if (entry == nullptr) {
        throw UsageError("unknown effect '" + e.name + "'");
    }
    const Stage at{e.name,
                   outputFormat(),
                   blockFramesHere(),
                   secondsHere(totalFrames),
                   [this](uint32_t (*term)(void*), void* processor, const std::string& what) {
                       append(term, processor, what);
                   },
                   [this] { averageToMono(); },
                   [this](std::vector<float> taps) { equalise(std::move(taps)); },
                   [this, stageSeconds = secondsHere(totalFrames)](double from, double to) {
                       spans_.push_back(SilentSpan{from, to, stageSeconds});
                   }};
    totalFrames_ = totalFrames;
    // A spec made by hand, not by parseEffects, is read here.
    entry->build(settingsOf(e, *entry), at);
}

} // namespace cli
