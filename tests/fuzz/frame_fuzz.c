/* Fuzz target of the call frame: any four descriptors, through any export.
 *
 * The input is decoded into one call: the export, the mins, extents and
 * strides of the four buffers (with a bias towards the ends of the 32-bit
 * range, and towards shapes that pass the checks), query states, null hosts
 * with device handles, wrong types, mask bytes and pad values; one input
 * in two has, besides, one dimension of one buffer moved to an end of the
 * 32-bit range by a hash of the input (see move_to_an_end).  The call is
 * made twice.  First through the frame with a stub in place of the
 * pipeline: that tells whether the frame refuses the call, answers a query,
 * finds nothing to compute, or hands it on, and touches no storage.  Then
 * through the export itself, with every buffer's storage between
 * inaccessible pages:
 *
 *   - a call that the frame does not hand on gets storage that cannot be
 *     touched at all, so any access crashes; it must return what the frame
 *     returned, and a query must write the descriptors as the frame did;
 *   - a call the frame hands on gets its described samples (inputs
 *     read-only) and must return 0; afterwards every byte of the output's
 *     pages outside its described samples must still hold the canary, and
 *     no descriptor may have changed.
 *
 * Calls whose storage or work would be large are skipped, unless the frame
 * refuses them (those never need storage).  The intermediate of a two-stage
 * operator comes from an allocator that puts it between inaccessible pages
 * too, checks the slack around it when it is freed, and refuses large
 * blocks, which the call reports as out of memory.  A hang shows as
 * libFuzzer's timeout.  A finding of the checks here prints the call; for a
 * crash or a timeout, run the saved input again with TM_FUZZ_VERBOSE=1 to
 * print every call before it runs (scripts/fuzz.sh does that).
 */
#define _GNU_SOURCE
#include <math.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "HalideRuntime.h"
#include "frame.h"
#include "tessmorphop3_halide.h"
#include "tessmorphop3_halide_easy.h"
#include "tm_lanes.h"

/* ---- The exports, from the list ------------------------------------------ */

#define TMF_TYPE(word, code, bits, bytes, ctype) enum { CODE_##word = code, BITS_##word = bits, BYTES_##word = bytes };
TESSMORPHOP3_HALIDE_TYPES(TMF_TYPE)
#undef TMF_TYPE

typedef int (*export_fn)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

typedef struct {
    const char *name, *op_word, *level_word;
    int lanes, code, bits, bytes;
    export_fn fn;
    /* filled at start-up */
    tm_operator op;
    const char *stage; /* NULL for a one-stage operator */
    int runnable;      /* the processor has the level */
} export_info;

static export_info exports[] = {
#define TMF_ENTRY(op, t, l)                                                                     \
    {.name = #op "_" #t "_" #l, .op_word = #op, .level_word = #l, .lanes = TM_LANES_##t##_##l, \
     .code = CODE_##t, .bits = BITS_##t, .bytes = BYTES_##t, .fn = op##_##t##_##l},
TESSMORPHOP3_HALIDE_ENTRIES(TMF_ENTRY)
#undef TMF_ENTRY
};
enum { NEXPORTS = sizeof exports / sizeof exports[0] };

static const char *const levels[] = {
#define TMF_LEVEL(word) #word,
    TESSMORPHOP3_HALIDE_LEVELS(TMF_LEVEL)
#undef TMF_LEVEL
};

/* ---- Reading the input ---------------------------------------------------- */

typedef struct {
    const uint8_t *p;
    size_t n;
} reader;

static uint8_t u8(reader *r) {
    if (!r->n) return 0;
    r->n--;
    return *r->p++;
}
static uint32_t u32(reader *r) {
    uint32_t v = 0;
    for (int i = 0; i < 4; i++) v |= (uint32_t)u8(r) << (8 * i);
    return v;
}
static uint64_t u64(reader *r) { return u32(r) | (uint64_t)u32(r) << 32; }
static int32_t wrap(int64_t v) { return (int32_t)(uint32_t)(uint64_t)v; }

/* A min or a stride: small, at either end of the range, a power of two, or anything. */
static int32_t coord(reader *r) {
    uint8_t m = u8(r);
    switch (m & 7) {
    /* within 8 of an end, the end itself once in 8 */
    case 3: return INT32_MAX - (u8(r) & 7);
    case 4: return INT32_MIN + (u8(r) & 7);
    case 5: return (int32_t)u32(r);
    case 6: {
        int64_t p = (int64_t)1 << (u8(r) & 31);
        return wrap((m & 8 ? -p : p) + (int8_t)u8(r));
    }
    case 7: return u8(r);
    default: return (int8_t)u8(r);
    }
}

/* A coordinate within 128 of either end of the 32-bit range. */
static int32_t near_end(reader *r) {
    uint8_t m = u8(r);
    return m & 1 ? INT32_MAX - (m >> 1) : INT32_MIN + (m >> 1);
}

/* An extent: mostly a few samples, sometimes near 2^31, or anything. */
static int32_t extent(reader *r) {
    uint8_t m = u8(r);
    switch (m & 7) {
    case 4: return 32 + u8(r);
    case 5: return INT32_MAX - u8(r);
    case 6: return (int32_t)u32(r);
    case 7: return wrap(((int64_t)1 << (u8(r) & 31)) + (int8_t)u8(r));
    default: return m >> 3;
    }
}

/* A stride: dense after the dimensions below (optionally padded), or any coordinate. */
static int32_t stride(reader *r, int32_t dense) {
    uint8_t m = u8(r);
    switch (m & 7) {
    case 4: return (int8_t)u8(r);
    case 5: return (int32_t)u32(r);
    case 6: return wrap(-(int64_t)dense);
    case 7: return coord(r);
    default: return wrap((int64_t)dense + ((m >> 3) & 3));
    }
}

static double pad_value(reader *r) {
    static const double notable[] = {0,     1,    -1,         255,        256,           300,    127,
                                      128,   0.5,  65535,      2147483648.0, 4294967296.5, -2147483649.0,
                                      1e300, -0.0, NAN,        INFINITY,   -INFINITY};
    uint8_t m = u8(r);
    if (m & 0x80) {
        uint64_t bits = u64(r);
        double d;
        memcpy(&d, &bits, sizeof d);
        return d;
    }
    return notable[m % (sizeof notable / sizeof notable[0])];
}

/* ---- One call ------------------------------------------------------------- */

enum { IM, MM, SE, OUT, NARGS };
static const char *const arg_name[NARGS] = {"keyimForType", "minmax", "strel", "output"};
enum { HOST_NORMAL, HOST_WITH_DEVICE, HOST_QUERY, HOST_DEVICE_ONLY };

typedef struct {
    int dims, elem, host_mode;
    struct halide_type_t type;
    int32_t dimensions;
    int32_t min[3], extent[3], stride[3];
} buf_plan;

typedef struct {
    const export_info *x;
    buf_plan b[NARGS];
    double lower, upper;
    int align_end, mask_mode;
    uint32_t seed;
} call_plan;

static void decode_box(reader *r, buf_plan *b) {
    for (int d = 0; d < b->dims; d++) {
        b->min[d] = coord(r);
        b->extent[d] = extent(r);
    }
}

static void decode_strides(reader *r, buf_plan *b) {
    int32_t dense = 1;
    for (int d = 0; d < b->dims; d++) {
        b->stride[d] = stride(r, dense);
        int64_t s = b->stride[d] < 0 ? -(int64_t)b->stride[d] : b->stride[d];
        dense = wrap(s * (b->extent[d] > 0 ? b->extent[d] : 0));
    }
}

static void decode_buffer_head(reader *r, buf_plan *b, int dims, struct halide_type_t type, int elem) {
    uint8_t h = u8(r);
    int host = h & 15, t = h >> 4;
    b->host_mode = host < 12 ? HOST_NORMAL : host == 12 ? HOST_WITH_DEVICE : host == 14 ? HOST_DEVICE_ONLY : HOST_QUERY;
    b->type = type;
    if (t == 13) b->type.code = (uint8_t)((type.code + 1) % 5);
    if (t == 14) b->type.bits = (uint8_t)(type.bits == 8 ? 16 : 8);
    if (t == 15) b->type.lanes = 2;
    b->dimensions = (int8_t)u8(r); /* never read by the frame */
    b->dims = dims;
    b->elem = elem;
}

/* One input in two also has one dimension of one buffer moved to an end of
 * the 32-bit range, chosen by a hash of the whole input: whatever a
 * mutation changes, the call it makes is tried again at a new place where
 * coordinates wrap, its shape kept.  A place drawn from bytes of its own is
 * one byte among many for the mutations to hit, and an exact -2^31 with
 * rows that fit the image otherwise takes hours to come up.  The seeds
 * (seeds.py) pick their `seed` field so that their hash moves nothing, and
 * stay the calls they were made from. */
static uint32_t input_hash(const uint8_t *data, size_t size) {
    uint32_t h = 2166136261u; /* FNV-1a */
    for (size_t i = 0; i < size; i++) h = (h ^ data[i]) * 16777619u;
    return h;
}

static void move_to_an_end(const uint8_t *data, size_t size, call_plan *c) {
    static const int target[8] = {OUT, OUT, OUT, OUT, IM, IM, MM, SE};
    const uint32_t h = input_hash(data, size);
    if (h & 1) return;
    buf_plan *b = &c->b[target[(h >> 1) & 7]];
    const int d = (int)((h >> 4) % (uint32_t)b->dims);
    const int64_t near = (int64_t)((h >> 7) & 7) - 4; /* the end itself once in 8 */
    b->min[d] = (h >> 6) & 1 ? wrap((int64_t)INT32_MIN + near) : wrap((int64_t)INT32_MAX - b->extent[d] + 1 + near);
}

/* Returns 0 when the input names a level this processor lacks. */
static int decode(const uint8_t *data, size_t size, call_plan *c) {
    reader r = {data, size};
    memset(c, 0, sizeof *c);
    uint32_t index = u8(&r);
    index |= (uint32_t)u8(&r) << 8;
    c->x = &exports[index % NEXPORTS];
    if (!c->x->runnable) return 0;
    uint8_t options = u8(&r);
    c->align_end = options & 1;
    c->mask_mode = (options >> 1) & 3;
    c->seed = u32(&r);
    c->lower = pad_value(&r);
    c->upper = pad_value(&r);

    const struct halide_type_t T = {(uint8_t)c->x->code, (uint8_t)c->x->bits, 1};
    const struct halide_type_t F64 = {halide_type_float, 64, 1}, U8 = {halide_type_uint, 8, 1};
    buf_plan *im = &c->b[IM], *mm = &c->b[MM], *se = &c->b[SE], *out = &c->b[OUT];

    decode_buffer_head(&r, im, 3, T, c->x->bytes);
    decode_box(&r, im);
    decode_strides(&r, im);

    decode_buffer_head(&r, mm, 2, F64, 8);
    if (u8(&r) < 192) {
        mm->min[0] = mm->min[1] = 0;
        mm->extent[0] = 2, mm->extent[1] = 1;
    } else {
        decode_box(&r, mm);
    }
    decode_strides(&r, mm);

    decode_buffer_head(&r, se, 3, U8, 1);
    for (int d = 0; d < 3; d++) {
        uint8_t m = u8(&r);
        se->min[d] = m < 224 ? 0 : m < 240 ? (int8_t)u8(&r) : near_end(&r);
        m = u8(&r);
        se->extent[d] = m < 192 ? m % 6 : m < 240 ? 6 + (m - 192) : extent(&r);
    }
    decode_strides(&r, se);

    decode_buffer_head(&r, out, 3, T, c->x->bytes);
    if (u8(&r) & 1) {
        decode_box(&r, out);
    } else {
        /* The image's shape, give or take a few samples, with each
         * dimension placed on its own by the low two bits of its first
         * byte: next to the image (the shapes that pass the checks), or
         * where its coordinates wrap.  Drawn apart, as in a box of its own,
         * a min at an end of the range and extents that fit the image
         * (rows of a whole block, a window as many planes as rows) almost
         * never come together, and one changed bit here makes them. */
        for (int d = 0; d < 3; d++) {
            const uint8_t place = u8(&r);
            const int8_t de = (int8_t)u8(&r);
            const int64_t step = (int8_t)place >> 2, near = step >> 2; /* -32..31; -8..7 */
            out->extent[d] = wrap((int64_t)im->extent[d] + de);
            switch (place & 3) {
            case 0: out->min[d] = wrap((int64_t)im->min[d] + step); break;
            /* from -2^31, or just below or above it */
            case 1: out->min[d] = wrap((int64_t)INT32_MIN + near); break;
            /* ending on 2^31 - 1, or just below or above it */
            case 2: out->min[d] = wrap((int64_t)INT32_MAX - out->extent[d] + 1 + near); break;
            /* half the range away from the image */
            default: out->min[d] = wrap((int64_t)im->min[d] + ((int64_t)1 << 31) + near); break;
            }
        }
    }
    decode_strides(&r, out);
    move_to_an_end(data, size, c);
    return 1;
}

/* ---- Describing a call ---------------------------------------------------- */

static char current[4096]; /* the call under way */

static void describe(const call_plan *c) {
    static const char *const modes[] = {"host", "host+device", "query", "device only"};
    int n = snprintf(current, sizeof current, "%s lower %.17g upper %.17g mask mode %d align %s\n", c->x->name,
                     c->lower, c->upper, c->mask_mode, c->align_end ? "end" : "start");
    for (int a = 0; a < NARGS && n < (int)sizeof current; a++) {
        const buf_plan *b = &c->b[a];
        n += snprintf(current + n, sizeof current - n, "  %-12s %-11s type %d/%d/%d dimensions %d:", arg_name[a],
                      modes[b->host_mode], b->type.code, b->type.bits, b->type.lanes, b->dimensions);
        for (int d = 0; d < b->dims && n < (int)sizeof current; d++)
            n += snprintf(current + n, sizeof current - n, " (%d, %d, %d)", b->min[d], b->extent[d], b->stride[d]);
        if (n < (int)sizeof current) n += snprintf(current + n, sizeof current - n, "\n");
    }
}

static char last_error[1024];
static void record_error(void *uc, const char *msg) {
    (void)uc;
    snprintf(last_error, sizeof last_error, "%s", msg);
}

static void print_call(void) {
    fprintf(stderr, "\n== call under way ==\n%s", current);
    if (last_error[0]) fprintf(stderr, "last report: %s\n", last_error);
}

__attribute__((noreturn, format(printf, 1, 2))) static void fail(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "\n== finding: ");
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fprintf(stderr, "\n");
    print_call();
    abort();
}

/* ---- Storage between inaccessible pages ----------------------------------- */

static size_t page;
static const uint8_t CANARY = 0xA5;

enum {
    STORAGE_BUDGET = 8 << 20,       /* bytes filled and checked, per buffer */
    ROW_LIMIT = 1 << 14,            /* rows mapped one by one */
    OUT_SAMPLE_LIMIT = 1 << 22,     /* output samples checked */
    STREL_SAMPLE_LIMIT = 1 << 12,   /* mask positions */
    INTERMEDIATE_BUDGET = 64 << 20, /* larger intermediates are refused as out of memory */
};
static const int64_t WORK_LIMIT = (int64_t)1 << 26; /* loop iterations, see work() */
static const int64_t RESERVE_LIMIT = (int64_t)1 << 44; /* address space for one buffer */

static size_t round_up(size_t v, size_t to) { return (v + to - 1) / to * to; }

typedef struct {
    uint8_t *base; /* reservation, guard pages included */
    size_t len;
    uint8_t *host;
    int rows_only;          /* only the described rows are accessible */
    int64_t lo, hi;         /* first and last element offset described, from host */
    int64_t rows, row_span; /* row count, and elements from a row's first to last sample */
    int filled;             /* accessible bytes were written before the call */
} storage;

/* Where the described samples of a buffer lie, as element offsets from the
 * sample at the mins.  Returns 0 when they do not fit 64 bits. */
static int layout(const buf_plan *b, int64_t *lo, int64_t *hi, int64_t *samples, int64_t *rows) {
    __int128 l = 0, h = 0, n = 1, r = 1;
    for (int d = 0; d < b->dims; d++) {
        if (b->extent[d] <= 0) {
            *lo = *hi = 0, *samples = 0, *rows = 0;
            return 1;
        }
        __int128 span = (__int128)(b->extent[d] - 1) * b->stride[d];
        if (span < 0) l += span; else h += span;
        n *= b->extent[d];
        if (d > 0) r *= b->extent[d];
    }
    if (l < INT64_MIN / 16 || h > INT64_MAX / 16 || n > INT64_MAX / 16) return 0;
    *lo = (int64_t)l, *hi = (int64_t)h, *samples = (int64_t)n, *rows = (int64_t)r;
    return 1;
}

/* The host of every buffer of a call that must not touch storage: the
 * middle of a terabyte of address space that can never be touched, so that
 * also a far access crashes rather than land in some other mapping. */
static const size_t FORBIDDEN_SPAN = (size_t)1 << 40;
static uint8_t *forbidden;

static void *reserve(size_t len) {
    void *p = mmap(NULL, len, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return p == MAP_FAILED ? NULL : p;
}

static void protect(void *p, size_t len, int prot) {
    if (mprotect(p, len, prot) != 0) {
        perror("mprotect");
        abort();
    }
}

static void open_range(uint8_t *a, uint8_t *e, void *ctx) {
    (void)ctx;
    protect(a, (size_t)(e - a), PROT_READ | PROT_WRITE);
}

static uint64_t rng_state;
static uint8_t rnd(void) {
    rng_state ^= rng_state << 13;
    rng_state ^= rng_state >> 7;
    rng_state ^= rng_state << 17;
    return (uint8_t)(rng_state >> 24);
}

/* The element offset of the sample at x = 0 of row `row` (y + z * extent[1]). */
static int64_t row_offset(const buf_plan *b, int64_t row) {
    if (b->dims == 2) return row * b->stride[1];
    int64_t y = row % b->extent[1], z = row / b->extent[1];
    return y * b->stride[1] + z * b->stride[2];
}

static int64_t row_bytes(const storage *s, const buf_plan *b) {
    return ((s->row_span < 0 ? -s->row_span : s->row_span) + 1) * b->elem;
}

/* Calls fn(start, end) on every accessible range of s. */
static void each_range(const storage *s, const buf_plan *b, void (*fn)(uint8_t *, uint8_t *, void *), void *ctx) {
    if (!s->rows) return;
    if (!s->rows_only) {
        uint8_t *a = (uint8_t *)((uintptr_t)(s->host + s->lo * b->elem) / page * page);
        uint8_t *e = (uint8_t *)round_up((uintptr_t)(s->host + (s->hi + 1) * b->elem), page);
        fn(a, e, ctx);
        return;
    }
    const int64_t w = row_bytes(s, b) / b->elem;
    for (int64_t r = 0; r < s->rows; r++) {
        int64_t a = row_offset(b, r) + (s->row_span < 0 ? s->row_span : 0);
        uint8_t *from = (uint8_t *)((uintptr_t)(s->host + a * b->elem) / page * page);
        uint8_t *to = (uint8_t *)round_up((uintptr_t)(s->host + (a + w) * b->elem), page);
        fn(from, to, ctx);
    }
}


/* Gives an accepted call's buffer its storage.  Returns 0 when it would
 * be too large to give. */
static int map_storage(storage *s, const buf_plan *b, int output, int align_end) {
    memset(s, 0, sizeof *s);
    int64_t samples, rows;
    if (!layout(b, &s->lo, &s->hi, &samples, &rows)) return 0;
    s->rows = rows;
    s->row_span = b->extent[0] > 0 ? (int64_t)(b->extent[0] - 1) * b->stride[0] : 0;
    const int64_t span = samples ? (s->hi - s->lo + 1) * b->elem : 0;
    if (span > RESERVE_LIMIT) return 0;
    s->rows_only = span > STORAGE_BUDGET;
    if (s->rows_only && (rows > ROW_LIMIT || (output && rows * row_bytes(s, b) > STORAGE_BUDGET))) return 0;

    s->len = round_up((size_t)span, page) + 3 * page;
    s->base = reserve(s->len);
    if (!s->base) return 0;
    /* The described span starts right after the first guard page, or ends
     * right before the last one. */
    uint8_t *first = align_end ? s->base + s->len - page - span : s->base + page;
    s->host = first - s->lo * b->elem;
    if (!samples) return 1;

    each_range(s, b, open_range, NULL);
    return 1;
}

static void fill_random(uint8_t *a, uint8_t *e, void *ctx) {
    (void)ctx;
    for (uint8_t *p = a; p < e; p++) *p = rnd();
}
static void fill_canary(uint8_t *a, uint8_t *e, void *ctx) {
    (void)ctx;
    memset(a, CANARY, (size_t)(e - a));
}
static void make_read_only(uint8_t *a, uint8_t *e, void *ctx) {
    (void)ctx;
    protect(a, (size_t)(e - a), PROT_READ);
}

static void release(storage *s) {
    if (s->base) munmap(s->base, s->len);
    memset(s, 0, sizeof *s);
}

/* Visits every described sample of b: fn(address). */
static void each_sample(const buf_plan *b, uint8_t *host, void (*fn)(uint8_t *, void *), void *ctx) {
    for (int d = 0; d < b->dims; d++)
        if (b->extent[d] <= 0) return;
    const int32_t e2 = b->dims > 2 ? b->extent[2] : 1;
    for (int32_t z = 0; z < e2; z++)
        for (int32_t y = 0; y < b->extent[1]; y++)
            for (int32_t x = 0; x < b->extent[0]; x++) {
                int64_t o = (int64_t)x * b->stride[0] + (int64_t)y * b->stride[1];
                if (b->dims > 2) o += (int64_t)z * b->stride[2];
                fn(host + o * b->elem, ctx);
            }
}

/* ---- The intermediate's allocator ----------------------------------------- */

typedef struct {
    uint8_t *base, *p;
    size_t len, size;
} block;
/* Band tasks take their blocks from several threads at once, so the table
 * is shared under a lock; it holds the intermediate and a block per thread
 * with room to spare. */
static block blocks[64];
static int live_blocks;
static pthread_mutex_t blocks_lock = PTHREAD_MUTEX_INITIALIZER;

/* Each block ends 0 to 31 bytes before an inaccessible page (the runtime
 * promises 32-byte alignment) and starts after one; the slack on both sides
 * holds the canary and is checked when the block is freed. */
static void *guarded_malloc(void *uc, size_t size) {
    (void)uc;
    if (size > INTERMEDIATE_BUDGET) return NULL;
    const size_t body = round_up(size ? size : 1, 32), pages = round_up(body, page);
    block k = {NULL, NULL, pages + 2 * page, size};
    k.base = reserve(k.len);
    if (!k.base) return NULL;
    protect(k.base + page, pages, PROT_READ | PROT_WRITE);
    k.p = k.base + page + pages - body;
    memset(k.base + page, CANARY, (size_t)(k.p - k.base - page));
    memset(k.p + size, CANARY, body - size);
    pthread_mutex_lock(&blocks_lock);
    const int room = live_blocks < (int)(sizeof blocks / sizeof blocks[0]);
    if (room) blocks[live_blocks++] = k;
    pthread_mutex_unlock(&blocks_lock);
    if (!room) {
        munmap(k.base, k.len);
        return NULL;
    }
    return k.p;
}

static void guarded_free(void *uc, void *p) {
    (void)uc;
    pthread_mutex_lock(&blocks_lock);
    for (int i = 0; i < live_blocks; i++) {
        block k = blocks[i];
        if (k.p != p) continue;
        blocks[i] = blocks[--live_blocks];
        pthread_mutex_unlock(&blocks_lock);
        const size_t body = round_up(k.size ? k.size : 1, 32), pages = round_up(body, page);
        for (uint8_t *q = k.base + page; q < k.p; q++)
            if (*q != CANARY) fail("write %td bytes before a block of %zu bytes", k.p - q, k.size);
        for (uint8_t *q = k.p + k.size; q < k.base + page + pages; q++)
            if (*q != CANARY) fail("write %td bytes after the end of a block of %zu bytes", q - k.p - k.size, k.size);
        munmap(k.base, k.len);
        return;
    }
    pthread_mutex_unlock(&blocks_lock);
    fail("free of a pointer that was not allocated: %p", p);
}

/* ---- The stub pipeline ----------------------------------------------------- */

static int stub_calls;
static int stub_run(const tm_call *call) {
    (void)call;
    stub_calls++;
    return 0;
}

/* ---- Descriptors at the ends of pages --------------------------------------- */

/* Every dim array ends right before an inaccessible page: the frame reads
 * and writes exactly 3 entries (2 for minmax), never more. */
typedef struct {
    halide_buffer_t buf;
    halide_dimension_t *dim;
} descriptor;
static uint8_t *dim_pages;

static void make_descriptors(descriptor *dsc, const call_plan *c, uint8_t *const host[NARGS]) {
    for (int a = 0; a < NARGS; a++) {
        const buf_plan *b = &c->b[a];
        dsc[a].dim = (halide_dimension_t *)(dim_pages + (2 * a + 1) * page) - b->dims;
        memset(&dsc[a].buf, 0, sizeof dsc[a].buf);
        dsc[a].buf.type = b->type;
        dsc[a].buf.dimensions = b->dimensions;
        dsc[a].buf.dim = dsc[a].dim;
        dsc[a].buf.host = b->host_mode == HOST_QUERY || b->host_mode == HOST_DEVICE_ONLY ? NULL : host[a];
        dsc[a].buf.device = b->host_mode == HOST_WITH_DEVICE || b->host_mode == HOST_DEVICE_ONLY ? 1 : 0;
        for (int d = 0; d < b->dims; d++) {
            dsc[a].dim[d].min = b->min[d];
            dsc[a].dim[d].extent = b->extent[d];
            dsc[a].dim[d].stride = b->stride[d];
            dsc[a].dim[d].flags = 0;
        }
    }
}

typedef struct {
    halide_buffer_t buf;
    halide_dimension_t dim[3];
} descriptor_copy;

static void copy_descriptors(descriptor_copy *to, const descriptor *from, const call_plan *c) {
    for (int a = 0; a < NARGS; a++) {
        memset(&to[a], 0, sizeof to[a]);
        to[a].buf = from[a].buf;
        to[a].buf.dim = NULL;
        memcpy(to[a].dim, from[a].dim, sizeof(halide_dimension_t) * c->b[a].dims);
    }
}

static int same_descriptor(const descriptor_copy *x, const descriptor_copy *y) {
    return !memcmp(&x->buf, &y->buf, sizeof x->buf) && !memcmp(x->dim, y->dim, sizeof x->dim);
}

/* ---- Filling the inputs ----------------------------------------------------- */

static void write_mask_byte(uint8_t *p, void *ctx) {
    const int mode = *(const int *)ctx;
    uint8_t r = rnd();
    *p = mode == 0 ? 1 : mode == 1 ? (r < 200 ? 1 : r < 230 ? 0 : r) : mode == 2 ? (r & 3 ? 1 : r >> 6) : 0;
}

static void fill_inputs(const call_plan *c, storage *s) {
    rng_state = 0x9E3779B97F4A7C15ull ^ c->seed;
    for (int a = 0; a < OUT; a++) {
        const buf_plan *b = &c->b[a];
        if (!s[a].base) continue;
        /* Huge rows read as zeros: the pages stay the system's zero page. */
        if (!s[a].rows_only || s[a].rows * row_bytes(&s[a], b) <= STORAGE_BUDGET) {
            each_range(&s[a], b, fill_random, NULL);
            s[a].filled = 1;
        }
    }
    const buf_plan *se = &c->b[SE];
    if (s[SE].filled) {
        int mode = c->mask_mode;
        each_sample(se, s[SE].host, write_mask_byte, &mode);
    }
    /* The pad values at minmax(0, 0) and (1, 0), where those are described. */
    const buf_plan *mm = &c->b[MM];
    if (s[MM].filled) {
        const double v[2] = {c->lower, c->upper};
        for (int i = 0; i < 2; i++) {
            int64_t x = (int64_t)i - mm->min[0], y = -(int64_t)mm->min[1];
            if (x < 0 || x >= mm->extent[0] || y < 0 || y >= mm->extent[1]) continue;
            memcpy(s[MM].host + (x * mm->stride[0] + y * mm->stride[1]) * 8, &v[i], 8);
        }
    }
    for (int a = 0; a < OUT; a++)
        if (s[a].base) each_range(&s[a], &c->b[a], make_read_only, NULL);
}

/* ---- Judging the output ----------------------------------------------------- */

/* The described samples go back to the canary; then any byte of the
 * output's pages that differs from it was written outside them. */
static void restore_canary(uint8_t *p, void *ctx) { memset(p, CANARY, (size_t)*(const int *)ctx); }

static void judge_output_range(uint8_t *a, uint8_t *e, void *ctx) {
    const storage *s = ctx;
    for (uint8_t *p = a; p < e; p++)
        if (*p != CANARY) fail("write outside the output's samples, %td bytes from the sample at the mins", p - s->host);
}

static void judge_output(const call_plan *c, storage *s) {
    int elem = c->b[OUT].elem;
    each_sample(&c->b[OUT], s->host, restore_canary, &elem);
    each_range(s, &c->b[OUT], judge_output_range, s);
}

/* ---- The work of a call ------------------------------------------------------ */

/* What a call the frame hands on costs, in loop iterations: every plane and
 * every row of the output is visited, empty or not, and every sample walks
 * the whole mask; a two-stage operator does the same first over its
 * intermediate, which reaches beyond the output by the mask (and by a
 * vector in dimension 0).  A band of 64 rows also costs its working blocks,
 * which come from this harness's allocator between inaccessible pages
 * (system calls and fresh pages each time): measured, about 0.3 ms a
 * plane, so a volume of 64770 planes of 3 rows took 20 s while its loops
 * were well inside the budget.  Calls above a budget are skipped, so that a
 * timeout means time out of proportion to this. */
enum { BAND_COST = 4096, BAND_ROWS = 64 };
static __int128 loops(const int32_t n[3], __int128 mask) {
    const __int128 planes = n[2] > 0 ? n[2] : 0, rows = planes * (n[1] > 0 ? n[1] : 0);
    const __int128 bands = planes * (((n[1] > 0 ? n[1] : 0) + BAND_ROWS - 1) / BAND_ROWS + 1);
    return bands * BAND_COST + rows + rows * (n[0] > 0 ? n[0] : 0) * mask;
}

static __int128 work(const call_plan *c) {
    const buf_plan *out = &c->b[OUT], *se = &c->b[SE];
    __int128 mask = 1;
    for (int d = 0; d < 3; d++) mask *= se->extent[d] > 1 ? se->extent[d] : 1;
    __int128 w = loops(out->extent, mask);
    if (c->x->stage) {
        int32_t n[3];
        for (int d = 0; d < 3; d++)
            n[d] = (int32_t)((int64_t)(out->extent[d] > 0 ? out->extent[d] : 0) + (se->extent[d] > 0 ? se->extent[d] : 0) +
                             (d == 0 ? c->x->lanes : 0));
        w += loops(n, mask);
    }
    return w;
}

/* ---- The fuzz entry --------------------------------------------------------- */

static int verbose;

int LLVMFuzzerInitialize(int *argc, char ***argv) {
    (void)argc, (void)argv;
    page = (size_t)sysconf(_SC_PAGESIZE);
    for (int i = 0; i < NEXPORTS; i++) {
        export_info *x = &exports[i];
        for (int o = 0; o < TM_OP_COUNT; o++)
            if (!strcmp(tm_traits_of((tm_operator)o)->name, x->op_word)) x->op = (tm_operator)o;
        x->stage = tm_traits_of(x->op)->stage;
        /* The library's table of levels, as hosts read it. */
        for (size_t l = 0; l < sizeof levels / sizeof levels[0]; l++)
            if (!strcmp(levels[l], x->level_word)) x->runnable = tme_cpu_has((tme_level)l);
    }
    uint8_t *untouchable = reserve(FORBIDDEN_SPAN);
    dim_pages = reserve(2 * NARGS * page);
    if (!untouchable || !dim_pages) abort();
    forbidden = untouchable + FORBIDDEN_SPAN / 2;
    for (int a = 0; a < NARGS; a++) protect(dim_pages + 2 * a * page, page, PROT_READ | PROT_WRITE);
    halide_set_error_handler(record_error);
    halide_set_custom_malloc(guarded_malloc);
    halide_set_custom_free(guarded_free);
    verbose = getenv("TM_FUZZ_VERBOSE") != NULL;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    call_plan c;
    if (!decode(data, size, &c)) return -1;
    describe(&c);
    last_error[0] = '\0';
    if (verbose) fprintf(stderr, "%s", current);

    /* 1. The frame alone, with the stub in place of the pipeline. */
    const export_info *x = c.x;
    const tm_entry stub = {.op = x->op, .code = (uint8_t)x->code, .bits = (uint8_t)x->bits, .bytes = x->bytes,
                           .lanes = x->lanes, .run = stub_run};
    /* The frame reads the mask's bytes (to list its taps) when it hands a
     * call on, and nothing else: the mask gets real storage here too. */
    uint8_t *dummy[NARGS] = {forbidden, forbidden, forbidden, forbidden};
    storage mask_store;
    memset(&mask_store, 0, sizeof mask_store);
    if (c.b[SE].host_mode != HOST_DEVICE_ONLY && c.b[SE].host_mode != HOST_QUERY) {
        int64_t lo, hi, se_samples, rows;
        if (!layout(&c.b[SE], &lo, &hi, &se_samples, &rows) || se_samples > STREL_SAMPLE_LIMIT ||
            !map_storage(&mask_store, &c.b[SE], 0, c.align_end))
            return -1;
        dummy[SE] = mask_store.host;
    }
    descriptor dsc[NARGS];
    descriptor_copy given[NARGS], answered[NARGS];
    make_descriptors(dsc, &c, dummy);
    stub_calls = 0;
    const int stub_status = tm_frame(&stub, &dsc[IM].buf, &dsc[MM].buf, &dsc[SE].buf, &dsc[OUT].buf);
    release(&mask_store);
    const int accepted = stub_calls > 0;
    copy_descriptors(answered, dsc, &c);
    if (live_blocks) fail("the frame left %d blocks allocated", live_blocks);

    /* 2. Storage: none that can be touched unless the frame hands the call on. */
    storage s[NARGS];
    memset(s, 0, sizeof s);
    uint8_t *host[NARGS] = {forbidden, forbidden, forbidden, forbidden};
    if (accepted) {
        int64_t lo, hi, out_samples, se_samples, rows;
        if (!layout(&c.b[OUT], &lo, &hi, &out_samples, &rows) || !layout(&c.b[SE], &lo, &hi, &se_samples, &rows) ||
            out_samples > OUT_SAMPLE_LIMIT || se_samples > STREL_SAMPLE_LIMIT || work(&c) > WORK_LIMIT)
            return -1;
        for (int a = 0; a < NARGS; a++) {
            if (c.b[a].host_mode == HOST_DEVICE_ONLY || c.b[a].host_mode == HOST_QUERY) continue;
            if (!map_storage(&s[a], &c.b[a], a == OUT, c.align_end)) {
                for (int k = 0; k < NARGS; k++) release(&s[k]);
                return -1;
            }
            host[a] = s[a].host;
        }
        fill_inputs(&c, s);
        each_range(&s[OUT], &c.b[OUT], fill_canary, NULL);
    }

    /* 3. The export itself. */
    make_descriptors(dsc, &c, host);
    copy_descriptors(given, dsc, &c);
    const int status = x->fn(&dsc[IM].buf, &dsc[MM].buf, &dsc[SE].buf, &dsc[OUT].buf);
    if (live_blocks) fail("the call left %d blocks allocated", live_blocks);

    descriptor_copy after[NARGS];
    copy_descriptors(after, dsc, &c);
    if (accepted) {
        if (status != 0)
            fail("the frame accepted the call, then it returned %d (\"%s\")", status, last_error);
    } else if (status != stub_status) {
        fail("returned %d where the frame returns %d (\"%s\")", status, stub_status, last_error);
    }
    /* A query writes the queried descriptors as the frame did; no other
     * call writes any. */
    const int query = !accepted && stub_status == 0; /* or nothing to compute */
    for (int a = 0; a < NARGS; a++) {
        const descriptor_copy *w = query && c.b[a].host_mode == HOST_QUERY ? &answered[a] : &given[a];
        if (!same_descriptor(&after[a], w)) fail("the descriptor of %s changed", arg_name[a]);
    }
    if (accepted) judge_output(&c, &s[OUT]);
    for (int a = 0; a < NARGS; a++) release(&s[a]);
    return 0;
}
