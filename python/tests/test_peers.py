"""Cross-checks against independent implementations, wherever the
definitions can be made to agree: OpenCV (2-D, anchored at our centre,
constant border with our pad value), scipy.ndimage (constant border, origin
for even extents), scikit-image (symmetric footprints, whose reflected
border changes nothing)."""

import numpy as np
import pytest

import tessmorph
from tessmorph import footprints
from conftest import random_footprint, random_image, same_bits


def centre(e):
    return (e + 1) // 2 - 1


def comparable(image):
    """Floats without NaN and -0, where the peers' minimum and maximum
    choose otherwise than ours (which keeps the later of equal samples)."""
    return np.nan_to_num(image) + 0.0


def scipy_origin(fp):
    # scipy centres an axis at e // 2 (+ origin); we at (e + 1) // 2 - 1.
    return [centre(e) - e // 2 for e in fp.shape]


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.int16, np.float32, np.float64])
def test_opencv_erode_and_dilate(dtype):
    cv2 = pytest.importorskip("cv2")
    rng = np.random.default_rng(11)
    for shape in ((4, 5), (3, 3), (1, 7), (6, 2)):
        image = random_image(rng, (57, 83), dtype)
        if image.dtype.kind == "f":
            image = comparable(image)
        fp = random_footprint(rng, shape)
        kernel = (fp == 1).astype(np.uint8)
        cy, cx = centre(shape[0]), centre(shape[1])
        lower, upper = rng.integers(0, 100, 2).astype(float)
        eroded = cv2.erode(image, kernel, anchor=(cx, cy), borderType=cv2.BORDER_CONSTANT,
                           borderValue=float(tessmorph.pad_value(dtype, upper)))
        assert same_bits(tessmorph.erosion(image, fp, upper=upper), eroded)
        # OpenCV doesn't reflect the kernel: reflect it and its anchor.
        dilated = cv2.dilate(image, kernel[::-1, ::-1].copy(), anchor=(shape[1] - 1 - cx, shape[0] - 1 - cy),
                             borderType=cv2.BORDER_CONSTANT, borderValue=float(tessmorph.pad_value(dtype, lower)))
        assert same_bits(tessmorph.dilation(image, fp, lower=lower), dilated)


@pytest.mark.parametrize("dtype", [np.uint8, np.int8, np.uint32, np.int32, np.float64])
def test_scipy_grey_morphology(dtype):
    ndi = pytest.importorskip("scipy.ndimage")
    rng = np.random.default_rng(12)
    image = random_image(rng, (9, 12, 45), dtype)
    if image.dtype.kind == "f":
        image = comparable(image)
    fp = (random_footprint(rng, (2, 3, 4)) == 1)
    lo, hi = tessmorph.pad_value(dtype, -3), tessmorph.pad_value(dtype, 77)
    origin = scipy_origin(fp)
    expected = ndi.grey_erosion(image, footprint=fp, mode="constant", cval=hi, origin=origin)
    assert same_bits(tessmorph.erosion(image, fp, upper=77), expected)
    expected = ndi.grey_dilation(image, footprint=fp, mode="constant", cval=lo, origin=origin)
    assert same_bits(tessmorph.dilation(image, fp, lower=-3), expected)


@pytest.mark.parametrize("shape", [(30, 41), (12, 12, 25)])
def test_scipy_opening_and_closing_with_neutral_pads(shape):
    ndi = pytest.importorskip("scipy.ndimage")
    rng = np.random.default_rng(13)
    image = random_image(rng, shape, np.uint16)
    fp = footprints.disk(2) if len(shape) == 2 else footprints.octahedron(2)
    # A symmetric convex footprint makes the nearest-sample border neutral.
    opened = ndi.grey_opening(image, footprint=fp.astype(bool), mode="nearest")
    assert same_bits(tessmorph.opening(image, fp), opened)  # as many planes as rows
    assert same_bits(tessmorph.white_tophat(image, fp), image - opened)
    # Our closing is the closing of the image padded with the lower pad.
    m = 2 * max(fp.shape)
    closed = ndi.grey_closing(np.pad(image, m), footprint=fp.astype(bool), mode="nearest")
    closed = closed[(slice(m, -m),) * len(shape)]
    assert same_bits(tessmorph.closing(image, fp), closed)
    assert same_bits(tessmorph.black_tophat(image, fp), closed - image)


@pytest.mark.parametrize("name,fp", [("disk", footprints.disk(3)), ("square", footprints.square(5)),
                                     ("diamond", footprints.diamond(2)), ("ball", footprints.ball(2))])
def test_scikit_image_operators(name, fp):
    morph = pytest.importorskip("skimage.morphology")
    rng = np.random.default_rng(14)
    image = random_image(rng, (40, 40, 40)[3 - fp.ndim:], np.uint8)
    for op in ("erosion", "dilation", "opening", "white_tophat"):
        assert same_bits(getattr(tessmorph, op)(image, fp), getattr(morph, op)(image, fp)), op
    # Away from the border, closing doesn't depend on its definition there.
    inner = (slice(2 * fp.shape[0], -2 * fp.shape[0]),) * image.ndim
    for op in ("closing", "black_tophat"):
        assert same_bits(getattr(tessmorph, op)(image, fp)[inner], getattr(morph, op)(image, fp)[inner]), op


def test_footprints_are_scikit_image_sets():
    morph = pytest.importorskip("skimage.morphology")
    for r in range(0, 6):
        for name in ("disk", "ball", "diamond", "octahedron"):
            ours = getattr(footprints, name)(r)
            assert ours.dtype == np.uint8 and np.array_equal(ours, getattr(morph, name)(r)), (name, r)
    for w in (1, 4, 7):
        assert np.array_equal(footprints.square(w), morph.square(w))
        assert np.array_equal(footprints.cube(w), morph.cube(w))
    assert np.array_equal(footprints.rectangle(2, 5), morph.rectangle(2, 5))
