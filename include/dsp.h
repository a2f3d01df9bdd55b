/*
 * dsp - audio signal processing on blocks of 16-bit PCM.
 *
 * The whole interface is this set of plain C functions. Processors, chains
 * and WAVE readers/writers are opaque handles (void*). A processor is created
 * by its init... function, driven by its do.../set.../get... functions and
 * destroyed by its term... function; each of these calls other than init
 * checks the processor's family and returns 0, doing nothing, when given a
 * handle of another family or a null handle. Chains and WAVE readers/writers
 * carry no such mark: their calls refuse a null handle (returning 0 or null,
 * or doing nothing) but cannot recognise any other wrong handle, so they must
 * only be given a handle of their own kind.
 *
 * Samples are 16-bit signed, little-endian, interleaved, mono or stereo.
 * Block sizes are given in frames at init and in bytes at do...; levels in dB,
 * mixes in percent, times in seconds, pitch in cents, stretch in thousandths
 * of an octave.
 */
#ifndef DSP_H
#define DSP_H

#include <stdint.h>

#if defined(_WIN32) || defined(__CYGWIN__)
#if defined(DSP_STATIC)
#define DSP_API
#elif defined(DSP_BUILDING)
#define DSP_API __declspec(dllexport)
#else
#define DSP_API __declspec(dllimport)
#endif
#else
#define DSP_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Records the host reads through pointers. Their layouts are fixed: on 32-bit
 * builds the offsets are exactly the documented ones; on 64-bit builds the
 * pointer fields grow to 8 bytes and the following offsets move with them.
 * ------------------------------------------------------------------------- */
#pragma pack(push, 2)

/* The 18-byte WAVE format record ("fmt " chunk body), packed. */
typedef struct WavefileFormat {
    uint16_t formatTag;         /* 1 = PCM */
    uint16_t channels;          /* 1 or 2 */
    uint32_t samplesPerSecond;  /* sample rate in Hz */
    uint32_t avgBytesPerSecond; /* samplesPerSecond * blockAlign */
    uint16_t blockAlign;        /* bytes per frame */
    uint16_t bitsPerSample;     /* 16 */
    uint16_t extraSize;         /* bytes of extra format information */
} WavefileFormat;

/* What a WAVE reader reports; 38 bytes on 32-bit builds. */
typedef struct WavefileHeader {
    uint8_t* buffer;     /* block the last read filled (the reader's own after open) */
    uint32_t dataBytes;  /* size field of the "data" chunk */
    uint32_t bytesRead;  /* bytes delivered by the last readWavefileIn */
    uint32_t reserved12; /* not set */
    uint32_t reserved16; /* 0 after open */
    uint32_t reserved20; /* 0 after open */
    uint8_t reserved24[10];
    float seconds; /* duration of the data chunk */
} WavefileHeader;

#pragma pack(pop)

/* One slice found by the wave slicer; 16 bytes on 32-bit builds. */
typedef struct SliceRecord {
    struct SliceRecord* next;
    struct SliceRecord* prev;
    float startSeconds;
    float endSeconds;
} SliceRecord;

/* ---------------------------------------------------------------------------
 * Processing chain: runs its processors in ascending order of the dspAdd key
 * (equal keys in the order added), each reconfigured for its predecessor's
 * output format, and destroys them in dspClear and dspDestroy. An analyzer or
 * a wave slicer in a chain processes nothing and passes on 0 frames, so the
 * processors after it get none and the chain outputs nothing: dspSend writes
 * nothing and returns 0.
 * ------------------------------------------------------------------------- */
DSP_API void* dspCreate(uint32_t frames, uint32_t channels, uint32_t rate);
DSP_API uint32_t dspAdd(void* chain, void* processor, uint32_t order);
DSP_API void dspAdjust(void* chain, uint32_t frames, uint32_t channels, uint32_t rate);
DSP_API uint32_t dspSend(void* chain, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t dspGetDstRate(void* chain);
DSP_API uint32_t dspGetDstChannels(void* chain);
DSP_API uint32_t dspGetDstSize(void* chain, uint32_t bytes);
DSP_API void* dspGetHandle(void* chain, uint32_t index);
DSP_API void dspClear(void* chain);
DSP_API void dspDestroy(void* chain);

/* ---------------------------------------------------------------------------
 * SIMD switches (process-wide, all off at load; the library never probes the
 * processor, so switch a path on only where it is supported)
 * ------------------------------------------------------------------------- */
DSP_API void dspEnableMmx(uint8_t on);
DSP_API void dspEnable3dnow(uint8_t on);
DSP_API void dspEnableSse(uint8_t on);

/* ---------------------------------------------------------------------------
 * 16-byte aligned memory pool
 * ------------------------------------------------------------------------- */
DSP_API void* fastmemAlloc(uint32_t bytes);
DSP_API uint32_t fastmemFree(void* block);
DSP_API uint32_t fastmemGetAllocatedSize(void);

/* ---------------------------------------------------------------------------
 * IIR filter (Chebyshev type I, 1 dB ripple; kind 1 = high-pass, else low-pass)
 * ------------------------------------------------------------------------- */
DSP_API void* initIirFilter(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t order,
                            float cutoff, uint32_t kind);
DSP_API uint32_t doIirFilter(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termIirFilter(void* handle);

/* ---------------------------------------------------------------------------
 * Fader and cross-fader
 * ------------------------------------------------------------------------- */
DSP_API void* initFader(uint32_t frames, uint32_t channels, uint32_t rate, float crossPosition,
                        float level0Db, float level1Db);
DSP_API uint32_t setFaderAction(void* handle, uint32_t fader, float startSeconds, float endSeconds,
                                float targetDb);
DSP_API uint32_t delFaderAction(void* handle, uint32_t fader, float startSeconds, float endSeconds);
DSP_API uint32_t setCrossFaderAction(void* handle, float startSeconds, float endSeconds,
                                     float targetPosition);
DSP_API uint32_t delCrossFaderAction(void* handle, float startSeconds, float endSeconds);
DSP_API uint32_t setCrossFaderCurve(void* handle, float centreDb, float fallDb, float riseWidth,
                                    float fallWidth);
DSP_API uint32_t doFade(void* handle, uint32_t fader, const int16_t* src, int16_t* dst,
                        uint32_t bytes);
DSP_API uint32_t doCrossFade(void* handle, const int16_t* srcA, const int16_t* srcB, int16_t* dst,
                             uint32_t bytes);
DSP_API uint32_t termFader(void* handle);

/* ---------------------------------------------------------------------------
 * Chorus
 * ------------------------------------------------------------------------- */
DSP_API void* initChorus(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t voiceCount,
                         float delayMs, float depthMs, float speed, float mixPercent,
                         float orgMixPercent);
DSP_API uint32_t setChorusOrgMix(void* handle, float percent);
DSP_API uint32_t setChorusMix(void* handle, uint32_t voice, float percent);
DSP_API uint32_t setChorusSpeed(void* handle, float seconds);
DSP_API uint32_t setChorusDepth(void* handle, float milliseconds);
DSP_API uint32_t setChorusDelaytime(void* handle, float milliseconds);
DSP_API uint32_t doChorus(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termChorus(void* handle);

/* ---------------------------------------------------------------------------
 * Resampler (any rate to any rate; optionally mono to stereo)
 * ------------------------------------------------------------------------- */
DSP_API void* initResampler(uint32_t frames, uint32_t inChannels, uint32_t outChannels,
                            uint32_t srcRate, uint32_t dstRate, uint32_t interpolation,
                            float attenuationDb, float slopeDbPerOctave, uint8_t filterOn);
DSP_API uint32_t doResampler(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t getResamplerDstSize(void* handle, uint32_t n);
DSP_API uint32_t termResampler(void* handle);

/* ---------------------------------------------------------------------------
 * Hqups upsampler (any rate to 48000 Hz with synthesised high harmonics)
 * ------------------------------------------------------------------------- */
DSP_API void* initHqups(uint32_t dstFrames, uint32_t inChannels, uint32_t outChannels,
                        uint32_t srcRate, float harmonics, float mixPercent, uint32_t hpCutoffHz,
                        uint32_t interpolation, float attenuationDb, float slopeDbPerOctave,
                        uint32_t activeMode, uint8_t filterOn);
DSP_API void* initHqupsBySrcsize(uint32_t srcFrames, uint32_t inChannels, uint32_t outChannels,
                                 uint32_t srcRate, float harmonics, float mixPercent,
                                 uint32_t hpCutoffHz, uint32_t interpolation, float attenuationDb,
                                 float slopeDbPerOctave, uint32_t activeMode, uint8_t filterOn);
DSP_API uint32_t setHqupsHarmonics(void* handle, float harmonics);
DSP_API uint32_t setHqupsMix(void* handle, float mixPercent);
DSP_API uint32_t setHqupsActiveMode(void* handle, uint32_t activeMode);
DSP_API uint32_t doHqups(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t getHqupsDstSize(void* handle, uint32_t n);
DSP_API uint32_t getHqupsSrcSize(void* handle, uint32_t n);
DSP_API uint32_t termHqups(void* handle);

/* ---------------------------------------------------------------------------
 * Pitch shift (granular; -1200..+1200 cents, exactly 0 passes through)
 * ------------------------------------------------------------------------- */
DSP_API void* initPitchShift(uint32_t frames, uint32_t channels, uint32_t rate, float pitchCents,
                             float outLevelDb, float grainSeconds, float spacingSeconds);
DSP_API uint32_t setPitchShiftPitch(void* handle, float pitchCents);
DSP_API uint32_t setPitchShiftOutLevel(void* handle, float outLevelDb);
DSP_API uint32_t doPitchShift(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termPitchShift(void* handle);

/* ---------------------------------------------------------------------------
 * Time stretch (granular; scale in thousandths of an octave, exactly 0 passes
 * through; output frames = trunc(input frames * 2^(-scale/1000)))
 * ------------------------------------------------------------------------- */
DSP_API void* initStretch(uint32_t frames, uint32_t channels, uint32_t rate, float scale,
                          float outLevelDb, float grainSeconds, float spacingSeconds);
DSP_API uint32_t setStretchScale(void* handle, float scale);
DSP_API uint32_t setStretchOutLevel(void* handle, float outLevelDb);
DSP_API uint32_t getStretchDstSize(void* handle, uint32_t size);
DSP_API uint32_t doStretch(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termStretch(void* handle);

/* ---------------------------------------------------------------------------
 * Wave slice (cuts a signal into slices at its attacks; only through its own
 * doWaveSlice: in a chain it processes nothing, see the chain above)
 * ------------------------------------------------------------------------- */
DSP_API void* initWaveSlice(uint32_t frames, uint32_t channels, uint32_t rate, float startGateDb,
                            float endGateDb, float risePercent, float minSeconds);
DSP_API uint32_t doWaveSlice(void* handle, const int16_t* src, uint32_t bytes);
DSP_API SliceRecord* getWaveSlice(void* handle, uint32_t index);
DSP_API uint32_t termWaveSlice(void* handle);

/* ---------------------------------------------------------------------------
 * Analyzers: block spectra, sliding spectra, amplitude envelopes (only through
 * their own do... calls: in a chain they process nothing, see the chain above)
 * ------------------------------------------------------------------------- */
DSP_API void* initFft(uint32_t frames, uint32_t channels, uint32_t spectra, uint32_t rangeDb);
DSP_API void* initFftAnalyze(uint32_t frames, uint32_t channels, uint32_t fftSize,
                             uint32_t historyLength);
DSP_API void* initEnvAnalyze(uint32_t frames, uint32_t channels, uint32_t rate);
DSP_API uint32_t doFft(void* handle, const int16_t* src, float* out, uint32_t bytes);
DSP_API uint32_t doFftAnalyze(void* handle, const int16_t* src, float* out, uint32_t bytes);
DSP_API uint32_t doEnvAnalyze(void* handle, const int16_t* src, float* out, uint32_t bytes);
DSP_API uint32_t termFft(void* handle);
DSP_API uint32_t termFftAnalyze(void* handle);
DSP_API uint32_t termEnvAnalyze(void* handle);

/* ---------------------------------------------------------------------------
 * WAVE file reader
 * ------------------------------------------------------------------------- */
DSP_API void* initWavefileIn(const char* path, uint32_t frames);
DSP_API int32_t readWavefileIn(void* handle, uint8_t* buffer, uint32_t frames);
DSP_API int32_t seekWavefileIn(void* handle, int32_t bytes, uint32_t mode);
DSP_API int32_t timeSeekWavefileIn(void* handle, float seconds, uint32_t mode);
DSP_API uint8_t* bufSizeExtendWavefileIn(void* handle, uint32_t frames);
DSP_API WavefileHeader* getHeaderWavefileIn(void* handle);
DSP_API WavefileFormat* getFormatWavefileIn(void* handle);
DSP_API void termWavefileIn(void* handle);

/* ---------------------------------------------------------------------------
 * WAVE file writer
 * ------------------------------------------------------------------------- */
DSP_API void* initWavefileOut(const char* path, const WavefileFormat* format);
DSP_API int32_t writeWavefileOut(void* handle, const void* data, int32_t bytes);
DSP_API uint32_t flushWavefileOut(void* handle);
DSP_API WavefileFormat* getFormatWavefileOut(void* handle);
DSP_API uint32_t termWavefileOut(void* handle);

/* ===========================================================================
 * Extensions beyond the 86 functions above
 * ===========================================================================
 * The processing chain driven in 32-bit float: interleaved samples, full
 * scale 1.0 (the scale of the 16-bit path, sample / 32767). A float block
 * holding exactly what the library makes of a 16-bit block gives the floats
 * that dspSend then converts to 16 bits. Float output is not clamped.
 */

/* Runs `frames` frames (of the chain's source channel count) from src through
 * the chain into dst and returns the output frames written, each of
 * dspGetDstChannels(chain) samples; size dst with dspGetDstSamples. A block
 * longer than the chain's block size runs in pieces. An empty chain copies
 * the block. Returns 0 and writes nothing for a null or wrong chain handle, a
 * null buffer, or a processor left unready by a failed reconfiguration; an
 * analyzer or a wave slicer in the chain makes it output nothing (0). */
DSP_API uint32_t dspSendFloat(void* chain, const float* src, float* dst, uint32_t frames);

/* The most samples (frames x output channels) dspSendFloat writes for
 * `frames` input frames, and the most 16-bit samples dspSend writes for the
 * same block (bytes = frames x 2 x source channels): a dst buffer of that
 * many samples is always enough. Unlike dspGetDstSize it counts a mono input
 * that leaves stereo output and a block longer than the chain's block size.
 * 0 for a null or wrong chain handle. */
DSP_API uint32_t dspGetDstSamples(void* chain, uint32_t frames);

/* The library's version, "MAJOR.MINOR.PATCH" (a static string). */
DSP_API const char* dspGetVersion(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* DSP_H */
