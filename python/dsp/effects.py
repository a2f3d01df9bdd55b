"""The dsp tool's effect words (`resample 48000 chorus 4 ...`) as processors:
the same effect names, the same arguments and checks, the same messages."""

import math

from . import _defaults as D
from .processors import (Chain, Chorus, Fade, Gain, HighPass, Hqups, LowPass, PitchShift,
                         Resample, TimeStretch)


class UsageError(ValueError):
    """Effect words that do not parse: one line, as the tool words it."""


def read_number(word):
    """The word as a number as the tool reads one (the whole word, leading
    blanks allowed), or None."""
    if not word or word != word.rstrip() or "_" in word:
        return None
    try:
        return float(word)
    except ValueError:
        pass
    try:
        return float.fromhex(word)
    except ValueError:
        return None


class _Args:
    """An effect's words: positional ones, and options "--NAME VALUE" among
    them."""

    def __init__(self, name, words):
        self.name = name
        self.usage = D.USAGE[name]
        self.words = []
        self.options = []  # [name, value, read]
        i = 0
        while i < len(words):
            word = words[i]
            if len(word) > 2 and word.startswith("--"):
                if i + 1 >= len(words):
                    self.refuse(f"{word} needs a value")
                self.options.append([word, words[i + 1], False])
                i += 1
            else:
                self.words.append(word)
            i += 1

    def fail(self, problem):
        raise UsageError(f"{self.name}: {problem}")

    def refuse(self, problem):
        self.fail(f"{problem}; usage: {self.usage}")

    def require(self, lo, hi):
        if len(self.words) < lo:
            self.refuse("missing argument")
        if len(self.words) > hi:
            self.refuse(f"too many arguments ('{self.words[hi]}')")

    def number(self, index, what, lo, hi, whole=False):
        return self.number_in(self.words[index], what, lo, hi, whole)

    def option(self, name, default, lo, hi):
        """The value of option `name` as a number within [lo, hi]; default
        when it is not given."""
        v = default
        for option in self.options:
            if option[0] == name:
                v = self.number_in(option[1], name, lo, hi)
                option[2] = True
        return v

    def require_options_read(self):
        for name, _, read in self.options:
            if not read:
                self.refuse(f"unknown option '{name}'")

    def number_in(self, word, what, lo, hi, whole=False):
        v = read_number(word)
        if v is None or not math.isfinite(v):
            self.fail(f"{what} must be a number, not '{word}'")
        if v < lo or v > hi:
            self.fail(f"{what} must be between {lo:g} and {hi:g}, not {word}")
        if whole and v != math.floor(v):
            self.fail(f"{what} must be a whole number, not {word}")
        return v

    def keyword(self, index, keyword, effect=None, whole=False):
        lo, hi = D.limits(effect or self.name, keyword)
        return self.number(index, D.WORDS[keyword], lo, hi, whole)


def _filter(a):
    a.require(2, 2)
    kind = HighPass if a.name == "highpass" else LowPass
    return kind(int(a.keyword(0, "order", whole=True)), a.keyword(1, "cutoff"))


def _resample(a):
    a.require(1, 3)
    rate = int(a.keyword(0, "rate", whole=True))
    settings = {}
    for word in a.words[1:]:
        if word in ("linear", "cubic"):
            settings["interpolation"] = word
        elif word in ("mono", "stereo"):
            settings["channels"] = word
        else:
            a.refuse(f"unknown option '{word}'")
    settings["passband"] = a.option("--passband", D.PASSBAND_FRACTION, *D.PASSBAND_LIMITS)
    return Resample(rate, **settings)


def _hqups(a):
    a.require(0, 3)
    numbers = ["harmonics", "mix"]  # in this order, "active" anywhere
    settings = {}
    for i, word in enumerate(a.words):
        if word == "active":
            settings["active"] = True
        elif numbers:
            keyword = numbers.pop(0)
            settings[keyword] = a.keyword(i, keyword)
        else:
            a.refuse("too many numbers")
    return Hqups(**settings)


def _chorus(a):
    a.require(0, 6)
    order = ["voices", "delay_ms", "depth_ms", "period_s", "mix", "dry"]
    settings = {}
    for i in range(len(a.words)):
        keyword = order[i]
        v = a.keyword(i, keyword, whole=keyword == "voices")
        settings[keyword] = int(v) if keyword == "voices" else v
    try:
        return Chorus(**settings)
    except ValueError as error:  # the sweep's checks, in the tool's words
        message = str(error).replace("depth_ms", "DEPTH_MS").replace("delay_ms", "DELAY_MS")
        raise UsageError(message) from None


def _one(a, keyword, effect=None):
    a.require(1, 1)
    return a.keyword(0, keyword, effect)


def _granular(a, grain, spacing):
    """The grain settings of pitch, stretch and tempo (--grain, --spacing)."""
    settings = {"grain_s": a.option("--grain", grain, *D.GRAIN_LIMITS),
                "spacing_s": a.option("--spacing", spacing, *D.SPACING_LIMITS)}
    if settings["spacing_s"] > settings["grain_s"]:
        a.refuse("--spacing must not exceed --grain")
    return settings


_PARSERS = {
    "lowpass": _filter,
    "highpass": _filter,
    "resample": _resample,
    "hqups": _hqups,
    "chorus": _chorus,
    "pitch": lambda a: PitchShift(
        _one(a, "cents"), **_granular(a, D.PITCH_GRAIN_SECONDS, D.PITCH_SPACING_SECONDS)),
    "stretch": lambda a: TimeStretch(
        _one(a, "scale"), **_granular(a, D.STRETCH_GRAIN_SECONDS, D.STRETCH_SPACING_SECONDS)),
    "tempo": lambda a: TimeStretch(
        tempo=_one(a, "factor"),
        **_granular(a, D.STRETCH_GRAIN_SECONDS, D.STRETCH_SPACING_SECONDS)),
    "gain": lambda a: Gain(_one(a, "db")),
    "fade": None,  # below
}


def _fade(a):
    a.require(1, 2)
    in_s = a.keyword(0, "in_s")
    out_s = a.keyword(1, "out_s") if len(a.words) > 1 else in_s
    return Fade(in_s, out_s)


_PARSERS["fade"] = _fade


def parse_effects(words):
    """The processors of the tool's effect words, in order; UsageError for
    an unknown effect or malformed arguments."""
    groups = []
    for word in words:
        if word in _PARSERS:
            groups.append((word, []))
        elif not groups:
            if read_number(word) is not None:
                raise UsageError(f"'{word}' does not follow an effect")
            raise UsageError(f"unknown effect '{word}' (see dsp --help)")
        else:
            groups[-1][1].append(word)
    processors = []
    for name, args in groups:
        a = _Args(name, args)
        processors.append(_PARSERS[name](a))
        a.require_options_read()
    return processors


def chain_from_words(words, block_frames=None):
    """A Chain of the tool's effect words (its block size chosen as the tool
    chooses it unless given)."""
    return Chain(parse_effects(words), block_frames)


def effects_help():
    return "\n".join(f"  {usage}" for usage in D.USAGE.values())
