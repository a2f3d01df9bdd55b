"""The package against the dsp tool (when DSP_TOOL names the tool's program):
the same effect words give the same samples, the same encodings the same
bytes."""

import os
import subprocess

import numpy as np
import pytest

import dsp
from dsp import files

TOOL = os.environ.get("DSP_TOOL", "")
pytestmark = pytest.mark.skipif(not os.access(TOOL, os.X_OK),
                                reason="DSP_TOOL does not name the dsp tool")
RATE = 44100


@pytest.fixture(scope="module")
def source(tmp_path_factory, signal):
    path = tmp_path_factory.mktemp("tool") / "in.wav"
    dsp.write(path, signal(70000, 2), RATE)
    return path


def tool(*args):
    subprocess.run([TOOL, "-q", *map(str, args)], check=True)


@pytest.mark.parametrize("words", [
    "resample 48000 chorus fade 0.3", "tempo 1.25 gain -3", "pitch 300 lowpass 4 3000",
    "hqups 0.4 60 active", "resample 22050 linear mono highpass 2 200", "stretch -500 fade 0.2 0.5",
    "resample 96000 --passband 0.5 resample 44100 tempo 0.8 resample 32000",
])
def test_same_samples_as_the_tool(source, tmp_path, words):
    audio16, rate = dsp.read(source, dtype="int16")
    out, out_rate = dsp.chain_from_words(words.split())(audio16, rate)
    tool(source, tmp_path / "a.wav", *words.split())
    expected, expected_rate = dsp.read(tmp_path / "a.wav", dtype="int16")
    assert out_rate == expected_rate
    # 16 bits in and out run the library's 16-bit path (truncating), but
    # where the tool works on the samples itself (a stereo-to-mono
    # resample's average, a resample's pass band equaliser: every resample
    # here has one or the other), whose floats it rounds as any it writes
    ours = files.encode(out, 16) if "resample" in words else dsp.to_int16(out)
    np.testing.assert_array_equal(ours.reshape(expected.shape), expected)
    tool(source, tmp_path / "f.wav", "--bits", "float", *words.split())  # the float path
    np.testing.assert_array_equal(out, dsp.read(tmp_path / "f.wav")[0].reshape(out.shape))


@pytest.mark.parametrize("bits", [8, 24, 32, "float", "double"])
def test_same_bytes_as_the_tool(source, tmp_path, bits):
    tool("--no-dither", "--bits", bits, source, tmp_path / "tool.wav")
    audio, rate = dsp.read(source)
    dsp.write(tmp_path / "ours.wav", audio, rate, bits)
    assert (tmp_path / "ours.wav").read_bytes() == (tmp_path / "tool.wav").read_bytes()
