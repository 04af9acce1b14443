// Through the shared library, with the runtime's default error handler: a
// failed check prints exactly one line, "Error: " and the report, on
// standard output, and ends the process with abort().  Each call runs in a
// forked child.
#include "frame_call.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

using namespace tmtest;

namespace {

struct Outcome {
    int status = 0;
    std::string out, err;
};

std::string drain(int fd) {
    std::string s;
    char buf[512];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, size_t(n));
    close(fd);
    return s;
}

Outcome in_child(const std::function<int()> &body) {
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0) throw std::runtime_error("pipe");
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(out[0]), close(err[0]), close(out[1]), close(err[1]);
        int status = body();
        _exit(status == 0 ? 0 : 100);  // only reached if the handler returned
    }
    close(out[1]), close(err[1]);
    Outcome o;
    o.err = drain(err[0]);
    o.out = drain(out[0]);
    waitpid(pid, &o.status, 0);
    return o;
}

// A call with one fault and the line it prints; a call without a fault
// (line null) runs to the end in the child.
struct Failure {
    const char *what;
    const char *exp;
    std::function<void(Call &)> mutate;
    const char *line;
};

class DefaultHandler : public ::testing::TestWithParam<Failure> {};

TEST_P(DefaultHandler, PrintsOneLineAndAborts) {
    const Failure &f = GetParam();
    Target t = target(f.exp);
    ASSERT_NE(t.real, nullptr);
    Outcome o = in_child([&] {
        Call c;
        c.standard(t.type);
        f.mutate(c);
        return t.real(c.arg[IM], c.arg[MM], c.arg[SE], c.arg[OUT]);
    });
    if (!f.line) {
        ASSERT_TRUE(WIFEXITED(o.status)) << "status " << o.status << ", output: " << o.out;
        EXPECT_EQ(WEXITSTATUS(o.status), 0);
        EXPECT_EQ(o.out, "");
        return;
    }
    ASSERT_TRUE(WIFSIGNALED(o.status)) << "exit status " << o.status << ", output: " << o.out;
    EXPECT_EQ(WTERMSIG(o.status), SIGABRT);
    EXPECT_EQ(o.out, f.line);
    EXPECT_EQ(o.err, "");
}

INSTANTIATE_TEST_SUITE_P(
    SharedLibrary, DefaultHandler,
    ::testing::Values(
        Failure{"NullStrel", "imerode_uint8_none", [](Call &c) { c.arg[SE] = nullptr; },
                "Error: Buffer argument strel is NULL\n"},
        Failure{"StrelStride", "imdilate_float32_avx2", [](Call &c) { c.dim(SE, 0).stride = 2; },
                "Error: Constraint violated: strel.stride.0 (2) == 1 (1)\n"},
        Failure{"NarrowOutput", "imerode_uint8_none", [](Call &c) { c.set(OUT, 0, 0, 3); },
                "Error: Output buffer erode is accessed at -13, which is before the min (0) in dimension 0\n"},
        Failure{"BytesForBool", "imdilate_bool_none", [](Call &c) { c.b[IM].b.type = type_of(1, 8); },
                "Error: Input buffer keyimForType has type uint1 but type of the buffer passed in is uint8\n"},
        Failure{"OutputOnDevice", "imerode_int16_avx", [](Call &c) { c.b[OUT].b.host = nullptr, c.b[OUT].b.device = 1; },
                "Error: The host pointer of Output buffer erode is null, but the pipeline will access it on the host.\n"},
        Failure{"NoFault", "imerode_uint8_none", [](Call &) {}, nullptr}),
    [](const auto &info) { return std::string(info.param.what); });

}  // namespace
