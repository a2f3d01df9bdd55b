#!/usr/bin/env python3
"""The Python package against what Python users reach for, on the same
60 s stereo float32 array (44100 Hz) in one run:

  Resample(48000)                   scipy.signal.resample_poly(x, 160, 147)
  LowPass(order=4, cutoff=1000)     scipy.signal.sosfilt, 4th-order Chebyshev I (1 dB)
  dsp.read / dsp.write              soundfile.read / soundfile.write (16-bit and float WAVE)
  two chains in two threads         the same two chains one after the other in one thread
  dsp.batch, 2-worker LocalCluster  a plain loop over the same files
  dsp.batch, 2 local processes      the same loop

Times are the best of --repeat runs; ratio = the other's time / ours (above
1: the package is faster). Rows whose package (scipy, soundfile,
distributed) is missing are left out. Run with the package importable, e.g.
PYTHONPATH=python python3 bench/python_bench.py, or from an environment that
has it installed. --markdown prints the table for the README.
"""

import argparse
import os
import platform
import shutil
import sys
import tempfile
import threading
import time

import numpy as np

import dsp

RATE = 44100


def best(fn, repeat):
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        fn()
        times.append(time.perf_counter() - start)
    return min(times)


def fmt(seconds):
    return f"{seconds * 1e3:.1f} ms" if seconds < 10 else f"{seconds:.2f} s"


def signal(seconds):
    rng = np.random.default_rng(1)
    t = np.arange(int(seconds * RATE)) / RATE
    x = np.stack([0.3 * np.sin(2 * np.pi * 440 * t), 0.3 * np.sin(2 * np.pi * 660 * t)], 1)
    return (x + 0.05 * rng.standard_normal(x.shape)).astype(np.float32)


def two_chain_work(x):
    return dsp.Chain([dsp.Resample(96000), dsp.PitchShift(300), dsp.Chorus()])(x, RATE)


def batch_chain():
    return dsp.Chain([dsp.Resample(48000), dsp.Chorus()])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--seconds", type=float, default=60.0)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--files", type=int, default=200)
    parser.add_argument("--file-seconds", type=float, default=2.0,
                        help="length of each file of the batch")
    parser.add_argument("--markdown", action="store_true")
    parser.add_argument("--only", nargs="+", choices=["filters", "files", "threads", "batch"],
                        help="run only these groups of rows")
    args = parser.parse_args()
    run = set(args.only or ["filters", "files", "threads", "batch"])
    x = signal(args.seconds)
    rows = []  # (workload, ours, other name, other time)

    try:
        from scipy import signal as sps
    except ImportError:
        sps = None
        print("scipy missing: no resample_poly or sosfilt rows", file=sys.stderr)
    if sps is not None and "filters" in run:
        resample = dsp.Resample(48000)
        ours = best(lambda: resample(x, RATE), args.repeat)
        rows.append(("resample 44.1k->48k", ours, "scipy resample_poly(160, 147)",
                     best(lambda: sps.resample_poly(x, 160, 147, axis=0), args.repeat)))
        lowpass = dsp.LowPass(order=4, cutoff=1000)
        sos = sps.cheby1(4, 1, 1000, fs=RATE, output="sos")
        rows.append(("low-pass order 4, 1000 Hz", best(lambda: lowpass(x, RATE), args.repeat),
                     "scipy sosfilt (cheby1 order 4)",
                     best(lambda: sps.sosfilt(sos, x, axis=0), args.repeat)))

    work = tempfile.mkdtemp(prefix="dsp-python-bench.")
    try:
        try:
            import soundfile
        except ImportError:
            soundfile = None
            print("soundfile missing: no file rows", file=sys.stderr)
        if soundfile is not None and "files" in run:
            for bits, subtype in ((16, "PCM_16"), ("float", "FLOAT")):
                ours_path = os.path.join(work, f"ours-{bits}.wav")
                theirs_path = os.path.join(work, f"theirs-{bits}.wav")
                rows.append((f"write 60 s, {bits if bits == 'float' else '16-bit'} WAVE",
                             best(lambda: dsp.write(ours_path, x, RATE, bits), args.repeat),
                             "soundfile.write",
                             best(lambda: soundfile.write(theirs_path, x, RATE, subtype=subtype),
                                  args.repeat)))
                rows.append((f"read 60 s, {bits if bits == 'float' else '16-bit'} WAVE",
                             best(lambda: dsp.read(ours_path), args.repeat),
                             "soundfile.read (float32)",
                             best(lambda: soundfile.read(theirs_path, dtype="float32"),
                                  args.repeat)))

        def serial():
            two_chain_work(x)
            two_chain_work(x)

        def threaded():
            threads = [threading.Thread(target=two_chain_work, args=(x,)) for _ in range(2)]
            for t in threads:
                t.start()
            for t in threads:
                t.join()

        if "threads" in run:
            rows.append(("two chains, two threads", best(threaded, args.repeat),
                         "the same in one thread", best(serial, args.repeat)))

        try:
            import distributed
        except ImportError:
            distributed = None
            print("distributed missing: no batch row", file=sys.stderr)
        if distributed is not None and "batch" in run:
            folder = os.path.join(work, "in")
            os.mkdir(folder)
            short = signal(args.file_seconds)
            for i in range(args.files):
                dsp.write(os.path.join(folder, f"f{i:03d}.wav"), short, RATE, 16)
            paths = dsp.batching.wave_files(folder)

            fresh = iter(range(1 << 30))

            def new_dir(name):
                # Every run writes new files, as a batch usually does.
                return os.path.join(work, f"{name}{next(fresh)}")

            def loop():
                out = new_dir("loop")
                os.makedirs(out)
                for p in paths:
                    audio, rate = dsp.read(p)
                    y, r = batch_chain()(audio, rate)
                    dsp.write(os.path.join(out, os.path.basename(p)), y, r, 16)

            with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                          dashboard_address=None) as cluster, \
                    distributed.Client(cluster) as client:
                client.run(lambda: __import__("dsp"))  # workers warm
                ours = best(lambda: dsp.batch(paths, new_dir("batch"), batch_chain,
                                              client, progress=False), args.repeat)
            looped = best(loop, args.repeat)
            rows.append((f"batch of {args.files} files of {args.file_seconds:g} s, 2 Dask workers",
                         ours, "a plain loop", looped))
            pool = best(lambda: dsp.batch(paths, new_dir("pool"), batch_chain,
                                          workers=2, progress=False), args.repeat)
            rows.append(("the same batch, 2 local processes (no Dask)", pool, "a plain loop",
                         looped))
    finally:
        shutil.rmtree(work, ignore_errors=True)

    header = ("workload", "dsp", "other", "other time", "ratio")
    lines = [(w, fmt(o), name, fmt(t), f"{t / o:.2f}") for w, o, name, t in rows]
    if args.markdown:
        widths = [max(len(h), *(len(line[i]) for line in lines)) for i, h in enumerate(header)]
        print("| " + " | ".join(h.ljust(widths[i]) for i, h in enumerate(header)) + " |")
        print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
        for line in lines:
            print("| " + " | ".join(c.ljust(widths[i]) for i, c in enumerate(line)) + " |")
    else:
        for line in lines:
            print(f"{line[0]:48} {line[1]:>10}  {line[2]:34} {line[3]:>10}  {line[4]:>6}")
    print(f"\n{time.strftime('%Y-%m-%d')}, {platform.processor() or platform.machine()}, "
          f"{os.cpu_count()} cores, Python {platform.python_version()}, numpy {np.__version__}, "
          f"library {dsp.library_version}")


if __name__ == "__main__":
    main()
