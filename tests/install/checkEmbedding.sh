#!/usr/bin/env bash
# What a project that takes the sources in with add_subdirectory gets, and what somebody gets who
# configures them without a preset.
# usage: checkEmbedding.sh SOURCE_DIRECTORY HOST_DIRECTORY GENERATOR COMPILER
set -euo pipefail

sources=$1 host=$2 generator=$3 compiler=$4
work=$(mktemp -d "${TMPDIR:-/tmp}/krucomm-embedding.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

configure() {
  cmake -G "$generator" -DCMAKE_CXX_COMPILER="$compiler" "$@" >"$work/log" 2>&1 ||
    fail "$(cat "$work/log")"
}

build_type() { sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$1/CMakeCache.txt"; }

configure -S "$sources" -B "$work/plain"
[ "$(build_type "$work/plain")" = Release ] || fail "without a preset the build is not optimised"
configure -S "$sources" -B "$work/debug" -DCMAKE_BUILD_TYPE=Debug
[ "$(build_type "$work/debug")" = Debug ] || fail "the build type that was asked for is changed"

configure -S "$host" -B "$work/host" -DKRUCOMM_SOURCES="$sources"
[ -z "$(build_type "$work/host")" ] || fail "the host's build type is changed"
# The targets of the host are set up by now; its unit tells that headers and language level come
# with them.
cmake --build "$work/host" --target embedding_unit >"$work/log" 2>&1 || fail "$(cat "$work/log")"
cmake --install "$work/host" --prefix "$work/tree" >"$work/log" 2>&1 ||
  fail "installing the host wants what is not built: $(cat "$work/log")"
[ "$(cd "$work/tree" && find . -type f)" = ./share/host.txt ] ||
  fail "the host installs more than its own: $(find "$work/tree" -type f)"
echo "a host that embeds the sources keeps its build type and its installed tree"
