"""The operators' defaults (textbook operators, any nonzero value a tap), the
switch to the library's own definitions, stacks of images along leading
axes, and refusals that name the user's argument."""

import itertools
import tracemalloc

import numpy as np
import pytest

import tessmorph
from tessmorph import footprints
from conftest import DTYPES, OPERATORS, random_footprint, random_image, same_bits


def textbook(op, image, fp, **kw):
    """The operator composed of our own erosion and dilation."""
    e = lambda x: tessmorph.erosion(x, fp, **kw)  # noqa: E731
    d = lambda x: tessmorph.dilation(x, fp, **kw)  # noqa: E731
    if image.dtype == np.bool_:  # bit 0, as the library reads a bool
        def sub(a, b):
            return ((a.view(np.uint8) ^ b.view(np.uint8)) & 1).view(np.bool_)
    else:
        sub = np.subtract
    with np.errstate(invalid="ignore"):
        return {"erosion": e, "dilation": d, "opening": lambda x: d(e(x)), "closing": lambda x: e(d(x)),
                "white_tophat": lambda x: sub(x, d(e(x))), "black_tophat": lambda x: sub(e(d(x)), x)}[op](image)


def test_opening_a_constant_stack_gives_the_constant():
    for shape in ((40, 32, 32), (3, 80, 40)):
        stack = np.full(shape, 77, np.uint8)
        for fp in (footprints.ball(2), footprints.cube(3), np.ones((3, 1, 1))):
            for op in ("opening", "closing"):
                assert (getattr(tessmorph, op)(stack, fp) == 77).all(), (shape, op, fp.shape)
            for op in ("white_tophat", "black_tophat"):
                assert not getattr(tessmorph, op)(stack, fp).any(), (shape, op, fp.shape)


@pytest.mark.parametrize("op", OPERATORS)
def test_any_nonzero_value_is_a_tap(op):
    rng = np.random.default_rng(21)
    image = random_image(rng, (6, 9, 40), np.uint16)
    ones = random_footprint(rng, (3, 2, 3)) == 1
    for value in (255, 2, -1, 0.5, np.nan, True):
        fp = np.where(ones, value, 0)
        assert same_bits(getattr(tessmorph, op)(image, fp), getattr(tessmorph, op)(image, ones)), value
    # The library's own taps are bytes equal to 1.
    assert (tessmorph.dilation(image, np.full((3, 3, 3), 255, np.uint8), exact=True) == 0).all()


def test_the_default_footprint_is_a_square_of_ones():
    rng = np.random.default_rng(22)
    for shape, fp in (((50,), np.ones(3)), ((9, 40), np.ones((3, 3))), ((4, 7, 30), np.ones((3, 3, 3))),
                      ((2, 4, 7, 30), np.ones((3, 3, 3)))):
        image = random_image(rng, shape, np.int8)
        for op in OPERATORS:
            assert same_bits(getattr(tessmorph, op)(image), getattr(tessmorph, op)(image, fp)), (shape, op)


@pytest.mark.parametrize("dtype", DTYPES)
def test_textbook_operators_are_their_stages(dtype):
    """Opening and closing are the dilation of the erosion and back, each
    over the whole image; the top-hats their differences in the image's type
    (exact for uint32, unlike the library's float32 residue)."""
    rng = np.random.default_rng(23)
    image = random_image(rng, (7, 5, 37), dtype)
    fp = random_footprint(rng, (3, 2, 4))
    for op, mode in itertools.product(OPERATORS, (None, "wrap")):
        expected = textbook(op, image, fp, mode=mode)
        assert same_bits(getattr(tessmorph, op)(image, fp, mode=mode), expected), (op, mode)


NUMPY_PAD = {"nearest": "edge", "reflect": "symmetric", "mirror": "reflect", "wrap": "wrap"}


@pytest.mark.parametrize("mode,dtype", list(itertools.product(NUMPY_PAD, [np.float32, np.uint16, np.bool_])))
def test_a_mode_is_the_image_padded_as_numpy_pads(mode, dtype):
    """Bit for bit, NaN, signed zeros and bool bytes included: the stage of
    a padded image, cut back."""
    rng = np.random.default_rng(30)
    for shape, fp_shape in (((6, 9, 45), (3, 4, 5)), ((20, 3), (5, 6)), ((30,), (7,))):
        image = random_image(rng, shape, dtype)
        fp = random_footprint(rng, fp_shape)
        r = max(fp_shape)
        padded = np.pad(image, r, mode=NUMPY_PAD[mode])
        inner = (slice(r, -r),) * image.ndim
        for op in ("erosion", "dilation"):
            expected = getattr(tessmorph, op)(padded, fp)[inner]
            assert same_bits(getattr(tessmorph, op)(image, fp, mode=mode), expected), (op, shape)


def test_uint32_top_hats_are_exact_differences():
    rng = np.random.default_rng(24)
    image = rng.integers(0, 2**32, (33, 47), np.uint32)
    fp = footprints.disk(2)
    opened, closed = tessmorph.opening(image, fp), tessmorph.closing(image, fp)
    tophat, bothat = tessmorph.white_tophat(image, fp), tessmorph.black_tophat(image, fp)
    assert np.array_equal(tophat.astype(np.int64), image.astype(np.int64) - opened)
    assert np.array_equal(bothat.astype(np.int64), closed.astype(np.int64) - image)
    # The library's residue goes through float32.
    library = tessmorph.white_tophat(image, fp, exact=True)
    assert (library != tophat).mean() > 0.3
    assert np.array_equal(library, (np.float32(image) - np.float32(opened)).astype(np.uint32))


@pytest.mark.parametrize("op", OPERATORS)
def test_out_in_place_and_strided_with_a_mode(op):
    rng = np.random.default_rng(25)
    image = random_image(rng, (5, 30, 41), np.float32)
    fp = random_footprint(rng, (3, 3, 2))
    for kw in (dict(), dict(mode="mirror"), dict(mode="constant", cval=3), dict(exact=True)):
        expected = getattr(tessmorph, op)(image, fp, **kw)
        strided_out = np.empty((5, 30, 82), np.float32)[..., ::2]
        assert getattr(tessmorph, op)(image, fp, out=strided_out, **kw) is strided_out
        assert same_bits(strided_out, expected), kw
        in_place = image.copy()
        assert getattr(tessmorph, op)(in_place, fp, out=in_place, **kw) is in_place
        assert same_bits(in_place, expected), kw


def test_a_textbook_top_hat_needs_one_intermediate():
    image = np.random.default_rng(26).integers(0, 256, (64, 128, 128), np.uint8)
    fp = footprints.ball(1)
    for op, mode in itertools.product(("opening", "white_tophat", "black_tophat"), (None, "reflect")):
        tracemalloc.start()
        getattr(tessmorph, op)(image, fp, mode=mode)
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        # The result, one stage's output, and slabs as thick as the reach:
        # never a third copy of the image.
        assert peak < 2.5 * image.nbytes, (op, mode, peak / image.nbytes)


# Stacks: a footprint with fewer axes than the image.

def per_image(op, image, fp, k, **kw):
    out = np.empty_like(image)
    for index in np.ndindex(image.shape[:image.ndim - k]):
        out[index] = getattr(tessmorph, op)(image[index], fp, **kw)
    return out


@pytest.mark.parametrize("op", OPERATORS)
def test_leading_axes_are_a_stack(op):
    rng = np.random.default_rng(27)
    image = random_image(rng, (3, 4, 5, 6, 40), np.int16)
    for fp_shape, kw in itertools.product(((3, 4), (2, 3, 3), (5,)), (dict(), dict(mode="reflect"),
                                                                       dict(exact=True))):
        fp = random_footprint(rng, fp_shape)
        expected = per_image(op, image, fp, len(fp_shape), **kw)
        assert same_bits(getattr(tessmorph, op)(image, fp, **kw), expected), (fp_shape, kw)
        # Leading axes that can't be folded into one, in the out or in both.
        out = np.empty((3, 8, 5, 6, 40), np.int16)[::-1, ::2]
        assert same_bits(getattr(tessmorph, op)(image, fp, out=out, **kw), expected), (fp_shape, kw)
        view, out = image[:, ::2], np.empty((3, 4, 5, 6, 40), np.int16)[::-1, ::2]
        assert same_bits(getattr(tessmorph, op)(view, fp, out=out, **kw), expected[:, ::2]), (fp_shape, kw)


def test_exact_opening_of_planes_is_the_library_opening_of_each():
    """A volume under a 2-D footprint is a stack of 2-D images also for the
    library's opening, whose window would otherwise blacken the planes
    beyond the rows."""
    rng = np.random.default_rng(28)
    image = random_image(rng, (9, 4, 37), np.uint8)
    fp = random_footprint(rng, (3, 3))
    expected = per_image("opening", image, fp, 2, exact=True, lower=3, upper=250)
    assert same_bits(tessmorph.opening(image, fp, exact=True, lower=3, upper=250), expected)
    assert (tessmorph.opening(image, fp[np.newaxis], exact=True)[4:] == 0).all()


# Refusals name the argument.

@pytest.mark.parametrize("call,error,message", [
    (lambda: tessmorph.erosion(np.zeros(4, np.int64)), TypeError, r"^image: unsupported dtype int64"),
    (lambda: tessmorph.erosion(np.uint8(3)), ValueError, r"^image: "),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), np.ones((3, 3, 3))), ValueError, r"^footprint: must have 1 to 2"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), ["a"]), TypeError, r"^footprint: must hold numbers"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), out=np.zeros((4, 5))), ValueError, r"^out: has shape"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), out=np.zeros((4, 4), np.float32)), TypeError, r"^out: has dtype"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), out=[[0]]), TypeError, r"^out: must be a numpy array"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), mode="edge"), ValueError, r"^mode: 'edge' is none of"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), np.ones(4), origin=2), ValueError, r"^origin: 2 puts the centre"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), np.ones((3, 3)), origin=(1, 0, 0)), ValueError, r"^origin: needs"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), origin=1, exact=True), ValueError, r"^origin: exact=True"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), mode="wrap", exact=True), ValueError, r"^exact=True"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), mode="wrap", upper=3), ValueError, r"^lower and upper"),
    (lambda: tessmorph.erosion(np.zeros((4, 4)), cval=3), ValueError, r"^cval is the value of mode='constant'"),
])
def test_refusals_name_the_argument(call, error, message):
    with pytest.raises(error, match=message):
        call()


def test_library_refusals_name_the_argument_before_its_text():
    huge = np.broadcast_to(np.zeros((1, 1, 2**20), np.uint8), (2**20,) * 3)
    with pytest.raises(MemoryError, match=r"^image and footprint: Total allocation for buffer imdilate is "):
        tessmorph.closing(np.zeros((1, 1, 1), np.float64), huge, exact=True)
