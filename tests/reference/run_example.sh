#!/usr/bin/env bash
# Runs an example of the reference in an empty directory: it ends well, prints what its page shows
# and leaves nothing behind.
# usage: run_example.sh PROGRAM EXPECTED_OUTPUT
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/empty"
(cd "$scratch/empty" && "$1" >"$scratch/printed" </dev/null)
diff "$2" "$scratch/printed"
left=$(ls -A "$scratch/empty")
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
