#!/usr/bin/env bash
# The two Debian packages, made as scripts/package makes them but of a build that is there: what
# they say about themselves, that they install into a root directory of their own, that programs are
# built on what they install, that gdb finds the library's lines and records, that the manual is
# there, and that nothing is left when they are removed.
# usage: check_packages.sh BUILD_DIRECTORY SOURCE_DIRECTORY
#   CC, CXX, CMAKE_GENERATOR   what the programs are built with
set -euo pipefail
build=$1 source=$2
as_root=()
if [ "$(id -u)" != 0 ]; then
  command -v fakeroot >/dev/null || { echo "neither root nor fakeroot: skipped"; exit 77; }
  as_root=(fakeroot)
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
. "$source/tests/install/consume.sh"

# The build's libraries and reference, put where a build for /usr has its own.
has_reference=OFF
[ ! -d "$build/docs/man" ] || has_reference=ON
quietly cmake -S "$source" -B "$scratch/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON -DPSP_BUILD_EXAMPLES=OFF \
  -DPSP_BUILD_DOCS=$has_reference
cp "$build"/libzynpsp-14.{so,a} "$scratch/build/"
[ $has_reference = OFF ] || cp -r "$build"/docs/{html,man} "$scratch/build/docs/"
(umask 077 && quietly cpack --config "$scratch/build/CPackConfig.cmake" -B "$scratch/packages")
architecture=$(dpkg --print-architecture)
runtime=$scratch/packages/libzynpsp-14_14.1.3222_$architecture.deb
development=$scratch/packages/libzynpsp-14-dev_14.1.3222_$architecture.deb
packages=$(find "$scratch/packages" -maxdepth 1 -name '*.deb' | sort)
[ "$packages" = "$(printf '%s\n' "$development" "$runtime")" ] || fail "packages: $packages"

expect_field() { # expect_field PACKAGE FIELD PATTERN
  local value
  value=$(dpkg-deb --field "$1" "$2")
  # shellcheck disable=SC2053 # a pattern
  [[ $value == $3 ]] || fail "$2 of ${1##*/} is '$value'"
}
expect_field "$runtime" Depends 'libc6 (>= 2.*)'
expect_field "$development" Depends 'libzynpsp-14 (= 14.1.3222), libc6-dev'
for package in "$runtime" "$development"; do
  expect_field "$package" Maintainer "$(sed -n 's/^Copyright (c) [0-9]* //p' "$source/LICENSE")"
  expect_field "$package" Description 'platform-support library of a database engine*'
  dpkg-deb --fsys-tarfile "$package" | tar -tv >"$scratch/list"
  grep -v ' root/root ' "$scratch/list" && fail "${package##*/} has files that are not root's"
  grep -vE '^(-rw-r--r--|drwxr-xr-x) ' "$scratch/list" &&
    fail "${package##*/} has what not everybody may read, or more may change"
  dpkg-deb --ctrl-tarfile "$package" | tar -t >"$scratch/control"
  grep -E 'inst|rm$' "$scratch/control" && fail "${package##*/} runs scripts"
done
mkdir "$scratch/control.d"
dpkg-deb --control "$runtime" "$scratch/control.d"
[ "$(<"$scratch/control.d/shlibs")" = "libzynpsp 14 libzynpsp-14 (>= 14.1.3222)" ] || fail shlibs
[ "$(<"$scratch/control.d/triggers")" = "activate-noawait ldconfig" ] || fail triggers

# A system that has the C library and nothing else.
root=$scratch/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
for package in libc6 libc6-dev; do
  dpkg-query --status "$package"
  echo
  touch "$root/var/lib/dpkg/info/$package:$architecture".{list,md5sums}
done >"$root/var/lib/dpkg/status"
in_root() {
  PATH=$PATH:/usr/sbin:/sbin "${as_root[@]}" dpkg --root="$root" --log="$scratch/dpkg.log" "$@"
}

in_root --install "$development" >"$scratch/log" 2>&1 &&
  fail "the development package installs without the library"
quietly in_root --purge libzynpsp-14-dev
quietly in_root --install "$runtime" "$development"
for question in --audit --verify; do
  quietly in_root $question
  [ ! -s "$scratch/log" ] || fail "dpkg $question: $(<"$scratch/log")"
done
echo "packages: installed"

library=$(find "$root" -name libzynpsp-14.so)
consume_by_cmake package "$library" -DCMAKE_PREFIX_PATH="$root/usr" -DWANTED=14.1
consume_by_pkg_config "$library" "${library%/*}/pkgconfig"

sections=$(readelf -SW "$library")
[[ $sections != *.debug_info* ]] || fail "the packed library has debug information"
if [ $has_reference = ON ]; then
  for file in man/man3/psp_fileOpen.3.gz man/man7/zynpsp-file.7.gz \
    doc/libzynpsp-14-dev/html/index.html; do
    [ -s "$root/usr/share/$file" ] || fail "no share/$file"
  done
  echo "the manual: there"
else
  echo "the manual: not made, not looked for"
fi
commands=$root/usr/share/gdb/auto-load${library#"$root"}-gdb.py
[ -e "$commands" ] || fail "no $commands"
if command -v gdb >/dev/null; then
  gdb -batch -nx -ex "set debug-file-directory $root/usr/lib/debug" -ex "file $library" \
    -ex "info line psp_init" >"$scratch/log" 2>&1
  first=$(grep -n '^ZYN_RETCODE psp_init(' "$source/source/psp/psp.cpp")
  first=${first%%:*}
  line=$(sed -n 's|^Line \([0-9]*\) of ".*source/psp/psp.cpp".*|\1|p' "$scratch/log")
  [[ $line -ge $first && $line -lt $((first + 10)) ]] ||
    fail "psp_init begins in line $first; gdb says: $(<"$scratch/log")"
  echo "gdb: finds the library's lines"
  SHELL=/bin/sh gdb -batch -nx -iex "set auto-load no" -iex "set debuginfod enabled off" \
    -iex "set debug-file-directory $root/usr/lib/debug" -ex "source $commands" \
    -ex "set breakpoint pending on" -ex "break psp_term" -ex run -ex "psp tags" \
    "$scratch/consumer/C_zynpsp" </dev/null >"$scratch/log" 2>&1 || true
  if grep -qE "ptrace: Operation not permitted|Could not trace the inferior" "$scratch/log"; then
    echo "gdb: may not trace a process, its commands not tried"
  else
    grep -qE "^0x[0-9a-f]+ +global +block " "$scratch/log" ||
      fail "gdb's commands do not get along with the debug file: $(<"$scratch/log")"
    echo "gdb: its commands read the library by its debug file"
  fi
else
  echo "gdb: not there, not tried"
fi

quietly in_root --remove libzynpsp-14-dev
[ -e "$library" ] || fail "the development package took the library with it"
quietly in_root --purge libzynpsp-14 libzynpsp-14-dev
left=$(find "$root" -mindepth 1 -path "$root/var" -prune -o -print)
[ -z "$left" ] || fail "left behind: $left"
echo "packages: removed"
