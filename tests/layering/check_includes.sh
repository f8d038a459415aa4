#!/usr/bin/env bash
# Fails when a library source includes a header from a layer above its own.
# Layers, bottom first (equal ranks may not include each other):
#   support, net  <  base  <  marshal  <  session  <  call
#   check_includes.sh SRC_DIR
set -euo pipefail
src=${1:?usage: check_includes.sh SRC_DIR}
declare -A rank=([support]=0 [net]=0 [base]=1 [marshal]=2 [session]=3 [call]=4)
status=0
for dir in "$src"/*/; do
  layer=$(basename "$dir")
  if [ -z "${rank[$layer]+set}" ]; then
    echo "$layer/: a folder that is in no layer"; status=1; continue
  fi
  while IFS=: read -r file line text; do
    target=$(sed -E 's@.*#include "([^/"]+)/.*@\1@' <<<"$text")
    [ "$target" = "$layer" ] && continue
    if [ -z "${rank[$target]+set}" ] || [ "${rank[$target]}" -ge "${rank[$layer]}" ]; then
      echo "${file#"$src"/}:$line: $layer/ may not include $target/"
      status=1
    fi
  done < <(grep -HnE '^#include "[^/"]+/' "$dir"*.h "$dir"*.cpp 2>/dev/null || true)
done
[ $status -eq 0 ] && echo "every include points down the stack"
exit $status
