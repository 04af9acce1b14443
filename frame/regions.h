/* What each stage of a call reads and writes: the reach of an element walk,
 * opening's window, the intermediate's box, the image's piece and the shift
 * into the pipeline's coordinates.  One module for the checks, the bounds
 * query and the run; all arithmetic is 64-bit.
 *
 * The definitions of a call are 32-bit and wrap: an output plane at
 * 2147483647 is followed by one at -2147483648.  Sums and differences wrap
 * alike whenever they are taken, so they are formed here exactly, and
 * tm_wrap32 folds a value into 32 bits just before it is compared or
 * clamped, which is where wrapping changes a result.  Everything a check
 * compares or a query answers is such a folded value. */
#ifndef TM_REGIONS_H
#define TM_REGIONS_H

#include <stdbool.h>
#include <stdint.h>

#include "entry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A closed interval; empty when hi < lo. */
typedef struct {
    int64_t lo, hi;
} tm_span;

/* The 32-bit value a definition's coordinate wraps to. */
int64_t tm_wrap32(int64_t v);

/* The centre of the structuring element in one dimension, through float32:
 * beyond 2^24 the rounding of that conversion is part of the result. */
int32_t tm_centre(int32_t extent);

/* The bound of opening's window in dimension d: the image's extent there,
 * in dimension 2 the extent of the image's dimension the operator names. */
int32_t tm_window_bound(const tm_traits *t, const tm_view *im, int d);

/* What a walk reads for the targets `t`, with an element of extent e
 * centred at c (exact; no test for empty ranges). */
tm_span tm_walk_back(tm_step w, tm_span t, int64_t e, int64_t c);

/* The region of every buffer a call needs as its definitions give it,
 * folded to 32 bits: r[buffer][dimension] = {first, last}.  The checks
 * compare these, and a bounds query answers them. */
typedef int32_t tm_required[TM_NARGS][3][2];
void tm_required_regions(const tm_entry *e, const tm_view v[TM_NARGS], tm_required r);

/* The intermediate's box by its defining formulas: origin and unsigned
 * extents, as the definitions wrap them. */
void tm_define_box(const tm_entry *e, const tm_view v[TM_NARGS], bool wide, int32_t box_min[3],
                   uint32_t box_extent[3]);

/* The report for a call that reaches outside a buffer in a way its checks
 * could not see (they wrap): the access report of the buffer concerned. */
typedef struct {
    bool set;
    char label[64];
    int d;
    int32_t lo, hi, vmin, vmax;
} tm_refusal;

/* Sets the refusal for the `touched` range against the valid [vmin, vmax];
 * returns the access report's code. */
int tm_refuse(tm_refusal *r, const char *label, int d, tm_span touched, int64_t vmin, int64_t vmax);

/* Everything decided for one call.  Coordinates q are measured from the
 * output's min in each dimension (true coordinate = output min + q, modulo
 * 2^32); the pipeline sees q - shift. */
typedef struct {
    bool wide, empty_output;
    /* The intermediate as defined: origin and unsigned extents. */
    int32_t box_min[3];
    uint32_t box_extent[3];
    /* In q: the intermediate as the pipeline computes it, the window, the
     * image's piece (or the lone sample placed where nothing reads). */
    tm_span stage[3], window[3], image[3];
    int64_t image_origin[3]; /* q of the image's first described sample */
    bool image_dummy;
    bool shifted_view; /* closing with e0 = 0: one chunk wider than the box */
    int64_t shift[3];  /* K: pipeline coordinate = q - K */
    tm_refusal why;
} tm_plan;

/* Every coordinate the pipeline forms stays this far inside 32 bits, so
 * that ramps, rounded-up chunk ends and one-past-the-end bounds fit. */
#define TM_MARGIN 4096
#define TM_LIMIT ((int64_t)INT32_MAX - TM_MARGIN)

/* Works out the plan in q, for a call whose box (two-stage) is defined;
 * returns 0, or non-zero with the refusal in p->why. */
int tm_make_plan(const tm_entry *e, const tm_view v[TM_NARGS], tm_plan *p);

#ifdef __cplusplus
}
#endif

#endif
