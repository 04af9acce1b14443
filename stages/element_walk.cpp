#include "element_walk.h"

using namespace Halide;

namespace morph {

Expr Element::greatest() const {
    if (is_bool) return cast(storage, 1);
    if (is_float()) return storage.bits() == 32 ? Expr(std::numeric_limits<float>::infinity())
                                                : Expr(std::numeric_limits<double>::infinity());
    return storage.max();
}

Expr Element::least() const {
    if (is_bool) return cast(storage, 0);
    if (is_float()) return storage.bits() == 32 ? Expr(-std::numeric_limits<float>::infinity())
                                                : Expr(-std::numeric_limits<double>::infinity());
    return storage.min();
}

Expr centre_of(Expr extent) {
    Expr half = (extent + 1) >> 1;
    Expr g = floor(cast<float>(half)) + (-1.0f);
    return cast<int32_t>(g);
}

Strel make_strel(const Func &strel, const Expr extents[3]) {
    Strel se;
    for (int d = 0; d < 3; d++) {
        se.extent[d] = extents[d];
        se.centre[d] = centre_of(extents[d]);
    }
    se.r = RDom(-se.centre[0], se.extent[0], -se.centre[1], se.extent[1],
                -se.centre[2], se.extent[2], "r");
    // A tap is a byte equal to 1; 0 and 2..255 alike leave the position out.
    se.r.where(strel(se.r.x + se.centre[0], se.r.y + se.centre[1], se.r.z + se.centre[2]) ==
               cast<uint8_t>(1));
    return se;
}

// Truncation toward zero into `bits` signed bits, with the indefinite value
// (only the top bit set) for NaN and anything that does not fit, as the
// processor's truncating conversion gives it.  Written out so that no
// compiler is free to treat the out-of-range case as undefined.
static Expr truncate_indefinite(const Expr &v, int bits) {
    Type it = Int(bits);
    // Truncation toward zero fits exactly when -2^(bits-1) - 1 < v < 2^(bits-1);
    // for 64 bits no double lies strictly between -2^63 - 1 and -2^63.
    Expr fits = bits == 32 ? (v > Expr(-2147483649.0) && v < Expr(2147483648.0))
                           : (v >= Expr(-9223372036854775808.0) && v < Expr(9223372036854775808.0));
    return select(fits, cast(it, select(fits, v, Expr(0.0))), it.min());
}

Expr pad_cast(const Expr &bound, const Element &el) {
    const Type &t = el.storage;
    if (t.is_float()) return cast(t, bound);
    if (el.is_bool) return cast(t, truncate_indefinite(bound, 32) & 1);
    if (t.is_uint() && t.bits() == 32) return cast(t, truncate_indefinite(bound, 64));
    return cast(t, truncate_indefinite(bound, 32));
}

Func image_samples(const Func &image, const Element &el) {
    if (!el.is_bool) return image;
    Var u("u"), v("v"), w("w");
    Func f("keyimForType_bit0");
    f(u, v, w) = image(u, v, w) & cast(el.storage, 1);
    return f;
}

Func padded(const Func &source, const Expr mins[3], const Expr extents[3], const Expr &pad,
            const std::string &name, bool may_be_empty) {
    Var u("u"), v("v"), w("w");
    Expr coord[3] = {u, v, w};
    Expr outside = Internal::const_false();
    Expr clamped[3];
    for (int d = 0; d < 3; d++) {
        Expr max = mins[d] + extents[d] - 1;
        // Clamp to the high end first, then to the low end; the `likely`
        // lets loop partitioning find the region where no test can fire.
        // An empty domain (opening's window can be) reads its first
        // coordinate, which the entry point keeps inside the source, and
        // every read is then replaced by the pad value.
        clamped[d] = clamp(likely(coord[d]), mins[d], may_be_empty ? Halide::max(max, mins[d]) : max);
        outside = outside || coord[d] < mins[d] || coord[d] > max;
    }
    Func p(name);
    p(u, v, w) = select(outside, pad, source(clamped[0], clamped[1], clamped[2]));
    return p;
}

Expr combine(Walk w, const Expr &acc, const Expr &s, const Element &el) {
    if (el.is_float()) {
        Expr keep = w == Walk::Erode ? acc < s : acc > s;
        return strict_float(select(keep, acc, s));
    }
    // Integers and bool (0 or 1): ties cannot be observed, so plain min and
    // max serve; for bool they are AND and OR.
    return w == Walk::Erode ? min(acc, s) : max(acc, s);
}

Func element_walk(Walk w, const Func &source, const Strel &se, const Element &el,
                  const std::string &name, const std::vector<Var> &at) {
    const Var &x = at[0], &y = at[1], &z = at[2];
    Func f(name);
    f(x, y, z) = w == Walk::Erode ? el.greatest() : el.least();
    const RDom &r = se.r;
    Expr s = w == Walk::Erode ? source(x + r.x, y + r.y, z + r.z)
                              : source(x - r.x, y - r.y, z - r.z);
    f(x, y, z) = combine(w, f(x, y, z), s, el);
    return f;
}

}  // namespace morph

// ---------------------------------------------------------------------------
// Band walks

namespace morph {

namespace {

// The coordinate a walk reads at offset r from its own coordinate c.
Expr step(Walk w, const Expr &c, const Expr &r) { return w == Walk::Erode ? c + r : c - r; }

// A value known to lie in [-c, e - 1 - c], an offset of dimension d: the
// entry point built it from the mask, or it is a reduction variable over
// that range, so the walk need not clamp it.  Every read of a band walk
// goes through this: for a mask of extent 0 (the entry point then never
// takes a band walk, but the definitions stand) the range is empty, and the
// reads then bound nothing beyond what the direct walk bounds.
Expr offset_of(const Expr &value, const Strel &se, int d) {
    return unsafe_promise_clamped(value, -se.centre[d], se.extent[d] - 1 - se.centre[d]);
}

}  // namespace

std::vector<std::pair<tm_walk, Func>> band_cases(const BandWalks &b) {
    return {{TM_WALK_TAPS, b.taps}, {TM_WALK_BOX, b.box}, {TM_WALK_PLANES, b.plane_box}, {TM_WALK_RUNS, b.runs_walk}};
}

BandWalks band_walks(Walk w, const Source &src, const Strel &se, const Runs &runs, const Element &el,
                     const std::string &name, const std::vector<Var> &at) {
    const Var &x = at[0], &y = at[1], &z = at[2];
    Var u("u"), v("v"), wv("w");
    const Expr init = w == Walk::Erode ? el.greatest() : el.least();
    BandWalks b;

    // The rows, with the pad written out.  Every sample that the walk reads
    // is either the pad (outside the domain in some dimension) or the
    // source's own sample: what the padded source gives, without a test.
    if (!src.pad.defined()) {
        b.rows = src.f;
    } else {
        b.copied = true;
        b.rows = Func(name + "_rows");
        b.rows(u, v, wv) = src.pad;
        Expr last[3];
        for (int d = 0; d < 3; d++) last[d] = src.min[d] + src.extent[d] - 1;
        b.copy = RDom(src.min[0], src.extent[0], name + "_copy");
        b.copy.where(v >= src.min[1] && v <= last[1] && wv >= src.min[2] && wv <= last[2]);
        // The row and plane are inside whenever the copy runs; the promise
        // tells the bounds so (and bounds nothing for an empty domain).
        Expr cv = unsafe_promise_clamped(v, src.min[1], last[1]);
        Expr cw = unsafe_promise_clamped(wv, src.min[2], last[2]);
        b.rows(b.copy.x, v, wv) = src.f(b.copy.x, cv, cw);
    }

    // Any mask: run by run, tap by tap, in the walk's order.
    b.taps = Func(name + "_taps");
    b.taps_r = RDom(0, runs.longest, 0, runs.count, name + "_tap");
    RDom &t = b.taps_r;
    t.where(t.x < runs.list(1, t.y));
    Expr r0 = offset_of(runs.list(0, t.y) + t.x, se, 0);
    Expr r1 = offset_of(runs.list(2, t.y), se, 1), r2 = offset_of(runs.list(3, t.y), se, 2);
    b.taps(x, y, z) = init;
    b.taps(x, y, z) = combine(w, b.taps(x, y, z), b.rows(step(w, x, r0), step(w, y, r1), step(w, z, r2)), el);

    // A full box: the walk meets the box row by row, each row's taps in a
    // run, so folding each source row along the run first and then the
    // rows' folds in the walk's order is the same walk grouped.  For
    // integers and bool the grouping cannot show.  For floating types the
    // fold of a group keeps the walk's own operand order, and without NaN
    // it gives the same bits: the smaller value wins, and of equal values
    // (+0 and -0) the later one, which is associative.  A NaN changes that
    // (it wipes out what came before it), so an output row whose reach holds
    // a NaN (`dirty`: in a source row it reads, or as the pad value) walks
    // the mask tap by tap instead, as the tap walk does.
    //
    // A row's fold starts from its first sample rather than from the
    // initial value: the first combination would give that sample anyway
    // (the initial value is the type's extreme, and for floating types an
    // infinity, which a NaN or an equal sample replaces).
    //
    // Each fold is a walk of its own (`*_walk`), kept per source row in a
    // ring (`*_fold`) for the band's later rows.
    b.row_walk = Func(name + "_row_walk");
    b.row_fold = Func(name + "_row_fold");
    b.row_r = RDom(1 - se.centre[0], se.extent[0] - 1, name + "_row");
    b.box = Func(name + "_box");
    b.box_r = RDom(-se.centre[1], se.extent[1], -se.centre[2], se.extent[2], name + "_box");
    Expr first = b.rows(step(w, u, offset_of(-se.centre[0], se, 0)), v, wv);
    Expr s = b.rows(step(w, u, offset_of(b.row_r.x, se, 0)), v, wv);
    Expr hx = step(w, y, offset_of(b.box_r.x, se, 1)), hz = step(w, z, offset_of(b.box_r.y, se, 2));
    b.box(x, y, z) = init;
    if (el.is_float()) {
        b.row_walk(u, v, wv) = first;
        b.row_walk(u, v, wv) = combine(w, b.row_walk(u, v, wv), s, el);
        b.row_fold(u, v, wv) = b.row_walk(u, v, wv);

        // The source rows that hold a NaN, inside the domain.
        Expr last[3];
        for (int d = 0; d < 3; d++) last[d] = src.min[d] + src.extent[d] - 1;
        b.row_nan = Func(name + "_row_nan");
        b.nan_r = RDom(src.min[0], src.extent[0], name + "_nan");
        b.nan_r.where(v >= src.min[1] && v <= last[1] && wv >= src.min[2] && wv <= last[2]);
        Expr sample = src.f(b.nan_r.x, unsafe_promise_clamped(v, src.min[1], last[1]),
                            unsafe_promise_clamped(wv, src.min[2], last[2]));
        b.row_nan(v, wv) = cast<uint8_t>(0);
        b.row_nan(v, wv) = max(b.row_nan(v, wv), select(is_nan(sample), cast<uint8_t>(1), cast<uint8_t>(0)));
        b.dirty = Func(name + "_dirty");
        b.dirty(y, z) = src.pad.defined() ? select(is_nan(src.pad), cast<uint8_t>(1), cast<uint8_t>(0)) : cast<uint8_t>(0);
        b.dirty(y, z) = max(b.dirty(y, z), b.row_nan(hx, hz));

        RDom fast(-se.centre[1], se.extent[1], -se.centre[2], se.extent[2], name + "_box_fold");
        fast.where(b.dirty(y, z) == 0);
        Expr fhx = step(w, y, offset_of(fast.x, se, 1)), fhz = step(w, z, offset_of(fast.y, se, 2));
        b.box(x, y, z) = combine(w, b.box(x, y, z), b.row_fold(x, fhx, fhz), el);
        // By taps: the runs are the box's rows.
        RDom slow(0, runs.longest, 0, runs.count, name + "_box_tap");
        slow.where(slow.x < runs.list(1, slow.y));
        slow.where(b.dirty(y, z) != 0);
        Expr s0 = offset_of(runs.list(0, slow.y) + slow.x, se, 0);
        Expr s1 = offset_of(runs.list(2, slow.y), se, 1), s2 = offset_of(runs.list(3, slow.y), se, 2);
        b.box(x, y, z) = combine(w, b.box(x, y, z), b.rows(step(w, x, s0), step(w, y, s1), step(w, z, s2)), el);
        b.box_r = fast;
        b.box_taps_r = slow;
    } else {
        b.row_walk(u, v, wv) = first;
        b.row_walk(u, v, wv) = combine(w, b.row_walk(u, v, wv), s, el);
        b.row_fold(u, v, wv) = b.row_walk(u, v, wv);
        b.box(x, y, z) = combine(w, b.box(x, y, z), b.row_fold(x, hx, hz), el);

        // Planes first: min and max are associative and commutative on
        // integers, so any grouping of the box gives the same value.  The
        // planes an output plane reads are folded once per source row, then
        // the rows as above.
        b.plane_walk = Func(name + "_plane_walk");
        b.plane_fold = Func(name + "_plane_fold");
        b.plane_r = RDom(1 - se.centre[2], se.extent[2] - 1, name + "_plane");
        b.plane_walk(u, v, wv) = b.rows(u, v, step(w, wv, offset_of(-se.centre[2], se, 2)));
        b.plane_walk(u, v, wv) =
            combine(w, b.plane_walk(u, v, wv), b.rows(u, v, step(w, wv, offset_of(b.plane_r.x, se, 2))), el);
        b.plane_fold(u, v, wv) = b.plane_walk(u, v, wv);
        b.plane_row_walk = Func(name + "_plane_row_walk");
        b.plane_row_fold = Func(name + "_plane_row_fold");
        b.plane_row_r = RDom(1 - se.centre[0], se.extent[0] - 1, name + "_plane_row");
        b.plane_row_walk(u, v, wv) = b.plane_fold(step(w, u, offset_of(-se.centre[0], se, 0)), v, wv);
        b.plane_row_walk(u, v, wv) = combine(w, b.plane_row_walk(u, v, wv),
                                             b.plane_fold(step(w, u, offset_of(b.plane_row_r.x, se, 0)), v, wv), el);
        b.plane_row_fold(u, v, wv) = b.plane_row_walk(u, v, wv);
        b.plane_box = Func(name + "_plane_box");
        b.plane_box_r = RDom(-se.centre[1], se.extent[1], name + "_plane_box");
        b.plane_box(x, y, z) = init;
        b.plane_box(x, y, z) = combine(w, b.plane_box(x, y, z),
                                       b.plane_row_fold(x, step(w, y, offset_of(b.plane_box_r.x, se, 1)), z), el);

        // Runs by doubled folds.  Level k of a source row holds at u the
        // fold of the 2^k samples u .. u + 2^k - 1; level k is two blocks
        // of level k - 1 side by side.  A run of length l meets the
        // samples of r0 in [a, a + l - 1]; with 2^k <= l < 2^(k+1) the two
        // blocks of 2^k taps [a, a + 2^k - 1] and [a + l - 2^k, a + l - 1]
        // cover it, overlapping in the middle.  On integers min and max are
        // associative, commutative and idempotent, so neither the samples
        // met twice nor the order in which the taps are met can show: the
        // fold of the two blocks is the fold of the run, and the runs may
        // meet in any order: each level's runs (2^k to 2^(k+1) - 1 taps)
        // are one update reading that level.
        //
        // A level reaches 2^k - 1 samples beyond the block's first one.  The
        // blocks the walk reads lie inside their runs, so that reach never
        // passes the last sample the walk itself reads; but bounds inference
        // cannot see it, and the levels are computed in whole vectors past
        // the last sample needed.  A source without pad (closing's
        // intermediate, read as it is) holds nothing beyond its domain, so
        // the levels' reads are kept to the domain: the samples so changed
        // belong to blocks that no run reads.
        b.levels.push_back(b.rows);
        const Expr last0 = src.min[0] + src.extent[0] - 1;
        for (int level = 1; level < kRunLevels; level++) {
            const Func &prev = b.levels.back();
            Func f(name + "_level" + std::to_string(level));
            Expr near = u, far = u + (1 << (level - 1));
            // (`likely`: loop partitioning then leaves the test out of all
            // but the last vectors.  The promise tells bounds inference the
            // domain, which is empty, and then bounds nothing, where the
            // element has extent 0 and no band walk runs.)
            if (!src.pad.defined()) {
                near = unsafe_promise_clamped(min(likely(near), last0), src.min[0], last0);
                far = unsafe_promise_clamped(min(likely(far), last0), src.min[0], last0);
            }
            f(u, v, wv) = combine(w, prev(near, v, wv), prev(far, v, wv), el);
            b.levels.push_back(f);
        }
        b.runs_walk = Func(name + "_runs");
        b.runs_walk(x, y, z) = init;
        for (int level = 0; level < kRunLevels; level++) {
            const int p = 1 << level;
            RDom g(0, runs.count, name + "_run" + std::to_string(level));
            Expr t = g.x;
            Expr a = runs.list(0, t), l = runs.list(1, t);
            g.where(l >= p && l < 2 * p);
            // The offsets r0 of the two blocks' first samples in source
            // order: erosion reads x + r0, so a block starts at its least
            // r0; dilation reads x - r0, so at its greatest.
            Expr q1 = w == Walk::Erode ? a : a + (p - 1);
            Expr q2 = w == Walk::Erode ? a + l - p : a + l - 1;
            Expr ry = step(w, y, offset_of(runs.list(2, t), se, 1));
            Expr rz = step(w, z, offset_of(runs.list(3, t), se, 2));
            const Func &lf = b.levels[level];
            Expr s1 = lf(step(w, x, offset_of(q1, se, 0)), ry, rz);
            Expr s2 = lf(step(w, x, offset_of(q2, se, 0)), ry, rz);
            b.runs_walk(x, y, z) = combine(w, b.runs_walk(x, y, z), combine(w, s1, s2, el), el);
            b.runs_r.push_back(g);
        }

    }
    return b;
}

}  // namespace morph
