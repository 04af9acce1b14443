#include "operators.h"

#include "residue.h"

using namespace Halide;

namespace morph {

namespace {

const std::vector<Var> &output_vars() {
    static const std::vector<Var> v = {Var("x"), Var("y"), Var("z")};
    return v;
}

const std::vector<Var> &image_vars() {
    static const std::vector<Var> v = {Var("u"), Var("v"), Var("w")};
    return v;
}

// The image padded with `pad` outside its own domain.
Func padded_image(const Sources &s, const Expr &pad) {
    return padded(image_samples(s.image, s.el), s.im_min, s.im_extent, pad, "padded");
}

// Stage 1 of a two-stage operator: a walk over the padded image, stored
// whole in the intermediate buffer.  The entry point sizes that buffer to
// exactly what stage 2 reads (in the wide branch at least one chunk wide),
// and the pipeline's own checks confirm that it covers it.
Func stored_stage(Walk w, const Sources &s, const Expr &pad, Func stage) {
    const std::vector<Var> &at = image_vars();
    Func acc = element_walk(w, padded_image(s, pad), s.se, s.el, stage.name() + "_chunk", at);
    stage(at[0], at[1], at[2]) = acc(at[0], at[1], at[2]);
    schedule_stage(stage, acc, s.branch);
    return stage;
}

// Opening's window comes from the entry point, which places it (from 0,
// whatever the image's mins, and bounded in dimension 2 by the image's
// extent in dimension 1 for imopen, in dimension 2 for imtophat) and cuts
// it to the intermediate's box.
Func opening_walk(const Sources &s, Func stage) {
    Func imerode = stored_stage(Walk::Erode, s, pad_cast(s.upper, s.el), stage);
    Func q = padded(imerode, s.window_min, s.window_extent, pad_cast(s.lower, s.el), "window", true);
    return element_walk(Walk::Dilate, q, s.se, s.el, "imdilate", output_vars());
}

// Closing's intermediate reaches as far as stage 2 reads, unclipped, so the
// second walk needs no test at all.
Func closing_walk(const Sources &s, Func stage) {
    Func imdilate = stored_stage(Walk::Dilate, s, pad_cast(s.lower, s.el), stage);
    return element_walk(Walk::Erode, imdilate, s.se, s.el, "imerode", output_vars());
}

}  // namespace

void build(Op op, const Sources &s, Func out, Func stage) {
    const std::vector<Var> &xyz = output_vars();
    const Var &x = xyz[0], &y = xyz[1], &z = xyz[2];
    Func acc;
    switch (op) {
    case Op::Erode:
        acc = element_walk(Walk::Erode, padded_image(s, pad_cast(s.upper, s.el)), s.se, s.el, "imerode", xyz);
        break;
    case Op::Dilate:
        acc = element_walk(Walk::Dilate, padded_image(s, pad_cast(s.lower, s.el)), s.se, s.el, "imdilate", xyz);
        break;
    case Op::Open:
    case Op::TopHat: acc = opening_walk(s, stage); break;
    case Op::Close:
    case Op::BotHat: acc = closing_walk(s, stage); break;
    }

    // The residues read the image once more, at the output's own
    // coordinates, with no clamp and no pad.
    Func samples = image_samples(s.image, s.el);
    if (op == Op::TopHat)
        out(x, y, z) = residue(samples(x, y, z), acc(x, y, z), s.el, s.halves);
    else if (op == Op::BotHat)
        out(x, y, z) = residue(acc(x, y, z), samples(x, y, z), s.el, s.halves);
    else
        out(x, y, z) = acc(x, y, z);
    schedule_stage(out, acc, s.branch);
}

}  // namespace morph
