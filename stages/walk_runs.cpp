// RUNS: the band walk of integer masks of long runs, by doubled folds.
// Level k of a source row holds at u the fold of the 2^k samples
// u .. u + 2^k - 1; level k is two blocks of level k - 1 side by side.  A
// run of length l meets the samples of r0 in [a, a + l - 1]; with
// 2^k <= l < 2^(k+1) the two blocks of 2^k taps [a, a + 2^k - 1] and
// [a + l - 2^k, a + l - 1] cover it, overlapping in the middle.  On integers
// min and max are associative, commutative and idempotent, so neither the
// samples met twice nor the order in which the taps are met can show: the
// fold of the two blocks is the fold of the run, and the runs may meet in
// any order: each level's runs (2^k to 2^(k+1) - 1 taps) are one update
// reading that level.
//
// A level reaches 2^k - 1 samples beyond the block's first one.  The blocks
// the walk reads lie inside their runs, so that reach never passes the last
// sample the walk itself reads; but bounds inference cannot see it, and the
// levels are computed in whole vectors past the last sample needed.  A
// source without pad (closing's intermediate, read as it is) holds nothing
// beyond its domain, so the levels' reads are kept to the domain: the
// samples so changed belong to blocks that no run reads.
#include "band_walk.h"

using namespace Halide;

namespace morph {

void define_runs(BandWalks &b, const BandSite &s) {
    const Source &src = s.src;
    const Runs &runs = s.runs;
    const Var &u = s.u, &v = s.v, &wv = s.wv;
    b.levels.push_back(b.rows);
    const Expr last0 = src.min[0] + src.extent[0] - 1;
    for (int level = 1; level < kRunLevels; level++) {
        const Func &prev = b.levels.back();
        Func f(s.name + "_level" + std::to_string(level));
        Expr near = u, far = u + (1 << (level - 1));
        // (`likely`: loop partitioning then leaves the test out of all but
        // the last vectors.  The promise tells bounds inference the domain,
        // which is empty, and then bounds nothing, where the element has
        // extent 0 and no band walk runs.)
        if (!src.pad.defined()) {
            near = unsafe_promise_clamped(min(likely(near), last0), src.min[0], last0);
            far = unsafe_promise_clamped(min(likely(far), last0), src.min[0], last0);
        }
        f(u, v, wv) = combine(s.w, prev(near, v, wv), prev(far, v, wv), s.el);
        b.levels.push_back(f);
    }
    b.runs_walk = Func(s.name + "_runs");
    b.runs_walk(s.x, s.y, s.z) = s.init;
    for (int level = 0; level < kRunLevels; level++) {
        const int p = 1 << level;
        RDom g(0, runs.count, s.name + "_run" + std::to_string(level));
        Expr t = g.x;
        Expr a = runs.list(0, t), l = runs.list(1, t);
        g.where(l >= p && l < 2 * p);
        // The offsets r0 of the two blocks' first samples in source order:
        // erosion reads x + r0, so a block starts at its least r0; dilation
        // reads x - r0, so at its greatest.
        Expr q1 = s.w == Walk::Erode ? a : a + (p - 1);
        Expr q2 = s.w == Walk::Erode ? a + l - p : a + l - 1;
        Expr ry = step(s.w, s.y, offset_of(runs.list(2, t), s.se, 1));
        Expr rz = step(s.w, s.z, offset_of(runs.list(3, t), s.se, 2));
        const Func &lf = b.levels[level];
        Expr s1 = lf(step(s.w, s.x, offset_of(q1, s.se, 0)), ry, rz);
        Expr s2 = lf(step(s.w, s.x, offset_of(q2, s.se, 0)), ry, rz);
        b.runs_walk(s.x, s.y, s.z) = combine(s.w, b.runs_walk(s.x, s.y, s.z), combine(s.w, s1, s2, s.el), s.el);
        b.runs_r.push_back(g);
    }
}

void schedule_runs(const BandWalks &w, const BandSchedule &s) {
    // The levels of every source row the band reads, kept in the ring like
    // the rows, level by level over whole rows; then the runs walked in
    // blocks like the taps.
    for (size_t k = 1; k < w.levels.size(); k++) ring(w.levels[k], s);
    block_walk(w.runs_walk, w.runs_r[0], s.out, s.xo, s);
    for (size_t k = 1; k < w.runs_r.size(); k++) block_fold(w.runs_walk, int(k), w.runs_r[k], s);
}

}  // namespace morph
