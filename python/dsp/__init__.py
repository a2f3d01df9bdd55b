"""dsp: audio processing on numpy arrays through the dsp library.

Audio is a numpy float32 array shaped (frames,) or (frames, channels) with
one or two channels, full scale 1.0; other dtypes are converted (int16 by
s / 32767, the library's own scale). See dsp.processors for processors and
chains, dsp.files for reading and writing, dsp.analysis for spectra,
envelopes and slices, dsp.batch for many files at once.

Every call into the library releases the GIL. No object of this package may
be used by two threads at once; doing so raises RuntimeError.
"""

from ._audio import as_float32, to_int16
from ._lib import path as library_path
from ._lib import version as library_version
from .processors import (Chain, Chorus, Fade, Gain, HighPass, Hqups, LowPass, PitchShift,
                         Processor, Resample, TimeStretch)

__version__ = "0.2.0"

__all__ = [
    "Chain", "Chorus", "Fade", "Gain", "HighPass", "Hqups", "LowPass", "PitchShift", "Processor",
    "Resample", "TimeStretch", "as_float32", "to_int16", "library_path", "library_version",
]
