#!/usr/bin/env bash
# The shared object exports exactly the names of the version script.
# Usage: check_exports.sh LIBRARY VERSION_SCRIPT
set -euo pipefail
lib=$1 map=$2
wanted=$(sed -n '/global:/,/local:/p' "$map" | grep -v -e 'global:' -e 'local:' \
         | tr ';' '\n' | tr -d ' ' | grep -v '^$' | sort -u)
actual=$(nm -D --defined-only "$lib" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | sort -u)
if [ "$wanted" != "$actual" ]; then
  echo "exported symbols differ from the version script:"
  diff <(echo "$wanted") <(echo "$actual") || true
  exit 1
fi
echo "exports ok: $(echo "$actual" | wc -l) names"
