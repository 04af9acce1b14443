"""The package against the shared library, bit for bit, for every operator,
element type and level; the axis order, strides, pads and outputs of the
numpy side; and the semantics the docstrings promise."""

import itertools
import os
import re
import subprocess
import sys
import zlib

import numpy as np
import pytest

import tessmorph
from conftest import DTYPES, OPERATORS, PAD_BOUNDS, random_footprint, random_image, same_bits


def strided(a):
    """The same samples in a view with a skipped, a reversed and an offset
    axis (the last axis stays dense, so nothing needs copying)."""
    holder = np.zeros((a.shape[0] * 2, a.shape[1], a.shape[2] + 5), np.uint8 if a.dtype == np.bool_ else a.dtype)
    view = holder[::2, ::-1, 2:2 + a.shape[2]]
    view[...] = a.view(holder.dtype)
    return view.view(a.dtype)


CASES = list(itertools.product(OPERATORS, DTYPES))


@pytest.mark.parametrize("op,dtype", CASES, ids=[f"{o}-{d}" for o, d in CASES])
def test_every_entry_point_equals_the_shared_library(shared_library, op, dtype):
    rng = np.random.default_rng(zlib.crc32(f"{op}-{dtype}".encode()))
    # More planes than rows and fewer, a width on both sides of every
    # vector width, even and odd footprint extents.
    for shape, fp_shape in (((9, 4, 37), (3, 2, 3)), ((3, 11, 5), (2, 3, 4)), ((1, 6, 70), (1, 1, 6))):
        image = random_image(rng, shape, dtype)
        fp = random_footprint(rng, fp_shape)
        lower, upper = rng.choice(PAD_BOUNDS, 2)
        for level in tessmorph.SUPPORTED_LEVELS:
            expected = shared_library(op, level, image, fp, lower, upper)
            got = tessmorph.apply(op, strided(image), fp, lower=lower, upper=upper, level=level)
            assert same_bits(got, expected), (shape, level, lower, upper)
            got = getattr(tessmorph, op)(strided(image), fp, lower=lower, upper=upper, level=level, exact=True)
            assert same_bits(got, expected), (shape, level, lower, upper)


@pytest.mark.parametrize("op", OPERATORS)
def test_one_and_two_axes_are_the_trailing_axes_of_a_volume(op):
    rng = np.random.default_rng(7)
    image = random_image(rng, (13, 50), np.int16)
    fp = random_footprint(rng, (3, 4))
    whole = tessmorph.apply(op, image[np.newaxis], fp[np.newaxis])
    assert same_bits(tessmorph.apply(op, image, fp), whole[0])
    row = tessmorph.apply(op, image[4], fp[1])
    assert same_bits(row, tessmorph.apply(op, image[4:5], fp[1:2])[0])


@pytest.mark.parametrize("layout", ["fortran", "negative", "byteswapped", "unaligned-stride", "broadcast",
                                    "column"])
def test_any_layout_gives_the_dense_result(layout):
    rng = np.random.default_rng(3)
    image = random_image(rng, (6, 9, 40), np.uint16)
    fp = random_footprint(rng, (3, 3, 3))
    view = {
        "fortran": lambda: np.asfortranarray(image),
        "negative": lambda: np.ascontiguousarray(image[::-1, ::-1, ::-1])[::-1, ::-1, ::-1],
        "byteswapped": lambda: image.astype(image.dtype.newbyteorder()),
        # Fields of a packed record: strides of 5 bytes, not whole samples.
        "unaligned-stride": lambda: _field_view(image),
        "broadcast": lambda: np.broadcast_to(image[:1], image.shape),
        "column": lambda: np.ascontiguousarray(image.transpose(2, 1, 0)).transpose(2, 1, 0),
    }[layout]()
    dense = np.ascontiguousarray(view)
    for op in OPERATORS:
        assert same_bits(getattr(tessmorph, op)(view, fp), getattr(tessmorph, op)(dense, fp)), op


def _field_view(image):
    rec = np.zeros(image.shape, dtype=[("pad", "u1"), ("v", image.dtype.newbyteorder("<")), ("x", "u2")])
    rec["v"] = image
    return rec["v"]


def test_out_receives_the_result_also_in_place_and_strided():
    rng = np.random.default_rng(5)
    image = random_image(rng, (5, 30, 41), np.float32)
    fp = tessmorph.footprints.ball(1)
    expected = tessmorph.opening(image, fp)
    out = np.empty_like(image)
    assert tessmorph.opening(image, fp, out=out) is out and same_bits(out, expected)
    strided_out = np.empty((5, 30, 82), np.float32)[..., ::2]
    assert tessmorph.opening(image, fp, out=strided_out) is strided_out and same_bits(strided_out, expected)
    in_place = image.copy()
    tessmorph.opening(in_place, fp, out=in_place)
    assert same_bits(in_place, expected)


def test_default_pads_are_neutral_for_every_type():
    for dtype in DTYPES:
        flat = np.full((3, 4, 40), 1, dtype)
        for op in ("erosion", "dilation", "opening", "closing"):
            assert same_bits(getattr(tessmorph, op)(flat, np.ones((3, 3, 3))), flat), (op, dtype)
        for op in ("white_tophat", "black_tophat"):
            assert not getattr(tessmorph, op)(flat, np.ones((3, 3, 3))).any(), (op, dtype)


@pytest.mark.parametrize("dtype,bound,pad", [
    (np.uint8, 256.0, 0), (np.uint8, 300.0, 44), (np.uint8, -1.0, 255), (np.uint8, 255.9, 255),
    (np.uint8, 1e300, 0), (np.int8, 128.0, -128), (np.uint16, -1.0, 65535), (np.int32, 2.0**31, -2**31),
    (np.uint32, -1.0, 2**32 - 1), (np.uint32, 4294967296.5, 0), (np.bool_, 2.0, False), (np.bool_, 3.0, True),
    (np.float32, 1e300, np.inf), (np.float64, -7.25, -7.25)])
def test_pads_are_cast_by_truncation_and_wrap(dtype, bound, pad):
    assert tessmorph.pad_value(dtype, bound) == pad
    # The erosion's border sees that value: a 3-tap erosion at the first sample.
    image = np.full(5, 100 if dtype != np.bool_ else True, dtype)
    eroded = tessmorph.erosion(image, np.ones(3), upper=bound)
    assert eroded[0] == min(image[0], pad) and eroded[2] == image[2]


def test_exact_opening_window_follows_the_second_axis_on_the_first():
    fp = np.ones((1, 1, 1))
    deep = np.full((6, 3, 4), 9, np.uint8)  # more planes than rows
    assert tessmorph.opening(deep, fp, exact=True)[:, 0, 0].tolist() == [9, 9, 9, 0, 0, 0]
    assert tessmorph.opening(deep, fp, exact=True, lower=5)[5, 2, 3] == 5
    # Fewer planes than rows: the first plane's dilation reads the lower pad
    # below the volume, the last one an erosion computed beyond it.
    shallow = np.full((2, 5, 4), 9, np.uint8)
    fp = np.ones((3, 1, 1))
    assert tessmorph.opening(shallow, fp, lower=50, upper=200, exact=True)[:, 0, 0].tolist() == [50, 9]
    assert tessmorph.opening(shallow, fp, lower=50, upper=200)[:, 0, 0].tolist() == [50, 50]
    # A volume with as many planes as rows is opened as the textbook says.
    rng = np.random.default_rng(2)
    cube = random_image(rng, (7, 7, 20), np.int8)
    ball = tessmorph.footprints.ball(1)
    assert same_bits(tessmorph.opening(cube, ball, exact=True), tessmorph.opening(cube, ball))


def test_exact_closing_is_computed_beyond_the_edge():
    fp = np.ones(3)
    assert tessmorph.closing(np.array([10, 200, 200], np.uint8), fp, exact=True).tolist() == [10, 200, 200]
    assert tessmorph.closing(np.array([10, 200, 200], np.uint8), fp).tolist() == [200, 200, 200]
    # The closing of the image padded with `lower`, cut back.
    rng = np.random.default_rng(4)
    image = random_image(rng, (12, 33), np.uint8)
    fp = random_footprint(rng, (4, 3))
    padded = np.pad(image, 8, constant_values=17)
    closed = tessmorph.closing(padded, fp, lower=17, exact=True)[8:-8, 8:-8]
    assert same_bits(tessmorph.closing(image, fp, lower=17, exact=True), closed)


def test_apply_places_image_and_output_anywhere():
    rng = np.random.default_rng(6)
    image = random_image(rng, (20, 70), np.float64)
    fp = random_footprint(rng, (3, 5))
    for op in OPERATORS:
        at_zero = tessmorph.apply(op, image, fp)
        for origin in ((0, 0), (-40, 1000)):
            whole = tessmorph.apply(op, image, fp, image_origin=origin)
            # Opening's window stays at 0; nothing else depends on the origin.
            if op not in ("opening", "white_tophat"):
                assert same_bits(whole, at_zero)
            # Boxes inside the image, one narrower than any vector (widened
            # and cut back).
            for box_origin, box_shape in (((3, 10), (9, 40)), ((0, 65), (20, 5)), ((7, 0), (1, 1))):
                part = tessmorph.apply(op, image, fp, image_origin=origin, out_origin=np.add(origin, box_origin),
                                       out_shape=box_shape)
                sl = tuple(slice(o, o + n) for o, n in zip(box_origin, box_shape))
                assert same_bits(part, whole[sl]), (op, origin, box_origin)
    # Beyond the image, the pad: an erosion far away is the upper bound.
    far = tessmorph.apply("erosion", image, fp, upper=3.5, out_origin=(100, 100), out_shape=(2, 3))
    assert (far == 3.5).all()


def test_required_region_is_the_library_bounds_query():
    fp = np.ones((3, 5))
    region = tessmorph.required_region("erosion", (100, 100), fp, (10, 20), (5, 40))
    assert region == tessmorph.Region((9, 18), (7, 44), (10, 20), (5, 40))
    # Clamped to the image, which is padded beyond it.
    assert tessmorph.required_region("dilation", (10, 10), fp, (0, 0), (10, 10)).image_shape == (10, 10)
    # A residue also reads the output's own box; opening's window starts at 0.
    region = tessmorph.required_region("white_tophat", (10, 100), fp, image_origin=(5, 0))
    assert region.image_origin == (5, 0)
    wide = tessmorph.required_region("erosion", (4, 200), fp, (0, 50), (4, 1), dtype=np.uint8, level="none")
    assert wide.out_shape == (4, 16) and wide.out_origin == (0, 35)


def test_docstring_examples():
    import doctest
    from tessmorph import morphology
    result = doctest.testmod(morphology, extraglobs={"np": np, "tessmorph": tessmorph})
    assert result.attempted >= 8 and result.failed == 0


def test_threads_limit_and_restore():
    image = random_image(np.random.default_rng(8), (8, 64, 64), np.uint8)
    expected = tessmorph.closing(image, tessmorph.footprints.cube(3))
    assert tessmorph.get_num_threads() is None
    with tessmorph.threads(1):
        assert tessmorph.get_num_threads() == 1
        with tessmorph.threads(2):
            assert tessmorph.get_num_threads() == 2
            assert same_bits(tessmorph.closing(image, tessmorph.footprints.cube(3)), expected)
        assert tessmorph.get_num_threads() == 1
    assert tessmorph.get_num_threads() is None


def test_sample_is_the_demo_volume():
    demo = os.environ.get("TM_DEMO")
    if not demo:
        pytest.skip("TM_DEMO is not set")
    report = subprocess.run([demo, tessmorph.best_level()], capture_output=True, text=True, check=True).stdout
    checksums = dict(re.findall(r"^\s+(\w+)\s.*checksum ([0-9a-f]{16})$", report, re.M))

    def fnv(a):
        h = 1469598103934665603
        for b in a.tobytes():
            h = ((h ^ b) * 1099511628211) % 2**64
        return f"{h:016x}"

    volume, fp = tessmorph.sample_volume(), tessmorph.sample_footprint()
    assert re.search(r"image .* checksum " + fnv(volume), report)
    for op, word in tessmorph.OPERATORS.items():
        assert fnv(getattr(tessmorph, op)(volume, fp, exact=True)) == checksums[word], op


# Refusals: every one raises, and the interpreter goes on.

@pytest.mark.parametrize("image,footprint,error", [
    (np.zeros((4, 4), np.int64), [[1]], TypeError), (np.zeros((4, 4), np.float16), [[1]], TypeError),
    (np.zeros((4, 4), np.complex64), [[1]], TypeError), (np.zeros((4, 4), object), [[1]], TypeError),
    (np.uint8(3), [[1]], ValueError), (np.zeros((4, 4), np.uint8), np.ones((1, 1, 1, 1)), ValueError),
    (np.zeros((4, 4), np.uint8), np.ones((3, 3, 3)), ValueError),
    (np.zeros((4, 4), np.uint8), np.array(1), ValueError),
    (np.zeros((4, 4), np.uint8), np.array(["a", "b"]), TypeError)])
def test_bad_images_and_footprints_raise(image, footprint, error):
    with pytest.raises(error):
        tessmorph.dilation(image, footprint)


def test_bad_arguments_raise():
    image = np.zeros((4, 40), np.uint8)
    with pytest.raises(ValueError, match="unknown level"):
        tessmorph.erosion(image, [1], level="sse9")
    with pytest.raises(ValueError, match="unknown operator"):
        tessmorph.apply("thinning", image, [1])
    with pytest.raises(ValueError, match="shape"):
        tessmorph.erosion(image, [1], out=np.zeros((4, 41), np.uint8))
    with pytest.raises(TypeError, match="dtype"):
        tessmorph.erosion(image, [1], out=np.zeros((4, 40), np.int8))
    with pytest.raises(ValueError, match="read-only"):
        tessmorph.erosion(image, [1], out=np.broadcast_to(np.uint8(0), (4, 40)))
    with pytest.raises(TypeError, match="real number"):
        tessmorph.erosion(image, [1], upper="high")


def test_library_refusals_carry_its_message():
    image = np.zeros((10, 10), np.uint8)
    with pytest.raises(ValueError, match=r"^Input buffer keyimForType is accessed at 14, which is beyond the max \(9\)"):
        tessmorph.apply("white_tophat", image, np.ones((3, 3)), out_origin=(5, 5), out_shape=(10, 3))
    # A footprint of 2**60 bytes that takes no memory: the closing's
    # intermediate can't be allocated, or can't even be sized.
    huge = np.broadcast_to(np.zeros((1, 1, 2**20), np.uint8), (2**20,) * 3)
    with pytest.raises(MemoryError, match=r"^image and footprint: Out of memory \(halide_malloc returned NULL\)$"):
        tessmorph.closing(np.zeros((1, 1, 1), np.uint8), huge, exact=True)
    with pytest.raises(MemoryError, match="^image and footprint: Total allocation for buffer imdilate is 92233720368"):
        tessmorph.black_tophat(np.zeros((1, 1, 1), np.float64), huge, exact=True)
    assert tessmorph.erosion(np.ones(3, np.uint8), [1, 1]).tolist() == [1, 1, 1]


WRONG_TYPE = """
import ctypes, sys
import numpy as np
sys.path.insert(0, {tests!r})
from conftest import describe
arrays = [np.zeros((1, 1, 40), np.float32), np.array([[0.0, 255.0]]), np.ones((1, 1, 3), np.uint8),
          np.zeros((1, 1, 40), np.float32)]
keep = [describe(a) for a in arrays]
ctypes.CDLL({lib!r}).imerode_uint8_none(*[ctypes.byref(b) for b, _ in keep])
"""


def test_a_call_that_aborts_the_shared_library_raises_here(shared_library):
    from tessmorph import _core
    image = np.zeros((1, 1, 40), np.float32)
    with pytest.raises(TypeError) as raised:
        _core.call("imerode", "uint8", "none", image, [0, 0, 0], 0.0, 255.0, np.ones((1, 1, 3), np.uint8),
                   np.zeros_like(image), [0, 0, 0])
    message = "Output buffer erode has type uint8 but type of the buffer passed in is float32"
    assert str(raised.value) == message
    # The same call through the shared library ends the process with that line.
    script = WRONG_TYPE.format(tests=os.path.dirname(__file__), lib=os.environ["TM_LIBRARY"])
    child = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert child.returncode == -6 and f"Error: {message}" in child.stdout
