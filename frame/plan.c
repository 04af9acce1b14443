/* The last step of every frame: decide everything the pipeline relies on,
 * then run it.
 *
 * Coordinates.  A call's coordinate sums are 32-bit and wrap: an output
 * plane at 2147483647 is followed by one at -2147483648, and a tap reaches
 * from one to the other.  Halide's generated code forms the same sums as
 * signed 32-bit values that must not overflow, and derives loop bounds,
 * regions and its own checks from them.  So the frame never hands the
 * pipeline the caller's coordinates.  In each dimension it measures every
 * coordinate q from the output's min, as a 64-bit value (true coordinate =
 * output min + q, modulo 2^32), works out in those terms which samples of
 * the image (and of opening's window) the call reads, and calls the
 * pipeline with all descriptors moved by one common shift K into a range
 * in which no sum the pipeline forms can leave 32 bits.  A translation
 * changes no result: every result depends on coordinates only through the
 * tests "is this sample inside the image (the window)", and those are
 * decided here, exactly, as intervals in q.  The image's descriptor is cut
 * to the samples that can be read; the branch and the window are handed
 * over as values.
 *
 * Where the call's own 32-bit arithmetic leaves nothing to compute (a wide
 * row whose chunk count wraps), or reads a buffer outside what it
 * describes (wrap-around between the image's two ends, an intermediate
 * whose box wrapped), the call is refused with the access report of the
 * buffer concerned, after every other check and the intermediate's
 * allocation, and before anything is written.
 *
 * The intermediate of a two-stage operator is sized from its box, as
 * unsigned 32-bit extents in a full 64-bit product, checked, allocated
 * (box plus one element) and released here, by the entry point alone. */
#include "frame.h"

#include <stdbool.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>

#include "blocks.h"

enum { IM, MM, SE, OUT };

/* Every coordinate the pipeline forms stays this far inside 32 bits, so
 * that ramps, rounded-up chunk ends and one-past-the-end bounds fit. */
#define TM_MARGIN 4096
#define TM_LIMIT ((int64_t)INT32_MAX - TM_MARGIN)
#define TM_WRAP ((int64_t)1 << 32)

/* A closed interval of q; empty when hi < lo. */
typedef struct {
    int64_t lo, hi;
} span;

static bool is_empty(span s) { return s.hi < s.lo; }
static int64_t min64(int64_t a, int64_t b) { return a < b ? a : b; }
static int64_t max64(int64_t a, int64_t b) { return a > b ? a : b; }
static span meet(span a, span b) { return (span){max64(a.lo, b.lo), min64(a.hi, b.hi)}; }
static span hull(span a, span b) {
    if (is_empty(a)) return b;
    if (is_empty(b)) return a;
    return (span){min64(a.lo, b.lo), max64(a.hi, b.hi)};
}
static int64_t wrap32(int64_t v) { return (int64_t)(int32_t)(uint32_t)(uint64_t)v; }

enum walk { ERODE, DILATE };

/* What a walk reads for the targets `t`: an erosion reads x + r, a
 * dilation x - r, with the offsets r from -c to e-1-c. */
static span reach(enum walk w, span t, int64_t e, int64_t c) {
    if (is_empty(t) || e <= 0) return (span){1, 0};
    int64_t below = w == ERODE ? c : e - 1 - c, above = w == ERODE ? e - 1 - c : c;
    return (span){t.lo - below, t.hi + above};
}

/* The coordinates q within `reads` whose true coordinate o + q (wrapped)
 * lies in [first, last].  Returns how many separate pieces there are (2
 * stands for "more than one") and the piece, if one. */
static int pieces(int64_t first, int64_t last, int64_t o, span reads, span *piece) {
    first = max64(first, INT32_MIN);
    last = min64(last, INT32_MAX);
    *piece = (span){1, 0};
    if (last < first || is_empty(reads)) return 0;
    int count = 0;
    for (int64_t j = -3; j <= 3; j++) {
        span s = meet((span){first - o + j * TM_WRAP, last - o + j * TM_WRAP}, reads);
        if (is_empty(s)) continue;
        if (count++ == 0) *piece = s;
    }
    return count > 1 ? 2 : count;
}

/* The report for a call that reaches outside a buffer in a way its checks
 * could not see (they wrap).  It is made only once the intermediate, if
 * any, has been allocated: a call whose allocation fails reports that
 * first, as every call with that box does.  The runtime prints nothing
 * unless the touched range it is given lies outside the valid one, so the
 * touched coordinates are given as the 32-bit values they wrap to, or at
 * the end of the 32-bit range where the true value lies beyond it. */
typedef struct {
    bool set;
    char label[64];
    int d;
    int32_t lo, hi, vmin, vmax;
} refusal;

static int refuse(refusal *r, const char *label, int d, span touched, int64_t vmin, int64_t vmax) {
    int32_t lo = (int32_t)wrap32(touched.lo), hi = (int32_t)wrap32(touched.hi);
    if (touched.lo < vmin) lo = touched.lo < INT32_MIN ? INT32_MIN : (int32_t)touched.lo;
    if (touched.hi > vmax) hi = touched.hi > INT32_MAX ? INT32_MAX : (int32_t)touched.hi;
    if (!(lo < vmin) && !(hi > vmax)) {
        if (vmin > INT32_MIN)
            lo = INT32_MIN;
        else
            hi = INT32_MAX;
    }
    r->set = true;
    strncpy(r->label, label, sizeof r->label - 1);
    r->label[sizeof r->label - 1] = '\0';
    r->d = d, r->lo = lo, r->hi = hi, r->vmin = (int32_t)vmin, r->vmax = (int32_t)vmax;
    return -4;
}

/* Everything decided for one call. */
typedef struct {
    bool wide, empty_output;
    /* The intermediate as defined: origin and unsigned extents. */
    int32_t box_min[3];
    uint32_t box_extent[3];
    /* In q: the intermediate as the pipeline computes it, the window, the
     * image's piece (or the lone sample placed where nothing reads). */
    span stage[3], window[3], image[3];
    int64_t image_origin[3]; /* q of the image's first described sample */
    bool image_dummy;
    bool shifted_view; /* closing with e0 = 0: one chunk wider than the box */
    int64_t shift[3];  /* K: pipeline coordinate = q - K */
    refusal why;
} plan;

static const char *output_label(const tm_entry *e, char *buf, size_t cap) {
    const char *pre = "Output buffer ";
    size_t n = 0;
    for (const char *s = pre; *s && n + 1 < cap; s++) buf[n++] = *s;
    for (const char *s = e->output; *s && n + 1 < cap; s++) buf[n++] = *s;
    buf[n] = '\0';
    return buf;
}

static bool opening(const tm_entry *e) { return e->op == TM_IMOPEN || e->op == TM_IMTOPHAT; }
static bool residue(const tm_entry *e) { return e->op == TM_IMTOPHAT || e->op == TM_IMBOTHAT; }

/* The intermediate's box, by its defining formulas in 32-bit arithmetic. */
static void define_box(const tm_entry *e, const tm_view *v, plan *p) {
    const tm_view *im = &v[IM], *se = &v[SE], *out = &v[OUT];
    const int32_t L = e->lanes;
    for (int d = 0; d < 3; d++) {
        const int32_t o = out->min[d], n = out->extent[d], ext = se->extent[d], c = tm_centre(ext);
        if (opening(e)) {
            /* Held inside the window, which starts at 0; its bound in
             * dimension 2 is the image's extent in dimension 1 for imopen,
             * in dimension 2 for imtophat. */
            const int32_t B = d < 2 ? im->extent[d] : im->extent[e->op == TM_IMOPEN ? 1 : 2];
            const int32_t lo = tm_max(tm_min(tm_sub(tm_add(tm_add(o, c), 1), ext), tm_sub(B, 1)), 0);
            const int32_t hi = tm_max(tm_sub(tm_min(tm_add(tm_add(o, n), c), B), 1), 0);
            /* In the wide branch a range shorter than one chunk starts
             * lower, so that one chunk ends on its last sample. */
            const int32_t x0 = d == 0 && p->wide ? tm_min(lo, tm_add(tm_sub(hi, L), 1)) : lo;
            p->box_min[d] = x0;
            p->box_extent[d] = (uint32_t)tm_add(tm_sub(hi, x0), 1);
        } else {
            /* Closing reaches as far as its second stage reads, unclipped. */
            p->box_min[d] = tm_sub(o, c);
            p->box_extent[d] = (uint32_t)tm_sub(tm_add(n, ext), 1);
        }
    }
}

/* Works out the plan in q; returns 0, or non-zero with the refusal in
 * p->why. */
static int make_plan(const tm_entry *e, const tm_view *v, plan *p) {
    const tm_view *im = &v[IM], *se = &v[SE], *out = &v[OUT];
    const int64_t L = e->lanes;
    char olabel[64];
    output_label(e, olabel, sizeof olabel);
    /* An element with extent 0 in some dimension has no tap: no stage
     * reads anything, and any box, even an empty one, serves. */
    const bool taps = se->extent[0] > 0 && se->extent[1] > 0 && se->extent[2] > 0;

    for (int d = 0; d < 3; d++) {
        const int64_t o = out->min[d], n = out->extent[d], e_d = se->extent[d], c = tm_centre(se->extent[d]);
        const int64_t i = im->min[d], m = im->extent[d];
        const span output = {0, n - 1};

        /* A wide row is cut into (n + L - 1) / L chunks in 32 bits: past
         * 2^31 - L that count wraps, and the row has no chunk to run. */
        if (d == 0 && p->wide && n + L - 1 > INT32_MAX)
            return refuse(&p->why, olabel, 0, (span){o, o + (n + L - 1) / L * L - 1}, o, o + n - 1);

        span img_reads = {1, 0}; /* what is read of the image, in q */
        span used = output;      /* everything the pipeline forms */
        p->window[d] = (span){1, 0};
        p->stage[d] = (span){1, 0};

        if (!e->stage) {
            img_reads = reach(e->op == TM_IMERODE ? ERODE : DILATE, output, e_d, c);
        } else {
            const uint32_t X = p->box_extent[d];
            const char *stage = e->stage;
            /* Where the defined box starts, as the q nearest the output. */
            const int64_t at = wrap32((int64_t)p->box_min[d] - o);
            if (opening(e)) {
                /* Stage 2 reads the intermediate through the window [0, B-1]. */
                const int64_t B = d < 2 ? im->extent[d] : im->extent[e->op == TM_IMOPEN ? 1 : 2];
                const span reads = reach(DILATE, output, e_d, c);
                span inside;
                if (pieces(0, B - 1, o, reads, &inside) > 1)
                    return refuse(&p->why, stage, d, reads, 0, B - 1);
                span box = {1, 0};
                const bool fits = X <= (uint32_t)INT32_MAX && !(d == 0 && p->wide && X + L - 1 > INT32_MAX);
                if (is_empty(inside)) {
                    /* Nothing of the intermediate is ever read here: every
                     * read leaves the window and takes the lower pad.  So
                     * the box is placed at the output's first sample rather
                     * than where its formula puts it: its samples are never
                     * read, and where they are computed changes no result.
                     * At the formula's place the box (and the empty window
                     * at its start) can lie 2^31 from the output, as for
                     * planes from -2^31 against a window from 0, and the
                     * pipeline's own 32-bit arithmetic between the two (the
                     * window's last plane less an output plane, in the band
                     * walk's copy) then overflows, and it reads far outside
                     * the intermediate.  A box too large to describe
                     * becomes any small one (its size is checked against
                     * the block below). */
                    const int64_t w = fits ? (int64_t)X : d == 0 && p->wide ? L : 1;
                    box = (span){0, w - 1};
                } else if (fits) {
                    for (int64_t j = -1; j <= 1 && is_empty(box); j++) {
                        span b = {at + j * TM_WRAP, at + j * TM_WRAP + X - 1};
                        if (b.lo <= inside.lo && inside.hi <= b.hi) box = b;
                    }
                }
                if (is_empty(box) && !is_empty(inside)) {
                    const int64_t first = (int64_t)p->box_min[d], last = first + (int64_t)X - 1;
                    return refuse(&p->why, stage, d, (span){o + inside.lo, o + inside.hi}, first,
                                  last > INT32_MAX ? INT32_MAX : last);
                }
                if (is_empty(box) && !taps) box = (span){at, at + (int64_t)X - 1};
                if (taps && (is_empty(box) || (d == 0 && p->wide && box.hi - box.lo + 1 < L))) {
                    /* A box without samples (its formula gave 0) still has to
                     * hold the one sample that an empty window reads. */
                    return refuse(&p->why, stage, d, (span){o + at, o + at + (d == 0 && p->wide ? L : 1) - 1},
                                  p->box_min[d], (int64_t)p->box_min[d] - 1);
                }
                if (!taps && is_empty(box) && !(e_d == 0 && n == 1)) {
                    /* Without taps stage 2 reads nothing, yet the pipeline
                     * still bounds its reads per dimension: x - r over an
                     * empty range of r is [x0, x1 - 1] in a dimension of
                     * extent 0, and the whole reach in the others.  Only an
                     * empty box with such reads empty too (one output
                     * sample here) can be handed over. */
                    return refuse(&p->why, stage, d, (span){o, o + n - 1}, p->box_min[d],
                                  (int64_t)p->box_min[d] - 1);
                }
                p->stage[d] = box;
                p->window[d] = is_empty(inside) ? (span){box.lo, box.lo - 1} : inside;
                img_reads = reach(ERODE, box, e_d, c);
                used = hull(hull(used, reads), box);
            } else {
                /* Closing: the box is exactly what stage 2 reads. */
                const span box = {at, at + (int64_t)X - 1};
                if (X > (uint32_t)INT32_MAX || (d == 0 && p->wide && X + L - 1 > INT32_MAX))
                    return refuse(&p->why, stage, d, (span){(int64_t)p->box_min[d], (int64_t)p->box_min[d] + X - 1},
                                  p->box_min[d], INT32_MAX);
                p->stage[d] = box;
                if (d == 0 && p->wide && (int64_t)X < L) {
                    /* Only with an element of extent 0 here (X = n - 1 and
                     * n = L): the one chunk starts one sample before the box.
                     * See run() for where that sample goes. */
                    p->stage[d] = (span){box.hi - L + 1, box.hi};
                    p->shifted_view = true;
                }
                img_reads = reach(DILATE, p->stage[d], e_d, c);
                used = hull(used, p->stage[d]);
            }
        }
        if (residue(e)) img_reads = hull(img_reads, output);
        used = hull(used, img_reads);

        /* The image's samples that can be read, as one piece of q. */
        span piece;
        const int count = pieces(i, i + m - 1, o, img_reads, &piece);
        if (count > 1) return refuse(&p->why, "Input buffer keyimForType", d, (span){o + img_reads.lo, o + img_reads.hi}, i,
                                     min64(i + m - 1, INT32_MAX));
        if (residue(e) && (count == 0 || piece.lo > 0 || piece.hi < n - 1)) {
            /* The residue reads the image at the output's own coordinates. */
            return refuse(&p->why, "Input buffer keyimForType", d, (span){o, o + n - 1}, i, min64(i + m - 1, INT32_MAX));
        }
        if (count == 0) {
            /* Nothing of the image is read in this dimension: every tap
             * takes the pad value.  The pipeline still clamps its reads
             * into the image, so it gets the first sample, placed just
             * below everything it reads. */
            piece = (span){used.lo - 1, used.lo - 1};
            p->image_origin[d] = piece.lo;
            p->image_dummy = true;
        } else {
            /* q of the image's first sample, in the translate that holds the piece. */
            int64_t origin = i - o;
            while (origin + m - 1 < piece.lo) origin += TM_WRAP;
            while (origin > piece.lo) origin -= TM_WRAP;
            p->image_origin[d] = origin;
        }
        p->image[d] = piece;
        used = hull(used, piece);
        /* Without taps stage 2 reads nothing, but the pipeline's bounds
         * still pass its reads through the window's clamp: clamped to the
         * box they land inside it, and an empty box is met only by reads
         * that are empty themselves (a range that ends one before it
         * starts), which a window reaching past both ends leaves as they
         * are. */
        if (!taps && opening(e)) {
            p->window[d] = is_empty(p->stage[d]) ? (span){used.lo - 1, used.hi + 1} : p->stage[d];
            used = hull(used, p->window[d]);
        }

        /* One shift that keeps everything inside 32 bits. */
        if (used.hi - used.lo > 2 * TM_LIMIT)
            return refuse(&p->why, olabel, d, (span){o + used.lo, o + used.hi}, o, o + n - 1);
        p->shift[d] = used.lo >= -TM_LIMIT && used.hi <= TM_LIMIT ? 0 : used.lo + (used.hi - used.lo) / 2;
    }
    return 0;
}

/* The caller's coordinate of q in dimension d (before wrapping). */
static int64_t o_true(const tm_view *v, int d, int64_t q) { return (int64_t)v[OUT].min[d] + q; }

static void describe(halide_buffer_t *b, halide_dimension_t *dim, void *host, struct halide_type_t t,
                     int dims) {
    memset(b, 0, sizeof *b);
    b->host = (uint8_t *)host;
    b->type = t;
    /* A boolean sample is handed over as the byte it is stored in. */
    if (b->type.bits == 1) b->type.bits = 8;
    b->dimensions = dims;
    b->dim = dim;
}

/* What the pipeline is handed: the descriptors in its own coordinates. */
typedef struct {
    tm_call call;
    halide_buffer_t out, im, mm, se, stage;
    halide_dimension_t out_dim[3], im_dim[3], mm_dim[2], se_dim[3], stage_dim[3];
    tm_walk_plan walk;
} handover;

/* Lays out the call for the pipeline; returns non-zero with the refusal in
 * p->why where it cannot be laid out.  The intermediate's host is filled in
 * once it is allocated. */
static int hand_over(const tm_entry *e, const tm_view *v, plan *p, uint64_t bytes, handover *h) {
    const tm_view *im = &v[IM], *mm = &v[MM], *se = &v[SE], *out = &v[OUT];
    tm_call *call = &h->call;
    memset(call, 0, sizeof *call);
    call->wide = p->wide;

    /* The output, moved by K. */
    halide_buffer_t *ob = &h->out, *ib = &h->im, *mb = &h->mm, *sb = &h->se, *stb = &h->stage;
    halide_dimension_t *odim = h->out_dim, *idim = h->im_dim, *mdim = h->mm_dim, *sdim = h->se_dim,
                       *stdim = h->stage_dim;
    describe(ob, odim, out->host, out->type, 3);
    describe(mb, mdim, mm->host, mm->type, 2);
    describe(sb, sdim, se->host, se->type, 3);
    /* Addresses are 64-bit and wrap like the caller's own address
     * arithmetic would; unsigned, so that C sees no overflow. */
    uint64_t offset = 0;
    for (int d = 0; d < 3; d++) {
        odim[d] = (halide_dimension_t){(int32_t)(0 - p->shift[d]), out->extent[d], out->stride[d], 0};
        sdim[d] = (halide_dimension_t){se->min[d], se->extent[d], se->stride[d], 0};
        /* The image cut to its piece: its host moves to the piece's first sample. */
        const span piece = p->image[d];
        if (!p->image_dummy) offset += (uint64_t)(piece.lo - p->image_origin[d]) * (uint64_t)(int64_t)im->stride[d];
        idim[d] = (halide_dimension_t){(int32_t)(piece.lo - p->shift[d]), (int32_t)(piece.hi - piece.lo + 1),
                                       im->stride[d], 0};
    }
    if (p->image_dummy) {
        /* Somewhere nothing is read: the whole image becomes its first
         * sample, placed below all reads in every such dimension and, in
         * the others, wherever its piece begins, so every clamped read
         * lands on it. */
        for (int d = 0; d < 3; d++) {
            idim[d].min = (int32_t)(p->image[d].lo - p->shift[d]);
            idim[d].extent = 1;
        }
        offset = 0;
    }
    for (int d = 0; d < 2; d++) mdim[d] = (halide_dimension_t){mm->min[d], mm->extent[d], mm->stride[d], 0};
    describe(ib, idim, (void *)((uintptr_t)im->host + (uintptr_t)(offset * (uint64_t)e->bytes)), im->type, 3);

    call->keyimForType = ib;
    call->minmax = mb;
    call->strel = sb;
    call->out = ob;

    if (e->stage) {
        /* Dense rows and planes. */
        int64_t stride = 1;
        for (int d = 0; d < 3; d++) {
            const span s = p->stage[d];
            const int64_t n = s.hi - s.lo + 1;
            /* A plane of more than 2^31 samples has no 32-bit stride: one
             * such plane is fine (its stride is never used), several are
             * not. */
            if (stride > INT32_MAX && n > 1)
                return refuse(&p->why, e->stage, d, (span){o_true(v, d, s.lo), o_true(v, d, s.hi)},
                              o_true(v, d, s.lo), o_true(v, d, s.lo));
            stdim[d] = (halide_dimension_t){(int32_t)(s.lo - p->shift[d]), (int32_t)n,
                                            (int32_t)(stride > INT32_MAX ? 0 : stride), 0};
            stride *= n;
        }
        if (p->shifted_view) {
            /* The one chunk of each row starts one sample before the box.
             * The view's rows keep the box's stride (X = L - 1), so row r's
             * chunk covers the box's row r and the sample just before it,
             * which is the previous row's last one, and the very first
             * chunk starts at the block's first element: the last sample
             * it can reach is element X * Y * Z, the one element that the
             * block has beyond the box.  Overlapping samples are written
             * with the same value, the initial value of an element without
             * taps, and stage 2 (also without taps) reads none of them. */
            stdim[1].stride = (int32_t)p->box_extent[0];
            stdim[2].stride = (int32_t)((uint64_t)p->box_extent[0] * p->box_extent[1]);
        }
        /* Whatever the pipeline may touch must lie inside the block. */
        uint64_t reach_elems = 1;
        for (int d = 0; d < 3; d++)
            reach_elems += (uint64_t)(stdim[d].extent - 1) * (uint64_t)(uint32_t)stdim[d].stride;
        if (stdim[0].extent == 0 || stdim[1].extent == 0 || stdim[2].extent == 0) reach_elems = 0;
        if (reach_elems > bytes / (uint64_t)e->bytes + 1)
            return refuse(&p->why, e->stage, 0, (span){p->box_min[0], (int64_t)p->box_min[0] + stdim[0].extent - 1},
                          p->box_min[0], (int64_t)p->box_min[0] + p->box_extent[0] - 1);
        describe(stb, stdim, NULL, out->type, 3);
        call->stage = stb;
        for (int d = 0; d < 3; d++) {
            call->window_min[d] = (int32_t)(p->window[d].lo - p->shift[d]);
            call->window_extent[d] = (int32_t)(p->window[d].hi - p->window[d].lo + 1);
        }
    }

    return 0;
}

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

int tm_run_pipeline(const tm_entry *e, const tm_view v[4]) {
    const tm_view *im = &v[IM], *out = &v[OUT];
    plan p;
    memset(&p, 0, sizeof p);
    p.wide = im->extent[0] > e->lanes;
    for (int d = 0; d < 3; d++) p.empty_output |= out->extent[d] == 0;

    uint64_t bytes = 0;
    if (e->stage) {
        define_box(e, v, &p);
        /* The size is tested on the full product of the unsigned extents;
         * the report carries its low 64 bits. */
        unsigned __int128 full = (unsigned __int128)p.box_extent[0] * p.box_extent[1];
        full *= p.box_extent[2];
        full *= (uint32_t)e->bytes;
        bytes = (uint64_t)full;
        if ((full >> 64) != 0 || (bytes >> 63) != 0)
            return halide_error_buffer_allocation_too_large(NULL, e->stage, bytes, 0x7fffffffffffffffULL);
    }

    /* An output without samples has nothing to compute; a two-stage
     * operator still makes its one allocation. */
    handover h;
    const bool runs = !p.empty_output && make_plan(e, v, &p) == 0 && hand_over(e, v, &p, bytes, &h) == 0;


    tm_blocks_enter();
    void *block = NULL;
    if (e->stage) {
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
        /* How the stages walk the mask, read off it once for the call: the
         * first read of any sample, made only once the call will run. */
        /* A call that reads no sample of the image (it stands for all of
         * it as one sample placed aside) or none of opening's intermediate
         * (an empty window) is walked directly: its band walks would copy
         * rows of an empty domain, whose bounds the pipeline cannot size. */
        bool degenerate = p.image_dummy;
        for (int d = 0; d < 3 && e->stage; d++) degenerate |= h.call.window_extent[d] <= 0 && opening(e);
        tm_plan_walk(e, v, p.wide && !degenerate, e->stage ? h.stage_dim[0].extent : 0, &h.walk);
        h.call.walk = h.walk.walk;
        h.call.tap_runs = &h.walk.buffer;
        h.call.longest_run = h.walk.longest;
        h.stage.host = (uint8_t *)block;
        advise_huge_pages(block, bytes);
        status = e->run(&h.call);
        tm_walk_plan_release(&h.walk);
    }
    /* The runtime's free takes no null pointer. */
    if (block) halide_free(NULL, block);
    tm_blocks_leave();
    return status;
}
