"""Batches on a Dask LocalCluster and on local processes, and the command."""

import functools
import os

import numpy as np
import pytest

import dsp
from dsp import __main__ as cli

RATE = 44100
WORDS = ["resample", "48000", "gain", "-6"]


@pytest.fixture
def inputs(tmp_path, signal):
    folder = tmp_path / "in"
    folder.mkdir()
    for i, bits in enumerate([16, 24, "float", 8]):
        dsp.write(folder / f"good{i}.wav", signal(3000 + 1000 * i, 1 + i % 2, seed=i), RATE, bits)
    (folder / "broken.wav").write_bytes(b"RIFF\x10\0\0\0WAVEfmt \x04\0\0\0\1\0")
    return folder


def check_results(results, folder, out):
    by_name = {os.path.basename(r.input): r for r in results}
    assert len(results) == 5
    assert "fmt chunk: size 4 is too small" in by_name["broken.wav"].error
    assert by_name["broken.wav"].output is None
    for i in range(4):
        r = by_name[f"good{i}.wav"]
        assert r.error is None and r.output == os.path.join(out, f"good{i}.wav")
        audio, rate = dsp.read(folder / f"good{i}.wav")
        expected, _ = dsp.chain_from_words(WORDS)(audio, rate)
        got, got_rate = dsp.read(r.output)
        assert got_rate == 48000 and got.shape == expected.shape
        assert dsp.read_info(r.output).bits == dsp.read_info(folder / f"good{i}.wav").bits
        np.testing.assert_allclose(got, expected, atol=1 / 127)
        assert r.seconds == pytest.approx(len(expected) / 48000)
        assert r.peak == pytest.approx(np.abs(expected).max(), abs=1e-6)


def test_batch_on_a_local_cluster(inputs, tmp_path):
    distributed = pytest.importorskip("distributed")
    out = str(tmp_path / "out")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=False,
                                  dashboard_address=None) as cluster:
        with distributed.Client(cluster) as client:
            results = dsp.batch(inputs, out, functools.partial(dsp.chain_from_words, WORDS),
                                client, progress=False)
    check_results(results, inputs, out)


def test_batch_on_local_processes_and_the_command(inputs, tmp_path, capsys):
    out = str(tmp_path / "out")
    assert cli.main(["batch", str(inputs), out, *WORDS, "--workers", "2", "--quiet"]) == 1
    printed = capsys.readouterr()
    assert "4 of 5 files written" in printed.out and "broken.wav" in printed.err
    assert sorted(os.listdir(out)) == [f"good{i}.wav" for i in range(4)]
    with pytest.raises(TypeError, match="must pickle"):
        dsp.batch(inputs, out, lambda: dsp.Chain([]), progress=False)
    assert cli.main(["batch", str(inputs), out, "chorus", "3", "10", "20"]) == 2
    assert "DEPTH_MS must not exceed DELAY_MS" in capsys.readouterr().err
