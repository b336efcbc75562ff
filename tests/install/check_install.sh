#!/usr/bin/env bash
# The library as its users get it: installed, moved to where nobody built it for, found by CMake and
# by pkg-config, and linked into a program in C and one in C++.
# usage: check_install.sh BUILD_DIRECTORY SOURCE_DIRECTORY
#   CC, CXX, CMAKE_GENERATOR   what the programs are built with
set -euo pipefail
export LC_ALL=C
build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/moved/zynpsp
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }

cmake --install "$build" --prefix "$scratch/installed" >"$scratch/log" || fail "$(<"$scratch/log")"
mkdir "$scratch/moved"
mv "$scratch/installed" "$prefix"
library=$(find "$prefix" -name libzynpsp-14.so)
[ -n "$library" ] || fail "no libzynpsp-14.so is installed"
libdir=$(dirname "$library")

# The shared library, every header, the two ways to find them; nothing else, static twin included.
(cd "$source/include" && find . -type f | sed 's|^\.|include|') >"$scratch/expected"
lib=${libdir#"$prefix"/}
printf '%s\n' "$lib/libzynpsp-14.so" "$lib/pkgconfig/zynpsp-14.pc" \
  "$lib/cmake/zynpsp/zynpspConfig.cmake" "$lib/cmake/zynpsp/zynpspConfigVersion.cmake" \
  "$lib/cmake/zynpsp/zynpspConfig-*.cmake" >>"$scratch/expected"
(cd "$prefix" && find . ! -type d | sed 's|^\./||; s|zynpspConfig-[a-z]*\.|zynpspConfig-*.|') |
  sort | diff - <(sort "$scratch/expected") >"$scratch/diff" ||
  fail "installed (<) and to be installed (>) differ:"$'\n'"$(<"$scratch/diff")"

# No text installed knows where it was built.
if grep -rlFI -e "$build" -e "$source" "$prefix" >"$scratch/knowing"; then
  fail "a path of the build stands in $(<"$scratch/knowing")"
fi

expect_greetings() { # expect_greetings HOW C_PROGRAM CPP_PROGRAM
  [ "$("$2")" = "C on 14.1.3222" ] || fail "$1: the program in C"
  [ "$("$3")" = "C++ on 14.1.3222" ] || fail "$1: the program in C++"
  for program in "$2" "$3"; do
    [[ $(ldd "$program") == *"$libdir/libzynpsp-14.so"* ]] ||
      fail "$1: $program runs with another library"
  done
  echo "$1: two programs built and run"
}

consumer=$source/tests/install/consumer
{ cmake -S "$consumer" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$prefix" &&
  cmake --build "$scratch/cmake"; } >"$scratch/log" 2>&1 || fail "$(<"$scratch/log")"
expect_greetings find_package "$scratch/cmake/program_c" "$scratch/cmake/program_cpp"

if ! command -v pkg-config >/dev/null; then
  echo "pkg-config: not there, not tried"
  exit 0
fi
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
version=$(pkg-config --modversion zynpsp-14)
[ "$version" = 14.1.3222 ] || fail "pkg-config gives the version $version"
read -ra flags < <(pkg-config --cflags --libs zynpsp-14)
"${CC:-cc}" -Werror -o "$scratch/pc_c" "$consumer/program.c" "${flags[@]}"
"${CXX:-c++}" -std=c++20 -Werror -o "$scratch/pc_cpp" "$consumer/program.cpp" "${flags[@]}"
expect_greetings pkg-config "$scratch/pc_c" "$scratch/pc_cpp"
