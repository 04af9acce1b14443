"""The README's parity table, row by row: which call of ours equals which
call of scipy.ndimage 1.10, scikit-image 0.19 and OpenCV 4.6, bit for bit, on
random images of every dtype they take.

Floats are compared without NaN and -0.0: where samples tie or one is NaN
the library keeps the later one, and the peers choose otherwise.  bool
images are canonical (bytes 0 and 1), as the peers read them."""

import itertools
import zlib

import numpy as np
import pytest

import tessmorph
from tessmorph import footprints
from conftest import DTYPES, OPERATORS, random_image, same_bits

ndi = pytest.importorskip("scipy.ndimage")

MODES = ["constant", "nearest", "reflect", "mirror", "wrap"]
SCIPY = {"erosion": "grey_erosion", "dilation": "grey_dilation", "opening": "grey_opening",
         "closing": "grey_closing", "white_tophat": "white_tophat", "black_tophat": "black_tophat"}


def rng_for(*key):
    return np.random.default_rng(zlib.crc32(repr(key).encode()))


def comparable(image):
    if image.dtype == np.bool_:
        return image.view(np.uint8) & 1 == 1
    if image.dtype.kind == "f":
        return np.nan_to_num(image) + image.dtype.type(0)
    return image


def image_of(rng, shape, dtype):
    return comparable(random_image(rng, shape, dtype))


def footprint_of(rng, shape):
    """Any nonzero value is a tap, for the peers and for us."""
    fp = rng.choice(np.array([0, 0, 1, 2, 255], np.uint8), shape)
    fp.flat[rng.integers(fp.size)] = 7
    return fp


def cval_of(rng, dtype):
    if dtype == np.bool_:
        return float(rng.integers(0, 2))
    if dtype.kind == "f":
        return float(rng.normal(0, 100))
    info = np.iinfo(dtype)
    return float(rng.integers(info.min, info.max, endpoint=True))


def scipy_call(op, image, fp, **kw):
    return getattr(ndi, SCIPY[op])(image, footprint=fp.astype(bool), **kw)


# Shapes on both sides of the vector widths, footprints with even and odd
# extents, and one image smaller than the footprint's reach, where the modes
# repeat themselves.
SHAPES = [((13, 37), (3, 4)), ((5, 6, 19), (2, 3, 3)), ((3, 2, 4), (4, 5, 3)), ((41,), (6,))]


@pytest.mark.parametrize("op,dtype", list(itertools.product(OPERATORS, DTYPES)),
                         ids=[f"{o}-{d}" for o, d in itertools.product(OPERATORS, DTYPES)])
def test_scipy_every_mode_and_origin(op, dtype):
    """scipy.ndimage.grey_*(image, footprint=fp, mode=m, cval=v, origin=o)
    is op(image, fp, mode=m, cval=v, origin=o), for every footprint."""
    rng = rng_for(op, dtype)
    for (shape, fp_shape), mode in itertools.product(SHAPES, MODES):
        image = image_of(rng, shape, dtype)
        fp = footprint_of(rng, fp_shape)
        origin = [int(rng.integers(-(e // 2), (e - 1) // 2, endpoint=True)) for e in fp_shape]
        kw = dict(mode=mode, origin=origin)
        if mode == "constant":
            kw["cval"] = cval_of(rng, dtype)
        expected = scipy_call(op, image, fp, **kw)
        assert same_bits(getattr(tessmorph, op)(image, fp, **kw), expected), (shape, kw)


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_scipy_modes_on_floats_without_zeros(dtype):
    """Floats with neither NaN nor zeros, whose borders are computed as
    integers' are (the order of the taps doesn't matter to them)."""
    rng = rng_for("floats", dtype)
    for (shape, fp_shape), mode in itertools.product(SHAPES, MODES[1:]):
        image = rng.normal(0, 100, shape).astype(dtype)
        fp = footprint_of(rng, fp_shape)
        for op in OPERATORS:
            assert same_bits(getattr(tessmorph, op)(image, fp, mode=mode), scipy_call(op, image, fp, mode=mode)), \
                (op, shape, mode)


@pytest.mark.parametrize("dtype", DTYPES)
def test_scipy_neutral_constant_is_our_default(dtype):
    """Our default border is scipy's constant border at the type's greatest
    value for erosion, its least for dilation."""
    rng = rng_for("neutral", dtype)
    image = image_of(rng, (9, 40), dtype)
    fp = footprint_of(rng, (4, 3))
    least, greatest = tessmorph._library.neutral_bounds(dtype)
    assert same_bits(tessmorph.erosion(image, fp), scipy_call("erosion", image, fp, mode="constant", cval=greatest))
    assert same_bits(tessmorph.dilation(image, fp), scipy_call("dilation", image, fp, mode="constant", cval=least))


@pytest.mark.parametrize("op", OPERATORS)
def test_scipy_size_and_our_exact_erosion_and_dilation(op):
    """scipy's size=s is a footprint of ones; exact=True's erosion and
    dilation are ours of the taps equal to 1 with the library's centre."""
    rng = rng_for("size", op)
    image = image_of(rng, (6, 9, 40), np.int32)
    assert same_bits(getattr(ndi, SCIPY[op])(image, size=(2, 3, 4), mode="nearest"),
                     getattr(tessmorph, op)(image, np.ones((2, 3, 4)), mode="nearest"))
    if op in ("erosion", "dilation"):
        fp = footprint_of(rng, (2, 3, 4))
        assert same_bits(getattr(tessmorph, op)(image, fp, exact=True, lower=-5, upper=9),
                         getattr(tessmorph, op)(image, fp == 1, origin=(-1, 0, -1), lower=-5, upper=9))


def test_scipy_mode_aliases():
    rng = rng_for("aliases")
    image = image_of(rng, (7, 20), np.int16)
    fp = footprint_of(rng, (3, 4))
    for alias, mode in (("grid-constant", "constant"), ("grid-mirror", "reflect"), ("grid-wrap", "wrap")):
        for op in OPERATORS:
            f = getattr(tessmorph, op)
            assert same_bits(f(image, fp, mode=alias), f(image, fp, mode=mode)), (op, alias)


# scikit-image 0.19: its erosion and dilation are scipy's with mode
# 'reflect', its own centres and an unreflected dilation; its opening and
# closing compose them.

def sk_erosion_origin(fp):
    """scikit-image pads a 2-D footprint's even axes at the start, which
    moves its centre one lower than scipy's."""
    return [-1 if e % 2 == 0 and fp.ndim == 2 else 0 for e in fp.shape]


@pytest.mark.parametrize("dtype", DTYPES)
def test_scikit_image_erosion_and_dilation(dtype):
    morph = pytest.importorskip("skimage.morphology")
    rng = rng_for("skimage", dtype)
    for shape, fp_shape in SHAPES:
        image = image_of(rng, shape, dtype)
        fp = footprint_of(rng, fp_shape)
        assert same_bits(morph.erosion(image, fp),
                         tessmorph.erosion(image, fp, mode="reflect", origin=sk_erosion_origin(fp))), fp_shape
        flipped = fp[(slice(None, None, -1),) * fp.ndim]
        assert same_bits(morph.dilation(image, fp),
                         tessmorph.dilation(image, flipped, mode="reflect")), fp_shape


def test_scikit_image_default_footprint_is_a_cross():
    morph = pytest.importorskip("skimage.morphology")
    rng = rng_for("cross")
    for shape in ((30, 41), (6, 7, 35)):
        image = image_of(rng, shape, np.uint16)
        cross = ndi.generate_binary_structure(image.ndim, 1)
        for op in OPERATORS:
            assert same_bits(getattr(morph, op)(image), getattr(tessmorph, op)(image, cross)), (op, shape)


SYMMETRIC = [footprints.disk(2), footprints.square(3), footprints.diamond(1), footprints.ball(1),
             footprints.octahedron(2), np.ones(5, np.uint8), np.array([[1, 0, 1], [0, 1, 0], [1, 0, 1]], np.uint8)]


@pytest.mark.parametrize("dtype", DTYPES)
def test_scikit_image_two_stage_operators(dtype):
    """Odd footprints symmetric through their centre: opening, closing and
    the top-hats with mode='reflect', and with the default mode for the
    footprints convex along each axis (all of SYMMETRIC but the last); the
    white top-hat is scipy's for any footprint."""
    morph = pytest.importorskip("skimage.morphology")
    rng = rng_for("skimage2", dtype)
    for fp in SYMMETRIC:
        image = image_of(rng, (8, 11, 35)[3 - fp.ndim:], dtype)
        convex = fp is not SYMMETRIC[-1]
        for op in ("opening", "closing", "white_tophat", "black_tophat"):
            expected = getattr(morph, op)(image, fp)
            if dtype == np.bool_:  # scikit-image's bool top-hats may hold bytes of 255
                expected = expected.view(np.uint8) != 0
            assert same_bits(getattr(tessmorph, op)(image, fp, mode="reflect"), expected), (op, fp.shape)
            if convex:
                assert same_bits(getattr(tessmorph, op)(image, fp), expected), (op, fp.shape)
    image = image_of(rng, (9, 30), dtype)
    fp = footprint_of(rng, (2, 5))
    expected = morph.white_tophat(image, fp)
    if dtype == np.bool_:
        expected = expected.view(np.uint8) != 0
    assert same_bits(tessmorph.white_tophat(image, fp, mode="reflect"), expected)


# OpenCV 4.6: 2-D images of the types it erodes; its kernels are anchored at
# e // 2 as scipy's are, and its dilation doesn't reflect the kernel.

CV_TYPES = [np.uint8, np.uint16, np.int16, np.float32, np.float64]


def cv_borders(cv2):
    return {"constant": cv2.BORDER_CONSTANT, "nearest": cv2.BORDER_REPLICATE, "reflect": cv2.BORDER_REFLECT,
            "mirror": cv2.BORDER_REFLECT_101}


@pytest.mark.parametrize("dtype", CV_TYPES)
def test_opencv_erode_and_dilate(dtype):
    cv2 = pytest.importorskip("cv2")
    rng = rng_for("cv", dtype)
    for shape, (mode, border) in itertools.product([(4, 5), (3, 3), (1, 6), (6, 2), (5, 1)],
                                                   [(None, None)] + list(cv_borders(cv2).items())):
        image = image_of(rng, (23, 57), dtype)
        k = footprint_of(rng, shape)
        flipped = k[::-1, ::-1].copy()
        even = [(e % 2) - 1 for e in shape]
        ay, ax = (int(rng.integers(0, e)) for e in shape)
        kw, cv_kw = {}, {}
        if mode is None and dtype in (np.float32, np.float64):
            # OpenCV's default border is the greatest finite float for
            # erosion, ours infinity: they differ where no tap is inside.
            kw = dict(lower=float(np.finfo(dtype).min), upper=float(np.finfo(dtype).max))
        if mode is not None:
            kw, cv_kw = dict(mode=mode), dict(borderType=border)
        if mode == "constant":
            kw["cval"] = cv_kw["borderValue"] = float(rng.integers(0, 100))
        assert same_bits(tessmorph.erosion(image, k, **kw), cv2.erode(image, k, **cv_kw)), (shape, mode)
        assert same_bits(tessmorph.erosion(image, k, origin=(ay - shape[0] // 2, ax - shape[1] // 2), **kw),
                         cv2.erode(image, k, anchor=(ax, ay), **cv_kw)), (shape, mode)
        assert same_bits(tessmorph.dilation(image, flipped, origin=even, **kw), cv2.dilate(image, k, **cv_kw)), \
            (shape, mode)


@pytest.mark.parametrize("dtype", CV_TYPES)
def test_opencv_morphology_ex(dtype):
    cv2 = pytest.importorskip("cv2")
    rng = rng_for("cvex", dtype)
    ops = {"opening": cv2.MORPH_OPEN, "closing": cv2.MORPH_CLOSE, "white_tophat": cv2.MORPH_TOPHAT,
           "black_tophat": cv2.MORPH_BLACKHAT}
    image = image_of(rng, (31, 45), dtype)
    if dtype == np.int16:  # OpenCV saturates a top-hat's difference, numpy wraps it: keep it within the type
        image //= 2
    for k in (footprints.disk(2), footprints.square(3), np.array([[1, 0, 1], [0, 1, 0], [1, 0, 1]], np.uint8)):
        for op, code in ops.items():
            assert same_bits(getattr(tessmorph, op)(image, k), cv2.morphologyEx(image, code, k)), (op, k.shape)
    # An even or asymmetric kernel: OpenCV's opening dilates by the kernel
    # unreflected, so it is two calls of ours.
    k = footprint_of(rng, (4, 3))
    expected = cv2.morphologyEx(image, cv2.MORPH_OPEN, k)
    ours = tessmorph.dilation(tessmorph.erosion(image, k), k[::-1, ::-1], origin=(-1, 0))
    assert same_bits(ours, expected)
