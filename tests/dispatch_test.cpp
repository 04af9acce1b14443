// The TBB do-par-for on its own, with synthetic tasks: every iteration runs,
// a failure is kept and never reset, empty and wrapping ranges run nothing,
// and a nested failure travels out through the outer loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <vector>

#include "par_for.h"

namespace {

struct Plan {
    std::vector<int> status;           // what iteration i returns
    std::vector<std::atomic<int>> ran;  // how often iteration i ran
    int min = 0;
    explicit Plan(int n, int min_ = 0) : status(n, 0), ran(n), min(min_) {}
};

int leaf(void *, int i, uint8_t *closure) {
    auto *p = reinterpret_cast<Plan *>(closure);
    p->ran[i - p->min]++;
    return p->status[i - p->min];
}

int run(Plan &p) {
    return tm_do_par_for(nullptr, leaf, p.min, int(p.status.size()), reinterpret_cast<uint8_t *>(&p));
}

void expect_each_ran_once(const Plan &p) {
    for (size_t i = 0; i < p.ran.size(); i++) EXPECT_EQ(p.ran[i].load(), 1) << "iteration " << i;
}

// Every iteration runs exactly once, also after failures, and the loop
// returns one of the failures (the last one stored wins) or 0.
struct Failures {
    const char *what;
    int min, size;
    std::vector<std::pair<int, int>> failing;  // iteration, its status
};

class Statuses : public testing::TestWithParam<Failures> {};

TEST_P(Statuses, EveryIterationRunsAndAFailureIsKept) {
    const Failures &f = GetParam();
    for (int round = 0; round < 20; round++) {
        Plan p(f.size, f.min);
        for (auto [i, status] : f.failing) p.status[i] = status;
        const int r = run(p);
        if (f.failing.empty()) EXPECT_EQ(r, 0);
        else EXPECT_TRUE(std::any_of(f.failing.begin(), f.failing.end(), [&](auto x) { return x.second == r; })) << r;
        expect_each_ran_once(p);
    }
}

INSTANTIATE_TEST_SUITE_P(Loops, Statuses,
                         testing::Values(Failures{"AllSucceed", -37, 1000, {}},
                                         Failures{"OneAmongMany", 0, 100, {{42, -7}}},
                                         // The failure comes first in index order; later successes must not reset it.
                                         Failures{"FirstOfMany", 0, 500, {{0, -7}}},
                                         Failures{"TwoFailures", 0, 200, {{3, -7}, {190, -9}}}),
                         [](const auto &i) { return std::string(i.param.what); });

struct Range {
    const char *what;
    int min, size;
};
class EmptyRange : public testing::TestWithParam<Range> {};

int never(void *, int, uint8_t *) {
    ADD_FAILURE() << "task called on an empty range";
    return -1;
}

TEST_P(EmptyRange, RunsNothingAndSucceeds) {
    EXPECT_EQ(tm_do_par_for(nullptr, never, GetParam().min, GetParam().size, nullptr), 0);
}

INSTANTIATE_TEST_SUITE_P(Ranges, EmptyRange,
                         testing::Values(Range{"Size0", 0, 0}, Range{"NegativeSize", 5, -1},
                                         Range{"SizeIntMin", -3, INT_MIN}, Range{"EndWrapsByOne", INT_MAX, 1},
                                         Range{"EndWraps", INT_MAX - 5, 10}, Range{"SizeIntMax", INT_MAX, INT_MAX}),
                         [](const auto &i) { return std::string(i.param.what); });

// A plane task that issues a nested loop over rows, as the pipelines do;
// one row of one plane fails.
struct Nest {
    int failing_plane, failing_row;
    std::atomic<int> rows{0};
};
struct PlaneClosure {
    Nest *nest;
    int failing_row;  // INT_MIN in planes without a failure
};

int row(void *, int r, uint8_t *closure) {
    auto *c = reinterpret_cast<PlaneClosure *>(closure);
    c->nest->rows++;
    return r == c->failing_row ? -11 : 0;
}

int plane(void *uc, int z, uint8_t *closure) {
    auto *n = reinterpret_cast<Nest *>(closure);
    PlaneClosure c{n, z == n->failing_plane ? n->failing_row : INT_MIN};
    return tm_do_par_for(uc, row, 0, 16, reinterpret_cast<uint8_t *>(&c));
}

TEST(Dispatch, NestedFailureReachesTheOuterCaller) {
    Nest n{3, 9};
    EXPECT_EQ(tm_do_par_for(nullptr, plane, 0, 8, reinterpret_cast<uint8_t *>(&n)), -11);
    EXPECT_EQ(n.rows.load(), 8 * 16);
}

}  // namespace

// The runtime's default allocator keeps freed working blocks, large and
// small, while a call runs, for the next task of the call (and a few for
// the next call): a block comes back for a request of its own size class
// and of no less than half of it, never for a smaller one, and is always
// aligned to 128 bytes, beyond what the runtime asks (32).
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "HalideRuntime.h"
#include "blocks.h"

namespace {

struct Reuse {
    const char *what;
    size_t freed, asked;
    bool same;
};

const Reuse kReuse[] = {
    {"the same size", 1 << 20, 1 << 20, true},
    {"a little less, same step of 64 KiB", (1 << 20) + 100, (1 << 20) + 50, true},
    {"half of it", 2 << 20, 1 << 20, true},
    {"less than half of it", 2 << 20, (1 << 20) - 4096, false},
    {"more than it holds", 1 << 20, (1 << 20) + (64 << 10) + 1, false},
    {"a small block", 1024, 1024, true},
    {"a little less, same step of 1 KiB", 3000, 2100, true},
    {"a small block, less than half of it", 4096, 1024, false},
    {"a few bytes, from a block of the smallest step", 100, 16, true},
};

TEST(Blocks, KeptWhileACallRuns) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "blocks are never kept under AddressSanitizer";
#endif
    for (const Reuse &r : kReuse) {
        SCOPED_TRACE(r.what);
        tm_blocks_drop();
        tm_blocks_enter();
        void *a = halide_default_malloc(nullptr, r.freed);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 128, 0u);
        std::fill_n(static_cast<char *>(a), r.freed, 1);
        halide_default_free(nullptr, a);
        void *b = halide_default_malloc(nullptr, r.asked);
        ASSERT_NE(b, nullptr);
        if (r.same) EXPECT_EQ(a, b);
        if (!r.same) EXPECT_NE(a, b) << "a kept block served the wrong request";
        std::fill_n(static_cast<char *>(b), r.asked, 2);
        halide_default_free(nullptr, b);
        tm_blocks_leave();
    }
}

// Between calls the pool keeps the blocks freed last, up to 256 MiB (a
// two-stage operator's intermediate among them) or TM_KEEP_IDLE_MIB: of
// three blocks of half the bound freed in one call, the next call gets the
// last two back.  (ctest runs this once more with the variable set.  A
// block given back may come again from the C allocator at the same
// address, so only what is kept can be seen.)
TEST(Blocks, KeptBetweenCallsUpToABound) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "blocks are never kept under AddressSanitizer";
#endif
    const char *mib = std::getenv("TM_KEEP_IDLE_MIB");
    const size_t bound = (mib ? size_t(std::strtoull(mib, nullptr, 10)) : size_t(256)) << 20;
    ASSERT_GE(bound, size_t(2) << 20) << "the test needs a bound of a few MiB";
    const size_t size = bound / 2;
    tm_blocks_drop();
    tm_blocks_enter();
    void *a[3];
    for (void *&p : a) ASSERT_NE(p = halide_default_malloc(nullptr, size), nullptr);
    for (void *p : a) halide_default_free(nullptr, p);
    tm_blocks_leave();
    tm_blocks_enter();
    void *b[2];
    for (void *&p : b) ASSERT_NE(p = halide_default_malloc(nullptr, size), nullptr);
    for (void *p : b) EXPECT_TRUE(p == a[1] || p == a[2]) << "a block freed last was not kept";
    EXPECT_NE(b[0], b[1]);
    for (void *p : b) halide_default_free(nullptr, p);
    tm_blocks_leave();
}

// Each thread keeps what it frees apart from the others (in the caches of
// its core), yet a block one thread freed still serves another that has
// none of its own; and threads allocating and freeing at once never get
// the same block twice.
TEST(Blocks, SharedAcrossThreads) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "blocks are never kept under AddressSanitizer";
#endif
    tm_blocks_drop();
    tm_blocks_enter();
    void *freed = nullptr;
    std::thread([&] {
        freed = halide_default_malloc(nullptr, 1 << 20);
        halide_default_free(nullptr, freed);
    }).join();
    void *taken = halide_default_malloc(nullptr, 1 << 20);
    EXPECT_EQ(taken, freed) << "a block kept by another thread was not found";
    halide_default_free(nullptr, taken);
    tm_blocks_leave();

    std::atomic<int> clashes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t, &clashes] {
            unsigned seed = unsigned(t) + 1;
            const auto mark = static_cast<char>(t + 1);
            for (int call = 0; call < 40; call++) {
                tm_blocks_enter();
                std::pair<char *, size_t> held[6] = {};
                for (int op = 0; op < 60; op++) {
                    auto &[p, n] = held[rand_r(&seed) % 6];
                    if (p) {
                        if (std::count(p, p + n, mark) != std::ptrdiff_t(n)) clashes++;
                        halide_default_free(nullptr, p);
                        p = nullptr;
                    } else {
                        n = rand_r(&seed) % 3 ? 1 + rand_r(&seed) % 70000 : 1 + rand_r(&seed) % (4 << 20);
                        p = static_cast<char *>(halide_default_malloc(nullptr, n));
                        if (p) std::fill_n(p, n, mark);
                    }
                }
                for (auto &[p, n] : held) halide_default_free(nullptr, p);
                tm_blocks_leave();
            }
        });
    for (auto &t : threads) t.join();
    EXPECT_EQ(clashes, 0) << "a block was handed to two threads at once";
}

// What the pool keeps never makes a call fail: with the address space
// short of a kept block and a new one together, the new one still comes.
// (In a child process: the limit stays there.)
[[noreturn]] void allocate_beside_a_kept_block() {
    const size_t kept = size_t(128) << 20, asked = size_t(160) << 20;
    tm_blocks_drop();
    tm_blocks_enter();
    halide_default_free(nullptr, halide_default_malloc(nullptr, kept));
    tm_blocks_leave();
    std::FILE *status = std::fopen("/proc/self/status", "r");
    char line[256];
    size_t vm_kib = 0;
    while (status && std::fgets(line, sizeof line, status))
        if (std::sscanf(line, "VmSize: %zu kB", &vm_kib) == 1) break;
    if (status) std::fclose(status);
    // Room for the new block once the kept one is given back, not before.
    const rlim_t limit = rlim_t(vm_kib) * 1024 + asked - (size_t(64) << 20);
    const struct rlimit as = {limit, limit};
    if (vm_kib == 0 || setrlimit(RLIMIT_AS, &as) != 0) std::_Exit(2);
    tm_blocks_enter();
    std::_Exit(halide_default_malloc(nullptr, asked) ? 0 : 1);
}

TEST(Blocks, KeptBlocksGiveWayToAFailedAllocation) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory lives outside any address-space limit";
#endif
    if (std::getenv("TM_KEEP_IDLE_MIB")) GTEST_SKIP() << "needs the default bound";
    EXPECT_EXIT(allocate_beside_a_kept_block(), ::testing::ExitedWithCode(0), "");
}

TEST(Blocks, FailedAllocationIsNull) {
    EXPECT_EQ(halide_default_malloc(nullptr, SIZE_MAX - 64), nullptr);
    EXPECT_EQ(halide_default_malloc(nullptr, size_t(1) << 62), nullptr);
}

}  // namespace
