/* The last step of every frame: decide everything the pipeline relies on,
 * then run it.
 *
 * The intermediate of a two-stage operator is sized from its box, as
 * unsigned 32-bit extents in a full 64-bit product, checked, allocated (box
 * plus one element) and released here, by the entry point alone.  A call
 * the plan or the hand-over refuses is reported only after that
 * allocation, as every call with that box reports its size first. */
#include "run.h"

#include <stdbool.h>
#include <string.h>
#include <sys/mman.h>

#include "blocks.h"
#include "handover.h"
#include "regions.h"

/* A large intermediate is fresh memory on every call: the allocator maps it
 * anew and the first stage then takes a page fault on every 4 KiB page it
 * writes, which for a block of tens of MiB costs as much as the stage itself
 * (measured: 64 MiB, about 38 ms of faults; with huge pages about 8 ms).  So
 * the whole 2 MiB pages inside the block are offered to the kernel for huge
 * pages before the first write.  It is advice only: no sample, size or
 * address changes, and where the kernel declines nothing does. */
static void advise_huge_pages(void *block, uint64_t bytes) {
    const uintptr_t huge = (uintptr_t)2 << 20;
    if (bytes < 2 * huge) return;
    const uintptr_t first = ((uintptr_t)block + huge - 1) & ~(huge - 1);
    const uintptr_t end = ((uintptr_t)block + (uintptr_t)bytes) & ~(huge - 1);
    if (end > first) (void)madvise((void *)first, end - first, MADV_HUGEPAGE);
}

/* The intermediate's box and its size in bytes; non-zero with the report
 * made where the size is too large to allocate.  The size is tested on the
 * full product of the unsigned extents; the report carries its low 64
 * bits. */
static int size_intermediate(const tm_entry *e, const tm_view v[TM_NARGS], tm_plan *p, uint64_t *bytes) {
    tm_define_box(e, v, p->wide, p->box_min, p->box_extent);
    unsigned __int128 full = (unsigned __int128)p->box_extent[0] * p->box_extent[1];
    full *= p->box_extent[2];
    full *= (uint32_t)e->bytes;
    *bytes = (uint64_t)full;
    if ((full >> 64) != 0 || (*bytes >> 63) != 0)
        return halide_error_buffer_allocation_too_large(NULL, tm_traits_of(e->op)->stage, *bytes, 0x7fffffffffffffffULL);
    return 0;
}

int tm_run_pipeline(const tm_entry *e, const tm_view v[TM_NARGS]) {
    const bool two_stage = tm_traits_of(e->op)->stage != NULL;
    tm_plan p;
    memset(&p, 0, sizeof p);
    p.wide = v[TM_IM].extent[0] > e->lanes;
    for (int d = 0; d < 3; d++) p.empty_output |= v[TM_OUT].extent[d] == 0;
    uint64_t bytes = 0;
    if (two_stage) {
        const int status = size_intermediate(e, v, &p, &bytes);
        if (status) return status;
    }

    /* An output without samples has nothing to compute; a two-stage
     * operator still makes its one allocation. */
    tm_handover h;
    const bool runs = !p.empty_output && tm_make_plan(e, v, &p) == 0 && tm_hand_over(e, v, &p, bytes, &h) == 0;

    tm_blocks_enter();
    void *block = NULL;
    if (two_stage) {
        block = halide_malloc(NULL, (size_t)(bytes + (uint64_t)e->bytes));
        if (!block) {
            tm_blocks_leave();
            return halide_error_out_of_memory(NULL);
        }
    }
    int status = 0;
    if (p.why.set) {
        status = halide_error_access_out_of_bounds(NULL, p.why.label, p.why.d, p.why.lo, p.why.hi, p.why.vmin,
                                                   p.why.vmax);
    } else if (runs) {
        tm_hand_walk(e, v, &p, block, &h);
        advise_huge_pages(block, bytes);
        /* The first stage fills the whole intermediate before the second
         * reads any of it; a failed first stage skips the second. */
        if (e->first) status = e->first(&h.first);
        if (status == 0) status = e->run(&h.call);
        tm_hand_release(&h);
    }
    /* The runtime's free takes no null pointer. */
    if (block) halide_free(NULL, block);
    tm_blocks_leave();
    return status;
}
