"""python3 -m tessmorph.sample OUTPUT: writes the built-in sample volume (16 x 64 x 128
uint8, the library's demo volume) to a .tif, .npy or .zarr file, to try the
command-line tool on."""

import sys

from . import io
from .data import sample_volume


def main(argv=None):
    args = sys.argv[1:] if argv is None else argv
    if len(args) != 1:
        sys.stderr.write("usage: python3 -m tessmorph.sample OUTPUT (.tif, .npy or .zarr)\n")
        return 2
    try:
        io.write(args[0], sample_volume())
    except Exception as e:
        sys.stderr.write(f"tessmorph.sample: error: {e}\n")
        return 1
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
