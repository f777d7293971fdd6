#!/usr/bin/env bash
# install_test.sh BUILD_DIR CC CMAKE PKG_CONFIG [SANITIZERS]
set -euo pipefail
build=$1 cc=$2 cmake=$3 pkgconfig=$4 sanitize=${5:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/evrc_install.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }

prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || { cat "$work/install.log"; fail "cmake --install failed"; }
pcdir=$(dirname "$(find "$prefix" -name evrc_omx.pc)")
libdir=$(dirname "$pcdir")
[[ -f $prefix/include/evrc/evrc_enc.h && -f $prefix/include/evrc/evrc_dec.h ]] || fail "headers missing"
[[ -f $libdir/cmake/evrc_omx/evrc_omxConfig.cmake ]] || fail "CMake package missing"
soname=$(readelf -d "$libdir/libevrc_omx.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == libevrc_omx.so.1 && -e $libdir/$soname ]] || fail "SONAME '$soname' does not name an installed file"

flags=()
[[ -n $sanitize ]] && flags=(-fsanitize="$sanitize")

echo "--- pkg-config"
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -Werror ${flags[@]+"${flags[@]}"} "$here/tone_roundtrip.c" -o "$work/pc_roundtrip" \
    $(PKG_CONFIG_PATH=$pcdir "$pkgconfig" --cflags --libs evrc_omx) -Wl,-rpath,"$libdir" -lm
"$work/pc_roundtrip"

echo "--- find_package"
"$cmake" -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_C_FLAGS="-Wall -Werror ${flags[*]+"${flags[*]}"}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]+"${flags[*]}"}" \
    >"$work/consumer.log" 2>&1 || { cat "$work/consumer.log"; fail "find_package(evrc_omx) project does not configure"; }
"$cmake" --build "$work/consumer" >>"$work/consumer.log" 2>&1 || { cat "$work/consumer.log"; fail "find_package build failed"; }
"$work/consumer/tone_roundtrip"
echo "install test: passed"
