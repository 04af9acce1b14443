"""Chunked equals whole: tessmorph.dask against one call on the whole array,
bit for bit, with the threaded and the distributed scheduler, from dask
arrays and from sources read block by block."""

import inspect
import itertools

import numpy as np
import pytest

da = pytest.importorskip("dask.array")
import dask

import tessmorph
import tessmorph.dask as tdask
from conftest import DTYPES, OPERATORS, PAD_BOUNDS, random_footprint, random_image, same_bits

KEYWORDS = set(inspect.signature(tessmorph.erosion).parameters)
# Both definitions where the operators have the switch; else the library's.
DEFINITIONS = [{}, {"exact": True}] if "exact" in KEYWORDS else [{}]
needs_modes = pytest.mark.skipif(not {"mode", "cval", "origin"} <= KEYWORDS,
                                 reason="this tessmorph has no mode, cval or origin")

# More planes than rows (opening's window ends inside the volume), fewer
# planes than rows, a 2-D image; chunks that don't divide the shape, some
# shallower than the halo, some narrower than a vector.
LAYOUTS = [((23, 9, 45), (5, 4, 13), (3, 3, 4)),
           ((5, 26, 50), (2, 7, 9), (2, 4, 3)),
           ((40, 70), (11, 6), (5, 4))]


def check(op, image, chunks, fp, scheduler, **kw):
    whole = getattr(tessmorph, op)(image, fp, **kw)
    lazy = getattr(tdask, op)(da.from_array(image, chunks=-1), fp, chunks=chunks, **kw)
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
        for op, definition in itertools.product(OPERATORS, DEFINITIONS):
            check(op, image, chunks, fp, "threads", lower=lower, upper=upper, **definition)


@pytest.mark.parametrize("op", ["white_tophat", "black_tophat"])
def test_residue_blocks_take_the_whole_images_vector_path(op):
    # uint32 differences round differently in the vector and the scalar form
    # at level none: a block must be wider than a vector when the image is.
    rng = np.random.default_rng(21)
    image = random_image(rng, (4, 6, 30), np.uint32)
    exact = DEFINITIONS[-1]
    check(op, image, (2, 3, 3), np.ones((1, 1, 1), np.uint8), "threads", level="none", **exact)
    check(op, image, (2, 3, 3), random_footprint(rng, (2, 2, 3)), "threads", level="none", **exact)


def test_special_chunkings():
    rng = np.random.default_rng(22)
    image = random_image(rng, (12, 10, 40), np.int16)
    for op, (chunks, fp) in itertools.product(OPERATORS, [
            ((12, 10, 40), np.ones((3, 3, 3))),   # one chunk
            ((1, 1, 7), np.ones((1, 1, 1))),      # no halo at all
            ((2, 2, 2), np.ones((7, 5, 9))),      # chunks far shallower than the halo
            ((5, 5, 5), np.ones((13, 11, 41)))]):  # a footprint larger than the image
        check(op, image, chunks, fp, "sync")


def stored(tmp_path, image, how):
    """The image as a source read on demand, directly or through dask."""
    if how.endswith("zarr"):
        zarr = pytest.importorskip("zarr")
        zarr.save_array(str(tmp_path / "v.zarr"), image, chunks=(6, 3, 11))
        z = zarr.open(str(tmp_path / "v.zarr"), mode="r")
        return {"zarr": z, "from_zarr": da.from_zarr(z), "from_array zarr": da.from_array(z, chunks=(5, 4, 11))}[how]
    np.save(tmp_path / "v.npy", image)
    m = np.load(tmp_path / "v.npy", mmap_mode="r")
    return m if how == "memmap" else da.from_array(m, chunks=(5, 4, 11))


@pytest.mark.parametrize("how", ["zarr", "memmap", "from_zarr", "from_array zarr", "from_array memmap"])
def test_sources_read_block_by_block(tmp_path, how):
    rng = np.random.default_rng(25)
    image = random_image(rng, (21, 8, 37), np.uint32)
    source = stored(tmp_path, image, how)
    if isinstance(source, da.Array):
        # The source itself is read: none of the dask array's tasks remain.
        assert not set(tdask.erosion(source, np.ones(3)).dask) & set(source.dask)
    fp = random_footprint(rng, (3, 4, 2))
    for op, chunks, definition in itertools.product(OPERATORS, [None, (2, 2, 5), (21, 8, 37)], DEFINITIONS):
        kw = dict(lower=3, upper=4e9, level="none", **definition)
        lazy = getattr(tdask, op)(source, fp, chunks=chunks, **kw)
        assert same_bits(lazy.compute(), getattr(tessmorph, op)(image, fp, **kw)), (op, chunks, definition)


def test_default_blocks_have_long_rows(tmp_path):
    zarr = pytest.importorskip("zarr")
    image = random_image(np.random.default_rng(26), (6, 5, 600), np.uint8)
    z = zarr.array(image, chunks=(3, 5, 16), store=str(tmp_path / "v.zarr"))
    fp = np.ones((1, 3, 3), np.uint8)
    for source in (z, da.from_zarr(z), da.from_array(image, chunks=(3, 5, 16))):
        lazy = tdask.dilation(source, fp)
        assert lazy.chunks[:2] == ((3, 3), (5,)) and lazy.chunks[2] == (256, 256, 88)
        assert same_bits(lazy.compute(), tessmorph.dilation(image, fp))
    np.save(tmp_path / "v.npy", image)
    assert tdask.erosion(np.load(tmp_path / "v.npy", mmap_mode="r"), fp).chunks[2][0] >= 256
    # Asked for, narrow rows are what the user gets.
    assert tdask.erosion(z, fp, chunks=(3, 5, 16)).chunks[2][0] == 16


@needs_modes
@pytest.mark.parametrize("mode,cval", [(None, None), ("constant", 7), ("nearest", None), ("reflect", None),
                                       ("mirror", None), ("wrap", None)])
def test_modes_and_origins_chunked_equal_whole(tmp_path, mode, cval):
    rng = np.random.default_rng(27)
    image = random_image(rng, (9, 13, 50), np.int16)
    fp = random_footprint(rng, (2, 3, 4)) * 255
    for op, origin, how in itertools.product(OPERATORS, [0, (-1, 1, -2)], ["dask", "zarr"]):
        kw = {"mode": mode, "origin": origin, **({"cval": cval} if cval is not None else {})}
        whole = getattr(tessmorph, op)(image, fp, **kw)
        source = da.from_array(image, chunks=(4, 5, 9)) if how == "dask" else stored(tmp_path, image, "zarr")
        lazy = getattr(tdask, op)(source, structure=fp, chunks=(4, 5, 9), **kw)
        assert same_bits(lazy.compute(), whole), (op, origin, how)


def test_stacks_of_volumes():
    rng = np.random.default_rng(28)
    image = random_image(rng, (2, 3, 7, 6, 30), np.float32)
    fp = random_footprint(rng, (3, 3, 3))
    for op, definition in itertools.product(OPERATORS, DEFINITIONS):
        lazy = getattr(tdask, op)(da.from_array(image), fp, chunks=(1, 2, 3, 4, 8), **definition)
        assert lazy.chunks == da.from_array(image, chunks=(1, 2, 3, 4, 8)).chunks
        expected = np.stack([getattr(tessmorph, op)(v, fp, **definition) for v in image.reshape(6, 7, 6, 30)])
        assert same_bits(lazy.compute(), expected.reshape(image.shape)), (op, definition)


def test_refusals_come_when_the_graph_is_built():
    x = da.zeros((10, 10), dtype=np.int64, chunks=5)
    with pytest.raises(TypeError):
        tdask.erosion(x, np.ones((3, 3)))
    with pytest.raises(ValueError):
        tdask.erosion(da.zeros((10, 10), dtype=np.uint8), np.ones((3, 3, 3)))
    with pytest.raises(TypeError):
        tdask.erosion(da.zeros((10, 10), dtype=np.uint8), np.ones((3, 3)), upper="x", **DEFINITIONS[-1])
    with pytest.raises(TypeError):
        tdask.erosion(da.zeros((10, 10), dtype=np.uint8), np.ones((3, 3)), structure=np.ones((3, 3)))


def test_distributed_scheduler(tmp_path):
    distributed = pytest.importorskip("distributed")
    zarr = pytest.importorskip("zarr")
    rng = np.random.default_rng(24)
    image = random_image(rng, (19, 7, 33), np.float64)
    fp = random_footprint(rng, (3, 2, 3))
    zarr.save_array(str(tmp_path / "v.zarr"), image, chunks=(5, 4, 9))
    sources = [zarr.open(str(tmp_path / "v.zarr"), mode="r"), stored(tmp_path, image, "from_array memmap")]
    # Two worker processes start while the rest of the suite keeps both
    # cores busy: the default 30 s for a connection is not much there.
    with dask.config.set({"distributed.comm.timeouts.connect": "180s", "distributed.comm.timeouts.tcp": "180s"}), \
            distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                                     dashboard_address=None, silence_logs=50) as cluster, \
            distributed.Client(cluster, timeout="180s") as client:
        for op in OPERATORS:
            whole = getattr(tessmorph, op)(image, fp, lower=-1.5, upper=2.5)
            lazy = getattr(tdask, op)(da.from_array(image, chunks=(4, 3, 10)), fp, lower=-1.5, upper=2.5)
            assert same_bits(client.compute(lazy).result(), whole), op
            # Workers open the zarr array or map the file themselves and
            # read their blocks.
            for source in sources:
                lazy = getattr(tdask, op)(source, fp, lower=-1.5, upper=2.5)
                assert same_bits(client.compute(lazy).result(), whole), op
