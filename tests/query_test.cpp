// The bounds query: the regions written into descriptors in the query
// state, what else a query writes and leaves alone, mixed calls, and that
// an answer fed back is a call that passes every check.
#include "frame_call.h"

#include <algorithm>
#include <array>
#include <map>
#include <random>

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

// Descriptor, dim array and storage of one buffer, as bytes.
std::vector<uint8_t> bytes_of(const Buf &buf) {
    std::vector<uint8_t> v;
    auto add = [&](const void *p, size_t n) {
        auto *u = static_cast<const uint8_t *>(p);
        v.insert(v.end(), u, u + n);
    };
    add(&buf.b, sizeof buf.b);
    add(buf.dim, sizeof buf.dim);
    add(buf.store.data(), buf.store.size());
    return v;
}

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
    EXPECT_EQ(buf.b.host, nullptr);
    EXPECT_EQ(buf.b.device, 0u);
    EXPECT_EQ(buf.b.device_interface, nullptr);
    EXPECT_EQ(buf.b.flags, 0u);
    EXPECT_EQ(buf.b.padding, &sentinel);
    EXPECT_TRUE(buf.b.type == type);
    EXPECT_EQ(buf.b.dimensions, dims);
    for (int d = 0; d < dims; d++) {
        SCOPED_TRACE("dimension " + std::to_string(d));
        EXPECT_EQ(buf.dim[d].min, want[d].min);
        EXPECT_EQ(buf.dim[d].extent, want[d].extent);
        EXPECT_EQ(buf.dim[d].stride, want[d].stride);
        EXPECT_EQ(buf.dim[d].flags, 0u);
    }
}

struct QueryCase {
    const char *what;
    const char *exp;
    Range im[3];
    int32_t se[3];
    Range out[3];
    Region want_im[3];
    Region want_out[3];
};

class Query : public FrameTest, public ::testing::WithParamInterface<QueryCase> {};

TEST_P(Query, AnswersEveryBuffer) {
    const QueryCase &q = GetParam();
    Target t = target(q.exp);
    Call c;
    describe_query(c, q.im, q.se, q.out);
    EXPECT_EQ(invoke(t, c), 0);
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(stub().calls, 0);
    const halide_type_t T = type_of(t.type.code, t.type.bits);
    const std::string op = t.name.substr(0, t.name.find('_'));
    const Region se[3] = {{0, q.se[0], 1}, {0, q.se[1], q.se[0]}, {0, q.se[2], q.se[0] * q.se[1]}};
    {
        SCOPED_TRACE("keyimForType");
        expect_answer(c.b[IM], T, 3, q.want_im);
    }
    {
        SCOPED_TRACE("minmax");
        expect_answer(c.b[MM], type_of(2, 64), 2, kMinmax.at(op).data());
    }
    {
        SCOPED_TRACE("strel");
        expect_answer(c.b[SE], type_of(1, 8), 3, se);
    }
    {
        SCOPED_TRACE("output");
        expect_answer(c.b[OUT], T, 3, q.want_out);
    }
}

const QueryCase kQueries[] = {
    {"erosion of a wide image", "imerode_uint8_none",
     {{-3, 37}, {-4, 17}, {-4, 32}}, {4, 2, 4}, {{-5, 15}, {2, 38}, {-1, 1}},
     {{-3, 15, 1}, {2, 11, 15}, {-2, 4, 165}}, {{-6, 16, 1}, {2, 38, 16}, {-1, 1, 608}}},
    {"erosion of an image of L", "imerode_uint8_none",
     {{-3, 16}, {-4, 17}, {-4, 32}}, {4, 2, 4}, {{-5, 15}, {2, 38}, {-1, 1}},
     {{-3, 15, 1}, {2, 11, 15}, {-2, 4, 165}}, {{-5, 15, 1}, {2, 38, 15}, {-1, 1, 570}}},
    {"narrow output at avx2", "imerode_uint8_avx2",
     {{0, 40}, {0, 1}, {0, 1}}, {1, 1, 1}, {{5, 3}, {0, 1}, {0, 1}},
     {{5, 3, 1}, {0, 1, 3}, {0, 1, 3}}, {{-24, 32, 1}, {0, 1, 32}, {0, 1, 32}}},
    // The image range follows the output as given, not the widened one.
    {"image range from the given output", "imerode_uint8_none",
     {{-20, 60}, {0, 1}, {0, 1}}, {3, 1, 1}, {{0, 3}, {0, 1}, {0, 1}},
     {{-1, 5, 1}, {0, 1, 5}, {0, 1, 5}}, {{-13, 16, 1}, {0, 1, 16}, {0, 1, 16}}},
    {"even mask, dilation", "imdilate_int16_avx2",
     {{0, 50}, {0, 3}, {0, 2}}, {4, 1, 1}, {{10, 20}, {0, 3}, {0, 2}},
     {{8, 23, 1}, {0, 3, 23}, {0, 2, 69}}, {{10, 20, 1}, {0, 3, 20}, {0, 2, 60}}},
    {"mask of one", "imerode_float32_avx",
     {{2, 10}, {0, 4}, {0, 1}}, {1, 1, 1}, {{0, 20}, {1, 2}, {0, 1}},
     {{2, 10, 1}, {1, 2, 10}, {0, 1, 20}}, {{0, 20, 1}, {1, 2, 20}, {0, 1, 40}}},
    {"mask of extent 0", "imerode_uint8_none",
     {{0, 10}, {0, 1}, {0, 1}}, {0, 1, 1}, {{2, 5}, {0, 1}, {0, 1}},
     {{3, 4, 1}, {0, 1, 4}, {0, 1, 4}}, {{2, 5, 1}, {0, 1, 5}, {0, 1, 5}}},
    // 2^25 + 2: the centre's float step rounds (2^24 + 1) down to 2^24.
    {"centre through float32", "imerode_uint8_none",
     {{-33554432, 67108864}, {0, 1}, {0, 1}}, {33554434, 1, 1}, {{0, 20}, {0, 1}, {0, 1}},
     {{-16777215, 33554453, 1}, {0, 1, 33554453}, {0, 1, 33554453}}, {{0, 20, 1}, {0, 1, 20}, {0, 1, 20}}},
    {"bottom-hat of a boolean image", "imbothat_bool_avx",
     {{4, 41}, {0, 1}, {0, 1}}, {7, 1, 1}, {{1, 8}, {0, 1}, {0, 1}},
     {{-7, 22, 1}, {0, 1, 22}, {0, 1, 22}}, {{-7, 16, 1}, {0, 1, 16}, {0, 1, 16}}},
    {"bottom-hat beyond the image", "imbothat_uint8_none",
     {{0, 10}, {0, 1}, {0, 1}}, {3, 1, 1}, {{5, 10}, {0, 1}, {0, 1}},
     {{3, 12, 1}, {0, 1, 12}, {0, 1, 12}}, {{5, 10, 1}, {0, 1, 10}, {0, 1, 10}}},
    {"closing from negative mins", "imclose_float32_avx",
     {{-10, 30}, {-5, 10}, {0, 1}}, {5, 2, 1}, {{-12, 8}, {-5, 10}, {0, 1}},
     {{-10, 10, 1}, {-5, 10, 10}, {0, 1, 100}}, {{-12, 8, 1}, {-5, 10, 8}, {0, 1, 80}}},
    {"opening's planes", "imopen_uint8_none",
     {{0, 20}, {0, 30}, {0, 5}}, {3, 3, 3}, {{0, 20}, {0, 30}, {0, 10}},
     {{0, 20, 1}, {0, 30, 20}, {0, 5, 600}}, {{0, 20, 1}, {0, 30, 20}, {0, 10, 600}}},
    // The window of opening ends at the image's rows in dimension 2, that
    // of top-hat at its planes.
    {"opening's window in dimension 2", "imopen_uint8_none",
     {{0, 20}, {0, 5}, {-20, 40}}, {3, 3, 3}, {{0, 20}, {0, 5}, {10, 3}},
     {{0, 20, 1}, {0, 5, 20}, {3, 3, 100}}, {{0, 20, 1}, {0, 5, 20}, {10, 3, 100}}},
    {"top-hat's window in dimension 2", "imtophat_uint8_none",
     {{0, 20}, {0, 5}, {-20, 40}}, {3, 3, 3}, {{0, 20}, {0, 5}, {10, 3}},
     {{0, 20, 1}, {0, 5, 20}, {8, 7, 100}}, {{0, 20, 1}, {0, 5, 20}, {10, 3, 100}}},
    {"top-hat beyond the image", "imtophat_uint8_none",
     {{0, 10}, {0, 4}, {0, 1}}, {1, 1, 1}, {{-2, 20}, {0, 4}, {0, 1}},
     {{-2, 20, 1}, {0, 4, 20}, {0, 1, 80}}, {{-2, 20, 1}, {0, 4, 20}, {0, 1, 80}}},
};

INSTANTIATE_TEST_SUITE_P(Examples, Query, ::testing::ValuesIn(kQueries), [](const auto &info) {
    std::string n = info.param.what;
    for (auto &ch : n)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return n;
});

// L by type and level, as the caller sees it: an output one sample wide
// grows to L exactly when the image is wider than L.
TEST_F(FrameTest, QueryShowsTheLaneCount) {
    const std::map<std::string, std::array<int, 3>> lanes = {
        {"bool", {16, 16, 32}}, {"uint8", {16, 16, 32}}, {"int8", {16, 16, 32}},
        {"uint16", {8, 8, 16}}, {"int16", {8, 8, 16}},   {"uint32", {4, 4, 8}},
        {"int32", {4, 4, 8}},   {"float32", {4, 8, 8}},  {"float64", {2, 4, 4}},
    };
    for (const char *op : kOperators)
        for (const auto &[type, by_level] : lanes)
            for (int l = 0; l < 3; l++) {
                static const char *const level[] = {"none", "avx", "avx2"};
                Target t = target(std::string(op) + "_" + type + "_" + level[l]);
                SCOPED_TRACE(t.name);
                const int L = by_level[l];
                for (int32_t width : {L, L + 1}) {
                    const Range im[3] = {{0, width}, {0, 1}, {0, 1}}, out[3] = {{0, 1}, {0, 1}, {0, 1}};
                    const int32_t se[3] = {1, 1, 1};
                    Call c;
                    describe_query(c, im, se, out);
                    ASSERT_EQ(invoke(t, c), 0);
                    EXPECT_EQ(c.dim(OUT, 0).min, width > L ? 1 - L : 0);
                    EXPECT_EQ(c.dim(OUT, 0).extent, width > L ? L : 1);
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
            std::vector<std::vector<uint8_t>> before;
            for (auto &buf : c.b) before.push_back(bytes_of(buf));
            stub() = StubRecord{};
            reports().clear();
            EXPECT_EQ(invoke(t, c), 0);
            EXPECT_TRUE(reports().empty());
            EXPECT_EQ(stub().calls, 0);
            for (int a = 0; a < 4; a++) {
                SCOPED_TRACE("buffer " + std::to_string(a));
                if (!(mask & (1 << a))) {
                    EXPECT_EQ(bytes_of(c.b[a]), before[a]) << "an ordinary buffer changed";
                    continue;
                }
                const int dims = a == MM ? 2 : 3;
                EXPECT_TRUE(c.b[a].b.type == full.b[a].b.type);
                EXPECT_EQ(c.b[a].b.dimensions, dims);
                for (int d = 0; d < dims; d++) {
                    EXPECT_EQ(c.b[a].dim[d].min, full.b[a].dim[d].min);
                    EXPECT_EQ(c.b[a].dim[d].extent, full.b[a].dim[d].extent);
                    EXPECT_EQ(c.b[a].dim[d].stride, full.b[a].dim[d].stride);
                }
                EXPECT_TRUE(std::equal(c.b[a].store.begin(), c.b[a].store.end(),
                                       before[a].end() - c.b[a].store.size()))
                    << "a query touched storage";
            }
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

// The answers, given storage, make a call that passes every check, the
// pipeline's own included, and runs.
struct Feedback {
    const char *exp;
    Range im[3];
    int32_t se[3];
    Range out[3];
};

class QueryFeedback : public FrameTest, public ::testing::WithParamInterface<Feedback> {};

TEST_P(QueryFeedback, AnswerRunsAsACall) {
    const Feedback &f = GetParam();
    Target t = target(f.exp);
    ASSERT_NE(t.real, nullptr) << "needs a built pipeline";
    Call q;
    describe_query(q, f.im, f.se, f.out);
    ASSERT_EQ(invoke(t, q), 0);

    Call c;
    std::mt19937 rng(7);
    for (int a = 0; a < 4; a++) {
        const halide_buffer_t &ans = q.b[a].b;
        int32_t min[3], extent[3], stride[3];
        for (int d = 0; d < ans.dimensions; d++)
            min[d] = ans.dim[d].min, extent[d] = ans.dim[d].extent, stride[d] = ans.dim[d].stride;
        int bytes = a == MM ? 8 : a == SE ? 1 : t.type.bytes;
        c.b[a].init(ans.type, bytes, ans.dimensions, min, extent, stride);
        if (a == IM) c.b[a].fill_random(rng);
    }
    const double bounds[2] = {0.0, 1.0};
    std::memcpy(c.b[MM].at(c.dim(MM, 0).min), bounds, sizeof(double) * c.dim(MM, 0).extent);
    for (auto &byte : c.b[SE].store) byte = 1;
    std::vector<halide_buffer_t> descriptors;
    for (auto &buf : c.b) descriptors.push_back(buf.b);
    EXPECT_EQ(invoke(t, c), 0);
    EXPECT_TRUE(reports().empty()) << reports()[0];
    for (int a = 0; a < 4; a++) {  // a call writes no descriptor
        EXPECT_EQ(std::memcmp(&c.b[a].b, &descriptors[a], sizeof(halide_buffer_t)), 0);
        for (int d = 0; d < c.b[a].b.dimensions; d++) {
            EXPECT_EQ(c.b[a].dim[d].min, q.b[a].dim[d].min);
            EXPECT_EQ(c.b[a].dim[d].extent, q.b[a].dim[d].extent);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    BuiltExports, QueryFeedback,
    ::testing::Values(Feedback{"imerode_uint8_none", {{-3, 37}, {-4, 17}, {-4, 32}}, {4, 2, 4}, {{-5, 15}, {2, 38}, {-1, 1}}},
                      Feedback{"imdilate_float32_avx", {{0, 30}, {0, 4}, {0, 2}}, {3, 3, 1}, {{7, 3}, {1, 2}, {0, 2}}},
                      Feedback{"imerode_bool_avx2", {{-5, 70}, {2, 5}, {0, 1}}, {5, 1, 1}, {{10, 40}, {2, 5}, {0, 1}}},
                      Feedback{"imdilate_float64_none", {{0, 3}, {0, 3}, {0, 3}}, {2, 2, 2}, {{-2, 8}, {-1, 5}, {0, 3}}},
                      Feedback{"imdilate_int32_avx2", {{-20, 60}, {0, 1}, {0, 1}}, {3, 1, 1}, {{0, 3}, {0, 1}, {0, 1}}}));

}  // namespace
