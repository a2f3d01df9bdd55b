"""Processors and chains against the library driven directly through its C
calls (dspSend on 16-bit samples), streaming against whole arrays, errors."""

import math
import os
import threading
import time

import numpy as np
import pytest

import dsp
from dsp import _defaults as D
from dsp._lib import lib

RATE = 44100
FRAMES = 57330  # 1.3 s: the last block is short


def c_chain(x16, rate, makers, block=4096):
    """x16 through a chain built with the library's own calls; makers are
    (init(frames, channels, rate) -> handle, after(handle, rate)) per
    processor, each made for the format and block size where it joins."""
    frames, channels = x16.shape
    chain = lib.dspCreate(block, channels, rate)
    try:
        for order, (init, after) in enumerate(makers, start=1):
            here_ch = lib.dspGetDstChannels(chain)
            here_block = max(1, lib.dspGetDstSize(chain, block * 2 * channels) // (2 * channels))
            handle = init(here_block, here_ch, lib.dspGetDstRate(chain))
            assert handle and lib.dspAdd(chain, handle, order) == order
            if after:
                after(handle, lib.dspGetDstRate(chain))
        src = np.ascontiguousarray(x16)
        dst = np.empty(lib.dspGetDstSamples(chain, frames), np.int16)
        S = lib.dspSend.argtypes[1]
        written = lib.dspSend(chain, src.ctypes.data_as(S), dst.ctypes.data_as(S),
                              frames * 2 * channels)
        out_channels = lib.dspGetDstChannels(chain)
        return dst[:written // 2].reshape(-1, out_channels), lib.dspGetDstRate(chain)
    finally:
        lib.dspDestroy(chain)


def fade_actions(in_s, out_s, total_s):
    # The ramps end on the last frame; the package then makes the first and
    # the last frame silent (SILENT_ENDS).
    def after(h, rate):
        first = 1.5 / rate
        lib.setFaderAction(h, 0, first, max(in_s, 2 * first), 0.0)
        lib.setFaderAction(h, 0, max(total_s - out_s, first), total_s - 0.5 / rate, -50.0)
    return after


ATT = D.FILTER_ATTENUATION_DB
G, SP = D.PITCH_GRAIN_SECONDS, D.PITCH_SPACING_SECONDS
SG, SSP = D.STRETCH_GRAIN_SECONDS, D.STRETCH_SPACING_SECONDS
SLOPE = ATT / -math.log2(D.PASSBAND_FRACTION)  # the resampler's
HQ_SLOPE = D.FILTER_SLOPE_DB_PER_OCTAVE
TOTAL_S = FRAMES / RATE
CASES = {
    "lowpass": (lambda: dsp.LowPass(4, 1000),
                [(lambda f, c, r: lib.initIirFilter(f, c, r, 4, 1000.0, 0), None)]),
    "highpass": (lambda: dsp.HighPass(2, 300),
                 [(lambda f, c, r: lib.initIirFilter(f, c, r, 2, 300.0, 1), None)]),
    # One output position per source frame: no pass band equaliser, the
    # library's converter alone.
    "resample": (lambda: dsp.Resample(22050),
                 [(lambda f, c, r: lib.initResampler(f, c, c, r, 22050, 1, ATT, SLOPE, 1), None)]),
    "resample linear, pass band 0.5": (
        lambda: dsp.Resample(22050, "linear", passband=0.5),
        [(lambda f, c, r: lib.initResampler(f, c, c, r, 22050, 0, ATT, ATT, 1), None)]),
    "hqups": (lambda: dsp.Hqups(0.5, 80.0, active=True),
              [(lambda f, c, r: lib.initHqupsBySrcsize(f, c, c, r, 0.5, 80.0, D.HQUPS_BAND_EDGE_HZ,
                                                       1, ATT, HQ_SLOPE, 1, 1), None)]),
    "chorus": (lambda: dsp.Chorus(4, 15.0, 3.0, 0.7, 40.0, 90.0),
               [(lambda f, c, r: lib.initChorus(f, c, r, 4, 15.0, 3.0, 0.7, 40.0, 90.0), None)]),
    "pitch": (lambda: dsp.PitchShift(-300),
              [(lambda f, c, r: lib.initPitchShift(f, c, r, -300.0, 0.0, G, SP), None)]),
    "tempo": (lambda: dsp.TimeStretch(tempo=1.25),
              [(lambda f, c, r: lib.initStretch(f, c, r, 1000 * math.log2(1.25), 0.0, SG, SSP),
                None)]),
    "gain": (lambda: dsp.Gain(-6),
             [(lambda f, c, r: lib.initFader(f, c, r, 0.0, -6.0, 0.0), None)]),
    "fade": (lambda: dsp.Fade(0.2, 0.3),
             [(lambda f, c, r: lib.initFader(f, c, r, 0.0, -50.0, 0.0),
               fade_actions(0.2, 0.3, TOTAL_S))]),
    "chain": (lambda: dsp.Chain([dsp.Resample(14700), dsp.Chorus(), dsp.Fade(0.1)]),
              [(lambda f, c, r: lib.initResampler(f, c, c, r, 14700, 1, ATT, SLOPE, 1), None),
               (lambda f, c, r: lib.initChorus(f, c, r, 3, 20.0, 2.0, 1.5, 30.0, 100.0), None),
               (lambda f, c, r: lib.initFader(f, c, r, 0.0, -50.0, 0.0),
                fade_actions(0.1, 0.1, FRAMES * 14700 // RATE / 14700))]),
}
# A fade's first and last frame are digital silence; the chain's resampler,
# in fixed 4096-frame blocks, ends a few frames short of the length its
# fade-out is placed by, which then ends on the fader's -50 dB.
SILENT_ENDS = {"fade": [0, -1], "chain": [0]}


@pytest.mark.parametrize("channels", [1, 2])
@pytest.mark.parametrize("name", sorted(set(CASES) - {"mono"}))
def test_same_samples_as_the_library(name, channels, signal):
    make, makers = CASES[name]
    x16 = signal(FRAMES, channels)
    expected, expected_rate = c_chain(x16, RATE, makers)
    expected[SILENT_ENDS.get(name, [])] = 0
    made = make()
    chain = dsp.Chain(made.processors if isinstance(made, dsp.Chain) else [made],
                      block_frames=4096)  # the block c_chain runs
    out, out_rate = chain(x16, RATE)  # int16 in: s / 32767, through the float interface
    assert out.dtype == np.float32 and out_rate == expected_rate
    assert out.shape == expected.shape
    np.testing.assert_array_equal(dsp.to_int16(out), expected)


STREAMED = ["resample", "tempo", "chain", "hqups", "pitch", "mono", "equalised"]
CASES["mono"] = (lambda: dsp.Chain([dsp.Resample(32000, channels=1), dsp.Chorus()]), [])
CASES["equalised"] = (lambda: dsp.Chain([dsp.Chorus(), dsp.Resample(48000, "linear")]), [])


@pytest.mark.parametrize("name", STREAMED)
@pytest.mark.parametrize("block", [1, 1000, 4096, 10007])
def test_stream_equals_whole_array(name, block, signal):
    x = dsp.as_float32(signal(FRAMES, 2))
    whole, _ = CASES[name][0]()(x, RATE)
    chain = CASES[name][0]()
    if block == 1:  # single frames cost a call each: a shorter signal
        x = x[:9000]
        whole, _ = CASES[name][0]()(x, RATE)
    parts = [chain.process(x[at:at + block], RATE, total_frames=len(x))
             for at in range(0, len(x), block)]
    parts.append(chain.flush())
    np.testing.assert_array_equal(np.concatenate(parts), whole)
    # reset() and a second stream give the same again
    chain.process(x[:5000], RATE, total_frames=len(x))
    chain.reset()
    again = [chain.process(x, RATE, total_frames=len(x)), chain.flush()]
    np.testing.assert_array_equal(np.concatenate(again), whole)


def test_live_parameter_matches_the_library_setter(signal):
    x16 = signal(FRAMES, 2)
    chorus = dsp.Chorus()
    first = chorus.process(x16[:8192], RATE)
    chorus.mix = 45.0
    chorus.dry = 70.0
    rest = np.concatenate([chorus.process(x16[8192:]), chorus.flush()])

    chain = lib.dspCreate(4096, 2, RATE)
    h = lib.initChorus(4096, 2, RATE, 3, 20.0, 2.0, 1.5, 30.0, 100.0)
    lib.dspAdd(chain, h, 1)
    S = lib.dspSend.argtypes[1]
    out = np.empty((FRAMES, 2), np.int16)
    src = np.ascontiguousarray(x16)
    lib.dspSend(chain, src.ctypes.data_as(S), out.ctypes.data_as(S), 8192 * 4)
    for voice in range(3):
        lib.setChorusMix(h, voice, 45.0)
    lib.setChorusOrgMix(h, 70.0)
    lib.dspSend(chain, src[8192:].ctypes.data_as(S), out[8192:].ctypes.data_as(S),
                (FRAMES - 8192) * 4)
    lib.dspDestroy(chain)
    np.testing.assert_array_equal(dsp.to_int16(np.concatenate([first, rest])), out)


@pytest.mark.parametrize("words, rate, out_frames", [
    ("resample 48000", 44100, FRAMES * 48000 // 44100),
    ("resample 44100", 48000, FRAMES * 44100 // 48000),
    ("hqups resample 22050 linear", 44100, FRAMES * 22050 // 44100),
])
def test_rate_changes_have_the_exact_length(words, rate, out_frames, signal):
    # blocks of whole rate cycles: the exact length, and the interpolation
    # runs on across blocks (a steady tone stays steady)
    chain = dsp.chain_from_words(words.split())
    x = np.sin(2 * np.pi * 1000 * np.arange(FRAMES) / rate).astype(np.float32) * 0.5
    out, _ = chain(x, rate)
    assert len(out) == out_frames


@pytest.mark.parametrize("rate, to, interpolation", [
    (44100, 48000, "cubic"), (48000, 44100, "cubic"), (44100, 48000, "linear")])
def test_pass_band_is_flat_to_nine_tenths_of_nyquist(rate, to, interpolation):
    # the equaliser makes up for the interpolation's droop (cubic: -3.8 dB
    # at the edge, 0.45 of 44100 Hz); what is left is the low-pass's ripple
    edge = 0.9 * min(rate, to) / 2
    for hz in (1000, 0.5 * edge, 0.8 * edge, edge):
        x = (0.5 * np.sin(2 * np.pi * hz * np.arange(rate) / rate)).astype(np.float32)
        out, _ = dsp.Resample(to, interpolation)(x, rate)
        y = out[to // 4:to // 4 + to // 2].astype(np.float64)
        w = np.blackman(len(y))
        level = 2 * abs(np.dot(y * w, np.exp(-2j * np.pi * hz * np.arange(len(y)) / to))) / w.sum()
        assert abs(20 * np.log10(level / 0.5)) < 0.3, hz


def test_stereo_to_mono_averages(signal):
    x = dsp.as_float32(signal(FRAMES, 2))
    mono, rate = dsp.Resample(22050, channels="mono")(x, RATE)
    average = (x[:, 0] + x[:, 1]) * np.float32(0.5)
    expected, _ = dsp.Resample(22050)(average, RATE)
    assert rate == 22050 and mono.shape == (len(expected), 1)
    np.testing.assert_array_equal(mono[:, 0], expected)


def test_formats_and_layouts(signal):
    x16 = signal(5000, 1)
    gain = dsp.Gain(-3)
    mono, _ = gain(x16[:, 0], RATE)
    assert mono.shape == (5000,)  # 1-D in, 1-D out
    column, _ = gain(x16, RATE)
    assert column.shape == (5000, 1)
    stereo, _ = dsp.Resample(48000, channels=2)(x16[:, 0], RATE)
    assert stereo.ndim == 2 and stereo.shape[1] == 2
    np.testing.assert_array_equal(stereo[:, 0], stereo[:, 1])
    # every dtype by its full scale: int16 as the library reads it, the same
    # floats from float64, int32 and uint8 within their rounding
    f = (x16[:, 0].astype(np.float64) / 32767).astype(np.float32)
    out, _ = gain(f, RATE)
    np.testing.assert_array_equal(out, mono)
    np.testing.assert_array_equal(dsp.as_float32(x16[:, 0].astype(np.float64) / 32767)[:, 0], f)
    np.testing.assert_allclose(dsp.as_float32(x16.astype(np.int32) * 65538)[:, 0], f, atol=1e-7)
    np.testing.assert_array_equal(dsp.as_float32(np.array([0, 128, 255], np.uint8))[:, 0],
                                  np.array([-128 / 127, 0, 1], np.float32))
    # a chain follows a change of rate or channels
    chain = dsp.Chain([dsp.LowPass(2, 1000)])
    assert chain(x16, 22050)[1] == 22050 and chain(x16[:, :1].repeat(2, 1), RATE)[0].shape[1] == 2
    assert dsp.Chain([])(x16, RATE)[0].shape == (5000, 1)


@pytest.mark.parametrize("audio, error, words", [
    (np.zeros((10, 3), np.float32), ValueError, "shape (10, 3)"),
    (np.zeros((2, 1000), np.float32), ValueError, "audio.T"),
    (np.zeros((4, 2, 2), np.float32), ValueError, "shape (4, 2, 2)"),
    (np.float32(0.5), ValueError, "shape ()"),
    (np.zeros(10, np.complex64), TypeError, "complex64"),
    (np.zeros(10, np.int64), TypeError, "int64"),
])
def test_audio_errors(audio, error, words):
    with pytest.raises(error) as raised:
        dsp.Gain(0)(audio, RATE)
    assert words in str(raised.value)


@pytest.mark.parametrize("make, words", [
    (lambda: dsp.LowPass(0, 1000), "order must be between 1 and 32"),
    (lambda: dsp.LowPass(2.5, 1000), "whole number"),
    (lambda: dsp.LowPass(2, 30000)(np.zeros(10, np.float32), RATE), "below half the sample rate"),
    (lambda: dsp.Resample(48000, "sinc"), "'linear' or 'cubic'"),
    (lambda: dsp.Chorus(depth_ms=30), "depth_ms must not exceed delay_ms"),
    (lambda: dsp.Chorus(delay_ms=900, depth_ms=200), "must not exceed 1000"),
    (lambda: dsp.Chorus(delay_ms=700)(np.zeros(10, np.float32), 96000), "too long for 96000"),
    (lambda: dsp.PitchShift(1300), "between -1200 and 1200"),
    (lambda: dsp.TimeStretch(tempo=9), "between 0.25 and 8"),
    (lambda: dsp.Gain(float("nan")), "finite"),
    (lambda: dsp.Fade(1).process(np.zeros(10, np.float32), RATE), "total_frames"),
    (lambda: dsp.Gain(0).process(np.zeros(10, np.float32)), "needs the rate"),
])
def test_setting_errors(make, words):
    with pytest.raises(ValueError) as raised:
        make()
    assert words in str(raised.value)


def test_fixed_and_live_attributes():
    lowpass = dsp.LowPass(4, 1000)
    with pytest.raises(AttributeError, match="fixed"):
        lowpass.cutoff = 500
    stretch = dsp.TimeStretch(1000)
    stretch.tempo = 1.25
    assert stretch.scale == pytest.approx(1000 * math.log2(1.25))
    chorus = dsp.Chorus()
    with pytest.raises(ValueError):
        chorus.depth_ms = 50  # beyond delay_ms: refused, unchanged
    assert chorus.depth_ms == 2.0
    assert dsp.Chain([chorus]).copy().processors[0].depth_ms == 2.0


def test_stream_format_change_needs_flush():
    chain = dsp.Chain([dsp.Gain(0)])
    chain.process(np.zeros(100, np.float32), RATE)
    with pytest.raises(ValueError, match="flush"):
        chain.process(np.zeros(100, np.float32), 48000)
    assert chain.flush().shape == (100,)
    assert chain.process(np.zeros(5000, np.float32), 48000).shape == (4096,)


def test_use_by_a_second_thread_raises():
    chain = dsp.Chain([dsp.Chorus()])
    x = np.zeros(1000, np.float32)
    with chain._guard:  # as while another thread is inside
        with pytest.raises(RuntimeError, match="another thread"):
            chain(x, RATE)
        with pytest.raises(RuntimeError, match="another thread"):
            chain.process(x, RATE)
    chorus = dsp.Chorus()
    chorus.process(x, RATE)
    with chorus._solo._guard:
        with pytest.raises(RuntimeError, match="another thread"):
            chorus.mix = 10  # touches the running chain
    assert chorus.mix == 30.0


def test_library_calls_release_the_gil(monkeypatch, signal):
    # While a worker thread is inside dspSendFloat, this thread runs on: it
    # sees the call in progress for most of its duration (with the GIL held
    # it would only see the few milliseconds before the call starts).
    inside = threading.Event()
    spent = []
    send = lib.dspSendFloat

    def watched(*args):
        inside.set()
        start = time.perf_counter()
        try:
            return send(*args)
        finally:
            spent.append(time.perf_counter() - start)
            inside.clear()

    monkeypatch.setattr(lib, "dspSendFloat", watched)
    x = dsp.as_float32(signal(1 << 20, 2))
    worker = threading.Thread(
        target=lambda: dsp.Chain([dsp.Resample(96000), dsp.PitchShift(300)])(x, RATE))
    seen = 0.0
    worker.start()
    last = time.perf_counter()
    while worker.is_alive():
        now = time.perf_counter()
        if inside.is_set():
            seen += now - last
        last = now
    worker.join()
    assert sum(spent) > 0.02 and seen > 0.5 * sum(spent), (seen, spent)


def _cores_free():
    cores = os.cpu_count() or 1
    return cores - (os.getloadavg()[0] if hasattr(os, "getloadavg") else 0.0)


@pytest.mark.skipif((os.cpu_count() or 1) < 2, reason="needs two cores")
@pytest.mark.skipif(_cores_free() < 1.5, reason="the machine is busy: no second core to show")
def test_threads_run_in_parallel(signal):
    x = dsp.as_float32(signal(RATE * 20, 2))

    def work():
        dsp.Chain([dsp.Resample(96000), dsp.PitchShift(300), dsp.Chorus()])(x, RATE)

    work()  # warm up
    best = 0.0
    for _ in range(3):  # a shared machine: the best of three tries
        start = time.perf_counter()
        work()
        work()
        serial = time.perf_counter() - start
        threads = [threading.Thread(target=work) for _ in range(2)]
        start = time.perf_counter()
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        parallel = time.perf_counter() - start
        best = max(best, serial / parallel)
        if best > 1.25:
            break
    assert best > 1.25, f"two threads ran {best:.2f}x as fast as one"


@pytest.mark.parametrize("words, result", [
    ("resample 48000 linear mono --passband 0.5",
     "[Resample(rate=48000, interpolation='linear', channels=1, passband=0.5)]"),
    ("resample 48000 --passband", "resample: --passband needs a value"),
    ("gain 3 --grain 0.1", "gain: unknown option '--grain'"),
    ("tempo 1.1 --grain 0.2 --spacing 0.3", "tempo: --spacing must not exceed --grain"),
    ("pitch 300 --grain 0.1 --spacing 0.02",
     "[PitchShift(cents=300.0, grain_s=0.1, spacing_s=0.02, out_level_db=0.0)]"),
    ("hqups active 0.2", "[Hqups(harmonics=0.2, mix=50.0, active=True)]"),
    ("fade 2", "[Fade(in_s=2.0, out_s=2.0)]"),
    ("3 gain", "'3' does not follow an effect"),
    ("echo 3", "unknown effect 'echo'"),
    ("lowpass 4", "lowpass: missing argument; usage: lowpass ORDER HZ"),
    ("lowpass 4 1e7", "lowpass: HZ must be between 0.001 and 1e+06, not 1e7"),
    ("chorus 3 10 20", "chorus: DEPTH_MS must not exceed DELAY_MS"),
    ("hqups 0.2 30 40", "hqups: too many numbers"),
    ("gain x", "gain: DB must be a number, not 'x'"),
])
def test_effect_words(words, result):
    try:
        assert repr(dsp.parse_effects(words.split())) == result
    except dsp.UsageError as error:
        assert str(error).startswith(result)
    assert dsp.parse_effects(["tempo", "2"])[0].scale == 1000.0


def test_library_named_by_dsp_library_or_a_clear_error(tmp_path):
    import subprocess
    import sys
    home = os.path.dirname(os.path.dirname(os.path.abspath(dsp.__file__)))
    env = dict(os.environ, DSP_LIBRARY=str(tmp_path / "libdsp.so.0"), PYTHONPATH=home)
    run = subprocess.run([sys.executable, "-c", "import dsp"], env=env, capture_output=True,
                         text=True, cwd=tmp_path)
    assert run.returncode != 0
    assert f"DSP_LIBRARY: {tmp_path / 'libdsp.so.0'} (no such file)" in run.stderr
    env["DSP_LIBRARY"] = dsp.library_path
    run = subprocess.run([sys.executable, "-c", "import dsp; print(dsp.library_path)"], env=env,
                         capture_output=True, text=True, cwd=tmp_path)
    assert run.stdout.strip() == dsp.library_path
