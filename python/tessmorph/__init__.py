"""Flat morphology on numpy arrays on libtessmorphop3_halide: the textbook operators by
default (as scipy.ndimage and scikit-image compute them), the library's own with ``exact=True``.

    >>> import numpy as np, tessmorph
    >>> from tessmorph import footprints
    >>> image = np.random.default_rng(0).integers(0, 256, (64, 64), np.uint8)
    >>> eroded = tessmorph.erosion(image, footprints.disk(2))

Operators: ``erosion``, ``dilation``, ``opening``, ``closing``,
``white_tophat``, ``black_tophat`` on 1-, 2- and 3-D arrays of bool, uint8,
int8, uint16, int16, uint32, int32, float32 and float64.  ``apply`` and
``required_region`` place images and outputs anywhere, for tiles;
``tessmorph.dask`` runs the operators on dask arrays.  A refused call raises
ValueError, TypeError or MemoryError with the library's message.  The calls
release the GIL and run in parallel on TBB; ``set_num_threads`` or
``threads`` limit them.  Between calls the library keeps up to 256 MiB of
its working memory (an opening's intermediate, as large as the image, among
it) for the next call; ``TM_KEEP_IDLE_MIB`` in the environment before the
first call sets another bound (``0`` gives it all back after each call).
"""

from . import footprints
from ._version import __version__
from ._library import LEVELS, OPERATORS, SUPPORTED_LEVELS, TYPES, Region, best_level
from .data import sample_footprint, sample_volume
from .morphology import (apply, black_tophat, closing, dilation, erosion, get_num_threads, opening, pad_value,
                         required_region, set_num_threads, threads, white_tophat)

__all__ = ["__version__", "erosion", "dilation", "opening", "closing", "white_tophat", "black_tophat", "apply",
           "required_region", "Region", "pad_value", "set_num_threads", "get_num_threads", "threads",
           "best_level", "footprints", "sample_volume", "sample_footprint", "OPERATORS", "LEVELS",
           "SUPPORTED_LEVELS", "TYPES"]
