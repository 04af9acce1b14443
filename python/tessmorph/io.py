"""Image files for the command-line tool: TIFF (stacks as 3-D), PNG, .npy
and zarr, chosen by the name's suffix; the dtype is kept.

TIFF and PNG are read into memory.  .npy files are memory-mapped and zarr
arrays are opened lazily, so with chunked processing neither has to fit in
memory.
"""

import os

import numpy as np

FORMATS = {".tif": "tiff", ".tiff": "tiff", ".png": "png", ".npy": "npy", ".zarr": "zarr"}


class FormatError(ValueError):
    pass


def format_of(path):
    suffix = os.path.splitext(os.path.normpath(path))[1].lower()
    fmt = FORMATS.get(suffix)
    if fmt is None:
        known = ", ".join(FORMATS)
        raise FormatError(f"{path}: unknown format {suffix or '(no suffix)'!r}; use one of {known}")
    return fmt


def read(path):
    """The image as a numpy array (memory-mapped for .npy) or, for zarr, a
    zarr array."""
    fmt = format_of(path)
    if not os.path.exists(path):
        raise FileNotFoundError(f"{path}: no such file or directory")
    if fmt == "tiff":
        import tifffile
        with tifffile.TiffFile(path) as tif:
            series = tif.series[0]
            if "S" in series.axes:
                raise FormatError(f"{path}: colour images aren't supported (axes {series.axes}); convert to grey")
            return series.asarray()
    if fmt == "png":
        from PIL import Image
        with Image.open(path) as img:
            if img.mode not in ("1", "L", "I", "I;16", "F"):
                raise FormatError(f"{path}: colour images aren't supported (mode {img.mode}); convert to grey")
            a = np.asarray(img)
            if img.mode == "1":  # bytes 255 for true; the library reads bit 0
                return a.view(np.uint8) != 0
            # 16-bit grey opens as 32-bit integers; PNG holds no more than 16.
            return a.astype(np.uint16) if img.mode in ("I", "I;16") else a
    if fmt == "npy":
        return np.load(path, mmap_mode="r", allow_pickle=False)
    import zarr
    a = zarr.open(path, mode="r")
    if not isinstance(a, zarr.Array):
        raise FormatError(f"{path}: a zarr group, not an array")
    return a


def check_writable(path, dtype, ndim):
    """Refuses, before any work, what can't be written to `path`."""
    fmt = format_of(path)
    dtype = np.dtype(dtype)
    if fmt == "png" and (ndim != 2 or dtype not in (np.bool_, np.uint8, np.uint16)):
        raise FormatError(f"{path}: PNG holds 2-D bool, uint8 or uint16 images, not {ndim}-D {dtype}; "
                          "write .tif, .npy or .zarr")
    if fmt == "tiff" and ndim not in (2, 3):
        raise FormatError(f"{path}: TIFF holds 2-D images and 3-D stacks, not {ndim}-D; write .npy or .zarr")
    parent = os.path.dirname(os.path.abspath(path))
    if not os.path.isdir(parent):
        raise FileNotFoundError(f"{path}: no such directory {parent}")
    target = path if os.path.exists(path) else parent
    if not os.access(target, os.W_OK):
        raise PermissionError(f"{path}: not writable")
    if fmt != "zarr" and os.path.isdir(path):
        raise IsADirectoryError(f"{path}: is a directory")
    return fmt


def write(path, array):
    """Writes a numpy array."""
    fmt = check_writable(path, array.dtype, array.ndim)
    if fmt == "tiff":
        import tifffile
        tifffile.imwrite(path, array, photometric="minisblack")
    elif fmt == "png":
        from PIL import Image
        Image.fromarray(np.ascontiguousarray(array)).save(path, format="PNG")
    elif fmt == "npy":
        np.save(path, array, allow_pickle=False)
    else:
        import zarr
        zarr.save_array(path, array)


def store(path, darray, compute):
    """Writes a dask array as it is computed, one chunk at a time for .npy
    and zarr; `compute(x)` runs the graph of `x` (with its progress bar)."""
    fmt = check_writable(path, darray.dtype, darray.ndim)
    if fmt == "zarr":
        compute(darray.to_zarr(path, overwrite=True, compute=False))
    elif fmt == "npy":
        import dask.array as da
        target = np.lib.format.open_memmap(path, mode="w+", dtype=darray.dtype, shape=darray.shape)
        compute(da.store(darray, target, lock=False, compute=False))
        target.flush()
    else:
        write(path, compute(darray))
