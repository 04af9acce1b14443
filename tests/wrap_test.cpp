// Calls whose coordinates reach the ends of the 32-bit range.  The checks
// wrap, so such calls get through them; each must then either give the
// wrapping result the reference gives, or be refused with an access report
// before anything is written.  And the intermediate's size report must give
// the numbers of the box's formulas, wrapped extents and all.
//
// Buffers are anonymous mappings that reserve no memory, so a descriptor
// may span gigabytes: only the pages a call touches become resident, and a
// refused call must leave the output's mapping without any resident page.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <random>
#include <string>

#include "entries.h"
#include "morph_case.h"
#include "reference.h"

namespace tmtest {
namespace {

// A descriptor over a lazily backed mapping of everything it describes.
struct Sparse {
    halide_buffer_t b{};
    halide_dimension_t dim[3]{};
    void *base = MAP_FAILED;
    size_t bytes = 0;

    Sparse(halide_type_t t, int elem, int dims, const int32_t *min, const int32_t *extent, const int32_t *stride) {
        int64_t span = 1;
        for (int d = 0; d < dims; d++) {
            dim[d] = halide_dimension_t(min[d], extent[d], stride[d]);
            if (extent[d] > 0) span += int64_t(extent[d] - 1) * stride[d];
        }
        bytes = size_t(span) * elem + 4096;
        base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        EXPECT_NE(base, MAP_FAILED);
        b.host = static_cast<uint8_t *>(base);
        b.type = t;
        b.dimensions = dims;
        b.dim = dim;
    }
    ~Sparse() {
        if (base != MAP_FAILED) munmap(base, bytes);
    }
    size_t resident_pages() const {
        std::vector<unsigned char> v((bytes + 4095) / 4096);
        mincore(base, bytes, v.data());
        size_t n = 0;
        for (auto c : v) n += c & 1;
        return n;
    }
    tmref::View view() const {
        tmref::View v{b.host, {}, {}, {}};
        for (int d = 0; d < 3; d++) v.min[d] = dim[d].min, v.extent[d] = dim[d].extent, v.stride[d] = dim[d].stride;
        return v;
    }
};

struct Desc {
    int32_t min[3], extent[3], stride[3];
};

struct WrapCase {
    const char *what, *name;
    Desc im, out;
    int32_t se[3];
    int status;            // 0: compared with the reference
    const char *message;   // the report of a refused call
};

void PrintTo(const WrapCase &c, std::ostream *os) { *os << c.what; }

constexpr int32_t kMax = 2147483647, kMin = -2147483647 - 1;

const WrapCase kWrapCases[] = {
    // The last plane of the output wraps to -2^31.
    {"ErodePlaneWraps", "imerode_uint8_none", {{0, 0, 0}, {16, 1, 1}, {1, 16, 16}},
     {{0, 0, kMax}, {16, 1, 2}, {1, 16, 16}}, {3, 1, 3}, 0, nullptr},
    {"DilatePlaneWraps", "imdilate_uint8_none", {{0, 0, 0}, {16, 1, 1}, {1, 16, 16}},
     {{0, 0, kMax}, {16, 1, 2}, {1, 16, 16}}, {3, 1, 3}, 0, nullptr},
    // The intermediate's box starts just above -2^31 and its reads wrap below it.
    {"CloseRowNearMin", "imclose_uint8_none", {{0, 0, 0}, {17, 1, 1}, {1, 17, 17}},
     {{-2147483646, 0, 0}, {17, 1, 1}, {1, 17, 17}}, {3, 1, 1}, 0, nullptr},
    {"CloseRowNearMinInt16", "imclose_int16_avx", {{0, 0, 0}, {17, 1, 1}, {1, 17, 17}},
     {{-2147483646, 0, 0}, {17, 1, 1}, {1, 17, 17}}, {3, 1, 1}, 0, nullptr},
    {"CloseRowNearMinFloat32", "imclose_float32_avx2", {{0, 0, 0}, {17, 1, 1}, {1, 17, 17}},
     {{-2147483646, 0, 0}, {17, 1, 1}, {1, 17, 17}}, {3, 1, 1}, 0, nullptr},
    // An image whose rows end at 2^31 - 2, far from the output's rows.
    {"ImageRowsNearMax", "imerode_uint8_none", {{0, 2147483645, 0}, {16, 2, 1}, {1, 16, 32}},
     {{0, 1, 0}, {16, 2, 1}, {1, 16, 32}}, {1, 7, 1}, 0, nullptr},
    // The output's row is the last one; the closing's rows wrap past it.
    {"CloseLastRow", "imclose_float64_none", {{0, 2147483645, 0}, {61, 1, 1}, {1, 61, 61}},
     {{0, kMax, 0}, {61, 1, 1}, {1, 61, 61}}, {1, 3, 1}, 0, nullptr},
    // An image 2^31 - 3 wide: a few samples of it are read, fast.
    {"HugeImageFewSamples", "imclose_float64_none", {{1, 0, 0}, {2147483645, 8, 48}, {1, 0, 0}},
     {{1, 0, 0}, {6, 8, 48}, {1, 6, 48}}, {2, 1, 8}, 0, nullptr},
    // The output ends on 2^31 - 1: the image's clamped range is one sample.
    {"OutputEndsAtMax", "imerode_uint8_none", {{0, 0, 0}, {16, 1, 1}, {1, 16, 16}},
     {{2147483632, 0, 0}, {16, 1, 1}, {1, 16, 16}}, {3, 1, 1}, 0, nullptr},
    // Wide rows whose chunk count wraps: nothing to compute, refused.
    {"WideRowChunksWrap", "imerode_uint8_avx2", {{0, 0, 0}, {33, 1, 1}, {1, 33, 33}},
     {{0, 0, 0}, {2147483617, 1, 1}, {1, 0, 0}}, {3, 1, 1}, -4,
     "Output buffer erode is accessed at 2147483647, which is beyond the max (2147483616) in dimension 0"},
    {"WideRowAtMaxExtent", "imclose_uint8_avx2", {{0, 0, 0}, {33, 1, 1}, {1, 33, 33}},
     {{0, 0, 0}, {kMax, 1, 1}, {1, 0, 0}}, {3, 1, 1}, -4,
     "Output buffer close is accessed at 2147483647, which is beyond the max (2147483646) in dimension 0"},
    // A residue whose output wraps out of the image after the checks let it in.
    {"ResidueOutputWrapsOutOfImage", "imbothat_uint8_none", {{0, 0, 0}, {16, 1, kMax}, {1, 16, 0}},
     {{0, 0, 2147483646}, {16, 1, 3}, {1, 16, 16}}, {1, 1, 1}, -4,
     "Input buffer keyimForType is accessed at 2147483647, which is beyond the max (2147483646) in dimension 2"},
};

class Wrap : public ::testing::TestWithParam<WrapCase> {};

TEST_P(Wrap, ComputesTheWrappingResultOrRefusesBeforeWriting) {
    const WrapCase &c = GetParam();
    const Entry &e = entry(c.name);
    if (!e.cpu_has_level()) GTEST_SKIP();
    const TypeInfo &ti = type_info(e.type);
    Sparse im(ti.ht, ti.bytes, 3, c.im.min, c.im.extent, c.im.stride);
    Sparse out(ti.ht, ti.bytes, 3, c.out.min, c.out.extent, c.out.stride);
    const int32_t mm_min[2] = {0, 0}, mm_ext[2] = {2, 1}, mm_stride[2] = {1, 2};
    Sparse mm(halide_type_t(halide_type_float, 64), 8, 2, mm_min, mm_ext, mm_stride);
    const int32_t se_min[3] = {0, 0, 0}, se_stride[3] = {1, c.se[0], c.se[0] * c.se[1]};
    Sparse se(halide_type_t(halide_type_uint, 8), 1, 3, se_min, c.se, se_stride);
    std::memset(se.base, 1, size_t(c.se[0]) * c.se[1] * c.se[2]);
    const double lower = 7, upper = 250;
    std::memcpy(mm.base, &lower, 8);
    std::memcpy(static_cast<char *>(mm.base) + 8, &upper, 8);
    // A few pages of image values near the origin of its storage, which is
    // where every case reads.
    std::mt19937 rng(11);
    for (size_t i = 0; i < std::min<size_t>(im.bytes, 1 << 16); i++) static_cast<uint8_t *>(im.base)[i] = uint8_t(rng());

    static const bool handler = install_recording_handler();
    (void)handler;
    halide_messages().clear();
    const int status = e.fn(&im.b, &mm.b, &se.b, &out.b);
    ASSERT_EQ(status, c.status) << halide_messages();
    if (c.status != 0) {
        EXPECT_EQ(halide_messages(), c.message);
        EXPECT_EQ(out.resident_pages(), 0u) << "a refused call wrote to its output";
        return;
    }
    Sparse want(ti.ht, ti.bytes, 3, c.out.min, c.out.extent, c.out.stride);
    const tmref::Mask mask{static_cast<const uint8_t *>(se.base), {c.se[0], c.se[1], c.se[2]},
                           {se_stride[0], se_stride[1], se_stride[2]}};
    tmref::apply(ref_op(e.op), ti.ref, im.view(), lower, upper, mask, want.view());
    EXPECT_EQ(std::memcmp(out.base, want.base, out.bytes), 0);
}

INSTANTIATE_TEST_SUITE_P(Edges, Wrap, ::testing::ValuesIn(kWrapCases),
                         [](const auto &info) { return std::string(info.param.what); });

// Planes from -2^31 in the openings, with rows of a whole block (the band
// walks run): the output's planes lie outside the window, nothing of the
// intermediate is read, and every sample is the lower pad.  The residue
// reads the image at the output's planes, which lie outside it: refused.
// Once read far outside the buffers in every imopen export.
class OpeningPlanesFromMin : public ::testing::TestWithParam<Entry> {};

TEST_P(OpeningPlanesFromMin, ComputesTheDefinitionOrRefusesBeforeWriting) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP();
    const TypeInfo &ti = type_info(e.type);
    const int32_t im_min[3] = {0, 0, 0}, im_ext[3] = {128, 128, 128}, im_stride[3] = {1, 128, 128 * 128};
    const int32_t out_min[3] = {0, 0, kMin}, out_ext[3] = {128, 128, 2}, out_stride[3] = {1, 128, 128 * 128};
    const int32_t one[3] = {1, 1, 1}, zero[3] = {0, 0, 0};
    const int32_t mm_min[2] = {0, 0}, mm_ext[2] = {2, 1}, mm_stride[2] = {1, 2};
    Sparse im(ti.ht, ti.bytes, 3, im_min, im_ext, im_stride), out(ti.ht, ti.bytes, 3, out_min, out_ext, out_stride);
    Sparse mm(halide_type_t(halide_type_float, 64), 8, 2, mm_min, mm_ext, mm_stride);
    Sparse se(halide_type_t(halide_type_uint, 8), 1, 3, zero, one, one);
    *static_cast<uint8_t *>(se.base) = 1;
    const double pads[2] = {1, 0};
    std::memcpy(mm.base, pads, sizeof pads);
    std::mt19937 rng(5);
    for (size_t i = 0; i < std::min<size_t>(im.bytes, 1 << 16); i++) static_cast<uint8_t *>(im.base)[i] = uint8_t(rng());

    static const bool handler = install_recording_handler();
    (void)handler;
    halide_messages().clear();
    const int status = e.fn(&im.b, &mm.b, &se.b, &out.b);
    if (e.op == "imtophat") {
        EXPECT_EQ(status, -4);
        EXPECT_EQ(halide_messages(),
                  "Input buffer keyimForType is accessed at -2147483648, which is before the min (0) in dimension 2");
        EXPECT_EQ(out.resident_pages(), 0u) << "a refused call wrote to its output";
        return;
    }
    ASSERT_EQ(status, 0) << halide_messages();
    Sparse want(ti.ht, ti.bytes, 3, out_min, out_ext, out_stride);
    const tmref::Mask mask{static_cast<const uint8_t *>(se.base), {1, 1, 1}, {1, 1, 1}};
    tmref::apply(ref_op(e.op), ti.ref, im.view(), pads[0], pads[1], mask, want.view());
    EXPECT_EQ(std::memcmp(out.base, want.base, out.bytes), 0);
}

INSTANTIATE_TEST_SUITE_P(Entries, OpeningPlanesFromMin, ::testing::ValuesIn(entries_of({"imopen", "imtophat"})),
                         EntryName());

// The intermediate's size report with extents that wrap, for the four
// two-stage operators in both branches (uint8 at the baseline level, L = 16:
// an image 16 wide is narrow, 17 wide is wide).  The box in each case, from
// its formulas as unsigned 32-bit extents:
//   closing: X, Y, Z = n + e - 1 per dimension;
//   opening: from lo = max(min(o + c + 1 - e, B - 1), 0) and
//            hi = max(min(o + n + c, B) - 1, 0), X = hi - x0 + 1 with
//            x0 = lo (narrow) or min(lo, hi - L + 1) (wide); an output that
//            wraps past 2^31 makes hi 0 and lo B - 1, so the extent is
//            2 - B modulo 2^32.
struct TooLarge {
    const char *what, *name;
    int32_t im_extent[3], out_min[3], out_extent[3], se[3];
    const char *report;
};

void PrintTo(const TooLarge &c, std::ostream *os) { *os << c.what; }

constexpr int32_t kNear = 2147483638;  // 2^31 - 10: 20 samples from here wrap

const TooLarge kTooLarge[] = {
    // X = Y = 2147483649, Z = 2147483648.
    {"CloseNarrow", "imclose_uint8_none", {16, 1, 1}, {0, 0, 0}, {kMax, kMax, kMax}, {3, 3, 2},
     "Total allocation for buffer imdilate is 9223372039002259456, which exceeds the maximum size of 9223372036854775807"},
    {"CloseWide", "imclose_uint8_none", {17, 1, 1}, {0, 0, 0}, {kMax, kMax, kMax}, {3, 3, 2},
     "Total allocation for buffer imdilate is 9223372039002259456, which exceeds the maximum size of 9223372036854775807"},
    // X = 18, Y = 2147483649, Z = 2147483648.
    {"BothatNarrow", "imbothat_uint8_none", {16, kMax, kMax}, {0, 0, 0}, {16, kMax, kMax}, {3, 3, 2},
     "Total allocation for buffer imdilate is 9223372075509481472, which exceeds the maximum size of 9223372036854775807"},
    {"BothatWide", "imbothat_uint8_none", {kMax, kMax, kMax}, {0, 0, 0}, {kMax, kMax, kMax}, {3, 3, 2},
     "Total allocation for buffer imdilate is 9223372039002259456, which exceeds the maximum size of 9223372036854775807"},
    // B = 16: X = Y = 4294967282, Z = 1.
    {"OpenNarrow", "imopen_uint8_none", {16, 16, 16}, {kNear, kNear, 0}, {20, 20, 1}, {3, 3, 1},
     "Total allocation for buffer imerode is 18446743953450467524, which exceeds the maximum size of 9223372036854775807"},
    // X = 17 (the wide start cannot wrap), Y = Z = 4294967282.
    {"OpenWide", "imopen_uint8_none", {17, 16, 16}, {0, kNear, kNear}, {17, 20, 20}, {3, 3, 3},
     "Total allocation for buffer imerode is 18446742029305122052, which exceeds the maximum size of 9223372036854775807"},
    {"TophatNarrow", "imtophat_uint8_none", {16, 16, 16}, {kNear, kNear, 0}, {20, 20, 1}, {3, 3, 1},
     "Total allocation for buffer imerode is 18446743953450467524, which exceeds the maximum size of 9223372036854775807"},
    {"TophatWide", "imtophat_uint8_none", {17, 16, 16}, {0, kNear, kNear}, {17, 20, 20}, {3, 3, 3},
     "Total allocation for buffer imerode is 18446742029305122052, which exceeds the maximum size of 9223372036854775807"},
    // The size test is on the full product: X = Y = 2^30 + 2, Z = 2^30 make
    // one beyond 64 bits, whose low 64 bits (what the report prints) are
    // below the limit.
    {"CloseBeyondSixtyFourBits", "imclose_uint8_none", {4, 4, 4}, {0, 0, 0}, {1 << 30, 1 << 30, 1 << 30}, {3, 3, 1},
     "Total allocation for buffer imdilate is 4611686022722355200, which exceeds the maximum size of 9223372036854775807"},
};

class IntermediateSize : public ::testing::TestWithParam<TooLarge> {};

TEST_P(IntermediateSize, ReportsTheBoxOfTheFormulas) {
    const TooLarge &c = GetParam();
    const Entry &e = entry(c.name);
    // Nothing is read or written before the report: one byte stands behind
    // every host pointer.
    uint8_t byte = 0;
    double pads[2] = {0, 255};
    uint8_t mask[18];
    std::memset(mask, 1, sizeof mask);
    halide_dimension_t im_dim[3], out_dim[3], mm_dim[2] = {{0, 2, 1}, {0, 1, 2}}, se_dim[3];
    for (int d = 0; d < 3; d++) {
        im_dim[d] = halide_dimension_t(0, c.im_extent[d], d == 0 ? 1 : 0);
        out_dim[d] = halide_dimension_t(c.out_min[d], c.out_extent[d], d == 1 ? kMax : 1);
        se_dim[d] = halide_dimension_t(0, c.se[d], d == 0 ? 1 : d == 1 ? c.se[0] : c.se[0] * c.se[1]);
    }
    halide_buffer_t im{}, out{}, mm{}, se{};
    im = {0, nullptr, &byte, 0, halide_type_t(halide_type_uint, 8), 3, im_dim, nullptr};
    out = {0, nullptr, &byte, 0, halide_type_t(halide_type_uint, 8), 3, out_dim, nullptr};
    mm = {0, nullptr, reinterpret_cast<uint8_t *>(pads), 0, halide_type_t(halide_type_float, 64), 2, mm_dim, nullptr};
    se = {0, nullptr, mask, 0, halide_type_t(halide_type_uint, 8), 3, se_dim, nullptr};
    static const bool handler = install_recording_handler();
    (void)handler;
    halide_messages().clear();
    EXPECT_EQ(e.fn(&im, &mm, &se, &out), -5);
    EXPECT_EQ(halide_messages(), c.report);
    EXPECT_EQ(byte, 0);
}

INSTANTIATE_TEST_SUITE_P(Wrapping, IntermediateSize, ::testing::ValuesIn(kTooLarge),
                         [](const auto &info) { return std::string(info.param.what); });

}  // namespace
}  // namespace tmtest
