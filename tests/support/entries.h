// Every export of the library as a test parameter, read from the generated
// list, with the facts a test needs: operator, element type, level, lane
// count, and whether this processor can run it; and the element types as
// the descriptors carry them, written out here rather than taken from the
// list, so that a wrong type in the list shows.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "reference.h"
#include "tessmorphop3_halide.h"
#include "tessmorphop3_halide_easy.h"
#include "tm_lanes.h"

namespace tmtest {

struct TypeInfo {
    tmref::Type ref;
    halide_type_t ht;
    int bytes;
};

inline const TypeInfo &type_info(const std::string &w) {
    static const std::map<std::string, TypeInfo> m = {
        {"bool", {tmref::Type::Bool, halide_type_t(halide_type_uint, 1), 1}},
        {"uint8", {tmref::Type::UInt8, halide_type_t(halide_type_uint, 8), 1}},
        {"int8", {tmref::Type::Int8, halide_type_t(halide_type_int, 8), 1}},
        {"uint16", {tmref::Type::UInt16, halide_type_t(halide_type_uint, 16), 2}},
        {"int16", {tmref::Type::Int16, halide_type_t(halide_type_int, 16), 2}},
        {"uint32", {tmref::Type::UInt32, halide_type_t(halide_type_uint, 32), 4}},
        {"int32", {tmref::Type::Int32, halide_type_t(halide_type_int, 32), 4}},
        {"float32", {tmref::Type::Float32, halide_type_t(halide_type_float, 32), 4}},
        {"float64", {tmref::Type::Float64, halide_type_t(halide_type_float, 64), 8}},
    };
    return m.at(w);
}

enum class Level { None, Avx, Avx2 };

struct Entry {
    std::string name, op, type, level_word, output;
    Level level;
    int lanes;
    int (*fn)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

    // The skip rule: the library's table of levels, as hosts read it.
    bool cpu_has_level() const { return tme_cpu_has(static_cast<tme_level>(static_cast<int>(level))) != 0; }
};

inline void PrintTo(const Entry &e, std::ostream *os) { *os << e.name; }

inline Level level_of(const std::string &w) {
    return w == "none" ? Level::None : w == "avx" ? Level::Avx : Level::Avx2;
}

inline std::string output_of(const std::string &op) {
    static const std::map<std::string, std::string> m = {
#define TMT_OUTPUT(name, output) {#name, #output},
        TESSMORPHOP3_HALIDE_OPERATORS(TMT_OUTPUT)
#undef TMT_OUTPUT
    };
    return m.at(op);
}

inline const std::vector<Entry> &all_entries() {
    static const std::vector<Entry> entries = {
#define TMT_ENTRY(op, t, l) {#op "_" #t "_" #l, #op, #t, #l, output_of(#op), level_of(#l), TM_LANES_##t##_##l, op##_##t##_##l},
        TESSMORPHOP3_HALIDE_ENTRIES(TMT_ENTRY)
#undef TMT_ENTRY
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

inline const Entry &entry(const std::string &name) {
    for (auto &e : all_entries())
        if (e.name == name) return e;
    throw std::invalid_argument("no export " + name);
}

struct EntryName {
    std::string operator()(const testing::TestParamInfo<Entry> &i) const { return i.param.name; }
};

}  // namespace tmtest
