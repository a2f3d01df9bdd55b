"""Processors and chains over the library's processing chain.

A processor holds the settings of one effect; the library's processor is
made from them when a chain first sees audio, for that audio's rate and
channel count (and, after a rate or channel changer, for the format where
the processor sits in the chain). A chain made for one format is recreated
when audio of another rate or channel count arrives.

    chain = Chain([Resample(48000), Chorus(voices=4)])
    out, out_rate = chain(audio, 44100)        # a whole signal, from a fresh state
    for block in blocks:                       # or a stream, block by block
        write(chain.process(block, 44100))
    write(chain.flush())                       # the end of the stream

The library runs a chain in pieces of its block size (chosen as the dsp tool
chooses it, see _BlockChoice), and a rate or length changer rounds its
output per piece; so process() hands the library whole blocks only and keeps
the frames short of a block until more arrive or flush() ends the stream.
That is what makes the concatenated stream equal to the whole-array result,
and both equal to the tool's output, sample for sample.

Threads: every library call releases the GIL, so chains in different threads
run in parallel. A chain or processor may be used by one thread at a time;
a second thread using it meanwhile gets RuntimeError (nothing is corrupted).
A processor lives in the chains that hold it: setting one of its live
parameters touches each of those chains and so also counts as using them.
"""

import math
import pickle
import threading

import numpy as np

from . import _defaults as D
from . import _equaliser
from ._audio import Guard, as_float32, shaped_like
from ._lib import lib

_FLOAT_P = lib.dspSendFloat.argtypes[1]

# Most frames handed to one dspSendFloat call in a whole-array run: a
# multiple of the block size, so the pieces are the same as one call's.
_CALL_FRAMES = 1 << 20


def _pointer(array):
    return array.ctypes.data_as(_FLOAT_P)


class _Stage:
    """Where a processor joins a chain: the format and block size there."""

    __slots__ = ("rate", "channels", "block_frames", "input_seconds", "silent")

    def __init__(self, rate, channels, block_frames, input_seconds, silent):
        self.rate = rate
        self.channels = channels
        self.block_frames = block_frames
        self.input_seconds = input_seconds
        self.silent = silent  # silent(from_s, to_s): those seconds made digital silence



def _number(owner, keyword, value, lo, hi, whole=False):
    """value as a finite number within [lo, hi], else ValueError/TypeError
    naming the processor and the keyword."""
    if isinstance(value, bool) or not isinstance(value, (int, float, np.integer, np.floating)):
        raise TypeError(f"{owner}: {keyword} must be a number, not {value!r}")
    v = float(value)
    if not math.isfinite(v):
        raise ValueError(f"{owner}: {keyword} must be a finite number, not {value!r}")
    if v < lo or v > hi:
        raise ValueError(f"{owner}: {keyword} must be between {lo:g} and {hi:g}, not {value!r}")
    if whole and v != math.floor(v):
        raise ValueError(f"{owner}: {keyword} must be a whole number, not {value!r}")
    return int(v) if whole else v


class Processor:
    """One effect. Its keyword arguments are attributes; those the library
    can change on a running processor (listed in LIVE) take effect at once
    in every chain that holds it, the others are fixed at creation."""

    EFFECT = ""
    LIVE = ()

    def __init__(self):
        self._live = []  # (chain, handle) for each chain that holds it now
        self._live_lock = threading.Lock()  # held only to read or change _live
        self._guard = Guard(f"this {type(self).__name__}")
        self._solo = None

    # --- as a one-element chain
    def __call__(self, audio, rate):
        """Processes a whole signal: (out, out_rate). See Chain.__call__."""
        return self._solo_chain()(audio, rate)

    def process(self, block, rate=None, *, total_frames=None):
        """Streams one block: see Chain.process."""
        return self._solo_chain().process(block, rate, total_frames=total_frames)

    def flush(self):
        return self._solo_chain().flush()

    def reset(self):
        if self._solo is not None:
            self._solo.reset()

    def _solo_chain(self):
        with self._live_lock:  # one chain, whichever thread asks first
            if self._solo is None:
                self._solo = Chain([self])
            return self._solo

    # --- settings
    def _settings(self):
        """The keyword arguments that recreate this processor."""
        raise NotImplementedError

    def __repr__(self):
        args = ", ".join(f"{k}={v!r}" for k, v in self._settings().items())
        return f"{type(self).__name__}({args})"

    def __getstate__(self):
        return self._settings()

    def __setstate__(self, state):
        self.__init__(**state)

    def _check(self, keyword, value):
        """The value checked for keyword (ValueError naming both)."""
        return value

    def _set_live(self, keyword, value, apply):
        """Stores a live parameter and applies it to every running processor
        with apply(handle, stage_rate)."""
        with self._guard:
            value = self._check(keyword, value)
            for chain, handle in self._bindings():
                # A chain tears its processors down only while it holds its
                # guard: under it, a binding still listed is still alive.
                with chain._guard:
                    if (chain, handle) in self._bindings() and not apply(
                            handle, chain._rate_at(self)):
                        raise MemoryError(f"{self!r}: the library could not apply {keyword}")
            setattr(self, "_" + keyword, value)

    def _fixed(self, keyword):
        raise AttributeError(
            f"{type(self).__name__}.{keyword} is fixed when the processor is made (the library "
            f"cannot change it); make a new {type(self).__name__}"
        )

    # --- the library's processor
    def _make(self, stage):
        """(handle, term function) of a new library processor for stage."""
        raise NotImplementedError

    def _added(self, handle, stage):
        """Settings applied once the chain holds the processor."""

    def _averages(self, channels):
        """True when the chain must average a stereo stream to mono before
        this processor."""
        return False

    def _equaliser(self, stage):
        """The taps of an equaliser the chain runs before this processor,
        or None."""
        return None

    def _bindings(self):
        with self._live_lock:
            return list(self._live)

    def _bind(self, chain, handle):
        with self._live_lock:
            self._live.append((chain, handle))

    def _unbind(self, chain):
        with self._live_lock:
            self._live = [(c, h) for c, h in self._live if c is not chain]


def _fixed_property(keyword):
    def get(self):
        return getattr(self, "_" + keyword)

    def set_(self, value):
        self._fixed(keyword)

    return property(get, set_)


class _Filter(Processor):
    KIND = 0

    def __init__(self, order, cutoff):
        super().__init__()
        self._order = _number(self.EFFECT, "order", order, *D.limits(self.EFFECT, "order"), True)
        self._cutoff = _number(self.EFFECT, "cutoff", cutoff, *D.limits(self.EFFECT, "cutoff"))

    order = _fixed_property("order")
    cutoff = _fixed_property("cutoff")

    def _settings(self):
        return {"order": self._order, "cutoff": self._cutoff}

    def _make(self, stage):
        if self._cutoff >= stage.rate / 2.0:
            raise ValueError(
                f"{self.EFFECT}: cutoff must be below half the sample rate ({stage.rate // 2} Hz "
                f"here), not {self._cutoff:g}"
            )
        return (lib.initIirFilter(stage.block_frames, stage.channels, stage.rate, self._order,
                                  self._cutoff, self.KIND), lib.termIirFilter)


class LowPass(_Filter):
    """Chebyshev low-pass (1 dB ripple): LowPass(order, cutoff), order 1..32,
    cutoff in Hz below half the sample rate (the tool's `lowpass ORDER HZ`)."""

    EFFECT = "lowpass"
    KIND = 0


class HighPass(_Filter):
    """Chebyshev high-pass (1 dB ripple): HighPass(order, cutoff) (the tool's
    `highpass ORDER HZ`)."""

    EFFECT = "highpass"
    KIND = 1


class Resample(Processor):
    """Resample(rate, interpolation="cubic", channels=None, passband=0.9): to
    `rate` Hz, 1000..768000, "linear" or "cubic"; channels 1/"mono" (the
    average of a stereo input's two channels) or 2/"stereo" converts the
    channel count, None keeps it; the anti-alias low-pass is flat (0.1 dB) to
    `passband` (0.05..0.99) of the lower rate's Nyquist frequency and 60 dB
    down at that Nyquist frequency, and an equaliser before the converter
    makes up for its interpolation's droop up to there (the tool's
    `resample RATE [linear|cubic] [mono|stereo] [--passband FRACTION]`)."""

    EFFECT = "resample"
    _INTERPOLATION = {"linear": 0, "cubic": 1}
    _CHANNELS = {None: None, 1: 1, 2: 2, "mono": 1, "stereo": 2}

    def __init__(self, rate, interpolation="cubic", channels=None,
                 passband=D.PASSBAND_FRACTION):
        super().__init__()
        self._rate = _number("resample", "rate", rate, *D.limits("resample", "rate"), True)
        if interpolation not in self._INTERPOLATION:
            raise ValueError(
                f"resample: interpolation must be 'linear' or 'cubic', not {interpolation!r}")
        self._interpolation = interpolation
        if isinstance(channels, bool) or channels not in self._CHANNELS:
            raise ValueError(
                f"resample: channels must be None, 1, 2, 'mono' or 'stereo', not {channels!r}")
        self._channels = self._CHANNELS[channels]
        self._passband = _number("resample", "passband", passband, *D.PASSBAND_LIMITS)

    rate = _fixed_property("rate")
    interpolation = _fixed_property("interpolation")
    channels = _fixed_property("channels")
    passband = _fixed_property("passband")

    def _settings(self):
        return {"rate": self._rate, "interpolation": self._interpolation,
                "channels": self._channels, "passband": self._passband}

    def _averages(self, channels):
        """True when the chain must average a stereo input to mono first
        (the library's resampler would keep the left channel)."""
        return channels == 2 and self._channels == 1

    def _equaliser(self, stage):
        # Output frames on whole source frames only (one phase) are not
        # interpolated.
        phases = self._rate // math.gcd(stage.rate, self._rate)
        if phases <= 1:
            return None
        lower = min(stage.rate, self._rate)
        return _equaliser.taps(self._interpolation == "cubic", phases,
                               self._passband * lower / 2.0 / stage.rate)

    def _make(self, stage):
        out_channels = self._channels or stage.channels
        # A Chebyshev low-pass whose pass band ends at the fraction of the
        # lower rate's Nyquist frequency, FILTER_ATTENUATION_DB down there.
        slope = D.FILTER_ATTENUATION_DB / -math.log2(self._passband)
        return (lib.initResampler(stage.block_frames, stage.channels, out_channels, stage.rate,
                                  self._rate, self._INTERPOLATION[self._interpolation],
                                  D.FILTER_ATTENUATION_DB, slope, D.FILTER_ON), lib.termResampler)


class Hqups(Processor):
    """Hqups(harmonics=0.3, mix=50.0, active=False): upsamples to 48000 Hz
    adding harmonics (harmonics 0..1, mix 0..400 %); active confines them to
    the band above the source's bandwidth (the tool's `hqups [HARMONICS]
    [MIX%] [active]`). All three are live."""

    EFFECT = "hqups"
    LIVE = ("harmonics", "mix", "active")

    def __init__(self, harmonics=D.default("hqups", "harmonics"), mix=D.default("hqups", "mix"),
                 active=False):
        super().__init__()
        self._harmonics = self._check("harmonics", harmonics)
        self._mix = self._check("mix", mix)
        self._active = self._check("active", active)

    def _check(self, keyword, value):
        if keyword == "active":
            return bool(value)
        return _number("hqups", keyword, value, *D.limits("hqups", keyword))

    def _settings(self):
        return {"harmonics": self._harmonics, "mix": self._mix, "active": self._active}

    @property
    def harmonics(self):
        return self._harmonics

    @harmonics.setter
    def harmonics(self, value):
        self._set_live("harmonics", value,
                       lambda h, _: lib.setHqupsHarmonics(h, float(value)))

    @property
    def mix(self):
        return self._mix

    @mix.setter
    def mix(self, value):
        self._set_live("mix", value, lambda h, _: lib.setHqupsMix(h, float(value)))

    @property
    def active(self):
        return self._active

    @active.setter
    def active(self, value):
        self._set_live("active", value, lambda h, _: lib.setHqupsActiveMode(h, int(bool(value))))

    def _make(self, stage):
        return (lib.initHqupsBySrcsize(stage.block_frames, stage.channels, stage.channels,
                                       stage.rate, self._harmonics, self._mix,
                                       D.HQUPS_BAND_EDGE_HZ, D.HQUPS_INTERPOLATION,
                                       D.FILTER_ATTENUATION_DB, D.FILTER_SLOPE_DB_PER_OCTAVE,
                                       int(self._active), D.FILTER_ON), lib.termHqups)


class Chorus(Processor):
    """Chorus(voices=3, delay_ms=20.0, depth_ms=2.0, period_s=1.5, mix=30.0,
    dry=100.0): `voices` copies (0..16) read at delay_ms swept by +-depth_ms
    every period_s seconds, each at mix %, plus the dry input at dry % (the
    tool's `chorus [VOICES DELAY_MS DEPTH_MS PERIOD_S MIX% DRY%]`). All but
    voices are live: `chorus.mix = 40` sets every voice."""

    EFFECT = "chorus"
    LIVE = ("delay_ms", "depth_ms", "period_s", "mix", "dry")

    def __init__(self, voices=D.default("chorus", "voices"),
                 delay_ms=D.default("chorus", "delay_ms"),
                 depth_ms=D.default("chorus", "depth_ms"),
                 period_s=D.default("chorus", "period_s"), mix=D.default("chorus", "mix"),
                 dry=D.default("chorus", "dry")):
        super().__init__()
        self._voices = _number("chorus", "voices", voices, *D.limits("chorus", "voices"), True)
        for keyword, value in (("delay_ms", delay_ms), ("depth_ms", depth_ms),
                               ("period_s", period_s), ("mix", mix), ("dry", dry)):
            setattr(self, "_" + keyword,
                    _number("chorus", keyword, value, *D.limits("chorus", keyword)))
        self._check_sweep(self._delay_ms, self._depth_ms)

    @staticmethod
    def _check_sweep(delay, depth):
        if depth > delay:
            raise ValueError("chorus: depth_ms must not exceed delay_ms (the swept delay would "
                             "go below zero)")
        if delay + depth > 1000.0:
            raise ValueError("chorus: delay_ms + depth_ms must not exceed 1000")

    def _check(self, keyword, value):
        v = _number("chorus", keyword, value, *D.limits("chorus", keyword))
        if keyword in ("delay_ms", "depth_ms"):
            delay = v if keyword == "delay_ms" else self._delay_ms
            depth = v if keyword == "depth_ms" else self._depth_ms
            self._check_sweep(delay, depth)
            for chain, _ in self._bindings():
                self._check_history(delay, depth, chain._rate_at(self))
        return v

    @staticmethod
    def _check_history(delay, depth, rate):
        if (delay + depth) * 0.001 * rate >= D.CHORUS_HISTORY:
            raise ValueError(f"chorus: delay_ms + depth_ms is too long for {rate} Hz")

    voices = _fixed_property("voices")

    def _settings(self):
        return {k: getattr(self, "_" + k)
                for k in ("voices", "delay_ms", "depth_ms", "period_s", "mix", "dry")}

    def _apply_mix(self, handle, value):
        return all(lib.setChorusMix(handle, v, value) for v in range(self._voices))

    @property
    def mix(self):
        return self._mix

    @mix.setter
    def mix(self, value):
        self._set_live("mix", value, lambda h, _: self._apply_mix(h, float(value)))

    @property
    def dry(self):
        return self._dry

    @dry.setter
    def dry(self, value):
        self._set_live("dry", value, lambda h, _: lib.setChorusOrgMix(h, float(value)))

    @property
    def period_s(self):
        return self._period_s

    @period_s.setter
    def period_s(self, value):
        self._set_live("period_s", value, lambda h, _: lib.setChorusSpeed(h, float(value)))

    @property
    def depth_ms(self):
        return self._depth_ms

    @depth_ms.setter
    def depth_ms(self, value):
        self._set_live("depth_ms", value, lambda h, _: lib.setChorusDepth(h, float(value)))

    @property
    def delay_ms(self):
        return self._delay_ms

    @delay_ms.setter
    def delay_ms(self, value):
        self._set_live("delay_ms", value, lambda h, _: lib.setChorusDelaytime(h, float(value)))

    def _make(self, stage):
        self._check_history(self._delay_ms, self._depth_ms, stage.rate)
        return (lib.initChorus(stage.block_frames, stage.channels, stage.rate, self._voices,
                               self._delay_ms, self._depth_ms, self._period_s, self._mix,
                               self._dry), lib.termChorus)


class _Granular(Processor):
    def _granular_settings(self, grain_s, spacing_s, out_level_db):
        owner = self.EFFECT
        self._grain_s = _number(owner, "grain_s", grain_s, 1e-4, 10.0)
        self._spacing_s = _number(owner, "spacing_s", spacing_s, 0.0, 10.0)
        self._out_level_db = _number(owner, "out_level_db", out_level_db, -100.0, 50.0)

    grain_s = _fixed_property("grain_s")
    spacing_s = _fixed_property("spacing_s")


class PitchShift(_Granular):
    """PitchShift(cents): shifts the pitch by -1200..1200 cents keeping the
    duration (the tool's `pitch CENTS`); grain_s, spacing_s and out_level_db
    are the grain settings and output level the tool uses. cents and
    out_level_db are live (a new pitch takes effect after the next block)."""

    EFFECT = "pitch"
    LIVE = ("cents", "out_level_db")

    def __init__(self, cents, *, grain_s=D.PITCH_GRAIN_SECONDS,
                 spacing_s=D.PITCH_SPACING_SECONDS, out_level_db=D.OUT_LEVEL_DB):
        super().__init__()
        self._cents = self._check("cents", cents)
        self._granular_settings(grain_s, spacing_s, out_level_db)

    def _check(self, keyword, value):
        if keyword == "out_level_db":
            return _number("pitch", keyword, value, -100.0, 50.0)
        return _number("pitch", keyword, value, *D.limits("pitch", "cents"))

    def _settings(self):
        return {"cents": self._cents, "grain_s": self._grain_s, "spacing_s": self._spacing_s,
                "out_level_db": self._out_level_db}

    @property
    def cents(self):
        return self._cents

    @cents.setter
    def cents(self, value):
        self._set_live("cents", value, lambda h, _: lib.setPitchShiftPitch(h, float(value)))

    @property
    def out_level_db(self):
        return self._out_level_db

    @out_level_db.setter
    def out_level_db(self, value):
        self._set_live("out_level_db", value,
                       lambda h, _: lib.setPitchShiftOutLevel(h, float(value)))

    def _make(self, stage):
        return (lib.initPitchShift(stage.block_frames, stage.channels, stage.rate, self._cents,
                                   self._out_level_db, self._grain_s, self._spacing_s),
                lib.termPitchShift)


class TimeStretch(_Granular):
    """TimeStretch(scale) changes the duration keeping the pitch: scale in
    thousandths of an octave, -2000..3000 (1000 halves the duration; the
    tool's `stretch SCALE`); TimeStretch(tempo=1.25) gives it as a speed
    factor 0.25..8 (the tool's `tempo FACTOR`). scale, tempo and
    out_level_db are live (a new scale takes effect after the next block)."""

    EFFECT = "stretch"
    LIVE = ("scale", "tempo", "out_level_db")

    def __init__(self, scale=None, *, tempo=None, grain_s=D.STRETCH_GRAIN_SECONDS,
                 spacing_s=D.STRETCH_SPACING_SECONDS, out_level_db=D.OUT_LEVEL_DB):
        super().__init__()
        if (scale is None) == (tempo is None):
            raise TypeError("stretch: give either scale or tempo")
        self._scale = self._check("scale", scale) if tempo is None else self._check("tempo", tempo)
        self._granular_settings(grain_s, spacing_s, out_level_db)

    def _check(self, keyword, value):
        if keyword == "tempo":
            return 1000.0 * math.log2(_number("tempo", "tempo", value, *D.limits("tempo",
                                                                                  "factor")))
        if keyword == "out_level_db":
            return _number("stretch", keyword, value, -100.0, 50.0)
        return _number("stretch", "scale", value, *D.limits("stretch", "scale"))

    def _settings(self):
        return {"scale": self._scale, "grain_s": self._grain_s, "spacing_s": self._spacing_s,
                "out_level_db": self._out_level_db}

    @property
    def scale(self):
        return self._scale

    @scale.setter
    def scale(self, value):
        self._set_live("scale", value, lambda h, _: lib.setStretchScale(h, float(value)))

    @property
    def tempo(self):
        """The speed factor: 2^(scale / 1000)."""
        return 2.0 ** (self._scale / 1000.0)

    @tempo.setter
    def tempo(self, value):
        scale = self._check("tempo", value)
        self.scale = scale

    @property
    def out_level_db(self):
        return self._out_level_db

    @out_level_db.setter
    def out_level_db(self, value):
        self._set_live("out_level_db", value, lambda h, _: lib.setStretchOutLevel(h, float(value)))

    def _make(self, stage):
        return (lib.initStretch(stage.block_frames, stage.channels, stage.rate, self._scale,
                                self._out_level_db, self._grain_s, self._spacing_s),
                lib.termStretch)


class Gain(Processor):
    """Gain(db): changes the level by -50..50 dB (the tool's `gain DB`,
    through the fader)."""

    EFFECT = "gain"

    def __init__(self, db):
        super().__init__()
        self._db = _number("gain", "db", db, *D.limits("gain", "db"))

    db = _fixed_property("db")

    def _settings(self):
        return {"db": self._db}

    def _make(self, stage):
        return (lib.initFader(stage.block_frames, stage.channels, stage.rate, 0.0, self._db, 0.0),
                lib.termFader)


class Fade(Processor):
    """Fade(in_s, out_s=None): fades in over in_s seconds and out over out_s
    (default in_s) at the end (the tool's `fade IN_S [OUT_S]`): the fader
    ramps between 0 and -50 dB, and the first and the last frame are digital
    silence. The fade-out is placed from the end of the signal: a
    whole-array call knows it; a stream must pass total_frames to its first
    process() call."""

    EFFECT = "fade"

    def __init__(self, in_s, out_s=None):
        super().__init__()
        self._in_s = _number("fade", "in_s", in_s, *D.limits("fade", "in_s"))
        self._out_s = self._in_s if out_s is None else _number("fade", "out_s", out_s,
                                                               *D.limits("fade", "out_s"))

    in_s = _fixed_property("in_s")
    out_s = _fixed_property("out_s")

    def _settings(self):
        return {"in_s": self._in_s, "out_s": self._out_s}

    def _make(self, stage):
        if self._out_s > 0.0 and stage.input_seconds is None:
            raise ValueError(
                "fade: a fade-out is placed from the end of the signal, whose length this "
                "stream does not tell; pass total_frames to the first process() call, or use "
                "Fade(in_s, 0)")
        start_level = D.FADER_FLOOR_DB if self._in_s > 0.0 else 0.0
        return (lib.initFader(stage.block_frames, stage.channels, stage.rate, 0.0, start_level,
                              0.0), lib.termFader)

    def _added(self, handle, stage):
        # Actions start after the fader's first sample; a time half a frame
        # past a frame's start lands on that frame.
        frame = 1.0 / stage.rate
        first = 1.5 * frame
        if self._in_s > 0.0:
            lib.setFaderAction(handle, 0, first, max(self._in_s, 2 * first), 0.0)
            stage.silent(0.0, frame)
        if self._out_s > 0.0:
            # The ramp ends on the last frame, which is silent.
            start = max(stage.input_seconds - self._out_s, first)
            end = max(stage.input_seconds - 0.5 * frame, start + first)
            lib.setFaderAction(handle, 0, start, end, D.FADER_FLOOR_DB)
            stage.silent(max(stage.input_seconds - frame, frame), math.inf)


class _Segment:
    """One library chain of a Chain and the work done on its input, as the
    tool does it: the average of the previous one's two channels, then a
    resampler's pass band equaliser (each when set)."""

    __slots__ = ("handle", "channels", "block", "processors", "averages", "equaliser")

    def __init__(self, handle, channels, block, averages):
        self.handle = handle
        self.channels = channels  # of its input
        self.block = block
        self.processors = 0
        self.averages = averages
        self.equaliser = None

    def staged(self, x):
        if self.averages:
            x = ((x[:, 0] + x[:, 1]) * np.float32(0.5)).reshape(-1, 1)
        if self.equaliser is not None:
            x = self.equaliser.process(x)
        return x


class _RateChange:
    __slots__ = ("src", "dst", "steady", "num", "den")

    def __init__(self, src, dst, steady, num, den):
        self.src, self.dst, self.steady, self.num, self.den = src, dst, steady, num, den

    def cycle(self):
        return self.src // math.gcd(self.src, self.dst)

    def cycle_out(self):
        return self.dst // math.gcd(self.src, self.dst)

    def alignable(self):
        return self.steady and self.cycle() <= D.CONVERTER_CHUNK

    def converted(self, n):
        # The converter's own count, in its double arithmetic (which falls
        # one short for some whole numbers of cycles).
        return int((float(n) / self.src) * self.dst)

    def whole_cycles(self, frames):
        """Blocks of `frames` reach the change as whole cycles, cut into
        chunks of whole cycles, each counted exactly."""
        if frames * self.num % self.den:
            return False
        here = frames * self.num // self.den
        q = self.cycle()
        if here == 0 or here % q or self.converted(here) != here // q * self.cycle_out():
            return False
        chunk = D.CONVERTER_CHUNK
        return here <= chunk or (chunk % q == 0 and
                                 self.converted(chunk) == chunk // q * self.cycle_out())


class _BlockChoice:
    """The block size of a chain, chosen as the dsp tool chooses it: blocks of
    whole cycles of each rate change where the rates allow, so that the
    resampler's interpolation runs on across blocks and its output has the
    exact length. When every change is served and nothing stretches (exact),
    the last block is padded with silence and the output cut at
    trunc(frames * num / den)."""

    def __init__(self, processors, rate):
        changes = []
        steady, num, den = True, 1, 1
        for p in processors:
            to = rate
            if isinstance(p, Resample):
                to = p.rate
            elif isinstance(p, Hqups):
                to = 48000  # the upsampler's rate converter
            elif isinstance(p, TimeStretch):
                steady = False
            if to != rate:
                changes.append(_RateChange(rate, to, steady, num, den))
                num, den = num * to, den * rate
                g = math.gcd(num, den)
                num, den = num // g, den // g
                rate = to
        count = sum(c.alignable() for c in changes)
        frames = 0
        while count > 0:
            frames = self._block_for(changes, count)
            if frames:
                break
            count -= 1
        self.frames = frames or D.BLOCK_FRAMES
        self.exact = (bool(changes) and count == len(changes)
                      and not any(isinstance(p, TimeStretch) for p in processors))
        self.num = self.den = 1
        if self.exact:
            last = changes[-1]
            num, den = last.num * last.dst, last.den * last.src
            g = math.gcd(num, den)
            self.num, self.den = num // g, den // g

    @staticmethod
    def _block_for(changes, count):
        """The longest block that serves the first `count` alignable changes,
        or 0."""
        for frames in range(D.BLOCK_FRAMES, D.SHORTEST_ALIGNED_BLOCK - 1, -1):
            served = 0
            for c in changes:
                if served == count or (c.alignable() and not c.whole_cycles(frames)):
                    break
                served += c.alignable()
            if served == count:
                return frames
        return 0

    def output_frames(self, frames):
        return frames // self.den * self.num + frames % self.den * self.num // self.den


class Chain:
    """Processors run in the given order through the library's chain.

    Chain(processors, block_frames=None): the block size the library runs,
    by default chosen as the dsp tool chooses it (blocks of whole rate
    cycles, and then the exact output length; 4096 frames without a rate
    change); a number fixes it. A stereo-to-mono Resample averages the two
    channels between two library chains, and a Resample's pass band
    equaliser runs between two, as the tool does. A processor may
    sit in several chains (its live parameters then change in all of them),
    but only once in one chain.
    """

    def __init__(self, processors=(), block_frames=None):
        self._processors = list(processors)
        for p in self._processors:
            if not isinstance(p, Processor):
                raise TypeError(f"Chain: {p!r} is not a dsp processor")
        if len({id(p) for p in self._processors}) != len(self._processors):
            raise ValueError("Chain: a processor appears twice; make a second one")
        self._block_setting = None if block_frames is None else _number(
            "Chain", "block_frames", block_frames, 1, 1 << 20, True)
        self._guard = Guard("this Chain")
        self._segments = []
        self._format = None  # (rate, channels) of the source
        self._choice = None
        self._stage_rates = {}  # id(processor) -> rate where it sits
        self._pending = None  # frames short of a block, (n, channels) float32
        self._frames_in = self._frames_out = 0
        self._spans = []  # (from_s, to_s, seconds there) as fades set them
        self._silent_frames = []  # the same as output frames [from, to)
        self._produced = 0  # output frames the library chains gave
        self._ndim = 2
        self._stream_rate = None

    @property
    def processors(self):
        return tuple(self._processors)

    @property
    def block_frames(self):
        """The block size of the stream in progress (None when none is)."""
        return self._segments[0].block if self._segments else None

    def __repr__(self):
        return f"Chain({self._processors!r})"

    def __getstate__(self):
        return {"processors": self._processors, "block_frames": self._block_setting}

    def __setstate__(self, state):
        self.__init__(state["processors"], state["block_frames"])

    def __del__(self):
        try:
            self._teardown()
        except Exception:  # pragma: no cover - interpreter shutdown
            pass

    def copy(self):
        """A chain of new processors with the same settings."""
        return pickle.loads(pickle.dumps(self))

    # --- whole signals
    def __call__(self, audio, rate):
        """Processes a whole signal from a fresh state; returns (out,
        out_rate), out shaped like audio ((frames,) stays 1-D while mono).
        A stream in progress on this chain is abandoned."""
        with self._guard:
            x = as_float32(audio)
            self._teardown()
            self._open(_rate(rate), x.shape[1], x.shape[0])
            try:
                whole = len(x) - len(x) % self._block()
                out = [self._send_blocks(x[:whole]), self._send_end(x[whole:])]
                out_rate = self.out_rate
            finally:
                self._teardown()
            return shaped_like(_join(out), np.ndim(audio)), out_rate

    # --- streams
    def process(self, block, rate=None, *, total_frames=None):
        """Runs one block of a stream and returns the output it completes
        (shaped like the block). The first block needs the rate (later ones
        may leave it out); a block of another rate or channel count starts a
        new stream, after flush() has ended the old one. total_frames, on
        the first block, tells the length of the whole stream (for
        Fade(out_s>0))."""
        with self._guard:
            x = as_float32(block)
            channels = x.shape[1]
            if rate is None:
                rate = self._stream_rate
                if rate is None:
                    raise ValueError("Chain.process: the first block of a stream needs the rate")
            rate = _rate(rate)
            if self._segments and self._format != (rate, channels):
                if self._pending is not None and len(self._pending):
                    raise ValueError(
                        f"Chain.process: a block of {rate} Hz, {channels} channel(s) while a "
                        f"stream of {self._format[0]} Hz, {self._format[1]} channel(s) is in "
                        "progress; call flush() to end it first")
                self._teardown()
            if not self._segments:
                self._open(rate, channels, total_frames)
                self._stream_rate = rate
            self._ndim = np.ndim(block)
            if self._pending is not None and len(self._pending):
                x = np.concatenate([self._pending, x])
            whole = len(x) - len(x) % self._block()
            out = self._send_blocks(x[:whole])
            self._pending = x[whole:].copy()
            return shaped_like(out, self._ndim)

    def flush(self):
        """Ends the stream: runs the frames short of a block and returns
        their output. The next process() starts a new stream."""
        with self._guard:
            if not self._segments:
                return shaped_like(np.zeros((0, 1), np.float32), 1)
            try:
                pending = self._pending if self._pending is not None else np.zeros(
                    (0, self._format[1]), np.float32)
                out = self._send_end(pending)
            finally:
                self._teardown()
            return shaped_like(out, self._ndim)

    def reset(self):
        """Drops the stream in progress (its state and the frames short of a
        block); the next process() starts afresh."""
        with self._guard:
            self._teardown()
            self._stream_rate = None

    @property
    def out_rate(self):
        """The output rate of the stream in progress (None when none is)."""
        return lib.dspGetDstRate(self._segments[-1].handle) if self._segments else None

    @property
    def out_channels(self):
        return lib.dspGetDstChannels(self._segments[-1].handle) if self._segments else None

    # --- the library's chains
    def _rate_at(self, processor):
        return self._stage_rates[id(processor)]

    def _block(self):
        return self._segments[0].block

    def _new_segment(self, frames, channels, rate, averages=False):
        handle = lib.dspCreate(frames, channels, rate)
        if not handle:
            raise MemoryError("dsp: out of memory creating the processing chain")
        self._segments.append(_Segment(handle, channels, frames, averages))
        return self._segments[-1]

    def _open(self, rate, channels, total_frames):
        self._choice = _BlockChoice(self._processors, rate)
        if self._block_setting is not None:
            self._choice.frames, self._choice.exact = self._block_setting, False
        self._format = (rate, channels)
        self._pending = None
        self._frames_in = self._frames_out = self._produced = 0
        self._spans = []
        try:
            self._new_segment(self._choice.frames, channels, rate)
            for order, p in enumerate(self._processors, start=1):
                seg = self._segments[-1]
                here_rate = lib.dspGetDstRate(seg.handle)
                here_channels = lib.dspGetDstChannels(seg.handle)
                # The output of a whole block, counted as the processors count it.
                block = max(1, lib.dspGetDstSamples(seg.handle, seg.block) // here_channels)
                here_seconds = self._seconds_here(total_frames)
                stage = _Stage(here_rate, here_channels, block, here_seconds,
                               lambda a, b, s=here_seconds: self._spans.append((a, b, s)))
                if p._averages(here_channels):
                    seg = self._new_segment(block, 1, here_rate, averages=True)
                    stage.channels = 1
                taps = p._equaliser(stage)
                if taps is not None:
                    if seg.processors:
                        seg = self._new_segment(block, stage.channels, here_rate)
                    seg.equaliser = _equaliser.Equaliser(taps, stage.channels)
                made, term = p._make(stage)
                if not made:
                    raise MemoryError(f"{p!r}: the library could not create the processor for "
                                      f"{stage.rate} Hz, {stage.channels} channel(s)")
                if lib.dspAdd(seg.handle, made, order) != seg.processors + 1:
                    term(made)
                    raise RuntimeError(f"{p!r}: the chain refused the processor")
                seg.processors += 1
                self._stage_rates[id(p)] = stage.rate
                p._bind(self, made)
                p._added(made, stage)
            self._place_silence(self._seconds_here(total_frames))
        except BaseException:
            self._teardown()
            raise

    def _place_silence(self, seconds):
        # A span's seconds scale with the length of the whole input from
        # where it was set to the end of the chain (the tool's rule).
        self._silent_frames = []
        rate = self.out_rate
        for a, b, there in self._spans:
            scale = seconds / there if there and seconds is not None else 1.0
            lo = float(np.rint(a * scale * rate))
            hi = max(float(np.rint(min(b * scale * rate, 1e18))), lo + 1.0)
            self._silent_frames.append((int(lo), int(hi)))

    def _seconds_here(self, total_frames):
        # The length of the whole input as it reaches the chain's current
        # end (the tool's rule), None when unknown.
        if total_frames is None:
            return None
        frames = int(total_frames)
        for seg in self._segments:
            in_bytes = frames * 2 * seg.channels
            here = lib.dspGetDstSize(seg.handle, in_bytes) if in_bytes <= 0xFFFFFFFF else in_bytes
            frames = here // (2 * seg.channels)
        return frames / self.out_rate

    def _send_blocks(self, x):
        """Whole blocks through the chain; their output, cut at the exact
        length when the block choice is exact."""
        if not len(x):
            return np.zeros((0, self.out_channels), np.float32)
        if len(self._segments) == 1:
            out = self._send_one(self._segments[0], self._segments[0].staged(x))
        else:  # block by block, as the tool hands the next chain each block's output
            block = self._block()
            out = _join([self._send_through(x[at:at + block])
                         for at in range(0, len(x), block)])
        return self._keep(len(x), out)

    def _send_end(self, rest):
        """The frames short of a block at the end of the stream: padded to a
        whole block when the choice is exact, else sent as they are."""
        if not len(rest):
            return np.zeros((0, self.out_channels), np.float32)
        if self._choice.exact:
            padded = np.zeros((self._block(), rest.shape[1]), np.float32)
            padded[:len(rest)] = rest
            return self._keep(len(rest), self._send_through(padded))
        return self._keep(len(rest), self._send_through(rest))

    def _keep(self, frames_in, out):
        at = self._produced
        self._produced += len(out)
        for lo, hi in self._silent_frames:
            if lo < at + len(out) and hi > at:
                out[max(lo - at, 0):min(hi - at, len(out))] = 0.0
        self._frames_in += frames_in
        if self._choice.exact:
            owed = self._choice.output_frames(self._frames_in) - self._frames_out
            out = out[:max(0, owed)]
        self._frames_out += len(out)
        return out

    def _send_through(self, x):
        """One block through every segment, each after the work on its input."""
        for seg in self._segments:
            x = self._send_one(seg, seg.staged(x))
        return x

    @staticmethod
    def _send_one(seg, x):
        """x through one library chain; the output as one (frames, channels)
        float32 array, written in place piece by piece."""
        handle = seg.handle
        out_channels = lib.dspGetDstChannels(handle)
        step = max(seg.block, _CALL_FRAMES - _CALL_FRAMES % seg.block)
        starts = range(0, len(x), step)
        rooms = [lib.dspGetDstSamples(handle, min(step, len(x) - at)) for at in starts]
        out = np.empty(sum(rooms), np.float32)
        written = 0
        for at, room in zip(starts, rooms):
            src = np.ascontiguousarray(x[at:at + step])
            dst = out[written:written + room]
            got = lib.dspSendFloat(handle, _pointer(src), _pointer(dst), len(src))
            if got * out_channels > room:  # pragma: no cover - the library's promise
                raise RuntimeError("dsp: the library wrote past the room it promised")
            written += got * out_channels
        return out[:written].reshape(-1, out_channels)

    def _teardown(self):
        segments, self._segments = self._segments, []
        self._pending = None
        if segments:
            for p in self._processors:
                p._unbind(self)
            self._stage_rates.clear()
            for seg in segments:
                lib.dspDestroy(seg.handle)


def _join(parts):
    parts = [p for p in parts if len(p)] or parts[:1]
    return parts[0] if len(parts) == 1 else np.concatenate(parts)


def _rate(rate):
    if isinstance(rate, bool) or not isinstance(rate, (int, np.integer)) or not (
            1 <= rate <= 0xFFFFFFFF):
        if isinstance(rate, float) and rate.is_integer() and rate >= 1:
            return int(rate)
        raise ValueError(f"rate must be a whole number of Hz, not {rate!r}")
    return int(rate)
