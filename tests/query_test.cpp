// The bounds query: the regions written into descriptors in the query
// state, what else a query writes and leaves alone, mixed calls, and that
// an answer fed back is a call that passes every check.
#include "frame_call.h"

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <tuple>

using namespace tmtest;

namespace {

struct Range {
    int32_t min, extent;
};
struct Region {
    int32_t min, extent, stride;
};

// Required minmax region of each operator: (min, extent, stride) by dimension.
const std::map<std::string, std::array<Region, 2>> kMinmax = {
    {"imerode", {{{1, 1, 1}, {0, 1, 1}}}},  {"imdilate", {{{0, 1, 1}, {0, 1, 1}}}},
    {"imclose", {{{0, 1, 1}, {0, 1, 1}}}},  {"imbothat", {{{0, 1, 1}, {0, 1, 1}}}},
    {"imopen", {{{0, 2, 1}, {0, 1, 2}}}},   {"imtophat", {{{0, 2, 1}, {0, 1, 2}}}},
};

int sentinel;

// A descriptor in the query state, with stale values in every field the
// query must overwrite.
void describe(Buf &buf, int dims, const Range *r) {
    buf.b = halide_buffer_t{};
    buf.b.dim = buf.dim;
    buf.b.dimensions = 7;
    buf.b.type = type_of(2, 16, 2);
    buf.b.flags = 0xabc;
    buf.b.device_interface = reinterpret_cast<const halide_device_interface_t *>(&sentinel);
    buf.b.padding = &sentinel;
    for (int d = 0; d < 3; d++) buf.dim[d] = halide_dimension_t(d < dims ? r[d].min : 0, d < dims ? r[d].extent : 0, 99, 5);
}

void describe_query(Call &c, const Range *im, const int32_t *se, const Range *out) {
    const Range mm[2] = {{0, 0}, {0, 0}};
    const Range s[3] = {{0, se[0]}, {0, se[1]}, {0, se[2]}};
    describe(c.b[IM], 3, im);
    describe(c.b[MM], 2, mm);
    describe(c.b[SE], 3, s);
    describe(c.b[OUT], 3, out);
}

void expect_answer(const Buf &buf, halide_type_t type, int dims, const Region *want) {
    EXPECT_TRUE(!buf.b.host && buf.b.device == 0 && !buf.b.device_interface && buf.b.flags == 0) << "stale fields";
    EXPECT_EQ(buf.b.padding, &sentinel);
    EXPECT_TRUE(buf.b.type == type);
    EXPECT_EQ(buf.b.dimensions, dims);
    for (int d = 0; d < dims; d++)
        EXPECT_EQ(std::make_tuple(buf.dim[d].min, buf.dim[d].extent, buf.dim[d].stride, buf.dim[d].flags),
                  std::make_tuple(want[d].min, want[d].extent, want[d].stride, 0u))
            << "dimension " << d;
}

struct QueryCase {
    const char *what;  // the test's name
    const char *exp;
    Range im[3];
    int32_t se[3];
    Range out[3];
    Region want_im[3];
    Region want_out[3];
};

// Every buffer is answered; the answers, given storage, make a call that
// passes every check, the pipeline's own included, and runs.
class Query : public FrameTest, public ::testing::WithParamInterface<QueryCase> {};

TEST_P(Query, AnswersEveryBufferAndTheAnswerRuns) {
    const QueryCase &q = GetParam();
    Target t = target(q.exp);
    Call c;
    describe_query(c, q.im, q.se, q.out);
    EXPECT_EQ(invoke(t, c), 0);
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(stub().calls, 0);
    const halide_type_t T = t.type.ht;
    const Region se[3] = {{0, q.se[0], 1}, {0, q.se[1], q.se[0]}, {0, q.se[2], q.se[0] * q.se[1]}};
    const Region *want[4] = {q.want_im, kMinmax.at(t.name.substr(0, t.name.find('_'))).data(), se, q.want_out};
    const halide_type_t types[4] = {T, type_of(2, 64), type_of(1, 8), T};
    for (int a = 0; a < 4; a++) {
        SCOPED_TRACE("buffer " + std::to_string(a));
        expect_answer(c.b[a], types[a], a == MM ? 2 : 3, want[a]);
    }

    Call run;
    for (int a = 0; a < 4; a++) {
        const halide_buffer_t &ans = c.b[a].b;
        int32_t min[3], extent[3];
        for (int d = 0; d < ans.dimensions; d++) min[d] = ans.dim[d].min, extent[d] = ans.dim[d].extent;
        run.b[a].init_dense(ans.type, a == MM ? 8 : a == SE ? 1 : t.type.bytes, ans.dimensions, min, extent);
    }
    std::mt19937 rng(7);
    run.b[IM].fill_random(rng);
    const double bounds[2] = {0.0, 1.0};
    std::memcpy(run.b[MM].at(run.dim(MM, 0).min), bounds, sizeof(double) * run.dim(MM, 0).extent);
    for (auto &byte : run.b[SE].store) byte = 1;
    EXPECT_EQ(invoke(t, run), 0);
    EXPECT_TRUE(reports().empty()) << reports()[0];
    for (int a = 0; a < 4; a++)  // the answers were dense, and the call writes no descriptor
        for (int d = 0; d < run.b[a].b.dimensions; d++)
            EXPECT_TRUE(run.b[a].dim[d] == c.b[a].dim[d]) << "buffer " << a << " dimension " << d;
}

// Name, export, image, mask extents, output; then the answers for the image
// and the output as (min, extent, stride).
const QueryCase kQueries[] = {
    {"WideErosion", "imerode_uint8_none", {{-3, 37}, {-4, 17}, {-4, 32}}, {4, 2, 4}, {{-5, 15}, {2, 38}, {-1, 1}},
     {{-3, 15, 1}, {2, 11, 15}, {-2, 4, 165}}, {{-6, 16, 1}, {2, 38, 16}, {-1, 1, 608}}},
    {"ErosionImageOfL", "imerode_uint8_none", {{-3, 16}, {-4, 17}, {-4, 32}}, {4, 2, 4}, {{-5, 15}, {2, 38}, {-1, 1}},
     {{-3, 15, 1}, {2, 11, 15}, {-2, 4, 165}}, {{-5, 15, 1}, {2, 38, 15}, {-1, 1, 570}}},
    {"NarrowOutputAtAvx2", "imerode_uint8_avx2", {{0, 40}, {0, 1}, {0, 1}}, {1, 1, 1}, {{5, 3}, {0, 1}, {0, 1}},
     {{5, 3, 1}, {0, 1, 3}, {0, 1, 3}}, {{-24, 32, 1}, {0, 1, 32}, {0, 1, 32}}},
    // The image range follows the output as given, not the widened one.
    {"ImageFromGivenOutput", "imerode_uint8_none", {{-20, 60}, {0, 1}, {0, 1}}, {3, 1, 1}, {{0, 3}, {0, 1}, {0, 1}},
     {{-1, 5, 1}, {0, 1, 5}, {0, 1, 5}}, {{-13, 16, 1}, {0, 1, 16}, {0, 1, 16}}},
    {"EvenMaskDilation", "imdilate_int16_avx2", {{0, 50}, {0, 3}, {0, 2}}, {4, 1, 1}, {{10, 20}, {0, 3}, {0, 2}},
     {{8, 23, 1}, {0, 3, 23}, {0, 2, 69}}, {{10, 20, 1}, {0, 3, 20}, {0, 2, 60}}},
    {"MaskOfOne", "imerode_float32_avx", {{2, 10}, {0, 4}, {0, 1}}, {1, 1, 1}, {{0, 20}, {1, 2}, {0, 1}},
     {{2, 10, 1}, {1, 2, 10}, {0, 1, 20}}, {{0, 20, 1}, {1, 2, 20}, {0, 1, 40}}},
    {"MaskOfExtent0", "imerode_uint8_none", {{0, 10}, {0, 1}, {0, 1}}, {0, 1, 1}, {{2, 5}, {0, 1}, {0, 1}},
     {{3, 4, 1}, {0, 1, 4}, {0, 1, 4}}, {{2, 5, 1}, {0, 1, 5}, {0, 1, 5}}},
    // 2^25 + 2: the centre's float step rounds (2^24 + 1) down to 2^24.
    {"CentreThroughFloat32", "imerode_uint8_none",
     {{-33554432, 67108864}, {0, 1}, {0, 1}}, {33554434, 1, 1}, {{0, 20}, {0, 1}, {0, 1}},
     {{-16777215, 33554453, 1}, {0, 1, 33554453}, {0, 1, 33554453}}, {{0, 20, 1}, {0, 1, 20}, {0, 1, 20}}},
    {"BottomHatOfABooleanImage", "imbothat_bool_avx", {{4, 41}, {0, 1}, {0, 1}}, {7, 1, 1}, {{1, 8}, {0, 1}, {0, 1}},
     {{-7, 22, 1}, {0, 1, 22}, {0, 1, 22}}, {{-7, 16, 1}, {0, 1, 16}, {0, 1, 16}}},
    {"BottomHatBeyondTheImage", "imbothat_uint8_none", {{0, 10}, {0, 1}, {0, 1}}, {3, 1, 1}, {{5, 10}, {0, 1}, {0, 1}},
     {{3, 12, 1}, {0, 1, 12}, {0, 1, 12}}, {{5, 10, 1}, {0, 1, 10}, {0, 1, 10}}},
    {"ClosingBelowZero", "imclose_float32_avx", {{-10, 30}, {-5, 10}, {0, 1}}, {5, 2, 1}, {{-12, 8}, {-5, 10}, {0, 1}},
     {{-10, 10, 1}, {-5, 10, 10}, {0, 1, 100}}, {{-12, 8, 1}, {-5, 10, 8}, {0, 1, 80}}},
    // The window of opening ends at the image's rows in dimension 2, that
    // of top-hat at its planes.
    {"OpeningWindowZ", "imopen_uint8_none", {{0, 20}, {0, 5}, {-20, 40}}, {3, 3, 3}, {{0, 20}, {0, 5}, {10, 3}},
     {{0, 20, 1}, {0, 5, 20}, {3, 3, 100}}, {{0, 20, 1}, {0, 5, 20}, {10, 3, 100}}},
    {"TopHatWindowZ", "imtophat_uint8_none", {{0, 20}, {0, 5}, {-20, 40}}, {3, 3, 3}, {{0, 20}, {0, 5}, {10, 3}},
     {{0, 20, 1}, {0, 5, 20}, {8, 7, 100}}, {{0, 20, 1}, {0, 5, 20}, {10, 3, 100}}},
    {"TopHatBeyondTheImage", "imtophat_uint8_none", {{0, 10}, {0, 4}, {0, 1}}, {1, 1, 1}, {{-2, 20}, {0, 4}, {0, 1}},
     {{-2, 20, 1}, {0, 4, 20}, {0, 1, 80}}, {{-2, 20, 1}, {0, 4, 20}, {0, 1, 80}}},
};

INSTANTIATE_TEST_SUITE_P(Examples, Query, ::testing::ValuesIn(kQueries),
                         [](const auto &info) { return std::string(info.param.what); });

// L by type and level, as the caller sees it: an output one sample wide
// grows to L exactly when the image is wider than L.
TEST_F(FrameTest, QueryShowsTheLaneCount) {
    const std::map<std::string, std::array<int, 3>> lanes = {
        {"bool", {16, 16, 32}}, {"uint8", {16, 16, 32}}, {"int8", {16, 16, 32}},
        {"uint16", {8, 8, 16}}, {"int16", {8, 8, 16}},   {"uint32", {4, 4, 8}},
        {"int32", {4, 4, 8}},   {"float32", {4, 8, 8}},  {"float64", {2, 4, 4}},
    };
    static const char *const level[] = {"none", "avx", "avx2"};
    const int32_t se[3] = {1, 1, 1};
    const Range out[3] = {{0, 1}, {0, 1}, {0, 1}};
    for (const char *op : kOperators)
        for (const auto &[type, by_level] : lanes)
            for (int l = 0; l < 3; l++) {
                const int L = by_level[l];
                for (int32_t width : {L, L + 1}) {
                    Target t = target(std::string(op) + "_" + type + "_" + level[l]);
                    const Range im[3] = {{0, width}, {0, 1}, {0, 1}};
                    Call c;
                    describe_query(c, im, se, out);
                    ASSERT_EQ(invoke(t, c), 0) << t.name;
                    EXPECT_EQ(std::make_pair(c.dim(OUT, 0).min, c.dim(OUT, 0).extent),
                              width > L ? std::make_pair(1 - L, L) : std::make_pair(0, 1))
                        << t.name << " image width " << width;
                }
            }
}

// Any mix of queried and ordinary buffers is a query: the queried ones get
// the same answers as in a full query, the others are not touched nor
// checked, and nothing runs.
TEST_F(FrameTest, MixedQueryAnswersOnlyTheQueriedBuffers) {
    for (const char *name : {"imerode_uint8_none", "imopen_int16_avx", "imtophat_float32_avx2"}) {
        Target t = target(name);
        Call full;
        full.standard(t.type, 40, 6, 2);
        for (auto &buf : full.b) buf.b.host = nullptr;
        ASSERT_EQ(invoke(t, full), 0);
        for (int mask = 1; mask < 16; mask++) {
            SCOPED_TRACE(t.name + " queried mask " + std::to_string(mask));
            Call c;
            c.standard(t.type, 40, 6, 2);
            for (int a = 0; a < 4; a++) {
                if (mask & (1 << a)) {
                    c.b[a].b.host = nullptr;
                    c.b[a].b.type = type_of(2, 16);  // a wrong type in a queried buffer is replaced
                } else {
                    c.b[a].b.type = type_of(0, 16);  // an ordinary one is not checked
                    c.dim(Arg(a), 0).stride = 2;
                }
            }
            Snapshot before(c);
            halide_buffer_t given[4];
            halide_dimension_t given_dim[4][3];
            for (int a = 0; a < 4; a++) given[a] = c.b[a].b, std::copy(c.b[a].dim, c.b[a].dim + 3, given_dim[a]);
            stub() = StubRecord{};
            reports().clear();
            EXPECT_EQ(invoke(t, c), 0);
            EXPECT_TRUE(reports().empty());
            EXPECT_EQ(stub().calls, 0);
            for (int a = 0; a < 4; a++) {
                if (!(mask & (1 << a))) continue;
                SCOPED_TRACE("buffer " + std::to_string(a));
                const int dims = a == MM ? 2 : 3;
                EXPECT_TRUE(c.b[a].b.type == full.b[a].b.type);
                EXPECT_EQ(c.b[a].b.dimensions, dims);
                for (int d = 0; d < dims; d++) EXPECT_TRUE(c.b[a].dim[d] == full.b[a].dim[d]) << "dimension " << d;
                c.b[a].b = given[a];  // put back, for the comparison below
                std::copy(given_dim[a], given_dim[a] + 3, c.b[a].dim);
            }
            EXPECT_TRUE(Snapshot(c) == before) << "an ordinary buffer or some storage changed";
        }
    }
}

// A null pointer is the one way a query fails, and it writes nothing.
TEST_F(FrameTest, QueryWithANullPointerWritesNothing) {
    Target t = target("imerode_uint8_none");
    const Range im[3] = {{0, 40}, {0, 6}, {0, 1}};
    const int32_t se[3] = {3, 3, 1};
    Call c;
    describe_query(c, im, se, im);
    Snapshot before(c);
    c.arg[MM] = nullptr;
    EXPECT_EQ(invoke(t, c), -12);
    EXPECT_EQ(reports(), std::vector<std::string>{"Buffer argument minmax is NULL"});
    EXPECT_TRUE(Snapshot(c) == before);
}

}  // namespace
