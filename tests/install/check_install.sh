#!/usr/bin/env bash
# The library as its users get it: installed, moved to where nobody built it for, found by CMake and
# by pkg-config, and linked into programs in C and in C++.
# usage: check_install.sh BUILD_DIRECTORY SOURCE_DIRECTORY
#   CC, CXX, CMAKE_GENERATOR   what the programs are built with
set -euo pipefail
build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
. "$source/tests/install/consume.sh"
prefix=$scratch/moved/zynpsp

quietly cmake --install "$build" --prefix "$scratch/installed"

# gdb, told where to look, has the commands as soon as it has the library.
if command -v gdb >/dev/null; then
  gdb -batch -nx -iex "set debuginfod enabled off" \
    -iex "add-auto-load-scripts-directory $scratch/installed/share/gdb/auto-load" \
    -iex "add-auto-load-safe-path $scratch/installed/share/gdb/auto-load" \
    -ex "file $(find "$scratch/installed" -name libzynpsp-14.so)" -ex "help psp tags" \
    >"$scratch/log" 2>&1 || true
  grep -q "^usage: psp tags" "$scratch/log" || fail "gdb has no 'psp tags': $(<"$scratch/log")"
  echo "gdb: has the commands"
else
  echo "gdb: not there, not tried"
fi

mkdir "$scratch/moved"
mv "$scratch/installed" "$prefix"
library=$(find "$prefix" -name libzynpsp-14.so)
[ -n "$library" ] || fail "no libzynpsp-14.so is installed"
libdir=$(dirname "$library")
lib=${libdir#"$prefix"/}

# Both libraries, every header, the ways to find them, the guides; nothing else. gdb's commands lie
# under the path where the library was installed.
{
  (cd "$source/include" && find . -name '*.h' -o -name '*.hpp') | sed 's|^\.|include/zynpsp-14|'
  printf '%s\n' "$lib/libzynpsp-14.so" "$lib/libzynpsp-14.a" "$lib/pkgconfig/zynpsp-14.pc" \
    "$lib/cmake/zynpsp/zynpspConfig.cmake" "$lib/cmake/zynpsp/zynpspConfigVersion.cmake" \
    "$lib/cmake/zynpsp/zynpspConfig-*.cmake"
  printf 'share/doc/zynpsp/%s\n' LICENSE README.md CONTRIBUTING.md CHANGELOG.md
  (cd "$source" && find docs -name '*.md' -o -name '*.svg') | sed 's|^|share/doc/zynpsp/|'
  echo "share/gdb/auto-load$scratch/installed/$lib/libzynpsp-14.so-gdb.py"
} | sort >"$scratch/expected"
(cd "$prefix" && find . ! -type d | sed 's|^\./||; s|zynpspConfig-[a-z]*\.|zynpspConfig-*.|') |
  sed '\|^share/doc/zynpsp/html/|d; \|^share/man/|d' | sort | diff - "$scratch/expected" \
  >"$scratch/diff" ||
  fail "installed (<) and to be installed (>) differ:"$'\n'"$(<"$scratch/diff")"

empty=$(find "$prefix" -type d -empty)
[ -z "$empty" ] || fail "empty directories: $empty"

# No text installed knows where it was built.
if grep -rlFI -e "$build" -e "$source" "$prefix" >"$scratch/knowing"; then
  fail "a path of the build stands in $(<"$scratch/knowing")"
fi

# What a program needs to run is one file; stripped, it is without debug information.
mkdir "$scratch/runtime"
quietly cmake --install "$build" --prefix "$scratch/runtime" --component Runtime --strip
(cd "$scratch/runtime" && find . ! -type d) >"$scratch/files"
[ "$(<"$scratch/files")" = "./$lib/libzynpsp-14.so" ] || fail "Runtime has $(<"$scratch/files")"
sections=$(readelf -SW "$scratch/runtime/$lib/libzynpsp-14.so")
[[ $sections != *.debug_info* ]] || fail "a stripped library has debug information"
sections=$(readelf -SW "$library")
[[ $sections == *.debug_info* ]] || fail "a library that is not stripped has no debug information"

consume_by_cmake package "$library" -DCMAKE_PREFIX_PATH="$prefix" -DWANTED=14.1
consume_by_pkg_config "$library" "$libdir/pkgconfig"

# Version 14.1 is good for whoever asks for an older one of the same number, and for nobody else.
mkdir "$scratch/versions"
cat >"$scratch/versions/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.22)
project(versions LANGUAGES C)
foreach(version 13 13.9 14.1.3223 14.2 15)
  find_package(zynpsp ${version} CONFIG QUIET)
  if(zynpsp_FOUND)
    message(FATAL_ERROR "found as version ${version}")
  endif()
endforeach()
foreach(version 14 14.0 14.1 14.1.3222)
  find_package(zynpsp ${version} CONFIG REQUIRED)
endforeach()
END
quietly cmake -S "$scratch/versions" -B "$scratch/versions" -DCMAKE_PREFIX_PATH="$prefix"
echo "versions: taken and refused as they should be"
