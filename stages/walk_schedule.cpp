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

// Bands per band task, so that a plane has about this many band tasks.
// A band task runs its bands in order and keeps the rows of all of them in
// one block, taken when the task starts and released when it ends, folded
// to kRingRows rows: each band writes its rows over those of the band
// before it but the last ones it still reads.  A block freshly taken from
// the allocator costs a page fault per page on first touch, so the blocks
// taken per plane are kept to a few, enough for the plane's row tasks to
// spread over the threads.
constexpr int kTasksPerPlane = 4;

// The chunks of a block that make one vector of the code: the code
// generator splits it into that many registers, whose loads then differ
// by constants.  Wider vectors make it lose track of some registers' min
// and max on the smaller types.
constexpr int kVectorChunks = 4;

// A Func computed once per band, over every row the band reads,
// vectorized along dimension 0, kept in the task's block.
void ring(Func f, Func out, const Var &yo, const Var &yb, int L) {
    f.store_at(out, yo).compute_at(out, yb).fold_storage(f.args()[1], kRingRows);
    f.vectorize(f.args()[0], L, TailStrategy::RoundUp);
}

// A walk computed per block of K chunks of `out`, its fold over `r`
// outermost: every chunk of the block meets the taps in the walk's order.
//
// The block is one vector of K chunks' lanes, which the code generator
// splits into K registers: their loads then differ by constants, where K
// vectors of L lanes would each add their offset to a 32-bit index before
// widening it to an address.
//
// `update` picks the walk's update over `r` (a walk may fold several).
//
// On rows narrower than a block (`narrow`) the block is one chunk: the same
// fold with one accumulator, vectorized by L.
void block_fold(Func walk, int update, const RDom &r, int L, const Expr &narrow) {
    Var wx = walk.args()[0], wk("wk");
    std::vector<VarOrRVar> order = {wx, wk}, one = {wx};
    for (int i = 0; i < r.dimensions(); i++) order.push_back(r[i]), one.push_back(r[i]);
    Stage s = walk.update(update);
    s.specialize(narrow).vectorize(wx, L).reorder(one);
    s.split(wx, wk, wx, kVectorChunks * L).vectorize(wx).unroll(wk).reorder(order);
}

void block_walk(Func walk, const RDom &r, Func out, const Var &xo, int L, const Expr &narrow) {
    walk.compute_at(out, xo);
    walk.specialize(narrow).vectorize(walk.args()[0], L);
    walk.vectorize(walk.args()[0], kBlockChunks * L);
    block_fold(walk, 0, r, L, narrow);
}

// A ring of folds: `fold` kept per source row, computed block by block of
// K chunks (the last block moved back inwards, so nothing beyond the rows
// the band reads is touched) from `walk`, whose fold over `r` runs with the
// block's accumulators in registers.
void folded_ring(Func fold, Func walk, const RDom &r, Func out, const Var &yo, const Var &yb, int L,
                 const Expr &narrow) {
    Var u = fold.args()[0], uo("uo"), ui("ui");
    fold.store_at(out, yo).compute_at(out, yb).fold_storage(fold.args()[1], kRingRows);
    fold.specialize(narrow).split(u, uo, ui, L, TailStrategy::ShiftInwards).vectorize(ui);
    fold.split(u, uo, ui, kBlockChunks * L, TailStrategy::ShiftInwards).vectorize(ui);
    block_walk(walk, r, fold, uo, L, narrow);
}

}  // namespace

void schedule_stage(Func out, Func walk, const Branch &b, const BandWalks *bands) {
    Var x = out.args()[0], y = out.args()[1], z = out.args()[2];
    Var xo("xo"), xi("xi"), xk("xk"), yo("yo"), yb("yb"), yi("yi");
    const int L = b.lanes, K = kBlockChunks;
    // Directives given before specialize() hold in every branch.
    out.parallel(z).parallel(y);

    // One branch per walk, on the walk's value: in each, the value is known
    // and the algorithm's selects among the walks fold away, so a branch
    // computes its own walk and nothing else.
    if (bands) {
        // Band tasks: y split into bands and the bands into band tasks; the
        // tasks in parallel, a task's bands and a band's rows in order;
        // blocks of K chunks along x, or of one chunk on rows narrower than
        // a block (the walks' and folds' own schedules follow the same test).
        Expr bands_per_plane = (out.output_buffer().dim(1).extent() + kBandRows - 1) / kBandRows;
        Expr bands_per_task = max((bands_per_plane + kTasksPerPlane - 1) / kTasksPerPlane, 1);
        const Expr narrow_rows = out.output_buffer().dim(0).extent() < K * L;
        BandWalks w = *bands;  // Funcs are handles: scheduling a copy schedules the stage's own
        if (w.copied) {
            ring(w.rows, out, yo, yb, L);
            RVar co("co"), ci("ci");
            w.rows.update().split(w.copy.x, co, ci, L, TailStrategy::GuardWithIf).vectorize(ci);
        }
        for (const auto &c : band_cases(w)) {
            if (!c.second.defined()) continue;
            // Blocks of one chunk only for the walks that rows narrower than
            // a block take (walks.h); a branch costs compile time in every
            // one of the 162 pipelines.
            const Expr narrow = takes_narrow_rows(c.first) ? narrow_rows : Internal::const_false();
            Stage s = out.specialize(b.takes(c.first));
            s.split(y, yb, yi, kBandRows, TailStrategy::GuardWithIf)
                .split(yb, yo, yb, bands_per_task, TailStrategy::GuardWithIf)
                .parallel(yo)
                .serial(yb)
                .serial(yi);
            s.specialize(narrow).split(x, xo, xi, L, TailStrategy::ShiftInwards).vectorize(xi);
            s.split(x, xo, xi, K * L, TailStrategy::ShiftInwards).vectorize(xi);
            switch (c.first) {
            case TM_WALK_TAPS: block_walk(w.taps, w.taps_r, out, xo, L, narrow); break;
            case TM_WALK_BOX:
                folded_ring(w.row_fold, w.row_walk, w.row_r, out, yo, yb, L, narrow);
                block_walk(w.box, w.box_r, out, xo, L, narrow);
                if (w.dirty.defined()) {
                    // The NaN tests: per source row, once per band, as a
                    // vector of lanes folded at the end; per output row,
                    // over the rows it reads.  The rows a NaN sends back to
                    // the taps walk them in blocks like the rest.
                    w.row_nan.compute_at(out, yb);
                    w.row_nan.update().atomic().vectorize(w.nan_r.x, L);
                    w.dirty.compute_at(out, yi);
                    block_fold(w.box, 1, w.box_taps_r, L, narrow);
                }
                break;
            case TM_WALK_PLANES:
                folded_ring(w.plane_fold, w.plane_walk, w.plane_r, out, yo, yb, L, narrow);
                folded_ring(w.plane_row_fold, w.plane_row_walk, w.plane_row_r, out, yo, yb, L, narrow);
                block_walk(w.plane_box, w.plane_box_r, out, xo, L, narrow);
                break;
            case TM_WALK_RUNS:
                // The levels of every source row the band reads, kept in the
                // ring like the rows, level by level over whole rows; then
                // the runs walked in blocks like the taps.
                for (size_t k = 1; k < w.levels.size(); k++) ring(w.levels[k], out, yo, yb, L);
                block_walk(w.runs_walk, w.runs_r[0], out, xo, L, narrow);
                for (size_t k = 1; k < w.runs_r.size(); k++) block_fold(w.runs_walk, int(k), w.runs_r[k], L, narrow);
                break;
            default: break;
            }
        }
    }

    // The direct walk.  The block branch: blocks of K chunks, the last one
    // moved back inwards like the last chunk; inside a block the element
    // walk runs once with the K chunks innermost, so that every chunk still
    // meets the taps in the walk's own order.  Only where the row holds
    // enough whole blocks.
    Stage d = bands ? out.specialize(b.takes(TM_WALK_DIRECT)) : Stage(out);
    const bool chained = walk.output_types()[0].is_float();
    const int KF = kFloatChunks;
    Expr blocks = b.wide && out.output_buffer().dim(0).extent() >= kMinBlocksPerRow * KF * L;
    if (chained) {
        d.specialize(blocks)
            .split(x, xo, xi, KF * L, TailStrategy::ShiftInwards)
            .split(xi, xk, xi, L)
            .vectorize(xi)
            .unroll(xk);
    }
    d.specialize(b.wide).split(x, xo, xi, L, TailStrategy::ShiftInwards).vectorize(xi);
    d.split(x, xo, xi, 1);
    // The frame hands over one of the walks listed; no other value reaches here.
    if (bands) out.specialize_fail("the entry point handed over an unknown walk");

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
