// SEGMENTS: the band walk of a box by running folds, whose cost per sample
// grows with the logarithm of the box's width and not with its height.
// Each source row is folded along the box's row as two blocks of the
// levels of doubled folds (the largest power of two in the width, placed
// at the row's two ends, as RUNS meets a run).  Across rows, the band's
// source rows are cut into segments of e1 rows from the band's first one,
// and each row keeps the fold from its segment's first row to itself
// (`prefix`) and from itself to its segment's last row (`suffix`).  The e1
// rows an output row reads are the end of one segment and the start of
// the next (or one whole segment): the suffix of the first row and the
// prefix of the last.
//
// A row's levels are needed only for its own fold, so they are computed
// row by row just before it and stay in the nearest cache; a band's levels
// all at once would pass through memory level by level.  Rows narrower than
// a block take theirs kLevelRows rows at a time (walk_schedule.h; uint8
// 15 x 15 square on 48- to 128-wide rows: 0.70-0.82 of the time).
//
// Every fold keeps the walk's order (the rows and samples the walk meets
// first as the accumulator), so for integers and for floating rows without
// NaN in reach the result is the walk's, -0 against +0 included; floating
// rows with a NaN in reach walk the taps, from the padded source (no row
// of the band is kept whole for them).
#include "band_walk.h"
#include "walk_schedule.h"

using namespace Halide;

namespace morph {

void define_segments(BandWalks &b, const BandSite &s) {
    const Strel &se = s.se;
    const bool erode = s.w == Walk::Erode;
    const Var &u = s.u, &wv = s.wv;
    Var rho("rho"), band("band");
    // Orders two folds: `first` of the samples the walk meets first.
    auto ordered = [&](const Expr &first, const Expr &then) { return combine(s.w, first, then, s.el); };

    // The box's row: the two blocks of level k that cover its e0 samples.
    const TwoBlocks blocks = two_blocks(s.w, -se.centre[0], se.extent[0], b.levels);
    // The band's source rows: relative row rho of band `band` is the source
    // row its first output row reads first, plus rho.  A band's rows are
    // about four times the box's height (whole bands of kBandRows, at most
    // kSegmentBands of them), so that a source row is computed about 1.25
    // times rather than up to twice.
    const Expr e1 = se.extent[1];
    const Expr before = erode ? se.centre[1] : e1 - 1 - se.centre[1];
    b.segment_band = kBandRows * clamp((4 * e1 + kBandRows - 1) / kBandRows, 1, kSegmentBands);
    const Expr band_rows = b.segment_band;
    const Expr rows = band_rows + e1 - 1;
    const Expr v = clamp_row(s, s.row.first_row + band * band_rows - before + rho);
    const Expr row = ordered(b.levels.f(step(s.w, u, offset_of(blocks.first, se, 0)), v, wv, blocks.level),
                             b.levels.f(step(s.w, u, offset_of(blocks.second, se, 0)), v, wv, blocks.level));
    b.segment_rows = Func(s.name + "_segment_rows");
    b.segment_rows(u, rho, wv, band) = row;
    const Func &folded = b.segment_rows;

    // Segments of e1 rows from relative row 0, each row's fold from its
    // segment's start and to its segment's end.  Erosion meets lower rows
    // first, dilation higher ones.
    // (A segment's first row reads the row before it as well, and its last
    // row the one after it, whose values the select drops: one row more of
    // storage each way.)
    b.prefix = Func(s.name + "_prefix");
    b.prefix(u, rho, wv, band) = undef(s.el.storage);
    b.prefix_r = RDom(0, rows, s.name + "_prefix_row");
    const Expr r = b.prefix_r.x;
    const Expr earlier = b.prefix(u, r - 1, wv, band), here = folded(u, r, wv, band);
    b.prefix(u, r, wv, band) = select(r % e1 == 0, here, erode ? ordered(earlier, here) : ordered(here, earlier));

    b.suffix = Func(s.name + "_suffix");
    b.suffix(u, rho, wv, band) = undef(s.el.storage);
    b.suffix_r = RDom(0, rows, s.name + "_suffix_row");
    const Expr q = rows - 1 - b.suffix_r.x;
    const Expr later = b.suffix(u, q + 1, wv, band), at = folded(u, q, wv, band);
    b.suffix(u, q, wv, band) = select(q % e1 == e1 - 1 || q == rows - 1, at, erode ? ordered(at, later) : ordered(later, at));

    // An output row's e1 rows: the suffix of the first, the prefix of the last.
    const Expr out_band = (s.y - s.row.first_row) / band_rows;
    const Expr t = s.y - (s.row.first_row + out_band * band_rows);
    // (The box's one plane, through the offset's promise, so that a mask of
    // no planes bounds nothing here.)
    const Expr plane = step(s.w, s.z, offset_of(-se.centre[2], se, 2));
    const Expr lower = b.suffix(s.x, t, plane, out_band), upper = b.prefix(s.x, t + e1 - 1, plane, out_band);
    const Expr box = erode ? ordered(lower, upper) : ordered(upper, lower);
    b.segments = Func(s.name + "_segments");
    // Rows narrower than a block: the same two reads, inlined into the
    // stage's chunks of a group of rows.  The entry point takes them for
    // floating types only where no NaN is in reach of the call (neither in
    // the image's piece nor in the pad; an intermediate computed from such
    // an image holds none either), so they need no test of their own.
    b.segments_rows = Func(s.name + "_segments_rows");
    b.segments_rows(s.x, s.y, s.z) = box;
    if (!s.el.is_float()) {
        b.segments(s.x, s.y, s.z) = box;
        return;
    }
    // Wider floating rows with a NaN in reach walk the taps.
    b.segments(s.x, s.y, s.z) = select(b.dirty(s.y, s.z) == 0, box, s.init);
    b.segments_taps_r = tap_domain(s, s.name + "_segments_tap");
    b.segments_taps_r.where(b.dirty(s.y, s.z) != 0);
    b.segments(s.x, s.y, s.z) = combine(s.w, b.segments(s.x, s.y, s.z), tap_sample(s.src.padded, s, b.segments_taps_r), s.el);
}

void schedule_segments(const BandWalks &w, const BandSchedule &s) {
    // The band's rows folded along the box's row, row by row, each from its
    // own levels; then their segments' folds, over whole rows (the prefixes
    // and suffixes run along the rows, so the rows are the outer loop); then
    // each block of the output reads two of them.
    Func rows = w.segment_rows;
    const Var u = rows.args()[0], rho = rows.args()[1];
    Var rho_o("rho_o"), rho_i("rho_i");
    rows.compute_at(s.out, s.yb).vectorize(u, s.lanes, TailStrategy::RoundUp);
    // Rows narrower than a block in groups of kLevelRows, each group's
    // levels computed together; wide rows one by one (a group's guards cost
    // a one-block float32 row 7 %).
    rows.specialize(w.row.narrow).split(rho, rho_o, rho_i, kLevelRows, TailStrategy::GuardWithIf);
    rows.split(rho, rho_o, rho_i, 1);
    schedule_levels(w.levels, rows, rho_o, s.lanes);
    // One row's levels (a group's on rows narrower than a block) in one
    // block for the whole band (a block per row would cost an allocation
    // per row): each row's levels overwrite those of the row before.  Four
    // slots on wide rows would take the levels out of the nearest cache
    // (uint8 63 x 63 square on 4096-wide rows: 1.13-1.17 of the time), hence
    // a fold as deep as the rows computed together.
    Func lev = w.levels.f;
    lev.store_at(s.out, s.yb).fold_storage(lev.args()[1], select(w.row.narrow, kLevelRows, 1));
    for (auto f : {std::make_pair(w.prefix, w.prefix_r), std::make_pair(w.suffix, w.suffix_r)}) {
        const Var fu = f.first.args()[0];
        f.first.compute_at(s.out, s.yb);
        f.first.update().reorder(fu, f.second.x).vectorize(fu, s.lanes, TailStrategy::RoundUp);
    }
    Func seg = w.segments;
    seg.compute_at(s.out, s.xo).vectorize(seg.args()[0], kBlockChunks * s.lanes);
    if (w.dirty.defined()) block_fold(seg, 0, w.segments_taps_r, s);
}

}  // namespace morph
