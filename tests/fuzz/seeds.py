#!/usr/bin/python3
"""Writes the seed corpus of the frame's fuzz target (tests/fuzz/corpus).

Each seed is one call, encoded the way frame_fuzz.c decodes its input, with
every field in its verbatim form.  Some are plain calls of every operator,
as starting points; the others are calls that once crashed, hung or were
refused wrongly, kept as regression cases.  Run it again after changing the
decoder or the list of entry points:

    /usr/bin/python3 tests/fuzz/seeds.py
"""
import os
import re
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
FAMILY = os.path.join(HERE, "..", "..", "frame", "family.def")


def export_names():
    """Export names in the order of the generated list: operator, type, level."""
    text = open(FAMILY).read()
    words = {k: re.findall(r"^TM_%s\((\w+)" % k, text, re.M) for k in ("OPERATOR", "TYPE", "LEVEL")}
    return [f"{o}_{t}_{l}" for o in words["OPERATOR"] for t in words["TYPE"] for l in words["LEVEL"]]


NAMES = export_names()


def i32(v):
    return struct.pack("<i", v)


def coord(v):  # verbatim min or stride
    return bytes([5]) + i32(v)


def extent(v):  # verbatim extent
    return bytes([6]) + i32(v)


DENSE = bytes([0])


def stride(v):
    return DENSE if v is None else coord(v)


def head():  # ordinary host, right type, `dimensions` 3
    return bytes([0, 3])


def beside(*places):
    """An output with the image's box, each dimension placed by (place, min
    offset, extent offset): place 0 next to the image's min, 1 at -2^31, 2
    ending on 2^31 - 1, 3 half the range away.  Placed next to the image
    unless given."""
    return ("beside", places + ((0, 0, 0),) * (3 - len(places)))


def call(name, image, strel, out, strides=None, out_strides=None, align_end=False):
    """image: [(min, extent)] * 3; out: the same, or beside(...); strel: extents;
    strides: None (dense) or three values.  align_end puts every buffer's
    last byte, not its first, next to an inaccessible page."""
    b = bytes([0, 1])  # pad values 0 and 1
    b += head() + b"".join(coord(m) + extent(e) for m, e in image)
    b += b"".join(stride(s) for s in (strides or [None] * 3))
    b += head() + bytes([0]) + DENSE * 2  # minmax 2 x 1, dense
    b += head() + b"".join(bytes([0]) + (bytes([e]) if 0 <= e <= 5 else bytes([250]) + extent(e)) for e in strel)
    b += DENSE * 3
    if out[0] == "beside":
        b += head() + bytes([0]) + b"".join(bytes([(dm << 2 | place) & 255, de & 255]) for place, dm, de in out[1])
    else:
        b += head() + bytes([1]) + b"".join(coord(m) + extent(e) for m, e in out)
    b += b"".join(stride(s) for s in (out_strides or [None] * 3))
    return unmoved(struct.pack("<H", NAMES.index(name)) + bytes([int(align_end)]), b)


def fnv1a(data):
    h = 2166136261
    for byte in data:
        h = ((h ^ byte) * 16777619) & 0xFFFFFFFF
    return h


def unmoved(front, rest):
    """The input with a `seed` field (the samples' random stream) for which
    the target's hash moves no buffer to an end of the range: an odd hash."""
    for seed in range(12345, 12345 + 64):
        data = front + struct.pack("<I", seed) + rest
        if fnv1a(data) & 1:
            return data
    raise AssertionError("no seed leaves the call as it is")


def box(*extents, mins=(0, 0, 0)):
    return list(zip(mins, extents))


SEEDS = {}

# Plain calls: every operator, narrow and wide rows.
for op in ("imerode", "imdilate", "imopen", "imclose", "imtophat", "imbothat"):
    SEEDS[f"plain-{op}-uint8"] = call(f"{op}_uint8_none", box(40, 6, 2), (3, 3, 1), box(40, 6, 2))
    SEEDS[f"plain-{op}-float64-narrow"] = call(f"{op}_float64_none", box(2, 5, 3), (1, 3, 2), box(2, 5, 3))

# Outputs placed beside the image, rows a whole band-walk block wide (float64
# at the baseline: 2 lanes, 8 chunks): one change of the placement puts any
# dimension at an end of the 32-bit range.
for op in ("imerode", "imdilate", "imopen", "imclose", "imtophat", "imbothat"):
    SEEDS[f"plain-{op}-float64-rows-of-a-block"] = call(f"{op}_float64_none", box(20, 3, 3), (3, 3, 1), beside())

# Calls that reach the ends of the 32-bit range.
for op in ("imerode", "imdilate"):
    SEEDS[f"wrap-{op}-last-plane"] = call(f"{op}_uint8_none", box(16, 1, 1), (1, 1, 1),
                                          box(16, 1, 2, mins=(0, 0, 2147483647)))
for name in ("imclose_uint8_none", "imclose_int16_avx", "imclose_float32_avx2"):
    SEEDS[f"wrap-{name}-output-from-minus-2147483646"] = call(name, box(17, 1, 1), (3, 1, 1),
                                                              box(17, 1, 1, mins=(-2147483646, 0, 0)))
SEEDS["wrap-imerode-image-rows-near-max"] = call("imerode_uint8_none", box(16, 2, 1, mins=(0, 2147483645, 0)),
                                                 (1, 7, 1), box(16, 2, 1, mins=(0, 1, 0)))
SEEDS["wrap-imclose-float64-output-row-max"] = call("imclose_float64_none", box(61, 1, 1, mins=(0, 2147483645, 0)),
                                                    (1, 3, 1), box(61, 1, 1, mins=(0, 2147483647, 0)),
                                                    align_end=True)
# 288 output samples that took seconds: rows of 2147483645 samples (all
# rows and planes share their storage).
SEEDS["slow-imclose-float64-wide-image"] = call("imclose_float64_none", box(2147483645, 8, 48, mins=(1, 0, 0)),
                                                (2, 1, 8), box(6, 8, 48, mins=(1, 0, 0)), strides=[1, 0, 0])
# Accepted by the frame (the clamped image range is 15..15), refused by the pipeline.
SEEDS["refused-imerode-output-at-2147483632"] = call("imerode_uint8_none", box(16, 1, 1), (1, 1, 1),
                                                     box(16, 1, 1, mins=(2147483632, 0, 0)))
# An intermediate beyond 2^63 bytes once reported another size.
SEEDS["too-large-imclose-wrapping-extents"] = call("imclose_uint8_none", box(17, 1, 1), (3, 3, 2),
                                                   box(2147483647, 2147483647, 2147483647),
                                                   out_strides=[1, 2147483647, 1])

# Strides whose sum passes 2^63 bytes: the image's offset to the piece read.
SEEDS["overflow-imopen-int32-image-offset"] = call("imopen_int32_avx2",
                                                   box(2147483639, 2147483595, 16,
                                                       mins=(-2147483596, -2147483596, 2147483516)),
                                                   (5, 5, 5), box(2147483639, 2147483595, 16,
                                                                  mins=(-2147483596, -2147483596, 2147483516)),
                                                   strides=[1, 2147483639, 477], out_strides=[1, 2147483639, 477])

# An opening with an element of extent 0 in dimension 1 whose output rows
# pass 2^31: the pipeline refuses its intermediate after the frame let the
# call through.
SEEDS["refused-imopen-extent-0-rows-past-max"] = call("imopen_float32_avx2", box(16, 2, 1, mins=(0, 2147483645, 8)),
                                                      (0, 0, 2), box(16, 8, 1, mins=(0, 2147483645, 9)))

# An opening whose output planes start at -2^31, rows a whole block wide:
# every imopen export read far outside its buffers (the intermediate's box,
# never read, was placed 2^31 away from the output).
SEEDS["crash-imopen-planes-from-min"] = call("imopen_uint8_none", box(128, 128, 128), (1, 1, 1),
                                             box(128, 128, 2, mins=(0, 0, -2147483648)))

# Band walks of many planes at once: each band task takes its own block
# from the allocator, from several threads at the same time.
SEEDS["threads-imerode-float64-band-blocks"] = call("imerode_float64_avx2", box(85, 16, 62), (5, 5, 5),
                                                    box(85, 16, 62))

if __name__ == "__main__":
    corpus = os.path.join(HERE, "corpus")
    os.makedirs(corpus, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(corpus, name), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds in {corpus}")
