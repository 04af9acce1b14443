/* An element larger than anything the call can read.
 *
 * An erosion or a dilation walks every tap for every output sample.  With
 * an element that reaches far past the image (a 20001 x 20001 disk on a
 * 64 x 80 image, a ball on a single plane) nearly all of those taps read
 * outside the image at every output sample and contribute only the pad
 * value, so the call costs the element's size rather than its output's.
 *
 * In each dimension d the offsets r of the mask split into the live ones,
 * [lo, hi], by which some output sample reads inside the image's piece,
 * and the dead ones below and above, by which every output sample reads
 * outside it: a tap with a dead offset in any dimension reads the pad
 * value at every output sample.  The walk meets the taps in a fixed order
 * (r2, then r1, then r0 ascending) and combines each into the accumulator
 * with the same operation, which returns one of its two operands, so
 * combining the pad value twice in a row is the same as once.  What a
 * sample's result depends on is therefore only the sequence of live taps
 * and, between each two of them (and before the first, after the last),
 * whether at least one dead tap lies there; for the floating types the
 * order matters (NaN, -0 against +0), for the integers not even that.
 *
 * The compact element keeps every live tap at its offset and moves each
 * dead tap to one place of its own kind, by a map that never changes the
 * order of two taps: the dead planes below the live ones all go to one
 * tap in plane lo2 - 1 (those above to hi2 + 1); in a live plane the dead
 * rows below go to one tap in row lo1 - 1 (above, hi1 + 1); in a live row
 * the dead samples before the live ones go to lo0 - 1 (after, hi0 + 1).
 * Every moved tap is still dead, and as the map keeps order, a gap between
 * live taps holds a dead tap afterwards exactly where it held one before.
 * So the result is the same to the bit, for every type, and the walk costs
 * at most two taps per live row and plane beyond the live ones.
 *
 * Every offset of the compact element lies within the caller's, so what it
 * reads is a part of what the plan placed the image and the shift for.
 * The pipeline takes the centre from the extent: the compact element is
 * 2R + 1 wide in each dimension, centred at R, with zeros where no tap
 * landed.
 *
 * Opening (and the top-hat built on it) walks the element twice: an
 * erosion of the image over the intermediate's box, then a dilation of the
 * intermediate, which takes the lower pad outside its window.  A tap is
 * merged only where it is dead for both; the box, the window and the
 * intermediate's block stay as the caller's element defines them.  Closing
 * keeps its element: its second stage reads no pad, so none of its taps is
 * dead. */
#include "compact.h"

#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

/* Worth it only where the element shrinks at least this many times. */
#define TM_COMPACT_GAIN 2
/* The compact element's bytes at most (the bound of a task's working
 * memory); beyond, the caller's is walked. */
#define TM_COMPACT_MAX_BYTES ((int64_t)64 << 20)

typedef struct {
    int64_t c;      /* the caller's centre */
    int64_t lo, hi; /* live offsets; lo > hi where none is */
    int64_t first, last; /* the compact element's offsets, from the map */
    int64_t R;      /* the compact element's centre */
} dim_map;

/* Offsets by which a walk w of the targets t reads inside the source
 * `src`: an erosion reads t + r, a dilation t - r. */
static tm_span live_reads(tm_step w, tm_span t, tm_span src) {
    if (t.hi < t.lo || src.hi < src.lo) return (tm_span){1, 0};
    return w == TM_STEP_imerode ? (tm_span){src.lo - t.hi, src.hi - t.lo} : (tm_span){t.lo - src.hi, t.hi - src.lo};
}

/* The live offsets of dimension d within the element's own [-c, e - 1 -
 * c]: those of either stage (a merged tap must be dead for both), and the
 * map's ends.  Stage 1 reads the image's piece for its targets (the output,
 * or the intermediate's box); opening's stage 2 reads the intermediate
 * inside its window for the output. */
static void live_offsets(const tm_traits *t, const tm_plan *p, int d, int64_t n, int64_t e, dim_map *m) {
    const tm_span out = {0, n - 1};
    tm_span live = live_reads(t->walk[0], t->stage ? p->stage[d] : out, p->image[d]);
    if (t->stage) {
        const tm_span second = live_reads(t->walk[1], out, p->window[d]);
        if (live.hi < live.lo) live = second;
        else if (second.lo <= second.hi)
            live = (tm_span){live.lo < second.lo ? live.lo : second.lo, live.hi > second.hi ? live.hi : second.hi};
    }
    m->lo = live.lo > -m->c ? live.lo : -m->c;
    m->hi = live.hi < e - 1 - m->c ? live.hi : e - 1 - m->c;
    m->first = -m->c < m->lo ? m->lo - 1 : -m->c;
    m->last = e - 1 - m->c > m->hi ? m->hi + 1 : e - 1 - m->c;
    m->R = -m->first > m->last ? -m->first : m->last;
    if (m->R < 0) m->R = 0;
}

/* Whether the caller's mask holds a tap in the box of positions k. */
static bool any_tap(const tm_view *se, const int64_t k_lo[3], const int64_t k_hi[3]) {
    const uint8_t *bytes = (const uint8_t *)se->host;
    for (int64_t k2 = k_lo[2]; k2 <= k_hi[2]; k2++)
        for (int64_t k1 = k_lo[1]; k1 <= k_hi[1]; k1++) {
            const uint8_t *row = bytes + k1 * se->stride[1] + k2 * se->stride[2];
            for (int64_t k0 = k_lo[0]; k0 <= k_hi[0]; k0++)
                if (row[k0 * se->stride[0]] == 1) return true;
        }
    return false;
}

typedef struct {
    const tm_view *se;
    dim_map m[3];
    int64_t e[3], size[3];
    uint8_t *out;
} compactor;

/* The compact element's byte at offset r. */
static uint8_t *at(const compactor *k, const int64_t r[3]) {
    return k->out + (r[0] + k->m[0].R) + k->size[0] * ((r[1] + k->m[1].R) + k->size[1] * (r[2] + k->m[2].R));
}

/* Dimension d, with the live offsets r[d + 1 ..] of the dimensions above
 * it fixed: the caller's positions below and above its live offsets (with
 * every position of the dimensions below d) each become one tap, at lo - 1
 * and hi + 1 here and at the map's first offset in the dimensions below,
 * if they hold any; each live offset recurses into dimension d - 1, and in
 * dimension 0 a live tap is copied. */
static void compact_dim(const compactor *k, int d, int64_t r[3]) {
    const dim_map *m = &k->m[d];
    int64_t k_lo[3], k_hi[3], to[3];
    for (int i = 0; i < 3; i++) {
        k_lo[i] = i < d ? 0 : r[i] + k->m[i].c;
        k_hi[i] = i < d ? k->e[i] - 1 : r[i] + k->m[i].c;
        to[i] = i < d ? k->m[i].first : r[i];
    }
    const int64_t dead[2][3] = {{0, m->lo - 1 + m->c, m->lo - 1}, {m->hi + 1 + m->c, k->e[d] - 1, m->hi + 1}};
    for (int side = 0; side < 2; side++) {
        k_lo[d] = dead[side][0], k_hi[d] = dead[side][1], to[d] = dead[side][2];
        if (k_lo[d] <= k_hi[d] && any_tap(k->se, k_lo, k_hi)) *at(k, to) = 1;
    }
    for (r[d] = m->lo; r[d] <= m->hi; r[d]++) {
        if (d > 0) {
            compact_dim(k, d - 1, r);
            continue;
        }
        k_lo[0] = k_hi[0] = r[0] + m->c;
        *at(k, r) = any_tap(k->se, k_lo, k_hi);
    }
}

/* A box stays a box.  The band walks fold a full box along its rows and
 * planes, which a box with a lone tap in each dead row would lose (an
 * integer 15 x 15 x 15 box on two planes: 0.1 ms folded, 3 ms by runs).  So
 * where the mask's offsets reach -R and R in every dimension, the map that
 * clamps each offset into [-R, R] is tried first: it too keeps the order
 * and every live offset, and sends dead offsets to dead ones (R is beyond
 * the live offsets).  It yields the full box of extent 2R + 1 where every
 * place of it receives some tap: its own where it is inside, and one of
 * the taps clamped to it where it lies on the box's faces.  Returns whether
 * that holds, the first place without a tap ending the search. */
static bool full_box(const compactor *k) {
    for (int d = 0; d < 3; d++)
        if (k->m[d].c < k->m[d].R || k->e[d] - 1 - k->m[d].c < k->m[d].R) return false;
    int64_t k_lo[3], k_hi[3];
    for (int64_t r2 = -k->m[2].R; r2 <= k->m[2].R; r2++)
        for (int64_t r1 = -k->m[1].R; r1 <= k->m[1].R; r1++)
            for (int64_t r0 = -k->m[0].R; r0 <= k->m[0].R; r0++) {
                const int64_t r[3] = {r0, r1, r2};
                for (int d = 0; d < 3; d++) {
                    const dim_map *m = &k->m[d];
                    k_lo[d] = (r[d] == -m->R ? -m->c : r[d]) + m->c;
                    k_hi[d] = (r[d] == m->R ? k->e[d] - 1 - m->c : r[d]) + m->c;
                }
                if (!any_tap(k->se, k_lo, k_hi)) return false;
            }
    return true;
}

uint8_t *tm_compact_element(const tm_entry *e, const tm_view v[TM_NARGS], const tm_plan *p, tm_view *se) {
    const tm_traits *t = tm_traits_of(e->op);
    *se = v[TM_SE];
    /* Closing's second stage reads no pad: none of its taps is dead. */
    if ((t->stage && t->window < 0) || p->empty_output) return NULL;
    compactor k = {.se = &v[TM_SE]};
    double before = 1, after = 1;
    bool dead_everywhere = false;
    for (int d = 0; d < 3; d++) {
        k.e[d] = v[TM_SE].extent[d];
        if (k.e[d] <= 0) return NULL; /* no taps: nothing to walk */
        k.m[d].c = tm_centre(v[TM_SE].extent[d]);
        live_offsets(t, p, d, v[TM_OUT].extent[d], k.e[d], &k.m[d]);
        /* No stage reads anything in this dimension: every tap is dead. */
        dead_everywhere |= k.m[d].lo > k.m[d].hi;
        k.size[d] = 2 * k.m[d].R + 1;
        before *= (double)k.e[d];
        after *= (double)k.size[d];
    }
    if (dead_everywhere) {
        /* One tap at offset 0, which is dead too, if the mask has any. */
        for (int d = 0; d < 3; d++) k.m[d] = (dim_map){.c = k.m[d].c, .lo = 1, .hi = 0}, k.size[d] = 1;
        after = 1;
    }
    if (after * TM_COMPACT_GAIN > before || after > (double)TM_COMPACT_MAX_BYTES) return NULL;
    for (int d = 0; d < 3; d++)
        if (tm_centre((int32_t)k.size[d]) != k.m[d].R) return NULL;
    if (!(k.out = calloc((size_t)(k.size[0] * k.size[1] * k.size[2]), 1))) return NULL;
    if (dead_everywhere) {
        const int64_t k_lo[3] = {0, 0, 0}, k_hi[3] = {k.e[0] - 1, k.e[1] - 1, k.e[2] - 1};
        k.out[0] = any_tap(k.se, k_lo, k_hi);
    } else if (full_box(&k)) {
        memset(k.out, 1, (size_t)(k.size[0] * k.size[1] * k.size[2]));
    } else {
        int64_t r[3] = {0, 0, 0};
        compact_dim(&k, 2, r);
    }
    se->host = k.out;
    for (int d = 0; d < 3; d++) {
        se->min[d] = 0;
        se->extent[d] = (int32_t)k.size[d];
    }
    se->stride[0] = 1;
    se->stride[1] = (int32_t)k.size[0];
    se->stride[2] = (int32_t)(k.size[0] * k.size[1]);
    return k.out;
}
