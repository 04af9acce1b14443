// How a walk's loops are laid out.  Nothing here changes a value.
//
// Every stage is a Func over x, y, z whose planes and rows run as two
// nested parallel loops (one task per plane, inside it one task per row, or
// per band of rows); along a row, the walk of one block of chunks (or, on a
// narrow image, one sample) finishes with its accumulators in registers
// before the next one starts.
//
// Each walk of stages/walks.h has its definition and its schedule in a file
// of its own: walk_direct.cpp (the padded source in place, one task per
// row), walk_taps.cpp, walk_box.cpp, walk_planes.cpp and walk_runs.cpp (the
// band walks: one task per band of rows, which writes out the rows its
// band reads, and their folds, and walks blocks of chunks over them; what
// they share is in band_walk.h).  schedule_stage() lays out what every
// branch shares and gives each walk's branch to its file.
#pragma once

#include "Halide.h"

#include "element_walk.h"
#include "walks.h"

namespace morph {

// Chunks walked side by side in a band walk's block: that many
// accumulators in registers, the walk's own bookkeeping paid once per block.
// A row of one to two blocks walks two (the last moved back inwards), up to
// twice its samples; blocks of 4 chunks would halve that waste, but cost
// 1.2-1.5 times as much on wide rows (uint8 and float32 disks, 1 thread),
// and gained no more than 10 % on 257- to 384-wide rows.
constexpr int kBlockChunks = 8;

// Rows narrower than a block but at least one chunk wide (a crop, a dask
// block, a microscopy volume's row) are walked in blocks of kGroupChunks
// chunks of kGroupRows rows instead: as many accumulators as a block of a
// wide row.  A group's rows read the band's rows at offsets that differ by
// the band's row stride, one address per row and run (a few instructions
// each), while its chunks differ by constants; two chunks of four rows
// pay half the addresses of one chunk of eight (uint8, 1 thread: 3-D balls
// on 128^3 of radius 7 / 15 / 25 0.66 / 0.62 / 0.54 of the time).  A stage
// whose source has no pad walks one chunk of kGroupChunks * kGroupRows rows
// instead (walk_schedule.cpp says why).
constexpr int kGroupRows = 4;
constexpr int kGroupChunks = 2;

// Output rows of one band.  A band computes every row it reads, of the
// source and of its folds, once, then walks its rows; the rows it shares
// with the band before it are computed again, so a band's cost grows by
// (kBandRows + reach) / kBandRows.  (Halide's sliding window would
// interleave the two, a row at a time, but the guard on a band's rows past
// the output's end keeps it from seeing that the rows move monotonically.)
// 64 rows keep that growth under 2 for masks reaching 63 rows (a disk of
// radius 31).  A multiple of either group's rows.
constexpr int kBandRows = 64;
static_assert(kBandRows % (kGroupRows * kGroupChunks) == 0, "a band is whole groups of rows");

// SEGMENTS computes the rows its band reads the same way, so its bands grow
// with the box's height: about four times the height, in whole bands of
// kBandRows, up to this many (a 63-row box: 256 rows, each source row
// computed 1.24 times instead of 1.97; measured on 4096^2, 1 thread: uint8
// 63 x 63 square 12.9 -> 7.6 ms, float32 93 -> 50 ms).
constexpr int kSegmentBands = 4;

// Source rows whose levels of doubled folds (RUNS, SEGMENTS) are computed
// together, level after level: a level of a row narrower than a block is a
// vector or a few, and the next level of the same row, read just as it is
// stored, waits for the stores to be through (uint8, 1 thread: 15 x 15 disk
// on 48-wide rows 0.88 of the time, 3-D balls of radius 3 to 15 on 128^3
// 0.93-0.97; wide rows unchanged).
constexpr int kLevelRows = 4;

// Rows a band keeps of every source row and fold it writes out: a band's
// rows and the mask's reach across rows.  The entry point sizes a band's
// working memory by this many rows at least (and by the band and the reach
// where they are more), and takes a band walk wherever that fits.
constexpr int kRingRows = 128;

struct Branch {
    Halide::Expr wide;  // the image is wider than one vector
    int lanes;          // L: the natural vector size of the element type
    Halide::Expr walk;  // the walk the entry point chose (walks.h)
    // The output planes a task of RUNS walks in order, keeping the levels
    // of the source planes they read (the entry point sizes it by the
    // band's working memory; at least 1).
    Halide::Expr slab_planes;
    Halide::Expr takes(tm_walk w) const { return walk == static_cast<int>(w); }
};


// `out` is the stage's Func, an output of the pipeline (its buffer's width
// picks the block branch); `walk` the direct walk whose pure and update
// definitions are computed per chunk (or block) of `out`.  In the wide
// branch the row is split by L with a shift-inwards tail, so every chunk is
// L full lanes and a short last one moves back to end on the row's last
// sample; blocks of chunks are split and moved back the same way.  `bands`,
// where given, are the stage's band walks: `out` selects among them and
// `walk` by the branch's walk (band_cases).
void schedule_stage(Halide::Func out, Halide::Func walk, const Branch &b, const BandWalks *bands = nullptr);

// The direct walk's schedule (walk_direct.cpp), in the stage `d` of `out`
// that computes it: the whole of `out` for a stage without band walks,
// its branch otherwise.
void schedule_direct(Halide::Stage d, Halide::Func out, Halide::Func walk, const Branch &b);

}  // namespace morph
