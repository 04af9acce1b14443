"""The six operators on dask arrays, chunk by chunk, equal bit for bit to one
call on the whole array.

Each output chunk is computed from its input chunk and a halo as deep as the
operator reaches, which the library's bounds query gives.  A dask array goes
through ``dask.array.map_overlap``, where neighbouring chunks lend each other
their halos (so a layer of chunks waits in memory for its neighbours).  An
array read on demand (a zarr array, a memory-mapped .npy) is instead read
block by block, each block its chunk and halo straight from the source, so
that only the blocks in flight are in memory: a volume larger than memory
streams through.  Either way each block is handed its place in the whole
image, so that the pads fall where the whole image's edges are:

- erosion, dilation, closing and black top-hat depend on nothing but the
  image's own domain: the block is the image at its place in the whole, and
  the output box is the chunk;
- opening's window depends on the whole image's extents (on the first axis of
  a volume, the second axis' extent), which no block has: it is computed as
  its two stages, an erosion of the block into the part of the window the
  chunk's dilation reads (the box the library itself would erode), and a
  dilation of that box, padded with ``lower`` beyond it;
- the white top-hat's window is the image itself: the block, placed at 0, is
  its own window, and the halo keeps its cut edges out of the chunk's reach.

The residues' halo along the last axis is at least one vector wide, so that a
block is wider than a vector exactly when the whole image is: the vector and
the scalar forms of uint32's difference at level none round differently.

Works with any dask scheduler (threads, processes, distributed): blocks carry
everything they need.  The level is fixed when the graph is built.
"""

import functools

import dask.array as da
import numpy as np
from dask.array.overlap import ensure_minimum_chunksize

from . import _library
from .morphology import apply as _apply

__all__ = ["erosion", "dilation", "opening", "closing", "white_tophat", "black_tophat", "halo"]


def _reach(operator, ndim, fp_shape, dtype, level):
    """How far the operator reads below and above an output sample, per axis:
    the bounds query for a box far from the edges of a large image (and from
    opening's window, which starts at 0), wide enough not to be widened."""
    box = 64
    big = min(max(1 << 20, 4 * (max(fp_shape) + box)), 1 << 30)
    origin = (big // 2,) * ndim
    region = _library.required_region(operator, (big,) * ndim, np.broadcast_to(np.uint8(0), fp_shape), origin,
                                      (box,) * ndim, dtype=dtype, level=level)
    below = [o - r for o, r in zip(origin, region.image_origin)]
    above = [r + n - (o + box) for o, r, n in zip(origin, region.image_origin, region.image_shape)]
    return [max(b, a, 0) for b, a in zip(below, above)]


def halo(operator, image, footprint, level=None):
    """The halo per axis that ``tessmorph.dask`` gives each chunk of ``image``
    (an array or a dask array) for this operator and footprint."""
    ndim = len(image.shape)
    fp = _library.prepare_footprint(footprint, ndim)
    word = _library.type_word(image.dtype)
    level = _library.resolve_level(level)
    depth = _reach(operator, ndim, fp.shape, image.dtype, level)
    if operator in _library.RESIDUES:
        depth[-1] = max(depth[-1], _library.lanes(word, level))
    return depth


def _opening_box(o, n, e, bound):
    """The part of the window [0, bound) that the dilation of the output
    samples o .. o + n - 1 reads, as the library clips it: never empty."""
    c = (e + 1) // 2 - 1
    lo = max(min(o + c + 1 - e, bound - 1), 0)
    hi = max(min(o + n + c, bound) - 1, 0)
    return lo, hi - lo + 1


def _compute(block, block_origin, chunk_origin, chunk_shape, *, operator, shape, footprint, lower, upper, level):
    """One output chunk from the block around it, placed in the whole."""
    kw = dict(lower=lower, upper=upper, level=level)
    if operator == "white_tophat":
        return _apply(operator, block, footprint, out_origin=np.subtract(chunk_origin, block_origin),
                      out_shape=chunk_shape, **kw)
    if operator != "opening":
        return _apply(operator, block, footprint, image_origin=block_origin, out_origin=chunk_origin,
                      out_shape=chunk_shape, **kw)

    # The window: from 0, as long as the image, but on the first axis of a
    # volume as long as the second axis.
    bounds = list(shape)
    if len(shape) == 3:
        bounds[0] = shape[1]
    fp_shape = (1,) * (len(shape) - footprint.ndim) + footprint.shape
    box = [_opening_box(o, n, e, b) for o, n, e, b in zip(chunk_origin, chunk_shape, fp_shape, bounds)]
    box_origin, box_shape = [b[0] for b in box], [b[1] for b in box]
    eroded = _apply("erosion", block, footprint, image_origin=block_origin, out_origin=box_origin,
                    out_shape=box_shape, **kw)
    return _apply("dilation", eroded, footprint, image_origin=box_origin, out_origin=chunk_origin,
                  out_shape=chunk_shape, **kw)


def _chunk_of(chunks, block_info, key):
    loc = block_info[key]["chunk-location"]
    return loc, [sum(c[:i]) for c, i in zip(chunks, loc)], [c[i] for c, i in zip(chunks, loc)]


def _overlapped_block(block, block_info=None, *, chunks, depth, **kw):
    """A block that map_overlap assembled: the chunk and the halo its
    neighbours lent (none beyond the array's edges)."""
    loc, chunk_origin, chunk_shape = _chunk_of(chunks, block_info, 0)
    block_origin = [o - (d if i > 0 else 0) for o, d, i in zip(chunk_origin, depth, loc)]
    extra = [(d if i > 0 else 0) + (d if i < len(c) - 1 else 0) for d, i, c in zip(depth, loc, chunks)]
    assert list(block.shape) == [n + x for n, x in zip(chunk_shape, extra)], (block.shape, chunk_shape, extra)
    return _compute(block, block_origin, chunk_origin, chunk_shape, **kw)


def _read_block(block_info=None, *, source, chunks, depth, **kw):
    """A block read straight from the source: the chunk and its halo, cut at
    the array's edges."""
    _, chunk_origin, chunk_shape = _chunk_of(chunks, block_info, None)
    lo = [max(o - d, 0) for o, d in zip(chunk_origin, depth)]
    hi = [min(o + n + d, s) for o, n, d, s in zip(chunk_origin, chunk_shape, depth, source.shape)]
    block = np.asarray(source[tuple(slice(a, b) for a, b in zip(lo, hi))])
    return _compute(block, lo, chunk_origin, chunk_shape, **kw)


def _run(operator, image, footprint, lower, upper, level, chunks):
    ndim, dtype = len(image.shape), np.dtype(image.dtype)
    if ndim not in (1, 2, 3):
        raise ValueError(f"image must have 1, 2 or 3 axes, not {ndim}")
    _library.type_word(dtype)
    fp = _library.prepare_footprint(footprint, ndim)
    level = _library.resolve_level(level)
    _library.bounds(dtype, lower, upper)  # refuses what isn't a number now, not in a worker
    depth = halo(operator, image, fp, level)
    kw = dict(operator=operator, shape=tuple(image.shape), footprint=fp, lower=lower, upper=upper, level=level)
    meta = np.empty((0,) * ndim, dtype.newbyteorder("="))

    if not isinstance(image, da.Array) and (isinstance(image, np.memmap) or not isinstance(image, np.ndarray)):
        # A source read on demand (zarr, a memory map): every block reads its
        # own chunk and halo, so no chunk waits in memory for its neighbours.
        if chunks is None:
            chunks = getattr(image, "chunks", "auto")
        chunks = da.core.normalize_chunks(chunks, image.shape, dtype=dtype)
        fn = functools.partial(_read_block, source=image, chunks=chunks, depth=depth, **kw)
        return da.map_blocks(fn, chunks=chunks, dtype=meta.dtype, meta=meta)

    x = da.asarray(image) if chunks is None else da.asarray(image).rechunk(chunks)
    if not x.dtype.isnative:
        x = x.astype(meta.dtype)
    if x.size == 0:
        return x.copy()
    # Every chunk at least as deep as the halo, so that a block's halo comes
    # from its neighbours alone; an axis in one chunk needs no halo.
    work = list(x.chunks)
    for axis, d in enumerate(depth):
        if d == 0 or len(work[axis]) == 1:
            depth[axis] = 0
        elif d >= x.shape[axis]:
            work[axis], depth[axis] = (x.shape[axis],), 0
        else:
            work[axis] = ensure_minimum_chunksize(d, work[axis])
    work = tuple(tuple(c) for c in work)
    y = x.rechunk(work) if work != x.chunks else x
    fn = functools.partial(_overlapped_block, chunks=work, depth=depth, **kw)
    result = da.map_overlap(fn, y, depth={a: d for a, d in enumerate(depth)}, boundary="none", trim=False,
                            chunks=work, dtype=meta.dtype, meta=meta)
    return result.rechunk(x.chunks) if work != x.chunks else result


def _doc(name):
    return f"""``tessmorph.{name}`` chunk by chunk, lazily.

    Same arguments and result as ``tessmorph.{name}``, bit for bit, as a dask
    array.  ``image`` is a dask array, or an array read on demand (a zarr
    array, a memory map; read block by block), or a numpy array.  ``chunks``
    (anything dask takes) rechunks it; by default the image's own chunks.
    The footprint is a numpy array.  Refusals are raised when the graph is
    built, not in a worker.
    """


def erosion(image, footprint, *, lower=None, upper=None, level=None, chunks=None):
    return _run("erosion", image, footprint, lower, upper, level, chunks)


def dilation(image, footprint, *, lower=None, upper=None, level=None, chunks=None):
    return _run("dilation", image, footprint, lower, upper, level, chunks)


def opening(image, footprint, *, lower=None, upper=None, level=None, chunks=None, textbook=False):
    if textbook:
        eroded = erosion(image, footprint, upper=upper, level=level, chunks=chunks)
        return dilation(eroded, footprint, lower=lower, level=level)
    return _run("opening", image, footprint, lower, upper, level, chunks)


def closing(image, footprint, *, lower=None, upper=None, level=None, chunks=None, textbook=False):
    if textbook:
        dilated = dilation(image, footprint, lower=lower, level=level, chunks=chunks)
        return erosion(dilated, footprint, upper=upper, level=level)
    return _run("closing", image, footprint, lower, upper, level, chunks)


def white_tophat(image, footprint, *, lower=None, upper=None, level=None, chunks=None):
    return _run("white_tophat", image, footprint, lower, upper, level, chunks)


def black_tophat(image, footprint, *, lower=None, upper=None, level=None, chunks=None):
    return _run("black_tophat", image, footprint, lower, upper, level, chunks)


for _f in (erosion, dilation, opening, closing, white_tophat, black_tophat):
    _f.__doc__ = _doc(_f.__name__)
