#!/usr/bin/env bash
# The library's binary interface is the recorded one. A change that is meant is recorded anew with
# scripts/record-abi and shows up in the review.
# usage: check_abi.sh RECORDED LIBRARY INCLUDE_DIRECTORY
set -euo pipefail
if report=$(abidiff --headers-dir2 "$3" "$1" "$2"); then
  echo "abi: as recorded"
else
  printf 'FAIL: the binary interface differs from %s:\n%s\n' "$1" "$report"
  exit 1
fi
