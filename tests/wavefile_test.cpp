// The WAVE reader and writer through their C interface: reads, seeks and
// malformed files (a clean refusal, never an overrun); the writer's exact
// file layout, provisional sizes, failed opens and the round trip.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

namespace {

using dsptest::Bytes;
using dsptest::chunkBytes;
constexpr auto join = dsptest::joinBytes;

Bytes waveWith(const Bytes& chunks) {
    return dsptest::riffBytes("WAVE", chunks);
}

const Bytes kFmt = chunkBytes("fmt ", dsptest::pcmFormatBody(2, 44100));
const Bytes kData = chunkBytes("data", dsptest::patternSamples(16));

class WavefileReaderTest : public ::testing::Test {
protected:
    void TearDown() override {
        termWavefileIn(handle_);
        std::remove(path_.c_str());
    }
    void open(const Bytes& image, uint32_t frames = 1024) {
        termWavefileIn(handle_);
        path_ = dsptest::wavefileTempPath("reader.wav");
        dsptest::writeFileBytes(path_, image);
        handle_ = initWavefileIn(path_.c_str(), frames);
        ASSERT_NE(handle_, nullptr);
    }
    // Whether the last open succeeded; a refused file behaves as closed.
    bool isOpen() {
        uint8_t buffer[64 * 2 * 4];
        if (readWavefileIn(handle_, buffer, 1) != 0 || position() != 0) {
            return true;
        }
        EXPECT_EQ(readWavefileIn(handle_, nullptr, 64), 0);
        EXPECT_EQ(seekWavefileIn(handle_, 0, 0), 0);
        EXPECT_EQ(timeSeekWavefileIn(handle_, 0.5f, 0), 0);
        return false;
    }
    bool opens(const Bytes& image) {
        open(image, 64);
        return isOpen();
    }
    WavefileHeader* header() { return getHeaderWavefileIn(handle_); }
    WavefileFormat* format() { return getFormatWavefileIn(handle_); }
    int32_t position() { return seekWavefileIn(handle_, 0, 1); }

    std::string path_;
    void* handle_ = nullptr;
};

TEST_F(WavefileReaderTest, CanonicalFileOpensAtByte44AndReadsInOrder) {
    Bytes samples = dsptest::patternSamples(4000);
    open(dsptest::canonicalWave(2, 44100, samples), 256);
    EXPECT_EQ(position(), 44);
    Bytes expectedFormat = dsptest::pcmFormatBody(2, 44100, true, 0);
    EXPECT_EQ(std::memcmp(format(), expectedFormat.data(), 18), 0);
    const WavefileHeader* h = header();
    EXPECT_EQ(h->dataBytes, 4000u);
    EXPECT_EQ(h->bytesRead, 0u);
    ASSERT_NE(h->buffer, nullptr);
    EXPECT_EQ(Bytes(h->buffer, h->buffer + 1024), Bytes(1024, 0));
    Bytes got;
    int32_t n = 0;
    while ((n = readWavefileIn(handle_, nullptr, 256)) > 0) {
        EXPECT_EQ(h->bytesRead, static_cast<uint32_t>(n));
        got.insert(got.end(), h->buffer, h->buffer + n);
    }
    EXPECT_EQ(got, samples);
    EXPECT_EQ(position(), 44 + 4000);
}

TEST_F(WavefileReaderTest, OtherChunksAndLongFormatsAreSkipped) {
    Bytes longFormat = dsptest::pcmFormatBody(1, 22050, true, 22);
    longFormat.resize(40, 0xAB);
    open(waveWith(join({chunkBytes("fmt ", longFormat), chunkBytes("data", {1, 2, 3, 4})})));
    EXPECT_EQ(format()->extraSize, 22);
    EXPECT_EQ(format()->channels, 1);
    EXPECT_EQ(position(), 12 + 8 + 40 + 8);

    Bytes list = chunkBytes("LIST", {'I', 'N', 'F', 'O', 'I', 'S', 'F', 'T', 1, 0, 0, 0, 'x', 0});
    open(waveWith(join({chunkBytes("JUNK", {1, 2, 3}), kFmt, list,
                        chunkBytes("data", {10, 11, 12, 13}), chunkBytes("tail", {99, 98})})));
    EXPECT_EQ(position(), 12 + 12 + 24 + static_cast<int32_t>(list.size()) + 8);
    EXPECT_EQ(header()->dataBytes, 4u);
    // Reads are not held to the "data" chunk: they run on into what follows.
    uint8_t got[8] = {};
    EXPECT_EQ(readWavefileIn(handle_, got, 2), 8);
    EXPECT_EQ(header()->buffer, got);
    EXPECT_EQ(Bytes(got, got + 8), (Bytes{10, 11, 12, 13, 't', 'a', 'i', 'l'}));
}

TEST_F(WavefileReaderTest, SecondsFollowTheIntegerThenFloatingDivision) {
    // 3 data bytes of mono hold one whole frame; 7 stereo bytes one frame.
    struct Case {
        uint16_t channels;
        uint32_t rate;
        uint32_t bytes;
        float seconds;
    } cases[] = {{1, 8000, 3, static_cast<float>(1.0 / 8000)},
                 {2, 44100, 7, static_cast<float>(1.0 / 44100)},
                 {2, 96000, 1000001, static_cast<float>(250000.0 / 96000)}};
    for (const Case& c : cases) {
        open(dsptest::canonicalWave(c.channels, c.rate, Bytes(c.bytes)));
        EXPECT_EQ(dsptest::wavefileSeconds(handle_), c.seconds) << c.bytes;
    }
}

TEST_F(WavefileReaderTest, TimeAndByteSeeks) {
    Bytes samples = dsptest::patternSamples(176400);
    open(dsptest::canonicalWave(2, 44100, samples));
    readWavefileIn(handle_, nullptr, 100);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.5f, DSP_SEEK_DATA), 44 + 88200);
    uint8_t got[4];
    ASSERT_EQ(readWavefileIn(handle_, got, 1), 4);
    EXPECT_EQ(std::memcmp(got, &samples[88200], 4), 0);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.25f, DSP_SEEK_CURRENT), 44 + 88204 + 44100);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -0.25f, 1), 44 + 88204);
    // Frames truncate toward zero: 44100 x 0.00003 = 1.323 -> 1 frame.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.00003f, 0), 44 + 4);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -0.00003f, 0), 44 - 4);
    // Not clamped to the data chunk, but never before the file's start.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 10.0f, 0), 44 + 1764000);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -1.0f, 0), -1);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 1e30f, 0), -1);

    EXPECT_EQ(seekWavefileIn(handle_, 500, DSP_SEEK_DATA), 544);
    EXPECT_EQ(seekWavefileIn(handle_, 100, DSP_SEEK_DATA), 144);
    EXPECT_EQ(seekWavefileIn(handle_, 10, DSP_SEEK_CURRENT), 154);
    EXPECT_EQ(seekWavefileIn(handle_, -20, 1), 134);
    ASSERT_EQ(readWavefileIn(handle_, got, 1), 4);
    EXPECT_EQ(std::memcmp(got, &samples[90], 4), 0);
    EXPECT_EQ(seekWavefileIn(handle_, -1000, 1), -1);
    EXPECT_EQ(position(), 138);
    EXPECT_EQ(seekWavefileIn(handle_, 200000, 0), 200044);
    EXPECT_EQ(readWavefileIn(handle_, got, 1), 0);
}

TEST_F(WavefileReaderTest, CallerBuffersAreFollowedAndOwnBuffersExtended) {
    Bytes samples = dsptest::patternSamples(4000);
    open(dsptest::canonicalWave(2, 44100, samples), 8);
    uint8_t* own = header()->buffer;
    std::vector<uint8_t> mine(64, 0);
    EXPECT_EQ(readWavefileIn(handle_, mine.data(), 16), 64);
    EXPECT_EQ(header()->buffer, mine.data());
    EXPECT_EQ(header()->bytesRead, 64u);
    EXPECT_TRUE(std::equal(mine.begin(), mine.end(), samples.begin()));
    // A read without a buffer fills the own one (at most its size) and
    // leaves the caller's alone.
    std::vector<uint8_t> before = mine;
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 500), 32);
    EXPECT_EQ(header()->buffer, own);
    EXPECT_EQ(mine, before);
    EXPECT_EQ(std::memcmp(own, &samples[64], 32), 0);

    uint8_t* bigger = bufSizeExtendWavefileIn(handle_, 300);
    ASSERT_NE(bigger, nullptr);
    EXPECT_EQ(header()->buffer, bigger);
    EXPECT_EQ(Bytes(bigger, bigger + 1200), Bytes(1200, 0));
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 500), 1200);
    EXPECT_EQ(std::memcmp(bigger, &samples[96], 1200), 0);
    // A size that cannot be described in 32 bits is refused; nothing changes.
    EXPECT_EQ(bufSizeExtendWavefileIn(handle_, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(header()->buffer, bigger);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 1), 4);
    ASSERT_NE(bufSizeExtendWavefileIn(handle_, 0), nullptr);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 10), 0);
    // An own buffer beyond 32 bits fails the open.
    open(dsptest::canonicalWave(2, 44100, Bytes(8)), 0x40000000u);
    EXPECT_FALSE(isOpen());
}

TEST_F(WavefileReaderTest, DataSizePastTheEndOpensAndReadsShort) {
    Bytes image = dsptest::canonicalWave(1, 8000, dsptest::patternSamples(100));
    const Bytes size = dsptest::le(307200, 4); // as an unfinished writer leaves it
    std::copy(size.begin(), size.end(), image.begin() + 40);
    open(image);
    EXPECT_EQ(header()->dataBytes, 307200u);
    std::vector<uint8_t> got(1000);
    EXPECT_EQ(readWavefileIn(handle_, got.data(), 500), 100);
    EXPECT_EQ(readWavefileIn(handle_, got.data(), 500), 0);
}

TEST_F(WavefileReaderTest, MalformedFilesFailTheOpen) {
    Bytes image = waveWith(join({kFmt, kData}));
    EXPECT_TRUE(opens(image));
    for (size_t length = 0; length < 44; ++length) {
        EXPECT_FALSE(opens(Bytes(image.begin(), image.begin() + length))) << length;
    }
    // With the whole "data" header present the samples may be cut short.
    EXPECT_TRUE(opens(Bytes(image.begin(), image.begin() + 45)));
    const Bytes body = dsptest::pcmFormatBody(2, 44100);
    const Bytes chunks = join({kFmt, kData});
    Bytes rifx = waveWith(chunks);
    rifx[3] = 'X';
    const Bytes refused[] = {
        waveWith(join({kData, kFmt})), // data before the format
        waveWith(join({dsptest::chunkBytesWithSize("fmt ", 0x7FFFFFF0u, body), kData})),
        waveWith(dsptest::chunkBytesWithSize("fmt ", 0xFFFFFFFFu, body)),
        waveWith(kFmt),
        dsptest::riffBytes("AVI ", chunks),
        rifx,
        chunks,
        dsptest::riffBytesWithSize("WAVE", 0, chunks),
        dsptest::riffBytesWithSize("WAVE", 4 + 24, chunks), // "data" outside the form
        waveWith(join(
            {kFmt, dsptest::chunkBytesWithSize("LIST", 0xFFFFFFFFu, {'I', 'N', 'F', 'O'}), kData})),
        waveWith(join({dsptest::chunkBytesWithSize("JUNK", 0x80000000u, {}), kFmt, kData})),
    };
    for (size_t i = 0; i < std::size(refused); ++i) {
        EXPECT_FALSE(opens(refused[i])) << "case " << i;
    }
    // A RIFF size past the end (a cut file) is no obstacle.
    EXPECT_TRUE(opens(dsptest::riffBytesWithSize("WAVE", 0xFFFFFFFFu, chunks)));
    for (const char* path : {static_cast<const char*>(DSP_TEST_TMPDIR), "",
                             static_cast<const char*>(nullptr), "/nonexistent/dir/x.wav"}) {
        void* h = initWavefileIn(path, 64);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(readWavefileIn(h, nullptr, 1), 0);
        EXPECT_EQ(seekWavefileIn(h, 0, 1), 0);
        EXPECT_EQ(timeSeekWavefileIn(h, 0.0f, 1), 0);
        EXPECT_EQ(getHeaderWavefileIn(h)->buffer, nullptr);
        termWavefileIn(h);
    }
}

// A short "fmt " body is read as far as it goes, the rest of the record 0;
// with no channels reads deliver 0 bytes.
TEST_F(WavefileReaderTest, ShortFormatsOpenWithTheMissingBytesAsZero) {
    Bytes body = dsptest::pcmFormatBody(2, 44100);
    for (size_t size : {0u, 3u, 14u}) {
        open(waveWith(join({chunkBytes("fmt ", Bytes(body.begin(), body.begin() + size)), kData})),
             16);
        EXPECT_EQ(position(), 12 + 8 + static_cast<int32_t>(size + (size & 1)) + 8) << size;
        Bytes expected(18, 0);
        std::copy(body.begin(), body.begin() + size, expected.begin());
        EXPECT_EQ(std::memcmp(format(), expected.data(), 18), 0) << size;
        EXPECT_EQ(header()->dataBytes, 16u) << size;
        uint8_t buffer[64] = {};
        int32_t expectedBytes = format()->channels == 0 ? 0 : 4;
        EXPECT_EQ(readWavefileIn(handle_, buffer, 1), expectedBytes) << size;
        EXPECT_EQ(readWavefileIn(handle_, nullptr, 1), expectedBytes) << size;
    }
    open(waveWith(join({chunkBytes("fmt ", dsptest::pcmFormatBody(0, 44100)), kData})), 16);
    EXPECT_EQ(position(), 44);
    EXPECT_EQ(dsptest::wavefileSeconds(handle_), 0.0f);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 1.0f, 0), 44);
    // The duration divides in floating point: a rate of 0 gives an infinite
    // duration, and 0 frames over 0 Hz no number at all.
    Bytes rate0 = chunkBytes("fmt ", dsptest::pcmFormatBody(1, 0));
    open(waveWith(join({rate0, kData})), 16);
    EXPECT_EQ(dsptest::wavefileSeconds(handle_), std::numeric_limits<float>::infinity());
    EXPECT_EQ(timeSeekWavefileIn(handle_, 3.0f, 0), 44);
    open(waveWith(join({rate0, chunkBytes("data", {7})})), 16);
    EXPECT_TRUE(std::isnan(dsptest::wavefileSeconds(handle_)));
}

// Every header byte set to a handful of hostile values, and every truncation
// of each: an open either fails or delivers reads within the own buffer.
TEST(WavefileMalformed, MutatedHeadersNeverOverrunTheOwnBuffer) {
    Bytes base = waveWith(join({kFmt, chunkBytes("LIST", {'I', 'N', 'F', 'O'}), kData}));
    std::string path = dsptest::wavefileTempPath("mutated.wav");
    int opened = 0;
    for (size_t at = 0; at < 56; ++at) {
        for (uint8_t value : {0x00, 0x80, 0xFF}) {
            Bytes image = base;
            image[at] = value;
            for (size_t cut : {image.size(), at + 1}) {
                dsptest::writeFileBytes(path, Bytes(image.begin(), image.begin() + cut));
                void* h = initWavefileIn(path.c_str(), 3);
                uint32_t channels = getFormatWavefileIn(h)->channels;
                int32_t got = readWavefileIn(h, nullptr, 1000);
                ASSERT_GE(got, 0);
                ASSERT_LE(static_cast<uint32_t>(got), 3u * 2u * channels);
                opened += got > 0 ? 1 : 0;
                timeSeekWavefileIn(h, 1e9f, 0);
                readWavefileIn(h, nullptr, 1);
                seekWavefileIn(h, -2147483647 - 1, 1);
                termWavefileIn(h);
            }
        }
    }
    EXPECT_GT(opened, 0);
    std::remove(path.c_str());
}

WavefileFormat pcmFormat(uint16_t channels, uint32_t rate) {
    return {1, channels, rate, rate * 2u * channels, static_cast<uint16_t>(2 * channels), 16, 0};
}

// The expected file: the fixed 46-byte header, then the samples and a pad.
Bytes expectedFile(const WavefileFormat& f, const Bytes& samples) {
    const uint8_t* record = reinterpret_cast<const uint8_t*>(&f);
    return dsptest::riffBytes(
        "WAVE", dsptest::joinBytes({dsptest::chunkBytes("fmt ", Bytes(record, record + 18)),
                                    dsptest::chunkBytes("data", samples)}));
}

// Everything the reader delivers from the first sample up to dataBytes.
Bytes readWithLibrary(const std::string& path, WavefileFormat& format) {
    void* h = initWavefileIn(path.c_str(), 1000);
    format = *getFormatWavefileIn(h);
    const WavefileHeader* header = getHeaderWavefileIn(h);
    Bytes got;
    int32_t n = 0;
    while (got.size() < header->dataBytes && (n = readWavefileIn(h, nullptr, 1000)) > 0) {
        got.insert(got.end(), header->buffer, header->buffer + n);
    }
    got.resize(std::min<size_t>(got.size(), header->dataBytes));
    termWavefileIn(h);
    return got;
}

class WavefileWriterTest : public ::testing::Test {
protected:
    void SetUp() override { path_ = dsptest::wavefileTempPath("writer.wav"); }
    void TearDown() override { std::remove(path_.c_str()); }
    std::string path_;
    WavefileFormat stereo_ = pcmFormat(2, 44100);
};

// The format is kept as passed, in a copy, unchecked; odd data gets a pad
// byte counted in the RIFF size.
TEST_F(WavefileWriterTest, FilesHaveTheExactLayoutWithTheFormatAsPassed) {
    WavefileFormat f = stereo_;
    f.formatTag = 0xFFFE;
    f.avgBytesPerSecond = 12345;
    f.extraSize = 22;
    void* h = initWavefileOut(path_.c_str(), &f);
    ASSERT_NE(getFormatWavefileOut(h), nullptr);
    EXPECT_NE(getFormatWavefileOut(h), &f);
    EXPECT_EQ(std::memcmp(getFormatWavefileOut(h), &f, sizeof f), 0);
    EXPECT_EQ(termWavefileOut(h), 0u);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(f, {}));
    h = initWavefileOut(path_.c_str(), &stereo_);
    const uint8_t three[3] = {0x11, 0x22, 0x33};
    EXPECT_EQ(writeWavefileOut(h, three, 3), 3);
    EXPECT_EQ(termWavefileOut(h), 3u);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(stereo_, {0x11, 0x22, 0x33}));
}

TEST_F(WavefileWriterTest, OddWritesAcrossBuffersLandInOrderAndSizesStayProvisional) {
    Bytes samples = dsptest::patternSamples(700001, 3);
    void* h = initWavefileOut(path_.c_str(), &stereo_);
    ASSERT_EQ(writeWavefileOut(h, samples.data(), 1000), 1000);
    EXPECT_EQ(flushWavefileOut(h), 1u);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 1046u);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 0u);
    EXPECT_EQ(dsptest::loadLe32(file, 42), 307200u);
    for (size_t at = 1000, piece = 1; at < samples.size(); at += piece, piece = piece * 3 + 7) {
        if (piece > 300000) {
            piece = 5;
            EXPECT_EQ(flushWavefileOut(h), 1u);
        }
        int32_t n = static_cast<int32_t>(std::min(piece, samples.size() - at));
        ASSERT_EQ(writeWavefileOut(h, &samples[at], n), n);
    }
    EXPECT_EQ(writeWavefileOut(h, samples.data(), 0), 0);
    EXPECT_EQ(writeWavefileOut(h, samples.data(), -5), -1);
    EXPECT_EQ(writeWavefileOut(h, nullptr, 5), -1);
    EXPECT_EQ(termWavefileOut(h), 700001u);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(stereo_, samples));
    // And the reader gets it all back.
    WavefileFormat format{};
    EXPECT_EQ(readWithLibrary(path_, format), samples);
    EXPECT_EQ(std::memcmp(&format, &stereo_, sizeof format), 0);
}

TEST_F(WavefileWriterTest, FailedOpensStillGiveAHandleThatDoesNothing) {
    const uint8_t byte = 1;
    for (const char* path :
         {static_cast<const char*>(DSP_TEST_TMPDIR), "", static_cast<const char*>(nullptr)}) {
        void* h = initWavefileOut(path, &stereo_);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(writeWavefileOut(h, &byte, 1), 0);
        EXPECT_EQ(flushWavefileOut(h), 0u);
        EXPECT_EQ(std::memcmp(getFormatWavefileOut(h), &stereo_, sizeof stereo_), 0);
        EXPECT_EQ(termWavefileOut(h), 0u);
    }
    // Without a format there is nothing to write, and no file is created.
    void* h = initWavefileOut(path_.c_str(), nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(writeWavefileOut(h, &byte, 1), 0);
    EXPECT_EQ(termWavefileOut(h), 0u);
    EXPECT_EQ(std::fopen(path_.c_str(), "rb"), nullptr);
}

TEST_F(WavefileWriterTest, WriteBackFailuresAreReported) {
    std::FILE* probe = std::fopen("/dev/full", "r+b");
    if (probe == nullptr) {
        GTEST_SKIP() << "no /dev/full here";
    }
    std::fclose(probe);
    void* h = initWavefileOut("/dev/full", &stereo_);
    const uint8_t bytes[64] = {};
    EXPECT_EQ(writeWavefileOut(h, bytes, 64), 64); // still in the buffer
    EXPECT_EQ(flushWavefileOut(h), 0u);
    EXPECT_EQ(termWavefileOut(h), 0u);
}

} // namespace
