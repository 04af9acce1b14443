#include "element_walk.h"

#include "band_walk.h"

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

}  // namespace morph

// ---------------------------------------------------------------------------
// Band walks

namespace morph {

RDom write_rows(const Source &src, Func f, const std::vector<Expr> &more, const Var &u, const Var &v, const Var &wv,
                const std::string &name) {
    std::vector<Expr> at = {u, v, wv};
    at.insert(at.end(), more.begin(), more.end());
    f(at) = src.pad;
    Expr last[3];
    for (int d = 0; d < 3; d++) last[d] = src.min[d] + src.extent[d] - 1;
    RDom copy(src.min[0], src.extent[0], name);
    copy.where(v >= src.min[1] && v <= last[1] && wv >= src.min[2] && wv <= last[2]);
    // The row and plane are inside whenever the copy runs; the promise
    // tells the bounds so (and bounds nothing for an empty domain).
    Expr cv = unsafe_promise_clamped(v, src.min[1], last[1]);
    Expr cw = unsafe_promise_clamped(wv, src.min[2], last[2]);
    at[0] = copy.x;
    f(at) = src.f(copy.x, cv, cw);
    return copy;
}

TwoBlocks two_blocks(Walk w, const Expr &a, const Expr &l, const Levels &levels) {
    const Expr k = unsafe_promise_clamped(31 - count_leading_zeros(max(l, 1)), 0, levels.top);
    const Expr p = 1 << k;
    if (w == Walk::Erode) return {k, a, a + l - p};
    return {k, a + (p - 1), a + l - 1};
}

RDom tap_domain(const BandSite &s, const std::string &name) {
    RDom t(0, s.runs.longest, 0, s.runs.count, name);
    t.where(t.x < s.runs.list(kLength, t.y));
    return t;
}

Expr tap_sample(const Func &rows, const BandSite &s, const RDom &t) {
    Expr r0 = offset_of(s.runs.list(kR0, t.y) + t.x, s.se, 0);
    Expr r1 = offset_of(s.runs.list(kR1, t.y), s.se, 1), r2 = offset_of(s.runs.list(kR2, t.y), s.se, 2);
    return rows(step(s.w, s.x, r0), source_row(s, r1), step(s.w, s.z, r2));
}

namespace {

// Every level's samples are computed in whole vectors of any lane count.
constexpr int kLevelAlign = 64;
static_assert(kLevelAlign % 32 == 0, "a multiple of the widest vector of bytes");

// The levels of doubled folds of the band's source rows (RUNS, SEGMENTS):
// level k holds at u the fold of the samples u .. u + 2^k - 1, in the
// walk's order (erosion meets lower u first, dilation higher u).  Level k
// is an update of its own over the samples of the stage's row that any
// walk reads (its first sample and width are the entry point's); its reads
// of level k - 1 reach 2^(k-1) samples further, into samples no walk reads:
// a walk reads level k only where the whole block lies inside a run of the
// mask.  Levels above the longest run's are not computed, and the reads of
// those computed are written to reach at most as far as the highest one's
// (`reach`): the rows then hold no more samples than the longest run needs,
// whatever the number of levels (a segment walk's twelve would otherwise
// make every row 1024 samples longer).
//
// RUNS' table (`table`) goes on past the levels with the entry point's
// exact lengths: entry top + 1 + m holds at u the fold of the list's
// exact length l_m, the two blocks of the level of the largest power of
// two 2^k in l_m that start at u and at u + l_m - 2^k, in the walk's order
// (they overlap; a fold of the least, of equal ones the last met, cannot
// show it).  An entry is then one read for a whole run, where the levels
// take two.  Entries of both kinds are one update, entry after entry per
// group of rows, so that an exact entry reads levels still in the nearest
// cache.
Levels define_levels(const BandSite &s, const std::string &name, int count, bool table) {
    const Source &src = s.src;
    const Strel &se = s.se;
    const Var &u = s.u, &v = s.v, &wv = s.wv;
    Var k("k");
    Levels l;
    l.count = count;
    l.f = Func(name);
    l.f(u, v, wv, k) = undef(s.el.storage);
    // Level 0: the rows, written out as `rows` are (with the pad), so that
    // the walks need no copy of them.  A source without pad is read as it
    // is; it holds nothing beyond its domain, where the levels' whole
    // vectors reach, so those reads are kept to the domain (the samples so
    // changed belong to blocks no run reads).
    if (src.pad.defined()) {
        l.copy = write_rows(src, l.f, {0}, u, v, wv, name + "_copy");
    } else {
        const Expr last0 = src.min[0] + src.extent[0] - 1;
        l.f(u, v, wv, 0) = src.f(unsafe_promise_clamped(min(likely(u), last0), src.min[0], last0), v, wv);
    }
    // The samples the walks read: the row's reach before its first sample,
    // in source order, and the row and the mask's extent.
    Expr before = s.w == Walk::Erode ? se.centre[0] : se.extent[0] - 1 - se.centre[0];
    Expr first = s.row.min - before;
    Expr samples = (s.row.extent + se.extent[0] - 1 + kLevelAlign - 1) / kLevelAlign * kLevelAlign;
    const Expr top = clamp(31 - count_leading_zeros(max(s.runs.longest, 1)), 0, count - 1);
    Expr reach = max(s.runs.longest / 2, 1);  // at least 2^(top - 1)
    const Expr exact = table ? s.runs.exact : Expr(0);
    l.top = top;
    l.entries = top + 1 + exact;
    // All levels in one update, level after level (one loop nest, not one
    // per level: each costs compile time in every pipeline).
    l.r = RDom(0, kLevelAlign, 0, samples / kLevelAlign, 1, top + exact, name + "_up");
    const Expr at = first + l.r.y * kLevelAlign + l.r.x, entry = l.r.z;
    // Each entry from a level below it, `shift` samples apart.  (A level
    // runs only up to the highest one, so its half is within reach; an
    // exact length is at most the longest run, and its two blocks less
    // than half of it apart.)
    Expr from = entry - 1, shift = 1 << (entry - 1);
    if (table) {
        // The list's row of an exact entry, kept to a row the list has even
        // where the level's branch is taken (RUNS has at least one row).
        const Expr m = unsafe_promise_clamped(max(min(entry - top - 1, exact - 1), 0), 0, exact - 1);
        const Expr length = s.runs.list(kExactLength, m);
        const Expr level = unsafe_promise_clamped(31 - count_leading_zeros(max(length, 1)), 0, top);
        from = select(entry <= top, from, level);
        shift = select(entry <= top, shift, length - (1 << level));
    }
    from = unsafe_promise_clamped(from, 0, top);
    shift = unsafe_promise_clamped(shift, 1, reach);
    const Expr lo = l.f(at, v, wv, from), hi = l.f(at + shift, v, wv, from);
    l.f(at, v, wv, entry) = s.w == Walk::Erode ? combine(s.w, lo, hi, s.el) : combine(s.w, hi, lo, s.el);
    l.level0 = Func(name + "0");
    l.level0(u, v, wv) = l.f(u, v, wv, 0);
    return l;
}

// The source rows that hold a NaN, inside the domain, and the output rows
// whose mask's box reaches one of them or the pad, where that is NaN.  A
// walk that folds groups of samples gives the walk's own result only where
// no NaN is in reach: a NaN wipes out what the walk met before it.
void define_nan_rows(BandWalks &b, const BandSite &s) {
    const Source &src = s.src;
    const Var &v = s.v, &wv = s.wv;
    Expr last[3];
    for (int d = 0; d < 3; d++) last[d] = src.min[d] + src.extent[d] - 1;
    // First per lane of kNanLanes: lane i looks at the samples i, i + kNanLanes,
    // ..., so that the test of a row is a few vector operations per vector
    // of samples (the last group repeats the row's last sample).  A NaN is a
    // sample whose bits, sign aside, lie above those of the infinity.
    const Type bits = UInt(s.el.storage.bits());
    const Expr inf = s.el.storage.bits() == 32 ? Expr(uint32_t(0x7f800000)) : Expr(uint64_t(0x7ff0000000000000ull));
    const Expr magnitude = s.el.storage.bits() == 32 ? Expr(uint32_t(0x7fffffff)) : Expr(uint64_t(0x7fffffffffffffffull));
    Var i("i");
    b.nan_lanes = Func(s.name + "_nan_lanes");
    b.nan_r = RDom(0, (src.extent[0] + kNanLanes - 1) / kNanLanes, s.name + "_nan");
    b.nan_r.where(v >= src.min[1] && v <= last[1] && wv >= src.min[2] && wv <= last[2]);
    Expr at = src.min[0] + min(b.nan_r.x * kNanLanes + i, src.extent[0] - 1);
    Expr sample = src.f(unsafe_promise_clamped(at, src.min[0], last[0]), unsafe_promise_clamped(v, src.min[1], last[1]),
                        unsafe_promise_clamped(wv, src.min[2], last[2]));
    Expr nan = (reinterpret(bits, sample) & magnitude) > inf;
    b.nan_lanes(i, v, wv) = cast(bits, 0);
    b.nan_lanes(i, v, wv) = b.nan_lanes(i, v, wv) | select(nan, cast(bits, 1), cast(bits, 0));
    // Then the lanes folded a vector at a time into kNanFoldLanes, and only
    // those read one by one: a lane costs the scalar fold about four
    // instructions, which on a row of a few vectors outweighed the test
    // itself (float32 15 x 15 square on 64-wide rows: a third of the time).
    b.nan_fold = Func(s.name + "_nan_fold");
    Expr folded = b.nan_lanes(i, v, wv);
    for (int j = 1; j < kNanLanes / kNanFoldLanes; j++) folded = folded | b.nan_lanes(i + j * kNanFoldLanes, v, wv);
    b.nan_fold(i, v, wv) = folded;
    b.nan_lane_r = RDom(0, kNanFoldLanes, s.name + "_nan_lane");
    b.row_nan = Func(s.name + "_row_nan");
    b.row_nan(v, wv) = cast<uint8_t>(0);
    b.row_nan(v, wv) = max(b.row_nan(v, wv), cast<uint8_t>(b.nan_fold(b.nan_lane_r.x, v, wv)));
    const Strel &se = s.se;
    const Var &y = s.y, &z = s.z;
    b.dirty_r = RDom(-se.centre[1], se.extent[1], -se.centre[2], se.extent[2], s.name + "_dirty_rows");
    Expr hy = step(s.w, y, offset_of(b.dirty_r.x, se, 1)), hz = step(s.w, z, offset_of(b.dirty_r.y, se, 2));
    b.dirty = Func(s.name + "_dirty");
    b.dirty(y, z) = src.pad.defined() ? select(is_nan(src.pad), cast<uint8_t>(1), cast<uint8_t>(0)) : cast<uint8_t>(0);
    b.dirty(y, z) = max(b.dirty(y, z), b.row_nan(hy, hz));
}

}  // namespace

std::vector<BandCase> band_cases(const BandWalks &b) {
    return {{TM_WALK_TAPS, b.taps, b.taps_rows},
            {TM_WALK_BOX, b.box, Func()},
            {TM_WALK_PLANES, b.plane_box, Func()},
            {TM_WALK_RUNS, b.runs_walk, b.runs_rows},
            {TM_WALK_SEGMENTS, b.segments, b.segments_rows}};
}

BandWalks band_walks(Walk w, const Source &src, const Strel &se, const Runs &runs, const Element &el,
                     const std::string &name, const std::vector<Var> &at, const StageRow &row) {
    const Var &x = at[0], &y = at[1], &z = at[2];
    Var u("u"), v("v"), wv("w");
    const Expr init = w == Walk::Erode ? el.greatest() : el.least();
    BandWalks b;
    b.row = row;

    // The rows, with the pad written out.  Every sample that the walk reads
    // is either the pad (outside the domain in some dimension) or the
    // source's own sample: what the padded source gives, without a test.
    if (!src.pad.defined()) {
        b.rows = src.f;
    } else {
        b.copied = true;
        b.rows = Func(name + "_rows");
        b.copy = write_rows(src, b.rows, {}, u, v, wv, name + "_copy");
    }

    // Every walk of the stage, each from its own file; the floating types
    // have no box planes first (their ties would show the grouping).
    const BandSite site{w, src, se, runs, el, name, x, y, z, u, v, wv, init, b.row};
    if (el.is_float()) define_nan_rows(b, site);
    b.levels = define_levels(site, name + "_levels", kSegmentLevels, false);
    b.slab_levels = define_levels(site, name + "_slab_levels", kRunLevels, true);
    define_taps(b, site);
    define_box(b, site);
    define_runs(b, site);
    define_segments(b, site);
    if (!el.is_float()) define_planes(b, site);
    return b;
}

}  // namespace morph
