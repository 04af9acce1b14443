// RUNS: the band walk of masks of long runs, by a table of folds of every
// source row.  Level k of a source row holds at u the fold of the 2^k
// samples u .. u + 2^k - 1; level k is two blocks of level k - 1 side by
// side.  Past the levels, for integer types, the table holds folds of the
// exact lengths that several runs share (chosen by the entry point,
// element_walk.cpp).  A run of length l meets the samples of r0 in
// [a, a + l - 1]: where the table has l (a power of two, or an exact
// length), that is one read; otherwise, with 2^k <= l < 2^(k+1), the two
// blocks of 2^k taps [a, a + 2^k - 1] and [a + l - 2^k, a + l - 1] cover
// it, overlapping in the middle.  The entry point lists the runs of one
// read first, so that each kind is a loop of its own: a loop of one or two
// reads per run would pay the bookkeeping of a run per read (float32
// 4096-wide rows, disk of radius 31: 1.27 times as long).
//
// Every fold keeps the walk's own order: a level or exact entry puts the
// block the walk meets first as the accumulator, each run folds its two
// blocks in the walk's order, and for floating types the runs are met one
// by one in the list's order (integers have no order to keep: any
// grouping gives the same minimum).  A fold of a group of samples gives
// the sample the walk would keep of them (the least, and of equal ones the
// one met last), so on integers, bool and floating values without NaN the
// overlaps cannot show and the runs give exactly the walk's result, -0
// against +0 included.
//
// The table (element_walk.cpp) is one Func whose last coordinate is the
// entry, so that one update over the runs reads each run's entry.  RUNS
// has a table of its own (`slab_levels`): a band walks a slab of planes
// (walk_schedule.cpp), and its table covers every source plane the slab
// reads, each computed once for all the slab's planes.
#include "band_walk.h"

using namespace Halide;

namespace morph {

namespace {

// The walk over the runs, those of one read and then those of two (for
// floating types all of them, in the walk's order, and only on rows
// without NaN in reach, `clean`).
Func runs_walk(const BandWalks &b, const BandSite &s, const std::string &name, std::vector<RDom> &g, const Expr &clean) {
    const Runs &runs = s.runs;
    const Levels &table = b.slab_levels;
    const bool ones = !s.el.is_float();
    if (ones) g = {RDom(0, runs.one_read, name + "_run"), RDom(runs.one_read, runs.count - runs.one_read, name + "_run_pair")};
    else g = {RDom(0, runs.count, name + "_run_pair")};
    Func f(name);
    f(s.x, s.y, s.z) = s.init;
    for (size_t i = 0; i < g.size(); i++) {
        const Expr run = g[i].x;
        if (clean.defined()) g[i].where(clean);
        const Expr a = runs.list(kR0, run), l = runs.list(kLength, run);
        Expr ry = source_row(s, offset_of(runs.list(kR1, run), s.se, 1));
        Expr rz = step(s.w, s.z, offset_of(runs.list(kR2, run), s.se, 2));
        auto read = [&](const Expr &r0, const Expr &entry) {
            return table.f(step(s.w, s.x, offset_of(r0, s.se, 0)), ry, rz, entry);
        };
        Expr value;
        if (ones && i == 0) {
            // A fold starts at its least r0 for erosion (which reads
            // x + r0), at its greatest for dilation (x - r0).
            const Expr entry = unsafe_promise_clamped(runs.list(kEntry, run), 0, table.entries - 1);
            value = read(s.w == Walk::Erode ? a : a + l - 1, entry);
        } else {
            const TwoBlocks q = two_blocks(s.w, a, l, table);
            value = combine(s.w, read(q.first, q.level), read(q.second, q.level), s.el);
        }
        f(s.x, s.y, s.z) = combine(s.w, f(s.x, s.y, s.z), value, s.el);
    }
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
    if (w.dirty.defined()) block_fold(w.runs_walk, int(w.runs_r.size()), w.runs_taps_r, s);
    if (w.runs_rows.defined()) rows_walk(w.runs_rows, w.runs_rows_r, s);
}

}  // namespace morph
