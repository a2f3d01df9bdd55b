// The WAVE reader through its C interface: the header record, reads into the
// own and a caller's buffer, byte and time seeks, and malformed files, which
// fail the open cleanly (or open with sane values) and never overrun.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cmath>
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
    EXPECT_EQ(h->reserved16, 0u);
    EXPECT_EQ(h->reserved20, 0u);
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
    } cases[] = {{2, 44100, 176400, 1.0f},
                 {1, 8000, 3, static_cast<float>(1.0 / 8000)},
                 {2, 44100, 7, static_cast<float>(1.0 / 44100)},
                 {1, 22050, 123457, static_cast<float>(61728.0 / 22050)},
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
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.5f, 0), 44 + 88200);
    uint8_t got[4];
    ASSERT_EQ(readWavefileIn(handle_, got, 1), 4);
    EXPECT_EQ(std::memcmp(got, &samples[88200], 4), 0);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.25f, 1), 44 + 88204 + 44100);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -0.25f, 1), 44 + 88204);
    // Frames truncate toward zero: 44100 x 0.00003 = 1.323 -> 1 frame.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.00003f, 0), 44 + 4);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -0.00003f, 0), 44 - 4);
    // Not clamped to the data chunk, but never before the file's start.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 10.0f, 0), 44 + 1764000);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -1.0f, 0), -1);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 1e30f, 0), -1);

    EXPECT_EQ(seekWavefileIn(handle_, 500, 0), 544);
    EXPECT_EQ(seekWavefileIn(handle_, 100, 0), 144);
    EXPECT_EQ(seekWavefileIn(handle_, 10, 1), 154);
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

// A "fmt " body shorter than the record is read as far as it goes and the
// rest of the record is 0; the open succeeds whatever the body holds, also
// with no channels (then reads deliver 0 bytes and seconds is 0).
TEST_F(WavefileReaderTest, ShortFormatsOpenWithTheMissingBytesAsZero) {
    Bytes body = dsptest::pcmFormatBody(2, 44100);
    for (size_t size : {0u, 2u, 3u, 8u, 13u, 14u}) {
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

TEST(WavefileNullHandles, EveryCallIsHarmless) {
    uint8_t buffer[4] = {};
    EXPECT_EQ(readWavefileIn(nullptr, buffer, 1), 0);
    EXPECT_EQ(seekWavefileIn(nullptr, 0, 0), 0);
    EXPECT_EQ(timeSeekWavefileIn(nullptr, 1.0f, 0), 0);
    EXPECT_EQ(bufSizeExtendWavefileIn(nullptr, 10), nullptr);
    EXPECT_EQ(getHeaderWavefileIn(nullptr), nullptr);
    EXPECT_EQ(getFormatWavefileIn(nullptr), nullptr);
    termWavefileIn(nullptr);
    EXPECT_EQ(writeWavefileOut(nullptr, buffer, 1), 0);
    EXPECT_EQ(flushWavefileOut(nullptr), 0u);
    EXPECT_EQ(getFormatWavefileOut(nullptr), nullptr);
    EXPECT_EQ(termWavefileOut(nullptr), 0u);
}

} // namespace
