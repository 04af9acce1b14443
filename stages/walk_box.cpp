// BOX: the band walk of a mask filling its box.  The walk meets the box row
// by row, each row's taps in a run, so folding each source row along the
// run first and then the rows' folds in the walk's order is the same walk
// grouped.  For integers and bool the grouping cannot show.  For floating
// types the fold of a group keeps the walk's own operand order, and without
// NaN it gives the same bits: the smaller value wins, and of equal values
// (+0 and -0) the later one, which is associative.  A NaN changes that (it
// wipes out what came before it), so an output row whose reach holds a NaN
// (`dirty`: in a source row it reads, or as the pad value) walks the mask
// tap by tap instead, as the tap walk does.
//
// A row's fold starts from its first sample rather than from the initial
// value: the first combination would give that sample anyway (the initial
// value is the type's extreme, and for floating types an infinity, which a
// NaN or an equal sample replaces).
//
// Each fold is a walk of its own (`*_walk`), kept per source row in a ring
// (`*_fold`) for the band's later rows.
#include "band_walk.h"

using namespace Halide;

namespace morph {

namespace {

// The floating box: the fold of the rows' folds for the rows without NaN
// in reach, the taps for the others.
void define_float_box(BandWalks &b, const BandSite &s) {
    const Strel &se = s.se;
    const Var &y = s.y, &z = s.z;
    RDom fast(-se.centre[1], se.extent[1], -se.centre[2], se.extent[2], s.name + "_box_fold");
    fast.where(b.dirty(y, z) == 0);
    Expr fhx = step(s.w, y, offset_of(fast.x, se, 1)), fhz = step(s.w, z, offset_of(fast.y, se, 2));
    b.box(s.x, y, z) = combine(s.w, b.box(s.x, y, z), b.row_fold(s.x, fhx, fhz), s.el);
    // By taps: the runs are the box's rows.
    RDom slow = tap_domain(s, s.name + "_box_tap");
    slow.where(b.dirty(y, z) != 0);
    b.box(s.x, y, z) = combine(s.w, b.box(s.x, y, z), tap_sample(b.rows, s, slow), s.el);
    b.box_r = fast;
    b.box_taps_r = slow;
}

}  // namespace

void define_box(BandWalks &b, const BandSite &s) {
    const Strel &se = s.se;
    const Var &u = s.u, &v = s.v, &wv = s.wv;
    b.row_walk = Func(s.name + "_row_walk");
    b.row_fold = Func(s.name + "_row_fold");
    b.row_r = RDom(1 - se.centre[0], se.extent[0] - 1, s.name + "_row");
    b.box = Func(s.name + "_box");
    b.box_r = RDom(-se.centre[1], se.extent[1], -se.centre[2], se.extent[2], s.name + "_box");
    Expr first = b.rows(step(s.w, u, offset_of(-se.centre[0], se, 0)), v, wv);
    Expr sample = b.rows(step(s.w, u, offset_of(b.row_r.x, se, 0)), v, wv);
    b.box(s.x, s.y, s.z) = s.init;
    b.row_walk(u, v, wv) = first;
    b.row_walk(u, v, wv) = combine(s.w, b.row_walk(u, v, wv), sample, s.el);
    b.row_fold(u, v, wv) = b.row_walk(u, v, wv);
    if (s.el.is_float()) {
        define_float_box(b, s);
        return;
    }
    Expr hx = step(s.w, s.y, offset_of(b.box_r.x, se, 1)), hz = step(s.w, s.z, offset_of(b.box_r.y, se, 2));
    b.box(s.x, s.y, s.z) = combine(s.w, b.box(s.x, s.y, s.z), b.row_fold(s.x, hx, hz), s.el);
}

void schedule_box(const BandWalks &w, const BandSchedule &s) {
    folded_ring(w.row_fold, w.row_walk, w.row_r, s);
    block_walk(w.box, {w.box_r}, s.out, s.xo, s);
    // The rows a NaN sends back to the taps walk them in blocks like the rest.
    if (w.dirty.defined()) block_fold(w.box, 1, w.box_taps_r, s);
}

}  // namespace morph
