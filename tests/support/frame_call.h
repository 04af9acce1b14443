// Calls of the exports for the frame's tests: the four buffers of one call,
// a recording error handler, and a stub pipeline that stands in for the
// export's own, so that the frame's checks are seen apart from the
// pipeline's.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "HalideRuntime.h"
#include "buffers.h"
#include "entries.h"
#include "frame.h"

namespace tmtest {

using Export = int (*)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

inline halide_type_t type_of(int code, int bits, int lanes = 1) {
    return halide_type_t(halide_type_code_t(code), uint8_t(bits), uint16_t(lanes));
}

enum Arg { IM, MM, SE, OUT };

// What one export is: its operator, output name, element type and L.
struct Target {
    std::string name;
    tm_operator op;
    const char *output;
    TypeInfo type;
    int lanes;
    Export real;  // null: the stub runs
};

inline const char *const kOperators[] = {
#define TMT_OPERATOR(name, output) #name,
    TESSMORPHOP3_HALIDE_OPERATORS(TMT_OPERATOR)
#undef TMT_OPERATOR
};

Target target(const std::string &name);

// The stub that stands in for a pipeline: records that it ran, and the
// descriptors it was handed.
struct StubRecord {
    int calls = 0;
    int status = 0;
    halide_buffer_t *ptr[4]{};
    halide_buffer_t buf[4]{};
    halide_dimension_t dim[4][3]{};
    tm_call call{};
};
StubRecord &stub();
extern "C" int tm_test_stub_pipeline(const tm_call *c);

// The four buffers of one call.
struct Call {
    Buf b[4];
    halide_buffer_t *arg[4]{&b[0].b, &b[1].b, &b[2].b, &b[3].b};

    // A call that passes every check for any operator: an image of
    // w x h x d from 0, minmax 2 x 1 holding (lower, upper), a 3 x 3 x 1
    // mask of ones, and the output over the image's own region.
    void standard(const TypeInfo &t, int32_t w = 40, int32_t h = 6, int32_t d = 1);
    void set(Arg a, int dim, int32_t min, int32_t extent);
    halide_dimension_t &dim(Arg a, int d) { return b[a].dim[d]; }
    void bounds(double lower, double upper) {
        std::memcpy(b[MM].at(0), &lower, 8);
        std::memcpy(b[MM].at(1), &upper, 8);
    }
    int run(Export fn) { return fn(arg[IM], arg[MM], arg[SE], arg[OUT]); }
};

int invoke(const Target &t, Call &c);

// The reports that reach a returning error handler, in order.
std::vector<std::string> &reports();

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    halide_error_handler_t previous_ = nullptr;
};

// Everything a call could write: descriptors, dim arrays, storage.
struct Snapshot {
    std::vector<uint8_t> bytes;
    explicit Snapshot(Call &c) {
        for (auto &buf : c.b) {
            append(&buf.b, sizeof buf.b);
            append(buf.dim, sizeof buf.dim);
            append(buf.store.data(), buf.store.size());
        }
    }
    void append(const void *p, size_t n) {
        auto *u = static_cast<const uint8_t *>(p);
        bytes.insert(bytes.end(), u, u + n);
    }
    bool operator==(const Snapshot &o) const { return bytes == o.bytes; }
};

}  // namespace tmtest
