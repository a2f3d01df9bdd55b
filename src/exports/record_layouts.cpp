// The records the host reads through pointers keep fixed layouts: the
// documented 32-bit offsets hold exactly on 32-bit builds, and on 64-bit
// builds the pointer fields take 8 bytes.
#include "dsp.h"

#include <cstddef>

static_assert(sizeof(WavefileFormat) == 18, "format record is 18 bytes, packed");
static_assert(offsetof(WavefileFormat, channels) == 2, "format record layout");
static_assert(offsetof(WavefileFormat, samplesPerSecond) == 4, "format record layout");
static_assert(offsetof(WavefileFormat, avgBytesPerSecond) == 8, "format record layout");
static_assert(offsetof(WavefileFormat, blockAlign) == 12, "format record layout");
static_assert(offsetof(WavefileFormat, bitsPerSample) == 14, "format record layout");
static_assert(offsetof(WavefileFormat, extraSize) == 16, "format record layout");

constexpr size_t kPointerGrowth = sizeof(void*) - 4;

static_assert(offsetof(WavefileHeader, buffer) == 0, "header layout");
static_assert(offsetof(WavefileHeader, dataBytes) == 4 + kPointerGrowth, "header layout");
static_assert(offsetof(WavefileHeader, bytesRead) == 8 + kPointerGrowth, "header layout");
static_assert(offsetof(WavefileHeader, reserved16) == 16 + kPointerGrowth, "header layout");
static_assert(offsetof(WavefileHeader, reserved20) == 20 + kPointerGrowth, "header layout");
static_assert(offsetof(WavefileHeader, seconds) == 34 + kPointerGrowth, "header layout");
static_assert(sizeof(WavefileHeader) == 38 + kPointerGrowth, "header is 38 bytes on 32-bit");

static_assert(offsetof(SliceRecord, next) == 0, "slice record layout");
static_assert(offsetof(SliceRecord, prev) == sizeof(void*), "slice record layout");
static_assert(offsetof(SliceRecord, startSeconds) == 2 * sizeof(void*), "slice record layout");
static_assert(offsetof(SliceRecord, endSeconds) == 2 * sizeof(void*) + 4, "slice record layout");
static_assert(sizeof(SliceRecord) == 16 + 2 * kPointerGrowth, "slice record is 16 bytes on 32-bit");
