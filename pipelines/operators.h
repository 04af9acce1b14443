// The operators' Halide pipelines, built from the shared element walk:
// erosion and dilation, each in one stage over an image read through a
// window (the image's own piece, or for opening's second stage its
// intermediate as the erosion pipeline stored it); closing's second stage
// over its intermediate; top-hat and bottom-hat as opening's and closing's
// second stage with the residue fused into it.
#pragma once

#include "Halide.h"

#include "../stages/element_walk.h"
#include "../stages/walk_schedule.h"

namespace morph {

enum class Op { Erode, Dilate, Close, TopHat, BotHat };

// What every pipeline is built from: the image as a Func with its domain,
// the two pad bounds as read from `minmax`, the element, the type, and what
// the entry point decided: the branch and the window.
struct Sources {
    Halide::Func image;  // keyimForType, as stored
    Halide::Expr im_min[3], im_extent[3];
    Halide::Expr lower, upper;  // minmax(0, 0) and minmax(1, 0)
    // The window through which erosion and dilation read their image, and
    // top-hat its intermediate, in the pipeline's coordinates; it may be
    // empty.
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

// Defines and schedules the pipeline into `out` (x, y, z): for closing,
// top-hat and bottom-hat their second stage, over s.stage.
void build(Op op, const Sources &s, Halide::Func out);

}  // namespace morph
