/* The hand-over of a planned call to its pipeline.  The pipeline never sees
 * the caller's coordinates: every descriptor is moved by the plan's shift K,
 * the image is cut to the piece that can be read (its host moved to the
 * piece's first sample), and the branch and the window go over as values.
 * The intermediate of a two-stage operator is described densely over the
 * box the pipeline computes. */
#include "handover.h"

#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

/* The caller's coordinate of q in dimension d (before wrapping). */
static int64_t o_true(const tm_view *v, int d, int64_t q) { return (int64_t)v[TM_OUT].min[d] + q; }

static void describe(halide_buffer_t *b, halide_dimension_t *dim, void *host, struct halide_type_t t, int dims) {
    memset(b, 0, sizeof *b);
    b->host = (uint8_t *)host;
    b->type = t;
    /* A boolean sample is handed over as the byte it is stored in. */
    if (b->type.bits == 1) b->type.bits = 8;
    b->dimensions = dims;
    b->dim = dim;
}

/* The image cut to its piece in every dimension.  Where somewhere nothing
 * is read, the whole image becomes its first sample, placed below all reads
 * in every such dimension and, in the others, wherever its piece begins, so
 * every clamped read lands on it. */
static void describe_image(const tm_entry *e, const tm_view *im, const tm_plan *p, tm_handover *h) {
    /* Addresses are 64-bit and wrap like the caller's own address
     * arithmetic would; unsigned, so that C sees no overflow. */
    uint64_t offset = 0;
    for (int d = 0; d < 3; d++) {
        const tm_span piece = p->image[d];
        if (!p->image_dummy) offset += (uint64_t)(piece.lo - p->image_origin[d]) * (uint64_t)(int64_t)im->stride[d];
        const int32_t extent = p->image_dummy ? 1 : (int32_t)(piece.hi - piece.lo + 1);
        h->im_dim[d] = (halide_dimension_t){(int32_t)(piece.lo - p->shift[d]), extent, im->stride[d], 0};
    }
    describe(&h->im, h->im_dim, (void *)((uintptr_t)im->host + (uintptr_t)(offset * (uint64_t)e->bytes)), im->type,
             3);
}

/* The intermediate: dense rows and planes over the box the pipeline
 * computes, all of which must lie inside the block. */
static int describe_stage(const tm_entry *e, const tm_view *v, tm_plan *p, uint64_t bytes, tm_handover *h) {
    const char *stage = tm_traits_of(e->op)->stage;
    halide_dimension_t *sd = h->stage_dim;
    int64_t stride = 1;
    for (int d = 0; d < 3; d++) {
        const tm_span s = p->stage[d];
        const int64_t n = s.hi - s.lo + 1;
        /* A plane of more than 2^31 samples has no 32-bit stride: one such
         * plane is fine (its stride is never used), several are not. */
        if (stride > INT32_MAX && n > 1)
            return tm_refuse(&p->why, stage, d, (tm_span){o_true(v, d, s.lo), o_true(v, d, s.hi)}, o_true(v, d, s.lo),
                             o_true(v, d, s.lo));
        sd[d] = (halide_dimension_t){(int32_t)(s.lo - p->shift[d]), (int32_t)n, (int32_t)(stride > INT32_MAX ? 0 : stride), 0};
        stride *= n;
    }
    if (p->shifted_view) {
        /* The one chunk of each row starts one sample before the box.  The
         * view's rows keep the box's stride (X = L - 1), so row r's chunk
         * covers the box's row r and the sample just before it, which is
         * the previous row's last one, and the very first chunk starts at
         * the block's first element: the last sample it can reach is element
         * X * Y * Z, the one element that the block has beyond the box.
         * Overlapping samples are written with the same value, the initial
         * value of an element without taps, and stage 2 (also without taps)
         * reads none of them. */
        sd[1].stride = (int32_t)p->box_extent[0];
        sd[2].stride = (int32_t)((uint64_t)p->box_extent[0] * p->box_extent[1]);
    }
    uint64_t reach_elems = 1;
    for (int d = 0; d < 3; d++) reach_elems += (uint64_t)(sd[d].extent - 1) * (uint64_t)(uint32_t)sd[d].stride;
    if (sd[0].extent == 0 || sd[1].extent == 0 || sd[2].extent == 0) reach_elems = 0;
    if (reach_elems > bytes / (uint64_t)e->bytes + 1)
        return tm_refuse(&p->why, stage, 0, (tm_span){p->box_min[0], (int64_t)p->box_min[0] + sd[0].extent - 1},
                         p->box_min[0], (int64_t)p->box_min[0] + p->box_extent[0] - 1);
    describe(&h->stage, sd, NULL, v[TM_OUT].type, 3);
    return 0;
}

/* A call's window: all of a descriptor's own samples. */
static void window_over(tm_call *c, const halide_buffer_t *b) {
    for (int d = 0; d < 3; d++) {
        c->window_min[d] = b->dim[d].min;
        c->window_extent[d] = b->dim[d].extent;
    }
}

/* A two-stage operator's two calls.  The first computes the intermediate
 * from the image, read through the image's own window.  Opening's second
 * is the dilation pipeline with the intermediate as its image, read
 * through opening's window (outside it, the lower pad); the others' second
 * stage reads the intermediate beside the image, top-hat's through
 * opening's window. */
static void lay_out_stages(const tm_entry *e, const tm_plan *p, tm_handover *h) {
    const tm_traits *t = tm_traits_of(e->op);
    h->first = h->call;
    h->first.out = &h->stage;
    for (int d = 0; d < 3; d++) {
        h->call.window_min[d] = (int32_t)(p->window[d].lo - p->shift[d]);
        h->call.window_extent[d] = (int32_t)(p->window[d].hi - p->window[d].lo + 1);
    }
    if (t->window >= 0 && !t->residue)
        h->call.keyimForType = &h->stage;
    else
        h->call.stage = &h->stage;
}

int tm_hand_over(const tm_entry *e, const tm_view v[TM_NARGS], tm_plan *p, uint64_t bytes, tm_handover *h) {
    const tm_view *mm = &v[TM_MM], *se = &v[TM_SE], *out = &v[TM_OUT];
    memset(&h->call, 0, sizeof h->call);
    h->call.wide = p->wide;
    describe(&h->out, h->out_dim, out->host, out->type, 3);
    describe(&h->mm, h->mm_dim, mm->host, mm->type, 2);
    describe(&h->se, h->se_dim, se->host, se->type, 3);
    for (int d = 0; d < 3; d++) {
        h->out_dim[d] = (halide_dimension_t){(int32_t)(0 - p->shift[d]), out->extent[d], out->stride[d], 0};
        h->se_dim[d] = (halide_dimension_t){se->min[d], se->extent[d], se->stride[d], 0};
    }
    for (int d = 0; d < 2; d++) h->mm_dim[d] = (halide_dimension_t){mm->min[d], mm->extent[d], mm->stride[d], 0};
    describe_image(e, &v[TM_IM], p, h);
    h->call.keyimForType = &h->im;
    h->call.minmax = &h->mm;
    h->call.strel = &h->se;
    h->call.out = &h->out;
    window_over(&h->call, &h->im);
    if (!tm_traits_of(e->op)->stage) return 0;
    const int status = describe_stage(e, v, p, bytes, h);
    if (status == 0) lay_out_stages(e, p, h);
    return status;
}

void tm_hand_walk(const tm_entry *e, const tm_view v[TM_NARGS], const tm_plan *p, void *block, tm_handover *h) {
    const tm_traits *t = tm_traits_of(e->op);
    /* The walk is chosen for the element the pipeline gets. */
    tm_view walked[TM_NARGS];
    memcpy(walked, v, sizeof walked);
    if ((h->compact = tm_compact_element(e, v, p, &walked[TM_SE]))) {
        h->se.host = h->compact;
        for (int d = 0; d < 3; d++)
            h->se_dim[d] = (halide_dimension_t){0, walked[TM_SE].extent[d], walked[TM_SE].stride[d], 0};
    }
    /* A call that reads no sample of the image (it stands for all of it as
     * one sample placed aside) or none of opening's intermediate (an empty
     * window) is walked directly: its band walks would copy rows of an
     * empty domain, whose bounds the pipeline cannot size. */
    bool degenerate = p->image_dummy;
    for (int d = 0; d < 3 && t->stage; d++) degenerate |= p->window[d].hi < p->window[d].lo && t->window >= 0;
    tm_plan_walk(e, walked, p->wide && !degenerate, t->stage ? h->stage_dim[0].extent : 0, &h->im, &h->walk);
    /* A slab is no deeper than any stage it walks (the last one moves
     * back to end on the stage's last plane). */
    int32_t slab = h->walk.slab > 0 ? h->walk.slab : 1;
    if (t->stage && slab > h->stage_dim[2].extent) slab = h->stage_dim[2].extent > 0 ? h->stage_dim[2].extent : 1;
    /* Both stages take the one walk. */
    tm_call *const calls[2] = {&h->call, t->stage ? &h->first : NULL};
    for (int i = 0; i < 2 && calls[i]; i++) {
        tm_call *c = calls[i];
        c->walk = h->walk.walk;
        c->tap_runs = &h->walk.buffer;
        c->longest_run = h->walk.longest;
        c->exact_lengths = h->walk.exact;
        c->one_read_runs = h->walk.one_read;
        c->slab_planes = slab;
    }
    h->stage.host = (uint8_t *)block;
}

void tm_hand_release(tm_handover *h) {
    tm_walk_plan_release(&h->walk);
    free(h->compact);
    h->compact = NULL;
}
