/* The frame that stands around every pipeline: what an export knows about
 * itself, and the one function that runs the frame for it. */
#ifndef TM_FRAME_H
#define TM_FRAME_H

#include <stdint.h>

#include "HalideRuntime.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One run of a pipeline as the frame hands it over: the descriptors in the
 * pipeline's own coordinates (see plan.c), the intermediate of a two-stage
 * operator (NULL otherwise), and what the frame decided for the call. */
typedef struct {
    halide_buffer_t *keyimForType, *minmax, *strel, *out, *stage;
    int wide;  /* the image is wider than L: rows are cut into chunks */
    /* Opening's window, in the pipeline's coordinates; may be empty. */
    int32_t window_min[3], window_extent[3];
    /* The walk chosen for the call (stages/walks.h, see tm_plan_walk),
     * and the mask's runs the band walks read. */
    int32_t walk;
    halide_buffer_t *tap_runs;
    int32_t longest_run;
} tm_call;

/* Each export's adapter from a tm_call to its compiled pipeline. */
typedef int (*tm_run_fn)(const tm_call *c);

typedef enum {
    TM_IMERODE,
    TM_IMDILATE,
    TM_IMOPEN,
    TM_IMCLOSE,
    TM_IMTOPHAT,
    TM_IMBOTHAT
} tm_operator;

/* One export: its operator, element type and lane count, and the Halide
 * pipeline (compiled under an internal name) that does the work. */
typedef struct {
    tm_operator op;
    const char *output;  /* name of the output argument: "erode", ... */
    uint8_t code;        /* element type as the caller declares it */
    uint8_t bits;
    int32_t bytes;       /* storage of one element */
    int32_t lanes;       /* L */
    tm_run_fn run;
    const char *stage;  /* name of the intermediate stage, or NULL */
} tm_entry;

/* What the frame reads of one descriptor, once, at entry. */
typedef struct {
    void *host;
    uint64_t device;
    struct halide_type_t type;
    int32_t min[3], extent[3], stride[3];
} tm_view;

/* Coordinate sums wrap as 32-bit arithmetic does; done unsigned so that
 * C never sees a signed overflow. */
static inline int32_t tm_add(int32_t a, int32_t b) { return (int32_t)((uint32_t)a + (uint32_t)b); }
static inline int32_t tm_sub(int32_t a, int32_t b) { return (int32_t)((uint32_t)a - (uint32_t)b); }
static inline int32_t tm_min(int32_t a, int32_t b) { return a < b ? a : b; }
static inline int32_t tm_max(int32_t a, int32_t b) { return a > b ? a : b; }

/* The centre of the structuring element in one dimension, through float32:
 * beyond 2^24 the rounding of that conversion is part of the result. */
int32_t tm_centre(int32_t extent);

/* How the call's stages walk the mask (walk_plan.c): the walk chosen (one
 * of stages/walks.h), and the mask's runs of taps in the walk's order
 * (first r0, length, r1, r2), described for the pipeline. */
#define TM_MAX_RUNS 4096
#define TM_RUN_FIELDS 4
typedef struct {
    int32_t walk;
    int32_t count, longest;
    /* On the heap: up to TM_MAX_RUNS runs would be 64 KiB of the caller's
     * stack, more than some hosts give a thread. */
    int32_t (*runs)[TM_RUN_FIELDS];
    int32_t no_run[TM_RUN_FIELDS];
    halide_dimension_t dim[2];
    halide_buffer_t buffer;
} tm_walk_plan;

/* `stage_width`: the intermediate's extent in dimension 0 as the pipeline
 * computes it (two-stage operators). */
void tm_plan_walk(const tm_entry *e, const tm_view v[4], int wide, int32_t stage_width, tm_walk_plan *p);
/* Releases what tm_plan_walk allocated. */
void tm_walk_plan_release(tm_walk_plan *p);

/* Runs the entry's pipeline on descriptors that passed every check (for a
 * two-stage operator: sizes, allocates and releases the intermediate).
 * The views are indexed image, minmax, strel, output. */
int tm_run_pipeline(const tm_entry *e, const tm_view v[4]);

int tm_frame(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax,
             halide_buffer_t *strel, halide_buffer_t *out);

#ifdef __cplusplus
}
#endif

#endif
