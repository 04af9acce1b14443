// Scalar reference of the morphological operators. Every function here is a
// direct transcription of a definition: loops over z, y, x and over the
// element, one sample at a time. No vectors, no regions, no branches on the
// image width: those only change speed, never a value.
#include "reference.h"

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

// The float32 steps (centre, uint32/int32 differences) must be rounded to
// float32 after every operation, as SSE does. An x87 build would keep them in
// extended precision and drift from the pipelines.
#if defined(FLT_EVAL_METHOD) && FLT_EVAL_METHOD != 0
#error "reference needs float arithmetic evaluated in float (FLT_EVAL_METHOD == 0)"
#endif

namespace tmref {
namespace {

// ---------------------------------------------------------------------------
// Scalar building blocks
// ---------------------------------------------------------------------------

// Coordinate sums are 32-bit and wrap, as in the pipelines.
int32_t add32(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
int32_t sub32(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }

// Truncation toward zero as the processor's conversion instructions do it: a
// NaN, or a value whose truncation does not fit, gives the "indefinite"
// integer with only the top bit set.
int32_t trunc_i32(double d) {
    if (!(d > -2147483649.0 && d < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(d);
}

int64_t trunc_i64(double d) {
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(d);
}

// The processor's minimum and maximum: the first operand survives only a true
// comparison, so a NaN on either side, or two equal values, yield the second.
// Written out so that nothing turns them into a NaN-ignoring fmin/fmax.
template <typename F> F proc_min(F a, F b) { return (a < b) ? a : b; }
template <typename F> F proc_max(F a, F b) { return (a > b) ? a : b; }

// ---------------------------------------------------------------------------
// Per-type semantics: how a sample is read and stored, the initial values,
// the combination, the pad cast and the residue.
// ---------------------------------------------------------------------------

// bool: one byte per sample, bit 0 is the value. Values are kept as 0 or 1,
// so whatever the other input bits were, only 0 or 1 is ever stored.
struct BoolKind {
    using V = uint8_t;
    static V load(const void *p) { return *static_cast<const uint8_t *>(p) & 1u; }
    static void store(void *p, V v) { *static_cast<uint8_t *>(p) = v; }
    static V greatest() { return 1; }
    static V least() { return 0; }
    static V smaller(V a, V s) { return a & s; }
    static V greater(V a, V s) { return a | s; }
    // A parity: truncate to 32 bits, keep bit 0.
    static V cast(double b) { return static_cast<uint32_t>(trunc_i32(b)) & 1u; }
    // Working type float64, saturated to 0..1, truncated, bit 0 kept.
    static V residue(V a, V b, bool) {
        double d = static_cast<double>(a) - static_cast<double>(b);
        d = proc_min(d, 1.0);
        d = proc_max(d, 0.0);
        return static_cast<uint32_t>(trunc_i32(d)) & 1u;
    }
};

// Plain integers. Ties are indistinguishable, so the combination needs no
// care about operand order.
template <typename T> struct IntBase {
    using V = T;
    static V load(const void *p) { V v; std::memcpy(&v, p, sizeof v); return v; }
    static void store(void *p, V v) { std::memcpy(p, &v, sizeof v); }
    static V greatest() { return std::numeric_limits<T>::max(); }
    static V least() { return std::numeric_limits<T>::min(); }
    static V smaller(V a, V s) { return s < a ? s : a; }
    static V greater(V a, V s) { return s > a ? s : a; }
};

// uint8, int8, uint16, int16: the pad bound is truncated to 32 bits and cut
// to the low bits (wrapping, never saturating). The difference is taken in a
// wider signed working type W, where it cannot overflow, and clamped to T.
template <typename T, typename W> struct NarrowIntKind : IntBase<T> {
    static T cast(double b) { return static_cast<T>(static_cast<uint32_t>(trunc_i32(b))); }
    static T residue(T a, T b, bool) {
        W d = static_cast<W>(static_cast<W>(a) - static_cast<W>(b));
        if (d < static_cast<W>(std::numeric_limits<T>::min())) d = std::numeric_limits<T>::min();
        if (d > static_cast<W>(std::numeric_limits<T>::max())) d = std::numeric_limits<T>::max();
        return static_cast<T>(d);
    }
};

// int32: pad truncated to 32 bits. The difference is taken in float32 (the
// operands rounded to float32 first), not in an exact integer type.
struct Int32Kind : IntBase<int32_t> {
    static int32_t cast(double b) { return trunc_i32(b); }
    static int32_t residue(int32_t a, int32_t b, bool) {
        float fa = static_cast<float>(a);
        float fb = static_cast<float>(b);
        float d = fa - fb;
        if (d >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
        if (d < -2147483648.0f) d = -2147483648.0f;
        return trunc_i32(d);
    }
};

// uint32: the only integer type whose pad goes through a 64-bit truncation,
// so that bounds up to 4294967295.0 survive. The difference is float32 too.
struct UInt32Kind : IntBase<uint32_t> {
    static uint32_t cast(double b) { return static_cast<uint32_t>(trunc_i64(b)); }
    static uint32_t residue(uint32_t a, uint32_t b, bool halves) {
        float fa = uint32_to_float(a, halves);
        float fb = uint32_to_float(b, halves);
        float d = fa - fb;
        if (d >= 4294967296.0f) return std::numeric_limits<uint32_t>::max();
        if (d < 0.0f) d = 0.0f;
        return static_cast<uint32_t>(trunc_i64(d));
    }
};

// float32, float64. Initial values are the infinities. The accumulator is the
// first operand of the processor's min/max and the sample the second, so a
// NaN sample takes over the accumulator and a NaN accumulator is forgotten at
// the next tap; equal values (+0 and -0 included) take the later sample.
template <typename F> struct FloatKind {
    using V = F;
    static V load(const void *p) { V v; std::memcpy(&v, p, sizeof v); return v; }
    static void store(void *p, V v) { std::memcpy(p, &v, sizeof v); }
    static V greatest() { return std::numeric_limits<F>::infinity(); }
    static V least() { return -std::numeric_limits<F>::infinity(); }
    static V smaller(V a, V s) { return proc_min(a, s); }
    static V greater(V a, V s) { return proc_max(a, s); }
    // float32: round to nearest even, overflow to an infinity; float64: as is.
    static V cast(double b) { return static_cast<F>(b); }
    // Working type float64; a NaN difference becomes +infinity because the
    // NaN loses both comparisons against the bounds.
    static V residue(V a, V b, bool) {
        double d = static_cast<double>(a) - static_cast<double>(b);
        d = proc_min(d, std::numeric_limits<double>::infinity());
        d = proc_max(d, -std::numeric_limits<double>::infinity());
        return static_cast<F>(d);
    }
};

template <typename K> struct Tag { using type = K; };

// Calls f(Tag<Kind>{}) with the kind of element type t.
template <typename Fn> void with_kind(Type t, Fn &&f) {
    switch (t) {
    case Type::Bool: f(Tag<BoolKind>{}); return;
    case Type::UInt8: f(Tag<NarrowIntKind<uint8_t, int16_t>>{}); return;
    case Type::Int8: f(Tag<NarrowIntKind<int8_t, int16_t>>{}); return;
    case Type::UInt16: f(Tag<NarrowIntKind<uint16_t, int32_t>>{}); return;
    case Type::Int16: f(Tag<NarrowIntKind<int16_t, int32_t>>{}); return;
    case Type::UInt32: f(Tag<UInt32Kind>{}); return;
    case Type::Int32: f(Tag<Int32Kind>{}); return;
    case Type::Float32: f(Tag<FloatKind<float>>{}); return;
    case Type::Float64: f(Tag<FloatKind<double>>{}); return;
    }
    assert(!"unknown element type");
}

// ---------------------------------------------------------------------------
// Buffers
// ---------------------------------------------------------------------------

struct Sampled {
    const View &v;
    size_t es;

    bool inside(int32_t u, int32_t w1, int32_t w2) const {
        const int32_t c[3] = {u, w1, w2};
        for (int d = 0; d < 3; ++d) {
            int64_t first = v.min[d];
            int64_t last = first + static_cast<int64_t>(v.extent[d]) - 1;
            if (c[d] < first || c[d] > last) return false;
        }
        return true;
    }
    // A sample's place counts from the min as a wrapping 32-bit difference:
    // an output whose coordinates run past 2^31 - 1 into -2^31 is still
    // stored in order.
    char *addr(int32_t u, int32_t w1, int32_t w2) const {
        int64_t off = int64_t(uint32_t(sub32(u, v.min[0]))) * v.stride[0] +
                      int64_t(uint32_t(sub32(w1, v.min[1]))) * v.stride[1] +
                      int64_t(uint32_t(sub32(w2, v.min[2]))) * v.stride[2];
        return static_cast<char *>(v.host) + off * static_cast<int64_t>(es);
    }
};

// The padded image P: the image inside its own domain, the pad value outside.
template <typename K> struct PaddedImage {
    Sampled im;
    typename K::V pad;
    typename K::V operator()(int32_t u, int32_t v, int32_t w) const {
        return im.inside(u, v, w) ? K::load(im.addr(u, v, w)) : pad;
    }
};

// A dense intermediate over the box lo .. lo + ext - 1.
template <typename K> struct Grid {
    int32_t lo[3];
    int64_t ext[3];
    std::vector<typename K::V> data;

    Grid(const int32_t l[3], const int64_t e[3]) {
        for (int d = 0; d < 3; ++d) {
            lo[d] = l[d];
            ext[d] = std::max<int64_t>(e[d], 0);
        }
        data.resize(static_cast<size_t>(ext[0] * ext[1] * ext[2]));
    }
    // Index from the offset to lo, so that a box straddling the 32-bit wrap
    // is still addressed consistently with the wrapped coordinate sums.
    size_t index(int32_t u, int32_t v, int32_t w) const {
        const uint32_t i0 = static_cast<uint32_t>(sub32(u, lo[0]));
        const uint32_t i1 = static_cast<uint32_t>(sub32(v, lo[1]));
        const uint32_t i2 = static_cast<uint32_t>(sub32(w, lo[2]));
        assert(i0 < ext[0] && i1 < ext[1] && i2 < ext[2] && "read outside the intermediate");
        return static_cast<size_t>((i2 * ext[1] + i1) * ext[0] + i0);
    }
    typename K::V at(int32_t u, int32_t v, int32_t w) const { return data[index(u, v, w)]; }

    // Evaluates f at every coordinate of the box.
    template <typename Fn> void fill(Fn &&f) {
        for (int64_t i2 = 0; i2 < ext[2]; ++i2)
            for (int64_t i1 = 0; i1 < ext[1]; ++i1)
                for (int64_t i0 = 0; i0 < ext[0]; ++i0) {
                    const int32_t u = add32(lo[0], static_cast<int32_t>(i0));
                    const int32_t v = add32(lo[1], static_cast<int32_t>(i1));
                    const int32_t w = add32(lo[2], static_cast<int32_t>(i2));
                    data[index(u, v, w)] = f(u, v, w);
                }
    }
};

// Opening's padded intermediate Q: the erosion inside the window
// 0..B-1 in each dimension, the lower pad value outside it.
template <typename K> struct WindowedGrid {
    const Grid<K> &g;
    int32_t bound[3];
    typename K::V pad;
    typename K::V operator()(int32_t u, int32_t v, int32_t w) const {
        const bool in = u >= 0 && u < bound[0] && v >= 0 && v < bound[1] && w >= 0 && w < bound[2];
        return in ? g.at(u, v, w) : pad;
    }
};

// Closing's intermediate: computed as far out as the second stage reaches, so
// it is read with no test at all.
template <typename K> struct PlainGrid {
    const Grid<K> &g;
    typename K::V operator()(int32_t u, int32_t v, int32_t w) const { return g.at(u, v, w); }
};

// ---------------------------------------------------------------------------
// The element walk
// ---------------------------------------------------------------------------

struct Element {
    const Mask &m;
    int32_t c[3];

    explicit Element(const Mask &mask) : m(mask) {
        for (int d = 0; d < 3; ++d) c[d] = centre(mask.extent[d]);
    }
    bool tap(int32_t k0, int32_t k1, int32_t k2) const {
        const int64_t off = static_cast<int64_t>(k0) * m.stride[0] + static_cast<int64_t>(k1) * m.stride[1] +
                            static_cast<int64_t>(k2) * m.stride[2];
        return m.bytes[off] == 1;
    }
};

// Erosion at (x, y, z): starting from T's greatest value, combine P(x + r)
// over the taps, r2 outermost, r0 innermost, each ascending. Stepping the
// element position k ascending is stepping the offset r = k - c ascending.
template <typename K, typename Src>
typename K::V erode_at(const Element &se, int32_t x, int32_t y, int32_t z, const Src &P) {
    typename K::V acc = K::greatest();
    for (int32_t k2 = 0; k2 < se.m.extent[2]; ++k2)
        for (int32_t k1 = 0; k1 < se.m.extent[1]; ++k1)
            for (int32_t k0 = 0; k0 < se.m.extent[0]; ++k0) {
                if (!se.tap(k0, k1, k2)) continue;
                const int32_t r0 = sub32(k0, se.c[0]), r1 = sub32(k1, se.c[1]), r2 = sub32(k2, se.c[2]);
                acc = K::smaller(acc, P(add32(x, r0), add32(y, r1), add32(z, r2)));
            }
    return acc;
}

// Dilation at (x, y, z): the same walk through the element, reading
// P(x - r), from T's least value with the greater-of combination.
template <typename K, typename Src>
typename K::V dilate_at(const Element &se, int32_t x, int32_t y, int32_t z, const Src &P) {
    typename K::V acc = K::least();
    for (int32_t k2 = 0; k2 < se.m.extent[2]; ++k2)
        for (int32_t k1 = 0; k1 < se.m.extent[1]; ++k1)
            for (int32_t k0 = 0; k0 < se.m.extent[0]; ++k0) {
                if (!se.tap(k0, k1, k2)) continue;
                const int32_t r0 = sub32(k0, se.c[0]), r1 = sub32(k1, se.c[1]), r2 = sub32(k2, se.c[2]);
                acc = K::greater(acc, P(sub32(x, r0), sub32(y, r1), sub32(z, r2)));
            }
    return acc;
}

// Calls f(x, y, z) for every sample of out's box, z outermost.
template <typename Fn> void for_each_sample(const View &out, Fn &&f) {
    for (int64_t i2 = 0; i2 < out.extent[2]; ++i2)
        for (int64_t i1 = 0; i1 < out.extent[1]; ++i1)
            for (int64_t i0 = 0; i0 < out.extent[0]; ++i0)
                f(add32(out.min[0], static_cast<int32_t>(i0)), add32(out.min[1], static_cast<int32_t>(i1)),
                  add32(out.min[2], static_cast<int32_t>(i2)));
}

// ---------------------------------------------------------------------------
// The operators
// ---------------------------------------------------------------------------

template <typename K>
void run(Op op, const View &im, double lower, double upper, const Mask &mask, const View &out, Options opt) {
    using V = typename K::V;
    const size_t es = sizeof(V);
    const Sampled image{im, es};
    const Sampled dst{out, es};
    const Element se(mask);

    for (int d = 0; d < 3; ++d)
        if (out.extent[d] <= 0) return;  // nothing to write

    switch (op) {
    case Op::Erode: {
        const PaddedImage<K> P{image, K::cast(upper)};
        for_each_sample(out, [&](int32_t x, int32_t y, int32_t z) {
            K::store(dst.addr(x, y, z), erode_at<K>(se, x, y, z, P));
        });
        return;
    }
    case Op::Dilate: {
        const PaddedImage<K> P{image, K::cast(lower)};
        for_each_sample(out, [&](int32_t x, int32_t y, int32_t z) {
            K::store(dst.addr(x, y, z), dilate_at<K>(se, x, y, z, P));
        });
        return;
    }
    case Op::Open:
    case Op::TopHat: {
        // Stage 2 reads the erosion only inside the window, which starts at 0
        // whatever the image's mins are. Its bound in dimension 2 is the
        // image's extent of dimension 1 for the plain opening, and the true
        // extent of dimension 2 for the one inside the top-hat.
        const int32_t bound[3] = {im.extent[0], im.extent[1], op == Op::Open ? im.extent[1] : im.extent[2]};
        // The erosion is needed at x - r for the output's x, clipped to the
        // window (and at least one sample thick).
        int32_t lo[3];
        int64_t ext[3];
        for (int d = 0; d < 3; ++d) {
            const int32_t e = mask.extent[d], c = se.c[d], o = out.min[d], n = out.extent[d];
            lo[d] = std::max(std::min(add32(add32(o, c), sub32(1, e)), sub32(bound[d], 1)), 0);
            const int32_t hi = std::max(sub32(std::min(add32(add32(o, n), c), bound[d]), 1), 0);
            ext[d] = static_cast<int64_t>(hi) - lo[d] + 1;
        }
        Grid<K> eroded(lo, ext);
        const PaddedImage<K> P{image, K::cast(upper)};
        eroded.fill([&](int32_t u, int32_t v, int32_t w) { return erode_at<K>(se, u, v, w, P); });

        const WindowedGrid<K> Q{eroded, {bound[0], bound[1], bound[2]}, K::cast(lower)};
        for_each_sample(out, [&](int32_t x, int32_t y, int32_t z) {
            V opened = dilate_at<K>(se, x, y, z, Q);
            if (op == Op::TopHat) {
                assert(image.inside(x, y, z) && "top-hat output must lie inside the image");
                opened = K::residue(K::load(image.addr(x, y, z)), opened, opt.uint32_halves);
            }
            K::store(dst.addr(x, y, z), opened);
        });
        return;
    }
    case Op::Close:
    case Op::BotHat: {
        // The dilation is computed over the whole reach of the output,
        // unclipped, possibly beyond the image: there the erosion meets what
        // the element drags out of the image, never a pad value.
        int32_t lo[3];
        int64_t ext[3];
        for (int d = 0; d < 3; ++d) {
            lo[d] = sub32(out.min[d], se.c[d]);
            ext[d] = static_cast<int64_t>(out.extent[d]) + mask.extent[d] - 1;
        }
        Grid<K> dilated(lo, ext);
        const PaddedImage<K> P{image, K::cast(lower)};
        dilated.fill([&](int32_t u, int32_t v, int32_t w) { return dilate_at<K>(se, u, v, w, P); });

        const PlainGrid<K> D{dilated};
        for_each_sample(out, [&](int32_t x, int32_t y, int32_t z) {
            V closed = erode_at<K>(se, x, y, z, D);
            if (op == Op::BotHat) {
                assert(image.inside(x, y, z) && "bottom-hat output must lie inside the image");
                closed = K::residue(closed, K::load(image.addr(x, y, z)), opt.uint32_halves);
            }
            K::store(dst.addr(x, y, z), closed);
        });
        return;
    }
    }
}

}  // namespace

size_t elem_size(Type t) {
    switch (t) {
    case Type::Bool:
    case Type::UInt8:
    case Type::Int8: return 1;
    case Type::UInt16:
    case Type::Int16: return 2;
    case Type::UInt32:
    case Type::Int32:
    case Type::Float32: return 4;
    case Type::Float64: return 8;
    }
    return 0;
}

int32_t centre(int32_t extent) {
    // Arithmetic shift of the 32-bit (wrapping) sum, then float32 steps.
    const int32_t half = add32(extent, 1) >> 1;
    const float f = static_cast<float>(half);
    float g = std::floor(f);
    g = g + -1.0f;
    return static_cast<int32_t>(g);
}

float uint32_to_float(uint32_t u, bool halves) {
    if (!halves) return static_cast<float>(u);
    const float h = static_cast<float>(u >> 1);
    const float t = static_cast<float>(u & 1u) + h;
    return t + h;
}

void cast_bound(Type t, double bound, void *result) {
    with_kind(t, [&](auto tag) {
        using K = typename decltype(tag)::type;
        K::store(result, K::cast(bound));
    });
}

void residue(Type t, const void *a, const void *b, void *result, bool uint32_halves) {
    with_kind(t, [&](auto tag) {
        using K = typename decltype(tag)::type;
        K::store(result, K::residue(K::load(a), K::load(b), uint32_halves));
    });
}

void apply(Op op, Type t, const View &im, double lower, double upper, const Mask &se, const View &out,
           Options opt) {
    with_kind(t, [&](auto tag) {
        using K = typename decltype(tag)::type;
        run<K>(op, im, lower, upper, se, out, opt);
    });
}

}  // namespace tmref
