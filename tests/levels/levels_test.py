#!/usr/bin/python3
"""The table of levels (frame/family.def, TM_CPU_FEATURE lines) against what
Halide asks LLVM to enable for each level's target.

For each level, level_targets tells the processor model and the features
on the code Halide emits; clang of the same LLVM then tells, as its
predefined macros, which instruction sets that model and those features
bring beyond the x86-64 baseline.  Every one of them must be in the table,
at that level or below, and the table may name nothing else.

usage: levels_test.py FAMILY_DEF LEVEL_TARGETS ARCH-OS SCRATCH CLANG LEVEL=FEATURES...
Exits 77 (skipped) when CLANG is not of the LLVM version Halide uses.
"""
import re
import subprocess
import sys


def table(family):
    text = open(family).read()
    levels = re.findall(r"^TM_LEVEL\((\w+),", text, re.M)
    features = re.findall(r"^TM_CPU_FEATURE\((\w+),\s*(\w+),", text, re.M)
    unknown = {lvl for _, lvl in features} - set(levels)
    assert not unknown, f"features for unknown levels {unknown}"
    return levels, {lvl: {f for f, first in features if levels.index(first) <= levels.index(lvl)} for lvl in levels}


def macros(clang, args):
    out = subprocess.run([clang, "--target=x86_64-linux-gnu", *args, "-E", "-dM", "-x", "c", "/dev/null"],
                         capture_output=True, text=True, check=True).stdout
    # Instruction sets appear as __NAME__ 1; processor names are lower case.
    return set(re.findall(r"^#define __([A-Z0-9_]+)__ 1$", out, re.M))


def main():
    family, tool, arch_os, scratch, clang, *level_args = sys.argv[1:]
    version = subprocess.run([clang, "--version"], capture_output=True, text=True).stdout
    halide_llvm = "14"
    if f"version {halide_llvm}." not in version:
        print(f"skipped: {clang} is not LLVM {halide_llvm}, which Halide 14 uses")
        return 77
    levels, needs = table(family)
    lines = subprocess.run([tool, arch_os, scratch, *level_args], capture_output=True, text=True,
                           check=True).stdout.split("\n")
    baseline = macros(clang, ["-march=x86-64"])
    failures = 0
    for line in filter(None, lines):
        level, cpu, features = line.split()
        args = ["-march=" + cpu]
        for f in features.split(",") if features != "-" else []:
            args += ["-Xclang", "-target-feature", "-Xclang", f]
        enabled = {m.lower() for m in macros(clang, args) - baseline}
        missing, extra = enabled - needs[level], needs[level] - enabled
        print(f"{level}: {cpu} {features}: {' '.join(sorted(enabled)) or 'baseline'}")
        if missing or extra:
            failures += 1
            print(f"  FAIL: the table lacks {sorted(missing)} and has {sorted(extra)} beyond the target")
    assert len(list(filter(None, lines))) == len(levels)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
