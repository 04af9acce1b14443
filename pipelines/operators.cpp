#include "operators.h"

#include "residue.h"

using namespace Halide;

namespace morph {

namespace {

const std::vector<Var> &output_vars() {
    static const std::vector<Var> v = {Var("x"), Var("y"), Var("z")};
    return v;
}

// One walk of a stage, every way: directly over the padded source (`direct`)
// and as band walks over its rows (`bands`).  `value` is the walk's result
// at the stage's coordinates, the one of the walk the entry point chose.
struct StageWalk {
    Func direct;
    BandWalks bands;
    Expr value;
};

StageWalk stage_walk(Walk w, const Sources &s, const Func &padded_source, const Source &src,
                     const std::string &name) {
    const std::vector<Var> &at = output_vars();
    StageWalk sw;
    sw.direct = element_walk(w, padded_source, s.se, s.el, name, at);
    StageRow stage_row = s.row;
    stage_row.narrow = stage_row.extent < kBlockChunks * s.branch.lanes;
    Source with_padded = src;
    with_padded.padded = padded_source;
    sw.bands = band_walks(w, with_padded, s.se, s.runs, s.el, name, at, stage_row);
    const Var &x = at[0], &y = at[1], &z = at[2];
    // The schedule branches on the same values, so in each branch the
    // selects fold to the branch's own walk and rows.
    Expr v = sw.direct(x, y, z);
    for (const BandCase &c : band_cases(sw.bands)) {
        if (!c.wide.defined()) continue;
        Expr walked = c.wide(x, y, z);
        if (c.narrow.defined()) walked = select(stage_row.narrow, c.narrow(x, y, z), walked);
        v = select(s.branch.takes(c.walk), walked, v);
    }
    sw.value = v;
    return sw;
}

void finish_stage(StageWalk &sw, const Sources &s, Func of) { schedule_stage(of, sw.direct, s.branch, &sw.bands); }

// A walk over `source`, whose samples the buffer holds over the box
// `box_min`/`box_extent`, read through the window the entry point hands
// over and padded with `pad` outside it.  For erosion and dilation of an
// image the window is the image's own piece; the same pipelines run
// opening's second stage, whose window the entry point places (from 0,
// whatever the image's mins, and bounded in dimension 2 by the image's
// extent in dimension 1 for imopen, in dimension 2 for imtophat) and cuts
// to the intermediate's box.  The window may be empty: every read then
// takes the pad.
StageWalk windowed_walk(Walk w, const Sources &s, const Func &source, const Expr box_min[3],
                        const Expr box_extent[3], const Expr &pad, const std::string &name) {
    Func q = padded(source, s.window_min, s.window_extent, pad, "padded", true);
    // The band walks copy the window's rows.  The entry point keeps the
    // window inside the box whenever the element has taps; without taps it
    // may reach beyond, but then no band walk runs, and the copy is kept to
    // the box all the same.
    Source src;
    src.f = source;
    for (int d = 0; d < 3; d++) {
        Expr box_last = box_min[d] + box_extent[d] - 1;
        Expr first = max(s.window_min[d], box_min[d]);
        Expr last = min(s.window_min[d] + s.window_extent[d] - 1, box_last);
        src.min[d] = first;
        src.extent[d] = max(last - first + 1, 0);
    }
    src.pad = pad;
    return stage_walk(w, s, q, src, name);
}

// Top-hat's second stage: opening's, over the intermediate.
StageWalk opening_walk(const Sources &s) {
    return windowed_walk(Walk::Dilate, s, s.stage, s.stage_min, s.stage_extent, pad_cast(s.lower, s.el), "imdilate");
}

// Closing's and bottom-hat's: the intermediate reaches as far as stage 2
// reads, unclipped, so the second walk needs no test at all, and its band
// walks read the intermediate's rows as they are (no copy of them, which
// the erosion pipeline would make to pad an image).
StageWalk closing_walk(const Sources &s) {
    Source src;
    src.f = s.stage;
    for (int d = 0; d < 3; d++) {
        src.min[d] = s.stage_min[d];
        src.extent[d] = s.stage_extent[d];
    }
    return stage_walk(Walk::Erode, s, s.stage, src, "imerode");
}

}  // namespace

void build(Op op, const Sources &s, Func out) {
    const std::vector<Var> &xyz = output_vars();
    const Var &x = xyz[0], &y = xyz[1], &z = xyz[2];
    StageWalk sw;
    switch (op) {
    case Op::Erode:
        sw = windowed_walk(Walk::Erode, s, image_samples(s.image, s.el), s.im_min, s.im_extent,
                           pad_cast(s.upper, s.el), "imerode");
        break;
    case Op::Dilate:
        sw = windowed_walk(Walk::Dilate, s, image_samples(s.image, s.el), s.im_min, s.im_extent,
                           pad_cast(s.lower, s.el), "imdilate");
        break;
    case Op::TopHat: sw = opening_walk(s); break;
    case Op::Close:
    case Op::BotHat: sw = closing_walk(s); break;
    }

    // The residues read the image once more, at the output's own
    // coordinates, with no clamp and no pad.
    Func samples = image_samples(s.image, s.el);
    if (op == Op::TopHat)
        out(x, y, z) = residue(samples(x, y, z), sw.value, s.el, s.halves);
    else if (op == Op::BotHat)
        out(x, y, z) = residue(sw.value, samples(x, y, z), s.el, s.halves);
    else
        out(x, y, z) = sw.value;
    finish_stage(sw, s, out);
}

}  // namespace morph
