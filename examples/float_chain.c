/*
 * float_chain: wav_chain driven in 32-bit float. Reads a 16-bit PCM WAVE
 * file, converts each block to float (sample / 32767, the library's own
 * scale), runs it through a processing chain (resampler to 48000 Hz, then
 * chorus) with dspSendFloat, converts the result back to 16 bits (rounded,
 * clamped: float output is not clamped by the library) and writes it as a
 * 16-bit PCM WAVE file.
 *
 *   float_chain IN.wav OUT.wav
 *
 * Every call is checked; on failure one line goes to stderr and the exit
 * status is 1 (2 for wrong usage).
 */
#include <dsp.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { BLOCK_FRAMES = 4096, OUT_RATE = 48000 };

/* Full scale 1.0 to 16 bits, rounded to nearest and clamped. */
static int16_t toInt16(float value) {
    const float scaled = value * 32767.0f;
    if (scaled >= 32767.0f) {
        return 32767;
    }
    if (scaled <= -32768.0f) {
        return -32768;
    }
    if (scaled != scaled) {
        return 0; /* NaN */
    }
    return (int16_t)(scaled < 0.0f ? scaled - 0.5f : scaled + 0.5f);
}

static int failure(const char* path, const char* what) {
    fprintf(stderr, "float_chain: %s: %s\n", path, what);
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: float_chain IN.wav OUT.wav\n");
        return 2;
    }
    const char* inPath = argv[1];
    const char* outPath = argv[2];
    void* reader = NULL;
    void* chain = NULL;
    void* writer = NULL;
    int outOpen = 0;
    int16_t* src = NULL;
    int16_t* dst = NULL;
    float* floatSrc = NULL;
    float* floatDst = NULL;
    int status = 1;

    /* The reader keeps its own buffer of BLOCK_FRAMES frames. A reader whose
     * file cannot be opened (missing, not RIFF WAVE, damaged chunks) is
     * returned all the same, and its reads and seeks give 0; an open one
     * stands at the first sample byte, never at position 0, so a zero move
     * from the current position tells the two apart. */
    reader = initWavefileIn(inPath, BLOCK_FRAMES);
    if (reader == NULL) {
        status = failure(inPath, "out of memory");
        goto done;
    }
    if (seekWavefileIn(reader, 0, DSP_SEEK_CURRENT) <= 0) {
        status = failure(inPath, "cannot open as a WAVE file");
        goto done;
    }
    const WavefileFormat* in = getFormatWavefileIn(reader);
    if (in->formatTag != 1 || in->bitsPerSample != 16 || (in->channels != 1 && in->channels != 2) ||
        in->samplesPerSecond == 0) {
        status = failure(inPath, "not 16-bit PCM mono or stereo");
        goto done;
    }
    const uint32_t channels = in->channels;
    const uint32_t frameBytes = 2u * channels;
    /* Reads run on past the "data" chunk: stop at its size. */
    uint32_t framesLeft = getHeaderWavefileIn(reader)->dataBytes / frameBytes;

    /* The chain owns the processors added to it; one it refuses stays ours. */
    chain = dspCreate(BLOCK_FRAMES, channels, in->samplesPerSecond);
    if (chain == NULL) {
        status = failure(inPath, "cannot create the chain");
        goto done;
    }
    void* resampler = initResampler(BLOCK_FRAMES, channels, channels, in->samplesPerSecond,
                                    OUT_RATE, DSP_INTERP_CUBIC, 60.0f, 60.0f, 1);
    if (resampler == NULL || dspAdd(chain, resampler, 1) != 1) {
        termResampler(resampler);
        status = failure(inPath, "cannot create the resampler");
        goto done;
    }
    /* The chain reconfigures the chorus for the resampler's output. */
    void* chorus =
        initChorus(BLOCK_FRAMES, channels, OUT_RATE, 4, 20.0f, 2.0f, 1.0f, 50.0f, 100.0f);
    if (chorus == NULL || dspAdd(chain, chorus, 2) != 2) {
        termChorus(chorus);
        status = failure(inPath, "cannot create the chorus");
        goto done;
    }

    const uint32_t dstSamples = dspGetDstSamples(chain, BLOCK_FRAMES);
    src = malloc((size_t)BLOCK_FRAMES * channels * sizeof *src);
    dst = malloc((size_t)dstSamples * sizeof *dst);
    floatSrc = malloc((size_t)BLOCK_FRAMES * channels * sizeof *floatSrc);
    floatDst = malloc((size_t)dstSamples * sizeof *floatDst);
    if (dstSamples == 0 || src == NULL || dst == NULL || floatSrc == NULL || floatDst == NULL) {
        status = failure(inPath, "out of memory");
        goto done;
    }

    const uint16_t outChannels = (uint16_t)dspGetDstChannels(chain);
    WavefileFormat out;
    out.formatTag = 1;
    out.channels = outChannels;
    out.samplesPerSecond = dspGetDstRate(chain);
    out.blockAlign = (uint16_t)(2u * outChannels);
    out.avgBytesPerSecond = out.samplesPerSecond * out.blockAlign;
    out.bitsPerSample = 16;
    out.extraSize = 0;
    /* Like the reader, the writer is returned even when the file cannot be
     * created; a flush tells (0 when not open). */
    writer = initWavefileOut(outPath, &out);
    if (writer == NULL || flushWavefileOut(writer) != 1) {
        status = failure(outPath, "cannot create");
        goto done;
    }
    outOpen = 1;

    uint32_t written = 0;
    while (framesLeft > 0) {
        const uint32_t frames = framesLeft < BLOCK_FRAMES ? framesLeft : BLOCK_FRAMES;
        const uint32_t bytes = frames * frameBytes;
        /* Into the reader's own buffer (null), then copied out. */
        if (readWavefileIn(reader, NULL, frames) != (int32_t)bytes) {
            status = failure(inPath, "read failed or the file ends inside its data");
            goto done;
        }
        memcpy(src, getHeaderWavefileIn(reader)->buffer, bytes);
        for (uint32_t i = 0; i < frames * channels; ++i) {
            floatSrc[i] = (float)src[i] / 32767.0f;
        }
        const uint32_t outFrames = dspSendFloat(chain, floatSrc, floatDst, frames);
        const uint32_t outSamples = outFrames * outChannels;
        for (uint32_t i = 0; i < outSamples; ++i) {
            dst[i] = toInt16(floatDst[i]);
        }
        const uint32_t outBytes = 2u * outSamples;
        if (outBytes > UINT32_MAX - 8u - written) {
            status = failure(outPath, "too long for a WAVE file");
            goto done;
        }
        if (outBytes > 0 && writeWavefileOut(writer, dst, (int32_t)outBytes) != (int32_t)outBytes) {
            status = failure(outPath, "write failed");
            goto done;
        }
        written += outBytes;
        framesLeft -= frames;
    }

    /* Closing fixes the chunk sizes and returns the data size. */
    const uint32_t dataBytes = termWavefileOut(writer);
    writer = NULL;
    if (dataBytes != written) {
        status = failure(outPath, "cannot finish the file");
        goto done;
    }
    printf("%s: %u frames at %u Hz, %u channel(s)\n", outPath, (unsigned)(written / out.blockAlign),
           (unsigned)out.samplesPerSecond, (unsigned)outChannels);
    status = 0;

done:
    termWavefileOut(writer);
    if (status != 0 && outOpen) {
        remove(outPath); /* no half-written file is left behind */
    }
    dspDestroy(chain); /* destroys the processors too */
    termWavefileIn(reader);
    free(src);
    free(dst);
    free(floatSrc);
    free(floatDst);
    return status;
}
