#!/usr/bin/env bash
# Every function and data object has its manual page, every family has one, and each is formatted
# without a complaint.
# usage: check_pages.sh MAN_DIRECTORY SURFACE_LIST
set -euo pipefail
export LC_ALL=C
failed=0
while read -r _ name family _; do
  for page in "man3/$name.3.gz" "man7/zynpsp-$family.7.gz"; do
    [ -s "$1/$page" ] || { echo "FAIL: there is no $page"; failed=1; }
  done
done < <(grep -v '^#' "$2")
for page in "$1"/man[37]/*.gz; do
  complaints=$(zcat "$page" | groff -Tutf8 -K utf8 -man -ww -z 2>&1)
  [ -z "$complaints" ] || { echo "FAIL: $page: $complaints"; failed=1; }
done
exit "$failed"
