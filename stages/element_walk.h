// The flat element walk shared by every stage of every operator: erosion is
// the smallest, dilation the greatest sample met while walking the mask.
//
// Only the algorithm lives here: what every walk shares, and the walks'
// definitions, each in its own file with its schedule (walk_direct.cpp,
// walk_taps.cpp, walk_box.cpp, walk_planes.cpp, walk_runs.cpp; see
// walk_schedule.h).  Definitions change values and never a loop; schedules
// lay out loops and never change a value.
#pragma once

#include "Halide.h"

#include <string>
#include <utility>
#include <vector>

#include "walks.h"

namespace morph {

// What the element type changes in the walk.  `storage` is the type the
// pipeline reads and writes; `is_bool` marks the one-byte boolean, which is
// stored as uint8 and counts by bit 0 alone.
struct Element {
    Halide::Type storage;
    bool is_bool = false;

    bool is_float() const { return storage.is_float(); }
    // Greatest and least value of the element type: the initial values of
    // erosion and dilation.  Floating types start from the infinities, not
    // from the largest finite numbers, so that an empty walk says so.
    Halide::Expr greatest() const;
    Halide::Expr least() const;
};

enum class Walk { Erode, Dilate };

// The structuring element as the walk sees it: the centre of each
// dimension and the reduction domain of the offsets r_d, from -c_d with
// extent e_d, restricted to positions whose byte is exactly 1.
struct Strel {
    Halide::Expr extent[3];
    Halide::Expr centre[3];
    Halide::RDom r;
};

// The centre goes through float32 on purpose: for extents beyond 2^24 the
// rounding of that conversion is part of the result.
Halide::Expr centre_of(Halide::Expr extent);

Strel make_strel(const Halide::Func &strel, const Halide::Expr extents[3]);

// Cast of a float64 padding bound to the element type: truncation toward
// zero and wrap, never saturation; NaN and out-of-range values become the
// processor's indefinite integer (only the top bit set) before narrowing.
Halide::Expr pad_cast(const Halide::Expr &bound, const Element &el);

// The image as the walk reads it: a boolean image counts by bit 0 alone,
// in vector loads as well as scalar ones.
Halide::Func image_samples(const Halide::Func &image, const Element &el);

// The padded source: the source's value inside [min, min + extent) in every
// dimension, `pad` anywhere else.  Reads are clamped into the domain so that
// no lane ever leaves it, whatever is then discarded.  A domain that may be
// empty is read at its min, which must then lie inside the source.
Halide::Func padded(const Halide::Func &source, const Halide::Expr mins[3],
                    const Halide::Expr extents[3], const Halide::Expr &pad,
                    const std::string &name, bool may_be_empty = false);

// One accumulator step.  For floating types the accumulator survives only
// a comparison that is true, so a NaN or an equal sample replaces it and the
// walk order shows in the result; strict_float keeps fast-math from
// swapping the operands.
Halide::Expr combine(Walk w, const Halide::Expr &acc, const Halide::Expr &s,
                     const Element &el);

// The walk over `source` (already padded, or unpadded where every read is
// known to be inside): erosion reads source(x + r), dilation source(x - r),
// r2 outermost and r0 innermost, ascending.  `at` names the walk's own
// coordinates: x, y, z for an output, u, v, w for an intermediate.
Halide::Func element_walk(Walk w, const Halide::Func &source, const Strel &se,
                          const Element &el, const std::string &name,
                          const std::vector<Halide::Var> &at);

// ---------------------------------------------------------------------------
// Band walks.  The same walk, reached another way: a row task takes a band
// of output rows and first writes out, once per band row, the rows of the
// source that the band reads, with the pad value already in place beyond
// the domain.  The walk itself then reads nothing but plain rows: no clamp,
// no test, no lane-by-lane load.  Which of the forms below runs is decided
// by the entry point from the mask (walk_schedule.h).

// A source as a band walk reads it: the Func, its domain (which may be
// empty) and the value that stands beyond it.  Without a pad every read
// lies inside and the rows are the source itself; the domain is then what
// the source holds.
struct Source {
    Halide::Func f;
    Halide::Expr min[3], extent[3];
    Halide::Expr pad;  // undefined: every read lies inside
    // The same source as the direct walk reads it, pad and all, at source
    // coordinates: for the few rows a walk must take tap by tap from no
    // rows of its own.
    Halide::Func padded;
};

// The mask's taps as the entry point lists them: runs of adjacent taps
// along dimension 0, in the walk's order (but for RUNS of integer types,
// where the `one_read` runs whose length has an entry of its own in the
// table of folds come first).  The fields of row i, list(field, i), are
// below; `count` is the runs, `longest` the longest, `exact` the entries of
// exact lengths in RUNS' table.
struct Runs {
    Halide::Func list;
    Halide::Expr count, longest, exact, one_read;
};

// The fields of a row: the run's first offset r0, its length, its r1 and
// r2, the entry of RUNS' table it reads, and in row m the length of the
// table's exact entry m.
enum RunField { kR0, kLength, kR1, kR2, kEntry, kExactLength, kRunFields };

// Lanes of the NaN test of a source row: a multiple of every lane count.
constexpr int kNanLanes = 64;
// The lanes those are folded into, a vector apart, before the last few are
// read one by one: one vector of float32 at avx2.
constexpr int kNanFoldLanes = 8;
static_assert(kNanLanes % kNanFoldLanes == 0, "the NaN lanes fold a vector at a time");

// Levels of doubled folds kept per source row: folds of 1, 2, 4, ..., 64
// samples, enough for runs of up to 127 taps (disks up to radius 63; with
// six levels a disk of radius 32 fell to the tap walk, 13 times slower).
// RUNS' table adds entries of exact lengths past them (the entry point
// chooses them).
constexpr int kRunLevels = 7;

// The segment walk keeps one row's levels at a time, so it can afford many:
// folds of up to 2048 samples, for boxes up to 4095 samples wide.
constexpr int kSegmentLevels = 12;

// The stage's own rows, as the entry point describes the buffer it
// writes: a row's first sample and width, the first row, and whether a row
// is narrower than a block of chunks: such rows are walked by other Funcs
// (the `*_rows` forms below), a block then being a few chunks of a few
// rows (walk_schedule.h).
struct StageRow {
    Halide::Expr min, extent;
    Halide::Expr first_row;
    Halide::Expr narrow;
};

// The levels of doubled folds of a band's source rows: one Func whose last
// coordinate is the level k (level 0 the source's rows written out as
// `rows` are, over `copy` where the source has a pad; the levels above it
// one update over `r`, whose outermost dimension is the level, each from
// the one below), and level 0 alone, for the taps; at most `count` levels.
// RUNS' table goes on past its levels with entries of exact lengths
// (`entries` in all), in the same update.  `top` is the highest level
// computed, that of the longest run.
struct Levels {
    Halide::Func f, level0;
    Halide::RDom copy, r;
    int count = 0;
    Halide::Expr top, entries;
};

// Every Func and reduction domain of one stage's band walks, for the
// schedule.  Forms a type cannot use stay undefined.
struct BandWalks {
    StageRow row;
    // The source's rows over the reach of the band, the pad written out:
    // first the whole row is the pad, then the part inside the domain is
    // copied over it (`copy`).  The source itself when it has no pad.
    Halide::Func rows;
    Halide::RDom copy;
    bool copied = false;
    // Any mask: the walk over the runs, tap by tap, from `rows`; on rows
    // narrower than a block, `taps_rows`.
    Halide::Func taps, taps_rows;
    Halide::RDom taps_r, taps_rows_r;
    // Floating types: the source rows that hold a NaN (`row_nan`, over the
    // lanes `nan_lane_r` of `nan_fold`, which folds those of `nan_lanes`,
    // each over `nan_r`) and the output rows with a NaN in reach (`dirty`, over the
    // rows and planes of the mask's box `dirty_r`, or where the pad is
    // NaN).  The walks that fold walk such rows by taps instead.
    Halide::Func nan_lanes, nan_fold, row_nan, dirty;
    Halide::RDom nan_r, nan_lane_r, dirty_r;
    // A mask of ones filling its box: each source row folded along the
    // box's run (`row_walk` over `row_r`, kept in `row_fold`), then the
    // folds of the box's rows and planes (`box`, over `box_r`; floating
    // rows with a NaN in reach by taps, the box's second update over
    // `box_taps_r`).
    Halide::Func row_walk, row_fold, box;
    Halide::RDom row_r, box_r, box_taps_r;
    // The same for integer types, planes first: the planes a plane of the
    // output reads folded into one (`plane_fold`), then its rows
    // (`plane_row_fold`), then the rows' folds.
    Halide::Func plane_walk, plane_fold, plane_row_walk, plane_row_fold, plane_box;
    Halide::RDom plane_r, plane_row_r, plane_box_r;
    // Any mask whose runs are long: each source row folded over 2^k
    // samples for every level k and over the exact lengths of the table
    // (`slab_levels`), then the runs met as one read of the table each and
    // those of two reads (`runs_walk`, an update over each of `runs_r`; on
    // rows narrower than a block `runs_rows` over `runs_rows_r`, integer
    // types only).  Floating rows with a NaN in reach go by taps (the last
    // update of `runs_walk`, over `runs_taps_r`).  RUNS keeps its table for
    // a slab of output planes: each source plane's table is computed once
    // and read by every plane of the slab that reaches it.  SEGMENTS
    // computes its `levels` for one source row at a time.
    Levels levels, slab_levels;
    Halide::Func runs_walk, runs_rows;
    std::vector<Halide::RDom> runs_r, runs_rows_r;
    Halide::RDom runs_taps_r;
    // A mask of ones filling a box of one plane: each source row folded
    // along the box's row from the levels (`segment_rows`, row by row, each
    // row's levels computed just before it), then per band the rows' folds
    // from the start of their segment of e1 rows (`prefix`, an update over
    // the band's rows `prefix_r`) and to its end (`suffix`, over
    // `suffix_r`, backwards); an output row reads one of each (`segments`;
    // floating rows with a NaN in reach by taps from the padded source, its
    // update over `segments_taps_r`; on rows narrower than a block
    // `segments_rows`, the same two reads, for floating types only where
    // no NaN is in reach of the call).
    // Its bands are `segment_band` output rows high (walk_schedule.h).
    Halide::Func segment_rows, prefix, suffix, segments, segments_rows;
    Halide::Expr segment_band;
    Halide::RDom prefix_r, suffix_r, segments_taps_r;
};

// One band walk of a stage: the Func that computes it, and the one that
// computes it on rows narrower than a block (undefined where the walk
// does not take such rows).
struct BandCase {
    tm_walk walk;
    Halide::Func wide, narrow;
};

// The band walks of a stage in the order of walks.h (undefined where the
// element type has no such walk).  The algorithm selects among them and
// the schedule branches on them from this one list.
std::vector<BandCase> band_cases(const BandWalks &b);

// Builds the band walks of one stage.  The rows copy the source's whole
// domain in dimension 0: the entry point cuts the image (and opening's
// window) to what the call reads.
BandWalks band_walks(Walk w, const Source &src, const Strel &se, const Runs &runs, const Element &el,
                     const std::string &name, const std::vector<Halide::Var> &at, const StageRow &row);

}  // namespace morph
