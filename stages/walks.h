/* The walks by which a stage reaches the samples of its element.  The frame
 * picks one for a call (frame/walk_plan.c) and hands it to the pipeline as
 * the one value `walk`; the pipeline's algorithm (pipelines/operators.cpp)
 * and its schedule (stages/walk_schedule.cpp) take their branches from this
 * same list, in this order, so that the two can never disagree on which
 * branch computes which walk.  Each walk's definition and schedule are in
 * its own file, stages/walk_<name>.cpp.  C and C++ read it alike.
 *
 *   DIRECT  over the padded source in place, one task per row: any call, and
 *           the only one on rows of at most one chunk (the narrow branch),
 *           on rows narrower than one chunk of output, and on masks whose
 *           reach or runs the others cannot hold.
 *   TAPS    band walk over the mask's runs, tap by tap: any mask.
 *   BOX     band walk of a mask filling its box: rows folded, then their
 *           folds across rows and planes.
 *   PLANES  the box walk planes first (integer types, boxes of several
 *           planes): any grouping of a minimum serves for them.
 *   RUNS    band walk of runs by a table of folds (masks of long runs):
 *           levels of doubled folds, and for integer types folds of the
 *           lengths several runs share; a run whose length the table holds
 *           is one read, any other two overlapping ones; a band walks a
 *           slab of planes from the tables of every plane the slab reads
 *           (which also takes integer masks of several planes however
 *           short their runs).
 *   SEGMENTS band walk of a large box of one plane: rows folded as RUNS
 *           folds a run, then across rows the folds from the start and to
 *           the end of segments of the box's height, two of them a sample.
 *
 * Every band walk computes rows in blocks of TM_BLOCK_CHUNKS chunks.  TAPS,
 * RUNS for the integer types and SEGMENTS also take rows narrower than a
 * block, in blocks of two chunks of TM_GROUP_ROWS rows (one chunk of twice
 * the rows where the stage's source has no pad); on such rows a box
 * goes by segments or by its runs, and any other floating mask by TAPS.
 * The walks that fold (BOX, RUNS, SEGMENTS) walk floating rows with a NaN
 * in reach by taps; on rows narrower than a block SEGMENTS takes floating
 * calls only where no NaN is in reach at all. */
#ifndef TM_WALKS_H
#define TM_WALKS_H

#define TM_WALKS(X) X(DIRECT) X(TAPS) X(BOX) X(PLANES) X(RUNS) X(SEGMENTS)

enum tm_walk {
#define TM_WALK_ENUM(name) TM_WALK_##name,
    TM_WALKS(TM_WALK_ENUM)
#undef TM_WALK_ENUM
    TM_WALK_COUNT
};

#endif
