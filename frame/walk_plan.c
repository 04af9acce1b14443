/* Which walk a call's stages take, read off the mask once per call.
 *
 * The pipelines can reach the samples of the walk two ways: directly over
 * the padded source (the only way on a narrow image), or by band walks,
 * which first write out the source rows a band of output rows reads, pad
 * included, and then walk those plain rows in blocks of chunks (see
 * stages/walk_schedule.h).  For a band walk the frame lists the mask's taps
 * as runs along dimension 0, in the walk's order, so that no task tests a
 * mask byte; a mask whose bytes are all 1 over its whole box goes through
 * the walks of boxes, which fold rows and planes separately.
 *
 * A band walk needs rows at least one chunk wide (every stage of the call;
 * rows narrower than a block walk blocks of two chunks of several rows), and
 * a band holds its rows and their folds, so a mask with a very long reach
 * across rows or planes keeps the direct walk (but for a box of one plane,
 * which goes by segments), as does a mask with more runs than the list
 * holds. */
#include "walk_plan.h"

#include <stdlib.h>
#include <string.h>

#include "regions.h"
#include "tm_lanes.h"
#include "walks.h"

/* Above this many bytes of rows and folds per band the direct walk is kept. */
#define TM_MAX_BAND_BYTES ((int64_t)64 << 20)
/* Floating boxes of at most this many taps are walked by taps. */
#define TM_FLOAT_TAPS_BEFORE_FOLD 9
/* A slab of RUNS holds at least this many output planes (slab_planes). */
#define TM_SLAB_PLANES 8
/* The cost of a sample by segments beyond the levels of its rows, in reads
 * of the box walk (by_segments). */
#define TM_SEGMENTS_COST 14

static int64_t max64(int64_t a, int64_t b) { return a > b ? a : b; }

/* The pipeline reads the list even when it walks directly: one dummy run. */
static void describe_list(tm_walk_plan *p) {
    memset(p, 0, sizeof *p);
    p->dim[0] = (halide_dimension_t){0, TM_RUN_FIELDS, 1, 0};
    p->dim[1] = (halide_dimension_t){0, 0, TM_RUN_FIELDS, 0};
    p->buffer.host = (uint8_t *)p->no_run;
    p->buffer.type = (struct halide_type_t){halide_type_int, 32, 1};
    p->buffer.dimensions = 2;
    p->buffer.dim = p->dim;
}

/* Counts the mask's runs of taps along dimension 0, r2 outermost and r0
 * innermost, ascending, as the walk meets the taps, and where `runs` is
 * given lists them; clears *full if some byte of the box is not a tap. */
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
                    int32_t *run = runs[count];
                    memset(run, 0, sizeof *runs);
                    run[TM_RUN_R0] = (int32_t)(first - c[0]), run[TM_RUN_LENGTH] = (int32_t)(k0 - first);
                    run[TM_RUN_R1] = (int32_t)(k1 - c[1]), run[TM_RUN_R2] = (int32_t)(k2 - c[2]);
                }
                count++;
            }
        }
    return count;
}

/* The list of the mask's `count` runs into p (runs, count, longest), with
 * room for as many again, where RUNS orders them (order_runs); 0 where
 * there is no memory for it. */
static int list_runs(const tm_view *se, const int64_t ext[3], const int64_t c[3], int64_t count, tm_walk_plan *p) {
    int full = 1;
    if (!(p->runs = malloc(2 * (size_t)count * sizeof *p->runs))) return 0;
    scan_runs(se, ext, c, p->runs, &full);
    p->count = (int32_t)count;
    for (int32_t i = 0; i < p->count; i++)
        if (p->runs[i][TM_RUN_LENGTH] > p->longest) p->longest = p->runs[i][TM_RUN_LENGTH];
    return 1;
}

void tm_walk_plan_release(tm_walk_plan *p) {
    free(p->runs);
    p->runs = NULL;
}

/* Masks of long runs are walked by doubled folds: two reads a run instead
 * of one a tap, for up to TM_RUN_LEVELS - 1 folds of every source row (and
 * levels can cover runs of up to 2^TM_RUN_LEVELS - 1 taps).  Measured on
 * 4096-wide uint8 rows: a 15 x 15 disk (149 taps in 15 runs) 2.4 times
 * faster this way; a 5 x 5 disk (13 in 5) gains nothing and keeps the tap
 * walk.  Floating rows with a NaN in reach are walked by taps all the
 * same. */
static int worth_runs(const tm_walk_plan *p) {
    int64_t taps = 0;
    for (int32_t i = 0; i < p->count; i++) taps += p->runs[i][TM_RUN_LENGTH];
    return p->longest < ((int32_t)1 << TM_RUN_LEVELS) && taps >= 2 * (int64_t)p->count + 2 * TM_RUN_LEVELS;
}

/* RUNS keeps a table of folds of every source row: first the levels of
 * doubled folds, entry k the fold of 2^k samples, up to the highest the
 * longest run needs; then, for integer types, entries of exact run
 * lengths, each the fold of two blocks of a level.  A run whose length
 * has an entry (a power of two, or an exact length) is one read of the
 * table; any other is two reads, the blocks of the level of the largest
 * power of two in its length at its two ends.  An exact entry costs one
 * operation a source sample and saves a read a run of its length per
 * output sample, so a length takes one where at least two runs share it,
 * the most shared first, and only as many as leave the table no larger
 * than the levels of the longest runs (TM_RUN_LEVELS entries): a larger
 * table of wide rows outgrows the caches (uint8 4096-wide rows, disks of
 * radius 15 and 31 with 13 and 14 entries: 1.3 times as long).  Nor does
 * a mask of which fewer than a third of the runs are one read take them
 * apart: what they save is then less than the reach of a second pass over
 * the source rows and of the more entries read (uint8 ball of radius 15 on
 * 128^3, a quarter of its runs one read: 1.04-1.10 times as long).  The
 * floating types keep the walk's order, and with it two reads a run. */
static int32_t top_level(int32_t longest) {
    int32_t k = 0;
    while (((int64_t)2 << k) <= longest) k++;
    return k;
}

/* The entry of the table that holds a whole run of l taps; -1 if none. */
static int32_t entry_of(const tm_walk_plan *p, int32_t top, int32_t l) {
    if ((l & (l - 1)) == 0) return top_level(l);
    for (int32_t m = 0; m < p->exact; m++)
        if (p->exact_length[m] == l) return top + 1 + m;
    return -1;
}

static void choose_exact(tm_walk_plan *p) {
    int32_t share[1 << TM_RUN_LEVELS] = {0};
    p->exact = 0;
    p->one_read_first = 0;
    if (p->longest >= (1 << TM_RUN_LEVELS)) return;
    for (int32_t i = 0; i < p->count; i++) share[p->runs[i][TM_RUN_LENGTH]]++;
    const int32_t top = top_level(p->longest), room = TM_RUN_LEVELS - 1 - top;
    while (p->exact < room) {
        int32_t best = 0;
        for (int32_t l = 3; l < (1 << TM_RUN_LEVELS); l++)
            if ((l & (l - 1)) != 0 && share[l] >= 2 && share[l] > share[best]) best = l;
        if (!best) break;
        p->exact_length[p->exact++] = best;
        share[best] = 0;
    }
    int32_t ones = 0;
    for (int32_t i = 0; i < p->count; i++) ones += entry_of(p, top, p->runs[i][TM_RUN_LENGTH]) >= 0;
    p->one_read_first = 3 * (int64_t)ones >= p->count;
    if (!p->one_read_first) p->exact = 0;
}

/* The list as RUNS reads it: each run's entry, and where choose_exact
 * said so the runs of one read moved ahead of those of two (for integer
 * types only: a minimum of integers is the same in any order; one loop
 * over each kind keeps a read's bookkeeping to what it needs), in the
 * walk's order within each kind.  The moved rows go through the list's
 * second half (list_runs). */
static void order_runs(tm_walk_plan *p) {
    const int first = p->one_read_first;
    const int32_t top = top_level(p->longest);
    int32_t (*two)[TM_RUN_FIELDS] = p->runs + p->count;
    int32_t ones = 0, twos = 0;
    for (int32_t i = 0; i < p->count; i++) {
        int32_t *run = p->runs[i];
        const int32_t entry = entry_of(p, top, run[TM_RUN_LENGTH]);
        run[TM_RUN_ENTRY] = entry >= 0 ? entry : top_level(run[TM_RUN_LENGTH]);
        if (!first || entry < 0) memcpy(two[twos++], run, sizeof *two);
        else memmove(p->runs[ones++], run, sizeof *two);
    }
    memmove(p->runs + ones, two, (size_t)twos * sizeof *two);
    p->one_read = ones;
    for (int32_t i = 0; i < p->count; i++) p->runs[i][TM_RUN_EXACT_LENGTH] = i < p->exact ? p->exact_length[i] : 0;
}

/* A full box of one plane goes by segments where the box walk's linear
 * folds of its rows and columns, e0 + e1 reads a sample, would cost more
 * than the levels of its rows and the folds of segments across rows,
 * log2(e0) + TM_SEGMENTS_COST (measured on 4096^2 uint8, uint16 and
 * float32: a 7 x 7 square is faster by the box walk, a 15 x 15 one by
 * segments, and so is a row of 31).  The levels cover rows of up to
 * 2^TM_SEGMENT_LEVELS - 1 samples.  A band of segments (at most
 * TM_SEGMENT_BANDS bands of TM_BAND_ROWS rows, by the box's height) keeps
 * three folds of its rows and the box's reach, and one row's levels, within
 * TM_MAX_BAND_BYTES whatever the box's height; floating rows with a NaN in
 * reach walk the taps, from the list. */
static int by_segments(const tm_entry *e, const int64_t ext[3], int64_t width, int listed) {
    int64_t log2_e0 = 0;
    while (((int64_t)2 << log2_e0) <= ext[0]) log2_e0++;
    if (ext[2] != 1 || ext[0] >= ((int64_t)1 << TM_SEGMENT_LEVELS) || ext[0] + ext[1] <= log2_e0 + TM_SEGMENTS_COST)
        return 0;
    if (e->code == halide_type_float && !listed) return 0;
    const int64_t rows = (int64_t)TM_SEGMENT_BANDS * TM_BAND_ROWS + ext[1] - 1;
    return (3 * rows + TM_SEGMENT_LEVELS) * width * e->bytes <= TM_MAX_BAND_BYTES;
}

/* Whether a row of n samples holds a NaN.  Dense rows are tested without
 * an early exit, so that the compiler tests a vector of samples at a
 * time (the test is one pass over the image, memory's pace). */
#define TM_ROW_NAN(name, type)                                                   \
    static int name(const type *f, int32_t n, int32_t stride) {                  \
        int nan = 0;                                                             \
        if (stride == 1)                                                         \
            for (int32_t i = 0; i < n; i++) nan |= f[i] != f[i];                 \
        else                                                                     \
            for (int64_t i = 0; i < n; i++) nan |= f[i * stride] != f[i * stride]; \
        return nan;                                                              \
    }
TM_ROW_NAN(row_nan32, float)
TM_ROW_NAN(row_nan64, double)
#undef TM_ROW_NAN

/* Whether a NaN may be in reach of a floating call: in the piece of the
 * image the pipeline reads (`image`, as handed over) or in a bound of
 * `minmax` the operator reads (its pads).  An intermediate computed from
 * such an image holds none either: a walk's fold of numbers and infinities
 * is never NaN.  Read only for the one walk that relies on it. */
static int nan_in_reach(const tm_entry *e, const tm_view *mm, const halide_buffer_t *image) {
    if (!image || !image->host || !mm->host) return 1;
    const tm_traits *t = tm_traits_of(e->op);
    for (int32_t i = t->minmax_first; i < t->minmax_first + t->minmax_count; i++) {
        const int64_t at = (int64_t)(i - mm->min[0]) * mm->stride[0] - (int64_t)mm->min[1] * mm->stride[1];
        const double bound = ((const double *)mm->host)[at];
        if (bound != bound) return 1;
    }
    /* Rows that follow each other in memory are tested as one (narrow
     * rows would otherwise pay a loop's start and end per row). */
    halide_dimension_t d[3] = {image->dim[0], image->dim[1], image->dim[2]};
    while (d[0].stride == 1 && d[1].extent > 1 && d[1].stride == d[0].extent &&
           (int64_t)d[0].extent * d[1].extent <= INT32_MAX) {
        d[0].extent *= d[1].extent;
        d[1] = d[2];
        d[2] = (halide_dimension_t){0, 1, 0, 0};
    }
    for (int32_t k = 0; k < d[2].extent; k++)
        for (int32_t j = 0; j < d[1].extent; j++) {
            const int64_t row = (int64_t)k * d[2].stride + (int64_t)j * d[1].stride;
            if (e->bits == 32 ? row_nan32((const float *)image->host + row, d[0].extent, d[0].stride)
                              : row_nan64((const double *)image->host + row, d[0].extent, d[0].stride))
                return 1;
        }
    return 0;
}

/* The output planes a task of RUNS walks in order: a source plane's levels
 * are then computed once for the slab and read by each of its planes that
 * reaches it, where a task of one plane computes the levels of every plane
 * it reaches (e2 of them).  A slab of S planes computes S + e2 - 1 planes of
 * levels and keeps them all, so S is at least e2 (twice the levels of the
 * ideal at most) and at least TM_SLAB_PLANES, within the band's working
 * memory (`level_plane` bytes of levels a plane) and the output's planes;
 * a mask of one plane shares nothing across planes and walks them one by
 * one.  0 where not even one plane's reach fits. */
static int32_t slab_planes(int64_t e2, int64_t out_planes, int64_t level_plane) {
    int64_t s = e2 == 1 ? 1 : max64(e2, TM_SLAB_PLANES);
    if (s > out_planes) s = max64(out_planes, 1);
    while (s > 0 && (s + e2 - 1) * level_plane > TM_MAX_BAND_BYTES) s--;
    return (int32_t)s;
}

/* The walk for the call; the runs listed in p on the way. */
static int32_t choose(const tm_entry *e, const tm_view v[TM_NARGS], int wide, int32_t stage_width,
                      const halide_buffer_t *image, tm_walk_plan *p) {
    const tm_view *se = &v[TM_SE];
    const int two_stage = tm_traits_of(e->op)->stage != NULL;
    /* Rows narrower than a block walk blocks of two chunks of several rows
     * (not every walk: stages/walks.h); rows narrower than one chunk have
     * no band walk. */
    const int64_t block = (int64_t)TM_BLOCK_CHUNKS * e->lanes;
    if (!wide || v[TM_OUT].extent[0] < e->lanes || (two_stage && stage_width < e->lanes)) return TM_WALK_DIRECT;
    const int narrow = v[TM_OUT].extent[0] < block || (two_stage && stage_width < block);
    int64_t ext[3], c[3];
    for (int d = 0; d < 3; d++) {
        ext[d] = se->extent[d];
        c[d] = tm_centre(se->extent[d]);
        if (ext[d] <= 0) return TM_WALK_DIRECT;
    }
    int full = 1;
    const int64_t count = scan_runs(se, ext, c, NULL, &full);
    if (count == 0 || (!full && count > TM_MAX_RUNS)) return TM_WALK_DIRECT;
    /* Only a box may have more runs than the list holds; without memory
     * for the list the call is walked directly. */
    const int fits = count <= TM_MAX_RUNS;
    if (fits && !list_runs(se, ext, c, count, p)) return TM_WALK_DIRECT;
    /* What a band holds: the rows of its band and the reach in every
     * plane the mask reaches, a few times over (the rows, their folds), and
     * the levels besides for the walks by doubled folds. */
    /* A row's samples: the output's, the mask's reach, a block, and the
     * levels' reads beyond them (at most half the longest run they hold). */
    const int64_t width = max64(v[TM_OUT].extent[0], stage_width) + ext[0] + block + ((int64_t)1 << (TM_RUN_LEVELS - 1));
    /* On rows narrower than a block segments have no fallback for a NaN
     * (it would double the floating pipelines' code): there they take a
     * floating call only where no NaN is in reach at all, which one pass
     * over the image tells (measured: float32 15 x 15 square on 48-wide
     * rows, 4 M samples: by taps 52 ms, by segments 13-16 ms of which the
     * pass is 1.5). */
    if (full && by_segments(e, ext, width, fits) &&
        (!narrow || e->code != halide_type_float || !nan_in_reach(e, &v[TM_MM], image))) {
        p->longest = (int32_t)ext[0];
        return TM_WALK_SEGMENTS;
    }
    /* The other band walks keep the band's rows and the reach (sized as at
     * least TM_RING_ROWS rows).  A band computes its rows anew, so a mask
     * reaching r rows costs (TM_BAND_ROWS + r) / TM_BAND_ROWS times the
     * rows; that stays small beside the taps or runs of so tall a mask
     * (uint8 disk of radius 40 on 4096 x 1024: 1384 ms walked directly). */
    const int64_t ring_rows = max64(TM_RING_ROWS, TM_BAND_ROWS + ext[1] - 1);
    const int64_t plane = ring_rows * width * e->bytes;
    const int64_t ring = plane * ext[2];
    if (ring > TM_MAX_BAND_BYTES) return TM_WALK_DIRECT;
    /* RUNS keeps the table of a slab's planes and the mask's reach: its
     * exact entries only where they leave the slab as deep. */
    const int64_t levels = top_level(p->longest) + 1;
    p->slab = slab_planes(ext[2], v[TM_OUT].extent[2], plane * (levels + 1));
    if (fits && e->code != halide_type_float) choose_exact(p);
    if (p->exact > 0) {
        const int32_t slab = slab_planes(ext[2], v[TM_OUT].extent[2], plane * (levels + p->exact + 1));
        if (slab < p->slab) p->exact = 0;
        else p->slab = slab;
    }
    /* Across planes RUNS also shares a source plane's rows among the output
     * planes of a slab, where TAPS writes out every plane it reaches anew
     * for each output plane: integer masks of several planes go by runs
     * however short (a ball of radius 1, 7 taps, on 256^3: uint8 0.80,
     * uint16 0.93 of the time by taps; on 128^3 0.91).  (Floating rows
     * would test every plane for NaN besides.) */
    const int across = ext[2] > 1 && e->code != halide_type_float && p->longest < ((int32_t)1 << TM_RUN_LEVELS);
    int by_runs = fits && (worth_runs(p) || across) && p->slab > 0;

    /* A floating box folds only after it has looked for NaN in every row it
     * reads, a pass of its own over the source: for a box of a few taps
     * (3 x 3 and below) that pass costs more than the taps it saves, so such
     * a box is walked by taps (measured: float32 3 x 3 by taps about 0.7 of
     * the time of the fold; from 5 x 5 on the fold is faster). */
    if (full && e->code == halide_type_float && ext[0] * ext[1] * ext[2] <= TM_FLOAT_TAPS_BEFORE_FOLD) full = 0;
    /* Rows narrower than a block: of the other band walks only those of runs
     * take them (stages/walks.h), so a box goes by its runs there, and
     * floating types by taps. */
    if (narrow) {
        if (full && !fits) return TM_WALK_DIRECT;
        full = 0;
        if (e->code == halide_type_float) by_runs = 0;
    }
    /* Integers can fold the planes first (any grouping gives the same
     * minimum); the floating types keep the walk's grouping. */
    if (full) return ext[2] > 1 && e->code != halide_type_float ? TM_WALK_PLANES : TM_WALK_BOX;
    return by_runs ? TM_WALK_RUNS : TM_WALK_TAPS;
}

void tm_plan_walk(const tm_entry *e, const tm_view v[TM_NARGS], int wide, int32_t stage_width,
                  const halide_buffer_t *image, tm_walk_plan *p) {
    describe_list(p);
    p->walk = choose(e, v, wide, stage_width, image, p);
    /* A direct walk is handed the list without runs; only RUNS reads the
     * table's exact entries. */
    if (p->walk == TM_WALK_DIRECT) p->count = p->longest = 0;
    if (p->walk == TM_WALK_RUNS) order_runs(p);
    else p->exact = 0;
    if (p->count > 0) p->buffer.host = (uint8_t *)p->runs;
    p->dim[1].extent = p->count;
}
