// Long rows at every entry point against the scalar reference.  The random
// suites keep rows within a few vectors; rows of 64 vectors and more run the
// floating types through blocks of chunks walked side by side, whose last
// block moves back inwards and whose border blocks are tested whole.  Each
// case puts a boundary of that layout somewhere else in the row.
#include <gtest/gtest.h>

#include "morph_case.h"

namespace tmtest {
namespace {

// Lengths are a * L + b for the entry point's lane count L.
struct Len {
    int vectors, extra;
    int of(int lanes) const { return vectors * lanes + extra; }
};

struct RowCase {
    const char *what;
    Len width;                   // the image's width
    int out_before, out_after;   // output min = image min - before, and it ends `after` past the image
    Len e0;                      // element extent in x; e1 = 3, e2 = 2
    int32_t im_min0;
};

const RowCase kRows[] = {
    {"one sample short of 64 vectors", {64, -1}, 0, 0, {0, 5}, 0},
    {"exactly 64 vectors", {64, 0}, 0, 0, {0, 5}, 0},
    {"64 vectors and one sample: a last block moved back almost whole", {64, 1}, 0, 0, {0, 3}, -5},
    {"a last block moved back by part of a chunk", {64, 21}, 0, 0, {0, 7}, 4},
    {"an even element, reaching one way further", {70, 0}, 0, 0, {0, 4}, 0},
    {"an element wider than two chunks: border regions of several chunks", {72, 7}, 0, 0, {2, 3}, -9},
    {"an output reaching past both ends of the image", {80, 3}, 5, 6, {0, 5}, -3},
    {"an output starting and ending inside the image", {96, 5}, -11, -13, {0, 6}, 2},
};

class WideRows : public testing::TestWithParam<Entry> {};

TEST_P(WideRows, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    const bool residue = e.op == "imtophat" || e.op == "imbothat";
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0x5eed);
    for (const RowCase &c : kRows) {
        SCOPED_TRACE(c.what);
        const int L = e.lanes;
        Shape s{};
        s.im_min[0] = c.im_min0, s.im_min[1] = -1, s.im_min[2] = 2;
        s.im_extent[0] = c.width.of(L), s.im_extent[1] = 4, s.im_extent[2] = 3;
        s.se_extent[0] = c.e0.of(L), s.se_extent[1] = 3, s.se_extent[2] = 2;
        // Residues read the image at the output's coordinates: keep those inside.
        int before = residue ? std::min(c.out_before, 0) : c.out_before;
        int after = residue ? std::min(c.out_after, 0) : c.out_after;
        s.out_min[0] = s.im_min[0] - before;
        s.out_extent[0] = s.im_extent[0] + before + after;
        for (int d = 1; d < 3; d++) s.out_min[d] = s.im_min[d], s.out_extent[d] = s.im_extent[d];
        s.row_pad = 3, s.plane_pad = 1, s.out_row_pad = 2, s.out_plane_pad = 0;
        s.mask.resize(size_t(s.se_extent[0]) * s.se_extent[1] * s.se_extent[2]);
        const uint8_t bytes[] = {0, 1, 1, 1, 1, 2};
        for (auto &m : s.mask) m = bytes[rng() % 6];
        s.lower = random_bound(e.type, rng);
        s.upper = random_bound(e.type, rng);
        check_case(e, s, rng);
    }
}

INSTANTIATE_TEST_SUITE_P(Entries, WideRows,
                         testing::ValuesIn(entries_of({"imerode", "imdilate", "imopen", "imclose", "imtophat", "imbothat"})),
                         EntryName());

}  // namespace
}  // namespace tmtest
