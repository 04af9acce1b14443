// The checks of the frame, under a returning error handler: which check
// fails first, with which code and which words, and that a failed call
// changes nothing.  Calls run through the export and through the same
// frame with a stub pipeline.
#include "frame_call.h"

#include <climits>
#include <functional>
#include <map>

using namespace tmtest;

namespace {

// Walking order of each operator: alphabetical by argument name.
const std::map<std::string, std::vector<std::string>> kWalk = {
    {"imerode", {"erode", "keyimForType", "minmax", "strel"}},
    {"imdilate", {"dilate", "keyimForType", "minmax", "strel"}},
    {"imopen", {"keyimForType", "minmax", "open", "strel"}},
    {"imclose", {"close", "keyimForType", "minmax", "strel"}},
    {"imtophat", {"keyimForType", "minmax", "strel", "tophat"}},
    {"imbothat", {"bothat", "keyimForType", "minmax", "strel"}},
};

Arg arg_of(const std::string &name) {
    return name == "keyimForType" ? IM : name == "minmax" ? MM : name == "strel" ? SE : OUT;
}

std::string label(const Target &t, Arg a) {
    static const char *const in[] = {"Input buffer keyimForType", "Input buffer minmax", "Input buffer strel"};
    return a == OUT ? std::string("Output buffer ") + t.output : in[a];
}

std::string type_text(int code, int bits) {
    static const char *const words[] = {"int", "uint", "float"};
    return words[code] + std::to_string(bits);
}

using Mutation = std::function<void(Call &)>;

// Runs one call and compares its status and report; a failed call must
// leave every descriptor and every byte of storage as it was, and must not
// reach the pipeline.
void expect_call(const Target &t, Call &c, int code, const char *message) {
    Snapshot before(c);
    reports().clear();
    stub() = StubRecord{};
    EXPECT_EQ(invoke(t, c), code);
    EXPECT_EQ(reports(), message ? std::vector<std::string>{message} : std::vector<std::string>{});
    if (code != 0) EXPECT_TRUE(Snapshot(c) == before) << "a failed call wrote";
    EXPECT_EQ(stub().calls, code == 0 && !t.real ? 1 : 0);
}

// A standard call with one mutation, once through the stub, so that the
// pipeline's own checks cannot stand in for the frame's, and once through
// the export.
void expect_both_routes(const std::string &name, const Mutation &mutate, int code, const char *message) {
    Target t = target(name), stub_route = t;
    stub_route.real = nullptr;
    for (const Target &route : {stub_route, t}) {
        SCOPED_TRACE(route.real ? "export" : "stub");
        Call c;
        c.standard(route.type);
        mutate(c);
        expect_call(route, c, code, message);
    }
}

// ---------------------------------------------------------------------------

TEST_F(FrameTest, NullPointersAreReportedInReverseWalkingOrder) {
    for (const char *op : kOperators) {
        Target t = target(std::string(op) + "_uint8_none");
        const auto &walk = kWalk.at(op);
        for (int mask = 1; mask < 16; mask++) {
            SCOPED_TRACE(t.name + " null mask " + std::to_string(mask));
            Call c;
            c.standard(t.type);
            for (int a = 0; a < 4; a++)
                if (mask & (1 << a)) c.arg[a] = nullptr;
            std::string first;
            for (auto it = walk.rbegin(); it != walk.rend() && first.empty(); ++it)
                if (!c.arg[arg_of(*it)]) first = *it;
            if (mask == 15) EXPECT_EQ(first, t.op == TM_OP_imtophat ? "tophat" : "strel");
            expect_call(t, c, -12, ("Buffer argument " + first + " is NULL").c_str());
        }
    }
}

// One fault in every check after the null tests, for every buffer; removing
// them one by one must walk the reports through the whole sequence, buffers
// in walking order within each phase, and end in a call that runs.
class CheckSequence : public FrameTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(CheckSequence, FaultsAreReportedOneAfterAnother) {
    Target t = target(GetParam());
    struct Fault {
        Mutation apply;
        int code;
        std::string message;
    };
    const auto &walk = kWalk.at(t.name.substr(0, t.name.find('_')));
    const Fault regions[4] = {
        {[](Call &c) { c.dim(IM, 2).extent = -1; }, -4,
         label(t, IM) + " is accessed at 0, which is beyond the max (-2) in dimension 2"},
        {[](Call &c) { c.dim(MM, 1).min = 1; }, -4,
         label(t, MM) + " is accessed at 0, which is before the min (1) in dimension 1"},
        {[](Call &c) { c.dim(SE, 2).min = 1; }, -4,
         label(t, SE) + " is accessed at 0, which is before the min (1) in dimension 2"},
        {[](Call &c) { c.dim(OUT, 1).extent = -1; }, -28,
         "The extents for buffer " + label(t, OUT) + " dimension 1 is negative (-1)"},
    };
    std::vector<Fault> faults;
    for (const auto &n : walk) {  // types
        Arg a = arg_of(n);
        halide_type_t wrong = a == MM ? type_of(2, 32) : a == SE ? type_of(0, 8)
                              : t.type.ht.code == 0 && t.type.ht.bits == 16 ? type_of(1, 8) : type_of(0, 16);
        std::string want = a == MM ? "float64" : a == SE ? "uint8" : type_text(t.type.ht.code, t.type.ht.bits);
        faults.push_back({[=](Call &c) { c.b[a].b.type = wrong; }, -3,
                          label(t, a) + " has type " + want + " but type of the buffer passed in is " +
                              type_text(wrong.code, wrong.bits)});
    }
    for (const auto &n : walk) faults.push_back(regions[arg_of(n)]);
    for (const auto &n : walk) {  // strides
        Arg a = arg_of(n);
        faults.push_back({[=](Call &c) { c.dim(a, 0).stride = 2; }, -8,
                          "Constraint violated: " + (a == OUT ? std::string(t.output) : n) + ".stride.0 (2) == 1 (1)"});
    }
    for (const auto &n : walk) {  // host pointers
        Arg a = arg_of(n);
        faults.push_back({[=](Call &c) { c.b[a].b.host = nullptr, c.b[a].b.device = 1; }, -34,
                          "The host pointer of " + label(t, a) + " is null, but the pipeline will access it on the host."});
    }
    faults.push_back({[](Call &) {}, 0, ""});  // and then a call that runs
    for (size_t k = 0; k < faults.size(); k++) {
        SCOPED_TRACE(t.name + ": faults from " + std::to_string(k));
        auto from_k = [&](Call &c) {
            for (size_t j = k; j < faults.size(); j++) faults[j].apply(c);
        };
        expect_both_routes(t.name, from_k, faults[k].code, faults[k].code ? faults[k].message.c_str() : nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(AllOperators, CheckSequence,
                         ::testing::Values("imerode_uint8_none", "imdilate_bool_avx2", "imopen_float32_avx",
                                           "imclose_int16_none", "imtophat_float64_avx2", "imbothat_uint32_avx"),
                         [](const auto &info) { return std::string(info.param); });

// Single calls with their exact report; `what` is the test's name.
struct Case {
    const char *what;
    const char *exp;
    Mutation mutate;
    int code;
    const char *message;  // null: no report
};

class FrameCase : public FrameTest, public ::testing::WithParamInterface<Case> {};

TEST_P(FrameCase, ReportsExactly) {
    expect_both_routes(GetParam().exp, GetParam().mutate, GetParam().code, GetParam().message);
}

const Case kCases[] = {
    // The output's range on a wide image is L wide; it is tested first.
    {"NarrowOutputOnWideImageBeforeTheImage", "imerode_uint8_none",
     [](Call &c) { c.set(OUT, 0, 0, 3), c.dim(IM, 1).extent = -1; }, -4,
     "Output buffer erode is accessed at -13, which is before the min (0) in dimension 0"},
    {"ImageOfLPlusOneWidensTheOutput", "imdilate_uint8_none", [](Call &c) { c.set(IM, 0, 0, 17), c.set(OUT, 0, 5, 3); },
     -4, "Output buffer dilate is accessed at -8, which is before the min (5) in dimension 0"},
    {"ImageOfLKeepsTheOutput", "imdilate_uint8_none", [](Call &c) { c.set(IM, 0, 0, 16), c.set(OUT, 0, 5, 3); }, 0,
     nullptr},
    {"NegativeOutputExtentOnWideImage", "imerode_uint8_none", [](Call &c) { c.set(OUT, 0, 0, -1); }, -4,
     "Output buffer erode is accessed at -17, which is before the min (0) in dimension 0"},
    {"NegativeOutputExtentOnNarrowImage", "imerode_uint8_none",
     [](Call &c) { c.set(IM, 0, 0, 10), c.set(OUT, 0, 0, -1); }, -28,
     "The extents for buffer Output buffer erode dimension 0 is negative (-1)"},
    {"EmptyOutputEmptyImage", "imerode_uint8_none", [](Call &c) { c.set(IM, 0, 0, 0), c.set(OUT, 0, 0, 0); }, -4,
     "Input buffer keyimForType is accessed at 0, which is beyond the max (-1) in dimension 0"},
    // The access test wraps: a range from INT_MIN fails with no words.
    {"WrappedOutputRange", "imerode_uint8_none", [](Call &c) { c.set(IM, 0, 0, 10), c.set(OUT, 0, INT_MIN, 4); }, -4,
     nullptr},
    {"WrappedImageRange", "imclose_uint8_none", [](Call &c) { c.set(IM, 0, INT_MIN, 10); }, -4, nullptr},
    // minmax: each operator asks for the entries it reads and no others
    // (the query's examples pin every operator's region).
    {"Minmax1x1ForErosion", "imerode_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, -4,
     "Input buffer minmax is accessed at 1, which is beyond the max (0) in dimension 0"},
    {"Minmax1x1ForDilation", "imdilate_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, 0, nullptr},
    {"MinmaxFrom1ForDilation", "imdilate_uint8_none", [](Call &c) { c.set(MM, 0, 1, 1); }, -4,
     "Input buffer minmax is accessed at 0, which is before the min (1) in dimension 0"},
    {"StrelFromMinus1", "imdilate_uint8_avx", [](Call &c) { c.dim(SE, 0).min = -1; }, -4,
     "Input buffer strel is accessed at 2, which is beyond the max (1) in dimension 0"},
    {"StrelNegativeExtent", "imerode_uint8_none", [](Call &c) { c.set(SE, 0, 0, -2); }, -28,
     "The extents for buffer Input buffer strel dimension 0 is negative (-2)"},
    // Types in the runtime's words: a boolean is uint1, lanes and unknown codes show.
    {"BytesForABooleanImage", "imerode_bool_none", [](Call &c) { c.b[IM].b.type = type_of(1, 8); }, -3,
     "Input buffer keyimForType has type uint1 but type of the buffer passed in is uint8"},
    {"VectorStrel", "imerode_int8_avx", [](Call &c) { c.b[SE].b.type = type_of(1, 8, 4); }, -3,
     "Input buffer strel has type uint8 but type of the buffer passed in is uint8x4"},
    {"UnknownTypeCode", "imtophat_float64_avx", [](Call &c) { c.b[OUT].b.type = type_of(4, 64); }, -3,
     "Output buffer tophat has type float64 but type of the buffer passed in is bad_type_code64"},
    // Fields the frame does not read.
    {"DeviceFlagsAndDimensions", "imdilate_int32_avx", [](Call &c) {
         c.b[IM].b.device = 5, c.b[IM].b.flags = 3, c.b[OUT].b.flags = 3;
         c.b[IM].b.dimensions = 1, c.b[MM].b.dimensions = 5, c.dim(SE, 2).flags = 9;
     }, 0, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Reports, FrameCase, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.what); });

// The pipeline sees copies: host storage, three (two) dimensions, no
// flags, a boolean as bytes; the caller's descriptors stay as they are.
TEST_F(FrameTest, PipelineGetsShallowCopies) {
    Target t = target("imerode_bool_avx");
    t.real = nullptr;  // through the stub, which records the copies it was given
    Call c;
    c.standard(t.type);
    int sentinel;
    for (auto &buf : c.b) {
        buf.b.flags = 0xf0f0;
        buf.b.device = 0x1234;
        buf.b.device_interface = reinterpret_cast<const halide_device_interface_t *>(&sentinel);
        buf.b.dimensions = 9;
        buf.b.padding = &sentinel;
        for (auto &d : buf.dim) d.flags = 0x55;
    }
    Snapshot before(c);
    stub().status = -77;
    EXPECT_EQ(invoke(t, c), -77);
    EXPECT_TRUE(Snapshot(c) == before);
    ASSERT_EQ(stub().calls, 1);
    const halide_type_t want[4] = {type_of(1, 8), type_of(2, 64), type_of(1, 8), type_of(1, 8)};
    for (int a = 0; a < 4; a++) {
        SCOPED_TRACE(a);
        const halide_buffer_t &p = stub().buf[a];
        EXPECT_NE(stub().ptr[a], c.arg[a]);
        EXPECT_EQ(p.host, c.b[a].b.host);
        EXPECT_TRUE(p.device == 0 && !p.device_interface && p.flags == 0 && !p.padding) << "a field passed on";
        EXPECT_TRUE(p.type == want[a]);
        EXPECT_EQ(p.dimensions, a == MM ? 2 : 3);
        for (int d = 0; d < p.dimensions; d++) {
            const halide_dimension_t &g = c.b[a].dim[d];
            EXPECT_TRUE(stub().dim[a][d] == halide_dimension_t(g.min, g.extent, g.stride)) << "dimension " << d;
        }
    }
}

// The replaced reports take their text from the allocator, as the
// runtime's do, and fall back on the runtime's fixed text without it.
struct Allocator {
    static inline bool fail = false;
    static inline std::vector<size_t> sizes;
    static inline int frees = 0;
    static void *malloc(void *, size_t n) { return sizes.push_back(n), fail ? nullptr : ::malloc(n); }
    static void free(void *, void *p) { frees++, ::free(p); }
};

TEST_F(FrameTest, ReplacedReportsTakeTheirTextFromTheAllocator) {
    halide_malloc_t old_malloc = halide_set_custom_malloc(Allocator::malloc);
    halide_free_t old_free = halide_set_custom_free(Allocator::free);
    for (bool fail : {false, true}) {
        SCOPED_TRACE(fail ? "allocation fails" : "allocation succeeds");
        Allocator::fail = fail;
        Allocator::sizes.clear();
        Allocator::frees = 0;
        reports().clear();
        EXPECT_EQ(halide_error_buffer_argument_is_null(nullptr, "open"), -12);
        EXPECT_EQ(halide_error_out_of_memory(nullptr), -11);
        EXPECT_EQ(Allocator::sizes, (std::vector<size_t>{1024, 1024}));
        EXPECT_EQ(Allocator::frees, fail ? 0 : 2);
        const std::vector<std::string> want =
            fail ? std::vector<std::string>{"Printer buffer allocation failed.\n", "Printer buffer allocation failed.\n"}
                 : std::vector<std::string>{"Buffer argument open is NULL", "Out of memory (halide_malloc returned NULL)"};
        EXPECT_EQ(reports(), want);
    }
    halide_set_custom_malloc(old_malloc);
    halide_set_custom_free(old_free);
}

}  // namespace
