// RUNS: the band walk of masks of long runs, by doubled folds.  Level k of
// a source row holds at u the fold of the 2^k samples u .. u + 2^k - 1;
// level k is two blocks of level k - 1 side by side.  A run of length l
// meets the samples of r0 in [a, a + l - 1]; with 2^k <= l < 2^(k+1) the
// two blocks of 2^k taps [a, a + 2^k - 1] and [a + l - 2^k, a + l - 1]
// cover it, overlapping in the middle.
//
// Every fold keeps the walk's own order: a level puts the half the walk
// meets first as the accumulator, each run folds its two blocks in the
// walk's order, and the runs are met one by one in the list's order.  A
// fold of a group of samples gives the sample the walk would keep of them
// (the least, and of equal ones the one met last), so on integers, bool
// and floating values without NaN the overlap cannot show and the runs
// give exactly the walk's result, -0 against +0 included.
//
// The levels (element_walk.cpp) are one Func whose last coordinate is the
// level, so that one update over the runs reads each run's level by its
// length.  RUNS has levels of its own (`slab_levels`): a band walks a slab
// of planes (walk_schedule.cpp), and its levels cover every source plane
// the slab reads, each computed once for all the slab's planes.
#include "band_walk.h"

using namespace Halide;

namespace morph {

namespace {

// The walk over the runs: for floating types only on rows without NaN in
// reach (`clean`).
Func runs_walk(const BandWalks &b, const BandSite &s, const std::string &name, RDom &g, const Expr &clean) {
    const Runs &runs = s.runs;
    g = RDom(0, runs.count, name + "_run");
    if (clean.defined()) g.where(clean);
    const TwoBlocks q = two_blocks(s.w, runs.list(0, g.x), runs.list(1, g.x), b.slab_levels);
    Expr ry = source_row(s, offset_of(runs.list(2, g.x), s.se, 1));
    Expr rz = step(s.w, s.z, offset_of(runs.list(3, g.x), s.se, 2));
    Expr first = b.slab_levels.f(step(s.w, s.x, offset_of(q.first, s.se, 0)), ry, rz, q.level);
    Expr second = b.slab_levels.f(step(s.w, s.x, offset_of(q.second, s.se, 0)), ry, rz, q.level);
    Func f(name);
    f(s.x, s.y, s.z) = s.init;
    f(s.x, s.y, s.z) = combine(s.w, f(s.x, s.y, s.z), combine(s.w, first, second, s.el), s.el);
    return f;
}

}  // namespace

void define_runs(BandWalks &b, const BandSite &s) {
    if (!s.el.is_float()) {
        b.runs_walk = runs_walk(b, s, s.name + "_runs", b.runs_r, Expr());
        b.runs_rows = runs_walk(b, s, s.name + "_runs_rows", b.runs_rows_r, Expr());
        return;
    }
    // Floating rows with a NaN in reach walk the taps.  (Rows narrower than
    // a block are walked by taps altogether: their blocks are groups of
    // rows, which a test per row would split.)
    b.runs_walk = runs_walk(b, s, s.name + "_runs", b.runs_r, b.dirty(s.y, s.z) == 0);
    b.runs_taps_r = tap_domain(s, s.name + "_runs_tap");
    b.runs_taps_r.where(b.dirty(s.y, s.z) != 0);
    b.runs_walk(s.x, s.y, s.z) = combine(s.w, b.runs_walk(s.x, s.y, s.z), tap_sample(b.slab_levels.level0, s, b.runs_taps_r), s.el);
}

void schedule_runs(const BandWalks &w, const BandSchedule &s) {
    // The levels are laid out with the rows (schedule_bands); the runs are
    // walked in blocks like the taps.
    block_walk(w.runs_walk, w.runs_r, s.out, s.xo, s);
    if (w.dirty.defined()) block_fold(w.runs_walk, 1, w.runs_taps_r, s);
    if (w.runs_rows.defined()) rows_walk(w.runs_rows, w.runs_rows_r, s);
}

}  // namespace morph
