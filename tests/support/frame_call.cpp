#include "frame_call.h"

#include <algorithm>
#include <iterator>

namespace tmtest {

Target target(const std::string &name) {
    const Entry &e = entry(name);
    Target t{};
    t.name = name;
    for (int op = 0; op < TM_OP_COUNT; op++)
        if (e.op == tm_traits_of(tm_operator(op))->name) t.op = tm_operator(op);
    t.output = e.output.c_str();
    t.type = type_info(e.type);
    t.lanes = e.lanes;
    t.real = e.fn;
    return t;
}

void Call::standard(const TypeInfo &t, int32_t w, int32_t h, int32_t d) {
    const int32_t zero[3] = {0, 0, 0}, image[3] = {w, h, d}, se[3] = {3, 3, 1}, mm[2] = {2, 1};
    b[IM].init_dense(t.ht, t.bytes, 3, zero, image);
    b[MM].init_dense(type_of(halide_type_float, 64), 8, 2, zero, mm);
    b[SE].init_dense(type_of(halide_type_uint, 8), 1, 3, zero, se);
    b[OUT].init_dense(t.ht, t.bytes, 3, zero, image);
    bounds(0.0, 1.0);
    std::fill(b[SE].store.begin(), b[SE].store.end(), uint8_t(1));
}

void Call::set(Arg a, int d, int32_t min, int32_t extent) {
    b[a].dim[d].min = min;
    b[a].dim[d].extent = extent;
}

std::vector<std::string> &reports() {
    static std::vector<std::string> r;
    return r;
}

}  // namespace tmtest
