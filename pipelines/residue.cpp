#include "residue.h"

#include <limits>

using namespace Halide;

namespace morph {

namespace {

Expr uint32_to_float(const Expr &u, const Expr &halves) {
    Expr h = cast<float>(cast<int32_t>(u >> 1));
    Expr by_halves = (cast<float>(cast<int32_t>(u & 1)) + h) + h;
    return select(halves, by_halves, cast<float>(u));
}

// The processor's minimum and maximum with the difference as the first
// operand: a comparison with NaN is false and yields the bound, so a NaN
// difference is stored as positive infinity.
Expr clamp_to_infinities(const Expr &d) {
    Expr inf = Internal::make_const(d.type(), std::numeric_limits<double>::infinity());
    Expr lo = select(d < inf, d, inf);
    return select(lo > -inf, lo, -inf);
}

}  // namespace

Expr residue(const Expr &a, const Expr &b, const Element &el, const Expr &halves) {
    const Type &t = el.storage;
    Expr r;
    if (el.is_bool) {
        // a AND NOT b on values that are 0 or 1.
        r = a & (b ^ cast(t, 1));
    } else if (t.is_float()) {
        Expr d = clamp_to_infinities(cast<double>(a) - cast<double>(b));
        r = cast(t, d);
    } else if (t.bits() <= 16) {
        // One step wider cannot overflow; saturate into T.
        Type wide = Int(t.bits() * 2);
        Expr d = cast(wide, a) - cast(wide, b);
        r = cast(t, clamp(d, cast(wide, t.min()), cast(wide, t.max())));
    } else if (t.is_int()) {
        // 32-bit integers go through float32 on purpose: the operands are
        // rounded to 24 significant bits first.
        Expr d = cast<float>(a) - cast<float>(b);
        r = select(d >= 2147483648.0f, Int(32).max(),
                   cast<int32_t>(max(d, -2147483648.0f)));
    } else {
        Expr d = uint32_to_float(a, halves) - uint32_to_float(b, halves);
        r = select(d >= 4294967296.0f, UInt(32).max(),
                   cast<uint32_t>(cast<int64_t>(max(d, 0.0f))));
    }
    return strict_float(r);
}

}  // namespace morph
