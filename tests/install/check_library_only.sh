#!/usr/bin/env bash
# The library as a machine with only a compiler, CMake, pkg-config and
# liblzo2-dev builds it: GoogleTest and unixODBC hidden, default options.
# Configures, builds and installs it, then builds the example server and
# client against the installed package and runs them over loopback.
# Usage: check_library_only.sh SOURCE_DIR C_COMPILER
set -euo pipefail
src=$1 cc=$2
work=$(mktemp -d)
server_pid=""
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

cmake -S "$src" -B "$work/build" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_ODBC=ON > "$work/configure.log"
grep -q "GoogleTest not found" "$work/configure.log"
cmake --build "$work/build" -j "$(nproc)" >/dev/null
cmake --install "$work/build" --prefix "$work/prefix" >/dev/null
test ! -e "$work/build/tests"   # no test was configured

libdir=$(dirname "$(find "$work/prefix" -name 'libzephrpc.so' | head -n 1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
for example in server client; do
  # shellcheck disable=SC2046
  "$cc" -std=c99 -Wall -Wextra -Werror "$src/examples/$example.c" \
    $(pkg-config --cflags --libs zephrpc) -Wl,-rpath,"$libdir" -o "$work/$example"
done

port=""
for _ in $(seq 50); do
  candidate=$((20000 + RANDOM % 12000))
  if ! (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null; then port=$candidate; break; fi
done
[ -n "$port" ]
timeout 60 "$work/server" "$port" > "$work/server.log" &
server_pid=$!
# No probe: the server serves the first connection only; the client
# retries until the server listens.
timeout 60 "$work/client" 127.0.0.1 "$port"
wait "$server_pid"
server_pid=""
