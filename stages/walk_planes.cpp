// PLANES: the box walk planes first, for integer types.  Min and max are
// associative and commutative on integers, so any grouping of the box gives
// the same value: the planes an output plane reads are folded once per
// source row, then the rows as in the box walk.
#include "band_walk.h"

using namespace Halide;

namespace morph {

void define_planes(BandWalks &b, const BandSite &s) {
    const Strel &se = s.se;
    const Var &u = s.u, &v = s.v, &wv = s.wv;
    b.plane_walk = Func(s.name + "_plane_walk");
    b.plane_fold = Func(s.name + "_plane_fold");
    b.plane_r = RDom(1 - se.centre[2], se.extent[2] - 1, s.name + "_plane");
    b.plane_walk(u, v, wv) = b.rows(u, v, step(s.w, wv, offset_of(-se.centre[2], se, 2)));
    b.plane_walk(u, v, wv) =
        combine(s.w, b.plane_walk(u, v, wv), b.rows(u, v, step(s.w, wv, offset_of(b.plane_r.x, se, 2))), s.el);
    b.plane_fold(u, v, wv) = b.plane_walk(u, v, wv);
    b.plane_row_walk = Func(s.name + "_plane_row_walk");
    b.plane_row_fold = Func(s.name + "_plane_row_fold");
    b.plane_row_r = RDom(1 - se.centre[0], se.extent[0] - 1, s.name + "_plane_row");
    b.plane_row_walk(u, v, wv) = b.plane_fold(step(s.w, u, offset_of(-se.centre[0], se, 0)), v, wv);
    b.plane_row_walk(u, v, wv) =
        combine(s.w, b.plane_row_walk(u, v, wv),
                b.plane_fold(step(s.w, u, offset_of(b.plane_row_r.x, se, 0)), v, wv), s.el);
    b.plane_row_fold(u, v, wv) = b.plane_row_walk(u, v, wv);
    b.plane_box = Func(s.name + "_plane_box");
    b.plane_box_r = RDom(-se.centre[1], se.extent[1], s.name + "_plane_box");
    b.plane_box(s.x, s.y, s.z) = s.init;
    b.plane_box(s.x, s.y, s.z) =
        combine(s.w, b.plane_box(s.x, s.y, s.z),
                b.plane_row_fold(s.x, step(s.w, s.y, offset_of(b.plane_box_r.x, se, 1)), s.z), s.el);
}

void schedule_planes(const BandWalks &w, const BandSchedule &s) {
    folded_ring(w.plane_fold, w.plane_walk, w.plane_r, s);
    folded_ring(w.plane_row_fold, w.plane_row_walk, w.plane_row_r, s);
    block_walk(w.plane_box, {w.plane_box_r}, s.out, s.xo, s);
}

}  // namespace morph
