// The stub pipeline and the call of the frame with a hand-made entry.  Kept
// apart from frame_call.cpp because the frame is reachable only from the
// static archive.
#include "frame_call.h"

namespace tmtest {

StubRecord &stub() {
    static StubRecord r;
    return r;
}

extern "C" int tm_test_stub_pipeline(const tm_call *c) {
    StubRecord &r = stub();
    r.call = *c;
    halide_buffer_t *args[4] = {c->keyimForType, c->minmax, c->strel, c->out};
    for (int a = 0; a < 4; a++) {
        r.ptr[a] = args[a];
        r.buf[a] = *args[a];
        for (int d = 0; d < args[a]->dimensions && d < 3; d++) r.dim[a][d] = args[a]->dim[d];
    }
    r.calls++;
    return r.status;
}

int invoke(const Target &t, Call &c) {
    if (t.real) return t.real(c.arg[IM], c.arg[MM], c.arg[SE], c.arg[OUT]);
    const tm_entry e = {t.op, t.type.ht.code, t.type.ht.bits, t.type.bytes, t.lanes, tm_test_stub_pipeline};
    return tm_frame(&e, c.arg[IM], c.arg[MM], c.arg[SE], c.arg[OUT]);
}

static void record(void *, const char *msg) { reports().push_back(msg); }

void FrameTest::SetUp() {
    previous_ = halide_set_error_handler(record);
    reports().clear();
    stub() = StubRecord{};
}

void FrameTest::TearDown() { halide_set_error_handler(previous_); }

}  // namespace tmtest
