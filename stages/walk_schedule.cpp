#include "walk_schedule.h"

using namespace Halide;

namespace morph {

namespace {

// Accumulators walked side by side in a block, where the walk of one chunk
// is a chain of dependent minimums or maximums.  Floating minimum and
// maximum take three to four cycles each, so one chunk's walk waits on its
// own chain; four chunks at one element position fill that wait, and share
// one test of the element's byte.  Integer minimum and maximum take one
// cycle: for them the block would only save the byte test, and that does
// not pay for the whole blocks that the border regions then test.
constexpr int kFloatChunks = 4;

// A border block tests all its chunks, not only the one or two that reach
// outside, and a row has two of them.  With 8 blocks in a row they cost
// about what the blocks save; from 16 on the block walk is clearly faster.
constexpr int kMinBlocksPerRow = 16;

// A Func computed once per band, over every row the band reads,
// vectorized along dimension 0.
void ring(Func f, Func out, const Var &yo, int L) {
    f.compute_at(out, yo).vectorize(f.args()[0], L, TailStrategy::RoundUp);
}

// A ring of folds: `fold` kept per source row, computed block by block of
// K chunks (the last block moved back inwards, so nothing beyond the rows
// the band reads is touched) from `walk`, whose fold over `r` runs with the
// block's accumulators in registers.
void folded_ring(Func fold, Func walk, const RDom &r, Func out, const Var &yo, int L) {
    Var u = fold.args()[0], uo("uo"), ui("ui"), uk("uk");
    fold.compute_at(out, yo)
        .split(u, uo, ui, kBlockChunks * L, TailStrategy::ShiftInwards)
        .split(ui, uk, ui, L)
        .vectorize(ui)
        .unroll(uk);
    walk.compute_at(fold, uo);
    Var wu = walk.args()[0], wk("wk");
    walk.split(wu, wk, wu, L).vectorize(wu).unroll(wk);
    std::vector<VarOrRVar> order = {wu, wk};
    for (int i = 0; i < r.dimensions(); i++) order.push_back(r[i]);
    walk.update().split(wu, wk, wu, L).vectorize(wu).unroll(wk).reorder(order);
}

// A walk computed per block of K chunks of `out`, its fold over `r`
// outermost: every chunk of the block meets the taps in the walk's order.
void block_walk(Func walk, const RDom &r, Func out, const Var &xo, int L) {
    walk.compute_at(out, xo);
    Var wx = walk.args()[0], wk("wk");
    walk.split(wx, wk, wx, L).vectorize(wx).unroll(wk);
    std::vector<VarOrRVar> order = {wx, wk};
    for (int i = 0; i < r.dimensions(); i++) order.push_back(r[i]);
    walk.update().split(wx, wk, wx, L).vectorize(wx).unroll(wk).reorder(order);
}

}  // namespace

void schedule_stage(Func out, Func walk, const Branch &b, const BandWalks *bands) {
    Var x = out.args()[0], y = out.args()[1], z = out.args()[2];
    Var xo("xo"), xi("xi"), xk("xk"), yo("yo"), yi("yi");
    const int L = b.lanes, K = kBlockChunks;
    // Directives given before specialize() hold in every branch.
    out.parallel(z).parallel(y);

    if (bands) {
        // Band tasks: y split into bands, the bands in parallel and the rows
        // of a band in order, blocks of K chunks along x.
        auto band_branch = [&](const Expr &cond) {
            out.specialize(cond)
                .split(y, yo, yi, kBandRows, TailStrategy::GuardWithIf)
                .parallel(yo)
                .serial(yi)
                .split(x, xo, xi, K * L, TailStrategy::ShiftInwards)
                .split(xi, xk, xi, L)
                .vectorize(xi)
                .unroll(xk);
        };
        BandWalks w = *bands;
        if (w.copied) {
            ring(w.rows, out, yo, L);
            RVar co("co"), ci("ci");
            w.rows.update().split(w.copy.x, co, ci, L, TailStrategy::GuardWithIf).vectorize(ci);
        }
        band_branch(b.by_taps);
        block_walk(w.taps, w.taps_r, out, xo, L);
        band_branch(b.by_box);
        folded_ring(w.row_fold, w.row_walk, w.row_r, out, yo, L);
        block_walk(w.box, w.box_r, out, xo, L);
        if (w.plane_box.defined()) {
            band_branch(b.by_planes);
            folded_ring(w.plane_fold, w.plane_walk, w.plane_r, out, yo, L);
            folded_ring(w.plane_row_fold, w.plane_row_walk, w.plane_row_r, out, yo, L);
            block_walk(w.plane_box, w.plane_box_r, out, xo, L);
        }
    }

    // The block branch: blocks of K chunks, the last one moved back inwards
    // like the last chunk; inside a block the element walk runs once with
    // the K chunks innermost, so that every chunk still meets the taps in
    // the walk's own order.  Only where the row holds enough whole blocks.
    const bool chained = walk.output_types()[0].is_float();
    const int KF = kFloatChunks;
    Expr blocks = b.wide && out.output_buffer().dim(0).extent() >= kMinBlocksPerRow * KF * L;
    if (chained) {
        out.specialize(blocks)
            .split(x, xo, xi, KF * L, TailStrategy::ShiftInwards)
            .split(xi, xk, xi, L)
            .vectorize(xi)
            .unroll(xk);
    }
    out.specialize(b.wide)
        .split(x, xo, xi, L, TailStrategy::ShiftInwards)
        .vectorize(xi);
    out.split(x, xo, xi, 1);

    walk.compute_at(out, xo);
    Var wx = walk.args()[0], wk("wk");
    if (chained) {
        std::vector<RVar> r = walk.rvars(0);
        walk.specialize(blocks).split(wx, wk, wx, L).vectorize(wx).unroll(wk);
        walk.update()
            .specialize(blocks)
            .split(wx, wk, wx, L)
            .vectorize(wx)
            .unroll(wk)
            .reorder(wx, wk, r[0], r[1], r[2]);
    }
    walk.specialize(b.wide).vectorize(wx, L);
    walk.update().specialize(b.wide).vectorize(wx, L);
}

}  // namespace morph
