// How a walk's loops are laid out.  Nothing here changes a value.
//
// Every stage is a Func over x, y, z whose planes and rows run as two
// nested parallel loops (one task per plane, inside it one task per row);
// along a row, the walk of one chunk (or, on a narrow image, one sample)
// finishes with its accumulator in registers before the next one starts.
// For the floating types, rows of at least 16 blocks walk a block of four
// adjacent chunks at once instead: four accumulators in registers, one
// test of each element byte for all four, every lane still meeting the taps
// in the walk's own order.
#pragma once

#include "Halide.h"

namespace morph {

struct Branch {
    Halide::Expr wide;  // the image is wider than one vector
    int lanes;          // L: the natural vector size of the element type
};

// `out` is the stage's Func, an output of the pipeline (its buffer's width
// picks the block branch); `walk` the element walk whose pure and update
// definitions are computed per chunk (or block) of `out`.  In the wide branch the row
// is split by L with a shift-inwards tail, so every chunk is L full lanes
// and a short last one moves back to end on the row's last sample; blocks
// of chunks are split and moved back the same way.
void schedule_stage(Halide::Func out, Halide::Func walk, const Branch &b);

}  // namespace morph
