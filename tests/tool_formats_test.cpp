// The tool's audio formats: its WAVE codec called directly (every encoding,
// streams, RF64, extra chunks), and the `dsp` program on them end to end
// (the float path against the library's float interface, pipes, dither,
// malformed headers).
#if defined(DSP_TOOL_FORMATS)

#include "audio_formats.h"
#include "dsp.h"
#include "file_source.h"
#include "sample_format.h"
#include "wave_reader.h"
#include "wave_writer.h"

#include "support/signals.h"
#include "support/tool_run.h"
#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace {

namespace fs = std::filesystem;
using cli::SampleType;
using dsptest::Bytes;
using dsptest::joinBytes;
using dsptest::le;

// A byte stream in memory; `seekable` false makes it behave as a pipe.
class MemorySource : public cli::ByteSource {
public:
    MemorySource(Bytes bytes, bool seekable) : bytes_(std::move(bytes)), seekable_(seekable) {}
    size_t read(void* data, size_t bytes) override {
        size_t n = std::min<size_t>(bytes, at_ < bytes_.size() ? bytes_.size() - at_ : 0);
        std::memcpy(data, bytes_.data() + at_, n);
        at_ += n;
        return n;
    }
    bool seekable() const override { return seekable_; }
    void seek(uint64_t offset) override { at_ = static_cast<size_t>(offset); }
    uint64_t position() const override { return at_; }
    const std::string& name() const override { return name_; }

private:
    Bytes bytes_;
    bool seekable_;
    size_t at_ = 0;
    std::string name_ = "memory";
};

// Keeps the first `keep` bytes written (the header) and counts the rest.
class MemorySink : public cli::ByteSink {
public:
    MemorySink(bool seekable, size_t keep = SIZE_MAX) : seekable_(seekable), keep_(keep) {}
    void write(const void* data, size_t bytes) override {
        const uint8_t* p = static_cast<const uint8_t*>(data);
        for (size_t i = 0; i < bytes && at_ + i < keep_; ++i) {
            if (at_ + i >= bytes_.size()) {
                bytes_.resize(at_ + i + 1);
            }
            bytes_[at_ + i] = p[i];
        }
        at_ += bytes;
        end_ = std::max(end_, at_);
    }
    bool seekable() const override { return seekable_; }
    void seek(uint64_t offset) override {
        ASSERT_TRUE(seekable_);
        at_ = offset;
    }
    uint64_t position() const override { return at_; }
    const std::string& name() const override { return name_; }
    const Bytes& bytes() const { return bytes_; }
    uint64_t end() const { return end_; }

private:
    bool seekable_;
    size_t keep_;
    Bytes bytes_;
    uint64_t at_ = 0, end_ = 0;
    std::string name_ = "memory";
};

uint64_t loadLe64(const Bytes& b, size_t at) {
    return dsptest::loadLe32(b, at) | (uint64_t{dsptest::loadLe32(b, at + 4)} << 32);
}

// Offset of the first chunk `id` of a RIFF image (SIZE_MAX if none).
size_t findChunk(const Bytes& b, const char* id) {
    for (size_t at = 12; at + 8 <= b.size();) {
        if (std::memcmp(b.data() + at, id, 4) == 0) {
            return at;
        }
        uint32_t size = dsptest::loadLe32(b, at + 4);
        at += 8 + size + (size & 1);
    }
    return SIZE_MAX;
}

// Samples of every value class of the type, packed (random-looking, with
// the extremes first).
Bytes sampleBytes(SampleType type, size_t count, uint32_t seed) {
    const size_t width = cli::bytesPerSample(type);
    Bytes out = dsptest::patternSamples(count * width, seed);
    if (cli::isFloat(type)) {
        // Floats in [-1.5, 1.5): some beyond full scale, which float keeps.
        std::vector<float> f(count);
        for (size_t i = 0; i < count; ++i) {
            f[i] = static_cast<float>(
                dsptest::loadLe32(out, i * width % (out.size() - 3)) / 4294967296.0 * 3.0 - 1.5);
        }
        cli::encodeSamples(type, f.data(), out.data(), count, nullptr);
    } else {
        std::fill(out.begin(), out.begin() + width, 0xFF); // -1 (or 127 for 8 bits)
        std::fill(out.begin() + width, out.begin() + 2 * width, 0x00);
        out[2 * width - 1] = type == SampleType::kUint8 ? 0x00 : 0x80; // the most negative
    }
    return out;
}

cli::StreamFormat streamFormat(uint32_t rate, uint32_t channels, SampleType type,
                               bool extensible = false) {
    cli::StreamFormat f;
    f.rate = rate;
    f.channels = channels;
    f.type = type;
    f.extensible = extensible;
    return f;
}

struct EncodingCase {
    SampleType type;
    bool extensible;
};

const EncodingCase kEncodings[] = {
    {SampleType::kUint8, false}, {SampleType::kInt16, false},   {SampleType::kInt24, false},
    {SampleType::kInt32, false}, {SampleType::kFloat32, false}, {SampleType::kFloat64, false},
    {SampleType::kInt24, true},  {SampleType::kFloat32, true},  {SampleType::kUint8, true},
};

// Every encoding, mono and stereo, written and read back by the codec: the
// header as written, the samples unchanged, and each integer encoding of 24
// bits or fewer (and 32-bit float) unchanged through the float scale too.
TEST(ToolWaveCodec, EveryEncodingRoundTrips) {
    for (const EncodingCase& e : kEncodings) {
        for (uint32_t channels : {1u, 2u}) {
            SCOPED_TRACE(cli::sampleTypeName(e.type) + (e.extensible ? " extensible " : " ") +
                         std::to_string(channels));
            cli::StreamFormat f = streamFormat(44100, channels, e.type, e.extensible);
            f.channelMask = e.extensible ? (channels == 2 ? 3 : 4) : 0;
            const size_t frames = 301; // odd: an 8-bit mono data chunk gets a pad byte
            const Bytes samples = sampleBytes(e.type, frames * channels, channels);
            MemorySink sink(true);
            cli::WaveWriter writer(sink, f, {});
            writer.write(samples.data(), frames);
            writer.finish({});
            const Bytes& file = sink.bytes();
            EXPECT_EQ(dsptest::loadLe32(file, 4), file.size() - 8);
            EXPECT_EQ(file.size() % 2, 0u); // an odd data chunk is padded
            const size_t fmt = findChunk(file, "fmt "), data = findChunk(file, "data");
            ASSERT_NE(fmt, SIZE_MAX);
            ASSERT_NE(data, SIZE_MAX);
            const uint16_t tag = static_cast<uint16_t>(dsptest::loadLe32(file, fmt + 8));
            EXPECT_EQ(tag, e.extensible ? 0xFFFE : (cli::isFloat(e.type) ? 3 : 1));
            EXPECT_EQ(dsptest::loadLe32(file, data + 4), samples.size());
            EXPECT_EQ(findChunk(file, "fact") != SIZE_MAX, cli::isFloat(e.type));

            MemorySource source(file, true);
            cli::WaveReader reader(source);
            EXPECT_EQ(reader.format().type, e.type);
            EXPECT_EQ(reader.format().extensible, e.extensible);
            EXPECT_EQ(reader.format().channelMask, f.channelMask);
            ASSERT_TRUE(reader.lengthKnown());
            EXPECT_EQ(reader.totalFrames(), frames);
            Bytes back(samples.size() + 64);
            ASSERT_EQ(reader.read(back.data(), 4096), frames);
            back.resize(samples.size());
            EXPECT_TRUE(back == samples);

            if (e.type != SampleType::kInt32 && e.type != SampleType::kFloat64) {
                std::vector<float> floats(frames * channels);
                cli::decodeSamples(e.type, samples.data(), floats.data(), floats.size());
                Bytes again(samples.size());
                cli::encodeSamples(e.type, floats.data(), again.data(), floats.size(), nullptr);
                EXPECT_TRUE(again == samples);
            }
        }
    }
}

// The float scale of each encoding (16 bits as the library's 16-bit path
// converts them: tool_test compares the tool's output with dspSend's).
TEST(ToolWaveCodec, SamplesMapToTheLibraryScale) {
    const struct {
        SampleType type;
        Bytes bytes;
        float value;
    } cases[] = {
        {SampleType::kUint8, {255}, 1.0f},
        {SampleType::kUint8, {0}, static_cast<float>(-128.0 / 127.0)},
        {SampleType::kUint8, {128}, 0.0f},
        {SampleType::kInt16, {0xFF, 0x7F}, 1.0f},
        {SampleType::kInt24, {0x01, 0x00, 0x80}, -1.0f},
        {SampleType::kInt24, {0x00, 0x00, 0x80}, static_cast<float>(-8388608.0 / 8388607.0)},
        {SampleType::kInt32, {0xFF, 0xFF, 0xFF, 0x7F}, 1.0f},
        {SampleType::kFloat32, {0x00, 0x00, 0xC0, 0x3F}, 1.5f},
        {SampleType::kFloat64, {0, 0, 0, 0, 0, 0, 0xE0, 0xBF}, -0.5f},
    };
    for (const auto& c : cases) {
        float v = 0.0f;
        cli::decodeSamples(c.type, c.bytes.data(), &v, 1);
        EXPECT_EQ(v, c.value) << cli::sampleTypeName(c.type);
    }
    // Integers clamp at full scale, counting the clamped samples; floats keep
    // what lies beyond it.
    const float loud[2] = {1.75f, -3.0f}, full[2] = {1.0f, -1.0f};
    uint8_t out[8];
    EXPECT_EQ(cli::encodeSamples(SampleType::kInt24, loud, out, 2, nullptr), 2u);
    EXPECT_EQ(Bytes(out, out + 6), (Bytes{0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80}));
    EXPECT_EQ(cli::encodeSamples(SampleType::kInt16, full, out, 2, nullptr), 0u);
    EXPECT_EQ(cli::encodeSamples(SampleType::kFloat32, loud, out, 2, nullptr), 0u);
    float kept[2];
    std::memcpy(kept, out, 8);
    EXPECT_EQ(kept[0], loud[0]);
    EXPECT_EQ(kept[1], loud[1]);
}

// A stream (a pipe): the writer leaves sizes unknown and reserves nothing
// (PipesInAndOut reads such a stream back). With known sizes, a stream keeps
// the chunks before and after the samples.
TEST(ToolWaveCodec, StreamsAndExtraChunks) {
    const cli::StreamFormat f = streamFormat(8000, 2, SampleType::kInt24);
    const Bytes samples = sampleBytes(f.type, 2 * 1000, 7);
    const cli::ExtraChunk list{
        {'L', 'I', 'S', 'T'},
        joinBytes({{'I', 'N', 'F', 'O', 'I', 'N', 'A', 'M'}, le(5, 4), {'t', 'i', 't', 'l', 'e'}})};
    const cli::ExtraChunk cue{{'c', 'u', 'e', ' '}, Bytes{1, 2, 3}};
    MemorySink pipe(false);
    cli::WaveWriter writer(pipe, f, {list});
    writer.write(samples.data(), 1000);
    writer.finish({cue});
    const Bytes& out = pipe.bytes();
    EXPECT_EQ(dsptest::loadLe32(out, 4), 0xFFFFFFFFu);
    EXPECT_EQ(findChunk(out, "JUNK"), SIZE_MAX);
    EXPECT_EQ(dsptest::loadLe32(out, findChunk(out, "data") + 4), 0xFFFFFFFFu);

    // Known sizes in a stream: the chunk after the data is kept at its end;
    // a stray ds64 chunk there is layout, not content, and is not kept.
    MemorySink file(true);
    cli::WaveWriter sized(file, f, {list});
    sized.write(samples.data(), 1000);
    sized.finish({cue});
    const Bytes withDs64 = joinBytes({file.bytes(), {'d', 's', '6', '4'}, le(4, 4), le(0, 4)});
    for (bool seekable : {false, true}) {
        MemorySource in(withDs64, seekable);
        cli::WaveReader r(in);
        ASSERT_TRUE(r.lengthKnown());
        std::vector<uint8_t> block(6 * 1000);
        EXPECT_EQ(r.read(block.data(), 1000), 1000u);
        EXPECT_EQ(r.read(block.data(), 1000), 0u);
        ASSERT_EQ(r.extraChunks().size(), 2u) << seekable;
        EXPECT_EQ(r.extraChunks()[0].body, list.body);
        EXPECT_EQ(std::string(r.extraChunks()[1].id.data(), 4), "cue ");
        EXPECT_EQ(r.extraChunks()[1].body, cue.body); // odd size: padded, read back exactly
    }
}

// Past 4 GiB the writer turns its reserved JUNK chunk into ds64 and the file
// into RF64 (only the header is kept in memory).
TEST(ToolWaveCodec, WriterSwitchesToRf64Beyond4GiB) {
    const cli::StreamFormat f = streamFormat(48000, 2, SampleType::kInt16);
    for (uint64_t frames : {uint64_t{0x3FFFFFFF} - 20, uint64_t{0x40000000} + 1000}) {
        MemorySink sink(true, 4096);
        cli::WaveWriter writer(sink, f, {});
        std::vector<uint8_t> block(4u << 20);
        for (uint64_t at = 0; at < frames;) {
            uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(frames - at, block.size() / 4));
            writer.write(block.data(), n);
            at += n;
        }
        writer.finish({});
        const Bytes& h = sink.bytes();
        const uint64_t dataBytes = frames * 4;
        if (dataBytes + 72 < 0xFFFFFFFFu) {
            EXPECT_EQ(std::string(h.begin(), h.begin() + 4), "RIFF");
            EXPECT_EQ(dsptest::loadLe32(h, 4), sink.end() - 8);
            EXPECT_EQ(std::string(h.begin() + 12, h.begin() + 16), "JUNK");
            EXPECT_EQ(dsptest::loadLe32(h, findChunk(h, "data") + 4), dataBytes);
        } else {
            EXPECT_EQ(std::string(h.begin(), h.begin() + 4), "RF64");
            EXPECT_EQ(dsptest::loadLe32(h, 4), 0xFFFFFFFFu);
            ASSERT_EQ(std::string(h.begin() + 12, h.begin() + 16), "ds64");
            EXPECT_EQ(loadLe64(h, 20), sink.end() - 8);
            EXPECT_EQ(loadLe64(h, 28), dataBytes);
            EXPECT_EQ(loadLe64(h, 36), frames);
            EXPECT_EQ(dsptest::loadLe32(h, findChunk(h, "data") + 4), 0xFFFFFFFFu);
        }
    }
}

#if defined(DSP_TOOL_PATH) && !defined(_WIN32)

using dsptest::Decoded;
using dsptest::runTool;
using dsptest::scratchPath;
using dsptest::ToolRun;
using dsptest::words;

// A WAVE file of the codec's own making.
void writeWave(const std::string& path, const cli::StreamFormat& f, const Bytes& samples,
               const std::vector<cli::ExtraChunk>& extras = {}) {
    MemorySink sink(true);
    cli::WaveWriter writer(sink, f, extras);
    writer.write(samples.data(), static_cast<uint32_t>(samples.size() / f.frameBytes()));
    writer.finish({});
    dsptest::writeFileBytes(path, sink.bytes());
}

cli::StreamFormat stereo(SampleType type, bool extensible = false) {
    return streamFormat(44100, 2, type, extensible);
}

// Stereo noise, as floats.
std::vector<float> testTone(size_t frames) {
    return dsptest::noise(2 * frames, 5, 0.7f);
}

Bytes encoded(SampleType type, const std::vector<float>& s) {
    Bytes b(s.size() * cli::bytesPerSample(type));
    cli::encodeSamples(type, s.data(), b.data(), s.size(), nullptr);
    return b;
}

// Every encoding, copied by `dsp IN OUT`, keeps its samples bit for bit and
// its encoding; stereo to mono moves the speaker mask to the centre.
TEST(ToolFormats, CopiesKeepEveryEncodingExactly) {
    const std::vector<float> tone = testTone(5000);
    const std::string in = scratchPath("in.wav"), out = scratchPath("out.wav");
    for (const EncodingCase& e : kEncodings) {
        SCOPED_TRACE(cli::sampleTypeName(e.type) + (e.extensible ? " extensible" : ""));
        writeWave(in, stereo(e.type, e.extensible), encoded(e.type, tone));
        ToolRun r = runTool(words({"-q", in, out}));
        ASSERT_EQ(r.status, 0) << r.err;
        Decoded d = dsptest::readAudio(out);
        EXPECT_EQ(d.format.type, e.type);
        // Extensible stays so where the plain header would do for fewer readers.
        EXPECT_EQ(d.format.extensible, e.extensible && e.type == SampleType::kInt24);
        EXPECT_TRUE(d.samples == encoded(e.type, tone));
    }
    // Stereo to mono: the speaker mask follows (left and right -> centre).
    cli::StreamFormat masked = stereo(SampleType::kInt24, true);
    masked.channelMask = 3;
    writeWave(in, masked, encoded(SampleType::kInt24, tone));
    ToolRun r = runTool("-q " + in + " " + out + " resample 22050 mono");
    ASSERT_EQ(r.status, 0) << r.err;
    const Decoded d = dsptest::readAudio(out);
    EXPECT_EQ(d.format.channels, 1);
    EXPECT_TRUE(d.format.extensible);
    EXPECT_EQ(d.format.channelMask, 4u);
}

// A 24-bit file through a chain, written as float: exactly the floats that
// the library's float interface gives for the decoded samples in blocks of
// whole rate cycles.
TEST(ToolFormats, ChainRunsThroughTheFloatInterface) {
    const std::vector<float> tone = testTone(20000);
    const Bytes samples = encoded(SampleType::kInt24, tone);
    const std::string in = scratchPath("in.wav"), out = scratchPath("out.wav");
    writeWave(in, stereo(SampleType::kInt24), samples);
    ToolRun r = runTool("-q --bits float " + in + " " + out + " lowpass 4 2000 hqups");
    ASSERT_EQ(r.status, 0) << r.err;

    std::vector<float> src(tone.size());
    cli::decodeSamples(SampleType::kInt24, samples.data(), src.data(), src.size());
    // Blocks of whole 147-frame cycles of the two rates, the last one padded
    // with silence; the output cut at 20000 * 48000 / 44100 frames.
    const uint32_t block = 3969;
    src.resize(6 * size_t{block} * 2, 0.0f);
    void* chain = dspCreate(block, 2, 44100);
    dspAdd(chain, initIirFilter(block, 2, 44100, 4, 2000.0f, 0), 1);
    dspAdd(chain, initHqupsBySrcsize(block, 2, 2, 44100, 0.3f, 50.0f, 5000, 1, 60.0f, 60.0f, 0, 1),
           2);
    std::vector<float> expected, dst(dspGetDstSamples(chain, block));
    for (size_t at = 0; at < 20000; at += block) {
        uint32_t m = dspSendFloat(chain, src.data() + 2 * at, dst.data(), block);
        expected.insert(expected.end(), dst.begin(), dst.begin() + 2 * m);
    }
    dspDestroy(chain);
    expected.resize(2 * 21768);
    Decoded d = dsptest::readAudio(out);
    EXPECT_EQ(d.format.rate, 48000u);
    EXPECT_TRUE(d.samples == encoded(SampleType::kFloat32, expected));
}

// Standard input and output: a pipe through `dsp - -` gives the samples and
// the chunks of the file-to-file run, with the sizes left unknown.
TEST(ToolFormats, PipesInAndOut) {
    const std::string in = scratchPath("in.wav"), viaFile = scratchPath("file.wav"),
                      viaPipe = scratchPath("pipe.wav");
    const cli::ExtraChunk list{{'L', 'I', 'S', 'T'}, Bytes{'I', 'N', 'F', 'O', 'x'}};
    writeWave(in, stereo(SampleType::kInt16), encoded(SampleType::kInt16, testTone(9000)), {list});
    ASSERT_EQ(runTool("-q " + in + " " + viaFile + " gain -6").status, 0);
    ToolRun r = runTool("-q - - gain -6", {"", "cat " + in + " | ", " | cat >" + viaPipe});
    ASSERT_EQ(r.status, 0) << r.err;
    Bytes piped = dsptest::readFileBytes(viaPipe);
    ASSERT_GT(piped.size(), 12u);
    EXPECT_EQ(dsptest::loadLe32(piped, 4), 0xFFFFFFFFu);
    Decoded a = dsptest::readAudio(viaFile), b = dsptest::readAudio(viaPipe);
    EXPECT_TRUE(a.samples == b.samples);
    ASSERT_EQ(b.extras.size(), 1u);
    EXPECT_EQ(b.extras[0].body, list.body);
    // And the unknown-length stream reads back through a pipe.
    r = runTool("info -", {"", "cat " + viaPipe + " | ", ""});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("(9000 frames)"), std::string::npos) << r.out;
}

// Fewer bits out than in: TPDF dither, the same on every run; none with
// --no-dither, where a constant of half a 16-bit step rounds one way.
TEST(ToolFormats, DitherWhenReducingBits) {
    const std::string in = scratchPath("in.wav"), out = scratchPath("out.wav");
    // 24-bit 129: a little over half a 16-bit step (0.504).
    Bytes samples(6 * 4000);
    for (size_t i = 0; i < samples.size(); i += 3) {
        samples[i] = 0x81;
    }
    writeWave(in, stereo(SampleType::kInt24), samples);
    auto run16 = [&](const std::string& options) {
        EXPECT_EQ(runTool("-q --bits 16 " + options + " " + in + " " + out).status, 0);
        Decoded d = dsptest::readAudio(out);
        EXPECT_EQ(d.format.type, SampleType::kInt16);
        std::vector<int16_t> s(d.samples.size() / 2);
        std::memcpy(s.data(), d.samples.data(), d.samples.size());
        return s;
    };
    std::vector<int16_t> plain = run16("--no-dither");
    EXPECT_TRUE(std::all_of(plain.begin(), plain.end(), [](int16_t v) { return v == 1; }));
    std::vector<int16_t> dithered = run16("");
    EXPECT_EQ(dithered, run16(""));
    double sum = 0.0;
    for (int16_t v : dithered) {
        EXPECT_TRUE(v >= 0 && v <= 2) << v; // within one step of 0.504
        sum += v;
    }
    EXPECT_GT(std::count(dithered.begin(), dithered.end(), 0), 1000);
    EXPECT_NEAR(sum / dithered.size(), 0.504, 0.03); // unbiased
}

// Each malformed or unsupported header: one line naming the file and the
// field with its value, status 1, no output.
TEST(ToolFormats, MalformedHeadersGiveOneLineEach) {
    auto fmt = [](uint16_t tag, uint16_t channels, uint16_t align, uint16_t bits,
                  const Bytes& extension = {}) {
        return joinBytes({le(tag, 2), le(channels, 2), le(8000, 4), le(8000u * align, 4),
                          le(align, 2), le(bits, 2), extension});
    };
    auto extensible = [](uint16_t valid, uint32_t mask, uint8_t sub) {
        return joinBytes({le(22, 2),
                          le(valid, 2),
                          le(mask, 4),
                          {sub, 0, 0, 0, 0, 0, 0x10, 0},
                          {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}});
    };
    auto wave = [](const Bytes& fmtBody, const char* riff = "RIFF", const char* form = "WAVE") {
        Bytes b = dsptest::riffBytes(form, joinBytes({dsptest::chunkBytes("fmt ", fmtBody),
                                                      dsptest::chunkBytes("data", Bytes(64))}));
        std::memcpy(b.data(), riff, 4);
        return b;
    };
    const Bytes good = fmt(1, 2, 4, 16);
    const struct {
        Bytes file;
        const char* message;
    } cases[] = {
        {wave(good, "RIFX"), "is not a RIFF WAVE file (it begins with 52 49 46 58)"},
        {wave(fmt(2, 2, 4, 16)), "fmt chunk: format tag 2 (0x0002) is not supported"},
        {wave(fmt(1, 0, 4, 16)), "fmt chunk: channels 0"},
        {wave(fmt(1, 6, 12, 16)), "has 6 channels; the processors take mono or stereo"},
        {wave(fmt(1, 2, 4, 12)), "fmt chunk: bitsPerSample 12 is not supported (8, 16, 24 or 32"},
        {wave(fmt(3, 2, 4, 16)), "fmt chunk: bitsPerSample 16 is not supported for IEEE float"},
        {wave(fmt(1, 2, 6, 16)),
         "fmt chunk: blockAlign 6 does not match 2 channels of 16 bits (4)"},
        {wave(Bytes(good.begin(), good.begin() + 14)), "fmt chunk: size 14 is too small"},
        {wave(fmt(0xFFFE, 2, 4, 16, le(0, 2))), "an extensible format needs 22 extra bytes"},
        {wave(fmt(0xFFFE, 2, 4, 16, extensible(16, 3, 2))), "is not PCM or IEEE float"},
        {wave(fmt(0xFFFE, 2, 4, 16, extensible(20, 3, 1))),
         "validBitsPerSample 20 exceeds bitsPerSample 16"},
        {wave(fmt(0xFFFE, 2, 4, 16, extensible(16, 0x3F, 1))),
         "channel mask 0x3F names 6 speakers for 2 channels"},
        {wave(good, "RF64"), "RF64 file without a ds64 chunk (the first chunk is 'fmt ')"},
        {dsptest::riffBytes("WAVE", dsptest::chunkBytes("LIST", Bytes(8))), "no fmt chunk"},
        {dsptest::riffBytes("WAVE", dsptest::chunkBytes("fmt ", good)), "no data chunk"},
        {dsptest::riffBytes("WAVE", joinBytes({dsptest::chunkBytes("data", Bytes(8)),
                                               dsptest::chunkBytes("fmt ", good)})),
         "the data chunk comes before the fmt chunk"},
        {Bytes{'f', 'L', 'a', 'C', 0, 0, 0, 0x22}, nullptr}, // needs libsndfile, or is damaged
    };
    const std::string in = scratchPath("bad.wav"), out = scratchPath("out.wav");
    for (const auto& c : cases) {
        dsptest::writeFileBytes(in, c.file);
        ToolRun r = runTool(words({in, out, "gain -1"}));
        const std::string expected =
            c.message != nullptr ? c.message
            : cli::haveSndfile() ? in
                                 : "FLAC needs libsndfile, which this dsp was built without";
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_EQ(r.err.rfind("dsp: '" + in + "'", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(expected), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_FALSE(fs::exists(out)) << expected;
    }
}

// With libsndfile: FLAC and AIFF keep the samples exactly, Ogg Vorbis keeps
// the length; without it, each is refused by name and nothing is written.
TEST(ToolFormats, OtherContainersThroughLibsndfile) {
    const std::vector<float> tone = testTone(6000);
    const Bytes samples = encoded(SampleType::kInt24, tone);
    const std::string in = scratchPath("in.wav"), back = scratchPath("back.wav");
    writeWave(in, stereo(SampleType::kInt24), samples);
    const struct {
        const char* name;
        const char* container;
        bool exact;
    } cases[] = {{"out.flac", "FLAC", true}, {"out.aiff", "AIFF", true}, {"out.ogg", "Ogg", false}};
    for (const auto& c : cases) {
        const std::string out = scratchPath(c.name);
        ToolRun r = runTool(words({"-q", in, out}));
        if (!cli::haveSndfile()) {
            const std::string what = std::string(c.container) + (c.exact ? "" : " Vorbis");
            EXPECT_EQ(r.status, 1);
            EXPECT_EQ(r.err, words({"dsp: '" + out + "':", what,
                                    "needs libsndfile, which this dsp was built without\n"}));
            EXPECT_FALSE(fs::exists(out));
            continue;
        }
        ASSERT_EQ(r.status, 0) << r.err;
        r = runTool(words({"-q", out, back}));
        ASSERT_EQ(r.status, 0) << r.err;
        Decoded d = dsptest::readAudio(back);
        EXPECT_EQ(d.format.rate, 44100u);
        EXPECT_EQ(d.format.type, c.exact ? SampleType::kInt24 : SampleType::kFloat32) << c.name;
        if (c.exact) {
            EXPECT_TRUE(d.samples == samples) << c.name;
        } else {
            EXPECT_EQ(d.samples.size(), 6000u * 2 * 4) << c.name;
        }
    }
}

// RF64 with a data chunk beyond 4 GiB, as a sparse file: the length comes
// from ds64, and a spectrum from beyond 4 GiB is read.
TEST(ToolFormats, Rf64BeyondFourGiBIsRead) {
    const std::string path = scratchPath("big.wav");
    const uint64_t frames = (uint64_t{6} << 30) / 4; // 6 GiB of 16-bit stereo
    Bytes header = joinBytes({{'R', 'F', '6', '4'},
                              le(0xFFFFFFFF, 4),
                              {'W', 'A', 'V', 'E'},
                              {'d', 's', '6', '4'},
                              le(28, 4),
                              Bytes(8),
                              Bytes(8),
                              Bytes(12),
                              dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(2, 44100)),
                              {'d', 'a', 't', 'a'},
                              le(0xFFFFFFFF, 4)});
    for (int i = 0; i < 8; ++i) {
        header[28 + i] = static_cast<uint8_t>((frames * 4) >> (8 * i));      // data size
        header[36 + i] = static_cast<uint8_t>(frames >> (8 * i));            // sample count
        header[20 + i] = static_cast<uint8_t>((frames * 4 + 72) >> (8 * i)); // RIFF size
    }
    dsptest::writeFileBytes(path, header);
    std::error_code ec;
    fs::resize_file(path, header.size() + frames * 4, ec);
    struct stat st {};
    if (ec || stat(path.c_str(), &st) != 0 || uint64_t(st.st_blocks) * 512 > (64u << 20)) {
        fs::remove(path, ec);
        GTEST_SKIP() << "no sparse files here";
    }
    {
        cli::FileSource source(path);
        cli::WaveReader reader(source);
        EXPECT_TRUE(reader.lengthKnown());
        EXPECT_EQ(reader.totalFrames(), frames);
    }
    ToolRun r = runTool("spectrum " + path + " --size 64 --at 30000 --csv");
    fs::remove(path, ec);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 33) << r.out;
}

#endif // DSP_TOOL_PATH && !_WIN32

} // namespace

#endif // DSP_TOOL_FORMATS
