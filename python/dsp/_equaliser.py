"""The resampler's pass band equaliser, as the dsp tool runs it
(tools/passband_equaliser.cpp): a short minimum-phase FIR on the source side
of the library's converter whose response is the inverse of the converter's
interpolation up to the pass band edge. The design repeats the tool's step
for step, in the same order, in double precision, and the filter runs in
float32 with its sums in the tool's order: the samples are the tool's, bit
for bit.
"""

import functools
import math

import numpy as np

from . import _defaults as D


def kernel_response(cubic, nu):
    """The interpolation kernel's Fourier transform at nu (frequency over
    the source rate), 1 at 0."""
    if cubic:
        w = 2.0 * math.pi * abs(nu)
        if w < 0.05:
            w2 = w * w
            return 1.0 + w2 * (1.0 / 15.0 + w2 * (-3.0 / 112.0 + w2 * (43.0 / 18900.0)))
        return (4.0 * (math.sin(w) + math.sin(2.0 * w)) / (w * w * w)
                + 12.0 * (1.0 - 2.0 * math.cos(w) + math.cos(2.0 * w)) / (w * w * w * w))
    if nu == 0.0:
        return 1.0
    x = math.pi * abs(nu)
    s = math.sin(x) / x
    return s * s


def _weight(cubic, u):
    if cubic:
        if u < 1.0:
            return 1.0 - 2.0 * u * u + u * u * u
        if u < 2.0:
            return 4.0 - 8.0 * u + 5.0 * u * u - u * u * u
        return 0.0
    return 1.0 - u if u < 1.0 else 0.0


def interpolation_response(cubic, phases, nu):
    """The converter's response at nu when its output falls on `phases`
    evenly spaced positions per source frame."""
    if phases > D.EQUALISER_EXACT_PHASES:
        return kernel_response(cubic, nu)
    acc = 1.0
    for k in range(1, 2 * phases):
        u = k / phases
        acc += 2.0 * _weight(cubic, u) * math.cos(2.0 * math.pi * nu * u)
    return acc / phases


@functools.lru_cache(maxsize=64)
def taps(cubic, phases, edge):
    """The equaliser's taps (float32) for the interpolation, its phases and
    the pass band edge (frequency over the source rate)."""
    n = D.EQUALISER_GRID
    half = n // 2

    def log_gain(nu):
        return -math.log(interpolation_response(cubic, phases, nu))

    step = 1e-4
    at_edge = log_gain(edge)
    slope = (log_gain(edge + step) - log_gain(edge - step)) / (2.0 * step)
    span = 0.5 - edge
    level = []
    for k in range(half + 1):
        nu = k / n
        if nu <= edge:
            level.append(log_gain(nu))
        else:
            x = nu - edge
            level.append(at_edge + slope * x - slope * x * x / (2.0 * span))
    cosines = [math.cos(2.0 * math.pi * j / n) for j in range(n)]
    sines = [math.sin(2.0 * math.pi * j / n) for j in range(n)]
    cepstrum = []
    for q in range(half):
        acc = level[0] + (level[half] if q % 2 == 0 else -level[half])
        for k in range(1, half):
            acc += 2.0 * level[k] * cosines[k * q % n]
        cepstrum.append(acc / n)
    re, im = [], []
    for k in range(half + 1):
        acc = 0.0
        for q in range(1, half):
            acc += cepstrum[q] * sines[k * q % n]
        gain = math.exp(level[k])
        phase = -2.0 * acc
        re.append(gain * math.cos(phase))
        im.append(gain * math.sin(phase))
    h = []
    total = 0.0
    for m in range(D.EQUALISER_TAPS):
        acc = re[0] + (re[half] if m % 2 == 0 else -re[half])
        for k in range(1, half):
            acc += 2.0 * (re[k] * cosines[k * m % n] - im[k] * sines[k * m % n])
        h.append(acc / n)
        total += h[-1]
    result = np.array([v / total for v in h], np.float32)
    result.flags.writeable = False
    return result


# Frames filtered at a time: the sums stay in the cache.
_PIECE = 32768


class Equaliser:
    """The FIR on (frames, channels) float32 blocks, its history kept."""

    __slots__ = ("_taps", "_history")

    def __init__(self, taps_, channels):
        self._taps = taps_
        self._history = np.zeros((len(taps_) - 1, channels), np.float32)

    def process(self, x):
        held = len(self._history)
        w = np.concatenate([self._history, x])
        out = np.empty(w[held:].shape, np.float32)
        term = np.empty((min(_PIECE, len(out)),) + out.shape[1:], np.float32)
        # out[i] = taps[0] x[i] + taps[1] x[i - 1] + ..., each product and
        # each sum rounded to float32, in that order (the tool's).
        for at in range(0, len(out), _PIECE):
            acc = out[at:at + _PIECE]
            m = len(acc)
            np.multiply(w[held + at:held + at + m], self._taps[0], out=acc)
            for k in range(1, held + 1):
                np.multiply(w[held + at - k:held + at - k + m], self._taps[k], out=term[:m])
                acc += term[:m]
        self._history = w[len(w) - held:].copy()
        return out
