// The frame's middle layer through its own headers: the regions a call's
// definitions ask for (with the 32-bit wrapping they require), the
// intermediate's box, the plan in the pipeline's coordinates and the
// hand-over of a plan, with the element it hands over.  The whole calls are frame_test's, query_test's and
// wrap_test's; these tables pin each module's answer on its own.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <string>

#include "compact.h"
#include "handover.h"
#include "regions.h"

namespace {

constexpr int32_t kMax = 2147483647, kMin = -2147483647 - 1;
constexpr int32_t kLanes = 16;

struct Box3 {
    int32_t min[3], extent[3];
};

// The four views of a call (dense strides, fake hosts never read).
struct Views {
    tm_view v[TM_NARGS];
    Views(const Box3 &im, const Box3 &out, const int32_t se[3]) {
        std::memset(v, 0, sizeof v);
        const Box3 mm = {{0, 0, 0}, {2, 1, 1}}, s = {{0, 0, 0}, {se[0], se[1], se[2]}};
        const Box3 *b[TM_NARGS] = {&im, &mm, &s, &out};
        for (int a = 0; a < TM_NARGS; a++) {
            v[a].host = reinterpret_cast<void *>(uintptr_t(0x100000) * (a + 1));
            v[a].type = halide_type_t(halide_type_uint, 8);
            int32_t stride = 1;
            for (int d = 0; d < 3; d++) {
                v[a].min[d] = b[a]->min[d], v[a].extent[d] = b[a]->extent[d], v[a].stride[d] = stride;
                stride *= b[a]->extent[d];
            }
        }
    }
};

tm_entry entry_of(tm_operator op) { return tm_entry{op, 1, 8, 1, kLanes, nullptr}; }

// A table row's name, from its `what`.
struct CaseName {
    template <class Case>
    std::string operator()(const testing::TestParamInfo<Case> &i) const {
        std::string n;
        for (const char *c = i.param.what; *c; c++) n += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
        return n;
    }
};

// A call planned as the run plans it (the box first, for two stages).
tm_entry plan_call(tm_operator op, const Views &w, tm_plan &p, int *status) {
    const tm_entry e = entry_of(op);
    std::memset(&p, 0, sizeof p);
    if (tm_traits_of(op)->stage) tm_define_box(&e, w.v, false, p.box_min, p.box_extent);
    *status = tm_make_plan(&e, w.v, &p);
    return e;
}

// ---- What the definitions ask for ------------------------------------------

struct RegionCase {
    const char *what;
    tm_operator op;
    Box3 im, out;
    int32_t se[3];
    int d;                       // the dimension compared
    int32_t im_lo, im_hi;        // the image's region there
    int32_t out_lo, out_hi;      // the output's
};

const RegionCase kRegions[] = {
    {"erosion reads one tap either side", TM_OP_imerode, {{0, 0, 0}, {10, 1, 1}}, {{2, 0, 0}, {4, 1, 1}}, {3, 1, 1},
     0, 1, 6, 2, 5},
    {"the output's last sample wraps, the image's region turns inside out", TM_OP_imerode,
     {{-8, 0, 0}, {16, 1, 1}}, {{kMax - 1, 0, 0}, {3, 1, 1}}, {3, 1, 1}, 0, 7, -8, kMax - 1, kMin},
    {"wide image: the output is asked for one whole chunk", TM_OP_imerode, {{0, 0, 0}, {40, 1, 1}},
     {{0, 0, 0}, {4, 1, 1}}, {3, 1, 1}, 0, 0, 4, 3 - (kLanes - 1), 3},
    {"opening's window holds the intermediate from 0", TM_OP_imopen, {{5, 0, 0}, {10, 1, 1}},
     {{0, 0, 0}, {4, 1, 1}}, {3, 1, 1}, 0, 5, 5, 0, 3},
    {"a residue reads the image at the output too", TM_OP_imtophat, {{3, 0, 0}, {10, 1, 1}},
     {{2, 0, 0}, {4, 1, 1}}, {3, 1, 1}, 0, 2, 7, 2, 5},
    {"opening's window in dimension 2 is as deep as the image's dimension 1", TM_OP_imopen,
     {{0, 0, 0}, {1, 3, 50}}, {{0, 0, 10}, {1, 3, 2}}, {1, 1, 3}, 2, 1, 3, 10, 11},
    {"the top-hat's window in dimension 2 is as deep as the image", TM_OP_imtophat, {{0, 0, 0}, {1, 3, 50}},
     {{0, 0, 10}, {1, 3, 2}}, {1, 1, 3}, 2, 8, 13, 10, 11},
    {"closing reaches two taps, unclamped between its stages", TM_OP_imclose, {{-100, 0, 0}, {200, 1, 1}},
     {{kMin, 0, 0}, {2, 1, 1}}, {3, 1, 1}, 0, 99, -100, kMin, kMin + kLanes - 1},
};

class Regions : public testing::TestWithParam<RegionCase> {};

TEST_P(Regions, AsTheDefinitionsWrapThem) {
    const RegionCase &c = GetParam();
    const Views w(c.im, c.out, c.se);
    const tm_entry e = entry_of(c.op);
    tm_required r;
    tm_required_regions(&e, w.v, r);
    EXPECT_EQ(r[TM_IM][c.d][0], c.im_lo);
    EXPECT_EQ(r[TM_IM][c.d][1], c.im_hi);
    EXPECT_EQ(r[TM_OUT][c.d][0], c.out_lo);
    EXPECT_EQ(r[TM_OUT][c.d][1], c.out_hi);
    EXPECT_EQ(r[TM_SE][c.d][1], c.se[c.d] - 1);
    const tm_traits *t = tm_traits_of(c.op);
    EXPECT_EQ(r[TM_MM][0][0], t->minmax_first);
    EXPECT_EQ(r[TM_MM][0][1] - r[TM_MM][0][0] + 1, t->minmax_count);
}

INSTANTIATE_TEST_SUITE_P(Table, Regions, testing::ValuesIn(kRegions), CaseName());

// ---- The intermediate's box --------------------------------------------------

struct BoxCase {
    const char *what;
    tm_operator op;
    int32_t o, n, ext, bound;  // dimension 0: output, element, image (the window's bound)
    int32_t box_min;
    uint32_t box_extent;
};

const BoxCase kBoxes[] = {
    {"opening from the window's start", TM_OP_imopen, 0, 4, 3, 10, 0, 5},
    {"opening past the window: its last sample", TM_OP_imopen, 20, 4, 3, 10, 9, 1},
    {"opening's last sum wraps: the extent wraps too", TM_OP_imopen, kMax - 1, 4, 3, 10, 9, 4294967288u},
    {"opening on an image of extent 0: one sample at 0", TM_OP_imopen, 5, 4, 3, 0, 0, 1},
    {"closing below -2^31 wraps to the top", TM_OP_imclose, kMin, 4, 3, 10, kMax, 6},
    {"closing's extent past 2^31", TM_OP_imclose, 0, kMax, 3, 10, -1, 2147483649u},
};

class Box : public testing::TestWithParam<BoxCase> {};

TEST_P(Box, ByItsDefiningFormulas) {
    const BoxCase &c = GetParam();
    const int32_t se[3] = {c.ext, 1, 1};
    const Views w({{0, 0, 0}, {c.bound, 1, 1}}, {{c.o, 0, 0}, {c.n, 1, 1}}, se);
    const tm_entry e = entry_of(c.op);
    int32_t box_min[3];
    uint32_t box_extent[3];
    tm_define_box(&e, w.v, false, box_min, box_extent);
    EXPECT_EQ(box_min[0], c.box_min);
    EXPECT_EQ(box_extent[0], c.box_extent);
}

INSTANTIATE_TEST_SUITE_P(Table, Box, testing::ValuesIn(kBoxes), CaseName());

// ---- The plan, in coordinates from the output's min -------------------------

struct PlanCase {
    const char *what;
    tm_operator op;
    Box3 im, out;
    int32_t se[3];
    int d;
    // 0: planned, with the image's piece, its origin, and the shift;
    // otherwise the refusal's label and touched range.
    int status;
    int64_t piece_lo, piece_hi, origin, shift;
    bool dummy;
    const char *label;
};

const PlanCase kPlans[] = {
    {"the image's piece in the output's terms", TM_OP_imerode, {{0, kMax - 46, 0}, {8, 47, 1}},
     {{0, kMax - 7, 0}, {8, 8, 1}}, {1, 3, 1}, 1, 0, -1, 7, -39, 0, false, nullptr},
    {"nothing of the image is read: its first sample below every read", TM_OP_imdilate,
     {{0, 100, 0}, {8, 5, 1}}, {{0, 0, 0}, {8, 4, 1}}, {1, 3, 1}, 1, 0, -2, -2, -2, 0, true, nullptr},
    {"an output of 2^31 samples is moved to its middle", TM_OP_imerode, {{0, 0, 0}, {1, 1, 2147483000}},
     {{0, 0, 0}, {1, 1, 2147483000}}, {1, 1, 1}, 2, 0, 0, 2147482999, 0, 1073741499, false, nullptr},
    {"a residue whose output leaves the image", TM_OP_imbothat, {{0, 2, 0}, {8, 9, 1}},
     {{0, 0, 0}, {8, 8, 1}}, {1, 1, 1}, 1, -4, 0, 7, 0, 0, false, "Input buffer keyimForType"},
};

class Plan : public testing::TestWithParam<PlanCase> {};

TEST_P(Plan, PlacesTheImageOrRefuses) {
    const PlanCase &c = GetParam();
    const Views w(c.im, c.out, c.se);
    tm_plan p;
    int status;
    plan_call(c.op, w, p, &status);
    EXPECT_EQ(status, c.status);
    if (c.status) {
        EXPECT_STREQ(p.why.label, c.label);
        EXPECT_EQ(p.why.d, c.d);
        EXPECT_EQ(p.why.lo, c.piece_lo);
        EXPECT_EQ(p.why.hi, c.piece_hi);
        return;
    }
    EXPECT_EQ(p.image[c.d].lo, c.piece_lo);
    EXPECT_EQ(p.image[c.d].hi, c.piece_hi);
    EXPECT_EQ(p.image_origin[c.d], c.origin);
    EXPECT_EQ(p.shift[c.d], c.shift);
    EXPECT_EQ(p.image_dummy, c.dummy);
}

INSTANTIATE_TEST_SUITE_P(Table, Plan, testing::ValuesIn(kPlans), CaseName());

// ---- The hand-over ------------------------------------------------------------

struct HandCase {
    const char *what;
    tm_operator op;
    Box3 im, out;
    int32_t se[3];
    uint64_t block_bytes;  // two-stage: the block the run allocated
    int status;
    int64_t host_offset;   // of the image's host, in samples
    int32_t im_min1, im_extent1;
    int32_t stage_stride1, stage_stride2;
};

const HandCase kHands[] = {
    {"the image cut to its piece, its host moved there", TM_OP_imerode, {{0, kMax - 46, 0}, {8, 47, 1}},
     {{0, kMax - 7, 0}, {8, 8, 1}}, {1, 3, 1}, 0, 0, 38 * 8, -1, 9, 0, 0},
    {"the lone sample of an image nothing reads", TM_OP_imdilate, {{0, 100, 0}, {8, 5, 1}},
     {{0, 0, 0}, {8, 4, 1}}, {1, 3, 1}, 0, 0, 0, -2, 1, 0, 0},
    {"closing's intermediate is dense over its box", TM_OP_imclose, {{0, 0, 0}, {8, 6, 2}},
     {{0, 0, 0}, {8, 6, 2}}, {3, 3, 1}, 10 * 8 * 2, 0, 0, 0, 6, 10, 80},
    {"a block too small for the box is refused", TM_OP_imclose, {{0, 0, 0}, {8, 6, 2}}, {{0, 0, 0}, {8, 6, 2}},
     {3, 3, 1}, 10 * 8 * 2 - 2, -4, 0, 0, 6, 10, 80},
};

class HandOver : public testing::TestWithParam<HandCase> {};

TEST_P(HandOver, DescribesThePlanForThePipeline) {
    const HandCase &c = GetParam();
    const Views w(c.im, c.out, c.se);
    const bool two_stage = tm_traits_of(c.op)->stage != nullptr;
    tm_plan p;
    int status;
    const tm_entry e = plan_call(c.op, w, p, &status);
    ASSERT_EQ(status, 0);
    tm_handover h;
    EXPECT_EQ(tm_hand_over(&e, w.v, &p, c.block_bytes, &h), c.status);
    if (c.status) {
        EXPECT_STREQ(p.why.label, tm_traits_of(c.op)->stage);
        return;
    }
    // The image goes to the one call of one stage and to the first stage,
    // read through its own piece.
    const tm_call &from_image = two_stage ? h.first : h.call;
    EXPECT_EQ(from_image.keyimForType, &h.im);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(h.im.host) - reinterpret_cast<uintptr_t>(w.v[TM_IM].host), uint64_t(c.host_offset));
    EXPECT_EQ(h.im_dim[1].min, c.im_min1);
    EXPECT_EQ(h.im_dim[1].extent, c.im_extent1);
    for (int d = 0; d < 3; d++) {
        EXPECT_EQ(from_image.window_min[d], h.im_dim[d].min);
        EXPECT_EQ(from_image.window_extent[d], h.im_dim[d].extent);
    }
    EXPECT_EQ(h.out_dim[1].min, 0);
    EXPECT_EQ(h.call.out, &h.out);
    if (!two_stage) {
        EXPECT_EQ(h.call.stage, nullptr);
        return;
    }
    EXPECT_EQ(h.first.out, &h.stage);
    EXPECT_EQ(h.first.stage, nullptr);
    EXPECT_EQ(h.first.minmax, &h.mm);
    EXPECT_EQ(h.stage_dim[1].stride, c.stage_stride1);
    EXPECT_EQ(h.stage_dim[2].stride, c.stage_stride2);
    // Opening's second stage is the dilation pipeline over the
    // intermediate; the others read it beside the image.
    const tm_traits *t = tm_traits_of(c.op);
    const bool as_image = t->window >= 0 && !t->residue;
    EXPECT_EQ(h.call.keyimForType, as_image ? &h.stage : &h.im);
    EXPECT_EQ(h.call.stage, as_image ? nullptr : &h.stage);
}

INSTANTIATE_TEST_SUITE_P(Table, HandOver, testing::ValuesIn(kHands), CaseName());

// ---- The element handed over ----------------------------------------------

// Masks by their bytes: all taps; taps only within 5 of the centre along
// dimension 0; taps only at the two ends of each row; no tap at all (2s).
enum class MaskKind { All, Centre, Ends, None };

struct CompactCase {
    const char *what;
    tm_operator op;
    Box3 im, out;
    int32_t se[3];
    MaskKind mask;
    int32_t size[3];  // the compact element's extents; 0: the caller's kept
    int taps;         // its taps
    int32_t first_r0; // the offset along dimension 0 of its first tap
};

const CompactCase kCompacts[] = {
    {"an element within the image's reach is kept", TM_OP_imerode, {{0, 0, 0}, {64, 80, 1}},
     {{0, 0, 0}, {64, 80, 1}}, {31, 31, 1}, MaskKind::All, {0, 0, 0}, 0, 0},
    {"a box far larger than the image stays a box: its live offsets and one more each side", TM_OP_imerode,
     {{0, 0, 0}, {64, 80, 1}}, {{0, 0, 0}, {64, 80, 1}}, {401, 401, 1}, MaskKind::All, {129, 161, 1}, 129 * 161,
     -64},
    {"a cube on a single plane stays a box of three planes", TM_OP_imdilate, {{5, 5, 5}, {64, 80, 1}},
     {{5, 5, 5}, {64, 80, 1}}, {15, 15, 15}, MaskKind::All, {15, 15, 3}, 15 * 15 * 3, -7},
    {"columns on a single plane: one dead tap in the planes either side", TM_OP_imdilate, {{5, 5, 5}, {64, 80, 1}},
     {{5, 5, 5}, {64, 80, 1}}, {15, 15, 15}, MaskKind::Centre, {15, 15, 3}, 11 * 15 + 2, -7},
    {"an erosion reads x + r: an output ahead of the image reaches further up", TM_OP_imerode, {{0, 0, 0}, {64, 1, 1}},
     {{-10, 0, 0}, {20, 1, 1}}, {301, 1, 1}, MaskKind::Ends, {149, 1, 1}, 2, -10},
    {"a dilation reads x - r: the same output reaches further down", TM_OP_imdilate, {{0, 0, 0}, {64, 1, 1}},
     {{-10, 0, 0}, {20, 1, 1}}, {301, 1, 1}, MaskKind::Ends, {149, 1, 1}, 2, -74},
    {"no dead tap where the mask has none beyond the live offsets", TM_OP_imerode, {{0, 0, 0}, {8, 1, 1}},
     {{0, 0, 0}, {8, 1, 1}}, {401, 1, 1}, MaskKind::Centre, {17, 1, 1}, 11, -5},
    {"only dead taps: one each side", TM_OP_imerode, {{0, 0, 0}, {8, 3, 1}}, {{0, 0, 0}, {8, 3, 1}}, {401, 3, 1},
     MaskKind::Ends, {17, 3, 1}, 6, -8},
    {"an output beside the image: one tap stands for all", TM_OP_imerode, {{0, 0, 0}, {10, 10, 1}},
     {{100, 0, 0}, {10, 10, 1}}, {5, 5, 1}, MaskKind::All, {1, 1, 1}, 1, 0},
    {"an output beside the image, a mask without taps: none", TM_OP_imdilate, {{0, 0, 0}, {10, 10, 1}},
     {{100, 0, 0}, {10, 10, 1}}, {5, 5, 1}, MaskKind::None, {1, 1, 1}, 0, 0},
    {"opening: what neither the box's erosion nor the window's dilation reads", TM_OP_imopen,
     {{0, 0, 0}, {64, 80, 1}}, {{0, 0, 0}, {64, 80, 1}}, {401, 401, 1}, MaskKind::All, {129, 161, 1}, 129 * 161,
     -64},
    {"closing keeps its element: its second stage reads no pad", TM_OP_imclose, {{0, 0, 0}, {64, 80, 1}},
     {{0, 0, 0}, {64, 80, 1}}, {401, 401, 1}, MaskKind::All, {0, 0, 0}, 0, 0},
};

class Compact : public testing::TestWithParam<CompactCase> {};

TEST_P(Compact, KeepsLiveTapsAndMergesDeadOnes) {
    const CompactCase &c = GetParam();
    Views w(c.im, c.out, c.se);
    std::vector<uint8_t> mask(size_t(c.se[0]) * c.se[1] * c.se[2]);
    const int32_t c0 = tm_centre(c.se[0]);
    for (size_t i = 0; i < mask.size(); i++) {
        const int32_t k0 = int32_t(i % size_t(c.se[0]));
        mask[i] = c.mask == MaskKind::All      ? 1
                  : c.mask == MaskKind::Centre ? std::abs(k0 - c0) <= 5
                  : c.mask == MaskKind::Ends   ? k0 == 0 || k0 == c.se[0] - 1
                                               : 2;
    }
    w.v[TM_SE].host = mask.data();
    tm_plan p;
    int status;
    const tm_entry e = plan_call(c.op, w, p, &status);
    ASSERT_EQ(status, 0);
    tm_view se;
    uint8_t *compact = tm_compact_element(&e, w.v, &p, &se);
    if (c.size[0] == 0) {
        EXPECT_EQ(compact, nullptr);
        EXPECT_EQ(se.host, mask.data());
        return;
    }
    ASSERT_NE(compact, nullptr);
    EXPECT_EQ(se.host, compact);
    int taps = 0, first_r0 = 0;
    for (int d = 0; d < 3; d++) EXPECT_EQ(se.extent[d], c.size[d]) << "dimension " << d;
    for (int32_t i = 0; i < c.size[0] * c.size[1] * c.size[2]; i++)
        if (compact[i] == 1 && taps++ == 0) first_r0 = i % c.size[0] - tm_centre(c.size[0]);
    EXPECT_EQ(taps, c.taps);
    if (c.taps) EXPECT_EQ(first_r0, c.first_r0);
    std::free(compact);
}

INSTANTIATE_TEST_SUITE_P(Table, Compact, testing::ValuesIn(kCompacts), CaseName());

}  // namespace
