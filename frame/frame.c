/* The frame of every export: the checks of the four descriptors and the
 * bounds query, then the run.
 *
 * Halide's own frame is close to the one this library promises but not the
 * same: it adds checks (dimensions, the size of dimension 0, device-dirty
 * flags), words one report differently, and answers a query for a narrow
 * output on a wide image from the adjusted output start.  So every export
 * runs this frame first, and hands the pipeline copies of the descriptors on
 * which Halide's extra checks pass exactly when these ones did.
 *
 * One frame serves all operators: what differs between them is in their
 * traits (family.def), and the regions they need come from regions.c. */
#include "frame.h"

#include <stddef.h>
#include <string.h>

#include "regions.h"
#include "run.h"

static const int arg_dims[TM_NARGS] = {3, 2, 3, 3};

/* The names and labels the reports give each buffer, and the order in
 * which the checks walk them: alphabetically by argument name (the null
 * tests walk the same list backwards). */
typedef struct {
    const char *name[TM_NARGS], *label[TM_NARGS], *stride[TM_NARGS];
    char out_label[64], out_stride[64];
    int order[TM_NARGS];
} words;

static void join(char *dst, size_t cap, const char *a, const char *b) {
    size_t n = 0;
    for (const char *s = a; *s && n + 1 < cap; s++) dst[n++] = *s;
    for (const char *s = b; *s && n + 1 < cap; s++) dst[n++] = *s;
    dst[n] = '\0';
}

static void name_buffers(const tm_traits *t, words *w) {
    static const char *const name[] = {"keyimForType", "minmax", "strel"};
    static const char *const label[] = {"Input buffer keyimForType", "Input buffer minmax", "Input buffer strel"};
    static const char *const stride[] = {"keyimForType.stride.0", "minmax.stride.0", "strel.stride.0"};
    join(w->out_label, sizeof w->out_label, "Output buffer ", t->output);
    join(w->out_stride, sizeof w->out_stride, t->output, ".stride.0");
    for (int a = 0; a < TM_OUT; a++) w->name[a] = name[a], w->label[a] = label[a], w->stride[a] = stride[a];
    w->name[TM_OUT] = t->output, w->label[TM_OUT] = w->out_label, w->stride[TM_OUT] = w->out_stride;
    /* The inputs are in order already; the output goes among them. */
    int n = 0;
    for (int a = 0; a < TM_OUT; a++) {
        if (n == a && strcmp(t->output, name[a]) < 0) w->order[n++] = TM_OUT;
        w->order[n++] = a;
    }
    if (n == TM_OUT) w->order[n] = TM_OUT;
}

static void read_entry(tm_view *v, const halide_buffer_t *b, int dims) {
    v->host = b->host;
    v->device = b->device;
    v->type = b->type;
    for (int d = 0; d < dims; d++) {
        v->min[d] = b->dim[d].min;
        v->extent[d] = b->dim[d].extent;
        v->stride[d] = b->dim[d].stride;
    }
}

static int is_query(const tm_view *v) { return v->host == NULL && v->device == 0; }

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
        int32_t extent = (int32_t)tm_wrap32((int64_t)r[d][1] - r[d][0] + 1);
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

/* Types, then regions and extents dimension by dimension.  Only dimension 0
 * of the output can be asked for more than it describes (the widened last
 * chunk), so that is the one access test of the output. */
static int check_types_and_regions(const words *w, const tm_view v[TM_NARGS], const struct halide_type_t type[],
                                   const tm_required r) {
    for (int i = 0; i < TM_NARGS; i++) {
        const int a = w->order[i];
        struct halide_type_t g = v[a].type, x = type[a];
        if (g.code != x.code || g.bits != x.bits || g.lanes != x.lanes)
            return halide_error_bad_type(NULL, w->label[a], type_bits(g), type_bits(x));
    }
    for (int i = 0; i < TM_NARGS; i++) {
        const int a = w->order[i];
        const tm_view *b = &v[a];
        const int access_dims = a == TM_OUT ? 1 : arg_dims[a];
        for (int d = 0; d < arg_dims[a]; d++) {
            const int32_t lo = r[a][d][0], hi = r[a][d][1];
            const int32_t last = (int32_t)tm_wrap32((int64_t)b->min[d] + b->extent[d] - 1);
            if (d < access_dims && !(b->min[d] <= lo && tm_wrap32((int64_t)hi - b->extent[d]) < b->min[d]))
                return halide_error_access_out_of_bounds(NULL, w->label[a], d, lo, hi, b->min[d], last);
            if (b->extent[d] < 0) return halide_error_buffer_extents_negative(NULL, w->label[a], d, b->extent[d]);
        }
    }
    return 0;
}

/* Dimension 0 must be dense; the span of each outer dimension must be
 * addressable in 64 bits (with 32-bit fields it always is; the test stays
 * so that the sequence is the same whatever the field widths); and a null
 * host here has a device handle, which the frame has no way to bring to the
 * host. */
static int check_layout(const words *w, const tm_view v[TM_NARGS]) {
    for (int i = 0; i < TM_NARGS; i++) {
        const int a = w->order[i];
        if (v[a].stride[0] != 1) return halide_error_constraint_violated(NULL, w->stride[a], v[a].stride[0], "1", 1);
    }
    for (int i = 0; i < TM_NARGS; i++) {
        const int a = w->order[i];
        for (int d = 1; d < arg_dims[a]; d++) {
            int64_t span = (int64_t)v[a].extent[d] * (int64_t)v[a].stride[d];
            uint64_t size = span < 0 ? 0 - (uint64_t)span : (uint64_t)span;
            if (size > (uint64_t)INT64_MAX)
                return halide_error_buffer_allocation_too_large(NULL, w->name[a], size, (uint64_t)INT64_MAX);
        }
    }
    for (int i = 0; i < TM_NARGS; i++) {
        const int a = w->order[i];
        if (!v[a].host) return halide_error_host_is_null(NULL, w->label[a]);
    }
    return 0;
}

int tm_frame(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel,
             halide_buffer_t *out) {
    halide_buffer_t *arg[TM_NARGS] = {keyimForType, minmax, strel, out};
    words w;
    name_buffers(tm_traits_of(e->op), &w);

    /* Nothing may be read before every pointer is known good. */
    for (int i = TM_NARGS - 1; i >= 0; i--)
        if (!arg[w.order[i]]) return halide_error_buffer_argument_is_null(NULL, w.name[w.order[i]]);

    /* Everything below is computed from these values, also after a query
     * has rewritten a descriptor (which may be shared between arguments). */
    tm_view v[TM_NARGS];
    for (int a = 0; a < TM_NARGS; a++) read_entry(&v[a], arg[a], arg_dims[a]);
    const struct halide_type_t type[TM_NARGS] = {
        {e->code, e->bits, 1}, {halide_type_float, 64, 1}, {halide_type_uint, 8, 1}, {e->code, e->bits, 1}};
    tm_required r;
    tm_required_regions(e, v, r);

    /* Answer every buffer in the query state; if there was one, the call
     * was a query and nothing else happens: no check, no pipeline. */
    int queried = 0;
    for (int i = 0; i < TM_NARGS; i++) {
        const int a = w.order[i];
        if (!is_query(&v[a])) continue;
        answer(arg[a], type[a], arg_dims[a], (const int32_t(*)[2])r[a]);
        queried = 1;
    }
    if (queried) return 0;

    int status = check_types_and_regions(&w, v, type, (const int32_t(*)[3][2])r);
    if (!status) status = check_layout(&w, v);
    return status ? status : tm_run_pipeline(e, v);
}

/* The load hook lives in its own object; this reference makes a static
 * link pull it in wherever the frame is linked. */
extern const int tm_load_hook_anchor;
__attribute__((used)) static const int *const tm_needs_load_hook = &tm_load_hook_anchor;
