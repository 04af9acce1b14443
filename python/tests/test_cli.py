"""The command-line tool: files in, files out, equal to the Python call; and
every bad input ends with one line on stderr and a non-zero exit."""

import os
import subprocess
import sys

import numpy as np
import pytest

tifffile = pytest.importorskip("tifffile")

import tessmorph
from tessmorph import footprints, io as tmio
from conftest import random_image, same_bits

SCRIPT = os.path.join(os.path.dirname(__file__), "..", "bin", "tessmorph")


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
    (["closing", "--footprint", "octahedron:1", "--lower", "7", "--textbook"],
     lambda v: tessmorph.closing(v, footprints.octahedron(1), lower=7, textbook=True)),
    (["black_tophat", "--footprint", "fp.npy", "--chunks", "7"],
     lambda v: tessmorph.black_tophat(v, np.load("fp.npy"))),
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
    assert out.chunks == (8, 8, 16) and same_bits(out[...], tessmorph.opening(volume, footprints.ball(1)))
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
    (["opening", "four.npy", "o.npy", "--footprint", "ball:1"], "4-D image"),
    (["opening", "notatiff.tif", "o.tif", "--footprint", "ball:1"], "not a TIFF file"),
    (["opening", "stack.tif", "o.tif", "--footprint", "ball:1", "--threads", "0"], "--threads"),
    (["erosion", "stack.tif", "o.tif", "--footprint", "ball:1", "--textbook"], "--textbook"),
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
