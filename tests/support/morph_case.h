// One random call of an export and the same computation by the scalar
// reference, compared byte for byte over the output's whole storage
// (samples, gaps between rows and planes, and the guard around them).
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "buffers.h"
#include "entries.h"
#include "reference.h"

namespace tmtest {

// Tests on the static archive replace the runtime's aborting error handler
// by one that records, so that a refused call fails the test that made it
// instead of ending the whole run.
inline std::string &halide_messages() {
    static std::string m;
    return m;
}
inline void record_halide_error(void *, const char *msg) { halide_messages() += msg; }
inline bool install_recording_handler() {
    halide_set_error_handler(record_halide_error);
    return true;
}

inline tmref::Op ref_op(const std::string &op) {
    static const std::map<std::string, tmref::Op> m = {
        {"imerode", tmref::Op::Erode},   {"imdilate", tmref::Op::Dilate}, {"imopen", tmref::Op::Open},
        {"imclose", tmref::Op::Close},   {"imtophat", tmref::Op::TopHat}, {"imbothat", tmref::Op::BotHat}};
    return m.at(op);
}

inline tmref::View view_of(Buf &b) {
    tmref::View v;
    v.host = b.b.host;
    for (int d = 0; d < 3; d++) {
        v.min[d] = b.dim[d].min;
        v.extent[d] = b.dim[d].extent;
        v.stride[d] = b.dim[d].stride;
    }
    return v;
}

// The shape of one call: image, output box, mask and pad bounds.
struct Shape {
    int32_t im_min[3], im_extent[3], row_pad, plane_pad;
    int32_t out_min[3], out_extent[3], out_row_pad, out_plane_pad;
    int32_t se_extent[3];
    std::vector<uint8_t> mask;  // dense, se_extent order
    double lower, upper;

    std::string describe() const {
        std::ostringstream s;
        s << "image min (" << im_min[0] << "," << im_min[1] << "," << im_min[2] << ") extent (" << im_extent[0]
          << "," << im_extent[1] << "," << im_extent[2] << ") pads " << row_pad << "/" << plane_pad << "; out min ("
          << out_min[0] << "," << out_min[1] << "," << out_min[2] << ") extent (" << out_extent[0] << ","
          << out_extent[1] << "," << out_extent[2] << "); strel (" << se_extent[0] << "," << se_extent[1] << ","
          << se_extent[2] << ") bytes";
        for (auto m : mask) s << " " << int(m);
        s << "; lower " << lower << " upper " << upper;
        return s.str();
    }
};

// How an image is filled: `Stress` with values that stress the type
// (extremes, and for the floating types NaN, infinities and both zeros);
// `Ties` with few distinct values and no NaN, so that equal samples meet
// all the time (for the floating types +0 and -0 among them, whose order
// shows in the result); `SparseNan` as `Ties` with a NaN in a few rows, so
// that the rows that reach one and those that do not meet in one image.
enum class Fill { Stress, Ties, SparseNan };

inline void fill_ties(Buf &im, const std::string &type, std::mt19937 &rng) {
    const int n = int(im.store.size() / im.elem);
    for (int i = 0; i < n; i++) {
        uint8_t *p = im.store.data() + size_t(i) * im.elem;
        if (type == "float32" || type == "float64") {
            static const double values[] = {0.0, -0.0, 1.0, -1.0, 0.0, -0.0, std::numeric_limits<double>::infinity()};
            double v = values[rng() % 7];
            if (type == "float32") {
                float f = float(v);
                std::memcpy(p, &f, 4);
            } else {
                std::memcpy(p, &v, 8);
            }
        } else {
            // Small values in the lowest byte, the type's own bytes above it
            // all 0 or all 1: a few distinct values of either sign.
            uint8_t low = uint8_t(rng() % 3), high = rng() % 2 ? 0xff : 0;
            p[0] = low;
            for (int k = 1; k < im.elem; k++) p[k] = high;
        }
    }
}

// A quiet NaN of the floating type into the sample at storage index i.
inline void put_nan(Buf &im, const std::string &type, size_t i) {
    uint8_t *p = im.store.data() + i * im.elem;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const float fnan = float(nan);
    if (type == "float32") std::memcpy(p, &fnan, 4); else std::memcpy(p, &nan, 8);
}

// `nan_at`, where given, is the one sample (its element index from the
// image's first) that `Ties` turns into a NaN.
inline void fill_image(Buf &im, const std::string &type, std::mt19937 &rng, Fill fill = Fill::Stress,
                       int64_t nan_at = -1) {
    if (fill == Fill::Ties) {
        fill_ties(im, type, rng);
        if (nan_at >= 0) put_nan(im, type, size_t(im.offset + nan_at));
        return;
    }
    if (fill == Fill::SparseNan) {
        fill_ties(im, type, rng);
        const size_t n = im.store.size() / im.elem;
        for (int k = 0; k < 3 && (type == "float32" || type == "float64"); k++) put_nan(im, type, size_t(rng() % n));
        return;
    }
    im.fill_random(rng);
    if (type != "float32" && type != "float64") return;
    const int n = int(im.store.size() / im.elem);
    for (int i = 0; i < n; i++) {
        double v;
        switch (rng() % 12) {
        case 0: v = std::numeric_limits<double>::quiet_NaN(); break;
        case 1: v = std::numeric_limits<double>::infinity(); break;
        case 2: v = -std::numeric_limits<double>::infinity(); break;
        case 3: v = 0.0; break;
        case 4: v = -0.0; break;
        default: v = double(int(rng() % 2001) - 1000) / 8.0; break;
        }
        if (type == "float32") {
            float f = float(v);
            std::memcpy(im.store.data() + size_t(i) * 4, &f, 4);
        } else {
            std::memcpy(im.store.data() + size_t(i) * 8, &v, 8);
        }
    }
}

inline double random_bound(const std::string &type, std::mt19937 &rng) {
    static const double specials[] = {std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      300.0, -1.0, 256.0, 255.9, 2147483648.0, 4294967295.0, 4294967296.5,
                                      -2147483649.0, 1e300, -0.0, 127.0, 128.0, 3.0, 2.0};
    if (rng() % 3 == 0) return specials[rng() % (sizeof specials / sizeof specials[0])];
    double scale = type == "uint8" || type == "int8" || type == "bool" ? 300 : type.find("16") != std::string::npos ? 70000 : 5e9;
    return (double(rng() % 20001) / 10000.0 - 0.5) * 2 * scale;
}

// Whether the frame's checks let the call through, judged from the regions
// its bounds query asks for and the checks' own wrapping comparison: a
// buffer covers the range lo..hi in a dimension if min <= lo and
// hi - extent < min, in 32-bit arithmetic.  Only the output's dimension 0
// and the image can fail for calls made here.
inline bool frame_accepts(const Entry &e, Buf &im, Buf &mm, Buf &se, Buf &out) {
    halide_buffer_t qim = im.b, qout = out.b;
    halide_dimension_t dim_im[3], dim_out[3];
    std::copy(im.dim, im.dim + 3, dim_im);
    std::copy(out.dim, out.dim + 3, dim_out);
    qim.dim = dim_im, qout.dim = dim_out;
    qim.host = qout.host = nullptr;
    qim.device = qout.device = 0;
    e.fn(&qim, &mm.b, &se.b, &qout);
    auto covers = [](const halide_dimension_t &b, const halide_dimension_t &q) {
        const int32_t hi = int32_t(uint32_t(q.min) + uint32_t(q.extent) - 1u);
        return b.min <= q.min && int32_t(uint32_t(hi) - uint32_t(b.extent)) < b.min;
    };
    if (!covers(out.dim[0], dim_out[0])) return false;
    for (int d = 0; d < 3; d++)
        if (!covers(im.dim[d], dim_im[d])) return false;
    return true;
}

// Runs the export and the reference on `s` and compares the outputs' whole
// storage.  Returns false (with a failure recorded) on a mismatch.  A call
// that the frame's own checks refuse (shapes at the ends of the 32-bit
// range can make one) must be refused without a write.
inline bool check_case(const Entry &e, const Shape &s, std::mt19937 &rng, Fill fill = Fill::Stress,
                       int64_t nan_at = -1) {
    // The baseline level's vector loop converts uint32 to float32 by halves
    // in the residues; the wide branch runs every chunk in that loop.
    const bool uint32_halves = e.level == Level::None && s.im_extent[0] > e.lanes;
    const TypeInfo &ti = type_info(e.type);
    Buf im, mm, se, out;
    im.init_dense(ti.ht, ti.bytes, 3, s.im_min, s.im_extent, s.row_pad, s.plane_pad);
    fill_image(im, e.type, rng, fill, nan_at);
    const int32_t mm_min[2] = {0, 0}, mm_ext[2] = {2, 1};
    mm.init_dense(halide_type_t(halide_type_float, 64), 8, 2, mm_min, mm_ext);
    std::memcpy(mm.at(0, 0), &s.lower, 8);
    std::memcpy(mm.at(1, 0), &s.upper, 8);
    const int32_t se_min[3] = {0, 0, 0};
    se.init_dense(halide_type_t(halide_type_uint, 8), 1, 3, se_min, s.se_extent);
    for (int32_t k2 = 0; k2 < s.se_extent[2]; k2++)
        for (int32_t k1 = 0; k1 < s.se_extent[1]; k1++)
            for (int32_t k0 = 0; k0 < s.se_extent[0]; k0++)
                *se.at(k0, k1, k2) = s.mask[size_t((k2 * s.se_extent[1] + k1) * s.se_extent[0] + k0)];
    out.init_dense(ti.ht, ti.bytes, 3, s.out_min, s.out_extent, s.out_row_pad, s.out_plane_pad);
    out.fill_random(rng);
    const std::vector<uint8_t> original = out.store;
    std::vector<uint8_t> expected = out.store;

    tmref::Mask mask{se.b.host ? static_cast<const uint8_t *>(se.b.host) : nullptr,
                     {s.se_extent[0], s.se_extent[1], s.se_extent[2]},
                     {se.dim[0].stride, se.dim[1].stride, se.dim[2].stride}};
    tmref::View ref_out = view_of(out);
    ref_out.host = expected.data() + out.offset * out.elem;
    tmref::Options opt;
    opt.uint32_halves = uint32_halves;
    tmref::apply(ref_op(e.op), ti.ref, view_of(im), s.lower, s.upper, mask, ref_out, opt);

    static const bool handler = install_recording_handler();
    (void)handler;
    halide_messages().clear();
    const bool accepted = frame_accepts(e, im, mm, se, out);
    int status = e.fn(&im.b, &mm.b, &se.b, &out.b);
    if (!accepted) {
        expected = original;
        EXPECT_EQ(status, -4) << e.name << ": " << s.describe();
    } else {
        EXPECT_EQ(status, 0) << e.name << ": " << halide_messages() << "\n" << s.describe();
    }
    if (out.store == expected) return true;
    size_t first = 0;
    while (out.store[first] == expected[first]) first++;
    ADD_FAILURE() << e.name << " differs from the reference at storage byte " << first << " (element "
                  << (int64_t(first / out.elem) - out.offset) << " from the output's origin): got "
                  << int(out.store[first]) << ", expected " << int(expected[first]) << "\n" << s.describe();
    return false;
}

}  // namespace tmtest
