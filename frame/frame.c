/* The frame of every export: the checks of the four descriptors, the
 * bounds query, and the call of the Halide pipeline.
 *
 * Halide's own frame is close to the one this library promises but not the
 * same: it adds checks (dimensions, the size of dimension 0, device-dirty
 * flags), words one report differently, and answers a query for a narrow
 * output on a wide image from the adjusted output start.  So every export
 * runs this frame first, and hands the pipeline copies of the descriptors on
 * which Halide's extra checks pass exactly when these ones did.
 *
 * One frame serves all operators; what differs between them is in the
 * table below.  All coordinate arithmetic is 32-bit and wraps, as in the
 * pipelines themselves, so it is done in uint32_t. */
#include "frame.h"

#include <math.h>
#include <stddef.h>
#include <string.h>

/* Argument positions, as the exports take them. */
enum { IM, MM, SE, OUT, NARGS };

enum { WALK_NONE, WALK_ERODE, WALK_DILATE };

typedef struct {
    /* The checks walk the buffers alphabetically by argument name; the
     * null tests walk the same list backwards. */
    uint8_t order[NARGS];
    /* The element walks from image to output (second one WALK_NONE for a
     * one-stage operator). */
    uint8_t walk[2];
    /* Opening's intermediate is held inside 0 .. E-1 (the window); E in
     * dimension 2 is the image's extent in dimension `window_z`. */
    uint8_t windowed, window_z;
    /* The residue reads the image again at the output's own coordinates. */
    uint8_t residue;
    /* The entries of minmax the operator reads: (min, extent) in dimensions
     * 0 and 1. */
    int32_t minmax[2][2];
} op_traits;

static const op_traits traits[] = {
    [TM_IMERODE] = {{OUT, IM, MM, SE}, {WALK_ERODE, WALK_NONE}, 0, 0, 0, {{1, 1}, {0, 1}}},
    [TM_IMDILATE] = {{OUT, IM, MM, SE}, {WALK_DILATE, WALK_NONE}, 0, 0, 0, {{0, 1}, {0, 1}}},
    [TM_IMOPEN] = {{IM, MM, OUT, SE}, {WALK_ERODE, WALK_DILATE}, 1, 1, 0, {{0, 2}, {0, 1}}},
    [TM_IMCLOSE] = {{OUT, IM, MM, SE}, {WALK_DILATE, WALK_ERODE}, 0, 0, 0, {{0, 1}, {0, 1}}},
    [TM_IMTOPHAT] = {{IM, MM, SE, OUT}, {WALK_ERODE, WALK_DILATE}, 1, 2, 1, {{0, 2}, {0, 1}}},
    [TM_IMBOTHAT] = {{OUT, IM, MM, SE}, {WALK_DILATE, WALK_ERODE}, 0, 0, 1, {{0, 1}, {0, 1}}},
};

static const int arg_dims[NARGS] = {3, 2, 3, 3};
static const char *const input_name[NARGS] = {"keyimForType", "minmax", "strel", NULL};
static const char *const input_label[NARGS] = {"Input buffer keyimForType", "Input buffer minmax",
                                               "Input buffer strel", NULL};

typedef tm_view entry_view;

static void read_entry(entry_view *v, const halide_buffer_t *b, int dims) {
    v->host = b->host;
    v->device = b->device;
    v->type = b->type;
    for (int d = 0; d < dims; d++) {
        v->min[d] = b->dim[d].min;
        v->extent[d] = b->dim[d].extent;
        v->stride[d] = b->dim[d].stride;
    }
}

static int32_t last(const entry_view *v, int d) { return tm_sub(tm_add(v->min[d], v->extent[d]), 1); }

static int is_query(const entry_view *v) { return v->host == NULL && v->device == 0; }

/* The centre of the mask in one dimension goes through float32 on purpose:
 * it is what the pipelines compute, so for extents beyond 2^24 both agree
 * on the rounding rather than on the integer formula. */
int32_t tm_centre(int32_t extent) {
    float g = floorf((float)(tm_add(extent, 1) >> 1)) + -1.0f;
    return (int32_t)g;
}

/* The coordinates of the source that one element walk reads for the
 * target coordinates lo .. hi.  An erosion reads x + r, a dilation x - r,
 * with the offsets r from -c to S-1-c. */
static void walk_back(int walk, int32_t S, int32_t c, int32_t *lo, int32_t *hi) {
    int32_t below = walk == WALK_ERODE ? c : tm_sub(tm_sub(S, 1), c);
    int32_t above = walk == WALK_ERODE ? tm_sub(tm_sub(S, 1), c) : c;
    *lo = tm_sub(*lo, below);
    *hi = tm_add(*hi, above);
}

/* Rewrites a descriptor in the query state with the region the call needs:
 * r[d] is the first and last coordinate of dimension d; strides are dense. */
static void answer(halide_buffer_t *b, struct halide_type_t type, int dims, const int32_t r[][2]) {
    b->device = 0;
    b->device_interface = NULL;
    b->host = NULL;
    b->type = type;
    b->dimensions = dims;
    int32_t dense = 1;
    for (int d = 0; d < dims; d++) {
        int32_t extent = tm_add(tm_sub(r[d][1], r[d][0]), 1);
        b->dim[d].min = r[d][0];
        b->dim[d].extent = extent;
        b->dim[d].stride = dense;
        b->dim[d].flags = 0;
        dense = (int32_t)((uint32_t)dense * (uint32_t)extent);
    }
    b->flags = 0;
}

static uint32_t type_bits(struct halide_type_t t) {
    uint32_t u;
    memcpy(&u, &t, sizeof u);
    return u;
}

static void join(char *dst, size_t cap, const char *a, const char *b) {
    size_t n = 0;
    for (const char *s = a; *s && n + 1 < cap; s++) dst[n++] = *s;
    for (const char *s = b; *s && n + 1 < cap; s++) dst[n++] = *s;
    dst[n] = '\0';
}

int tm_frame(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax,
             halide_buffer_t *strel, halide_buffer_t *out) {
    const op_traits *t = &traits[e->op];
    halide_buffer_t *arg[NARGS] = {keyimForType, minmax, strel, out};

    char out_label[64], out_stride[64];
    join(out_label, sizeof out_label, "Output buffer ", e->output);
    join(out_stride, sizeof out_stride, e->output, ".stride.0");
    const char *name[NARGS] = {input_name[IM], input_name[MM], input_name[SE], e->output};
    const char *label[NARGS] = {input_label[IM], input_label[MM], input_label[SE], out_label};
    const char *stride_name[NARGS] = {"keyimForType.stride.0", "minmax.stride.0", "strel.stride.0",
                                      out_stride};

    /* Nothing may be read before every pointer is known good. */
    for (int i = NARGS - 1; i >= 0; i--)
        if (!arg[t->order[i]]) return halide_error_buffer_argument_is_null(NULL, name[t->order[i]]);

    /* Everything below is computed from these values, also after a query
     * has rewritten a descriptor (which may be shared between arguments). */
    entry_view v[NARGS];
    for (int a = 0; a < NARGS; a++) read_entry(&v[a], arg[a], arg_dims[a]);
    const entry_view *im = &v[IM], *se = &v[SE], *o = &v[OUT];

    struct halide_type_t type[NARGS] = {{e->code, e->bits, 1}, {halide_type_float, 64, 1},
                                        {halide_type_uint, 8, 1}, {e->code, e->bits, 1}};

    /* The required region of every buffer: range[a][d] = first, last. */
    int32_t range[NARGS][3][2];

    /* The output: on a wide image the last chunk of a row is moved inwards
     * to end on the row's last sample, so a row narrower than L is written
     * as L samples ending there. */
    for (int d = 0; d < 3; d++) range[OUT][d][0] = o->min[d], range[OUT][d][1] = last(o, d);
    const int32_t L = e->lanes;
    if (im->extent[0] > L) {
        range[OUT][0][0] = tm_min(tm_sub(last(o, 0), L - 1), o->min[0]);
        range[OUT][0][1] = tm_add(range[OUT][0][0], tm_sub(tm_max(o->extent[0], L), 1));
    }

    /* The image: the reach of each stage, walked back from the output as
     * the caller gave it, last stage first, with opening's intermediate
     * kept inside its window (from 0, not from the image's min); then
     * clamped to the image, which is padded beyond it.  A residue reads
     * the image again at the output's own coordinates, unclamped. */
    for (int d = 0; d < 3; d++) {
        int32_t S = se->extent[d], c = tm_centre(S);
        int32_t lo = o->min[d], hi = last(o, d);
        for (int s = 1; s >= 0; s--) {
            if (t->walk[s] == WALK_NONE) continue;
            walk_back(t->walk[s], S, c, &lo, &hi);
            if (s == 1 && t->windowed) {
                int32_t E = im->extent[d == 2 ? t->window_z : d];
                lo = tm_max(tm_min(lo, tm_sub(E, 1)), 0);
                hi = tm_max(tm_min(hi, tm_sub(E, 1)), 0);
            }
        }
        lo = tm_max(tm_min(lo, last(im, d)), im->min[d]);
        hi = tm_max(tm_min(hi, last(im, d)), im->min[d]);
        if (t->residue) {
            lo = tm_min(lo, range[OUT][d][0]);
            hi = tm_max(hi, last(o, d));
        }
        range[IM][d][0] = lo, range[IM][d][1] = hi;
        range[SE][d][0] = 0, range[SE][d][1] = tm_sub(S, 1);
    }
    for (int d = 0; d < 2; d++) {
        range[MM][d][0] = t->minmax[d][0];
        range[MM][d][1] = tm_add(t->minmax[d][0], t->minmax[d][1] - 1);
    }

    /* Answer every buffer in the query state; if there was one, the call
     * was a query and nothing else happens: no check, no pipeline. */
    int queried = 0;
    for (int i = 0; i < NARGS; i++) {
        int a = t->order[i];
        if (!is_query(&v[a])) continue;
        answer(arg[a], type[a], arg_dims[a], (const int32_t(*)[2])range[a]);
        queried = 1;
    }
    if (queried) return 0;

    /* Types. */
    for (int i = 0; i < NARGS; i++) {
        int a = t->order[i];
        struct halide_type_t g = v[a].type, x = type[a];
        if (g.code != x.code || g.bits != x.bits || g.lanes != x.lanes)
            return halide_error_bad_type(NULL, label[a], type_bits(g), type_bits(x));
    }

    /* Regions and extents, dimension by dimension.  Only dimension 0 of the
     * output can be asked for more than it describes (the widened last
     * chunk), so that is the one access test of the output. */
    for (int i = 0; i < NARGS; i++) {
        int a = t->order[i];
        const entry_view *b = &v[a];
        const int access_dims = a == OUT ? 1 : arg_dims[a];
        for (int d = 0; d < arg_dims[a]; d++) {
            int32_t lo = range[a][d][0], hi = range[a][d][1];
            if (d < access_dims && !(b->min[d] <= lo && tm_sub(hi, b->extent[d]) < b->min[d]))
                return halide_error_access_out_of_bounds(NULL, label[a], d, lo, hi, b->min[d], last(b, d));
            if (b->extent[d] < 0) return halide_error_buffer_extents_negative(NULL, label[a], d, b->extent[d]);
        }
    }

    /* Dimension 0 must be dense. */
    for (int i = 0; i < NARGS; i++) {
        int a = t->order[i];
        if (v[a].stride[0] != 1) return halide_error_constraint_violated(NULL, stride_name[a], v[a].stride[0], "1", 1);
    }

    /* The span of each outer dimension must be addressable in 64 bits.
     * With 32-bit fields it always is; the test stays so that the sequence
     * is the same whatever the field widths. */
    for (int i = 0; i < NARGS; i++) {
        int a = t->order[i];
        for (int d = 1; d < arg_dims[a]; d++) {
            int64_t span = (int64_t)v[a].extent[d] * (int64_t)v[a].stride[d];
            uint64_t size = span < 0 ? 0 - (uint64_t)span : (uint64_t)span;
            if (size > (uint64_t)INT64_MAX)
                return halide_error_buffer_allocation_too_large(NULL, name[a], size, (uint64_t)INT64_MAX);
        }
    }

    /* A null host here has a device handle, and the frame has no way to
     * bring device data to the host. */
    for (int i = 0; i < NARGS; i++) {
        int a = t->order[i];
        if (!v[a].host) return halide_error_host_is_null(NULL, label[a]);
    }

    return tm_run_pipeline(e, v);
}

/* The load hook lives in its own object; this reference makes a static
 * link pull it in wherever the frame is linked. */
extern const int tm_load_hook_anchor;
__attribute__((used)) static const int *const tm_needs_load_hook = &tm_load_hook_anchor;
