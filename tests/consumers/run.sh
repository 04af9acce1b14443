#!/usr/bin/env bash
# Installs the built library to a scratch prefix and uses it as an outside
# project would: checks what was installed, then builds and runs the
# consumer through find_package (as C and as C++) and through pkg-config (as
# C), with no Halide include directory anywhere on their command lines.
# Nothing here rebuilds the library.
#
# run.sh BUILD_DIR SCRATCH_DIR CMAKE GENERATOR CC CXX PKG_CONFIG VERSION EXPORTS_FILE HALIDE_INCLUDE_DIR
set -euo pipefail
build=$1 work=$2 cmake=$3 generator=$4 cc=$5 cxx=$6 pkg_config=$7 version=$8 exports=$9 halide_inc=${10}
here="$(cd "$(dirname "$0")" && pwd)"

fail() { echo "FAIL: $*" >&2; exit 1; }

# Nothing from the environment may lead a compiler to Halide's headers.
unset CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH

rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
"$cmake" --install "$build" --prefix "$prefix" > "$work/install.log"

# --- what was installed -------------------------------------------------
lib=$(find "$prefix" -name libtessmorphop3_halide.so.1 -print -quit)
[ -n "$lib" ] || fail "no libtessmorphop3_halide.so.1 under $prefix"
libdir=$(dirname "$lib")
[ -L "$libdir/libtessmorphop3_halide.so" ] || fail "no libtessmorphop3_halide.so link"
[ -f "$libdir/libtessmorphop3_halide.so.$version" ] || fail "no libtessmorphop3_halide.so.$version"
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" {print $2}')
[ "$soname" = libtessmorphop3_halide.so.1 ] || fail "SONAME is '$soname'"

nm -D --defined-only "$lib" | awk '{print $3}' | sort > "$work/exported.txt"
sort "$exports" > "$work/listed.txt"
diff -u "$work/listed.txt" "$work/exported.txt" > "$work/exports.diff" ||
    fail "installed library exports differ from the list: $(cat "$work/exports.diff")"

for h in tessmorphop3_halide.h tessmorphop3_halide_easy.h tessmorphop3_halide/HalideRuntime.h; do
    [ -f "$prefix/include/$h" ] || fail "header $h not installed"
done
[ -f "$libdir/cmake/tessmorphop3_halide/tessmorphop3_halideConfig.cmake" ] || fail "no CMake package"
[ -f "$libdir/cmake/tessmorphop3_halide/tessmorphop3_halideConfigVersion.cmake" ] || fail "no CMake version file"
[ -f "$libdir/pkgconfig/tessmorphop3_halide.pc" ] || fail "no pkg-config file"
# The command-line tool is the one program installed; build tools are not.
strays=$(find "$prefix" \( -name '*.a' -o -name 'tm_*' -o -name '*_test' -o -path "$prefix/bin/*" \) \
         ! -path "$prefix/bin/tessmorph" -print)
[ -z "$strays" ] || fail "installed what stays in the build tree: $strays"

# --- find_package -------------------------------------------------------
fp="$work/find_package"
"$cmake" -S "$here" -B "$fp" -G "$generator" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON > "$fp.log"
"$cmake" --build "$fp" >> "$fp.log" || fail "find_package consumer did not build: $(cat "$fp.log")"
! grep -qF "$halide_inc" "$fp/compile_commands.json" || fail "Halide's include directory on a command line"
for exe in consumer_c consumer_cxx; do
    loads=$(ldd "$fp/$exe")
    grep -qF "$libdir/libtessmorphop3_halide.so.1" <<< "$loads" || fail "$exe does not load the installed library"
    "$fp/$exe" > "$work/$exe.out" || fail "$exe: $(cat "$work/$exe.out")"
    grep -qx "tessmorphop3_halide $version (.*)" "$work/$exe.out" || fail "$exe reports $(head -1 "$work/$exe.out")"
done
# Another major version must not be taken for this one.
if "$cmake" -S "$here" -B "$work/find_package_2" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DTM_WANT_VERSION=2.0 > "$work/find_package_2.log" 2>&1; then
    fail "find_package(tessmorphop3_halide 2.0) accepted version $version"
fi

# --- pkg-config ---------------------------------------------------------
export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$("$pkg_config" --modversion tessmorphop3_halide)" = "$version" ] || fail "pkg-config reports another version"
cflags=$("$pkg_config" --cflags tessmorphop3_halide)
libs=$("$pkg_config" --libs tessmorphop3_halide)
case "$cflags" in *"$halide_inc"*) fail "Halide's include directory in the pkg-config flags" ;; esac
pc="$work/pkg_config"
mkdir -p "$pc"
# shellcheck disable=SC2086  # the flags are words
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror $cflags -MD -MF "$pc/consumer.d" "$here/consumer.c" \
    -o "$pc/consumer" $libs "-Wl,-rpath,$libdir"
grep -qF "$prefix/include/tessmorphop3_halide/HalideRuntime.h" "$pc/consumer.d" ||
    fail "the consumer did not read the installed runtime header"
"$pc/consumer" > "$work/pkg_config.out" || fail "pkg-config consumer: $(cat "$work/pkg_config.out")"
grep -qx "tessmorphop3_halide $version (.*)" "$work/pkg_config.out" || fail "pkg-config consumer reports another version"

cat "$work/pkg_config.out"
echo "installed to $prefix; find_package and pkg-config consumers pass"
