#!/usr/bin/env bash
# Builds the library, then runs its example server and client over loopback:
# the client prints what each call sent and got back, the server what it
# served, and the server's call trace (asked for by the client) follows.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

# The library, the examples and the benchmark (the test suite is scripts/test.sh's).
dir=build/demo
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPHRPC_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)"
server_bin=$dir/examples/zephrpc_example_server
client_bin=$dir/examples/zephrpc_example_client

# A port nothing listens on: connecting to it must fail.
port=""
for _ in $(seq 50); do
  candidate=$((20000 + RANDOM % 40000))
  if ! (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null; then
    port=$candidate
    break
  fi
done
[ -n "$port" ] || { echo "demo: no free port found" >&2; exit 1; }

trace=/tmp/qxrpc.log
trace_start=$(( $( [ -f "$trace" ] && stat -c %s "$trace" || echo 0 ) + 1 ))

server_pid=""
cleanup() {
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill "$server_pid" 2>/dev/null || true
  fi
  [ -n "$server_pid" ] && wait "$server_pid" 2>/dev/null || true
}
trap cleanup EXIT

echo "=== server on 127.0.0.1:$port, client connecting"
timeout 120 "$server_bin" "$port" &
server_pid=$!
client_status=0
timeout 60 "$client_bin" 127.0.0.1 "$port" || client_status=$?
# The server ends by itself once the client has gone; give it a moment.
for _ in $(seq 50); do
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
server_status=0
if kill -0 "$server_pid" 2>/dev/null; then
  echo "demo: server still running after the client left; stopping it" >&2
  server_status=1
  cleanup
else
  wait "$server_pid" || server_status=$?
fi
server_pid=""

echo "=== server's call trace ($trace)"
[ -f "$trace" ] && tail -c +"$trace_start" "$trace" | sed '/^$/d'
if [ "$client_status" -ne 0 ] || [ "$server_status" -ne 0 ]; then
  echo "demo: client exited $client_status, server exited $server_status" >&2
  exit 1
fi
echo "=== demo finished"
