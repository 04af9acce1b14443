// The six operators as Halide pipelines, built from the shared element
// walk: erosion and dilation in one stage; of opening and closing the walk
// over the intermediate that the erosion or dilation pipeline stored; top-
// hat and bottom-hat as opening and closing with the residue fused into
// that last stage.
#pragma once

#include "Halide.h"

#include "../stages/element_walk.h"
#include "../stages/walk_schedule.h"

namespace morph {

enum class Op { Erode, Dilate, Open, Close, TopHat, BotHat };

// What every pipeline is built from: the image as a Func with its domain,
// the two pad bounds as read from `minmax`, the element, the type, and what
// the entry point decided: the branch and opening's window.
struct Sources {
    Halide::Func image;  // keyimForType, as stored
    Halide::Expr im_min[3], im_extent[3];
    Halide::Expr lower, upper;  // minmax(0, 0) and minmax(1, 0)
    // Opening's window in the pipeline's coordinates; it may be empty.
    Halide::Expr window_min[3], window_extent[3];
    Strel se;
    Runs runs;  // the mask's runs of taps, for the band walks
    Element el;
    Branch branch;
    Halide::Expr halves;  // the residue's uint32 conversion by halves
    // The output's rows, as the entry point describes its buffer.
    StageRow row;
    // A two-stage operator's intermediate as its first stage stored it, and
    // the box it covers.
    Halide::Func stage;
    Halide::Expr stage_min[3], stage_extent[3];
};

// Defines and schedules the pipeline into `out` (x, y, z): for a two-stage
// operator its second stage, over s.stage.
void build(Op op, const Sources &s, Halide::Func out);

}  // namespace morph
