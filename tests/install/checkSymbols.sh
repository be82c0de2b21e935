#!/usr/bin/env bash
# What the shared libraries show to the process that loads them, and what they take from it.
# usage: checkSymbols.sh COMPILER BUILD_DIRECTORY SOURCE_DIRECTORY
set -euo pipefail

compiler=$1 build=$2 sources=$3

work=$(mktemp -d "${TMPDIR:-/tmp}/krucomm-symbols.XXXXXX")
trap 'rm -rf "$work"' EXIT
libraries=("$build/comm/libkrucomm.so.1" "$build/infra/libkruinfra.so.1")
archives=("$build/comm/libkrucomm.a" "$build/infra/libkruinfra.a")

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

exported() { nm -D --defined-only "$1" | awk '{ print $3 }'; }

# An internal class or a foreign template that can be linked to is one that somebody will link to:
# only what a header declares is shown.
check_exports() {
  local library=$1 names strangers name
  names=$(exported "$library" | c++filt)
  [ -n "$names" ] || fail "${library##*/} exports nothing"
  local kinds='(vtable|VTT|typeinfo|typeinfo name|guard variable) for |(non-)?virtual thunk to '
  strangers=$(grep -vE "^($kinds)?tq::(comm|oss|util)::|^kru[A-Za-z0-9_]+\$" <<<"$names" || true)
  [ -z "$strangers" ] || fail "${library##*/} exports $strangers"
  for name in $(sed -nE "s/^($kinds)?tq::(comm|oss|util)::([A-Za-z_0-9]+).*/\\5/p" <<<"$names" |
    sort -u); do
    grep -rqE "(class|struct)( KRU_EXPORT)? $name\b[^;]*$|KRU_EXPORT[^;]*\b$name\b" \
      "$sources/include" || fail "${library##*/} exports $name, which no header declares"
  done
}

# A catch in the host compares type information, which has to be the library's own.
check_exceptions() {
  local library=$1 type
  shift
  for type in "$@"; do
    exported "$library" | c++filt | grep -xF "typeinfo for $type" >/dev/null ||
      fail "${library##*/} does not export the type of $type"
  done
}

# traps: every function that the libraries define, internal or not, unless the program below or the
# other library calls it. Data is left out: a class has one vtable and one type in a process,
# wherever that is.
traps() {
  nm --defined-only "${archives[@]}" | awk '$2 ~ /^[TW]$/ { print $3 }' | sort -u >"$work/defined"
  { nm -u "$work/program.o" && nm -D -u "${libraries[@]}"; } |
    awk '$1 ~ /^[Uw]$/ { sub(/@.*/, "", $2); print $2 }' | sort -u >"$work/called"
  comm -23 "$work/defined" "$work/called"
}

# A host is large and old: it may have a function of any name. None of them is called in place of
# the library's own.
check_host() {
  "$compiler" -std=c++20 -O1 -fPIC -I "$sources/include" \
    -c "$sources/tests/install/symbolsHost.cpp" -o "$work/program.o"
  traps >"$work/traps"
  [ "$(wc -l <"$work/traps")" -gt 300 ] || fail "the libraries define $(wc -l <"$work/traps") names"
  # Code of the program's own would use some of the names too, if it were not bound at once.
  "$compiler" -shared "$work/program.o" -o "$work/program.so" -Wl,-Bsymbolic \
    -L "$build/comm" -L "$build/infra" -lkrucomm -lkruinfra -licuuc \
    -Wl,-rpath,"$build/comm" -Wl,-rpath,"$build/infra"
  {
    echo '.text'
    echo 'trap: call abort@PLT'
    while read -r name; do printf '.globl "%s"\n.type "%s", @function\n"%s": jmp trap\n' \
      "$name" "$name" "$name"; done <"$work/traps"
    echo '.section .note.GNU-stack,"",@progbits'
  } >"$work/traps.s"
  cat >"$work/host.c" <<'HOST'
#include <dlfcn.h>
#include <stdio.h>

int main(int count, char** arguments) {
  void* program = dlopen(arguments[count - 1], RTLD_NOW | RTLD_GLOBAL);
  int (*run)(void) = program ? (int (*)(void))dlsym(program, "run") : 0;
  if (!run) return puts(dlerror()), 3;
  return run();
}
HOST
  "$compiler" -x c "$work/host.c" -x assembler "$work/traps.s" -o "$work/host" -rdynamic
  "$work/host" "$work/program.so" ||
    fail "run() of symbolsHost.cpp gave $?; 134 means that a function of the host was called"
}

# The system takes memory for other data of a thread when it is first used, and ends the process
# where there is none.
check_thread_data() {
  local late
  late=$(readelf -rW "$1" | grep -E 'DTPMOD|TLSDESC' || true)
  [ -z "$late" ] || fail "${1##*/} has data of threads that is not there when it is loaded: $late"
}

for library in "${libraries[@]}"; do
  check_exports "$library"
  check_thread_data "$library"
done
check_exceptions "${libraries[0]}" tq::comm::RESTException
check_exceptions "${libraries[1]}" tq::oss::BaseException tq::oss::NLSException \
  tq::oss::SocketException tq::oss::SocketTimeoutException
check_host
echo "the libraries show their headers, and keep to themselves"
