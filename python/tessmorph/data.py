"""The built-in sample: the volume and the element the library's demo uses,
generated in memory (nothing is downloaded or shipped)."""

import numpy as np

__all__ = ["sample_volume", "sample_footprint"]

# Bright blobs and dark pits: centre (x, y, z), radius, value.  Planes are
# twice as far apart as samples in a plane.
_BLOBS = ((20, 16, 8, 9, 220), (60, 40, 6, 12, 180), (95, 14, 10, 6, 250), (40, 44, 9, 3, 10), (80, 30, 8, 4, 5))


def _lcg_noise(count, seed=12345, a=1664525, c=1013904223):
    """The top 4 bits of the first `count` states of a 32-bit linear
    congruential generator, all at once: state n is a^n s + c (1 + a + ...
    + a^(n-1)), and uint64 arithmetic wraps modulo a multiple of 2^32."""
    with np.errstate(over="ignore"):
        powers = np.cumprod(np.full(count, a, np.uint64))              # a^1 .. a^n
        sums = np.cumsum(np.concatenate((np.ones(1, np.uint64), powers[:-1])))  # 1 + ... + a^(n-1)
        states = (powers * np.uint64(seed) + sums * np.uint64(c)) & np.uint64(0xFFFFFFFF)
    return (states >> np.uint64(28)).astype(np.int64)


def sample_volume():
    """A 16 x 64 x 128 uint8 volume: a noisy background of about 90, three
    bright blobs and two small dark pits (the library's demo volume)."""
    z, y, x = np.meshgrid(np.arange(16), np.arange(64), np.arange(128), indexing="ij")
    inside = [(x - bx) ** 2 + (y - by) ** 2 + ((z - bz) * 2.0) ** 2 <= r * r for bx, by, bz, r, _ in _BLOBS]
    hits = np.sum(inside, axis=0).ravel()
    # One noise draw per sample, and one more for every blob it lies in; the
    # last blob it lies in decides the value.
    first = np.arange(hits.size) + np.concatenate(([0], np.cumsum(hits)[:-1]))
    noise = _lcg_noise(int(hits.size + hits.sum()))
    value = np.full(hits.size, 90)
    for (_, _, _, _, v), mask in zip(_BLOBS, inside):
        value[mask.ravel()] = v
    value = value + noise[first + hits]
    return np.minimum(value, 255).astype(np.uint8).reshape(z.shape)


def sample_footprint():
    """The demo's 3 x 5 x 5 ellipsoid (planes x rows x columns), 15 taps."""
    k, j, i = np.meshgrid(np.arange(3), np.arange(5), np.arange(5), indexing="ij")
    return ((i - 2.0) ** 2 + (j - 2.0) ** 2 + ((k - 1) * 2.0) ** 2 <= 4.5).astype(np.uint8)
