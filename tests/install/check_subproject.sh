#!/usr/bin/env bash
# The library as a part of another project, taken in by add_subdirectory and by FetchContent: it
# builds, without its tests and examples, leaves its parent's settings alone and installs nothing.
# The second way is configured over the first in one directory; what it compiles with the same
# command is not compiled again.
# usage: check_subproject.sh SOURCE_DIRECTORY
#   CC, CXX, CMAKE_GENERATOR   what it is built with
set -euo pipefail
source=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
. "$source/tests/install/consume.sh"
build=$scratch/consumer

for how in add_subdirectory FetchContent; do
  consume_by_cmake $how "$build/_deps/zynpsp-build/libzynpsp-14.so" -DLIBRARY="$source"
  quietly cmake --install "$build" --prefix "$scratch/installed"
  [ ! -e "$scratch/installed" ] || fail "$how: installs $(find "$scratch/installed" -type f)"
  [ ! -e "$build/_deps/zynpsp-build/examples" ] || fail "$how: builds the examples"
  [ ! -e "$build/_deps/zynpsp-build/tests" ] || fail "$how: builds the tests"
  [ ! -e "$build/CPackConfig.cmake" ] || fail "$how: makes packages"
done
