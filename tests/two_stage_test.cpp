// What is particular to the two-stage operators and the residues, through
// the entry points on the static archive: the one allocation of a call and
// its failures, and the residue arithmetic at the edges of every type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <algorithm>
#include <limits>
#include <mutex>

#include "frame_call.h"
#include "morph_case.h"

namespace tmtest {
namespace {

// --- Allocation -----------------------------------------------------------

// Band tasks allocate from the pool's threads: the log takes a lock.
struct AllocLog {
    std::vector<size_t> sizes;
    int frees = 0;
    size_t fail_at = 0;  // the first allocation, counted from 0, that fails
    int fail = 0;        // how many fail from there
    int failed = 0;      // how many did
};
AllocLog g_alloc;
std::mutex g_alloc_lock;

void *logging_malloc(void *, size_t size) {
    std::lock_guard<std::mutex> lock(g_alloc_lock);
    const size_t index = g_alloc.sizes.size();
    g_alloc.sizes.push_back(size);
    if (index >= g_alloc.fail_at && g_alloc.fail > 0) {
        g_alloc.fail--;
        g_alloc.failed++;
        return nullptr;
    }
    return std::aligned_alloc(32, (size + 31) / 32 * 32);
}
void logging_free(void *, void *p) {
    std::lock_guard<std::mutex> lock(g_alloc_lock);
    g_alloc.frees++;
    std::free(p);
}

class Allocation : public testing::Test {
protected:
    void SetUp() override {
        install_recording_handler();
        halide_messages().clear();
        g_alloc = AllocLog{};
        previous_malloc_ = halide_set_custom_malloc(logging_malloc);
        previous_free_ = halide_set_custom_free(logging_free);
    }
    // Put back what was there: the runtime calls a null allocator, it does
    // not fall back on its own.
    void TearDown() override {
        halide_set_custom_malloc(previous_malloc_);
        halide_set_custom_free(previous_free_);
    }
    halide_malloc_t previous_malloc_ = nullptr;
    halide_free_t previous_free_ = nullptr;
};

// One block per call, sized from the intermediate's box plus one element,
// the call's first allocation, released once.  Band tasks take blocks of
// their own (rows for their band), all released before the call returns;
// the intermediate is told apart by its size.
TEST_F(Allocation, OneBlockOfTheIntermediatesBoxPlusOneElement) {
    struct Row { const char *op; const char *type; size_t asked; } rows[] = {
        {"imopen", "uint8", 40001}, {"imopen", "float64", 320008},
        {"imclose", "uint8", 41821}, {"imclose", "float64", 334568},
        {"imtophat", "uint8", 40001}, {"imbothat", "float64", 334568},
    };
    for (auto &r : rows) {
        for (auto &e : entries_of({r.op})) {
            if (e.type != r.type || !e.cpu_has_level()) continue;
            g_alloc = AllocLog{};
            Call c;
            c.standard(type_info(r.type), 100, 80, 5);
            EXPECT_EQ(c.run(e.fn), 0) << e.name << ": " << halide_messages();
            ASSERT_GE(g_alloc.sizes.size(), 1u) << e.name;
            EXPECT_EQ(g_alloc.sizes[0], r.asked) << e.name;
            EXPECT_EQ(std::count(g_alloc.sizes.begin(), g_alloc.sizes.end(), r.asked), 1) << e.name;
            EXPECT_EQ(g_alloc.frees, int(g_alloc.sizes.size())) << e.name;
        }
    }
}

TEST_F(Allocation, FailedAllocationReportsAndWritesNothing) {
    for (auto &e : entries_of({"imopen", "imclose", "imtophat", "imbothat"})) {
        if (!e.cpu_has_level()) continue;
        Call c;
        c.standard(type_info(e.type), 40, 6, 2);
        std::mt19937 rng(5);
        c.b[OUT].fill_random(rng);
        std::vector<uint8_t> before = c.b[OUT].store;
        // Only the intermediate's block fails: the report's own text buffer
        // comes from the same allocator.
        g_alloc = AllocLog{};
        g_alloc.fail = 1;
        halide_messages().clear();
        EXPECT_EQ(c.run(e.fn), -11) << e.name;
        EXPECT_EQ(halide_messages(), "Out of memory (halide_malloc returned NULL)") << e.name;
        EXPECT_EQ(c.b[OUT].store, before) << e.name;
        EXPECT_EQ(g_alloc.frees, 1) << e.name << ": the report's text buffer, and nothing else";
    }
}

// A band task whose rows cannot be allocated reports it in the same words
// as a failed intermediate, and every block obtained is released.  With
// rows a dozen blocks wide every entry point takes band walks.
TEST_F(Allocation, FailedBandRowsReportLikeTheIntermediate) {
    for (auto &e : all_entries()) {
        if (!e.cpu_has_level()) continue;
        const bool two_stage = e.op != "imerode" && e.op != "imdilate";
        Call c;
        c.standard(type_info(e.type), 12 * 8 * e.lanes, 5, 2);
        g_alloc = AllocLog{};
        g_alloc.fail_at = two_stage ? 1 : 0;  // the first block after the intermediate
        g_alloc.fail = 1;
        halide_messages().clear();
        EXPECT_EQ(c.run(e.fn), -11) << e.name;
        EXPECT_NE(halide_messages().find("Out of memory (halide_malloc returned NULL)"), std::string::npos)
            << e.name << ": " << halide_messages();
        EXPECT_EQ(g_alloc.frees, int(g_alloc.sizes.size()) - g_alloc.failed) << e.name;
    }
}

// --- Residue arithmetic ---------------------------------------------------

// Top-hat on an image whose min is 10: beyond the window (x >= W) every
// tap position leaves it, the opened value is the lower pad, and the
// output is R(image, Lo).  So any pair (a, b) of the type can be put to the
// residue, in the vector loop (wide image) and in the scalar one.
struct ResidueRow {
    const char *type;
    double a, b, r;
};

class Residue : public testing::TestWithParam<Entry> {
protected:
    void SetUp() override { install_recording_handler(); }
};

TEST_P(Residue, EdgesOfTheTypeThroughTopHat) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP();
    const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
    const ResidueRow rows[] = {
        {"bool", 1, 0, 1}, {"bool", 1, 1, 0}, {"bool", 0, 1, 0}, {"bool", 3, 0, 1}, {"bool", 254, 0, 0},
        {"uint8", 5, 7, 0}, {"uint8", 7, 5, 2}, {"uint8", 255, 0, 255},
        {"int8", 100, -100, 127}, {"int8", -100, 100, -128}, {"int8", -5, 7, -12},
        {"uint16", 1, 65535, 0}, {"int16", -32768, 1, -32768}, {"int16", 32767, -1, 32767},
        {"int32", 16777217, 16777216, 0}, {"int32", 100000000, 99999999, 0}, {"int32", 2147483647, 0, 2147483647},
        {"int32", 2147483583, 0, 2147483520}, {"int32", 2147483584, 0, 2147483647},
        {"int32", -2147483648.0, 1, -2147483648.0}, {"int32", 1000, 3, 997},
        {"uint32", 4294967295.0, 0, 4294967295.0}, {"uint32", 4294967167.0, 0, 4294967040.0},
        {"uint32", 16777217, 1, 16777215}, {"uint32", 5, 7, 0},
        {"float32", inf, inf, inf}, {"float32", -inf, -inf, inf}, {"float32", nan, 1, inf},
        {"float32", 3e38, -3e38, inf}, {"float32", 1.5, 0.25, 1.25},
        {"float64", 1e308, -1e308, inf}, {"float64", nan, 0, inf}, {"float64", -2.5, 0.5, -3.0},
    };
    const TypeInfo &ti = type_info(e.type);
    for (const ResidueRow &row : rows) {
        if (e.type != row.type) continue;
        for (int32_t width : {e.lanes, 3 * e.lanes + 1}) {
            // One tap; image and output over 10 .. width + 13.
            Call c;
            c.standard(ti, width + 4, 1, 1);
            c.set(SE, 0, 0, 1), c.set(SE, 1, 0, 1);
            c.dim(IM, 0).min = c.dim(OUT, 0).min = 10;
            c.bounds(row.b, 0);
            uint8_t a_bytes[8];
            tmref::cast_bound(ti.ref, row.a, a_bytes);
            for (int32_t x = 10; x < width + 14; x++) std::memcpy(c.b[IM].at(x), a_bytes, ti.bytes);
            halide_messages().clear();
            ASSERT_EQ(c.run(e.fn), 0) << halide_messages();
            uint8_t r_bytes[8];
            tmref::cast_bound(ti.ref, row.r, r_bytes);
            // Samples at x >= W have their one tap outside the window.
            for (int32_t x = std::max(10, width + 4); x < width + 14; x++)
                EXPECT_EQ(std::memcmp(c.b[OUT].at(x), r_bytes, ti.bytes), 0)
                    << e.name << " R(" << row.a << ", " << row.b << ") at x " << x << " width " << width;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(TopHat, Residue, testing::ValuesIn(entries_of({"imtophat"})), EntryName());

}  // namespace
}  // namespace tmtest
