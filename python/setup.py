"""Builds the package with its own copy of the dsp library.

The library is taken from DSP_LIBRARY (a path to libdsp.so.0) when set;
otherwise it is built from the repository around this directory with CMake
(the `dsp` target alone, in build-python/ at the repository's top, or in
DSP_BUILD_DIR) and copied into the package, so that an installed package
loads its own library and nothing else:

    python3 -m venv --system-site-packages V
    V/bin/pip install --no-build-isolation --no-index ./python
"""

import os
import shutil
import subprocess
import sys

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
if sys.platform == "win32":
    LIBRARY = "dsp.dll"
elif sys.platform == "darwin":
    LIBRARY = "libdsp.0.dylib"
else:
    LIBRARY = "libdsp.so.0"


def built_library():
    given = os.environ.get("DSP_LIBRARY")
    if given:
        if not os.path.isfile(given):
            sys.exit(f"setup.py: DSP_LIBRARY={given} is not a file")
        return given
    if not os.path.isfile(os.path.join(REPO, "include", "dsp.h")):
        sys.exit("setup.py: not inside the dsp repository; set DSP_LIBRARY to a built "
                 + LIBRARY)
    build = os.environ.get("DSP_BUILD_DIR", os.path.join(REPO, "build-python"))
    configure = ["cmake", "-S", REPO, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                 "-DDSP_BUILD_TESTS=OFF", "-DDSP_BUILD_BENCH=OFF", "-DDSP_BUILD_TOOLS=OFF",
                 "-DDSP_BUILD_EXAMPLES=OFF", "-DDSP_INSTALL=OFF"]
    jobs = str(min(os.cpu_count() or 2, 4))
    for command in (configure, ["cmake", "--build", build, "--target", "dsp", "-j", jobs]):
        print("setup.py:", " ".join(command), flush=True)
        subprocess.check_call(command)
    for sub in ("lib", "bin"):
        path = os.path.join(build, sub, LIBRARY)
        if os.path.isfile(path):
            return path
    sys.exit(f"setup.py: the build left no {LIBRARY} in {build}")


class BuildWithLibrary(build_py):
    def run(self):
        super().run()
        if self.dry_run:
            return
        target = os.path.join(self.build_lib, "dsp", LIBRARY)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(built_library(), target)  # the file itself, not a link


class BinaryDistribution(Distribution):
    """The wheel carries a shared library: it is for this platform only."""

    def has_ext_modules(self):
        return True


setup(cmdclass={"build_py": BuildWithLibrary}, distclass=BinaryDistribution)
