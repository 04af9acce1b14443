/* The element a one-stage call hands its pipeline when the caller's
 * element reaches far beyond everything the call can read (see
 * compact.c). */
#ifndef TM_COMPACT_H
#define TM_COMPACT_H

#include <stdint.h>

#include "entry.h"
#include "regions.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where an erosion or a dilation's element has many taps that read
 * nothing but the pad value, writes into *se a small dense element with
 * the same result, in storage the caller frees, and returns that storage;
 * otherwise (or without memory for it) returns NULL and leaves *se as the
 * caller's element.  `p` is the call's plan. */
uint8_t *tm_compact_element(const tm_entry *e, const tm_view v[TM_NARGS], const tm_plan *p, tm_view *se);

#ifdef __cplusplus
}
#endif

#endif
