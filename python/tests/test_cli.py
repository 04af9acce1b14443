"""The command-line tool: files in, files out, equal to the Python call, with
the TIFF's metadata kept and stacks of colours, channels and times processed
image by image; and every bad input ends with one line on stderr and a
non-zero exit."""

import inspect
import os
import re
import subprocess
import sys

import numpy as np
import pytest

tifffile = pytest.importorskip("tifffile")

import tessmorph
from tessmorph import footprints, io as tmio
from conftest import random_image, same_bits

SCRIPT = os.path.join(os.path.dirname(__file__), "..", "bin", "tessmorph")
HAS_EXACT = "exact" in inspect.signature(tessmorph.erosion).parameters
needs_exact = pytest.mark.skipif(not HAS_EXACT, reason="this tessmorph has no exact switch")


def tool(*args, cwd, script=False):
    command = [sys.executable, SCRIPT] if script else [sys.executable, "-m", "tessmorph"]
    return subprocess.run(command + [str(a) for a in args], cwd=cwd, capture_output=True, text=True)


@pytest.fixture
def stack(tmp_path):
    volume = random_image(np.random.default_rng(31), (12, 20, 50), np.uint16)
    tifffile.imwrite(tmp_path / "stack.tif", volume, photometric="minisblack")
    return volume


def test_opening_a_tiff_stack_equals_the_python_call(tmp_path, stack):
    run = tool("opening", "stack.tif", "out.tif", "--footprint", "ball:2", "--quiet", cwd=tmp_path, script=True)
    assert run.returncode == 0 and run.stderr == "", run.stderr
    out = tifffile.imread(tmp_path / "out.tif")
    assert same_bits(out, tessmorph.opening(stack, footprints.ball(2)))


@pytest.mark.parametrize("args,expected", [
    (["white_tophat", "--footprint", "line:9:45", "--level", "none"],
     lambda v: tessmorph.white_tophat(v, footprints.line(9, 45), level="none")),
    (["erosion", "--footprint", "cube:3", "--upper", "256", "--threads", "1"],
     lambda v: tessmorph.erosion(v, footprints.cube(3), upper=256)),
    (["closing", "--footprint", "octahedron:1", "--lower", "7"],
     lambda v: tessmorph.closing(v, footprints.octahedron(1), lower=7)),
    (["black_tophat", "--footprint", "fp.npy", "--chunks", "7"],
     lambda v: tessmorph.black_tophat(v, np.load("fp.npy"))),
    pytest.param(["opening", "--footprint", "fp.npy", "--exact"],
                 lambda v: tessmorph.opening(v, np.load("fp.npy"), exact=True), marks=needs_exact),
    pytest.param(["black_tophat", "--footprint", "ball:1", "--exact", "--chunks", "6"],
                 lambda v: tessmorph.black_tophat(v, footprints.ball(1), exact=True), marks=needs_exact),
])
def test_options_reach_the_call(tmp_path, stack, args, expected, monkeypatch):
    monkeypatch.chdir(tmp_path)
    np.save("fp.npy", np.array([[[1, 0, 1], [2, 1, 1]]], np.uint8))
    run = tool(args[0], "stack.tif", "out.tif", *args[1:], cwd=tmp_path)
    assert run.returncode == 0, run.stderr
    assert same_bits(tifffile.imread("out.tif"), expected(stack))


def test_formats_keep_the_dtype(tmp_path):
    rng = np.random.default_rng(32)
    fp = footprints.disk(1)
    for name, image in (("u8.png", random_image(rng, (30, 40), np.uint8)),
                        ("u16.png", random_image(rng, (30, 40), np.uint16)),
                        ("b.png", rng.random((30, 40)) < 0.5),
                        ("f32.tif", random_image(rng, (3, 30, 40), np.float32)),
                        ("i8.npy", random_image(rng, (5, 30, 40), np.int8))):
        tmio.write(str(tmp_path / name), image)
        assert same_bits(np.asarray(tmio.read(str(tmp_path / name))), image), name
        out = "out" + os.path.splitext(name)[1]
        run = tool("dilation", name, out, "--footprint", "disk:1", cwd=tmp_path)
        assert run.returncode == 0, run.stderr
        got = np.asarray(tmio.read(str(tmp_path / out)))
        assert same_bits(got, tessmorph.dilation(image, fp)), name


def test_zarr_streams_in_chunks(tmp_path):
    zarr = pytest.importorskip("zarr")
    volume = random_image(np.random.default_rng(33), (30, 14, 45), np.float32)
    zarr.save_array(str(tmp_path / "in.zarr"), volume, chunks=(8, 8, 16))
    run = tool("opening", "in.zarr", "out.zarr", "--footprint", "ball:1", cwd=tmp_path)
    assert run.returncode == 0, run.stderr
    out = zarr.open(str(tmp_path / "out.zarr"), mode="r")
    # The zarr's rows of 16 are widened into the whole row of 45.
    assert out.chunks == (8, 8, 45) and same_bits(out[...], tessmorph.opening(volume, footprints.ball(1)))
    run = tool("closing", "in.zarr", "out.npy", "--footprint", "cube:3", "--chunks", "10", cwd=tmp_path)
    assert run.returncode == 0, run.stderr
    assert same_bits(np.load(tmp_path / "out.npy"), tessmorph.closing(volume, footprints.cube(3)))


def test_sample_module_writes_the_sample(tmp_path):
    run = subprocess.run([sys.executable, "-m", "tessmorph.sample", "s.tif"], cwd=tmp_path, capture_output=True)
    assert run.returncode == 0 and same_bits(tifffile.imread(tmp_path / "s.tif"), tessmorph.sample_volume())


@pytest.mark.parametrize("args,words", [
    (["opening", "missing.tif", "o.tif", "--footprint", "ball:1"], "no such file"),
    (["opening", "stack.tif", "o.tif", "--footprint", "blob:2"], "unknown footprint"),
    (["opening", "stack.tif", "o.tif", "--footprint", "disk:x"], "whole numbers"),
    (["opening", "stack.tif", "o.tif", "--footprint", "nothing.npy"], "no such file"),
    (["opening", "stack.tif", "o.tif", "--footprint", "square:3:3"], "expected square:W"),
    (["opening", "stack.tif", "o.tif", "--footprint", "disk:2"], None),  # 2-D footprint on 3-D: fine
    (["opening", "stack.tif", "o.png", "--footprint", "ball:1"], "PNG holds"),
    (["opening", "stack.tif", "no/such/dir/o.tif", "--footprint", "ball:1"], "no such directory"),
    (["opening", "stack.tif", "adir.tif", "--footprint", "ball:1"], "is a directory"),
    (["opening", "stack.tif", "o.jpg", "--footprint", "ball:1"], "unknown format"),
    (["opening", "stack.tif", "./stack.tif", "--footprint", "ball:1"], "overwrite the input"),
    (["opening", "i64.npy", "o.npy", "--footprint", "ball:1"], "unsupported dtype int64"),
    (["opening", "four.npy", "o.png", "--footprint", "ball:1"], "PNG holds"),
    (["opening", "notatiff.tif", "o.tif", "--footprint", "ball:1"], "not a TIFF file"),
    (["opening", "stack.tif", "o.tif", "--footprint", "ball:1", "--threads", "0"], "--threads"),
    (["erosion", "stack.tif", "o.tif", "--footprint", "ball:1", "--textbook"], "unrecognized arguments"),
    (["thinning", "stack.tif", "o.tif", "--footprint", "ball:1"], "invalid choice"),
    (["opening", "stack.tif", "o.tif"], "--footprint"),
    (["opening", "stack.tif", "o.tif", "--footprint", "ball:1", "--level", "avx512"], "invalid choice"),
])
def test_bad_inputs_end_with_one_line(tmp_path, stack, args, words):
    np.save(tmp_path / "i64.npy", np.zeros((4, 4), np.int64))
    np.save(tmp_path / "four.npy", np.zeros((2, 2, 2, 2), np.uint8))
    (tmp_path / "notatiff.tif").write_text("hello")
    (tmp_path / "adir.tif").mkdir()
    run = tool(*args, cwd=tmp_path)
    if words is None:
        assert run.returncode == 0, run.stderr
        return
    lines = run.stderr.splitlines()
    assert run.returncode != 0 and len(lines) == 1 and lines[0].startswith("tessmorph: error: "), run.stderr
    assert words in lines[0] and run.stdout == ""


def test_version(tmp_path):
    run = tool("--version", cwd=tmp_path, script=True)
    assert run.returncode == 0 and run.stdout == f"tessmorph {tessmorph.__version__}\n", run.stderr
    assert re.fullmatch(r"\d+\.\d+\.\d+", tessmorph.__version__)


def per_image(op, image, stack_axes, fp, **kw):
    """The operator on each image of a stack, one call each."""
    spatial = [i for i in range(image.ndim) if i not in stack_axes]
    moved = np.moveaxis(image, stack_axes + spatial, range(image.ndim))
    out = np.empty_like(moved)
    for index in np.ndindex(*moved.shape[:len(stack_axes)]):
        out[index] = getattr(tessmorph, op)(moved[index], fp, **kw)
    return np.moveaxis(out, range(image.ndim), stack_axes + spatial)


def tiff(path):
    with tifffile.TiffFile(path) as t:
        page = t.pages[0]
        resolution = (page.tags["XResolution"].value, page.tags["YResolution"].value,
                      page.tags["ResolutionUnit"].value)
        return t.series[0].asarray(), t.series[0].axes, resolution, t.imagej_metadata, t.ome_metadata


@pytest.mark.parametrize("chunks", [[], ["--chunks", "9"]], ids=["whole", "chunked"])
@pytest.mark.parametrize("name,shape,dtype,kwargs,stack_axes", [
    # An ImageJ hyperstack: times, planes, channels; spacing, unit, labels.
    ("hyper.tif", (2, 5, 3, 20, 30), np.uint16,
     dict(imagej=True, resolution=(2.5, 4.0), metadata={"axes": "TZCYX", "spacing": 0.7, "unit": "um",
                                                        "Labels": [f"p{i}" for i in range(30)]}), [0, 2]),
    # Colour, the samples last; a resolution in centimetres.
    ("rgb.tif", (24, 40, 3), np.uint8, dict(photometric="rgb", resolution=(300, 300), resolutionunit=3), [2]),
    # OME-TIFF: its own XML, channels of a volume.
    ("cells.ome.tif", (2, 6, 20, 30), np.float32, dict(metadata={"axes": "CZYX", "PhysicalSizeX": 0.25}), [0]),
    # float64 can't be ImageJ's: the axes and the resolution stay.
    ("f64.tif", (4, 20, 30), np.float64,
     dict(photometric="minisblack", resolution=(1.5, 1.5), metadata={"axes": "ZYX"}), []),
])
def test_tiff_metadata_and_stacks(tmp_path, name, shape, dtype, kwargs, stack_axes, chunks):
    image = random_image(np.random.default_rng(34), shape, dtype)
    tifffile.imwrite(tmp_path / name, image, **kwargs)
    run = tool("closing", name, "out." + name, "--footprint", "disk:2", *chunks, cwd=tmp_path)
    assert run.returncode == 0, run.stderr
    got, axes, resolution, ij, ome = tiff(tmp_path / ("out." + name))
    want, want_axes, want_resolution, want_ij, want_ome = tiff(tmp_path / name)
    assert (axes, resolution, ome) == (want_axes, want_resolution, want_ome)
    if want_ij:
        keep = ("spacing", "unit", "Labels", "channels", "slices", "frames")
        assert {k: ij.get(k) for k in keep} == {k: want_ij.get(k) for k in keep}
    assert same_bits(got, per_image("closing", image, stack_axes, footprints.disk(2)))


def test_colour_png_and_stacked_npy(tmp_path):
    rng = np.random.default_rng(35)
    colour = random_image(rng, (30, 40, 3), np.uint8)
    tmio.write(str(tmp_path / "c.png"), colour)
    run = tool("dilation", "c.png", "out.png", "--footprint", "square:3", cwd=tmp_path)
    assert run.returncode == 0, run.stderr
    assert same_bits(tmio.read(str(tmp_path / "out.png")), per_image("dilation", colour, [2], footprints.square(3)))
    # Four axes without names: a stack of volumes.
    four = random_image(rng, (3, 4, 10, 12), np.int16)
    np.save(tmp_path / "four.npy", four)
    expected = per_image("erosion", four, [0], footprints.ball(1))
    for chunks in ([], ["--chunks", "5"]):
        run = tool("erosion", "four.npy", "out.npy", "--footprint", "ball:1", *chunks, cwd=tmp_path)
        assert run.returncode == 0, run.stderr
        assert same_bits(np.load(tmp_path / "out.npy"), expected), chunks


@needs_exact
def test_exact_switch_gives_the_librarys_opening(tmp_path):
    # A constant stack with more planes than rows: the textbook opening is
    # the constant, the library's window darkens the last planes.
    np.save(tmp_path / "c.npy", np.full((12, 6, 40), 9, np.uint8))
    for switch, last in (([], 9), (["--exact"], 0)):
        run = tool("opening", "c.npy", "o.npy", "--footprint", "cube:3", *switch, cwd=tmp_path)
        assert run.returncode == 0, run.stderr
        assert np.load(tmp_path / "o.npy")[-1, 0, 0] == last, switch
