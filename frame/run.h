/* The run of a call that passed every check: its plan, the intermediate's
 * one allocation, the hand-over and the pipeline (see run.c). */
#ifndef TM_RUN_H
#define TM_RUN_H

#include "entry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Runs the entry's pipeline on descriptors that passed every check (for a
 * two-stage operator: sizes, allocates and releases the intermediate). */
int tm_run_pipeline(const tm_entry *e, const tm_view v[TM_NARGS]);

#ifdef __cplusplus
}
#endif

#endif
