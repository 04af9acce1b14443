/* Which walk a call's stages take, read off the mask once per call.
 *
 * The pipelines can reach the samples of the walk two ways: directly over
 * the padded source (the only way on a narrow image), or by band walks,
 * which first write out the source rows a band of output rows reads, pad
 * included, and then walk those plain rows in blocks of chunks (see
 * stages/walk_schedule.h).  For a band walk the frame lists the mask's taps
 * as runs along dimension 0, in the walk's order, so that no task tests a
 * mask byte; a mask whose bytes are all 1 over its whole box goes through
 * the box walk, which folds rows and planes separately.
 *
 * A band walk needs rows at least one chunk wide (every stage of the call;
 * rows narrower than a block walk blocks of one chunk), and its rows are
 * held per band task, so a mask with a very long reach across rows or
 * planes keeps the direct walk, as does a mask with more runs than the list
 * holds. */
#include "frame.h"

#include <stdlib.h>
#include <string.h>

#include "tm_lanes.h"
#include "walks.h"

enum { IM, MM, SE, OUT };

/* Above this many bytes of rows per band task the direct walk is kept. */
#define TM_MAX_BAND_BYTES ((int64_t)64 << 20)
/* Floating boxes of at most this many taps are walked by taps. */
#define TM_FLOAT_TAPS_BEFORE_FOLD 9

static int64_t max64(int64_t a, int64_t b) { return a > b ? a : b; }

/* Counts the mask's runs of taps along dimension 0 and, where `runs` is
 * given, lists them (first r0, length, r1, r2); clears *full if some byte of
 * the box is not a tap. */
static int64_t scan_runs(const tm_view *se, const int64_t ext[3], const int64_t c[3], int32_t (*runs)[TM_RUN_FIELDS],
                         int *full) {
    const uint8_t *bytes = (const uint8_t *)se->host;
    int64_t count = 0;
    for (int64_t k2 = 0; k2 < ext[2]; k2++)
        for (int64_t k1 = 0; k1 < ext[1]; k1++) {
            const uint8_t *row = bytes + k1 * se->stride[1] + k2 * se->stride[2];
            for (int64_t k0 = 0; k0 < ext[0];) {
                if (row[k0 * se->stride[0]] != 1) {
                    *full = 0;
                    k0++;
                    continue;
                }
                const int64_t first = k0;
                while (k0 < ext[0] && row[k0 * se->stride[0]] == 1) k0++;
                if (runs) {
                    runs[count][0] = (int32_t)(first - c[0]);
                    runs[count][1] = (int32_t)(k0 - first);
                    runs[count][2] = (int32_t)(k1 - c[1]);
                    runs[count][3] = (int32_t)(k2 - c[2]);
                }
                count++;
            }
        }
    return count;
}

void tm_walk_plan_release(tm_walk_plan *p) {
    free(p->runs);
    p->runs = NULL;
}

void tm_plan_walk(const tm_entry *e, const tm_view v[4], int wide, int32_t stage_width, tm_walk_plan *p) {
    const tm_view *se = &v[SE];
    memset(p, 0, sizeof *p);
    /* The pipeline reads the list even when it walks directly: one dummy run. */
    p->dim[0] = (halide_dimension_t){0, TM_RUN_FIELDS, 1, 0};
    p->dim[1] = (halide_dimension_t){0, 0, TM_RUN_FIELDS, 0};
    memset(&p->buffer, 0, sizeof p->buffer);
    p->buffer.host = (uint8_t *)p->no_run;
    p->buffer.type = (struct halide_type_t){halide_type_int, 32, 1};
    p->buffer.dimensions = 2;
    p->buffer.dim = p->dim;

    /* Rows narrower than a block walk blocks of one chunk (the walks of
     * runs only, below); rows narrower than one chunk have no band walk. */
    const int64_t block = (int64_t)TM_BLOCK_CHUNKS * e->lanes;
    if (!wide || v[OUT].extent[0] < e->lanes || (e->stage && stage_width < e->lanes)) return;
    int64_t ext[3], c[3];
    for (int d = 0; d < 3; d++) {
        ext[d] = se->extent[d];
        c[d] = tm_centre(se->extent[d]);
        if (ext[d] <= 0) return;
    }
    /* A band task keeps TM_RING_ROWS rows: its band's and the reach. */
    if (ext[1] > TM_RING_ROWS - TM_BAND_ROWS + 1) return;

    /* The runs, r2 outermost and r0 innermost, ascending, as the walk meets
     * the taps; and whether every byte of the box is a tap. */
    int full = 1;
    int64_t count = scan_runs(se, ext, c, NULL, &full);
    const int fits = count <= TM_MAX_RUNS;
    if (count == 0 || (!full && !fits)) return;
    int32_t longest = 0;
    if (fits) {
        /* Without room for the list the call is walked directly. */
        p->runs = malloc((size_t)count * sizeof *p->runs);
        if (!p->runs) return;
        scan_runs(se, ext, c, p->runs, &full);
        for (int64_t i = 0; i < count; i++)
            if (p->runs[i][1] > longest) longest = p->runs[i][1];
    }

    /* Integer masks of long runs are walked by doubled folds: two reads a
     * run instead of one a tap, for TM_RUN_LEVELS - 1 folds of every source
     * row (and levels can cover runs of up to 2^TM_RUN_LEVELS - 1 taps).
     * Measured on 4096-wide uint8 rows: a 15 x 15 disk (149 taps in 15
     * runs) 2.4 times faster this way; a 5 x 5 disk (13 in 5) gains
     * nothing and keeps the tap walk. */
    int64_t taps = 0;
    for (int64_t i = 0; i < count && fits; i++) taps += p->runs[i][1];
    int by_runs = e->code != halide_type_float && longest < ((int32_t)1 << TM_RUN_LEVELS) &&
                  taps >= 2 * (int64_t)count + 2 * TM_RUN_LEVELS;

    /* What a band task holds: TM_RING_ROWS rows in every plane the mask
     * reaches, a few times over (the rows, their folds), and the levels
     * besides for the walk by doubled folds. */
    const int64_t width = max64(v[OUT].extent[0], stage_width) + ext[0] + block + ((int64_t)1 << TM_RUN_LEVELS);
    const int64_t ring = (int64_t)TM_RING_ROWS * ext[2] * width * e->bytes;
    if (ring * (TM_RUN_LEVELS + 1) > TM_MAX_BAND_BYTES) by_runs = 0;
    if (ring > TM_MAX_BAND_BYTES) return;

    /* A floating box folds only after it has looked for NaN in every row it
     * reads, a pass of its own over the source: for a box of a few taps
     * (3 x 3 and below) that pass costs more than the taps it saves, so such
     * a box is walked by taps (measured: float32 3 x 3 by taps about 0.7 of
     * the time of the fold; from 5 x 5 on the fold is faster). */
    if (full && e->code == halide_type_float && ext[0] * ext[1] * ext[2] <= TM_FLOAT_TAPS_BEFORE_FOLD) full = 0;
    /* Rows narrower than a block: of the band walks only those of runs take
     * them (stages/walks.h), so a box goes by its runs there. */
    if (full && (v[OUT].extent[0] < block || (e->stage && stage_width < block))) {
        if (!fits) return;
        full = 0;
    }
    if (full) {
        /* Integers can fold the planes first (any grouping gives the same
         * minimum); the floating types keep the walk's grouping. */
        p->walk = ext[2] > 1 && e->code != halide_type_float ? TM_WALK_PLANES : TM_WALK_BOX;
    } else {
        p->walk = by_runs ? TM_WALK_RUNS : TM_WALK_TAPS;
    }
    /* Only a box may have more runs than the list holds (see above). */
    if (fits) p->buffer.host = (uint8_t *)p->runs;
    p->count = fits ? (int32_t)count : 0;
    p->longest = longest;
    p->dim[1].extent = p->count;
}
