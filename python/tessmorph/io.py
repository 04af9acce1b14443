"""Image files for the command-line tool: TIFF (any axes: stacks, colour,
hyperstacks), PNG (grey or colour), .npy and zarr, chosen by the name's
suffix; the dtype is kept.

TIFF and PNG are read into memory.  .npy files are memory-mapped and zarr
arrays are opened lazily, so with chunked processing neither has to fit in
memory.  A TIFF's axes, ImageJ metadata, resolution and OME-XML are read
with it and written back with the result, whose axes are the same.
"""

import os
from dataclasses import dataclass, field

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


@dataclass
class Info:
    """What a file says about its image besides the samples: the axes'
    letters as tifffile names them (None where the format has none) and what
    a TIFF writer needs to keep the file's metadata."""
    axes: str = None
    tiff: dict = field(default_factory=dict)


# Axes that are the image's own; tifffile's Q and I (an axis it can't name)
# stand for planes where a file has no Z.
SPATIAL = "ZYX"


def spatial_axes(info, ndim):
    """The indices of the axes an operator works across; the others (time,
    channels, colour samples, ...) hold a stack of separate images."""
    if info is None or info.axes is None or len(info.axes) != ndim:
        return list(range(max(ndim - 3, 0), ndim))
    axes = info.axes
    found = [i for i, a in enumerate(axes) if a in SPATIAL]
    if "Z" not in axes and "Y" in axes:
        y = axes.index("Y")
        if y > 0 and axes[y - 1] in "QI":
            found.insert(0, y - 1)
    return found or list(range(max(ndim - 3, 0), ndim))


def _tiff_info(tif, series):
    page = series.pages[0] if hasattr(series, "pages") else tif.pages[0]
    kwargs = {}
    if tif.is_imagej:
        meta = {k: v for k, v in (tif.imagej_metadata or {}).items()
                if k not in ("ImageJ", "images", "channels", "slices", "frames", "hyperstack", "axes")}
        meta["axes"] = series.axes
        kwargs.update(imagej=True, metadata=meta)
    elif tif.is_ome and tif.ome_metadata:
        # The file's own OME-XML: same axes, shape and type on the way out.
        kwargs.update(ome=False, description=tif.ome_metadata, metadata=None)
    elif tif.is_shaped:
        kwargs["metadata"] = {"axes": series.axes}
    tags = page.tags
    if "XResolution" in tags and "YResolution" in tags:
        kwargs["resolution"] = (tags["XResolution"].value, tags["YResolution"].value)
        if "ResolutionUnit" in tags:
            kwargs["resolutionunit"] = int(tags["ResolutionUnit"].value)
    if "S" in series.axes and series.shape[series.axes.index("S")] in (3, 4):
        kwargs["photometric"] = "rgb"
        kwargs["planarconfig"] = "contig" if series.axes.endswith("S") else "separate"
    return Info(series.axes, kwargs)


def read_image(path):
    """The image and its Info: a numpy array (memory-mapped for .npy) or, for
    zarr, a zarr array."""
    fmt = format_of(path)
    if not os.path.exists(path):
        raise FileNotFoundError(f"{path}: no such file or directory")
    if fmt == "tiff":
        import tifffile
        with tifffile.TiffFile(path) as tif:
            series = tif.series[0]
            return series.asarray(), _tiff_info(tif, series)
    if fmt == "png":
        from PIL import Image
        with Image.open(path) as img:
            if img.mode in ("P", "PA"):  # a palette: its colours, not its indices
                img = img.convert("RGBA" if "A" in img.mode or "transparency" in img.info else "RGB")
            if img.mode not in ("1", "L", "I", "I;16", "F", "LA", "RGB", "RGBA"):
                raise FormatError(f"{path}: PNG of mode {img.mode} isn't supported; convert to grey or RGB")
            a = np.asarray(img)
            if img.mode == "1":  # bytes 255 for true; the library reads bit 0
                return a.view(np.uint8) != 0, Info("YX")
            if a.ndim == 3:
                return a, Info("YXS")
            # 16-bit grey opens as 32-bit integers; PNG holds no more than 16.
            return (a.astype(np.uint16) if img.mode in ("I", "I;16") else a), Info("YX")
    if fmt == "npy":
        return np.load(path, mmap_mode="r", allow_pickle=False), Info()
    import zarr
    a = zarr.open(path, mode="r")
    if not isinstance(a, zarr.Array):
        raise FormatError(f"{path}: a zarr group, not an array")
    return a, Info()


def read(path):
    """The image alone (see read_image)."""
    return read_image(path)[0]


def check_writable(path, dtype, ndim, shape=None):
    """Refuses, before any work, what can't be written to `path`."""
    fmt = format_of(path)
    dtype = np.dtype(dtype)
    colour = ndim == 3 and shape is not None and shape[-1] in (2, 3, 4) and dtype == np.uint8
    if fmt == "png" and not ((ndim == 2 and dtype in (np.bool_, np.uint8, np.uint16)) or colour):
        raise FormatError(f"{path}: PNG holds 2-D bool, uint8 or uint16 images and uint8 colour, not {ndim}-D "
                          f"{dtype}; write .tif, .npy or .zarr")
    if fmt == "tiff" and ndim < 2:
        raise FormatError(f"{path}: TIFF holds images of 2 axes or more, not {ndim}; write .npy or .zarr")
    parent = os.path.dirname(os.path.abspath(path))
    if not os.path.isdir(parent):
        raise FileNotFoundError(f"{path}: no such directory {parent}")
    target = path if os.path.exists(path) else parent
    if not os.access(target, os.W_OK):
        raise PermissionError(f"{path}: not writable")
    if fmt != "zarr" and os.path.isdir(path):
        raise IsADirectoryError(f"{path}: is a directory")
    return fmt


def _tiff_kwargs(info, array):
    kwargs = dict(info.tiff) if info is not None else {}
    kwargs.setdefault("photometric", "minisblack")
    if kwargs.get("imagej"):
        # ImageJ holds 8- and 16-bit integers, float32 and 8-bit RGB only:
        # other types keep the resolution and the axes' order, not the rest.
        rgb = kwargs["photometric"] == "rgb"
        if array.dtype not in (np.uint8, np.uint16, np.float32) or (rgb and array.dtype != np.uint8):
            kwargs.pop("imagej")
            meta = kwargs.pop("metadata", {})
            kwargs["metadata"] = {"axes": meta.get("axes")} if meta.get("axes") else {}
    return kwargs


def write(path, array, info=None):
    """Writes a numpy array; a TIFF with what `info` read from the input."""
    fmt = check_writable(path, array.dtype, array.ndim, array.shape)
    if fmt == "tiff":
        import tifffile
        tifffile.imwrite(path, array, **_tiff_kwargs(info, array))
    elif fmt == "png":
        from PIL import Image
        Image.fromarray(np.ascontiguousarray(array)).save(path, format="PNG")
    elif fmt == "npy":
        np.save(path, array, allow_pickle=False)
    else:
        import zarr
        zarr.save_array(path, array)


def store(path, darray, compute, info=None):
    """Writes a dask array as it is computed, one chunk at a time for .npy
    and zarr; `compute(x)` runs the graph of `x` (with its progress bar)."""
    fmt = check_writable(path, darray.dtype, darray.ndim, darray.shape)
    if fmt == "zarr":
        compute(darray.to_zarr(path, overwrite=True, compute=False))
    elif fmt == "npy":
        import dask.array as da
        target = np.lib.format.open_memmap(path, mode="w+", dtype=darray.dtype, shape=darray.shape)
        compute(da.store(darray, target, lock=False, compute=False))
        target.flush()
    else:
        write(path, compute(darray), info)
