/* The frame that stands around every pipeline: the one function each
 * export runs (see frame.c). */
#ifndef TM_FRAME_H
#define TM_FRAME_H

#include "HalideRuntime.h"
#include "entry.h"

#ifdef __cplusplus
extern "C" {
#endif

int tm_frame(const tm_entry *e, halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel,
             halide_buffer_t *out);

#ifdef __cplusplus
}
#endif

#endif
