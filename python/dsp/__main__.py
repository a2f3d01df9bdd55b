"""python3 -m dsp batch IN_DIR OUT_DIR EFFECT [ARGS]... [options]

Runs every .wav file of IN_DIR through the effects (the dsp tool's words)
into OUT_DIR. Options:
  --scheduler tcp://HOST:PORT   run on that Dask cluster (else local processes)
  --workers N                   local worker processes (default: one per core)
  --bits 8|16|24|32|float|double  the outputs' encoding (default: each input's)
  --quiet                       no progress bar
Exit status: 0 when every file was written, 1 when any failed, 2 for a
usage error.
"""

import functools
import os
import sys

USAGE = ("usage: python3 -m dsp batch IN_DIR OUT_DIR EFFECT [ARGS]... "
         "[--scheduler tcp://HOST:PORT] [--workers N] [--bits B] [--quiet]")


class _Usage(Exception):
    pass


def _parse(args):
    options = {"scheduler": None, "workers": None, "bits": None, "quiet": False}
    positional = []
    i = 0
    while i < len(args):
        word = args[i]
        if word in ("--scheduler", "--workers", "--bits"):
            if i + 1 >= len(args):
                raise _Usage(f"{word} needs a value; {USAGE}")
            options[word[2:]] = args[i + 1]
            i += 2
            continue
        if word == "--quiet":
            options["quiet"] = True
        else:  # other words, options of an effect among them, go to the effects
            positional.append(word)
        i += 1
    if len(positional) < 2:
        raise _Usage(f"expected IN_DIR OUT_DIR EFFECT [ARGS]...; {USAGE}")
    return positional[0], positional[1], positional[2:], options


def batch_command(args):
    from . import batching as batch_module
    from . import effects, files

    in_dir, out_dir, words, options = _parse(args)
    effects.parse_effects(words)  # usage errors before any work
    if not os.path.isdir(in_dir):
        raise _Usage(f"'{in_dir}' is not a directory")
    workers = None
    if options["workers"] is not None:
        if not options["workers"].isdigit() or int(options["workers"]) < 1:
            raise _Usage(f"--workers must be a whole number >= 1, not '{options['workers']}'")
        workers = int(options["workers"])
    bits = None
    if options["bits"] is not None:
        try:
            bits = files._encoding_key(options["bits"])
        except ValueError as error:
            raise _Usage(str(error)) from None
    client = None
    if options["scheduler"]:
        try:
            from distributed import Client
        except ImportError:
            raise _Usage("--scheduler needs the distributed package (Debian: "
                         "python3-distributed)") from None
        client = Client(options["scheduler"])
    factory = functools.partial(effects.chain_from_words, words)
    try:
        results = batch_module.batch(in_dir, out_dir, factory, client, bits=bits,
                                     workers=workers, progress=not options["quiet"])
    finally:
        if client is not None:
            client.close()
    failed = [r for r in results if r.error is not None]
    for r in failed:
        print(f"dsp: {r.error}", file=sys.stderr)
    print(f"{len(results) - len(failed)} of {len(results)} files written to {out_dir}"
          + (f", {len(failed)} failed" if failed else ""))
    return 1 if failed else 0


def main(argv=None):
    args = sys.argv[1:] if argv is None else list(argv)
    if not args or args[0] in ("-h", "--help", "help"):
        print(__doc__.strip())
        from .effects import effects_help
        print("Effects:\n" + effects_help())
        return 0 if args else 2
    if args[0] != "batch":
        print(f"dsp: unknown command '{args[0]}'; {USAGE}", file=sys.stderr)
        return 2
    try:
        return batch_command(args[1:])
    except (_Usage, ValueError) as error:
        print(f"dsp: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
