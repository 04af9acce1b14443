// Every parallel loop of every pipeline comes here through the runtime's
// do-par-for slot: the planes and rows of a stage run on the process's TBB
// scheduler instead of Halide's own thread pool, which is never started.
#include "par_for.h"

#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

extern "C" int tm_do_par_for(void *user_context, halide_task_t task, int min, int size,
                             uint8_t *closure) {
    int32_t exit_status = 0;
    // An empty range, or one whose end wraps past INT32_MAX, runs nothing
    // and creates no TBB task.  The sum wraps as 32-bit arithmetic does.
    int32_t end = (int32_t)((uint32_t)min + (uint32_t)size);
    if (!(end > min) || size <= 0) return 0;

    tbb::parallel_for(
        min, end,
        [&](int i) {
            int r = halide_do_task(user_context, task, i, closure);
            // No iteration looks at another's status, none stops the range:
            // all run, and the last non-zero status stored wins.  A relaxed
            // store is a plain 32-bit store on x86-64; the return of
            // parallel_for publishes it to this thread.
            if (r != 0) __atomic_store_n(&exit_status, r, __ATOMIC_RELAXED);
        },
        tbb::auto_partitioner());
    return exit_status;
}
