// Times our entry points and OpenCV on the same data in the same run, and
// checks once per case, outside the timed loop, that both give the same
// bytes.  At the end it prints, for every case, our median time over
// OpenCV's for the same thread count.
//
// What runs: every operator of the table below that the library exports,
// on every image, type and element of the case table, at the best level the
// processor has with one thread and with all of them; erosion and dilation
// on the 4096-wide images also at every other level with one thread
// (levels are compared single-threaded, threads at the best level).  OpenCV
// runs every case with one thread and with all (cut into bands of rows), and
// a plain copy of the 4096 x 4096 images gives the physical anchor.
//
//   tm_bench [Google Benchmark flags]   e.g. --benchmark_filter=disk
//                                            --benchmark_repetitions=3
#include <benchmark/benchmark.h>

#include <tbb/global_control.h>
#include <tbb/info.h>

#include <opencv2/core/utility.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "peer_opencv.h"
#include "tessmorphop3_halide.h"
#include "tessmorphop3_halide_easy.h"
#include "volume.h"

namespace tmbench {
namespace {

using EntryFn = int (*)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

// Every export of this build, by name.
const std::map<std::string, EntryFn> &exports() {
    static const std::map<std::string, EntryFn> m = {
#define TMB_ENTRY(op, t, l) {#op "_" #t "_" #l, op##_##t##_##l},
        TESSMORPHOP3_HALIDE_ENTRIES(TMB_ENTRY)
#undef TMB_ENTRY
    };
    return m;
}

// The operators and their OpenCV counterparts.  An operator the library
// does not export is skipped.  `reaches`: samples closer to the image's
// border than this many reaches of the element (per dimension, the larger
// of c and e - 1 - c) are left out of the check, because the two sides
// define that border differently; 0 compares every sample.  `sweep`: run
// every level with one thread as well as the best level with one thread and
// all of them (on the 4096-wide images); otherwise only the best level,
// which keeps the whole suite to a few minutes.
struct OperatorRow {
    const char *word;
    PeerFn peer;
    int reaches;
    bool sweep;
};
const OperatorRow kOperators[] = {
    {"imerode", peer_erode, 0, true},
    {"imdilate", peer_dilate, 0, true},
    {"imopen", peer_open, 2, false},
    {"imclose", peer_close, 2, false},
    {"imtophat", peer_tophat, 2, false},
    {"imbothat", peer_bothat, 2, false},
};

// Elements.  The disks are the lattice points within radius r of the centre.
Element square(const char *name, int e) { return {name, {e, e, 1}, std::vector<uint8_t>(size_t(e) * e, 1)}; }
Element disk(const char *name, int e) {
    Element se{name, {e, e, 1}, std::vector<uint8_t>(size_t(e) * e, 0)};
    int r = e / 2;
    for (int j = 0; j < e; j++)
        for (int i = 0; i < e; i++) se.bytes[size_t(j) * e + i] = (i - r) * (i - r) + (j - r) * (j - r) <= r * r;
    return se;
}
Element cube(const char *name, int e) { return {name, {e, e, e}, std::vector<uint8_t>(size_t(e) * e * e, 1)}; }
Element line(const char *name, int e0, int e1) { return {name, {e0, e1, 1}, std::vector<uint8_t>(size_t(e0) * e1, 1)}; }
// The lattice points within radius r of the centre, in three dimensions.
Element ball(const char *name, int r) {
    const int e = 2 * r + 1;
    Element se{name, {e, e, e}, std::vector<uint8_t>(size_t(e) * e * e, 0)};
    for (int k = 0; k < e; k++)
        for (int j = 0; j < e; j++)
            for (int i = 0; i < e; i++)
                se.bytes[(size_t(k) * e + j) * e + i] = (i - r) * (i - r) + (j - r) * (j - r) + (k - r) * (k - r) <= r * r;
    return se;
}

// The cases: an image shape, the element types run on it, its elements,
// the operators (all when empty) and whether erosion and dilation also run
// at every level (`sweep`).
struct CaseRow {
    std::string shape;
    int w, h, d;
    std::vector<Type> types;
    std::vector<Element> elements;
    std::vector<std::string> ops = {};
    bool sweep = false;
};
const std::vector<CaseRow> &cases() {
    static const std::vector<CaseRow> rows = [] {
        const std::vector<std::string> erode = {"imerode"};
        std::vector<CaseRow> r = {
            {"4096x4096", 4096, 4096, 1, {Type::UInt8, Type::Float32},
             {square("square3", 3), disk("disk5", 5), square("square15", 15), disk("disk15", 15)}, {}, true},
            // The types of microscopy and CT.
            {"4096x4096", 4096, 4096, 1, {Type::UInt16, Type::Int16}, {square("square3", 3), disk("disk5", 5)}, {}, true},
            // A typical small image, where the cost of a call shows.
            {"512x512", 512, 512, 1, {Type::UInt8}, {disk("disk5", 5)}},
            {"256x256x256", 256, 256, 256, {Type::UInt8}, {cube("cube3", 3)}},
            // Sizes: the cost of a sample against the element's extent.
            {"4096x4096", 4096, 4096, 1, {Type::UInt8, Type::UInt16, Type::Float32},
             {square("square5", 5), square("square7", 7), square("square31", 31), square("square63", 63),
              disk("disk3", 3), disk("disk7", 7), disk("disk31", 31), disk("disk63", 63), line("line1x31", 31, 1),
              line("line31x1", 1, 31)},
             erode},
            {"4096x4096", 4096, 4096, 1, {Type::UInt16}, {square("square15", 15), disk("disk15", 15)}, erode},
            // Boxes and lines wider than the runs' levels reach (63 samples).
            {"4096x4096", 4096, 4096, 1, {Type::UInt8, Type::UInt16, Type::Float32},
             {square("square127", 127), line("line1x255", 255, 1)}, erode},
            // Background subtraction: a top-hat with a large disk, and a
            // volume's top-hat against its two stages.
            {"2048x2048", 2048, 2048, 1, {Type::UInt16}, {disk("disk51", 51)}, {"imtophat"}},
            {"256x256x256", 256, 256, 256, {Type::UInt16}, {ball("ball5", 5)}, {"imtophat", "imerode", "imdilate"}},
        };
        // Row widths on about 4 M samples: blocks, crops, tiles.
        for (int w : {48, 64, 128, 200, 255, 256, 300, 512, 4096}) {
            const int h = (4 << 20) / w;
            r.push_back({std::to_string(w) + "x" + std::to_string(h), w, h, 1, {Type::UInt8, Type::Float32},
                         {disk("disk5", 5), disk("disk15", 15), square("square15", 15)}, erode});
        }
        // Balls on volumes.
        for (int n : {128, 256})
            r.push_back({std::to_string(n) + "x" + std::to_string(n) + "x" + std::to_string(n), n, n, n,
                         {Type::UInt8, Type::UInt16},
                         {ball("ball1", 1), ball("ball3", 3), ball("ball7", 7), ball("ball15", 15)}, erode});
        // A ball of about 2000 runs along its rows.
        r.push_back({"128x128x128", 128, 128, 128, {Type::UInt8}, {ball("ball25", 25)}, erode});
        // Elements far larger than the image: a tile under disks of 401 and
        // 2001, and a 2-D photo under a ball.
        r.push_back({"64x80", 64, 80, 1, {Type::UInt8, Type::Float32}, {disk("disk401", 401), disk("disk2001", 2001)},
                     erode});
        r.push_back({"512x512x1", 512, 512, 1, {Type::UInt8, Type::Float32}, {ball("ball15", 15)}, erode});
        return r;
    }();
    return rows;
}

// The library's table of levels, as hosts read it.
const char *best_level() {
    static const char *const words[] = {
#define TME_X(word) #word,
        TESSMORPHOP3_HALIDE_LEVELS(TME_X)
#undef TME_X
    };
    return words[tme_best_level()];
}

std::vector<const char *> levels_here() {
    std::string best = best_level();
    if (best == "avx2") return {"none", "avx", "avx2"};
    if (best == "avx") return {"none", "avx"};
    return {"none"};
}

// Pads that leave the border alone: the extremes of the type.  Both sides
// get the same value, so any value would do for the check; these are the
// ones a caller uses.
Pads neutral_pads(Type t) { return Pads{type_least(t), type_greatest(t)}; }

// Random images, made once per type and shape.
const Volume &image(Type t, int w, int h, int d) {
    static std::map<std::string, std::unique_ptr<Volume>> cache;
    std::string key = std::string(type_word(t)) + "/" + std::to_string(w) + "x" + std::to_string(h) + "x" +
                      std::to_string(d);
    auto &slot = cache[key];
    if (!slot) {
        slot = std::make_unique<Volume>(t, w, h, d);
        uint64_t x = 0x9e3779b97f4a7c15ull ^ uint64_t(w * 131 + h * 7 + d + int(t));
        auto next = [&] {  // splitmix64
            uint64_t z = (x += 0x9e3779b97f4a7c15ull);
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
            return z ^ (z >> 31);
        };
        if (t == Type::UInt8) {
            auto *p = slot->data.get();
            for (size_t i = 0; i < slot->samples(); i++) p[i] = uint8_t(next() >> 56);
        } else if (t == Type::UInt16 || t == Type::Int16) {
            auto *p = reinterpret_cast<uint16_t *>(slot->data.get());
            for (size_t i = 0; i < slot->samples(); i++) p[i] = uint16_t(next() >> 48);
        } else {
            auto *p = reinterpret_cast<float *>(slot->data.get());
            // Values in [-1000, 1000): many exponents, no NaN, no zero.
            for (size_t i = 0; i < slot->samples(); i++)
                p[i] = float(double(next() >> 11) * 0x1p-53 * 2000.0 - 1000.0);
        }
    }
    return *slot;
}

// One output per type and shape for our calls, and one for OpenCV's, which
// also keeps the result of the last case that OpenCV ran; benchmarks are
// registered peer first, so each case computes it once.
Volume &output(Type t, int w, int h, int d, bool peer) {
    static std::map<std::string, std::unique_ptr<Volume>> cache;
    std::string key = std::string(peer ? "peer/" : "ours/") + type_word(t) + "/" + std::to_string(w) + "x" +
                      std::to_string(h) + "x" + std::to_string(d);
    auto &slot = cache[key];
    if (!slot) slot = std::make_unique<Volume>(t, w, h, d);
    return *slot;
}

struct Case {
    const OperatorRow *op;
    const CaseRow *row;
    Type type;
    const Element *se;
    std::string key() const {
        return std::string(op->word) + "/" + type_word(type) + "/" + row->shape + "/" + se->name;
    }
};

Scratch &peer_scratch() {
    static Scratch s;
    return s;
}

// OpenCV's result for `c`, computed unless it is the one already held.
const Volume &peer_result(const Case &c) {
    static std::string held;
    Volume &out = output(c.type, c.row->w, c.row->h, c.row->d, true);
    if (held != c.key()) {
        held.clear();
        c.op->peer(image(c.type, c.row->w, c.row->h, c.row->d), *c.se, neutral_pads(c.type), out, peer_scratch());
        held = c.key();
    }
    return out;
}

// Empty when equal; otherwise where the first difference is.
std::string compare(const Case &c, const Volume &ours, const Volume &peer) {
    int m[3];
    for (int d = 0; d < 3; d++) {
        int e = c.se->e[d], ctr = centre_of(e);
        m[d] = c.op->reaches * std::max(ctr, e - 1 - ctr);
    }
    const size_t row = size_t(ours.w) * type_bytes(ours.type);
    const size_t skip = size_t(m[0]) * type_bytes(ours.type);
    for (int z = m[2]; z < ours.d - m[2]; z++)
        for (int y = m[1]; y < ours.h - m[1]; y++) {
            size_t off = (size_t(z) * ours.h + y) * row;
            const uint8_t *a = ours.data.get() + off, *b = peer.data.get() + off;
            if (row <= 2 * skip || std::memcmp(a + skip, b + skip, row - 2 * skip) == 0) continue;
            for (int x = m[0]; x < ours.w - m[0]; x++) {
                size_t bx = size_t(x) * type_bytes(ours.type);
                if (std::memcmp(a + bx, b + bx, type_bytes(ours.type)) == 0) continue;
                char msg[160];
                auto value = [&](const uint8_t *q) {
                    switch (ours.type) {
                    case Type::UInt8: return double(*q);
                    case Type::UInt16: { uint16_t v; std::memcpy(&v, q, 2); return double(v); }
                    case Type::Int16: { int16_t v; std::memcpy(&v, q, 2); return double(v); }
                    case Type::Float32: { float v; std::memcpy(&v, q, 4); return double(v); }
                    }
                    return 0.0;
                };
                std::snprintf(msg, sizeof msg, "differs from OpenCV at (%d,%d,%d): %a vs %a", x, y, z, value(a + bx),
                              value(b + bx));
                return msg;
            }
        }
    return "";
}

int g_mismatches = 0;

// A case's working memory: the peak of what the library holds from the
// runtime's allocator during one call (its bands' blocks, and an
// intermediate).  The check call runs with this counting allocator in
// place of the library's own, which keeps freed blocks between calls and
// so would show nothing new resident for a case run after a larger one.
constexpr size_t kCountAlign = 128;  // at least the runtime's alignment
std::atomic<size_t> g_held{0}, g_peak{0};
void *counting_malloc(void *, size_t size) {
    void *raw = std::aligned_alloc(kCountAlign, (size + 2 * kCountAlign - 1) / kCountAlign * kCountAlign);
    if (!raw) return nullptr;
    *static_cast<size_t *>(raw) = size;
    const size_t held = g_held += size;
    size_t peak = g_peak.load();
    while (held > peak && !g_peak.compare_exchange_weak(peak, held)) {
    }
    return static_cast<char *>(raw) + kCountAlign;
}
void counting_free(void *, void *p) {
    if (!p) return;
    void *raw = static_cast<char *>(p) - kCountAlign;
    g_held -= *static_cast<size_t *>(raw);
    std::free(raw);
}

void set_counters(benchmark::State &st, const Case &c) {
    st.counters["taps"] = c.se->taps();
    st.counters["samples"] = double(size_t(c.row->w) * c.row->h * c.row->d);
}

void run_ours(benchmark::State &st, Case c, EntryFn fn, int threads) {
    // OpenCV's result first, with all threads, whatever this case limits.
    const Volume &ref = peer_result(c);
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
    const Volume &in = image(c.type, c.row->w, c.row->h, c.row->d);
    Volume &out = output(c.type, c.row->w, c.row->h, c.row->d, false);
    Pads pads = neutral_pads(c.type);
    double minmax[2] = {pads.lower, pads.upper};
    halide_dimension_t mm_dim[2] = {{0, 2, 1}, {0, 1, 2}};
    halide_buffer_t mm{};
    mm.host = reinterpret_cast<uint8_t *>(minmax);
    mm.type = halide_type_t(halide_type_float, 64);
    mm.dimensions = 2;
    mm.dim = mm_dim;
    std::vector<uint8_t> mask = c.se->bytes;
    halide_dimension_t se_dim[3] = {{0, c.se->e[0], 1}, {0, c.se->e[1], c.se->e[0]},
                                    {0, c.se->e[2], c.se->e[0] * c.se->e[1]}};
    halide_buffer_t se{};
    se.host = mask.data();
    se.type = halide_type_t(halide_type_uint, 8);
    se.dimensions = 3;
    se.dim = se_dim;
    halide_buffer_t src = in.buf;  // the library takes non-const descriptors

    // The check, whose working memory is the case's, then a warm-up call
    // with the library's own allocator.
    g_held = 0;
    g_peak = 0;
    halide_malloc_t own_malloc = halide_set_custom_malloc(counting_malloc);
    halide_free_t own_free = halide_set_custom_free(counting_free);
    int status = fn(&src, &mm, &se, &out.buf);
    halide_set_custom_malloc(own_malloc);
    halide_set_custom_free(own_free);
    const size_t peak = g_peak;
    if (status == 0) status = fn(&src, &mm, &se, &out.buf);
    std::string diff = status != 0 ? "entry point returned " + std::to_string(status) : compare(c, out, ref);
    if (!diff.empty()) {
        st.SkipWithError(diff.c_str());
        g_mismatches++;
        return;
    }
    for (auto _ : st) {
        fn(&src, &mm, &se, &out.buf);
        benchmark::ClobberMemory();
    }
    set_counters(st, c);
    st.counters["work_MiB"] = double(peak) / double(1 << 20);
}

// OpenCV timed as is (`stripes` 1), or cut into bands of rows (see
// Scratch); the banded result is checked against the plain one first.
void run_peer(benchmark::State &st, Case c, int threads, int stripes) {
    const Volume &in = image(c.type, c.row->w, c.row->h, c.row->d);
    const Volume &ref = peer_result(c);  // one plain call, with all threads
    Volume &out = stripes > 1 ? output(c.type, c.row->w, c.row->h, c.row->d, false)
                              : output(c.type, c.row->w, c.row->h, c.row->d, true);
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
    const int cv_threads = cv::getNumThreads();
    cv::setNumThreads(threads);
    Pads pads = neutral_pads(c.type);
    Scratch &s = peer_scratch();
    s.stripes = stripes;
    if (stripes > 1) {
        c.op->peer(in, *c.se, pads, out, s);
        std::string diff = compare(c, out, ref);
        if (!diff.empty()) {
            st.SkipWithError(("bands: " + diff).c_str());
            g_mismatches++;
        }
    }
    if (!st.error_occurred())
        for (auto _ : st) {
            c.op->peer(in, *c.se, pads, out, s);
            benchmark::ClobberMemory();
        }
    s.stripes = 1;
    cv::setNumThreads(cv_threads);
    set_counters(st, c);
}

// The console output as usual, and at the end every case's ratio.  With
// repetitions, the medians are used.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    bool ReportContext(const Context &context) override { return ConsoleReporter::ReportContext(context); }

    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.error_occurred) continue;
            bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.run_type == Run::RT_Aggregate && !median) continue;
            // Plain iterations count only when no median comes for this name.
            std::string name = r.run_name.function_name;
            if (!median && medians_.count(name)) continue;
            double ns = r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit) * 1e9;
            if (median) medians_.insert(name);
            times_[name] = ns;
            if (std::find(order_.begin(), order_.end(), name) == order_.end()) order_.push_back(name);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\nMedian times; ratio < 1: ours is faster.  OpenCV rows: OpenCV cut into bands of rows,\n"
                    "one call per band through cv::parallel_for_ (one call alone runs on one thread).\n");
        std::printf("%-40s %-5s %7s %9s %9s %9s %8s %8s\n", "case", "level", "threads", "ours ms", "OpenCV",
                    "rows", "ratio", "ratio");
        std::printf("%-40s %-5s %7s %9s %9s %9s %8s %8s\n", "", "", "", "", "ms", "ms", "OpenCV", "rows");
        auto ms = [](const double *t, char *buf) {
            if (t) std::snprintf(buf, 16, "%9.3f", *t / 1e6);
            else std::snprintf(buf, 16, "%9s", "-");
            return buf;
        };
        auto ratio = [](double ours, const double *t, char *buf) {
            if (t) std::snprintf(buf, 16, "%8.2f", ours / *t);
            else std::snprintf(buf, 16, "%8s", "-");
            return buf;
        };
        for (const std::string &name : order_) {
            // name: op/type/shape/element/level/threads:N
            auto cut = name.rfind('/');
            auto lvl = name.rfind('/', cut - 1);
            std::string level = name.substr(lvl + 1, cut - lvl - 1);
            if (level.rfind("opencv", 0) == 0) continue;
            std::string what = name.substr(0, lvl), threads = name.substr(name.find(':', cut) + 1);
            const double *plain = find(what + "/opencv" + name.substr(cut));
            const double *rows = find(what + "/opencv-rows" + name.substr(cut));
            double ours = times_[name];
            char a[16], b[16], c[16], d[16], e[16];
            std::printf("%-40s %-5s %7s %s %s %s %s %s\n", what.c_str(), level.c_str(), threads.c_str(),
                        ms(&ours, a), ms(plain, b), ms(rows, c), ratio(ours, plain, d), ratio(ours, rows, e));
        }
    }

private:
    const double *find(const std::string &name) const {
        auto p = times_.find(name);
        return p == times_.end() ? nullptr : &p->second;
    }
    std::map<std::string, double> times_;
    std::set<std::string> medians_;
    std::vector<std::string> order_;
};

// The physical anchor: a plain copy of the image, one thread.
void run_memcpy(benchmark::State &st, Type t, int w, int h, int d) {
    const Volume &in = image(t, w, h, d);
    Volume &out = output(t, w, h, d, false);
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, 1);
    for (auto _ : st) {
        std::memcpy(out.data.get(), in.data.get(), in.bytes());
        benchmark::ClobberMemory();
    }
    st.counters["samples"] = double(in.samples());
}

void register_all() {
    const int all = tbb::info::default_concurrency();
    const std::string best = best_level();
    for (Type t : {Type::UInt8, Type::Float32}) {
        std::string name = std::string("memcpy/") + type_word(t) + "/4096x4096/-/copy/threads:1";
        benchmark::RegisterBenchmark(name.c_str(), run_memcpy, t, 4096, 4096, 1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    for (const CaseRow &row : cases())
        for (Type t : row.types)
            for (const Element &se : row.elements)
                for (const OperatorRow &op : kOperators) {
                    if (!exports().count(std::string(op.word) + "_" + type_word(t) + "_" + best)) continue;
                    if (!row.ops.empty() && std::find(row.ops.begin(), row.ops.end(), op.word) == row.ops.end())
                        continue;
                    Case c{&op, &row, t, &se};
                    // One thread for every case (one OpenCV call runs on
                    // one), and all of them.
                    std::vector<int> thread_counts = {1};
                    if (all > 1) thread_counts.push_back(all);
                    auto add = [&](const std::string &impl, int n, auto fn, auto... args) {
                        std::string name = c.key() + "/" + impl + "/threads:" + std::to_string(n);
                        benchmark::RegisterBenchmark(name.c_str(), fn, c, args...)
                            ->UseRealTime()
                            ->Unit(benchmark::kMillisecond);
                    };
                    for (int n : thread_counts) {
                        add("opencv", n, run_peer, n, 1);
                        if (n > 1 && row.d == 1) add("opencv-rows", n, run_peer, n, n);
                    }
                    for (const char *level : levels_here())
                        for (int n : thread_counts) {
                            if (best != level && (n != 1 || !op.sweep || !row.sweep)) continue;
                            auto e = exports().find(std::string(op.word) + "_" + type_word(t) + "_" + level);
                            if (e != exports().end()) add(level, n, run_ours, e->second, n);
                        }
                }
}

}  // namespace
}  // namespace tmbench

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::AddCustomContext("best_level", tmbench::best_level());
    benchmark::AddCustomContext("opencv", cv::getVersionString());
    tmbench::register_all();
    tmbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (tmbench::g_mismatches) {
        std::fprintf(stderr, "%d case(s) failed their check against OpenCV\n", tmbench::g_mismatches);
        return 1;
    }
    return 0;
}
