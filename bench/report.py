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


def targets(runs, best, threads_all):
    """The performance targets, each with its measured ratio and whether it
    is met.  A ratio is a quotient of median times from this run."""

    def t(op, typ, shape, element, level, threads):
        key = "/".join([op, typ, shape, element, level, "threads:%d" % threads])
        return runs[key]["seconds"] if key in runs else None

    rows = []

    def check(what, value, limit, at_most=True):
        if value is None:
            rows.append("| %s | - | %s %.2f | not measured |" % (what, "<=" if at_most else ">=", limit))
            return
        ok = value <= limit if at_most else value >= limit
        rows.append("| %s | %.2f | %s %.2f | %s |" % (what, value, "<=" if at_most else ">=", limit,
                                                      "met" if ok else "**missed**"))

    def quotient(a, b):
        return a / b if a is not None and b else None

    big = "4096x4096"
    for op in ("imerode", "imdilate"):
        for typ, limit in (("uint8", 1.0), ("float32", 0.8)):
            for element in ("square3", "disk5", "disk15"):
                check("%s %s %s, 1 thread / OpenCV 1 thread" % (op, typ, element),
                      quotient(t(op, typ, big, element, best, 1), t(op, typ, big, element, "opencv", 1)), limit)
        for typ, limit in (("uint8", 1.0), ("float32", 2.0)):
            check("%s %s square15, 1 thread / OpenCV 1 thread" % (op, typ),
                  quotient(t(op, typ, big, "square15", best, 1), t(op, typ, big, "square15", "opencv", 1)), limit)
        check("%s uint8 256^3 cube3, 1 thread / OpenCV plane by plane 1 thread" % op,
              quotient(t(op, "uint8", "256x256x256", "cube3", best, 1),
                       t(op, "uint8", "256x256x256", "cube3", "opencv", 1)), 1.0)
        if threads_all > 1:
            for typ in ("uint8", "float32"):
                for element in ("square3", "disk5", "disk15", "square15"):
                    check("%s %s %s, %d threads / OpenCV rows %d threads" % (op, typ, element, threads_all, threads_all),
                          quotient(t(op, typ, big, element, best, threads_all),
                                   t(op, typ, big, element, "opencv-rows", threads_all)), 1.0)
                for element in ("disk5", "disk15"):
                    check("%s %s %s, ours 1 thread / ours %d threads" % (op, typ, element, threads_all),
                          quotient(t(op, typ, big, element, best, 1), t(op, typ, big, element, best, threads_all)),
                          1.8, at_most=False)
            check("%s uint8 256^3 cube3, %d threads / OpenCV plane by plane %d threads" % (op, threads_all, threads_all),
                  quotient(t(op, "uint8", "256x256x256", "cube3", best, threads_all),
                           t(op, "uint8", "256x256x256", "cube3", "opencv", threads_all)), 1.0)
        check("%s uint8 512x512 disk5, 1 thread / OpenCV 1 thread" % op,
              quotient(t(op, "uint8", "512x512", "disk5", best, 1), t(op, "uint8", "512x512", "disk5", "opencv", 1)),
              1.5)
        check("%s uint8 disk5, none / %s, 1 thread" % (op, best),
              quotient(t(op, "uint8", big, "disk5", "none", 1), t(op, "uint8", big, "disk5", best, 1)), 1.7,
              at_most=False)
        for typ in ("uint8", "uint16", "int16", "float32"):
            for element in ("square3", "disk5", "square15", "disk15"):
                none, avx = t(op, typ, big, element, "none", 1), t(op, typ, big, element, "avx", 1)
                if none is not None and avx is not None:
                    check("%s %s %s, avx / none, 1 thread" % (op, typ, element), quotient(avx, none), 1.0)
    check("imerode uint8 square3, 1 thread / memcpy of the image",
          quotient(t("imerode", "uint8", big, "square3", best, 1), t("memcpy", "uint8", big, "-", "copy", 1)), 2.0)
    for op in ("imopen", "imclose", "imtophat", "imbothat"):
        for key, run in runs.items():
            if run["op"] != op or run["level"] != best:
                continue
            stages = [t(s, run["type"], run["shape"], run["element"], best, run["threads"])
                      for s in ("imerode", "imdilate")]
            if None in stages:
                continue
            check("%s %s %s %s, %d threads / (imerode + imdilate)" % (op, run["type"], run["shape"], run["element"],
                                                                    run["threads"]),
                  run["seconds"] / sum(stages), 1.0)
    header = ["\n## Targets\n",
              "Each target as a quotient of median times from this run; *missed* marks one that is not met.\n",
              "| target | measured | limit | |", "|---|---:|---:|---|"]
    return header + rows


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

    out.extend(targets(runs, best, threads_all))

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
