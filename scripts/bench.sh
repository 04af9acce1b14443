#!/usr/bin/env bash
# Installs what the benchmarks need (OpenCV, Google Benchmark, gnuplot),
# builds with them in ./build and writes the report to build/bench-report.
# Arguments go to tm_bench, e.g. --benchmark_repetitions=5.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
TM_BENCH=1 bash "$root/scripts/build.sh" -DTM_BUILD_BENCH=ON
bash "$root/bench/report.sh" "$root/build" "$root/build/bench-report" "$@"
