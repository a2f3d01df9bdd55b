"""Many files through one chain of effects, each file in one task: on a Dask
distributed cluster when a Client is given, else on a local process pool.

    results = dsp.batch("in/", "out/", make_chain)            # local processes
    results = dsp.batch(paths, "out/", make_chain, client=Client("tcp://host:8786"))

make_chain is called once per file and returns a Chain (or a list of
processors); a Chain may be given instead and is copied for every file. For
a process pool it must pickle with the standard pickle module (a function
defined at a module's top level, a functools.partial of one, or a Chain);
Dask also takes lambdas. On a cluster, every worker needs this package
installed and the files at the same paths (a shared file system).

Each file is read, run through its chain as a whole signal and written to
out_dir under its own name, in its own encoding unless `bits` says
otherwise. The result of each file, in the order of the inputs, is a Result:
the output path, the output's duration in seconds and its peak (full scale
1.0), or the error text of a file that failed; a failure never stops the
batch.
"""

import collections
import concurrent.futures
import multiprocessing
import os
import pickle
import sys

import numpy as np

from . import files
from .processors import Chain

Result = collections.namedtuple("Result", "input output seconds peak error")
Result.__doc__ = "One file of a batch: output, seconds and peak are None when it failed."


def wave_files(directory):
    """The .wav files of a directory (not its subdirectories), sorted."""
    names = sorted(n for n in os.listdir(directory) if n.lower().endswith((".wav", ".wave")))
    return [os.path.join(directory, n) for n in names
            if os.path.isfile(os.path.join(directory, n))]


def _chain_of(factory):
    if isinstance(factory, Chain):
        return factory.copy()
    made = factory()
    if isinstance(made, Chain):
        return made
    return Chain(made)


def process_file(path, out_path, factory, bits=None):
    """One file of a batch, as a task runs it: a Result, never an
    exception."""
    try:
        info = files.read_info(path)
        audio, rate = files.read(path)
        chain = _chain_of(factory)
        out, out_rate = chain(audio, rate)
        files.write(out_path, out, out_rate, bits if bits is not None else info.bits,
                    inputs=[path])
        peak = float(np.max(np.abs(out))) if out.size else 0.0
        return Result(path, out_path, out.shape[0] / out_rate, peak, None)
    except Exception as error:  # every failure is reported, none stops the batch
        return Result(path, None, None, None, _error_text(error))


def _error_text(error):
    text = str(error)
    if isinstance(error, (files.WaveError, ValueError)) and text:
        return text
    return f"{type(error).__name__}: {text}" if text else type(error).__name__


class _Progress:
    """tqdm when it is installed, else one line on standard error updated in
    place (on a terminal) and a summary at the end."""

    def __init__(self, total, enabled):
        self.total = total
        self.done = 0
        self.failed = 0
        self.enabled = enabled
        self.bar = None
        if enabled:
            try:
                from tqdm import tqdm
                self.bar = tqdm(total=total, unit="file", desc="dsp batch")
            except ImportError:
                pass

    def update(self, result):
        self.done += 1
        self.failed += result.error is not None
        if not self.enabled:
            return
        if self.bar is not None:
            self.bar.update(1)
            if self.failed:
                self.bar.set_postfix(failed=self.failed)
        elif sys.stderr.isatty():
            sys.stderr.write(f"\rdsp batch: {self.done}/{self.total} files, "
                             f"{self.failed} failed")
            sys.stderr.flush()

    def close(self):
        if not self.enabled:
            return
        if self.bar is not None:
            self.bar.close()
        elif sys.stderr.isatty():
            sys.stderr.write("\n")
        else:
            sys.stderr.write(f"dsp batch: {self.done}/{self.total} files, {self.failed} failed\n")


def batch(inputs, out_dir, chain_factory, client=None, *, bits=None, workers=None,
          progress=True):
    """Processes every input (a list of paths, or a directory: its .wav
    files) into out_dir; returns one Result per input, in input order.
    client: a dask.distributed Client (None: a local process pool of
    `workers` processes, by default one per core). bits: the output
    encoding (8, 16, 24, 32, "float", "double"; None keeps each input's).
    progress: show a progress bar."""
    if isinstance(inputs, (str, os.PathLike)):
        paths = wave_files(inputs)
    else:
        paths = [os.fspath(p) for p in inputs]
    if bits is not None:
        bits = files._encoding_key(bits)
    if not (isinstance(chain_factory, Chain) or callable(chain_factory)):
        raise TypeError("batch: chain_factory must be a Chain or a function returning one")
    os.makedirs(out_dir, exist_ok=True)
    results = [None] * len(paths)
    jobs = []
    seen = {}
    for i, path in enumerate(paths):
        name = os.path.basename(path)
        if name in seen:
            results[i] = Result(path, None, None, None,
                                f"'{path}': another input ('{paths[seen[name]]}') has the same "
                                "name")
            continue
        seen[name] = i
        jobs.append((i, path, os.path.join(out_dir, name)))
    bar = _Progress(len(paths), progress)
    for r in results:
        if r is not None:
            bar.update(r)
    try:
        if client is not None:
            _run_dask(client, jobs, chain_factory, bits, results, bar)
        else:
            _run_local(jobs, chain_factory, bits, workers, results, bar)
    finally:
        bar.close()
    return results


def _run_dask(client, jobs, factory, bits, results, bar):
    from distributed import as_completed

    if not jobs:
        return
    # The factory travels to each worker once, not with every task.
    [shared] = client.scatter([factory], broadcast=True, hash=False)
    futures = client.map(process_file, [path for _, path, _ in jobs],
                         [out for _, _, out in jobs], [shared] * len(jobs),
                         [bits] * len(jobs), pure=False)
    where = {future.key: (i, path) for future, (i, path, _) in zip(futures, jobs)}
    # Results come in batches as they complete, not one round trip each.
    for future, result in as_completed(futures, with_results=True, raise_errors=False):
        i, path = where[future.key]
        if not isinstance(result, Result):  # the task itself failed (a worker lost, say)
            error = result[1] if isinstance(result, tuple) and len(result) == 3 else result
            if not isinstance(error, BaseException):
                error = RuntimeError(f"the task failed ({future.status})")
            result = Result(path, None, None, None, _error_text(error))
        results[i] = result
        bar.update(result)


def _run_local(jobs, factory, bits, workers, results, bar):
    try:
        pickle.dumps(factory)
    except Exception as error:
        raise TypeError(
            "batch: the chain factory must pickle to reach the worker processes (a function at "
            "a module's top level, a functools.partial of one, or a Chain; lambdas and nested "
            f"functions do not): {error}") from None
    if not jobs:
        return
    count = min(workers or os.cpu_count() or 1, len(jobs))
    # Workers are started afresh (spawn): a fork would copy whatever locks the
    # caller's threads held at that moment.
    context = multiprocessing.get_context("spawn")
    with concurrent.futures.ProcessPoolExecutor(count, mp_context=context) as pool:
        futures = {pool.submit(process_file, path, out, factory, bits): (i, path)
                   for i, path, out in jobs}
        for future in concurrent.futures.as_completed(futures):
            i, path = futures[future]
            try:
                result = future.result()
            except Exception as error:  # a worker process died
                result = Result(path, None, None, None, _error_text(error))
            results[i] = result
            bar.update(result)
