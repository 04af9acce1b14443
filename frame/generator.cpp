// The one generator of the library.  It declares the four buffers every
// entry point takes, under their own names, and builds the operator it is
// registered for.  The element type arrives as a generator parameter; a
// boolean image is handed to the pipeline as bytes and counted by bit 0, so
// the pipeline's own image and output buffers are uint8 for it.
//
// A two-stage operator's intermediate is one block that the entry point
// sizes, allocates and frees (the box plus one element) and fills first by
// the erosion or dilation pipeline of the same type and level, computed over
// the box.  Opening's second stage is the dilation pipeline again, over that
// block read through a window.  Closing's (which reads the block unpadded,
// without a copy of its rows), top-hat's and bottom-hat's (which read the
// image as well) are pipelines of their own, their intermediate a fifth
// buffer named after the first stage.  So a walk is generated once per type
// and level for every operator that begins with it.
//
// The entry point also hands over what it decided for the call, so that
// the pipeline never decides it again on its own: the branch (`wide`) and
// the window.  It calls the pipeline in coordinates of its own
// choosing, in which no sum the pipeline forms can leave 32 bits; that is
// why nothing here derives a decision from the image's descriptor, which
// the entry point may have cut to the samples the call can read.
#include "Halide.h"

#include "../pipelines/operators.h"

using namespace Halide;

namespace morph {

template<Op op, typename Self>
class Operator : public Generator<Self> {
    using Base = Generator<Self>;

public:
    typename Base::template GeneratorParam<bool> boolean{"boolean", false};

    typename Base::template Input<Buffer<>> keyimForType{"keyimForType", 3};
    typename Base::template Input<Buffer<double>> minmax{"minmax", 2};
    typename Base::template Input<Buffer<uint8_t>> strel{"strel", 3};
    typename Base::template Input<bool> wide{"wide"};
    typename Base::template Input<int32_t> window_min_0{"window_min_0"}, window_min_1{"window_min_1"},
        window_min_2{"window_min_2"};
    typename Base::template Input<int32_t> window_extent_0{"window_extent_0"},
        window_extent_1{"window_extent_1"}, window_extent_2{"window_extent_2"};
    // The walk the entry point chose for the call (stages/walks.h; a band
    // walk only in the wide branch), and the mask's runs of taps in the
    // walk's order: kRunFields int32 per row of the list (stages/
    // element_walk.h), `longest_run` the longest run, `exact_lengths` the
    // entries of exact lengths in RUNS' table of folds, `one_read_runs`
    // the rows at the head of the list that RUNS reads once.
    typename Base::template Input<int32_t> walk{"walk"};
    typename Base::template Input<Buffer<int32_t>> tap_runs{"tap_runs", 2};
    typename Base::template Input<int32_t> longest_run{"longest_run"};
    typename Base::template Input<int32_t> exact_lengths{"exact_lengths"};
    typename Base::template Input<int32_t> one_read_runs{"one_read_runs"};
    // The output planes a task of RUNS walks in order (at least 1).
    typename Base::template Input<int32_t> slab_planes{"slab_planes"};
    // The output's rows: the first sample and the width of a row, and the
    // first row, as the entry point describes the buffer.  The band walks
    // size what they keep per band by them.
    typename Base::template Input<int32_t> out_min_0{"out_min_0"}, out_extent_0{"out_extent_0"}, out_min_1{"out_min_1"};
    typename Base::template Output<Buffer<>> out{output_name(), 3};

    static const char *output_name() {
        switch (op) {
        case Op::Erode: return "erode";
        case Op::Dilate: return "dilate";
        case Op::Close: return "close";
        case Op::TopHat: return "tophat";
        case Op::BotHat: return "bothat";
        }
        return "";
    }

    void generate() {
        Sources s;
        s.el = Element{keyimForType.type(), boolean};
        const int lanes = this->natural_vector_size(s.el.storage);
        s.branch = Branch{wide, lanes, walk, max(slab_planes, 1)};
        // Only the baseline level's vector loop converts uint32 by halves.
        const Target t = this->get_target();
        s.halves = t.has_feature(Target::SSE41) ? Expr(false) : s.branch.wide;

        Expr se_extent[3];
        for (int d = 0; d < 3; d++) {
            se_extent[d] = strel.dim(d).extent();
            s.im_min[d] = keyimForType.dim(d).min();
            s.im_extent[d] = keyimForType.dim(d).extent();
        }
        s.window_min[0] = window_min_0, s.window_min[1] = window_min_1, s.window_min[2] = window_min_2;
        s.window_extent[0] = window_extent_0, s.window_extent[1] = window_extent_1,
        s.window_extent[2] = window_extent_2;
        s.se = make_strel(strel, se_extent);
        // The entry point lays the runs out densely, row after row.
        tap_runs.dim(0).set_min(0).set_extent(kRunFields).set_stride(1);
        tap_runs.dim(1).set_min(0).set_stride(kRunFields);
        s.runs = Runs{tap_runs, tap_runs.dim(1).extent(), longest_run, exact_lengths, one_read_runs};
        s.row = StageRow{out_min_0, out_extent_0, out_min_1, Expr()};
        s.image = keyimForType;
        s.lower = minmax(0, 0);
        s.upper = minmax(1, 0);
        static_cast<Self *>(this)->intermediate(s);
        build(op, s, out);
    }
};

template<Op op>
class Morphology : public Operator<op, Morphology<op>> {
public:
    void intermediate(Sources &) {}
};

// The second stage of closing, top-hat or bottom-hat, over the intermediate
// its first stage stored.
template<Op op>
class TwoStage : public Operator<op, TwoStage<op>> {
    using Base = Generator<TwoStage<op>>;

public:
    typename Base::template Input<Buffer<>> stage{op == Op::TopHat ? "imerode" : "imdilate", 3};

    void intermediate(Sources &s) {
        Var u("u"), v("v"), w("w");
        s.stage = Func(stage.name() + "_stored");
        s.stage(u, v, w) = stage(u, v, w);
        for (int d = 0; d < 3; d++) {
            s.stage_min[d] = stage.dim(d).min();
            s.stage_extent[d] = stage.dim(d).extent();
        }
    }
};

}  // namespace morph

HALIDE_REGISTER_GENERATOR(morph::Morphology<morph::Op::Erode>, imerode)
HALIDE_REGISTER_GENERATOR(morph::Morphology<morph::Op::Dilate>, imdilate)
HALIDE_REGISTER_GENERATOR(morph::TwoStage<morph::Op::Close>, imclose)
HALIDE_REGISTER_GENERATOR(morph::TwoStage<morph::Op::TopHat>, imtophat)
HALIDE_REGISTER_GENERATOR(morph::TwoStage<morph::Op::BotHat>, imbothat)
