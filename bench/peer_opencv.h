// OpenCV computing what our entry points compute, for timing against them
// in the same run and as an independent check of their results.
//
// The mapping: a tap is a byte equal to 1, so the kernel is `mask == 1`.
// Our erosion reads P(x + r) with r = k - c, which is cv::erode with that
// kernel anchored at the centre c.  Our dilation reads P(x - r); cv::dilate
// reads src(x + k' - a), so it gets the kernel flipped in both axes and the
// anchor e - 1 - c.  The pad value is BORDER_CONSTANT's border value.
//
// OpenCV has no 3-D morphology: a 3-D element is done plane by plane, one
// 2-D operation per distinct z slice of the element on every image plane,
// then the minimum (maximum) across the planes each slice reaches.  For a
// 3 x 3 x 3 cube that is one 3 x 3 erosion per plane and two cv::min per
// output plane.
#pragma once

#include <cmath>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "volume.h"

namespace tmbench {

// The centre of an element dimension, as the library computes it (through
// float32, which only matters for huge extents).
inline int centre_of(int extent) {
    float half = float((extent + 1) >> 1);
    return int(std::floor(half) - 1.0f);
}

// The two padding bounds, as passed in `minmax`.
struct Pads {
    double lower, upper;
};

// How the peer runs, and storage it reuses so that the timed loop allocates
// nothing the first call did not: per-plane results of each distinct slice,
// and the intermediate of the two-stage operators.
//
// `stripes`: a single cv::erode or cv::dilate call runs on one thread in
// OpenCV 4.6, whatever cv::setNumThreads says.  With stripes > 1 a 2-D call
// is cut into that many bands of rows, run through cv::parallel_for_; each
// band is a view into the whole image, so OpenCV reads the real neighbours
// across band edges and pads only at the image's own border, and the result
// is the same.  3-D cases always run their planes through cv::parallel_for_.
struct Scratch {
    int stripes = 1;
    std::vector<std::vector<cv::Mat>> slices;
    std::unique_ptr<Volume> stage, stage2;
};

using PeerFn = void (*)(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);

void peer_erode(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);
void peer_dilate(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);
// The two-stage operators chain the two above; only samples far enough from
// the image's border for both stages to read inside it are defined the same
// way by both sides (see the reaches column of the operator table).
void peer_open(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);
void peer_close(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);
void peer_tophat(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);
void peer_bothat(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s);

}  // namespace tmbench
