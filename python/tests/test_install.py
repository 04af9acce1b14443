"""The package as installed: `cmake --install` to a prefix, then Debian's
python3 with only that prefix added to its path."""

import os
import subprocess
import sys

import pytest

CHECK = """
import numpy as np, cv2, tessmorph
from tessmorph import footprints
assert tessmorph.__file__.startswith({site!r}), tessmorph.__file__
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


def test_installed_package_works_from_its_prefix(tmp_path):
    build, cmake = os.environ.get("TM_BUILD_DIR"), os.environ.get("TM_CMAKE", "cmake")
    if not build:
        pytest.skip("TM_BUILD_DIR is not set")
    subprocess.run([cmake, "--install", build, "--prefix", str(tmp_path)], check=True, capture_output=True)
    site = str(tmp_path / "lib" / "python3" / "dist-packages")
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env["PYTHONPATH"] = site
    run = subprocess.run([sys.executable, "-c", CHECK.format(site=site)], env=env, capture_output=True, text=True,
                         cwd=str(tmp_path))
    assert run.returncode == 0, run.stderr
    assert "refused: Input buffer keyimForType" in run.stdout and run.stdout.endswith("ok\n")
