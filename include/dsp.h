/*
 * dsp - audio signal processing on blocks of 16-bit PCM (and of 32-bit float
 * through the chain's float interface, at the end of this header).
 *
 * The whole interface is this set of plain C functions. Processors, chains
 * and WAVE readers/writers are opaque handles (void*). A processor is created
 * by its init... function, driven by its do.../set.../get... functions and
 * destroyed by its term... function; each of these calls other than init
 * checks the processor's family and returns 0, doing nothing, when given a
 * handle of another family or a null handle. The chain calls likewise refuse
 * a null handle and any other handle the library hands out. WAVE
 * readers/writers carry no such mark: their calls refuse a null handle
 * (returning 0 or null, or doing nothing) but cannot recognise any other
 * wrong handle, so they must only be given a handle of their own kind.
 *
 * Samples are 16-bit signed, little-endian, interleaved, mono or stereo; a
 * frame is one sample per channel (2 x channels bytes). Block sizes are given
 * in frames at init and in bytes at do...; rates in Hz, levels in dB, mixes in
 * percent (100 = unity gain), times in seconds (milliseconds where the name
 * says Ms), pitch in cents, stretch in thousandths of an octave.
 *
 * A processor's init... returns 0 when the object or its buffers cannot be
 * allocated, when a channel count is not 1 or 2, and in the cases its family
 * lists below. The frames given at init (for initHqups the source block that
 * yields them) are the largest piece it processes at once: a do... call may
 * pass a longer block, which runs in consecutive pieces of that size with the
 * same result as one call per piece (doFft and doFftAnalyze excepted: they
 * read only the frames given at init). Bytes beyond the last whole frame are
 * ignored. A do... of an effect that keeps the rate returns 1; a rate or time
 * changer returns the bytes written.
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

/* IIR filter kind (initIirFilter): any value other than 1 is a low-pass. */
#define DSP_IIR_LOWPASS 0u
#define DSP_IIR_HIGHPASS 1u

/* Interpolation of the resampler and Hqups: any value other than 0 is cubic. */
#define DSP_INTERP_LINEAR 0u
#define DSP_INTERP_CUBIC 1u

/* Hqups activeMode: passive adds the harmonics over the whole band above
 * hpCutoffHz; active confines them to the band above the source's detected
 * bandwidth. Any value other than 1 acts as passive. */
#define DSP_HQUPS_PASSIVE 0u
#define DSP_HQUPS_ACTIVE 1u

/* Seek mode of seekWavefileIn/timeSeekWavefileIn: from the first sample byte,
 * or (any value other than 0) from the current position. There is no mode
 * that seeks from the end. */
#define DSP_SEEK_DATA 0u
#define DSP_SEEK_CURRENT 1u

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
/* An empty chain for a source of `frames` frames per block (the largest piece
 * it runs at once), `channels` channels and `rate` Hz; 0 if out of memory. */
DSP_API void* dspCreate(uint32_t frames, uint32_t channels, uint32_t rate);
/* Adds a processor, which the chain owns from then on (never term... it), and
 * returns the node count. A processor whose input format differs from its
 * predecessor's output is reconfigured, which may restart its state; a
 * resampler or Hqups processor then writes as many channels as it reads. The
 * count stays unchanged, and the processor the caller's, when it is null, not
 * ready or already in the chain, or when no node can be allocated. */
DSP_API uint32_t dspAdd(void* chain, void* processor, uint32_t order);
/* A new source format; processors are reconfigured as in dspAdd. */
DSP_API void dspAdjust(void* chain, uint32_t frames, uint32_t channels, uint32_t rate);
/* Runs `bytes` bytes of source samples through the chain into dst and returns
 * the bytes written (output frames x 2 x dspGetDstChannels). A block longer
 * than the chain's frames runs in pieces. An empty chain copies the bytes and
 * returns `bytes`. 0, nothing written, when a processor was left unready by a
 * failed reconfiguration. */
DSP_API uint32_t dspSend(void* chain, const int16_t* src, int16_t* dst, uint32_t bytes);
/* The output rate in Hz and channel count (the source's for an empty chain). */
DSP_API uint32_t dspGetDstRate(void* chain);
DSP_API uint32_t dspGetDstChannels(void* chain);
/* `bytes` passed through each processor's own size rule (getResamplerDstSize,
 * getHqupsDstSize, getStretchDstSize; unchanged by the others). It ignores a
 * change of channel count (after a mono-to-stereo resampler dspSend writes
 * twice this) and rounding per piece: size dst with dspGetDstSamples (see the
 * extensions at the end), which counts both. */
DSP_API uint32_t dspGetDstSize(void* chain, uint32_t bytes);
/* The processor at 0-based position `index` in chain order; 0 past the end. */
DSP_API void* dspGetHandle(void* chain, uint32_t index);
/* Destroys every processor; the chain stays, empty, with its source format. */
DSP_API void dspClear(void* chain);
/* Destroys the chain and its processors. */
DSP_API void dspDestroy(void* chain);

/* ---------------------------------------------------------------------------
 * SIMD switches (process-wide, all off at load, nonzero switches on; the
 * library never probes the processor, so switch a path on only where it is
 * supported)
 * ------------------------------------------------------------------------- */
DSP_API void dspEnableMmx(uint8_t on);
DSP_API void dspEnable3dnow(uint8_t on);
DSP_API void dspEnableSse(uint8_t on);

/* ---------------------------------------------------------------------------
 * 16-byte aligned memory pool, shared with the processors' work buffers
 * ------------------------------------------------------------------------- */
/* A block of at least `bytes` bytes starting on a 16-byte boundary; 0 if the
 * memory cannot be had. */
DSP_API void* fastmemAlloc(uint32_t bytes);
/* 1 after releasing a block from fastmemAlloc; 0, doing nothing, for any
 * other pointer (null, released already, or inside a block). */
DSP_API uint32_t fastmemFree(void* block);
/* Bytes the pool holds, processors' buffers included: the sum over live
 * blocks of the size asked for + 15. */
DSP_API uint32_t fastmemGetAllocatedSize(void);

/* ---------------------------------------------------------------------------
 * IIR filter: Chebyshev type I low- or high-pass, 1 dB pass-band ripple (-1 dB
 * at the cutoff); each channel filtered on its own, state kept across blocks.
 * ------------------------------------------------------------------------- */
/* `order` poles (0: no filtering, only the conversion to float and back);
 * cutoff in Hz, within 0 < cutoff < rate/2 (not checked); kind
 * DSP_IIR_HIGHPASS or DSP_IIR_LOWPASS. */
DSP_API void* initIirFilter(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t order,
                            float cutoff, uint32_t kind);
/* Filters `bytes` bytes from src into dst; returns 1. */
DSP_API uint32_t doIirFilter(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termIirFilter(void* handle);

/* ---------------------------------------------------------------------------
 * Fader and cross-fader. Faders 0 and 1 each scale a stream by a level in dB
 * (keep it from -50 dB up to below +50 dB: the gain table wraps outside). The
 * cross-fader mixes fader 0's output of a first stream with fader 1's output
 * of a second by a position: +1 passes the first alone, -1 the second alone,
 * 0 both at the curve's centre level. Actions change a level or the position
 * by a linear ramp from the value in force at startSeconds to a target at
 * endSeconds, times counting the samples processed since initFader (or since
 * a chain's reconfiguration). In a chain the processor is fader 0 alone.
 * ------------------------------------------------------------------------- */
/* crossPosition -1..+1; level0Db and level1Db: the faders' levels until an
 * action changes them. */
DSP_API void* initFader(uint32_t frames, uint32_t channels, uint32_t rate, float crossPosition,
                        float level0Db, float level1Db);
/* Schedules a ramp of fader 0 or 1 to targetDb. It takes over the span of the
 * actions it overlaps; one that is not ahead (now < start < end) is ignored.
 * Returns 1, also when ignored; 0 for a fader other than 0 or 1. */
DSP_API uint32_t setFaderAction(void* handle, uint32_t fader, float startSeconds, float endSeconds,
                                float targetDb);
/* Removes fader 0's or 1's actions, or their parts, between the two times;
 * the level reached at startSeconds holds. Returns as setFaderAction. */
DSP_API uint32_t delFaderAction(void* handle, uint32_t fader, float startSeconds, float endSeconds);
/* The same for the cross-fader position (-1..+1); both return 1. */
DSP_API uint32_t setCrossFaderAction(void* handle, float startSeconds, float endSeconds,
                                     float targetPosition);
DSP_API uint32_t delCrossFaderAction(void* handle, float startSeconds, float endSeconds);
/* The approaching input rises from centreDb to 0 dB over riseWidth of
 * position; the receding one falls from centreDb to fallDb over fallWidth and
 * is muted beyond. Defaults -1, -40, 0.05, 0.8. Applies once a cross-fader
 * action runs; returns 1. */
DSP_API uint32_t setCrossFaderCurve(void* handle, float centreDb, float fallDb, float riseWidth,
                                    float fallWidth);
/* Runs fader 0 or 1 over src into dst; returns 1, or 0 for another fader. */
DSP_API uint32_t doFade(void* handle, uint32_t fader, const int16_t* src, int16_t* dst,
                        uint32_t bytes);
/* dst = fader 0 over srcA plus fader 1 over srcB, each times its cross-fader
 * gain; returns 1. */
DSP_API uint32_t doCrossFade(void* handle, const int16_t* srcA, const int16_t* srcB, int16_t* dst,
                             uint32_t bytes);
DSP_API uint32_t termFader(void* handle);

/* ---------------------------------------------------------------------------
 * Chorus: per channel, voiceCount copies of the input read from a delay line
 * at delayMs, swept by +-depthMs by a sine LFO (the voices spread evenly over
 * its cycle), each at mixPercent, plus the dry input at orgMixPercent.
 * ------------------------------------------------------------------------- */
/* voiceCount 0..65536 (0: the dry input alone; more returns 0); delayMs
 * +-depthMs must stay within 1..65535 samples (1.48 s at 44100 Hz); speed:
 * the LFO period in seconds (0 holds the sweep still). */
DSP_API void* initChorus(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t voiceCount,
                         float delayMs, float depthMs, float speed, float mixPercent,
                         float orgMixPercent);
/* The setters take effect at once, keep the delay history and the LFO
 * running, and return 1. setChorusMix sets one voice (0-based; an index
 * beyond the voices is ignored); a chain's reconfiguration gives every voice
 * the last level set. */
DSP_API uint32_t setChorusOrgMix(void* handle, float percent);
DSP_API uint32_t setChorusMix(void* handle, uint32_t voice, float percent);
DSP_API uint32_t setChorusSpeed(void* handle, float seconds);
DSP_API uint32_t setChorusDepth(void* handle, float milliseconds);
DSP_API uint32_t setChorusDelaytime(void* handle, float milliseconds);
/* Returns 1. */
DSP_API uint32_t doChorus(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termChorus(void* handle);

/* ---------------------------------------------------------------------------
 * Resampler: any rate to any rate; mono to stereo writes the channel to both
 * sides, stereo to mono keeps the left channel.
 * ------------------------------------------------------------------------- */
/* frames: source frames per block. interpolation: DSP_INTERP_LINEAR or
 * DSP_INTERP_CUBIC. A Chebyshev low-pass (0.1 dB ripple, run when filterOn is
 * nonzero, at the higher rate) passes up to attenuationDb / slopeDbPerOctave
 * octaves below half the lower rate, so it also cuts into the pass band: 60
 * and 60 end it at 11025 Hz from 44100 to 48000 Hz. 0 for a zero rate. */
DSP_API void* initResampler(uint32_t frames, uint32_t inChannels, uint32_t outChannels,
                            uint32_t srcRate, uint32_t dstRate, uint32_t interpolation,
                            float attenuationDb, float slopeDbPerOctave, uint8_t filterOn);
/* Returns the bytes written: outChannels x 2 x trunc(frames x dstRate /
 * srcRate) for each piece of at most the init frames. */
DSP_API uint32_t doResampler(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
/* trunc(n x dstRate / srcRate), n in bytes or frames and the result in the
 * same unit. It ignores a change of channel count: a mono-to-stereo
 * resampler writes twice this (dspGetDstSamples counts it). */
DSP_API uint32_t getResamplerDstSize(void* handle, uint32_t n);
DSP_API uint32_t termResampler(void* handle);

/* ---------------------------------------------------------------------------
 * Hqups upsampler: any rate to 48000 Hz (converted as by the resampler, with
 * the same channel mapping), then per channel a waveshaper synthesises
 * harmonics from the band above hpCutoffHz and adds them at mixPercent to the
 * upsampled signal, delayed by 8 samples (16 when DSP_HQUPS_ACTIVE).
 * ------------------------------------------------------------------------- */
/* dstFrames: output frames per block; the source block is then
 * getHqupsSrcSize(handle, dstFrames) frames (it may convert to dstFrames + 1).
 * harmonics: bend of the waveshaper (0 none, larger more); activeMode:
 * DSP_HQUPS_PASSIVE or DSP_HQUPS_ACTIVE; interpolation, attenuationDb,
 * slopeDbPerOctave and filterOn as initResampler. 0 for a zero rate. */
DSP_API void* initHqups(uint32_t dstFrames, uint32_t inChannels, uint32_t outChannels,
                        uint32_t srcRate, float harmonics, float mixPercent, uint32_t hpCutoffHz,
                        uint32_t interpolation, float attenuationDb, float slopeDbPerOctave,
                        uint32_t activeMode, uint8_t filterOn);
/* The same, sized by srcFrames source frames per block. */
DSP_API void* initHqupsBySrcsize(uint32_t srcFrames, uint32_t inChannels, uint32_t outChannels,
                                 uint32_t srcRate, float harmonics, float mixPercent,
                                 uint32_t hpCutoffHz, uint32_t interpolation, float attenuationDb,
                                 float slopeDbPerOctave, uint32_t activeMode, uint8_t filterOn);
/* The setters act from the next block and return 1 (setHqupsHarmonics 0 when
 * the new curve cannot be allocated); the dry delay keeps the length the mode
 * gave it at init or at a chain's reconfiguration. */
DSP_API uint32_t setHqupsHarmonics(void* handle, float harmonics);
DSP_API uint32_t setHqupsMix(void* handle, float mixPercent);
DSP_API uint32_t setHqupsActiveMode(void* handle, uint32_t activeMode);
/* Returns the bytes written: outChannels x 2 x trunc(frames x 48000 /
 * srcRate) for each piece of at most the source block. */
DSP_API uint32_t doHqups(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
/* trunc(n x 48000 / srcRate), n in bytes or frames and the result in the same
 * unit; like getResamplerDstSize it ignores a change of channel count. */
DSP_API uint32_t getHqupsDstSize(void* handle, uint32_t n);
/* The source count, in the unit of n (bytes or frames), that converts to n:
 * trunc(n x srcRate / 48000), corrected by one when that converts to more or
 * fewer than n. */
DSP_API uint32_t getHqupsSrcSize(void* handle, uint32_t n);
DSP_API uint32_t termHqups(void* handle);

/* ---------------------------------------------------------------------------
 * Pitch shift (granular, same length out): -1200..+1200 cents (clamped);
 * exactly 0 passes the input through unchanged (outLevelDb not applied).
 * ------------------------------------------------------------------------- */
/* Grains last grainSeconds x 1.533 s, a new one every spacingSeconds (at
 * least one sample); the output starts from silence and fades in over about
 * one grain. 0 for a zero rate or a grain length that is negative, not a
 * number or over 2^26 samples. */
DSP_API void* initPitchShift(uint32_t frames, uint32_t channels, uint32_t rate, float pitchCents,
                             float outLevelDb, float grainSeconds, float spacingSeconds);
/* Takes effect after the next block; returns 1. */
DSP_API uint32_t setPitchShiftPitch(void* handle, float pitchCents);
/* Takes effect at once; returns 1. */
DSP_API uint32_t setPitchShiftOutLevel(void* handle, float outLevelDb);
/* Returns 1. */
DSP_API uint32_t doPitchShift(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termPitchShift(void* handle);

/* ---------------------------------------------------------------------------
 * Time stretch (granular, same pitch): scale -2000..3000 (clamped) gives the
 * length factor 2^(-scale/1000), from 4 down to 1/8 (1000 halves the length);
 * exactly 0 passes through (outLevelDb not applied). Output frames =
 * trunc(input frames x factor) per piece (and per 32768 frames within one).
 * ------------------------------------------------------------------------- */
/* Grains and outLevelDb as initPitchShift; 0 in the same cases. */
DSP_API void* initStretch(uint32_t frames, uint32_t channels, uint32_t rate, float scale,
                          float outLevelDb, float grainSeconds, float spacingSeconds);
/* Takes effect after the next block (which still uses the old factor) and
 * grows the output buffers as needed; returns 1, or 0 (scale unchanged) when
 * they cannot be allocated. */
DSP_API uint32_t setStretchScale(void* handle, float scale);
/* Takes effect at once; returns 1. */
DSP_API uint32_t setStretchOutLevel(void* handle, float outLevelDb);
/* trunc(size x factor) with the factor of the last scale set (size itself
 * for scale 0), size in bytes or frames and the result in the same unit. */
DSP_API uint32_t getStretchDstSize(void* handle, uint32_t size);
/* Returns the bytes written: channels x 2 x output frames. */
DSP_API uint32_t doStretch(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes);
DSP_API uint32_t termStretch(void* handle);

/* ---------------------------------------------------------------------------
 * Wave slice: cuts a signal into slices at its attacks, found on the envelope
 * of its 2-20 kHz band (full scale 1.0, rectified, times 2.5, smoothed at
 * 33 Hz), with gates in dB of 1.0. Only through its own doWaveSlice: in a
 * chain it processes nothing, see the chain above.
 * ------------------------------------------------------------------------- */
/* An attack (a rise from a valley to at least startGateDb and by at least
 * risePercent / 100) opens a slice at the valley; once the open slice is
 * longer than minSeconds, the next attack closes it there and the envelope
 * falling below endGateDb closes it. 0 for frames 0 or a rate of at most
 * 66 Hz. */
DSP_API void* initWaveSlice(uint32_t frames, uint32_t channels, uint32_t rate, float startGateDb,
                            float endGateDb, float risePercent, float minSeconds);
/* Analyses the next block (stereo as the halved sum of both channels);
 * returns 1. */
DSP_API uint32_t doWaveSlice(void* handle, const int16_t* src, uint32_t bytes);
/* Closes an open slice at the current position, then returns the slice
 * `index` steps from the first (the last one for a larger index), or null
 * when none was found. Times count from the first sample analysed; records
 * belong to the slicer until termWaveSlice. */
DSP_API SliceRecord* getWaveSlice(void* handle, uint32_t index);
DSP_API uint32_t termWaveSlice(void* handle);

/* ---------------------------------------------------------------------------
 * Analyzers: block spectra, sliding spectra, amplitude envelopes (only through
 * their own do... calls: in a chain they process nothing, see the chain above).
 * A spectrum is N/2 floats: bin k (k x rate / N Hz; bin 0 holds DC and
 * Nyquist) as 20 log10 of its magnitude in the unscaled transform of the
 * Hann-windowed samples (full scale 1.0), floored. Stereo output is the whole
 * left result followed by the whole right one.
 * ------------------------------------------------------------------------- */
/* frames: the transform length N, a power of two 4..32768; spectra 1 (stereo
 * mixed down) or 2 (left and right, stereo only); floor -rangeDb. Other
 * values return 0, as in the next two. */
DSP_API void* initFft(uint32_t frames, uint32_t channels, uint32_t spectra, uint32_t rangeDb);
/* frames: the hop, frames taken per call; fftSize: N, a power of two
 * 4..32768; historyLength: samples kept, at least fftSize and frames. */
DSP_API void* initFftAnalyze(uint32_t frames, uint32_t channels, uint32_t fftSize,
                             uint32_t historyLength);
/* rate above 66 Hz; a second-order low-pass smooths each channel. */
DSP_API void* initEnvAnalyze(uint32_t frames, uint32_t channels, uint32_t rate);
/* Writes `spectra` spectra of one block of N frames (a shorter one padded
 * with zeros, frames beyond N ignored); returns N/2. */
DSP_API uint32_t doFft(void* handle, const int16_t* src, float* out, uint32_t bytes);
/* Slides one hop of new frames (padded with zeros, extra frames ignored) into
 * each channel's history and writes one spectrum per channel of its newest N
 * samples, floored at -120 dB; returns 1. */
DSP_API uint32_t doFftAnalyze(void* handle, const int16_t* src, float* out, uint32_t bytes);
/* Writes per channel one float per frame: |x| x 2.5 smoothed by a 33 Hz
 * low-pass, in 16-bit sample units, truncated to whole numbers; out may be
 * null (the filters still advance). Returns 1. */
DSP_API uint32_t doEnvAnalyze(void* handle, const int16_t* src, float* out, uint32_t bytes);
/* Each do... returns 0 for an analyzer of another kind; any term... destroys
 * any analyzer. */
DSP_API uint32_t termFft(void* handle);
DSP_API uint32_t termFftAnalyze(void* handle);
DSP_API uint32_t termEnvAnalyze(void* handle);

/* ---------------------------------------------------------------------------
 * WAVE file reader. initWavefileIn returns a handle even when the file cannot
 * be opened or is not a RIFF WAVE file with "fmt " before "data" (null only
 * when out of memory): the failure shows as 0 from every read and seek, and
 * the format record then reads all zeros. A frame counts 2 x channels bytes.
 * ------------------------------------------------------------------------- */
/* Opens `path` at the first sample byte, with an own zeroed buffer of
 * `frames` frames. */
DSP_API void* initWavefileIn(const char* path, uint32_t frames);
/* Reads `frames` frames into buffer, or into the own buffer (at most its
 * size) when buffer is null; returns the bytes read (fewer at the end of the
 * file), 0 when not open, -1 on a read error. Reads run on past the "data"
 * chunk: stop by header->dataBytes. */
DSP_API int32_t readWavefileIn(void* handle, uint8_t* buffer, uint32_t frames);
/* Moves `bytes` bytes from the first sample byte (DSP_SEEK_DATA) or from the
 * current position (DSP_SEEK_CURRENT), not limited to the "data" chunk.
 * Returns the new position in bytes from the file's start, 0 when not open,
 * -1 for a target before the start or beyond 2^31 - 1. */
DSP_API int32_t seekWavefileIn(void* handle, int32_t bytes, uint32_t mode);
/* The same by trunc(rate x seconds) frames. */
DSP_API int32_t timeSeekWavefileIn(void* handle, float seconds, uint32_t mode);
/* Replaces the own buffer by a zeroed one of `frames` frames and returns it
 * (also in header->buffer); null, the old one kept, if out of memory. */
DSP_API uint8_t* bufSizeExtendWavefileIn(void* handle, uint32_t frames);
/* The reader's records, valid until termWavefileIn (meaningful after a
 * successful open). */
DSP_API WavefileHeader* getHeaderWavefileIn(void* handle);
DSP_API WavefileFormat* getFormatWavefileIn(void* handle);
/* Closes the file and frees the reader and its own buffer (a buffer the
 * caller passed to readWavefileIn stays the caller's). */
DSP_API void termWavefileIn(void* handle);

/* ---------------------------------------------------------------------------
 * WAVE file writer. initWavefileOut returns a handle even when the file cannot
 * be created or format is null (null only when out of memory): the failure
 * shows as 0 from writeWavefileOut of a non-empty block, from flushWavefileOut
 * and from termWavefileOut.
 * ------------------------------------------------------------------------- */
/* Creates `path` with the 18-byte format record as given and a provisional
 * "data" size of 307200. */
DSP_API void* initWavefileOut(const char* path, const WavefileFormat* format);
/* Appends `bytes` bytes as they are; returns the bytes written, 0 when not
 * open, -1 on an error (negative bytes, null data, a write failure or a file
 * past the 4 GiB RIFF limit). */
DSP_API int32_t writeWavefileOut(void* handle, const void* data, int32_t bytes);
/* Hands buffered bytes to the system; 1, or 0 when not open or on failure. */
DSP_API uint32_t flushWavefileOut(void* handle);
/* The writer's copy of the format record, valid until termWavefileOut. */
DSP_API WavefileFormat* getFormatWavefileOut(void* handle);
/* Writes the true chunk sizes, closes the file and frees the writer; returns
 * the "data" size in bytes (0 also when nothing was written), 0 when not open
 * or when fixing the sizes or closing fails. */
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
