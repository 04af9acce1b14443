"""The six operators on dask arrays, chunk by chunk, equal bit for bit to one
call on the whole array.

Each output chunk is computed from a block: its input chunk and a halo as
deep as the operator reaches.  Where the blocks come from decides the memory
a run needs:

- an array read on demand (a zarr array, a memory-mapped .npy, an HDF5
  dataset: anything with ``shape``, ``dtype`` and slicing), or a dask array
  that merely reads one (``da.from_zarr``, ``da.from_array`` on such an
  array), is read block by block, each block its chunk and halo straight
  from the source.  Only the blocks in flight are in memory, so a volume
  larger than memory streams through, with any scheduler;
- any other dask array goes through ``dask.array.map_overlap``, where
  neighbouring chunks lend each other their halos (so a layer of chunks
  waits in memory for its neighbours).

By default the operators are the textbook ones, as ``tessmorph.erosion`` and
the others compute them: the block's result is the operator on the block,
whose cut edges are never within reach of the chunk, and at the image's
edges the block's edge is the image's, so ``mode`` pads it as it pads the
whole image ('wrap' reads its halo from the far side).  With
``exact=True`` the library's own definitions are computed, whose opening
window depends on the whole image: each block is then placed at its
coordinates in the whole image:

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

  The residues' halo along the last axis is then at least one vector wide,
  so that a block is wider than a vector exactly when the whole image is:
  the vector and the scalar forms of uint32's difference at level none round
  differently.

Arrays of more than three axes are stacks of 3-D images (or of images with
as many axes as the footprint): chunks along the leading axes need no halo.
When no chunks are given, blocks are never narrower than ``MIN_ROW``
samples along the last axis (where the image is that wide): the library's
walks along a row are fast only on long rows.

Works with any dask scheduler (threads, processes, distributed): blocks carry
everything they need.  The level is fixed when the graph is built.
"""

import ctypes
import functools
import inspect
import mmap
import numbers
import os

import dask.array as da
import numpy as np
from dask.array.overlap import ensure_minimum_chunksize

from . import _library
from . import morphology as _morphology
from .morphology import apply as _apply

__all__ = ["erosion", "dilation", "opening", "closing", "white_tophat", "black_tophat", "halo", "MIN_ROW"]

# Rows shorter than this are walked sample by sample, not by the library's
# long-row walks: default blocks are at least this wide along the last axis.
MIN_ROW = 256
# The size of a default block where the source has no chunks of its own:
# small enough that a block, its halo, the intermediate and the output of
# each thread fit a few hundred MiB.
DEFAULT_BLOCK_BYTES = 32 * 2**20

# Whether tessmorph's operators take the textbook/exact switch and the peers'
# padding modes; without them the operators are the library's own, and so
# are these.
_OPERATOR_KEYWORDS = set(inspect.signature(_morphology.erosion).parameters)
_HAS_EXACT = "exact" in _OPERATOR_KEYWORDS


def _reach(operator, ndim, fp_shape, dtype, level):
    """How far the library's operator reads below and above an output sample,
    per axis: the bounds query for a box far from the edges of a large image
    (and from opening's window, which starts at 0), wide enough not to be
    widened."""
    box = 64
    big = min(max(1 << 20, 4 * (max(fp_shape) + box)), 1 << 30)
    origin = (big // 2,) * ndim
    region = _library.required_region(operator, (big,) * ndim, np.broadcast_to(np.uint8(0), fp_shape), origin,
                                      (box,) * ndim, dtype=dtype, level=level)
    below = [o - r for o, r in zip(origin, region.image_origin)]
    above = [r + n - (o + box) for o, r, n in zip(origin, region.image_origin, region.image_shape)]
    return [max(b, a, 0) for b, a in zip(below, above)]


def _exact_halo(operator, ndim, fp_shape, dtype, level):
    word = _library.type_word(dtype)
    depth = _reach(operator, ndim, fp_shape, dtype, level)
    if operator in _library.RESIDUES:
        depth[-1] = max(depth[-1], _library.lanes(word, level))
    return depth


def _textbook_halo(operator, fp_shape, origin):
    """One stage reads at most e // 2 + |origin| samples away along an axis
    of extent e, whichever way the centre of an even extent lies; opening,
    closing and the top-hats are two stages."""
    stages = 1 if operator in ("erosion", "dilation") else 2
    return [stages * (e // 2 + abs(o)) for e, o in zip(fp_shape, origin)]


def halo(operator, image, footprint=None, level=None, *, exact=False, origin=0):
    """The halo per axis that ``tessmorph.dask`` gives each chunk of ``image``
    (an array or a dask array) for this operator and footprint."""
    return list(_Plan(operator, image.shape, image.dtype, footprint, exact, level, origin).depth)


class _Plan:
    """What every block needs to know: the operator, the footprint, the
    whole image's shape, and how deep a halo the operator needs."""

    def __init__(self, operator, shape, dtype, footprint, exact, level, origin):
        ndim, dtype = len(shape), np.dtype(dtype)
        if ndim < 1:
            raise ValueError("image must have at least one axis")
        _library.type_word(dtype)  # refuses a dtype now, not in a worker
        self.operator, self.shape, self.dtype = operator, tuple(shape), dtype
        self.exact = bool(exact) or not _HAS_EXACT
        self.level = _library.resolve_level(level)
        # The operators' keywords, set by the caller.
        self.options = {}
        if footprint is None:
            fp = None
            fp_ndim = min(ndim, 3)
            fp_shape = (3,) * fp_ndim
        else:
            fp = np.asarray(footprint)
            if fp.ndim == 0 or fp.ndim > min(ndim, 3):
                raise ValueError(f"footprint must have 1 to {min(ndim, 3)} axes, not {fp.ndim}")
            fp_ndim, fp_shape = fp.ndim, fp.shape
        # Images of this many trailing axes each; the leading axes are a stack.
        self.image_ndim = ndim if ndim <= 3 else max(fp_ndim, 3 if footprint is None else fp_ndim)
        self.lead = ndim - self.image_ndim
        per_image = (1,) * (self.image_ndim - fp_ndim) + tuple(fp_shape)
        if self.exact:
            if fp is None:
                fp = np.ones(fp_shape, np.uint8)
            fp = _library.prepare_footprint(fp, self.image_ndim)
            inner = _exact_halo(operator, self.image_ndim, per_image, dtype, self.level)
        else:
            inner = _textbook_halo(operator, per_image, _origins(origin, self.image_ndim, fp_ndim))
        self.footprint = fp
        self.depth = [0] * self.lead + list(inner)

    def compute(self, block, block_origin, chunk_origin, chunk_shape):
        """One output chunk from the block around it."""
        k = self.lead
        if k:
            out = np.empty(tuple(chunk_shape), self.dtype.newbyteorder("="))
            offset = np.subtract(chunk_origin[:k], block_origin[:k])
            for index in np.ndindex(*chunk_shape[:k]):
                out[index] = self._one(block[tuple(offset + index)], block_origin[k:], chunk_origin[k:],
                                       chunk_shape[k:])
            return out
        return self._one(block, block_origin, chunk_origin, chunk_shape)

    def _one(self, block, block_origin, chunk_origin, chunk_shape):
        if not self.exact:
            result = getattr(_morphology, self.operator)(block, self.footprint, **self.options)
            start = np.subtract(chunk_origin, block_origin)
            return result[tuple(slice(s, s + n) for s, n in zip(start, chunk_shape))]
        return _exact_chunk(block, block_origin, chunk_origin, chunk_shape, operator=self.operator,
                            shape=self.shape[self.lead:], footprint=self.footprint, level=self.level,
                            **self.options)


def _origins(origin, image_ndim, fp_ndim):
    """scipy's origin, per axis of one image: a number for every axis, or one
    per axis of the footprint or of the image."""
    if isinstance(origin, numbers.Integral):
        return [int(origin)] * image_ndim
    origin = [int(o) for o in origin]
    if len(origin) not in (fp_ndim, image_ndim):
        raise ValueError(f"origin needs one value or {fp_ndim}, not {len(origin)}")
    return [0] * (image_ndim - len(origin)) + origin


def _exact_chunk(block, block_origin, chunk_origin, chunk_shape, *, operator, shape, footprint, lower=None,
                 upper=None, level=None):
    """One output chunk of the library's operator, the block placed in the whole."""
    kw = dict(lower=lower, upper=upper, level=level)
    if operator == "white_tophat":
        return _apply(operator, block, footprint, out_origin=np.subtract(chunk_origin, block_origin),
                      out_shape=chunk_shape, **kw)
    if operator != "opening":
        return _apply(operator, block, footprint, image_origin=block_origin, out_origin=chunk_origin,
                      out_shape=chunk_shape, **kw)

    # The intermediate is what the dilation of the chunk reads of the window,
    # clamped into it as into an image: the bounds query of that dilation.
    window = _library.window_shape(operator, shape)
    box = _library.required_region("dilation", window, footprint, chunk_origin, chunk_shape,
                                   image_origin=(0,) * len(shape), level=level)
    box_origin, box_shape = box.image_origin, box.image_shape
    eroded = _apply("erosion", block, footprint, image_origin=block_origin, out_origin=box_origin,
                    out_shape=box_shape, **kw)
    return _apply("dilation", eroded, footprint, image_origin=box_origin, out_origin=chunk_origin,
                  out_shape=chunk_shape, **kw)


@functools.lru_cache(maxsize=None)
def _keep_large_buffers():
    """Undoes, once per process, what MALLOC_TRIM_THRESHOLD_ in the
    environment does to glibc's malloc: it fixes the mmap threshold at 128
    KiB, so that every buffer of a block (the source's decompressed chunks,
    the block, the intermediate) is mapped afresh and its pages faulted in
    and zeroed on every task, which made blocks seven times slower.
    distributed's nanny sets it for its workers.  Buffers of up to 32 MiB
    then come from the heap again, which keeps up to 64 MiB of free memory
    instead of 64 KiB."""
    if "MALLOC_TRIM_THRESHOLD_" not in os.environ:
        return
    try:
        libc = ctypes.CDLL(None)
        m_trim_threshold, m_mmap_threshold = -1, -3
        libc.mallopt(m_mmap_threshold, 32 * 2**20)
        libc.mallopt(m_trim_threshold, 64 * 2**20)
    except (OSError, AttributeError):  # not glibc
        pass


def _chunk_of(chunks, block_info, key):
    loc = block_info[key]["chunk-location"]
    return loc, [sum(c[:i]) for c, i in zip(chunks, loc)], [c[i] for c, i in zip(chunks, loc)]


def _overlapped_block(block, block_info=None, *, plan, chunks, depth, shift):
    """A block that map_overlap assembled: the chunk and the halo its
    neighbours lent (none beyond the array's edges).  `shift` is how far the
    array handed to map_overlap starts before the image (its wrapped pad)."""
    _keep_large_buffers()
    loc, chunk_origin, chunk_shape = _chunk_of(chunks, block_info, 0)
    block_origin = [o - (d if i > 0 else 0) for o, d, i in zip(chunk_origin, depth, loc)]
    extra = [(d if i > 0 else 0) + (d if i < len(c) - 1 else 0) for d, i, c in zip(depth, loc, chunks)]
    assert list(block.shape) == [n + x for n, x in zip(chunk_shape, extra)], (block.shape, chunk_shape, extra)
    return plan.compute(block, np.subtract(block_origin, shift), np.subtract(chunk_origin, shift), chunk_shape)


def _read_block(block_info=None, *, source, plan, chunks, wrap):
    """A block read straight from the source: the chunk and its halo, cut at
    the array's edges, or on the axes in `wrap` continued from the far side."""
    _keep_large_buffers()
    _, chunk_origin, chunk_shape = _chunk_of(chunks, block_info, None)
    source = source.open() if isinstance(source, _MappedFile) else source
    lo, index, plain = [], [], True
    for axis, (o, n, d, s) in enumerate(zip(chunk_origin, chunk_shape, plan.depth, source.shape)):
        if wrap[axis] and d:
            lo.append(o - d)
            index.append(np.arange(o - d, o + n + d) % s)
            plain = False
        else:
            lo.append(max(o - d, 0))
            index.append(slice(lo[-1], min(o + n + d, s)))
    if plain:
        block = np.asarray(source[tuple(index)])
    else:
        # Contiguous runs read as slices, then the wrapped axes gathered.
        spans = [(int(i.min()), int(i.max()) + 1) if isinstance(i, np.ndarray) else (i.start, i.stop)
                 for i in index]
        part = np.asarray(source[tuple(slice(a, b) for a, b in spans)])
        block = part[np.ix_(*[(i - a) if isinstance(i, np.ndarray) else np.arange(b - a)
                              for i, (a, b) in zip(index, spans)])]
    return plan.compute(block, lo, chunk_origin, chunk_shape)


class _MappedFile:
    """A memory map of a file, reopened wherever it is unpickled: a worker
    maps the file itself instead of receiving the array's bytes."""

    def __init__(self, filename, offset, shape, dtype):
        self.filename, self.offset, self.shape, self.dtype = filename, offset, shape, np.dtype(dtype)

    def open(self):
        return np.memmap(self.filename, self.dtype, "r", self.offset, self.shape)


def _file_of(a):
    """A C-contiguous memory map as its file and place, or None."""
    m = getattr(a, "_mmap", None)
    name = getattr(a, "filename", None)
    if not isinstance(m, mmap.mmap) or not name or not a.flags.c_contiguous or m.closed:
        return None
    try:
        start = np.frombuffer(m, np.uint8).ctypes.data
    except (TypeError, ValueError):
        return None
    aligned = a.offset - a.offset % mmap.ALLOCATIONGRANULARITY
    return _MappedFile(name, aligned + a.ctypes.data - start, a.shape, a.dtype)


def _source_of(x):
    """The array that a dask array merely reads chunk by chunk (made by
    ``da.from_array`` or ``da.from_zarr`` from an array read on demand), or
    None."""
    layers = x.dask.layers
    if x.name not in layers or len(layers) > 2 or x.size == 0:
        return None
    first = x.dask.get((x.name,) + (0,) * x.ndim)
    if not (isinstance(first, tuple) and len(first) == 3 and callable(first[0]) and isinstance(first[2], tuple)):
        return None
    source = first[1]
    if len(layers) == 2:
        (other,) = [name for name in layers if name != x.name]
        if source != other or len(layers[other]) != 1:
            return None
        source = layers[other][other]
    expected = tuple(slice(0, c[0]) for c in x.chunks)
    if tuple(first[2]) != expected or not _on_demand(source):
        return None
    if tuple(source.shape) != x.shape or np.dtype(source.dtype) != x.dtype:
        return None
    return source


def _on_demand(a):
    """Whether `a` is read when sliced rather than held in memory."""
    if isinstance(a, da.Array) or not all(hasattr(a, n) for n in ("shape", "dtype", "__getitem__")):
        return False
    return isinstance(a, np.memmap) or not isinstance(a, np.ndarray)


def _widen_rows(chunks, shape):
    """Chunks whose last axis runs at least MIN_ROW samples (or the whole
    row): whole numbers of the given chunks, so that they stay regular."""
    last = chunks[-1]
    if not last or max(last) >= min(MIN_ROW, shape[-1]):
        return chunks
    k = -(-MIN_ROW // max(last))
    merged = tuple(sum(last[i:i + k]) for i in range(0, len(last), k))
    return tuple(chunks[:-1]) + (merged,)


def _default_chunks(shape, dtype, given):
    """The blocks when the user gives none: the source's own chunks (or
    blocks of about DEFAULT_BLOCK_BYTES), widened to long rows."""
    if given is None:
        limit = max(DEFAULT_BLOCK_BYTES, MIN_ROW * np.dtype(dtype).itemsize)
        given = ("auto",) * (len(shape) - 1) + (min(shape[-1], max(MIN_ROW, 1)) if shape[-1] else -1,)
        chunks = da.core.normalize_chunks(given, shape, limit=limit, dtype=dtype)
        return _widen_rows(chunks, shape)
    return _widen_rows(da.core.normalize_chunks(given, shape, dtype=dtype), shape)


def _run(operator, image, footprint, *, structure, chunks, exact, mode, cval, origin, level, lower, upper):
    if structure is not None:
        if footprint is not None:
            raise TypeError("give footprint or structure (its other name), not both")
        footprint = structure
    shape, dtype = tuple(image.shape), np.dtype(image.dtype)
    # Only what the user set is handed on, so that the operators' own
    # defaults apply in every block.
    options = {k: v for k, v in (("mode", mode), ("cval", cval), ("lower", lower), ("upper", upper))
               if v is not None}
    if not (isinstance(origin, numbers.Integral) and origin == 0):
        options["origin"] = origin
    if level is not None:
        options["level"] = level
    unknown = set(options) - _OPERATOR_KEYWORDS
    if unknown:
        raise TypeError(f"this tessmorph takes no {', '.join(sorted(unknown))}")
    plan = _Plan(operator, shape, dtype, footprint, exact, level, origin)
    if plan.exact:
        if mode is not None or cval is not None or "origin" in options:
            raise ValueError("exact=True pads with lower and upper; mode, cval and origin apply to the "
                             "textbook operators")
        _library.bounds(dtype, lower, upper)  # refuses what isn't a number now, not in a worker
        plan.options = dict(lower=lower, upper=upper)
    else:
        plan.options = options
    wrap = [mode == "wrap" and d > 0 for d in plan.depth]
    meta = np.empty((0,) * len(shape), dtype.newbyteorder("="))

    source, own = None, None
    if isinstance(image, da.Array):
        source, own = _source_of(image), image.chunks
    elif _on_demand(image):
        source, own = image, getattr(image, "chunks", None)
        own = own if isinstance(own, tuple) else None
    if source is not None:
        # Every block reads its own chunk and halo, so no chunk waits in
        # memory for its neighbours.
        if chunks is None:
            chunks = _default_chunks(shape, dtype, own)
        else:
            chunks = da.core.normalize_chunks(chunks, shape, dtype=dtype)
        if isinstance(source, np.memmap):
            source = _file_of(source) or source
        fn = functools.partial(_read_block, source=source, plan=plan, chunks=chunks, wrap=wrap)
        return da.map_blocks(fn, chunks=chunks, dtype=meta.dtype, meta=meta)

    if isinstance(image, da.Array):
        x = image if chunks is None else image.rechunk(chunks)
    else:
        given = None if chunks is None else da.core.normalize_chunks(chunks, shape, dtype=dtype)
        x = da.from_array(np.asarray(image), chunks=given or _default_chunks(shape, dtype, None))
    if chunks is None:
        x = x.rechunk(_widen_rows(x.chunks, shape))
    if not x.dtype.isnative:
        x = x.astype(meta.dtype)
    if x.size == 0:
        return x.copy()
    depth = list(plan.depth)
    shift = [0] * len(shape)
    pads = [(d, d) if w and len(c) > 1 else (0, 0) for d, w, c in zip(depth, wrap, x.chunks)]
    if any(p for p, _ in pads):
        # The halo across the wrapped edges, as a pad of the far side.
        y = da.pad(x, pads, mode="wrap")
        shift = [p for p, _ in pads]
    else:
        y = x
    # Every chunk at least as deep as the halo, so that a block's halo comes
    # from its neighbours alone; an axis in one chunk needs no halo.
    work = list(y.chunks)
    for axis, d in enumerate(depth):
        if d == 0 or len(work[axis]) == 1:
            depth[axis] = 0
        elif d >= y.shape[axis]:
            work[axis], depth[axis] = (y.shape[axis],), 0
        else:
            work[axis] = ensure_minimum_chunksize(d, work[axis])
    work = tuple(tuple(c) for c in work)
    y = y.rechunk(work) if work != y.chunks else y
    fn = functools.partial(_overlapped_block, plan=plan, chunks=work, depth=depth, shift=shift)
    result = da.map_overlap(fn, y, depth={a: d for a, d in enumerate(depth)}, boundary="none", trim=False,
                            chunks=work, dtype=meta.dtype, meta=meta)
    if any(shift):
        result = result[tuple(slice(s, s + n) for s, n in zip(shift, shape))]
    return result.rechunk(x.chunks) if result.chunks != x.chunks else result


def _doc(name):
    return f"""``tessmorph.{name}`` chunk by chunk, lazily.

    Same arguments and result as ``tessmorph.{name}``, bit for bit, as a dask
    array.  ``image`` is a dask array, or an array read on demand (a zarr
    array, a memory map, an HDF5 dataset), or a numpy array; a dask array
    made by ``da.from_zarr`` or ``da.from_array`` from an array read on
    demand is read from that array, block by block.  ``chunks`` (anything
    dask takes) gives the blocks; by default the image's own chunks, widened
    along the last axis to rows of at least ``MIN_ROW`` samples.
    ``structure`` is another name for ``footprint``, as dask-image and
    scipy.ndimage call it; ``mode``, ``cval`` and ``origin`` mean what they
    mean there.  Refusals are raised when the graph is built, not in a worker.
    """


def _operator(name):
    def f(image, footprint=None, *, structure=None, chunks=None, mode=None, cval=None, origin=0, exact=False,
          level=None, lower=None, upper=None):
        return _run(name, image, footprint, structure=structure, chunks=chunks, exact=exact, mode=mode, cval=cval,
                    origin=origin, level=level, lower=lower, upper=upper)
    f.__name__ = f.__qualname__ = name
    f.__doc__ = _doc(name)
    return f


erosion = _operator("erosion")
dilation = _operator("dilation")
opening = _operator("opening")
closing = _operator("closing")
white_tophat = _operator("white_tophat")
black_tophat = _operator("black_tophat")
