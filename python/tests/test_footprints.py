"""The line footprint, which no peer has, and the constructors' arguments."""

import numpy as np
import pytest

import tessmorph
from tessmorph import footprints


def taps(fp):
    """Tap offsets from the centre (e // 2), as (row, column) pairs."""
    c = [e // 2 for e in fp.shape]
    return sorted((int(y) - c[0], int(x) - c[1]) for y, x in zip(*np.nonzero(fp)))


@pytest.mark.parametrize("length,angle,expected", [
    (5, 0, [(0, -2), (0, -1), (0, 0), (0, 1), (0, 2)]),
    (5, 90, [(-2, 0), (-1, 0), (0, 0), (1, 0), (2, 0)]),
    (3, 45, [(-1, 1), (0, 0), (1, -1)]),
    (3, 135, [(-1, -1), (0, 0), (1, 1)]),
    (4, 0, [(0, -2), (0, -1), (0, 0), (0, 1)]),
    (5, 30, [(-1, 2), (-1, 1), (0, 0), (1, -1), (1, -2)]),
    (1, 17, [(0, 0)]),
])
def test_line_taps(length, angle, expected):
    assert taps(footprints.line(length, angle)) == sorted(expected)


@pytest.mark.parametrize("angle", range(0, 360, 15))
def test_line_has_length_taps_through_the_centre(angle):
    for length in (2, 7, 10):
        fp = footprints.line(length, angle)
        offsets = taps(fp)
        assert fp.dtype == np.uint8 and len(offsets) == length and (0, 0) in offsets
        if length % 2:  # an odd line is symmetric about the centre
            assert sorted((-y, -x) for y, x in offsets) == offsets


def test_line_erodes_along_its_direction():
    image = np.zeros((9, 9), np.uint8)
    image[4, :] = 200  # a horizontal bar survives a horizontal line, not a vertical one
    assert tessmorph.opening(image, footprints.line(5, 0))[4].tolist() == [200] * 9
    assert not tessmorph.opening(image, footprints.line(5, 90)).any()


@pytest.mark.parametrize("call", [lambda: footprints.disk(-1), lambda: footprints.square(0),
                                  lambda: footprints.rectangle(3, 0), lambda: footprints.line(0, 10)])
def test_bad_sizes_raise(call):
    with pytest.raises(ValueError):
        call()
