"""The package as a user installs it: `cmake --install` to a prefix, and
`pip install .` from a clean clone into a fresh virtual environment; each
then imported by Debian's python3 from outside the source tree."""

import os
import re
import shutil
import subprocess
import sys

import pytest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))

CHECK = """
import numpy as np, cv2, tessmorph
from tessmorph import footprints
assert tessmorph.__file__.startswith({site!r}), tessmorph.__file__
assert tessmorph.__version__ == {version!r}, tessmorph.__version__
image = np.random.default_rng(0).integers(0, 256, (120, 90), np.uint8)
fp = footprints.disk(3)
expected = cv2.erode(image, fp, borderType=cv2.BORDER_CONSTANT, borderValue=255)
assert np.array_equal(tessmorph.erosion(image, fp), expected)
try:
    tessmorph.apply("black_tophat", image, fp, out_shape=(200, 90))
except ValueError as e:
    print("refused:", e)
print("ok")
"""


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as f:
        return re.search(r"project\(\s*\S+\s+VERSION\s+([0-9.]+)", f.read()).group(1)


def clean_env(**extra):
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "TM_LIBRARY")}
    env.update(extra)
    return env


def build_dir():
    build = os.environ.get("TM_BUILD_DIR")
    if not build:
        pytest.skip("TM_BUILD_DIR is not set")
    return build


def test_installed_package_works_from_its_prefix(tmp_path):
    build, cmake = build_dir(), os.environ.get("TM_CMAKE", "cmake")
    subprocess.run([cmake, "--install", build, "--prefix", str(tmp_path)], check=True, capture_output=True)
    site = str(tmp_path / "lib" / "python3" / "dist-packages")
    run = subprocess.run([sys.executable, "-c", CHECK.format(site=site, version=project_version())],
                         env=clean_env(PYTHONPATH=site), capture_output=True, text=True, cwd=str(tmp_path))
    assert run.returncode == 0, run.stderr
    assert "refused:" in run.stdout and "keyimForType" in run.stdout and run.stdout.endswith("ok\n")
    tool = subprocess.run([str(tmp_path / "bin" / "tessmorph"), "--version"], env=clean_env(),
                          capture_output=True, text=True)
    assert tool.returncode == 0 and tool.stdout == f"tessmorph {project_version()}\n", tool.stderr


def test_pip_install_from_a_clean_clone(tmp_path):
    # The pipelines of the test's own build are linked, not generated again:
    # the package's build then takes a minute, not ten.
    build = build_dir()
    if "asan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("pip builds an uninstrumented module: nothing for the sanitizers to check")
    if not os.path.exists(os.path.join(ROOT, ".git")) or not shutil.which("git"):
        pytest.skip("the source tree is not a git checkout")
    source, venv, elsewhere = tmp_path / "src", tmp_path / "venv", tmp_path / "elsewhere"
    subprocess.run(["git", "clone", "--quiet", "--no-hardlinks", ROOT, str(source)], check=True,
                   capture_output=True)
    # Debian's venv may lack ensurepip; the system's pip installs into the
    # environment all the same.
    subprocess.run(["/usr/bin/python3", "-m", "venv", "--system-site-packages", "--without-pip", str(venv)],
                   check=True, capture_output=True)
    python = str(venv / "bin" / "python3")
    env = clean_env(TM_PIPELINES_FROM=build, TM_BUILD_JOBS="2", PIP_NO_INDEX="1",
                    PIP_DISABLE_PIP_VERSION_CHECK="1")
    install = subprocess.run([python, "-m", "pip", "install", "--no-build-isolation", "--no-index", "-q",
                              str(source)], env=env, capture_output=True, text=True)
    assert install.returncode == 0, install.stdout[-3000:] + install.stderr[-3000:]

    elsewhere.mkdir()
    site = subprocess.run([python, "-c", "import sysconfig; print(sysconfig.get_paths()['platlib'])"],
                          env=clean_env(), capture_output=True, text=True, check=True).stdout.strip()
    run = subprocess.run([python, "-c", CHECK.format(site=site, version=project_version())], env=clean_env(),
                         capture_output=True, text=True, cwd=str(elsewhere))
    assert run.returncode == 0, run.stderr
    meta = subprocess.run([python, "-c", "from importlib import metadata as m; d = m.metadata('tessmorph'); "
                           "print(d['Name'], d['Version'], d['License'], m.requires('tessmorph')[0].split()[0])"],
                          env=clean_env(), capture_output=True, text=True, cwd=str(elsewhere))
    assert meta.stdout.split() == ["tessmorph", project_version(), "MIT", "numpy"], meta.stderr
    tool = subprocess.run([str(venv / "bin" / "tessmorph"), "--version"], env=clean_env(), capture_output=True,
                          text=True, cwd=str(elsewhere))
    assert tool.returncode == 0 and tool.stdout == f"tessmorph {project_version()}\n", tool.stderr
