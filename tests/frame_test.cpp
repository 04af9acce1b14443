// The checks of the frame, under a returning error handler: which check
// fails first, with which code and which words, and that a failed call
// changes nothing.  Operators whose pipelines are not built run the same
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

std::string type_text(int code, int bits, int lanes = 1) {
    static const char *const words[] = {"int", "uint", "float", "handle"};
    std::string s = code <= 3 ? words[code] : "bad_type_code";
    s += std::to_string(bits);
    if (lanes != 1) s += "x" + std::to_string(lanes);
    return s;
}

using Mutation = std::function<void(Call &)>;

// Runs one call and compares its status and report; a failed call must
// leave every descriptor and every byte of storage as it was, and must not
// reach the pipeline.
void expect_call(const Target &t, Call &c, int code, const char *message) {
    Snapshot before(c);
    int status = invoke(t, c);
    EXPECT_EQ(status, code);
    if (message) {
        ASSERT_EQ(reports().size(), 1u);
        EXPECT_EQ(reports()[0], message);
    } else {
        EXPECT_TRUE(reports().empty()) << reports()[0];
    }
    if (code != 0) {
        EXPECT_TRUE(Snapshot(c) == before) << "a failed call wrote";
        EXPECT_EQ(stub().calls, 0);
    } else if (!t.real) {
        EXPECT_EQ(stub().calls, 1);
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
            if (mask == 15) EXPECT_EQ(first, t.op == TM_IMTOPHAT ? "tophat" : "strel");
            reports().clear();
            expect_call(t, c, -12, ("Buffer argument " + first + " is NULL").c_str());
        }
    }
}

// Every call goes once through the stub, so that the pipeline's own
// checks cannot stand in for the frame's, and once through the export
// where it is built.
std::vector<Target> routes(const std::string &name) {
    Target t = target(name);
    std::vector<Target> r{t};
    if (t.real) {
        r[0].real = nullptr;
        r.push_back(t);
    }
    return r;
}

void check_sequence(const Target &t);

// One fault in every check after the null tests, for every buffer; removing them
// one by one must walk the reports through the whole sequence, buffers in
// walking order within each phase, and end in a call that runs.
class CheckSequence : public FrameTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(CheckSequence, FaultsAreReportedOneAfterAnother) {
    for (const Target &t : routes(GetParam())) {
        SCOPED_TRACE(t.real ? "export" : "stub");
        check_sequence(t);
    }
}

void check_sequence(const Target &t) {
    struct Fault {
        Mutation apply;
        int code;
        std::string message;
    };
    std::vector<Fault> faults;
    const auto &walk = kWalk.at(t.name.substr(0, t.name.find('_')));
    const std::string expected_type = type_text(t.type.code, t.type.bits);
    for (const auto &n : walk) {  // types
        Arg a = arg_of(n);
        halide_type_t wrong = a == MM ? type_of(2, 32) : a == SE ? type_of(0, 8)
                              : t.type.code == 0 && t.type.bits == 16 ? type_of(1, 8) : type_of(0, 16);
        std::string want = a == MM ? "float64" : a == SE ? "uint8" : expected_type;
        faults.push_back({[=](Call &c) { c.b[a].b.type = wrong; }, -3,
                          label(t, a) + " has type " + want + " but type of the buffer passed in is " +
                              type_text(wrong.code, wrong.bits)});
    }
    for (const auto &n : walk) {  // regions and extents
        Arg a = arg_of(n);
        if (a == OUT)
            faults.push_back({[](Call &c) { c.dim(OUT, 1).extent = -1; }, -28,
                              "The extents for buffer " + label(t, a) + " dimension 1 is negative (-1)"});
        if (a == IM)
            faults.push_back({[](Call &c) { c.dim(IM, 2).extent = -1; }, -4,
                              label(t, a) + " is accessed at 0, which is beyond the max (-2) in dimension 2"});
        if (a == MM)
            faults.push_back({[](Call &c) { c.dim(MM, 1).min = 1; }, -4,
                              label(t, a) + " is accessed at 0, which is before the min (1) in dimension 1"});
        if (a == SE)
            faults.push_back({[](Call &c) { c.dim(SE, 2).min = 1; }, -4,
                              label(t, a) + " is accessed at 0, which is before the min (1) in dimension 2"});
    }
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
    for (size_t k = 0; k <= faults.size(); k++) {
        SCOPED_TRACE(t.name + ": faults from " + std::to_string(k));
        Call c;
        c.standard(t.type);
        for (size_t j = k; j < faults.size(); j++) faults[j].apply(c);
        reports().clear();
        stub() = StubRecord{};
        if (k < faults.size())
            expect_call(t, c, faults[k].code, faults[k].message.c_str());
        else
            expect_call(t, c, 0, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(AllOperators, CheckSequence,
                         ::testing::Values("imerode_uint8_none", "imdilate_bool_avx2", "imopen_float32_avx",
                                           "imclose_int16_none", "imtophat_float64_avx2", "imbothat_uint32_avx"));

// Single calls with their exact report.
struct Case {
    const char *what;
    const char *exp;
    Mutation mutate;
    int code;
    const char *message;  // null: no report
};

class FrameCase : public FrameTest, public ::testing::WithParamInterface<Case> {};

TEST_P(FrameCase, ReportsExactly) {
    const Case &k = GetParam();
    for (const Target &t : routes(k.exp)) {
        SCOPED_TRACE(t.real ? "export" : "stub");
        Call c;
        c.standard(t.type);
        k.mutate(c);
        reports().clear();
        stub() = StubRecord{};
        expect_call(t, c, k.code, k.message);
    }
}

const Case kCases[] = {
    // The output's range on a wide image is L wide; it is tested first.
    {"narrow output on wide image, before the image", "imerode_uint8_none",
     [](Call &c) { c.set(OUT, 0, 0, 3), c.dim(IM, 1).extent = -1; }, -4,
     "Output buffer erode is accessed at -13, which is before the min (0) in dimension 0"},
    {"image of L + 1 widens the output", "imdilate_uint8_none",
     [](Call &c) { c.set(IM, 0, 0, 17), c.set(OUT, 0, 5, 3); }, -4,
     "Output buffer dilate is accessed at -8, which is before the min (5) in dimension 0"},
    {"image of L keeps the output", "imdilate_uint8_none", [](Call &c) { c.set(IM, 0, 0, 16), c.set(OUT, 0, 5, 3); },
     0, nullptr},
    {"negative output extent on a wide image", "imerode_uint8_none", [](Call &c) { c.set(OUT, 0, 0, -1); }, -4,
     "Output buffer erode is accessed at -17, which is before the min (0) in dimension 0"},
    {"negative output extent on a narrow image", "imerode_uint8_none",
     [](Call &c) { c.set(IM, 0, 0, 10), c.set(OUT, 0, 0, -1); }, -28,
     "The extents for buffer Output buffer erode dimension 0 is negative (-1)"},
    {"empty output, empty image", "imerode_uint8_none", [](Call &c) { c.set(IM, 0, 0, 0), c.set(OUT, 0, 0, 0); }, -4,
     "Input buffer keyimForType is accessed at 0, which is beyond the max (-1) in dimension 0"},
    // The access test wraps: an output from INT_MIN fails with no words.
    {"wrapped output range", "imerode_uint8_none", [](Call &c) { c.set(IM, 0, 0, 10), c.set(OUT, 0, INT_MIN, 4); },
     -4, nullptr},
    {"wrapped image range", "imclose_uint8_none", [](Call &c) { c.set(IM, 0, INT_MIN, 10); }, -4, nullptr},
    // minmax: each operator asks for the entries it reads and no others.
    {"minmax 1 x 1 for erosion", "imerode_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, -4,
     "Input buffer minmax is accessed at 1, which is beyond the max (0) in dimension 0"},
    {"minmax 1 x 1 for opening", "imopen_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, -4,
     "Input buffer minmax is accessed at 1, which is beyond the max (0) in dimension 0"},
    {"minmax 1 x 1 for top-hat", "imtophat_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, -4,
     "Input buffer minmax is accessed at 1, which is beyond the max (0) in dimension 0"},
    {"minmax 1 x 1 for dilation", "imdilate_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, 0, nullptr},
    {"minmax 1 x 1 for closing", "imclose_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, 0, nullptr},
    {"minmax 1 x 1 for bottom-hat", "imbothat_uint8_none", [](Call &c) { c.set(MM, 0, 0, 1); }, 0, nullptr},
    {"minmax from 1 for erosion", "imerode_uint8_none", [](Call &c) { c.set(MM, 0, 1, 1); }, 0, nullptr},
    {"minmax from 1 for dilation", "imdilate_uint8_none", [](Call &c) { c.set(MM, 0, 1, 1); }, -4,
     "Input buffer minmax is accessed at 0, which is before the min (1) in dimension 0"},
    {"minmax empty in dimension 1", "imerode_uint8_none", [](Call &c) { c.set(MM, 1, 0, 0); }, -4,
     "Input buffer minmax is accessed at 0, which is beyond the max (-1) in dimension 1"},
    // strel is addressed from 0.
    {"strel from 1", "imerode_uint8_none", [](Call &c) { c.dim(SE, 1).min = 1; }, -4,
     "Input buffer strel is accessed at 0, which is before the min (1) in dimension 1"},
    {"strel from -1", "imdilate_uint8_avx", [](Call &c) { c.dim(SE, 0).min = -1; }, -4,
     "Input buffer strel is accessed at 2, which is beyond the max (1) in dimension 0"},
    {"strel negative extent", "imerode_uint8_none", [](Call &c) { c.set(SE, 0, 0, -2); }, -28,
     "The extents for buffer Input buffer strel dimension 0 is negative (-2)"},
    {"output negative extent in dimension 2", "imerode_uint8_none", [](Call &c) { c.dim(OUT, 2).extent = -1; }, -28,
     "The extents for buffer Output buffer erode dimension 2 is negative (-1)"},
    {"closing's output negative extent", "imclose_uint8_avx", [](Call &c) { c.dim(OUT, 1).extent = -3; }, -28,
     "The extents for buffer Output buffer close dimension 1 is negative (-3)"},
    // Types: before any region, and in the runtime's words.
    {"float32 image with a wrong region", "imerode_uint8_none",
     [](Call &c) { c.b[IM].b.type = type_of(2, 32), c.dim(OUT, 1).extent = -5, c.dim(IM, 2).extent = -1; }, -3,
     "Input buffer keyimForType has type uint8 but type of the buffer passed in is float32"},
    {"bytes for a boolean image", "imerode_bool_none", [](Call &c) { c.b[IM].b.type = type_of(1, 8); }, -3,
     "Input buffer keyimForType has type uint1 but type of the buffer passed in is uint8"},
    {"bytes for a boolean output", "imdilate_bool_avx2", [](Call &c) { c.b[OUT].b.type = type_of(1, 8); }, -3,
     "Output buffer dilate has type uint1 but type of the buffer passed in is uint8"},
    {"vector strel", "imerode_int8_avx", [](Call &c) { c.b[SE].b.type = type_of(1, 8, 4); }, -3,
     "Input buffer strel has type uint8 but type of the buffer passed in is uint8x4"},
    {"unknown type code", "imtophat_float64_avx", [](Call &c) { c.b[OUT].b.type = type_of(4, 64); }, -3,
     "Output buffer tophat has type float64 but type of the buffer passed in is bad_type_code64"},
    {"float32 minmax", "imclose_uint16_avx2", [](Call &c) { c.b[MM].b.type = type_of(2, 32); }, -3,
     "Input buffer minmax has type float64 but type of the buffer passed in is float32"},
    {"host null with a device", "imerode_uint8_none", [](Call &c) { c.b[SE].b.host = nullptr, c.b[SE].b.device = 7; },
     -34, "The host pointer of Input buffer strel is null, but the pipeline will access it on the host."},
    {"output stride 3", "imdilate_float32_avx2", [](Call &c) { c.dim(OUT, 0).stride = 3; }, -8,
     "Constraint violated: dilate.stride.0 (3) == 1 (1)"},
    // Fields the frame does not read.
    {"device beside a host", "imerode_uint8_none", [](Call &c) { c.b[IM].b.device = 5; }, 0, nullptr},
    {"dirty flags", "imdilate_int32_avx", [](Call &c) { c.b[IM].b.flags = 3, c.b[OUT].b.flags = 3; }, 0, nullptr},
    {"dimensions and dim flags", "imerode_float64_none",
     [](Call &c) { c.b[IM].b.dimensions = 1, c.b[MM].b.dimensions = 5, c.dim(SE, 2).flags = 9; }, 0, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Reports, FrameCase, ::testing::ValuesIn(kCases), [](const auto &info) {
    std::string n = info.param.what;
    for (auto &ch : n)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return n;
});

// The pipeline sees copies: host storage, three (two) dimensions, no
// flags, a boolean as bytes; the caller's descriptors stay as they are.
TEST_F(FrameTest, PipelineGetsShallowCopies) {
    Target t = target("imopen_bool_avx");
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
        EXPECT_EQ(p.device, 0u);
        EXPECT_EQ(p.device_interface, nullptr);
        EXPECT_EQ(p.flags, 0u);
        EXPECT_EQ(p.padding, nullptr);
        EXPECT_TRUE(p.type == want[a]);
        EXPECT_EQ(p.dimensions, a == MM ? 2 : 3);
        for (int d = 0; d < p.dimensions; d++) {
            EXPECT_EQ(stub().dim[a][d].min, c.b[a].dim[d].min);
            EXPECT_EQ(stub().dim[a][d].extent, c.b[a].dim[d].extent);
            EXPECT_EQ(stub().dim[a][d].stride, c.b[a].dim[d].stride);
            EXPECT_EQ(stub().dim[a][d].flags, 0u);
        }
    }
}

// ---------------------------------------------------------------------------
// The words of the eight reports, as this library prints them, and the
// behaviour of the replaced ones when their text cannot be allocated.

uint32_t packed(halide_type_t t) {
    uint32_t u;
    std::memcpy(&u, &t, sizeof u);
    return u;
}

struct Message {
    std::function<int()> report;
    int code;
    const char *text;
};

TEST_F(FrameTest, ReportsUseTheLibrarysWords) {
    const Message messages[] = {
        {[] { return halide_error_buffer_argument_is_null(nullptr, "strel"); }, -12, "Buffer argument strel is NULL"},
        {[] { return halide_error_bad_type(nullptr, "Input buffer keyimForType", packed(type_of(2, 32)), packed(type_of(1, 8))); },
         -3, "Input buffer keyimForType has type uint8 but type of the buffer passed in is float32"},
        {[] { return halide_error_bad_type(nullptr, "Output buffer erode", packed(type_of(7, 16, 2)), packed(type_of(3, 64))); },
         -3, "Output buffer erode has type handle64 but type of the buffer passed in is bad_type_code16x2"},
        {[] { return halide_error_access_out_of_bounds(nullptr, "Output buffer erode", 0, -13, 2, 0, 2); }, -4,
         "Output buffer erode is accessed at -13, which is before the min (0) in dimension 0"},
        {[] { return halide_error_access_out_of_bounds(nullptr, "Input buffer minmax", 1, 1, 1, 0, 0); }, -4,
         "Input buffer minmax is accessed at 1, which is beyond the max (0) in dimension 1"},
        {[] { return halide_error_buffer_extents_negative(nullptr, "Input buffer strel", 2, -4); }, -28,
         "The extents for buffer Input buffer strel dimension 2 is negative (-4)"},
        {[] { return halide_error_constraint_violated(nullptr, "minmax.stride.0", -1, "1", 1); }, -8,
         "Constraint violated: minmax.stride.0 (-1) == 1 (1)"},
        {[] { return halide_error_buffer_allocation_too_large(nullptr, "imdilate", 4611686022722355200ull, 0x7fffffffffffffffull); },
         -5, "Total allocation for buffer imdilate is 4611686022722355200, which exceeds the maximum size of 9223372036854775807"},
        {[] { return halide_error_host_is_null(nullptr, "Output buffer bothat"); }, -34,
         "The host pointer of Output buffer bothat is null, but the pipeline will access it on the host."},
        {[] { return halide_error_out_of_memory(nullptr); }, -11, "Out of memory (halide_malloc returned NULL)"},
    };
    for (const auto &m : messages) {
        reports().clear();
        EXPECT_EQ(m.report(), m.code);
        ASSERT_EQ(reports().size(), 1u);
        EXPECT_EQ(reports()[0], m.text);
    }
    // In range on both sides, which only wrap-around reaches: no words.
    reports().clear();
    EXPECT_EQ(halide_error_access_out_of_bounds(nullptr, "Output buffer erode", 0, 0, 3, 0, 3), -4);
    EXPECT_TRUE(reports().empty());
}

struct Allocator {
    static inline bool fail = false;
    static inline std::vector<size_t> sizes;
    static inline int frees = 0;
    static void *malloc(void *, size_t n) {
        sizes.push_back(n);
        return fail ? nullptr : ::malloc(n);
    }
    static void free(void *, void *p) {
        frees++;
        ::free(p);
    }
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
