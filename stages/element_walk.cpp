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
