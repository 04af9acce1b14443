/*
 * tessmorphop3_halide_easy.h: a header-only companion to the library's
 * chief header, for C and C++ callers.  It builds the four descriptors of a
 * call from plain dense arrays, picks the highest level this processor has,
 * and calls the export that matches the operator, the element type and the
 * level.  Everything here is static inline: it adds no symbol to the
 * library or to the caller's objects beyond what the caller uses.
 *
 *   uint8_t image[16][480][640], out[16][480][640], ball[3][5][5] = {...};
 *   const int32_t shape[3] = {16, 480, 640}, ball_shape[3] = {3, 5, 5};
 *   tme_array im, se, res;
 *   tme_pads pads;
 *   tme_describe(&im, image, TME_uint8, 3, shape, NULL);
 *   tme_describe(&res, out, TME_uint8, 3, shape, NULL);
 *   tme_describe_mask(&se, &ball[0][0][0], 3, ball_shape);
 *   tme_pads_neutral(&pads, TME_uint8);
 *   int status = tme_call(TME_imopen, tme_best_level(), &im, &pads, &se, &res);
 *
 * Axis order.  Shapes and mins are given in C order, as a C array is
 * declared and as numpy reports a shape: the first entry is the slowest
 * axis, the last one the contiguous axis.  The library counts the other way
 * (its dimension 0 is the contiguous one), so the last entry of `shape`
 * becomes dimension 0.  For uint8_t a[D][H][W] the shape is {D, H, W}, and
 * the library sees W x H x D.  Unused dimensions get extent 1, so every
 * descriptor has the three dim entries (two for the pads) the library reads
 * and, in a bounds query, writes.
 *
 * The records below point into themselves (buf.dim, and for the pads also
 * buf.host).  tme_call re-aims those pointers, so a copied record works with
 * tme_call; pass a copy's &rec.buf straight to an export only after calling
 * tme_describe on it again.
 */
#ifndef TESSMORPHOP3_HALIDE_EASY_H
#define TESSMORPHOP3_HALIDE_EASY_H

#include <math.h>

#include "tessmorphop3_halide.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Element types, operators and levels, named as in the exports
 * (TME_uint8, TME_imopen, TME_avx2), in the order of the library's list. */
typedef enum tme_type {
#define TME_X(word, code, bits, bytes, ctype) TME_##word,
    TESSMORPHOP3_HALIDE_TYPES(TME_X)
#undef TME_X
    TME_TYPE_COUNT
} tme_type;

typedef enum tme_operator {
#define TME_X(name, output) TME_##name,
    TESSMORPHOP3_HALIDE_OPERATORS(TME_X)
#undef TME_X
    TME_OPERATOR_COUNT
} tme_operator;

typedef enum tme_level {
#define TME_X(word) TME_##word,
    TESSMORPHOP3_HALIDE_LEVELS(TME_X)
#undef TME_X
    TME_LEVEL_COUNT
} tme_level;

/* What tme_call returns when it does not call the library; the library's
 * own statuses are 0 and Halide's error codes, all above these. */
enum {
    TME_BAD_ARGUMENT = -1001,  /* a null record, or no export for the operator, type and level */
    TME_LEVEL_NOT_ON_CPU = -1002 /* the processor lacks the level's instructions */
};

/* A dense array of up to three dimensions as the library's descriptor. */
typedef struct tme_array {
    halide_buffer_t buf;
    halide_dimension_t dim[3];
    tme_type type;
} tme_array;

/* The padding bounds: bounds[0] the lower one (the pad of dilation),
 * bounds[1] the upper one (the pad of erosion). */
typedef struct tme_pads {
    halide_buffer_t buf;
    halide_dimension_t dim[2];
    double bounds[2];
} tme_pads;

typedef int (*tme_entry_fn)(halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel,
                            halide_buffer_t *output);

/* Bytes of storage of one element (a bool sample takes a byte). */
static inline int tme_sizeof(tme_type type) {
    switch (type) {
#define TME_X(word, code, bits, bytes, ctype) \
    case TME_##word: return bytes;
        TESSMORPHOP3_HALIDE_TYPES(TME_X)
#undef TME_X
    default: return 0;
    }
}

static inline void tme_impl_dimension(halide_dimension_t *d, int32_t min, int32_t extent, int32_t stride) {
    d->min = min;
    d->extent = extent;
    d->stride = stride;
    d->flags = 0;
}

static inline void tme_impl_buffer(halide_buffer_t *b, void *host, int code, int bits, int dimensions,
                               halide_dimension_t *dim) {
    b->device = 0;
    b->device_interface = NULL;
    b->host = (uint8_t *)host;
    b->flags = 0;
#ifdef __cplusplus
    b->type.code = (halide_type_code_t)code; /* the field is the enum in C++, a byte in C */
#else
    b->type.code = (uint8_t)code;
#endif
    b->type.bits = (uint8_t)bits;
    b->type.lanes = 1;
    b->dimensions = dimensions;
    b->dim = dim;
    b->padding = NULL;
}

/*
 * Describes `data`, a dense array of `rank` (1 to 3) axes in C order (see
 * the top of this file), with elements of `type`.  `mins` gives the
 * coordinate of the first element on each axis, in the same order; NULL
 * means all 0.  A null `data` makes the descriptor ask for its shape (a
 * bounds query).  Returns &a->buf, or NULL when the rank or the type is out
 * of range, an extent is negative, or the distance between two planes does
 * not fit the descriptor's 32-bit stride.
 */
static inline halide_buffer_t *tme_describe(tme_array *a, void *data, tme_type type, int rank,
                                            const int32_t *shape, const int32_t *mins) {
    int code = -1, bits = 0, d;
    int64_t stride = 1;
    switch (type) {
#define TME_X(word, c, b, bytes, ctype) \
    case TME_##word: code = c; bits = b; break;
        TESSMORPHOP3_HALIDE_TYPES(TME_X)
#undef TME_X
    default: break;
    }
    if (!a || code < 0 || rank < 1 || rank > 3 || !shape) return NULL;
    for (d = 0; d < 3; d++) {
        int axis = rank - 1 - d; /* C-order axis behind library dimension d */
        int32_t extent = axis >= 0 ? shape[axis] : 1;
        int32_t min = axis >= 0 && mins ? mins[axis] : 0;
        if (extent < 0) return NULL;
        if (stride > INT32_MAX) {
            /* A dimension of one element is never stepped along. */
            if (extent > 1) return NULL;
            stride = 0;
        }
        tme_impl_dimension(&a->dim[d], min, extent, (int32_t)stride);
        stride *= extent;
    }
    tme_impl_buffer(&a->buf, data, code, bits, 3, a->dim);
    a->type = type;
    return &a->buf;
}

/* Describes a structuring-element mask: bytes in C order, a tap is a byte
 * equal to 1.  Its centre on each axis is (extent + 1) / 2 - 1. */
static inline halide_buffer_t *tme_describe_mask(tme_array *a, const uint8_t *bytes, int rank,
                                                 const int32_t *shape) {
    /* The library only reads the mask. */
    return tme_describe(a, (void *)(uintptr_t)bytes, TME_uint8, rank, shape, NULL);
}

/* Sets the two padding bounds, as float64 values; the library casts them
 * to the element type by truncation and wrapping, without saturation. */
static inline halide_buffer_t *tme_pads_set(tme_pads *p, double lower, double upper) {
    if (!p) return NULL;
    p->bounds[0] = lower;
    p->bounds[1] = upper;
    tme_impl_dimension(&p->dim[0], 0, 2, 1);
    tme_impl_dimension(&p->dim[1], 0, 1, 2);
    tme_impl_buffer(&p->buf, p->bounds, halide_type_float, 64, 2, p->dim);
    return &p->buf;
}

static inline double tme_impl_pow2(int n) {
    double p = 1.0;
    while (n-- > 0) p *= 2.0;
    return p;
}

/* Bounds that never win against a sample: the least value of the type as
 * the pad of dilation, the greatest as the pad of erosion, so that outside
 * the image counts as absent.  (For bool these are 0 and 1.) */
static inline halide_buffer_t *tme_pads_neutral(tme_pads *p, tme_type type) {
    switch (type) {
#define TME_X(word, code, bits, bytes, ctype)                                                                  \
    case TME_##word:                                                                                        \
        if ((code) == halide_type_float) return tme_pads_set(p, -HUGE_VAL, HUGE_VAL);                        \
        if ((code) == halide_type_int)                                                                      \
            return tme_pads_set(p, -tme_impl_pow2((bits) - 1), tme_impl_pow2((bits) - 1) - 1.0);            \
        return tme_pads_set(p, 0.0, tme_impl_pow2(bits) - 1.0);
        TESSMORPHOP3_HALIDE_TYPES(TME_X)
#undef TME_X
    default: return NULL;
    }
}

/*
 * Whether this processor can run the exports of `level`: every feature that
 * the library's table (TESSMORPHOP3_HALIDE_CPU_FEATURES, from the list of
 * entry points) marks as tested for this level or one below it is reported
 * by cpuid, and the operating system saves the registers it uses.  The
 * library itself never asks.
 */
#if (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
typedef struct tme_impl_cpuid {
    uint32_t eax, ebx, ecx, edx;
} tme_impl_cpuid;

static inline tme_impl_cpuid tme_impl_cpuid_of(uint32_t leaf, uint32_t subleaf) {
    tme_impl_cpuid r = {0, 0, 0, 0};
    uint32_t top;
    /* A leaf above the highest one the processor has reads as all zero. */
    __asm__("cpuid" : "=a"(top), "=b"(r.ebx), "=c"(r.ecx), "=d"(r.edx) : "a"(leaf & 0x80000000u), "c"(0));
    if (leaf > top) return r;
    __asm__("cpuid" : "=a"(r.eax), "=b"(r.ebx), "=c"(r.ecx), "=d"(r.edx) : "a"(leaf), "c"(subleaf));
    return r;
}

/* The register states the operating system saves (XCR0), or 0 where it
 * does not let programs ask (no OSXSAVE). */
static inline uint32_t tme_impl_os_states(void) {
    uint32_t lo, hi;
    if (!((tme_impl_cpuid_of(1, 0).ecx >> 27) & 1)) return 0;
    __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    (void)hi;
    return lo;
}

static inline int tme_cpu_has(tme_level level) {
    if ((unsigned)level >= TME_LEVEL_COUNT) return 0;
#define TME_X(name, first, leaf, subleaf, reg, bit, xcr0, tested)                                    \
    if ((tested) && level >= TME_##first) {                                                      \
        if (!((tme_impl_cpuid_of((leaf), (subleaf)).reg >> (bit)) & 1)) return 0;                  \
        if ((xcr0) && (tme_impl_os_states() & (uint32_t)(xcr0)) != (uint32_t)(xcr0)) return 0; \
    }
    TESSMORPHOP3_HALIDE_CPU_FEATURES(TME_X)
#undef TME_X
    return 1;
}
#else
/* No way to ask the processor: only the baseline is safe. */
static inline int tme_cpu_has(tme_level level) { return level == (tme_level)0; }
#endif

/* The highest level this processor has; the list runs from low to high. */
static inline tme_level tme_best_level(void) {
    tme_level best = (tme_level)0;
#define TME_X(word) \
    if (tme_cpu_has(TME_##word)) best = TME_##word;
    TESSMORPHOP3_HALIDE_LEVELS(TME_X)
#undef TME_X
    return best;
}

/* The export for an operator, element type and level, or NULL. */
static inline tme_entry_fn tme_entry(tme_operator op, tme_type type, tme_level level) {
#define TME_KEY(o, t, l) (((int)(o) * TME_TYPE_COUNT + (int)(t)) * TME_LEVEL_COUNT + (int)(l))
    if ((unsigned)op >= TME_OPERATOR_COUNT || (unsigned)type >= TME_TYPE_COUNT ||
        (unsigned)level >= TME_LEVEL_COUNT)
        return NULL;
    switch (TME_KEY(op, type, level)) {
#define TME_X(o, t, l) \
    case TME_KEY(TME_##o, TME_##t, TME_##l): return o##_##t##_##l;
        TESSMORPHOP3_HALIDE_ENTRIES(TME_X)
#undef TME_X
    default: return NULL;
    }
#undef TME_KEY
}

/*
 * Runs `op` on `image` into `out` with the mask and the pads, through the
 * export of the image's element type at `level`.  Returns the export's
 * status (0, or a negative Halide error code from a returning error
 * handler: with the default one a refused call prints one line and aborts
 * the process), or TME_BAD_ARGUMENT or TME_LEVEL_NOT_ON_CPU without calling
 * the library.
 */
static inline int tme_call(tme_operator op, tme_level level, tme_array *image, tme_pads *pads, tme_array *mask,
                           tme_array *out) {
    tme_entry_fn fn;
    if (!image || !pads || !mask || !out) return TME_BAD_ARGUMENT;
    fn = tme_entry(op, image->type, level);
    if (!fn) return TME_BAD_ARGUMENT;
    if (!tme_cpu_has(level)) return TME_LEVEL_NOT_ON_CPU;
    image->buf.dim = image->dim;
    mask->buf.dim = mask->dim;
    out->buf.dim = out->dim;
    pads->buf.dim = pads->dim;
    pads->buf.host = (uint8_t *)pads->bounds;
    return fn(&image->buf, &pads->buf, &mask->buf, &out->buf);
}

#ifdef __cplusplus
}
#endif

#endif
