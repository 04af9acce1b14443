// The saturating difference R_T(a, b) that ends the top-hat and bottom-hat:
// fused into the last stage, computed in registers between the end of the
// element walk and the store.
#pragma once

#include "Halide.h"

#include "../stages/element_walk.h"

namespace morph {

// `halves` selects the baseline level's vector conversion of uint32 to
// float32 (by halves, each addition rounded) instead of the correctly
// rounded one; it is an expression so that only the wide branch of a
// baseline pipeline takes it.
Halide::Expr residue(const Halide::Expr &a, const Halide::Expr &b, const Element &el,
                     const Halide::Expr &halves);

}  // namespace morph
