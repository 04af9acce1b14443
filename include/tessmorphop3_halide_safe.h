/*
 * tessmorphop3_halide_safe.h: the library's operators for hosts that want a
 * refused call back as a status and a message, never as the end of the
 * process.
 *
 * libtessmorphop3_halide_safe carries its own copy of the pipelines and
 * of their runtime, with an error handler that returns, and exports only the
 * functions below (all named tms_*): it can sit in one process beside
 * libtessmorphop3_halide, whose exports keep their aborting handler.  Calls
 * compute exactly what the export of the same operator, type and level
 * computes, through the same checks, in the same order, with the same
 * statuses and words; the descriptors are those of tessmorphop3_halide.h.
 *
 *   tms_report r;
 *   int status = tms_imopen(TMS_uint8, TMS_BEST, &image, &pads, &mask, &out, &r);
 *   if (status != 0) fprintf(stderr, "refused (%d): %s\n", status, r.message);
 *
 * Every call takes the element type and the level as arguments; TMS_BEST is
 * the highest level this processor has, as the library's table of levels
 * defines it.  The message of a refusal is written to the caller's report
 * (when not NULL), so calls from several threads never share one.
 */
#ifndef TESSMORPHOP3_HALIDE_SAFE_H
#define TESSMORPHOP3_HALIDE_SAFE_H

#include "tessmorphop3_halide.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Element types, operators and levels, named as in the exports
 * (TMS_uint8, TMS_imopen, TMS_avx2), in the order of the library's list. */
typedef enum tms_type {
#define TMS_X(word, code, bits, bytes, ctype) TMS_##word,
    TESSMORPHOP3_HALIDE_TYPES(TMS_X)
#undef TMS_X
    TMS_TYPE_COUNT
} tms_type;

typedef enum tms_operator {
#define TMS_X(name, output) TMS_##name,
    TESSMORPHOP3_HALIDE_OPERATORS(TMS_X)
#undef TMS_X
    TMS_OPERATOR_COUNT
} tms_operator;

typedef enum tms_level {
    TMS_BEST = -1, /* the highest level this processor has */
#define TMS_X(word) TMS_##word,
    TESSMORPHOP3_HALIDE_LEVELS(TMS_X)
#undef TMS_X
    TMS_LEVEL_COUNT
} tms_level;

/* Statuses of this library's own, for calls it does not hand to an
 * operator; the operators' statuses are 0 and Halide's error codes (-1 to
 * -50 or so), all above these. */
enum {
    TMS_BAD_ARGUMENT = -1001,     /* no such operator, type or level; a thread limit below 0 */
    TMS_LEVEL_NOT_ON_CPU = -1002, /* the processor lacks the level's instructions */
    TMS_NOT_A_QUERY = -1003       /* tms_bounds with no descriptor asking for its region */
};

/* Room for one message: the library's reports are built in blocks of this
 * size, so a message is never cut. */
#define TMS_MESSAGE_SIZE 1024

/* What a call reports: its status again, and the library's one line (no
 * "Error: " in front, no newline at the end); an empty line for status 0. */
typedef struct tms_report {
    int status;
    char message[TMS_MESSAGE_SIZE];
} tms_report;

/*
 * One operator on one call's descriptors, as the export
 * <operator>_<type>_<level> does it.  The image, the pads and the mask are
 * only read.  A descriptor with a null host (and device 0), which would
 * make the export a bounds query, is refused here (status -34, the report
 * of a buffer without host memory): use tms_bounds to ask for regions.
 * Returns 0 or a negative status, also in `report`.
 */
#define TMS_X(name, output)                                                                                      \
    int tms_##name(tms_type type, tms_level level, const halide_buffer_t *image, const halide_buffer_t *minmax, \
                   const halide_buffer_t *strel, halide_buffer_t *output, tms_report *report);
TESSMORPHOP3_HALIDE_OPERATORS(TMS_X)
#undef TMS_X

/* The same, with the operator as an argument. */
int tms_call(tms_operator op, tms_type type, tms_level level, const halide_buffer_t *image,
             const halide_buffer_t *minmax, const halide_buffer_t *strel, halide_buffer_t *out, tms_report *report);

/*
 * The bounds query: every descriptor with a null host and device 0 is
 * filled with the region the call needs (three dim entries behind each,
 * two for minmax, as always), and nothing runs.  At least one descriptor
 * must ask (TMS_NOT_A_QUERY otherwise, so that a query never turns into a
 * call).
 */
int tms_bounds(tms_operator op, tms_type type, tms_level level, halide_buffer_t *image, halide_buffer_t *minmax,
               halide_buffer_t *strel, halide_buffer_t *out, tms_report *report);

/* Whether this processor can run `level`, and the highest level it can. */
int tms_cpu_has(tms_level level);
tms_level tms_best_level(void);

/*
 * The most TBB threads the calls of this process use, the calling thread
 * included; 0 lifts the limit.  TBB's limit is process-wide: it holds for
 * every TBB user in the process, libtessmorphop3_halide's exports among
 * them.  Returns 0, or TMS_BAD_ARGUMENT for n < 0.  tms_max_threads gives
 * the limit set here (0 when none).
 */
int tms_set_max_threads(int n);
int tms_max_threads(void);

#ifdef __cplusplus
}
#endif

#endif
