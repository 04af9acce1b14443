"""The six operators on numpy arrays, the lower-level call for tiles, the
bounds query and the thread limit.

By default the operators are the textbook ones, equal bit for bit to
scipy.ndimage's (and to scikit-image's and OpenCV's where their definitions
agree: see the README's parity table); ``exact=True`` gives the library's
own calls.  The textbook operators are built from the library's erosion and
dilation, one call per stage; borders the library can't pad itself are
padded here, one slab of the footprint's reach per side.
"""

import contextlib
import re

import numpy as np

from . import _core
from . import _library

_COMMON = """
    image : array_like
        Array of bool, uint8, int8, uint16, int16, uint32, int32, float32 or
        float64, with any strides (only what the library can't read in place
        is copied), in numpy's axis order.  The footprint's axes are the
        image's last ones; any axes before them (time, channels, planes
        under a 2-D footprint) make a stack of images, each processed on
        its own, with the library's threads.
    footprint : array_like, optional
        The structuring element, with 1 to 3 axes and at most as many as the
        image.  Any nonzero value is a tap (with ``exact=True``: only values
        equal to 1, as the library reads its mask).  Default: a 3 x 3 square
        of ones (3 x 3 x 3 on images of 3 or more axes, 3 on 1-D ones).
    out : ndarray, optional
        Where to put the result: the image's shape and dtype.  May be the
        image itself.
    mode : {None, 'constant', 'nearest', 'reflect', 'mirror', 'wrap'}, optional
        What lies beyond the image's edges, with scipy.ndimage's names and
        meanings (``'grid-constant'``, ``'grid-mirror'`` and ``'grid-wrap'``
        are taken as scipy takes them).  None, the default: the neutral
        value, which never lowers an erosion nor raises a dilation, so the
        border changes nothing (``lower`` and ``upper`` set other values).
        Every stage of a two-stage operator is padded on its own, as scipy
        does.
    cval : scalar, optional
        The value beyond the edges with ``mode='constant'`` (default 0.0),
        cast to the image's type as the library casts pads (truncated
        towards zero; use values the type holds).
    origin : int or sequence of int, optional
        scipy.ndimage's origin: the centre of an axis of extent e is at
        index ``e // 2 + origin``, with ``-(e // 2) <= origin <= (e - 1) // 2``.
        One value for every axis, or one per footprint axis (or per image
        axis).  With ``exact=True`` it must be 0 (the library's centre is
        ``(e + 1) // 2 - 1``, one lower than scipy's for an even extent).
    exact : bool, optional
        Compute the library's own operator instead: its taps (bytes equal to
        1), its centre, its pads and its definitions of opening (a window),
        closing (unclipped) and the top-hats (saturating residues): see the
        README.  ``mode``, ``cval`` and ``origin`` are not taken then.
    level : {'none', 'avx', 'avx2'}, optional
        The instruction-set level; by default the best this processor has.
        All levels give the same result.
    lower, upper : float, optional
        The library's pad bounds: what a dilation (``lower``) and an erosion
        (``upper``) read beyond the edge, with ``mode=None``.  Default: the
        neutral values, the least and the greatest value of the type
        (infinities for floats).  A value is cast to the image's type as the
        library casts it: truncated towards zero and wrapped, never
        saturated; ``upper=256`` on uint8 pads with 0.

    Returns
    -------
    ndarray
        The image's shape and dtype.

    Floats: where the library meets a NaN or samples of equal value (0.0 and
    -0.0) it keeps the later one in the footprint's order, which the peers
    may not.
"""


def _doc(text):
    def wrap(f):
        f.__doc__ = text.replace("%(common)s", _COMMON.strip("\n"))
        return f
    return wrap


# scipy.ndimage's border modes and what each of them means here.
_MODES = {"constant": "constant", "grid-constant": "constant", "nearest": "nearest", "reflect": "reflect",
          "grid-mirror": "reflect", "mirror": "mirror", "wrap": "wrap", "grid-wrap": "wrap"}

# The library names its buffers by its own words; a refusal is reported
# under the argument the user gave.  The intermediate of a two-stage call is
# as large as the image and the footprint make it.
_BUFFER_ARGS = [(re.compile(r"\bkeyimForType\b"), "image"), (re.compile(r"\bstrel\b"), "footprint"),
                (re.compile(r"\bminmax\b"), "lower/upper"),
                (re.compile(r"(?:\bbuffer |^)(?:erode|dilate|open|close|tophat|bothat)\b"), "out"),
                (re.compile(r"\b(?:imerode|imdilate)\b|^Out of memory"), "image and footprint")]


def _argument_of(message):
    for pattern, arg in _BUFFER_ARGS:
        if pattern.search(message):
            return arg
    return "image"


def _named(arg, error):
    """The same kind of error, its message led by the user's argument."""
    message = str(error)
    if not message.startswith(arg + ": "):
        message = f"{arg}: {message}"
    return type(error)(message)


def _library_call(*args, **kwargs):
    try:
        return _library.run(*args, **kwargs)
    except (ValueError, TypeError, MemoryError) as e:
        raise _named(_argument_of(str(e)), e) from None


class _Settings:
    """What one call of an operator decided before any sample is touched."""

    def __init__(self, exact, mode, lower, upper, level):
        self.exact, self.mode, self.lower, self.upper, self.level = exact, mode, lower, upper, level


def _image(image):
    a = np.asarray(image)
    if a.ndim == 0:
        raise ValueError("image: a scalar is not an image; it needs 1 axis or more")
    try:
        _library.type_word(a.dtype)
    except TypeError as e:
        raise _named("image", e) from None
    if not a.dtype.isnative:
        a = a.astype(a.dtype.newbyteorder("="))
    return a


def _footprint(footprint, image_ndim, exact):
    """The library's mask of taps for a footprint with as many axes as its
    own (the stack's images have that many)."""
    most = min(image_ndim, 3)
    if footprint is None:
        return np.ones((3,) * most, np.uint8)
    fp = np.asarray(footprint)
    if fp.dtype.kind not in "biuf":
        raise TypeError(f"footprint: must hold numbers, not {fp.dtype}")
    if not 1 <= fp.ndim <= most:
        raise ValueError(f"footprint: must have 1 to {most} axes (at most 3, and at most as many as the image), "
                         f"not {fp.ndim}")
    if exact:
        return _library.prepare_footprint(fp, fp.ndim)
    if 0 in fp.shape:
        raise ValueError(f"footprint: has no elements (shape {fp.shape})")
    return (fp != 0).view(np.uint8)


def _centred(taps, origin, image_ndim):
    """The taps, with zeros added where needed, so that the library's centre
    of each axis, (E + 1) // 2 - 1, falls on scipy's, e // 2 + origin."""
    k = taps.ndim
    if np.ndim(origin) == 0:
        origin = (origin,) * k
    try:
        origin = [int(o) for o in origin]
    except (TypeError, ValueError):
        raise TypeError(f"origin: must be an integer or a sequence of integers, not {origin!r}") from None
    if len(origin) == image_ndim and image_ndim > k:
        if any(origin[:image_ndim - k]):
            raise ValueError(f"origin: the image's axes before the footprint's are a stack; their origin must be 0, "
                             f"not {origin[:image_ndim - k]}")
        origin = origin[image_ndim - k:]
    if len(origin) != k:
        raise ValueError(f"origin: needs one value or {k} (one per footprint axis), not {len(origin)}")
    pads = []
    for e, o in zip(taps.shape, origin):
        if not -(e // 2) <= o <= (e - 1) // 2:
            raise ValueError(f"origin: {o} puts the centre outside a footprint axis of extent {e}; it must lie "
                             f"between {-(e // 2)} and {(e - 1) // 2}")
        below, above = e // 2 + o, e - 1 - (e // 2 + o)
        # Odd E = 2m + 1 reaches m both ways; even E = 2m reaches m - 1 below
        # and m above.
        E = 2 * below + 1 if below >= above else 2 * above
        c = (E + 1) // 2 - 1
        pads.append((c - below, E - 1 - c - above))
    if any(p != (0, 0) for p in pads):
        taps = np.pad(taps, pads)
    return taps


def _pads(dtype, mode, cval, lower, upper):
    if mode is not None and (lower is not None or upper is not None):
        raise ValueError("lower and upper are the pads of mode=None; with a mode, the mode says what lies beyond "
                         "the edges")
    if mode == "constant":
        cval = 0.0 if cval is None else cval
        try:
            return _library.bounds(dtype, cval, cval)
        except (TypeError, ValueError) as e:
            raise type(e)(str(e).replace("lower", "cval", 1)) from None
    if cval is not None:
        raise ValueError("cval is the value of mode='constant'")
    return _library.bounds(dtype, lower, upper)


def _settings(a, footprint, mode, cval, origin, exact, level, lower, upper):
    taps = _footprint(footprint, a.ndim, exact)
    if exact:
        if mode is not None or cval is not None:
            raise ValueError("exact=True computes the library's own call, whose pads are lower and upper; "
                             "mode and cval are for the textbook operators")
        if np.any(np.asarray(origin) != 0):
            raise ValueError("origin: exact=True keeps the library's centre, (e + 1) // 2 - 1; origin must be 0")
    else:
        if mode is not None:
            if not isinstance(mode, str) or mode not in _MODES:
                raise ValueError(f"mode: {mode!r} is none of None, {', '.join(repr(m) for m in _MODES)}")
            mode = _MODES[mode]
        taps = _centred(taps, origin, a.ndim)
    lo, hi = _pads(a.dtype, mode, cval, lower, upper)
    return taps, _Settings(exact, mode, lo, hi, _library.resolve_level(level))


def _result(out, a):
    if out is None:
        return np.empty(a.shape, a.dtype)
    if not isinstance(out, np.ndarray):
        raise TypeError(f"out: must be a numpy array, not {type(out).__name__}")
    if out.shape != a.shape:
        raise ValueError(f"out: has shape {out.shape}; the result has shape {a.shape}")
    if out.dtype != a.dtype and out.dtype != a.dtype.newbyteorder():
        raise TypeError(f"out: has dtype {out.dtype}; the result has dtype {a.dtype}")
    if not out.flags.writeable:
        raise ValueError("out: is read-only")
    return out


def _folded(a, axes):
    """A view of `a` with its leading axes merged into one, so that it has
    `axes` axes, or None where the strides don't allow it."""
    v = a.view()
    try:
        v.shape = (-1,) + a.shape[a.ndim - axes + 1:]
    except AttributeError:
        return None
    return v


def _mode_index(i, n, mode):
    """The sample of an axis of n samples that coordinate i reads in a mode,
    repeating as far out as needed (scipy.ndimage's extensions)."""
    if mode == "nearest":
        return np.clip(i, 0, n - 1)
    if mode == "wrap":
        return i % n
    if mode == "reflect":       # d c b a | a b c d | d c b a
        j = i % (2 * n)
        return np.where(j < n, j, 2 * n - 1 - j)
    if n == 1:                  # mirror: d c b | a b c d | c b a
        return np.zeros_like(i)
    j = i % (2 * n - 2)
    return np.where(j < n, j, 2 * n - 2 - j)


def _stage(op, a, taps, s, out=None):
    """One erosion or dilation of a textbook operator, with the border the
    mode asks for."""
    if s.mode in (None, "constant"):
        return _library_call(op, a, taps, lower=s.lower, upper=s.upper, out=out, level=s.level)
    # The library pads with one value only.  The whole image is computed with
    # its neutral pads, then the samples within the footprint's reach of each
    # edge again, from a slab of the image extended as the mode says: only
    # the slabs are copied, never the image.
    target = out if out is not None and not np.may_share_memory(out, a) else None
    target = _library_call(op, a, taps, out=target, level=s.level)
    if a.size:
        nd = a.ndim
        shape = (1,) * (nd - taps.ndim) + taps.shape
        centre = [(e + 1) // 2 - 1 for e in shape]
        far = [e - 1 - c for e, c in zip(shape, centre)]
        # Erosion reads x + r, dilation x - r, for the offsets r of the taps.
        below, above = (centre, far) if op == "erosion" else (far, centre)

        def span(e, lo, hi):
            return _mode_index(np.arange(lo - below[e], hi + above[e]), a.shape[e], s.mode)

        taps = taps.reshape(shape)

        for d in range(nd):
            n = a.shape[d]
            bands = [(0, min(below[d], n))] if below[d] else []
            if above[d]:
                bands.append((max(n - above[d], bands[0][1] if bands else 0), n))
            for lo, hi in bands:
                if lo >= hi:
                    continue
                # Axis by axis, the band's own first: each step copies whole
                # rows or planes, and the first one leaves the least to copy.
                slab = np.take(a, span(d, lo, hi), axis=d)
                for e in range(nd):
                    if e != d and (below[e] or above[e]):
                        slab = np.take(slab, span(e, 0, a.shape[e]), axis=e)
                origin = [lo - below[d] if e == d else -below[e] for e in range(nd)]
                box = [(lo, hi - lo) if e == d else (0, a.shape[e]) for e in range(nd)]
                # The library walks rows, and pays for each: a band across
                # the rows is turned so that its rows are long.  That changes
                # the order of the taps, which only a float's NaN and signed
                # zeros see: a slab holding them stays as it is.
                order = list(range(nd))
                if d == nd - 1 and nd > 1 and (a.dtype.kind != "f" or not (np.isnan(slab).any()
                                                                             or (slab == 0).any())):
                    order = [d] + order[:d]
                    slab = np.ascontiguousarray(slab.transpose(order))
                band = _library_call(op, slab, np.ascontiguousarray(taps.transpose(order)),
                                     image_origin=[origin[e] for e in order],
                                     out_origin=[box[e][0] for e in order], out_shape=[box[e][1] for e in order],
                                     level=s.level)
                target[(slice(None),) * d + (slice(lo, hi),)] = band.transpose(np.argsort(order))
    if out is not None and target is not out:
        out[...] = target
        return out
    return target


def _operator(name, a, taps, s, out):
    """One operator on an image of 1 to 3 axes, into `out`."""
    # The library's opening bounds its window's planes by the rows: an image
    # of planes under a footprint of fewer axes is a stack of planes, each
    # opened as the library opens a 2-D image, which is its two stages.
    if s.exact and not (name == "opening" and taps.ndim < a.ndim == 3):
        return _library_call(name, a, taps, lower=s.lower, upper=s.upper, out=out, level=s.level)
    if name in ("erosion", "dilation"):
        return _stage(name, a, taps, s, out)
    first, second = ("erosion", "dilation") if name in ("opening", "white_tophat") else ("dilation", "erosion")
    inner = _stage(first, a, taps, s)
    if name in ("opening", "closing"):
        return _stage(second, inner, taps, s, out)
    # A top-hat: the opening or closing goes straight into `out` (unless out
    # is the image, which the subtraction still reads), and the difference
    # is taken there in place, wrapping in the image's type as numpy does.
    apart = not np.may_share_memory(out, a)
    value = _stage(second, inner, taps, s, out if apart else None)
    minuend, subtrahend = (a, value) if name == "white_tophat" else (value, a)
    if a.dtype == np.bool_:
        # The library reads bit 0 of a bool; so does the difference, an xor.
        bits = out.view(np.uint8)
        np.bitwise_xor(minuend.view(np.uint8), subtrahend.view(np.uint8), out=bits)
        np.bitwise_and(bits, 1, out=bits)
    else:
        with np.errstate(invalid="ignore", over="ignore"):  # inf - inf is NaN, as numpy's difference has it
            np.subtract(minuend, subtrahend, out=out)
    return out


def _run(name, image, footprint, out, mode, cval, origin, exact, level, lower, upper):
    a = _image(image)
    taps, s = _settings(a, footprint, mode, cval, origin, exact, level, lower, upper)
    result = _result(out, a)
    if a.ndim <= 3:
        return _operator(name, a, taps, s, result)
    # More axes than the library has: a stack.  Under a footprint of 1 or 2
    # axes the stack's axes fold into the library's plane axis, which such a
    # footprint never crosses: one call for the whole stack.
    if taps.ndim <= 2:
        stack = _folded(a, 3)
        if stack is not None:
            target = _folded(result, 3)
            if target is not None:
                _operator(name, stack, taps, s, target)
            else:
                result[...] = _operator(name, stack, taps, s, np.empty(stack.shape, a.dtype)).reshape(a.shape)
            return result
    for index in np.ndindex(a.shape[:-3]):
        _operator(name, a[index], taps, s, result[index])
    return result


@_doc("""Grey-scale erosion: the minimum of the image over the footprint's taps.

    ``out[x] = min over taps r of image[x + r]``, with r the tap's offset
    from the centre; beyond the edges as ``mode`` says.  scipy.ndimage's
    ``grey_erosion``.

    Parameters
    ----------
%(common)s

    Examples
    --------
    >>> tessmorph.erosion(np.array([5, 3, 8, 9], np.uint8), np.ones(3))
    array([3, 3, 3, 8], dtype=uint8)
    """)
def erosion(image, footprint=None, *, out=None, mode=None, cval=None, origin=0, exact=False, level=None,
            lower=None, upper=None):
    return _run("erosion", image, footprint, out, mode, cval, origin, exact, level, lower, upper)


@_doc("""Grey-scale dilation: the maximum over the footprint reflected through its centre.

    ``out[x] = max over taps r of image[x - r]``: the footprint is
    reflected, so an asymmetric footprint moves the image the opposite way
    from erosion (scipy.ndimage's ``grey_dilation``; scikit-image's and
    OpenCV's ``dilate`` don't reflect it: see the README).

    Parameters
    ----------
%(common)s

    Examples
    --------
    >>> tessmorph.dilation(np.array([5, 3, 8, 9], np.uint8), [0, 0, 1])
    array([0, 5, 3, 8], dtype=uint8)
    """)
def dilation(image, footprint=None, *, out=None, mode=None, cval=None, origin=0, exact=False, level=None,
             lower=None, upper=None):
    return _run("dilation", image, footprint, out, mode, cval, origin, exact, level, lower, upper)


@_doc("""Opening: the dilation of the erosion, each over the whole image.

    Costs what its two stages cost, and one intermediate array.  With
    ``exact=True``, the library's opening: the dilation reads the erosion
    through a window from index 0 which, on the first axis of a volume, is
    as long as the *second* axis, so that a volume with more planes than
    rows holds ``lower`` in its last planes; 1-D and 2-D images (and stacks
    of them) are opened as here.

    >>> v = np.full((4, 2, 3), 7, np.uint8)   # 4 planes of 2 rows
    >>> tessmorph.opening(v, np.ones((1, 1, 1)))[:, 0, 0]
    array([7, 7, 7, 7], dtype=uint8)
    >>> tessmorph.opening(v, np.ones((1, 1, 1)), exact=True)[:, 0, 0]
    array([7, 7, 0, 0], dtype=uint8)

    Parameters
    ----------
%(common)s""")
def opening(image, footprint=None, *, out=None, mode=None, cval=None, origin=0, exact=False, level=None,
            lower=None, upper=None):
    return _run("opening", image, footprint, out, mode, cval, origin, exact, level, lower, upper)


@_doc("""Closing: the erosion of the dilation, each over the whole image.

    With ``exact=True``, the library's closing, whose erosion has no pad of
    its own: the dilation is computed beyond the edge as far as the erosion
    reads, so the result is the closing of the image padded with ``lower``,
    cut back, and a dark sample at the border stays dark where this one
    brightens it.

    >>> tessmorph.closing(np.array([10, 200, 200], np.uint8), np.ones(3))
    array([200, 200, 200], dtype=uint8)
    >>> tessmorph.closing(np.array([10, 200, 200], np.uint8), np.ones(3), exact=True)
    array([ 10, 200, 200], dtype=uint8)

    Parameters
    ----------
%(common)s""")
def closing(image, footprint=None, *, out=None, mode=None, cval=None, origin=0, exact=False, level=None,
            lower=None, upper=None):
    return _run("closing", image, footprint, out, mode, cval, origin, exact, level, lower, upper)


@_doc("""White top-hat: the image minus its opening, in the image's type.

    The difference is numpy's (and scipy.ndimage's): exact wherever it
    fits the type, which with the default pads it always does for unsigned
    types; bool gives ``image xor opened``.  It is taken in place in the
    result, after the opening's two stages.  With ``exact=True``, the
    library's residue: saturated to the type, 32-bit integers subtracted in
    float32 (so 16777217 - 16777216 is 0), NaN stored as +inf, its opening's
    window as long as the image on every axis.

    >>> peak = np.array([16777216, 16777217, 16777216], np.uint32)
    >>> tessmorph.white_tophat(peak, [1, 1, 1])
    array([0, 1, 0], dtype=uint32)
    >>> tessmorph.white_tophat(peak, [1, 1, 1], exact=True)
    array([0, 0, 0], dtype=uint32)

    Parameters
    ----------
%(common)s""")
def white_tophat(image, footprint=None, *, out=None, mode=None, cval=None, origin=0, exact=False, level=None,
                 lower=None, upper=None):
    return _run("white_tophat", image, footprint, out, mode, cval, origin, exact, level, lower, upper)


@_doc("""Black top-hat: the closing minus the image, in the image's type.

    The closing is the one of ``closing``, the difference that of
    ``white_tophat``, operands the other way round; a signed type wraps
    where the difference exceeds it (127 - (-128) on int8), as numpy's does.
    With ``exact=True``, the library's: its closing (``closing(...,
    exact=True)``) and its saturating residue.

    >>> tessmorph.black_tophat(np.array([10, 200, 200], np.uint8), np.ones(3))
    array([190,   0,   0], dtype=uint8)

    Parameters
    ----------
%(common)s""")
def black_tophat(image, footprint=None, *, out=None, mode=None, cval=None, origin=0, exact=False, level=None,
                 lower=None, upper=None):
    return _run("black_tophat", image, footprint, out, mode, cval, origin, exact, level, lower, upper)


def apply(operator, image, footprint, *, image_origin=None, out_origin=None, out_shape=None, lower=None,
          upper=None, out=None, level=None):
    """One operator on an image placed anywhere, for an output box anywhere.

    The library's own call (what the six functions compute with
    ``exact=True``), for tiles: the image
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
