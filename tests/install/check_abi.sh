#!/usr/bin/env bash
# The library's binary interface is the recorded one: every symbol, every argument and every record
# that callers hold by value. A change that is meant is recorded anew with scripts/record-abi and
# shows up in the review.
# usage: check_abi.sh RECORDED LIBRARY
set -euo pipefail
if report=$(abidiff --suppr "${1%.abi}.abignore" "$1" "$2"); then
  echo "abi: as recorded"
else
  printf 'FAIL: the binary interface differs from %s:\n%s\n' "$1" "$report"
  exit 1
fi
