// Images the benchmarks share between our entry points and OpenCV: one
// dense, 64-byte aligned block of samples seen both as a halide_buffer_t
// (three dimensions, extent 1 where unused) and as one cv::Mat per plane.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "HalideRuntime.h"

namespace tmbench {

enum class Type { UInt8, UInt16, Int16, Float32 };

inline const char *type_word(Type t) {
    switch (t) {
    case Type::UInt8: return "uint8";
    case Type::UInt16: return "uint16";
    case Type::Int16: return "int16";
    case Type::Float32: return "float32";
    }
    return "";
}
inline int cv_type(Type t) {
    switch (t) {
    case Type::UInt8: return CV_8UC1;
    case Type::UInt16: return CV_16UC1;
    case Type::Int16: return CV_16SC1;
    case Type::Float32: return CV_32FC1;
    }
    return -1;
}
inline int type_bytes(Type t) { return t == Type::UInt8 ? 1 : t == Type::Float32 ? 4 : 2; }
inline halide_type_t halide_type_of(Type t) {
    switch (t) {
    case Type::UInt8: return halide_type_t(halide_type_uint, 8);
    case Type::UInt16: return halide_type_t(halide_type_uint, 16);
    case Type::Int16: return halide_type_t(halide_type_int, 16);
    case Type::Float32: return halide_type_t(halide_type_float, 32);
    }
    return halide_type_t();
}
// The least and the greatest value of the type (the infinities for float32).
inline double type_least(Type t) {
    return t == Type::UInt8 || t == Type::UInt16 ? 0.0 : t == Type::Int16 ? -32768.0 : -HUGE_VAL;
}
inline double type_greatest(Type t) {
    return t == Type::UInt8 ? 255.0 : t == Type::UInt16 ? 65535.0 : t == Type::Int16 ? 32767.0 : HUGE_VAL;
}

struct Volume {
    Type type;
    int w = 0, h = 0, d = 0;
    std::unique_ptr<uint8_t, decltype(&std::free)> data{nullptr, &std::free};
    halide_dimension_t dim[3];
    halide_buffer_t buf{};

    Volume(Type t, int w_, int h_, int d_) : type(t), w(w_), h(h_), d(d_) {
        // Rounded up so that aligned_alloc accepts the size.
        size_t n = (bytes() + 63) / 64 * 64;
        data.reset(static_cast<uint8_t *>(std::aligned_alloc(64, n)));
        dim[0] = halide_dimension_t(0, w, 1);
        dim[1] = halide_dimension_t(0, h, w);
        dim[2] = halide_dimension_t(0, d, w * h);
        buf.host = data.get();
        buf.type = halide_type_of(t);
        buf.dimensions = 3;
        buf.dim = dim;
    }
    Volume(const Volume &) = delete;
    Volume &operator=(const Volume &) = delete;

    size_t samples() const { return size_t(w) * h * d; }
    size_t bytes() const { return samples() * type_bytes(type); }
    // A header over plane z; writes through it land in this volume.
    cv::Mat plane(int z) const {
        return cv::Mat(h, w, cv_type(type), data.get() + size_t(z) * w * h * type_bytes(type));
    }
};

// A byte mask as the library takes it: e0 x e1 x e2, dimension 0 dense.
struct Element {
    std::string name;
    int e[3];
    std::vector<uint8_t> bytes;

    int taps() const {
        int n = 0;
        for (uint8_t b : bytes) n += b == 1;
        return n;
    }
    uint8_t at(int i, int j, int k) const { return bytes[(size_t(k) * e[1] + j) * e[0] + i]; }
};

}  // namespace tmbench
