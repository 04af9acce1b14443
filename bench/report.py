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
                          taps=int(b.get("taps", 0)), samples=int(b.get("samples", 0)),
                          work=b.get("work_MiB"))
    errors = [b["name"] + ": " + b.get("error_message", "") for b in doc["benchmarks"] if b.get("error_occurred")]
    return doc.get("context", {}), runs, errors


def ms(s):
    return "%.3f" % (s * 1e3) if s is not None else "-"


def ratio(a, b):
    return "%.2f" % (a / b) if a is not None and b else "-"


def targets(runs, best, threads_all):
    """The performance targets, each with its measured ratio and whether it
    is met.  A ratio is a quotient of median times from this run; cases the
    run did not measure (a filter left them out) are listed as such."""

    def t(op, typ, shape, element, level, threads):
        key = "/".join([op, typ, shape, element, level, "threads:%d" % threads])
        return runs[key]["seconds"] if key in runs else None

    def per_sample(op, typ, shape, element, threads=1):
        key = "/".join([op, typ, shape, element, best, "threads:%d" % threads])
        r = runs.get(key)
        return r["seconds"] / r["samples"] if r and r["samples"] else None

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

    def against_peer(op, typ, shape, element, limit, threads=1):
        check("%s %s %s %s, %d thread(s) / OpenCV" % (op, typ, shape, element, threads),
              quotient(t(op, typ, shape, element, best, threads), t(op, typ, shape, element, "opencv", threads)),
              limit)

    # 1. Row widths on about 4 M samples.
    # (the shapes of about 4 M samples that erosion by the widths' disks ran on)
    widths = sorted({r["shape"] for r in runs.values() if r["shape"].endswith("x%d" % ((4 << 20) // int(
        r["shape"].split("x")[0]))) and r["shape"].count("x") == 1 and r["op"] == "imerode"
        and r["element"] in ("disk5", "disk15")}, key=lambda s: int(s.split("x")[0]))
    for typ in ("uint8", "float32"):
        for element in ("disk5", "disk15", "square15"):
            wide = [s for s in widths if s.startswith("4096x")]
            base = per_sample("imerode", typ, wide[0], element) if wide else None
            for shape in widths:
                against_peer("imerode", typ, shape, element, 1.0)
                check("imerode %s %s %s, time per sample / that of 4096-wide rows" % (typ, shape, element),
                      quotient(per_sample("imerode", typ, shape, element), base), 1.5)
    # 2. Sizes on 4096 x 4096.
    big = "4096x4096"
    for typ in ("uint8", "uint16", "float32"):
        for e in (3, 5, 7, 15, 31, 63):
            for kind in ("square", "disk"):
                against_peer("imerode", typ, big, "%s%d" % (kind, e), 0.5 if e >= 15 else 1.0)
        for element in ("line1x31", "line31x1", "line1x255"):
            against_peer("imerode", typ, big, element, 1.0)
        against_peer("imerode", typ, big, "square127", 0.5)
    check("imerode uint8 square63 / square3, 1 thread",
          quotient(t("imerode", "uint8", big, "square63", best, 1), t("imerode", "uint8", big, "square3", best, 1)), 2.0)
    check("imerode uint8 disk63 / disk15, 1 thread",
          quotient(t("imerode", "uint8", big, "disk63", best, 1), t("imerode", "uint8", big, "disk15", best, 1)), 3.0)
    # 3. Balls on volumes, against OpenCV composed plane by plane.
    for n in (128, 256):
        shape = "%dx%dx%d" % (n, n, n)
        for typ in ("uint8", "uint16"):
            for r in (1, 3, 7, 15):
                against_peer("imerode", typ, shape, "ball%d" % r, 0.5)
    for n in (128, 256):
        v = per_sample("imerode", "uint8", "%dx%dx%d" % (n, n, n), "ball15")
        check("imerode uint8 %d^3 ball15, ns per voxel, 1 thread" % n, v * 1e9 if v else None, 20.0)
    # 4. Top-hats.
    against_peer("imtophat", "uint16", "2048x2048", "disk51", 0.5)
    vol = "256x256x256"
    stages = [t(s, "uint16", vol, "ball5", best, 1) for s in ("imerode", "imdilate")]
    check("imtophat uint16 256^3 ball5 / (imerode + imdilate), 1 thread",
          quotient(t("imtophat", "uint16", vol, "ball5", best, 1), sum(stages) if None not in stages else None), 1.0)
    # 4b. Elements far larger than the image.
    for typ in ("uint8", "float32"):
        for shape, element in (("64x80", "disk401"), ("64x80", "disk2001"), ("512x512x1", "ball15")):
            against_peer("imerode", typ, shape, element, 1.0)
    # 5. Today's wins and the threads.
    for op in ("imerode", "imdilate"):
        for typ, element in (("uint8", "disk15"), ("float32", "disk15")):
            against_peer(op, typ, big, element, 1.0)
        against_peer(op, "uint8", "256x256x256", "cube3", 1.0)
    if threads_all > 1:
        for key, run in runs.items():
            if run["level"] != best or run["threads"] != 1 or run["samples"] < (1 << 20):
                continue
            many = t(run["op"], run["type"], run["shape"], run["element"], best, threads_all)
            check("%s %s %s %s, 1 thread / %d threads" % (run["op"], run["type"], run["shape"], run["element"],
                                                         threads_all),
                  quotient(run["seconds"], many), 1.8, at_most=False)
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
    out.append("| operator | type | image | element | taps | level | threads | ours ms | ns/sample | work MiB | "
               "OpenCV ms | ratio | OpenCV rows ms | ratio rows |")
    out.append("|---|---|---|---|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|")
    for r in ours:
        p, q = get(r, "opencv"), get(r, "opencv-rows")
        per = "%.2f" % (r["seconds"] * 1e9 / r["samples"]) if r["samples"] else "-"
        work = "%.1f" % r["work"] if r["work"] is not None else "-"
        out.append("| %s | %s | %s | %s | %d | %s | %d | %s | %s | %s | %s | %s | %s | %s |" % (
            r["op"], r["type"], r["shape"], r["element"], r["taps"], r["level"], r["threads"],
            ms(r["seconds"]), per, work, ms(p), ratio(r["seconds"], p), ms(q), ratio(r["seconds"], q)))

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
    write_curves(runs, best, dat_path)
    return 1 if errors else 0


def write_curves(runs, best, dat_path):
    """Data of the two curves a person would rather look at than read: one
    thread, erosion, nanoseconds per output sample against the element's
    extent on 4096 x 4096 (squares and disks, ours and OpenCV's), and
    against the row's width on about 4 M samples (disks of 5 and 15)."""
    def series_file(path, series):
        with open(path, "w") as f:
            for label, pts in series.items():
                f.write('"%s"\n' % label)
                for x, ns in sorted(pts):
                    f.write("%d %.6g\n" % (x, ns))
                f.write("\n\n")

    sizes, widths = OrderedDict(), OrderedDict()
    for r in runs.values():
        if r["op"] != "imerode" or r["threads"] != 1 or not r["samples"] or r["level"] not in (best, "opencv"):
            continue
        who = "ours" if r["level"] == best else "OpenCV"
        ns = r["seconds"] * 1e9 / r["samples"]
        el = r["element"]
        # Series in pairs, OpenCV's then ours, which the plot draws in one
        # colour each (OpenCV's dashed).
        if r["shape"] == "4096x4096" and r["type"] != "int16" and (el.startswith("square") or el.startswith("disk")):
            kind = "square" if el.startswith("square") else "disk"
            sizes.setdefault("%s %s: %s" % (r["type"], kind, who), []).append((int(el[len(kind):]), ns))
        parts = r["shape"].split("x")
        # The same rows as the widths' targets: h = 4 Mi // w (48 x 87381 too).
        if len(parts) == 2 and int(parts[1]) == (4 << 20) // int(parts[0]) and el in ("disk5", "disk15", "square15"):
            widths.setdefault("%s %s: %s" % (r["type"], el, who), []).append((int(parts[0]), ns))
    stem = dat_path.rsplit(".", 1)[0]
    series_file(stem + "_sizes.dat", sizes)
    series_file(stem + "_widths.dat", widths)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
