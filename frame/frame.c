/* The frame of every export: the pointer tests, then a call of the Halide
 * pipeline with shallow copies of the caller's descriptors.
 *
 * The pipeline is compiled with Halide's own checks left on.  The copies
 * make those checks see exactly what the caller meant: three (two for
 * minmax) dimensions, no flags, and for a boolean image the byte type the
 * pipeline was compiled for. */
#include "frame.h"

#include <string.h>

typedef struct {
    halide_buffer_t buf;
    halide_dimension_t dim[3];
} tm_copy;

static void shallow_copy(tm_copy *c, const halide_buffer_t *b, int dims, int as_bytes) {
    memset(c, 0, sizeof *c);
    c->buf = *b;
    memcpy(c->dim, b->dim, (size_t)dims * sizeof(halide_dimension_t));
    for (int d = 0; d < dims; d++) c->dim[d].flags = 0;
    c->buf.dim = c->dim;
    c->buf.dimensions = dims;
    c->buf.flags = 0;
    if (as_bytes && c->buf.type.bits == 1) c->buf.type.bits = 8;
}

int tm_frame(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax,
             halide_buffer_t *strel, halide_buffer_t *out) {
    /* Reverse walking order: the last buffer in alphabetical order first. */
    halide_buffer_t *walk[4];
    const char *names[4];
    if (e->op == TM_IMOPEN || e->op == TM_IMTOPHAT) {
        halide_buffer_t *w[4] = {keyimForType, minmax, out, strel};
        const char *n[4] = {"keyimForType", "minmax", e->output, "strel"};
        if (e->op == TM_IMTOPHAT) { w[2] = strel; w[3] = out; n[2] = "strel"; n[3] = e->output; }
        memcpy(walk, w, sizeof w);
        memcpy(names, n, sizeof n);
    } else {
        halide_buffer_t *w[4] = {out, keyimForType, minmax, strel};
        const char *n[4] = {e->output, "keyimForType", "minmax", "strel"};
        memcpy(walk, w, sizeof w);
        memcpy(names, n, sizeof n);
    }
    for (int i = 3; i >= 0; i--)
        if (!walk[i]) return halide_error_buffer_argument_is_null(NULL, names[i]);

    /* The pipeline of a boolean export reads and writes bytes. */
    int as_bytes = e->bits == 1;
    tm_copy im, mm, se, o;
    shallow_copy(&im, keyimForType, 3, as_bytes);
    shallow_copy(&mm, minmax, 2, 0);
    shallow_copy(&se, strel, 3, 0);
    shallow_copy(&o, out, 3, as_bytes);
    return tm_run_pipeline(e, &im.buf, &mm.buf, &se.buf, &o.buf);
}

/* The load hook lives in its own object; this reference makes a static
 * link pull it in wherever the frame is linked. */
extern const int tm_load_hook_anchor;
__attribute__((used)) static const int *const tm_needs_load_hook = &tm_load_hook_anchor;
