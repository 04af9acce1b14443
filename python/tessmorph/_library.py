"""Plumbing between numpy and the library's entry points.

Element types, levels and entry points all come from the extension module,
which takes them from the library's one list; this file only maps them to
numpy.  Arrays are handed over in numpy's axis order with three axes (the
last one is the library's dimension 0); what the library can't read in place
(a last axis that isn't dense, strides that aren't whole elements or don't
fit 32 bits, a foreign byte order) is copied, and nothing else is.
"""

import functools
from collections import namedtuple

import numpy as np

from . import _core

# The operators under the names scikit-image users know, and the library's
# word for each.
OPERATORS = {
    "erosion": "imerode",
    "dilation": "imdilate",
    "opening": "imopen",
    "closing": "imclose",
    "white_tophat": "imtophat",
    "black_tophat": "imbothat",
}
# What the library's list of entry points says of each operator: the
# dimension of the image whose extent bounds opening's window in dimension 2
# (-1: no window), and whether it reads the image again at the output's own
# coordinates, so that its output has to lie inside the image (a residue).
_TRAITS = {word: (window, residue) for word, window, residue in _core.operators()}
RESIDUES = tuple(name for name, word in OPERATORS.items() if _TRAITS[word][1])


def window_shape(operator, shape):
    """The extents of opening's window along the axes of an image of this
    shape (1 to 3 axes), or None for an operator without one: from 0, as
    long as the image, but on the library's dimension 2 (the first axis of a
    volume) as long as the dimension the library names."""
    window = _TRAITS[OPERATORS[operator]][0]
    if window < 0:
        return None
    extents = list(shape)
    if len(shape) == 3:
        extents[0] = shape[2 - window]
    return extents


def _type_table():
    kinds = {0: "i", 1: "u", 2: "f"}
    table = {}
    for word, code, bits, nbytes in _core.types():
        dtype = np.dtype(np.bool_) if (code, bits) == (1, 1) else np.dtype(f"{kinds[code]}{nbytes}")
        table[dtype] = word
    return table


# numpy dtype -> the library's type word.
TYPES = _type_table()
# Level words from the baseline up, and those this processor can run.
LEVELS = tuple(word for word, _, _ in _core.levels())
SUPPORTED_LEVELS = tuple(word for word, _, ok in _core.levels() if ok)

Region = namedtuple("Region", "image_origin image_shape out_origin out_shape")
Region.__doc__ = """What the library needs for one call, in numpy's axis order: the region
of the image it reads and the output box it writes (which can be wider than
asked for along the last axis: see ``required_region``)."""


def type_word(dtype):
    dtype = np.dtype(dtype)
    word = TYPES.get(dtype if dtype.isnative else dtype.newbyteorder("="))
    if word is None:
        names = ", ".join(str(t) for t in TYPES)
        raise TypeError(f"unsupported dtype {dtype}; tessmorph takes {names}")
    return word


def best_level():
    """The most capable level this processor can run."""
    return SUPPORTED_LEVELS[-1]


def resolve_level(level):
    if level is None:
        return best_level()
    if level not in LEVELS:
        raise ValueError(f"unknown level {level!r}; the levels are {', '.join(LEVELS)}")
    if level not in SUPPORTED_LEVELS:
        raise ValueError(f"this processor can't run level {level!r}; it has {', '.join(SUPPORTED_LEVELS)}")
    return level


def neutral_bounds(dtype):
    """The pads that leave the border alone: the least and the greatest
    value of the type (infinities for floats; false and true for bool)."""
    dtype = np.dtype(dtype)
    if dtype.kind == "b":
        return 0.0, 1.0
    if dtype.kind == "f":
        return -np.inf, np.inf
    info = np.iinfo(dtype)
    return float(info.min), float(info.max)


def _as_bound(value, name):
    try:
        return float(value)
    except OverflowError:
        raise ValueError(f"{name}={value!r} is beyond float64") from None
    except (TypeError, ValueError):
        raise TypeError(f"{name} must be a real number, not {type(value).__name__}") from None


def bounds(dtype, lower, upper):
    lo, hi = neutral_bounds(dtype)
    return (lo if lower is None else _as_bound(lower, "lower"),
            hi if upper is None else _as_bound(upper, "upper"))


def _readable_in_place(a):
    """Whether the library can take the array as it lies: last axis dense,
    every stride a whole number of elements that fits 32 bits."""
    item = a.itemsize
    if a.ndim and a.shape[-1] > 1 and a.strides[-1] != item:
        return False
    for n, s in zip(a.shape, a.strides):
        if n > 1 and (s % item or abs(s // item) >= 2**31):
            return False
    return a.dtype.isnative


def _check_extents(shape, what):
    for n in shape:
        if n >= 2**31:
            raise ValueError(f"{what} has an axis of {n} elements; the library takes at most 2**31 - 1")


def prepare_image(image, what="image"):
    a = np.asarray(image)
    if a.ndim not in (1, 2, 3):
        raise ValueError(f"{what} must have 1, 2 or 3 axes, not {a.ndim}")
    word = type_word(a.dtype)
    _check_extents(a.shape, what)
    if not a.dtype.isnative:
        a = a.astype(a.dtype.newbyteorder("="))
    if not _readable_in_place(a):
        a = np.ascontiguousarray(a)
    return a, word


def prepare_footprint(footprint, ndim):
    """The footprint as the library's mask: bytes, taps where an element
    equals 1.  A uint8 array goes as it is (a byte 2 is no tap there
    either); any other numbers become 1 where they equal 1 and 0 elsewhere."""
    fp = np.asarray(footprint)
    if fp.ndim == 0 or fp.ndim > ndim:
        raise ValueError(f"footprint must have 1 to {ndim} axes (as many as the image at most), not {fp.ndim}")
    if fp.dtype != np.uint8:
        if fp.dtype.kind not in "biuf":
            raise TypeError(f"footprint must hold numbers, not {fp.dtype}")
        fp = (fp == 1).astype(np.uint8)
    _check_extents(fp.shape, "footprint")
    if not _readable_in_place(fp):
        fp = np.ascontiguousarray(fp)
    return fp


def three_axes(a):
    """A view with leading axes of one element added: the library's images
    always have three dimensions."""
    return a[(np.newaxis,) * (3 - a.ndim)]


def _coords(value, ndim, default, what):
    if value is None:
        return tuple(default)
    value = tuple(int(v) for v in value)
    if len(value) != ndim:
        raise ValueError(f"{what} needs {ndim} coordinates, not {len(value)}")
    return value


def _pad3(coords, fill=0):
    return [fill] * (3 - len(coords)) + list(coords)


def _output(out, shape, dtype, inputs):
    """The array returned and the array the library writes: the same one,
    unless `out` can't be written in place or overlaps an input."""
    if out is None:
        result = np.empty(shape, dtype)
        return result, result
    if not isinstance(out, np.ndarray):
        raise TypeError(f"out must be a numpy array, not {type(out).__name__}")
    if out.shape != tuple(shape):
        raise ValueError(f"out has shape {out.shape}; the result has shape {tuple(shape)}")
    if out.dtype != dtype:
        raise TypeError(f"out has dtype {out.dtype}; the result has dtype {dtype}")
    if not out.flags.writeable:
        raise ValueError("out is read-only")
    if _readable_in_place(out) and not any(np.may_share_memory(out, x) for x in inputs):
        return out, out
    return out, np.empty(shape, dtype)


@functools.lru_cache(maxsize=None)
def lanes(word, level):
    """The vector width L of a type at a level, as the bounds query shows
    it: on an image wider than L, an output one sample wide is widened to L."""
    wide = 1 << 20
    _, (_, out_shape) = _core.query(OPERATORS["erosion"], word, level, [0, 0, 0], [1, 1, wide], [1, 1, 1],
                                     [0, 0, 0], [1, 1, 1])
    return out_shape[2]


def run(operator, image, footprint, *, lower=None, upper=None, out=None, level=None,
        image_origin=None, out_origin=None, out_shape=None):
    """One call of an entry point on numpy arrays; see ``tessmorph.apply``."""
    if operator not in OPERATORS:
        raise ValueError(f"unknown operator {operator!r}; the operators are {', '.join(OPERATORS)}")
    a, word = prepare_image(image)
    nd = a.ndim
    fp = prepare_footprint(footprint, nd)
    level = resolve_level(level)
    lo, hi = bounds(a.dtype, lower, upper)
    image_origin = _coords(image_origin, nd, (0,) * nd, "image_origin")
    out_origin = _coords(out_origin, nd, image_origin, "out_origin")
    out_shape = _coords(out_shape, nd, a.shape, "out_shape")
    if any(n < 0 for n in out_shape):
        raise ValueError(f"out_shape {out_shape} has a negative extent")
    _check_extents(out_shape, "the output")
    result, target = _output(out, out_shape, a.dtype, (a, fp))
    if 0 in out_shape:
        return result

    # On an image wider than the vector width L the library writes whole
    # vectors, and refuses an output narrower than one.  Such an output is
    # computed as a box L wide and cut down: to the right of it for the
    # operators whose output may lie anywhere, inside the image for the
    # residues.  Every sample is computed on its own, so the box changes no
    # value.
    box_origin, box_shape, cut = list(out_origin), list(out_shape), None
    if out_shape[-1] < a.shape[-1]:
        L = lanes(word, level)
        if a.shape[-1] > L and out_shape[-1] < L:
            x0 = out_origin[-1]
            if operator in RESIDUES:
                x0 = max(image_origin[-1], min(x0, image_origin[-1] + a.shape[-1] - L))
            box_origin[-1], box_shape[-1] = x0, L
            cut = out_origin[-1] - x0
            target = np.empty(box_shape, a.dtype)

    _core.call(OPERATORS[operator], word, level, three_axes(a), _pad3(image_origin), lo, hi, three_axes(fp),
               three_axes(target), _pad3(box_origin))
    if cut is not None:
        target = target[..., cut:cut + out_shape[-1]]
    if target is not result:
        result[...] = target
    return result


def required_region(operator, image_shape, footprint, out_origin=None, out_shape=None, *, image_origin=None,
                    dtype=np.uint8, level=None):
    if operator not in OPERATORS:
        raise ValueError(f"unknown operator {operator!r}; the operators are {', '.join(OPERATORS)}")
    image_shape = tuple(int(n) for n in image_shape)
    nd = len(image_shape)
    if nd not in (1, 2, 3):
        raise ValueError(f"the image must have 1, 2 or 3 axes, not {nd}")
    fp_shape = np.shape(footprint)
    if not 0 < len(fp_shape) <= nd:
        raise ValueError(f"footprint must have 1 to {nd} axes, not {len(fp_shape)}")
    image_origin = _coords(image_origin, nd, (0,) * nd, "image_origin")
    out_origin = _coords(out_origin, nd, image_origin, "out_origin")
    out_shape = _coords(out_shape, nd, image_shape, "out_shape")
    (im_o, im_s), (o_o, o_s) = _core.query(
        OPERATORS[operator], type_word(dtype), resolve_level(level), _pad3(image_origin), _pad3(image_shape, 1),
        _pad3(fp_shape, 1), _pad3(out_origin), _pad3(out_shape, 1))
    k = 3 - nd
    return Region(tuple(im_o[k:]), tuple(im_s[k:]), tuple(o_o[k:]), tuple(o_s[k:]))
