#include "peer_opencv.h"

#include <cstring>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

namespace tmbench {

namespace {

enum class Morph { Erode, Dilate };

// The 2-D kernel and anchor of z slice k2 of the element.
struct Kernel2D {
    cv::Mat k;
    cv::Point anchor;
    bool empty = true;
};

Kernel2D slice_kernel(Morph m, const Element &se, int k2) {
    Kernel2D r;
    const int e0 = se.e[0], e1 = se.e[1];
    const int c0 = centre_of(e0), c1 = centre_of(e1);
    r.k = cv::Mat::zeros(e1, e0, CV_8UC1);
    for (int j = 0; j < e1; j++)
        for (int i = 0; i < e0; i++) {
            bool tap = se.at(i, j, k2) == 1;
            // Dilation reads the image backwards: flip the kernel.
            if (m == Morph::Erode) r.k.at<uint8_t>(j, i) = tap;
            else r.k.at<uint8_t>(e1 - 1 - j, e0 - 1 - i) = tap;
            r.empty &= !tap;
        }
    r.anchor = m == Morph::Erode ? cv::Point(c0, c1) : cv::Point(e0 - 1 - c0, e1 - 1 - c1);
    return r;
}

void morph2d(Morph m, const cv::Mat &src, cv::Mat &dst, const Kernel2D &k, double pad) {
    if (m == Morph::Erode)
        cv::erode(src, dst, k.k, k.anchor, 1, cv::BORDER_CONSTANT, cv::Scalar::all(pad));
    else
        cv::dilate(src, dst, k.k, k.anchor, 1, cv::BORDER_CONSTANT, cv::Scalar::all(pad));
}

void combine(Morph m, const cv::Mat &a, cv::Mat &acc) {
    if (m == Morph::Erode) cv::min(acc, a, acc);
    else cv::max(acc, a, acc);
}

void combine_pad(Morph m, double pad, cv::Mat &acc) {
    if (m == Morph::Erode) cv::min(acc, cv::Scalar::all(pad), acc);
    else cv::max(acc, cv::Scalar::all(pad), acc);
}

void morph(Morph m, const Volume &in, const Element &se, double pad, Volume &out, Scratch &s) {
    const int e2 = se.e[2], c2 = centre_of(e2);
    std::vector<Kernel2D> kernels;
    std::vector<int> distinct(e2, -1);  // slice -> index of its kernel, -1 if it has no tap
    for (int k2 = 0; k2 < e2; k2++) {
        Kernel2D k = slice_kernel(m, se, k2);
        if (k.empty) continue;
        for (size_t i = 0; i < kernels.size() && distinct[k2] < 0; i++)
            if (cv::countNonZero(kernels[i].k != k.k) == 0 && kernels[i].anchor == k.anchor) distinct[k2] = int(i);
        if (distinct[k2] < 0) {
            distinct[k2] = int(kernels.size());
            kernels.push_back(k);
        }
    }
    const double initial = m == Morph::Erode ? type_greatest(in.type) : type_least(in.type);
    if (kernels.empty()) {
        for (int z = 0; z < out.d; z++) out.plane(z).setTo(cv::Scalar::all(initial));
        return;
    }

    // A plain 2-D case: one call, or one per band of rows.
    if (e2 == 1 && in.d == 1) {
        cv::Mat src = in.plane(0), dst = out.plane(0);
        if (s.stripes <= 1) {
            morph2d(m, src, dst, kernels[0], pad);
            return;
        }
        const int bands = s.stripes;
        cv::parallel_for_(cv::Range(0, bands), [&](const cv::Range &r) {
            for (int b = r.start; b < r.end; b++) {
                int y0 = int(int64_t(in.h) * b / bands), y1 = int(int64_t(in.h) * (b + 1) / bands);
                cv::Mat d = dst.rowRange(y0, y1);
                morph2d(m, src.rowRange(y0, y1), d, kernels[0], pad);
            }
        });
        return;
    }

    // Pass 1: every image plane through every distinct slice kernel.
    const int planes = in.d, nk = int(kernels.size());
    s.slices.resize(nk);
    for (auto &v : s.slices) {
        v.resize(planes);
        for (auto &p : v) p.create(in.h, in.w, cv_type(in.type));
    }
    cv::parallel_for_(cv::Range(0, nk * planes), [&](const cv::Range &r) {
        for (int t = r.start; t < r.end; t++) {
            int ki = t / planes, z = t % planes;
            morph2d(m, in.plane(z), s.slices[ki][z], kernels[ki], pad);
        }
    });

    // Pass 2: each output plane combines the planes its slices reach, in
    // the walk's order of r2 (it does not matter to min and max without NaN).
    cv::parallel_for_(cv::Range(0, out.d), [&](const cv::Range &r) {
        for (int z = r.start; z < r.end; z++) {
            cv::Mat acc = out.plane(z);
            acc.setTo(cv::Scalar::all(initial));
            for (int k2 = 0; k2 < e2; k2++) {
                if (distinct[k2] < 0) continue;
                int r2 = k2 - c2;
                int src = m == Morph::Erode ? z + r2 : z - r2;
                if (src < 0 || src >= planes) combine_pad(m, pad, acc);
                else combine(m, s.slices[distinct[k2]][src], acc);
            }
        }
    });
}

Volume &scratch_volume(std::unique_ptr<Volume> &slot, const Volume &like) {
    if (!slot || slot->type != like.type || slot->w != like.w || slot->h != like.h || slot->d != like.d)
        slot = std::make_unique<Volume>(like.type, like.w, like.h, like.d);
    return *slot;
}

// a - b per plane; saturating for uint8, one rounding for float32.
void subtract(const Volume &a, const Volume &b, Volume &out) {
    cv::parallel_for_(cv::Range(0, out.d), [&](const cv::Range &r) {
        for (int z = r.start; z < r.end; z++) {
            cv::Mat dst = out.plane(z);
            cv::subtract(a.plane(z), b.plane(z), dst);
        }
    });
}

}  // namespace

void peer_erode(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s) {
    morph(Morph::Erode, in, se, pads.upper, out, s);
}

void peer_dilate(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s) {
    morph(Morph::Dilate, in, se, pads.lower, out, s);
}

void peer_open(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s) {
    Volume &mid = scratch_volume(s.stage, in);
    morph(Morph::Erode, in, se, pads.upper, mid, s);
    morph(Morph::Dilate, mid, se, pads.lower, out, s);
}

void peer_close(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s) {
    Volume &mid = scratch_volume(s.stage, in);
    morph(Morph::Dilate, in, se, pads.lower, mid, s);
    morph(Morph::Erode, mid, se, pads.upper, out, s);
}

void peer_tophat(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s) {
    Volume &opened = scratch_volume(s.stage2, in);
    peer_open(in, se, pads, opened, s);
    subtract(in, opened, out);
}

void peer_bothat(const Volume &in, const Element &se, const Pads &pads, Volume &out, Scratch &s) {
    Volume &closed = scratch_volume(s.stage2, in);
    peer_close(in, se, pads, closed, s);
    subtract(closed, in, out);
}

}  // namespace tmbench
