"""A volume read with da.from_zarr streams through tessmorph.dask: the run
fits an address space far smaller than the volume would need twice over,
and its resident memory grows by a fraction of the volume."""

import os
import subprocess
import sys

import numpy as np
import pytest

da = pytest.importorskip("dask.array")
zarr = pytest.importorskip("zarr")

import tessmorph

RUN = """
import resource, sys
import dask, dask.array as da, numpy as np
import tessmorph, tessmorph.dask as tdask
source, target, limit = sys.argv[1], sys.argv[2], int(sys.argv[3])
resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
with dask.config.set(scheduler="threads", num_workers=2):
    tdask.opening(da.from_zarr(source), tessmorph.footprints.ball(2)).to_zarr(target)
print(before * 1024, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024)
"""

VOLUME = (64, 2048, 2048)  # 256 MiB of uint8
LIMIT = 2**30


def test_from_zarr_streams_with_bounded_memory(tmp_path):
    # AddressSanitizer reserves terabytes of shadow address space: under it
    # no process lives inside a limited address space.
    if "asan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("the address-space limit cannot hold the sanitizer's shadow memory")
    sample = da.from_array(tessmorph.sample_volume(), chunks=-1)
    reps = [-(-n // s) for n, s in zip(VOLUME, sample.shape)]
    volume = da.tile(sample, reps)[tuple(slice(0, n) for n in VOLUME)].rechunk((32, 256, 256))
    volume.to_zarr(str(tmp_path / "in.zarr"))
    size = volume.nbytes
    env = {k: v for k, v in os.environ.items()}
    run = subprocess.run([sys.executable, "-c", RUN, str(tmp_path / "in.zarr"), str(tmp_path / "out.zarr"),
                          str(LIMIT)], capture_output=True, text=True, env=env)
    assert run.returncode == 0, run.stderr[-3000:]
    before, peak = (int(v) for v in run.stdout.split())
    # Two threads' blocks with their halos, intermediates and outputs: a few
    # tens of MiB, where holding the volume would be all of it.
    assert peak - before < size / 4, (peak - before) / 2**20
    out = zarr.open(str(tmp_path / "out.zarr"), mode="r")
    assert out.shape == VOLUME and out.dtype == np.uint8
