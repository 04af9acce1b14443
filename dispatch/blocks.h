/* The working blocks the runtime allocates for a call (blocks.c): the frame
 * brackets every run with these two, so that blocks kept for reuse while
 * calls run are cut back to a bound (256 MiB, or TM_KEEP_IDLE_MIB) when
 * none does. */
#ifndef TM_BLOCKS_H
#define TM_BLOCKS_H

#ifdef __cplusplus
extern "C" {
#endif

void tm_blocks_enter(void);
void tm_blocks_leave(void);
/* Gives every kept block back, unless a call runs. */
void tm_blocks_drop(void);

#ifdef __cplusplus
}
#endif

#endif
