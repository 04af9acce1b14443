// Long rows at every entry point against the scalar reference.  Rows at
// least one chunk wide go to the band walks (below one block in groups of
// rows of two chunks), chosen by the mask: each mask below aims at one of
// them (the tap walk over runs, also a list of more than a thousand, the
// box walk, the box walk planes first, the walks of doubled folds and of
// segments), on images whose row bands, blocks and borders fall
// differently, with data that stresses the type, with data full of ties
// (for the floating types +0 against -0, where the grouping of a walk would
// show) and, for the floating types, ties with a NaN in a few rows.
// Floating boxes of up to 9 taps are walked by taps, so the boxes meant for
// the box walk have more.
// Rows of 64 vectors and more run the floating types through blocks of
// chunks walked side by side, whose last block moves back inwards and whose
// border blocks are tested whole: each row case puts a boundary of that
// layout somewhere else in the row.
#include <gtest/gtest.h>

#include <cmath>

#include <functional>
#include <initializer_list>

#include "morph_case.h"

namespace tmtest {
namespace {

// The output around the image: it starts before[d] samples ahead of the
// image and ends after[d] past it in dimensions 0 and 1 (negative counts
// stay inside), over the image's planes.  Residues read the image at the
// output's own coordinates, so theirs never leaves it.  Rows and planes of
// both buffers are padded, so that neither is dense beyond dimension 0.
void place_output(const Entry &e, Shape &s, const int32_t before[2], const int32_t after[2]) {
    const bool residue = e.op == "imtophat" || e.op == "imbothat";
    for (int d = 0; d < 3; d++) {
        const int32_t b = d == 2 ? 0 : residue ? std::min(before[d], 0) : before[d];
        const int32_t a = d == 2 ? 0 : residue ? std::min(after[d], 0) : after[d];
        s.out_min[d] = s.im_min[d] - b;
        s.out_extent[d] = s.im_extent[d] + b + a;
    }
    s.row_pad = 5, s.plane_pad = 2, s.out_row_pad = 3, s.out_plane_pad = 1;
}

void random_bounds(const Entry &e, Shape &s, std::mt19937 &rng) {
    s.lower = random_bound(e.type, rng);
    s.upper = random_bound(e.type, rng);
}

const std::vector<Entry> kEntries =
    entries_of({"imerode", "imdilate", "imopen", "imclose", "imtophat", "imbothat"});

// A mask of extents e0 x e1 x e2 from a rule on its coordinates.
struct MaskCase {
    const char *what;
    int32_t e[3];
    std::function<uint8_t(int, int, int, std::mt19937 &)> byte;
};

uint8_t one(int, int, int, std::mt19937 &) { return 1; }

const MaskCase kMasks[] = {
    {"3 x 3 box", {3, 3, 1}, one},
    {"1 x 1 box", {1, 1, 1}, one},
    {"row of 11", {11, 1, 1}, one},
    {"column of 5", {1, 5, 1}, one},
    {"6 x 2 box: even extents reach one way further", {6, 2, 1}, one},
    {"3 x 3 x 3 cube", {3, 3, 3}, one},
    {"2 x 3 x 2 box", {2, 3, 2}, one},
    {"5 x 5 box with a hole: taps", {5, 5, 1}, [](int i, int j, int, std::mt19937 &) -> uint8_t { return i == 2 && j == 2 ? 0 : 1; }},
    {"5 x 5 box with a 2 in a corner: taps", {5, 5, 1}, [](int i, int j, int, std::mt19937 &) -> uint8_t { return i == 4 && j == 0 ? 2 : 1; }},
    {"disk of 7", {7, 7, 1}, [](int i, int j, int, std::mt19937 &) -> uint8_t { return (i - 3) * (i - 3) + (j - 3) * (j - 3) <= 9; }},
    {"disk of 15: doubled folds", {15, 15, 1},
     [](int i, int j, int, std::mt19937 &) -> uint8_t { return (i - 7) * (i - 7) + (j - 7) * (j - 7) <= 49; }},
    {"row of 31 with a gap: runs of 16 and 14, the longest folds hold", {31, 1, 1},
     [](int i, int, int, std::mt19937 &) -> uint8_t { return i != 16; }},
    {"ball of runs across planes, off centre", {8, 5, 3},
     [](int i, int j, int k, std::mt19937 &) -> uint8_t { return (i - 3) * (i - 3) + 4 * (j - 2) * (j - 2) + 9 * (k - 1) * (k - 1) <= 16; }},
    {"random bytes across planes", {6, 4, 2}, [](int, int, int, std::mt19937 &r) -> uint8_t { return "\0\1\1\2"[r() % 4]; }},
    {"one tap off the centre", {5, 3, 2}, [](int i, int j, int k, std::mt19937 &) -> uint8_t { return i == 4 && j == 0 && k == 1; }},
    {"tall column: a band taller than 16 rows", {1, 23, 1}, one},
    {"column of 40: a ring deeper than two bands", {1, 40, 1}, one},
    {"column of 63: a band and the deepest reach its ring keeps", {1, 63, 1}, one},
    {"row of 50 with a gap: runs of 40 and 9 read through folds of 32", {50, 1, 1},
     [](int i, int, int, std::mt19937 &) -> uint8_t { return i != 40; }},
    {"column of 100: segments deeper than a band", {1, 100, 1}, one},
    {"7 x 10 box by segments: the band's last segment partial", {7, 10, 1}, one},
    {"15 x 15 box by segments", {15, 15, 1}, one},
    {"column of 66 with a gap: reaches further than a band, by taps", {1, 66, 1},
     [](int, int j, int, std::mt19937 &) -> uint8_t { return j != 30; }},
    {"row of 100 with a gap: runs of 70 and 29 read through folds of 64", {100, 1, 1},
     [](int i, int, int, std::mt19937 &) -> uint8_t { return i != 70; }},
    {"runs of 3, 5 and 6 off centre, each length in several rows: one read of an exact fold each", {12, 20, 1},
     [](int i, int j, int, std::mt19937 &) -> uint8_t { return i >= j % 5 && i < j % 5 + "\3\5\6"[j % 3]; }},
    {"5 x 81 mask of runs of 5 and 3: taller than a band, by its runs", {5, 81, 1},
     [](int i, int j, int, std::mt19937 &) -> uint8_t { return j % 2 == 0 || (i > 0 && i < 4); }},
    {"checkerboard of 1088 runs: a long list walked by taps", {64, 34, 1},
     [](int i, int j, int, std::mt19937 &) -> uint8_t { return (i + j) % 2; }},
};

// Image shapes, with the block width B = 8 L of the entry point: widths at
// and around whole blocks, and below one block (blocks of two chunks, an
// odd count of chunks leaving the last block one),
// heights across band boundaries, outputs that reach past the image or
// start inside it.
struct ShapeCase {
    const char *what;
    int32_t width_blocks, width_chunks, width_extra, height, planes;
    int32_t out_before, out_after, out_rows_before, out_rows_after;
    int32_t im_min[3];
};

const ShapeCase kShapes[] = {
    {"exactly one block", 1, 0, 0, 33, 2, 0, 0, 0, 0, {0, 0, 0}},
    {"one block and a bit, output beyond the image", 1, 0, 5, 40, 3, 3, 4, 2, 3, {-7, 5, -1}},
    {"two blocks less one, output inside the image", 2, 0, -1, 70, 1, -6, -9, -2, -5, {11, -3, 2}},
    {"one sample short of a block: chunks", 1, 0, -1, 35, 2, 0, 0, 1, 0, {3, 0, 0}},
    {"one chunk and a bit, output beyond the image, two bands", 0, 1, 3, 66, 2, 2, 1, 1, 2, {-2, 1, 0}},
    {"three chunks and a half, output inside the image", 0, 3, 9, 34, 1, -3, -2, -1, -1, {0, 0, 0}},
    {"two chunks and a bit, output of three chunks", 0, 2, 5, 37, 2, 1, 0, 0, 1, {4, -2, 0}},
};

class BandWalks : public testing::TestWithParam<Entry> {};

TEST_P(BandWalks, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    const bool floating = e.type == "float32" || e.type == "float64";
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0xb4d5);
    const int block = 8 * e.lanes;
    for (const MaskCase &m : kMasks) {
        for (const ShapeCase &sc : kShapes) {
            SCOPED_TRACE(std::string(m.what) + "; " + sc.what);
            Shape s{};
            s.im_extent[0] = sc.width_blocks * block + sc.width_chunks * e.lanes + sc.width_extra;
            s.im_extent[1] = sc.height, s.im_extent[2] = sc.planes;
            std::copy(sc.im_min, sc.im_min + 3, s.im_min);
            const int32_t before[2] = {sc.out_before, sc.out_rows_before}, after[2] = {sc.out_after, sc.out_rows_after};
            place_output(e, s, before, after);
            for (int d = 0; d < 3; d++) s.se_extent[d] = m.e[d];
            s.mask.resize(size_t(m.e[0]) * m.e[1] * m.e[2]);
            for (int k = 0; k < m.e[2]; k++)
                for (int j = 0; j < m.e[1]; j++)
                    for (int i = 0; i < m.e[0]; i++) s.mask[size_t((k * m.e[1] + j) * m.e[0] + i)] = m.byte(i, j, k, rng);
            random_bounds(e, s, rng);
            check_case(e, s, rng);
            // Ties, with pads that may tie with the image as well; for the
            // floating types also with a NaN in a few rows, which the walks
            // that fold must walk by taps and the rows beside them not.
            if (floating) s.lower = rng() % 2 ? 0.0 : -0.0, s.upper = rng() % 2 ? 0.0 : -0.0;
            check_case(e, s, rng, Fill::Ties);
            if (floating) check_case(e, s, rng, Fill::SparseNan);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Entries, BandWalks, testing::ValuesIn(kEntries), EntryName());

// More than a thousand runs of three taps across rows and planes, read
// through doubled folds: the list of runs beyond its former bound of 1024.
// The integer types at the best level only: the reference walks every tap.
class LongRunLists : public testing::TestWithParam<Entry> {};

TEST_P(LongRunLists, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0x1080);
    Shape s{};
    s.im_extent[0] = 8 * e.lanes + 5, s.im_extent[1] = 24, s.im_extent[2] = 4;
    s.im_min[0] = -3, s.im_min[1] = 2, s.im_min[2] = 1;
    const int32_t before[2] = {2, 1}, after[2] = {3, 2};
    place_output(e, s, before, after);
    const int32_t m[3] = {12, 24, 15};  // 24 x 15 rows of 3 runs: 1080
    std::copy(m, m + 3, s.se_extent);
    s.mask.resize(size_t(m[0]) * m[1] * m[2]);
    for (size_t i = 0; i < s.mask.size(); i++) s.mask[i] = i % 4 != 3;
    random_bounds(e, s, rng);
    check_case(e, s, rng);
}

// The entry points of the best level for a few element types: the suites
// whose reference walks are long run at those alone.
std::vector<Entry> best_level_entries(std::initializer_list<const char *> types) {
    std::vector<Entry> r;
    for (const Entry &e : kEntries)
        for (const char *t : types)
            if (e.level_word == "avx2" && e.type == t) r.push_back(e);
    return r;
}

std::vector<Entry> long_run_entries() { return best_level_entries({"uint8", "int16", "uint32"}); }

INSTANTIATE_TEST_SUITE_P(Entries, LongRunLists, testing::ValuesIn(long_run_entries()), EntryName());

// Masks across planes read through doubled folds walk slabs of output
// planes down each band, from the levels of every source plane the slab
// reads: volumes deeper than a slab, whose last slab moves back to end on
// the last plane, of rows of a block and more and of a few chunks, and an
// opening whose intermediate has fewer planes than its output (more planes
// than rows), where the first stage's slabs are cut to the intermediate.
class SlabsOfPlanes : public testing::TestWithParam<Entry> {};

TEST_P(SlabsOfPlanes, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0x51ab);
    struct Volume {
        const char *what;
        int32_t width_chunks, width_extra, height, planes;
    };
    const Volume volumes[] = {
        {"rows of a block and more, 13 planes", 8, 5, 21, 13},
        {"rows of three chunks, the last pair of them one chunk, 11 planes", 2, 2, 18, 11},
        {"more planes than rows", 8, 1, 4, 9},
    };
    for (const Volume &vol : volumes) {
        SCOPED_TRACE(vol.what);
        Shape s{};
        s.im_extent[0] = vol.width_chunks * e.lanes + vol.width_extra;
        s.im_extent[1] = vol.height, s.im_extent[2] = vol.planes;
        s.im_min[0] = 2, s.im_min[1] = -1, s.im_min[2] = 3;
        const int32_t before[2] = {1, 2}, after[2] = {2, 1};
        place_output(e, s, before, after);
        // An ellipsoid of 9 x 5 x 5 (runs of up to 9 taps over 5 planes).
        const int32_t m[3] = {9, 5, 5};
        std::copy(m, m + 3, s.se_extent);
        s.mask.resize(size_t(m[0]) * m[1] * m[2]);
        for (int k = 0; k < m[2]; k++)
            for (int j = 0; j < m[1]; j++)
                for (int i = 0; i < m[0]; i++)
                    s.mask[size_t((k * m[1] + j) * m[0] + i)] = (i - 4) * (i - 4) + 4 * (j - 2) * (j - 2) + 4 * (k - 2) * (k - 2) <= 20;
        random_bounds(e, s, rng);
        check_case(e, s, rng);
    }
}

INSTANTIATE_TEST_SUITE_P(Entries, SlabsOfPlanes, testing::ValuesIn(long_run_entries()), EntryName());

// Boxes walked by segments take bands of rows by their height (64 to 256
// rows) and rows folded through up to twelve levels: images tall enough to
// hold several such bands and a partial last one, with the output reaching
// past the image's rows, under boxes of heights that give each band height
// and of widths beyond 63 samples, on rows of a block and more and rows
// of two chunks; the floating types also with ties, with a NaN in a few
// rows and with NaN pads (float64 on rows of two chunks only, where the
// entry point looks for NaN itself).
class SegmentBands : public testing::TestWithParam<Entry> {};

TEST_P(SegmentBands, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0x5e65);
    const int32_t boxes[][2] = {{3, 17}, {5, 33}, {2, 49}, {1, 100}, {129, 2}, {70, 20}};
    for (int i = 0; i < 12; i++) {
        // Every box on rows of a block and more, and again on rows of two
        // chunks (segments there too, for floating types where no NaN is in
        // reach: the sparse NaN in the image, or in the pads, send them to
        // the taps).
        if (e.type == "float64" && i < 6) continue;
        const int32_t *box = boxes[i % 6];
        const int32_t width = i < 6 ? 8 * e.lanes + 3 : 2 * e.lanes + 1;
        SCOPED_TRACE("box " + std::to_string(box[0]) + " x " + std::to_string(box[1]) + ", rows of " +
                     std::to_string(width));
        Shape s{};
        s.im_extent[0] = width, s.im_extent[1] = 301, s.im_extent[2] = 2;
        s.im_min[0] = 1, s.im_min[1] = -4, s.im_min[2] = 0;
        const int32_t before[2] = {1, 3}, after[2] = {2, 5};
        place_output(e, s, before, after);
        s.se_extent[0] = box[0], s.se_extent[1] = box[1], s.se_extent[2] = 1;
        s.mask.assign(size_t(box[0]) * box[1], 1);
        random_bounds(e, s, rng);
        check_case(e, s, rng);
        if (e.type != "float32" && e.type != "float64") continue;
        s.lower = rng() % 2 ? 0.0 : -0.0, s.upper = rng() % 2 ? 0.0 : -0.0;
        check_case(e, s, rng, Fill::Ties);
        check_case(e, s, rng, Fill::SparseNan);
        s.lower = s.upper = std::nan("");
        check_case(e, s, rng, Fill::Ties);
    }
}

INSTANTIATE_TEST_SUITE_P(Entries, SegmentBands, testing::ValuesIn(best_level_entries({"uint8", "int16", "float32", "float64"})),
                         EntryName());

// The walks that fold look for NaN in each source row lane group by lane
// group and fold the groups' flags: a single NaN at every position of a
// row of two groups and a part, in the first, a middle and the last row,
// must send the rows that reach it to the taps.  A 3 x 5 box: folded by
// rows for the floating types, on wide rows.
class NanAnywhere : public testing::TestWithParam<Entry> {};

TEST_P(NanAnywhere, MatchReference) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0x7a7a);
    Shape s{};
    s.im_extent[0] = 133, s.im_extent[1] = 7, s.im_extent[2] = 1;
    const int32_t none[2] = {0, 0};
    place_output(e, s, none, none);
    s.se_extent[0] = 3, s.se_extent[1] = 5, s.se_extent[2] = 1;
    s.mask.assign(15, 1);
    s.lower = s.upper = 0.0;
    for (int32_t row : {0, 3, 6})
        for (int32_t at = 0; at < s.im_extent[0]; at++) {
            SCOPED_TRACE("a NaN at " + std::to_string(at) + " of row " + std::to_string(row));
            if (!check_case(e, s, rng, Fill::Ties, int64_t(row) * (s.im_extent[0] + s.row_pad) + at)) return;
        }
}

INSTANTIATE_TEST_SUITE_P(Entries, NanAnywhere, testing::ValuesIn(best_level_entries({"float32", "float64"})),
                         EntryName());

// Row lengths are a * L + b for the entry point's lane count L.
struct Len {
    int vectors, extra;
    int of(int lanes) const { return vectors * lanes + extra; }
};

struct RowCase {
    const char *what;
    Len width;                  // the image's width
    int out_before, out_after;  // samples the output reaches before and past the image
    Len e0;                     // element extent in x; e1 = 3, e2 = 2
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
    std::mt19937 rng(std::hash<std::string>()(e.name) ^ 0x5eed);
    for (const RowCase &c : kRows) {
        SCOPED_TRACE(c.what);
        Shape s{};
        s.im_min[0] = c.im_min0, s.im_min[1] = -1, s.im_min[2] = 2;
        s.im_extent[0] = c.width.of(e.lanes), s.im_extent[1] = 4, s.im_extent[2] = 3;
        s.se_extent[0] = c.e0.of(e.lanes), s.se_extent[1] = 3, s.se_extent[2] = 2;
        const int32_t before[2] = {c.out_before, 0}, after[2] = {c.out_after, 0};
        place_output(e, s, before, after);
        const uint8_t bytes[] = {0, 1, 1, 1, 1, 2};
        s.mask.resize(size_t(s.se_extent[0]) * s.se_extent[1] * s.se_extent[2]);
        for (auto &m : s.mask) m = bytes[rng() % 6];
        random_bounds(e, s, rng);
        check_case(e, s, rng);
    }
}

INSTANTIATE_TEST_SUITE_P(Entries, WideRows, testing::ValuesIn(kEntries), EntryName());

}  // namespace
}  // namespace tmtest
