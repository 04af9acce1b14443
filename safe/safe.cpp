// libtessmorphop3_halide_safe: the exports behind one small C API whose
// refusals come back to the caller.
//
// This library links the same frame and pipelines as the main one, with its
// own copy of the Halide runtime, and installs a returning error handler in
// that copy when it is loaded.  Only the tms_* functions are exported: the
// runtime, the frame and the 162 exports stay private, so the handler is
// this library's alone and nothing clashes with libtessmorphop3_halide in
// the same process.  The Python extension links the same objects
// statically: one place where a call is checked, dispatched and reported.
//
// A report reaches the caller through a thread-local pointer to the report
// of the call running on this thread: the frame makes every report on the
// calling thread, before any task starts, so two threads never write to
// the same report.
#include "tessmorphop3_halide_safe.h"

#include <tbb/global_control.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "tessmorphop3_halide_easy.h"

#define TMS_API extern "C" __attribute__((visibility("default")))

namespace {

using Export = int (*)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

// Every export, in the list's order: operator, then type, then level, as
// the enumerations of the header count them.
const Export kExports[] = {
#define TMS_X(op, t, l) op##_##t##_##l,
    TESSMORPHOP3_HALIDE_ENTRIES(TMS_X)
#undef TMS_X
};
static_assert(sizeof kExports / sizeof kExports[0] == TMS_OPERATOR_COUNT * TMS_TYPE_COUNT * TMS_LEVEL_COUNT,
              "one export per operator, type and level");

const char *const kOutputs[] = {
#define TMS_X(name, output) #output,
    TESSMORPHOP3_HALIDE_OPERATORS(TMS_X)
#undef TMS_X
};
const char *const kOperators[] = {
#define TMS_X(name, output) #name,
    TESSMORPHOP3_HALIDE_OPERATORS(TMS_X)
#undef TMS_X
};
const char *const kLevels[] = {
#define TMS_X(word) #word,
    TESSMORPHOP3_HALIDE_LEVELS(TMS_X)
#undef TMS_X
};

thread_local tms_report *t_report = nullptr;

void put(tms_report *r, const char *text) {
    size_t n = 0;
    for (; text[n] && n + 1 < sizeof r->message; n++) r->message[n] = text[n];
    // One line: the runtime's own texts may end in a newline.
    while (n > 0 && (r->message[n - 1] == '\n' || r->message[n - 1] == ' ')) n--;
    r->message[n] = '\0';
}

extern "C" void keep_message(void *, const char *msg) {
    if (tms_report *r = t_report) put(r, msg ? msg : "");
}

// Installed when the library is loaded (or, linked statically, before
// main), before any call can be made; the slot belongs to this library's
// private runtime.
__attribute__((constructor)) void install_handler() { halide_set_error_handler(keep_message); }

int refuse(tms_report *r, int status, const char *text) {
    put(r, text);
    r->status = status;
    return status;
}

// The same list from the header-only companion, whose level test reads the
// library's table of processor features.
tme_level as_easy(tms_level l) { return static_cast<tme_level>(static_cast<int>(l)); }

struct Args {
    halide_buffer_t *b[4];  // image, minmax, strel, output
};

bool asks(const halide_buffer_t *b) { return b && b->host == nullptr && b->device == 0; }

int run(tms_operator op, tms_type type, tms_level level, Args a, tms_report *report, bool query) {
    tms_report scratch;
    tms_report *r = report ? report : &scratch;
    r->status = 0;
    r->message[0] = '\0';
    char text[160];
    if (static_cast<unsigned>(op) >= TMS_OPERATOR_COUNT) {
        std::snprintf(text, sizeof text, "no operator %d: the operators are 0 to %d", static_cast<int>(op),
                      TMS_OPERATOR_COUNT - 1);
        return refuse(r, TMS_BAD_ARGUMENT, text);
    }
    if (static_cast<unsigned>(type) >= TMS_TYPE_COUNT) {
        std::snprintf(text, sizeof text, "no element type %d: the types are 0 to %d", static_cast<int>(type),
                      TMS_TYPE_COUNT - 1);
        return refuse(r, TMS_BAD_ARGUMENT, text);
    }
    if (level == TMS_BEST) {
        level = tms_best_level();
    } else if (static_cast<unsigned>(level) >= TMS_LEVEL_COUNT) {
        std::snprintf(text, sizeof text, "no level %d: the levels are 0 to %d, or TMS_BEST", static_cast<int>(level),
                      TMS_LEVEL_COUNT - 1);
        return refuse(r, TMS_BAD_ARGUMENT, text);
    } else if (!tme_cpu_has(as_easy(level))) {
        std::snprintf(text, sizeof text, "this processor lacks the instructions of level %s", kLevels[level]);
        return refuse(r, TMS_LEVEL_NOT_ON_CPU, text);
    }

    const bool all_given = a.b[0] && a.b[1] && a.b[2] && a.b[3];
    if (all_given && query && !(asks(a.b[0]) || asks(a.b[1]) || asks(a.b[2]) || asks(a.b[3]))) {
        std::snprintf(text, sizeof text, "tms_bounds of %s: no descriptor asks for its region (every host is set)",
                      kOperators[op]);
        return refuse(r, TMS_NOT_A_QUERY, text);
    }

    tms_report *outer = t_report;
    t_report = r;
    int status;
    if (all_given && !query && (asks(a.b[0]) || asks(a.b[1]) || asks(a.b[2]) || asks(a.b[3]))) {
        // The export would answer a bounds query and write the descriptors
        // the caller gave as const.  Refused as the frame refuses a buffer
        // without host memory, in the frame's order (by argument name).
        const char *names[4] = {"keyimForType", "minmax", "strel", kOutputs[op]};
        char output_label[64];
        std::snprintf(output_label, sizeof output_label, "Output buffer %s", kOutputs[op]);
        const char *labels[4] = {"Input buffer keyimForType", "Input buffer minmax", "Input buffer strel",
                                 output_label};
        int first = -1;
        for (int i = 0; i < 4; i++)
            if (asks(a.b[i]) && (first < 0 || std::strcmp(names[i], names[first]) < 0)) first = i;
        status = halide_error_host_is_null(nullptr, labels[first]);
    } else {
        const Export fn = kExports[(op * TMS_TYPE_COUNT + type) * TMS_LEVEL_COUNT + level];
        status = fn(a.b[0], a.b[1], a.b[2], a.b[3]);
    }
    t_report = outer;
    r->status = status;
    if (status == 0) r->message[0] = '\0';
    return status;
}

std::mutex g_threads_mutex;
// Replaced as a whole, so that raising the limit again works (TBB takes the
// smallest of all live controls).  Never destroyed at exit, when TBB may
// already be gone.
tbb::global_control *g_thread_limit = nullptr;
int g_thread_count = 0;

}  // namespace

#define TMS_X(name, output)                                                                                  \
    TMS_API int tms_##name(tms_type type, tms_level level, const halide_buffer_t *image,                    \
                           const halide_buffer_t *minmax, const halide_buffer_t *strel, halide_buffer_t *out, \
                           tms_report *report) {                                                             \
        return tms_call(TMS_##name, type, level, image, minmax, strel, out, report);                         \
    }
TESSMORPHOP3_HALIDE_OPERATORS(TMS_X)
#undef TMS_X

// The exports take their inputs as non-const descriptors because a bounds
// query writes them; run() refuses every call that would be one.
TMS_API int tms_call(tms_operator op, tms_type type, tms_level level, const halide_buffer_t *image,
                     const halide_buffer_t *minmax, const halide_buffer_t *strel, halide_buffer_t *out,
                     tms_report *report) {
    Args a = {{const_cast<halide_buffer_t *>(image), const_cast<halide_buffer_t *>(minmax),
               const_cast<halide_buffer_t *>(strel), out}};
    return run(op, type, level, a, report, false);
}

TMS_API int tms_bounds(tms_operator op, tms_type type, tms_level level, halide_buffer_t *image,
                       halide_buffer_t *minmax, halide_buffer_t *strel, halide_buffer_t *out, tms_report *report) {
    return run(op, type, level, Args{{image, minmax, strel, out}}, report, true);
}

TMS_API int tms_cpu_has(tms_level level) {
    return static_cast<unsigned>(level) < TMS_LEVEL_COUNT && tme_cpu_has(as_easy(level));
}

TMS_API tms_level tms_best_level(void) {
    // Asked once: the answer can't change while the process runs.
    static const tms_level best = static_cast<tms_level>(static_cast<int>(tme_best_level()));
    return best;
}

TMS_API int tms_set_max_threads(int n) {
    if (n < 0) return TMS_BAD_ARGUMENT;
    std::lock_guard<std::mutex> lock(g_threads_mutex);
    delete g_thread_limit;
    g_thread_limit = nullptr;
    if (n > 0) g_thread_limit = new tbb::global_control(tbb::global_control::max_allowed_parallelism, size_t(n));
    g_thread_count = n;
    return 0;
}

TMS_API int tms_max_threads(void) {
    std::lock_guard<std::mutex> lock(g_threads_mutex);
    return g_thread_count;
}
