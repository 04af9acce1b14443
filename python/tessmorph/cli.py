"""tessmorph OPERATOR INPUT OUTPUT --footprint SHAPE:SIZE ...: one operator on
an image file.

Every failure ends with one line on stderr and a non-zero exit: 1 for a bad
file, value or a refused call, 2 for a bad command line, 130 when
interrupted.
"""

import argparse
import os
import sys

import numpy as np

_SHAPES = {
    "disk": "disk:R", "ball": "ball:R", "diamond": "diamond:R", "octahedron": "octahedron:R",
    "square": "square:W", "cube": "cube:W", "rectangle": "rectangle:ROWS:COLS", "line": "line:LENGTH:ANGLE",
}

EPILOG = """footprints: disk:R ball:R diamond:R octahedron:R square:W cube:W rectangle:ROWS:COLS
line:LENGTH:ANGLE (degrees), or a .npy file whose nonzero elements are the taps
(with --exact, the elements equal to 1).
formats: .tif/.tiff (stacks, colour, ImageJ hyperstacks, OME-TIFF; the output keeps
the input's axes, ImageJ metadata, resolution and OME-XML), .png (2-D, grey or colour),
.npy, .zarr (a directory).  Colour samples, channels and time points are processed
one by one, each as a 2-D image or a 3-D stack; a .npy or zarr array of more than
three axes is a stack of 3-D images.
With --chunks, or a zarr input, the image goes through in chunks (bit for bit the
same result): .npy and .zarr are then read and written chunk by chunk, so an image
larger than memory streams through.  A sample to try: python3 -m tessmorph.sample sample.tif"""


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        sys.stderr.write(f"{self.prog}: error: {message} (see {self.prog} --help)\n")
        sys.exit(2)


def parse_footprint(text):
    from . import footprints
    if text.lower().endswith(".npy"):
        if not os.path.exists(text):
            raise FileNotFoundError(f"footprint {text}: no such file")
        return np.load(text, allow_pickle=False)
    name, *args = text.split(":")
    if name not in _SHAPES:
        raise ValueError(f"unknown footprint {text!r}; use {', '.join(_SHAPES.values())} or a .npy file")
    wanted = _SHAPES[name].count(":")
    if len(args) != wanted:
        raise ValueError(f"footprint {text!r}: expected {_SHAPES[name]}")
    try:
        values = [float(a) if (name == "line" and i == 1) else int(a) for i, a in enumerate(args)]
    except ValueError:
        raise ValueError(f"footprint {text!r}: expected {_SHAPES[name]} with whole numbers") from None
    return getattr(footprints, name)(*values)


def build_parser():
    from . import LEVELS, OPERATORS
    from . import __version__
    p = _Parser(prog="tessmorph", description="Flat morphology on an image file: the textbook operators, as "
                "scikit-image and scipy.ndimage compute them, or with --exact libtessmorphop3_halide's own.",
                epilog=EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--version", action="version", version=f"tessmorph {__version__}")
    p.add_argument("operator", choices=list(OPERATORS), metavar="OPERATOR", help=", ".join(OPERATORS))
    p.add_argument("input", metavar="INPUT", help="image file (.tif, .png, .npy) or zarr array (.zarr)")
    p.add_argument("output", metavar="OUTPUT", help="where to write the result, same formats")
    p.add_argument("--footprint", required=True, metavar="SHAPE:SIZE", help="e.g. disk:2, ball:1, square:3, "
                   "line:9:45, or a .npy file")
    p.add_argument("--lower", type=float, help="pad value beyond the edge for dilation (default: the least value "
                   "of the type); cast as the library casts: truncated and wrapped")
    p.add_argument("--upper", type=float, help="pad value for erosion (default: the greatest value of the type)")
    p.add_argument("--exact", action="store_true", help="the library's own definitions: opening's window, "
                   "unclipped closing, residue arithmetic, taps exactly 1 (see the package's documentation)")
    p.add_argument("--level", choices=LEVELS, help="instruction-set level (default: the best this processor has)")
    p.add_argument("--threads", type=int, metavar="N", help="at most N threads")
    p.add_argument("--chunks", type=int, metavar="N", help="process in chunks of N samples along each axis")
    p.add_argument("--quiet", action="store_true", help="no progress bar")
    return p


def _progress(quiet):
    """A dask callback that drives a progress bar over the graph's tasks,
    shown only when a run lasts more than a second."""
    from dask.callbacks import Callback
    from tqdm import tqdm

    class Progress(Callback):
        def _start_state(self, dsk, state):
            self.bar = tqdm(total=sum(len(state[k]) for k in ("ready", "waiting", "running")), unit="task",
                            delay=1.0, disable=quiet, file=sys.stderr, leave=False)

        def _posttask(self, key, result, dsk, state, worker_id):
            self.bar.update(1)

        def _finish(self, dsk, state, errored):
            self.bar.close()

    return Progress()


def _operator_keywords():
    import inspect

    import tessmorph
    return set(inspect.signature(tessmorph.erosion).parameters)


def _stack_axes(image, info):
    """The axes that hold separate images (colour samples, channels, time),
    and the image axes, in the order the operator sees them."""
    from . import io
    spatial = io.spatial_axes(info, image.ndim)
    if len(spatial) > 3:
        raise ValueError(f"the image has {len(spatial)} spatial axes ({info.axes}); tessmorph takes 1 to 3")
    return [i for i in range(image.ndim) if i not in spatial], spatial


def run(args):
    import tessmorph
    from . import io
    from ._library import type_word

    fp = parse_footprint(args.footprint)
    if args.threads is not None:
        if args.threads < 1:
            raise ValueError("--threads must be at least 1")
        tessmorph.set_num_threads(args.threads)
    if args.chunks is not None and args.chunks < 1:
        raise ValueError("--chunks must be at least 1")
    if os.path.realpath(args.input) == os.path.realpath(args.output):
        raise ValueError(f"{args.output}: the output would overwrite the input while it is read")
    image, info = io.read_image(args.input)
    if image.ndim < 1:
        raise ValueError(f"{args.input}: a 0-D image")
    try:
        type_word(image.dtype)
    except TypeError as e:
        raise TypeError(f"{args.input}: {e}") from None
    io.check_writable(args.output, image.dtype, image.ndim, image.shape)
    options = dict(lower=args.lower, upper=args.upper, level=args.level)
    # Without the switch the operators are the textbook ones; a tessmorph
    # without the switch computes the library's own already.
    if args.exact and "exact" in _operator_keywords():
        options["exact"] = True
    stack, spatial = _stack_axes(image, info)
    order = stack + spatial

    # Chunked: zarr arrays and memory-mapped .npy are read block by block;
    # TIFF and PNG are in memory already.
    chunked = args.chunks is not None or io.format_of(args.input) == "zarr"
    if not chunked:
        moved = np.moveaxis(np.asarray(image), order, range(image.ndim))
        operator = getattr(tessmorph, args.operator)
        result = np.empty(moved.shape, moved.dtype.newbyteorder("="))
        for index in np.ndindex(*moved.shape[:len(stack)]):
            operator(moved[index], fp, out=result[index], **options)
        io.write(args.output, np.moveaxis(result, range(image.ndim), order), info)
        return

    import dask
    import dask.array as da

    import tessmorph.dask as tdask
    operator = getattr(tdask, args.operator)
    if stack and info.axes is not None:
        # Each image of the stack on its own, whatever its place.
        moved = np.moveaxis(np.asarray(image), order, range(image.ndim))
        lead = moved.shape[:len(stack)]
        parts = [operator(moved[index], fp, chunks=args.chunks, **options) for index in np.ndindex(*lead)]
        result = da.stack(parts).reshape(moved.shape)
        result = da.moveaxis(result, list(range(image.ndim)), order)
    else:
        result = operator(image, fp, chunks=args.chunks, **options)

    def compute(x):
        with _progress(args.quiet):
            return dask.compute(x, scheduler="threads", num_workers=args.threads)[0]

    io.store(args.output, result, compute, info)


def main(argv=None):
    args = build_parser().parse_args(argv)
    try:
        run(args)
    except KeyboardInterrupt:
        sys.stderr.write("tessmorph: interrupted\n")
        return 130
    except Exception as e:  # one line, never a traceback
        message = str(e).strip().splitlines()[0] if str(e).strip() else type(e).__name__
        sys.stderr.write(f"tessmorph: error: {message}\n")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
