/* The runtime's default allocator, replaced by one that keeps working
 * blocks between the bands of a call and, up to a bound, between calls.
 *
 * Every band allocates its rows (and their folds) when it starts and frees
 * them when it ends: hundreds of blocks of 0.1-10 MiB a call.  Blocks
 * of that size are fresh pages more often than not (the C allocator maps
 * them anew, or trims its heap after they are freed), and a stage then
 * spends more time on page faults and cold caches than on its samples:
 * measured, a 4096 x 4096 uint8 erosion by a 15 x 15 disk took 58 ms with
 * fresh blocks and 9.6 ms with reused ones.  So freed blocks go to a small
 * pool, and the next band of the call takes the smallest one that fits;
 * the block last freed by a thread is also the one in its caches.
 *
 * Small blocks are kept as well.  Narrow rows make short bands with
 * blocks of a few KiB, four or more of them a band, and thousands of bands
 * a call; from the C allocator each one costs a search of its bins and,
 * through aligned_alloc, a sliver cut off in front that lands in its
 * fastest bins, so that the next request of a KiB or more first empties
 * those bins (an atomic exchange for each).  Measured, a uint8 erosion by
 * a 15 x 15 square on 48 x 87381 spent 14 % of its time in the C
 * allocator, 9 % in that emptying alone.  Fresh blocks come from plain
 * malloc, aligned here, for the same reason.
 *
 * When the last running call returns, the pool is cut back to the blocks
 * freed last, up to TM_KEEP_IDLE bytes (or TM_KEEP_IDLE_MIB MiB from the
 * environment), which the next call takes first.  Fresh pages cost more
 * than the samples on many calls: a host making many small calls (dask
 * blocks, tiles, thin volumes) took, for a float32 15 x 15 x 5 box on a
 * 256 x 256 x 2 volume, 4.1 ms a call with every block given back and
 * 0.8 ms with 4 MiB kept (30862 page faults in 100 calls against 1225);
 * and a two-stage operator's intermediate, as large as the image, is
 * written once and read once, so that its page faults weigh as much as
 * either stage: a float32 opening of 4096^2 by a 3 x 3 square took 31 ms
 * a call with a fresh 64 MiB intermediate and 20 ms with the last one kept
 * (OpenCV: 19 ms), by a 5 x 5 disk 57-72 ms against 26.  The bound holds
 * the intermediate of a 4096 x 4096 float64 or 8192 x 8192 float32 image;
 * a host that wants its memory back sets a lower one.  (Handing the kept
 * pages to the kernel to take back when it needs them, MADV_FREE, made the
 * next write of every page cost about a fault on a virtual machine: the
 * uint8 opening by a 3 x 3 square took 8.2 ms against 4.1.)
 *
 * A request that malloc refuses first gives every kept block back and
 * asks again, so that the pool never makes a call fail.
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
 * carry their size and the C allocator's pointer in the bytes before the
 * caller's pointer. */
#define TM_ALIGN ((size_t)128)
/* Blocks are sized in steps of this below TM_LARGE and of TM_LARGE above,
 * so that the slightly different sizes of neighbouring tasks find each
 * other's blocks. */
#define TM_SMALL_STEP ((size_t)1 << 10)
#define TM_LARGE ((size_t)64 << 10)
/* A kept block serves a request of at least half its size; one of the
 * smallest step serves any request that fits in it, or every task's few
 * bytes would be a fresh block and crowd the large ones out of the pool. */
#define TM_KEEP_SLACK 2
/* What the pool may hold while calls run. */
#define TM_KEEP_MAX_BLOCKS 64
#define TM_KEEP_BUSY ((size_t)512 << 20)
/* What it keeps when no call runs, unless the environment says otherwise. */
#define TM_KEEP_IDLE ((size_t)256 << 20)

typedef struct {
    size_t capacity;
    void *base;
} header;

static pthread_mutex_t pool_lock = PTHREAD_MUTEX_INITIALIZER;
static void *pool[TM_KEEP_MAX_BLOCKS]; /* oldest first */
static int pool_count;
static size_t pool_bytes;
static int calls_running;

static header *header_of(void *p) { return (header *)((char *)p - TM_ALIGN); }

static size_t capacity_of(void *p) { return header_of(p)->capacity; }

static void release(void *p) { free(header_of(p)->base); }

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
 * larger (TM_KEEP_SLACK), taken out of the pool; NULL when none is. */
static void *take_kept(size_t size) {
    if (!TM_KEEP_BLOCKS) return NULL;
    pthread_mutex_lock(&pool_lock);
    int best = -1;
    for (int i = pool_count - 1; i >= 0; i--) {
        const size_t c = capacity_of(pool[i]);
        const int fits = c >= size && (c / TM_KEEP_SLACK <= size || c == TM_SMALL_STEP);
        if (fits && (best < 0 || c < capacity_of(pool[best]))) best = i;
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
    if (!TM_KEEP_BLOCKS || c > TM_KEEP_BUSY) return 0;
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
    const size_t step = size >= TM_LARGE ? TM_LARGE : TM_SMALL_STEP;
    const size_t capacity = (size + step - 1) / step * step;
    if (capacity < size || capacity > SIZE_MAX - 2 * TM_ALIGN) return NULL;
    char *base = (char *)malloc(capacity + 2 * TM_ALIGN);
    if (!base) {
        /* What the pool keeps must never be why a call fails: give all of
         * it back and ask once more. */
        pthread_mutex_lock(&pool_lock);
        trim_pool(0);
        pthread_mutex_unlock(&pool_lock);
        base = (char *)malloc(capacity + 2 * TM_ALIGN);
    }
    if (!base) return NULL;
    /* At least TM_ALIGN bytes in front for the header, and the block's
     * end still inside what malloc gave. */
    char *user = (char *)(((uintptr_t)base + 2 * TM_ALIGN - 1) & ~(uintptr_t)(TM_ALIGN - 1));
    header_of(user)->capacity = capacity;
    header_of(user)->base = base;
    return user;
}

void halide_default_free(void *user_context, void *p) {
    (void)user_context;
    if (p && !keep(p)) release(p);
}

static size_t keep_idle = TM_KEEP_IDLE;
static pthread_once_t keep_idle_once = PTHREAD_ONCE_INIT;

/* TM_KEEP_IDLE_MIB: a whole number of MiB (digits only), taken as at most
 * what the pool holds while calls run; anything else leaves the default. */
static void read_keep_idle(void) {
    const char *text = getenv("TM_KEEP_IDLE_MIB");
    if (!text || !*text) return;
    size_t mib = 0;
    for (const char *c = text; *c; c++) {
        if (*c < '0' || *c > '9') return;
        if (mib <= (TM_KEEP_BUSY >> 20)) mib = mib * 10 + (size_t)(*c - '0');
    }
    keep_idle = (mib < (TM_KEEP_BUSY >> 20) ? mib : (TM_KEEP_BUSY >> 20)) << 20;
}

void tm_blocks_enter(void) {
    pthread_once(&keep_idle_once, read_keep_idle);
    pthread_mutex_lock(&pool_lock);
    calls_running++;
    pthread_mutex_unlock(&pool_lock);
}

void tm_blocks_leave(void) {
    pthread_mutex_lock(&pool_lock);
    if (--calls_running == 0) trim_pool(keep_idle);
    pthread_mutex_unlock(&pool_lock);
}

/* Also when the library is unloaded, so that a host that loads and unloads
 * it loses nothing. */
__attribute__((destructor)) void tm_blocks_drop(void) {
    pthread_mutex_lock(&pool_lock);
    if (calls_running == 0) trim_pool(0);
    pthread_mutex_unlock(&pool_lock);
}
