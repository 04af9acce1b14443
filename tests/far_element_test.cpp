// Elements that reach far beyond the image, at every erosion, dilation,
// opening and top-hat entry point against the scalar reference.  Such a
// call is handed a compact element in which the taps that read only pad
// values are merged (for opening, those that do so in both stages); the floating types show whether the merge kept the walk's order
// (NaN, and +0 against -0 with pads that tie), the integers whether it
// kept every live tap and the pad wherever some tap read it.
#include <gtest/gtest.h>

#include <functional>

#include "morph_case.h"

namespace tmtest {
namespace {

// An extent as a * (the image's extent) + b, so that an element outgrows
// the image by a set amount at every lane count.
struct Ext {
    int times, plus;
    int32_t of(int32_t image) const { return times * image + plus; }
};

using Rule = std::function<uint8_t(int, int, int, const int32_t e[3], std::mt19937 &)>;

uint8_t all(int, int, int, const int32_t *, std::mt19937 &) { return 1; }

// An ellipsoid filling the element's box.
uint8_t ball(int i, int j, int k, const int32_t *e, std::mt19937 &) {
    auto t = [](int p, int32_t n) { return n > 1 ? (2.0 * p - (n - 1)) / (n - 1) : 0.0; };
    return t(i, e[0]) * t(i, e[0]) + t(j, e[1]) * t(j, e[1]) + t(k, e[2]) * t(k, e[2]) <= 1.0;
}

// The quarter of a ball at and below the centre in dimensions 0 and 1, and
// the one at and above it: their dead taps lie on one side only, where the
// order of the pad among the live taps shows.
uint8_t low_quarter(int i, int j, int k, const int32_t *e, std::mt19937 &r) {
    return i <= (e[0] - 1) / 2 && j <= (e[1] - 1) / 2 && ball(i, j, k, e, r);
}
uint8_t high_quarter(int i, int j, int k, const int32_t *e, std::mt19937 &r) {
    return i >= (e[0] - 1) / 2 && j >= (e[1] - 1) / 2 && ball(i, j, k, e, r);
}

// Sparse taps among bytes that are not taps (0 and 2).
uint8_t sparse(int, int, int, const int32_t *, std::mt19937 &r) { return "\1\0\2\0\0\0"[r() % 6]; }

struct FarCase {
    const char *what;
    int width_chunks, width_extra;  // the image's width: chunks of L, and samples
    int32_t height, planes;
    Ext e[3];
    Rule byte;
    int32_t out_shift[2], out_grow[2];  // the output's min from the image's, and its extent beyond
};

// Elements three times the image's extent and more are handed over at
// about half their size or less (a ball's dead planes, at a third).
const FarCase kCases[] = {
    {"a disk three times the image, narrow rows", 0, 5, 7, 1, {{3, 4}, {3, 2}, {0, 1}}, ball, {0, 0}, {0, 0}},
    {"a disk three times the image, rows of a block and more", 8, 3, 6, 1, {{3, 1}, {3, 3}, {0, 1}}, ball, {0, 0},
     {0, 0}},
    {"a ball on a single plane", 2, 1, 9, 1, {{0, 9}, {0, 9}, {0, 9}}, ball, {0, 0}, {0, 0}},
    {"a tall ball on two planes, the output past the image", 1, 3, 5, 2, {{0, 7}, {0, 7}, {0, 11}}, ball, {-2, 1},
     {5, 3}},
    {"sparse taps, dead on every side", 3, 2, 4, 2, {{3, 11}, {3, 1}, {3, 1}}, sparse, {1, -1}, {-2, 2}},
    {"even extents, a box with holes", 2, 0, 4, 1, {{3, 6}, {3, 2}, {0, 4}}, sparse, {3, 0}, {-1, 0}},
    {"a low quarter ball on a column of three samples: pads before", 0, 1, 3, 1, {{0, 9}, {0, 7}, {0, 1}},
     low_quarter, {0, 0}, {0, 0}},
    {"a high quarter ball on a column of three samples: pads after", 0, 1, 3, 1, {{0, 9}, {0, 7}, {0, 1}},
     high_quarter, {0, 0}, {0, 0}},
    {"a box, the output beside the image: every tap dead", 1, 1, 4, 1, {{1, 3}, {1, 1}, {0, 1}}, all, {400, 0},
     {0, 0}},
};

class FarElements : public testing::TestWithParam<Entry> {};

TEST_P(FarElements, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    const bool floating = e.type == "float32" || e.type == "float64";
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0xfa2);
    // Opening's window counts from 0, not from the image's min: at min 0
    // both stages read the same offsets, elsewhere they differ.
    const int32_t mins[2][3] = {{0, 0, 0}, {-4, 3, 1}};
    for (const FarCase &c : kCases)
        for (const auto &im_min : mins) {
            SCOPED_TRACE(std::string(c.what) + (im_min[0] ? ", image away from 0" : ", image at 0"));
            Shape s{};
            s.im_extent[0] = c.width_chunks * e.lanes + c.width_extra;
            s.im_extent[1] = c.height, s.im_extent[2] = c.planes;
            std::copy(im_min, im_min + 3, s.im_min);
            // The top-hat reads the image at the output's own coordinates, so
            // its output stays the image's.
            const bool moved = e.op != "imtophat";
            for (int d = 0; d < 3; d++) {
                s.se_extent[d] = c.e[d].of(s.im_extent[d]);
                s.out_min[d] = s.im_min[d] + (d < 2 && moved ? c.out_shift[d] : 0);
                s.out_extent[d] = s.im_extent[d] + (d < 2 && moved ? c.out_grow[d] : 0);
            }
            s.row_pad = 3, s.plane_pad = 1, s.out_row_pad = 2, s.out_plane_pad = 0;
            s.mask.resize(size_t(s.se_extent[0]) * s.se_extent[1] * s.se_extent[2]);
            for (int k = 0; k < s.se_extent[2]; k++)
                for (int j = 0; j < s.se_extent[1]; j++)
                    for (int i = 0; i < s.se_extent[0]; i++)
                        s.mask[size_t((k * s.se_extent[1] + j) * s.se_extent[0] + i)] = c.byte(i, j, k, s.se_extent, rng);
            s.lower = random_bound(e.type, rng);
            s.upper = random_bound(e.type, rng);
            check_case(e, s, rng);
            if (floating) s.lower = rng() % 2 ? 0.0 : -0.0, s.upper = rng() % 2 ? 0.0 : -0.0;
            check_case(e, s, rng, Fill::Ties);
        }
}

INSTANTIATE_TEST_SUITE_P(Entries, FarElements, testing::ValuesIn(entries_of({"imerode", "imdilate", "imopen", "imtophat"})), EntryName());

}  // namespace
}  // namespace tmtest
