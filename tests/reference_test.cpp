// Hand-worked examples for the scalar reference, limited to what the
// library's entry points cannot check against it: the centre, the pad cast
// of every type, the floating walk order, the direction and reach of the
// element, and the opening's window.  The residues and the borders of the
// two-stage operators are checked through the exports, bit for bit.
#include "reference/reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

using tmref::Op;
using tmref::Type;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const float kInfF = std::numeric_limits<float>::infinity();

template <typename T> uint64_t bits(T v) {
    uint64_t b = 0;
    std::memcpy(&b, &v, sizeof v);
    return b;
}

// A dense box from (min0, 0, 0).
struct Box {
    int32_t min0, w, h, d;
};

// Runs op over a dense image into a dense output box with a dense element.
template <typename T>
std::vector<T> run(Op op, Type t, std::vector<T> image, Box im, Box out, std::vector<uint8_t> se,
                   const int32_t (&e)[3], double lower, double upper) {
    std::vector<T> result(size_t(out.w) * out.h * out.d);
    const tmref::View iv{image.data(), {im.min0, 0, 0}, {im.w, im.h, im.d}, {1, im.w, im.w * im.h}};
    const tmref::View ov{result.data(), {out.min0, 0, 0}, {out.w, out.h, out.d}, {1, out.w, out.w * out.h}};
    tmref::apply(op, t, iv, lower, upper, tmref::Mask{se.data(), {e[0], e[1], e[2]}, {1, e[0], e[0] * e[1]}}, ov);
    return result;
}

TEST(Centre, FollowsTheFloat32Trip) {
    const struct { int32_t extent, centre; } rows[] = {
        {0, -1}, {1, 0}, {2, 0}, {3, 1}, {4, 1}, {5, 2}, {8, 3}, {9, 4},
        // Beyond 2^24 the float rounding, not the integer formula, decides.
        {33554433, 16777215}, {33554435, 16777216}};
    for (const auto &r : rows) EXPECT_EQ(tmref::centre(r.extent), r.centre) << "extent " << r.extent;
}

// Truncation toward zero and wrap, never rounding or saturation; NaN and
// out-of-range values give the indefinite integer; bool is a parity.
TEST(PadCast, ByType) {
    const double bounds[] = {300.0, -1.0, 2147483648.0, 4294967296.5, kNaN, kInf, -kInf};
    const float nanf = std::numeric_limits<float>::quiet_NaN();
    const struct { Type t; const char *name; uint64_t want[7]; } columns[] = {
        {Type::Bool, "bool", {0, 1, 0, 0, 0, 0, 0}},
        {Type::UInt8, "uint8", {44, 0xFF, 0, 0, 0, 0, 0}},
        {Type::Int8, "int8", {44, 0xFF, 0, 0, 0, 0, 0}},
        {Type::UInt16, "uint16", {300, 0xFFFF, 0, 0, 0, 0, 0}},
        {Type::Int16, "int16", {300, 0xFFFF, 0, 0, 0, 0, 0}},
        {Type::Int32, "int32", {300, 0xFFFFFFFF, 0x80000000, 0x80000000, 0x80000000, 0x80000000, 0x80000000}},
        {Type::UInt32, "uint32", {300, 0xFFFFFFFF, 0x80000000, 0, 0, 0, 0}},
        {Type::Float32, "float32", {bits(300.0f), bits(-1.0f), bits(2147483648.0f), bits(4294967296.0f),
                                    bits(nanf), bits(kInfF), bits(-kInfF)}},
        {Type::Float64, "float64", {bits(300.0), bits(-1.0), bits(2147483648.0), bits(4294967296.5),
                                    bits(kNaN), bits(kInf), bits(-kInf)}},
    };
    const struct { Type t; const char *name; double bound; uint64_t want; } singles[] = {
        {Type::UInt8, "uint8", 255.9, 255}, {Type::UInt8, "uint8", 256.0, 0}, {Type::UInt8, "uint8", 1e300, 0},
        {Type::Int8, "int8", 128.0, 0x80}, {Type::Int32, "int32", 2147483647.0, 0x7FFFFFFF},
        {Type::Int32, "int32", -2.9, 0xFFFFFFFE}, {Type::UInt32, "uint32", 4294967295.0, 0xFFFFFFFF},
        {Type::Float32, "float32", 1e300, bits(kInfF)}, {Type::Float32, "float32", -1e300, bits(-kInfF)},
        {Type::Float32, "float32", 0.1, bits(0.1f)}, {Type::Bool, "bool", 3.0, 1}, {Type::Bool, "bool", 2.0, 0},
        {Type::Bool, "bool", 0.9, 0}, {Type::Bool, "bool", -3.0, 1},
    };
    auto check = [](Type t, const char *name, double bound, uint64_t want) {
        uint64_t got = 0;
        tmref::cast_bound(t, bound, &got);
        EXPECT_EQ(got, want) << name << " " << bound;
    };
    for (const auto &c : columns)
        for (int i = 0; i < 7; i++) check(c.t, c.name, bounds[i], c.want[i]);
    for (const auto &s : singles) check(s.t, s.name, s.bound, s.want);
}

// The baseline level's residues convert uint32 by halves; above 2^25 the
// result differs from one correct rounding.
TEST(UInt32ToFloat, HalvesDifferFromCorrectRoundingAboveTwoTo25) {
    EXPECT_EQ(tmref::uint32_to_float(33554477u, false), 33554476.0f);
    EXPECT_EQ(tmref::uint32_to_float(33554477u, true), 33554480.0f);
    EXPECT_EQ(tmref::uint32_to_float(16777215u, true), 16777215.0f);
}

// The processor's min/max keeps the second operand on a NaN or a tie, so
// the walk order shows.  Erosion walks the row ascending, dilation
// descending (it reads x - r); a NaN pad is a NaN sample.
struct OrderCase {
    Op op;
    std::vector<double> image;  // one row, an element of ones as wide as `taps`
    int32_t taps, x;            // x: the output sample checked
    double pad, expected;
    const char *what;
};

const OrderCase kOrder[] = {
    {Op::Erode, {5, kNaN, 7}, 3, 1, kInf, 7, "erode 5,NaN,7"},
    {Op::Erode, {7, kNaN, 5}, 3, 1, kInf, 5, "erode 7,NaN,5"},
    {Op::Erode, {5, 7, kNaN}, 3, 1, kInf, kNaN, "erode 5,7,NaN"},
    {Op::Dilate, {7, kNaN, 5}, 3, 1, -kInf, 7, "dilate walks 5,NaN,7"},
    {Op::Dilate, {kNaN, 7, 5}, 3, 1, -kInf, kNaN, "dilate walks 5,7,NaN"},
    {Op::Erode, {0.0, -0.0}, 2, 0, kInf, -0.0, "erode +0 then -0"},
    {Op::Erode, {-0.0, 0.0}, 2, 0, kInf, 0.0, "erode -0 then +0"},
    {Op::Dilate, {0.0, -0.0}, 2, 1, -kInf, 0.0, "dilate walks -0 then +0"},
    {Op::Dilate, {-0.0, 0.0}, 2, 1, -kInf, -0.0, "dilate walks +0 then -0"},
    {Op::Erode, {1, 2, 3}, 3, 2, kNaN, kNaN, "erode NaN pad last"},
    {Op::Erode, {1, 2, 3}, 3, 0, kNaN, 1, "erode NaN pad first"},
    {Op::Dilate, {1, 2, 3}, 3, 0, kNaN, kNaN, "dilate NaN pad last"},
    {Op::Dilate, {1, 2, 3}, 3, 2, kNaN, 3, "dilate NaN pad first"},
};

template <typename F> void check_order(Type t) {
    for (const OrderCase &c : kOrder) {
        const int32_t n = int32_t(c.image.size()), e[3] = {c.taps, 1, 1};
        const F got = run(c.op, t, std::vector<F>(c.image.begin(), c.image.end()), Box{0, n, 1, 1},
                          Box{0, n, 1, 1}, std::vector<uint8_t>(c.taps, 1), e, c.pad, c.pad)[c.x];
        const F want = F(c.expected);
        if (std::isnan(want))
            EXPECT_TRUE(std::isnan(got)) << c.what << ": got " << got;
        else
            EXPECT_EQ(bits(got), bits(want)) << c.what << ": got " << got;
    }
}

TEST(WalkOrder, Float32) { check_order<float>(Type::Float32); }
TEST(WalkOrder, Float64) { check_order<double>(Type::Float64); }

// The element's dimension 2 is the outermost loop and dimension 0 the
// innermost: a 2x1x2 erosion at (0, 0, 0) meets 1, NaN, 5, 9 in that order.
TEST(WalkOrder, DimensionTwoOutermost) {
    const Box box{0, 2, 1, 2};
    const int32_t e[3] = {2, 1, 2};
    EXPECT_EQ(run<float>(Op::Erode, Type::Float32, {1, NAN, 5, 9}, box, box, {1, 1, 1, 1}, e, 0, 100)[0], 5.0f)
        << "9 means r0 outermost";
}

// One-row uint8 examples; the output box is expected.size() wide from out_min0.
struct RowCase {
    Op op;
    std::vector<uint8_t> image;
    int32_t im_min0;
    std::vector<uint8_t> element;
    double lower, upper;
    int32_t out_min0;
    std::vector<uint8_t> expected;
    const char *what;
};

const RowCase kRows[] = {
    // Only the tap r0 = 1: erosion shifts towards lower x, dilation towards higher x.
    {Op::Erode, {1, 2, 3, 4, 5}, 0, {0, 0, 1}, 77, 99, 0, {2, 3, 4, 5, 99}, "erode reads x + r"},
    {Op::Dilate, {1, 2, 3, 4, 5}, 0, {0, 0, 1}, 77, 99, 0, {77, 1, 2, 3, 4}, "dilate reads x - r"},
    // e0 = 2, c0 = 0: erosion looks at x, x+1; dilation at x, x-1.
    {Op::Erode, {5, 1, 7, 3, 9}, 0, {1, 1}, 0, 4, 0, {1, 1, 3, 3, 4}, "erode even 2"},
    {Op::Dilate, {5, 1, 7, 3, 9}, 0, {1, 1}, 6, 255, 0, {6, 5, 7, 7, 9}, "dilate even 2"},
    // e0 = 4, c0 = 1: erosion reaches x-1..x+2, dilation x-2..x+1.
    {Op::Erode, {9, 9, 9, 9, 0, 9, 9, 9, 9}, 0, {1, 1, 1, 1}, 0, 255, 0, {9, 9, 0, 0, 0, 0, 9, 9, 9}, "erode even 4"},
    {Op::Dilate, {0, 0, 0, 0, 9, 0, 0, 0, 0}, 0, {1, 1, 1, 1}, 0, 255, 0, {0, 0, 0, 9, 9, 9, 9, 0, 0},
     "dilate even 4"},
    // The two reflections cancel: an even element neither opens nor closes off-centre.
    {Op::Open, {0, 0, 9, 9, 9, 0, 0}, 0, {1, 1}, 0, 255, 0, {0, 0, 9, 9, 9, 0, 0}, "open even 2 unshifted"},
    {Op::Close, {9, 9, 0, 0, 0, 9, 9}, 0, {1, 1}, 0, 0, 0, {9, 9, 0, 0, 0, 9, 9}, "close even 2 unshifted"},
    // Opening's window starts at 0 whatever the image's min: image x = 2..4,
    // window x = 0..2.  Inside both, the image; in the window only, U;
    // outside the window, Lo.  Closing has no window.
    {Op::Open, {11, 12, 13}, 2, {1}, 5, 250, 0, {250, 250, 11, 5, 5, 5}, "open window from 0"},
    {Op::Close, {11, 12, 13}, 2, {1}, 5, 250, 0, {5, 5, 11, 12, 13, 5}, "close has no window"},
    // The lower pad is a real neighbour of the border samples: a valley at
    // the border, narrower than the element, fills up to it.
    {Op::Close, {10, 60, 60, 60}, 0, {1, 1, 1}, 50, 255, 0, {50, 60, 60, 60}, "close fills a valley at the border"},
};

TEST(RowExamples, UInt8) {
    for (const RowCase &c : kRows) {
        const int32_t e[3] = {int32_t(c.element.size()), 1, 1};
        EXPECT_EQ(run(c.op, Type::UInt8, c.image, Box{c.im_min0, int32_t(c.image.size()), 1, 1},
                      Box{c.out_min0, int32_t(c.expected.size()), 1, 1}, c.element, e, c.lower, c.upper),
                  c.expected)
            << c.what;
    }
}

// D = 3 planes, H = 5 rows, element 1x1x3, Lo = 200 above the image of 100.
// Opening's window reaches plane 3, outside the image but an erosion against
// U there; top-hat's stops at plane 2, so plane 3 is Lo.  Plane -1 is Lo for both.
TEST(OpeningWindow, FewerPlanesThanRowsDeepElement) {
    const Box box{0, 1, 5, 3};
    const int32_t e[3] = {1, 1, 3};
    const std::vector<int16_t> im(15, 100);
    const auto open = run(Op::Open, Type::Int16, im, box, box, {1, 1, 1}, e, 200, 32767);
    const auto top = run(Op::TopHat, Type::Int16, im, box, box, {1, 1, 1}, e, 200, 32767);
    for (int i = 0; i < 15; i++) {
        EXPECT_EQ(open[i], i / 5 == 0 ? 200 : 100) << "sample " << i;
        EXPECT_EQ(top[i], i / 5 == 1 ? 0 : -100) << "sample " << i;
    }
}

}  // namespace
