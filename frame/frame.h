/* The frame that stands around every pipeline: what an export knows about
 * itself, and the one function that runs the frame for it. */
#ifndef TM_FRAME_H
#define TM_FRAME_H

#include <stdint.h>

#include "HalideRuntime.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*tm_pipeline_fn)(halide_buffer_t *keyimForType, halide_buffer_t *minmax,
                              halide_buffer_t *strel, halide_buffer_t *out);
/* A two-stage pipeline also takes its intermediate, named after its stage. */
typedef int (*tm_staged_fn)(halide_buffer_t *keyimForType, halide_buffer_t *minmax,
                            halide_buffer_t *strel, halide_buffer_t *out, halide_buffer_t *stage);

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
    tm_pipeline_fn pipeline;  /* one-stage operators */
    tm_staged_fn staged;      /* two-stage operators */
    const char *stage;        /* name of the intermediate stage, or NULL */
} tm_entry;

/* Coordinate sums wrap as 32-bit arithmetic does; done unsigned so that
 * C never sees a signed overflow. */
static inline int32_t tm_add(int32_t a, int32_t b) { return (int32_t)((uint32_t)a + (uint32_t)b); }
static inline int32_t tm_sub(int32_t a, int32_t b) { return (int32_t)((uint32_t)a - (uint32_t)b); }
static inline int32_t tm_min(int32_t a, int32_t b) { return a < b ? a : b; }
static inline int32_t tm_max(int32_t a, int32_t b) { return a > b ? a : b; }

/* The centre of the structuring element in one dimension, through float32:
 * beyond 2^24 the rounding of that conversion is part of the result. */
int32_t tm_centre(int32_t extent);

/* Runs the entry's pipeline on descriptors that passed every check (for a
 * two-stage operator: sizes, allocates and releases the intermediate). */
int tm_run_pipeline(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax,
                    halide_buffer_t *strel, halide_buffer_t *out);

int tm_frame(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax,
             halide_buffer_t *strel, halide_buffer_t *out);

#ifdef __cplusplus
}
#endif

#endif
