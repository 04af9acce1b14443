#!/usr/bin/env bash
# Installs the built library to a scratch prefix and uses it as an outside
# project would: checks what was installed, then builds and runs the
# consumer and the safe library's host through find_package (as C and as
# C++) and through pkg-config (as C), with no Halide include directory
# anywhere on their command lines.  Nothing here rebuilds the library.
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

# The safe library exports its C API and nothing else, so that it shares
# no symbol with the main library in one process.
safe="$libdir/libtessmorphop3_halide_safe.so.1"
[ -f "$libdir/libtessmorphop3_halide_safe.so.$version" ] && [ -L "$libdir/libtessmorphop3_halide_safe.so" ] ||
    fail "no libtessmorphop3_halide_safe.so.$version and its link"
[ "$(objdump -p "$safe" | awk '$1 == "SONAME" {print $2}')" = libtessmorphop3_halide_safe.so.1 ] || fail "safe SONAME"
nm -D --defined-only "$safe" | awk '{print $3}' | sort > "$work/safe_exported.txt"
{
    sed -n 's/^\(im[a-z]*\)_uint8_none$/tms_\1/p' "$exports"
    printf 'tms_%s\n' call bounds cpu_has best_level set_max_threads max_threads
} | sort > "$work/safe_listed.txt"
diff -u "$work/safe_listed.txt" "$work/safe_exported.txt" > "$work/safe_exports.diff" ||
    fail "the safe library exports other symbols than its API: $(cat "$work/safe_exports.diff")"
[ -z "$(comm -12 "$work/exported.txt" "$work/safe_exported.txt")" ] || fail "the two libraries share symbols"

for h in tessmorphop3_halide.h tessmorphop3_halide_easy.h tessmorphop3_halide_safe.h tessmorphop3_halide/HalideRuntime.h; do
    [ -f "$prefix/include/$h" ] || fail "header $h not installed"
done
[ -f "$libdir/cmake/tessmorphop3_halide/tessmorphop3_halideConfig.cmake" ] || fail "no CMake package"
[ -f "$libdir/cmake/tessmorphop3_halide/tessmorphop3_halideConfigVersion.cmake" ] || fail "no CMake version file"
[ -f "$libdir/pkgconfig/tessmorphop3_halide.pc" ] || fail "no pkg-config file"
[ -f "$libdir/pkgconfig/tessmorphop3_halide_safe.pc" ] || fail "no pkg-config file of the safe library"
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
# The safe library's hosts load both libraries into one process.
for exe in safe_host_c safe_host_cxx; do
    loads=$(ldd "$fp/$exe")
    for l in libtessmorphop3_halide.so.1 libtessmorphop3_halide_safe.so.1; do
        grep -qF "$libdir/$l" <<< "$loads" || fail "$exe does not load the installed $l"
    done
    "$fp/$exe" > "$work/$exe.out" || fail "$exe: $(cat "$work/$exe.out")"
    grep -qx "tessmorphop3_halide_safe $version: ok" "$work/$exe.out" || fail "$exe reports $(cat "$work/$exe.out")"
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

[ "$("$pkg_config" --modversion tessmorphop3_halide_safe)" = "$version" ] ||
    fail "pkg-config reports another version of the safe library"
# shellcheck disable=SC2046  # the flags are words
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror -pthread $("$pkg_config" --cflags tessmorphop3_halide_safe) \
    "$here/safe_host.c" -o "$pc/safe_host" $("$pkg_config" --libs tessmorphop3_halide_safe tessmorphop3_halide) \
    "-Wl,-rpath,$libdir"
"$pc/safe_host" > "$work/pkg_config_safe.out" || fail "pkg-config safe host: $(cat "$work/pkg_config_safe.out")"
grep -qx "tessmorphop3_halide_safe $version: ok" "$work/pkg_config_safe.out" ||
    fail "pkg-config safe host reports $(cat "$work/pkg_config_safe.out")"

cat "$work/pkg_config.out" "$work/pkg_config_safe.out"
echo "installed to $prefix; find_package and pkg-config consumers and safe hosts pass"
