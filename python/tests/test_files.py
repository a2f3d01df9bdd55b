"""WAVE reading and writing: every encoding, hand-made headers, the safe
output rules."""

import os
import stat
import struct
import threading

import numpy as np
import pytest

import dsp
from dsp import files

RATE = 44100


def wave_bytes(fmt_body, data, riff=b"RIFF", sizes=None, before_data=b""):
    """A WAVE file from a fmt body and data bytes; sizes=(riff, data)
    overrides the size fields."""
    riff_size, data_size = sizes or (4 + 8 + len(fmt_body) + len(before_data) + 8 + len(data),
                                     len(data))
    return (riff + struct.pack("<I", riff_size) + b"WAVE" + b"fmt " +
            struct.pack("<I", len(fmt_body)) + fmt_body + before_data + b"data" +
            struct.pack("<I", data_size) + data)


def pcm_fmt(channels, bits, tag=1, rate=RATE, align=None):
    align = align if align is not None else channels * bits // 8
    return struct.pack("<HHIIHH", tag, channels, rate, rate * align, align, bits)


@pytest.mark.parametrize("channels", [1, 2])
@pytest.mark.parametrize("bits, lsb", [(8, 1 / 127), (16, 1 / 32767), (24, 1 / 8388607),
                                       (32, 1 / 2147483647), ("float", 0), ("double", 0)])
def test_round_trip(tmp_path, signal, bits, lsb, channels):
    x = dsp.as_float32(signal(3001, channels))
    x[:4] = [[1.0] * channels, [-1.0] * channels, [1.5] * channels, [np.nan] * channels]
    path = tmp_path / "a.wav"
    dsp.write(path, x if channels == 2 else x[:, 0], RATE, bits)
    y, rate = dsp.read(path)
    assert rate == RATE and y.dtype == np.float32
    assert y.shape == ((3001, 2) if channels == 2 else (3001,))
    y = y.reshape(-1, channels)
    if lsb:  # clamped to full scale, NaN as full scale, the rest within half a step
        assert (y[2] == 1.0).all() and (y[3] == 1.0).all()
        np.testing.assert_allclose(y[4:], x[4:], atol=lsb / 2 + 1e-7)
    else:
        np.testing.assert_array_equal(y[:3], x[:3])
        np.testing.assert_array_equal(y[4:], x[4:])
    info = dsp.read_info(path)
    assert (info.rate, info.channels, info.frames, info.bits) == (RATE, channels, 3001, bits)


def test_integer_samples_by_the_double_rule():
    # float(s * (1 / scale)) in double precision, for every 8 and 16-bit value
    # and a spread of 24 and 32-bit ones
    rng = np.random.default_rng(5)
    for bits, s in ((8, np.arange(256)), (16, np.arange(-32768, 32768)),
                    (24, rng.integers(-2 ** 23, 2 ** 23, 200000)),
                    (32, rng.integers(-2 ** 31, 2 ** 31, 200000))):
        scale = 2.0 ** (bits - 1) - 1
        expected = ((s - (128 if bits == 8 else 0)) * (1.0 / scale)).astype(np.float32)
        dtype = {8: "u1", 16: "<i2", 24: "<i4", 32: "<i4"}[bits]
        raw = s.astype(dtype).tobytes()
        if bits == 24:
            raw = np.frombuffer(raw, np.uint8).reshape(-1, 4)[:, :3].tobytes()
        np.testing.assert_array_equal(files.decode(raw, bits), expected)


def test_16_bit_through_the_library(tmp_path, signal):
    x16 = signal(5000, 2)
    path = tmp_path / "a.wav"
    dsp.write(path, x16, RATE)  # int16 as it is, through the library's writer
    raw = path.read_bytes()
    assert raw[12:20] == b"fmt \x12\x00\x00\x00"  # the library's 18-byte format record
    with open(path, "rb") as f:
        samples = files._read_int16_library(str(path), files._Reader(f, str(path)))
    np.testing.assert_array_equal(samples, x16)
    np.testing.assert_array_equal(dsp.read(path, dtype="int16")[0], x16)
    np.testing.assert_array_equal(np.frombuffer(raw[-20000:], "<i2").reshape(-1, 2), x16)
    # float samples become 16 bits rounded to the nearest
    dsp.write(path, np.array([0.4 / 32767, 1.6 / 32767, -0.6 / 32767], np.float32), RATE)
    np.testing.assert_array_equal(dsp.read(path, dtype="int16")[0], [0, 2, -1])


def test_hand_made_headers(tmp_path):
    samples = np.array([[1, -1], [256, -256], [8388607, -8388608]], np.int32)
    packed = b"".join(struct.pack("<i", int(v))[:3] for v in samples.reshape(-1))
    expected = (samples / 8388607.0).astype(np.float32)
    guid_tail = bytes([0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71])
    extensible = pcm_fmt(2, 24, tag=0xFFFE) + struct.pack("<HHIH", 22, 24, 3, 1) + guid_tail
    cases = {
        "extensible.wav": wave_bytes(extensible, packed, before_data=b"LIST\x02\x00\x00\x00ab"),
        # RF64: the sizes in the ds64 chunk
        "rf64.wav": (b"RF64" + struct.pack("<I", 0xFFFFFFFF) + b"WAVE" + b"ds64" +
                     struct.pack("<IQQQI", 28, 0, len(packed), 3, 0) + b"fmt " +
                     struct.pack("<I", 16) + pcm_fmt(2, 24) + b"data" +
                     struct.pack("<I", 0xFFFFFFFF) + packed),
        # a stream's unknown size: read to the end (a trailing half frame dropped)
        "stream.wav": wave_bytes(pcm_fmt(2, 24), packed + b"\1\2",
                                 sizes=(0xFFFFFFFF, 0xFFFFFFFF)),
    }
    for name, content in cases.items():
        (tmp_path / name).write_bytes(content)
        audio, rate = dsp.read(tmp_path / name)
        assert rate == RATE
        np.testing.assert_array_equal(audio, expected, err_msg=name)
    assert dsp.read_info(tmp_path / "rf64.wav").rf64
    assert not dsp.read_info(tmp_path / "stream.wav").length_known


@pytest.mark.parametrize("content, words", [
    (b"RIFX\0\0\0\0WAVE", "not a RIFF WAVE file"),
    (wave_bytes(pcm_fmt(2, 16, align=3), b""), "blockAlign 3 does not match 2 channels of 16"),
    (wave_bytes(pcm_fmt(3, 16), b""), "has 3 channels"),
    (wave_bytes(pcm_fmt(1, 12), b""), "bitsPerSample 12 is not supported"),
    (wave_bytes(pcm_fmt(1, 16, tag=2), b""), "format tag 2 (0x0002)"),
    (wave_bytes(pcm_fmt(1, 16), b"\0\0" * 10, sizes=(100, 400)), "ends early"),
    (b"RIFF\x04\0\0\0WAVE", "no fmt chunk"),
])
def test_malformed_files(tmp_path, content, words):
    path = tmp_path / "bad.wav"
    path.write_bytes(content)
    with pytest.raises(dsp.WaveError) as raised:
        dsp.read(path)
    assert words in str(raised.value) and "bad.wav" in str(raised.value)


def test_safe_writes(tmp_path):
    x = np.zeros(100, np.float32)
    target = tmp_path / "target.wav"
    dsp.write(target, x, RATE, 24)
    os.chmod(target, 0o640)
    link = tmp_path / "link.wav"
    link.symlink_to(target)
    inode = target.stat().st_ino
    dsp.write(link, x, RATE, 16)  # follows the link, replaces the target
    assert link.is_symlink() and dsp.read_info(target).bits == 16
    assert target.stat().st_ino != inode  # a new file put in place
    assert stat.S_IMODE(target.stat().st_mode) == 0o640
    assert sorted(p.name for p in tmp_path.iterdir()) == ["link.wav", "target.wav"]

    dangling = tmp_path / "dangling.wav"
    dangling.symlink_to(tmp_path / "nowhere.wav")
    with pytest.raises(OSError, match="which does not exist"):
        dsp.write(dangling, x, RATE)
    with pytest.raises(ValueError, match="is the input file"):
        dsp.write(link, x, RATE, inputs=[str(target)])
    with pytest.raises(OSError, match="no directory"):
        dsp.write(tmp_path / "none" / "a.wav", x, RATE)
    with pytest.raises(OSError, match="it is a directory"):
        dsp.write(tmp_path, x, RATE)
    with pytest.raises(ValueError, match="bits must be"):
        dsp.write(target, x, RATE, 12)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["dangling.wav", "link.wav",
                                                          "target.wav"]


def test_fifo_is_written_directly(tmp_path, signal):
    fifo = tmp_path / "pipe.wav"
    os.mkfifo(fifo)
    x = dsp.as_float32(signal(2000, 2))
    got = {}
    reader = threading.Thread(target=lambda: got.setdefault("audio", dsp.read(fifo)))
    reader.start()
    dsp.write(fifo, x, RATE, "float")
    reader.join(10)
    audio, rate = got["audio"]
    np.testing.assert_array_equal(audio, x)
    assert stat.S_ISFIFO(os.stat(fifo).st_mode)
