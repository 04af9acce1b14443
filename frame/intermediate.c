/* The last step of every frame: run the pipeline.  A two-stage operator's
 * intermediate is sized, checked, allocated and released here, by the entry
 * point alone, so that the block is exactly the stage's box plus one element
 * and the reports carry the stage's own name.  The pipeline gets it as a
 * fifth buffer, fills it in stage 1 and reads it in stage 2. */
#include "frame.h"

#include <string.h>


/* The box of the intermediate: origin (x0, lo1, lo2), extents X, Y, Z. */
typedef struct {
    int32_t min[3];
    int32_t extent[3];
} tm_box;

static tm_box intermediate_box(const tm_entry *e, const halide_buffer_t *im, const halide_buffer_t *se,
                               const halide_buffer_t *out) {
    tm_box b;
    const int wide = im->dim[0].extent > e->lanes;
    for (int d = 0; d < 3; d++) {
        const int32_t o = out->dim[d].min, n = out->dim[d].extent;
        const int32_t ext = se->dim[d].extent, c = tm_centre(ext);
        if (e->op == TM_IMOPEN || e->op == TM_IMTOPHAT) {
            /* Clipped to the window, which starts at 0; its bound in
             * dimension 2 is the image's extent in dimension 1 for imopen,
             * in dimension 2 for imtophat. */
            const int32_t bound = d < 2 ? im->dim[d].extent : im->dim[e->op == TM_IMOPEN ? 1 : 2].extent;
            const int32_t lo = tm_max(tm_min(tm_sub(tm_add(tm_add(o, c), 1), ext), tm_sub(bound, 1)), 0);
            const int32_t hi = tm_max(tm_sub(tm_min(tm_add(tm_add(o, n), c), bound), 1), 0);
            b.min[d] = lo;
            b.extent[d] = tm_add(tm_sub(hi, lo), 1);
        } else {
            /* Unclipped: the output's reach in every dimension. */
            b.min[d] = tm_sub(o, c);
            b.extent[d] = tm_sub(tm_add(n, ext), 1);
        }
    }
    /* In the wide branch stage 1 runs in whole chunks: a range shorter than
     * one chunk starts lower so that one chunk ends on its last sample. */
    if (wide && b.extent[0] < e->lanes) {
        b.min[0] = tm_sub(tm_add(b.min[0], b.extent[0]), e->lanes);
        b.extent[0] = e->lanes;
    }
    return b;
}

int tm_run_pipeline(const tm_entry *e, halide_buffer_t *im, halide_buffer_t *mm, halide_buffer_t *se,
                    halide_buffer_t *out) {
    if (!e->staged) return e->pipeline(im, mm, se, out);

    const tm_box box = intermediate_box(e, im, se, out);
    /* The size is tested on the full product of the unsigned extents; the
     * report carries its low 64 bits. */
    unsigned __int128 full = (unsigned __int128)(uint32_t)box.extent[0] * (uint32_t)box.extent[1];
    full *= (uint32_t)box.extent[2];
    full *= (uint32_t)e->bytes;
    const uint64_t bytes = (uint64_t)full;
    if ((full >> 64) != 0 || (bytes >> 63) != 0)
        return halide_error_buffer_allocation_too_large(NULL, e->stage, bytes, 0x7fffffffffffffffULL);

    void *block = halide_malloc(NULL, (size_t)(bytes + (uint64_t)e->bytes));
    if (!block) return halide_error_out_of_memory(NULL);

    halide_dimension_t dim[3];
    int32_t stride = 1;
    for (int d = 0; d < 3; d++) {
        dim[d].min = box.min[d];
        /* A range that is empty in some dimension (an empty output and an
         * element of extent 0 there) has nothing to compute; the size above
         * took it as the unsigned value it is. */
        dim[d].extent = tm_max(box.extent[d], 0);
        dim[d].stride = stride;
        dim[d].flags = 0;
        stride = (int32_t)((uint32_t)stride * (uint32_t)dim[d].extent);
    }
    halide_buffer_t stage;
    memset(&stage, 0, sizeof stage);
    stage.host = (uint8_t *)block;
    stage.type = out->type;
    stage.dimensions = 3;
    stage.dim = dim;

    const int status = e->staged(im, mm, se, out, &stage);
    halide_free(NULL, block);
    return status;
}
