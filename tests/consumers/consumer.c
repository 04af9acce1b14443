/* A host program as a user of the installed library writes it: the
 * companion header builds the descriptors and picks the export and level.
 * Built twice from outside the source tree, through find_package and
 * through pkg-config, and also compiled as C++.  Prints the header's version
 * and checks a few samples of each result; exits non-zero on a mismatch. */
#include <stdio.h>

#include "tessmorphop3_halide_easy.h"

static int failures = 0;

static void expect(const char *what, double got, double want) {
    if (got != want) {
        printf("FAIL %s: got %g, want %g\n", what, got, want);
        failures++;
    }
}

static int run(const char *what, tme_operator op, tme_level level, tme_array *image, tme_pads *pads, tme_array *mask,
               tme_array *out) {
    int status = tme_call(op, level, image, pads, mask, out);
    if (status != 0) {
        printf("FAIL %s: status %d\n", what, status);
        failures++;
    }
    return status;
}

/* One bright sample dilated by a row of three: the row runs along the last
 * (contiguous) C axis, so the spot widens across columns only. */
static void dilate_2d(tme_level level) {
    uint8_t image[5][7] = {{0}}, out[5][7];
    const uint8_t row[1][3] = {{1, 1, 1}};
    const int32_t shape[2] = {5, 7}, row_shape[2] = {1, 3};
    tme_array im, se, res;
    tme_pads pads;
    image[2][3] = 200;
    tme_describe(&im, image, TME_uint8, 2, shape, NULL);
    tme_describe(&res, out, TME_uint8, 2, shape, NULL);
    tme_describe_mask(&se, &row[0][0], 2, row_shape);
    tme_pads_neutral(&pads, TME_uint8);
    if (run("imdilate 2-D", TME_imdilate, level, &im, &pads, &se, &res) != 0) return;
    expect("dilate [2][1]", out[2][1], 0);
    expect("dilate [2][2]", out[2][2], 200);
    expect("dilate [2][3]", out[2][3], 200);
    expect("dilate [2][4]", out[2][4], 200);
    expect("dilate [2][5]", out[2][5], 0);
    expect("dilate [1][3]", out[1][3], 0);
    expect("dilate [3][3]", out[3][3], 0);
}

/* Planes 0, 10 and 20 eroded across planes (a 3 x 1 x 1 mask along the
 * slowest axis), at coordinates that do not start at 0. */
static void erode_3d(tme_level level) {
    float image[3][2][4], out[3][2][4];
    const uint8_t column[3][1][1] = {{{1}}, {{1}}, {{1}}};
    const int32_t shape[3] = {3, 2, 4}, mins[3] = {5, -2, 7}, column_shape[3] = {3, 1, 1};
    tme_array im, se, res;
    tme_pads pads;
    int p, r, c;
    for (p = 0; p < 3; p++)
        for (r = 0; r < 2; r++)
            for (c = 0; c < 4; c++) image[p][r][c] = 10.0f * (float)p;
    tme_describe(&im, image, TME_float32, 3, shape, mins);
    tme_describe(&res, out, TME_float32, 3, shape, mins);
    tme_describe_mask(&se, &column[0][0][0], 3, column_shape);
    tme_pads_neutral(&pads, TME_float32);
    if (run("imerode 3-D", TME_imerode, level, &im, &pads, &se, &res) != 0) return;
    expect("erode [0][0][0]", out[0][0][0], 0.0f);
    expect("erode [1][1][3]", out[1][1][3], 0.0f);
    expect("erode [2][0][2]", out[2][0][2], 10.0f);
    expect("erode [2][1][3]", out[2][1][3], 10.0f);
}

/* A spike narrower than the element: opening removes it, the top-hat
 * keeps exactly it. */
static void tophat_1d(tme_level level) {
    int16_t image[9] = {-5, -5, -5, 45, -5, -5, -5, -5, -5}, out[9];
    const uint8_t line[3] = {1, 1, 1};
    const int32_t shape[1] = {9}, line_shape[1] = {3};
    tme_array im, se, res;
    tme_pads pads;
    tme_describe(&im, image, TME_int16, 1, shape, NULL);
    tme_describe(&res, out, TME_int16, 1, shape, NULL);
    tme_describe_mask(&se, line, 1, line_shape);
    tme_pads_neutral(&pads, TME_int16);
    if (run("imtophat 1-D", TME_imtophat, level, &im, &pads, &se, &res) != 0) return;
    expect("tophat [0]", out[0], 0);
    expect("tophat [2]", out[2], 0);
    expect("tophat [3]", out[3], 50);
    expect("tophat [4]", out[4], 0);
    expect("tophat [8]", out[8], 0);
}

int main(void) {
    tme_level best = tme_best_level();
    printf("tessmorphop3_halide %s (%d)\n", TESSMORPHOP3_HALIDE_VERSION_STRING, TESSMORPHOP3_HALIDE_VERSION);
    dilate_2d(TME_none);
    dilate_2d(best);
    erode_3d(best);
    tophat_1d(best);
    printf("%s\n", failures ? "FAILED" : "ok");
    return failures ? 1 : 0;
}
