// Checks of the scalar reference against hand-worked examples. The reference
// is the oracle for the Halide pipelines, so every asymmetry it must carry
// (erosion vs dilation, opening vs closing, open vs top-hat, per-type casts and
// residues, NaN walk order) is pinned down here with values worked out by hand.
#include "reference/reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ostream>
#include <limits>
#include <string>
#include <vector>

using tmref::Mask;
using tmref::Op;
using tmref::Type;
using tmref::View;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

template <typename T> uint64_t bits(T v) {
    uint64_t b = 0;
    std::memcpy(&b, &v, sizeof v);
    return b;
}

// A dense 3-D image of T with the given mins.
template <typename T> struct Image {
    std::vector<T> data;
    View view{};
    Image(std::vector<T> values, int32_t w, int32_t h, int32_t d, int32_t min0 = 0, int32_t min1 = 0,
          int32_t min2 = 0)
        : data(std::move(values)) {
        data.resize(static_cast<size_t>(w) * h * d);
        view = View{data.data(), {min0, min1, min2}, {w, h, d}, {1, w, w * h}};
    }
    T &at(int32_t x, int32_t y, int32_t z) {
        return data[(x - view.min[0]) + (y - view.min[1]) * view.stride[1] + (z - view.min[2]) * view.stride[2]];
    }
};

template <typename T> Image<T> row(std::vector<T> values, int32_t min0 = 0) {
    const int32_t w = static_cast<int32_t>(values.size());
    return Image<T>(std::move(values), w, 1, 1, min0);
}

struct Element {
    std::vector<uint8_t> bytes;
    Mask mask{};
    Element(std::vector<uint8_t> b, int32_t e0, int32_t e1, int32_t e2) : bytes(std::move(b)) {
        mask = Mask{bytes.data(), {e0, e1, e2}, {1, e0, e0 * e1}};
    }
};

Element row_element(std::vector<uint8_t> b) {
    const int32_t e0 = static_cast<int32_t>(b.size());
    return Element(std::move(b), e0, 1, 1);
}

// Runs op with an output box equal to the image's.
template <typename T>
std::vector<T> run(Op op, Type t, const Image<T> &im, double lower, double upper, const Element &se,
                   tmref::Options opt = {}) {
    Image<T> out({}, im.view.extent[0], im.view.extent[1], im.view.extent[2], im.view.min[0], im.view.min[1],
                 im.view.min[2]);
    tmref::apply(op, t, im.view, lower, upper, se.mask, out.view, opt);
    return out.data;
}

// ---------------------------------------------------------------------------
// Centre
// ---------------------------------------------------------------------------

struct CentreCase {
    int32_t extent, centre;
};

class CentreTest : public ::testing::TestWithParam<CentreCase> {};

TEST_P(CentreTest, FollowsTheFloat32Trip) {
    EXPECT_EQ(tmref::centre(GetParam().extent), GetParam().centre) << "extent " << GetParam().extent;
}

INSTANTIATE_TEST_SUITE_P(ByExtent, CentreTest,
                         ::testing::Values(CentreCase{0, -1}, CentreCase{1, 0}, CentreCase{2, 0}, CentreCase{3, 1},
                                           CentreCase{4, 1}, CentreCase{5, 2}, CentreCase{6, 2}, CentreCase{7, 3},
                                           CentreCase{8, 3}, CentreCase{9, 4},
                                           // Beyond 2^24 the float rounding, not the integer formula, decides.
                                           CentreCase{33554433, 16777215},   // integer formula: 16777216
                                           CentreCase{33554435, 16777216})); // integer formula: 16777217

// ---------------------------------------------------------------------------
// Pad cast
// ---------------------------------------------------------------------------

struct CastCase {
    Type type;
    double bound;
    uint64_t expected;  // T's bit pattern
    std::string what;
};

void PrintTo(const CastCase &c, std::ostream *os) { *os << c.what; }

class CastTest : public ::testing::TestWithParam<CastCase> {};

TEST_P(CastTest, MatchesTable) {
    const CastCase &c = GetParam();
    uint64_t got = 0;
    tmref::cast_bound(c.type, c.bound, &got);
    EXPECT_EQ(got, c.expected) << c.what;
}

std::vector<CastCase> cast_cases() {
    const double b300 = 300.0, bm1 = -1.0, b2p31 = 2147483648.0, b2p32h = 4294967296.5;
    std::vector<CastCase> v;
    auto add = [&](Type t, double b, uint64_t e, const char *what) { v.push_back({t, b, e, what}); };
    // The columns 300.0, -1.0, 2147483648.0, 4294967296.5, NaN, +inf, -inf.
    const struct {
        Type t;
        const char *name;
        uint64_t c300, cm1, c2p31, c2p32h, special;
    } columns[] = {
        {Type::Bool, "bool", 0, 1, 0, 0, 0},
        {Type::UInt8, "uint8", 44, 0xFF, 0, 0, 0},
        {Type::Int8, "int8", 44, 0xFF, 0, 0, 0},
        {Type::UInt16, "uint16", 300, 0xFFFF, 0, 0, 0},
        {Type::Int16, "int16", 300, 0xFFFF, 0, 0, 0},
        {Type::Int32, "int32", 300, 0xFFFFFFFF, 0x80000000, 0x80000000, 0x80000000},
        {Type::UInt32, "uint32", 300, 0xFFFFFFFF, 0x80000000, 0, 0},
        {Type::Float32, "float32", bits(300.0f), bits(-1.0f), bits(2147483648.0f), bits(4294967296.0f), 0},
        {Type::Float64, "float64", bits(300.0), bits(-1.0), bits(2147483648.0), bits(4294967296.5), 0},
    };
    for (const auto &c : columns) {
        const std::string n = c.name;
        add(c.t, b300, c.c300, (n + " 300.0").c_str());
        add(c.t, bm1, c.cm1, (n + " -1.0").c_str());
        add(c.t, b2p31, c.c2p31, (n + " 2^31").c_str());
        add(c.t, b2p32h, c.c2p32h, (n + " 2^32+0.5").c_str());
        if (c.t != Type::Float32 && c.t != Type::Float64) {
            add(c.t, kNaN, c.special, (n + " NaN").c_str());
            add(c.t, kInf, c.special, (n + " +inf").c_str());
            add(c.t, -kInf, c.special, (n + " -inf").c_str());
        }
    }
    add(Type::Float32, kInf, bits(std::numeric_limits<float>::infinity()), "float32 +inf");
    add(Type::Float32, -kInf, bits(-std::numeric_limits<float>::infinity()), "float32 -inf");
    add(Type::Float64, -kInf, bits(-kInf), "float64 -inf");
    // Truncation and wrap, never rounding or saturation.
    add(Type::UInt8, 255.0, 255, "uint8 255.0");
    add(Type::UInt8, 255.9, 255, "uint8 255.9 truncates");
    add(Type::UInt8, 256.0, 0, "uint8 256.0 wraps");
    add(Type::UInt8, 1e300, 0, "uint8 1e300 is indefinite, low byte 0");
    add(Type::Int8, 127.0, 127, "int8 127.0");
    add(Type::Int8, 128.0, 0x80, "int8 128.0 wraps to -128");
    add(Type::UInt32, 4294967295.0, 0xFFFFFFFF, "uint32 goes through 64 bits");
    add(Type::Int32, 2147483647.0, 0x7FFFFFFF, "int32 greatest");
    add(Type::Int32, -2.9, 0xFFFFFFFE, "int32 truncates toward zero");
    add(Type::Float32, 1e300, bits(std::numeric_limits<float>::infinity()), "float32 overflow to +inf");
    add(Type::Float32, -1e300, bits(-std::numeric_limits<float>::infinity()), "float32 overflow to -inf");
    add(Type::Float32, 0.1, bits(0.1f), "float32 rounds to nearest");
    // bool is a parity, not a test for non-zero.
    add(Type::Bool, 1.0, 1, "bool 1.0");
    add(Type::Bool, 3.0, 1, "bool 3.0");
    add(Type::Bool, 2.0, 0, "bool 2.0");
    add(Type::Bool, 0.9, 0, "bool 0.9");
    add(Type::Bool, -3.0, 1, "bool -3.0");
    return v;
}

INSTANTIATE_TEST_SUITE_P(ByType, CastTest, ::testing::ValuesIn(cast_cases()));

TEST(CastNaN, FloatTypesKeepTheNaN) {
    float f = 0;
    double d = 0;
    tmref::cast_bound(Type::Float32, kNaN, &f);
    tmref::cast_bound(Type::Float64, kNaN, &d);
    EXPECT_TRUE(std::isnan(f));
    EXPECT_TRUE(std::isnan(d));
}

// ---------------------------------------------------------------------------
// Residue
// ---------------------------------------------------------------------------

struct ResidueCase {
    Type type;
    uint64_t a, b, expected;
    bool halves;
    std::string what;
};

template <typename T>
ResidueCase rc(Type t, T a, T b, T r, const char *what, bool halves = false) {
    return {t, bits(a), bits(b), bits(r), halves, what};
}

void PrintTo(const ResidueCase &c, std::ostream *os) { *os << c.what; }

class ResidueTest : public ::testing::TestWithParam<ResidueCase> {};

TEST_P(ResidueTest, MatchesTable) {
    const ResidueCase &c = GetParam();
    uint64_t got = 0;
    tmref::residue(c.type, &c.a, &c.b, &got, c.halves);
    EXPECT_EQ(got, c.expected) << c.what;
}

const float kInfF = std::numeric_limits<float>::infinity();

INSTANTIATE_TEST_SUITE_P(
    ByType, ResidueTest,
    ::testing::Values(
        rc<uint8_t>(Type::UInt8, 5, 7, 0, "u8 negative gives 0"), rc<uint8_t>(Type::UInt8, 7, 5, 2, "u8 7-5"),
        rc<uint8_t>(Type::UInt8, 255, 0, 255, "u8 full range"),
        rc<int8_t>(Type::Int8, 100, -100, 127, "i8 saturates high"),
        rc<int8_t>(Type::Int8, -100, 100, -128, "i8 saturates low"),
        rc<int8_t>(Type::Int8, -5, 7, -12, "i8 stays negative"),
        rc<int8_t>(Type::Int8, 100, -128, 127, "i8 R(x, least) high"),
        rc<int8_t>(Type::Int8, -100, -128, 28, "i8 R(x, least)"),
        rc<uint16_t>(Type::UInt16, 1, 65535, 0, "u16 negative gives 0"),
        rc<int16_t>(Type::Int16, -32768, 1, -32768, "i16 saturates low"),
        rc<int16_t>(Type::Int16, 32767, -1, 32767, "i16 saturates high"),
        rc<int32_t>(Type::Int32, 16777217, 16777216, 0, "i32 equal in float32"),
        rc<int32_t>(Type::Int32, 100000000, 99999999, 0, "i32 equal in float32, large"),
        rc<int32_t>(Type::Int32, 2147483647, 0, 2147483647, "i32 upper test"),
        rc<int32_t>(Type::Int32, 2147483583, 0, 2147483520, "i32 rounds down below 2^31"),
        rc<int32_t>(Type::Int32, 2147483584, 0, 2147483647, "i32 rounds up to 2^31"),
        rc<int32_t>(Type::Int32, -2147483648, 1, -2147483648, "i32 low bound"),
        rc<int32_t>(Type::Int32, 1000, 3, 997, "i32 exact small"),
        rc<uint32_t>(Type::UInt32, 4294967295u, 0, 4294967295u, "u32 upper test"),
        rc<uint32_t>(Type::UInt32, 4294967167u, 0, 4294967040u, "u32 rounds down"),
        rc<uint32_t>(Type::UInt32, 16777217u, 1, 16777215u, "u32 operand rounded first"),
        rc<uint32_t>(Type::UInt32, 5, 7, 0, "u32 negative gives 0"),
        rc<uint32_t>(Type::UInt32, 33554477u, 0, 33554476u, "u32 correctly rounded"),
        rc<uint32_t>(Type::UInt32, 33554477u, 0, 33554480u, "u32 by halves", true),
        rc<uint32_t>(Type::UInt32, 1000u, 3u, 997u, "u32 by halves, small exact", true),
        rc<float>(Type::Float32, kInfF, kInfF, kInfF, "f32 inf-inf is NaN, stored +inf"),
        rc<float>(Type::Float32, -kInfF, -kInfF, kInfF, "f32 -inf - -inf"),
        rc<float>(Type::Float32, std::nanf(""), 1.0f, kInfF, "f32 NaN operand a"),
        rc<float>(Type::Float32, 1.0f, std::nanf(""), kInfF, "f32 NaN operand b"),
        rc<float>(Type::Float32, 3e38f, -3e38f, kInfF, "f32 overflow on the way back"),
        rc<float>(Type::Float32, -3e38f, 3e38f, -kInfF, "f32 overflow negative"),
        rc<float>(Type::Float32, 1.5f, 0.25f, 1.25f, "f32 plain"),
        rc<float>(Type::Float32, 1.0f, -kInfF, kInfF, "f32 R(x, least)"),
        rc<double>(Type::Float64, 1e308, -1e308, kInf, "f64 overflow in the subtraction"),
        rc<double>(Type::Float64, -1e308, 1e308, -kInf, "f64 overflow negative"),
        rc<double>(Type::Float64, kInf, kInf, kInf, "f64 inf-inf"),
        rc<double>(Type::Float64, kNaN, 0.0, kInf, "f64 NaN"),
        rc<double>(Type::Float64, 1.0, 3.0, -2.0, "f64 negative stays"),
        rc<uint8_t>(Type::Bool, 1, 0, 1, "bool a and not b"), rc<uint8_t>(Type::Bool, 3, 0, 1, "bool 3 is true"),
        rc<uint8_t>(Type::Bool, 0xFE, 0, 0, "bool 0xFE is false"), rc<uint8_t>(Type::Bool, 1, 1, 0, "bool 1,1"),
        rc<uint8_t>(Type::Bool, 0xFF, 0xFE, 1, "bool only bit 0, output 1"),
        rc<uint8_t>(Type::Bool, 0, 1, 0, "bool 0,1")));

TEST(UInt32ToFloat, HalvesDifferFromCorrectRoundingAboveTwoTo25) {
    EXPECT_EQ(tmref::uint32_to_float(33554477u, false), 33554476.0f);
    EXPECT_EQ(tmref::uint32_to_float(33554477u, true), 33554480.0f);
    EXPECT_EQ(tmref::uint32_to_float(16777215u, true), 16777215.0f);
}

// ---------------------------------------------------------------------------
// Floating walk order: NaN and signed zeros
// ---------------------------------------------------------------------------

struct OrderCase {
    Op op;
    std::vector<double> image;  // one row
    std::vector<uint8_t> element;
    int32_t x;  // the output sample checked
    double pad;
    double expected;
    std::string what;
};

void PrintTo(const OrderCase &c, std::ostream *os) { *os << c.what; }

class OrderTest : public ::testing::TestWithParam<OrderCase> {};

template <typename F> void check_order(Type t, const OrderCase &c) {
    std::vector<F> values(c.image.begin(), c.image.end());
    Image<F> im = row(values);
    Element se = row_element(c.element);
    std::vector<F> out = run(c.op, t, im, c.pad, c.pad, se);
    const F got = out[c.x];
    const F want = static_cast<F>(c.expected);
    if (std::isnan(want))
        EXPECT_TRUE(std::isnan(got)) << c.what << ": got " << got;
    else
        EXPECT_EQ(bits(got), bits(want)) << c.what << ": got " << got << " want " << want;
}

TEST_P(OrderTest, Float32) { check_order<float>(Type::Float32, GetParam()); }
TEST_P(OrderTest, Float64) { check_order<double>(Type::Float64, GetParam()); }

// Erosion walks the row ascending, dilation descending (it reads x - r).
INSTANTIATE_TEST_SUITE_P(
    Walk, OrderTest,
    ::testing::Values(OrderCase{Op::Erode, {5, kNaN, 7}, {1, 1, 1}, 1, kInf, 7, "erode 5,NaN,7"},
                      OrderCase{Op::Erode, {7, kNaN, 5}, {1, 1, 1}, 1, kInf, 5, "erode 7,NaN,5"},
                      OrderCase{Op::Erode, {5, 7, kNaN}, {1, 1, 1}, 1, kInf, kNaN, "erode 5,7,NaN"},
                      OrderCase{Op::Dilate, {7, kNaN, 5}, {1, 1, 1}, 1, -kInf, 7, "dilate walks 5,NaN,7"},
                      OrderCase{Op::Dilate, {5, kNaN, 7}, {1, 1, 1}, 1, -kInf, 5, "dilate walks 7,NaN,5"},
                      OrderCase{Op::Dilate, {kNaN, 7, 5}, {1, 1, 1}, 1, -kInf, kNaN, "dilate walks 5,7,NaN"},
                      OrderCase{Op::Erode, {0.0, -0.0}, {1, 1}, 0, kInf, -0.0, "erode +0 then -0"},
                      OrderCase{Op::Erode, {-0.0, 0.0}, {1, 1}, 0, kInf, 0.0, "erode -0 then +0"},
                      OrderCase{Op::Dilate, {0.0, -0.0}, {1, 1}, 1, -kInf, 0.0, "dilate walks -0 then +0"},
                      OrderCase{Op::Dilate, {-0.0, 0.0}, {1, 1}, 1, -kInf, -0.0, "dilate walks +0 then -0"},
                      // A NaN pad is a NaN sample: last tap outside the image gives NaN,
                      // first tap outside is forgotten.
                      OrderCase{Op::Erode, {1, 2, 3}, {1, 1, 1}, 2, kNaN, kNaN, "erode NaN pad last"},
                      OrderCase{Op::Erode, {1, 2, 3}, {1, 1, 1}, 0, kNaN, 1, "erode NaN pad first"},
                      OrderCase{Op::Dilate, {1, 2, 3}, {1, 1, 1}, 0, kNaN, kNaN, "dilate NaN pad last"},
                      OrderCase{Op::Dilate, {1, 2, 3}, {1, 1, 1}, 2, kNaN, 3, "dilate NaN pad first"},
                      // Infinities are ordinary values.
                      OrderCase{Op::Erode, {kInf, 4, kInf}, {1, 1, 1}, 1, kInf, 4, "erode with +inf"}));

// The element's dimension 2 is the outermost loop and dimension 0 the
// innermost: with a 2x1x2 element erosion at (0, 0, 0) meets
// P(0,0,0)=1, P(1,0,0)=NaN, P(0,0,1)=5, P(1,0,1)=9 in that order.
TEST(WalkOrder, DimensionTwoOutermost) {
    Image<float> im({1, std::nanf(""), 5, 9}, 2, 1, 2);
    Element se({1, 1, 1, 1}, 2, 1, 2);
    std::vector<float> out = run(Op::Erode, Type::Float32, im, 0, 100, se);
    EXPECT_EQ(out[0], 5.0f);  // r0 outermost would give 9
}

// ---------------------------------------------------------------------------
// One-row uint8 examples: reflection, even extents, taps, closing at the edge
// ---------------------------------------------------------------------------

struct RowCase {
    Op op;
    std::vector<uint8_t> image;
    std::vector<uint8_t> element;
    double lower, upper;
    std::vector<uint8_t> expected;
    std::string what;
};

void PrintTo(const RowCase &c, std::ostream *os) { *os << c.what; }

class RowTest : public ::testing::TestWithParam<RowCase> {};

TEST_P(RowTest, UInt8) {
    const RowCase &c = GetParam();
    EXPECT_EQ(run(c.op, Type::UInt8, row(c.image), c.lower, c.upper, row_element(c.element)), c.expected)
        << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Examples, RowTest,
    ::testing::Values(
        // Only the tap r0 = 1: erosion shifts towards lower x, dilation towards higher x.
        RowCase{Op::Erode, {1, 2, 3, 4, 5}, {0, 0, 1}, 77, 99, {2, 3, 4, 5, 99}, "erode reads x + r"},
        RowCase{Op::Dilate, {1, 2, 3, 4, 5}, {0, 0, 1}, 77, 99, {77, 1, 2, 3, 4}, "dilate reads x - r"},
        // e0 = 2, c0 = 0: erosion looks at x, x+1; dilation at x, x-1.
        RowCase{Op::Erode, {5, 1, 7, 3, 9}, {1, 1}, 0, 4, {1, 1, 3, 3, 4}, "erode even 2"},
        RowCase{Op::Dilate, {5, 1, 7, 3, 9}, {1, 1}, 6, 255, {6, 5, 7, 7, 9}, "dilate even 2"},
        // e0 = 4, c0 = 1: erosion reaches x-1..x+2, dilation x-2..x+1.
        RowCase{Op::Erode, {9, 9, 9, 9, 0, 9, 9, 9, 9}, {1, 1, 1, 1}, 0, 255, {9, 9, 0, 0, 0, 0, 9, 9, 9},
                "erode even 4"},
        RowCase{Op::Dilate, {0, 0, 0, 0, 9, 0, 0, 0, 0}, {1, 1, 1, 1}, 0, 255, {0, 0, 0, 9, 9, 9, 9, 0, 0},
                "dilate even 4"},
        // Only a byte of exactly 1 is a tap.
        RowCase{Op::Erode, {1, 2, 3}, {2, 2, 2}, 0, 0, {255, 255, 255}, "erode no taps"},
        RowCase{Op::Dilate, {1, 2, 3}, {2, 0, 255}, 200, 0, {0, 0, 0}, "dilate no taps"},
        RowCase{Op::Erode, {4, 1, 6, 8}, {1, 2, 1}, 0, 255, {1, 4, 1, 6}, "a 2 is a hole"},
        RowCase{Op::Erode, {4, 1, 6}, {}, 0, 0, {255, 255, 255}, "extent 0 has no taps"},
        // Pads are cast, not neutral.
        RowCase{Op::Erode, {10, 20, 30}, {1, 1, 1}, 0, 256.0, {0, 10, 0}, "erode pad 256 wraps to 0"},
        RowCase{Op::Dilate, {10, 20, 30}, {1, 1, 1}, -1.0, 0, {255, 30, 255}, "dilate pad -1 is 255"},
        // Closing dilates past the edge, so a bright object stays bright to the edge.
        RowCase{Op::Close, {200, 200, 200, 200, 200}, {1, 1, 1}, 0, 0, {200, 200, 200, 200, 200},
                "close all 200"},
        RowCase{Op::BotHat, {200, 200, 200, 200, 200}, {1, 1, 1}, 0, 0, {0, 0, 0, 0, 0}, "bothat all 200"},
        // Lo above the image counts as a neighbour: a border valley fills up to Lo.
        RowCase{Op::Close, {10, 60, 60, 60}, {1, 1, 1}, 50, 0, {50, 60, 60, 60}, "close valley Lo=50"},
        RowCase{Op::BotHat, {10, 60, 60, 60}, {1, 1, 1}, 50, 0, {40, 0, 0, 0}, "bothat valley Lo=50"},
        // Closing never reads the upper bound; opening uses both.
        RowCase{Op::Close, {10, 60, 60, 60}, {1, 1, 1}, 50, 1e300, {50, 60, 60, 60}, "close ignores upper"},
        RowCase{Op::Open, {0, 0, 9, 9, 9, 0, 0}, {1, 1}, 0, 255, {0, 0, 9, 9, 9, 0, 0}, "open even 2 unshifted"},
        RowCase{Op::Close, {9, 9, 0, 0, 0, 9, 9}, {1, 1}, 0, 0, {9, 9, 0, 0, 0, 9, 9}, "close even 2 unshifted"},
        // A row shorter than the element is eroded by a low U everywhere, and
        // Lo = 0 does not lift it back.
        RowCase{Op::Open, {50, 50}, {1, 1, 1}, 0, 10, {10, 10}, "open with low U"},
        RowCase{Op::TopHat, {50, 50}, {1, 1, 1}, 0, 10, {40, 40}, "tophat with low U"},
        // Lo above the image dilates into it from the border.
        RowCase{Op::Open, {50, 50, 50}, {1, 1, 1}, 80, 255, {80, 50, 80}, "open with high Lo"},
        RowCase{Op::TopHat, {50, 50, 50}, {1, 1, 1}, 80, 255, {0, 0, 0}, "tophat unsigned floor at 0"},
        // Without taps: opened is T's least, closed T's greatest.
        RowCase{Op::TopHat, {3, 100, 255}, {0}, 0, 0, {3, 100, 255}, "tophat no taps is the image"},
        RowCase{Op::BotHat, {3, 100, 255}, {0}, 0, 0, {252, 155, 0}, "bothat no taps is the complement"},
        RowCase{Op::Open, {3, 100, 255}, {0}, 7, 9, {0, 0, 0}, "open no taps is least"},
        RowCase{Op::Close, {3, 100, 255}, {0}, 7, 9, {255, 255, 255}, "close no taps is greatest"}));

// ---------------------------------------------------------------------------
// Initial values without taps, by type
// ---------------------------------------------------------------------------

struct NoTapCase {
    Type type;
    uint64_t erode, dilate;
};

class NoTapTest : public ::testing::TestWithParam<NoTapCase> {};

TEST_P(NoTapTest, GreatestForErosionLeastForDilation) {
    const NoTapCase &c = GetParam();
    uint64_t image[4] = {0x0123456789ABCDEFull, 0, 0, 0};
    uint64_t out[2] = {0, 0};
    const uint8_t bytes[3] = {0, 2, 0};
    const Mask se{bytes, {3, 1, 1}, {1, 3, 3}};
    const View im{image, {0, 0, 0}, {1, 1, 1}, {1, 1, 1}};
    const View o{out, {0, 0, 0}, {1, 1, 1}, {1, 1, 1}};
    tmref::apply(Op::Erode, c.type, im, 1.0, 1.0, se, o);
    EXPECT_EQ(out[0], c.erode);
    out[0] = 0;
    tmref::apply(Op::Dilate, c.type, im, 1.0, 1.0, se, o);
    EXPECT_EQ(out[0], c.dilate);
}

INSTANTIATE_TEST_SUITE_P(
    ByType, NoTapTest,
    ::testing::Values(NoTapCase{Type::Bool, 1, 0}, NoTapCase{Type::UInt8, 0xFF, 0}, NoTapCase{Type::Int8, 0x7F, 0x80},
                      NoTapCase{Type::UInt16, 0xFFFF, 0}, NoTapCase{Type::Int16, 0x7FFF, 0x8000},
                      NoTapCase{Type::UInt32, 0xFFFFFFFF, 0}, NoTapCase{Type::Int32, 0x7FFFFFFF, 0x80000000},
                      NoTapCase{Type::Float32, bits(std::numeric_limits<float>::infinity()),
                                bits(-std::numeric_limits<float>::infinity())},
                      NoTapCase{Type::Float64, bits(kInf), bits(-kInf)}));

// ---------------------------------------------------------------------------
// bool reads bit 0 and writes only 0 or 1
// ---------------------------------------------------------------------------

TEST(BoolSamples, CountByBitZero) {
    Image<uint8_t> im = row<uint8_t>({0x03, 0x02, 0xFF, 0xFE});
    EXPECT_EQ(run(Op::Erode, Type::Bool, im, 0, 1, row_element({1})), (std::vector<uint8_t>{1, 0, 1, 0}));
    EXPECT_EQ(run(Op::Dilate, Type::Bool, im, 0, 1, row_element({1})), (std::vector<uint8_t>{1, 0, 1, 0}));
    // e0 = 2: erosion ANDs x and x+1, dilation ORs x and x-1. The pad is a
    // parity: 2.0 is false, 3.0 true.
    Image<uint8_t> ones = row<uint8_t>({0x03, 0x01});
    EXPECT_EQ(run(Op::Erode, Type::Bool, ones, 0, 2.0, row_element({1, 1})), (std::vector<uint8_t>{1, 0}));
    EXPECT_EQ(run(Op::Erode, Type::Bool, ones, 0, 3.0, row_element({1, 1})), (std::vector<uint8_t>{1, 1}));
    EXPECT_EQ(run(Op::Dilate, Type::Bool, im, 0, 0, row_element({1, 1})), (std::vector<uint8_t>{1, 1, 1, 1}));
    EXPECT_EQ(run(Op::TopHat, Type::Bool, row<uint8_t>({0xFE, 0xFE, 0xFE}), 0, 1, row_element({1, 1, 1})),
              (std::vector<uint8_t>{0, 0, 0}));
}

// ---------------------------------------------------------------------------
// Opening's window vs top-hat's
// ---------------------------------------------------------------------------

// W = 2, H = 4, D = 9 planes, one-tap element: the plain opening's window
// ends at plane H - 1 = 3, so planes 4..8 hold Lo; the top-hat's window
// covers all 9 planes, so it is the true residue (0) everywhere.
TEST(OpeningWindow, MorePlanesThanRows) {
    std::vector<uint8_t> values(2 * 4 * 9);
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(100 + i);
    Image<uint8_t> im(values, 2, 4, 9);
    Element one({1}, 1, 1, 1);
    const double lo = 7, up = 255;
    std::vector<uint8_t> open = run(Op::Open, Type::UInt8, im, lo, up, one);
    std::vector<uint8_t> top = run(Op::TopHat, Type::UInt8, im, lo, up, one);
    for (size_t i = 0; i < values.size(); ++i) {
        const size_t plane = i / 8;
        EXPECT_EQ(open[i], plane < 4 ? values[i] : 7) << "sample " << i;
        EXPECT_EQ(top[i], 0) << "sample " << i;
    }
}

// D = 3, H = 5, element 1x1x3, Lo = 200 above the image of 100. The plain
// opening's window reaches plane 3, which lies outside the image but holds an
// erosion against U; the top-hat's window stops at plane 2, so plane 3 is Lo
// there. The low end (plane -1) is Lo for both.
TEST(OpeningWindow, FewerPlanesThanRowsDeepElement) {
    Image<int16_t> im(std::vector<int16_t>(1 * 5 * 3, 100), 1, 5, 3);
    Element deep({1, 1, 1}, 1, 1, 3);
    std::vector<int16_t> open = run(Op::Open, Type::Int16, im, 200, 32767, deep);
    std::vector<int16_t> top = run(Op::TopHat, Type::Int16, im, 200, 32767, deep);
    for (int y = 0; y < 5; ++y) {
        EXPECT_EQ(open[y + 0 * 5], 200);
        EXPECT_EQ(open[y + 1 * 5], 100);
        EXPECT_EQ(open[y + 2 * 5], 100);
        EXPECT_EQ(top[y + 0 * 5], -100);
        EXPECT_EQ(top[y + 1 * 5], 0);
        EXPECT_EQ(top[y + 2 * 5], -100);
    }
}

// The window starts at 0 whatever the image's min. Image covers x = 2..4,
// W = 3 so the window is x = 0..2. One-tap element: inside both, the image;
// inside the window only, U; outside the window, Lo.
TEST(OpeningWindow, StartsAtZeroNotAtImageMin) {
    Image<uint8_t> im = row<uint8_t>({11, 12, 13}, 2);
    Element one({1}, 1, 1, 1);
    std::vector<uint8_t> out(6, 0xAA);
    const View o{out.data(), {0, 0, 0}, {6, 1, 1}, {1, 6, 6}};
    tmref::apply(Op::Open, Type::UInt8, im.view, 5, 250, one.mask, o);
    EXPECT_EQ(out, (std::vector<uint8_t>{250, 250, 11, 5, 5, 5}));

    // Closing has no window: the same output is the image inside it and Lo outside.
    tmref::apply(Op::Close, Type::UInt8, im.view, 5, 250, one.mask, o);
    EXPECT_EQ(out, (std::vector<uint8_t>{5, 5, 11, 12, 13, 5}));
}

// ---------------------------------------------------------------------------
// Views
// ---------------------------------------------------------------------------

// Strides are honoured in every dimension, and only the output's own samples
// are written: the gaps of a strided output keep their bytes.
TEST(Views, StridedImageAndOutput) {
    // Row 3, 1, 4, 1, 5 interleaved with junk at odd positions.
    std::vector<int16_t> inter = {3, -9, 1, -9, 4, -9, 1, -9, 5, -9};
    const View im{inter.data(), {10, 0, 0}, {5, 1, 1}, {2, 10, 10}};
    Element e3 = row_element({1, 1, 1});
    std::vector<int16_t> out(15, 42);
    const View o{out.data(), {10, 0, 0}, {5, 1, 1}, {3, 15, 15}};
    tmref::apply(Op::Dilate, Type::Int16, im, -32768, 0, e3.mask, o);
    EXPECT_EQ(out, (std::vector<int16_t>{3, 42, 42, 4, 42, 42, 4, 42, 42, 5, 42, 42, 5, 42, 42}));
}

TEST(Views, TopHatUInt32HalvesOption) {
    Image<uint32_t> im = row<uint32_t>({33554477u, 7u});
    Element none = row_element({0});
    EXPECT_EQ(run(Op::TopHat, Type::UInt32, im, 0, 0, none), (std::vector<uint32_t>{33554476u, 7u}));
    tmref::Options halves;
    halves.uint32_halves = true;
    EXPECT_EQ(run(Op::TopHat, Type::UInt32, im, 0, 0, none, halves), (std::vector<uint32_t>{33554480u, 7u}));
}

}  // namespace
