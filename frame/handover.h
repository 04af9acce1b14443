/* The hand-over: a planned call laid out as the pipeline takes it, its
 * descriptors moved into the pipeline's coordinates, with the walk chosen
 * for it (see handover.c). */
#ifndef TM_HANDOVER_H
#define TM_HANDOVER_H

#include <stdint.h>

#include "entry.h"
#include "compact.h"
#include "regions.h"
#include "walk_plan.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the pipelines are handed, and the storage their descriptors point
 * to: `call` computes the output, a two-stage operator's `first` its
 * intermediate. */
typedef struct {
    tm_call call, first;
    halide_buffer_t out, im, mm, se, stage;
    halide_dimension_t out_dim[3], im_dim[3], mm_dim[2], se_dim[3], stage_dim[3];
    tm_walk_plan walk;
    /* The element handed over in place of the caller's, or NULL. */
    uint8_t *compact;
} tm_handover;

/* Lays out the call for the pipeline; `bytes` is the size of the
 * intermediate's block (two-stage operators).  Returns non-zero with the
 * refusal in p->why where it cannot be laid out.  The intermediate's host is
 * filled in by tm_hand_walk. */
int tm_hand_over(const tm_entry *e, const tm_view v[TM_NARGS], tm_plan *p, uint64_t bytes, tm_handover *h);

/* Chooses the call's element (compact.h) and walk and attaches them, and
 * the intermediate's block: the first read of any sample, made only once
 * the call will run. */
void tm_hand_walk(const tm_entry *e, const tm_view v[TM_NARGS], const tm_plan *p, void *block, tm_handover *h);
/* Releases what tm_hand_walk allocated. */
void tm_hand_release(tm_handover *h);

#ifdef __cplusplus
}
#endif

#endif
