/* The library's replacement of the Halide runtime's parallel loop. */
#ifndef TM_PAR_FOR_H
#define TM_PAR_FOR_H

#include <stdint.h>

#include "HalideRuntime.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Runs task(user_context, i, closure) for every i in [min, min + size) on
 * TBB, waits for all of them and returns 0 or the non-zero status of one of
 * the iterations that failed.  Every iteration runs, also after a failure. */
int tm_do_par_for(void *user_context, halide_task_t task, int min, int size, uint8_t *closure);

#ifdef __cplusplus
}
#endif

#endif
