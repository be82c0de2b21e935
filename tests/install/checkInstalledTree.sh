#!/usr/bin/env bash
# Installs the build into a directory of its own and builds the example against that, once as a
# CMake project would and once with what pkg-config says.
# usage: checkInstalledTree.sh BUILD_DIRECTORY EXAMPLES_DIRECTORY COMPILER
set -euo pipefail

build=$1 examples=$2 compiler=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/krucomm-install.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# Nothing listens on the discard port of the loopback interface; the example has to say so.
check_program() {
  local output
  output=$("$1" 127.0.0.1 9 books whale 2>&1) && fail "$1 found a server where there is none"
  [[ $output == *ERR_CONNECT_SERVER*127.0.0.1\ 9* ]] || fail "$1 said: $output"
  "$1" 127.0.0.1 9 books $'a\nb' 2>/dev/null && fail "$1 sent a line break"
  return 0
}

cmake --install "$build" --prefix "$work/tree" >/dev/null

cmake -S "$examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/tree" \
  -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
cmake --build "$work/examples" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
check_program "$work/examples/search"
check_program "$work/examples/search_static"
# Not a pipe into grep -q, which ends ldd by a signal when it stops reading at the first match.
loaded=$(ldd "$work/examples/search")
[[ $loaded == *"=> $work/tree/"*"/libkrucomm.so.1 "* ]] ||
  fail "the example does not use the installed library: $loaded"

libdir=$(dirname "$(find "$work/tree" -name krucomm.pc)")
export PKG_CONFIG_PATH=$libdir
read -ra flags <<<"$(pkg-config --cflags --libs krucomm)"
"$compiler" -std=c++20 "$examples/search.cpp" -o "$work/search" "${flags[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir krucomm)"
check_program "$work/search"

for library in krucomm kruinfra; do
  found=$(pkg-config --modversion "$library")
  expected=$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' \
    "$(find "$work/tree" -name krucommConfigVersion.cmake)")
  [ "$found" = "$expected" ] || fail "$library.pc says $found, the package $expected"
done

# What a library exports is what its headers declare: an internal class that can be linked to is one
# that somebody will link to.
check_exports() {
  local library=$1 headers=$2 names name
  names=$(nm -DC --defined-only "$library" | grep -E '^[0-9a-f]+ [TDBR] ' |
    sed -nE 's/^.{19}(vtable for |typeinfo for )?tq::(comm|oss|util)::([A-Za-z_0-9]+).*/\3/p' |
    sort -u)
  [ -n "$names" ] || fail "${library##*/} exports nothing"
  for name in $names; do
    grep -rqE "(class|struct)( KRU_EXPORT)? $name\b[^;]*$|KRU_EXPORT[^;]*\b$name\b" "$headers" ||
      fail "${library##*/} exports $name, which no header declares"
  done
  nm -DC --defined-only "$library" | grep -E '^[0-9a-f]+ [TDB] ' | grep -vE 'tq::| _' &&
    fail "${library##*/} exports names of no namespace of its own"
  return 0
}
for library in libkrucomm.so.1 libkruinfra.so.1; do
  check_exports "$(find "$work/tree" -name "$library")" "$work/tree/include"
done

for program in "$work"/tree/bin/*; do
  "$program" --version >/dev/null || fail "${program##*/} does not start from the installed tree"
done
echo "the installed tree serves both kinds of users"
