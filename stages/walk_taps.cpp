// TAPS: the band walk of any mask, run by run, tap by tap, in the walk's
// order, over the rows the band has written out.
#include "band_walk.h"

using namespace Halide;

namespace morph {

void define_taps(BandWalks &b, const BandSite &s) {
    const Runs &runs = s.runs;
    b.taps = Func(s.name + "_taps");
    b.taps_r = RDom(0, runs.longest, 0, runs.count, s.name + "_tap");
    RDom &t = b.taps_r;
    t.where(t.x < runs.list(1, t.y));
    Expr r0 = offset_of(runs.list(0, t.y) + t.x, s.se, 0);
    Expr r1 = offset_of(runs.list(2, t.y), s.se, 1), r2 = offset_of(runs.list(3, t.y), s.se, 2);
    b.taps(s.x, s.y, s.z) = s.init;
    b.taps(s.x, s.y, s.z) = combine(s.w, b.taps(s.x, s.y, s.z),
                                    b.rows(step(s.w, s.x, r0), step(s.w, s.y, r1), step(s.w, s.z, r2)), s.el);
}

void schedule_taps(const BandWalks &w, const BandSchedule &s) { block_walk(w.taps, w.taps_r, s.out, s.xo, s); }

}  // namespace morph
