/* Which walk a call's stages take, read off the mask once per call (see
 * walk_plan.c).  Reads the regions module for the element's centre and
 * nothing of the checks. */
#ifndef TM_WALK_PLAN_H
#define TM_WALK_PLAN_H

#include <stdint.h>

#include "entry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* How the call's stages walk the mask: the walk chosen (one of
 * stages/walks.h), and the mask's runs of taps, described for the
 * pipeline: a row of the list for each run, its fields
 *   0, 1, 2, 3  the run's first r0, its length, its r1 and r2,
 *   4           RUNS: the entry of the table of folds that it reads,
 *   5           in row m, the length of the table's exact entry m (see
 *               `exact`).
 * The rows are in the walk's order, but for RUNS of integer types, whose
 * runs of one read come first (see walk_plan.c). */
#define TM_MAX_RUNS 4096
#define TM_RUN_FIELDS 6
#define TM_RUN_R0 0
#define TM_RUN_LENGTH 1
#define TM_RUN_R1 2
#define TM_RUN_R2 3
#define TM_RUN_ENTRY 4
#define TM_RUN_EXACT_LENGTH 5

/* (After the fields, which it checks against the pipelines' own.) */
#include "tm_lanes.h"

typedef struct {
    int32_t walk;
    int32_t count, longest;
    int32_t slab; /* RUNS: output planes a task walks in order (see walk_plan.c) */
    /* RUNS: the table's entries of exact run lengths, after its levels,
     * whether the runs read once go first, and how many they are. */
    int32_t exact, one_read_first, one_read;
    int32_t exact_length[TM_RUN_LEVELS];
    /* On the heap: up to TM_MAX_RUNS runs would be 96 KiB of the caller's
     * stack, more than some hosts give a thread. */
    int32_t (*runs)[TM_RUN_FIELDS];
    int32_t no_run[TM_RUN_FIELDS];
    halide_dimension_t dim[2];
    halide_buffer_t buffer;
} tm_walk_plan;

/* `wide`: the call may take a band walk (its image is wider than L, and it
 * reads something of the image and of any window); `stage_width`: the
 * intermediate's extent in dimension 0 as the pipeline computes it
 * (two-stage operators); `image`: the piece of the image the pipeline
 * reads, as handed over (NULL: a NaN may be anywhere). */
void tm_plan_walk(const tm_entry *e, const tm_view v[TM_NARGS], int wide, int32_t stage_width,
                  const halide_buffer_t *image, tm_walk_plan *p);
/* Releases what tm_plan_walk allocated. */
void tm_walk_plan_release(tm_walk_plan *p);

#ifdef __cplusplus
}
#endif

#endif
