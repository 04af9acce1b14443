#!/usr/bin/env bash
# Fuzzes the call frame for [seconds] (default 60): builds ./build as usual,
# then the fuzz target with clang in ./build-fuzz, linking the pipelines of
# ./build instead of generating them again, and runs it from the seed corpus
# (tests/fuzz/corpus) plus what earlier runs added (build-fuzz/corpus).
# Findings are saved in build-fuzz/findings and printed as calls; the exit
# status is libFuzzer's (0: nothing found).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
bash "$root/scripts/build.sh"
out="$root/build-fuzz"
cmake -S "$root" -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DTM_FUZZ=ON -DTM_BUILD_TESTS=OFF -DTM_PIPELINES_FROM="$root/build"
cmake --build "$out" --target tm_frame_fuzz -j "$(nproc)"

rm -rf "$out/findings"
mkdir -p "$out/corpus" "$out/findings"
fuzzer="$out/tests/fuzz/tm_frame_fuzz"
status=0
# A call may take a fraction of a second; ten seconds is a hang.
"$fuzzer" "$out/corpus" "$root/tests/fuzz/corpus" -max_total_time="$seconds" -timeout=10 \
    -artifact_prefix="$out/findings/" -print_final_stats=1 || status=$?
if [ "$status" -ne 0 ]; then
    for f in "$out"/findings/*; do
        [ -f "$f" ] || continue
        echo "== finding $f"
        TM_FUZZ_VERBOSE=1 "$fuzzer" -timeout=10 "$f" 2>&1 | grep -A5 -E '^im[a-z]+_[a-z0-9]+_[a-z0-9]+ lower' | tail -6 || true
    done
fi
exit "$status"
