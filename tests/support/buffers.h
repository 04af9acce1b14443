// Buffers for tests: descriptors over owned storage with any mins, extents
// and strides, filled at random, compared byte for byte.  No Halide code
// beyond the runtime's descriptor types.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "HalideRuntime.h"

namespace tmtest {

// A descriptor and the storage it points into.  Strides are in elements;
// storage is laid out so that every described sample is inside it, with a
// guard of `slack` elements around it that tests can check stays unwritten.
struct Buf {
    halide_buffer_t b{};
    halide_dimension_t dim[3]{};
    std::vector<uint8_t> store;
    int64_t offset = 0;  // element index of the sample at the mins
    int elem = 1;

    Buf() = default;
    Buf(const Buf &) = delete;
    Buf &operator=(const Buf &) = delete;

    void init(halide_type_t t, int elem_bytes, int dims, const int32_t *min, const int32_t *extent,
              const int32_t *stride, int64_t slack = 8) {
        elem = elem_bytes;
        b.type = t;
        b.dimensions = dims;
        b.dim = dim;
        int64_t lo = 0, hi = 0;
        for (int d = 0; d < dims; d++) {
            dim[d] = halide_dimension_t(min[d], extent[d], stride[d]);
            if (extent[d] > 0) {
                int64_t span = int64_t(extent[d] - 1) * stride[d];
                (span < 0 ? lo : hi) += span;
            }
        }
        offset = -lo + slack;
        store.assign(size_t((hi - lo + 1 + 2 * slack) * elem), 0);
        b.host = store.data() + offset * elem;
    }

    // Dense strides, optionally with extra elements at the end of every row
    // and plane so that dimensions 1 and 2 are not dense.
    void init_dense(halide_type_t t, int elem_bytes, int dims, const int32_t *min, const int32_t *extent,
                    int32_t row_pad = 0, int32_t plane_pad = 0) {
        int32_t stride[3] = {1, 0, 0};
        if (dims > 1) stride[1] = std::max(extent[0], 0) + row_pad;
        if (dims > 2) stride[2] = stride[1] * std::max(extent[1], 0) + plane_pad;
        init(t, elem_bytes, dims, min, extent, stride);
    }

    uint8_t *at(int32_t u, int32_t v = 0, int32_t w = 0) {
        int64_t i = int64_t(u - dim[0].min) * dim[0].stride;
        if (b.dimensions > 1) i += int64_t(v - dim[1].min) * dim[1].stride;
        if (b.dimensions > 2) i += int64_t(w - dim[2].min) * dim[2].stride;
        return static_cast<uint8_t *>(b.host) + i * elem;
    }

    void fill_random(std::mt19937 &rng) {
        for (auto &byte : store) byte = uint8_t(rng());
    }
};

}  // namespace tmtest
