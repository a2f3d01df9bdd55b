// The records hosts read through pointers: exact offsets and sizes. On 32-bit
// builds they are the documented layouts (38-byte header, 16-byte slice
// record); on 64-bit builds the pointers take 8 bytes and what follows them
// moves by the difference. The format record is 18 bytes, packed, everywhere.
#include "dsp.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

namespace {

constexpr size_t kPointerGrowth = sizeof(void*) - 4;

TEST(RecordLayout, FormatRecordIsEighteenPackedBytes) {
    EXPECT_EQ(sizeof(WavefileFormat), 18u);
    EXPECT_EQ(offsetof(WavefileFormat, formatTag), 0u);
    EXPECT_EQ(offsetof(WavefileFormat, channels), 2u);
    EXPECT_EQ(offsetof(WavefileFormat, samplesPerSecond), 4u);
    EXPECT_EQ(offsetof(WavefileFormat, avgBytesPerSecond), 8u);
    EXPECT_EQ(offsetof(WavefileFormat, blockAlign), 12u);
    EXPECT_EQ(offsetof(WavefileFormat, bitsPerSample), 14u);
    EXPECT_EQ(offsetof(WavefileFormat, extraSize), 16u);
    // An array of them has no padding between elements either.
    WavefileFormat pair[2];
    EXPECT_EQ(reinterpret_cast<char*>(&pair[1]) - reinterpret_cast<char*>(&pair[0]), 18);
}

TEST(RecordLayout, FormatRecordMatchesTheFmtChunkBytes) {
    // The body of a PCM "fmt " chunk: 44100 Hz stereo 16-bit, no extra bytes.
    const unsigned char chunk[18] = {0x01, 0x00, 0x02, 0x00, 0x44, 0xac, 0x00, 0x00, 0x10,
                                     0xb1, 0x02, 0x00, 0x04, 0x00, 0x10, 0x00, 0x00, 0x00};
    WavefileFormat format;
    std::memcpy(&format, chunk, sizeof chunk);
    EXPECT_EQ(format.formatTag, 1u);
    EXPECT_EQ(format.channels, 2u);
    EXPECT_EQ(format.samplesPerSecond, 44100u);
    EXPECT_EQ(format.avgBytesPerSecond, 176400u);
    EXPECT_EQ(format.blockAlign, 4u);
    EXPECT_EQ(format.bitsPerSample, 16u);
    EXPECT_EQ(format.extraSize, 0u);
}

TEST(RecordLayout, WaveHeaderOffsets) {
    EXPECT_EQ(offsetof(WavefileHeader, buffer), 0u);
    EXPECT_EQ(offsetof(WavefileHeader, dataBytes), 4u + kPointerGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, bytesRead), 8u + kPointerGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, reserved12), 12u + kPointerGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, reserved16), 16u + kPointerGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, reserved20), 20u + kPointerGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, reserved24), 24u + kPointerGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, seconds), 34u + kPointerGrowth);
    EXPECT_EQ(sizeof(WavefileHeader), 38u + kPointerGrowth);
}

TEST(RecordLayout, SliceRecordOffsets) {
    EXPECT_EQ(offsetof(SliceRecord, next), 0u);
    EXPECT_EQ(offsetof(SliceRecord, prev), sizeof(void*));
    EXPECT_EQ(offsetof(SliceRecord, startSeconds), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(SliceRecord, endSeconds), 2 * sizeof(void*) + 4);
    EXPECT_EQ(sizeof(SliceRecord), 16u + 2 * kPointerGrowth);
}

// The documented sizes themselves, on the builds where they hold exactly.
TEST(RecordLayout, ThirtyTwoBitSizes) {
    if (sizeof(void*) != 4) {
        GTEST_SKIP() << "pointer fields are 8 bytes on this build";
    }
    EXPECT_EQ(sizeof(WavefileHeader), 38u);
    EXPECT_EQ(offsetof(WavefileHeader, seconds), 34u);
    EXPECT_EQ(sizeof(SliceRecord), 16u);
    EXPECT_EQ(offsetof(SliceRecord, endSeconds), 12u);
}

TEST(RecordLayout, SixtyFourBitSizes) {
    if (sizeof(void*) != 8) {
        GTEST_SKIP() << "pointer fields are 4 bytes on this build";
    }
    EXPECT_EQ(sizeof(WavefileHeader), 42u);
    EXPECT_EQ(offsetof(WavefileHeader, seconds), 38u);
    EXPECT_EQ(sizeof(SliceRecord), 24u);
    EXPECT_EQ(offsetof(SliceRecord, endSeconds), 20u);
}

TEST(RecordLayout, HeaderSecondsReadFromItsOffset) {
    // A host reading the float at its fixed offset sees the field's value.
    WavefileHeader header;
    std::memset(&header, 0, sizeof header);
    header.seconds = 12.5f;
    float atOffset;
    std::memcpy(&atOffset, reinterpret_cast<const char*>(&header) + 34 + kPointerGrowth,
                sizeof atOffset);
    EXPECT_EQ(atOffset, 12.5f);
}

} // namespace
