// tessmorph._core: the library's entry points, reachable from Python on
// numpy arrays.
//
// The module links the safe library's objects statically
// (libtessmorphop3_halide_safe's archive: the frame, the pipelines and their
// own copy of the Halide runtime behind a returning error handler), and
// calls through its C API, which checks, dispatches and reports every call
// for the C and C++ hosts too: a refused call comes back with its status and
// the library's one-line message, raised here as a Python exception.  Every
// symbol but the module's init function is hidden, so the copy can't clash
// with the shared libraries loaded into the same process.
//
// Arrays come in numpy's axis order (the last axis is the library's
// dimension 0) and always with three axes; the Python layer adds the leading
// axes of extent 1 and makes dense what has to be.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tessmorphop3_halide_safe.h"

namespace py = pybind11;

namespace {

// The entries, type and level words come from the installed header's lists;
// what those do not carry (an operator's window and residue, a level's
// Halide features) from core_family.inc, which the build writes from the
// same list.  What a level asks of the processor is the safe library's
// answer.
struct Entry {
    const char *op, *type, *level;
};
const Entry kEntries[] = {
#define TMP_ENTRY(op, t, l) {#op, #t, #l},
    TESSMORPHOP3_HALIDE_ENTRIES(TMP_ENTRY)
#undef TMP_ENTRY
};

struct TypeWord {
    const char *word;
    int code, bits, bytes;
};
const TypeWord kTypes[] = {
#define TMP_TYPE(word, code, bits, bytes, ctype) {#word, code, bits, bytes},
    TESSMORPHOP3_HALIDE_TYPES(TMP_TYPE)
#undef TMP_TYPE
};

#define TMP_OPERATOR(name, window, residue)
#define TMP_FEATURES(word, features) const char *const kFeatures_##word = features;
#include "core_family.inc"
#undef TMP_OPERATOR
#undef TMP_FEATURES

struct LevelWord {
    const char *word, *features;
};
const LevelWord kLevels[] = {
#define TMP_LEVEL(word) {#word, kFeatures_##word},
    TESSMORPHOP3_HALIDE_LEVELS(TMP_LEVEL)
#undef TMP_LEVEL
};

struct OperatorWord {
    const char *name;
    int window, residue;
};
const OperatorWord kOperatorTraits[] = {
#define TMP_OPERATOR(name, window, residue) {#name, window, residue},
#define TMP_FEATURES(word, features)
#include "core_family.inc"
#undef TMP_OPERATOR
#undef TMP_FEATURES
};

const char *const kOperators[] = {
#define TMS_X(name, output) #name,
    TESSMORPHOP3_HALIDE_OPERATORS(TMS_X)
#undef TMS_X
};

template <size_t N, typename Word>
int index_of(const Word (&words)[N], const std::string &w, const char *Word::*field) {
    for (size_t i = 0; i < N; i++)
        if (w == words[i].*field) return int(i);
    return -1;
}

struct Target {
    tms_operator op;
    tms_type type;
    tms_level level;
};

Target find_export(const std::string &op, const std::string &type, const std::string &level) {
    int o = -1;
    for (int i = 0; i < TMS_OPERATOR_COUNT; i++)
        if (op == kOperators[i]) o = i;
    const int t = index_of(kTypes, type, &TypeWord::word), l = index_of(kLevels, level, &LevelWord::word);
    if (o < 0 || t < 0 || l < 0) throw py::value_error("no entry point " + op + "_" + type + "_" + level);
    return {tms_operator(o), tms_type(t), tms_level(l)};
}

[[noreturn]] void raise_status(int status, const std::string &message) {
    std::string text = message.empty() ? "the library refused the call (status " + std::to_string(status) + ")" : message;
    // The library counts dimensions from numpy's last axis.
    if (text.find(" dimension ") != std::string::npos) text += " (the library's dimension 0 is numpy's last axis)";
    switch (status) {
    case halide_error_code_bad_type: throw py::type_error(text);
    case halide_error_code_buffer_allocation_too_large:
    case halide_error_code_out_of_memory: PyErr_SetString(PyExc_MemoryError, text.c_str()); throw py::error_already_set();
    default: throw py::value_error(text);
    }
}

int32_t to_i32(py::ssize_t v, const char *what) {
    if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max())
        throw py::value_error(std::string(what) + " does not fit the library's 32-bit descriptors");
    return int32_t(v);
}

// The element type a numpy dtype declares, as a Halide type.  The library
// compares it with the entry point's own type, so a mismatch is the
// library's refusal, not this module's.
halide_type_t type_of(const py::dtype &dt) {
    if (!dt.attr("isnative").cast<bool>()) throw py::type_error("arrays must be in the machine's byte order");
    const int bits = int(dt.itemsize()) * 8;
    switch (dt.kind()) {
    case 'b': return halide_type_t(halide_type_uint, 1);
    case 'u': return halide_type_t(halide_type_uint, uint8_t(bits));
    case 'i': return halide_type_t(halide_type_int, uint8_t(bits));
    case 'f': return halide_type_t(halide_type_float, uint8_t(bits));
    default: throw py::type_error("element type " + py::str(static_cast<const py::handle &>(dt)).cast<std::string>() + " is not one of the library's");
    }
}

uint8_t g_empty_storage[16];

// A descriptor of a three-axis numpy array placed at the given mins (numpy
// order).  Strides become element counts, reversed with the axes.
struct Described {
    halide_dimension_t dim[3]{};
    halide_buffer_t buf{};

    Described(const py::array &a, const std::vector<int32_t> &mins, bool writable, const char *what) {
        if (a.ndim() != 3) throw py::value_error(std::string(what) + " must have three axes here");
        const py::ssize_t item = a.itemsize();
        for (int axis = 0; axis < 3; axis++) {
            const int d = 2 - axis;
            const py::ssize_t extent = a.shape(axis), stride = a.strides(axis);
            if (stride % item) throw py::value_error(std::string(what) + ": a stride is not a whole number of elements");
            dim[d].min = mins[axis];
            dim[d].extent = to_i32(extent, what);
            // An axis of one element is never stepped along; dimension 0 is
            // declared dense whatever numpy says about it.
            dim[d].stride = extent <= 1 ? (d == 0 ? 1 : 0) : to_i32(stride / item, what);
        }
        buf.type = type_of(a.dtype());
        buf.dimensions = 3;
        buf.dim = dim;
        void *host = writable ? a.request(true).ptr : const_cast<void *>(a.data());
        // A null host would turn the call into a bounds query.
        buf.host = static_cast<uint8_t *>(host ? host : g_empty_storage);
    }
};

std::vector<int32_t> mins_of(const std::vector<py::ssize_t> &v, const char *what) {
    if (v.size() != 3) throw py::value_error(std::string(what) + " must have three coordinates here");
    std::vector<int32_t> r;
    for (auto x : v) r.push_back(to_i32(x, what));
    return r;
}

void call(const std::string &op, const std::string &type, const std::string &level, const py::array &image,
          const std::vector<py::ssize_t> &image_min, double lower, double upper, const py::array &strel,
          const py::array &out, const std::vector<py::ssize_t> &out_min) {
    const Target target = find_export(op, type, level);
    Described im(image, mins_of(image_min, "image origin"), false, "image");
    Described se(strel, {0, 0, 0}, false, "footprint");
    Described o(out, mins_of(out_min, "output origin"), true, "output");

    // minmax(0, 0) is the lower bound, minmax(1, 0) the upper one.
    double bounds[2] = {lower, upper};
    halide_dimension_t mm_dim[2] = {{0, 2, 1}, {0, 1, 2}};
    halide_buffer_t mm{};
    mm.host = reinterpret_cast<uint8_t *>(bounds);
    mm.type = halide_type_t(halide_type_float, 64);
    mm.dimensions = 2;
    mm.dim = mm_dim;

    tms_report report;
    {
        py::gil_scoped_release release;
        tms_call(target.op, target.type, target.level, &im.buf, &mm, &se.buf, &o.buf, &report);
    }
    if (report.status != 0) raise_status(report.status, report.message);
}

using Box = std::tuple<std::vector<int32_t>, std::vector<int32_t>>;

// The bounds query: every descriptor with a null host is answered with the
// region a call would need.  Returns the image's and the output's regions,
// in numpy order.
std::tuple<Box, Box> query(const std::string &op, const std::string &type, const std::string &level,
                           const std::vector<py::ssize_t> &image_min, const std::vector<py::ssize_t> &image_shape,
                           const std::vector<py::ssize_t> &strel_shape, const std::vector<py::ssize_t> &out_min,
                           const std::vector<py::ssize_t> &out_shape) {
    const Target target = find_export(op, type, level);
    halide_dimension_t dims[4][3]{};
    halide_buffer_t bufs[4]{};
    const std::vector<py::ssize_t> *mins[4] = {&image_min, nullptr, nullptr, &out_min};
    const std::vector<py::ssize_t> *shapes[4] = {&image_shape, nullptr, &strel_shape, &out_shape};
    for (int b = 0; b < 4; b++) {
        bufs[b].dim = dims[b];
        bufs[b].dimensions = b == 1 ? 2 : 3;
        for (int axis = 0; axis < 3 && b != 1; axis++) {
            const int d = 2 - axis;
            if (shapes[b]->size() != 3 || (mins[b] && mins[b]->size() != 3))
                throw py::value_error("regions must have three coordinates here");
            dims[b][d].min = mins[b] ? to_i32((*mins[b])[axis], "origin") : 0;
            dims[b][d].extent = to_i32((*shapes[b])[axis], "extent");
        }
    }
    tms_report report;
    tms_bounds(target.op, target.type, target.level, &bufs[0], &bufs[1], &bufs[2], &bufs[3], &report);
    if (report.status != 0) raise_status(report.status, report.message);
    auto box = [&](int b) {
        std::vector<int32_t> m, e;
        for (int axis = 0; axis < 3; axis++) {
            m.push_back(dims[b][2 - axis].min);
            e.push_back(dims[b][2 - axis].extent);
        }
        return Box{m, e};
    };
    return {box(0), box(3)};
}

// The thread limit is the safe library's (TBB's, process-wide).
void set_num_threads(int n) {
    if (n < 0) throw py::value_error("the number of threads must be positive, or 0 for no limit");
    tms_set_max_threads(n);
}

}  // namespace

PYBIND11_MODULE(_core, m) {
    m.doc() = "The library's entry points on numpy arrays (internal; use the tessmorph package).";

    m.def("entries", [] {
        std::vector<std::tuple<std::string, std::string, std::string>> r;
        for (const Entry &e : kEntries) r.emplace_back(e.op, e.type, e.level);
        return r;
    }, "Every (operator, type, level) of the library.");
    m.def("types", [] {
        std::vector<std::tuple<std::string, int, int, int>> r;
        for (const TypeWord &t : kTypes) r.emplace_back(t.word, t.code, t.bits, t.bytes);
        return r;
    }, "The element types: (word, Halide type code, bits, bytes of storage).");
    m.def("levels", [] {
        std::vector<std::tuple<std::string, std::string, bool>> r;
        for (const LevelWord &l : kLevels)
            r.emplace_back(l.word, l.features, tms_cpu_has(tms_level(&l - kLevels)) != 0);
        return r;
    }, "The levels, from the baseline up: (word, Halide features, whether this processor has them).");
    m.def("operators", [] {
        std::vector<std::tuple<std::string, int, bool>> r;
        for (const OperatorWord &o : kOperatorTraits) r.emplace_back(o.name, o.window, o.residue != 0);
        return r;
    }, "The operators: (word, the image dimension that bounds opening's window in dimension 2 or -1, "
       "whether it reads the image again at the output).");
    m.def("call", &call, py::arg("op"), py::arg("type"), py::arg("level"), py::arg("image"), py::arg("image_min"),
          py::arg("lower"), py::arg("upper"), py::arg("strel"), py::arg("out"), py::arg("out_min"),
          "Runs one entry point; raises with the library's message if it refuses.");
    m.def("query", &query, py::arg("op"), py::arg("type"), py::arg("level"), py::arg("image_min"),
          py::arg("image_shape"), py::arg("strel_shape"), py::arg("out_min"), py::arg("out_shape"),
          "The bounds query: ((image origin, shape), (output origin, shape)).");
    m.def("set_num_threads", &set_num_threads, py::arg("n"));
    m.def("thread_limit", &tms_max_threads, "The limit set by set_num_threads, 0 when none.");
}
