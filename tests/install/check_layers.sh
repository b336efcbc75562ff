#!/usr/bin/env bash
# No source file includes an internal header of a layer above its own. The layers are the table in
# source/psp/README.md; every source and every internal header has its row there.
# usage: check_layers.sh SOURCE_DIRECTORY
set -euo pipefail
cd "$1"
failed=0
declare -A layer
while read -r number names; do
  for name in $names; do layer[$name]=$number; done
done < <(sed -n 's/^| \([0-9]\) [^|]*| \(.*\) |.*|$/\1 \2/p' README.md | tr -d '`,')

for file in *.cpp *.h; do
  own=${layer[$file]:-}
  if [ -z "$own" ]; then
    echo "FAIL: $file has no layer in README.md"
    failed=1
    continue
  fi
  while read -r included; do
    [ -e "$included" ] || continue # a public header
    other=${layer[$included]:-}
    if [ -n "$other" ] && [ "$other" -gt "$own" ]; then
      echo "FAIL: $file (layer $own) includes $included (layer $other)"
      failed=1
    fi
  done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file")
  if [ "$file" != pspposix.h ] && grep -nE '#include <(unistd|fcntl|dirent|dlfcn|signal|termios|sys/.*)\.h>' "$file" |
    grep -v 'sys/sdt\.h'; then # which is of probes, not of the system
    echo "FAIL: $file includes the operating system's headers itself: use pspposix.h"
    failed=1
  fi
done
for file in "${!layer[@]}"; do
  [ -e "$file" ] || { echo "FAIL: README.md lists $file, which does not exist"; failed=1; }
done
exit "$failed"
