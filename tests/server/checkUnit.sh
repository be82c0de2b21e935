#!/bin/bash
# checkUnit.sh CORVANED PACKAGING: systemd takes the unit, the user that it names is one that the
# packaging describes and that can read the accounts, and corvaned knows each option of corvaned.conf.
set -euo pipefail

corvaned=$1
packaging=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$*" >&2
  exit 1
}

sed "s#/usr/bin/corvaned#$corvaned#" "$packaging/corvaned.service" >"$work/corvaned.service"
said=$(systemd-analyze verify --man=no "$work/corvaned.service" 2>&1) || fail "$said"
[[ -z $said ]] || fail "$said"

# Wrong options, with which corvaned ends with 2, are not tried again and again.
grep -qx "RestartPreventExitStatus=2" "$packaging/corvaned.service" ||
  fail "the unit would restart a server that refuses its options"

# A user that comes and goes could not keep a file that nobody else can read.
user=$(sed -n 's/^User=//p' "$packaging/corvaned.service")
[[ -n $user ]] || fail "the unit names no user"
grep -q "^u $user " "$packaging/corvaned.sysusers" || fail "the user $user is nowhere described"

help=$("$corvaned" --help)
options=$(sed -En 's/^(# )?([a-z-]+) = .*/\2/p' "$packaging/corvaned.conf")
[[ $(wc -w <<<"$options") -ge 4 ]] || fail "corvaned.conf has hardly any options: $options"
for option in $options; do
  [[ $help == *"--$option "* ]] || fail "corvaned does not know the option $option"
done

state=$(sed -n 's/^StateDirectory=//p' "$packaging/corvaned.service")
users=$(sed -En 's/^# users = "(.*)"/\1/p' "$packaging/corvaned.conf")
[[ $users == "/var/lib/$state/"* ]] || fail "the accounts are outside of the server's own directory"
