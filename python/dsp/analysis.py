"""Spectra, spectrograms, envelopes and slices through the library's
analyzers, as the dsp tool's analysis commands compute them.

The analyzers take 16-bit samples: int16 audio goes in as it is, any other
is converted by the library's rule (dsp.to_int16). Levels are in dB relative
to full scale: a full-scale sine at a bin's centre reads 0 dB in a
spectrum, a constant full-scale signal 0 dB in an envelope. Each call makes
and destroys its own analyzer, so calls in different threads are
independent.
"""

import math

import numpy as np

from . import _defaults as D
from ._audio import to_int16
from ._lib import lib

_S16 = lib.doFft.argtypes[1]
_F32 = lib.doFft.argtypes[2]


def _rate(rate, lowest=1):
    if isinstance(rate, bool) or int(rate) != rate or not lowest <= rate <= 0xFFFFFFFF:
        raise ValueError(f"rate must be a whole number of Hz above {lowest - 1}, not {rate!r}")
    return int(rate)


def _fft_size(size, what):
    if isinstance(size, bool) or int(size) != size or not 4 <= size <= 32768 or (
            int(size) & (int(size) - 1)):
        raise ValueError(f"{what} must be a power of two from 4 to 32768, not {size!r}")
    return int(size)


def _shaped(values, ndim, channels):
    """values (..., channels) as the caller's layout: the channel axis
    dropped for a 1-D (mono) input."""
    return values[..., 0] if ndim == 1 and channels == 1 else values


def _reference(size):
    # A full-scale sine at a bin centre reads 20 log10(N/4).
    return 20.0 * math.log10(size / 4.0)


def spectrum(audio, rate, size=D.SPECTRUM_SIZE, at=0.0):
    """(freqs_hz, db) of the Hann-windowed `size`-point transform of the
    frames from `at` seconds on (zeros past the end): freqs_hz[k] = k * rate
    / size for the size/2 bins (bin 0 holds DC and Nyquist), db shaped
    (bins,) for a 1-D input, else (bins, channels), floored 120 dB below
    the transform's full scale."""
    rate = _rate(rate)
    size = _fft_size(size, "size")
    s16 = to_int16(audio)
    frames, channels = s16.shape
    if not (isinstance(at, (int, float)) and math.isfinite(at) and at >= 0.0):
        raise ValueError(f"at must be a number of seconds >= 0, not {at!r}")
    first = int(math.floor(at * rate + 0.5))
    if first > frames:
        raise ValueError(f"at={at} s lies beyond the end of the audio ({frames / rate:.3f} s)")
    block = np.ascontiguousarray(s16[first:first + size])
    out = np.empty(size, np.float32)  # size/2 bins per channel, at most two channels
    handle = lib.initFft(size, channels, channels, D.SPECTRUM_RANGE_DB)
    if not handle:
        raise MemoryError("dsp: cannot create the analyzer")
    try:
        bins = lib.doFft(handle, block.ctypes.data_as(_S16), out.ctypes.data_as(_F32),
                         len(block) * 2 * channels)
    finally:
        lib.termFft(handle)
    if bins != size // 2:
        raise RuntimeError("dsp: the analyzer returned no spectrum")
    db = out[:bins * channels].reshape(channels, bins).T - np.float32(_reference(size))
    freqs = np.arange(bins) * (rate / size)
    return freqs, _shaped(db, np.ndim(audio), channels)


def spectrogram(audio, rate, size=2048, hop=512):
    """(times_s, freqs_hz, db) of sliding `size`-point spectra, one every
    `hop` frames: spectrum k covers the `size` frames that end with frame
    (k + 1) * hop (zeros before the start and after the end), times_s[k] is
    its window's centre; db is (spectra, bins) for a 1-D input, else
    (spectra, bins, channels), floored at -120 dB before the reference."""
    rate = _rate(rate)
    size = _fft_size(size, "size")
    if isinstance(hop, bool) or int(hop) != hop or not 1 <= hop <= 1 << 20:
        raise ValueError(f"hop must be a whole number of frames from 1 to {1 << 20}, not {hop!r}")
    hop = int(hop)
    s16 = to_int16(audio)
    frames, channels = s16.shape
    count = -(-frames // hop)
    bins = size // 2
    db = np.empty((count, channels, bins), np.float32)
    handle = lib.initFftAnalyze(hop, channels, size, max(size, hop))
    if not handle:
        raise MemoryError("dsp: cannot create the analyzer")
    try:
        for k in range(count):
            block = s16[k * hop:(k + 1) * hop]
            if not lib.doFftAnalyze(handle, block.ctypes.data_as(_S16),
                                    db[k].ctypes.data_as(_F32), len(block) * 2 * channels):
                raise RuntimeError("dsp: the analyzer refused a block")
    finally:
        lib.termFftAnalyze(handle)
    db = db.transpose(0, 2, 1) - np.float32(_reference(size))
    times = ((np.arange(count) + 1) * hop - size / 2.0) / rate
    freqs = np.arange(bins) * (rate / size)
    return times, freqs, _shaped(db, np.ndim(audio), channels)


def envelope(audio, rate, step=D.ENVELOPE_STEP_SECONDS):
    """(times_s, db): the envelope follower (|x| x 2.5 smoothed at 33 Hz),
    its highest value over each `step` seconds, in dB relative to its value
    for a full-scale sine, so that a sine reads its level in dBFS (-120 for
    silence), as `dsp envelope` prints it; times_s[k] is the start of row k;
    db is (rows,) for a 1-D input, else (rows, channels)."""
    rate = _rate(rate, 67)
    if not (isinstance(step, (int, float)) and 0.001 <= step <= 3600.0):
        raise ValueError(f"step must be a number of seconds from 0.001 to 3600, not {step!r}")
    s16 = to_int16(audio)
    frames, channels = s16.shape
    block = D.BLOCK_FRAMES
    values = np.empty((channels, frames), np.float32)
    out = np.empty(block * channels, np.float32)
    handle = lib.initEnvAnalyze(block, channels, rate)
    if not handle:
        raise MemoryError("dsp: cannot create the analyzer")
    try:
        for at in range(0, frames, block):
            piece = s16[at:at + block]
            n = len(piece)
            lib.doEnvAnalyze(handle, piece.ctypes.data_as(_S16), out.ctypes.data_as(_F32),
                             n * 2 * channels)
            values[:, at:at + n] = out[:n * channels].reshape(channels, n)
    finally:
        lib.termEnvAnalyze(handle)
    per_row = max(1, int(math.floor(step * rate + 0.5)))
    rows = -(-frames // per_row)
    padded = np.zeros((channels, rows * per_row), np.float32)
    padded[:, :frames] = values
    loudest = padded.reshape(channels, rows, per_row).max(axis=2).T.astype(np.float64)
    full_scale = 2.5 * 32767.0 * 2.0 / math.pi  # a full-scale sine's mean |x|
    with np.errstate(divide="ignore"):
        db = np.where(loudest > 0.0, 20.0 * np.log10(loudest / full_scale), -120.0)
    times = np.arange(rows) * per_row / rate
    return times, _shaped(db, np.ndim(audio), channels)


def slices(audio, rate, **gates):
    """The slices the library's wave slicer finds, as a list of (start_s,
    end_s). Gates as `dsp slices`: start_gate (dB, default -30), end_gate
    (dB, -40), rise (percent, 5), min (seconds, 0.1)."""
    rate = _rate(rate, 67)
    settings = dict(D.SLICE_GATES)
    for name, value in gates.items():
        if name not in settings:
            raise TypeError(f"slices: unknown gate {name!r} (start_gate, end_gate, rise, min)")
        lo, hi = D.SLICE_RANGES[name]
        if isinstance(value, bool) or not isinstance(value, (int, float)) or not lo <= value <= hi:
            raise ValueError(f"slices: {name} must be a number between {lo:g} and {hi:g}, "
                             f"not {value!r}")
        settings[name] = float(value)
    s16 = to_int16(audio)
    frames, channels = s16.shape
    block = D.BLOCK_FRAMES
    handle = lib.initWaveSlice(block, channels, rate, settings["start_gate"],
                               settings["end_gate"], settings["rise"], settings["min"])
    if not handle:
        raise MemoryError("dsp: cannot create the wave slicer")
    found = []
    try:
        for at in range(0, frames, block):
            piece = s16[at:at + block]
            lib.doWaveSlice(handle, piece.ctypes.data_as(_S16), len(piece) * 2 * channels)
        record = lib.getWaveSlice(handle, 0)
        while record:
            found.append((float(record.contents.startSeconds), float(record.contents.endSeconds)))
            record = record.contents.next
    finally:
        lib.termWaveSlice(handle)
    return found
