// The shared library as a host application meets it: it exports exactly
// the names of the list and nothing else, and its work runs on TBB workers
// even where the environment asks Halide's own pool for one thread.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <tbb/task_scheduler_observer.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>

#include "buffers.h"
#include "entries.h"

namespace tmtest {
namespace {

std::set<std::string> listed_exports() {
    std::set<std::string> names;
    std::ifstream f(TM_EXPORTS_FILE);
    for (std::string line; std::getline(f, line);)
        if (!line.empty()) names.insert(line);
    return names;
}

std::set<std::string> dynamic_symbols() {
    std::set<std::string> names;
    std::string cmd = std::string("nm -D --defined-only ") + TM_LIBRARY_PATH;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return names;
    char addr[64], kind[8], name[512];
    while (std::fscanf(p, "%63s %7s %511s", addr, kind, name) == 3) names.insert(name);
    pclose(p);
    return names;
}

TEST(Library, ExportsExactlyTheListedEntryPoints) {
    std::set<std::string> listed = listed_exports();
    ASSERT_EQ(listed.size(), all_entries().size());
    EXPECT_EQ(dynamic_symbols(), listed);

    void *h = dlopen(TM_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(h, nullptr) << dlerror();
    for (auto &name : listed) EXPECT_NE(dlsym(h, name.c_str()), nullptr) << name;
    for (const char *hidden : {"halide_do_par_for", "halide_malloc", "halide_error", "tm_frame", "tm_do_par_for",
                               "tm_imerode_uint8_none", "tm_imerode_uint8_none_argv",
                               "tm_imerode_uint8_none_metadata"})
        EXPECT_EQ(dlsym(h, hidden), nullptr) << hidden << " must not be exported";
    dlclose(h);
}

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

}  // namespace
}  // namespace tmtest
