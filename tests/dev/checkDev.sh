#!/usr/bin/env bash
# What ./dev says of a project with one test that always passes and one that fails in every second
# run, and of the commits of its repository.
# usage: checkDev.sh DEV SAMPLE_DIRECTORY
set -euo pipefail

work=$(mktemp -d "${TMPDIR:-/tmp}/krucomm-dev.XXXXXX")
trap 'rm -rf "$work"' EXIT
cp -r "$2/." "$work"
cp "$1" "$work/dev"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

expect() { [[ $output == *"$1"* ]] || fail "expected '$1' in: $output"; }
expect_no() { [[ $output != *"$1"* ]] || fail "did not expect '$1' in: $output"; }

# run STATUS ARGUMENTS...
run() {
  local expected=$1 status=0
  shift
  output=$(cd "$work" && ./dev "$@" 2>&1) || status=$?
  [ "$status" -eq "$expected" ] || fail "./dev $* ended with $status: $output"
}

run 1 repeat 4 --beside 1 release
expect "release, run 1: all passed"
expect "release, run 2: Flickers"
expect "release: Flickers failed 2 times, in runs 2 4"

# What was killed may take a while to go; what was not never goes, and the test runs out of time.
while :; do
  remaining=
  for process in /proc/[0-9]*; do
    [ "$(readlink "$process/cwd" 2>/dev/null || true)" != "$work" ] ||
      remaining+=" $(tr '\0' ' ' 2>/dev/null <"$process/cmdline" || true);"
  done
  [ -n "$remaining" ] || break
  echo "still at work:$remaining"
  sleep 1
done

rm "$work/build/count"
run 0 repeat 1 release
expect "no test failed in any run"

# A test that did not run is a test that did not pass.
sed -i 's/^add_test(NAME Steady.*/&\nset_tests_properties(Steady PROPERTIES DISABLED TRUE)/' \
  "$work/CMakeLists.txt"
rm "$work/build/count"
run 1 repeat 1 release
expect "release: Steady failed 1 times, in runs 1"

# A run of no test at all passes nothing.
sed -i '/^add_test/d; /^set_tests_properties/d' "$work/CMakeLists.txt"
run 1 repeat 1 release
expect "release, run 1: (ctest-itself)"

# Somebody without root or sudo gets one line to hand to whoever has it.
tools=$work/tools
mkdir "$tools"
for tool in bash dirname mkdir rm; do ln -s "$(command -v "$tool")" "$tools/$tool"; done
printf '#!/bin/bash\necho 1000\n' >"$tools/id"
printf '#!/bin/bash\nexit 1\n' >"$tools/dpkg-query"
chmod +x "$tools/id" "$tools/dpkg-query"
PATH=$tools run 1 demo
expect "neither root nor sudo is at hand"
expect "apt-get update && apt-get install -y --no-install-recommends g++ cmake"

# Every package counts as installed, and each source as formatted. Lint ends for want of its preset.
unset GIT_DIR GIT_WORK_TREE GIT_INDEX_FILE
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_NOSYSTEM=1
export GIT_AUTHOR_NAME=A GIT_AUTHOR_EMAIL=a@example.org
export GIT_COMMITTER_NAME=A GIT_COMMITTER_EMAIL=a@example.org
present=$work/present
mkdir "$present"
printf '#!/bin/bash\necho installed\n' >"$present/dpkg-query"
printf '#!/bin/bash\n' >"$present/clang-format"
chmod +x "$present"/*
mkdir "$work/comm"
touch "$work/comm/empty.cpp"

commit() { git -C "$work" commit --quiet --allow-empty -m "$1"; }
lint() { PATH=$present:$PATH run 1 lint; }
long=$(printf 'x%.0s' {1..73})

git -C "$work" init --quiet --initial-branch=main
commit "first"
lint
expect_no "a subject of"
expect "the preset lint failed"

# The main branch differs from itself in nothing.
commit "$long"
commit "after it"
lint
expect "a subject of 73 characters: $long"
expect_no "the preset lint failed"

# A branch answers for its own commits alone.
git -C "$work" switch --quiet -c branch
commit "${long#x}"
lint
expect_no "a subject of"
commit "$long"
lint
expect "a subject of 73 characters: $long"

# What lies far back is not brought up for ever.
git -C "$work" switch --quiet main
for _ in {1..50}; do commit "more"; done
lint
expect_no "a subject of"
# Each name that is wrong is told with its place, before anything is built.
cat >"$work/comm/names.h" <<'EOF'
constexpr int lines = 1;
constexpr int kLines = 1;
enum class Colour { Red };
enum class Shape {
  kRound,
  Square = 2,
  flat,
};
struct open_file {
  int number;
};
struct kru_cursor {
  int number;
};
EOF
PATH=$present:$PATH run 1 test
for line in 1:constexpr 7: 9:struct; do expect "comm/names.h:$line"; done
for line in 2 3 5 6 10 12; do expect_no "comm/names.h:$line:"; done

# What a command would do is not done for somebody who asks for help.
run 0 test --help
expect "usage: ./dev COMMAND"
expect_no "==>"
echo "./dev says what failed in which run, what root has to install, and which subject is too long"
