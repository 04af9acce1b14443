#!/usr/bin/env bash
# Configures and builds the library, its tests and the demo in ./build.
# Extra arguments go to CMake's configure step (e.g. -DTM_BUILD_BENCH=ON).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/setup.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@"
cmake --build "$root/build" -j "$(nproc)"
