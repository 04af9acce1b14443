#include "walk_schedule.h"

#include "band_walk.h"

using namespace Halide;

namespace morph {

namespace {

// Bands per band task, so that a plane has about this many band tasks.
// A band task runs its bands in order; each band takes its rows (and their
// folds) from the allocator when it starts and gives them back when it
// ends, and the runtime's allocator (dispatch/blocks.c) hands the next band
// the same block, still in the caches, whichever task it belongs to.  A
// 2-D image is one plane, so this is all the parallelism it has: 4 kept a
// 16-core machine to 4 cores and left 2 threads unevenly loaded (uint8
// 4096^2 3 x 3 erosion on 2 threads 2.0-3.8 ms with 4, 1.8-2.1 with 32;
// one thread and 512 x 512 images unchanged).
constexpr int kTasksPerPlane = 32;

// The chunks of a block that make one vector of the code: the code
// generator splits it into that many registers, whose loads then differ
// by constants.  Wider vectors make it lose track of some registers' min
// and max on the smaller types.
constexpr int kVectorChunks = 4;

}  // namespace

void ring(Func f, const BandSchedule &s) {
    f.compute_at(s.out, s.yb);
    f.vectorize(f.args()[0], s.lanes, TailStrategy::RoundUp);
}

// The block is one vector of K chunks' lanes, which the code generator
// splits into K registers: their loads then differ by constants, where K
// vectors of L lanes would each add their offset to a 32-bit index before
// widening it to an address.
void block_fold(Func walk, int update, const RDom &r, const BandSchedule &s) {
    Var wx = walk.args()[0], wk("wk");
    std::vector<VarOrRVar> order = {wx, wk};
    for (int i = 0; i < r.dimensions(); i++) order.push_back(r[i]);
    walk.update(update).split(wx, wk, wx, kVectorChunks * s.lanes).vectorize(wx).unroll(wk).reorder(order);
}

void block_walk(Func walk, const std::vector<RDom> &r, Func at, const Var &xo, const BandSchedule &s) {
    walk.compute_at(at, xo);
    walk.vectorize(walk.args()[0], kBlockChunks * s.lanes);
    for (size_t i = 0; i < r.size(); i++) block_fold(walk, int(i), r[i], s);
}

// On rows narrower than a block the block is s.group_chunks chunks of
// s.group_rows rows: as many accumulators as a block of a wide row, the
// walk's bookkeeping per run paid once for all of them.  The block always
// has all its rows and chunks (the last group of a stage computes rows past
// its end, and the last pair of chunks of a row with an odd number of them
// a chunk past its end, which are never stored), so that its accumulators
// stay in registers.
void rows_walk(Func walk, const std::vector<RDom> &r, const BandSchedule &s) {
    Var wx = walk.args()[0], wy = walk.args()[1];
    const int width = s.group_chunks * s.lanes;
    walk.compute_at(s.out, s.xo).bound_extent(wy, s.group_rows);
    walk.vectorize(wx, width, TailStrategy::RoundUp).unroll(wy);
    for (size_t u = 0; u < r.size(); u++) {
        std::vector<VarOrRVar> order = {wx, wy};
        for (int i = 0; i < r[u].dimensions(); i++) order.push_back(r[u][i]);
        walk.update(int(u)).vectorize(wx, width, TailStrategy::RoundUp).unroll(wy).reorder(order);
    }
}

// The fold kept per source row, computed block by block of K chunks (the
// last block moved back inwards, so nothing beyond the rows the band reads
// is touched) from `walk`, whose fold over `r` runs with the block's
// accumulators in registers.
void folded_ring(Func fold, Func walk, const RDom &r, const BandSchedule &s) {
    const int L = s.lanes;
    Var u = fold.args()[0], uo("uo"), ui("ui");
    fold.compute_at(s.out, s.yb);
    fold.split(u, uo, ui, kBlockChunks * L, TailStrategy::ShiftInwards).vectorize(ui);
    block_walk(walk, {r}, fold, uo, s);
}

// Levels computed at `at` of `out`: for each group of kLevelRows rows, its
// levels one after the other, each over the group's whole rows.  A level
// writes only its own level and reads only the one below, so its samples
// are independent of each other whatever their order; Halide cannot tell
// the two levels apart through the row's offset.
void schedule_levels(const Levels &l, const Func &out, const Var &at, int lanes) {
    Func lev = l.f;
    lev.compute_at(out, at);
    lev.update(0).vectorize(lev.args()[0], lanes, TailStrategy::RoundUp);
    int update = 1;
    if (l.copy.defined()) {
        RVar co("co"), ci("ci");
        lev.update(update++).split(l.copy.x, co, ci, lanes, TailStrategy::GuardWithIf).vectorize(ci);
    }
    RVar ro("ro"), ri("ri");
    Var v = lev.args()[1], vo("vo"), vi("vi");
    lev.update(update)
        .allow_race_conditions()
        .split(l.r.x, ro, ri, lanes)
        .vectorize(ri)
        .split(v, vo, vi, kLevelRows, TailStrategy::GuardWithIf)
        .reorder(ri, ro, l.r.y, vi, l.r.z, vo);
}

namespace {

// Band tasks: y split into bands and the bands into band tasks; the tasks
// in parallel, a task's bands and a band's rows in order; blocks of K
// chunks along x, or on rows narrower than a block blocks of a few chunks
// of a few rows (the walks that take such rows have Funcs of
// their own for them).
void schedule_bands(Func out, const BandWalks &bands, const Branch &b) {
    Var x = out.args()[0], y = out.args()[1], z = out.args()[2];
    Var xo("xo"), xi("xi"), yo("yo"), yb("yb"), yi("yi"), zo("zo"), zi("zi");
    const int L = b.lanes, K = kBlockChunks;
    // A pair of chunks on rows narrower than a block walks a chunk past the
    // row's end where the row has an odd number of chunks: a source with a
    // pad has its rows written out, as wide as the walk reads them; one
    // without (closing's intermediate) holds nothing there, so its rows are
    // walked a chunk at a time, in groups of twice the rows.
    const int group_chunks = bands.copied ? kGroupChunks : 1;
    const int group_rows = kGroupRows * kGroupChunks / group_chunks;
    auto bands_per_task = [&](const Expr &band_rows) {
        Expr bands_per_plane = (out.output_buffer().dim(1).extent() + band_rows - 1) / band_rows;
        return max((bands_per_plane + kTasksPerPlane - 1) / kTasksPerPlane, 1);
    };
    BandWalks w = bands;  // Funcs are handles: scheduling a copy schedules the stage's own
    if (w.copied) {
        BandSchedule all{out, yo, yb, yi, xo, L, group_chunks, group_rows};
        ring(w.rows, all);
        RVar co("co"), ci("ci");
        w.rows.update().split(w.copy.x, co, ci, L, TailStrategy::GuardWithIf).vectorize(ci);
    }
    // The levels of the band's source rows, for each band: in RUNS a band
    // of rows runs down a slab of planes, so its levels are those of every
    // source plane the slab reads, each computed once.  (SEGMENTS computes
    // its own levels row by row.)
    if (w.slab_levels.f.defined()) schedule_levels(w.slab_levels, out, yb, L);
    if (w.dirty.defined()) {
        // The NaN tests of the walks that fold: per source row, once per
        // band, in vectors of lanes folded at the end of the row; per output
        // row, over the rows it reads.
        w.row_nan.compute_at(out, yb);
        w.nan_lanes.compute_at(w.row_nan, w.row_nan.args()[0]);
        w.nan_lanes.vectorize(w.nan_lanes.args()[0]);
        w.nan_lanes.update().vectorize(w.nan_lanes.args()[0]);
        w.nan_fold.compute_at(w.row_nan, w.row_nan.args()[0]);
        w.nan_fold.vectorize(w.nan_fold.args()[0]);
        w.dirty.compute_at(out, yi);
    }
    for (const BandCase &c : band_cases(w)) {
        if (!c.wide.defined()) continue;
        Stage s = out.specialize(b.takes(c.walk));
        // RUNS walks slabs of planes: the slabs and the band tasks in
        // parallel, a task's bands in order, and in each band the slab's
        // planes in order, all from the band's levels.  The last slab moves
        // back to end on the last plane (the entry point makes no slab
        // deeper than the stage), as the last chunk of a row does: its
        // first planes are computed twice, with the same values.  `inner`
        // are the loops inside the planes, innermost first.
        const bool slabs = c.walk == TM_WALK_RUNS;
        auto order = [&](Stage st, std::vector<VarOrRVar> inner) {
            if (!slabs) {
                inner.insert(inner.end(), {yb, yo});
                st.reorder(inner);
                return;
            }
            inner.insert(inner.end(), {zi, yb, yo, zo});
            st.split(z, zo, zi, b.slab_planes, TailStrategy::ShiftInwards).reorder(inner).parallel(zo).serial(zi);
        };
        // SEGMENTS sizes its own bands by the box's height.
        const Expr band_rows = c.walk == TM_WALK_SEGMENTS ? w.segment_band : Expr(kBandRows);
        if (c.narrow.defined()) {
            // Rows narrower than a block, for the walks that take them
            // (walks.h; a branch costs compile time in every pipeline,
            // SEGMENTS's about 2.3 s of a pipeline's 8): groups of
            // group_rows rows, a band being a number of groups, each group
            // walked group_chunks chunks at a time.  The chunks are those of
            // a row of chunks (the last moved back inwards), paired from the
            // row's start, so that a row of one to two chunks is one pair
            // and the pair's walk never reaches past a chunk beyond the row.
            Var yg("yg"), yk("yk"), xc("xc");
            Stage n = s.specialize(w.row.narrow);
            n.split(y, yg, yk, group_rows, TailStrategy::GuardWithIf)
                .split(yg, yb, yi, band_rows / group_rows, TailStrategy::GuardWithIf)
                .split(yb, yo, yb, bands_per_task(band_rows), TailStrategy::GuardWithIf)
                .split(x, xo, xi, L, TailStrategy::ShiftInwards)
                .split(xo, xo, xc, group_chunks, TailStrategy::GuardWithIf)
                .vectorize(xi)
                .parallel(yo)
                .serial(yb)
                .serial(yi)
                .serial(yk);
            order(n, {xi, yk, xc, xo, yi});
        }
        s.split(y, yb, yi, band_rows, TailStrategy::GuardWithIf)
            .split(yb, yo, yb, bands_per_task(band_rows), TailStrategy::GuardWithIf)
            .parallel(yo)
            .serial(yb)
            .serial(yi);
        s.split(x, xo, xi, K * L, TailStrategy::ShiftInwards).vectorize(xi);
        if (slabs) order(s, {xi, xo, yi});
        const BandSchedule at{out, yo, yb, yi, xo, L, group_chunks, group_rows};
        switch (c.walk) {
        case TM_WALK_TAPS: schedule_taps(w, at); break;
        case TM_WALK_BOX: schedule_box(w, at); break;
        case TM_WALK_PLANES: schedule_planes(w, at); break;
        case TM_WALK_RUNS: schedule_runs(w, at); break;
        case TM_WALK_SEGMENTS: schedule_segments(w, at); break;
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
