#include "frame_call.h"

#include <algorithm>
#include <stdexcept>

namespace tmtest {

Target target(const std::string &name) {
    size_t a = name.find('_'), b = name.rfind('_');
    std::string op = name.substr(0, a), type = name.substr(a + 1, b - a - 1), level = name.substr(b + 1);
    Target t{};
    t.name = name;
    int o = 0;
    while (o < 6 && op != kOperators[o]) o++;
    int l = level == "none" ? 0 : level == "avx" ? 1 : level == "avx2" ? 2 : -1;
    const TypeInfo *ti = nullptr;
    for (const auto &x : family_types())
        if (type == x.word) ti = &x;
    if (o == 6 || l < 0 || !ti) throw std::invalid_argument("no such export: " + name);
    t.op = tm_operator(o);
    t.output = kOutputs[o];
    t.type = *ti;
    t.lanes = ti->lanes[l];
    for (const auto &e : built_exports())
        if (name == e.name) t.real = e.fn;
    return t;
}

void Call::standard(const TypeInfo &t, int32_t w, int32_t h, int32_t d) {
    const int32_t zero[3] = {0, 0, 0}, image[3] = {w, h, d}, se[3] = {3, 3, 1}, mm[2] = {2, 1};
    b[IM].init_dense(type_of(t.code, t.bits), t.bytes, 3, zero, image);
    b[MM].init_dense(type_of(halide_type_float, 64), 8, 2, zero, mm);
    b[SE].init_dense(type_of(halide_type_uint, 8), 1, 3, zero, se);
    b[OUT].init_dense(type_of(t.code, t.bits), t.bytes, 3, zero, image);
    const double bounds[2] = {0.0, 1.0};
    std::memcpy(b[MM].at(0), bounds, sizeof bounds);
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
