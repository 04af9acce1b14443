// The one generator of the library.  It declares the four buffers every
// entry point takes, under their own names, and builds the stages of the
// operator it is instantiated for.  The element type arrives as a
// generator parameter; a boolean image is handed to the pipeline as bytes
// and counted by bit 0, so the pipeline's own buffers are uint8 for it.
#include "Halide.h"

#include "../stages/element_walk.h"
#include "../stages/walk_schedule.h"

using namespace Halide;

namespace morph {

enum class Op { Erode, Dilate };

template<Op op>
class Morphology : public Generator<Morphology<op>> {
public:
    template<typename T>
    using Input = typename Generator<Morphology<op>>::template Input<T>;
    template<typename T>
    using Output = typename Generator<Morphology<op>>::template Output<T>;
    template<typename T>
    using GeneratorParam = typename Generator<Morphology<op>>::template GeneratorParam<T>;

    GeneratorParam<bool> boolean{"boolean", false};

    Input<Buffer<>> keyimForType{"keyimForType", 3};
    Input<Buffer<double>> minmax{"minmax", 2};
    Input<Buffer<uint8_t>> strel{"strel", 3};
    Output<Buffer<>> out{output_name(), 3};

    static const char *output_name() {
        switch (op) {
        case Op::Erode: return "erode";
        case Op::Dilate: return "dilate";
        }
        return "";
    }

    void generate() {
        Element el{keyimForType.type(), boolean};
        int lanes = this->natural_vector_size(el.storage);
        Branch branch{keyimForType.dim(0).extent() > lanes, lanes};

        Expr se_extent[3], im_min[3], im_extent[3];
        for (int d = 0; d < 3; d++) {
            se_extent[d] = strel.dim(d).extent();
            im_min[d] = keyimForType.dim(d).min();
            im_extent[d] = keyimForType.dim(d).extent();
        }
        Strel se = make_strel(strel, se_extent);
        Var x("x"), y("y"), z("z");

        Func walk;
        if (op == Op::Erode) {
            Func p = padded(keyimForType, im_min, im_extent, pad_cast(minmax(1, 0), el), el, "padded");
            walk = element_walk(Walk::Erode, p, se, el, "imerode");
        } else {
            Func p = padded(keyimForType, im_min, im_extent, pad_cast(minmax(0, 0), el), el, "padded");
            walk = element_walk(Walk::Dilate, p, se, el, "imdilate");
        }
        out(x, y, z) = walk(x, y, z);
        schedule_stage(out, walk, branch);
    }
};

}  // namespace morph

HALIDE_REGISTER_GENERATOR(morph::Morphology<morph::Op::Erode>, imerode)
HALIDE_REGISTER_GENERATOR(morph::Morphology<morph::Op::Dilate>, imdilate)
