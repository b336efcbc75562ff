#!/usr/bin/env bash
# The shared library exports what the list says under one version and nothing else, needs the C and the maths library
# and nothing else, and each listed name is declared in the header that the list gives.
# usage: check_surface.sh LIBRARY LIST INCLUDE_DIRECTORY
set -euo pipefail
export LC_ALL=C
library=$1 list=$2 include=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

differ() { # differ WHAT EXPECTED ACTUAL: reports each line that only one of two sorted files has
  if ! diff "$2" "$3" >"$scratch/diff"; then
    printf 'FAIL: %s\n' "$1"
    sed -n 's/^</  missing:/p; s/^>/  too much:/p' "$scratch/diff"
    failed=1
  fi
}

rows() { grep -v '^#' "$list"; }

# Exported: functions are T, data objects B, D or R, the version's own name A; weak symbols and names
# without the version count as too much.
node=ZYNPSP_14
{ rows | awk -v node=$node '{ print $1, $2 "@@" node }'; echo "version $node"; } |
  sort >"$scratch/listed"
nm -D --defined-only "$library" |
  awk '{ kind["T"] = "function"; kind["B"] = kind["D"] = kind["R"] = "data"; kind["A"] = "version"
         print ($2 in kind ? kind[$2] : "other(" $2 ")"), $3 }' |
  sort >"$scratch/exported"
differ "exported symbols against the list" "$scratch/listed" "$scratch/exported"

readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort >"$scratch/needed"
printf 'libc.so.6\nlibm.so.6\n' >"$scratch/allowed"
comm -13 "$scratch/allowed" "$scratch/needed" >"$scratch/forbidden"
: >"$scratch/none"
differ "libraries needed at run time" "$scratch/none" "$scratch/forbidden"

readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' >"$scratch/soname"
echo libzynpsp-14.so >"$scratch/name"
differ "soname" "$scratch/name" "$scratch/soname"

# Declared: per header, the names that follow PSP_API in the text without its comments.
declared() {
  cc -fpreprocessed -P -E -x c "$1" 2>/dev/null | tr '\n' ' ' | tr ';' '\n' |
    sed -n 's/.*PSP_API\(.*\)/\1/p' | sed 's/__attribute__ *((.*))//; s/PSP_[A-Z_]*([^()]*)//g' |
    sed 's/(.*//; s/\[.*//' | grep -oE '[A-Za-z_0-9]+ *$' | tr -d ' '
}
rows | awk '{ print $4, $2 }' | sort >"$scratch/in-list"
(cd "$include" && for header in psp/*.h; do
  declared "$header" | sed "s|^|$header |"
done) | sort >"$scratch/in-headers"
differ "declarations in the headers against the list" "$scratch/in-list" "$scratch/in-headers"

[ "$failed" = 0 ] && printf 'surface: %s functions, %s data objects\n' \
  "$(rows | grep -c '^function')" "$(rows | grep -c '^data')"
exit "$failed"
