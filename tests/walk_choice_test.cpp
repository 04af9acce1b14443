// Which walk the frame picks for a call: one row per representative call,
// with the walk it must get.  The rows sit on both sides of every threshold
// of the choice (row widths around one chunk and one block, the mask's reach
// across rows against what a band task keeps, run lengths against the
// levels of doubled folds, the number of runs against the list, a band
// task's memory), for integer and floating types, in 2-D and 3-D.  What
// each walk computes is the random suites' business; this table pins the
// choice, so that a change of a threshold shows here first.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "walk_plan.h"
#include "tm_lanes.h"
#include "walks.h"

namespace {

const char *walk_name(int w) {
    static const char *names[] = {
#define TM_WALK_NAME(name) #name,
        TM_WALKS(TM_WALK_NAME)
#undef TM_WALK_NAME
    };
    return w >= 0 && w < TM_WALK_COUNT ? names[w] : "?";
}

struct Mask {
    int32_t e[3];
    std::function<uint8_t(int, int, int)> byte;
};

uint8_t one(int, int, int) { return 1; }
Mask box(int e0, int e1, int e2 = 1) { return {{e0, e1, e2}, one}; }
Mask disk(int e) {
    const int r = e / 2;
    return {{e, e, 1}, [r](int i, int j, int) -> uint8_t { return (i - r) * (i - r) + (j - r) * (j - r) <= r * r; }};
}
// A row of `e` taps with a gap at `gap`: runs of gap and e - gap - 1.
Mask row_with_gap(int e, int gap) {
    return {{e, 1, 1}, [gap](int i, int, int) -> uint8_t { return i != gap; }};
}

enum class T { UInt8, Float32, UInt16 };

struct Row {
    const char *what;
    T type;
    bool two_stage;
    bool wide;            // the image is wider than one chunk
    int32_t out_width;    // in chunks (L) plus samples: chunks * L + extra
    int32_t chunks, extra;
    int32_t stage_width;  // two-stage: the intermediate's width, in chunks
    Mask mask;
    int expected;
    // Floating calls: where a NaN lies in reach (none, in the image's piece,
    // in the bound the operator pads with).
    enum { kNone, kImage, kPad } nan = kNone;
};

const int32_t kBlock = TM_BLOCK_CHUNKS;

const Row kRows[] = {
    {"3 x 3 box on long rows", T::UInt8, false, true, 0, 128, 0, 0, box(3, 3), TM_WALK_BOX},
    {"63 x 63 square: by segments", T::UInt8, false, true, 0, 128, 0, 0, box(63, 63), TM_WALK_SEGMENTS},
    {"7 x 9 box: the box walk", T::UInt8, false, true, 0, 128, 0, 0, box(7, 9), TM_WALK_BOX},
    {"7 x 10 box: by segments", T::UInt8, false, true, 0, 128, 0, 0, box(7, 10), TM_WALK_SEGMENTS},
    {"row of 17: the box walk", T::UInt8, false, true, 0, 128, 0, 0, box(17, 1), TM_WALK_BOX},
    {"row of 18: by segments", T::UInt8, false, true, 0, 128, 0, 0, box(18, 1), TM_WALK_SEGMENTS},
    {"floating 15 x 15 box: by segments", T::Float32, false, true, 0, 16, 0, 0, box(15, 15), TM_WALK_SEGMENTS},
    {"row of 63: the longest the levels cover", T::UInt16, false, true, 0, 16, 0, 0, box(63, 1), TM_WALK_SEGMENTS},
    {"row of 64: by segments", T::UInt16, false, true, 0, 16, 0, 0, box(64, 1), TM_WALK_SEGMENTS},
    {"127 x 127 square: by segments", T::Float32, false, true, 0, 128, 0, 0, box(127, 127), TM_WALK_SEGMENTS},
    {"row of 4095: the longest the segments' levels cover", T::UInt8, false, true, 0, 256, 0, 0, box(4095, 1),
     TM_WALK_SEGMENTS},
    {"row of 4096: longer than the segments' levels cover", T::UInt8, false, true, 0, 256, 0, 0, box(4096, 1),
     TM_WALK_BOX},
    {"column of 2309 on rows of 2048 floats: the tallest whose band of segments fits", T::Float32, false, true, 0,
     256, 0, 0, box(1, 2309), TM_WALK_SEGMENTS},
    {"column of 2310 on rows of 2048 floats: one row beyond a band of segments, the box walk", T::Float32, false, true,
     0, 256, 0, 0, box(1, 2310), TM_WALK_BOX},
    {"15 x 15 x 2 box: planes first", T::UInt8, false, true, 0, 128, 0, 0, box(15, 15, 2), TM_WALK_PLANES},
    {"narrow image: no chunk to walk", T::UInt8, false, false, 0, 0, 31, 0, box(3, 3), TM_WALK_DIRECT},
    {"output narrower than one chunk", T::UInt8, false, true, 0, 0, 31, 0, box(3, 3), TM_WALK_DIRECT},
    {"output of exactly one chunk: blocks of one chunk, a box by taps", T::UInt8, false, true, 0, 1, 0, 0, box(3, 3),
     TM_WALK_TAPS},
    {"15 x 15 box on rows of two chunks: by segments", T::UInt8, false, true, 0, 2, 0, 0, box(15, 15), TM_WALK_SEGMENTS},
    {"7 x 7 box on rows of two chunks: by its runs", T::UInt8, false, true, 0, 2, 0, 0, box(7, 7), TM_WALK_RUNS},
    {"127 x 127 square on rows of one chunk: by segments", T::UInt16, false, true, 0, 1, 0, 0, box(127, 127),
     TM_WALK_SEGMENTS},
    {"floating 127 x 127 square on rows narrower than a block, no NaN: by segments", T::Float32, false, true, 0, 7,
     0, 0, box(127, 127), TM_WALK_SEGMENTS},
    {"floating 127 x 127 square on rows narrower than a block, a NaN in the image: taps", T::Float32, false, true,
     0, 7, 0, 0, box(127, 127), TM_WALK_TAPS, Row::kImage},
    {"output one sample short of a block", T::UInt8, false, true, 0, kBlock, -1, 0, box(3, 3), TM_WALK_TAPS},
    {"output of exactly one block", T::UInt8, false, true, 0, kBlock, 0, 0, box(3, 3), TM_WALK_BOX},
    {"two-stage, intermediate narrower than one chunk", T::UInt8, true, true, 0, 4, 0, 0, box(3, 3),
     TM_WALK_DIRECT},
    {"two-stage, intermediate of one chunk", T::UInt8, true, true, 0, 4, 0, 1, box(3, 3), TM_WALK_TAPS},
    {"two-stage, both a block wide", T::UInt8, true, true, 0, kBlock, 0, kBlock, box(3, 3), TM_WALK_BOX},
    {"cube on narrow rows, as many runs as the list holds", T::UInt8, false, true, 0, 2, 0, 0, box(3, 64, 64),
     TM_WALK_RUNS},
    {"cube on narrow rows, more runs than the list holds", T::UInt8, false, true, 0, 2, 0, 0, box(3, 64, 65),
     TM_WALK_DIRECT},
    {"3 x 3 x 3 cube, integers: planes first", T::UInt8, false, true, 0, 16, 0, 0, box(3, 3, 3), TM_WALK_PLANES},
    {"ball of radius 1, integers: short runs across planes share a slab's rows", T::UInt16, false, true, 0, 2, 0, 0,
     {{3, 3, 3}, [](int i, int j, int k) -> uint8_t { return (i - 1) * (i - 1) + (j - 1) * (j - 1) + (k - 1) * (k - 1) <= 1; }},
     TM_WALK_RUNS},
    {"ball of radius 1, floating: by taps", T::Float32, false, true, 0, 16, 0, 0,
     {{3, 3, 3}, [](int i, int j, int k) -> uint8_t { return (i - 1) * (i - 1) + (j - 1) * (j - 1) + (k - 1) * (k - 1) <= 1; }},
     TM_WALK_TAPS},
    {"cross of one plane, integers: by taps", T::UInt8, false, true, 0, 16, 0, 0,
     {{3, 3, 1}, [](int i, int j, int) -> uint8_t { return i == 1 || j == 1; }}, TM_WALK_TAPS},
    {"3 x 3 x 3 cube, floating: the walk's own grouping", T::Float32, false, true, 0, 16, 0, 0, box(3, 3, 3),
     TM_WALK_BOX},
    {"floating 3 x 3 box: 9 taps go by taps", T::Float32, false, true, 0, 16, 0, 0, box(3, 3), TM_WALK_TAPS},
    {"floating 5 x 5 box folds", T::Float32, false, true, 0, 16, 0, 0, box(5, 5), TM_WALK_BOX},
    {"disk of 5: too short runs for folds", T::UInt8, false, true, 0, 16, 0, 0, disk(5), TM_WALK_TAPS},
    {"disk of 15, integers: doubled folds", T::UInt16, false, true, 0, 16, 0, 0, disk(15), TM_WALK_RUNS},
    {"disk of 15, floating: doubled folds (by taps where a NaN is in reach)", T::Float32, false, true, 0, 16, 0, 0,
     disk(15), TM_WALK_RUNS},
    {"disk of 15, floating, rows narrower than a block: taps", T::Float32, false, true, 0, kBlock - 1, 0, 0, disk(15),
     TM_WALK_TAPS},
    {"floating 15 x 15 box on rows narrower than a block, no NaN: by segments", T::Float32, false, true, 0, 2, 0, 0,
     box(15, 15), TM_WALK_SEGMENTS},
    {"floating 15 x 15 box on rows narrower than a block, a NaN in the image: taps", T::Float32, false, true, 0, 2, 0,
     0, box(15, 15), TM_WALK_TAPS, Row::kImage},
    {"floating 15 x 15 box on rows narrower than a block, a NaN pad: taps", T::Float32, false, true, 0, 2, 0, 0,
     box(15, 15), TM_WALK_TAPS, Row::kPad},
    {"floating 15 x 15 box, a NaN in the image: by segments, which test each row", T::Float32, false, true, 0, 16, 0,
     0, box(15, 15), TM_WALK_SEGMENTS, Row::kImage},
    {"floating opening by 15 x 15 on an intermediate narrower than a block, no NaN: by segments", T::Float32, true,
     true, 0, 16, 0, 2, box(15, 15), TM_WALK_SEGMENTS},
    {"disk of 15 on rows of two chunks", T::UInt8, false, true, 0, 2, 0, 0, disk(15), TM_WALK_RUNS},
    {"disk of 63: runs of up to 63 taps", T::UInt8, false, true, 0, 128, 0, 0, disk(63), TM_WALK_RUNS},
    {"runs of 127 and 6: the longest level holds", T::UInt8, false, true, 0, 16, 0, 0, row_with_gap(134, 127),
     TM_WALK_RUNS},
    {"runs of 128 and 5: longer than the levels hold", T::UInt8, false, true, 0, 16, 0, 0, row_with_gap(134, 128),
     TM_WALK_TAPS},
    {"disk of 81: taller than a band, by its runs", T::UInt8, false, true, 0, 128, 0, 0, disk(81), TM_WALK_RUNS},
    {"column of 65: by segments", T::UInt8, false, true, 0, 16, 0, 0, box(1, 65), TM_WALK_SEGMENTS},
    {"column of 13: the box walk", T::UInt8, false, true, 0, 16, 0, 0, box(1, 13), TM_WALK_BOX},
    {"column of 14: by segments", T::UInt8, false, true, 0, 16, 0, 0, box(1, 14), TM_WALK_SEGMENTS},
    {"column of 301: segments reach any height", T::Float32, false, true, 0, 16, 0, 0, box(1, 301),
     TM_WALK_SEGMENTS},
    {"column of 20001: more than a band may keep", T::UInt8, false, true, 0, 128, 0, 0, box(1, 20001),
     TM_WALK_DIRECT},
    {"3 x 66 mask of short runs: a band keeps its reach", T::UInt8, false, true, 0, 16, 0, 0,
     {{3, 66, 1}, [](int i, int, int) -> uint8_t { return i != 0; }}, TM_WALK_TAPS},
    {"3 x 3000 mask of short runs on 32768-wide rows: more than a band may keep", T::UInt8, false, true, 0, 1024,
     0, 0, {{3, 3000, 1}, [](int i, int, int) -> uint8_t { return i != 0; }}, TM_WALK_DIRECT},
    {"a 2 in the box: no box, its runs", T::UInt8, false, true, 0, 16, 0, 0,
     {{5, 5, 1}, [](int i, int j, int) -> uint8_t { return i == 4 && j == 0 ? 2 : 1; }}, TM_WALK_RUNS},
    {"no tap at all", T::UInt8, false, true, 0, 16, 0, 0, {{4, 4, 1}, [](int, int, int) -> uint8_t { return 0; }},
     TM_WALK_DIRECT},
    {"extent 0", T::UInt8, false, true, 0, 16, 0, 0, box(3, 0), TM_WALK_DIRECT},
    {"checkerboard of 1088 runs", T::UInt8, false, true, 0, 16, 0, 0,
     {{64, 34, 1}, [](int i, int j, int) -> uint8_t { return (i + j) % 2; }}, TM_WALK_TAPS},
    {"checkerboard of more runs than the list holds", T::UInt8, false, true, 0, 16, 0, 0,
     {{64, 65, 2}, [](int i, int j, int k) -> uint8_t { return (i + j + k) % 2; }}, TM_WALK_DIRECT},
    {"a box of more runs than the list holds still folds", T::UInt8, false, true, 0, 16, 0, 0, box(1, 64, 65),
     TM_WALK_PLANES},
    {"rows whose band task would keep more than 64 MiB", T::UInt8, false, true, 0, 4096, 0, 0, box(3, 3, 9),
     TM_WALK_DIRECT},
    // 128 rows of 32768 + 15 + 256 + 64 samples, 4 levels and the rows: 21
    // MiB a plane, so 3 planes fit in 64 MiB and 4 do not.
    {"folds of levels within 64 MiB", T::UInt8, false, true, 0, 1024, 0, 0,
     {{15, 15, 3}, [](int i, int j, int) -> uint8_t { return (i - 7) * (i - 7) + (j - 7) * (j - 7) <= 49; }},
     TM_WALK_RUNS},
    {"folds of levels beyond 64 MiB keep the taps", T::UInt8, false, true, 0, 1024, 0, 0,
     {{15, 15, 4}, [](int i, int j, int) -> uint8_t { return (i - 7) * (i - 7) + (j - 7) * (j - 7) <= 49; }},
     TM_WALK_TAPS},
};

class WalkChoice : public testing::TestWithParam<Row> {};

TEST_P(WalkChoice, PicksItsWalk) {
    const Row &r = GetParam();
    const uint8_t code = r.type == T::Float32 ? 2 : 1, bits = r.type == T::UInt8 ? 8 : r.type == T::UInt16 ? 16 : 32;
    const int32_t bytes = bits / 8;
    const int32_t lanes = r.type == T::UInt8 ? TM_LANES_uint8_avx2 : r.type == T::UInt16 ? TM_LANES_uint16_avx2
                                                                                          : TM_LANES_float32_avx2;
    const tm_entry e = {r.two_stage ? TM_OP_imopen : TM_OP_imerode, code, bits, bytes, lanes, nullptr};
    std::vector<uint8_t> mask(size_t(r.mask.e[0]) * r.mask.e[1] * r.mask.e[2]);
    for (int k = 0; k < r.mask.e[2]; k++)
        for (int j = 0; j < r.mask.e[1]; j++)
            for (int i = 0; i < r.mask.e[0]; i++) mask[(size_t(k) * r.mask.e[1] + j) * r.mask.e[0] + i] = r.mask.byte(i, j, k);
    tm_view v[4];
    std::memset(v, 0, sizeof v);
    v[2].host = mask.data();
    for (int d = 0; d < 3; d++) v[2].extent[d] = r.mask.e[d];
    v[2].stride[0] = 1, v[2].stride[1] = r.mask.e[0], v[2].stride[2] = r.mask.e[0] * r.mask.e[1];
    v[3].extent[0] = r.chunks * lanes + r.extra;
    v[3].extent[1] = v[3].extent[2] = 1;
    // The bounds (lower, upper) and the image's piece: three rows of four
    // samples, a NaN in the last sample where the row says so.
    double bounds[2] = {0.0, r.nan == Row::kPad ? std::nan("") : 1.0};
    v[1].host = bounds;
    v[1].extent[0] = 2, v[1].extent[1] = 1, v[1].stride[0] = 1, v[1].stride[1] = 2;
    float samples[12] = {};
    if (r.nan == Row::kImage) samples[11] = std::nanf("");
    halide_dimension_t dim[3] = {{0, 4, 1, 0}, {0, 3, 4, 0}, {0, 1, 12, 0}};
    halide_buffer_t image = {};
    image.host = reinterpret_cast<uint8_t *>(samples);
    image.dimensions = 3;
    image.dim = dim;
    tm_walk_plan p;
    tm_plan_walk(&e, v, r.wide, r.stage_width * lanes, &image, &p);
    EXPECT_STREQ(walk_name(p.walk), walk_name(r.expected));
    tm_walk_plan_release(&p);
}

// The output planes a task of RUNS walks in order: none shared by a mask
// of one plane, at least the mask's planes and at least 8, no more than the
// output's planes, and fewer where a band's table would outgrow 64 MiB; the
// table's exact entry (runs of 15) only where it leaves the slab as deep.
struct SlabRow {
    int32_t e2, out_planes, chunks;  // uint8 rows of `chunks` chunks
    int32_t expected, exact;
};

TEST(SlabPlanes, FollowTheMaskTheOutputAndTheMemory) {
    const SlabRow rows[] = {
        {1, 100, 16, 1, 1}, {3, 100, 16, 8, 1}, {15, 100, 16, 15, 1}, {15, 4, 16, 4, 1}, {31, 200, 16, 31, 1},
        // 128 rows per plane of 4096 + 15 + 256 + 64 samples, the table of 4
        // levels and the rows: 2.7 MiB a plane, 23 planes in 64 MiB; with
        // the exact entry 3.2 MiB, 19 planes.
        {3, 100, 128, 8, 1}, {13, 100, 128, 11, 0}, {15, 100, 128, 9, 0}, {31, 100, 128, 0, 0},
    };
    for (const SlabRow &r : rows) {
        SCOPED_TRACE("e2 " + std::to_string(r.e2) + ", " + std::to_string(r.out_planes) + " planes, " +
                     std::to_string(r.chunks) + " chunks");
        const int32_t lanes = TM_LANES_uint8_avx2;
        const tm_entry e = {TM_OP_imerode, 1, 8, 1, lanes, nullptr};
        // A ball-like mask of runs of 15 across e2 planes: doubled folds.
        std::vector<uint8_t> mask(size_t(15) * 3 * r.e2, 1);
        tm_view v[4];
        std::memset(v, 0, sizeof v);
        v[2].host = mask.data();
        v[2].extent[0] = 15, v[2].extent[1] = 3, v[2].extent[2] = r.e2;
        v[2].stride[0] = 1, v[2].stride[1] = 15, v[2].stride[2] = 45;
        mask[1] = 0;  // not a box: the walk of runs
        v[3].extent[0] = r.chunks * lanes, v[3].extent[1] = 1, v[3].extent[2] = r.out_planes;
        tm_walk_plan p;
        tm_plan_walk(&e, v, 1, 0, nullptr, &p);
        EXPECT_EQ(p.slab, r.expected);
        EXPECT_EQ(p.exact, r.exact);
        EXPECT_STREQ(walk_name(p.walk), walk_name(r.expected > 0 ? TM_WALK_RUNS : TM_WALK_TAPS));
        tm_walk_plan_release(&p);
    }
}

// RUNS' table and list for a mask of one row of each length given, one
// under the other, on long rows without NaN in reach.
tm_walk_plan runs_plan(const std::vector<int> &lengths, T type) {
    const int rows = int(lengths.size());
    static std::vector<uint8_t> mask;
    mask.assign(size_t(16) * rows, 0);
    for (int j = 0; j < rows; j++)
        for (int i = 0; i < lengths[j]; i++) mask[size_t(j) * 16 + i] = 1;
    const bool floating = type == T::Float32;
    const int32_t lanes = floating ? TM_LANES_float32_avx2 : TM_LANES_uint8_avx2;
    const tm_entry e = {TM_OP_imerode, uint8_t(floating ? 2 : 1), uint8_t(floating ? 32 : 8), uint8_t(floating ? 4 : 1), lanes, nullptr};
    tm_view v[4];
    std::memset(v, 0, sizeof v);
    v[2].host = mask.data();
    v[2].extent[0] = 16, v[2].extent[1] = rows, v[2].extent[2] = 1;
    v[2].stride[0] = 1, v[2].stride[1] = 16, v[2].stride[2] = 16 * rows;
    v[3].extent[0] = 64 * lanes, v[3].extent[1] = 1, v[3].extent[2] = 1;
    static double bounds[2] = {0.0, 0.0};
    v[1].host = bounds;
    v[1].extent[0] = 2, v[1].extent[1] = 1, v[1].stride[0] = 1, v[1].stride[1] = 2;
    static float samples[4] = {};
    static halide_dimension_t dim[3] = {{0, 4, 1, 0}, {0, 1, 4, 0}, {0, 1, 4, 0}};
    halide_buffer_t image = {};
    image.host = reinterpret_cast<uint8_t *>(samples);
    image.dimensions = 3;
    image.dim = dim;
    tm_walk_plan p;
    tm_plan_walk(&e, v, 1, 0, &image, &p);
    return p;
}

std::vector<int> field_of(const tm_walk_plan &p, int field) {
    std::vector<int> f;
    for (int i = 0; i < p.count; i++) f.push_back(p.runs[i][field]);
    return f;
}

// Levels up to 16 leave room for two exact lengths, the most shared (3 and
// 6 before 10, by length among equals); runs of those and of powers of two
// are one read and come first for integer types, in the walk's order, the
// others after them; floating types keep the walk's order and two reads a
// run, and so do integer masks of which fewer than a third of the runs
// would be one read.
TEST(RunsTable, ExactLengthsAndRunsOfOneReadFirst) {
    const std::vector<int> lengths = {6, 3, 10, 6, 5, 3, 16, 1, 10};
    for (T type : {T::UInt8, T::Float32}) {
        tm_walk_plan p = runs_plan(lengths, type);
        ASSERT_STREQ(walk_name(p.walk), "RUNS");
        ASSERT_EQ(p.count, int(lengths.size()));
        if (type == T::Float32) {
            EXPECT_EQ(p.exact, 0);
            EXPECT_EQ(p.one_read, 0);
            EXPECT_EQ(field_of(p, TM_RUN_LENGTH), lengths);
        } else {
            // Levels 0-4 (1 to 16), then 3 and 6.
            EXPECT_EQ(p.exact, 2);
            EXPECT_EQ(p.one_read, 6);
            EXPECT_EQ(field_of(p, TM_RUN_LENGTH), (std::vector<int>{6, 3, 6, 3, 16, 1, 10, 5, 10}));
            EXPECT_EQ(field_of(p, TM_RUN_ENTRY), (std::vector<int>{6, 5, 6, 5, 4, 0, 3, 2, 3}));
            EXPECT_EQ(field_of(p, TM_RUN_EXACT_LENGTH), (std::vector<int>{3, 6, 0, 0, 0, 0, 0, 0, 0}));
        }
        // Each row keeps its run: its r1 is the mask's row of its length.
        for (int i = 0; i < p.count; i++) EXPECT_EQ(lengths[p.runs[i][TM_RUN_R1] + int(lengths.size()) / 2], p.runs[i][TM_RUN_LENGTH]);
        tm_walk_plan_release(&p);
    }
    // One run of eight read once: no exact entry, no loop of its own.
    const std::vector<int> few = {5, 6, 7, 9, 8, 11, 13, 12, 14, 10, 15};
    tm_walk_plan p = runs_plan(few, T::UInt8);
    ASSERT_STREQ(walk_name(p.walk), "RUNS");
    EXPECT_EQ(p.exact, 0);
    EXPECT_EQ(p.one_read, 0);
    EXPECT_EQ(field_of(p, TM_RUN_LENGTH), few);
    tm_walk_plan_release(&p);
}

INSTANTIATE_TEST_SUITE_P(Calls, WalkChoice, testing::ValuesIn(kRows), [](const testing::TestParamInfo<Row> &i) {
    std::string n;
    for (const char *c = i.param.what; *c; c++) n += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return n;
});

}  // namespace
