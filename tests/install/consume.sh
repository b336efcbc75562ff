# Sourced by the checks beside it: programs of callers, built on the library in all the ways that
# there are. Expects: scratch, an empty directory; source, the library's sources; CC, CXX and
# CMAKE_GENERATOR as CMake knows them.
export LC_ALL=C
consumer=$source/tests/install/consumer
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }

# quietly COMMAND...: its output is shown when it fails.
quietly() { "$@" >"$scratch/log" 2>&1 || fail "$*"$'\n'"$(<"$scratch/log")"; }

# expect_greeting HOW PROGRAM LANGUAGE [LIBRARY]: it runs, with that shared library or with none, and
# needs no C++ runtime if it is in C.
expect_greeting() {
  local greeting libraries
  greeting=$("$2") || fail "$1: the program in $3 fails"
  [ "$greeting" = "$3 on 14.1.3222" ] || fail "$1: the program in $3 says '$greeting'"
  libraries=$(ldd "$2" 2>&1 || true)
  if [ $# = 4 ]; then
    [[ $libraries == *" $4 "* ]] || fail "$1: $2 runs with another library: $libraries"
  else
    [[ $libraries != *zynpsp* ]] || fail "$1: $2 needs the shared library"
  fi
  [[ $3 != C || $libraries != *stdc++* ]] || fail "$1: a program in C needs the C++ runtime"
  echo "$1: a program in $3 built and run"
}

# consume_by_cmake HOW LIBRARY ARGUMENT...: a project in C alone, then one in C and C++, each program
# with the shared library and with the static one. Both projects are built in one directory: what
# they compile alike is compiled once.
consume_by_cmake() {
  local how=$1 library=$2 languages language
  shift 2
  for languages in C "C;CXX"; do
    quietly cmake -S "$consumer" -B "$scratch/consumer" -DLANGUAGES="$languages" -DHOW="$how" "$@"
    quietly cmake --build "$scratch/consumer" --parallel 2
    for language in ${languages/;/ }; do
      expect_greeting "$how, shared" "$scratch/consumer/${language}_zynpsp" "${language/XX/++}" \
        "$library"
      expect_greeting "$how, static" "$scratch/consumer/${language}_static" "${language/XX/++}"
    done
  done
}

# consume_by_pkg_config LIBRARY DIRECTORY: the same with the files in that directory alone.
consume_by_pkg_config() {
  local library=$1 version flags
  local -x PKG_CONFIG_PATH=$2 LD_LIBRARY_PATH=${1%/*}
  if ! command -v pkg-config >/dev/null; then
    echo "pkg-config: not there, not tried"
    return 0
  fi
  version=$(pkg-config --modversion zynpsp-14)
  [ "$version" = 14.1.3222 ] || fail "pkg-config gives the version $version"
  read -ra flags < <(pkg-config --cflags --libs zynpsp-14)
  quietly "${CC:-cc}" -Werror -o "$scratch/pc_c" "$consumer/program.c" "${flags[@]}"
  quietly "${CXX:-c++}" -std=c++17 -Werror -o "$scratch/pc_cpp" "$consumer/program.cpp" \
    "${flags[@]}"
  expect_greeting pkg-config "$scratch/pc_c" C "$library"
  expect_greeting pkg-config "$scratch/pc_cpp" C++ "$library"
  read -ra flags < <(pkg-config --static --cflags --libs zynpsp-14)
  [[ " ${flags[*]} " == *" -lm "* ]] || fail "pkg-config --static leaves out the maths library"
  quietly "${CC:-cc}" -static -o "$scratch/pc_static" "$consumer/program.c" "${flags[@]}"
  expect_greeting "pkg-config --static" "$scratch/pc_static" C
}
