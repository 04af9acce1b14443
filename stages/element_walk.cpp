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

    // Every walk of the stage, each from its own file; the floating types
    // have neither the box planes first nor the doubled folds (their ties
    // would show the grouping).
    const BandSite site{w, src, se, runs, el, name, x, y, z, u, v, wv, init};
    define_taps(b, site);
    define_box(b, site);
    if (!el.is_float()) {
        define_planes(b, site);
        define_runs(b, site);
    }
    return b;
}

}  // namespace morph
