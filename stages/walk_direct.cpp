// DIRECT: the walk over the padded source in place, one task per row; the
// only walk of narrow images, and the one any call can take.
//
// Along a wide row the row is cut into chunks of L lanes, loop partitioning
// leaving the tests out of the steady chunks.  For the floating types, rows
// of at least 16 blocks walk a block of four adjacent chunks at once
// instead: four accumulators in registers, one test of each element byte
// for all four, every lane still meeting the taps in the walk's own order.
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

}  // namespace

Func element_walk(Walk w, const Func &source, const Strel &se, const Element &el, const std::string &name,
                  const std::vector<Var> &at) {
    const Var &x = at[0], &y = at[1], &z = at[2];
    Func f(name);
    f(x, y, z) = w == Walk::Erode ? el.greatest() : el.least();
    const RDom &r = se.r;
    Expr s = w == Walk::Erode ? source(x + r.x, y + r.y, z + r.z) : source(x - r.x, y - r.y, z - r.z);
    f(x, y, z) = combine(w, f(x, y, z), s, el);
    return f;
}

// The block branch: blocks of K chunks, the last one moved back inwards
// like the last chunk; inside a block the element walk runs once with the K
// chunks innermost, so that every chunk still meets the taps in the walk's
// own order.  Only where the row holds enough whole blocks.
void schedule_direct(Stage d, Func out, Func walk, const Branch &b) {
    Var x = out.args()[0], xo("xo"), xi("xi"), xk("xk");
    const int L = b.lanes, KF = kFloatChunks;
    const bool chained = walk.output_types()[0].is_float();
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
