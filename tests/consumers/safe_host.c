/* A host of the safe library, as a server that must outlive bad requests
 * writes it: a table of calls that the library refuses, each of which must
 * come back with its status and the library's exact message, and then good
 * calls of every operator whose results must equal those of
 * libtessmorphop3_halide, loaded into the same process.  Two threads run
 * both at once, under a limit of two TBB threads.  Built from outside the
 * source tree through find_package and pkg-config, as C99 and as C++11 (the
 * inputs are passed as const descriptors, without casts).  Exits non-zero
 * on any difference. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tessmorphop3_halide_easy.h"
#include "tessmorphop3_halide_safe.h"

enum { W = 64, H = 24, D = 5 };

typedef struct {
    uint8_t image[D][H][W], out[D][H][W], want[D][H][W];
    float other[D][H][W];
    uint8_t ball[3][3][3];
    tme_array im, fim, se, res, ref;
    tme_pads pads;
    int failures;
} host;

static void setup(host *h, unsigned seed) {
    const int32_t shape[3] = {D, H, W}, ball_shape[3] = {3, 3, 3};
    int p, r, c;
    for (p = 0; p < D; p++)
        for (r = 0; r < H; r++)
            for (c = 0; c < W; c++) {
                seed = seed * 1103515245u + 12345u;
                h->image[p][r][c] = (uint8_t)(seed >> 16);
                h->other[p][r][c] = 0.5f * (float)c;
            }
    for (p = 0; p < 3; p++)
        for (r = 0; r < 3; r++)
            for (c = 0; c < 3; c++) h->ball[p][r][c] = (uint8_t)((p - 1) * (p - 1) + (r - 1) * (r - 1) + (c - 1) * (c - 1) <= 1);
    tme_describe(&h->im, h->image, TME_uint8, 3, shape, NULL);
    tme_describe(&h->fim, h->other, TME_float32, 3, shape, NULL);
    tme_describe(&h->res, h->out, TME_uint8, 3, shape, NULL);
    tme_describe(&h->ref, h->want, TME_uint8, 3, shape, NULL);
    tme_describe_mask(&h->se, &h->ball[0][0][0], 3, ball_shape);
    tme_pads_neutral(&h->pads, TME_uint8);
}

static void check(host *h, const char *what, int status, const tms_report *r, int want_status, const char *want) {
    if (status != want_status || r->status != want_status || strcmp(r->message, want) != 0) {
        printf("FAIL %s: status %d (report %d) \"%s\", want %d \"%s\"\n", what, status, r->status, r->message,
               want_status, want);
        h->failures++;
    }
}

/* One bad call, and what it must report. */
typedef struct {
    const char *what;
    int status;
    const char *message;
    int (*call)(host *h, tms_report *r);
} bad_call;

static int wrong_type(host *h, tms_report *r) {
    const tme_array *in = &h->fim;
    return tms_imerode(TMS_uint8, TMS_BEST, &in->buf, &h->pads.buf, &h->se.buf, &h->res.buf, r);
}

static int mask_not_from_zero(host *h, tms_report *r) {
    tme_array se = h->se;
    se.dim[1].min = 1;
    se.buf.dim = se.dim;
    return tms_imdilate(TMS_uint8, TMS_none, &h->im.buf, &h->pads.buf, &se.buf, &h->res.buf, r);
}

static int output_narrower_than_a_vector(host *h, tms_report *r) {
    tme_array out = h->res;
    out.dim[0].extent = 3;
    out.buf.dim = out.dim;
    return tms_imerode(TMS_uint8, TMS_none, &h->im.buf, &h->pads.buf, &h->se.buf, &out.buf, r);
}

static int null_mask(host *h, tms_report *r) {
    return tms_imopen(TMS_uint8, TMS_BEST, &h->im.buf, &h->pads.buf, NULL, &h->res.buf, r);
}

static int null_host(host *h, tms_report *r) {
    tme_array im = h->im;
    im.buf.dim = im.dim;
    im.buf.host = NULL;
    return tms_imclose(TMS_uint8, TMS_BEST, &im.buf, &h->pads.buf, &h->se.buf, &h->res.buf, r);
}

/* A closing's output described as huge in its outer dimensions (nothing is
 * read or written before the size is refused). */
static int closing_of(host *h, tms_report *r, int32_t n0, int32_t n) {
    tme_array out = h->res;
    const tme_array *mask = &h->se;
    tme_array one = *mask;
    out.dim[0].extent = n0;
    out.dim[1].extent = n;
    out.dim[2].extent = n;
    out.dim[1].stride = 0;
    out.dim[2].stride = 0;
    out.buf.dim = out.dim;
    one.dim[0].extent = one.dim[1].extent = one.dim[2].extent = 1;
    one.buf.dim = one.dim;
    return tms_imclose(TMS_uint8, TMS_none, &h->im.buf, &h->pads.buf, &one.buf, &out.buf, r);
}

static int intermediate_too_large(host *h, tms_report *r) { return closing_of(h, r, W, 1 << 29); }
static int allocation_fails(host *h, tms_report *r) { return closing_of(h, r, W, 1 << 26); }

static int no_such_type(host *h, tms_report *r) {
    return tms_call(TMS_imerode, (tms_type)99, TMS_BEST, &h->im.buf, &h->pads.buf, &h->se.buf, &h->res.buf, r);
}

static int no_such_level(host *h, tms_report *r) {
    return tms_imerode(TMS_uint8, (tms_level)7, &h->im.buf, &h->pads.buf, &h->se.buf, &h->res.buf, r);
}

static int query_without_question(host *h, tms_report *r) {
    return tms_bounds(TMS_imerode, TMS_uint8, TMS_BEST, &h->im.buf, &h->pads.buf, &h->se.buf, &h->res.buf, r);
}

static const bad_call bad_calls[] = {
    {"wrong type", -3, "Input buffer keyimForType has type uint8 but type of the buffer passed in is float32", wrong_type},
    {"mask not from 0", -4, "Input buffer strel is accessed at 0, which is before the min (1) in dimension 1",
     mask_not_from_zero},
    {"output narrower than a vector", -4,
     "Output buffer erode is accessed at -13, which is before the min (0) in dimension 0",
     output_narrower_than_a_vector},
    {"null mask", -12, "Buffer argument strel is NULL", null_mask},
    {"null host", -34, "The host pointer of Input buffer keyimForType is null, but the pipeline will access it on the host.",
     null_host},
    /* 64 x 2^29 x 2^29 samples: 2^64 bytes */
    {"intermediate too large", -5,
     "Total allocation for buffer imdilate is 0, which exceeds the maximum size of 9223372036854775807",
     intermediate_too_large},
    /* 64 x 2^26 x 2^26 samples: 2^58 bytes, more than any address space */
    {"allocation fails", -11, "Out of memory (halide_malloc returned NULL)", allocation_fails},
    {"no such type", TMS_BAD_ARGUMENT, "no element type 99: the types are 0 to 8", no_such_type},
    {"no such level", TMS_BAD_ARGUMENT, "no level 7: the levels are 0 to 2, or TMS_BEST", no_such_level},
    {"query without a question", TMS_NOT_A_QUERY,
     "tms_bounds of imerode: no descriptor asks for its region (every host is set)", query_without_question},
};

/* Every operator through both libraries, at the best level of each. */
static void good_calls(host *h) {
    int op;
    for (op = 0; op < TMS_OPERATOR_COUNT; op++) {
        tms_report r;
        const tme_array *in = &h->im;
        int status;
        memset(h->out, 0, sizeof h->out);
        status = tms_call((tms_operator)op, TMS_uint8, TMS_BEST, &in->buf, &h->pads.buf, &h->se.buf, &h->res.buf, &r);
        check(h, "good call", status, &r, 0, "");
        if (tme_call((tme_operator)op, tme_best_level(), &h->im, &h->pads, &h->se, &h->ref) != 0 ||
            memcmp(h->out, h->want, sizeof h->out) != 0) {
            printf("FAIL operator %d: the safe library's result differs from the main library's\n", op);
            h->failures++;
        }
    }
}

/* A bounds query answers the region the call reads. */
static void bounds(host *h) {
    static halide_dimension_t no_dim; /* all zero, never written */
    static halide_buffer_t asks;      /* all zero: a null host and no device */
    halide_dimension_t dim[4][3];
    halide_buffer_t b[4];
    tms_report r;
    int i, j, status;
    for (i = 0; i < 4; i++) {
        for (j = 0; j < 3; j++) dim[i][j] = no_dim;
        b[i] = asks;
        b[i].dim = dim[i];
    }
    for (i = 0; i < 3; i++) dim[0][i].extent = dim[2][i].extent = dim[3][i].extent = 3;
    dim[0][0].extent = dim[3][0].extent = dim[0][2].extent = 10;
    dim[3][2].min = 4; /* planes 4 to 6 dilated by 3 planes read planes 3 to 7 */
    status = tms_bounds(TMS_imdilate, TMS_uint8, TMS_none, &b[0], &b[1], &b[2], &b[3], &r);
    check(h, "bounds", status, &r, 0, "");
    if (dim[0][2].min != 3 || dim[0][2].extent != 5 || dim[3][2].min != 4 || dim[1][0].extent != 1) {
        printf("FAIL bounds: image plane %d + %d, output plane %d\n", dim[0][2].min, dim[0][2].extent, dim[3][2].min);
        h->failures++;
    }
}

static void *serve(void *arg) {
    host *h = (host *)arg;
    int round;
    size_t i;
    for (round = 0; round < 3; round++) {
        for (i = 0; i < sizeof bad_calls / sizeof bad_calls[0]; i++) {
            tms_report r;
            int status = bad_calls[i].call(h, &r);
            check(h, bad_calls[i].what, status, &r, bad_calls[i].status, bad_calls[i].message);
        }
        good_calls(h);
        bounds(h);
    }
    return NULL;
}

int main(void) {
    static host hosts[2];
    pthread_t threads[2];
    int i, failures = 0;
    if (tms_set_max_threads(-1) != TMS_BAD_ARGUMENT || tms_set_max_threads(2) != 0 || tms_max_threads() != 2) {
        printf("FAIL thread limit\n");
        failures++;
    }
    if ((int)tms_best_level() != (int)tme_best_level() || !tms_cpu_has(tms_best_level())) {
        printf("FAIL best level %d\n", (int)tms_best_level());
        failures++;
    }
    for (i = 0; i < 2; i++) {
        setup(&hosts[i], 17u + (unsigned)i);
        if (pthread_create(&threads[i], NULL, serve, &hosts[i]) != 0) return 2;
    }
    for (i = 0; i < 2; i++) {
        pthread_join(threads[i], NULL);
        failures += hosts[i].failures;
    }
    printf("tessmorphop3_halide_safe %s: %s\n", TESSMORPHOP3_HALIDE_VERSION_STRING, failures ? "FAILED" : "ok");
    return failures ? 1 : 0;
}
