"""The analyzers against independent computations with numpy."""

import numpy as np
import pytest

import dsp

RATE = 44100


def numpy_spectrum_db(x16, size):
    """dB of the Hann-windowed transform, relative to a full-scale sine."""
    window = 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(size) / size)
    magnitude = np.abs(np.fft.rfft(window * x16[:size] / 32767.0))[:size // 2]
    with np.errstate(divide="ignore"):
        return 20 * np.log10(magnitude) - 20 * np.log10(size / 4)


def tones(frames, cycles_per_size, size, level=0.5):
    t = np.arange(frames)
    return np.stack([level * np.sin(2 * np.pi * c * t / size) for c in cycles_per_size],
                    1).astype(np.float32)


def test_spectrum_against_numpy():
    size = 1024
    x = tones(3 * size, [64, 200.3], size)
    freqs, db = dsp.spectrum(x, RATE, size, at=size / RATE)
    assert db.shape == (size // 2, 2) and freqs[64] == 64 * RATE / size
    x16 = dsp.to_int16(x)
    for c in range(2):
        expected = numpy_spectrum_db(x16[size:, c], size)
        loud = expected > -80  # above the analyzer's floor
        np.testing.assert_allclose(db[loud, c], expected[loud], atol=0.02)
    assert db[64, 0] == pytest.approx(20 * np.log10(0.5), abs=0.02)
    mono_freqs, mono = dsp.spectrum(x[:, 0], RATE, size)
    assert mono.shape == (size // 2,)
    with pytest.raises(ValueError, match="power of two"):
        dsp.spectrum(x, RATE, 1000)
    with pytest.raises(ValueError, match="beyond the end"):
        dsp.spectrum(x, RATE, size, at=1.0)


def test_spectrogram_frames_are_spectra():
    size, hop = 512, 128
    x = tones(5000, [20, 90], size)
    times, freqs, db = dsp.spectrogram(x, RATE, size, hop)
    count = -(-5000 // hop)
    assert db.shape == (count, size // 2, 2) and len(times) == count
    assert times[1] - times[0] == pytest.approx(hop / RATE)
    x16 = dsp.to_int16(x)
    for k in (3, 10, count - 5):  # windows fully inside the signal
        end = (k + 1) * hop
        for c in range(2):
            expected = numpy_spectrum_db(x16[end - size:end, c], size)
            loud = expected > -80
            np.testing.assert_allclose(db[k, loud, c], expected[loud], atol=0.02)


def test_envelope_levels():
    # a sine at -6 dBFS from 0.5 s on reads -6 dB (relative to a full-scale
    # sine), after the step where the follower's filter settles
    x = np.zeros((RATE, 2), np.float32)
    x[RATE // 2:, 0] = 0.5 * np.sin(2 * np.pi * 1000 * np.arange(RATE - RATE // 2) / RATE)
    times, db = dsp.envelope(x, RATE, step=0.1)
    assert db.shape == (10, 2) and times[3] == pytest.approx(0.3)
    assert (db[:5] == -120).all() and (db[:, 1] == -120).all()
    np.testing.assert_allclose(db[7:, 0], 20 * np.log10(0.5), atol=0.05)
    assert dsp.envelope(x[:, 0], RATE)[1].shape == (10,)


def test_slices_at_the_attacks():
    x = np.zeros(2 * RATE, np.float32)
    noise = np.random.default_rng(3).uniform(-0.8, 0.8, 4000).astype(np.float32)
    starts = [0.2, 0.7, 1.3]
    for s in starts:
        x[int(s * RATE):int(s * RATE) + 4000] = noise
    found = dsp.slices(x, RATE)
    assert len(found) == 3
    for (start, end), s in zip(found, starts):
        assert s - 0.02 < start <= s + 0.005 and end > start  # at the valley before
    # a longer minimum merges them
    assert len(dsp.slices(x, RATE, min=0.6)) < 3
    with pytest.raises(TypeError, match="unknown gate"):
        dsp.slices(x, RATE, gate=3)
