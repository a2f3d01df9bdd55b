// Processor sequences: the input decodes into a series of init, set, do,
// chain and term calls on a few slots and chains, every argument inside the
// limits its call states. Whatever the sequence, once everything is destroyed
// the pool must hold exactly what it held before.
#include "core/processor.h"
#include "dsp.h"
#include "fuzz_input.h"

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

namespace {

enum class Family {
    Iir,
    Fader,
    Chorus,
    Resampler,
    Hqups,
    Pitch,
    Stretch,
    Fft,
    FftAnalyze,
    Env,
    WaveSlice
};
constexpr uint32_t kFamilies = 11;
constexpr uint32_t kSlots = 6;
constexpr uint32_t kChains = 2;
// Rates up to 48000 Hz so that Hqups, which brings its source up to 48000 Hz,
// may follow any node of a chain.
constexpr uint32_t kRates[] = {8000, 11025, 16000, 22050, 32000, 44100, 48000};

struct Slot {
    void* handle = nullptr;
    Family family = Family::Iir;
    uint32_t voices = 0;
    uint32_t fftSize = 0;
};

struct Chain {
    void* handle = nullptr;
    uint32_t frames = 0;
    uint32_t channels = 0;
    uint32_t count = 0;
};

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

uint32_t rate(dspfuzz::ByteReader& in) {
    return kRates[in.range(0, sizeof kRates / sizeof kRates[0] - 1)];
}

uint32_t pickFrames(dspfuzz::ByteReader& in) {
    return in.range(1, 2048);
}

Slot initSlot(dspfuzz::ByteReader& in) {
    Slot s;
    s.family = static_cast<Family>(in.range(0, kFamilies - 1));
    const uint32_t channels = in.range(1, 2);
    const uint32_t r = rate(in);
    switch (s.family) {
    case Family::Iir:
        s.handle = initIirFilter(pickFrames(in), channels, r, in.range(0, 8),
                                 in.real(0.001f, 0.49f) * static_cast<float>(r), in.range(0, 1));
        break;
    case Family::Fader:
        s.handle = initFader(pickFrames(in), channels, r, in.real(0.0f, 1.0f),
                             in.real(-90.0f, 12.0f), in.real(-90.0f, 12.0f));
        break;
    case Family::Chorus:
        s.voices = in.range(1, 8);
        s.handle = initChorus(pickFrames(in), channels, r, s.voices, in.real(0.0f, 40.0f),
                              in.real(0.0f, 20.0f), in.real(0.05f, 10.0f), in.real(0.0f, 100.0f),
                              in.real(0.0f, 100.0f));
        break;
    case Family::Resampler:
        s.handle =
            initResampler(pickFrames(in), channels, channels == 1 ? in.range(1, 2) : 2, r, rate(in),
                          in.range(0, 2), in.real(20.0f, 120.0f), in.real(6.0f, 120.0f), in.flag());
        break;
    case Family::Hqups: {
        const uint32_t outChannels = channels == 1 ? in.range(1, 2) : 2;
        const float harmonics = in.real(0.0f, 1.0f);
        const float mix = in.real(0.0f, 100.0f);
        const uint32_t cutoff = in.range(1000, 20000);
        const uint32_t interpolation = in.range(0, 1);
        const float attenuation = in.real(20.0f, 120.0f);
        const float slope = in.real(6.0f, 120.0f);
        const uint32_t mode = in.range(0, 1);
        const bool filterOn = in.flag();
        s.handle = in.flag() ? initHqups(pickFrames(in), channels, outChannels, r, harmonics, mix,
                                         cutoff, interpolation, attenuation, slope, mode, filterOn)
                             : initHqupsBySrcsize(pickFrames(in), channels, outChannels, r,
                                                  harmonics, mix, cutoff, interpolation,
                                                  attenuation, slope, mode, filterOn);
        break;
    }
    case Family::Pitch:
        s.handle =
            initPitchShift(pickFrames(in), channels, r, in.real(-2400.0f, 2400.0f),
                           in.real(-40.0f, 12.0f), in.real(0.01f, 0.2f), in.real(0.002f, 0.05f));
        break;
    case Family::Stretch:
        s.handle =
            initStretch(pickFrames(in), channels, r, in.real(-2000.0f, 2000.0f),
                        in.real(-40.0f, 12.0f), in.real(0.01f, 0.2f), in.real(0.002f, 0.05f));
        break;
    case Family::Fft: {
        const uint32_t frames = 1u << in.range(2, 12);
        s.fftSize = frames;
        s.handle = initFft(frames, channels, in.range(1, channels), in.range(1, 150));
        break;
    }
    case Family::FftAnalyze: {
        const uint32_t frames = pickFrames(in);
        s.fftSize = 1u << in.range(4, 12);
        const uint32_t history = (frames > s.fftSize ? frames : s.fftSize) + in.range(0, 4096);
        s.handle = initFftAnalyze(frames, channels, s.fftSize, history);
        break;
    }
    case Family::Env:
        s.handle = initEnvAnalyze(pickFrames(in), channels, r);
        break;
    case Family::WaveSlice:
        s.handle = initWaveSlice(pickFrames(in), channels, r, in.real(-60.0f, 6.0f),
                                 in.real(-90.0f, 0.0f), in.real(0.0f, 100.0f), in.real(0.0f, 2.0f));
        break;
    }
    return s;
}

void setSlot(Slot& s, dspfuzz::ByteReader& in) {
    switch (s.family) {
    case Family::Fader:
        switch (in.range(0, 4)) {
        case 0: {
            const float start = in.real(0.0f, 5.0f);
            setFaderAction(s.handle, in.range(0, 1), start, start + in.real(0.0f, 5.0f),
                           in.real(-90.0f, 12.0f));
            break;
        }
        case 1: {
            const float start = in.real(0.0f, 5.0f);
            delFaderAction(s.handle, in.range(0, 1), start, start + in.real(0.0f, 5.0f));
            break;
        }
        case 2: {
            const float start = in.real(0.0f, 5.0f);
            setCrossFaderAction(s.handle, start, start + in.real(0.0f, 5.0f), in.real(0.0f, 1.0f));
            break;
        }
        case 3: {
            const float start = in.real(0.0f, 5.0f);
            delCrossFaderAction(s.handle, start, start + in.real(0.0f, 5.0f));
            break;
        }
        default:
            setCrossFaderCurve(s.handle, in.real(-20.0f, 0.0f), in.real(-90.0f, 0.0f),
                               in.real(0.0f, 1.0f), in.real(0.0f, 1.0f));
            break;
        }
        break;
    case Family::Chorus:
        switch (in.range(0, 4)) {
        case 0:
            setChorusOrgMix(s.handle, in.real(0.0f, 100.0f));
            break;
        case 1:
            setChorusMix(s.handle, in.range(0, s.voices - 1), in.real(0.0f, 100.0f));
            break;
        case 2:
            setChorusSpeed(s.handle, in.real(0.05f, 10.0f));
            break;
        case 3:
            setChorusDepth(s.handle, in.real(0.0f, 20.0f));
            break;
        default:
            setChorusDelaytime(s.handle, in.real(0.0f, 40.0f));
            break;
        }
        break;
    case Family::Hqups:
        switch (in.range(0, 2)) {
        case 0:
            setHqupsHarmonics(s.handle, in.real(0.0f, 1.0f));
            break;
        case 1:
            setHqupsMix(s.handle, in.real(0.0f, 100.0f));
            break;
        default:
            setHqupsActiveMode(s.handle, in.range(0, 1));
            break;
        }
        break;
    case Family::Pitch:
        if (in.flag()) {
            setPitchShiftPitch(s.handle, in.real(-2400.0f, 2400.0f));
        } else {
            setPitchShiftOutLevel(s.handle, in.real(-40.0f, 12.0f));
        }
        break;
    case Family::Stretch:
        if (in.flag()) {
            setStretchScale(s.handle, in.real(-2000.0f, 2000.0f));
        } else {
            setStretchOutLevel(s.handle, in.real(-40.0f, 12.0f));
        }
        break;
    case Family::WaveSlice: {
        // Closes any open slice and hands out a record of the list (or null
        // when there is none); every record must be a whole, ordered slice.
        const SliceRecord* record = getWaveSlice(s.handle, in.range(0, 64));
        if (record != nullptr) {
            check(record->startSeconds >= 0.0f && record->startSeconds <= record->endSeconds);
            check(record->next == nullptr || record->next->prev == record);
        }
        break;
    }
    default:
        break;
    }
}

std::vector<int16_t> samples(dspfuzz::ByteReader& in, size_t count) {
    std::vector<int16_t> data(count);
    // Mostly decoded bytes; a repeated tail keeps long blocks cheap to encode.
    const size_t fresh = count < 64 ? count : 64;
    in.bytes(data.data(), fresh * sizeof(int16_t));
    for (size_t i = fresh; i < count; ++i) {
        data[i] = static_cast<int16_t>(data[i % fresh] ^ static_cast<int16_t>(i * 977));
    }
    return data;
}

// Floats around full scale, beyond it, and now and then not finite.
std::vector<float> floatSamples(dspfuzz::ByteReader& in, size_t count) {
    const std::vector<int16_t> base = samples(in, count);
    const float gain = in.real(0.0f, 4.0f);
    const float odd[] = {std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(), -1e30f, 1e-40f};
    std::vector<float> data(count);
    for (size_t i = 0; i < count; ++i) {
        data[i] = static_cast<float>(base[i]) / 32767.0f * gain;
    }
    if (count > 0 && in.flag()) {
        data[in.range(0, static_cast<uint32_t>(count - 1))] = odd[in.range(0, 3)];
    }
    return data;
}

// The float interface refuses a null or wrong handle (a processor's) and a
// null buffer: 0, nothing written, the pool left alone.
void refusedFloatSend(const Chain* chains, const Slot* slots, dspfuzz::ByteReader& in) {
    const uint32_t pool = fastmemGetAllocatedSize();
    const std::vector<float> src(256, 0.5f);
    std::vector<float> dst(256, 0.25f);
    void* chain = chains[in.range(0, kChains - 1)].handle;
    switch (in.range(0, 2)) {
    case 0: {
        void* wrong = slots[in.range(0, kSlots - 1)].handle;
        check(dspSendFloat(wrong, src.data(), dst.data(), 64) == 0);
        check(dspGetDstSamples(wrong, 64) == 0);
        break;
    }
    case 1:
        check(dspSendFloat(chain, nullptr, dst.data(), 64) == 0);
        break;
    default:
        check(dspSendFloat(chain, src.data(), nullptr, 64) == 0);
        break;
    }
    for (float v : dst) {
        check(v == 0.25f);
    }
    check(fastmemGetAllocatedSize() == pool);
}

// Bytes a rate changer may write: its size estimate scales the count as
// given and ignores a change of channel count, so allow for both, and never
// less than its whole output buffers.
uint32_t roomFor(const dsp::DspProcessor* p, uint32_t estimate) {
    const uint64_t scaled = static_cast<uint64_t>(estimate) * p->outChannels() / p->inChannels();
    const uint64_t whole = static_cast<uint64_t>(p->outFrames()) * 2 * p->outChannels();
    return static_cast<uint32_t>((scaled > whole ? scaled : whole) + 64);
}

void doSlot(Slot& s, dspfuzz::ByteReader& in) {
    const dsp::DspProcessor* p = static_cast<const dsp::DspProcessor*>(s.handle);
    const uint32_t frames = s.family == Family::Fft ? p->inFrames() : in.range(0, p->inFrames());
    const uint32_t channels = p->inChannels();
    const uint32_t bytes = frames * 2 * channels;
    std::vector<int16_t> src = samples(in, static_cast<size_t>(frames) * channels);
    std::vector<int16_t> dst;
    std::vector<float> out;
    const uint32_t analyzerFloats = 2 * (frames > s.fftSize ? frames : s.fftSize) + 16;
    switch (s.family) {
    case Family::Iir:
        dst.resize(src.size() + 8);
        check(doIirFilter(s.handle, src.data(), dst.data(), bytes) == 1);
        break;
    case Family::Fader:
        dst.resize(src.size() + 8);
        if (in.flag()) {
            check(doFade(s.handle, in.range(0, 1), src.data(), dst.data(), bytes) == 1);
        } else {
            std::vector<int16_t> other = samples(in, src.size());
            check(doCrossFade(s.handle, src.data(), other.data(), dst.data(), bytes) == 1);
        }
        break;
    case Family::Chorus:
        dst.resize(src.size() + 8);
        check(doChorus(s.handle, src.data(), dst.data(), bytes) == 1);
        break;
    case Family::Resampler: {
        dst.resize(roomFor(p, getResamplerDstSize(s.handle, bytes)) / 2);
        check(doResampler(s.handle, src.data(), dst.data(), bytes) <= dst.size() * 2);
        break;
    }
    case Family::Hqups: {
        dst.resize(roomFor(p, getHqupsDstSize(s.handle, bytes)) / 2);
        check(doHqups(s.handle, src.data(), dst.data(), bytes) <= dst.size() * 2);
        break;
    }
    case Family::Pitch:
        dst.resize(src.size() + 8);
        check(doPitchShift(s.handle, src.data(), dst.data(), bytes) == 1);
        break;
    case Family::Stretch: {
        // The estimate follows a new scale at once while the next block still
        // runs at the old one; the factor never exceeds 4 (two octaves).
        const uint32_t estimate = getStretchDstSize(s.handle, bytes);
        dst.resize(roomFor(p, estimate > 4 * bytes ? estimate : 4 * bytes) / 2 + 128);
        check(doStretch(s.handle, src.data(), dst.data(), bytes) <= dst.size() * 2);
        break;
    }
    case Family::Fft:
        out.resize(analyzerFloats);
        doFft(s.handle, src.data(), out.data(), bytes);
        break;
    case Family::FftAnalyze:
        out.resize(analyzerFloats);
        doFftAnalyze(s.handle, src.data(), out.data(), bytes);
        break;
    case Family::Env:
        out.resize(analyzerFloats);
        doEnvAnalyze(s.handle, src.data(), in.flag() ? out.data() : nullptr, bytes);
        break;
    case Family::WaveSlice:
        check(doWaveSlice(s.handle, src.data(), bytes) == 1);
        break;
    }
}

void termSlot(Slot& s) {
    uint32_t result = 0;
    switch (s.family) {
    case Family::Iir:
        result = termIirFilter(s.handle);
        break;
    case Family::Fader:
        result = termFader(s.handle);
        break;
    case Family::Chorus:
        result = termChorus(s.handle);
        break;
    case Family::Resampler:
        result = termResampler(s.handle);
        break;
    case Family::Hqups:
        result = termHqups(s.handle);
        break;
    case Family::Pitch:
        result = termPitchShift(s.handle);
        break;
    case Family::Stretch:
        result = termStretch(s.handle);
        break;
    case Family::Fft:
        result = termFft(s.handle);
        break;
    case Family::FftAnalyze:
        result = termFftAnalyze(s.handle);
        break;
    case Family::Env:
        result = termEnvAnalyze(s.handle);
        break;
    case Family::WaveSlice:
        result = termWaveSlice(s.handle);
        break;
    }
    check(result == 1);
    s.handle = nullptr;
}

void chainOp(Chain& c, Slot* slots, dspfuzz::ByteReader& in) {
    if (c.handle == nullptr) {
        c.frames = pickFrames(in);
        c.channels = in.range(1, 2);
        c.handle = dspCreate(c.frames, c.channels, rate(in));
        c.count = 0;
        return;
    }
    switch (in.range(0, 4)) {
    case 0: { // hand a slot's processor over to the chain (analyzers yield nothing there)
        Slot& s = slots[in.range(0, kSlots - 1)];
        if (s.handle != nullptr) {
            // The chain owns it once taken; a refused one stays with its slot.
            const uint32_t count = dspAdd(c.handle, s.handle, in.range(0, 7));
            if (count == c.count + 1) {
                c.count = count;
                s.handle = nullptr;
            } else {
                check(count == c.count);
            }
        }
        break;
    }
    case 1: {
        // Blocks up to three times the chain's own run in pieces. The output
        // buffer is exactly as large as the sizing call says, so a write
        // past it is caught.
        const uint32_t frames = in.range(0, 3 * c.frames);
        const size_t count = static_cast<size_t>(frames) * c.channels;
        const uint32_t bound = dspGetDstSamples(c.handle, frames);
        if (in.flag()) {
            std::vector<int16_t> src = samples(in, count);
            std::vector<int16_t> dst(bound);
            const uint32_t bytes =
                dspSend(c.handle, src.data(), dst.data(), frames * 2 * c.channels);
            check(bytes / 2 <= bound);
        } else {
            std::vector<float> src = floatSamples(in, count);
            std::vector<float> dst(bound);
            const uint64_t written = dspSendFloat(c.handle, src.data(), dst.data(), frames);
            check(written * dspGetDstChannels(c.handle) <= bound);
        }
        break;
    }
    case 2:
        c.frames = pickFrames(in);
        c.channels = in.range(1, 2);
        dspAdjust(c.handle, c.frames, c.channels, rate(in));
        break;
    case 3:
        dspGetDstRate(c.handle);
        dspGetDstChannels(c.handle);
        dspGetHandle(c.handle, in.range(0, 8));
        if (in.flag()) {
            dspClear(c.handle);
            c.count = 0;
        }
        break;
    default:
        dspDestroy(c.handle);
        c.handle = nullptr;
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint32_t poolBefore = fastmemGetAllocatedSize();
    dspfuzz::ByteReader in(data, size);
    Slot slots[kSlots];
    Chain chains[kChains];
    for (uint32_t step = 0; step < 64 && !in.empty(); ++step) {
        const uint8_t op = in.u8();
        switch (op % 6) {
        case 0: {
            Slot& s = slots[in.range(0, kSlots - 1)];
            if (s.handle == nullptr) {
                s = initSlot(in);
            }
            break;
        }
        case 1: {
            Slot& s = slots[in.range(0, kSlots - 1)];
            if (s.handle != nullptr) {
                setSlot(s, in);
            }
            break;
        }
        case 2: {
            Slot& s = slots[in.range(0, kSlots - 1)];
            if (s.handle != nullptr) {
                doSlot(s, in);
            }
            break;
        }
        case 3:
            chainOp(chains[in.range(0, kChains - 1)], slots, in);
            break;
        case 4:
            refusedFloatSend(chains, slots, in);
            break;
        default: {
            Slot& s = slots[in.range(0, kSlots - 1)];
            if (s.handle != nullptr) {
                termSlot(s);
            }
            break;
        }
        }
    }
    for (Slot& s : slots) {
        if (s.handle != nullptr) {
            termSlot(s);
        }
    }
    for (Chain& c : chains) {
        if (c.handle != nullptr) {
            dspDestroy(c.handle);
        }
    }
    check(fastmemGetAllocatedSize() == poolBefore);
    return 0;
}
