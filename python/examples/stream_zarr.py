#!/usr/bin/python3
"""Streams a zarr volume larger than memory through tessmorph and reports
time and peak memory (the README's measurement; not part of the tests, it
takes minutes and gigabytes of disk).

    python3 stream_zarr.py WORKDIR [--gib 4] [--chunk 128,256,256] [--footprint ball:2] [--limit-gib 1]
                           [--route cli|threads|cluster]

Makes WORKDIR/volume.zarr (the sample volume tiled to the size asked for,
written chunk by chunk) unless it is there, then opens it into
WORKDIR/opened.zarr under /usr/bin/time (and, with --limit-gib, with that
much address space at most), by one of three routes:

- cli: `tessmorph opening volume.zarr opened.zarr`;
- threads: `tessmorph.dask.opening(da.from_zarr(...)).to_zarr(...)`, what a
  dask user writes, on dask's threaded scheduler;
- cluster: the same on a LocalCluster of two worker processes of one thread
  (its memory is the largest process', a worker's).

and checks two places of the result against whole-array calls on their
neighbourhood.
"""

import argparse
import os
import re
import resource
import subprocess
import sys

import numpy as np


DASK_RUN = """
import sys
import dask, dask.array as da
import tessmorph.dask as tdask
from tessmorph import cli
route, source, target, footprint, threads = sys.argv[1:]
opened = tdask.opening(da.from_zarr(source), cli.parse_footprint(footprint))
if route == "threads":
    with dask.config.set(scheduler="threads", num_workers=int(threads)):
        opened.to_zarr(target, overwrite=True)
else:
    from distributed import Client, LocalCluster
    with LocalCluster(n_workers=int(threads), threads_per_worker=1, processes=True, dashboard_address=None,
                      silence_logs=50) as cluster, Client(cluster):
        opened.to_zarr(target, overwrite=True)
"""


def make_volume(path, gib, chunks):
    import dask.array as da

    import tessmorph
    sample = tessmorph.sample_volume()
    plane = 2048 * 2048
    depth = int(round(gib * 2**30 / plane))
    reps = (-(-depth // sample.shape[0]), 2048 // sample.shape[1], 2048 // sample.shape[2])
    volume = da.tile(da.from_array(sample, chunks=-1), reps)[:depth].rechunk(chunks)
    print(f"writing {path}: {volume.shape} uint8, {volume.nbytes / 2**30:.2f} GiB, chunks {chunks}", flush=True)
    volume.to_zarr(path, overwrite=True)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("workdir")
    p.add_argument("--gib", type=float, default=4.0)
    p.add_argument("--chunk", default="128,256,256")
    p.add_argument("--footprint", default="ball:2")
    p.add_argument("--threads", type=int, default=2)
    p.add_argument("--limit-gib", type=float, help="run the tool with this much address space at most")
    p.add_argument("--route", choices=("cli", "threads", "cluster"), default="cli")
    args = p.parse_args()
    chunks = tuple(int(c) for c in args.chunk.split(","))
    os.makedirs(args.workdir, exist_ok=True)
    source, target = os.path.join(args.workdir, "volume.zarr"), os.path.join(args.workdir, "opened.zarr")
    if not os.path.exists(source):
        make_volume(source, args.gib, chunks)

    if args.route == "cli":
        run_it = ["-m", "tessmorph", "opening", source, target, "--footprint", args.footprint, "--threads",
                  str(args.threads), "--quiet"]
    else:
        run_it = ["-c", DASK_RUN, args.route, source, target, args.footprint, str(args.threads)]
    command = ["/usr/bin/time", "-v", "nice", "-n", "10", sys.executable] + run_it
    def limit():
        if args.limit_gib:
            size = int(args.limit_gib * 2**30)
            resource.setrlimit(resource.RLIMIT_AS, (size, size))

    run = subprocess.run(command, capture_output=True, text=True, preexec_fn=limit)
    if run.returncode:
        sys.exit(run.stderr)
    wall = re.search(r"Elapsed \(wall clock\) time.*: (\S+)", run.stderr).group(1)
    peak = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", run.stderr).group(1)) / 2**20

    import zarr

    import tessmorph
    from tessmorph import cli
    src, out = zarr.open(source, mode="r"), zarr.open(target, mode="r")
    fp = cli.parse_footprint(args.footprint)
    size = src.nbytes / 2**30
    limit = f", address space limited to {args.limit_gib} GiB" if args.limit_gib else ""
    print(f"{args.route}: opening {src.shape} {src.dtype} ({size:.2f} GiB), chunks {src.chunks} -> {out.chunks}, "
          f"footprint {args.footprint}, {args.threads} threads{limit}: {wall} wall, peak memory {peak:.2f} GiB "
          f"({peak / size:.1%} of the volume)")

    # Two places against whole-array calls on their neighbourhood, whose own
    # cut edges are out of reach there: the first plane's corner (where the
    # volume's edges are the neighbourhood's) and the middle of the volume
    # (where opening is the textbook one).
    for z in (0, src.shape[0] // 2):
        lo = max(z - 8, 0)
        box = np.asarray(src[lo:z + 9, 1000:1064, 1000:1064] if z else src[:17, :64, :64])
        inner = slice(16, 48) if z else slice(0, 32)
        expected = tessmorph.dilation(tessmorph.erosion(box, fp), fp)[z - lo, inner, inner]
        got = out[z, 1016:1048, 1016:1048] if z else out[0, :32, :32]
        assert np.array_equal(got, expected), z
    print("spot checks passed")


if __name__ == "__main__":
    main()
