// Buffers of more than 2^31 samples, and rows close to 2^31 samples,
// through erosion and closing, checked
// against the scalar reference at a few hundred samples on the border and
// inside.  They need about 7 GB of memory and some seconds each, so they run
// only with TM_LARGE=1 in the environment.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

#include "morph_case.h"

namespace tmtest {
namespace {

struct LargeCase {
    const char *what;
    int32_t extent[3];
    int32_t se_extent[3];
};

const LargeCase kCases[] = {
    {"VolumeOfMoreThan2To31Samples", {2048, 1024, 1025}, {3, 3, 3}},
    {"PlaneOfMoreThan2To31Samples", {65536, 32769, 1}, {3, 3, 1}},
    // Rows of more than 2^31 - L samples, and closings whose intermediate
    // row would be longer, are refused: this is as long as a row gets at
    // every level.
    {"RowOf2To31Minus64Samples", {2147483584, 1, 1}, {3, 1, 1}},
};

void PrintTo(const LargeCase &c, std::ostream *os) { *os << c.what; }

// One buffer of uint8 samples, dense, from 0; strides in 64 bits would not
// fit the descriptor, so dimension 2 of a single plane gets stride 0.
struct Big {
    std::vector<uint8_t> data;
    halide_buffer_t b{};
    halide_dimension_t dim[3];
    explicit Big(const int32_t extent[3]) {
        const int64_t plane = int64_t(extent[0]) * extent[1];
        data.resize(size_t(plane * extent[2]));
        dim[0] = halide_dimension_t(0, extent[0], 1);
        dim[1] = halide_dimension_t(0, extent[1], extent[0]);
        dim[2] = halide_dimension_t(0, extent[2], extent[2] > 1 ? int32_t(plane) : 0);
        b.host = data.data();
        b.type = halide_type_t(halide_type_uint, 8);
        b.dimensions = 3;
        b.dim = dim;
    }
    tmref::View view() {
        return {b.host, {0, 0, 0}, {dim[0].extent, dim[1].extent, dim[2].extent},
                {dim[0].stride, dim[1].stride, dim[2].stride}};
    }
    uint8_t at(const std::array<int32_t, 3> &p) const {
        return data[size_t(p[0] + int64_t(p[1]) * dim[1].stride + int64_t(p[2]) * dim[2].stride)];
    }
};

// Samples to check: a third on the corners and edges of the box (every
// coordinate within 3 of a border), a third on its faces (one coordinate
// there), a third anywhere.
std::vector<std::array<int32_t, 3>> spots(const int32_t e[3], std::mt19937 &rng) {
    std::vector<std::array<int32_t, 3>> r(300);
    for (size_t i = 0; i < r.size(); i++) {
        const int face = int(rng() % 3);
        for (int d = 0; d < 3; d++) {
            const bool border = i % 3 == 0 || (i % 3 == 1 && d == face);
            const int32_t near = int32_t(rng() % uint32_t(std::min(e[d], 3)));
            r[i][d] = !border ? int32_t(rng() % uint32_t(e[d])) : rng() % 2 ? near : e[d] - 1 - near;
        }
    }
    return r;
}

class Large : public testing::TestWithParam<LargeCase> {};

TEST_P(Large, ErosionAndClosingMatchReferenceAtSpots) {
    const char *opt = std::getenv("TM_LARGE");
    if (!opt || std::string(opt) != "1") GTEST_SKIP() << "set TM_LARGE=1 to run (about 7 GB of memory)";
    const LargeCase &c = GetParam();
    std::mt19937 rng(99);
    Big im(c.extent);
    uint64_t s = 0x243F6A8885A308D3ull;
    for (size_t i = 0; i + 8 <= im.data.size(); i += 8) {
        s ^= s << 13, s ^= s >> 7, s ^= s << 17;
        std::memcpy(&im.data[i], &s, 8);
    }
    Buf mm, se;
    const int32_t zero[3] = {0, 0, 0}, mm_extent[2] = {2, 1};
    mm.init_dense(halide_type_t(halide_type_float, 64), 8, 2, zero, mm_extent);
    const double lower = 17, upper = 230;
    std::memcpy(mm.at(0, 0), &lower, 8);
    std::memcpy(mm.at(1, 0), &upper, 8);
    se.init_dense(halide_type_t(halide_type_uint, 8), 1, 3, zero, c.se_extent);
    for (auto &m : se.store) m = rng() % 4 ? 1 : 0;
    const tmref::Mask mask{static_cast<const uint8_t *>(se.b.host), {c.se_extent[0], c.se_extent[1], c.se_extent[2]},
                           {se.dim[0].stride, se.dim[1].stride, se.dim[2].stride}};
    install_recording_handler();
    for (const char *op : {"imerode", "imclose"}) {
        Entry best;
        for (const Entry &e : entries_of({op}))
            if (e.type == "uint8" && e.cpu_has_level()) best = e;  // the last level the processor has
        SCOPED_TRACE(best.name);
        Big out(c.extent);
        halide_messages().clear();
        ASSERT_EQ(best.fn(&im.b, &mm.b, &se.b, &out.b), 0) << halide_messages();
        for (const auto &p : spots(c.extent, rng)) {
            uint8_t want = 0;
            const tmref::View one{&want, {p[0], p[1], p[2]}, {1, 1, 1}, {1, 1, 1}};
            tmref::apply(ref_op(op), tmref::Type::UInt8, im.view(), lower, upper, mask, one);
            ASSERT_EQ(int(out.at(p)), int(want)) << "at (" << p[0] << ", " << p[1] << ", " << p[2] << ")";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(OptIn, Large, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<LargeCase> &i) { return std::string(i.param.what); });

}  // namespace
}  // namespace tmtest
