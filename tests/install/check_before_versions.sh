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

export LD_LIBRARY_PATH=${library%/*}
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }

for program in "$@"; do
  "${CC:-cc}" -o "$scratch/program" "$program" -I"$include" -L"$scratch" -lzynpsp-14
  versions=$(readelf -VW "$scratch/program")
  [[ $versions != *ZYNPSP* ]] || fail "$program was to be linked without versions"
  libraries=$(ldd "$scratch/program")
  [[ $libraries == *" $library "* ]] || fail "$program runs with another library: $libraries"
  output=$("$scratch/program" 2>&1) || fail "$program: $output"
  [[ $output != *"version information"* ]] || fail "$program: $output"
done
echo "programs from before the versions: $# run"
