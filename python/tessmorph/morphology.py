"""The six operators on numpy arrays, the lower-level call for tiles, the
bounds query and the thread limit."""

import contextlib

import numpy as np

from . import _core
from . import _library

_COMMON = """
    image : array_like
        1-, 2- or 3-D array of bool, uint8, int8, uint16, int16, uint32, int32,
        float32 or float64, with any strides (only what the library can't read
        in place is copied).  numpy's axis order: the last axis is the rows'
        direction.
    footprint : array_like
        The structuring element, with at most as many axes as the image.  Its
        elements equal to 1 are the taps, exactly as in the library: 2 or 0.5
        is no tap.  The centre of an axis of extent e is at index
        (e + 1) // 2 - 1, so an even extent reaches one step further towards
        higher indices.  See ``tessmorph.footprints``.
    lower, upper : float, optional
        Pad values: what the operator reads beyond the image's edge (and, for
        opening, beyond its window).  Default: the neutral values, the least
        value of the type for ``lower`` and the greatest for ``upper``
        (infinities for floats), which leave the border alone.  A given value
        goes to the library as float64 and is cast to the image's type as the
        library casts it: truncated towards zero and wrapped, never saturated.
        ``upper=256`` on uint8 pads with 0, ``lower=-1`` with 255, NaN with 0.
    out : ndarray, optional
        Where to put the result: same shape and dtype as the image.
    level : {'none', 'avx', 'avx2'}, optional
        The instruction-set level; by default the best this processor has.
        All levels give the same result.

    Returns
    -------
    ndarray
        The image's shape and dtype.
"""


def _doc(text):
    def wrap(f):
        f.__doc__ = text.replace("%(common)s", _COMMON.strip("\n"))
        return f
    return wrap


@_doc("""Grey-scale erosion: the minimum of the image over the footprint's taps.

    ``out[x] = min over taps r of image[x + r]``, reading ``upper`` beyond the
    edge (the greatest value of the type when no tap exists).  For floats a NaN
    sample replaces the running minimum, and the sample after it replaces the
    NaN: the result is NaN exactly where the last tap (in C order over the
    footprint) reads a NaN.

    Parameters
    ----------
%(common)s
    Examples
    --------
    >>> tessmorph.erosion(np.array([5, 3, 8, 9], np.uint8), np.ones(3))
    array([3, 3, 3, 8], dtype=uint8)
    """)
def erosion(image, footprint, *, lower=None, upper=None, out=None, level=None):
    return _library.run("erosion", image, footprint, lower=lower, upper=upper, out=out, level=level)


@_doc("""Grey-scale dilation: the maximum over the footprint reflected through its centre.

    ``out[x] = max over taps r of image[x - r]``, reading ``lower`` beyond the
    edge.  The footprint is reflected, so an asymmetric footprint moves the
    image the opposite way from erosion.

    Parameters
    ----------
%(common)s
    Examples
    --------
    >>> tessmorph.dilation(np.array([5, 3, 8, 9], np.uint8), [0, 0, 1])
    array([0, 5, 3, 8], dtype=uint8)
    """)
def dilation(image, footprint, *, lower=None, upper=None, out=None, level=None):
    return _library.run("dilation", image, footprint, lower=lower, upper=upper, out=out, level=level)


@_doc("""Opening: erosion (padded with ``upper``), then dilation, exactly as the library defines it.

    The dilation reads the eroded image through a window that starts at index
    0 on every axis and is as long as the image on the last two axes, but, on
    the first axis of a 3-D image, as long as the image's *second* axis.  So
    for a volume with more planes than rows, the planes at and beyond index
    ``image.shape[1]`` hold ``lower`` (the least value by default), and with
    fewer planes than rows the last planes see the erosion beyond the edge.
    1-D and 2-D images, and volumes with as many planes as rows, are opened
    as the textbook says.  ``textbook=True`` gives the textbook opening of a
    volume: ``dilation(erosion(image))``, each with its own pad.

    >>> v = np.full((4, 2, 3), 7, np.uint8)   # 4 planes of 2 rows
    >>> tessmorph.opening(v, np.ones((1, 1, 1)))[:, 0, 0]
    array([7, 7, 0, 0], dtype=uint8)

    Parameters
    ----------
%(common)s
    textbook : bool
        Compute ``dilation(erosion(image))`` instead (one more array).
    """)
def opening(image, footprint, *, lower=None, upper=None, out=None, level=None, textbook=False):
    if textbook:
        eroded = erosion(image, footprint, upper=upper, level=level)
        return dilation(eroded, footprint, lower=lower, out=out, level=level)
    return _library.run("opening", image, footprint, lower=lower, upper=upper, out=out, level=level)


@_doc("""Closing: dilation (padded with ``lower``), then erosion, exactly as the library defines it.

    The erosion has no pad of its own: the dilation is computed beyond the
    image's edge as far as the erosion reads, so the closing is that of the
    image padded with ``lower`` on every side, cut back to the image.  A dark
    sample at the border therefore stays dark, where the textbook closing
    (whose erosion is padded with the greatest value) brightens it.
    ``upper`` is not read, except with ``textbook=True``, which gives
    ``erosion(dilation(image), upper=upper)``.

    >>> tessmorph.closing(np.array([10, 200, 200], np.uint8), np.ones(3))
    array([ 10, 200, 200], dtype=uint8)

    Parameters
    ----------
%(common)s
    textbook : bool
        Compute ``erosion(dilation(image))`` instead (one more array).
    """)
def closing(image, footprint, *, lower=None, upper=None, out=None, level=None, textbook=False):
    if textbook:
        dilated = dilation(image, footprint, lower=lower, level=level)
        return erosion(dilated, footprint, upper=upper, out=out, level=level)
    return _library.run("closing", image, footprint, lower=lower, upper=upper, out=out, level=level)


@_doc("""White top-hat: the image minus its opening, saturated to the type.

    The opening here is the textbook one on every axis (its window is the
    image itself, unlike ``opening`` on a volume).  The difference is taken
    in a wider type and saturated: unsigned types give 0 where the opening
    exceeds the image, signed types may go negative; uint32 and int32 are
    subtracted in float32 (24 significant bits, so 16777217 - 16777216 is 0);
    float32 in float64; a NaN difference is stored as +inf; bool is
    ``image and not opened``.

    Parameters
    ----------
%(common)s""")
def white_tophat(image, footprint, *, lower=None, upper=None, out=None, level=None):
    return _library.run("white_tophat", image, footprint, lower=lower, upper=upper, out=out, level=level)


@_doc("""Black top-hat: the closing (as ``closing`` defines it) minus the image, saturated.

    Same arithmetic as ``white_tophat``, operands the other way round.
    ``upper`` is not read.

    Parameters
    ----------
%(common)s""")
def black_tophat(image, footprint, *, lower=None, upper=None, out=None, level=None):
    return _library.run("black_tophat", image, footprint, lower=lower, upper=upper, out=out, level=level)


def apply(operator, image, footprint, *, image_origin=None, out_origin=None, out_shape=None, lower=None,
          upper=None, out=None, level=None):
    """One operator on an image placed anywhere, for an output box anywhere.

    The lower-level call behind the six functions, for tiles: the image
    covers the coordinates ``image_origin`` to ``image_origin + image.shape``
    (default 0), and the result is the operator at the coordinates of the box
    ``out_origin``, ``out_shape`` (default: the image's own box), as the
    library computes it for that image.  What lies beyond the image is the
    pad value.  Opening's window starts at coordinate 0, whatever the
    origin.  ``white_tophat`` and ``black_tophat`` read the image at the
    output's coordinates, so their box must lie inside the image.

    ``operator`` is one of ``tessmorph.OPERATORS``; the other arguments are
    those of ``erosion``.  Refusals raise ValueError with the library's message.

    >>> img = np.arange(10, dtype=np.uint8)
    >>> tessmorph.apply("erosion", img[4:], [1, 1, 1], image_origin=[4], out_origin=[5], out_shape=[3])
    array([4, 5, 6], dtype=uint8)
    """
    return _library.run(operator, image, footprint, lower=lower, upper=upper, out=out, level=level,
                        image_origin=image_origin, out_origin=out_origin, out_shape=out_shape)


def required_region(operator, image_shape, footprint, out_origin=None, out_shape=None, *, image_origin=None,
                    dtype=np.uint8, level=None):
    """The library's bounds query: what a call of ``apply`` would read and write.

    Returns a ``Region(image_origin, image_shape, out_origin, out_shape)`` in
    numpy's axis order.  The image region is what the call reads of an image
    placed at ``image_origin`` with ``image_shape`` (clamped to it, except for
    the residues, which also read the output's own box).  The output box is
    the one asked for, except that on an image wider than the vector width it
    is at least one vector wide along the last axis.  ``footprint`` is the
    footprint or any array of its shape.

    >>> tessmorph.required_region("erosion", (100, 100), np.ones((3, 5)), (10, 20), (5, 40))
    Region(image_origin=(9, 18), image_shape=(7, 44), out_origin=(10, 20), out_shape=(5, 40))
    """
    return _library.required_region(operator, image_shape, footprint, out_origin, out_shape,
                                    image_origin=image_origin, dtype=dtype, level=level)


def set_num_threads(n):
    """Limits the threads of the library's parallel loops (TBB's global
    control, process-wide); 0 or None lifts the limit."""
    _core.set_num_threads(0 if n is None else int(n))


def get_num_threads():
    """The limit set by ``set_num_threads``, or None when there is none."""
    return _core.thread_limit() or None


@contextlib.contextmanager
def threads(n):
    """``with tessmorph.threads(2): ...`` runs the calls inside on at most 2 threads."""
    previous = get_num_threads()
    set_num_threads(n)
    try:
        yield
    finally:
        set_num_threads(previous)


def pad_value(dtype, bound):
    """The value the library pads with for a bound on an image of this dtype,
    as the library's own cast gives it (a dilation with one tap, read
    entirely beyond a one-sample image)."""
    probe = np.zeros(1, dtype)
    return _library.run("dilation", probe, np.ones(1, np.uint8), lower=bound, out_origin=[2], out_shape=[1])[0]
