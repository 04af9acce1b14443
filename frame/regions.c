/* The regions of a call: what its definitions ask of each buffer (for the
 * checks and the bounds query), and where each stage reads and writes in
 * the pipeline's coordinates (for the run).
 *
 * Halide's generated code forms a call's coordinate sums as signed 32-bit
 * values that must not overflow, and derives loop bounds, regions and its
 * own checks from them.  So the frame never hands the pipeline the caller's
 * coordinates.  In each dimension it measures every coordinate q from the
 * output's min, as a 64-bit value, works out in those terms which samples
 * of the image (and of opening's window) the call reads, and calls the
 * pipeline with all descriptors moved by one common shift K into a range in
 * which no sum the pipeline forms can leave 32 bits.  A translation changes
 * no result: every result depends on coordinates only through the tests "is
 * this sample inside the image (the window)", and those are decided here,
 * exactly, as intervals in q.
 *
 * Where the call's own 32-bit arithmetic leaves nothing to compute (a wide
 * row whose chunk count wraps), or reads a buffer outside what it describes
 * (wrap-around between the image's two ends, an intermediate whose box
 * wrapped), the plan holds the access report of the buffer concerned; the
 * run makes it after every other check and the intermediate's allocation,
 * and before anything is written. */
#include "regions.h"

#include <math.h>
#include <stdio.h>
#include <string.h>

#define TM_WRAP ((int64_t)1 << 32)

static const tm_span nothing = {1, 0};

static bool is_empty(tm_span s) { return s.hi < s.lo; }
static int64_t min64(int64_t a, int64_t b) { return a < b ? a : b; }
static int64_t max64(int64_t a, int64_t b) { return a > b ? a : b; }
static tm_span meet(tm_span a, tm_span b) { return (tm_span){max64(a.lo, b.lo), min64(a.hi, b.hi)}; }
static tm_span hull(tm_span a, tm_span b) {
    if (is_empty(a)) return b;
    if (is_empty(b)) return a;
    return (tm_span){min64(a.lo, b.lo), max64(a.hi, b.hi)};
}

/* ---- The definitions, folded to 32 bits ---------------------------------- */

int64_t tm_wrap32(int64_t v) { return (int64_t)(int32_t)(uint32_t)(uint64_t)v; }

/* v held inside [lo, hi] as the definitions clamp: all three folded, the
 * upper bound applied first (so an empty range gives lo). */
static int64_t clamp32(int64_t v, int64_t lo, int64_t hi) {
    return max64(min64(tm_wrap32(v), tm_wrap32(hi)), tm_wrap32(lo));
}

/* The last coordinate a descriptor describes. */
static int64_t last32(const tm_view *v, int d) { return tm_wrap32((int64_t)v->min[d] + v->extent[d] - 1); }

int32_t tm_centre(int32_t extent) {
    /* Through float32 on purpose: it is what the pipelines compute, so for
     * extents beyond 2^24 both agree on the rounding rather than on the
     * integer formula. */
    float g = floorf((float)((int32_t)tm_wrap32((int64_t)extent + 1) >> 1)) + -1.0f;
    return (int32_t)g;
}

int32_t tm_window_bound(const tm_traits *t, const tm_view *im, int d) {
    return im->extent[d < 2 ? d : t->window];
}

tm_span tm_walk_back(tm_step w, tm_span t, int64_t e, int64_t c) {
    /* Offsets r from -c to e-1-c. */
    const int64_t before = c, after = e - 1 - c;
    if (w == TM_STEP_imerode) return (tm_span){t.lo - before, t.hi + after};
    return (tm_span){t.lo - after, t.hi + before};
}

/* The output region a call writes in dimension d: on a wide image the last
 * chunk of a row is moved inwards to end on the row's last sample, so a row
 * narrower than L is written as L samples ending there. */
static tm_span written32(const tm_entry *e, const tm_view v[TM_NARGS], int d) {
    const tm_view *o = &v[TM_OUT];
    tm_span r = {o->min[d], last32(o, d)};
    if (d == 0 && v[TM_IM].extent[0] > e->lanes) {
        r.lo = min64(tm_wrap32(r.hi - (e->lanes - 1)), o->min[0]);
        r.hi = tm_wrap32(r.lo + max64(o->extent[0], e->lanes) - 1);
    }
    return r;
}

/* What the image is read at in dimension d: each stage's reach walked back
 * from the output as the caller gave it, last stage first, with opening's
 * intermediate kept inside its window (from 0, not from the image's min);
 * then clamped to the image, which is padded beyond it.  A residue reads
 * the image again at the output's own coordinates, unclamped. */
static tm_span image_reads32(const tm_entry *e, const tm_view v[TM_NARGS], int d, tm_span written) {
    const tm_traits *t = tm_traits_of(e->op);
    const tm_view *im = &v[TM_IM], *o = &v[TM_OUT];
    const int64_t S = v[TM_SE].extent[d], c = tm_centre(v[TM_SE].extent[d]);
    tm_span r = {o->min[d], last32(o, d)};
    for (int s = 1; s >= 0; s--) {
        if (t->walk[s] == TM_STEP_none) continue;
        r = tm_walk_back(t->walk[s], r, S, c);
        if (s == 1 && t->window >= 0) {
            const int64_t B = tm_window_bound(t, im, d);
            r = (tm_span){clamp32(r.lo, 0, B - 1), clamp32(r.hi, 0, B - 1)};
        }
    }
    r = (tm_span){clamp32(r.lo, im->min[d], last32(im, d)), clamp32(r.hi, im->min[d], last32(im, d))};
    if (t->residue) r = (tm_span){min64(r.lo, written.lo), max64(r.hi, last32(o, d))};
    return r;
}

void tm_required_regions(const tm_entry *e, const tm_view v[TM_NARGS], tm_required r) {
    const tm_traits *t = tm_traits_of(e->op);
    for (int d = 0; d < 3; d++) {
        const tm_span out = written32(e, v, d), im = image_reads32(e, v, d, out);
        r[TM_OUT][d][0] = (int32_t)out.lo, r[TM_OUT][d][1] = (int32_t)out.hi;
        r[TM_IM][d][0] = (int32_t)im.lo, r[TM_IM][d][1] = (int32_t)im.hi;
        r[TM_SE][d][0] = 0, r[TM_SE][d][1] = (int32_t)tm_wrap32((int64_t)v[TM_SE].extent[d] - 1);
    }
    r[TM_MM][0][0] = t->minmax_first, r[TM_MM][0][1] = t->minmax_first + t->minmax_count - 1;
    r[TM_MM][1][0] = 0, r[TM_MM][1][1] = 0;
}

/* The first sample of opening's box: the first one stage 2 reads for the
 * output's first sample, held inside the window [0, B-1]. */
static int64_t opening_box_first(int64_t o, int64_t c, int64_t ext, int64_t B) { return clamp32(o + c + 1 - ext, 0, B - 1); }

/* Its last sample: the last one stage 2 reads for the output's last
 * sample, cut at the window's end (and no lower than 0). */
static int64_t opening_box_last(int64_t o, int64_t n, int64_t c, int64_t B) {
    return max64(tm_wrap32(min64(tm_wrap32(o + n + c), B) - 1), 0);
}

void tm_define_box(const tm_entry *e, const tm_view v[TM_NARGS], bool wide, int32_t box_min[3],
                   uint32_t box_extent[3]) {
    const tm_traits *t = tm_traits_of(e->op);
    for (int d = 0; d < 3; d++) {
        const int64_t o = v[TM_OUT].min[d], n = v[TM_OUT].extent[d], ext = v[TM_SE].extent[d], c = tm_centre(v[TM_SE].extent[d]);
        if (t->window >= 0) {
            const int64_t B = tm_window_bound(t, &v[TM_IM], d);
            const int64_t lo = opening_box_first(o, c, ext, B), hi = opening_box_last(o, n, c, B);
            /* In the wide branch a range shorter than one chunk starts
             * lower, so that one chunk ends on its last sample. */
            const int64_t x0 = d == 0 && wide ? min64(lo, tm_wrap32(hi - e->lanes + 1)) : lo;
            box_min[d] = (int32_t)x0;
            box_extent[d] = (uint32_t)tm_wrap32(hi - x0 + 1);
        } else {
            /* Closing reaches as far as its second stage reads, unclipped. */
            box_min[d] = (int32_t)tm_wrap32(o - c);
            box_extent[d] = (uint32_t)tm_wrap32(n + ext - 1);
        }
    }
}

/* ---- The plan, in q ------------------------------------------------------ */

/* What a walk reads for the targets `t`; nothing for no targets or taps. */
static tm_span reach(tm_step w, tm_span t, int64_t e, int64_t c) {
    if (is_empty(t) || e <= 0) return nothing;
    return tm_walk_back(w, t, e, c);
}

/* The coordinates q within `reads` whose true coordinate o + q (wrapped)
 * lies in [first, last].  Returns how many separate pieces there are (2
 * stands for "more than one") and the piece, if one. */
static int pieces(int64_t first, int64_t last, int64_t o, tm_span reads, tm_span *piece) {
    first = max64(first, INT32_MIN);
    last = min64(last, INT32_MAX);
    *piece = nothing;
    if (last < first || is_empty(reads)) return 0;
    int count = 0;
    for (int64_t j = -3; j <= 3; j++) {
        tm_span s = meet((tm_span){first - o + j * TM_WRAP, last - o + j * TM_WRAP}, reads);
        if (is_empty(s)) continue;
        if (count++ == 0) *piece = s;
    }
    return count > 1 ? 2 : count;
}

/* It is made only once the intermediate, if any, has been allocated: a
 * call whose allocation fails reports that first, as every call with that
 * box does.  The runtime prints nothing unless the touched range it is
 * given lies outside the valid one, so the touched coordinates are given as
 * the 32-bit values they wrap to, or at the end of the 32-bit range where
 * the true value lies beyond it. */
int tm_refuse(tm_refusal *r, const char *label, int d, tm_span touched, int64_t vmin, int64_t vmax) {
    int32_t lo = (int32_t)tm_wrap32(touched.lo), hi = (int32_t)tm_wrap32(touched.hi);
    if (touched.lo < vmin) lo = touched.lo < INT32_MIN ? INT32_MIN : (int32_t)touched.lo;
    if (touched.hi > vmax) hi = touched.hi > INT32_MAX ? INT32_MAX : (int32_t)touched.hi;
    if (!(lo < vmin) && !(hi > vmax)) {
        if (vmin > INT32_MIN)
            lo = INT32_MIN;
        else
            hi = INT32_MAX;
    }
    r->set = true;
    snprintf(r->label, sizeof r->label, "%s", label);
    r->d = d, r->lo = lo, r->hi = hi, r->vmin = (int32_t)vmin, r->vmax = (int32_t)vmax;
    return -4;
}

/* One dimension of the plan as it is worked out. */
typedef struct {
    const tm_entry *e;
    const tm_traits *t;
    const tm_view *v;
    tm_plan *p;
    int d;
    int64_t o, n, ext, c, L;
    bool taps;   /* the element has a tap (extent > 0 everywhere) */
    bool wide0;  /* dimension 0 of a wide image: rows cut into chunks */
    tm_span output, img_reads, used;
} dim_plan;

/* Where opening's box lies in q, given what stage 2 reads inside the window
 * (`inside`) and where the defined box starts (`at`). */
static tm_span opening_box(const dim_plan *k, tm_span inside, int64_t at, bool fits) {
    const uint32_t X = k->p->box_extent[k->d];
    if (is_empty(inside)) {
        /* Nothing of the intermediate is ever read here: every read leaves
         * the window and takes the lower pad.  So the box is placed at the
         * output's first sample rather than where its formula puts it: its
         * samples are never read, and where they are computed changes no
         * result.  At the formula's place the box (and the empty window at
         * its start) can lie 2^31 from the output, as for planes from -2^31
         * against a window from 0, and the pipeline's own 32-bit arithmetic
         * between the two (the window's last plane less an output plane, in
         * the band walk's copy) then overflows, and it reads far outside the
         * intermediate.  A box too large to describe becomes any small one
         * (its size is checked against the block at the hand-over). */
        const int64_t w = fits ? (int64_t)X : k->wide0 ? k->L : 1;
        return (tm_span){0, w - 1};
    }
    if (fits)
        for (int64_t j = -1; j <= 1; j++) {
            tm_span b = {at + j * TM_WRAP, at + j * TM_WRAP + X - 1};
            if (b.lo <= inside.lo && inside.hi <= b.hi) return b;
        }
    return nothing;
}

/* Opening: stage 2 reads the intermediate through the window [0, B-1]. */
static int plan_opening(dim_plan *k, int64_t at) {
    tm_plan *p = k->p;
    const int d = k->d;
    const char *stage = k->t->stage;
    const uint32_t X = p->box_extent[d];
    const int64_t B = tm_window_bound(k->t, &k->v[TM_IM], d), first = p->box_min[d];
    const tm_span reads = reach(k->t->walk[1], k->output, k->ext, k->c);
    tm_span inside;
    if (pieces(0, B - 1, k->o, reads, &inside) > 1) return tm_refuse(&p->why, stage, d, reads, 0, B - 1);
    const bool fits = X <= (uint32_t)INT32_MAX && !(k->wide0 && X + k->L - 1 > INT32_MAX);
    tm_span box = opening_box(k, inside, at, fits);
    if (is_empty(box) && !is_empty(inside))
        return tm_refuse(&p->why, stage, d, (tm_span){k->o + inside.lo, k->o + inside.hi}, first,
                         min64(first + (int64_t)X - 1, INT32_MAX));
    if (is_empty(box) && !k->taps) box = (tm_span){at, at + (int64_t)X - 1};
    if (k->taps && (is_empty(box) || (k->wide0 && box.hi - box.lo + 1 < k->L)))
        /* A box without samples (its formula gave 0) still has to hold the
         * one sample that an empty window reads. */
        return tm_refuse(&p->why, stage, d, (tm_span){k->o + at, k->o + at + (k->wide0 ? k->L : 1) - 1}, first,
                         first - 1);
    if (!k->taps && is_empty(box) && !(k->ext == 0 && k->n == 1))
        /* Without taps stage 2 reads nothing, yet the pipeline still bounds
         * its reads per dimension: x - r over an empty range of r is
         * [x0, x1 - 1] in a dimension of extent 0, and the whole reach in
         * the others.  Only an empty box with such reads empty too (one
         * output sample here) can be handed over. */
        return tm_refuse(&p->why, stage, d, (tm_span){k->o, k->o + k->n - 1}, first, first - 1);
    p->stage[d] = box;
    p->window[d] = is_empty(inside) ? (tm_span){box.lo, box.lo - 1} : inside;
    k->img_reads = reach(k->t->walk[0], box, k->ext, k->c);
    k->used = hull(hull(k->used, reads), box);
    return 0;
}

/* Closing: the box is exactly what stage 2 reads. */
static int plan_closing(dim_plan *k, int64_t at) {
    tm_plan *p = k->p;
    const int d = k->d;
    const uint32_t X = p->box_extent[d];
    const tm_span box = {at, at + (int64_t)X - 1};
    if (X > (uint32_t)INT32_MAX || (k->wide0 && X + k->L - 1 > INT32_MAX))
        return tm_refuse(&p->why, k->t->stage, d, (tm_span){(int64_t)p->box_min[d], (int64_t)p->box_min[d] + X - 1},
                         p->box_min[d], INT32_MAX);
    p->stage[d] = box;
    if (k->wide0 && (int64_t)X < k->L) {
        /* Only with an element of extent 0 here (X = n - 1 and n = L): the
         * one chunk starts one sample before the box.  See handover.c for
         * where that sample goes. */
        p->stage[d] = (tm_span){box.hi - k->L + 1, box.hi};
        p->shifted_view = true;
    }
    k->img_reads = reach(k->t->walk[0], p->stage[d], k->ext, k->c);
    k->used = hull(k->used, p->stage[d]);
    return 0;
}

/* The image's samples that can be read, as one piece of q. */
static int place_image(dim_plan *k) {
    tm_plan *p = k->p;
    const int d = k->d;
    const int64_t i = k->v[TM_IM].min[d], m = k->v[TM_IM].extent[d];
    const char *label = "Input buffer keyimForType";
    tm_span piece;
    const int count = pieces(i, i + m - 1, k->o, k->img_reads, &piece);
    if (count > 1)
        return tm_refuse(&p->why, label, d, (tm_span){k->o + k->img_reads.lo, k->o + k->img_reads.hi}, i,
                         min64(i + m - 1, INT32_MAX));
    if (k->t->residue && (count == 0 || piece.lo > 0 || piece.hi < k->n - 1))
        /* The residue reads the image at the output's own coordinates. */
        return tm_refuse(&p->why, label, d, (tm_span){k->o, k->o + k->n - 1}, i, min64(i + m - 1, INT32_MAX));
    if (count == 0) {
        /* Nothing of the image is read in this dimension: every tap takes
         * the pad value.  The pipeline still clamps its reads into the
         * image, so it gets the first sample, placed just below everything
         * it reads. */
        piece = (tm_span){k->used.lo - 1, k->used.lo - 1};
        p->image_origin[d] = piece.lo;
        p->image_dummy = true;
    } else {
        /* q of the image's first sample, in the translate that holds the piece. */
        int64_t origin = i - k->o;
        while (origin + m - 1 < piece.lo) origin += TM_WRAP;
        while (origin > piece.lo) origin -= TM_WRAP;
        p->image_origin[d] = origin;
    }
    p->image[d] = piece;
    k->used = hull(k->used, piece);
    return 0;
}

/* The stages of dimension d: what each reads, and the box between them. */
static int plan_stages(dim_plan *k) {
    tm_plan *p = k->p;
    p->window[k->d] = nothing;
    p->stage[k->d] = nothing;
    if (!k->t->stage) {
        k->img_reads = reach(k->t->walk[0], k->output, k->ext, k->c);
        return 0;
    }
    /* Where the defined box starts, as the q nearest the output. */
    const int64_t at = tm_wrap32((int64_t)p->box_min[k->d] - k->o);
    return k->t->window >= 0 ? plan_opening(k, at) : plan_closing(k, at);
}

static int plan_dimension(dim_plan *k, const char *olabel) {
    tm_plan *p = k->p;
    const int d = k->d;
    /* A wide row is cut into (n + L - 1) / L chunks in 32 bits: past
     * 2^31 - L that count wraps, and the row has no chunk to run. */
    if (k->wide0 && k->n + k->L - 1 > INT32_MAX)
        return tm_refuse(&p->why, olabel, 0, (tm_span){k->o, k->o + (k->n + k->L - 1) / k->L * k->L - 1}, k->o,
                         k->o + k->n - 1);
    k->img_reads = nothing;
    k->used = k->output;
    int status = plan_stages(k);
    if (status) return status;
    if (k->t->residue) k->img_reads = hull(k->img_reads, k->output);
    k->used = hull(k->used, k->img_reads);
    if ((status = place_image(k))) return status;
    /* Without taps stage 2 reads nothing, but the pipeline's bounds still
     * pass its reads through the window's clamp: clamped to the box they
     * land inside it, and an empty box is met only by reads that are empty
     * themselves (a range that ends one before it starts), which a window
     * reaching past both ends leaves as they are. */
    if (!k->taps && k->t->window >= 0) {
        p->window[d] = is_empty(p->stage[d]) ? (tm_span){k->used.lo - 1, k->used.hi + 1} : p->stage[d];
        k->used = hull(k->used, p->window[d]);
    }
    /* One shift that keeps everything inside 32 bits. */
    const tm_span u = k->used;
    if (u.hi - u.lo > 2 * TM_LIMIT)
        return tm_refuse(&p->why, olabel, d, (tm_span){k->o + u.lo, k->o + u.hi}, k->o, k->o + k->n - 1);
    p->shift[d] = u.lo >= -TM_LIMIT && u.hi <= TM_LIMIT ? 0 : u.lo + (u.hi - u.lo) / 2;
    return 0;
}

int tm_make_plan(const tm_entry *e, const tm_view v[TM_NARGS], tm_plan *p) {
    const tm_traits *t = tm_traits_of(e->op);
    const tm_view *se = &v[TM_SE], *out = &v[TM_OUT];
    char olabel[64];
    strcpy(olabel, "Output buffer ");
    strncat(olabel, t->output, sizeof olabel - strlen(olabel) - 1);
    /* An element with extent 0 in some dimension has no tap: no stage reads
     * anything, and any box, even an empty one, serves. */
    const bool taps = se->extent[0] > 0 && se->extent[1] > 0 && se->extent[2] > 0;
    for (int d = 0; d < 3; d++) {
        dim_plan k = {.e = e, .t = t, .v = v, .p = p, .d = d, .o = out->min[d], .n = out->extent[d],
                      .ext = se->extent[d], .c = tm_centre(se->extent[d]), .L = e->lanes, .taps = taps,
                      .wide0 = d == 0 && p->wide};
        k.output = (tm_span){0, k.n - 1};
        const int status = plan_dimension(&k, olabel);
        if (status) return status;
    }
    return 0;
}
