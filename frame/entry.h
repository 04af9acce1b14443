/* What every module of the frame shares, and nothing else: an operator's
 * traits (read off frame/family.def), an export as the frame sees it, the
 * descriptors as read once at entry, and the call as the pipeline receives
 * it.  Types and the traits table only; the modules build on it in one
 * direction:
 *
 *   frame.c (checks, query) -> run.c (allocation, run) -> handover.c
 *     -> compact.c, walk_plan.c -> regions.c -> entry.h
 *
 * and frame.c reads regions.c for what the checks and the query compare. */
#ifndef TM_ENTRY_H
#define TM_ENTRY_H

#include <stddef.h>
#include <stdint.h>

#include "HalideRuntime.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Argument positions, as the exports take them. */
enum { TM_IM, TM_MM, TM_SE, TM_OUT, TM_NARGS };

typedef enum {
#define TM_OPERATOR(name, ...) TM_OP_##name,
#include "family.def"
    TM_OP_COUNT
} tm_operator;

/* One element walk, named as the pipelines name their stages: an erosion
 * reads x + r, a dilation x - r. */
typedef enum { TM_STEP_none, TM_STEP_imerode, TM_STEP_imdilate } tm_step;

/* One line of family.def's operators, as the frame uses it. */
typedef struct {
    const char *name, *output;
    const char *stage; /* the intermediate's name, or NULL: one stage */
    tm_step walk[2];   /* from image to output; walk[1] none for one stage */
    int8_t window;     /* -1, or the dimension of the image whose extent
                          bounds opening's window in dimension 2 */
    uint8_t residue;
    int32_t minmax_first, minmax_count;
} tm_traits;

static inline const tm_traits *tm_traits_of(tm_operator op) {
    static const tm_traits table[] = {
#define TM_OPERATOR(name, output, first, second, window, residue, mm_first, mm_count)                         \
    {#name, #output, TM_STEP_##second == TM_STEP_none ? NULL : #first, {TM_STEP_##first, TM_STEP_##second}, \
     window, residue, mm_first, mm_count},
#include "family.def"
    };
    return &table[op];
}

/* One run of a pipeline as the frame hands it over: the descriptors in the
 * pipeline's own coordinates (see run.c), the intermediate that closing's,
 * top-hat's and bottom-hat's second stage reads (NULL otherwise), and what
 * the frame decided for the call. */
typedef struct tm_call {
    halide_buffer_t *keyimForType, *minmax, *strel, *out, *stage;
    int wide; /* the image is wider than L: rows are cut into chunks */
    /* The window through which erosion and dilation read keyimForType
     * (opening's second stage its intermediate; top-hat its intermediate),
     * in the pipeline's coordinates; may be empty. */
    int32_t window_min[3], window_extent[3];
    /* The walk chosen for the call (stages/walks.h, see walk_plan.h),
     * and the mask's runs the band walks read. */
    int32_t walk;
    halide_buffer_t *tap_runs;
    int32_t longest_run;
    /* RUNS: the entries of exact run lengths in its table of folds, and
     * the runs at the head of the list that are one read each. */
    int32_t exact_lengths, one_read_runs;
    /* RUNS: the output planes a task walks in order, keeping the levels of
     * the source planes they read (at least 1). */
    int32_t slab_planes;
} tm_call;

/* Each export's adapter from a tm_call to its compiled pipeline. */
typedef int (*tm_run_fn)(const tm_call *c);

/* One export: its operator, element type and lane count, and the Halide
 * pipelines (compiled under internal names) that do the work: `run` the
 * one that computes the output (of a two-stage operator its second stage,
 * over the intermediate: for opening the dilation pipeline), `first` a two-stage operator's first stage, the erosion or
 * dilation pipeline of the same type and level computed into the
 * intermediate (NULL for one stage). */
typedef struct {
    tm_operator op;
    uint8_t code; /* element type as the caller declares it */
    uint8_t bits;
    int32_t bytes; /* storage of one element */
    int32_t lanes; /* L */
    tm_run_fn run, first;
} tm_entry;

/* What the frame reads of one descriptor, once, at entry. */
typedef struct {
    void *host;
    uint64_t device;
    struct halide_type_t type;
    int32_t min[3], extent[3], stride[3];
} tm_view;

#ifdef __cplusplus
}
#endif

#endif
