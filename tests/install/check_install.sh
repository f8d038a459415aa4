#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a C program
# against it twice: through pkg-config and through find_package.
# Usage: check_install.sh BUILD_DIR THIS_DIR C_COMPILER
set -euo pipefail
build=$1 here=$2 cc=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libzephrpc.so' | head -n 1)")
test -L "$libdir/libzephrpc.so" && test -e "$libdir/libzephrpc.so.1"

extra=()
if ldd "$libdir/libzephrpc.so" | grep asan >/dev/null; then  # not -q: pipefail would see ldd's SIGPIPE
  extra=(-fsanitize=address,undefined)
fi

# The header alone: strict C99 and C++.
"$cc" -std=c99 -Wall -Wextra -pedantic -Werror -fsyntax-only -I"$prefix/include" -x c - \
  <<<'#include <zephrpc.h>'
c++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" -x c++ - \
  <<<'#include <zephrpc.h>'

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -pedantic -Werror "${extra[@]}" "$here/consumer.c" \
  $(pkg-config --cflags --libs zephrpc) -Wl,-rpath,"$libdir" -o "$work/consumer_pc"
"$work/consumer_pc"

cmake -S "$here/cmake_consumer" -B "$work/cmake_build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="${extra[*]}" \
  -DCMAKE_EXE_LINKER_FLAGS="${extra[*]}" -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
cmake --build "$work/cmake_build" >/dev/null
"$work/cmake_build/consumer"
