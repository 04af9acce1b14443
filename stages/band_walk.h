// What the files of the band walks share (walk_taps.cpp, walk_box.cpp,
// walk_planes.cpp, walk_runs.cpp): each walk's definition and its schedule
// stand together in its own file, and read the stage through these two
// structs.  band_walks() (element_walk.cpp) defines the rows every walk reads
// and then each walk; schedule_stage() (walk_schedule.cpp) lays out the
// bands and blocks and then hands each walk's branch to its schedule.
#pragma once

#include "Halide.h"

#include <string>

#include "element_walk.h"

namespace morph {

// What a band walk is defined from: the walk's direction, the source, the
// mask and its runs, the element type, the stage's name, its coordinates
// (x, y, z the stage's own; u, v, wv those of a source row) and the walk's
// initial value.
struct BandSite {
    Walk w;
    const Source &src;
    const Strel &se;
    const Runs &runs;
    const Element &el;
    std::string name;
    Halide::Var x, y, z, u, v, wv;
    Halide::Expr init;
    const StageRow &row;
};

// Where a band walk's branch is scheduled: the stage `out`, its band task
// (`yo`), band (`yb`), row (`yi`; on rows narrower than a block, the group
// of rows) and block (`xo`) loops, the lanes, and the chunks of a block of
// a group of rows.
struct BandSchedule {
    Halide::Func out;
    Halide::Var yo, yb, yi, xo;
    int lanes;
    // Chunks and rows of a block on rows narrower than a block
    // (walk_schedule.h).
    int group_chunks, group_rows;
};

// The coordinate a walk reads at offset r from its own coordinate c.
inline Halide::Expr step(Walk w, const Halide::Expr &c, const Halide::Expr &r) {
    return w == Walk::Erode ? c + r : c - r;
}

// A value known to lie in [-c, e - 1 - c], an offset of dimension d: the
// entry point built it from the mask, or it is a reduction variable over
// that range, so the walk need not clamp it.  Every read of a band walk
// goes through this: for a mask of extent 0 (the entry point then never
// takes a band walk, but the definitions stand) the range is empty, and the
// reads then bound nothing beyond what the direct walk bounds.
inline Halide::Expr offset_of(const Halide::Expr &value, const Strel &se, int d) {
    return Halide::unsafe_promise_clamped(value, -se.centre[d], se.extent[d] - 1 - se.centre[d]);
}

// The source row v as a band walk reads it, and the one it reads at offset
// r from its own row y.  Some walks compute rows past the stage's last row
// (the last group of rows narrower than a block, the segments of a band);
// those rows are never stored, and for a source without pad (which holds
// nothing beyond its domain) their reads are kept to the domain.
inline Halide::Expr clamp_row(const BandSite &s, const Halide::Expr &v) {
    if (s.src.pad.defined()) return v;
    const Halide::Expr last = s.src.min[1] + s.src.extent[1] - 1;
    return Halide::unsafe_promise_clamped(Halide::min(Halide::likely(v), last), s.src.min[1], last);
}
inline Halide::Expr source_row(const BandSite &s, const Halide::Expr &r) { return clamp_row(s, step(s.w, s.y, r)); }

// Writes a source's rows into `f` at the coordinates (u, v, wv, more...):
// first the pad everywhere, then the part inside the domain copied over it,
// row by row over the returned domain.
Halide::RDom write_rows(const Source &src, Halide::Func f, const std::vector<Halide::Expr> &more,
                        const Halide::Var &u, const Halide::Var &v, const Halide::Var &wv, const std::string &name);

// The two blocks of the levels that cover a run of l taps whose first
// offset r0 is a (RUNS' runs of two reads, and SEGMENTS for the box's
// row): level k, the largest power of two p = 2^k in l (at most the
// highest of `levels`, that of the longest run), and the
// offsets in source order of the blocks' first samples.  Erosion reads
// x + r0, so a block starts at its least r0; dilation reads x - r0, so at
// its greatest.
struct TwoBlocks {
    Halide::Expr level, first, second;
};
TwoBlocks two_blocks(Walk w, const Halide::Expr &a, const Halide::Expr &l, const Levels &levels);

// The mask's taps as a reduction domain over its runs (t.y the run, t.x the
// tap in it), in the walk's order, and the source sample a tap reads: the
// tap walk, and the fallback of the walks that fold for floating rows with
// a NaN in reach; `rows` are the source's rows as the band wrote them out.
Halide::RDom tap_domain(const BandSite &s, const std::string &name);
Halide::Expr tap_sample(const Halide::Func &rows, const BandSite &s, const Halide::RDom &t);

// The walks' definitions (in their files) ...
void define_taps(BandWalks &b, const BandSite &s);
void define_box(BandWalks &b, const BandSite &s);
void define_planes(BandWalks &b, const BandSite &s);
void define_runs(BandWalks &b, const BandSite &s);
void define_segments(BandWalks &b, const BandSite &s);

// ... and their schedules, within the branch of their walk.
void schedule_taps(const BandWalks &w, const BandSchedule &s);
void schedule_box(const BandWalks &w, const BandSchedule &s);
void schedule_planes(const BandWalks &w, const BandSchedule &s);
void schedule_runs(const BandWalks &w, const BandSchedule &s);
void schedule_segments(const BandWalks &w, const BandSchedule &s);

// Layouts the walks' schedules share (walk_schedule.cpp).
//
// A Func computed once per band, over every row the band reads,
// vectorized along dimension 0, kept in the task's block.
void ring(Halide::Func f, const BandSchedule &s);
// A walk's update `update` over `r` computed per block of chunks of the
// Func it is computed at, its fold over `r` outermost.
void block_fold(Halide::Func walk, int update, const Halide::RDom &r, const BandSchedule &s);
// A walk computed per block of chunks of `at`'s loop `xo`, its updates over
// `r`, one by one.
void block_walk(Halide::Func walk, const std::vector<Halide::RDom> &r, Halide::Func at, const Halide::Var &xo,
                const BandSchedule &s);
// A walk on rows narrower than a block, computed per block of
// `group_chunks` chunks of `group_rows` rows of the stage (its loop `xo`),
// its updates over `r`, one by one.
void rows_walk(Halide::Func walk, const std::vector<Halide::RDom> &r, const BandSchedule &s);
// A ring of folds `fold`, computed block by block from `walk`.
void folded_ring(Halide::Func fold, Halide::Func walk, const Halide::RDom &r, const BandSchedule &s);
// The levels of doubled folds computed at loop `at` of `out`.
void schedule_levels(const Levels &l, const Halide::Func &out, const Halide::Var &at, int lanes);

}  // namespace morph
