// Scalar reference of the morphological operators: one sample at a time,
// straight from the definitions, with no Halide anywhere near it. The Halide
// pipelines are compared against it bit for bit, so it favours being easy to
// audit over being fast.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tmref {

enum class Type { Bool, UInt8, Int8, UInt16, Int16, UInt32, Int32, Float32, Float64 };
enum class Op { Erode, Dilate, Open, Close, TopHat, BotHat };

// A 3-D strided view. Strides are in elements and may take any value,
// dimension 0 included; a bool sample is one byte.
struct View {
    void *host;
    int32_t min[3], extent[3], stride[3];
};

// The structuring element: uint8 bytes at coordinates 0..extent-1. Only a
// byte equal to exactly 1 is a tap.
struct Mask {
    const uint8_t *bytes;
    int32_t extent[3], stride[3];
};

struct Options {
    // Convert uint32 operands of the top-hat/bottom-hat difference to float32
    // by halves (h = float(u >> 1); float(u & 1) + h; + h) instead of with one
    // correct rounding, as the baseline-level vector loop does.
    bool uint32_halves = false;
};

size_t elem_size(Type t);

// Centre of an element dimension of extent e, through float32:
// trunc(floor(float((e + 1) >> 1)) - 1.0f). Extent 0 gives -1.
int32_t centre(int32_t extent);

// Casts a float64 pad bound to T (no saturation, processor truncation) and
// writes T's bytes to `result` (elem_size(t) bytes; bool as one byte 0 or 1).
void cast_bound(Type t, double bound, void *result);

// The saturating difference R_T(a, b) of two samples of T, written to
// `result`. The operand order matters.
void residue(Type t, const void *a, const void *b, void *result, bool uint32_halves = false);

// uint32 -> float32, correctly rounded or by the halves method.
float uint32_to_float(uint32_t u, bool halves);

// Computes every sample of out's box from the image `im` (element type t),
// the lower pad bound `lower` (minmax(0, 0)), the upper pad bound `upper`
// (minmax(1, 0)) and the element. Writes out's samples and nothing else.
// For TopHat and BotHat the output must lie inside the image.
void apply(Op op, Type t, const View &im, double lower, double upper, const Mask &se, const View &out,
           Options opt = {});

}  // namespace tmref
