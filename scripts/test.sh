#!/usr/bin/env bash
# Builds everything and runs the whole test suite.  Set TM_SOAK=1 for the
# longer random suites.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/build.sh"
cd "$root/build"
ctest --output-on-failure -j "$(nproc)" --timeout 900
