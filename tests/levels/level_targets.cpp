// Prints what LLVM is asked to enable for each level's Halide target: the
// processor model and the feature string with which Halide's code generator
// makes its LLVM target machine, read from the module flags (halide_mcpu,
// halide_mattrs) of a small pipeline compiled for that target.
//
// usage: level_targets ARCH-OS SCRATCH_DIR LEVEL=FEATURES...
// prints one line per level: LEVEL CPU FEATURES ("-" when there are none)
#include "Halide.h"

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

int main(int argc, char **argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s ARCH-OS SCRATCH_DIR LEVEL=FEATURES...\n", argv[0]);
        return 2;
    }
    for (int i = 3; i < argc; i++) {
        const std::string a = argv[i];
        const size_t eq = a.find('=');
        if (eq == std::string::npos) return 2;
        const std::string level = a.substr(0, eq);
        const Halide::Target target(std::string(argv[1]) + "-" + a.substr(eq + 1) + "-no_runtime");

        // Vector arithmetic on a few types, so that the code generator has
        // something of every kind to compile.
        Halide::ImageParam in(Halide::Float(32), 1, "in");
        Halide::Var x("x");
        Halide::Func f("level_probe");
        f(x) = Halide::floor(in(x)) * 3.0f + Halide::cast<float>(Halide::cast<int>(in(x)) >> 2);
        f.vectorize(x, target.natural_vector_size(Halide::Float(32)));
        const std::string path = std::string(argv[2]) + "/" + level + ".ll";
        f.compile_to_llvm_assembly(path, {in}, "level_probe", target);

        std::ifstream file(path);
        std::stringstream text;
        text << file.rdbuf();
        const std::string ll = text.str();
        std::smatch cpu, features;
        if (!std::regex_search(ll, cpu, std::regex("!\"halide_mcpu\", !\"([^\"]*)\""))) {
            std::fprintf(stderr, "%s: no halide_mcpu in %s\n", level.c_str(), path.c_str());
            return 1;
        }
        const bool has = std::regex_search(ll, features, std::regex("!\"halide_mattrs\", !\"([^\"]*)\""));
        const std::string fs = has && features[1].length() ? features[1].str() : "-";
        std::printf("%s %s %s\n", level.c_str(), cpu[1].str().c_str(), fs.c_str());
    }
    return 0;
}
