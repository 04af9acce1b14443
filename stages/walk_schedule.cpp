#include "walk_schedule.h"

using namespace Halide;

namespace morph {

void schedule_stage(Func out, Func walk, const Branch &b) {
    Var x = out.args()[0], y = out.args()[1], z = out.args()[2];
    Var xo("xo"), xi("xi");
    // Directives given before specialize() hold in both branches.
    out.parallel(z).parallel(y);
    out.specialize(b.wide)
        .split(x, xo, xi, b.lanes, TailStrategy::ShiftInwards)
        .vectorize(xi);
    out.split(x, xo, xi, 1);

    walk.compute_at(out, xo);
    Var wx = walk.args()[0];
    walk.specialize(b.wide).vectorize(wx, b.lanes);
    walk.update().specialize(b.wide).vectorize(wx, b.lanes);
}

}  // namespace morph
