"""Builds the Python package tessmorph with its extension module.

    /usr/bin/python3 -m pip install --no-build-isolation .

The extension `_core` is CMake's target of the same name (python/CMakeLists.txt),
which links the library's pipelines statically; this file only drives CMake for
that target, for the Python that runs pip, and copies the module next to the
pure-Python files.  Generating the 135 pipelines takes most of a build (minutes
on a small machine); with TM_PIPELINES_FROM=<a build directory of the same
sources> the build links that directory's pipelines instead.  TM_CMAKE names
the cmake to run, TM_BUILD_JOBS the parallel jobs (default: all cores).
"""

import glob
import os
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext
from setuptools.command.build_py import build_py

ROOT = os.path.dirname(os.path.abspath(__file__))
# setuptools' own build and metadata directories, apart from CMake's ./build.
BUILD_BASE = os.path.join(ROOT, "build-pip")
os.makedirs(BUILD_BASE, exist_ok=True)


def project_version():
    """The version of project() in CMakeLists.txt, the one place it is set."""
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as f:
        match = re.search(r"project\(\s*\S+\s+VERSION\s+([0-9]+(?:\.[0-9]+)*)", f.read())
    if not match:
        raise RuntimeError("CMakeLists.txt: no project(... VERSION ...)")
    return match.group(1)


def _cached_pipelines_from(build):
    try:
        with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as f:
            for line in f:
                if line.startswith("TM_PIPELINES_FROM:"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return ""


def pipelines_from():
    """The build directory whose generated pipelines to link, or None.  A
    build that itself linked another one's holds no pipelines of its own:
    follow it to the one that generated them."""
    path = os.environ.get("TM_PIPELINES_FROM")
    if not path:
        return None
    path, seen = os.path.abspath(path), set()
    while path not in seen:
        seen.add(path)
        origin = _cached_pipelines_from(path)
        if not origin:
            break
        path = os.path.abspath(origin)
    return path


class BuildPy(build_py):
    """The pure-Python files, and _version.py with the project's version."""

    def run(self):
        super().run()
        target = os.path.join(self.build_lib, "tessmorph", "_version.py")
        with open(target, "w", encoding="utf-8") as f:
            f.write(f'__version__ = "{project_version()}"\n')


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        cmake = os.environ.get("TM_CMAKE") or shutil.which("cmake")
        if not cmake:
            raise RuntimeError("building tessmorph needs cmake (Debian: apt-get install cmake)")
        build = os.path.join(os.path.abspath(self.build_temp), "cmake")
        configure = [cmake, "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DTM_BUILD_TESTS=OFF",
                     f"-DPython3_EXECUTABLE={sys.executable}"]
        if shutil.which("ninja") and not os.path.exists(os.path.join(build, "CMakeCache.txt")):
            configure += ["-G", "Ninja"]
        pipes = pipelines_from()
        if pipes:
            configure.append(f"-DTM_PIPELINES_FROM={pipes}")
        jobs = os.environ.get("TM_BUILD_JOBS") or str(os.cpu_count() or 1)
        subprocess.run(configure, check=True)
        subprocess.run([cmake, "--build", build, "--target", "_core", "-j", jobs], check=True)
        built = glob.glob(os.path.join(build, "python", "tessmorph", "_core*.so"))
        if len(built) != 1:
            raise RuntimeError(f"expected one built _core module in {build}, found {built}")
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(built[0], target)


setup(
    version=project_version(),
    packages=["tessmorph"],
    package_dir={"": "python"},
    # The module is built by CMake; this entry only makes the wheel a
    # platform one and gives the module's file name for this Python.
    ext_modules=[Extension("tessmorph._core", sources=[])],
    cmdclass={"build_py": BuildPy, "build_ext": CMakeBuild},
    options={"build": {"build_base": BUILD_BASE}, "egg_info": {"egg_base": BUILD_BASE}},
    zip_safe=False,
)
