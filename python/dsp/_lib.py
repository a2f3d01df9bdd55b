"""Loading libdsp and declaring the C functions the package calls.

The library is found, in this order, at
  1. the path in the environment variable DSP_LIBRARY,
  2. beside this package (an installed package carries its own copy),
  3. the build tree of a source checkout (build*/lib under the repository
     that holds this package),
  4. wherever the system's loader finds libdsp.so.0 (an installed library).
The first that loads is used; when none does, ImportError names every place
tried and why it failed. A library named by DSP_LIBRARY is the only one
tried: when it does not load, nothing else is taken in its place.

Every function is called through ctypes.CDLL, which releases the GIL for the
duration of each call: chains in separate threads run in parallel.
"""

import ctypes
import ctypes.util
import glob
import os
import sys
from ctypes import POINTER, c_char_p, c_float, c_int16, c_int32, c_uint8, c_uint32, c_void_p

if sys.platform == "win32":
    _NAMES = ("dsp.dll",)
elif sys.platform == "darwin":
    _NAMES = ("libdsp.0.dylib", "libdsp.dylib")
else:
    _NAMES = ("libdsp.so.0",)

_HERE = os.path.dirname(os.path.abspath(__file__))


def _candidates():
    """(label, path or name) pairs in the order they are tried."""
    env = os.environ.get("DSP_LIBRARY")
    if env:
        yield "DSP_LIBRARY", env
    for name in _NAMES:
        yield "beside the package", os.path.join(_HERE, name)
    repo = os.path.dirname(os.path.dirname(_HERE))
    if os.path.isfile(os.path.join(repo, "include", "dsp.h")):
        for build in sorted(glob.glob(os.path.join(repo, "build*"))):
            for sub in ("lib", "bin"):
                for name in _NAMES:
                    yield "build tree", os.path.join(build, sub, name)
    for name in _NAMES:
        yield "system loader", name
    found = ctypes.util.find_library("dsp")
    if found:
        yield "system loader", found


class SliceRecord(ctypes.Structure):
    pass


SliceRecord._fields_ = [
    ("next", POINTER(SliceRecord)),
    ("prev", POINTER(SliceRecord)),
    ("startSeconds", c_float),
    ("endSeconds", c_float),
]


class WavefileFormat(ctypes.Structure):
    _pack_ = 2
    _fields_ = [
        ("formatTag", ctypes.c_uint16),
        ("channels", ctypes.c_uint16),
        ("samplesPerSecond", c_uint32),
        ("avgBytesPerSecond", c_uint32),
        ("blockAlign", ctypes.c_uint16),
        ("bitsPerSample", ctypes.c_uint16),
        ("extraSize", ctypes.c_uint16),
    ]


class WavefileHeader(ctypes.Structure):
    _pack_ = 2
    _fields_ = [
        ("buffer", POINTER(c_uint8)),
        ("dataBytes", c_uint32),
        ("bytesRead", c_uint32),
        ("reserved12", c_uint32),
        ("reserved16", c_uint32),
        ("reserved20", c_uint32),
        ("reserved24", c_uint8 * 10),
        ("seconds", c_float),
    ]


_F = POINTER(c_float)
_S = POINTER(c_int16)
_u, _f, _p = c_uint32, c_float, c_void_p

# name: (result type, argument types)
_PROTOTYPES = {
    "dspCreate": (_p, [_u, _u, _u]),
    "dspAdd": (_u, [_p, _p, _u]),
    "dspSend": (_u, [_p, _S, _S, _u]),
    "dspSendFloat": (_u, [_p, _F, _F, _u]),
    "dspGetDstSamples": (_u, [_p, _u]),
    "dspGetDstSize": (_u, [_p, _u]),
    "dspGetDstRate": (_u, [_p]),
    "dspGetDstChannels": (_u, [_p]),
    "dspGetHandle": (_p, [_p, _u]),
    "dspClear": (None, [_p]),
    "dspDestroy": (None, [_p]),
    "dspGetVersion": (c_char_p, []),
    "initIirFilter": (_p, [_u, _u, _u, _u, _f, _u]),
    "termIirFilter": (_u, [_p]),
    "initFader": (_p, [_u, _u, _u, _f, _f, _f]),
    "setFaderAction": (_u, [_p, _u, _f, _f, _f]),
    "termFader": (_u, [_p]),
    "initChorus": (_p, [_u, _u, _u, _u, _f, _f, _f, _f, _f]),
    "setChorusOrgMix": (_u, [_p, _f]),
    "setChorusMix": (_u, [_p, _u, _f]),
    "setChorusSpeed": (_u, [_p, _f]),
    "setChorusDepth": (_u, [_p, _f]),
    "setChorusDelaytime": (_u, [_p, _f]),
    "termChorus": (_u, [_p]),
    "initResampler": (_p, [_u, _u, _u, _u, _u, _u, _f, _f, c_uint8]),
    "termResampler": (_u, [_p]),
    "initHqupsBySrcsize": (_p, [_u, _u, _u, _u, _f, _f, _u, _u, _f, _f, _u, c_uint8]),
    "setHqupsHarmonics": (_u, [_p, _f]),
    "setHqupsMix": (_u, [_p, _f]),
    "setHqupsActiveMode": (_u, [_p, _u]),
    "termHqups": (_u, [_p]),
    "initPitchShift": (_p, [_u, _u, _u, _f, _f, _f, _f]),
    "setPitchShiftPitch": (_u, [_p, _f]),
    "setPitchShiftOutLevel": (_u, [_p, _f]),
    "termPitchShift": (_u, [_p]),
    "initStretch": (_p, [_u, _u, _u, _f, _f, _f, _f]),
    "setStretchScale": (_u, [_p, _f]),
    "setStretchOutLevel": (_u, [_p, _f]),
    "termStretch": (_u, [_p]),
    "initWaveSlice": (_p, [_u, _u, _u, _f, _f, _f, _f]),
    "doWaveSlice": (_u, [_p, _S, _u]),
    "getWaveSlice": (POINTER(SliceRecord), [_p, _u]),
    "termWaveSlice": (_u, [_p]),
    "initFft": (_p, [_u, _u, _u, _u]),
    "initFftAnalyze": (_p, [_u, _u, _u, _u]),
    "initEnvAnalyze": (_p, [_u, _u, _u]),
    "doFft": (_u, [_p, _S, _F, _u]),
    "doFftAnalyze": (_u, [_p, _S, _F, _u]),
    "doEnvAnalyze": (_u, [_p, _S, _F, _u]),
    "termFft": (_u, [_p]),
    "termFftAnalyze": (_u, [_p]),
    "termEnvAnalyze": (_u, [_p]),
    "initWavefileIn": (_p, [c_char_p, _u]),
    "readWavefileIn": (c_int32, [_p, POINTER(c_uint8), _u]),
    "getHeaderWavefileIn": (POINTER(WavefileHeader), [_p]),
    "getFormatWavefileIn": (POINTER(WavefileFormat), [_p]),
    "termWavefileIn": (None, [_p]),
    "initWavefileOut": (_p, [c_char_p, POINTER(WavefileFormat)]),
    "writeWavefileOut": (c_int32, [_p, c_void_p, c_int32]),
    "termWavefileOut": (_u, [_p]),
}


def _declare(library):
    for name, (result, args) in _PROTOTYPES.items():
        function = getattr(library, name)  # AttributeError: not this library
        function.restype = result
        function.argtypes = args
    return library


def load():
    """The loaded library (ctypes.CDLL) and the path it came from."""
    tried = []
    for label, where in _candidates():
        if tried and tried[0].startswith("DSP_LIBRARY"):
            break  # a library named explicitly is the only one tried
        if os.path.isabs(where) and not os.path.exists(where):
            tried.append(f"{label}: {where} (no such file)")
            continue
        try:
            library = ctypes.CDLL(where)
        except OSError as error:
            tried.append(f"{label}: {where} ({error})")
            continue
        try:
            _declare(library)
        except AttributeError as error:
            tried.append(f"{label}: {where} (not this library or too old: {error})")
            continue
        path = where
        if not os.path.isabs(where):
            path = _loaded_path(library, where)
        return library, path
    raise ImportError(
        "dsp: cannot load the dsp library (libdsp); set DSP_LIBRARY to its path. Tried:\n  "
        + "\n  ".join(tried)
    )


def _loaded_path(library, name):
    """The file the system loader chose for `name` (Linux), else the name."""
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            for line in maps:
                if line.rstrip().endswith("/" + name) or name in line.rsplit("/", 1)[-1]:
                    return line.split(None, 5)[-1].strip()
    except OSError:
        pass
    return name


lib, path = load()
version = lib.dspGetVersion().decode("ascii")
