#!/usr/bin/env bash
# Runs the benchmarks against OpenCV and writes a short report:
#   <out>/bench.json   everything Google Benchmark measured
#   <out>/report.md    medians and ratios (also printed)
#   <out>/taps.png     time per output sample against the number of taps
#
#   bench/report.sh [build dir] [out dir] [more tm_bench flags...]
#
# Defaults: build dir ./build, out dir <build dir>/bench-report.  The build
# needs -DTM_BUILD_BENCH=ON.  TM_BENCH_FILTER picks cases (a regex on names
# like imerode/uint8/4096x4096/disk5/avx2/threads:2).  The whole suite takes
# a few minutes on two cores; other load on the machine shows in the figures,
# so the report says when the load average was high.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-$here/../build}"
out="${2:-$build/bench-report}"
shift $(( $# < 2 ? $# : 2 ))
mkdir -p "$out"

"$build/bench/tm_bench" \
    --benchmark_filter="${TM_BENCH_FILTER:-.}" \
    --benchmark_min_time=0.1 \
    --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$out/bench.json" --benchmark_out_format=json \
    "$@" >"$out/console.txt" 2>&1 || status=$?
status=${status:-0}
# The ratio table tm_bench printed at its end.
sed -n '/^Median times/,$p' "$out/console.txt"
echo

python3 "$here/report.py" "$out/bench.json" "$out/report.md" "$out/taps.dat" >/dev/null || status=1

# OpenCV's series and ours alternate in the curves' data: one colour a pair,
# OpenCV's dashed with open points.
pair_styles() {
    local n=$1 colors=("#1f77b4" "#d62728" "#2ca02c" "#9467bd" "#ff7f0e" "#17becf" "#8c564b" "#e377c2")
    for ((i = 0; i < n; i++)); do
        echo "set style line $((i + 1)) lc rgb '${colors[$(((i / 2) % 8))]}' dt $((i % 2 == 0 ? 2 : 1)) lw 1.5 pt $((i % 2 == 0 ? 6 : 7)) ps 1.2"
    done
}

if command -v gnuplot >/dev/null; then
    series=$(grep -c '^"' "$out/taps.dat" || true)
    gnuplot <<GP
set terminal pngcairo size 900,600 noenhanced
set output "$out/taps.png"
set title "Erosion, best level, all threads: time per output sample (OpenCV runs squares as two 1-D passes)"
set xlabel "taps of the element"
set ylabel "ns per output sample"
set logscale xy
set xrange [5:400]
set grid
set key top left
plot for [i=0:$((series - 1))] "$out/taps.dat" index i using 1:2 with points pointsize 1.5 title columnheader(1)
GP
    for curve in sizes widths; do
        dat="$out/taps_$curve.dat"
        [ -s "$dat" ] || continue
        n=$(grep -c '^"' "$dat" || true)
        if [ "$curve" = sizes ]; then
            title="Erosion, 4096 x 4096, one thread: time per output sample against the element's extent"
            xlabel="extent of the square or disk (samples)"
        else
            title="Erosion, about 4 M samples, one thread: time per output sample against the row's width"
            xlabel="row width (samples)"
        fi
        gnuplot <<GP
set terminal pngcairo size 1000,640 noenhanced
set output "$out/$curve.png"
set title "$title"
set xlabel "$xlabel"
set ylabel "ns per output sample"
set logscale xy
set grid
set key outside right
$(pair_styles "$n")
plot for [i=0:$((n - 1))] "$dat" index i using 1:2 with linespoints ls (i + 1) title columnheader(1)
GP
    done
    echo "report: $out/report.md, plots: $out/taps.png $out/sizes.png $out/widths.png"
else
    echo "report: $out/report.md (gnuplot not found: no plot)"
fi
exit "$status"
