// Build-time tool: prints, as a C header, the lane count L of every element
// type at every level, as Halide's natural vector size for that target.
// The pipelines split rows by the same number, so the frame's wide-branch
// test and bounds can never disagree with the code they guard.
//
// usage: lanes OUTPUT.h TARGET_ARCH_OS LEVEL=FEATURES... -- TYPE=HALIDE_TYPE...
#include "Halide.h"

#include "../stages/walk_schedule.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

int main(int argc, char **argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s OUTPUT.h ARCH-OS LEVEL=FEATURES... -- TYPE=HALIDE_TYPE...\n", argv[0]);
        return 2;
    }
    std::vector<std::pair<std::string, std::string>> levels, types;
    bool in_types = false;
    for (int i = 3; i < argc; i++) {
        if (!std::strcmp(argv[i], "--")) { in_types = true; continue; }
        std::string a = argv[i];
        size_t eq = a.find('=');
        if (eq == std::string::npos) { std::fprintf(stderr, "bad argument %s\n", argv[i]); return 2; }
        (in_types ? types : levels).emplace_back(a.substr(0, eq), a.substr(eq + 1));
    }
    FILE *f = std::fopen(argv[1], "w");
    if (!f) { std::perror(argv[1]); return 1; }
    std::fprintf(f, "/* Generated at build time from Halide's natural vector sizes. */\n#pragma once\n");
    // The band walks' blocks: chunks of a row, or on rows narrower than
    // that, groups of TM_GROUP_ROWS rows of two chunks (or twice the rows of
    // one chunk); the rows of a band and those it may keep.
    std::fprintf(f, "#define TM_BLOCK_CHUNKS %d\n#define TM_GROUP_ROWS %d\n#define TM_BAND_ROWS %d\n#define TM_RING_ROWS %d\n",
                 morph::kBlockChunks, morph::kGroupRows, morph::kBandRows, morph::kRingRows);
    // The most bands of TM_BAND_ROWS rows in a band of the segment walk.
    std::fprintf(f, "#define TM_SEGMENT_BANDS %d\n#define TM_SEGMENT_LEVELS %d\n", morph::kSegmentBands, morph::kSegmentLevels);
    // The walk of runs by doubled folds: the levels it keeps; and the
    // fields of a run in the list the frame hands over.
    std::fprintf(f,
                 "#define TM_RUN_LEVELS %d\n#if defined(TM_RUN_FIELDS) && (TM_RUN_FIELDS != %d || TM_RUN_R0 != %d || "
                 "TM_RUN_LENGTH != %d || TM_RUN_R1 != %d || TM_RUN_R2 != %d || TM_RUN_ENTRY != %d || TM_RUN_EXACT_LENGTH != %d)\n"
                 "#error \"the frame lays runs out otherwise than the pipelines read them\"\n#endif\n",
                 morph::kRunLevels, morph::kRunFields, morph::kR0, morph::kLength, morph::kR1, morph::kR2, morph::kEntry,
                 morph::kExactLength);
    for (auto &l : levels) {
        Halide::Target target(std::string(argv[2]) + "-" + l.second);
        for (auto &t : types) {
            Halide::Type ht = Halide::Internal::get_halide_type_enum_map().at(t.second);
            std::fprintf(f, "#define TM_LANES_%s_%s %d\n", t.first.c_str(), l.first.c_str(),
                         target.natural_vector_size(ht));
        }
    }
    return std::fclose(f) == 0 ? 0 : 1;
}
