"""Chunked equals whole: tessmorph.dask against one call on the whole array,
bit for bit, with the threaded and the distributed scheduler."""

import itertools

import numpy as np
import pytest

da = pytest.importorskip("dask.array")

import tessmorph
import tessmorph.dask as tdask
from conftest import DTYPES, OPERATORS, PAD_BOUNDS, random_footprint, random_image, same_bits

# More planes than rows (opening's window ends inside the volume), fewer
# planes than rows, a 2-D image; chunks that don't divide the shape, some
# shallower than the halo, some narrower than a vector.
LAYOUTS = [((23, 9, 45), (5, 4, 13), (3, 3, 4)),
           ((5, 26, 50), (2, 7, 9), (2, 4, 3)),
           ((40, 70), (11, 6), (5, 4))]


def check(op, image, chunks, fp, scheduler, **kw):
    whole = getattr(tessmorph, op)(image, fp, **kw)
    lazy = getattr(tdask, op)(da.from_array(image, chunks=chunks), fp, **kw)
    assert lazy.chunks == da.from_array(image, chunks=chunks).chunks
    got = lazy.compute(scheduler=scheduler)
    assert same_bits(got, whole), (op, image.shape, chunks, kw)


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
def test_every_operator_and_type_chunked_equals_whole(dtype):
    rng = np.random.default_rng(int(dtype.num))
    for shape, chunks, fp_shape in LAYOUTS:
        image = random_image(rng, shape, dtype)
        fp = random_footprint(rng, fp_shape)
        lower, upper = rng.choice(PAD_BOUNDS, 2)
        for op in OPERATORS:
            check(op, image, chunks, fp, "threads", lower=lower, upper=upper)


@pytest.mark.parametrize("op", ["white_tophat", "black_tophat"])
def test_residue_blocks_take_the_whole_images_vector_path(op):
    # uint32 differences round differently in the vector and the scalar form
    # at level none: a block must be wider than a vector when the image is.
    rng = np.random.default_rng(21)
    image = random_image(rng, (4, 6, 30), np.uint32)
    check(op, image, (2, 3, 3), np.ones((1, 1, 1), np.uint8), "threads", level="none")
    check(op, image, (2, 3, 3), random_footprint(rng, (2, 2, 3)), "threads", level="none")


def test_special_chunkings():
    rng = np.random.default_rng(22)
    image = random_image(rng, (12, 10, 40), np.int16)
    for op, (chunks, fp) in itertools.product(OPERATORS, [
            ((12, 10, 40), np.ones((3, 3, 3))),   # one chunk
            ((1, 1, 7), np.ones((1, 1, 1))),      # no halo at all
            ((2, 2, 2), np.ones((7, 5, 9))),      # chunks far shallower than the halo
            ((5, 5, 5), np.ones((13, 11, 41)))]):  # a footprint larger than the image
        check(op, image, chunks, fp, "sync")


@pytest.mark.parametrize("source", ["zarr", "memmap"])
def test_sources_read_block_by_block(tmp_path, source):
    rng = np.random.default_rng(25)
    image = random_image(rng, (21, 8, 37), np.uint32)
    if source == "zarr":
        zarr = pytest.importorskip("zarr")
        zarr.save_array(str(tmp_path / "v.zarr"), image, chunks=(6, 3, 11))
        stored = zarr.open(str(tmp_path / "v.zarr"), mode="r")
    else:
        np.save(tmp_path / "v.npy", image)
        stored = np.load(tmp_path / "v.npy", mmap_mode="r")
    fp = random_footprint(rng, (3, 4, 2))
    for op, chunks in itertools.product(OPERATORS, [None, (2, 2, 5), (21, 8, 37)]):
        lazy = getattr(tdask, op)(stored, fp, chunks=chunks, lower=3, upper=4e9, level="none")
        assert same_bits(lazy.compute(), getattr(tessmorph, op)(image, fp, lower=3, upper=4e9, level="none")), op


def test_textbook_and_array_inputs():
    image = random_image(np.random.default_rng(23), (14, 5, 20), np.float32)
    fp = tessmorph.footprints.ball(1)
    for op in ("opening", "closing"):
        lazy = getattr(tdask, op)(da.from_array(image, chunks=4), fp, textbook=True)
        assert same_bits(lazy.compute(), getattr(tessmorph, op)(image, fp, textbook=True))
    assert same_bits(tdask.erosion(image, fp).compute(), tessmorph.erosion(image, fp))


def test_refusals_come_when_the_graph_is_built():
    x = da.zeros((10, 10), dtype=np.int64, chunks=5)
    with pytest.raises(TypeError):
        tdask.erosion(x, np.ones((3, 3)))
    with pytest.raises(ValueError):
        tdask.erosion(da.zeros((10, 10), dtype=np.uint8), np.ones((3, 3, 3)))
    with pytest.raises(TypeError):
        tdask.erosion(da.zeros((10, 10), dtype=np.uint8), np.ones((3, 3)), upper="x")


def test_distributed_scheduler(tmp_path):
    distributed = pytest.importorskip("distributed")
    zarr = pytest.importorskip("zarr")
    rng = np.random.default_rng(24)
    image = random_image(rng, (19, 7, 33), np.float64)
    fp = random_footprint(rng, (3, 2, 3))
    zarr.save_array(str(tmp_path / "v.zarr"), image, chunks=(5, 4, 9))
    stored = zarr.open(str(tmp_path / "v.zarr"), mode="r")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                                  dashboard_address=None, silence_logs=50) as cluster, \
            distributed.Client(cluster) as client:
        for op in OPERATORS:
            whole = getattr(tessmorph, op)(image, fp, lower=-1.5, upper=2.5)
            lazy = getattr(tdask, op)(da.from_array(image, chunks=(4, 3, 10)), fp, lower=-1.5, upper=2.5)
            assert same_bits(client.compute(lazy).result(), whole), op
            # Workers open the zarr array themselves and read their blocks.
            lazy = getattr(tdask, op)(stored, fp, lower=-1.5, upper=2.5)
            assert same_bits(client.compute(lazy).result(), whole), op
