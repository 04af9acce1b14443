// A short tour of the library: builds a sample volume in memory (a few
// bright blobs and dark pits on a noisy background), runs all six operators
// with a 5 x 5 x 3 ellipsoid at the best level this processor has, and
// prints what happened: sizes, time, checksums and a small picture of the
// middle plane before and after.
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tessmorphop3_halide_easy.h"

namespace {

using Entry = int (*)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

struct Volume {
    int w, h, d;
    std::vector<uint8_t> data;
    halide_dimension_t dim[3];
    halide_buffer_t buf{};
    Volume(int w_, int h_, int d_) : w(w_), h(h_), d(d_), data(size_t(w_) * h_ * d_) {
        dim[0] = halide_dimension_t(0, w, 1);
        dim[1] = halide_dimension_t(0, h, w);
        dim[2] = halide_dimension_t(0, d, w * h);
        buf.host = data.data();
        buf.type = halide_type_t(halide_type_uint, 8);
        buf.dimensions = 3;
        buf.dim = dim;
    }
    uint8_t &at(int x, int y, int z) { return data[(size_t(z) * h + y) * w + x]; }
};

void make_sample(Volume &v) {
    uint32_t seed = 12345;
    auto noise = [&] { seed = seed * 1664525u + 1013904223u; return int(seed >> 28); };
    struct Blob { double x, y, z, r; int value; };
    const Blob blobs[] = {{20, 16, 8, 9, 220}, {60, 40, 6, 12, 180}, {95, 14, 10, 6, 250},
                          {40, 44, 9, 3, 10},  {80, 30, 8, 4, 5}};
    for (int z = 0; z < v.d; z++)
        for (int y = 0; y < v.h; y++)
            for (int x = 0; x < v.w; x++) {
                int value = 90 + noise();
                for (auto &b : blobs) {
                    double dx = x - b.x, dy = y - b.y, dz = (z - b.z) * 2;
                    if (dx * dx + dy * dy + dz * dz <= b.r * b.r) value = b.value + noise();
                }
                v.at(x, y, z) = uint8_t(value > 255 ? 255 : value);
            }
}

uint64_t checksum(const Volume &v) {
    uint64_t h = 1469598103934665603ull;
    for (uint8_t b : v.data) h = (h ^ b) * 1099511628211ull;
    return h;
}

// The middle plane, 2 x 4 samples per character, as shades.
void picture(const char *title, Volume &v) {
    static const char shades[] = " .:-=+*#%@";
    std::printf("  %s\n", title);
    int z = v.d / 2;
    for (int y = 0; y + 3 < v.h; y += 4) {
        std::printf("  |");
        for (int x = 0; x + 1 < v.w; x += 2) {
            int sum = 0;
            for (int j = 0; j < 4; j++) sum += v.at(x, y + j, z) + v.at(x + 1, y + j, z);
            std::putchar(shades[(sum / 8) * 9 / 255]);
        }
        std::printf("|\n");
    }
}

// The companion header knows what each level needs of the processor.
const char *best_level() {
    static const char *const words[] = {
#define TME_X(word) #word,
        TESSMORPHOP3_HALIDE_LEVELS(TME_X)
#undef TME_X
    };
    return words[tme_best_level()];
}

}  // namespace

int main(int argc, char **argv) {
    const char *level = argc > 1 ? argv[1] : best_level();
    const int li = !std::strcmp(level, "none") ? 0 : !std::strcmp(level, "avx") ? 1 : !std::strcmp(level, "avx2") ? 2 : -1;
    if (li < 0) {
        std::fprintf(stderr, "usage: %s [none|avx|avx2]\n", argv[0]);
        return 2;
    }

    Volume image(128, 64, 16), eroded(128, 64, 16), dilated(128, 64, 16), opened(128, 64, 16),
        closed(128, 64, 16), tophat(128, 64, 16), bothat(128, 64, 16);
    make_sample(image);

    // An ellipsoid of 5 x 5 x 3: the taps are the bytes equal to 1.
    const int ex = 5, ey = 5, ez = 3;
    std::vector<uint8_t> mask(ex * ey * ez);
    int taps = 0;
    for (int k = 0; k < ez; k++)
        for (int j = 0; j < ey; j++)
            for (int i = 0; i < ex; i++) {
                double dx = i - 2, dy = j - 2, dz = (k - 1) * 2;
                bool in = dx * dx + dy * dy + dz * dz <= 4.5;
                mask[(k * ey + j) * ex + i] = in;
                taps += in;
            }
    halide_dimension_t se_dim[3] = {{0, ex, 1}, {0, ey, ex}, {0, ez, ex * ey}};
    halide_buffer_t se{};
    se.host = mask.data();
    se.type = halide_type_t(halide_type_uint, 8);
    se.dimensions = 3;
    se.dim = se_dim;

    // Pads that leave the border alone: the greatest value for erosion,
    // the least for dilation.
    double bounds[2] = {0.0, 255.0};
    halide_dimension_t mm_dim[2] = {{0, 2, 1}, {0, 1, 2}};
    halide_buffer_t mm{};
    mm.host = reinterpret_cast<uint8_t *>(bounds);
    mm.type = halide_type_t(halide_type_float, 64);
    mm.dimensions = 2;
    mm.dim = mm_dim;

    std::printf("libtessmorphop3_halide demo\n");
    std::printf("  image   %d x %d x %d uint8 (%zu samples), checksum %016llx\n", image.w, image.h, image.d,
                image.data.size(), (unsigned long long)checksum(image));
    std::printf("  element %d x %d x %d ellipsoid, %d taps; level %s\n\n", ex, ey, ez, taps, level);

    struct Run { const char *name; Entry fn[3]; Volume *out; } runs[] = {
        {"imerode", {imerode_uint8_none, imerode_uint8_avx, imerode_uint8_avx2}, &eroded},
        {"imdilate", {imdilate_uint8_none, imdilate_uint8_avx, imdilate_uint8_avx2}, &dilated},
        {"imopen", {imopen_uint8_none, imopen_uint8_avx, imopen_uint8_avx2}, &opened},
        {"imclose", {imclose_uint8_none, imclose_uint8_avx, imclose_uint8_avx2}, &closed},
        {"imtophat", {imtophat_uint8_none, imtophat_uint8_avx, imtophat_uint8_avx2}, &tophat},
        {"imbothat", {imbothat_uint8_none, imbothat_uint8_avx, imbothat_uint8_avx2}, &bothat}};
    for (auto &r : runs) {
        Entry fn = r.fn[li];
        int status = fn(&image.buf, &mm, &se, &r.out->buf);  // warm-up, and the result shown
        auto t0 = std::chrono::steady_clock::now();
        const int reps = 10;
        for (int i = 0; i < reps && status == 0; i++) status = fn(&image.buf, &mm, &se, &r.out->buf);
        double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() / reps;
        if (status != 0) {
            std::printf("  %s failed with status %d\n", r.name, status);
            return 1;
        }
        unsigned lo = 255, hi = 0;
        for (uint8_t b : r.out->data) lo = b < lo ? b : lo, hi = b > hi ? b : hi;
        std::printf("  %-9s %7.3f ms   values %3u..%3u   checksum %016llx\n", r.name, ms, lo, hi,
                    (unsigned long long)checksum(*r.out));
    }
    std::printf("\n");
    picture("middle plane, image", image);
    picture("middle plane, eroded: small bright spots vanish, pits grow", eroded);
    picture("middle plane, dilated: bright blobs grow, small pits fill", dilated);
    picture("middle plane, top-hat: what opening removed, the small bright details", tophat);
    return 0;
}
