"""Reading and writing WAVE files with the dsp tool's formats and rules.

Formats: PCM 8-bit unsigned, 16, 24 and 32-bit, IEEE float 32 and 64-bit,
plain or WAVE_FORMAT_EXTENSIBLE, RIFF or RF64 (read; written as RF64 when a
file passes 4 GiB), streams of unknown length (read to their end). Plain
16-bit PCM goes through the library's own WAVE reader and writer; the other
encodings through the package's codec below, which follows the tool's (the
same checks, the same messages, the same header layout).

Samples become floats by s / (2^(bits-1) - 1) (8-bit: (s - 128) / 127), as
the library reads 16-bit samples; floats become integers by rounding to the
nearest, clamped (NaN as full scale), optionally after TPDF dither.

Safe writes, as the tool's: a regular file is written to a temporary beside
it and put in place by one rename when complete, keeping the old file's
permission bits (and owner and group where allowed); a symbolic link is
followed and its target replaced (a dangling one is refused); devices, FIFOs
and sockets are written directly (the whole array being known, their header
holds the final sizes too, where the tool, streaming, can only mark them
unknown); an output that is one of `inputs` (same device and inode) is
refused.
"""

import collections
import ctypes
import os
import stat
import struct
import sys
import tempfile

import numpy as np

from ._audio import as_float32, frames_channels
from ._lib import WavefileFormat, lib

_UNKNOWN32 = 0xFFFFFFFF
_STREAM_PLACEHOLDER = 0x7FFF0000
_GUID_TAIL = bytes([0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71])
_DS64_BYTES = 28
# Most bytes handed to one library read or write call.
_LIBRARY_CALL_BYTES = 1 << 26


class WaveError(ValueError):
    """A file that is not a WAVE file the package reads: one line naming the
    file and the field at fault."""


# The encodings, by the words of write(bits=...): (bytes per sample, float?).
_ENCODINGS = {8: (1, False), 16: (2, False), 24: (3, False), 32: (4, False),
              "float": (4, True), "double": (8, True)}

Info = collections.namedtuple("Info", "rate channels frames bits extensible rf64 length_known")
Info.__doc__ = """What read_info reports: bits is 8, 16, 24, 32, "float" or "double" (the
words write() takes); frames is 0 when the length is unknown (a stream)."""


def _encoding_key(bits):
    if bits == 64:
        return "double"
    if isinstance(bits, str):
        bits = bits.lower()
        if bits.isdigit():
            bits = int(bits)
    if bits not in _ENCODINGS:
        raise ValueError(f"bits must be 8, 16, 24, 32, 'float' or 'double' (64), not {bits!r}")
    return bits


# --- reading

class _Reader:
    """The header of a WAVE file up to its first sample, from any binary
    file object read sequentially."""

    def __init__(self, f, name):
        self.f = f
        self.name = name
        self.haveFormat = False
        self.extensible = False
        self.rf64 = False
        head = self._read(12)
        if len(head) != 12 or head[:4] not in (b"RIFF", b"RF64") or head[8:12] != b"WAVE":
            self.fail("not a RIFF WAVE file")
        self.rf64 = head[:4] == b"RF64"
        riff_size = struct.unpack_from("<I", head, 4)[0]
        ds64_data = 0
        if self.rf64:
            chunk = self._exact(8, "the ds64 chunk")
            if chunk[:4] != b"ds64":
                self.fail(f"RF64 file without a ds64 chunk (the first chunk is "
                          f"'{_printable(chunk[:4])}')")
            size = struct.unpack_from("<I", chunk, 4)[0]
            if size < 28:
                self.fail(f"ds64 chunk: size {size} is too small (at least 28)")
            body = self._exact(28, "the ds64 chunk")
            ds64_data = struct.unpack_from("<Q", body, 8)[0]
            self._skip(size - 28 + (size & 1))
        while True:
            chunk = self._read(8)
            if len(chunk) < 8:
                self.fail("no data chunk" if self.haveFormat else "no fmt chunk")
            cid = chunk[:4]
            size = struct.unpack_from("<I", chunk, 4)[0]
            if cid == b"fmt ":
                if self.haveFormat:
                    self.fail("a second fmt chunk")
                if size < 16:
                    self.fail(f"fmt chunk: size {size} is too small (at least 16)")
                if size > 65536:
                    self.fail(f"fmt chunk: size {size} is implausible")
                body = self._exact(size, "the fmt chunk")
                self._skip(size & 1)
                self._parse_format(body)
            elif cid == b"data":
                if not self.haveFormat:
                    self.fail("the data chunk comes before the fmt chunk")
                nbytes = ds64_data if self.rf64 and size == _UNKNOWN32 else size
                seekable = _seekable(f)
                self.length_known = not (
                    nbytes == 0xFFFFFFFFFFFFFFFF or (not self.rf64 and size == _UNKNOWN32)
                    or (size == 0 and riff_size in (0, _UNKNOWN32))
                    or (not self.rf64 and not seekable and size >= _STREAM_PLACEHOLDER))
                self.data_bytes = nbytes if self.length_known else 0
                self.frames = self.data_bytes // self.frame_bytes if self.length_known else 0
                self.data_size_field = size
                return
            else:
                self._skip(size + (size & 1))

    def fail(self, problem):
        raise WaveError(f"'{self.name}': {problem}")

    def _read(self, n):
        out = bytearray()
        while len(out) < n:
            got = self.f.read(n - len(out))
            if not got:
                break
            out += got
        return bytes(out)

    def _exact(self, n, where):
        data = self._read(n)
        if len(data) != n:
            self.fail(f"the file ends inside {where}")
        return data

    def _skip(self, n):
        if n <= 0:
            return
        if _seekable(self.f):
            self.f.seek(n, os.SEEK_CUR)
            return
        while n > 0:
            got = self.f.read(min(n, 1 << 16))
            if not got:
                return
            n -= len(got)

    def _parse_format(self, b):
        tag, channels, rate, _, block_align, bits = struct.unpack_from("<HHIIHH", b, 0)
        if tag == 0xFFFE:
            extra = struct.unpack_from("<H", b, 16)[0] if len(b) >= 18 else 0
            if len(b) < 40 or extra < 22:
                have = len(b) - 18 if len(b) >= 18 else 0
                self.fail(f"fmt chunk: an extensible format needs 22 extra bytes, the chunk has "
                          f"{have} (extra size {extra})")
            sub = struct.unpack_from("<H", b, 24)[0]
            if sub not in (1, 3) or b[26:40] != _GUID_TAIL:
                d1, d2, d3 = struct.unpack_from("<IHH", b, 24)
                self.fail(f"fmt chunk: sub-format {{{d1:08X}-{d2:04X}-{d3:04X}-...}} is not PCM "
                          "or IEEE float")
            tag = sub
            self.extensible = True
            self.valid_bits = struct.unpack_from("<H", b, 18)[0]
            self.channel_mask = struct.unpack_from("<I", b, 20)[0]
        elif tag not in (1, 3):
            self.fail(f"fmt chunk: format tag {tag} (0x{tag:04X}) is not supported (1 PCM, 3 "
                      "IEEE float or 0xFFFE extensible)")
        if channels == 0:
            self.fail("fmt chunk: channels 0")
        if channels > 2:
            raise WaveError(f"'{self.name}' has {channels} channels; the processors take mono "
                            "or stereo (mix it down or split it first)")
        if rate == 0:
            self.fail("fmt chunk: sample rate 0")
        if tag == 1:
            if bits not in (8, 16, 24, 32):
                self.fail(f"fmt chunk: bitsPerSample {bits} is not supported (8, 16, 24 or 32 "
                          "for PCM; 32 or 64 for float)")
            self.bits = bits
        elif bits in (32, 64):
            self.bits = "float" if bits == 32 else "double"
        else:
            self.fail(f"fmt chunk: bitsPerSample {bits} is not supported for IEEE float (32 or "
                      "64)")
        self.tag = tag
        self.channels = channels
        self.rate = rate
        self.sample_bytes = bits // 8
        self.frame_bytes = channels * self.sample_bytes
        if block_align != self.frame_bytes:
            plural = "" if channels == 1 else "s"
            self.fail(f"fmt chunk: blockAlign {block_align} does not match {channels} channel"
                      f"{plural} of {bits} bits ({self.frame_bytes})")
        if self.extensible:
            if self.valid_bits > bits:
                self.fail(f"fmt chunk: validBitsPerSample {self.valid_bits} exceeds "
                          f"bitsPerSample {bits}")
            speakers = bin(self.channel_mask).count("1")
            if speakers > channels:
                plural = "" if channels == 1 else "s"
                self.fail(f"fmt chunk: channel mask 0x{self.channel_mask:X} names {speakers} "
                          f"speakers for {channels} channel{plural}")
        self.haveFormat = True

    def info(self):
        return Info(self.rate, self.channels, self.frames, self.bits, self.extensible, self.rf64,
                    self.length_known)


def _printable(cid):
    return "".join(chr(c) if 0x20 <= c < 0x7F else f"\\x{c:02X}" for c in cid)


def _seekable(f):
    try:
        return f.seekable()
    except (AttributeError, OSError, ValueError):
        return False


def read_info(path):
    """The format of a WAVE file (Info), without reading its samples."""
    with open(path, "rb") as f:
        return _Reader(f, path).info()


def decode(raw, bits):
    """Packed little-endian samples of an encoding as float32 (1-D)."""
    key = _encoding_key(bits)
    if key == 8:
        return as_float32(np.frombuffer(raw, np.uint8)).reshape(-1)
    if key == 16:
        return as_float32(np.frombuffer(raw, "<i2").astype(np.int16)).reshape(-1)
    if key == 24:
        b = np.frombuffer(raw, np.uint8).reshape(-1, 3).astype(np.int32)
        s = ((b[:, 2] << 24) | (b[:, 1] << 16) | (b[:, 0] << 8)) >> 8
        out = s.astype(np.float32)  # exact, as the division below (see _audio.as_float32)
        out /= np.float32(8388607.0)
        return out
    if key == 32:
        return (np.frombuffer(raw, "<i4").astype(np.float64) * (1.0 / 2147483647.0)).astype(
            np.float32)
    if key == "float":  # the bytes as they are (a view; a copy where not native)
        return as_float32(np.frombuffer(raw, "<f4")).reshape(-1)
    return np.frombuffer(raw, "<f8").astype(np.float32)


def _read_data(f, nbytes, known):
    """The data chunk's bytes: nbytes of them when known (fewer at a short
    file), else everything to the end."""
    if not known:
        return np.frombuffer(f.read(), np.uint8)
    buf = np.empty(nbytes, np.uint8)
    view = memoryview(buf)
    got = 0
    while got < nbytes:
        n = f.readinto(view[got:])
        if not n:
            break
        got += n
    return buf[:got]


def _read_int16_library(path, r):
    """The samples of a plain 16-bit PCM file through the library's WAVE
    reader, as int16 (frames, channels); None when the library sees the file
    otherwise than the header walk did (then the package's codec reads it)."""
    handle = lib.initWavefileIn(os.fsencode(path), 4096)
    if not handle:
        raise MemoryError("dsp: out of memory opening a WAVE reader")
    try:
        fmt = lib.getFormatWavefileIn(handle).contents
        header = lib.getHeaderWavefileIn(handle).contents
        if (fmt.formatTag, fmt.channels, fmt.samplesPerSecond, fmt.bitsPerSample,
                header.dataBytes) != (1, r.channels, r.rate, 16, r.data_bytes):
            return None
        out = np.empty((r.frames, r.channels), np.int16)
        raw = out.reshape(-1).view(np.uint8)
        step = max(1, _LIBRARY_CALL_BYTES // r.frame_bytes)
        done = 0
        while done < r.frames:
            n = min(step, r.frames - done)
            at = raw[done * r.frame_bytes:]
            got = lib.readWavefileIn(handle, at.ctypes.data_as(ctypes.POINTER(ctypes.c_uint8)), n)
            if got < 0:
                raise OSError(f"'{path}': read error")
            done += got // r.frame_bytes
            if got < n * r.frame_bytes:
                break
        if done < r.frames:
            raise WaveError(f"'{path}' ends early: its data chunk promises {r.frames} frames, "
                            f"only {done} could be read")
        return out
    finally:
        lib.termWavefileIn(handle)


def read(path, dtype="float32"):
    """(audio, rate) of a WAVE file: audio shaped (frames,) for mono and
    (frames, 2) for stereo, float32 at full scale 1.0, or with
    dtype="int16" the library's 16-bit samples (a 16-bit file's samples as
    they are, others converted by the library's rule)."""
    if dtype not in ("float32", "int16", np.float32, np.int16):
        raise ValueError(f"dtype must be 'float32' or 'int16', not {dtype!r}")
    int16 = np.dtype(dtype) == np.int16
    with open(path, "rb") as f:
        r = _Reader(f, path)
        samples = None
        if (r.bits == 16 and r.tag == 1 and not r.extensible and not r.rf64 and r.length_known
                and stat.S_ISREG(os.fstat(f.fileno()).st_mode)):
            samples = _read_int16_library(path, r)
        if samples is None:
            raw = _read_data(f, r.data_bytes, r.length_known)
            if r.length_known and len(raw) < r.data_bytes:
                raise WaveError(f"'{path}' ends early: its data chunk promises {r.frames} "
                                f"frames, only {len(raw) // r.frame_bytes} could be read")
            raw = raw[:len(raw) - len(raw) % r.frame_bytes]
            if r.bits == 16:
                samples = np.frombuffer(raw, "<i2").astype(np.int16).reshape(-1, r.channels)
            else:
                samples = decode(raw, r.bits).reshape(-1, r.channels)
    if int16:
        from ._audio import to_int16
        audio = to_int16(samples)
    else:
        audio = as_float32(samples)
    return (audio.reshape(-1) if r.channels == 1 else audio), r.rate


# --- writing

def encode(audio, bits, dither=False):
    """float32 audio (any shape) as packed little-endian samples (bytes of a
    numpy array): integers rounded to the nearest and clamped, NaN as full
    scale, with TPDF dither (+-1 LSB, fixed seed) when asked."""
    key = _encoding_key(bits)
    x = np.asarray(audio, np.float32).reshape(-1)
    if key == "float":
        return x.astype("<f4")
    if key == "double":
        return x.astype("<f8")
    scale = float(2 ** (8 * _ENCODINGS[key][0] - 1) - 1)
    v = x.astype(np.float64)
    v *= scale  # in double, as the tool
    if dither:
        rng = np.random.default_rng(0x9E3779B97F4A7C15)
        v += rng.random(v.shape) - 0.5
        v += rng.random(v.shape) - 0.5
    np.rint(v, out=v)
    np.clip(v, -scale - 1.0, scale, out=v)
    nan = np.isnan(x)
    if nan.any():
        v[nan] = scale
    if key == 8:
        return (v + 128.0).astype(np.uint8)
    if key == 16:
        return v.astype("<i2")
    if key == 32:
        return v.astype("<i4")
    s = v.astype(np.int32)
    out = np.empty((len(s), 3), np.uint8)
    out[:, 0] = s & 0xFF
    out[:, 1] = (s >> 8) & 0xFF
    out[:, 2] = (s >> 16) & 0xFF
    return out


def _header(rate, channels, key, extensible, data_bytes):
    """The bytes before the samples, as the tool's writer leaves a finished
    file: the final sizes, a "JUNK" chunk reserved for ds64 after the WAVE
    id, which becomes "ds64" in an RF64 file past 4 GiB, a "fact" chunk for
    float."""
    sample_bytes, floating = _ENCODINGS[key]
    bits = 8 * sample_bytes
    align = channels * sample_bytes
    fmt = struct.pack("<HHIIHH", 0xFFFE if extensible else (3 if floating else 1), channels, rate,
                      rate * align, align, bits)
    if extensible:
        mask = 0x4 if channels == 1 else 0x3
        fmt += struct.pack("<HHIH", 22, bits, mask, 3 if floating else 1) + _GUID_TAIL
    elif floating:
        fmt += struct.pack("<H", 0)
    chunks = b"fmt " + struct.pack("<I", len(fmt)) + fmt
    frames = data_bytes // align
    head_len = 12 + 8 + _DS64_BYTES + len(chunks) + (12 if floating else 0) + 8
    riff_bytes = head_len + data_bytes + (data_bytes & 1) - 8
    rf64 = riff_bytes > _UNKNOWN32 - 1 or data_bytes > _UNKNOWN32 - 1
    if rf64:
        out = b"RF64" + struct.pack("<I", _UNKNOWN32) + b"WAVE"
        out += b"ds64" + struct.pack("<IQQQI", _DS64_BYTES, riff_bytes, data_bytes, frames, 0)
    else:
        out = b"RIFF" + struct.pack("<I", riff_bytes) + b"WAVE"
        out += b"JUNK" + struct.pack("<I", _DS64_BYTES) + bytes(_DS64_BYTES)
    out += chunks
    if floating:
        out += b"fact" + struct.pack("<II", 4, _UNKNOWN32 if rf64 else frames)
    return out + b"data" + struct.pack("<I", _UNKNOWN32 if rf64 else data_bytes)


def _write_all(fd, data):
    view = memoryview(data).cast("B")
    while len(view):
        n = os.write(fd, view[:1 << 30])
        view = view[n:]


def _write_codec(fd, samples, rate, channels, key, extensible):
    """The whole file through the package's codec."""
    raw = memoryview(np.ascontiguousarray(samples)).cast("B")
    _write_all(fd, _header(rate, channels, key, extensible, len(raw)))
    _write_all(fd, raw)
    if len(raw) & 1:
        _write_all(fd, b"\0")


def _write_library(path, samples, rate, channels):
    """A plain 16-bit PCM file through the library's WAVE writer."""
    fmt = WavefileFormat(1, channels, rate, rate * 2 * channels, 2 * channels, 16, 0)
    handle = lib.initWavefileOut(os.fsencode(path), ctypes.byref(fmt))
    if not handle:
        raise MemoryError("dsp: out of memory opening a WAVE writer")
    raw = np.ascontiguousarray(samples).reshape(-1).view(np.uint8)
    ok = True
    try:
        for at in range(0, len(raw), _LIBRARY_CALL_BYTES):
            piece = raw[at:at + _LIBRARY_CALL_BYTES]
            if lib.writeWavefileOut(handle, piece.ctypes.data, len(piece)) != len(piece):
                ok = False
                break
    finally:
        written = lib.termWavefileOut(handle)
    if not ok or written != len(raw):
        raise OSError(f"cannot write '{path}': the library's WAVE writer failed")


def _umask():
    try:
        with open("/proc/self/status", encoding="ascii") as status:
            for line in status:
                if line.startswith("Umask:"):
                    return int(line.split()[1], 8)
    except (OSError, ValueError):
        pass
    mask = os.umask(0o022)
    os.umask(mask)
    return mask


def _fail(path, what):
    return OSError(f"cannot write '{path}': {what}")


def _refuse_inputs(path, st, inputs):
    if stat.S_ISCHR(st.st_mode):
        return
    for name in inputs:
        try:
            other = os.stat(name)
        except OSError:
            continue
        if (other.st_dev, other.st_ino) == (st.st_dev, st.st_ino):
            raise ValueError(f"the output '{path}' is the input file '{name}'; choose another "
                             "name")


def write(path, audio, rate, bits=16, *, dither=False, extensible=False, inputs=()):
    """Writes audio ((frames,) or (frames, channels), any dtype the package
    takes) as a WAVE file of `bits` (8, 16, 24, 32, "float" or "double"),
    under the safe-write rules above; `inputs` are files the output may not
    be. int16 audio written as 16 bits keeps its samples as they are."""
    key = _encoding_key(bits)
    rate = int(rate)
    if not 1 <= rate <= 0xFFFFFFFF:
        raise ValueError(f"rate must be a whole number of Hz, not {rate!r}")
    array = np.asarray(audio)
    frames, channels = frames_channels(array)
    if key == 16 and array.dtype == np.int16:
        samples = array.reshape(frames, channels).astype("<i2")
    elif key == 32 and array.dtype == np.int32:
        samples = array.reshape(frames, channels).astype("<i4")
    else:
        samples = encode(as_float32(array), key, dither)
    data_bytes = samples.nbytes
    library = key == 16 and not extensible and data_bytes < _UNKNOWN32 - (1 << 16)
    path = os.fspath(path)

    if path == "-":
        sys.stdout.flush()
        _write_codec(sys.stdout.fileno(), samples, rate, channels, key, extensible)
        return
    try:
        st = os.stat(path)
    except FileNotFoundError:
        st = None
    if st is not None:
        if stat.S_ISDIR(st.st_mode):
            raise _fail(path, "it is a directory")
        _refuse_inputs(path, st, inputs)
        if not stat.S_ISREG(st.st_mode):
            fd = os.open(path, os.O_WRONLY | os.O_NOCTTY | os.O_CLOEXEC)
            try:
                now = os.fstat(fd)
                if (now.st_dev, now.st_ino) != (st.st_dev, st.st_ino):
                    raise _fail(path, "it was replaced while being opened")
                _write_codec(fd, samples, rate, channels, key, extensible)
            finally:
                os.close(fd)
            return
        target = os.path.realpath(path)
        if not os.access(target, os.W_OK):
            raise _fail(path, os.strerror(13))
        mode = stat.S_IMODE(st.st_mode)
    else:
        if os.path.islink(path):
            raise _fail(path, f"it is a symbolic link to '{os.readlink(path)}', which does not "
                              "exist")
        name = os.path.basename(path)
        if name in ("", ".", ".."):
            raise _fail(path, "not a file name")
        directory = os.path.dirname(path) or "."
        if not os.path.isdir(directory):
            raise _fail(path, f"no directory '{directory}'")
        target = os.path.join(os.path.realpath(directory), name)
        mode = 0o666 & ~_umask()

    fd, temp = tempfile.mkstemp(dir=os.path.dirname(target),
                                prefix="." + os.path.basename(target)[:200] + ".part")
    try:
        if library:
            os.close(fd)
            fd = -1
            _write_library(temp, samples, rate, channels)
            fd = os.open(temp, os.O_RDONLY | os.O_CLOEXEC)
        else:
            _write_codec(fd, samples, rate, channels, key, extensible)
        os.fsync(fd)
        if st is not None:
            try:
                os.fchown(fd, st.st_uid, st.st_gid)
            except OSError:
                pass  # not permitted: the file becomes the user's
        os.fchmod(fd, mode)
        os.close(fd)
        fd = -1
        os.replace(temp, target)
    except BaseException:
        if fd >= 0:
            os.close(fd)
        try:
            os.unlink(temp)
        except OSError:
            pass
        raise
