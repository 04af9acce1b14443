/* The runtime's default allocator, replaced by one that keeps working
 * blocks between the bands of a call and, up to a bound, between calls.
 *
 * Every band allocates its rows (and their folds) when it starts and frees
 * them when it ends: hundreds of blocks of 0.1-10 MiB a call.  Blocks
 * of that size are fresh pages more often than not (the C allocator maps
 * them anew, or trims its heap after they are freed), and a stage then
 * spends more time on page faults and cold caches than on its samples:
 * measured, a 4096 x 4096 uint8 erosion by a 15 x 15 disk took 58 ms with
 * fresh blocks and 9.6 ms with reused ones.  So freed blocks of at least
 * TM_KEEP_MIN bytes go to a small pool, and the next band of the call takes
 * the smallest one that fits; the block last freed by a thread is also the
 * one in its caches.
 *
 * When the last running call returns, the pool is cut back to
 * TM_KEEP_IDLE bytes (the blocks freed last are kept), so that a host
 * making many small calls (dask blocks, tiles, thin volumes) does not take
 * fresh pages on every call: measured, a float32 15 x 15 x 5 box on a
 * 256 x 256 x 2 volume took 4.1 ms a call with every block given back and
 * 0.8 ms with 4 MiB kept (30862 page faults in 100 calls against 1225).
 * On large images the fresh blocks are a small part of a call's faults and
 * keeping them gains nothing measurable.  So at most TM_KEEP_IDLE bytes of
 * the library's working memory stay allocated between calls.
 *
 * Nothing else changes: a caller's own allocator (halide_set_custom_malloc)
 * replaces this one entirely, every block still comes from the C allocator
 * first, and a failed allocation is reported as before.  Under
 * AddressSanitizer blocks are never kept, so that a use after free is
 * seen. */
#include "blocks.h"

#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>

#include "HalideRuntime.h"

#if defined(__SANITIZE_ADDRESS__)
#define TM_KEEP_BLOCKS 0
#else
#define TM_KEEP_BLOCKS 1
#endif

/* Blocks are aligned to this (at least the runtime's own 64 bytes) and
 * carry their size in the bytes before the caller's pointer. */
#define TM_ALIGN ((size_t)128)
/* Smaller blocks are served warm by the C allocator's own free lists. */
#define TM_KEEP_MIN ((size_t)64 << 10)
/* A kept block serves a request of at least half its size. */
#define TM_KEEP_SLACK 2
/* What the pool may hold while calls run. */
#define TM_KEEP_MAX_BLOCKS 64
#define TM_KEEP_BUSY ((size_t)512 << 20)
/* What it keeps when no call runs. */
#define TM_KEEP_IDLE ((size_t)8 << 20)

typedef struct {
    size_t capacity;
} header;

static pthread_mutex_t pool_lock = PTHREAD_MUTEX_INITIALIZER;
static void *pool[TM_KEEP_MAX_BLOCKS]; /* oldest first */
static int pool_count;
static size_t pool_bytes;
static int calls_running;

static size_t capacity_of(void *p) { return ((header *)((char *)p - TM_ALIGN))->capacity; }

static void release(void *p) { free((char *)p - TM_ALIGN); }

/* Frees the oldest kept blocks until the pool holds at most `keep` bytes;
 * called with the lock held. */
static void trim_pool(size_t keep) {
    int drop = 0;
    while (drop < pool_count && pool_bytes > keep) pool_bytes -= capacity_of(pool[drop++]);
    for (int i = 0; i < drop; i++) release(pool[i]);
    for (int i = drop; i < pool_count; i++) pool[i - drop] = pool[i];
    pool_count -= drop;
}

/* The smallest kept block of at least `size` bytes that is not wastefully
 * larger, taken out of the pool; NULL when none is. */
static void *take_kept(size_t size) {
    if (!TM_KEEP_BLOCKS || size < TM_KEEP_MIN) return NULL;
    pthread_mutex_lock(&pool_lock);
    int best = -1;
    for (int i = pool_count - 1; i >= 0; i--) {
        const size_t c = capacity_of(pool[i]);
        if (c >= size && c / TM_KEEP_SLACK <= size && (best < 0 || c < capacity_of(pool[best]))) best = i;
    }
    void *p = NULL;
    if (best >= 0) {
        p = pool[best];
        pool_bytes -= capacity_of(p);
        for (int i = best + 1; i < pool_count; i++) pool[i - 1] = pool[i];
        pool_count--;
    }
    pthread_mutex_unlock(&pool_lock);
    return p;
}

/* Puts a freed block in the pool if a call is running and the block is
 * worth keeping; returns whether it did. */
static int keep(void *p) {
    const size_t c = capacity_of(p);
    if (!TM_KEEP_BLOCKS || c < TM_KEEP_MIN || c > TM_KEEP_BUSY) return 0;
    pthread_mutex_lock(&pool_lock);
    const int kept = calls_running > 0;
    if (kept) {
        if (pool_count == TM_KEEP_MAX_BLOCKS) trim_pool(pool_bytes - capacity_of(pool[0]));
        if (pool_bytes + c > TM_KEEP_BUSY) trim_pool(TM_KEEP_BUSY - c);
        pool[pool_count++] = p;
        pool_bytes += c;
    }
    pthread_mutex_unlock(&pool_lock);
    return kept;
}

void *halide_default_malloc(void *user_context, size_t size) {
    (void)user_context;
    void *p = take_kept(size);
    if (p) return p;
    /* Kept blocks are sized in steps of TM_KEEP_MIN, so that the slightly
     * different sizes of neighbouring tasks find each other's blocks. */
    size_t capacity = size;
    if (size >= TM_KEEP_MIN) capacity = (size + TM_KEEP_MIN - 1) / TM_KEEP_MIN * TM_KEEP_MIN;
    if (capacity < size || capacity > SIZE_MAX - TM_ALIGN) return NULL;
    char *base = (char *)aligned_alloc(TM_ALIGN, (capacity + TM_ALIGN + TM_ALIGN - 1) / TM_ALIGN * TM_ALIGN);
    if (!base) return NULL;
    ((header *)base)->capacity = capacity;
    return base + TM_ALIGN;
}

void halide_default_free(void *user_context, void *p) {
    (void)user_context;
    if (p && !keep(p)) release(p);
}

void tm_blocks_enter(void) {
    pthread_mutex_lock(&pool_lock);
    calls_running++;
    pthread_mutex_unlock(&pool_lock);
}

void tm_blocks_leave(void) {
    pthread_mutex_lock(&pool_lock);
    if (--calls_running == 0) trim_pool(TM_KEEP_IDLE);
    pthread_mutex_unlock(&pool_lock);
}

/* Also when the library is unloaded, so that a host that loads and unloads
 * it loses nothing. */
__attribute__((destructor)) void tm_blocks_drop(void) {
    pthread_mutex_lock(&pool_lock);
    if (calls_running == 0) trim_pool(0);
    pthread_mutex_unlock(&pool_lock);
}
