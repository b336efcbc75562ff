#!/usr/bin/env bash
# Programs that were linked when the library's names had no version run with the library that has
# them: one that uses a little of everything, and one that takes the address of every name.
# usage: check_before_versions.sh LIBRARY ARCHIVE INCLUDE_DIRECTORY PROGRAM.c...
#   CC   the compiler
set -euo pipefail
library=$1 archive=$2 include=$3
shift 3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The same objects, linked as once upon a time.
"${CC:-cc}" -shared -o "$scratch/libzynpsp-14.so" -Wl,-soname,libzynpsp-14.so \
  -Wl,--whole-archive "$archive" -Wl,--no-whole-archive -lm

for program in "$@"; do
  "${CC:-cc}" -o "$scratch/program" "$program" -I"$include" -L"$scratch" -lzynpsp-14
  if readelf -VW "$scratch/program" | grep -q ZYNPSP; then
    echo "FAIL: $program was to be linked without versions"
    exit 1
  fi
  export LD_LIBRARY_PATH=${library%/*}
  if ! ldd "$scratch/program" | grep -qF " $library "; then
    echo "FAIL: $program runs with another library"
    exit 1
  fi
  "$scratch/program" >"$scratch/output" 2>&1 || { cat "$scratch/output"; exit 1; }
  if [ -s "$scratch/output" ] && grep -q "version information" "$scratch/output"; then
    cat "$scratch/output"
    exit 1
  fi
done
echo "programs from before the versions: $# run"
