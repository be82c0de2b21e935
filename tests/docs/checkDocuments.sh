#!/usr/bin/env bash
# Runs what README.md and docs/*.md show:
#   ```console  lines that begin with "$ " are run, those that follow are the expected output, in
#               which "..." stands for anything. All blocks of a document share one directory and
#               one shell. The ports 4480 and 4481 stand for free ones.
#   ```cpp      a program: compiled against the installed tree and run where the consoles ran
#   ```c        C99 that needs libkrucapi alone: compiled, and one with a `main` is run as well
#   ```cmake    what such a program's project needs: it builds the document's program
#   ```sh       commands that build or install, and are run elsewhere: they must exist
#   ```         anything else, and ```text: not a command
# An indented line that begins with one of these programs counts as ```sh.
# usage: checkDocuments.sh BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER
set -euo pipefail

build=$1 source=$2 compiler=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/krucomm-documents.XXXXXX")

stop_servers() {
  local pid
  [ ! -e "$work/pids" ] || while read -r pid; do kill "$pid" 2>/dev/null || true; done <"$work/pids"
  : >"$work/pids"
}

clean_up() {
  stop_servers
  rm -rf "$work"
}
trap clean_up EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$work/tree" >/dev/null
libdir=$(dirname "$(find "$work/tree" -name krucomm.pc)")
export PKG_CONFIG_PATH=$libdir
unset CORVANE_PORT CORVANE_HOST

# blocks DOCUMENT KIND: the lines of these blocks, each block followed by a line of one form feed.
blocks() {
  awk -v kind="$2" '
    /^```/ { if (open) { if (open == kind) print "\f"; open = "" }
             else { open = substr($0, 4); if (open == "") open = "plain" }
             next }
    open == kind { print }' "$1"
}

# commands DOCUMENT: what it tells a person to type beside the consoles.
commands() {
  blocks "$1" sh | tr -d '\f'
  local first='(corvaned?|cmake|ctest|\.\/dev|mkdir|callgrind_annotate|(bench|build)\/[^ ]+|[A-Z_]+=[^ ]+)'
  awk -v line="^    $first( |\$)" '/^```/ { open = !open } !open && $0 ~ line { print }' "$1"
}

# The programs as a document calls them. The server takes free ports and is there when it is said to
# be; what the programs print names the document's ports.
cat >"$work/programs" <<'EOF'
corvaned() {
  # These start no server.
  case $1 in check | repair | token | user) "$bin/corvaned" "$@"; return ;; esac
  local argument arguments=() lines
  for argument in "$@"; do
    case $argument in
      4480 | 4481) arguments+=(0) ;;
      *) arguments+=("$argument") ;;
    esac
  done
  rm -f ports
  "$bin/corvaned" "${arguments[@]}" --port-file ports >/dev/null 2>server.log </dev/null &
  echo $! >>"$pids"
  for _ in $(seq 300); do
    [ ! -e ports ] || break
    sleep 0.1
  done
  sed -e '/ http /s/:[0-9]*$/:4480/' -e '/ binary /s/:[0-9]*$/:4481/' ports
}
actual_port() {
  case $1 in
    4480) sed -n 's/^listening http .*://p' ports ;;
    4481) sed -n 's/^listening binary .*://p' ports ;;
    *) echo "$1" ;;
  esac
}
corvane() {
  local argument arguments=()
  for argument in "$@"; do arguments+=("$(actual_port "$argument")"); done
  CORVANE_PORT=$(actual_port "${CORVANE_PORT:-}") "$bin/corvane" "${arguments[@]}" 2>&1 |
    sed -e "s/:$(actual_port 4480)\b/:4480/" -e "s/:$(actual_port 4481)\b/:4481/"
}
EOF

# matches EXPECTED ACTUAL: the same lines, "..." standing for anything.
matches() {
  local pattern
  pattern=$(sed -e 's/[][\\^$.*/]/\\&/g' -e 's/\\\.\\\.\\\./.*/g' <<<"$1")
  [ "$(wc -l <<<"$1")" = "$(wc -l <<<"$2")" ] || return 1
  local want got
  while IFS= read -r want <&3 && IFS= read -r got <&4; do
    grep -qx -- "$want" <<<"$got" || return 1
  done 3<<<"$pattern" 4<<<"$2"
}

commands_run=0

check_step() {
  local document=$1 command=$2 expected=$3
  printf '%s\n' "$command" >"$work/step"
  # A server that runs in the background has said that it is ready when its step is over.
  local output status=0
  output=$(cd "$room" && bin="$work/tree/bin" pids="$work/pids" &&
    . "$work/programs" && . "$work/exports" && eval "${command% &}" 2>&1) || status=$?
  # Settings have to last.
  case $command in export\ *) printf '%s\n' "$command" >>"$work/exports" ;; esac
  commands_run=$((commands_run + 1))
  matches "$expected" "$output" || fail "$document
\$ $command
expected:
$expected
printed:
$output"
  if tells_of_failure "$expected"; then
    [ "$status" -ne 0 ] || fail "$document: '$command' fails, but exits with 0"
  else
    [ "$status" -eq 0 ] || fail "$document: '$command' exits with $status"
  fi
}

# tells_of_failure OUTPUT: whether a script has to learn of it from the exit code.
tells_of_failure() {
  case $1 in *'"error":'* | *'"refused":"'* | *'"status":2'*) ;; *) return 1 ;; esac
}

# Steps are a command and what should follow it.
check_consoles() {
  local document=$1 line command='' expected=''
  while IFS= read -r line; do
    case $line in
      '$ '* | $'\f')
        [ -z "$command" ] || check_step "$document" "$command" "$expected"
        command=${line#'$ '} expected=''
        [ "$line" != $'\f' ] || command=''
        ;;
      *) expected+=${expected:+$'\n'}$line ;;
    esac
  done < <(blocks "$source/$document" console)
}

programs_built=0

# write_programs DOCUMENT LANGUAGE: each block into a file that names the ports of the document's
# server.
write_programs() {
  local program
  blocks "$source/$1" "$2" | awk -v prefix="$room/program" -v end=".$2" '
    BEGIN { n = 1 } /^\f$/ { close(prefix n end); ++n; next } { print >(prefix n end) }'
  for program in "$room"/program*."$2"; do
    [ -e "$program" ] || return 0
    [ -e "$room/ports" ] || fail "$1: no console starts a server for its program"
    sed -i -e "s/\b4480\b/$(cd "$room" && . "$work/programs" && actual_port 4480)/" \
      -e "s/\b4481\b/$(cd "$room" && . "$work/programs" && actual_port 4481)/" "$program"
  done
}

# build_program DOCUMENT PACKAGE OUTPUT OPTION...: compiles against the installed tree.
build_program() {
  local document=$1 package=$2 output=$3 flags
  shift 3
  read -ra flags <<<"$(pkg-config --cflags --libs "$package")"
  "$compiler" -Wall -Wextra -Werror "$@" -x none -o "$output" "${flags[@]}" \
    -Wl,-rpath,"$(pkg-config --variable=libdir "$package")" ||
    fail "$document: the program does not compile"
  programs_built=$((programs_built + 1))
}

# The document's programs, which talk to the server of its consoles, and its project.
check_programs() {
  local document=$1 program found
  write_programs "$document" cpp
  for program in "$room"/program*.cpp; do
    [ -e "$program" ] || return 0
    build_program "$document" krucomm "${program%.cpp}" -std=c++20 "$program"
    found=$("${program%.cpp}" 2>&1) || fail "$document: the program fails: $found"
    [[ $found == base64:* ]] || fail "$document: the program finds nothing: $found"
  done
  check_project "$document"
}

check_c_programs() {
  local document=$1 program found flags c99=(-x c -std=c99 -pedantic)
  write_programs "$document" c
  for program in "$room"/program*.c; do
    [ -e "$program" ] || return 0
    if ! grep -q '^int main(' "$program"; then
      read -ra flags <<<"$(pkg-config --cflags krucapi)"
      "$compiler" -Wall -Wextra -Werror "${c99[@]}" -fsyntax-only "${flags[@]}" "$program" ||
        fail "$document: the part of a program does not compile"
      continue
    fi
    build_program "$document" krucapi "${program%.c}" "${c99[@]}" "$program"
    found=$("${program%.c}" 2>&1) || fail "$document: the program fails: $found"
    grep -qF "prints \`$found\`" "$source/$document" ||
      fail "$document: the program prints something else: $found"
    c_programs_run=$((c_programs_run + 1))
  done
}
c_programs_run=0

check_project() {
  local block
  block=$(blocks "$source/$1" cmake | tr -d '\f')
  [ -n "$block" ] || return 0
  mkdir -p "$room/project"
  cp "$room/program1.cpp" "$room/project/program.cpp"
  {
    echo 'cmake_minimum_required(VERSION 3.16)'
    echo 'project(program LANGUAGES CXX)'
    echo 'add_executable(program program.cpp)'
    echo "$block"
  } >"$room/project/CMakeLists.txt"
  cmake -G Ninja -S "$room/project" -B "$room/project/build" -DCMAKE_PREFIX_PATH="$work/tree" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" 2>&1 || fail "$1: $(cat "$work/log")"
  cmake --build "$room/project/build" >"$work/log" 2>&1 || fail "$1: $(cat "$work/log")"
}

# check_dev COMMAND ARGUMENT...: ./dev has the command, and what it measures has these names.
check_dev() {
  local command=$1 name
  "$source/dev" help | grep -q "^  $command " || return 1
  shift
  for name in "$@"; do
    case $command/$name in
      */-*) ;;
      bench/rows | bench/growth) ;;
      bench/*) grep -q "\"name\": \"$name\"" "$source/bench/rows.json" || return 1 ;;
      load/*) grep -qE "^  $name +" "$source/bench/load/run" || return 1 ;;
    esac
  done
}

check_commands() {
  local document=$1 line preset pattern words
  while IFS= read -r line; do
    read -ra words <<<"${line%%#*}"
    while [[ ${words[0]:-} == *=* ]]; do words=("${words[@]:1}"); done
    case ${words[0]:-} in
      ./dev) check_dev "${words[@]:1}" || fail "$document: $line" ;;
      corvane | corvaned) fail "$document: '$line' belongs into a console block" ;;
      bench/*) [ -x "$source/${words[0]}" ] || fail "$document: $line" ;;
      build/fuzz/fuzz/*)
        [ -e "$source/fuzz/${words[0]##*/}Fuzzer.cpp" ] || fail "$document: $line"
        ;;
      ctest)
        pattern=$(sed -nE "s/.* -R '?([^']*)'?$/\1/p" <<<"$line")
        ctest --test-dir "$build" -N -R "$pattern" >"$work/log" || fail "$document: $line"
        grep -q '^ *Test ' "$work/log" || fail "$document: $line"
        ;;
      '' | cmake | ldconfig | mkdir | callgrind_annotate) ;;
      *) fail "$document: '$line' is not a command that this test knows" ;;
    esac
    while read -r preset; do
      grep -q "\"name\": \"$preset\"" "$source/CMakePresets.json" || fail "$document: $line"
    done < <(grep -oE -- '--preset [a-z]+' <<<"$line" | cut -d' ' -f2)
    commands_run=$((commands_run + 1))
  done < <(commands "$source/$document")
}

cd "$source"
for document in README.md docs/*.md; do
  room=$work/rooms/$(basename "$document" .md)
  mkdir -p "$room"
  : >"$work/exports"
  [ ! -e "tests/docs/$(basename "$document" .md).jsonl" ] ||
    cp "tests/docs/$(basename "$document" .md).jsonl" "$room/library.jsonl"
  check_consoles "$document"
  check_programs "$document"
  check_c_programs "$document"
  check_commands "$document"
  stop_servers
done
[ "$commands_run" -gt 20 ] && [ "$programs_built" -gt 1 ] && [ "$c_programs_run" -gt 0 ] ||
  fail "nothing was found to check"
echo "$commands_run commands and $programs_built programs are as the documents show them"
