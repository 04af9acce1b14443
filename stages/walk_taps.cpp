// TAPS: the band walk of any mask, run by run, tap by tap, in the walk's
// order, over the rows the band has written out.
#include "band_walk.h"

using namespace Halide;

namespace morph {

namespace {

Func tap_walk(const BandWalks &b, const BandSite &s, const std::string &name, RDom &t) {
    t = tap_domain(s, name + "_tap");
    Func f(name);
    f(s.x, s.y, s.z) = s.init;
    f(s.x, s.y, s.z) = combine(s.w, f(s.x, s.y, s.z), tap_sample(b.rows, s, t), s.el);
    return f;
}

}  // namespace

void define_taps(BandWalks &b, const BandSite &s) {
    b.taps = tap_walk(b, s, s.name + "_taps", b.taps_r);
    b.taps_rows = tap_walk(b, s, s.name + "_taps_rows", b.taps_rows_r);
}

void schedule_taps(const BandWalks &w, const BandSchedule &s) {
    block_walk(w.taps, {w.taps_r}, s.out, s.xo, s);
    rows_walk(w.taps_rows, {w.taps_rows_r}, s);
}

}  // namespace morph
