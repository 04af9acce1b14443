"""Footprints (structuring elements) as uint8 arrays of 0 and 1.

``disk``, ``ball``, ``diamond`` and ``octahedron`` are the same sets as
scikit-image's functions of those names.  Odd extents put the centre in the
middle; ``line`` places its centre where the operators put the centre of an
axis of extent e by default, at index e // 2 (scipy's).
"""

import math

import numpy as np

__all__ = ["disk", "ball", "square", "rectangle", "cube", "diamond", "octahedron", "line"]


def _radius(r):
    r = int(r)
    if r < 0:
        raise ValueError(f"radius must be at least 0, not {r}")
    return r


def _size(n, what="width"):
    n = int(n)
    if n < 1:
        raise ValueError(f"{what} must be at least 1, not {n}")
    return n


def _grid(r, ndim):
    return np.ogrid[(slice(-r, r + 1),) * ndim]


def disk(radius):
    """The samples within Euclidean distance ``radius`` of the centre (2-D)."""
    r = _radius(radius)
    y, x = _grid(r, 2)
    return (x * x + y * y <= r * r).astype(np.uint8)


def ball(radius):
    """The samples within Euclidean distance ``radius`` of the centre (3-D)."""
    r = _radius(radius)
    z, y, x = _grid(r, 3)
    return (x * x + y * y + z * z <= r * r).astype(np.uint8)


def diamond(radius):
    """The samples within city-block distance ``radius`` of the centre (2-D)."""
    r = _radius(radius)
    y, x = _grid(r, 2)
    return (abs(x) + abs(y) <= r).astype(np.uint8)


def octahedron(radius):
    """The samples within city-block distance ``radius`` of the centre (3-D)."""
    r = _radius(radius)
    z, y, x = _grid(r, 3)
    return (abs(x) + abs(y) + abs(z) <= r).astype(np.uint8)


def square(width):
    """A ``width`` x ``width`` square of taps."""
    w = _size(width)
    return np.ones((w, w), np.uint8)


def rectangle(nrows, ncols):
    """An ``nrows`` x ``ncols`` rectangle of taps."""
    return np.ones((_size(nrows, "nrows"), _size(ncols, "ncols")), np.uint8)


def cube(width):
    """A ``width`` x ``width`` x ``width`` cube of taps."""
    w = _size(width)
    return np.ones((w, w, w), np.uint8)


def line(length, angle):
    """A digital line segment of ``length`` taps through the centre (2-D).

    ``angle`` is in degrees, counter-clockwise from the direction of the last
    axis, with the first axis pointing down as in an image: 0 is a row, 90 a
    column, 45 rises to the right.  The line steps by one sample along its
    dominant axis and is rounded on the other, so a line of any angle has
    exactly ``length`` taps; an odd length is symmetric about the centre,
    an even one reaches one step further back along the line than forward.
    """
    n = _size(length, "length")
    theta = math.radians(float(angle))
    dx, dy = math.cos(theta), -math.sin(theta)
    step = max(abs(dx), abs(dy))
    dx, dy = dx / step, dy / step
    # Positions along the line, -n//2 .. (n-1)//2, as the centre e // 2 of
    # an axis of n samples has it.
    k = np.arange(-(n // 2), (n - 1) // 2 + 1)
    # Round half away from zero, so that the line is symmetric.
    xs = (np.sign(k * dx) * np.floor(np.abs(k * dx) + 0.5)).astype(int)
    ys = (np.sign(k * dy) * np.floor(np.abs(k * dy) + 0.5)).astype(int)

    def extent(offsets):
        # The smallest extent whose centre has room for the offsets on both
        # sides: centre c = e // 2 reaches e - 1 - c up.
        below, above = -offsets.min(), offsets.max()
        e = max(2 * below, 2 * above + 1)
        return e, e // 2

    (h, cy), (w, cx) = extent(ys), extent(xs)
    fp = np.zeros((h, w), np.uint8)
    fp[ys + cy, xs + cx] = 1
    return fp
