"""dsp: audio processing on numpy arrays through the dsp library.

    import dsp
    audio, rate = dsp.read("song.wav")
    chain = dsp.Chain([dsp.Resample(48000), dsp.LowPass(order=4, cutoff=16000), dsp.Chorus()])
    out, out_rate = chain(audio, rate)
    dsp.write("out.wav", out, out_rate, bits=24)
    freqs, db = dsp.spectrum(out, out_rate, size=8192)

Audio is a numpy float32 array shaped (frames,) or (frames, channels) with
one or two channels, full scale 1.0; other dtypes are converted (int16 by
s / 32767, the library's own scale). Modules: dsp.processors (processors
and chains), dsp.files (WAVE reading and writing), dsp.analysis (spectra,
envelopes, slices), dsp.batching (many files on a cluster or local
processes), dsp.effects (the dsp tool's effect words).

Threads: every call into the library releases the GIL, so independent
chains in separate threads run in parallel. No object of this package may
be used by two threads at once: a chain or processor used by a second
thread while the first is in it raises RuntimeError. The library's shared
memory pool locks itself, so creating and destroying objects in several
threads at once is safe.
"""

from ._audio import as_float32, to_int16
from ._lib import path as library_path
from ._lib import version as library_version
from .analysis import envelope, slices, spectrogram, spectrum
from .batching import Result, batch
from .effects import UsageError, chain_from_words, parse_effects
from .files import Info, WaveError, read, read_info, write
from .processors import (Chain, Chorus, Fade, Gain, HighPass, Hqups, LowPass, PitchShift,
                         Processor, Resample, TimeStretch)

__version__ = "0.2.0"

__all__ = [
    "Chain", "Chorus", "Fade", "Gain", "HighPass", "Hqups", "Info", "LowPass", "PitchShift",
    "Processor", "Resample", "Result", "TimeStretch", "UsageError", "WaveError", "as_float32",
    "batch", "chain_from_words", "envelope", "library_path", "library_version", "parse_effects",
    "read", "read_info", "slices", "spectrogram", "spectrum", "to_int16", "write",
]
