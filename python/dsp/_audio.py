"""Audio arrays: what the package accepts and how other dtypes convert.

Audio is a numpy array shaped (frames,) (mono) or (frames, channels) with one
or two channels, in float32 at full scale 1.0. Other dtypes are converted:
integer samples s of b bits become s / (2^(b-1) - 1), as the library reads
16-bit samples (s / 32767); uint8 samples are unsigned with 128 as zero;
float64 and float16 are cast. The package always works on its own
C-contiguous copy or view, never on the caller's memory layout.
"""

import threading

import numpy as np

# Full scale of each integer dtype the package converts.
_INTEGER_SCALE = {np.dtype(np.int8): 127.0, np.dtype(np.int16): 32767.0}


def frames_channels(audio):
    """(frames, channels) of an array, or ValueError naming its shape."""
    shape = np.shape(audio)
    if len(shape) == 1:
        return shape[0], 1
    if len(shape) == 2 and shape[1] in (1, 2):
        return shape[0], shape[1]
    hint = ""
    if len(shape) == 2 and shape[0] in (1, 2) and shape[1] > 2:
        hint = " (a (channels, frames) array? pass its transpose, audio.T)"
    raise ValueError(
        f"audio of shape {shape}: expected (frames,) or (frames, channels) with 1 or 2 "
        f"channels{hint}"
    )


def as_float32(audio):
    """The audio as a C-contiguous float32 array of shape (frames, channels)."""
    array = np.asarray(audio)
    frames, channels = frames_channels(array)
    dtype = array.dtype
    if dtype == np.float32:
        out = array
    elif dtype == np.int32:
        wide = array.astype(np.float64)
        wide *= 1.0 / 2147483647.0
        out = wide.astype(np.float32)
    elif dtype in _INTEGER_SCALE or dtype == np.uint8:
        # Samples of up to 24 bits are exact in float32 and their scale is
        # odd: one correctly rounded division gives exactly the float of the
        # double-precision rule float(s * (1 / scale)) (checked for every
        # 8, 16 and 24-bit value).
        out = array.astype(np.float32)
        if dtype == np.uint8:
            out -= np.float32(128.0)
        out /= np.float32(_INTEGER_SCALE.get(dtype, 127.0))
    elif dtype.kind == "f":
        out = array.astype(np.float32)
    else:
        raise TypeError(
            f"audio of dtype {dtype}: expected float32 (full scale 1.0), another float type, "
            "int8, int16, int32 or uint8"
        )
    return np.ascontiguousarray(out.reshape(frames, channels))


def to_int16(audio):
    """The library's 16-bit samples of audio: int16 arrays as they are, any
    other by its rule (clamped to [-1, 1], NaN as 1, times 32767,
    truncated); shape (frames, channels)."""
    array = np.asarray(audio)
    frames, channels = frames_channels(array)
    if array.dtype == np.int16:
        return np.ascontiguousarray(array.reshape(frames, channels))
    x = as_float32(array).astype(np.float64)
    x = np.where(np.isnan(x), 1.0, np.clip(x, -1.0, 1.0))
    return np.trunc(x * 32767.0).astype(np.int16)


def shaped_like(out, audio_ndim):
    """A (frames, channels) result in the caller's layout: (frames,) for a
    mono 1-D input (only while it stays mono)."""
    if audio_ndim == 1 and out.shape[1] == 1:
        return out.reshape(-1)
    return out


class Guard:
    """A lock that refuses instead of waiting: an object used by two threads
    at once raises RuntimeError rather than corrupting the library's state."""

    __slots__ = ("_lock", "_what")

    def __init__(self, what):
        self._lock = threading.Lock()
        self._what = what

    def __enter__(self):
        if not self._lock.acquire(blocking=False):
            raise RuntimeError(
                f"{self._what} is in use by another thread; objects of the dsp package may "
                "not be used by two threads at once (give each thread its own)"
            )
        return self

    def __exit__(self, *exc):
        self._lock.release()
        return False
