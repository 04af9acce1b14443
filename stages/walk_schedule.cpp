#include "walk_schedule.h"

#include "band_walk.h"

using namespace Halide;

namespace morph {

namespace {

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

}  // namespace

void ring(Func f, const BandSchedule &s) {
    f.store_at(s.out, s.yo).compute_at(s.out, s.yb).fold_storage(f.args()[1], kRingRows);
    f.vectorize(f.args()[0], s.lanes, TailStrategy::RoundUp);
}

// The block is one vector of K chunks' lanes, which the code generator
// splits into K registers: their loads then differ by constants, where K
// vectors of L lanes would each add their offset to a 32-bit index before
// widening it to an address.  On rows narrower than a block (`narrow`) the
// block is one chunk: the same fold with one accumulator, vectorized by L.
void block_fold(Func walk, int update, const RDom &r, const BandSchedule &s) {
    const int L = s.lanes;
    Var wx = walk.args()[0], wk("wk");
    std::vector<VarOrRVar> order = {wx, wk}, one = {wx};
    for (int i = 0; i < r.dimensions(); i++) order.push_back(r[i]), one.push_back(r[i]);
    Stage st = walk.update(update);
    st.specialize(s.narrow).vectorize(wx, L).reorder(one);
    st.split(wx, wk, wx, kVectorChunks * L).vectorize(wx).unroll(wk).reorder(order);
}

void block_walk(Func walk, const RDom &r, Func at, const Var &xo, const BandSchedule &s) {
    walk.compute_at(at, xo);
    walk.specialize(s.narrow).vectorize(walk.args()[0], s.lanes);
    walk.vectorize(walk.args()[0], kBlockChunks * s.lanes);
    block_fold(walk, 0, r, s);
}

// The fold kept per source row, computed block by block of K chunks (the
// last block moved back inwards, so nothing beyond the rows the band reads
// is touched) from `walk`, whose fold over `r` runs with the block's
// accumulators in registers.
void folded_ring(Func fold, Func walk, const RDom &r, const BandSchedule &s) {
    const int L = s.lanes;
    Var u = fold.args()[0], uo("uo"), ui("ui");
    fold.store_at(s.out, s.yo).compute_at(s.out, s.yb).fold_storage(fold.args()[1], kRingRows);
    fold.specialize(s.narrow).split(u, uo, ui, L, TailStrategy::ShiftInwards).vectorize(ui);
    fold.split(u, uo, ui, kBlockChunks * L, TailStrategy::ShiftInwards).vectorize(ui);
    block_walk(walk, r, fold, uo, s);
}

namespace {

// Band tasks: y split into bands and the bands into band tasks; the tasks
// in parallel, a task's bands and a band's rows in order; blocks of K
// chunks along x, or of one chunk on rows narrower than a block (the walks'
// and folds' own schedules follow the same test).
void schedule_bands(Func out, const BandWalks &bands, const Branch &b) {
    Var x = out.args()[0], y = out.args()[1];
    Var xo("xo"), xi("xi"), yo("yo"), yb("yb"), yi("yi");
    const int L = b.lanes, K = kBlockChunks;
    Expr bands_per_plane = (out.output_buffer().dim(1).extent() + kBandRows - 1) / kBandRows;
    Expr bands_per_task = max((bands_per_plane + kTasksPerPlane - 1) / kTasksPerPlane, 1);
    const Expr narrow_rows = out.output_buffer().dim(0).extent() < K * L;
    BandWalks w = bands;  // Funcs are handles: scheduling a copy schedules the stage's own
    if (w.copied) {
        BandSchedule all{out, yo, yb, yi, xo, L, Internal::const_false()};
        ring(w.rows, all);
        RVar co("co"), ci("ci");
        w.rows.update().split(w.copy.x, co, ci, L, TailStrategy::GuardWithIf).vectorize(ci);
    }
    for (const auto &c : band_cases(w)) {
        if (!c.second.defined()) continue;
        // Blocks of one chunk only for the walks that rows narrower than a
        // block take (walks.h); a branch costs compile time in every one of
        // the 162 pipelines.
        const Expr narrow = takes_narrow_rows(c.first) ? narrow_rows : Internal::const_false();
        Stage s = out.specialize(b.takes(c.first));
        s.split(y, yb, yi, kBandRows, TailStrategy::GuardWithIf)
            .split(yb, yo, yb, bands_per_task, TailStrategy::GuardWithIf)
            .parallel(yo)
            .serial(yb)
            .serial(yi);
        s.specialize(narrow).split(x, xo, xi, L, TailStrategy::ShiftInwards).vectorize(xi);
        s.split(x, xo, xi, K * L, TailStrategy::ShiftInwards).vectorize(xi);
        const BandSchedule at{out, yo, yb, yi, xo, L, narrow};
        switch (c.first) {
        case TM_WALK_TAPS: schedule_taps(w, at); break;
        case TM_WALK_BOX: schedule_box(w, at); break;
        case TM_WALK_PLANES: schedule_planes(w, at); break;
        case TM_WALK_RUNS: schedule_runs(w, at); break;
        default: break;
        }
    }
}

}  // namespace

void schedule_stage(Func out, Func walk, const Branch &b, const BandWalks *bands) {
    Var y = out.args()[1], z = out.args()[2];
    // Directives given before specialize() hold in every branch.
    out.parallel(z).parallel(y);

    // One branch per walk, on the walk's value: in each, the value is known
    // and the algorithm's selects among the walks fold away, so a branch
    // computes its own walk and nothing else.
    if (bands) schedule_bands(out, *bands, b);
    Stage d = bands ? out.specialize(b.takes(TM_WALK_DIRECT)) : Stage(out);
    schedule_direct(d, out, walk, b);
    // The frame hands over one of the walks listed; no other value reaches here.
    if (bands) out.specialize_fail("the entry point handed over an unknown walk");
}

}  // namespace morph
