#!/usr/bin/env bash
# Installs the build into a directory of its own and builds the examples against that, with each
# compiler, once as a CMake project would and once with what pkg-config says.
# usage: checkInstalledTree.sh BUILD_DIRECTORY EXAMPLES_DIRECTORY GENERATOR COMPILER...
set -euo pipefail

build=$1 examples=$2 generator=$3
shift 3
work=$(mktemp -d "${TMPDIR:-/tmp}/krucomm-install.XXXXXX")
server=
clean_up() {
  [ -z "$server" ] || kill "$server" 2>/dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT

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

libdir=$(dirname "$(dirname "$(find "$work/tree" -name krucomm.pc)")")
export PKG_CONFIG_PATH=$libdir/pkgconfig

# The user of CMake says nothing about the language; the imported target has to.
check_find_package() {
  local compiler=$1 build=$work/examples-${1##*/} loaded loading
  cmake -S "$examples" -B "$build" -G "$generator" -DCMAKE_PREFIX_PATH="$work/tree" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
  cmake --build "$build" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
  check_program "$build/search"
  check_program "$build/search_static"
  check_program "$build/search_binary"
  check_program "$build/search_c"
  check_program "$build/search_c_static"
  loading=$("$build/load" 127.0.0.1 9 books 2>&1 <<<$'key\ttext') &&
    fail "load found a server where there is none"
  [[ $loading == *ERR_CONNECT_SERVER*127.0.0.1\ 9* ]] || fail "load said: $loading"
  # Not a pipe into grep -q, which ends ldd by a signal when it stops reading at the first match.
  loaded=$(ldd "$build/search")
  [[ $loaded == *"=> $work/tree/"*"/libkrucomm.so.1 "* ]] ||
    fail "the example does not use the installed library: $loaded"
}

# The program carries no path of the library: finding it is left to the loader, which is told of the
# directory as `ldconfig` would tell it.
check_pkg_config() {
  local compiler=$1 program=$work/search-${1##*/} flags
  read -ra flags <<<"$(pkg-config --cflags --libs krucomm)"
  "$compiler" -std=c++20 "$examples/search.cpp" -o "$program" "${flags[@]}"
  (
    export LD_LIBRARY_PATH=$libdir
    check_program "$program"
  )
  check_pkg_config_c "$compiler"
}

# A program in C, by the strictest reading of its standard.
check_pkg_config_c() {
  local compiler=$1 program=$work/search-c-${1##*/} flags
  read -ra flags <<<"$(pkg-config --cflags --libs krucapi)"
  "$compiler" -x c -std=c11 -Wall -Wextra -Werror -pedantic "$examples/search.c" -x none \
    -o "$program" "${flags[@]}"
  (
    export LD_LIBRARY_PATH=$libdir
    check_program "$program"
  )
}

for compiler in "$@"; do
  check_find_package "$compiler"
  check_pkg_config "$compiler"
done

# What README says of an installation to /usr/local: `ldconfig` alone makes the loader find it.
echo "$libdir" >"$work/ld.so.conf"
/sbin/ldconfig -X -f "$work/ld.so.conf" -C "$work/ld.so.cache" 2>/dev/null
found=$(/sbin/ldconfig -p -C "$work/ld.so.cache")
for library in libkrucapi.so.1 libkrucomm.so.1 libkruinfra.so.1; do
  [[ $found == *"$library "*"=> $libdir/$library"* ]] || fail "ldconfig does not find $library"
done

header_version() {
  echo '#include "comm/kruVersion.h"' | "$1" -E -dM -x c++ -I "$work/tree/include/krucomm" - |
    sed -n 's/^#define KRU_VERSION_TEXT "\(.*\)"$/\1/p'
}
for library in krucapi krucomm kruinfra; do
  found=$(pkg-config --modversion "$library")
  expected=$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' \
    "$(find "$work/tree" -name krucommConfigVersion.cmake)")
  [ "$found" = "$expected" ] || fail "$library.pc says $found, the package $expected"
  [ "$(header_version "$1")" = "$expected" ] ||
    fail "kruVersion.h says $(header_version "$1"), the package $expected"
done

programs=$(cd "$work/tree/bin" && echo *)
[ "$programs" = "corvane corvaned" ] || fail "the installed programs are $programs"
# The examples do what they say, where there is a server to say it to.
check_examples() {
  local port found
  "$work/tree/bin/corvaned" --http-port 0 --binary-port 0 --data "$work/data" \
    --port-file "$work/ports" >/dev/null 2>&1 </dev/null &
  server=$!
  for _ in $(seq 300); do
    [ ! -e "$work/ports" ] || break
    sleep 0.1
  done
  port=$(sed -n 's/^listening http .*://p' "$work/ports")
  found=$("$first/load" 127.0.0.1 "$port" books <<<$'k1\tred fox\nk2\tgrey fox')
  [ "$found" = "2 documents are searchable" ] || fail "load said: $found"
  found=$("$first/search" 127.0.0.1 "$port" books red)
  [ "$found" = "1 base64:azE=" ] || fail "search said: $found"
  port=$(sed -n 's/^listening binary .*://p' "$work/ports")
  found=$("$first/search_binary" 127.0.0.1 "$port" books grey)
  [ "$found" = $'about 1 of 2 documents\n1 base64:azI=' ] || fail "search_binary said: $found"
  found=$("$first/search_c" 127.0.0.1 "$port" books grey)
  [ "$found" = $'about 1 of 2 documents\n1 k2' ] || fail "search_c said: $found"
  kill "$server"
  wait "$server" || fail "corvaned did not end in order"
  server=
}
first=$work/examples-${1##*/}
[ ! -e "$work/tree/bin/corvaned" ] || check_examples

for program in "$work"/tree/bin/*; do
  "$program" --version >/dev/null || fail "${program##*/} does not start from the installed tree"
done
echo "the installed tree serves both kinds of users"
