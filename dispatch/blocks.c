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
 * pool, and the next band of the call takes the smallest one that fits,
 * from those its own thread freed first: the block last freed by a thread
 * is also the one in its caches.
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
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

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
/* What the pool may hold while calls run: blocks in each shard (below),
 * bytes in all. */
#define TM_KEEP_MAX_BLOCKS 64
#define TM_KEEP_BUSY ((size_t)512 << 20)
/* What it keeps when no call runs, unless the environment says otherwise. */
#define TM_KEEP_IDLE ((size_t)256 << 20)

typedef struct {
    size_t capacity;
    void *base;
} header;

/* A kept block, with its size (read here rather than from the block's
 * header, so that a search touches no block) and the order it was freed in
 * among all kept blocks. */
typedef struct {
    void *p;
    size_t capacity;
    uint64_t freed;
} kept_block;

/* The pool is cut into shards, one per thread (threads beyond TM_SHARDS
 * share them), each behind its own lock.  A thread takes from its own
 * shard first: the blocks its last bands freed, still in its own core's
 * caches; another thread's blocks would come through the shared cache, or
 * from the other core's.  With one pool behind one lock, two threads
 * handing blocks back and forth made a uint8 256^3 erosion by a 3 x 3 x 3
 * cube (thousands of bands of a few KiB to 100 KiB a call) slower on two
 * threads than on one (4.6-4.8 ms against 4.0-4.2, a tenth of it in the
 * lock; with shards 2.5-2.9), and left the box walks by segments, whose
 * bands keep 1-4 MiB each, at 1.1-1.4 times their one-thread speed on two
 * (4096^2 uint8 15 x 15 square 3.3-3.5 ms, with shards 2.0-2.3).  Only
 * where its own shard has no block that fits does a thread look in the
 * others'.  Nothing written at every free is shared between shards
 * (order_of_free): otherwise rows narrower than a block, thousands of bands
 * a call, stay at 1.4-1.5 times their one-thread speed on two threads. */
#define TM_SHARDS 16
_Static_assert(TM_SHARDS <= 16, "order_of_free keeps the shard in 4 bits");

typedef struct {
    _Alignas(128) pthread_mutex_t lock;
    kept_block blocks[TM_KEEP_MAX_BLOCKS]; /* in no order: `freed` orders them */
    /* Written under the lock, read by other threads without it: a
     * thread looks into another shard only where it holds blocks. */
    atomic_int count;
    size_t bytes;  /* the blocks' bytes */
    size_t credit; /* the part of the pool's bound it holds (reserve) */
    uint32_t frees;
} shard;

static shard shards[TM_SHARDS] = {
#define TM_SHARD_INIT {.lock = PTHREAD_MUTEX_INITIALIZER}
    TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT,
    TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT,
    TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT, TM_SHARD_INIT,
#undef TM_SHARD_INIT
};

/* The calls running.  A block is kept only by a thread that holds its
 * shard's lock and sees a call running; the last call to leave counts
 * itself out before it locks the shards to cut them back, so no block
 * slips in behind it. */
static _Alignas(128) atomic_int calls_running;
/* What the pool keeps while calls run stays within TM_KEEP_BUSY through
 * credit: a shard keeps blocks within the part of the bound it holds, and
 * takes more from `reserved` (the credit of all shards) in steps of
 * TM_CREDIT_STEP, or gives it back, only now and then.  A count of the
 * pool's bytes updated at every free, or a sum of the shards' counts read
 * at every free, passes a line between the cores each time: with one shard
 * holding a large block kept from an earlier call, rows 48 wide stayed at
 * 1.4 times their one-thread speed on two threads, against 1.9 without it. */
#define TM_CREDIT_STEP ((size_t)4 << 20)
static _Alignas(128) atomic_size_t reserved;
/* Serialises the cuts of every shard at once (leave, drop, a failed
 * allocation), which lock the shards one after the other. */
static pthread_mutex_t cut_lock = PTHREAD_MUTEX_INITIALIZER;

static _Thread_local int own_shard = -1;
static atomic_uint next_shard;

static shard *shard_of_thread(void) {
    if (own_shard < 0) own_shard = (int)(atomic_fetch_add(&next_shard, 1) % TM_SHARDS);
    return &shards[own_shard];
}

static int count_of(shard *s) { return atomic_load_explicit(&s->count, memory_order_relaxed); }

static header *header_of(void *p) { return (header *)((char *)p - TM_ALIGN); }

static void release(void *p) { free(header_of(p)->base); }

/* Raises the credit of a locked shard to at least `need` bytes, a step
 * more where the bound leaves room; returns whether it could. */
static int reserve(shard *s, size_t need) {
    if (need <= s->credit) return 1;
    const size_t least = need - s->credit;
    const size_t step = (least + TM_CREDIT_STEP - 1) / TM_CREDIT_STEP * TM_CREDIT_STEP;
    size_t r = atomic_load_explicit(&reserved, memory_order_relaxed);
    for (;;) {
        const size_t more = r + step <= TM_KEEP_BUSY ? step : least;
        if (r + more > TM_KEEP_BUSY) return 0;
        if (atomic_compare_exchange_weak_explicit(&reserved, &r, r + more, memory_order_relaxed,
                                                  memory_order_relaxed)) {
            s->credit += more;
            return 1;
        }
    }
}

/* Gives back the credit of a locked shard beyond `keep` bytes. */
static void return_credit(shard *s, size_t keep) {
    if (s->credit <= keep) return;
    atomic_fetch_sub_explicit(&reserved, s->credit - keep, memory_order_relaxed);
    s->credit = keep;
}

/* Removes block i of a locked shard (the last block takes its place);
 * returns it. */
static void *remove_at(shard *s, int i) {
    void *p = s->blocks[i].p;
    const int n = count_of(s);
    s->bytes -= s->blocks[i].capacity;
    s->blocks[i] = s->blocks[n - 1];
    atomic_store_explicit(&s->count, n - 1, memory_order_relaxed);
    return p;
}

/* The order of a free, for the cut between calls, which keeps the blocks
 * freed last: the millisecond, then the shard's own count, then the shard
 * (frees of two shards in the same millisecond in no particular order).  A
 * count shared by all shards cost a narrow-row erosion 5-10 % of its time
 * on one thread (a locked instruction at every free) and, counted without
 * one, about a tenth on two (the count's line passed between the cores at
 * every free). */
static uint64_t order_of_free(shard *s) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &t);
    const uint64_t ms = (uint64_t)t.tv_sec * 1000u + (uint64_t)t.tv_nsec / 1000000u;
    return ms << 24 | (uint64_t)(s->frees++ & 0xfffffu) << 4 | (uint64_t)(s - shards);
}

/* Removes the block of a locked, non-empty shard freed first. */
static void *remove_oldest(shard *s) {
    int oldest = 0;
    for (int i = 1; i < count_of(s); i++)
        if (s->blocks[i].freed < s->blocks[oldest].freed) oldest = i;
    return remove_at(s, oldest);
}

/* The smallest block of a locked shard of at least `size` bytes that is
 * not wastefully larger (TM_KEEP_SLACK), taken out; NULL when none is. */
static void *take_from(shard *s, size_t size) {
    int best = -1;
    for (int i = count_of(s) - 1; i >= 0; i--) {
        const size_t c = s->blocks[i].capacity;
        const int fits = c >= size && (c / TM_KEEP_SLACK <= size || c == TM_SMALL_STEP);
        if (fits && (best < 0 || c < s->blocks[best].capacity)) best = i;
    }
    return best >= 0 ? remove_at(s, best) : NULL;
}

/* A kept block for `size` bytes, from the thread's own shard first. */
static void *take_kept(size_t size) {
    if (!TM_KEEP_BLOCKS) return NULL;
    shard *own = shard_of_thread();
    for (int k = 0; k < TM_SHARDS; k++) {
        shard *s = &shards[(own - shards + k) % TM_SHARDS];
        if (count_of(s) == 0) continue;
        pthread_mutex_lock(&s->lock);
        void *p = take_from(s, size);
        /* The credit stays for the block's return, within two steps. */
        if (s->credit > s->bytes + 2 * TM_CREDIT_STEP) return_credit(s, s->bytes + TM_CREDIT_STEP);
        pthread_mutex_unlock(&s->lock);
        if (p) return p;
    }
    return NULL;
}

/* Puts a freed block in the thread's shard if a call is running and the
 * block is worth keeping; returns whether it did.  The shard's oldest
 * blocks give way where it is full or the pool would pass its bound. */
static int keep(void *p) {
    const size_t c = header_of(p)->capacity;
    if (!TM_KEEP_BLOCKS || c > TM_KEEP_BUSY) return 0;
    shard *s = shard_of_thread();
    void *dropped[TM_KEEP_MAX_BLOCKS];
    int ndropped = 0;
    pthread_mutex_lock(&s->lock);
    int kept = atomic_load(&calls_running) > 0;
    if (kept) {
        if (count_of(s) == TM_KEEP_MAX_BLOCKS) dropped[ndropped++] = remove_oldest(s);
        /* The shard's own blocks give way first; other threads' shards
         * may still hold the bound. */
        while (!(kept = reserve(s, s->bytes + c)) && count_of(s) > 0) dropped[ndropped++] = remove_oldest(s);
    }
    if (kept) {
        const int n = count_of(s);
        s->blocks[n] = (kept_block){p, c, order_of_free(s)};
        s->bytes += c;
        atomic_store_explicit(&s->count, n + 1, memory_order_relaxed);
    }
    pthread_mutex_unlock(&s->lock);
    for (int i = 0; i < ndropped; i++) release(dropped[i]);
    return kept;
}

static int newest_first(const void *a, const void *b) {
    const uint64_t x = *(const uint64_t *)a, y = *(const uint64_t *)b;
    return x < y ? 1 : x > y ? -1 : 0;
}

/* Cuts every shard back to the blocks freed last, up to `keep` bytes in
 * all: the newest blocks whose sizes fit together, as one pool would. */
static void trim_pool(size_t keep) {
    static void *dropped[TM_SHARDS * TM_KEEP_MAX_BLOCKS];
    static uint64_t order[TM_SHARDS * TM_KEEP_MAX_BLOCKS][2];
    pthread_mutex_lock(&cut_lock);
    for (int k = 0; k < TM_SHARDS; k++) pthread_mutex_lock(&shards[k].lock);
    int n = 0;
    for (int k = 0; k < TM_SHARDS; k++)
        for (int i = 0; i < count_of(&shards[k]); i++) {
            order[n][0] = shards[k].blocks[i].freed;
            order[n][1] = shards[k].blocks[i].capacity;
            n++;
        }
    qsort(order, (size_t)n, sizeof order[0], newest_first);
    /* The oldest block that stays: everything freed before it goes. */
    uint64_t oldest_kept = UINT64_MAX;
    size_t bytes = 0;
    for (int i = 0; i < n && bytes + order[i][1] <= keep; i++) {
        bytes += order[i][1];
        oldest_kept = order[i][0];
    }
    int ndropped = 0;
    for (int k = 0; k < TM_SHARDS; k++) {
        shard *s = &shards[k];
        for (int i = 0; i < count_of(s);)
            if (s->blocks[i].freed < oldest_kept) dropped[ndropped++] = remove_at(s, i);
            else i++;
        return_credit(s, s->bytes);
    }
    for (int k = TM_SHARDS - 1; k >= 0; k--) pthread_mutex_unlock(&shards[k].lock);
    for (int i = 0; i < ndropped; i++) release(dropped[i]);
    pthread_mutex_unlock(&cut_lock);
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
        trim_pool(0);
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
    atomic_fetch_add(&calls_running, 1);
}

void tm_blocks_leave(void) {
    if (atomic_fetch_sub(&calls_running, 1) == 1) trim_pool(keep_idle);
}

/* Also when the library is unloaded, so that a host that loads and unloads
 * it loses nothing. */
__attribute__((destructor)) void tm_blocks_drop(void) {
    if (atomic_load(&calls_running) == 0) trim_pool(0);
}
