#!/usr/bin/env bash
# Installs the Python package with its own copy of the library into a fresh
# virtual environment, offline, exactly as the README says, and runs its
# tests from outside the source tree against the installed package.
#
# Usage: scripts/check-python.sh [PYTHON]   (default /usr/bin/python3, else python3)
#
# The environment sees the system's packages (numpy, pytest, distributed,
# tqdm from Debian); pip uses no package index. The build step of the
# package builds the library with CMake (build-python/ at the top of the
# repository) unless DSP_LIBRARY names one. With DSP_TOOL naming the dsp
# tool's program, the tests also compare the package with the tool (same
# samples for the same effect words, same bytes for the same encodings).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
python=${1:-${PYTHON:-}}
if [[ -z $python ]]; then
    python=/usr/bin/python3
    [[ -x $python ]] || python=python3
fi
if [[ -n ${DSP_TOOL:-} ]]; then
    DSP_TOOL=$(cd "$(dirname "$DSP_TOOL")" && pwd)/$(basename "$DSP_TOOL")
    export DSP_TOOL
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/dsp-check-python.XXXXXX")
finish() {
    local status=$?
    if ((status == 0)); then
        rm -rf "$work"
    else
        echo "check-python: FAILED (work directory kept: $work)" >&2
    fi
}
trap finish EXIT
step() { echo "check-python: $*"; }

step "$python -m venv --system-site-packages $work/venv"
"$python" -m venv --system-site-packages "$work/venv"
step "pip install --no-build-isolation --no-index $root/python"
"$work/venv/bin/pip" install --quiet --no-build-isolation --no-index "$root/python"

# The tests run from a copy, in a directory that holds no source: `import
# dsp` can only find the installed package, and that must load its own
# library.
cp -r "$root/python/tests" "$work/tests"
cd "$work"
unset DSP_LIBRARY LD_LIBRARY_PATH
"$work/venv/bin/python" - "$work/venv" <<'PY'
import os, sys
import dsp
venv = os.path.realpath(sys.argv[1])
for what, path in (("package", dsp.__file__), ("library", dsp.library_path)):
    if not os.path.realpath(path).startswith(venv + os.sep):
        sys.exit(f"check-python: the {what} comes from {path}, not from the environment")
print(f"check-python: dsp {dsp.__version__} with library {dsp.library_version} from "
      f"{dsp.library_path}")
PY
step "pytest on the installed package"
"$work/venv/bin/python" -m pytest -q -p no:cacheprovider "$work/tests"
