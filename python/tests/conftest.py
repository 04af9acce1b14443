"""Shared pieces of the package's tests: the shared library called directly
through ctypes (an independent path from numpy to the entry points), random
data that reaches the corners of each type, and bitwise comparison."""

import ctypes
import os

import numpy as np
import pytest

import tessmorph

LIBRARY = os.environ.get("TM_LIBRARY")

DTYPES = [np.dtype(d) for d in tessmorph.TYPES]
OPERATORS = list(tessmorph.OPERATORS)


class Dim(ctypes.Structure):
    _fields_ = [("min", ctypes.c_int32), ("extent", ctypes.c_int32), ("stride", ctypes.c_int32),
                ("flags", ctypes.c_uint32)]


class Type(ctypes.Structure):
    _fields_ = [("code", ctypes.c_uint8), ("bits", ctypes.c_uint8), ("lanes", ctypes.c_uint16)]


class Buffer(ctypes.Structure):
    _fields_ = [("device", ctypes.c_uint64), ("device_interface", ctypes.c_void_p), ("host", ctypes.c_void_p),
                ("flags", ctypes.c_uint64), ("type", Type), ("dimensions", ctypes.c_int32),
                ("dim", ctypes.POINTER(Dim)), ("padding", ctypes.c_void_p)]


def halide_type(dtype):
    if dtype.kind == "b":
        return Type(1, 1, 1)
    return Type({"i": 0, "u": 1, "f": 2}[dtype.kind], dtype.itemsize * 8, 1)


def describe(a, dtype=None):
    """A descriptor of a C-contiguous array with three axes, mins 0; the
    array and the dims must outlive the call."""
    dims = (Dim * a.ndim)(*[Dim(0, n, s // a.itemsize, 0) for n, s in zip(reversed(a.shape), reversed(a.strides))])
    buf = Buffer(0, None, a.ctypes.data, 0, halide_type(dtype or a.dtype), a.ndim, dims, None)
    return buf, dims


class SharedLibrary:
    """The library's exports as a host application calls them."""

    def __init__(self, path):
        self.lib = ctypes.CDLL(path)

    def __call__(self, op, level, image, footprint, lower, upper):
        """The operator on the whole image (numpy order, three axes)."""
        image = np.ascontiguousarray(image)
        footprint = np.ascontiguousarray(footprint, np.uint8)
        out = np.empty_like(image)
        word = tessmorph.TYPES[image.dtype]
        fn = getattr(self.lib, f"{tessmorph.OPERATORS[op]}_{word}_{level}")
        minmax = np.array([[lower, upper]])
        keep = [describe(image), describe(minmax), describe(footprint), describe(out)]
        status = fn(*[ctypes.byref(b) for b, _ in keep])
        assert status == 0
        return out


@pytest.fixture(scope="session")
def shared_library():
    if not LIBRARY:
        pytest.skip("TM_LIBRARY (the built shared library) is not set")
    return SharedLibrary(LIBRARY)


def random_image(rng, shape, dtype):
    """Samples that reach both ends of the type; floats with NaN, infinities
    and signed zeros among them; bool as bytes 0 to 3 (only bit 0 counts)."""
    dtype = np.dtype(dtype)
    if dtype.kind == "b":
        return rng.integers(0, 4, shape, np.uint8).view(np.bool_)
    if dtype.kind == "f":
        a = rng.normal(0, 100, shape).astype(dtype)
        specials = np.array([np.nan, np.inf, -np.inf, 0.0, -0.0], dtype)
        pick = rng.random(shape) < 0.05
        a[pick] = rng.choice(specials, pick.sum())
        return a
    info = np.iinfo(dtype)
    a = rng.integers(info.min, info.max, shape, dtype, endpoint=True)
    ends = np.array([info.min, info.max], dtype)
    pick = rng.random(shape) < 0.1
    a[pick] = rng.choice(ends, pick.sum())
    return a


def random_footprint(rng, shape):
    """Bytes 0, 1 and 2: only the 1s are taps."""
    fp = rng.choice(np.array([0, 1, 1, 2], np.uint8), shape)
    fp.flat[rng.integers(fp.size)] = 1
    return fp


# Pad bounds that exercise the library's cast: out of range, fractional,
# beyond every integer type, NaN.
PAD_BOUNDS = [-1.0, 256.0, 300.5, 2.0**31, 4294967296.5, 1e300, float("nan"), -7.25, 3.0]


def same_bits(a, b):
    a, b = np.asarray(a), np.asarray(b)
    return a.shape == b.shape and a.dtype == b.dtype and np.array_equal(
        np.ascontiguousarray(a).view(np.uint8), np.ascontiguousarray(b).view(np.uint8))
