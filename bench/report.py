#!/usr/bin/env python3
"""Turns tm_bench's JSON into a short markdown report and the data of the
taps plot.

    report.py bench.json report.md taps.dat

Benchmark names are op/type/shape/element/level/threads:N, where level is
none, avx, avx2, opencv (one OpenCV call) or opencv-rows (OpenCV cut into
bands of rows, one call per band in parallel).  With repetitions, the
medians are used.
"""
import json
import sys
from collections import OrderedDict


def load(path):
    with open(path) as f:
        doc = json.load(f)
    runs = OrderedDict()
    medians = set()
    for b in doc["benchmarks"]:
        if b.get("error_occurred"):
            continue
        name = b.get("run_name", b["name"])
        name = name.split("/real_time")[0]
        is_median = b.get("run_type") == "aggregate" and b.get("aggregate_name") == "median"
        if b.get("run_type") == "aggregate" and not is_median:
            continue
        if not is_median and name in medians:
            continue
        if is_median:
            medians.add(name)
        unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b.get("time_unit", "ns")]
        op, typ, shape, element, level, threads = name.split("/")
        runs[name] = dict(op=op, type=typ, shape=shape, element=element, level=level,
                          threads=int(threads.split(":")[1]), seconds=b["real_time"] * unit,
                          taps=int(b.get("taps", 0)), samples=int(b.get("samples", 0)))
    errors = [b["name"] + ": " + b.get("error_message", "") for b in doc["benchmarks"] if b.get("error_occurred")]
    return doc.get("context", {}), runs, errors


def ms(s):
    return "%.3f" % (s * 1e3) if s is not None else "-"


def ratio(a, b):
    return "%.2f" % (a / b) if a is not None and b else "-"


def main(json_path, md_path, dat_path):
    ctx, runs, errors = load(json_path)
    best = ctx.get("best_level", "avx2")

    def get(r, level, threads=None):
        key = "/".join([r["op"], r["type"], r["shape"], r["element"], level,
                        "threads:%d" % (r["threads"] if threads is None else threads)])
        return runs[key]["seconds"] if key in runs else None

    ours = [r for r in runs.values() if not r["level"].startswith("opencv")]
    threads_all = max([r["threads"] for r in runs.values()] or [1])
    out = []
    out.append("# Benchmarks: ours against OpenCV %s\n" % ctx.get("opencv", ""))
    out.append("Host: %s CPUs at %s MHz, best level `%s`, %s.  Median wall times of one call; "
               "ratio = ours / OpenCV, below 1 ours is faster.  *OpenCV rows*: the same OpenCV call cut "
               "into bands of rows run in parallel (one OpenCV call runs on one thread).\n"
               % (ctx.get("num_cpus", "?"), ctx.get("mhz_per_cpu", "?"), best, ctx.get("date", "")))
    load_avg = ctx.get("load_avg")
    if load_avg and load_avg[0] > 0.5:
        out.append("**Warning:** the load average was %.2f when the run started: other processes shared "
                   "the CPUs and the figures are noisy.\n" % load_avg[0])
    if errors:
        out.append("**Failed checks:**\n")
        out.extend("- %s" % e for e in errors)
        out.append("")

    out.append("## Times\n")
    out.append("| operator | type | image | element | taps | level | threads | ours ms | OpenCV ms | ratio | "
               "OpenCV rows ms | ratio rows |")
    out.append("|---|---|---|---|---:|---|---:|---:|---:|---:|---:|---:|")
    for r in ours:
        p, q = get(r, "opencv"), get(r, "opencv-rows")
        out.append("| %s | %s | %s | %s | %d | %s | %d | %s | %s | %s | %s | %s |" % (
            r["op"], r["type"], r["shape"], r["element"], r["taps"], r["level"], r["threads"],
            ms(r["seconds"]), ms(p), ratio(r["seconds"], p), ms(q), ratio(r["seconds"], q)))

    out.append("\n## Levels and threads\n")
    out.append("Speed-up of `%s` over `none` and of `avx` over `none` with one thread; of %d threads over one "
               "at `%s`, for us and for OpenCV (rows).\n" % (best, threads_all, best))
    out.append("| operator | type | image | element | %s / none | avx / none | ours %d / 1 threads | "
               "OpenCV rows %d / 1 threads |" % (best, threads_all, threads_all))
    out.append("|---|---|---|---|---:|---:|---:|---:|")
    seen = set()
    for r in ours:
        key = (r["op"], r["type"], r["shape"], r["element"])
        if key in seen or get(dict(r, threads=1), best) is None:
            continue  # operators timed only with all threads
        seen.add(key)
        one = dict(r, threads=1)
        none, avx, top = get(one, "none"), get(one, "avx"), get(one, best)
        many = get(one, best, threads_all)
        cv1, cvn = get(one, "opencv"), get(one, "opencv-rows", threads_all) or get(one, "opencv", threads_all)
        out.append("| %s | %s | %s | %s | %s | %s | %s | %s |" % (
            key[0], key[1], key[2], key[3], ratio(none, top), ratio(none, avx), ratio(top, many), ratio(cv1, cvn)))

    text = "\n".join(out) + "\n"
    with open(md_path, "w") as f:
        f.write(text)
    sys.stdout.write(text)

    # Plot data: one block per series, nanoseconds per output sample against
    # taps, all threads, best level; blocks separated by two blank lines.
    series = OrderedDict()
    for r in runs.values():
        if r["threads"] != threads_all or r["op"] != "imerode" or not r["samples"]:
            continue
        if r["level"] == best:
            who = "ours"
        elif r["level"] == "opencv":
            who = "OpenCV"
        elif r["level"] == "opencv-rows":
            who = "OpenCV rows"
        else:
            continue
        label = "%s %s%s" % (who, r["type"], " 3-D" if r["shape"].count("x") == 2 else "")
        series.setdefault(label, []).append((r["taps"], r["seconds"] * 1e9 / r["samples"], r["element"]))
    with open(dat_path, "w") as f:
        for label, pts in series.items():
            f.write('"%s"\n' % label)
            for taps, ns, element in sorted(pts):
                f.write("%d %.6g %s\n" % (taps, ns, element))
            f.write("\n\n")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
