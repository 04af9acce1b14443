#!/usr/bin/env bash
# Installs everything the build, the tests, the sanitizer and fuzz runs and
# the demo need, from Debian's packages.  Safe to run again: when every
# package is there it does nothing.
# With TM_BENCH=1 it adds what the benchmarks need (scripts/bench.sh); the
# library and its tests never need those.
set -euo pipefail

packages=(cmake ninja-build g++ gcc make binutils pkg-config
          libhalide14-0-dev libtbb-dev googletest libgtest-dev
          # the sanitizer and fuzz runs
          clang libfuzzer-14-dev libclang-rt-14-dev
          # the Python package and its tests (scipy, scikit-image and OpenCV for
          # cross-checks only); the command-line tool's formats, dask, progress
          python3 python3-dev pybind11-dev python3-numpy python3-pytest
          python3-scipy python3-skimage python3-opencv
          python3-tifffile python3-pil python3-zarr python3-dask python3-distributed python3-tqdm
          # pip install . (and its test, in a fresh virtual environment)
          python3-pip python3-venv python3-setuptools python3-wheel)
if [ "${TM_BENCH:-0}" = 1 ]; then
    packages+=(libopencv-dev libbenchmark-dev gnuplot-nox python3)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all packages present"
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
