#!/usr/bin/env bash
# The architecture page's picture shows what the sources include today.
# usage: check_picture.sh SOURCE_DIRECTORY
set -euo pipefail
cd "$1"
draw="docs/architecture_picture.py source/psp"
python3 -B $draw | cmp - docs/pictures/architecture.svg ||
  { echo "FAIL: draw it anew: $draw >docs/pictures/architecture.svg"; exit 1; }
