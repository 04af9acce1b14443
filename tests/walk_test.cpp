// Every operator at every entry point against the scalar reference,
// on random shapes chosen to cross every boundary the pipelines have: the
// narrow/wide threshold, the shifted last chunk, outputs beyond the image,
// negative mins, masks larger than the image, non-dense strides, pad
// values that wrap, overflow or are NaN, and coordinates that wrap at the
// ends of the 32-bit range.
#include <gtest/gtest.h>

#include <cstdlib>

#include "morph_case.h"

namespace tmtest {
namespace {

int32_t pick(std::mt19937 &rng, int32_t lo, int32_t hi) {
    return lo + int32_t(rng() % uint32_t(hi - lo + 1));
}

// A random valid call: a wide image (wider than L) needs an output at least
// L wide, as the frame refuses anything narrower there.
Shape random_shape(const Entry &e, std::mt19937 &rng, int index) {
    const int L = e.lanes;
    Shape s{};
    const int32_t widths[] = {L - 1, L, L + 1, 2 * L + 1, pick(rng, 1, 4 * L + 3)};
    const int dims = 1 + index % 3;
    s.im_extent[0] = std::max(1, widths[index % 5]);
    s.im_extent[1] = dims > 1 ? pick(rng, 1, 7) : 1;
    s.im_extent[2] = dims > 2 ? pick(rng, 1, 5) : 1;
    for (int d = 0; d < 3; d++) {
        s.im_min[d] = rng() % 4 == 0 ? 0 : pick(rng, -6, 6);
        s.se_extent[d] = d < dims ? pick(rng, rng() % 8 == 0 ? 0 : 1, std::min(6, s.im_extent[d] + 2)) : 1;
        // Outputs overlap the image, reach past it or lie beside it.
        s.out_min[d] = s.im_min[d] + pick(rng, -4, 4);
        s.out_extent[d] = d < dims ? pick(rng, 0, s.im_extent[d] + 4) : 1;
    }
    // The residues read the image at the output's own coordinates, so their
    // output lies inside the image.
    if (e.op == "imtophat" || e.op == "imbothat")
        for (int d = 0; d < 3; d++) {
            s.out_min[d] = s.im_min[d] + pick(rng, 0, s.im_extent[d] - 1);
            s.out_extent[d] = pick(rng, 0, s.im_min[d] + s.im_extent[d] - s.out_min[d]);
        }
    // An empty output together with an element of extent 0 in the same
    // dimension gives a two-stage operator a range of -1 samples there,
    // which as an unsigned size is refused or runs out of memory: a call no
    // random suite should make.
    if (e.op != "imerode" && e.op != "imdilate")
        for (int d = 0; d < 3; d++)
            if (s.out_extent[d] == 0 && s.se_extent[d] == 0) s.se_extent[d] = 1;
    if (s.im_extent[0] > L && s.out_extent[0] < L) {
        s.out_extent[0] = std::min(L + pick(rng, 0, L), s.im_extent[0]);
        if (e.op == "imtophat" || e.op == "imbothat") s.out_min[0] = s.im_min[0] + pick(rng, 0, s.im_extent[0] - s.out_extent[0]);
    }
    s.row_pad = pick(rng, 0, 3);
    s.plane_pad = pick(rng, 0, 5);
    s.out_row_pad = pick(rng, 0, 2);
    s.out_plane_pad = pick(rng, 0, 3);
    const size_t taps = size_t(s.se_extent[0]) * s.se_extent[1] * s.se_extent[2];
    s.mask.resize(taps);
    const uint8_t bytes[] = {0, 1, 1, 1, 2, 255};
    for (auto &m : s.mask) m = bytes[rng() % 6];
    s.lower = random_bound(e.type, rng);
    s.upper = random_bound(e.type, rng);
    // One call in four moves image and output together to an end of the
    // 32-bit range, the image ending on 2^31 - 1 or starting at -2^31 (or
    // a few samples short), so that the output, the element's reach and
    // the intermediate run past it and wrap.  Opening's intermediate is
    // held to a window at 0: a box that wraps there is gigabytes (the size
    // report's own tests have those), so the two openings stay clear of
    // the ends and see only a window far away.
    const bool opening = e.op == "imopen" || e.op == "imtophat";
    const int32_t clear = opening ? 64 : 0;
    if (index % 4 == 3)
        for (int d = 0; d < 3; d++) {
            const int64_t first = s.im_min[d], last = first + s.im_extent[d] - 1;
            const int64_t to = rng() % 2 ? int64_t(INT32_MAX) - clear - pick(rng, 0, 4) - last
                                         : int64_t(INT32_MIN) + clear + pick(rng, 0, 4) - first;
            s.im_min[d] = int32_t(first + to);
            s.out_min[d] = int32_t(uint32_t(s.out_min[d]) + uint32_t(int64_t(to)));
        }
    return s;
}

class Walk : public testing::TestWithParam<Entry> {};

TEST_P(Walk, MatchesReferenceOnRandomShapes) {
    const Entry &e = GetParam();
    if (!e.cpu_has_level()) GTEST_SKIP() << "this processor lacks level " << e.level_word;
    std::mt19937 rng(std::hash<std::string>()(e.name));
    int failures = 0;
    const int rounds = std::getenv("TM_SOAK") ? 5000 : 200;
    for (int i = 0; i < rounds && failures < 3; i++)
        if (!check_case(e, random_shape(e, rng, i), rng)) failures++;
}

INSTANTIATE_TEST_SUITE_P(Entries, Walk,
                         testing::ValuesIn(entries_of({"imerode", "imdilate", "imopen", "imclose", "imtophat", "imbothat"})),
                         EntryName());

}  // namespace
}  // namespace tmtest
