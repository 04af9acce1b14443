// Every export of the library as a test parameter, read from the generated
// list, with the facts a test needs: operator, element type, level, lane
// count, and whether this processor can run it.
#pragma once

#include <string>
#include <vector>

#include "tessmorphop3_halide.h"
#include "tm_lanes.h"

namespace tmtest {

enum class Level { None, Avx, Avx2 };

struct Entry {
    std::string name, op, type, level_word, output;
    Level level;
    int lanes;
    int (*fn)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

    bool cpu_has_level() const {
        switch (level) {
        case Level::None: return true;
        case Level::Avx: return __builtin_cpu_supports("avx") && __builtin_cpu_supports("sse4.1");
        case Level::Avx2:
            return __builtin_cpu_supports("avx") && __builtin_cpu_supports("avx2") &&
                   __builtin_cpu_supports("sse4.1");
        }
        return false;
    }
};

inline void PrintTo(const Entry &e, std::ostream *os) { *os << e.name; }

inline Level level_of(const std::string &w) {
    return w == "none" ? Level::None : w == "avx" ? Level::Avx : Level::Avx2;
}

inline const std::vector<Entry> &all_entries() {
    static const std::vector<Entry> entries = {
#define TM_ENTRY(op, t, l, out) \
    {#op "_" #t "_" #l, #op, #t, #l, #out, level_of(#l), TM_LANES_##t##_##l, op##_##t##_##l},
#include "entries.inc"
#undef TM_ENTRY
    };
    return entries;
}

inline std::vector<Entry> entries_of(const std::vector<std::string> &ops) {
    std::vector<Entry> r;
    for (auto &e : all_entries())
        for (auto &o : ops)
            if (e.op == o) r.push_back(e);
    return r;
}

struct EntryName {
    std::string operator()(const testing::TestParamInfo<Entry> &i) const { return i.param.name; }
};

}  // namespace tmtest
