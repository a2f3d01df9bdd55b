/*
 * make_tone: writes a 16-bit PCM WAVE file of FRAMES frames at RATE Hz with
 * CHANNELS channels (1 or 2) holding a triangle tone at half full scale, with
 * the library's WAVE writer. The examples' tests use it for their input.
 *
 *   make_tone OUT.wav FRAMES RATE CHANNELS
 */
#include <dsp.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

enum { CHUNK_FRAMES = 1024, PERIOD = 100 };

/* A positive number below 2^31 from text, or 0. */
static uint32_t parseCount(const char* text) {
    char* end = NULL;
    unsigned long value = strtoul(text, &end, 10);
    if (end == text || *end != '\0' || value > 0x7FFFFFFFul) {
        return 0;
    }
    return (uint32_t)value;
}

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: make_tone OUT.wav FRAMES RATE CHANNELS\n");
        return 2;
    }
    const char* path = argv[1];
    const uint32_t frames = parseCount(argv[2]);
    const uint32_t rate = parseCount(argv[3]);
    const uint32_t channels = parseCount(argv[4]);
    if (frames == 0 || rate == 0 || (channels != 1 && channels != 2) || frames > 0x7FFFFFFFu / 4u) {
        fprintf(stderr, "make_tone: FRAMES and RATE must be positive, CHANNELS 1 or 2\n");
        return 2;
    }

    WavefileFormat format;
    format.formatTag = 1;
    format.channels = (uint16_t)channels;
    format.samplesPerSecond = rate;
    format.blockAlign = (uint16_t)(2u * channels);
    format.avgBytesPerSecond = rate * format.blockAlign;
    format.bitsPerSample = 16;
    format.extraSize = 0;
    void* writer = initWavefileOut(path, &format);
    if (writer == NULL || flushWavefileOut(writer) != 1) {
        termWavefileOut(writer);
        fprintf(stderr, "make_tone: %s: cannot create\n", path);
        return 1;
    }

    int16_t block[CHUNK_FRAMES * 2];
    for (uint32_t start = 0; start < frames; start += CHUNK_FRAMES) {
        const uint32_t count = frames - start < CHUNK_FRAMES ? frames - start : CHUNK_FRAMES;
        for (uint32_t i = 0; i < count; ++i) {
            /* Triangle from -16384 to 16384 over PERIOD frames; the second
             * channel runs half a period behind. */
            for (uint32_t c = 0; c < channels; ++c) {
                const int32_t phase = (int32_t)((start + i + c * (PERIOD / 2)) % PERIOD);
                const int32_t up = phase < PERIOD / 2 ? phase : PERIOD - phase;
                block[i * channels + c] = (int16_t)(up * 32768 / PERIOD * 2 - 16384);
            }
        }
        const int32_t bytes = (int32_t)(count * 2u * channels);
        if (writeWavefileOut(writer, block, bytes) != bytes) {
            termWavefileOut(writer);
            remove(path);
            fprintf(stderr, "make_tone: %s: write failed\n", path);
            return 1;
        }
    }
    if (termWavefileOut(writer) != frames * 2u * channels) {
        remove(path);
        fprintf(stderr, "make_tone: %s: cannot finish the file\n", path);
        return 1;
    }
    return 0;
}
