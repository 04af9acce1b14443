// The shared library under threads.  Its work runs on TBB workers, even
// where the environment asks Halide's own pool for one thread.  And eight
// threads calling it at once, every export drawn at random, all of them
// reading the same inputs: each result must be byte for byte the result of
// the same call made alone.  A call keeps nothing between calls and writes
// only its own output and intermediate, so anything shared by mistake (a
// static, a block handed to two calls, a closure outliving its loop) shows
// here as a difference.
#include <gtest/gtest.h>
#include <tbb/task_scheduler_observer.h>

#include <array>
#include <atomic>
#include <map>
#include <thread>

#include "morph_case.h"

namespace tmtest {
namespace {

// Counts the TBB worker threads that join the scheduler while it observes.
struct WorkerCount : tbb::task_scheduler_observer {
    std::atomic<int> workers{0};
    WorkerCount() { observe(true); }
    ~WorkerCount() { observe(false); }
    void on_scheduler_entry(bool is_worker) override {
        if (is_worker) workers++;
    }
};

TEST(Library, WorkRunsOnTbbWorkers) {
    if (tbb::this_task_arena::max_concurrency() < 2) GTEST_SKIP() << "one hardware thread: TBB has no workers";
    // The runtime's own pool would read this; TBB never does.
    setenv("HL_NUM_THREADS", "1", 1);
    WorkerCount count;
    const int32_t min[3] = {0, 0, 0}, extent[3] = {512, 256, 16}, se_extent[3] = {5, 5, 1};
    const int32_t mm_min[2] = {0, 0}, mm_extent[2] = {2, 1};
    Buf im, mm, se, out;
    im.init_dense(halide_type_t(halide_type_uint, 8), 1, 3, min, extent);
    out.init_dense(halide_type_t(halide_type_uint, 8), 1, 3, min, extent);
    mm.init_dense(halide_type_t(halide_type_float, 64), 8, 2, mm_min, mm_extent);
    se.init_dense(halide_type_t(halide_type_uint, 8), 1, 3, min, se_extent);
    std::fill(se.store.begin(), se.store.end(), 1);
    for (int round = 0; round < 20 && count.workers == 0; round++)
        ASSERT_EQ(imerode_uint8_none(&im.b, &mm.b, &se.b, &out.b), 0);
    EXPECT_GT(count.workers.load(), 0);
}

// The inputs of one element type and one shape, shared by every thread.
struct Inputs {
    Buf im, mm, se;
};

struct Shape3 {
    int32_t min[3], extent[3];
};

// Rows wider than any lane count (the wide branch everywhere), and rows of
// three samples (the narrow branch except for float64 at level none).
const Shape3 kShapes[] = {{{-3, 2, -1}, {301, 37, 5}}, {{5, 0, 0}, {3, 150, 9}}};

struct Job {
    const Entry *entry;
    int shape;
    const std::vector<uint8_t> *alone;  // the output's storage after the same call made alone
};

int run(const Job &j, Inputs &in, Buf &out) {
    const TypeInfo &ti = type_info(j.entry->type);
    const Shape3 &s = kShapes[j.shape];
    out.init_dense(ti.ht, ti.bytes, 3, s.min, s.extent, 1, 2);
    std::fill(out.store.begin(), out.store.end(), uint8_t(0x5a));
    return j.entry->fn(&in.im.b, &in.mm.b, &in.se.b, &out.b);
}

TEST(Concurrency, EightThreadsAgreeWithCallsMadeAlone) {
    constexpr int kThreads = 8, kJobsPerThread = 800;
    std::mt19937 rng(20240917);

    std::map<std::string, std::array<Inputs, 2>> inputs;
    for (const Entry &e : all_entries()) {
        if (inputs.count(e.type)) continue;
        auto &pair = inputs[e.type];
        const TypeInfo &ti = type_info(e.type);
        for (int k = 0; k < 2; k++) {
            const Shape3 &s = kShapes[k];
            const int32_t zero[3] = {0, 0, 0}, se_extent[3] = {3, 3, 2}, mm_extent[2] = {2, 1};
            pair[k].im.init_dense(ti.ht, ti.bytes, 3, s.min, s.extent, 2, 1);
            fill_image(pair[k].im, e.type, rng);
            pair[k].se.init_dense(halide_type_t(halide_type_uint, 8), 1, 3, zero, se_extent);
            for (auto &m : pair[k].se.store) m = rng() % 5 ? 1 : 0;
            pair[k].mm.init_dense(halide_type_t(halide_type_float, 64), 8, 2, zero, mm_extent);
            const double bounds[2] = {random_bound(e.type, rng), random_bound(e.type, rng)};
            std::memcpy(pair[k].mm.at(0, 0), bounds, sizeof bounds);
        }
    }

    std::vector<const Entry *> runnable;
    for (const Entry &e : all_entries())
        if (e.cpu_has_level()) runnable.push_back(&e);
    std::map<std::pair<const Entry *, int>, std::vector<uint8_t>> alone;
    std::vector<Job> jobs(kThreads * kJobsPerThread);
    for (Job &j : jobs) {
        j.entry = runnable[rng() % runnable.size()];
        j.shape = int(rng() % 2);
        auto [it, first] = alone.try_emplace({j.entry, j.shape});
        if (first) {
            Buf out;
            ASSERT_EQ(run(j, inputs[j.entry->type][j.shape], out), 0) << j.entry->name;
            it->second = out.store;
        }
        j.alone = &it->second;
    }

    // All threads start together and each takes every kThreads-th job.
    std::atomic<int> waiting{kThreads};
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            waiting--;
            while (waiting.load() > 0) std::this_thread::yield();
            for (size_t i = size_t(t); i < jobs.size(); i += kThreads) {
                const Job &j = jobs[i];
                Buf out;
                const int status = run(j, inputs[j.entry->type][j.shape], out);
                if (status != 0 || out.store != *j.alone) {
                    failures[t] += std::string(j.entry->name) + " (shape " + std::to_string(j.shape) +
                                   ", status " + std::to_string(status) + ")\n";
                }
            }
        });
    for (auto &th : threads) th.join();
    for (int t = 0; t < kThreads; t++) EXPECT_EQ(failures[t], "") << "thread " << t << " differs from the calls made alone";
}

}  // namespace
}  // namespace tmtest
