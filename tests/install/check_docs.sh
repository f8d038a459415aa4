#!/usr/bin/env bash
# Builds the API reference (any undocumented exported name fails it),
# installs it into a scratch prefix and reads one page through man.
# Usage: check_docs.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --build "$build" --target docs >/dev/null
cmake --install "$build" --prefix "$work/prefix" >/dev/null
page=$(MANPATH="$work/prefix/share/man" man -P cat RPCExec 2>/dev/null)
grep -q "int32_t RPCExec (HRPC h, const char \*name,...)" <<<"$page"
grep -q "Threads may share the handle" <<<"$page"
