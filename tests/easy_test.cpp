// The header-only companion against the shared library: it finds the
// export of every operator, type and level, lays C-order arrays out as the
// library's descriptors, and its neutral pads never win at the border.
#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

#include "entries.h"
#include "morph_case.h"
#include "tessmorphop3_halide_easy.h"

namespace tmtest {
namespace {

const std::map<std::string, tme_type> &type_of() {
    static const std::map<std::string, tme_type> m = {
#define TME_X(word, code, bits, bytes, ctype) {#word, TME_##word},
        TESSMORPHOP3_HALIDE_TYPES(TME_X)
#undef TME_X
    };
    return m;
}

TEST(Easy, FindsEveryExportAndNothingElse) {
    std::map<std::string, tme_operator> op_of = {
#define TME_X(name, output) {#name, TME_##name},
        TESSMORPHOP3_HALIDE_OPERATORS(TME_X)
#undef TME_X
    };
    std::map<std::string, tme_level> level_of = {
#define TME_X(word) {#word, TME_##word},
        TESSMORPHOP3_HALIDE_LEVELS(TME_X)
#undef TME_X
    };
    for (const Entry &e : all_entries())
        EXPECT_EQ(tme_entry(op_of.at(e.op), type_of().at(e.type), level_of.at(e.level_word)), e.fn) << e.name;

    EXPECT_EQ(tme_entry(TME_OPERATOR_COUNT, TME_uint8, TME_none), nullptr);
    EXPECT_EQ(tme_entry(TME_imerode, TME_TYPE_COUNT, TME_none), nullptr);
    EXPECT_EQ(tme_entry(TME_imerode, TME_uint8, TME_LEVEL_COUNT), nullptr);
}

struct Dim {
    int32_t min, extent, stride;
};

struct Layout {
    const char *what;
    int rank;
    std::vector<int32_t> shape, mins;  // C order; mins empty for NULL
    Dim want[3];                       // the library's dimensions 0, 1, 2
};

TEST(Easy, DescribesCOrderArraysInTheLibrarysDimensions) {
    const Layout table[] = {
        {"row", 1, {9}, {}, {{0, 9, 1}, {0, 1, 9}, {0, 1, 9}}},
        {"row with min", 1, {9}, {-4}, {{-4, 9, 1}, {0, 1, 9}, {0, 1, 9}}},
        {"image", 2, {5, 7}, {}, {{0, 7, 1}, {0, 5, 7}, {0, 1, 35}}},
        {"image with mins", 2, {5, 7}, {3, -2}, {{-2, 7, 1}, {3, 5, 7}, {0, 1, 35}}},
        {"volume", 3, {4, 5, 6}, {1, 2, 3}, {{3, 6, 1}, {2, 5, 6}, {1, 4, 30}}},
        {"empty plane", 3, {2, 0, 6}, {}, {{0, 6, 1}, {0, 0, 6}, {0, 2, 0}}},
        // 70000 x 70000 samples do not fit a 32-bit stride: fine while
        // nothing steps from plane to plane, refused when something must.
        {"huge image", 2, {70000, 70000}, {}, {{0, 70000, 1}, {0, 70000, 70000}, {0, 1, 0}}},
        {"huge single plane", 3, {1, 70000, 70000}, {}, {{0, 70000, 1}, {0, 70000, 70000}, {0, 1, 0}}},
    };
    for (const Layout &c : table) {
        SCOPED_TRACE(c.what);
        tme_array a;
        int16_t sample = 0;
        ASSERT_EQ(tme_describe(&a, &sample, TME_int16, c.rank, c.shape.data(), c.mins.empty() ? nullptr : c.mins.data()),
                  &a.buf);
        EXPECT_EQ(a.buf.host, reinterpret_cast<uint8_t *>(&sample));
        EXPECT_EQ(a.buf.dimensions, 3);
        EXPECT_EQ(a.buf.dim, a.dim);
        EXPECT_EQ(a.buf.device, 0u);
        EXPECT_EQ(a.buf.type, halide_type_t(halide_type_int, 16));
        for (int d = 0; d < 3; d++) {
            EXPECT_EQ(a.dim[d].min, c.want[d].min) << "dim " << d;
            EXPECT_EQ(a.dim[d].extent, c.want[d].extent) << "dim " << d;
            EXPECT_EQ(a.dim[d].stride, c.want[d].stride) << "dim " << d;
        }
    }
}

TEST(Easy, RefusesWhatNoDescriptorCanHold) {
    const int32_t shape[4] = {2, 3, 4, 5}, negative[2] = {3, -1}, huge[3] = {2, 70000, 70000};
    tme_array a;
    uint8_t byte = 0;
    EXPECT_EQ(tme_describe(&a, &byte, TME_uint8, 0, shape, nullptr), nullptr);
    EXPECT_EQ(tme_describe(&a, &byte, TME_uint8, 4, shape, nullptr), nullptr);
    EXPECT_EQ(tme_describe(&a, &byte, TME_uint8, 2, negative, nullptr), nullptr);
    EXPECT_EQ(tme_describe(&a, &byte, TME_uint8, 3, huge, nullptr), nullptr);
    EXPECT_EQ(tme_describe(&a, &byte, TME_TYPE_COUNT, 1, shape, nullptr), nullptr);
    EXPECT_EQ(tme_describe(&a, &byte, TME_uint8, 1, nullptr, nullptr), nullptr);

    tme_array im, se, out;
    tme_pads pads;
    tme_describe(&im, &byte, TME_uint8, 1, shape, nullptr);
    tme_describe(&out, &byte, TME_uint8, 1, shape, nullptr);
    tme_describe_mask(&se, &byte, 1, shape);
    tme_pads_set(&pads, 0, 0);
    EXPECT_EQ(tme_call(TME_OPERATOR_COUNT, TME_none, &im, &pads, &se, &out), TME_BAD_ARGUMENT);
    EXPECT_EQ(tme_call(TME_imerode, TME_none, &im, nullptr, &se, &out), TME_BAD_ARGUMENT);
}

TEST(Easy, TypesMatchTheLibrarysDescriptors) {
    for (auto &[word, type] : type_of()) {
        tme_array a;
        const int32_t shape[1] = {1};
        ASSERT_NE(tme_describe(&a, nullptr, type, 1, shape, nullptr), nullptr) << word;
        EXPECT_EQ(a.buf.type, type_info(word).ht) << word;
        EXPECT_EQ(tme_sizeof(type), type_info(word).bytes) << word;
    }
}

// A constant image of the type's greatest value stays so under erosion, of
// its least under dilation, border included, only if the neutral pad never
// wins.  Runs every type through tme_call.
template<typename T>
void expect_border_untouched(tme_type type, T greatest, T least) {
    const int32_t shape[3] = {3, 4, 21}, cube[3] = {3, 3, 3};
    std::vector<uint8_t> mask(27, 1);
    for (int pass = 0; pass < 2; pass++) {
        const T value = pass == 0 ? greatest : least;
        std::vector<T> image(3 * 4 * 21, value), out(image.size(), T(7));
        tme_array im, se, res;
        tme_pads pads;
        tme_describe(&im, image.data(), type, 3, shape, nullptr);
        tme_describe(&res, out.data(), type, 3, shape, nullptr);
        tme_describe_mask(&se, mask.data(), 3, cube);
        ASSERT_NE(tme_pads_neutral(&pads, type), nullptr);
        ASSERT_EQ(tme_call(pass == 0 ? TME_imerode : TME_imdilate, TME_none, &im, &pads, &se, &res), 0);
        for (size_t i = 0; i < out.size(); i++)
            ASSERT_EQ(out[i], value) << "type " << type << (pass == 0 ? " erosion" : " dilation") << " at " << i;
    }
}

TEST(Easy, NeutralPadsNeverWin) {
    expect_border_untouched<uint8_t>(TME_bool, 1, 0);
#define TME_X(word, code, bits, bytes, ctype)                                                              \
    if (TME_##word != TME_bool)                                                                         \
        expect_border_untouched<ctype>(TME_##word, std::numeric_limits<ctype>::max(),                   \
                                       std::numeric_limits<ctype>::lowest());
    TESSMORPHOP3_HALIDE_TYPES(TME_X)
#undef TME_X
}

// Records point into themselves; tme_call re-aims them, so a copy still
// describes its array after the original has changed.
struct Described {
    tme_array im, se, out;
    tme_pads pads;
};

TEST(Easy, CopiedRecordsStillCall) {
    uint8_t image[3][40] = {}, out[3][40] = {}, mask[3][1] = {{1}, {1}, {1}};
    const int32_t shape[2] = {3, 40}, mask_shape[2] = {3, 1}, one[1] = {1};
    image[1][33] = 9;
    Described original;
    tme_describe(&original.im, image, TME_uint8, 2, shape, nullptr);
    tme_describe(&original.out, out, TME_uint8, 2, shape, nullptr);
    tme_describe_mask(&original.se, &mask[0][0], 2, mask_shape);
    tme_pads_set(&original.pads, 0.0, 255.0);
    Described copy = original;
    // The original now describes single samples with other pads: a copy
    // still aimed at it would compute one sample, or pad with 200.
    tme_describe(&original.im, image, TME_uint8, 1, one, nullptr);
    tme_describe(&original.out, out, TME_uint8, 1, one, nullptr);
    tme_describe_mask(&original.se, &mask[0][0], 1, one);
    tme_pads_set(&original.pads, 200.0, 200.0);

    ASSERT_EQ(tme_call(TME_imdilate, TME_none, &copy.im, &copy.pads, &copy.se, &copy.out), 0);
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 40; c++) EXPECT_EQ(out[r][c], c == 33 ? 9 : 0) << r << "," << c;
}

}  // namespace
}  // namespace tmtest
