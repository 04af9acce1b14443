#!/usr/bin/python3
"""A short tour of the Python package on the built-in sample volume: the six
operators, the places where the library's own definitions (exact=True)
differ from the textbook's, scipy's border modes, a stack of images, a line
footprint, a tile, and a refused call that raises."""

import time

import numpy as np

import tessmorph
from tessmorph import footprints

volume = tessmorph.sample_volume()          # 16 planes x 64 rows x 128 columns, uint8
ball = tessmorph.sample_footprint()         # the demo's 3 x 5 x 5 ellipsoid
print(f"volume {volume.shape} {volume.dtype}, footprint {ball.shape} with {int((ball == 1).sum())} taps, "
      f"level {tessmorph.best_level()}")

for op in tessmorph.OPERATORS:
    start = time.perf_counter()
    result = getattr(tessmorph, op)(volume, ball)
    ms = (time.perf_counter() - start) * 1e3
    print(f"  {op:13s} {ms:7.2f} ms   values {result.min():3d}..{result.max():3d}")

# The library's opening window on the first axis is as long as the second
# axis: a volume with more planes than rows holds the lower pad in its last
# planes (from plane 9 here, one plane of the footprint's reach beyond the
# window's 8).  The default is the textbook opening.
deep = volume[:, :8]  # 16 planes of 8 rows
exact = tessmorph.opening(deep, ball, exact=True)
textbook = tessmorph.opening(deep, ball)
print(f"opening of {deep.shape}: with exact=True planes 9 and up hold {np.unique(exact[9:])}, the textbook's "
      f"{textbook[9:].mean():.1f} on average")

# The library's closing keeps a dark border sample dark: its dilation is
# computed beyond the edge.
row = np.array([10, 200, 200, 200], np.uint8)
print("closing", row, "->", tessmorph.closing(row, np.ones(3)), "exact", tessmorph.closing(row, np.ones(3),
                                                                                           exact=True))

# scipy's border modes: a wrapped border joins the row's two ends.
print("erosion, mode='wrap'", row, "->", tessmorph.erosion(row, np.ones(3), mode="wrap"))

# A stack of 2-D images (4 times, 16 planes): a 2-D footprint never crosses
# planes, so the whole stack goes to the library in one call.
stack = np.stack([volume] * 4)
opened = tessmorph.opening(stack, footprints.disk(2))
assert np.array_equal(opened[3, 5], tessmorph.opening(volume[5], footprints.disk(2)))
print(f"opening of a {stack.shape} stack plane by plane: mean {stack.mean():.1f} -> {opened.mean():.1f}")

# A line footprint removes what is thinner than it along its direction.
plane = volume[8]
print("opening with line(9, 45): mean", plane.mean().round(1), "->",
      tessmorph.opening(plane, footprints.line(9, 45)).mean().round(1))

# A tile: the erosion of rows 20..29, from only the rows it needs.
region = tessmorph.required_region("erosion", plane.shape, footprints.disk(2), (20, 0), (10, 128))
rows = slice(region.image_origin[0], region.image_origin[0] + region.image_shape[0])
tile = tessmorph.apply("erosion", plane[rows], footprints.disk(2), image_origin=(rows.start, 0),
                       out_origin=(20, 0), out_shape=(10, 128))
assert np.array_equal(tile, tessmorph.erosion(plane, footprints.disk(2))[20:30])
print(f"tile of rows 20..29 read rows {rows.start}..{rows.stop - 1} and matches the whole")

# A refusal raises with the library's message; the interpreter goes on.
try:
    tessmorph.apply("white_tophat", plane, footprints.disk(2), out_origin=(60, 0), out_shape=(10, 128))
except ValueError as e:
    print("refused:", e)
