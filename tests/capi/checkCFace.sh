#!/usr/bin/env bash
# The C face as a user's compiler and linker see it: its header alone, and which functions there are.
# A function that goes away or is named anew breaks programs that nobody compiles again, so the list
# of them changes on purpose or not at all.
# usage: checkCFace.sh COMPILER BUILD_DIRECTORY SOURCE_DIRECTORY
set -euo pipefail

compiler=$1 build=$2 sources=$3
list=$sources/tests/capi/functions.txt

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# compiles LANGUAGE STANDARD [OPTION]: the header alone, and twice in one unit.
compiles() {
  printf '#include "capi/kru.h"\n#include "capi/kru.h"\nint here;\n' |
    "$compiler" -x "$1" -std="$2" -Wall -Wextra ${3:+"$3"} -Werror -pedantic -fsyntax-only \
      -I "$sources/include" - || fail "the header is no $2"
}
compiles c c99 -Wstrict-prototypes
compiles c c11 -Wstrict-prototypes
compiles c++ c++11
compiles c++ c++20

same() {
  diff "$list" - >/dev/null || fail "$1 differ from tests/capi/functions.txt:
$(diff "$list" - <<<"$2")"
}
exported=$(nm -D --defined-only "$build/capi/libkrucapi.so.1" | awk '{ print $3 }' | LC_ALL=C sort)
declared=$(grep -oE '\bkru_[a-z_]+\(' "$sources/include/capi/kru.h" | tr -d '(' | LC_ALL=C sort -u |
  grep -vxF kru_wait_hook)
same "the functions that the library exports" "$exported" <<<"$exported"
same "the functions that the header declares" "$declared" <<<"$declared"
echo "the header is C and C++, and its functions are those of the list"
